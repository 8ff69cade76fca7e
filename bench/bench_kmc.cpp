// Kinetic Monte Carlo step: the plain step (sum every rate, scan every edge, refresh by
// scanning) against the fast step (sum tree, logarithmic pick, local refresh).
//
// Cases: a periodic simple-cubic lattice of n^3 sites, 2.5 A apart, six hops per site, one ion
// on every fifth site, Coulomb cut-off 5 A (about 32 interacting neighbours per site), 600 K;
// n = 12 gives 1728 sites and 10368 edges, n = 20 gives 8000 sites and 48000 edges. Both
// steps run single-threaded on the same state; the counter "steps/s" is the step rate.
// BM_kmc_run_1e6 times a whole production run of 1e6 fast steps on the n = 12 lattice.
// Real structures (argument 0: Li10GeP2S12, 1: Li6PS5Cl, default supercell for a 5 A cut-off;
// 2: Li6PS5Cl in a 3x3x3 supercell; Li+, landscape at 0.1 A, sf 0.75, 300 K): plain and fast
// steps, and 1e6 fast steps on the default supercells.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_common.hpp"
#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-kmc.hpp"
#include "quovix-reference.hpp"

namespace {

constexpr double kSpacing = 2.5;

quovix_graph_ptr cubic_graph(int n) {
    const long nv = static_cast<long>(n) * n * n;
    quovix_graph_ptr g{quovix_graph_new(nv, 6 * nv)};
    const double len = n * kSpacing;
    for (int k = 0; k < 3; ++k) g->a[k][k] = len;
    g->volume = len * len * len;
    g->type[0] = 'L';
    g->type[1] = 'i';
    g->os = 1;
    g->m = 6.94;
    auto id = [n](int i, int j, int k) {
        return ((static_cast<long>((i + n) % n) * n) + (j + n) % n) * n + (k + n) % n;
    };
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < n; ++k) {
                QUOVIX_GRAPH_VERTEX &v = g->v[id(i, j, k)];
                v.x[0] = i * kSpacing;
                v.x[1] = j * kSpacing;
                v.x[2] = k * kSpacing;
                for (int c = 0; c < 3; ++c) {
                    v.eig[c] = 2.0;
                    v.eiv[c][c] = 1.0;
                }
                v.index = id(i, j, k);
                v.occ = (v.index % 5 == 0) ? 1.0 : 0.0;
                g->total_occ += v.occ;
            }
    g->c = g->total_occ / g->volume;
    long e = 0;
    for (long vi = 0; vi < nv; ++vi) {
        const int i = static_cast<int>(vi / (n * n)), j = static_cast<int>(vi / n % n),
                  k = static_cast<int>(vi % n);
        const int step[6][3] = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
        for (const auto &s : step) {
            QUOVIX_GRAPH_EDGE &ed = g->e[e];
            ed.index = e++;
            ed.v_i = &g->v[vi];
            ed.v_f = &g->v[id(i + s[0], j + s[1], k + s[2])];
            const int to[3] = {i + s[0], j + s[1], k + s[2]};
            for (int c = 0; c < 3; ++c) {
                ed.bound[c] = to[c] < 0 ? -1 : (to[c] >= n ? 1 : 0);
                ed.dir[c] = s[c];
                ed.x[c] = ed.v_i->x[c] + 0.5 * kSpacing * s[c];
            }
            ed.en = 0.25;
            ed.l = kSpacing;
        }
    }
    return g;
}

struct setup {
    quovix_graph_ptr graph;
    quovix_property_ptr ppt;
    quovix_kmc_ptr kmc;
};

setup make(int n) {
    setup s;
    s.graph = cubic_graph(n);
    s.ppt.reset(quovix_property_new(1));
    s.ppt->conducting = 0;
    s.ppt->sf = 0.75;
    s.ppt->uni[0].q = 1.0;
    s.ppt->uni[0].rc = 0.7;
    s.kmc.reset(quovix_kmc_new(s.graph.get(), s.ppt.get(), 5.0));
    if (s.kmc && quovix_kmc_set_parameters(s.kmc.get(), 600.0, 0.0, 0, 0) == 0) {
        std::srand(1);
        quovix_kmc_init(s.kmc.get());
    }
    return s;
}

void step_bench(benchmark::State &state, bool plain) {
    setup s = make(static_cast<int>(state.range(0)));
    if (!s.kmc) {
        state.SkipWithError("set-up failed");
        return;
    }
    std::srand(7);
    long steps = 0;
    for (auto _ : state) {
        if ((plain ? quovix_kmc_evolve_plain(s.kmc.get()) : quovix_kmc_evolve(s.kmc.get())) != 0) {
            state.SkipWithError("step failed");
            return;
        }
        ++steps;
    }
    state.counters["edges"] = static_cast<double>(s.graph->total_e);
    state.counters["steps/s"] =
        benchmark::Counter(static_cast<double>(steps), benchmark::Counter::kIsRate);
}

void BM_kmc_step_plain(benchmark::State &state) { step_bench(state, true); }
void BM_kmc_step_fast(benchmark::State &state) { step_bench(state, false); }

void BM_kmc_run_1e6(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        setup s = make(12);
        s.kmc->step_limit = 1000000;
        s.kmc->step_log = 0;
        s.kmc->step_equil = 0;
        std::srand(3);
        state.ResumeTiming();
        if (quovix_kmc_run(s.kmc.get()) != 0) {
            state.SkipWithError("run failed");
            return;
        }
        state.PauseTiming();
        s.kmc.reset();  // the state before its graph
        state.ResumeTiming();
    }
}

/// Migration graph of a shared structure (landscape at 0.1 A, sf 0.75), replicated by the
/// default rule for a 5 A cut-off; built once per name, messages silenced.
struct real_case {
    quovix_property_ptr ppt;
    quovix_graph_ptr graph;
};

real_case &real(const char *name, const char *type, int replicas) {
    static std::map<std::string, real_case> cache;
    const std::string key = std::string(name) + "/" + std::to_string(replicas);
    auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    real_case r;
    bench::structure st = bench::read_test_cif(name);
    bench::quiet_stdout quiet;
    QUOVIX_PROPERTY *raw = nullptr;
    quovix_cube_ptr cube{st.cell ? quovix_cube_calculate_from_cell(
                                       &raw, st.cell.get(), st.sym.get(), type, 1, 0.75, 0.1, true,
                                       bench::kUnitary.c_str(), bench::kBinary.c_str())
                                 : nullptr};
    r.ppt.reset(raw);
    if (cube) {
        quovix_fpcube_ptr fp{quovix_fpcube_new_from_cube(cube.get())};
        quovix_fft_ptr fft{quovix_fft_new_from_cube(cube.get())};
        quovix_fphalf_list_ptr half{fp ? quovix_fphalf_list_new_from_fpcube(fp.get()) : nullptr};
        if (fft && half && quovix_fphalf_list_filter(half.get(), -1.0) == 0) {
            quovix_graph_ptr g{
                quovix_graph_new_filled(half.get(), fft.get(), st.cell.get(), r.ppt.get())};
            if (g) {
                int s[3] = {replicas, replicas, replicas};
                if (replicas <= 0) quovix_kmc_supercell_default(s, g->a, 5.0);
                const long sl[3] = {s[0], s[1], s[2]};
                r.graph.reset(quovix_graph_new_supergraph(g.get(), sl));
            }
        }
    }
    return cache.emplace(key, std::move(r)).first->second;
}

quovix_kmc_ptr real_state(real_case &r) {
    if (!r.graph || !r.ppt) return nullptr;
    bench::quiet_stdout quiet;
    quovix_kmc_ptr kmc{quovix_kmc_new(r.graph.get(), r.ppt.get(), 5.0)};
    if (kmc && quovix_kmc_set_parameters(kmc.get(), 300.0, 0.0, 0, 0) == 0) {
        std::srand(1);
        if (quovix_kmc_init(kmc.get()) != 0) kmc.reset();
    }
    return kmc;
}

struct real_name {
    const char *cif;
    const char *type;
    int replicas;  // per axis; 0: the default supercell
};
const real_name kReal[] = {{"Li10GeP2S12_LGPS.cif", "Li", 0},
                           {"Li6PS5Cl_argyrodite.cif", "Li", 0},
                           {"Li6PS5Cl_argyrodite.cif", "Li", 3}};

void real_step_bench(benchmark::State &state, bool plain) {
    real_case &r =
        real(kReal[state.range(0)].cif, kReal[state.range(0)].type, kReal[state.range(0)].replicas);
    quovix_kmc_ptr kmc = real_state(r);
    if (!kmc) {
        state.SkipWithError("set-up failed");
        return;
    }
    std::srand(7);
    long steps = 0;
    for (auto _ : state) {
        if ((plain ? quovix_kmc_evolve_plain(kmc.get()) : quovix_kmc_evolve(kmc.get())) != 0) {
            state.SkipWithError("step failed");
            return;
        }
        ++steps;
    }
    state.counters["edges"] = static_cast<double>(r.graph->total_e);
    state.counters["steps/s"] =
        benchmark::Counter(static_cast<double>(steps), benchmark::Counter::kIsRate);
}

void BM_kmc_real_step_plain(benchmark::State &state) { real_step_bench(state, true); }
void BM_kmc_real_step_fast(benchmark::State &state) { real_step_bench(state, false); }

/// 1e6 fast production steps on the real supercell graph (set-up outside the timing).
void BM_kmc_real_run_1e6(benchmark::State &state) {
    real_case &r =
        real(kReal[state.range(0)].cif, kReal[state.range(0)].type, kReal[state.range(0)].replicas);
    for (auto _ : state) {
        state.PauseTiming();
        quovix_kmc_ptr kmc = real_state(r);
        if (!kmc) {
            state.SkipWithError("set-up failed");
            return;
        }
        kmc->step_limit = 1000000;
        kmc->step_equil = 0;
        std::srand(3);
        state.ResumeTiming();
        if (quovix_kmc_run(kmc.get()) != 0) {
            state.SkipWithError("run failed");
            return;
        }
    }
}

}  // namespace

BENCHMARK(BM_kmc_real_step_plain)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_kmc_real_step_fast)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_kmc_real_run_1e6)->DenseRange(0, 1)->Unit(benchmark::kSecond)->Iterations(1);
BENCHMARK(BM_kmc_step_plain)->Arg(12)->Arg(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_kmc_step_fast)->Arg(12)->Arg(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_kmc_run_1e6)->Unit(benchmark::kSecond)->Iterations(1);

BENCHMARK_MAIN();
