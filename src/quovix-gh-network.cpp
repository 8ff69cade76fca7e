// Percolation network of a sorted cycle list: the cycles (single, pairs, triples) that wrap
// the cell in one, two and three independent directions at the lowest barrier, and the lowest
// local loop.
//
// Rules, in sorted order of the cycles: a wrapping cycle replaces the 1D choice when its
// barrier is lower by more than 0.0001 eV, or equal within 0.0001 and strictly shorter. A pair
// (i < j) of connected wrapping cycles with independent translations replaces the 2D choice
// when its barrier (highest saddle less lowest site over both) is lower by at least 0.0001;
// triples with three independent translations likewise for 3D. Local loops (zero translation)
// follow the 1D rule.
//
// The reference search visits every pair and every triple. The shipped search gives the same
// network: the barrier of a pair or triple is never below the barrier of any of its cycles
// (E+ only grows and E- only falls when cycles are added, and rounded subtraction is monotone),
// so with suffix minima of the cycle barriers a loop stops as soon as no remaining combination
// could be taken at the current best, which only falls while scanning. Combinations whose
// translations cannot reach the wanted rank (suffix spans) are skipped as well. The order of
// visits of the remaining candidates is that of the reference, so every replacement happens
// at the same combination.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "quovix-gh.hpp"
#include "quovix-la.hpp"
#include "quovix-reference.hpp"

namespace {

constexpr double kNetworkTolerance = 0.0001;  // eV (barriers) and A (lengths)

bool wraps(const QUOVIX_GRAPH_CYCLE *c) { return c->bound[0] || c->bound[1] || c->bound[2]; }

std::vector<QUOVIX_GRAPH_CYCLE *> cycle_array(QUOVIX_LIST *list) {
    std::vector<QUOVIX_GRAPH_CYCLE *> out;
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next)
        out.push_back(static_cast<QUOVIX_GRAPH_CYCLE *>(node->data));
    return out;
}

QUOVIX_GRAPH_NETWORK *network_alloc() {
    auto *nw = static_cast<QUOVIX_GRAPH_NETWORK *>(std::calloc(1, sizeof(QUOVIX_GRAPH_NETWORK)));
    if (!nw) std::fputs("Error: unable to allocate QUOVIX_GRAPH_NETWORK.\n", stderr);
    return nw;
}

// Common start: energy range and the 1D and loop choices (a single pass over the cycles).
void network_single(QUOVIX_GRAPH_NETWORK *nw, const std::vector<QUOVIX_GRAPH_CYCLE *> &cs) {
    nw->e_min = 0.0;
    nw->e_max = 0.0;
    if (!cs.empty()) {
        nw->e_min = cs[0]->e_min;
        nw->e_max = cs[0]->e_max;
        for (const QUOVIX_GRAPH_CYCLE *c : cs) {
            nw->e_min = std::min(nw->e_min, c->e_min);
            nw->e_max = std::max(nw->e_max, c->e_max);
        }
    }
    const double start = nw->e_max - nw->e_min + 1.0;
    nw->e1 = nw->e2 = nw->e3 = nw->el = start;
    auto take_single = [](const QUOVIX_GRAPH_CYCLE *held, double cur, const QUOVIX_GRAPH_CYCLE *c) {
        if (c->barrier < cur - kNetworkTolerance) return true;
        return std::fabs(c->barrier - cur) <= kNetworkTolerance && held && c->l < held->l;
    };
    for (QUOVIX_GRAPH_CYCLE *c : cs) {
        if (wraps(c)) {
            if (take_single(nw->c1, nw->e1, c)) {
                nw->e1 = c->barrier;
                nw->e1_min = c->e_min;
                nw->e1_max = c->e_max;
                nw->c1 = c;
            }
        } else if (take_single(nw->cl, nw->el, c)) {
            nw->el = c->barrier;
            nw->el_min = c->e_min;
            nw->el_max = c->e_max;
            nw->cl = c;
        }
    }
}

void network_finish(QUOVIX_GRAPH_NETWORK *nw) {
    if (!nw->c1) nw->e1 = -1.0;
    if (!(nw->c2[0] && nw->c2[1])) nw->e2 = -1.0;
    if (!(nw->c3[0] && nw->c3[1] && nw->c3[2])) nw->e3 = -1.0;
    if (!nw->cl) nw->el = -1.0;
}

int rank_of(const QUOVIX_GRAPH_CYCLE *x, const QUOVIX_GRAPH_CYCLE *y, const QUOVIX_GRAPH_CYCLE *z) {
    double m[3][3] = {};
    const QUOVIX_GRAPH_CYCLE *cs[3] = {x, y, z};
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k) m[r][k] = cs[r] ? cs[r]->bound[k] : 0.0;
    return quovix_matrix33_double_rank(m);
}

// Integer rank of translation vectors (exact for the small integers of cycle translations).
struct span3 {
    long v[3][3] = {};
    int rank = 0;
    static void cross(long out[3], const long a[3], const long b[3]) {
        out[0] = a[1] * b[2] - a[2] * b[1];
        out[1] = a[2] * b[0] - a[0] * b[2];
        out[2] = a[0] * b[1] - a[1] * b[0];
    }
    // adds b when it is outside the span; returns the new rank
    int add(const int b[3]) {
        const long w[3] = {b[0], b[1], b[2]};
        if (rank == 3 || (w[0] == 0 && w[1] == 0 && w[2] == 0)) return rank;
        if (rank == 0) {
            for (int k = 0; k < 3; ++k) v[0][k] = w[k];
            return rank = 1;
        }
        if (rank == 1) {
            long c[3];
            cross(c, v[0], w);
            if (c[0] || c[1] || c[2]) {
                for (int k = 0; k < 3; ++k) v[1][k] = w[k];
                rank = 2;
            }
            return rank;
        }
        long c[3];
        cross(c, v[0], v[1]);
        if (c[0] * w[0] + c[1] * w[1] + c[2] * w[2] != 0) {
            for (int k = 0; k < 3; ++k) v[2][k] = w[k];
            rank = 3;
        }
        return rank;
    }
};

bool independent2(const int a[3], const int b[3]) {
    span3 s;
    s.add(a);
    return s.add(b) == 2;
}

bool independent3(const int a[3], const int b[3], const int c[3]) {
    span3 s;
    s.add(a);
    s.add(b);
    return s.add(c) == 3;
}

}  // namespace

void quovix_graph_network_free(QUOVIX_GRAPH_NETWORK *network) { std::free(network); }

void quovix_graph_network_fprint(std::FILE *out, QUOVIX_GRAPH_NETWORK *nw) {
    if (!nw) {
        std::fputs("QUOVIX_GRAPH_NETWORK: (not allocated)\n", out);
        return;
    }
    // Overall line: the energy span of all cycles of the graph, from the lowest site on a
    // cycle to the highest saddle on one.
    std::fprintf(out, "QUOVIX_GRAPH_NETWORK: e = %.3lf (%.3lf ~ %.3lf)\n", nw->e_max - nw->e_min,
                 nw->e_min, nw->e_max);
    std::fprintf(out, "QUOVIX_GRAPH_NETWORK: e_1D = %.3lf (%.3lf ~ %.3lf)\n", nw->e1, nw->e1_min,
                 nw->e1_max);
    std::fprintf(out, "QUOVIX_GRAPH_NETWORK: e_2D = %.3lf (%.3lf ~ %.3lf)\n", nw->e2, nw->e2_min,
                 nw->e2_max);
    std::fprintf(out, "QUOVIX_GRAPH_NETWORK: e_3D = %.3lf (%.3lf ~ %.3lf)\n", nw->e3, nw->e3_min,
                 nw->e3_max);
    std::fprintf(out, "QUOVIX_GRAPH_NETWORK: e_loop = %.3lf (%.3lf ~ %.3lf)\n", nw->el, nw->el_min,
                 nw->el_max);
}

void quovix_graph_network_print(QUOVIX_GRAPH_NETWORK *network) {
    quovix_graph_network_fprint(stdout, network);
}

QUOVIX_GRAPH_NETWORK *quovix_graph_network_new_from_cycle_list_plain(QUOVIX_LIST *list) {
    if (!list) {
        std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("cycle array", [&]() -> QUOVIX_GRAPH_NETWORK * {
        const std::vector<QUOVIX_GRAPH_CYCLE *> cs = cycle_array(list);
        QUOVIX_GRAPH_NETWORK *nw = network_alloc();
        if (!nw) return nullptr;
        network_single(nw, cs);
        const long n = static_cast<long>(cs.size());
        for (long i = 0; i < n; ++i) {
            if (!wraps(cs[i])) continue;
            for (long j = i + 1; j < n; ++j) {
                if (!wraps(cs[j])) continue;
                QUOVIX_GRAPH_CYCLE *pair[2] = {cs[i], cs[j]};
                if (!quovix_graph_cycles_is_connected(pair, 2)) continue;
                if (rank_of(cs[i], cs[j], nullptr) != 2) continue;
                const double ep = std::max(cs[i]->e_max, cs[j]->e_max);
                const double em = std::min(cs[i]->e_min, cs[j]->e_min);
                if (nw->e2 - (ep - em) >= kNetworkTolerance) {
                    nw->e2 = ep - em;
                    nw->e2_min = em;
                    nw->e2_max = ep;
                    nw->c2[0] = cs[i];
                    nw->c2[1] = cs[j];
                }
            }
        }
        for (long i = 0; i < n; ++i) {
            if (!wraps(cs[i])) continue;
            for (long j = i + 1; j < n; ++j) {
                if (!wraps(cs[j])) continue;
                for (long k = j + 1; k < n; ++k) {
                    if (!wraps(cs[k])) continue;
                    QUOVIX_GRAPH_CYCLE *tri[3] = {cs[i], cs[j], cs[k]};
                    if (!quovix_graph_cycles_is_connected(tri, 3)) continue;
                    if (rank_of(cs[i], cs[j], cs[k]) != 3) continue;
                    const double ep = std::max({cs[i]->e_max, cs[j]->e_max, cs[k]->e_max});
                    const double em = std::min({cs[i]->e_min, cs[j]->e_min, cs[k]->e_min});
                    if (nw->e3 - (ep - em) >= kNetworkTolerance) {
                        nw->e3 = ep - em;
                        nw->e3_min = em;
                        nw->e3_max = ep;
                        nw->c3[0] = cs[i];
                        nw->c3[1] = cs[j];
                        nw->c3[2] = cs[k];
                    }
                }
            }
        }
        network_finish(nw);
        return nw;
    });
}

QUOVIX_GRAPH_NETWORK *quovix_graph_network_new_from_cycle_list(QUOVIX_LIST *list) {
    if (!list) {
        std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("cycle array", [&]() -> QUOVIX_GRAPH_NETWORK * {
        const std::vector<QUOVIX_GRAPH_CYCLE *> all = cycle_array(list);
        QUOVIX_GRAPH_NETWORK *nw = network_alloc();
        if (!nw) return nullptr;
        network_single(nw, all);
        // Only wrapping cycles take part, in their sorted order.
        std::vector<QUOVIX_GRAPH_CYCLE *> cs;
        for (QUOVIX_GRAPH_CYCLE *c : all)
            if (wraps(c)) cs.push_back(c);
        const long n = static_cast<long>(cs.size());
        // sufmin[t]: lowest barrier among cycles t..n-1; sufrank[t]: rank of their translations
        std::vector<double> sufmin(static_cast<std::size_t>(n) + 1, INFINITY);
        std::vector<span3> sufspan(static_cast<std::size_t>(n) + 1);
        for (long t = n - 1; t >= 0; --t) {
            sufmin[t] = std::min(sufmin[t + 1], cs[t]->barrier);
            sufspan[t] = sufspan[t + 1];
            sufspan[t].add(cs[t]->bound);
        }
        // A combination whose barrier is at least lb cannot be taken at the current best.
        auto hopeless = [](double cur, double lb) { return !(cur - lb >= kNetworkTolerance); };
        auto rank_with = [&](const span3 &base, long t) {
            span3 s = base;
            for (int r = 0; r < sufspan[t].rank; ++r) {
                const int b[3] = {static_cast<int>(sufspan[t].v[r][0]),
                                  static_cast<int>(sufspan[t].v[r][1]),
                                  static_cast<int>(sufspan[t].v[r][2])};
                s.add(b);
            }
            return s.rank;
        };

        for (long i = 0; i + 1 < n; ++i) {
            if (hopeless(nw->e2, sufmin[i])) break;
            if (hopeless(nw->e2, std::max(cs[i]->barrier, sufmin[i + 1]))) continue;
            span3 si;
            si.add(cs[i]->bound);
            if (rank_with(si, i + 1) < 2) continue;
            for (long j = i + 1; j < n; ++j) {
                if (hopeless(nw->e2, std::max(cs[i]->barrier, sufmin[j]))) break;
                if (hopeless(nw->e2, cs[j]->barrier)) continue;
                if (!independent2(cs[i]->bound, cs[j]->bound)) continue;
                const double ep = std::max(cs[i]->e_max, cs[j]->e_max);
                const double em = std::min(cs[i]->e_min, cs[j]->e_min);
                if (!(nw->e2 - (ep - em) >= kNetworkTolerance)) continue;
                QUOVIX_GRAPH_CYCLE *pair[2] = {cs[i], cs[j]};
                if (!quovix_graph_cycles_is_connected(pair, 2)) continue;
                nw->e2 = ep - em;
                nw->e2_min = em;
                nw->e2_max = ep;
                nw->c2[0] = cs[i];
                nw->c2[1] = cs[j];
            }
        }

        for (long i = 0; i + 2 < n; ++i) {
            if (hopeless(nw->e3, sufmin[i])) break;
            if (hopeless(nw->e3, std::max(cs[i]->barrier, sufmin[i + 1]))) continue;
            span3 si;
            si.add(cs[i]->bound);
            if (rank_with(si, i + 1) < 3) continue;
            for (long j = i + 1; j + 1 < n; ++j) {
                const double bij = std::max(cs[i]->barrier, cs[j]->barrier);
                if (hopeless(nw->e3, std::max(cs[i]->barrier, sufmin[j]))) break;
                if (hopeless(nw->e3, std::max(bij, sufmin[j + 1]))) continue;
                if (!independent2(cs[i]->bound, cs[j]->bound)) continue;
                span3 sij = si;
                sij.add(cs[j]->bound);
                if (rank_with(sij, j + 1) < 3) continue;
                for (long k = j + 1; k < n; ++k) {
                    if (hopeless(nw->e3, std::max(bij, sufmin[k]))) break;
                    if (hopeless(nw->e3, cs[k]->barrier)) continue;
                    if (!independent3(cs[i]->bound, cs[j]->bound, cs[k]->bound)) continue;
                    const double ep = std::max({cs[i]->e_max, cs[j]->e_max, cs[k]->e_max});
                    const double em = std::min({cs[i]->e_min, cs[j]->e_min, cs[k]->e_min});
                    if (!(nw->e3 - (ep - em) >= kNetworkTolerance)) continue;
                    QUOVIX_GRAPH_CYCLE *tri[3] = {cs[i], cs[j], cs[k]};
                    if (!quovix_graph_cycles_is_connected(tri, 3)) continue;
                    nw->e3 = ep - em;
                    nw->e3_min = em;
                    nw->e3_max = ep;
                    nw->c3[0] = cs[i];
                    nw->c3[1] = cs[j];
                    nw->c3[2] = cs[k];
                }
            }
        }
        network_finish(nw);
        return nw;
    });
}
