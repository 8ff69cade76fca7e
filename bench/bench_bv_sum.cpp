// Bond valence sums of a flagged cell: plain loop over all images (reference) against the
// image-bounded, threaded sum, on the largest shared structures.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_common.hpp"
#include "quovix-bv.hpp"
#include "quovix-reference.hpp"

namespace {

void bv_sum(benchmark::State &state, bool plain) {
    bench::system &s = bench::load_system(bench::kLargeStructures[state.range(0)], true);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    for (auto _ : state) {
        quovix_bv_ptr bv{
            plain ? quovix_bv_calculate_from_flagged_cell_reference(s.cell.get(), s.ppt.get())
                  : quovix_bv_calculate_from_flagged_cell(s.cell.get(), s.ppt.get())};
        benchmark::DoNotOptimize(bv.get());
    }
    state.SetLabel(std::string(bench::kLargeStructures[state.range(0)]) + ", " +
                   std::to_string(s.cell->total) + " atoms");
}

void BM_BvSumPlain(benchmark::State &state) { bv_sum(state, true); }
void BM_BvSum(benchmark::State &state) { bv_sum(state, false); }

}  // namespace

BENCHMARK(BM_BvSumPlain)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BvSum)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
