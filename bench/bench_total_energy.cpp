// Interatomic energy of a cell: plain triple loop (reference) against the image-bounded,
// threaded sum, and the screening-factor fit that calls it, on the largest shared structures.
#include <benchmark/benchmark.h>

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
    for (auto _ : state) {
        const double e =
            plain ? quovix_cell_calculate_total_energy_reference(s.cell.get(), s.ppt.get())
                  : quovix_cell_calculate_total_energy(s.cell.get(), s.ppt.get());
        benchmark::DoNotOptimize(e);
    }
    state.SetLabel(std::string(bench::kLargeStructures[state.range(0)]) + ", " +
                   std::to_string(s.cell->total) + " atoms");
}

void BM_TotalEnergyPlain(benchmark::State &state) { energy(state, true); }
void BM_TotalEnergy(benchmark::State &state) { energy(state, false); }

void BM_ScreeningFactorFit(benchmark::State &state) {
    bench::system &s = bench::load_system(bench::kLargeStructures[state.range(0)], false);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    for (auto _ : state) {
        bench::quiet_stdout quiet;
        s.ppt->sf = -1.0;
        benchmark::DoNotOptimize(
            quovix_property_calculate_screening_factor(s.ppt.get(), s.cell.get()));
    }
    state.SetLabel(std::string(bench::kLargeStructures[state.range(0)]) + ", sf " +
                   std::to_string(s.ppt->sf));
    s.ppt->sf = 0.75;
}

}  // namespace

BENCHMARK(BM_TotalEnergyPlain)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TotalEnergy)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScreeningFactorFit)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
