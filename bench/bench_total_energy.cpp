// Interatomic energy of a cell: plain triple loop (reference) against the image-bounded,
// threaded sum, and the screening-factor fit that calls it, on the largest shared structures.
// Arguments: structure (0..3) and, for the shipped sums, the OpenMP thread count (1 or 2).
#include <benchmark/benchmark.h>
#include <omp.h>

#include <string>

#include "bench_common.hpp"
#include "quovix-reference.hpp"
#include "quovix-rx.hpp"

namespace {

void energy(benchmark::State &state, bool plain) {
    bench::system &s = bench::load_system(bench::kLargeStructures[state.range(0)], false);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    const int threads = plain ? 1 : static_cast<int>(state.range(1));
    omp_set_num_threads(threads);
    for (auto _ : state) {
        const double e =
            plain ? quovix_cell_calculate_total_energy_reference(s.cell.get(), s.ppt.get())
                  : quovix_cell_calculate_total_energy(s.cell.get(), s.ppt.get());
        benchmark::DoNotOptimize(e);
    }
    state.SetLabel(std::string(bench::kLargeStructures[state.range(0)]) + ", " +
                   std::to_string(s.cell->total) + " atoms, " + std::to_string(threads) +
                   (threads == 1 ? " thread" : " threads"));
}

void BM_TotalEnergyPlain(benchmark::State &state) { energy(state, true); }
void BM_TotalEnergy(benchmark::State &state) { energy(state, false); }

void BM_ScreeningFactorFit(benchmark::State &state) {
    bench::system &s = bench::load_system(bench::kLargeStructures[state.range(0)], false);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    const int threads = static_cast<int>(state.range(1));
    omp_set_num_threads(threads);
    for (auto _ : state) {
        bench::quiet_stdout quiet;
        s.ppt->sf = -1.0;
        benchmark::DoNotOptimize(
            quovix_property_calculate_screening_factor(s.ppt.get(), s.cell.get()));
    }
    state.SetLabel(std::string(bench::kLargeStructures[state.range(0)]) + ", sf " +
                   std::to_string(s.ppt->sf) + ", " + std::to_string(threads) +
                   (threads == 1 ? " thread" : " threads"));
    s.ppt->sf = 0.75;
}

}  // namespace

BENCHMARK(BM_TotalEnergyPlain)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TotalEnergy)
    ->ArgsProduct({{0, 1, 2, 3}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ScreeningFactorFit)
    ->ArgsProduct({{0, 1, 2, 3}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
