// Probe landscapes (GII, total energy with embedding) against the cell-level functions of the
// bond-valence module on the same structure with the probe inserted as an atom.
#include <gtest/gtest.h>

#include <cmath>

#include "import_test_helpers.hpp"
#include "quovix-bv.hpp"
#include "quovix-cube-probe.hpp"
#include "quovix-reference.hpp"
#include "quovix-rx.hpp"

namespace {

using test_import::capture;

struct Fixture {
    test_import::Loaded loaded;
    quovix_property_ptr ppt;
};

Fixture prepare(const char *file) {
    Fixture f;
    f.loaded = test_import::load(test_import::data_file(file));
    capture([&] {
        f.ppt.reset(quovix_property_import_from_cell(f.loaded.cell.get(), "Li", 1, 0.8,
                                                     test_import::unitary().c_str(),
                                                     test_import::binary().c_str()));
        quovix_property_calculate_unitary_eam_parameter(f.ppt.get());
    });
    return f;
}

// The cell with one more atom, Li+ at Cartesian r; every atom its own site.
quovix_cell_ptr with_probe(const QUOVIX_CELL *cell, const double r[3]) {
    quovix_cell_ptr out{quovix_cell_new(cell->total + 1)};
    std::memcpy(out->a, cell->a, sizeof out->a);
    std::memcpy(out->parameter, cell->parameter, sizeof out->parameter);
    std::memcpy(out->angle, cell->angle, sizeof out->angle);
    for (long k = 0; k < cell->total; ++k) out->atom[k] = cell->atom[k];
    QUOVIX_ATOM &p = out->atom[cell->total];
    std::snprintf(p.name, sizeof p.name, "P");
    std::snprintf(p.type, sizeof p.type, "Li");
    p.os = 1;
    p.occ = 1.0;
    for (int c = 0; c < 3; ++c) p.x[c] = r[c];
    quovix_cell_update_coordinate_fractional(out.get());
    for (long k = 0; k < out->total; ++k) {
        out->atom[k].flag = k + 1;
        out->atom[k].ignored = false;
    }
    return out;
}

}  // namespace

// At sample points the binned grid equals the plain loop, and both equal what the bond valence
// module and the embedding energy give for the structure with the probe added.
TEST(ProbeLandscape, GridPlainAndCellLevelAgree) {
    Fixture f = prepare("LiFePO4_olivine_P1.cif");
    ASSERT_TRUE(f.ppt);
    QUOVIX_CELL *cell = f.loaded.cell.get();
    quovix_cube_ptr gii;
    capture([&] { gii.reset(quovix_cube_by_gii_calculate(cell, f.ppt.get(), 0.6)); });
    ASSERT_TRUE(gii);
    quovix_cube_ptr tot, tot_eam;
    capture([&] {
        tot.reset(quovix_cube_by_tot_en_calculate(cell, nullptr, f.ppt.get(), 0.6, false));
        tot_eam.reset(quovix_cube_by_tot_en_calculate(cell, nullptr, f.ppt.get(), 0.6, true));
    });
    ASSERT_TRUE(tot && tot_eam);
    for (long k = 0; k < cell->total; ++k) {
        cell->atom[k].flag = k + 1;
        cell->atom[k].ignored = false;
    }
    double e_cell = 0, emb_cell = 0;
    quovix_bv_ptr bv0;
    capture([&] {
        e_cell = quovix_cell_calculate_total_energy(cell, f.ppt.get());
        emb_cell = quovix_cell_calculate_eam_energy(cell, f.ppt.get());
    });
    const long pts[][3] = {{1, 2, 3}, {5, 0, 1}, {7, 4, 2}, {2, 7, 5}};
    for (const auto &q : pts) {
        double r[3];
        for (int c = 0; c < 3; ++c)
            r[c] = q[0] * gii->a_i[0][c] + q[1] * gii->a_i[1][c] + q[2] * gii->a_i[2][c];
        double g_plain = 0, eam_plain = 0;
        ASSERT_EQ(quovix_cube_probe_point_plain(&g_plain, &eam_plain, cell, f.ppt.get(), r), 0);
        const double g_grid = gii->en[q[0]][q[1]][q[2]];
        EXPECT_NEAR(g_grid, g_plain, 1e-9);
        EXPECT_NEAR(tot_eam->en[q[0]][q[1]][q[2]] - tot->en[q[0]][q[1]][q[2]], eam_plain, 1e-9);

        quovix_cell_ptr big = with_probe(cell, r);
        quovix_bv_ptr bv;
        double e_big = 0, emb_big = 0, e_self = 0;
        capture([&] {
            bv.reset(quovix_bv_calculate_from_flagged_cell(big.get(), f.ppt.get()));
            e_big = quovix_cell_calculate_total_energy(big.get(), f.ppt.get());
            emb_big = quovix_cell_calculate_eam_energy(big.get(), f.ppt.get());
            // The probe with its own images only: the constant the landscape leaves out.
            quovix_cell_ptr alone = with_probe(big.get(), r);
            alone->total = 1;
            alone->atom[0] = big->atom[cell->total];
            e_self = quovix_cell_calculate_total_energy(alone.get(), f.ppt.get());
            alone->total = big->total + 1;
        });
        ASSERT_TRUE(bv);
        EXPECT_NEAR(g_grid, quovix_gii_calculate_from_bv_no_msg(bv.get()), 1e-9);
        EXPECT_NEAR(eam_plain, emb_big - emb_cell, 1e-8);
        if (tot->en[q[0]][q[1]][q[2]] < 5.0) {  // away from the inner branch and the cap
            EXPECT_NEAR(tot->en[q[0]][q[1]][q[2]], e_big - e_cell - e_self, 1e-6);
        }
    }
}

TEST(ProbeLandscape, MobileSpeciesMustBeSet) {
    Fixture f = prepare("LiFePO4_olivine_P1.cif");
    ASSERT_TRUE(f.ppt);
    f.ppt->conducting = -1;
    auto out = capture([&] {
        EXPECT_EQ(quovix_cube_by_gii_calculate(f.loaded.cell.get(), f.ppt.get(), 0.5), nullptr);
    });
    EXPECT_NE(out.err.find("mobile species"), std::string::npos);
}
