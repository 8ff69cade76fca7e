// Cell operations: lattice and coordinates, periodic distance, names, supercells,
// deformation, random resolution of partial occupancies and the CIF writer.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "temp_dir.hpp"

using namespace test_import;

namespace {

quovix_cell_ptr cell_of_size(long n, double a, double b, double c) {
    quovix_cell_ptr cell(quovix_cell_new(n));
    const double par[3] = {a, b, c};
    for (int k = 0; k < 3; ++k) {
        cell->parameter[k] = par[k];
        cell->angle[k] = 90.0;
    }
    for (long i = 0; i < n; ++i) {
        std::strcpy(cell->atom[i].type, "Li");
        cell->atom[i].os = 1;
        cell->atom[i].occ = 1.0;
        cell->atom[i].x_f[0] = static_cast<double>(i) / static_cast<double>(n);
    }
    quovix_cell_update_cartesion(cell.get());
    return cell;
}

// Multiples chosen by the default supercell rule, read back from the cell lengths.
std::vector<long> default_multiples(long n, double a, double b, double c) {
    auto cell = cell_of_size(n, a, b, c);
    quovix_cell_ptr super(quovix_cell_supercell_default(cell.get()));
    if (!super) return {};
    return {std::lround(super->parameter[0] / a), std::lround(super->parameter[1] / b),
            std::lround(super->parameter[2] / c)};
}

double total_charge(const QUOVIX_CELL *cell) {
    double q = 0.0;
    for (long i = 0; i < cell->total; ++i) q += cell->atom[i].occ * cell->atom[i].os;
    return q;
}

// Smallest periodic distance between two atoms of the cell.
double closest_pair(QUOVIX_CELL *cell) {
    double best = 1e30;
    for (long i = 0; i < cell->total; ++i) {
        for (long j = i + 1; j < cell->total; ++j) {
            best = std::min(
                best, quovix_cell_min_distance_btw_atoms(cell, &cell->atom[i], &cell->atom[j]));
        }
    }
    return best;
}

}  // namespace

// ------------------------------------------------------------------ lattice and coordinates

TEST(Lattice, MatrixUsesTheTruncatedDegreeFactor) {
    const double par[3] = {3.0, 3.0, 5.0}, ang[3] = {90.0, 90.0, 120.0};
    auto cell = make_cell(par, ang, {{"A", "Li", 1, 1.0 / 3.0, 2.0 / 3.0, 0.5, 1.0}});
    const double(*a)[3] = cell->a;
    EXPECT_EQ(a[0][0], 3.0);
    EXPECT_NEAR(a[1][0], -1.5, 1e-7);
    EXPECT_NEAR(a[1][1], 2.598076211, 1e-7);
    // 90 degrees times 0.0174532925 falls 1.8e-9 short of pi/2: cos is 1.8e-9, not 0.
    EXPECT_NEAR(a[2][0], 5.0 * 1.7949e-9, 1e-12);
    EXPECT_NEAR(a[2][2], 5.0, 1e-12);
    EXPECT_NEAR(quovix_cell_calculate_volume(cell.get()), 3.0 * 3.0 * std::sqrt(3.0) / 2.0 * 5.0,
                1e-6);
    // Atom at (1/3, 2/3, 1/2): x = (0, sqrt(3), 2.5).
    EXPECT_NEAR(cell->atom[0].x[0], 0.0, 1e-7);
    EXPECT_NEAR(cell->atom[0].x[1], std::sqrt(3.0), 1e-7);
    EXPECT_NEAR(cell->atom[0].x[2], 2.5, 1e-12);
}

TEST(Lattice, ConstantsAndCoordinatesRoundTrip) {
    const double par[3] = {4.0, 5.0, 6.0}, ang[3] = {80.0, 95.0, 110.0};
    auto cell = make_cell(
        par, ang, {{"A", "O", -2, 0.1, 0.2, 0.3, 1.0}, {"B", "O", -2, 0.9, 0.05, 0.7, 1.0}});
    quovix_cell_update_lattice_fractional(cell.get());
    for (int k = 0; k < 3; ++k) {
        EXPECT_NEAR(cell->parameter[k], par[k], 1e-10);
        EXPECT_NEAR(cell->angle[k], ang[k], 1e-8);
    }
    std::vector<double> frac;
    for (long i = 0; i < cell->total; ++i)
        frac.insert(frac.end(), cell->atom[i].x_f, cell->atom[i].x_f + 3);
    for (long i = 0; i < cell->total; ++i)
        cell->atom[i].x_f[0] = cell->atom[i].x_f[1] = cell->atom[i].x_f[2] = -1;
    quovix_cell_update_fractional(cell.get());
    for (long i = 0; i < cell->total; ++i) {
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(cell->atom[i].x_f[k], frac[static_cast<std::size_t>(3 * i + k)], 1e-12);
    }
}

TEST(Lattice, BoundingAndPeriodicDistance) {
    auto cell = cubic_cell(
        10.0, {{"A", "Li", 1, 0.05, 0.5, 0.5, 1.0}, {"B", "Li", 1, 0.95, 0.5, 0.5, 1.0}});
    EXPECT_NEAR(quovix_cell_min_distance_btw_atoms(cell.get(), &cell->atom[0], &cell->atom[1]), 1.0,
                1e-12);
    // Only shifts of -1, 0, 1 cells: an atom two cells away stays 10 A off.
    cell->atom[1].x_f[0] = 2.05;
    quovix_cell_update_coordinate_cartesion(cell.get());
    EXPECT_NEAR(quovix_cell_min_distance_btw_atoms(cell.get(), &cell->atom[0], &cell->atom[1]),
                10.0, 1e-12);
    cell->atom[0].x_f[0] = 1.0;
    cell->atom[0].x_f[1] = -0.25;
    cell->atom[0].x_f[2] = -1e-17;
    quovix_cell_bound_fractional(cell.get());
    EXPECT_EQ(cell->atom[0].x_f[0], 0.0);
    EXPECT_EQ(cell->atom[0].x_f[1], 0.75);
    EXPECT_EQ(cell->atom[0].x_f[2], 0.0);
    EXPECT_NEAR(cell->atom[1].x_f[0], 0.05, 1e-12);
}

TEST(CellName, RunsOfSpeciesWithinTheField) {
    auto cell = cubic_cell(5.0, {{"O1", "O", -2, 0, 0, 0, 1.0},
                                 {"Li1", "Li", 1, 0.5, 0, 0, 0.5},
                                 {"Li2", "Li", 1, 0, 0.5, 0, 0.25},
                                 {"Fe1", "Fe", 3, 0, 0, 0.5, 1.0}});
    quovix_cell_update_name(cell.get());
    EXPECT_STREQ(cell->name, "Fe3+:1.000 Li1+:0.750 O2-:1.000 ");
    EXPECT_STREQ(cell->atom[0].name, "O1");  // the cell itself is not reordered

    quovix_cell_ptr many(quovix_cell_new(20));
    for (long i = 0; i < 20; ++i) {
        many->atom[i].type[0] = 'A';
        many->atom[i].type[1] = static_cast<char>('a' + i);
        many->atom[i].os = 1;
        many->atom[i].occ = 1.0;
    }
    quovix_cell_update_name(many.get());
    EXPECT_EQ(std::string(many->name).size(), 11u * 11u);  // "Aa1+:1.000 " x 11 fits, 12 would not
    EXPECT_EQ(quovix_cell_count_type_os(many.get()), 20);
}

// ------------------------------------------------------------------ supercells

TEST(Supercell, DefaultMultiplesByAtomCount) {
    using V = std::vector<long>;
    // Each boundary of the atom count, and which axis stays single.
    EXPECT_EQ(default_multiples(249, 5, 7, 5), (V{2, 2, 1}));
    EXPECT_EQ(default_multiples(40, 5, 5, 6), (V{2, 1, 2}));  // c strictly longest
    EXPECT_EQ(default_multiples(32, 5, 6, 6), (V{2, 2, 1}));  // c ties with b
    EXPECT_EQ(default_multiples(250, 5, 5, 9), (V{1, 1, 1}));
    EXPECT_EQ(default_multiples(31, 5, 5, 5), (V{2, 2, 2}));
    EXPECT_EQ(default_multiples(16, 5, 5, 5), (V{2, 2, 2}));
    EXPECT_EQ(default_multiples(15, 5, 5, 5), (V{3, 3, 3}));
    EXPECT_EQ(default_multiples(5, 5, 5, 5), (V{3, 3, 3}));
    EXPECT_EQ(default_multiples(4, 5, 5, 5), (V{4, 4, 4}));
    EXPECT_EQ(default_multiples(1, 5, 5, 5), (V{5, 5, 5}));
    quovix_cell_ptr empty(quovix_cell_new(0));
    Captured c = capture([&] { EXPECT_EQ(quovix_cell_supercell_default(empty.get()), nullptr); });
    EXPECT_EQ(c.err, "Error: wrong total atom number 0\n in QUOVIX_CELL.\n");
}

TEST(Supercell, ReplicatesAtomsLatticeAndZ) {
    auto cell =
        cubic_cell(4.0, {{"Li1", "Li", 1, 0.25, 0.5, 0.0, 0.5}, {"O1", "O", -2, 0, 0, 0, 1.0}});
    cell->Z = 2;
    const long m[3] = {2, 1, 3};
    quovix_cell_ptr s(quovix_cell_supercell(cell.get(), m));
    ASSERT_TRUE(s);
    EXPECT_EQ(s->total, 12);
    EXPECT_EQ(s->Z, 12);
    EXPECT_DOUBLE_EQ(s->parameter[2], 12.0);
    // Shift (1, 0, 2) of the first atom: ((0.25 + 1)/2, 0.5, (0 + 2)/3).
    const QUOVIX_ATOM &a = s->atom[2 * (1 * 3 + 2)];
    EXPECT_STREQ(a.name, "Li1");
    EXPECT_DOUBLE_EQ(a.x_f[0], 0.625);
    EXPECT_DOUBLE_EQ(a.x_f[2], 2.0 / 3.0);
    EXPECT_NEAR(a.x[0], 5.0, 1e-7);  // cos of 90 "degrees" is 1.8e-9 with the truncated factor
    EXPECT_STREQ(s->name, "Li1+:3.000 O2-:6.000 ");

    const long zero[3] = {1, 0, 1};
    Captured c = capture([&] { EXPECT_EQ(quovix_cell_supercell(cell.get(), zero), nullptr); });
    EXPECT_EQ(c.err, "Error: supercell parameters must be positive.\n");
    const long huge[3] = {1000, 1000, 1000};
    c = capture([&] { EXPECT_EQ(quovix_cell_supercell(cell.get(), huge), nullptr); });
    EXPECT_EQ(c.err, "Error: supercell 1000 x 1000 x 1000 of 2 atoms exceeds 1000000 atoms.\n");
}

TEST(Deform, LatticeRowsTimesIdentityPlusStrain) {
    auto cell = cubic_cell(4.0, {{"A", "Li", 1, 0.5, 0.5, 0.5, 1.0}});
    const double strain[3][3] = {{0.01, 0.0, 0.0}, {0.0, 0.0, 0.02}, {0.0, 0.0, 0.0}};
    ASSERT_EQ(quovix_cell_deform(cell.get(), strain), 0);
    EXPECT_DOUBLE_EQ(cell->a[0][0], 4.04);
    EXPECT_DOUBLE_EQ(cell->a[1][2], 0.08);  // a1 = (0, 4, 0)(I + e) picks up e[1][2]
    EXPECT_NEAR(cell->parameter[1], std::sqrt(16.0 + 0.0064), 1e-12);
    EXPECT_LT(cell->angle[0], 90.0);
    EXPECT_DOUBLE_EQ(cell->atom[0].x_f[0], 0.5);
    EXPECT_NEAR(cell->atom[0].x[0], 2.02, 1e-7);
    EXPECT_NEAR(cell->atom[0].x[2], 2.04, 1e-7);
}

// ------------------------------------------------------------------ partial occupancies

TEST(AssignPartialOcc, KeepsFloorOfTheSummedOccupancy) {
    auto cell = cubic_cell(6.0, {{"Li1", "Li", 1, 0.1, 0, 0, 0.5},
                                 {"O1", "O", -2, 0, 0, 0, 1.0},
                                 {"Li2", "Li", 1, 0.4, 0, 0, 0.5},
                                 {"Li3", "Li", 1, 0.7, 0, 0, 0.5}});
    cell->atom[1].ignored = true;
    std::srand(7);
    quovix_cell_ptr out(quovix_cell_assign_partial_occ(cell.get(), "Li", 1));
    ASSERT_TRUE(out);
    ASSERT_EQ(out->total, 2);  // floor(1.5) = 1 lithium kept, with the oxygen
    int li = 0;
    for (long i = 0; i < out->total; ++i) {
        if (std::strcmp(out->atom[i].type, "Li") == 0) {
            ++li;
            EXPECT_EQ(out->atom[i].occ, 1.0);
        }
    }
    EXPECT_EQ(li, 1);
    for (long i = 0; i < cell->total; ++i) EXPECT_FALSE(cell->atom[i].ignored);  // marks cleared
    EXPECT_EQ(cell->atom[0].occ, 0.5);  // the input is not changed

    // Many draws: always floor(S) kept, and every site gets chosen sometimes.
    std::srand(2024);
    std::vector<int> hits(10, 0);
    for (int run = 0; run < 200; ++run) {
        quovix_cell_ptr c10(quovix_cell_new(10));
        for (long i = 0; i < 10; ++i) {
            std::strcpy(c10->atom[i].type, "Na");
            c10->atom[i].os = 1;
            c10->atom[i].occ = 0.37;
            c10->atom[i].flag = i;
        }
        quovix_cell_ptr r(quovix_cell_assign_partial_occ(c10.get(), "Na", 1));
        ASSERT_TRUE(r);
        ASSERT_EQ(r->total, 3);  // floor(3.7)
        for (long i = 0; i < r->total; ++i) ++hits[static_cast<std::size_t>(r->atom[i].flag)];
    }
    for (int h : hits) EXPECT_GT(h, 20);
    // A species whose partial sites add up to less than one leaves nothing at all.
    auto lone = cubic_cell(6.0, {{"Li1", "Li", 1, 0.1, 0, 0, 0.4}});
    Captured c =
        capture([&] { EXPECT_EQ(quovix_cell_assign_partial_occ(lone.get(), "Li", 1), nullptr); });
    EXPECT_EQ(c.err,
              "Error: number of atoms must be positive.\nError: quovix_atom_new() returns NULL.\n");
}

TEST(AssignPartialOcc, SharedSitesAreResolvedAndChargeStaysBalanced) {
    struct Case {
        const char *file, *type;
        int os;
    };
    for (const Case &k :
         {Case{"Li6PS5Cl_argyrodite.cif", "Li", 1}, Case{"Li10GeP2S12_LGPS.cif", "Li", 1},
          Case{"PMN-PT_cubic_mixed_sites.cif", "Nb", 5},
          Case{"Li6PS5Cl_argyrodite.cif", "Cl", -1}}) {
        SCOPED_TRACE(std::string(k.file) + " " + k.type);
        Loaded l = load(data_file(k.file));
        ASSERT_EQ(l.status, 0);
        const double q0 = total_charge(l.cell.get());
        for (unsigned seed : {1u, 2u, 3u}) {
            std::srand(seed);
            QUOVIX_CELL *r = nullptr;
            capture([&] {
                r = quovix_cell_assign_partial_occ_at_conducting_site(l.cell.get(), k.type, k.os);
            });
            quovix_cell_ptr out(r);
            ASSERT_TRUE(out);
            for (long i = 0; i < out->total; ++i) {
                const QUOVIX_ATOM &a = out->atom[i];
                if (std::strcmp(a.type, k.type) != 0 || a.os != k.os) continue;
                EXPECT_EQ(a.occ, 1.0);
                for (long j = 0; j < out->total; ++j) {
                    if (j == i) continue;
                    EXPECT_GE(quovix_cell_min_distance_btw_atoms(out.get(), &a, &out->atom[j]),
                              0.3);
                }
            }
            if (std::fabs(q0) <= 0.5 * std::abs(k.os)) {
                EXPECT_LE(std::fabs(total_charge(out.get())), 0.5 * std::abs(k.os) + 1e-9);
            }
        }
    }
}

TEST(AssignPartialOcc, AllSpeciesGiveAnOrderedCell) {
    for (const char *file :
         {"Li6PS5Cl_argyrodite.cif", "Li10GeP2S12_LGPS.cif", "PMN-PT_cubic_mixed_sites.cif",
          "Na0.8CoO2_P63mmc.cif", "CuCrP2Se6_HM_only.cif"}) {
        SCOPED_TRACE(file);
        Loaded l = load(data_file(file));
        ASSERT_EQ(l.status, 0);
        std::srand(11);
        QUOVIX_CELL *r = nullptr;
        capture([&] { r = quovix_cell_assign_partial_occ_all(l.cell.get()); });
        quovix_cell_ptr out(r);
        ASSERT_TRUE(out);
        for (long i = 0; i < out->total; ++i) EXPECT_EQ(out->atom[i].occ, 1.0) << out->atom[i].name;
        EXPECT_GE(closest_pair(out.get()), 0.3);
    }
}

// ------------------------------------------------------------------ CIF writer

// The template and its line ends are pinned by the e2e cases gen-cif-NaCl and
// gen-cif-p1-CaTiO3; here the P1 fallback without symmetry and an unknown oxidation state.
TEST(CifWriter, P1FallbackAndUnknownState) {
    auto cell =
        cubic_cell(4.0, {{"O1", "O", -2, 0, 0, 0, 1.0}, {"Li1", "Li", 99, 0.5, 0.25, 0.125, 0.5}});
    quovix_cell_update_name(cell.get());
    QUOVIX_TEXT *t = nullptr;
    Captured c = capture([&] { t = quovix_cell_export_cif_to_text(cell.get(), nullptr); });
    quovix_text_ptr text(t);
    ASSERT_TRUE(text);
    EXPECT_EQ(c.out, "Message: symmetry info missing. Using P1.\n");
    const std::string cif(text->content);
    for (const char *part :
         {"_chemical_name_systematic         'Li99+:0.500 O2-:1.000 '\r\n",
          "_cell_formula_units_Z             0\r\n", "    1    'x, y, z'\r\n\r\nloop_\r\n",
          "  Li99+     99\r\n  O2-     -2\r\n",
          "  Li1  Li99+  0.500  0.250  0.125  0.500\r\n"
          "  O1  O2-  0.000  0.000  0.000  1.000\r\n\r\n#end of data\r\n"}) {
        EXPECT_NE(cif.find(part), std::string::npos) << part;
    }
}

TEST(CifWriter, WrittenFileReadsBackToTheSameCell) {
    Loaded l = load(data_file("La2Zr2O7_pyrochlore_origin1.cif"));
    ASSERT_EQ(l.status, 0);
    std::strcpy(l.cell->atom[0].name, "ABCDEFGHIJK");  // 11 characters survive
    const std::string path = test_tmp::dir() + "roundtrip.cif";
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cell_export_cif_to_file(path.c_str(), l.cell.get(), l.sym.get()), 0);
    });
    EXPECT_EQ(c.out, "Message: cif file saved to " + path + "\n");
    const std::string written = test_tmp::read_file(path);
    EXPECT_EQ(written.substr(0, 28), "data_generated-by-Quovix\r\n\n_");
    Loaded back = load(path);
    ASSERT_EQ(back.status, 0) << back.log.err;
    ASSERT_EQ(back.cell->total, l.cell->total);
    EXPECT_STREQ(back.cell->name, l.cell->name);
    for (long i = 0; i < l.cell->total; ++i) {
        // Three decimals written: every atom finds its copy within 0.0005 per coordinate.
        bool found = false;
        for (long j = 0; j < back.cell->total && !found; ++j) {
            const QUOVIX_ATOM &a = l.cell->atom[i], &b = back.cell->atom[j];
            bool close = std::strcmp(a.type, b.type) == 0 && a.os == b.os;
            for (int k = 0; k < 3 && close; ++k) {
                const double d = std::fabs(a.x_f[k] - b.x_f[k]);
                close = std::min(d, 1.0 - d) < 6e-4;
            }
            found = close;
        }
        EXPECT_TRUE(found) << i;
    }
    bool label = false;
    for (long j = 0; j < back.cell->total; ++j)
        label = label || std::strcmp(back.cell->atom[j].name, "ABCDEFGHIJK") == 0;
    EXPECT_TRUE(label);

    const std::string dir = test_tmp::dir() + "no_such_dir/x.cif";
    c = capture([&] {
        EXPECT_EQ(quovix_cell_export_cif_to_file(dir.c_str(), l.cell.get(), l.sym.get()), 1);
    });
    EXPECT_EQ(c.err, "Error: unable to open " + dir +
                         ".\nError: quovix_text_export_to_file() returns non-zero.\n");
}
