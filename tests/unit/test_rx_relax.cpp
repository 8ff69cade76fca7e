// Steepest descent and nudged elastic band on small cells with known answers.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-rx-relax.hpp"
#include "quovix-rx.hpp"

namespace {

using test_import::capture;

quovix_property_ptr property_of(QUOVIX_CELL *cell) {
    quovix_property_ptr ppt;
    capture([&] {
        ppt.reset(quovix_property_import_from_cell(
            cell, nullptr, 0, 0.75, test_import::unitary().c_str(), test_import::binary().c_str()));
    });
    return ppt;
}

// Antifluorite frame (a = 4.6114 A) with a single Li+ at the fractional position f.
quovix_cell_ptr li2o_frame(double fx, double fy, double fz) {
    return test_import::cubic_cell(4.6114, {{"O1", "O", -2, 0, 0, 0, 1.0},
                                            {"O2", "O", -2, 0, 0.5, 0.5, 1.0},
                                            {"O3", "O", -2, 0.5, 0, 0.5, 1.0},
                                            {"O4", "O", -2, 0.5, 0.5, 0, 1.0},
                                            {"Li1", "Li", 1, fx, fy, fz, 1.0}});
}

}  // namespace

// A displaced ion of rock salt returns to its site: the energy never rises from step to step,
// the last forces are below the tolerance and the energy ends at the ideal crystal's.
TEST(RelaxSd, DisplacedIonReturnsAndEnergyNeverRises) {
    quovix_cell_ptr ideal = test_import::cubic_cell(5.62, {{"Na1", "Na", 1, 0, 0, 0, 1},
                                                           {"Na2", "Na", 1, 0.5, 0.5, 0, 1},
                                                           {"Na3", "Na", 1, 0.5, 0, 0.5, 1},
                                                           {"Na4", "Na", 1, 0, 0.5, 0.5, 1},
                                                           {"Cl1", "Cl", -1, 0.5, 0, 0, 1},
                                                           {"Cl2", "Cl", -1, 0, 0.5, 0, 1},
                                                           {"Cl3", "Cl", -1, 0, 0, 0.5, 1},
                                                           {"Cl4", "Cl", -1, 0.5, 0.5, 0.5, 1}});
    quovix_property_ptr ppt = property_of(ideal.get());
    ASSERT_TRUE(ppt);
    const double e_ideal = quovix_cell_calculate_total_energy_eam(ideal.get(), ppt.get());
    quovix_cell_ptr cell{quovix_cell_copy(ideal.get())};
    cell->atom[0].x[0] += 0.15;
    cell->atom[0].x[1] -= 0.05;
    const bool fixed[8] = {};
    auto out = capture([&] {
        EXPECT_EQ(quovix_rx_sd_run(cell.get(), ppt.get(), fixed, 300, false, 1e-3, 0.05), 0);
    });
    std::vector<double> energies;
    for (std::size_t p = out.out.find("E = "); p != std::string::npos;
         p = out.out.find("E = ", p + 1))
        energies.push_back(std::stod(out.out.substr(p + 4)));
    ASSERT_GT(energies.size(), 2u);
    for (std::size_t k = 1; k < energies.size(); ++k) EXPECT_LE(energies[k], energies[k - 1]);
    EXPECT_NE(out.out.find("RX: converged"), std::string::npos) << out.out;
    EXPECT_NEAR(energies.back(), e_ideal, 5e-5);
}

// A fixed atom stays where it is, whatever its force.
TEST(RelaxSd, FixedAtomDoesNotMove) {
    quovix_cell_ptr cell = li2o_frame(0.3, 0.25, 0.25);
    quovix_property_ptr ppt = property_of(cell.get());
    ASSERT_TRUE(ppt);
    bool fixed[5] = {false, false, false, false, false};
    long li = -1;
    for (long k = 0; k < cell->total; ++k)
        if (cell->atom[k].os == 1) li = k;
    fixed[li] = true;
    const double before[3] = {cell->atom[li].x[0], cell->atom[li].x[1], cell->atom[li].x[2]};
    capture([&] { quovix_rx_sd_run(cell.get(), ppt.get(), fixed, 5, false, 1e-3, 0.05); });
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(cell->atom[li].x[c], before[c], 1e-9);
}

// A band from a tetrahedral site to the octahedral interstitial, started bent away from the
// straight line, relaxes back to it: the climbing image lands on the symmetric saddle, whose
// energy is known from the straight band (no transverse force on the threefold axis).
TEST(RelaxNeb, BentBandFindsTheSaddleOfTheStraightOne) {
    quovix_cell_ptr a = li2o_frame(0.25, 0.25, 0.25), b = li2o_frame(0.5, 0.5, 0.5);
    quovix_property_ptr ppt = property_of(a.get());
    ASSERT_TRUE(ppt && property_of(b.get()));
    QUOVIX_CELL *ends[2] = {a.get(), b.get()};
    bool moving[5];
    for (long k = 0; k < 5; ++k) moving[k] = a->atom[k].os == 1;

    // Straight band: its highest image is the saddle by symmetry (converged at once).
    quovix_owner<QUOVIX_RX_NEB, quovix_rx_neb_free> straight{quovix_rx_neb_new(ends, 2, 9)};
    ASSERT_TRUE(straight);
    capture([&] {
        EXPECT_EQ(quovix_rx_neb_run(straight.get(), ppt.get(), moving, 300, 0.02, 5.0), 0);
    });
    double saddle = -HUGE_VAL;
    for (long m = 0; m < 9; ++m) saddle = std::max(saddle, straight->en[m] - straight->en[0]);

    // Bent band: the middle images pushed 0.3 A off the axis.
    quovix_owner<QUOVIX_RX_NEB, quovix_rx_neb_free> bent{quovix_rx_neb_new(ends, 2, 5)};
    ASSERT_TRUE(bent);
    for (long m = 1; m < 4; ++m)
        for (long k = 0; k < 5; ++k)
            if (moving[k]) bent->x[m * 5 + k][0] += 0.3;
    const auto log = capture(
        [&] { EXPECT_EQ(quovix_rx_neb_run(bent.get(), ppt.get(), moving, 200, 0.05, 5.0), 0); });
    double top = -HUGE_VAL;
    for (long m = 0; m < 5; ++m) top = std::max(top, bent->en[m] - bent->en[0]);
    EXPECT_GE(bent->climbing, 1);
    EXPECT_NEAR(top, saddle, 5e-3) << log.out;
    EXPECT_GT(saddle, 0.1);
}

TEST(RelaxNeb, ImagesMustMatch) {
    quovix_cell_ptr a = li2o_frame(0.25, 0.25, 0.25);
    quovix_cell_ptr b = test_import::cubic_cell(4.6114, {{"O1", "O", -2, 0, 0, 0, 1.0}});
    QUOVIX_CELL *ends[2] = {a.get(), b.get()};
    auto out = capture([&] { EXPECT_EQ(quovix_rx_neb_new(ends, 2, 5), nullptr); });
    EXPECT_NE(out.err.find("atoms"), std::string::npos);
    EXPECT_EQ(quovix_rx_neb_new(ends, 1, 5), nullptr);
}
