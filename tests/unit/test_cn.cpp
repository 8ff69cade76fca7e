// Coordination numbers against textbook structures, Hoppe's formula and the bond valence sums.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "import_test_helpers.hpp"
#include "quovix-bv.hpp"
#include "quovix-cn.hpp"

namespace {

using test_import::capture;

struct Prepared {
    test_import::Loaded loaded;
    quovix_property_ptr ppt;
};

// Structure of tests/data with its sites flagged and its parameter set, as the commands build it.
Prepared prepare(const std::string &file) {
    Prepared p;
    p.loaded = test_import::load(test_import::data_file(file));
    EXPECT_EQ(p.loaded.status, 0) << file;
    capture([&] {
        quovix_cell_flag_site_by_symmetry(p.loaded.cell.get(), p.loaded.sym.get());
        p.ppt.reset(quovix_property_import_from_cell(p.loaded.cell.get(), nullptr, 0, 0.75,
                                                     test_import::unitary().c_str(),
                                                     test_import::binary().c_str()));
    });
    return p;
}

long first_of(const QUOVIX_CELL *cell, const char *type) {
    for (long k = 0; k < cell->total; ++k)
        if (std::string(cell->atom[k].type) == type) return k;
    return -1;
}

}  // namespace

// Antifluorite 4 and 8, rutile 6 and 3, perovskite 12/6, spinel A 4 and B 6 (rock salt: the
// e2e case cal-cn-NaCl): the distance shell and the bond-valence shell agree with the textbook
// numbers, and on undistorted sites the effective coordination number is the same integer.
TEST(CoordinationNumber, TextbookStructures) {
    struct Case {
        const char *file, *type;
        long cn;
        double econ;  // < 0: distorted site, only checked to be below cn
    } cases[] = {
        {"Li2O_antifluorite_primitive_P1.cif", "Li", 4, 4.0},
        {"Li2O_antifluorite_primitive_P1.cif", "O", 8, 8.0},
        {"TiO2_rutile.cif", "Ti", 6, -1},
        {"TiO2_rutile.cif", "O", 3, -1},
        {"CaTiO3_cubic.cif", "Ca", 12, 12.0},
        {"CaTiO3_cubic.cif", "Ti", 6, 6.0},
        {"LiMn2O4_spinel_P1.cif", "Li", 4, -1},
        {"LiMn2O4_spinel_P1.cif", "Mn", 6, -1},
    };
    for (const Case &c : cases) {
        Prepared p = prepare(c.file);
        ASSERT_TRUE(p.ppt) << c.file;
        const long site = first_of(p.loaded.cell.get(), c.type);
        ASSERT_GE(site, 0);
        quovix_cn_ptr cn{quovix_cn_calculate(p.loaded.cell.get(), p.ppt.get(), site, 4.0)};
        ASSERT_TRUE(cn);
        EXPECT_EQ(cn->shell, c.cn) << c.file << " " << c.type;
        EXPECT_EQ(cn->cn_bv, c.cn) << c.file << " " << c.type;
        EXPECT_NEAR(cn->shell_occ, static_cast<double>(c.cn), 1e-9);
        if (c.econ > 0)
            EXPECT_NEAR(cn->econ, c.econ, 1e-6) << c.file << " " << c.type;
        else
            EXPECT_LT(cn->econ, static_cast<double>(c.cn) + 1e-9);
    }
}

// The valences of the listed bonds add up to the site's sum of the bond valence module, so the
// neighbour search sees exactly the contacts of the sums (minimum contact, cut-offs, images).
TEST(CoordinationNumber, BondValencesAddUpToTheBondValenceSum) {
    for (const char *file : {"LiFePO4_olivine_P1.cif", "Li6PS5Cl_argyrodite.cif"}) {
        Prepared p = prepare(file);
        ASSERT_TRUE(p.ppt);
        QUOVIX_CELL *cell = p.loaded.cell.get();
        quovix_bv_ptr bv;
        capture([&] { bv.reset(quovix_bv_calculate_from_flagged_cell(cell, p.ppt.get())); });
        ASSERT_TRUE(bv);
        for (long s = 0; s < bv->total; ++s) {
            long site = -1;
            for (long k = 0; k < cell->total && site < 0; ++k)
                if (cell->atom[k].flag == s + 1) site = k;
            quovix_cn_ptr cn{quovix_cn_calculate(cell, p.ppt.get(), site, 8.0)};
            ASSERT_TRUE(cn);
            EXPECT_NEAR(cn->bv_sum, std::fabs(bv->sum[s]), 1e-9 * std::fabs(bv->sum[s]))
                << file << " site " << s;
        }
    }
}

// A bond at exactly the minimum contact distance still counts, one just inside it does not
// (the rule the bond valence sums share).
TEST(CoordinationNumber, MinimumContactDistance) {
    const double edge = 10.0;
    for (double d : {0.19, 0.21}) {
        quovix_cell_ptr cell =
            test_import::cubic_cell(edge, {{"Na1", "Na", 1, 0.5, 0.5, 0.5, 1.0},
                                           {"Cl1", "Cl", -1, 0.5 + d / edge, 0.5, 0.5, 1.0}});
        quovix_property_ptr ppt;
        capture([&] {
            ppt.reset(quovix_property_import_from_cell(cell.get(), nullptr, 0, 0.75,
                                                       test_import::unitary().c_str(),
                                                       test_import::binary().c_str()));
        });
        ASSERT_TRUE(ppt);
        const long na = first_of(cell.get(), "Na");
        quovix_cn_ptr cn{quovix_cn_calculate(cell.get(), ppt.get(), na, 4.0)};
        ASSERT_TRUE(cn);
        EXPECT_EQ(cn->total, d < 0.2 ? 0 : 1) << d;
    }
}

// Hoppe: n equal bonds give n; a long bond weighs exp(1 - (l/l_av)^6).
TEST(CoordinationNumber, EffectiveCoordinationFormula) {
    const double d6[] = {2, 2, 2, 2, 2, 2}, w6[] = {1, 1, 1, 1, 1, 1};
    EXPECT_NEAR(quovix_cn_effective(d6, w6, 6), 6.0, 1e-12);
    EXPECT_EQ(quovix_cn_effective(d6, w6, 0), 0.0);
    // Four bonds at 2 A and two at 2.4 A: solve l_av by fixed-point iteration independently.
    const double d[] = {2, 2, 2, 2, 2.4, 2.4}, w[] = {1, 1, 1, 1, 1, 1};
    double l = 2.0;
    for (int it = 0; it < 500; ++it) {
        const double a = std::exp(1 - std::pow(2.0 / l, 6)), b = std::exp(1 - std::pow(2.4 / l, 6));
        l = (4 * 2.0 * a + 2 * 2.4 * b) / (4 * a + 2 * b);
    }
    const double want =
        4 * std::exp(1 - std::pow(2.0 / l, 6)) + 2 * std::exp(1 - std::pow(2.4 / l, 6));
    EXPECT_NEAR(quovix_cn_effective(d, w, 6), want, 1e-8);
}

TEST(CoordinationNumber, AverageBySpeciesAndBadRadius) {
    test_import::Loaded l =
        test_import::load(test_import::data_file("Li2O_antifluorite_primitive_P1.cif"));
    ASSERT_EQ(l.status, 0);
    double avg = 0;
    long n = 0;
    ASSERT_EQ(quovix_cn_average_by_type(&avg, &n, l.cell.get(), "O", -2, "Li", 1, 4.0), 0);
    EXPECT_NEAR(avg, 8.0, 1e-12);
    EXPECT_EQ(n, 1);
    ASSERT_EQ(quovix_cn_average_by_type(&avg, &n, l.cell.get(), "Li", 1, "Li", 1, 4.0), 0);
    EXPECT_NEAR(avg, 6.0, 1e-12);  // Li sublattice: simple cubic
    for (double bad : {0.0, -1.0, 1e6, std::nan("")}) {
        auto out = capture([&] {
            EXPECT_EQ(quovix_cn_average_by_type(&avg, &n, l.cell.get(), "O", -2, "Li", 1, bad), 1);
        });
        EXPECT_NE(out.err.find("r_max"), std::string::npos);
    }
}
