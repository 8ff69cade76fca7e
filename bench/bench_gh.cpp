// Migration graph of a real landscape: graph from the half paths, cycle basis, and the
// percolation network by the pruned search against the reference search over all pairs and
// triples of cycles. The landscape is computed once per structure (resolution from the
// benchmark arguments); each benchmark then works on the same graph and cycle list.
#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <string>

#include "bench_common.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-reference.hpp"

namespace {

struct prepared {
    quovix_fpcube_ptr fpcube;
    quovix_fphalf_list_ptr half;
    quovix_fft_ptr fft;
    quovix_cell_ptr cell;
    quovix_property_ptr ppt;
    quovix_graph_ptr graph;
    quovix_graph_ptr super;  // the graph replicated, when asked for
    quovix_owner<QUOVIX_LIST, quovix_list_free> cycles;
};

prepared &prepare(const std::string &name, const char *type, int os, double resolution,
                  long rep = 1) {
    static std::map<std::string, prepared> cache;
    const std::string key = name + "@" + std::to_string(resolution) + "x" + std::to_string(rep);
    auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    prepared p;
    bench::structure s = bench::read_test_cif(name);
    bench::quiet_stdout quiet;
    QUOVIX_PROPERTY *raw = nullptr;
    quovix_cube_ptr cube{
        quovix_cube_calculate_from_cell(&raw, s.cell.get(), s.sym.get(), type, os, 0.75, resolution,
                                        true, bench::kUnitary.c_str(), bench::kBinary.c_str())};
    p.ppt.reset(raw);
    if (cube) {
        p.fpcube.reset(quovix_fpcube_new_from_cube(cube.get()));
        p.fft.reset(quovix_fft_new_from_cube(cube.get()));
    }
    if (p.fpcube) p.half.reset(quovix_fphalf_list_new_from_fpcube(p.fpcube.get()));
    p.cell = std::move(s.cell);
    if (p.half && p.fft && p.ppt)
        p.graph.reset(
            quovix_graph_new_filled(p.half.get(), p.fft.get(), p.cell.get(), p.ppt.get()));
    if (p.graph && rep > 1) {
        const long s3[3] = {rep, rep, rep};
        p.super.reset(quovix_graph_new_supergraph(p.graph.get(), s3));
    }
    QUOVIX_GRAPH *g = rep > 1 ? p.super.get() : p.graph.get();
    if (g) p.cycles.reset(quovix_graph_cycle_list_new_from_graph(g));
    return cache.emplace(key, std::move(p)).first->second;
}

void graph_build(benchmark::State &state, const char *name, const char *type, int os, double res) {
    prepared &p = prepare(name, type, os, res);
    if (!p.graph) {
        state.SkipWithError("landscape or graph failed");
        return;
    }
    for (auto _ : state) {
        bench::quiet_stdout quiet;
        quovix_graph_ptr g{
            quovix_graph_new_filled(p.half.get(), p.fft.get(), p.cell.get(), p.ppt.get())};
        quovix_owner<QUOVIX_LIST, quovix_list_free> c{
            quovix_graph_cycle_list_new_from_graph(g.get())};
        benchmark::DoNotOptimize(c.get());
    }
    state.counters["sites"] = static_cast<double>(p.graph->total_v);
    state.counters["edges"] = static_cast<double>(p.graph->total_e);
    state.counters["cycles"] = static_cast<double>(quovix_list_count(p.cycles.get()));
}

void network(benchmark::State &state, const char *name, const char *type, int os, double res,
             long rep, bool plain) {
    prepared &p = prepare(name, type, os, res, rep);
    if (!p.cycles) {
        state.SkipWithError("landscape or graph failed");
        return;
    }
    double e[3] = {0, 0, 0};
    for (auto _ : state) {
        quovix_owner<QUOVIX_GRAPH_NETWORK, quovix_graph_network_free> nw{
            plain ? quovix_graph_network_new_from_cycle_list_plain(p.cycles.get())
                  : quovix_graph_network_new_from_cycle_list(p.cycles.get())};
        e[0] = nw->e1;
        e[1] = nw->e2;
        e[2] = nw->e3;
    }
    state.counters["cycles"] = static_cast<double>(quovix_list_count(p.cycles.get()));
    state.counters["e1"] = e[0];
    state.counters["e2"] = e[1];
    state.counters["e3"] = e[2];
}

}  // namespace

// Single-threaded code on both sides (the graph and network are serial). The network search
// is also timed on the graph replicated 2x2x2 (8 times the cycles), where the reference
// search over triples dominates.
BENCHMARK_CAPTURE(graph_build, LiFePO4, "LiFePO4_olivine_P1.cif", "Li", 1, 0.1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(network, LiFePO4_plain, "LiFePO4_olivine_P1.cif", "Li", 1, 0.1, 1, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(network, LiFePO4_fast, "LiFePO4_olivine_P1.cif", "Li", 1, 0.1, 1, false)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(graph_build, Na3PS4, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(network, Na3PS4_plain, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, 1, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(network, Na3PS4_fast, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, 1, false)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(network, Na3PS4_x8_plain, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, 2, true)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(network, Na3PS4_x8_fast, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, 2, false)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
