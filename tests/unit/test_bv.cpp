// Tests of the bond valence sums, the GII and their printers.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <string>

#include "import_test_helpers.hpp"
#include "quovix-alloc.hpp"
#include "quovix-bv.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"

namespace {

using test_import::Species;

const std::string kUnitary = test_import::unitary();
const std::string kBinary = test_import::binary();

test_import::Loaded read_cif(const std::string &name) {
    test_import::Loaded in = test_import::load(test_import::data_file(name));
    EXPECT_EQ(in.status, 0) << name;
    return in;
}

quovix_bv_ptr bv_of(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym) {
    testing::internal::CaptureStdout();
    quovix_bv_ptr bv{quovix_bv_calculate_from_cell(cell, sym, kUnitary.c_str(), kBinary.c_str())};
    testing::internal::GetCapturedStdout();
    return bv;
}

QUOVIX_PROPERTY_BINARY pair_data(const char *cation, int os1, const char *anion, int os2) {
    QUOVIX_PROPERTY_BINARY b{};
    EXPECT_EQ(quovix_property_binary_read_from_file(&b, cation, os1, anion, os2, kBinary.c_str()),
              0);
    return b;
}

// Cubic cell whose atoms are each their own site (flag = position in the list + 1).
quovix_cell_ptr make_flagged_cell(double a, std::initializer_list<Species> sites) {
    quovix_cell_ptr cell = test_import::species_cell(a, sites);
    for (long i = 0; i < cell->total; ++i) cell->atom[i].flag = i + 1;
    return cell;
}

quovix_property_ptr property_of(QUOVIX_CELL *cell) {
    return test_import::quiet_property(cell, 0.75);
}

// A record of one site of oxidation state 0 whose sum is g, so that GII = g exactly.
quovix_bv_ptr single_site(double g) {
    quovix_bv_ptr bv{quovix_bv_new(1)};
    bv->multi[0] = 1;
    bv->atom[0].occ = 1.0;
    bv->sum[0] = g;
    return bv;
}

}  // namespace

// ----------------------------------------------------------------------------- sums

// Rock salt, a = 5.62 A: Na has 6 Cl at a/2 and 8 at a sqrt(3)/2 inside the 6.0 A cut-off.
TEST(BvSum, MatchesHandSumsForRockSalt) {
    auto in = read_cif("NaCl_rocksalt.cif");
    auto bv = bv_of(in.cell.get(), in.sym.get());
    ASSERT_TRUE(bv);
    const QUOVIX_PROPERTY_BINARY p = pair_data("Na", 1, "Cl", -1);
    ASSERT_EQ(p.cutoff, 6.0);
    const double a = 5.62;
    const double hand = 6.0 * std::exp((p.r0 - a / 2.0) / p.b) +
                        8.0 * std::exp((p.r0 - a * std::sqrt(3.0) / 2.0) / p.b);
    ASSERT_EQ(bv->total, 2);
    const long na = quovix_bv_find_index(bv.get(), "Na1");
    const long cl = quovix_bv_find_index(bv.get(), "Cl1");
    ASSERT_GE(na, 0);
    ASSERT_GE(cl, 0);
    EXPECT_NEAR(bv->sum[na], hand, 1e-12);
    EXPECT_NEAR(bv->sum[cl], -hand, 1e-12);
    EXPECT_NEAR(bv->value[na][cl], hand, 1e-12);
    EXPECT_EQ(bv->value[na][na], 0.0);
    EXPECT_EQ(bv->multi[na], 4);
    EXPECT_EQ(bv->multi[cl], 4);
    EXPECT_NEAR(quovix_gii_calculate_from_bv_no_msg(bv.get()), 1.0 - hand, 1e-12);
    EXPECT_EQ(in.cell->atom[0].flag, 0);  // marks refreshed after the calculation
}

// Antifluorite Li2O in its primitive P1 cell (a_cubic = 3.28033 sqrt 2): Li has O at
// a sqrt(3)/4 (4), a sqrt(11)/4 (12) and a sqrt(19)/4 (12) inside 6.0 A.
TEST(BvSum, MatchesHandSumsForAntifluorite) {
    auto in = read_cif("Li2O_antifluorite_primitive_P1.cif");
    auto bv = bv_of(in.cell.get(), in.sym.get());
    ASSERT_TRUE(bv);
    const QUOVIX_PROPERTY_BINARY p = pair_data("Li", 1, "O", -2);
    const double a = 3.28032619926 * std::sqrt(2.0);
    double hand = 0.0;
    for (auto [n, r2] : {std::pair{4, 3.0}, std::pair{12, 11.0}, std::pair{12, 19.0}}) {
        hand += n * std::exp((p.r0 - a * std::sqrt(r2) / 4.0) / p.b);
    }
    // The lattice is built with the truncated degree factor 0.0174532925, which moves the
    // skewed cell's distances by a few 1e-9 relative.
    ASSERT_EQ(bv->total, 3);  // P1: Li1, Li2, O3
    EXPECT_NEAR(bv->sum[quovix_bv_find_index(bv.get(), "Li1")], hand, 1e-7);
    EXPECT_NEAR(bv->sum[quovix_bv_find_index(bv.get(), "Li2")], hand, 1e-7);
    EXPECT_NEAR(bv->sum[quovix_bv_find_index(bv.get(), "O3")], -2.0 * hand, 2e-7);
}

// The shipped sum skips images out of reach and runs sites in parallel; it must reproduce
// the plain loop to the last bit, with any number of threads.
TEST(BvSum, BoundedParallelSumEqualsThePlainLoopExactly) {
    for (const char *name :
         {"Li4B7O12Cl_boracite.cif", "Na3PS4_cubic_2x2x2_P1.cif", "LiFePO4_olivine_P1.cif",
          "Li2O_antifluorite_primitive_P1.cif", "Li6PS5Cl_argyrodite.cif"}) {
        auto in = read_cif(name);
        ASSERT_TRUE(in.cell) << name;
        ASSERT_EQ(quovix_cell_flag_site_by_symmetry(in.cell.get(), in.sym.get()), 0);
        auto ppt = property_of(in.cell.get());
        ASSERT_TRUE(ppt) << name;
        quovix_bv_ptr plain{
            quovix_bv_calculate_from_flagged_cell_reference(in.cell.get(), ppt.get())};
        ASSERT_TRUE(plain);
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            quovix_bv_ptr fast{quovix_bv_calculate_from_flagged_cell(in.cell.get(), ppt.get())};
            ASSERT_TRUE(fast);
            ASSERT_EQ(fast->total, plain->total);
            for (long s = 0; s < plain->total; ++s) {
                EXPECT_EQ(fast->sum[s], plain->sum[s]) << name << " site " << s;
                for (long t = 0; t < plain->total; ++t)
                    EXPECT_EQ(fast->value[s][t], plain->value[s][t]) << name;
            }
        }
    }
}

TEST(BvSum, OverlapWarnsOnlyWhenTheOccupanciesCannotShareThePlace) {
    for (double occ : {0.5, 1.0}) {
        auto cell = make_flagged_cell(5.62, {{"Na", 1, 0.0, 0.0, 0.0, occ},
                                             {"Cl", -1, 0.01, 0.0, 0.0, occ},
                                             {"Cl", -1, 0.5, 0.5, 0.5, 1.0}});
        auto ppt = property_of(cell.get());
        ASSERT_TRUE(ppt);
        testing::internal::CaptureStdout();
        quovix_bv_ptr bv{quovix_bv_calculate_from_flagged_cell(cell.get(), ppt.get())};
        const std::string out = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(bv);
        if (occ < 1.0) {
            EXPECT_EQ(out, "");
        } else {  // once from the Na site, once from the overlapping Cl site
            EXPECT_EQ(out,
                      "Warning: d=0.056200, occ1=1.000000, occ2=1.000000\n"
                      "Warning: d=0.056200, occ1=1.000000, occ2=1.000000\n");
        }
        // The overlapping contact never counts as a bond; the images of that Cl at
        // 0.99 a, 1.01 a and (4x) a sqrt(1.0001) do, weighted by the Cl occupancy.
        const long na = quovix_bv_find_index(bv.get(), "Na1");
        const QUOVIX_PROPERTY_BINARY p = pair_data("Na", 1, "Cl", -1);
        auto s = [&p](double d) { return std::exp((p.r0 - d) / p.b); };
        const double images = s(0.99 * 5.62) + s(1.01 * 5.62) + 4.0 * s(5.62 * std::sqrt(1.0001));
        EXPECT_NEAR(bv->value[na][quovix_bv_find_index(bv.get(), "Cl2")], occ * images, 1e-12);
    }
}

// Contacts from 0.2 A on are bonds, closer ones are not: a Cl at 0.19 A adds nothing to the
// Na sum, one at 0.21 A adds its (huge) valence. Half occupancies keep the overlap quiet.
TEST(BvSum, ContactsCountFromTwoTenthsOfAnAngstrom) {
    const double a = 5.62;
    const QUOVIX_PROPERTY_BINARY p = pair_data("Na", 1, "Cl", -1);
    double sum[2] = {0.0, 0.0};
    for (int k = 0; k < 2; ++k) {
        const double d = k == 0 ? 0.19 : 0.21;
        auto cell =
            make_flagged_cell(a, {{"Na", 1, 0.0, 0.0, 0.0, 0.5}, {"Cl", -1, d / a, 0.0, 0.0, 0.5}});
        auto ppt = property_of(cell.get());
        ASSERT_TRUE(ppt);
        quovix_bv_ptr bv{quovix_bv_calculate_from_flagged_cell(cell.get(), ppt.get())};
        ASSERT_TRUE(bv);
        sum[k] = bv->sum[quovix_bv_find_index(bv.get(), "Na1")];
    }
    // The images of the Cl move by 0.02 A too, which changes the rest of the sum by ~1e-5.
    EXPECT_NEAR(sum[1] - sum[0], 0.5 * std::exp((p.r0 - 0.21) / p.b), 1e-3);
}

// A zero oxidation state (skipped in the sums, weighed in the GII) is pinned by the e2e case
// cal-bv-NaCl-zero-os.

// ----------------------------------------------------------------------------- GII

TEST(Gii, VerdictsFollowTheOrderOfTheTests) {
    const struct {
        double g;
        const char *verdict;
    } cases[] = {
        {0.0, "GII: suggested stability: average.\n"},
        {0.1, "GII: suggested stability: stable.\n"},
        {0.15, "GII: suggested stability: average.\n"},
        {0.3, "GII: suggested stability: unstable.\n"},
        {1.0,
         "GII: unreasonable value.\nGII: there might be an error in input structure or "
         "calculation.\n"},
    };
    for (const auto &c : cases) {
        auto bv = single_site(c.g);
        testing::internal::CaptureStdout();
        EXPECT_EQ(quovix_gii_calculate_from_bv(bv.get()), c.g);
        char head[64];
        std::snprintf(head, sizeof head, "GII: Global instability index = %f\n", c.g);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(head) + c.verdict);
    }
}

TEST(Gii, WeighsSitesByMultiplicityAndOccupancy) {
    quovix_bv_ptr bv{quovix_bv_new(2)};
    bv->atom[0].os = 2;
    bv->atom[0].occ = 1.0;
    bv->multi[0] = 2;
    bv->sum[0] = 1.8;
    bv->atom[1].os = -2;
    bv->atom[1].occ = 0.5;
    bv->multi[1] = 1;
    bv->sum[1] = -2.1;
    EXPECT_NEAR(quovix_gii_calculate_from_bv_no_msg(bv.get()),
                std::sqrt((2.0 * 0.04 + 0.5 * 0.01) / 2.5), 1e-12);
}

// The table and the GUI block are pinned by the e2e cases cal-bv-NaCl, cal-bv-NaCl-zero-os and
// cal-bv-gui-NaCl; the text export serves no command.
