// Landscape grid: the shipped calculation against the plain reference loop on real cells.
//
// Cases (mobile ion, resolution 0.1 A unless named otherwise):
//   Na3PS4_cubic_2x2x2_P1 (128 atoms, P1, Na+): plain, fast on 1 thread, fast on 2 threads;
//   LiFePO4_olivine_P1 (28 atoms, P1, Li+): fast on 2 threads;
//   Li10GeP2S12_LGPS (P4_2/nmc, 16 operations, Li+): fast on 2 threads.
// The counter "pairs" is the number of pair-energy evaluations (contacts within their cut-off)
// the grid needs, estimated from 4000 sampled grid points; "pairs/s" is its rate.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

#include "bench_common.hpp"
#include "quovix-cube.hpp"
#include "quovix-reference.hpp"

namespace {

struct Loaded {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr symmetry;
    quovix_property_ptr ppt;
    double pairs = 0.0;  // estimated pair evaluations for the whole grid (no symmetry)
};

// Pair evaluations of the grid, estimated by sampling: contacts within the pair cut-off
// (10 A for like charges) over the same translation range as the calculation.
double estimate_pairs(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, const QUOVIX_CUBE *cube) {
    const int m = ppt->conducting;
    double range = 10.0;
    for (int i = 0; i < ppt->total; i++)
        for (int j = 0; j < ppt->total; j++) range = std::max(range, ppt->bin[i][j].cutoff);
    long tr[3];
    for (int k = 0; k < 3; k++) tr[k] = static_cast<long>(range / cell->parameter[k] + 2.0);
    const long samples = 4000;
    unsigned long state = 12345;
    double contacts = 0.0;
    for (long s = 0; s < samples; s++) {
        long idx[3];
        for (int k = 0; k < 3; k++) {
            state = state * 6364136223846793005UL + 1442695040888963407UL;
            idx[k] = static_cast<long>((state >> 33) % static_cast<unsigned long>(cube->n[k]));
        }
        double r[3];
        for (int c = 0; c < 3; c++)
            r[c] = idx[0] * cube->a_i[0][c] + idx[1] * cube->a_i[1][c] + idx[2] * cube->a_i[2][c];
        for (long t = 0; t < cell->total; t++) {
            const QUOVIX_ATOM &atom = cell->atom[t];
            if (atom.ignored) continue;
            const int T = quovix_property_find_index(ppt, atom.type, atom.os);
            const int sign = ppt->os[m] * atom.os;
            if (T < 0 || sign == 0) continue;
            const double cut =
                sign < 0 ? (ppt->os[m] > 0 ? ppt->bin[m][T] : ppt->bin[T][m]).cutoff : 10.0;
            for (long a = -tr[0]; a <= tr[0]; a++)
                for (long b = -tr[1]; b <= tr[1]; b++)
                    for (long c = -tr[2]; c <= tr[2]; c++) {
                        double d2 = 0.0;
                        for (int q = 0; q < 3; q++) {
                            double p = atom.x_f[0] * cell->a[0][q] + atom.x_f[1] * cell->a[1][q] +
                                       atom.x_f[2] * cell->a[2][q] + a * cell->a[0][q] +
                                       b * cell->a[1][q] + c * cell->a[2][q];
                            d2 += (p - r[q]) * (p - r[q]);
                        }
                        contacts += std::sqrt(d2) <= cut;
                    }
        }
    }
    return contacts / samples * static_cast<double>(cube->n[0] * cube->n[1] * cube->n[2]);
}

Loaded &structure(const char *file, const char *type, int os) {
    static std::map<std::string, Loaded> cache;
    Loaded &s = cache[file];
    if (s.ppt) return s;
    const std::string path = std::string(QUOVIX_TEST_DATA_DIR) + "/" + file;
    QUOVIX_CELL *cell = nullptr;
    QUOVIX_SYMMETRY *symmetry = nullptr;
    bench::quiet_stdout quiet;
    if (quovix_cell_import_cif_from_file(&cell, &symmetry, path.c_str(), bench::kSymcards.c_str(),
                                         bench::kUnitary.c_str()) == 0) {
        s.cell.reset(cell);
        s.symmetry.reset(symmetry);
        // A fixed screening factor: the benchmark times the grid, not the fit.
        s.ppt.reset(quovix_property_import_from_cell(cell, type, os, 0.8, bench::kUnitary.c_str(),
                                                     bench::kBinary.c_str()));
    }
    return s;
}

void run(benchmark::State &state, const char *file, const char *type, int os, double res,
         bool plain, int threads) {
    Loaded &s = structure(file, type, os);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    omp_set_num_threads(threads);
    long points = 0;
    for (auto _ : state) {
        QUOVIX_CUBE *cube = nullptr;
        {
            bench::quiet_stdout quiet;
            cube = plain ? quovix_cube_calculate_plain(s.cell.get(), s.symmetry.get(), s.ppt.get(),
                                                       res, true)
                         : quovix_cube_calculate(s.cell.get(), s.symmetry.get(), s.ppt.get(), res,
                                                 true);
        }
        if (!cube) {
            state.SkipWithError("calculation failed");
            return;
        }
        points = cube->n[0] * cube->n[1] * cube->n[2];
        if (s.pairs == 0.0 && s.symmetry && s.symmetry->total == 1)
            s.pairs = estimate_pairs(s.cell.get(), s.ppt.get(), cube);
        quovix_cube_free(cube);
    }
    state.counters["points"] = static_cast<double>(points);
    state.counters["threads"] = threads;
    if (s.pairs > 0.0) {
        state.counters["pairs"] = s.pairs;
        state.counters["pairs/s"] =
            benchmark::Counter(s.pairs, benchmark::Counter::kIsIterationInvariantRate);
    }
}

}  // namespace

BENCHMARK_CAPTURE(run, Na3PS4_plain, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, true, 1)
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK_CAPTURE(run, Na3PS4_fast_1thread, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, false, 1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(run, Na3PS4_fast_2threads, "Na3PS4_cubic_2x2x2_P1.cif", "Na", 1, 0.1, false, 2)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(run, LiFePO4_fast_2threads, "LiFePO4_olivine_P1.cif", "Li", 1, 0.1, false, 2)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->UseRealTime();
BENCHMARK_CAPTURE(run, LGPS_fast_2threads, "Li10GeP2S12_LGPS.cif", "Li", 1, 0.1, false, 2)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

BENCHMARK_MAIN();
