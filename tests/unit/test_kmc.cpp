// Kinetic Monte Carlo on hand-built graphs with known answers: random-walk diffusivity,
// Boltzmann occupancies, Arrhenius slope, barrier rule, and plain versus fast steps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-kmc.hpp"
#include "quovix-reference.hpp"
#include "temp_dir.hpp"

namespace {

constexpr double kB = 8.6173324e-05;
// Unit curvature along every axis and this mass give an attempt frequency of exactly 1/ps.
constexpr double kMass = 15.6 * 15.6;

struct site {
    double x[3];
    double en;
    double occ;
};
struct hop {
    long i, j;
    int bound[3];
    double saddle;
};

/// Graph of the given sites and hops (each hop gets its reverse) in an orthorhombic cell.
quovix_graph_ptr make_graph(const std::vector<site> &sites, const std::vector<hop> &hops,
                            const double len[3]) {
    quovix_graph_ptr g{
        quovix_graph_new(static_cast<long>(sites.size()), 2 * static_cast<long>(hops.size()))};
    for (int k = 0; k < 3; ++k) g->a[k][k] = len[k];
    g->volume = len[0] * len[1] * len[2];
    g->type[0] = 'L';
    g->type[1] = 'i';
    g->os = 1;
    g->m = kMass;
    for (std::size_t i = 0; i < sites.size(); ++i) {
        QUOVIX_GRAPH_VERTEX &v = g->v[i];
        for (int k = 0; k < 3; ++k) {
            v.x[k] = sites[i].x[k];
            v.eig[k] = 1.0;
            v.eiv[k][k] = 1.0;
        }
        v.en = sites[i].en;
        v.occ = sites[i].occ;
        v.index = static_cast<long>(i);
        std::snprintf(v.name, sizeof v.name, "%s", sites[i].en > 0.0 ? "Li_hi" : "Li_lo");
        g->total_occ += sites[i].occ;
    }
    g->c = g->total_occ / g->volume;
    for (std::size_t h = 0; h < hops.size(); ++h) {
        for (int rev = 0; rev < 2; ++rev) {
            QUOVIX_GRAPH_EDGE &e = g->e[2 * h + rev];
            const long from = rev ? hops[h].j : hops[h].i;
            const long to = rev ? hops[h].i : hops[h].j;
            e.index = static_cast<long>(2 * h + rev);
            e.v_i = &g->v[from];
            e.v_f = &g->v[to];
            e.e_r = &g->e[2 * h + 1 - rev];
            e.en = hops[h].saddle;
            e.barrier = e.en - e.v_i->en;
            double d[3], l2 = 0.0;
            for (int k = 0; k < 3; ++k) {
                e.bound[k] = rev ? -hops[h].bound[k] : hops[h].bound[k];
                d[k] = e.v_f->x[k] + e.bound[k] * len[k] - e.v_i->x[k];
                l2 += d[k] * d[k];
            }
            e.l = std::sqrt(l2);
            for (int k = 0; k < 3; ++k) {
                e.dir[k] = d[k] / e.l;
                e.x[k] = e.v_i->x[k] + 0.5 * d[k];
            }
        }
    }
    return g;
}

/// `copies` independent periodic simple-cubic lattices of n^3 sites (spacing s, one axis only
/// when `line`), each with one ion on its first site; copies share positions, so they must run
/// without interaction.
quovix_graph_ptr lattice_copies(int copies, int n, double s, bool line, double barrier,
                                double en_odd = 0.0) {
    const int ny = line ? 1 : n;
    std::vector<site> sites;
    std::vector<hop> hops;
    const double len[3] = {n * s, line ? 10.0 : n * s, line ? 10.0 : n * s};
    for (int c = 0; c < copies; ++c) {
        const long base = static_cast<long>(sites.size());
        auto id = [&](int i, int j, int k) {
            return base + (static_cast<long>(i) * ny + j) * ny + k;
        };
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < ny; ++j)
                for (int k = 0; k < ny; ++k)
                    sites.push_back({{i * s, j * s, k * s},
                                     (i % 2 == 1) ? en_odd : 0.0,
                                     (i == 0 && j == 0 && k == 0) ? 1.0 : 0.0});
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < ny; ++j)
                for (int k = 0; k < ny; ++k) {
                    hops.push_back({id(i, j, k),
                                    id((i + 1) % n, j, k),
                                    {i + 1 == n, 0, 0},
                                    barrier + std::max(0.0, en_odd)});
                    if (line) continue;
                    hops.push_back({id(i, j, k),
                                    id(i, (j + 1) % n, k),
                                    {0, j + 1 == n, 0},
                                    barrier + std::max(0.0, en_odd)});
                    hops.push_back({id(i, j, k),
                                    id(i, j, (k + 1) % n),
                                    {0, 0, k + 1 == n},
                                    barrier + std::max(0.0, en_odd)});
                }
    }
    return make_graph(sites, hops, len);
}

/// Parameter set of one mobile species with charge q and radius rc.
quovix_property_ptr mobile_ppt(double q, double rc, double sf) {
    quovix_property_ptr ppt{quovix_property_new(1)};
    ppt->conducting = 0;
    ppt->os[0] = 1;
    ppt->sf = sf;
    ppt->uni[0].q = q;
    ppt->uni[0].rc = rc;
    ppt->uni[0].m = kMass;
    return ppt;
}

/// Runs the production with the given limits at temperature T; quiet.
quovix_kmc_ptr run(QUOVIX_GRAPH *g, double cutoff, double T, long steps, unsigned seed,
                   bool plain = false) {
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr kmc{quovix_kmc_new(g, ppt.get(), cutoff)};
    EXPECT_NE(kmc, nullptr);
    if (!kmc) return kmc;
    kmc->plain = plain;
    EXPECT_EQ(quovix_kmc_set_parameters(kmc.get(), T, 0.0, steps, steps), 0);
    std::srand(seed);
    testing::internal::CaptureStdout();
    EXPECT_EQ(quovix_kmc_init(kmc.get()), 0);
    EXPECT_EQ(quovix_kmc_calculate_conductivity(kmc.get()), 0);
    testing::internal::GetCapturedStdout();
    return kmc;
}

}  // namespace

TEST(KmcRandomWalk, CubicLatticeMatchesOneSixthOfRateTimesLengthSquared) {
    // 400 independent walkers on 3x3x3 periodic lattices; six hops of 2.5 A at rate
    // exp(-0.2 eV / kB T) from every site: D = (1/6) * 6 r l^2.
    const double T = 500.0;
    quovix_graph_ptr g = lattice_copies(400, 3, 2.5, false, 0.2);
    quovix_kmc_ptr kmc = run(g.get(), 0.0, T, 200000, 11);
    ASSERT_NE(kmc, nullptr);
    const double r = std::exp(-0.2 / (kB * T));
    const double expected = r * 2.5 * 2.5;
    EXPECT_NEAR(kmc->diffusivity[3], expected, 3.0 * kmc->diffusivity_se[3]);
    EXPECT_LT(kmc->diffusivity_se[3], 0.1 * expected);
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(kmc->diffusivity[k], expected / 3.0, 3.0 * kmc->diffusivity_se[k]);
    // The displacement kept hop by hop equals the one from the crossed cells.
    double s = 0.0;
    for (long i = 0; i < g->total_v; ++i)
        if (kmc->kv[i].occupied) {
            const QUOVIX_KMC_VERTEX &o = kmc->kv[kmc->kv[i].origin];
            for (int k = 0; k < 3; ++k) {
                const double dk = o.y_i[k] * g->a[k][k] + g->v[i].x[k] - g->v[o.v->index].x[k];
                EXPECT_NEAR(o.d[k], dk, 1e-9);
                s += dk * dk;
            }
        }
    EXPECT_NEAR(kmc->displacement[3], std::sqrt(s / 400.0), 1e-9);
    // Residence times: the hops made equal the time integral of the total rate.
    double hops = 0.0;
    for (long i = 0; i < g->total_e; ++i) hops += kmc->ke[i].r2[0];
    EXPECT_EQ(hops, 200000.0);
    EXPECT_NEAR(kmc->rate_integral / hops, 1.0, 3.0 / std::sqrt(hops));
}

TEST(KmcRandomWalk, ChannelMovesOnlyAlongItsAxis) {
    const double T = 300.0;
    quovix_graph_ptr g = lattice_copies(500, 4, 3.0, true, 0.25);
    quovix_kmc_ptr kmc = run(g.get(), 0.0, T, 100000, 5);
    ASSERT_NE(kmc, nullptr);
    // Two hops of 3 A per site: D = (1/6) 2 r l^2, all of it along x.
    const double expected = 2.0 * std::exp(-0.25 / (kB * T)) * 9.0 / 6.0;
    EXPECT_NEAR(kmc->diffusivity[3], expected, 3.0 * kmc->diffusivity_se[3]);
    EXPECT_DOUBLE_EQ(kmc->diffusivity[0], kmc->diffusivity[3]);
    EXPECT_EQ(kmc->diffusivity[1], 0.0);
    EXPECT_EQ(kmc->diffusivity[2], 0.0);
    EXPECT_EQ(kmc->conductivity[1], 0.0);
    // Nernst-Einstein with the printed constants.
    const double mu = kmc->diffusivity[3] * 1.0 / T * 11604.52;
    EXPECT_NEAR(kmc->mobility[3], mu, 1e-12 * mu);
    EXPECT_NEAR(kmc->conductivity[3], mu * g->c * 1.60217662 * 10.0, 1e-12 * mu);
}

TEST(KmcDetailedBalance, OccupanciesFollowTheBoltzmannRatio) {
    // Channels alternating sites at 0 and 0.04 eV, saddle 0.25 eV above the upper one.
    const double T = 400.0, de = 0.04;
    quovix_graph_ptr g = lattice_copies(300, 4, 3.0, true, 0.25, de);
    quovix_kmc_ptr kmc = run(g.get(), 0.0, T, 200000, 7);
    ASSERT_NE(kmc, nullptr);
    double hi = 0.0, lo = 0.0;
    for (long i = 0; i < g->total_v; ++i) (g->v[i].en > 0.0 ? hi : lo) += kmc->kv[i].t;
    EXPECT_NEAR(hi / lo, std::exp(-de / (kB * T)), 0.03 * std::exp(-de / (kB * T)));
    // Time-averaged occupancies add up to the number of ions.
    EXPECT_NEAR((hi + lo) / kmc->t, 300.0, 1e-6);
}

TEST(KmcArrhenius, SlopeOfLnDRecoversTheBarrier) {
    const double barrier = 0.3;
    std::vector<double> x, y, w;
    for (double T : {300.0, 400.0, 600.0, 900.0}) {
        quovix_graph_ptr g = lattice_copies(300, 3, 2.5, false, barrier);
        quovix_kmc_ptr kmc = run(g.get(), 0.0, T, 60000, 3);
        ASSERT_NE(kmc, nullptr);
        x.push_back(1.0 / (kB * T));
        y.push_back(std::log(kmc->diffusivity[3]));
        const double rel = kmc->diffusivity_se[3] / kmc->diffusivity[3];
        w.push_back(1.0 / (rel * rel));
    }
    // Weighted least squares of ln D = ln D0 - Ea / (kB T).
    double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        sw += w[i];
        sx += w[i] * x[i];
        sy += w[i] * y[i];
        sxx += w[i] * x[i] * x[i];
        sxy += w[i] * x[i] * y[i];
    }
    const double det = sw * sxx - sx * sx;
    const double slope = (sw * sxy - sx * sy) / det;
    const double slope_se = std::sqrt(sw / det);
    EXPECT_NEAR(-slope, barrier, 3.0 * slope_se);
    EXPECT_LT(slope_se, 0.02);
}

TEST(KmcRates, BarrierRuleWithRepulsionAndNegativeBarrier) {
    // Four sites 3 A apart on a line in a 24 A cell; ions on 0 and 1.
    const double len[3] = {24.0, 24.0, 24.0};
    std::vector<site> sites = {
        {{0, 0, 0}, 0.0, 1.0}, {{3, 0, 0}, 0.0, 1.0}, {{6, 0, 0}, 0.0, 0.0}, {{9, 0, 0}, 0.3, 0.0}};
    std::vector<hop> hops = {
        {0, 1, {0, 0, 0}, 0.5}, {1, 2, {0, 0, 0}, 0.5}, {2, 3, {0, 0, 0}, 0.2}};
    quovix_graph_ptr g = make_graph(sites, hops, len);
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr kmc{quovix_kmc_new(g.get(), ppt.get(), 3.5)};
    ASSERT_NE(kmc, nullptr);
    const double de = 14.39964 * quovix_energy_coulombic(3.0, 1.0, 0.75 * 2 * 0.7);
    ASSERT_EQ(kmc->kv[1].total_v, 2);
    EXPECT_DOUBLE_EQ(kmc->kv[1].v_de[0], de);
    const double T = 300.0;
    ASSERT_EQ(quovix_kmc_set_parameters(kmc.get(), T, 0.0, 10, 10), 0);
    std::srand(1);
    ASSERT_EQ(quovix_kmc_init(kmc.get()), 0);
    ASSERT_TRUE(kmc->kv[0].occupied && kmc->kv[1].occupied);
    // 1 -> 2: E_A carries the repulsion of the ion on 0, E_B leaves out the mover itself;
    // the saddle (1.5 A from both ends) has no other ion within 3.5 A.
    EXPECT_NEAR(kmc->ke[2].r, std::exp(-(0.5 - de) / (kB * T)), 1e-12);
    EXPECT_EQ(kmc->ke[0].r, 0.0);  // into an occupied site
    EXPECT_EQ(kmc->ke[4].r, 0.0);  // from an empty site
    // Move the ion to 2; the hop 2 -> 3 climbs to a site above its saddle: barrier
    // E_B - E_A = 0.3, the saddle does not count.
    kmc->kv[1].occupied = false;
    kmc->kv[2].occupied = true;
    kmc->kv[1].update = kmc->kv[2].update = true;
    ASSERT_EQ(quovix_kmc_update_rate(kmc.get()), 0);
    EXPECT_NEAR(kmc->ke[4].r, std::exp(-0.3 / (kB * T)), 1e-12);
    // Downhill from 3 with the saddle below the start: negative barrier, rate above f.
    kmc->kv[2].occupied = false;
    kmc->kv[3].occupied = true;
    kmc->kv[2].update = kmc->kv[3].update = true;
    ASSERT_EQ(quovix_kmc_update_rate(kmc.get()), 0);
    EXPECT_NEAR(kmc->ke[5].r, std::exp(0.3 / (kB * T)), 1e-9);
    EXPECT_GT(kmc->ke[5].r, kmc->ke[5].f);
    // The sum tree holds the same total as a plain sum.
    double total = 0.0;
    for (long i = 0; i < g->total_e; ++i) total += kmc->ke[i].r;
    EXPECT_NEAR(kmc->tree[1], total, 1e-12 * total);
}

TEST(KmcRates, CutoffDefaultAndAttemptFrequency) {
    const double len[3] = {12.0, 12.0, 12.0};
    std::vector<site> sites = {
        {{0, 0, 0}, 0.0, 1.0}, {{4.9, 0, 0}, 0.0, 0.0}, {{0, 5.1, 0}, 0.0, 0.0}};
    std::vector<hop> hops = {{0, 1, {0, 0, 0}, 0.3}};
    quovix_graph_ptr g = make_graph(sites, hops, len);
    g->v[0].eig[0] = 4.0;  // curvature 4 eV/A^2 along the hop: twice the frequency
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr kmc{quovix_kmc_new(g.get(), ppt.get(), -1.0)};
    ASSERT_NE(kmc, nullptr);
    ASSERT_EQ(kmc->kv[0].total_v, 1);  // 4.9 A inside the 5.0 A default, 5.1 A outside
    EXPECT_EQ(kmc->kv[0].v_n[0], 1);
    EXPECT_DOUBLE_EQ(kmc->ke[0].f, 2.0);
    EXPECT_DOUBLE_EQ(kmc->ke[1].f, 1.0);
    // A cut-off above half the cell width is refused.
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_kmc_new(g.get(), ppt.get(), 6.5), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("exceeds half"), std::string::npos);
}

TEST(KmcSteps, FastStepFollowsThePlainStep) {
    // Interacting ions on a 6x6x6 lattice: same seed, same hops, same clock.
    quovix_graph_ptr g1 = lattice_copies(1, 6, 2.5, false, 0.2);
    quovix_graph_ptr g2 = lattice_copies(1, 6, 2.5, false, 0.2);
    for (long i = 0; i < g1->total_v; i += 7) g1->v[i].occ = g2->v[i].occ = 1.0;
    g1->total_occ = g2->total_occ = 0.0;
    for (long i = 0; i < g1->total_v; ++i) g1->total_occ = (g2->total_occ += g1->v[i].occ);
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr fast{quovix_kmc_new(g1.get(), ppt.get(), 5.0)};
    quovix_kmc_ptr plain{quovix_kmc_new(g2.get(), ppt.get(), 5.0)};
    ASSERT_TRUE(fast && plain);
    for (QUOVIX_KMC *k : {fast.get(), plain.get()}) {
        ASSERT_EQ(quovix_kmc_set_parameters(k, 600.0, 0.0, 2000, 0), 0);
        std::srand(99);
        ASSERT_EQ(quovix_kmc_init(k), 0);
    }
    for (int n = 0; n < 2000; ++n) {
        const unsigned seed = 1000u + static_cast<unsigned>(n);
        std::srand(seed);
        ASSERT_EQ(quovix_kmc_evolve(fast.get()), 0);
        std::srand(seed);
        ASSERT_EQ(quovix_kmc_evolve_plain(plain.get()), 0);
        double total = 0.0;
        for (long i = 0; i < g2->total_e; ++i) total += plain->ke[i].r;
        ASSERT_NEAR(fast->tree[1], total, 1e-12 * total) << "step " << n;
    }
    for (long i = 0; i < g1->total_v; ++i)
        ASSERT_EQ(fast->kv[i].occupied, plain->kv[i].occupied) << i;
    for (long i = 0; i < g1->total_e; ++i) ASSERT_NEAR(fast->ke[i].r, plain->ke[i].r, 1e-12);
    EXPECT_NEAR(fast->t, plain->t, 1e-9 * plain->t);
}

TEST(KmcPlacement, FullSitesGetOneVacancy) {
    // Both sites of a two-site ring filled: one ion is left out and the other hops.
    const double len[3] = {6.0, 10.0, 10.0};
    std::vector<site> sites = {{{0, 0, 0}, 0.0, 1.0}, {{3, 0, 0}, 0.0, 1.0}};
    std::vector<hop> hops = {{0, 1, {0, 0, 0}, 0.3}, {1, 0, {1, 0, 0}, 0.3}};
    quovix_graph_ptr g = make_graph(sites, hops, len);
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr kmc{quovix_kmc_new(g.get(), ppt.get(), 0.0)};
    ASSERT_NE(kmc, nullptr);
    ASSERT_EQ(quovix_kmc_set_parameters(kmc.get(), 300.0, 0.0, 100, 10), 0);
    testing::internal::CaptureStdout();
    ASSERT_EQ(quovix_kmc_init(kmc.get()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Message: every site of the mobile ion is filled; one ion of 2 is left out to make a "
              "vacancy.\n");
    EXPECT_NE(kmc->kv[0].occupied, kmc->kv[1].occupied);
    EXPECT_EQ(quovix_kmc_evolve(kmc.get()), 0);
}

TEST(KmcErrors, FrozenIonsAndBadInput) {
    // Two sites without a hop between them: no ion can move.
    const double len[3] = {6.0, 10.0, 10.0};
    std::vector<site> sites = {{{0, 0, 0}, 0.0, 1.0}, {{3, 0, 0}, 0.0, 0.0}};
    quovix_graph_ptr g = make_graph(sites, {}, len);
    quovix_property_ptr ppt = mobile_ppt(1.0, 0.7, 0.75);
    quovix_kmc_ptr kmc{quovix_kmc_new(g.get(), ppt.get(), 0.0)};
    ASSERT_NE(kmc, nullptr);
    ASSERT_EQ(quovix_kmc_set_parameters(kmc.get(), 300.0, 0.0, 100, 10), 0);
    ASSERT_EQ(quovix_kmc_init(kmc.get()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_kmc_evolve(kmc.get()), 1);
    EXPECT_EQ(quovix_kmc_evolve_plain(kmc.get()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: overall rate is too small.\nError: overall rate is too small.\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_kmc_equilibrate(kmc.get()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: overall rate is too small: 0.000e+00 (step 0)\n");
    // Limits and temperatures.
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_kmc_set_parameters(kmc.get(), 1e9, 0.0, 100, 10), 1);
    EXPECT_EQ(quovix_kmc_set_parameters(kmc.get(), 300.0, NAN, 100, 10), 1);
    EXPECT_EQ(quovix_kmc_set_parameters(kmc.get(), 300.0, 0.0, 0, 10), 0);
    EXPECT_EQ(quovix_kmc_run(kmc.get()), 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Error: t_limit and step_limit cannot both be zero.\n"),
              std::string::npos);
    EXPECT_EQ(quovix_kmc_set_parameters(kmc.get(), -5.0, -1.0, -1, -1), 0);
    EXPECT_EQ(kmc->temperature, 300.0);
    EXPECT_EQ(kmc->step_limit, 10000);
    EXPECT_EQ(kmc->step_log, 100);
    EXPECT_EQ(kmc->t_limit, 0.0);
    // More ions than vertices cannot be placed; null inputs are refused.
    g->total_occ = 3.0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_kmc_init(kmc.get()), 1);
    EXPECT_EQ(quovix_kmc_new(nullptr, ppt.get(), 1.0), nullptr);
    EXPECT_EQ(quovix_kmc_update_rate(nullptr), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: unable to assign occ.\n"
              "Error: QUOVIX_GRAPH or QUOVIX_PROPERTY has not been properly initialized.\n"
              "Error: wrong inputs for generating rates.\n");
    testing::internal::CaptureStdout();
    quovix_kmc_print(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "KMC: (not allocated)\n");
}

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

TEST(KmcChain, Li2OFromCifThenFromItsCube) {
    // Li2O in a 3x3x3 supercell: 54 Li+ on their sites, hops into interstitials at 600 K.
    const std::string data = QUOVIX_DATA_DIR;
    const std::string unitary = data + "/database_unitary.dat";
    const std::string binary = data + "/database_binary.dat";
    const std::string symcards = data + "/database_symcards.dat";
    const std::string cif = test_tmp::dir() + "Li2O.cif";
    std::filesystem::copy_file(
        std::string(QUOVIX_TEST_DATA_DIR) + "/Li2O_antifluorite_primitive_P1.cif", cif,
        std::filesystem::copy_options::overwrite_existing);
    const std::string cube = test_tmp::dir() + "Li2O.cube";
    const int super[3] = {3, 3, 3};
    for (int pass = 0; pass < 2; ++pass) {
        std::srand(5);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const double sigma = quovix_kmc_calculate_conductivity_from_file(
            cif.c_str(), cube.c_str(), "Li", 1, super, 0.75, 600.0, 0.0, 2000, 500, 3.0,
            symcards.c_str(), unitary.c_str(), binary.c_str());
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_GE(sigma, 0.0);
        EXPECT_NE(out.find(pass == 0 ? "Message: " + cube + " not found"
                                     : "Message: landscape read from " + cube),
                  std::string::npos);
        EXPECT_NE(out.find("Message: supercell [3, 3, 3]\n"), std::string::npos);
        EXPECT_NE(out.find("KMC: step = 2000 / 2000; step_log = 500\n"), std::string::npos);
        EXPECT_NE(out.find("KMC: diffusivity standard error = "), std::string::npos);
        if (pass == 0) {
            // The cube of the same landscape, for the second pass.
            quovix_cell_ptr cell;
            quovix_symmetry_ptr sym;
            QUOVIX_CELL *c = nullptr;
            QUOVIX_SYMMETRY *y = nullptr;
            testing::internal::CaptureStdout();
            ASSERT_EQ(quovix_cell_import_cif_from_file(&c, &y, cif.c_str(), symcards.c_str(),
                                                       unitary.c_str()),
                      0);
            cell.reset(c);
            sym.reset(y);
            ASSERT_EQ(quovix_cube_calculate_from_cell_and_write_to_file(
                          cell.get(), sym.get(), "Li", 1, 0.75, 0.1, true, true, cube.c_str(),
                          unitary.c_str(), binary.c_str()),
                      0);
            testing::internal::GetCapturedStdout();
        }
    }
    // Logs: header with one column triple per ion, a row at steps 0, 500, ..., 2000.
    const std::string log = slurp(cif + ".kmc.log.txt");
    EXPECT_EQ(log.rfind("step,t,site", 0), 0u);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 6);
    const std::string header = log.substr(0, log.find('\n'));
    EXPECT_EQ(std::count(header.begin(), header.end(), ','), 1 + 3 * 54);
    const std::string xyz = slurp(cif + ".kmc.xyz.txt");
    EXPECT_EQ(xyz.rfind("54\n0     0.000000\nLi ", 0), 0u);
    EXPECT_EQ(std::count(xyz.begin(), xyz.end(), '\n'), 5 * 56);
    // Occupancy cells: the O of the supercell plus the mobile ions.
    for (const char *suffix : {".kmc.init.cif", ".kmc.cif"}) {
        const std::string text = slurp(cif + suffix);
        EXPECT_NE(text.find("Li1+"), std::string::npos) << suffix;
    }
}
