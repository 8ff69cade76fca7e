// Molecular-dynamics step of the mobile ions: the plain force loop (every free ion, every atom,
// every lattice image; the test reference) against the neighbour-list loop, each inside a full
// Langevin step, on 1 and 2 threads. Inputs: Ag7PSe6 as a 2x2x1 supercell (224 atoms, 112 free
// Ag+) and Na3PS4 (128 atoms, 48 free Na+). Rates are reported as ion-steps per second.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_common.hpp"
#include "quovix-md.hpp"
#include "quovix-reference.hpp"

namespace {

struct md_input {
    const char *file;
    const char *type;
    long super[3];
};
const md_input kInputs[] = {{"Ag7PSe6_argyrodite.cif", "Ag", {2, 2, 1}},
                            {"Na3PS4_cubic_2x2x2_P1.cif", "Na", {1, 1, 1}}};

// A run on the input at 600 K, warmed up by 50 steps so that the ions are off their sites.
quovix_md_ptr make_run(const md_input &in) {
    bench::structure read = bench::read_test_cif(in.file);
    if (!read.cell) return nullptr;
    bench::quiet_stdout quiet;
    quovix_cell_ptr cell{quovix_cell_supercell(read.cell.get(), in.super)};
    if (!cell) return nullptr;
    quovix_property_ptr ppt{quovix_property_import_from_cell(
        cell.get(), nullptr, 0, 0.75, bench::kUnitary.c_str(), bench::kBinary.c_str())};
    if (!ppt) return nullptr;
    for (long i = 0; i < cell->total; ++i) {
        QUOVIX_ATOM &a = cell->atom[i];
        a.ignored = a.os != 1 || std::strcmp(a.type, in.type) != 0;
    }
    if (quovix_property_set_conducting(ppt.get(), in.type, 1) != 0) return nullptr;
    quovix_md_ptr md{quovix_md_new(cell.get(), ppt.get(), nullptr)};
    if (!md) return nullptr;
    md->temperature_target = 600.0;
    std::srand(1);
    if (quovix_md_init_vv(md.get(), false) != 0) return nullptr;
    for (int k = 0; k < 50; ++k)
        if (quovix_md_update_vv_langevin(md.get()) != 0) return nullptr;
    return md;
}

// The Langevin step of quovix_md_update_vv_langevin with the plain force loop.
int plain_step(QUOVIX_MD *md) {
    const long n = md->cell->total;
    quovix_matrixn3_double_random_normal(md->r, n, 0.0, 1.0);
    if (quovix_md_calculate_v_vv_langevin(md) != 0 || quovix_md_calculate_x_vv(md) != 0) return 1;
    if (quovix_md_calculate_interaction_plain(md, md->f, nullptr, nullptr) != 0) return 1;
    quovix_matrixn3_double_random_normal(md->r, n, 0.0, 1.0);
    return quovix_md_calculate_v_vv_langevin(md);
}

void step(benchmark::State &state, bool plain) {
    const md_input &in = kInputs[state.range(0)];
    const int threads = static_cast<int>(state.range(1));
    quovix_md_ptr md = make_run(in);
    if (!md) {
        state.SkipWithError("structure not loaded");
        return;
    }
    omp_set_num_threads(threads);
    for (auto _ : state) {
        const int status = plain ? plain_step(md.get()) : quovix_md_update_vv_langevin(md.get());
        if (status != 0) {
            state.SkipWithError("step failed");
            break;
        }
    }
    omp_set_num_threads(2);
    state.counters["ion_steps_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(md->total_free),
        benchmark::Counter::kIsRate);
    state.SetLabel(std::string(in.file) + " x" + std::to_string(in.super[0]) +
                   std::to_string(in.super[1]) + std::to_string(in.super[2]) + ", " +
                   std::to_string(md->cell->total) + " atoms, " + std::to_string(md->total_free) +
                   " free, " + std::to_string(threads) + " threads");
}

void BM_MdStepPlain(benchmark::State &state) { step(state, true); }
void BM_MdStep(benchmark::State &state) { step(state, false); }

}  // namespace

BENCHMARK(BM_MdStepPlain)
    ->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_MdStep)->ArgsProduct({{0, 1}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
