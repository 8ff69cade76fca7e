// Oxidation states by bond valence: known assignments of real structures, exact optimality
// against a brute-force enumeration, agreement with the program's own bond-valence sums, and
// the refusals (non-neutral given states, elements without listed states).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <string>

#include "import_test_helpers.hpp"
#include "quovix-bv.hpp"
#include "quovix-os.hpp"

namespace {

using test_import::binary;
using test_import::data_file;
using test_import::symcards;
using test_import::unitary;

struct loaded {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    quovix_os_ptr os;
};

// Reads a CIF without default states (an empty element table) and assigns them.
loaded assign(const std::string &path) {
    loaded r;
    QUOVIX_CELL *cell = nullptr;
    QUOVIX_SYMMETRY *sym = nullptr;
    testing::internal::CaptureStdout();
    const int status = quovix_cell_import_cif_from_file(&cell, &sym, path.c_str(),
                                                        symcards().c_str(), "/dev/null");
    r.cell.reset(cell);
    r.sym.reset(sym);
    if (status == 0)
        r.os.reset(quovix_os_assign_from_cell(cell, sym, unitary().c_str(), binary().c_str()));
    testing::internal::GetCapturedStdout();
    return r;
}

// Chosen state of each site by label ("Fe2.5" style keys for mixed sites are not needed here).
std::map<std::string, double> states(const QUOVIX_OS *os) {
    std::map<std::string, double> out;
    for (long s = 0; s < os->total; ++s) out[os->site[s].name] = os->site[s].state_mean;
    return out;
}

// Cubic P1 head of a CIF (a = 5 A) up to the atom-site columns label, symbol, occupancy, x, y, z.
const std::string kHead =
    "data_x\n_cell_length_a 5.0\n_cell_length_b 5.0\n_cell_length_c 5.0\n_cell_angle_alpha 90\n"
    "_cell_angle_beta 90\n_cell_angle_gamma 90\nloop_\n_symmetry_equiv_pos_as_xyz\n'x, y, z'\n"
    "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_occupancy\n_atom_site_fract_x\n"
    "_atom_site_fract_y\n_atom_site_fract_z\n";

// Magnetite, a = 8.3941 A, by its H-M symbol (origin choice 2).
std::string magnetite() {
    std::string cif = kHead;
    for (int k = 0; k < 3; ++k) cif.replace(cif.find("5.0"), 3, "8.3941");
    const std::string ops = "loop_\n_symmetry_equiv_pos_as_xyz\n'x, y, z'\n";
    cif.replace(cif.find(ops), ops.size(), "_symmetry_space_group_name_H-M 'F d -3 m:2'\n");
    return cif +
           "FeA Fe 1.0 0.125 0.125 0.125\nFeB Fe 1.0 0.5 0.5 0.5\nO1 O 1.0 0.2549 0.2549 0.2549\n";
}

}  // namespace

TEST(OxidationStates, KnownAssignmentsOfRealStructures) {
    // LiCoO2 (Co3+) and Na0.8CoO2 (one mixed Co site of 3.2) are pinned by the e2e cases
    // gen-cif-os-LiCoO2 and gen-cif-os-Na0.8CoO2-mixed.
    {
        auto r = assign(data_file("LiFePO4_olivine_P1.cif"));
        ASSERT_TRUE(r.os);
        for (const auto &[name, st] : states(r.os.get())) {
            const double want = name[0] == 'F' ? 2 : name[0] == 'P' ? 5 : name[0] == 'O' ? -2 : 1;
            EXPECT_EQ(st, want) << name;  // P: phosphate centre, not P3-
        }
    }
    {
        // Charge-ordered cell: Mn3+ on the two sites with long bonds, Mn4+ on the others.
        auto r = assign(data_file("LiMn2O4_spinel_P1.cif"));
        ASSERT_TRUE(r.os);
        auto st = states(r.os.get());
        EXPECT_EQ(st["Mn3"], 3.0);
        EXPECT_EQ(st["Mn4"], 3.0);
        EXPECT_EQ(st["Mn5"], 4.0);
        EXPECT_EQ(st["Mn6"], 4.0);
    }
    {
        // Inverse spinel: Fe3+ on the tetrahedral site, Fe2.5+ on the octahedral one.
        auto r = assign(test_import::write_temp("os_magnetite.cif", magnetite()));
        ASSERT_TRUE(r.os);
        EXPECT_EQ(states(r.os.get())["FeA"], 3.0);
        EXPECT_NEAR(states(r.os.get())["FeB"], 2.5, 1e-9);
    }
    // Structures whose default states are right keep them: no P4+, no S- or Se-.
    for (const char *name : {"Ag7PSe6_argyrodite.cif", "Li10GeP2S12_LGPS.cif"}) {
        auto r = assign(data_file(name));
        ASSERT_TRUE(r.os) << name;
        for (long s = 0; s < r.os->total; ++s) {
            const QUOVIX_OS_SITE &site = r.os->site[s];
            const std::string t = site.type;
            const double want = t == "P"                ? 5
                                : t == "Ge"             ? 4
                                : t == "S" || t == "Se" ? -2
                                : t == "Cl"             ? -1
                                                        : 1;
            EXPECT_EQ(site.state_mean, want) << name << " " << site.name;
        }
    }
    {
        // States the file gives (Cu 2.332 split by the reader) are kept as they are.
        auto r = assign(data_file("YBa2Cu3O7.cif"));
        ASSERT_TRUE(r.os);
        for (long s = 0; s < r.os->total; ++s) EXPECT_EQ(r.os->site[s].given, 1);
    }
}

// The dynamic programme must find the cheapest neutral integer assignment: enumerate every
// combination of the candidate states (6 Fe sites of Fe3O4 and the P1 LiMn2O4 cell).
TEST(OxidationStates, ChoiceIsTheCheapestNeutralCombination) {
    for (const char *name : {"Fe3O4_P1.cif", "LiMn2O4_spinel_P1.cif"}) {
        auto r = assign(data_file(name));
        ASSERT_TRUE(r.os) << name;
        const QUOVIX_OS *os = r.os.get();
        double fixed = 0.0, chosen = 0.0;
        std::vector<long> free;
        for (long s = 0; s < os->total; ++s) {
            const QUOVIX_OS_SITE &site = os->site[s];
            if (site.n_state == 0) {
                fixed += site.state_mean * site.weight;
                continue;
            }
            free.push_back(s);
            const double d = site.bv_sum - site.state_mean;
            chosen += site.weight * d * d;
        }
        double best = INFINITY;
        std::function<void(std::size_t, double, double)> walk = [&](std::size_t i, double q,
                                                                    double cost) {
            if (i == free.size()) {
                if (std::fabs(q) < 1e-9) best = std::min(best, cost);
                return;
            }
            const QUOVIX_OS_SITE &site = os->site[free[i]];
            for (int k = 0; k < site.n_state; ++k) {
                const double d = site.bv[k] - site.state[k];
                walk(i + 1, q + site.weight * site.state[k], cost + site.weight * d * d);
            }
        };
        walk(0, fixed, 0.0);
        EXPECT_NEAR(chosen, best, 1e-9) << name;
    }
}

// Each site's sum under the assignment equals the program's own sum of the assigned cell.
TEST(OxidationStates, SumsAgreeWithTheBondValenceModule) {
    for (const char *name : {"LiCoO2_layered.cif", "Na0.8CoO2_P63mmc.cif", "Fe3O4_P1.cif",
                             "LiMn2O4_spinel_P1.cif", "LiFePO4_olivine_P1.cif"}) {
        auto r = assign(data_file(name));
        ASSERT_TRUE(r.os) << name;
        quovix_cell_ptr out(quovix_os_apply_to_cell(r.os.get(), r.cell.get()));
        ASSERT_TRUE(out);
        testing::internal::CaptureStdout();
        quovix_bv_ptr bv(quovix_bv_calculate_from_cell(out.get(), r.sym.get(), unitary().c_str(),
                                                       binary().c_str()));
        testing::internal::GetCapturedStdout();
        ASSERT_TRUE(bv);
        for (long s = 0; s < r.os->total; ++s) {
            const QUOVIX_OS_SITE &site = r.os->site[s];
            double sum = 0.0, occ = 0.0;  // a mixed site is two species of the bv result
            for (long t = 0; t < bv->total; ++t) {
                if (std::string(bv->atom[t].name) != site.name) continue;
                sum += bv->sum[t] * bv->atom[t].occ;
                occ += bv->atom[t].occ;
            }
            ASSERT_GT(occ, 0.0) << name << " " << site.name;
            EXPECT_NEAR(site.bv_sum, sum / occ, 1e-9) << name << " " << site.name;
        }
    }
}

TEST(OxidationStates, RefusesWhatCannotBeAssigned) {
    // Given states that are not neutral: see the e2e case gen-cif-os-given-not-neutral.
    struct bad {
        const char *name, *atoms, *message;
    } cases[] = {
        {"unknown", "Xq1 Xq 1.0 0 0 0\nO1 O 1.0 0.5 0.5 0.5\n", "no oxidation state of Xq"},
        {"impossible", "Na1 Na 1.0 0 0 0\nK1 K 1.0 0.5 0.5 0.5\n", "no charge-neutral"},
    };
    for (const bad &c : cases) {
        const std::string path =
            test_import::write_temp(std::string("os_") + c.name + ".cif", kHead + c.atoms);
        testing::internal::CaptureStderr();
        auto r = assign(path);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(r.os) << c.name;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.name << ": " << err;
    }
}
