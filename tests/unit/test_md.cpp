// Tests of the molecular dynamics: forces against finite differences and against the cell
// energy and stress, plain and neighbour-list loops on a trajectory, energy conservation,
// thermostat, free diffusion, conduction formulas, repeatability and the --md chain.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-md.hpp"
#include "quovix-reference.hpp"
#include "quovix-rx.hpp"

namespace {

using test_import::capture;

const std::string kUnitary = test_import::unitary();
const std::string kBinary = test_import::binary();
const std::string kSymcards = test_import::symcards();

// The tests run on one thread (ctest runs two programs at once); the thread-count test sets
// its own.
[[maybe_unused]] const bool kOneThread = [] {
    omp_set_num_threads(1);
    return true;
}();

double relative(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

// A run on a structure of tests/data: every atom of (type, os) free, the others fixed, the
// screening factor given (no fit). Messages are swallowed.
quovix_md_ptr make_run(const std::string &file, const char *type, int os, double sf = 0.75) {
    test_import::Loaded in = test_import::load(test_import::data_file(file));
    EXPECT_EQ(in.status, 0) << file;
    quovix_property_ptr ppt = test_import::quiet_property(in.cell.get(), sf);
    EXPECT_TRUE(ppt) << file;
    if (!ppt) return nullptr;
    for (long i = 0; i < in.cell->total; ++i) {
        QUOVIX_ATOM &a = in.cell->atom[i];
        a.ignored = a.os != os || std::strcmp(a.type, type) != 0;
    }
    EXPECT_EQ(quovix_property_set_conducting(ppt.get(), type, os), 0);
    return quovix_md_ptr{quovix_md_new(in.cell.get(), ppt.get(), nullptr)};
}

// Initialised run (no files) with the given target temperature and time step.
quovix_md_ptr started_run(const std::string &file, const char *type, int os, double temperature,
                          unsigned seed, double dt = 0.001) {
    quovix_md_ptr md = make_run(file, type, os);
    if (!md) return md;
    md->temperature_target = temperature;
    md->dt = dt;
    std::srand(seed);
    EXPECT_EQ(quovix_md_init_vv(md.get(), false), 0);
    return md;
}

void langevin_steps(QUOVIX_MD *md, long steps) {
    for (long k = 0; k < steps; ++k) {
        ASSERT_EQ(quovix_md_update_vv_langevin(md), 0);
        ++md->step;
    }
}

double max_abs_force(const QUOVIX_MD *md) {
    double m = 0.0;
    for (long i = 0; i < md->cell->total; ++i)
        for (int c = 0; c < 3; ++c) m = std::max(m, std::fabs(md->f[i][c]));
    return m;
}

}  // namespace

// ------------------------------------------------------------------------------------- forces

// Forces are minus the derivative of the potential energy, for every free ion and every axis,
// on two structures taken off their equilibrium positions by a short hot run.
TEST(MdForces, MatchFiniteDifferencesOfTheEnergy) {
    for (auto [file, type] : {std::pair{"Ag7PSe6_argyrodite.cif", "Ag"},
                              std::pair{"Na3PS4_cubic_2x2x2_P1.cif", "Na"}}) {
        quovix_md_ptr md = started_run(file, type, 1, 600.0, 11);
        ASSERT_TRUE(md);
        langevin_steps(md.get(), 30);
        ASSERT_NE(quovix_md_calculate_force(md.get()), nullptr);
        const double h = 1e-5, scale = max_abs_force(md.get());
        ASSERT_GT(scale, 0.05) << file;
        double worst = 0.0;
        for (long i = 0; i < md->cell->total; ++i) {
            if (md->cell->atom[i].ignored) continue;
            for (int c = 0; c < 3; ++c) {
                const double x = md->x[i][c];
                double e[2];
                for (int side = 0; side < 2; ++side) {
                    md->x[i][c] = x + (side == 0 ? -h : h);
                    ASSERT_EQ(quovix_md_update_cell(md.get()), 0);
                    ASSERT_EQ(quovix_md_calculate_interaction(md.get(), nullptr, &e[side], nullptr),
                              0);
                }
                md->x[i][c] = x;
                const double fd = -(e[1] - e[0]) / (2.0 * h);
                worst = std::max(worst, std::fabs(fd - md->f[i][c]));
            }
        }
        EXPECT_LT(worst, 1e-5 * scale) << file << ": largest force " << scale;
    }
}

// The potential energy of the free ions is the cell energy of all pairs less that of the
// framework alone, and the pressure of the static crystal is minus the mean diagonal stress of
// the cell energy (virial theorem for pair potentials), both computed by the cell sums.
TEST(MdForces, EnergyAndPressureAgreeWithCellEnergyAndStress) {
    quovix_md_ptr md = make_run("Ag7PSe6_argyrodite.cif", "Ag", 1);
    ASSERT_TRUE(md);
    double en_p = 0.0, virial = 0.0;
    ASSERT_EQ(quovix_md_calculate_interaction(md.get(), nullptr, &en_p, &virial), 0);
    const double pressure =
        (virial + quovix_md_calculate_virial_framework(md.get())) / (3.0 * md->volume);

    quovix_cell_ptr all{quovix_cell_copy(md->cell)};
    for (long i = 0; i < all->total; ++i) all->atom[i].ignored = false;
    quovix_cell_ptr framework{quovix_cell_copy(all.get())};
    long kept = 0;
    for (long i = 0; i < all->total; ++i)
        if (md->cell->atom[i].ignored) framework->atom[kept++] = all->atom[i];
    framework->total = kept;
    const double e_all = quovix_cell_calculate_total_energy(all.get(), md->ppt);
    const double e_framework = quovix_cell_calculate_total_energy(framework.get(), md->ppt);
    EXPECT_LT(relative(en_p, e_all - e_framework), 1e-12) << en_p;

    double stress[3];
    ASSERT_EQ(quovix_cell_calculate_stress_diagonal(stress, all.get(), md->ppt), 0);
    const double mean = (stress[0] + stress[1] + stress[2]) / 3.0;
    EXPECT_LT(relative(pressure, -mean), 1e-6) << pressure << " " << mean;
}

// The neighbour-list loop and the plain loop give the same forces, energy and virial on every
// configuration of a 200-step trajectory, and the trajectory does not depend on the number of
// threads.
TEST(MdForces, ListsMatchPlainLoopAlongTrajectoryForAnyThreadCount) {
    std::vector<std::vector<double>> final_x;
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        quovix_md_ptr md = started_run("Ag7PSe6_argyrodite.cif", "Ag", 1, 900.0, 5);
        ASSERT_TRUE(md);
        const long n = md->cell->total;
        std::vector<double> fp(3 * n), ff(3 * n);
        double worst = 0.0;
        for (int k = 0; k < 200; ++k) {
            langevin_steps(md.get(), 1);
            double ep = 0, wp = 0, ef = 0, wf = 0;
            ASSERT_EQ(quovix_md_calculate_interaction_plain(
                          md.get(), reinterpret_cast<double(*)[3]>(fp.data()), &ep, &wp),
                      0);
            ASSERT_EQ(quovix_md_calculate_interaction(
                          md.get(), reinterpret_cast<double(*)[3]>(ff.data()), &ef, &wf),
                      0);
            worst = std::max({worst, relative(ef, ep), relative(wf, wp)});
            // The forces alone (each contact between free ions evaluated once).
            ASSERT_NE(quovix_md_calculate_force(md.get()), nullptr);
            double scale = 0.0, diff = 0.0;
            const double *f_flat = &md->f[0][0];  // n rows of 3, contiguous
            for (long q = 0; q < 3 * n; ++q) {
                scale = std::max(scale, std::fabs(fp[q]));
                diff = std::max({diff, std::fabs(ff[q] - fp[q]), std::fabs(f_flat[q] - fp[q])});
            }
            worst = std::max(worst, diff / scale);
        }
        EXPECT_LT(worst, 1e-9) << threads << " threads";
        EXPECT_GT(md->state->list_builds, 1) << "the lists were never rebuilt";
        final_x.emplace_back(&md->x[0][0], &md->x[0][0] + 3 * n);
    }
    omp_set_num_threads(1);
    EXPECT_EQ(final_x[0], final_x[1]);
}

// An ion put 0.05 A from a framework atom gets one warning per force evaluation, from both
// loops, and the run goes on.
TEST(MdForces, CloseContactWarnsOncePerPair) {
    quovix_md_ptr md = make_run("Ag7PSe6_argyrodite.cif", "Ag", 1);
    ASSERT_TRUE(md);
    const long ion = md->state->free[0];
    long fixed = 0;
    while (!md->cell->atom[fixed].ignored) ++fixed;
    for (int c = 0; c < 3; ++c) md->x[ion][c] = md->cell->atom[fixed].x[c] + (c == 0 ? 0.05 : 0.0);
    ASSERT_EQ(quovix_md_update_cell(md.get()), 0);
    md->step = 7;
    const std::string warning = "Warning: unphysically low distance 0.050000 detected at step 7.\n";
    test_import::Captured fast =
        capture([&] { EXPECT_NE(quovix_md_calculate_force(md.get()), nullptr); });
    EXPECT_EQ(fast.out, warning);
    double e = 0.0;
    test_import::Captured plain = capture([&] {
        EXPECT_EQ(quovix_md_calculate_interaction_plain(md.get(), nullptr, &e, nullptr), 0);
    });
    EXPECT_EQ(plain.out, warning);
    EXPECT_TRUE(std::isfinite(e));
}

// ---------------------------------------------------------------------------------- dynamics

// Without friction (plain velocity Verlet, dt = 1 fs) the total energy is conserved: after the
// ions are brought to 300 K, the energy drifts by less than 2e-5 eV/ps per free ion over 2 ps
// (measured: -3.7e-6 eV/ps for the 28 Ag+ ions, 1.3e-7 per ion).
TEST(MdDynamics, VelocityVerletConservesEnergy) {
    quovix_md_ptr md = started_run("Ag7PSe6_argyrodite.cif", "Ag", 1, 300.0, 3);
    ASSERT_TRUE(md);
    langevin_steps(md.get(), 300);
    std::vector<double> t, e;
    for (long k = 0; k <= 2000; ++k) {
        if (k > 0) {
            ASSERT_EQ(quovix_md_update_vv(md.get()), 0);
        }
        if (k % 20 == 0) {
            ASSERT_EQ(quovix_md_calculate_observables(md.get()), 0);
            t.push_back(k * md->dt);
            e.push_back(md->en);
        }
    }
    // Least-squares slope of E(t).
    const double n = static_cast<double>(t.size());
    double st = 0, se = 0, stt = 0, ste = 0;
    for (std::size_t k = 0; k < t.size(); ++k) {
        st += t[k];
        se += e[k];
        stt += t[k] * t[k];
        ste += t[k] * e[k];
    }
    const double slope = (n * ste - st * se) / (n * stt - st * st);
    const double per_ion = slope / static_cast<double>(md->total_free);
    char text[64];
    std::snprintf(text, sizeof text, "%.3e eV/ps (%.3e eV/ps per ion)", slope, per_ion);
    RecordProperty("energy_drift", text);
    EXPECT_LT(std::fabs(per_ion), 2e-5) << "drift " << slope << " eV/ps";
    EXPECT_GT(md->temperature, 100.0);  // the ions really moved
}

// The Langevin thermostat brings the free ions from 10 K to the target: the mean temperature
// of 1.5 ps after 0.5 ps of equilibration is 600 K within three standard errors (N = 28 ions,
// relative spread sqrt(2 / 3N) per sample, correlation time about 1 / (2 zeta)).
TEST(MdDynamics, ThermostatReachesTarget) {
    quovix_md_ptr md = started_run("Ag7PSe6_argyrodite.cif", "Ag", 1, 600.0, 21);
    ASSERT_TRUE(md);
    EXPECT_LT(md->temperature, 20.0);
    langevin_steps(md.get(), 500);
    double sum = 0.0;
    int samples = 0;
    for (int k = 0; k < 1500; ++k) {
        langevin_steps(md.get(), 1);
        md->en_k = quovix_md_calculate_en_k(md.get());
        sum += quovix_md_calculate_temperature(md.get());
        ++samples;
    }
    const double mean = sum / samples;
    const double independent = 1.5 / 0.25;
    const double se = 600.0 * std::sqrt(2.0 / (3.0 * md->total_free)) / std::sqrt(independent);
    EXPECT_NEAR(mean, 600.0, 3.0 * se);
}

// With the interactions switched off the ions diffuse freely: D = k_B T / (m zeta) (Einstein),
// less the ballistic start, D (1 - (1 - exp(-zeta t)) / (zeta t)).
TEST(MdDynamics, FreeLangevinDiffusionFollowsEinstein) {
    quovix_md_ptr md = started_run("Ag7PSe6_argyrodite.cif", "Ag", 1, 300.0, 8, 0.005);
    ASSERT_TRUE(md);
    for (quovix_md_term &t : md->state->table) t.kind = quovix_md_term::none;
    md->state->lists_valid = false;
    md->t_end = 20.0;
    md->step_log = 1000000;
    testing::internal::CaptureStdout();
    const int status = quovix_md_run(md.get());
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0);
    const double zt = md->zeta * md->t;
    const double d = QUOVIX_BOLTZMANN * 300.0 / (md->m[md->state->free[0]] * md->zeta) *
                     (1.0 - (1.0 - std::exp(-zt)) / zt);
    // 28 ions x 3 axes: relative spread of the mean squared displacement sqrt(2 / 84).
    EXPECT_NEAR(md->diffusivity, d, 3.0 * d * std::sqrt(2.0 / 84.0));
    EXPECT_GT(md->diffusivity_se, 0.0);
    EXPECT_LT(md->diffusivity_se, 0.5 * d);
}

// Conduction formulas on given displacements: <d>, <d^2>/(6t), D os/T e/k_B, mu (n/V) os e 10.
TEST(MdDynamics, ConductionPropertiesFromDisplacements) {
    quovix_md_ptr md = make_run("Ag7PSe6_argyrodite.cif", "Ag", 1);
    ASSERT_TRUE(md);
    const long n = md->total_free;
    for (long i = 0; i < md->cell->total; ++i) {
        for (int c = 0; c < 3; ++c) md->x0[i][c] = md->x[i][c];
        if (!md->cell->atom[i].ignored) md->x[i][0] += (i % 2 == 0) ? 3.0 : 4.0;  // 3 or 4 A
    }
    md->t = 2.0;
    md->temperature_ave = 500.0;
    ASSERT_EQ(quovix_md_calculate_conduction_property(md.get()), 0);
    EXPECT_DOUBLE_EQ(md->displacement, 3.5);
    EXPECT_DOUBLE_EQ(md->diffusivity, 12.5 / 12.0);
    EXPECT_DOUBLE_EQ(md->mobility, md->diffusivity / 500.0 * 11604.52);
    EXPECT_DOUBLE_EQ(md->conductivity, md->mobility * n / md->volume * 1.60217662 * 10.0);
    md->t = 0.0;  // only for t > 0
    ASSERT_EQ(quovix_md_calculate_conduction_property(md.get()), 0);
    EXPECT_EQ(md->diffusivity, 0.0);
}

// Defaults: non-positive values are replaced; t_log below dt samples every 100 steps; the
// initial velocities carry no net momentum; a seeded run repeats exactly.
TEST(MdDynamics, DefaultsSamplingAndSeededRepeatability) {
    quovix_md_ptr md = make_run("Ag7PSe6_argyrodite.cif", "Ag", 1);
    ASSERT_TRUE(md);
    md->t_log = 0.0001;
    md->temperature_target = -5.0;
    std::srand(4);
    ASSERT_EQ(quovix_md_init_vv(md.get(), false), 0);
    EXPECT_EQ(md->temperature_init, 10.0);
    EXPECT_EQ(md->temperature_target, 300.0);
    EXPECT_EQ(md->dt, 0.001);
    EXPECT_EQ(md->zeta, 2.0);
    EXPECT_EQ(md->t_end, 10.0);
    EXPECT_EQ(md->t_equil, 2.0);
    EXPECT_EQ(md->step_log, 100);
    EXPECT_DOUBLE_EQ(md->t_log, 0.1);
    double p[3] = {0, 0, 0};
    for (long i = 0; i < md->cell->total; ++i)
        for (int c = 0; c < 3; ++c) p[c] += md->m[i] * md->v[i][c];
    for (double c : p) EXPECT_NEAR(c, 0.0, 1e-15);

    std::vector<double> first;
    for (int run = 0; run < 2; ++run) {
        quovix_md_ptr again = started_run("Ag7PSe6_argyrodite.cif", "Ag", 1, 300.0, 99);
        langevin_steps(again.get(), 20);
        std::vector<double> x(&again->x[0][0], &again->x[0][0] + 3 * again->cell->total);
        if (run == 0)
            first = x;
        else
            EXPECT_EQ(x, first);
    }
}

// ------------------------------------------------------------------------------------ chain

namespace {

struct ChainRun {
    int status;
    test_import::Captured log;
};

ChainRun run_chain(const std::string &cif, const char *type, int os, double t_end, double t_equil,
                   double dt, double t_log = -0.1) {
    ChainRun r{};
    r.log = capture([&] {
        r.status = quovix_md_conduction_from_file(cif.c_str(), type, os, 0.75, 300.0, t_end,
                                                  t_equil, dt, t_log, kBinary.c_str(),
                                                  kUnitary.c_str(), kSymcards.c_str());
    });
    return r;
}

std::string copy_to_temp(const std::string &name, const std::string &content) {
    return test_import::write_temp_file("quovix_md_" + name, content);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

// A short run writes the three logs and the final structure; with every conducting ion fixed
// by the constraint column the run completes and its conduction values are not numbers.
TEST(MdChain, WritesLogsAndHandlesRunWithoutFreeIons) {
    const std::string text = read_file(test_import::data_file("Ag7PSe6_argyrodite.cif"));
    const std::string cif = copy_to_temp("Ag7.cif", text);
    ChainRun ok = run_chain(cif, "Ag", 1, 0.02, 0.005, 0.001, 0.01);
    ASSERT_EQ(ok.status, 0) << ok.log.err;
    EXPECT_EQ(ok.log.err, "");
    const std::string log = read_file(cif + ".md.txt");
    EXPECT_EQ(log.substr(0, 16), "      step,     ");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);  // header and two samples
    const std::string trj = read_file(cif + ".md.trj");
    EXPECT_EQ(trj.substr(0, 18), "t, d_ave,d_0_Ag1,d");
    const std::string xyz = read_file(cif + ".md.xyz");
    EXPECT_EQ(std::count(xyz.begin(), xyz.end(), '\n'), 2 * 58);
    EXPECT_TRUE(std::filesystem::exists(cif + ".md.cif"));
    EXPECT_NE(ok.log.out.find("MD: diffusivity standard error = "), std::string::npos);

    // Ag sites flagged fixed through _atom_site_quovix_fixed (a column added to the site loop).
    std::string fixed;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string label, x;
        words >> label >> x;
        if (line == "    _atom_site_type_symbol")
            line += "\n    _atom_site_quovix_fixed";
        else if (line.find("Uani") != std::string::npos && !x.empty() && x[0] == '.')
            line += label.rfind("Ag", 0) == 0 ? " t" : " f";
        fixed += line + "\n";
    }
    const std::string none = copy_to_temp("Ag7fixed.cif", fixed);
    ChainRun nan_run = run_chain(none, "Ag", 1, 0.01, 0.005, 0.001);
    ASSERT_EQ(nan_run.status, 0) << nan_run.log.err;
    EXPECT_NE(nan_run.log.out.find("MD: total atoms = 56, free atoms = 0\n"), std::string::npos);
    EXPECT_NE(nan_run.log.out.find("MD: diffusivity = nan\n"), std::string::npos);
    EXPECT_NE(nan_run.log.out.find("MD: conductivity = nan\n"), std::string::npos);
}

// Bad requests end with a clear error and leave no result file behind.
TEST(MdChain, BadInputsFailCleanly) {
    const std::string ag =
        copy_to_temp("Ag7bad.cif", read_file(test_import::data_file("Ag7PSe6_argyrodite.cif")));
    const std::string li =
        copy_to_temp("Li6.cif", read_file(test_import::data_file("Li6PS5Cl_argyrodite.cif")));
    struct Case {
        std::string cif;
        const char *type;
        double t_end, dt;
        const char *message;
    } cases[] = {
        {li, "Li", 0.01, 0.001, "partial occupancy of conducting ions is not supported"},
        {ag, "Na", 0.01, 0.001, "Error: quovix_property_find_index() returns negative value.\n"},
        {ag, "Ag", -0.1, 1e-9, "Error: t_end = 10 ps with dt = 1e-09 ps"},
        {ag, "Ag", 1e9, 0.001, "Error: t_end = 1e+09 ps"},
        {ag, "Ag", 5.0, 1.0, "the dynamics diverged"},
    };
    for (const Case &c : cases) {
        ChainRun r = run_chain(c.cif, c.type, 1, c.t_end, 0.001, c.dt);
        EXPECT_LT(r.status, 0) << c.message;
        EXPECT_NE(r.log.err.find(c.message), std::string::npos) << r.log.err;
        EXPECT_EQ(r.log.out.find("MD: diffusivity ="), std::string::npos);
        for (const char *suffix : {".md.txt", ".md.xyz", ".md.trj", ".md.cif"})
            EXPECT_FALSE(std::filesystem::exists(c.cif + suffix)) << c.message << suffix;
    }
}
