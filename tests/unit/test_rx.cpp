// Tests of the pair functions, the cell energy and stress, the screening-factor fit and the
// embedding energy with its forces.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-alloc.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"
#include "quovix-rx.hpp"

namespace {

using test_import::Labels;
using test_import::species_cell;

const std::string kUnitary = test_import::unitary();
const std::string kBinary = test_import::binary();

quovix_cell_ptr read_cif(const std::string &name) {
    test_import::Loaded in = test_import::load(test_import::data_file(name));
    EXPECT_EQ(in.status, 0) << name;
    return std::move(in.cell);
}

// Parameter set with a fixed screening factor (no fit), embedding parameters included.
quovix_property_ptr property_of(QUOVIX_CELL *cell, double sf = 0.75) {
    quovix_property_ptr ppt = test_import::quiet_property(cell, sf);
    if (ppt) quovix_property_calculate_unitary_eam_parameter(ppt.get());
    return ppt;
}

double relative(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

}  // namespace

// ----------------------------------------------------------------------------- pair functions

TEST(PairFunctions, MorseWellShiftsAndCoulombZero) {
    const double d0 = 0.07, rmin = 2.0, b = 0.5, cutoff = 6.0;
    EXPECT_DOUBLE_EQ(quovix_energy_bonding(rmin, d0, rmin, b), -0.5 * d0);
    EXPECT_EQ(quovix_force_bonding(rmin, d0, rmin, b), 0.0);
    const double en_s = quovix_energy_bonding(cutoff, d0, rmin, b);
    const double f_s = quovix_force_bonding(cutoff, d0, rmin, b);
    EXPECT_EQ(quovix_energy_bonding_with_energy_shift(cutoff, d0, rmin, b, en_s), 0.0);
    EXPECT_EQ(quovix_energy_bonding_with_energy_shift_and_force_shift(cutoff, d0, rmin, b, en_s,
                                                                      f_s, cutoff),
              0.0);
    EXPECT_EQ(quovix_force_bonding_with_force_shift(cutoff, d0, rmin, b, f_s), 0.0);
    for (double r_eff : {0.5, 1.7, 3.0}) EXPECT_EQ(quovix_energy_coulombic(10.0, 0.8, r_eff), 0.0);
    EXPECT_DOUBLE_EQ(quovix_pseudopotential_energy_bonding(2.0, 0.5, 0.25, 1.0), 3.5);
    EXPECT_DOUBLE_EQ(quovix_pseudopotential_energy_coulombic(2.0, 0.5, 0.25, 1.0), 3.5);
}

TEST(PairFunctions, ForcesAreDistanceDerivativesOfTheEnergies) {
    const double h = 1e-6;
    for (double x : {1.5, 2.0, 2.7, 4.0, 7.5}) {
        const double eb = (quovix_energy_bonding(x + h, 0.07, 2.0, 0.5) -
                           quovix_energy_bonding(x - h, 0.07, 2.0, 0.5)) /
                          (2.0 * h);
        EXPECT_NEAR(quovix_force_bonding(x, 0.07, 2.0, 0.5), eb, 1e-8) << x;
        const double ec =
            (quovix_energy_coulombic(x + h, 0.7, 1.6) - quovix_energy_coulombic(x - h, 0.7, 1.6)) /
            (2.0 * h);
        EXPECT_NEAR(quovix_force_coulombic(x, 0.7, 1.6), ec, 1e-8) << x;
    }
}

// ----------------------------------------------------------------------------- cell energy

// The shipped energy visits only the images in reach and sums per atom on several threads;
// it must agree with the plain loop to 1e-9 relative and not depend on the thread count.
TEST(CellEnergy, BoundedParallelSumAgreesWithThePlainLoop) {
    for (const char *name :
         {"NaCl_rocksalt.cif", "Li2O_antifluorite_primitive_P1.cif", "LiFePO4_olivine_P1.cif",
          "Li6PS5Cl_argyrodite.cif", "Na3PS4_cubic_2x2x2_P1.cif"}) {
        auto cell = read_cif(name);
        auto ppt = property_of(cell.get());
        ASSERT_TRUE(ppt) << name;
        const double plain = quovix_cell_calculate_total_energy_reference(cell.get(), ppt.get());
        omp_set_num_threads(1);
        const double one = quovix_cell_calculate_total_energy(cell.get(), ppt.get());
        omp_set_num_threads(2);
        const double two = quovix_cell_calculate_total_energy(cell.get(), ppt.get());
        EXPECT_LT(relative(one, plain), 1e-9) << name << " " << one << " " << plain;
        EXPECT_EQ(one, two) << name;
        EXPECT_LT(plain, 0.0) << name;
    }
}

TEST(CellEnergy, IgnoredAtomsDropTheirRowsOnlyAndOverlapsFollowTheContactRule) {
    // Rows of the ordered double sum belong to atom i: ignoring the cations leaves the anion
    // rows, ignoring the anions the cation rows.
    auto cell = read_cif("NaCl_rocksalt.cif");
    auto ppt = property_of(cell.get());
    ASSERT_TRUE(ppt);
    const double all = quovix_cell_calculate_total_energy(cell.get(), ppt.get());
    double rows[2];
    for (int os : {1, -1}) {
        for (long k = 0; k < cell->total; ++k) cell->atom[k].ignored = cell->atom[k].os == os;
        rows[os > 0] = quovix_cell_calculate_total_energy(cell.get(), ppt.get());
        EXPECT_LT(relative(rows[os > 0],
                           quovix_cell_calculate_total_energy_reference(cell.get(), ppt.get())),
                  1e-9);
    }
    EXPECT_LT(relative(rows[0] + rows[1], all), 1e-12);

    // A Cl 0.056 A from Na: charged in full when occupancies exceed 1, skipped otherwise.
    for (double occ : {0.5, 1.0}) {
        auto overlap = species_cell(5.62,
                                    {{"Na", 1, 0.0, 0.0, 0.0, occ},
                                     {"Cl", -1, 0.01, 0.0, 0.0, occ},
                                     {"Cl", -1, 0.5, 0.5, 0.5, 1.0},
                                     {"Na", 1, 0.5, 0.0, 0.0, 1.0}},
                                    Labels::none);
        auto p = property_of(overlap.get());
        ASSERT_TRUE(p);
        const double fast = quovix_cell_calculate_total_energy(overlap.get(), p.get());
        const double plain = quovix_cell_calculate_total_energy_reference(overlap.get(), p.get());
        EXPECT_LT(relative(fast, plain), 1e-9) << occ;
        if (occ > 0.5) {
            EXPECT_GT(fast, 100.0);  // the Morse wall at 0.056 A
        } else {
            EXPECT_LT(fast, 0.0);
        }
    }

    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_cell_calculate_total_energy(nullptr, ppt.get()), 0.0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n");
}

TEST(CellStress, CubicCellIsIsotropicAndZeroEnergyFails) {
    auto cell = read_cif("NaCl_rocksalt.cif");
    auto ppt = property_of(cell.get());
    ASSERT_TRUE(ppt);
    double stress[3];
    ASSERT_EQ(quovix_cell_calculate_stress_diagonal(stress, cell.get(), ppt.get()), 0);
    EXPECT_NEAR(stress[1], stress[0], 1e-6 * std::fabs(stress[0]));
    EXPECT_NEAR(stress[2], stress[0], 1e-6 * std::fabs(stress[0]));
    // The stress is the strain derivative of the energy over the volume (here with a strain
    // ten times larger than the stress's own).
    double e[2];
    for (int side = 0; side < 2; ++side) {
        quovix_cell_ptr strained{quovix_cell_copy(cell.get())};
        const double eps = side == 0 ? -0.001 : 0.001;
        const double strain[3][3] = {{0, 0, 0}, {0, eps, 0}, {0, 0, 0}};
        ASSERT_EQ(quovix_cell_deform(strained.get(), strain), 0);
        e[side] = quovix_cell_calculate_total_energy(strained.get(), ppt.get());
    }
    EXPECT_NEAR((e[1] - e[0]) / 0.002 / quovix_cell_calculate_volume(cell.get()), stress[1],
                1e-3 * std::fabs(stress[1]));

    auto neutral = species_cell(4.0, {{"Ar", 0, 0.0, 0.0, 0.0, 1.0}, {"Ar", 0, 0.5, 0.5, 0.5, 1.0}},
                                Labels::none);
    auto pn = property_of(neutral.get());
    ASSERT_TRUE(pn);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_cell_calculate_stress_diagonal(stress, neutral.get(), pn.get()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: quovix_cell_calculate_total_energy() returns 0.00.\n");
}

// ----------------------------------------------------------------------------- fit

// A given factor bypasses the fit, and incomplete data fall back to the default: see the e2e
// cases cal-tot-en-NaCl-given-sf and cal-tot-en-NaCl-zero-os.

// NaCl is fully occupied (its cached contacts are distances alone), Li7B7Se15 has partial
// occupancies (weighted contacts): in both the first report, the pressure at 0.75 from the
// cached lists, must match the public stress; NaCl's fit must end at a sign change.
TEST(ScreeningFactor, ConvergesToAPressureSignChange) {
    for (const std::string file : {"NaCl_rocksalt.cif", "Li7B7Se15.cif"}) {
        SCOPED_TRACE(file);
        auto cell = read_cif(file.c_str());
        auto ppt = property_of(cell.get());
        ASSERT_TRUE(ppt);
        ppt->sf = -1.0;
        testing::internal::CaptureStdout();
        ASSERT_EQ(quovix_property_calculate_screening_factor(ppt.get(), cell.get()), 0);
        const std::string out = testing::internal::GetCapturedStdout();
        const double sf = ppt->sf;
        auto pressure = [&](double s) {
            ppt->sf = s;
            double st[3];
            EXPECT_EQ(quovix_cell_calculate_stress_diagonal(st, cell.get(), ppt.get()), 0);
            return (st[0] + st[1] + st[2]) / 3.0;
        };
        double sf1 = 0, p1 = 0, h1 = 0, dp1 = 0;
        ASSERT_EQ(
            std::sscanf(out.c_str(), "Message: calculating sf=%lf; p=%lf (conv: sf=%lf; p=%lf)",
                        &sf1, &p1, &h1, &dp1),
            4);
        const double p075 = pressure(0.75);
        EXPECT_NEAR(p1, p075, 6e-6);
        EXPECT_NEAR(sf1, p075 <= 0.0 ? 0.65 : 0.85, 1e-9);
        if (file != "NaCl_rocksalt.cif") continue;
        ASSERT_GT(sf, 0.55);
        ASSERT_LT(sf, 1.0);
        char last[64];
        std::snprintf(last, sizeof last, "Message: final screening factor = %f\n", sf);
        EXPECT_EQ(out.substr(out.size() - std::string(last).size()), last);
        // The step halves at every sign change, so the root lies within a few final steps.
        EXPECT_LT(pressure(sf - 0.005) * pressure(sf + 0.005), 0.0);
    }
}

TEST(ScreeningFactor, LeavingTheBoundsFallsBackToTheDefault) {
    // The pressure of Ag7PSe6 does not change sign within 0.55-1.0 (Li2O did until the CN of
    // Li+-O2- became the characteristic 4.64; its fit now ends at 0.648).
    auto cell = read_cif("Ag7PSe6_argyrodite.cif");
    testing::internal::CaptureStdout();
    quovix_property_ptr ppt{quovix_property_import_from_cell(cell.get(), nullptr, 0, -1.0,
                                                             kUnitary.c_str(), kBinary.c_str())};
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(ppt);
    EXPECT_NE(out.find("Warning: screening factor out of bound (0.55~1.0). Default value used.\n"
                       "Message: final screening factor = 0.750000\n"
                       "Message: sf=0.750000\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(ppt->sf, 0.75);
}

// ----------------------------------------------------------------------------- embedding

// Rock salt: every ion has 6 counter-ions at a/2 and 8 at a sqrt(3)/2 inside the cut-off, so
// rho = sum of the shifted bond valences and E = 7.19982 * 4 * -(f1_Na + f1_Cl) sqrt(rho).
TEST(Embedding, RockSaltEnergyFromTheDensityByHand) {
    auto cell = read_cif("NaCl_rocksalt.cif");
    auto ppt = property_of(cell.get());
    ASSERT_TRUE(ppt);
    const QUOVIX_PROPERTY_BINARY &p = ppt->bin[1][0];  // species order Cl, Na
    ASSERT_STREQ(p.type1, "Na");
    auto s = [&p](double d) {
        return std::exp((p.r0 - d) / p.b) - std::exp((p.r0 - p.cutoff) / p.b);
    };
    const double rho = 6.0 * s(2.81) + 8.0 * s(5.62 * std::sqrt(3.0) / 2.0);
    const double hand = 7.19982 * 4.0 * -(ppt->uni[0].f1 + ppt->uni[1].f1) * std::sqrt(rho);
    EXPECT_NEAR(quovix_cell_calculate_eam_energy(cell.get(), ppt.get()), hand,
                1e-9 * std::fabs(hand));
    EXPECT_DOUBLE_EQ(quovix_cell_calculate_total_energy_eam(cell.get(), ppt.get()),
                     quovix_cell_calculate_total_energy(cell.get(), ppt.get()) +
                         quovix_cell_calculate_eam_energy(cell.get(), ppt.get()));
}

// Forces against central differences of the total energy with embedding, on a distorted
// olivine cell with one atom left out of the sums.
TEST(Embedding, ForcesAreMinusTheGradientOfTheTotalEnergy) {
    auto cell = read_cif("LiFePO4_olivine_P1.cif");
    auto ppt = property_of(cell.get());
    ASSERT_TRUE(ppt);
    std::srand(12345);
    for (long k = 0; k < cell->total; ++k) {
        for (int c = 0; c < 3; ++c)
            cell->atom[k].x[c] += 0.1 * (std::rand() / static_cast<double>(RAND_MAX) - 0.5);
    }
    const long n = cell->total;
    double **force = quovix_array_double_2D_new(n, 3);
    ASSERT_NE(force, nullptr);
    ASSERT_EQ(quovix_cell_calculate_force(force, cell.get(), ppt.get()), 0);
    double net[3] = {0, 0, 0};
    for (long k = 0; k < n; ++k)
        for (int c = 0; c < 3; ++c) net[c] += force[k][c];
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(net[c], 0.0, 1e-8);  // translation invariance

    cell->atom[3].ignored = true;
    ASSERT_EQ(quovix_cell_calculate_force(force, cell.get(), ppt.get()), 0);
    const double h = 1e-5;
    for (long k : {0L, 3L, 5L, 13L, 27L}) {
        for (int c = 0; c < 3; ++c) {
            const double x0 = cell->atom[k].x[c];
            cell->atom[k].x[c] = x0 + h;
            const double ep = quovix_cell_calculate_total_energy_eam(cell.get(), ppt.get());
            cell->atom[k].x[c] = x0 - h;
            const double em = quovix_cell_calculate_total_energy_eam(cell.get(), ppt.get());
            cell->atom[k].x[c] = x0;
            const double numeric = -(ep - em) / (2.0 * h);
            EXPECT_NEAR(force[k][c], numeric, 1e-4 * std::fabs(numeric) + 1e-5)
                << "atom " << k << " axis " << c;
        }
    }
    double **again = quovix_array_double_2D_new(n, 3);
    omp_set_num_threads(1);
    ASSERT_EQ(quovix_cell_calculate_force(again, cell.get(), ppt.get()), 0);
    omp_set_num_threads(2);
    for (long k = 0; k < n; ++k)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(again[k][c], force[k][c]);
    quovix_array_double_2D_free(again, n);
    quovix_array_double_2D_free(force, n);
}
