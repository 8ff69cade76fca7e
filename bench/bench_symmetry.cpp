// Symmetry hot paths: expansion of the faujasite asymmetric unit to its 576-atom cell
// (duplicate removal and sort) and the space-group search over all settings on a ~500-atom
// P1 cell, each as the plain all-pairs reference against the binned version shipped.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench_common.hpp"
#include "quovix-reference.hpp"

namespace {

using bench::kSymcards;
using bench::structure;

// Faujasite: its cell, symmetry and asymmetric unit (one atom per orbit).
struct Faujasite {
    structure full;
    quovix_cell_ptr asym;
    Faujasite() : full(bench::read_test_cif("FAU_faujasite_SiO2.cif")) {
        if (full.cell) asym.reset(quovix_cell_reduce_by_symmetry(full.cell.get(), full.sym.get()));
    }
};
const Faujasite &faujasite() {
    static const Faujasite f;
    return f;
}

void expand(benchmark::State &state, bool fast) {
    const Faujasite &f = faujasite();
    if (!f.asym) {
        state.SkipWithError("faujasite not readable");
        return;
    }
    const QUOVIX_SYMMETRY *sym = f.full.sym.get();
    long atoms = 0;
    for (auto _ : state) {
        const long n = f.asym->total * sym->total;
        QUOVIX_ATOM *raw = quovix_atom_new(n);
        for (long i = 0; i < f.asym->total; ++i) {
            for (int k = 0; k < sym->total; ++k) {
                raw[i * sym->total + k] =
                    quovix_atom_spawn_by_card(&f.asym->atom[i], &sym->card[k]);
            }
        }
        long total = n;
        if (fast) {
            quovix_atom_remove_duplicate(&raw, &total);
            quovix_atom_sort(raw, total);
        } else {
            quovix_atom_remove_duplicate_plain(&raw, &total);
            quovix_atom_sort_plain(raw, total);
        }
        atoms = total;
        quovix_atom_free(raw);
    }
    state.counters["atoms"] = static_cast<double>(atoms);
}
void BM_ExpandFaujasitePlain(benchmark::State &state) { expand(state, false); }
void BM_ExpandFaujasiteBinned(benchmark::State &state) { expand(state, true); }

// Site numbers of the 576-atom faujasite cell under its 192 operations.
void flag_sites(benchmark::State &state, bool fast) {
    const Faujasite &f = faujasite();
    if (!f.full.cell) {
        state.SkipWithError("faujasite not readable");
        return;
    }
    for (auto _ : state) {
        if (fast) {
            quovix_cell_flag_site_by_symmetry(f.full.cell.get(), f.full.sym.get());
        } else {
            quovix_cell_flag_site_by_symmetry_plain(f.full.cell.get(), f.full.sym.get());
        }
    }
}
void BM_FlagSitesFaujasitePlain(benchmark::State &state) { flag_sites(state, false); }
void BM_FlagSitesFaujasiteBinned(benchmark::State &state) { flag_sites(state, true); }

// A 512-atom P1 cell: rock salt 4 x 4 x 4, which fits 180 settings, each validated in full.
quovix_cell_ptr rock_salt_512() {
    quovix_cell_ptr cell(quovix_cell_new(8));
    const double na[4][3] = {{0, 0, 0}, {0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}};
    for (int i = 0; i < 8; ++i) {
        QUOVIX_ATOM &a = cell->atom[i];
        const bool cl = i >= 4;
        std::snprintf(a.name, sizeof a.name, cl ? "Cl1" : "Na1");
        std::snprintf(a.type, sizeof a.type, cl ? "Cl" : "Na");
        a.os = cl ? -1 : 1;
        a.occ = 1.0;
        for (int k = 0; k < 3; ++k) a.x_f[k] = cl ? (na[i - 4][k] == 0.0 ? 0.5 : 0.0) : na[i][k];
    }
    for (int k = 0; k < 3; ++k) {
        cell->parameter[k] = 5.62;
        cell->angle[k] = 90.0;
    }
    quovix_cell_update_cartesion(cell.get());
    const long m[3] = {4, 4, 4};
    return quovix_cell_ptr(quovix_cell_supercell(cell.get(), m));
}

void cal_sym(benchmark::State &state, bool fast) {
    quovix_cell_ptr cell = rock_salt_512();
    int id = 0;
    for (auto _ : state) {
        bench::quiet_stdout quiet;
        quovix_symmetry_ptr found(
            fast ? quovix_symmetry_calculate_from_cell(cell.get(), -1.0, kSymcards.c_str())
                 : quovix_symmetry_calculate_from_cell_plain(cell.get(), -1.0, kSymcards.c_str()));
        id = found ? found->sg_id : 0;
    }
    state.counters["atoms"] = static_cast<double>(cell->total);
    state.counters["space_group"] = id;
}
void BM_CalSymRockSalt512Plain(benchmark::State &state) { cal_sym(state, false); }
void BM_CalSymRockSalt512Binned(benchmark::State &state) { cal_sym(state, true); }

// The sodium thiophosphate snapshot (128 atoms, distorted) fits P 1 only: most settings
// fail at their first operations.
void cal_sym_distorted(benchmark::State &state, bool fast) {
    const structure s = bench::read_test_cif("Na3PS4_cubic_2x2x2_P1.cif");
    if (!s.cell) {
        state.SkipWithError("Na3PS4 not readable");
        return;
    }
    const long m[3] = {2, 2, 1};
    quovix_cell_ptr big(quovix_cell_supercell(s.cell.get(), m));  // 512 atoms
    for (auto _ : state) {
        bench::quiet_stdout quiet;
        quovix_symmetry_ptr found(
            fast ? quovix_symmetry_calculate_from_cell(big.get(), -1.0, kSymcards.c_str())
                 : quovix_symmetry_calculate_from_cell_plain(big.get(), -1.0, kSymcards.c_str()));
        benchmark::DoNotOptimize(found.get());
    }
    state.counters["atoms"] = static_cast<double>(big->total);
}
void BM_CalSymNa3PS4_512Plain(benchmark::State &state) { cal_sym_distorted(state, false); }
void BM_CalSymNa3PS4_512Binned(benchmark::State &state) { cal_sym_distorted(state, true); }

// Atoms of a P1 rock-salt supercell listed in file order, species alternating and labels
// numbered through (Na1, Cl2, Na3, ...): the order in which a supercell is usually written,
// and the worst case of the exchange sort's swap count.
std::vector<QUOVIX_ATOM> alternating_atoms(long n) {
    std::vector<QUOVIX_ATOM> atoms(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) {
        QUOVIX_ATOM &a = atoms[static_cast<std::size_t>(i)];
        a = QUOVIX_ATOM{};
        const bool cl = i % 2 == 1;
        std::snprintf(a.name, sizeof a.name, "%s%ld", cl ? "Cl" : "Na", i);
        std::snprintf(a.type, sizeof a.type, cl ? "Cl" : "Na");
        a.os = cl ? -1 : 1;
        a.occ = 1.0;
    }
    return atoms;
}

void sort_alternating(benchmark::State &state, bool fast) {
    const std::vector<QUOVIX_ATOM> atoms = alternating_atoms(state.range(0));
    for (auto _ : state) {
        std::vector<QUOVIX_ATOM> work = atoms;
        if (fast) {
            quovix_atom_sort(work.data(), state.range(0));
        } else {
            quovix_atom_sort_plain(work.data(), state.range(0));
        }
        benchmark::DoNotOptimize(work.data());
    }
    state.counters["atoms"] = static_cast<double>(state.range(0));
}
void BM_SortAlternatingPlain(benchmark::State &state) { sort_alternating(state, false); }
void BM_SortAlternatingFast(benchmark::State &state) { sort_alternating(state, true); }

}  // namespace

BENCHMARK(BM_SortAlternatingPlain)
    ->Unit(benchmark::kMillisecond)
    ->Arg(4096)
    ->Arg(16384)
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_SortAlternatingFast)
    ->Unit(benchmark::kMillisecond)
    ->Arg(4096)
    ->Arg(16384)
    ->Arg(65536)
    ->Arg(1000000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ExpandFaujasitePlain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandFaujasiteBinned)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FlagSitesFaujasitePlain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FlagSitesFaujasiteBinned)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalSymRockSalt512Plain)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CalSymRockSalt512Binned)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CalSymNa3PS4_512Plain)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CalSymNa3PS4_512Binned)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
