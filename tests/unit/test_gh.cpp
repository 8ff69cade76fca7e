// Migration graph: graph from a cosine landscape, cycle basis and percolation network (pruned
// search against the reference search), supergraph, geometry and printers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"

namespace {

using list_ptr = quovix_owner<QUOVIX_LIST, quovix_list_free>;
using network_ptr = quovix_owner<QUOVIX_GRAPH_NETWORK, quovix_graph_network_free>;

// A hop between two sites, both directions, with the translation of the forward one.
struct hop {
    long from, to;
    double saddle;
    int bound[3];
};

// Graph of sites on an m[0] x m[1] x m[2] lattice in an orthogonal cell (edge lengths 6, 5,
// 4.5 A): each site hops to its successor along each axis through a saddle of energy
// site energy + rise[axis] (the higher end), crossing the cell when the successor wraps.
// With m = 1 on an axis the hop goes to the site's own image (a self-loop).
QUOVIX_GRAPH *make_graph(const std::vector<double> &site_en, const std::vector<hop> &hops,
                         const long m[3]) {
    QUOVIX_GRAPH *g =
        quovix_graph_new(static_cast<long>(site_en.size()), static_cast<long>(2 * hops.size()));
    const double len[3] = {6.0, 5.0, 4.5};
    for (int k = 0; k < 3; ++k) {
        g->a[k][k] = len[k];
        g->n[k] = 24;
        g->a_i[k][k] = len[k] / 24;
    }
    g->volume = len[0] * len[1] * len[2];
    for (std::size_t i = 0; i < site_en.size(); ++i) {
        QUOVIX_GRAPH_VERTEX &v = g->v[i];
        const long idx[3] = {static_cast<long>(i) / (m[1] * m[2]),
                             (static_cast<long>(i) / m[2]) % m[1], static_cast<long>(i) % m[2]};
        for (int k = 0; k < 3; ++k) v.x[k] = (idx[k] + 0.25) * len[k] / m[k];
        v.en = site_en[i];
        v.site = 1;
        std::snprintf(v.name, sizeof v.name, "S%d", static_cast<int>(i % 1000));
    }
    for (std::size_t j = 0; j < hops.size(); ++j) {
        QUOVIX_GRAPH_EDGE &f = g->e[2 * j];
        QUOVIX_GRAPH_EDGE &r = g->e[2 * j + 1];
        f.v_i = &g->v[hops[j].from];
        f.v_f = &g->v[hops[j].to];
        r.v_i = f.v_f;
        r.v_f = f.v_i;
        f.e_r = &r;
        r.e_r = &f;
        for (int k = 0; k < 3; ++k) {
            f.bound[k] = hops[j].bound[k];
            f.bound_i[k] = hops[j].bound[k];
            r.bound[k] = -hops[j].bound[k];
            r.bound_f[k] = -hops[j].bound[k];
        }
        double d[3];
        for (int k = 0; k < 3; ++k) d[k] = f.v_f->x[k] + f.bound[k] * g->a[k][k] - f.v_i->x[k];
        for (QUOVIX_GRAPH_EDGE *e : {&f, &r}) {
            e->en = hops[j].saddle;
            e->l = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
            e->barrier = e->en - e->v_i->en;
            for (int k = 0; k < 3; ++k) e->x[k] = f.v_i->x[k] + 0.5 * d[k];
        }
    }
    for (long j = 0; j < g->total_e; ++j) {
        QUOVIX_GRAPH_VERTEX *v = g->e[j].v_i;
        v->e = static_cast<QUOVIX_GRAPH_EDGE **>(
            std::realloc(v->e, sizeof(QUOVIX_GRAPH_EDGE *) * (v->total_e + 1)));
        v->e[v->total_e++] = &g->e[j];
    }
    return g;
}

// Lattice hops of make_graph: saddle = max(site energies) + rise[axis].
std::vector<hop> lattice_hops(const std::vector<double> &site_en, const long m[3],
                              const double rise[3]) {
    std::vector<hop> hops;
    for (long i = 0; i < m[0] * m[1] * m[2]; ++i) {
        const long idx[3] = {i / (m[1] * m[2]), (i / m[2]) % m[1], i % m[2]};
        for (int k = 0; k < 3; ++k) {
            long next[3] = {idx[0], idx[1], idx[2]};
            hop h{};
            next[k] = idx[k] + 1;
            if (next[k] == m[k]) {
                next[k] = 0;
                h.bound[k] = 1;
            }
            h.from = i;
            h.to = (next[0] * m[1] + next[1]) * m[2] + next[2];
            h.saddle = std::max(site_en[h.from], site_en[h.to]) + rise[k];
            hops.push_back(h);
        }
    }
    return hops;
}

struct barriers {
    double e1, e2, e3, el;
};

barriers network_of(QUOVIX_GRAPH *g, bool plain = false) {
    list_ptr cycles{quovix_graph_cycle_list_new_from_graph(g)};
    EXPECT_NE(cycles, nullptr);
    network_ptr nw{plain ? quovix_graph_network_new_from_cycle_list_plain(cycles.get())
                         : quovix_graph_network_new_from_cycle_list(cycles.get())};
    return {nw->e1, nw->e2, nw->e3, nw->el};
}

constexpr double kRise[3] = {0.6, 0.4, 0.9};

}  // namespace

// Equal sites on a lattice give the sorted axis barriers: see GraphFromLandscape, which
// builds the same graphs (one site per cell and 2 x 2 x 2 sites) from a cosine landscape.

TEST(GraphNetwork, UnequalSitesMeasureFromTheLowestSite) {
    const long m[3] = {2, 1, 1};
    const std::vector<double> en = {-1.0, -0.7};
    quovix_graph_ptr g{make_graph(en, lattice_hops(en, m, kRise), m)};
    const barriers b = network_of(g.get());
    // along axis 0 the saddles are 0.6 above the upper site: 0.9 above the lower one;
    // axes 1 and 2 are self-loops of each site, lowest from the lower site
    EXPECT_NEAR(b.e1, 0.4, 1e-12);
    EXPECT_NEAR(b.e2, 0.9, 1e-12);
    EXPECT_NEAR(b.e3, 0.9, 1e-12);
}

TEST(GraphNetwork, PrunedSearchMatchesReferenceOnRandomGraphs) {
    std::mt19937 rng(12345);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int trial = 0; trial < 40; ++trial) {
        const long m[3] = {2 + trial % 2, 2, 1 + trial % 3};
        const long V = m[0] * m[1] * m[2];
        std::vector<double> en(static_cast<std::size_t>(V));
        // coarse energies make many barriers tie within the 0.0001 tolerance
        for (double &e : en) e = std::round(u(rng) * 4) * 0.05;
        double rise[3] = {0.3, 0.5, 0.7};
        std::vector<hop> hops = lattice_hops(en, m, rise);
        for (hop &h : hops) h.saddle += std::round(u(rng) * 6) * 0.05;
        for (int extra = 0; extra < 8; ++extra) {  // random long hops with random translations
            hop h{};
            h.from = static_cast<long>(u(rng) * V) % V;
            h.to = static_cast<long>(u(rng) * V) % V;
            for (int k = 0; k < 3; ++k) h.bound[k] = static_cast<int>(u(rng) * 3) - 1;
            h.saddle = std::max(en[h.from], en[h.to]) + std::round(u(rng) * 20) * 0.05;
            if (h.from == h.to && !h.bound[0] && !h.bound[1] && !h.bound[2]) continue;
            hops.push_back(h);
        }
        quovix_graph_ptr g{make_graph(en, hops, m)};
        list_ptr cycles{quovix_graph_cycle_list_new_from_graph(g.get())};
        network_ptr fast{quovix_graph_network_new_from_cycle_list(cycles.get())};
        network_ptr plain{quovix_graph_network_new_from_cycle_list_plain(cycles.get())};
        ASSERT_TRUE(fast && plain);
        EXPECT_EQ(0, std::memcmp(fast.get(), plain.get(), sizeof(QUOVIX_GRAPH_NETWORK)))
            << "trial " << trial;
    }
}

TEST(GraphNetwork, TiesKeepTheShorterCycleAndEmptyListHasNoNetwork) {
    list_ptr list{quovix_list_new(
        [](void *p) { quovix_graph_cycle_free(static_cast<QUOVIX_GRAPH_CYCLE *>(p)); })};
    auto add = [&](double e_min, double e_max, double l, int bx) {
        QUOVIX_GRAPH_CYCLE *c = quovix_graph_cycle_new(0);
        c->e_min = e_min;
        c->e_max = e_max;
        c->barrier = e_max - e_min;
        c->l = l;
        c->bound[0] = bx;
        quovix_list_append(list.get(), c);
        return c;
    };
    network_ptr empty{quovix_graph_network_new_from_cycle_list(list.get())};
    EXPECT_EQ(empty->e1, -1.0);
    EXPECT_EQ(empty->e3, -1.0);
    add(0.0, 0.5, 10.0, 1);
    QUOVIX_GRAPH_CYCLE *shorter = add(0.0, 0.50005, 5.0, 1);
    add(0.0, 0.2, 3.0, 0);
    ASSERT_EQ(quovix_graph_cycle_list_sort(list.get()), 0);
    // the loop sorts first (lower barrier); the shorter of the tied wrapping cycles next
    EXPECT_EQ(static_cast<QUOVIX_GRAPH_CYCLE *>(list->head->next->next->data), shorter);
    network_ptr nw{quovix_graph_network_new_from_cycle_list(list.get())};
    EXPECT_EQ(nw->c1, shorter);
    EXPECT_NEAR(nw->el, 0.2, 1e-12);
    EXPECT_EQ(nw->e2, -1.0);  // parallel translations only
}

TEST(GraphSupergraph, ReplicaKeepsReversesTranslationsAndBarriers) {
    const long m[3] = {2, 1, 2};
    const std::vector<double> en = {-1.0, -0.9, -0.8, -1.0};
    quovix_graph_ptr g{make_graph(en, lattice_hops(en, m, kRise), m)};
    const long s[3] = {2, 3, 1};
    quovix_graph_ptr sg{quovix_graph_new_supergraph(g.get(), s)};
    ASSERT_NE(sg, nullptr);
    ASSERT_EQ(sg->total_v, 6 * g->total_v);
    ASSERT_EQ(sg->total_e, 6 * g->total_e);
    for (long j = 0; j < sg->total_e; ++j) {
        const QUOVIX_GRAPH_EDGE &e = sg->e[j];
        ASSERT_NE(e.e_r, nullptr);
        EXPECT_EQ(e.e_r->e_r, &e);
        EXPECT_EQ(e.e_r->v_i, e.v_f);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(e.e_r->bound[k], -e.bound[k]);
        // the hop vector in the supercell equals the hop vector of the cell edge it copies
        const QUOVIX_GRAPH_EDGE &o = *e.sub;
        for (int k = 0; k < 3; ++k) {
            const double super_hop = e.v_f->x[k] + e.bound[k] * sg->a[k][k] - e.v_i->x[k];
            const double cell_hop = o.v_f->x[k] + o.bound[k] * g->a[k][k] - o.v_i->x[k];
            EXPECT_NEAR(super_hop, cell_hop, 1e-9);
        }
    }
    const barriers cell = network_of(g.get()), super = network_of(sg.get());
    EXPECT_DOUBLE_EQ(cell.e1, super.e1);
    EXPECT_DOUBLE_EQ(cell.e2, super.e2);
    EXPECT_DOUBLE_EQ(cell.e3, super.e3);

    // one site per cell: the self-loops become hops between the replicas
    const long one[3] = {1, 1, 1};
    const std::vector<double> e1 = {-1.0};
    quovix_graph_ptr g1{make_graph(e1, lattice_hops(e1, one, kRise), one)};
    const long s2[3] = {2, 2, 2};
    quovix_graph_ptr sg1{quovix_graph_new_supergraph(g1.get(), s2)};
    for (long j = 0; j < sg1->total_e; ++j) EXPECT_NE(sg1->e[j].v_i, sg1->e[j].v_f);
    EXPECT_DOUBLE_EQ(network_of(sg1.get()).e3, 0.9);

    testing::internal::CaptureStderr();
    const long bad[3] = {2, 0, 1};
    EXPECT_EQ(quovix_graph_new_supergraph(g.get(), bad), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: supercell vector must be positive.\n");
}

TEST(GraphCycles, ConnectionFollowsSharedStartSites) {
    const long m[3] = {3, 1, 1};
    const std::vector<double> en = {-1.0, -1.0, -1.0};
    quovix_graph_ptr g{make_graph(en, lattice_hops(en, m, kRise), m)};
    auto cycle = [&](std::vector<long> edges) {
        QUOVIX_GRAPH_CYCLE *c = quovix_graph_cycle_new(static_cast<long>(edges.size()));
        for (std::size_t k = 0; k < edges.size(); ++k) c->e[k] = &g->e[edges[k]];
        return quovix_owner<QUOVIX_GRAPH_CYCLE, quovix_graph_cycle_free>{c};
    };
    // edges 0, 6, 12 leave sites 0, 1, 2 (the axis-0 hops)
    auto a = cycle({0}), b = cycle({12}), c = cycle({0, 6}), d = cycle({6, 12});
    QUOVIX_GRAPH_CYCLE *ac[2] = {a.get(), c.get()}, *ab[2] = {a.get(), b.get()};
    EXPECT_TRUE(quovix_graph_cycles_is_connected(ac, 2));
    EXPECT_FALSE(quovix_graph_cycles_is_connected(ab, 2));
    QUOVIX_GRAPH_CYCLE *chain[3] = {a.get(), c.get(), d.get()};
    EXPECT_TRUE(quovix_graph_cycles_is_connected(chain, 3));
    // a and b only meet through d, which comes last: the marking pass reports them apart
    QUOVIX_GRAPH_CYCLE *late[3] = {a.get(), b.get(), d.get()};
    EXPECT_FALSE(quovix_graph_cycles_is_connected(late, 3));
}

TEST(GraphGeometry, PeriodicAdjacencyAndNearestImage) {
    const long n[3] = {10, 10, 4};
    const long x1[3] = {0, 9, 2}, x2[3] = {9, 0, 3}, x3[3] = {2, 0, 3};
    EXPECT_TRUE(quovix_dot_adjacent(x1, x2, n));
    EXPECT_FALSE(quovix_dot_adjacent(x1, x3, n));
    // skewed cell: compare with a brute-force search over images
    const double a[3][3] = {{5.0, 0.0, 0.0}, {4.2, 2.0, 0.0}, {-1.0, 0.7, 3.0}};
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-6.0, 6.0);
    for (int t = 0; t < 200; ++t) {
        const double p[3] = {u(rng), u(rng), u(rng)}, q[3] = {u(rng), u(rng), u(rng)};
        double best = INFINITY;
        for (int i = -12; i <= 12; ++i)
            for (int j = -12; j <= 12; ++j)
                for (int k = -12; k <= 12; ++k) {
                    double d2 = 0.0;
                    for (int c = 0; c < 3; ++c) {
                        const double d = q[c] + i * a[0][c] + j * a[1][c] + k * a[2][c] - p[c];
                        d2 += d * d;
                    }
                    best = std::min(best, std::sqrt(d2));
                }
        EXPECT_NEAR(quovix_dot_distance(p, q, a), best, 1e-9);
    }
}

TEST(GraphFromLandscape, CosineSitesAndSelfLoopHops) {
    // E = sum_k A_k cos(2 pi p f_k): p = 2 gives eight sites per cell, p = 1 one site whose
    // hops all lead to its own images
    const double amp[3] = {0.3, 0.2, 0.45};
    for (const int p : {2, 1}) {
        const long n[3] = {12L * p, 12L * p, 12L * p};
        quovix_cube_ptr cube{quovix_cube_new(n)};
        const double len[3] = {3.0 * p, 2.5 * p, 2.25 * p};
        for (int k = 0; k < 3; ++k) {
            cube->a[k][k] = len[k];
            cube->a_i[k][k] = len[k] / n[k];
        }
        for (long i = 0; i < n[0]; ++i)
            for (long j = 0; j < n[1]; ++j)
                for (long k = 0; k < n[2]; ++k)
                    cube->en[i][j][k] = amp[0] * std::cos(2 * M_PI * p * i / n[0]) +
                                        amp[1] * std::cos(2 * M_PI * p * j / n[1]) +
                                        amp[2] * std::cos(2 * M_PI * p * k / n[2]);
        quovix_fpcube_ptr fp{quovix_fpcube_new_from_cube(cube.get())};
        testing::internal::CaptureStdout();
        quovix_fphalf_list_ptr half{quovix_fphalf_list_new_from_fpcube(fp.get())};
        quovix_fft_ptr fft{quovix_fft_new_from_cube(cube.get())};
        // the structure: one Li on each minimum and O2- in between
        const long sites = static_cast<long>(p) * p * p;
        quovix_owner<QUOVIX_CELL, quovix_cell_free> cell{quovix_cell_new(2 * sites)};
        std::memcpy(cell->a, cube->a, sizeof cell->a);
        for (long s = 0; s < 2 * sites; ++s) {
            QUOVIX_ATOM &at = cell->atom[s];
            const long q = s % sites;
            const long idx[3] = {q / (p * p), (q / p) % p, q % p};
            std::snprintf(at.name, sizeof at.name, s < sites ? "Li%d" : "O%d",
                          static_cast<int>(q + 1));
            std::strcpy(at.type, s < sites ? "Li" : "O");
            at.os = s < sites ? 1 : -2;
            at.occ = 1.0;
            for (int k = 0; k < 3; ++k) at.x_f[k] = (idx[k] + (s < sites ? 0.5 : 0.0)) / p;
        }
        quovix_cell_update_lattice_fractional(cell.get());
        quovix_cell_update_coordinate_cartesion(cell.get());
        quovix_owner<QUOVIX_PROPERTY, quovix_property_free> ppt{quovix_property_import_from_cell(
            cell.get(), "Li", 1, 0.75, QUOVIX_DATA_DIR "/database_unitary.dat",
            QUOVIX_DATA_DIR "/database_binary.dat")};
        ASSERT_NE(ppt, nullptr);
        quovix_graph_ptr g{quovix_graph_new_filled(half.get(), fft.get(), cell.get(), ppt.get())};
        testing::internal::GetCapturedStdout();
        ASSERT_NE(g, nullptr);
        EXPECT_EQ(g->total_v, sites);
        EXPECT_EQ(g->total_e, 2 * 3 * sites);  // three hops per site, both directions
        for (long j = 0; j < g->total_e; ++j) {
            const QUOVIX_GRAPH_EDGE &e = g->e[j];
            int axis = 0, moved = 0;
            for (int k = 0; k < 3; ++k)
                if (std::fabs(e.x[k] - e.v_i->x[k]) > 1e-9) axis = k, ++moved;
            EXPECT_EQ(moved, 1);
            EXPECT_NEAR(e.barrier, 2 * amp[axis], 1e-9);
            EXPECT_NEAR(e.l, len[axis] / p, 1e-9);
            if (p == 1) {
                EXPECT_EQ(std::abs(e.bound[axis]), 1);
            }
            EXPECT_EQ(e.e_r->v_f, e.v_i);
        }
        // curvature at a minimum of A cos(2 pi p x / L) is A (2 pi p / L)^2 along x
        std::vector<double> curv;
        for (int k = 0; k < 3; ++k) curv.push_back(amp[k] * std::pow(2 * M_PI * p / len[k], 2));
        std::sort(curv.begin(), curv.end());
        for (long i = 0; i < g->total_v; ++i) {
            EXPECT_NEAR(g->v[i].occ, 1.0, 1e-12);
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(g->v[i].eig[k], curv[k], 1e-3 * curv[2]);
        }
        const barriers b = network_of(g.get());
        EXPECT_NEAR(b.e1, 0.4, 1e-9);
        EXPECT_NEAR(b.e2, 0.6, 1e-9);
        EXPECT_NEAR(b.e3, 0.9, 1e-9);
    }
}

TEST(GraphPrint, DotText) {
    const long m[3] = {1, 1, 1};
    const std::vector<double> en = {-1.0};
    quovix_graph_ptr g{make_graph(en, lattice_hops(en, m, kRise), m)};
    quovix_owner<QUOVIX_TEXT, quovix_text_free> dot{quovix_graph_export_dot_to_text(g.get())};
    const std::string text = dot->content;
    EXPECT_EQ(text.rfind("digraph pathway {\r\n0 [label=\"0 (1)\" shape=circle color=black];\r\n"
                         "0 -> 0 [label=\"0 (600)\" color=black];\r\n",
                         0),
              0u);
    EXPECT_EQ(text.substr(text.size() - 3), "}\r\n");
}
