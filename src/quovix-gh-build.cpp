// Migration graph: records, periodic geometry, graph from the half paths, occupancies and
// labels from the CIF, and the supercell replica of the graph.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-la.hpp"

namespace {

// Sites whose energies agree within this share a group (name and `site` number), eV.
constexpr double kSameSiteEnergy = 0.0003;
// The occupancy and label search radius doubles from a quarter of the mean voxel length
// until it exceeds this value (A).
constexpr double kAssignCutoffMax = 0.6;
// Residual occupancy accepted by the occupancy search.
constexpr double kAssignResidualMax = 0.5;
// Largest supergraph (vertices or edges) accepted.
constexpr long kSupergraphMax = 50000000L;

bool same_species(const QUOVIX_ATOM &at, const char *type, int os) {
    return std::strncmp(at.type, type, QUOVIX_TYPE_LEN) == 0 && at.os == os;
}

// Inverse of the lattice matrix (rows are the cell vectors): f = x . inv gives fractional
// coordinates. False for a singular or non-finite lattice.
bool lattice_inverse(double inv[3][3], const double m[3][3]) {
    const double det = quovix_matrix33_double_determinant(m);
    if (!(std::fabs(det) > 0.0) || !std::isfinite(det)) return false;
    quovix_matrix33_double_inverse_cofactor(inv, m, det);
    return true;
}

// Translation (cells crossed) of one grid step from index p to index q: an index that falls by
// more than one went forward across the boundary (n-1 -> 0), one that rises went backward.
void add_step_bound(int bound[3], const long p[3], const long q[3]) {
    for (int k = 0; k < 3; ++k) {
        const long d = q[k] - p[k];
        if (d < -1) bound[k] += 1;
        if (d > 1) bound[k] -= 1;
    }
}

long flat_of(const long x[3], const long n[3]) {
    long w[3];
    for (int k = 0; k < 3; ++k) w[k] = quovix_mod_long(x[k], n[k]);
    return (w[0] * n[1] + w[1]) * n[2] + w[2];
}

// Flat indices of the (up to 27, distinct) grid points adjacent to x, x included.
std::vector<long> adjacent_points(const long x[3], const long n[3]) {
    std::vector<long> out;
    out.reserve(27);
    for (int p = -1; p <= 1; ++p)
        for (int q = -1; q <= 1; ++q)
            for (int r = -1; r <= 1; ++r) {
                const long y[3] = {x[0] + p, x[1] + q, x[2] + r};
                out.push_back(flat_of(y, n));
            }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

bool first_type_path(const QUOVIX_FPHALF &h) {
    return h.total >= 1 && h.dot && h.dot[0] && h.dot[h.total - 1] && h.dot[0]->type == FP_SAD &&
           h.dot[0]->total_dn == 2 && h.dot[h.total - 1]->type == FP_MIN;
}

void fprint_vertex(std::FILE *out, const QUOVIX_GRAPH_VERTEX &v) {
    std::fprintf(out,
                 "GRAPH: v[%4ld] %-11s (%4ld %4ld %4ld) (%10.6f %10.6f %10.6f) en = %10.6f; "
                 "occ = %.3f; site = %ld; edges = %d\n",
                 v.index, v.name, v.x_i[0], v.x_i[1], v.x_i[2], v.x[0], v.x[1], v.x[2], v.en, v.occ,
                 v.site, v.total_e);
}

void fprint_edge(std::FILE *out, const QUOVIX_GRAPH_EDGE &e) {
    std::fprintf(out,
                 "GRAPH: e[%4ld] %4ld -> %4ld; saddle (%4ld %4ld %4ld) en = %10.6f; barrier = "
                 "%8.6f; l = %8.6f; bound = (%2d %2d %2d); reverse = %ld\n",
                 e.index, e.v_i ? e.v_i->index : -1L, e.v_f ? e.v_f->index : -1L, e.x_i[0],
                 e.x_i[1], e.x_i[2], e.en, e.barrier, e.l, e.bound[0], e.bound[1], e.bound[2],
                 e.e_r ? e.e_r->index : -1L);
}

// Fills every vertex's edge array from the edges' start vertices, in edge order.
// `super`: message of the supergraph, else of the cell graph.
int link_vertex_edges(QUOVIX_GRAPH *graph, bool super) {
    for (long i = 0; i < graph->total_v; ++i) {
        std::free(graph->v[i].e);
        graph->v[i].e = nullptr;
        graph->v[i].total_e = 0;
    }
    std::vector<int> count(static_cast<std::size_t>(graph->total_v), 0);
    for (long j = 0; j < graph->total_e; ++j) count[graph->e[j].v_i->index]++;
    for (long i = 0; i < graph->total_v; ++i) {
        if (count[i] == 0) continue;
        graph->v[i].e = static_cast<QUOVIX_GRAPH_EDGE **>(
            std::calloc(static_cast<std::size_t>(count[i]), sizeof(QUOVIX_GRAPH_EDGE *)));
        if (!graph->v[i].e) {
            if (super)
                std::fprintf(stderr, "Error: unable to allocate edge for vertex %ld.\n", i);
            else
                std::fprintf(stderr, "Error: unable to reallocate graph->v[%ld].e.\n", i);
            return 1;
        }
    }
    for (long j = 0; j < graph->total_e; ++j) {
        QUOVIX_GRAPH_VERTEX *v = graph->e[j].v_i;
        if (v->total_e >= count[v->index]) {
            std::fprintf(stderr, "Error: mismatch when assigning e[%ld] to v_i[%ld].e[%d]\n", j,
                         v->index, v->total_e);
            return 1;
        }
        v->e[v->total_e++] = &graph->e[j];
    }
    return 0;
}

}  // namespace

// ====================================================================== geometry

bool quovix_dot_adjacent(const long x1[3], const long x2[3], const long n[3]) {
    for (int k = 0; k < 3; ++k) {
        if (n[k] <= 0) return false;
        long d = quovix_mod_long(x1[k] - x2[k], n[k]);
        d = std::min(d, n[k] - d);
        if (d > 1) return false;
    }
    return true;
}

void quovix_dot_pivot(double out[3], const double in[3], const double pivot[3],
                      const double lattice[3][3]) {
    double inv[3][3];
    if (!lattice_inverse(inv, lattice)) {
        quovix_vector3_double_copy(out, in);
        return;
    }
    double d[3], f[3];
    for (int k = 0; k < 3; ++k) d[k] = in[k] - pivot[k];
    for (int k = 0; k < 3; ++k) f[k] = d[0] * inv[0][k] + d[1] * inv[1][k] + d[2] * inv[2][k];
    // Reduce to the nearest lattice point in fractional terms, then try the 27 neighbouring
    // images, since in a skewed cell the nearest image need not be the rounded one.
    for (int k = 0; k < 3; ++k) f[k] = std::isfinite(f[k]) ? std::round(f[k]) : 0.0;
    double best[3] = {d[0], d[1], d[2]};
    double best_len = INFINITY;
    for (int p = -1; p <= 1; ++p)
        for (int q = -1; q <= 1; ++q)
            for (int r = -1; r <= 1; ++r) {
                const double t[3] = {f[0] + p, f[1] + q, f[2] + r};
                double c[3];
                for (int k = 0; k < 3; ++k)
                    c[k] =
                        d[k] - (t[0] * lattice[0][k] + t[1] * lattice[1][k] + t[2] * lattice[2][k]);
                const double len = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
                if (len < best_len - 1e-12) {
                    best_len = len;
                    quovix_vector3_double_copy(best, c);
                }
            }
    for (int k = 0; k < 3; ++k) out[k] = pivot[k] + best[k];
}

double quovix_dot_distance(const double x1[3], const double x2[3], const double lattice[3][3]) {
    double y[3];
    quovix_dot_pivot(y, x2, x1, lattice);
    return quovix_vector3_double_distance(x1, y);
}

void quovix_dot_direction(double dir[3], const double x1[3], const double x2[3],
                          const double lattice[3][3]) {
    double y[3], d[3];
    quovix_dot_pivot(y, x2, x1, lattice);
    for (int k = 0; k < 3; ++k) d[k] = y[k] - x1[k];
    const double len = quovix_vector3_double_length(d);
    for (int k = 0; k < 3; ++k) dir[k] = len > 0.0 ? d[k] / len : 0.0;
}

// ====================================================================== records

QUOVIX_GRAPH *quovix_graph_new(long total_v, long total_e) {
    if (total_v < 0 || total_e < 0 || total_v > kSupergraphMax || total_e > kSupergraphMax) {
        std::fputs("Error: unable to allocate QUOVIX_GRAPH.\n", stderr);
        return nullptr;
    }
    auto *graph = static_cast<QUOVIX_GRAPH *>(std::calloc(1, sizeof(QUOVIX_GRAPH)));
    if (!graph) {
        std::fputs("Error: unable to allocate QUOVIX_GRAPH.\n", stderr);
        return nullptr;
    }
    if (total_v > 0) {
        graph->v = static_cast<QUOVIX_GRAPH_VERTEX *>(
            std::calloc(static_cast<std::size_t>(total_v), sizeof(QUOVIX_GRAPH_VERTEX)));
        if (!graph->v) {
            std::fputs("Error: unable to allocate graph->v.\n", stderr);
            std::free(graph);
            return nullptr;
        }
    }
    if (total_e > 0) {
        graph->e = static_cast<QUOVIX_GRAPH_EDGE *>(
            std::calloc(static_cast<std::size_t>(total_e), sizeof(QUOVIX_GRAPH_EDGE)));
        if (!graph->e) {
            std::fputs("Error: unable to allocate graph->e.\n", stderr);
            std::free(graph->v);
            std::free(graph);
            return nullptr;
        }
    }
    graph->total_v = total_v;
    graph->total_e = total_e;
    for (long i = 0; i < total_v; ++i) graph->v[i].index = i;
    for (long j = 0; j < total_e; ++j) graph->e[j].index = j;
    return graph;
}

void quovix_graph_free(QUOVIX_GRAPH *graph) {
    if (!graph) return;
    for (long i = 0; i < graph->total_v; ++i) std::free(graph->v[i].e);
    std::free(graph->v);
    std::free(graph->e);
    std::free(graph);
}

void quovix_graph_fprint(std::FILE *out, QUOVIX_GRAPH *graph) {
    if (!graph) {
        std::fputs("GRAPH: (not allocated)\n", out);
        return;
    }
    std::fprintf(out, "GRAPH: conducting species: %s%d%c\n", graph->type, quovix_abs_os(graph->os),
                 quovix_sign_char(graph->os));
    std::fprintf(out, "GRAPH: grid = %ld * %ld * %ld; volume = %.3f A^3\n", graph->n[0],
                 graph->n[1], graph->n[2], graph->volume);
    std::fprintf(out, "GRAPH: total_occ = %.3f; c = %.3e A^-3; m = %.3f\n", graph->total_occ,
                 graph->c, graph->m);
    std::fprintf(out, "GRAPH: total vertices = %ld; total edges = %ld\n", graph->total_v,
                 graph->total_e);
    for (long i = 0; i < graph->total_v; ++i) fprint_vertex(out, graph->v[i]);
    for (long j = 0; j < graph->total_e; ++j) fprint_edge(out, graph->e[j]);
}

void quovix_graph_print(QUOVIX_GRAPH *graph) { quovix_graph_fprint(stdout, graph); }

QUOVIX_GRAPH_LIST *quovix_graph_list_new() {
    auto *list = static_cast<QUOVIX_GRAPH_LIST *>(std::calloc(1, sizeof(QUOVIX_GRAPH_LIST)));
    if (!list) std::fputs("Error: unable to allocate QUOVIX_GRAPH_LIST.\n", stderr);
    return list;
}

void quovix_graph_list_free(QUOVIX_GRAPH_LIST *list) {
    if (!list) return;
    std::free(list->v);
    std::free(list->e);
    std::free(list);
}

int quovix_graph_list_add_vertex(QUOVIX_GRAPH_LIST *list, QUOVIX_GRAPH_VERTEX *v) {
    if (!list) return 1;
    auto *p = static_cast<QUOVIX_GRAPH_VERTEX **>(std::realloc(
        list->v, static_cast<std::size_t>(list->total_v + 1) * sizeof(QUOVIX_GRAPH_VERTEX *)));
    if (!p) {
        std::fputs("Error: unable to reallocate list->v.\n", stderr);
        return 1;
    }
    list->v = p;
    list->v[list->total_v++] = v;
    return 0;
}

int quovix_graph_list_add_edge(QUOVIX_GRAPH_LIST *list, QUOVIX_GRAPH_EDGE *e) {
    if (!list) return 1;
    auto *p = static_cast<QUOVIX_GRAPH_EDGE **>(std::realloc(
        list->e, static_cast<std::size_t>(list->total_e + 1) * sizeof(QUOVIX_GRAPH_EDGE *)));
    if (!p) {
        std::fputs("Error: unable to reallocate list->e.\n", stderr);
        return 1;
    }
    list->e = p;
    list->e[list->total_e++] = e;
    return 0;
}

bool quovix_graph_list_is_empty(QUOVIX_GRAPH_LIST *list) {
    return !list || (list->total_v == 0 && list->total_e == 0);
}

void quovix_graph_list_print(QUOVIX_GRAPH_LIST *list) {
    if (!list) {
        std::puts("GRAPH_LIST: (not allocated)");
        return;
    }
    std::printf("GRAPH_LIST: total vertices = %ld; total edges = %ld\n", list->total_v,
                list->total_e);
    for (long i = 0; i < list->total_v; ++i) fprint_vertex(stdout, *list->v[i]);
    for (long j = 0; j < list->total_e; ++j) fprint_edge(stdout, *list->e[j]);
}

// ====================================================================== graph

QUOVIX_GRAPH *quovix_graph_new_filled(QUOVIX_FPHALF_LIST *list, QUOVIX_FFT *fft, QUOVIX_CELL *cell,
                                      QUOVIX_PROPERTY *ppt) {
    if (!list || !fft || !cell || !ppt || ppt->conducting < 0 || ppt->conducting >= ppt->total ||
        (list->total > 0 && !list->half)) {
        std::fputs("Error: uninitialized input to generate QUOVIX_GRAPH.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_GRAPH", [&]() -> QUOVIX_GRAPH * {
        const long *n = fft->n;
        // A landscape and a structure of different cells cannot be matched site by site.
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                if (!(std::fabs(fft->a[i][j] - cell->a[i][j]) <=
                      0.01 + 1e-3 * std::fabs(cell->a[i][j]))) {
                    std::fputs("Error: the lattice of QUOVIX_CELL does not match the grid.\n",
                               stderr);
                    return nullptr;
                }
        // ---- vertices: one per minimum, minima one grid step apart being one vertex
        std::vector<QUOVIX_GRAPH_VERTEX> vs;
        std::unordered_map<long, long> vertex_at;  // flat point -> vertex index
        auto vertices_adjacent = [&](const long x[3]) {
            std::vector<long> out;
            for (long q : adjacent_points(x, n)) {
                auto it = vertex_at.find(q);
                if (it != vertex_at.end()) out.push_back(it->second);
            }
            std::sort(out.begin(), out.end());
            return out;
        };
        QUOVIX_FFTDOT fd{};
        for (long h = 0; h < list->total; ++h) {
            const QUOVIX_FPHALF &half = list->half[h];
            if (half.total < 1 || !half.dot) continue;
            const QUOVIX_FPDOT *m = half.dot[half.total - 1];
            if (!m || m->type != FP_MIN) continue;
            if (!vertices_adjacent(m->x_i).empty()) continue;
            QUOVIX_GRAPH_VERTEX v{};
            v.index = static_cast<long>(vs.size());
            for (int k = 0; k < 3; ++k) {
                v.x_i[k] = m->x_i[k];
                v.x[k] = m->x[k];
            }
            if (quovix_fftdot_read_from_fft(&fd, fft, m->x_i) != 0) {
                std::fputs("Error: quovix_fftdot_read_from_fft() returns non-zero.\n", stderr);
                return nullptr;
            }
            for (int k = 0; k < 3; ++k) {
                v.eig[k] = fd.eig[k];
                for (int j = 0; j < 3; ++j) v.eiv[k][j] = fd.eiv[k][j];
            }
            v.en = m->en;
            vertex_at[flat_of(m->x_i, n)] = v.index;
            vs.push_back(v);
        }

        // ---- edges: the two descents of every first-type saddle region
        struct proto {
            long vi, vf;
            long saddle_half;  // A
            long other_half;   // B
            int bound_i[3], bound_f[3];
        };
        std::vector<proto> es;
        std::unordered_map<long, std::vector<long>> halves_at;  // saddle point -> first-type paths
        for (long h = 0; h < list->total; ++h)
            if (first_type_path(list->half[h]))
                halves_at[flat_of(list->half[h].dot[0]->x_i, n)].push_back(h);
        std::unordered_map<long, bool> saddle_used;
        auto saddle_taken = [&](const long x[3]) {
            for (long q : adjacent_points(x, n))
                if (saddle_used.count(q)) return true;
            return false;
        };
        for (long a = 0; a < list->total; ++a) {
            const QUOVIX_FPHALF &A = list->half[a];
            if (!first_type_path(A)) continue;
            const QUOVIX_FPDOT *sa = A.dot[0];
            const QUOVIX_FPDOT *ma = A.dot[A.total - 1];
            if (saddle_taken(sa->x_i)) continue;
            std::vector<long> cand;
            for (long q : adjacent_points(sa->x_i, n)) {
                auto it = halves_at.find(q);
                if (it == halves_at.end()) continue;
                for (long b : it->second)
                    if (b > a) cand.push_back(b);
            }
            std::sort(cand.begin(), cand.end());
            bool made = false;
            for (long b : cand) {
                const QUOVIX_FPHALF &B = list->half[b];
                const QUOVIX_FPDOT *mb = B.dot[B.total - 1];
                // Translation walked from A's minimum up to the saddle, over to B's saddle and
                // down B to its minimum.
                int up[3] = {0, 0, 0}, down[3] = {0, 0, 0};
                for (long t = A.total - 1; t > 0; --t)
                    add_step_bound(up, A.dot[t]->x_i, A.dot[t - 1]->x_i);
                add_step_bound(down, A.dot[0]->x_i, B.dot[0]->x_i);
                for (long t = 0; t + 1 < B.total; ++t)
                    add_step_bound(down, B.dot[t]->x_i, B.dot[t + 1]->x_i);
                const bool same_basin = quovix_dot_adjacent(ma->x_i, mb->x_i, n);
                // Both descents into the same basin make no hop, unless they reach it in two
                // different cells: with one site of the mobile ion per cell that is the only
                // kind of hop there is, kept as an edge from the site to its own image.
                if (same_basin && up[0] + down[0] == 0 && up[1] + down[1] == 0 &&
                    up[2] + down[2] == 0)
                    continue;
                const std::vector<long> starts = vertices_adjacent(ma->x_i);
                const std::vector<long> ends = vertices_adjacent(mb->x_i);
                for (long vi : starts)
                    for (long vf : ends) {
                        proto p{};
                        p.vi = vi;
                        p.vf = vf;
                        p.saddle_half = a;
                        p.other_half = b;
                        for (int k = 0; k < 3; ++k) {
                            p.bound_i[k] = up[k];
                            p.bound_f[k] = down[k];
                        }
                        // the vertex standing for a minimum may sit one step across a face
                        add_step_bound(p.bound_i, vs[vi].x_i, ma->x_i);
                        add_step_bound(p.bound_f, mb->x_i, vs[vf].x_i);
                        const bool self = vi == vf;
                        if (self && p.bound_i[0] + p.bound_f[0] == 0 &&
                            p.bound_i[1] + p.bound_f[1] == 0 && p.bound_i[2] + p.bound_f[2] == 0)
                            continue;
                        es.push_back(p);
                        made = true;
                    }
            }
            if (made) saddle_used[flat_of(sa->x_i, n)] = true;
        }

        quovix_graph_ptr graph{
            quovix_graph_new(static_cast<long>(vs.size()), static_cast<long>(2 * es.size()))};
        if (!graph) {
            std::fputs("Error: quovix_graph_new() returns NULL.\n", stderr);
            return nullptr;
        }
        for (int k = 0; k < 3; ++k) {
            graph->n[k] = fft->n[k];
            for (int j = 0; j < 3; ++j) {
                graph->a_i[k][j] = fft->a_i[k][j];
                graph->a[k][j] = fft->a[k][j];
            }
        }
        for (std::size_t i = 0; i < vs.size(); ++i) graph->v[i] = vs[i];
        for (std::size_t j = 0; j < es.size(); ++j) {
            const proto &p = es[j];
            QUOVIX_GRAPH_EDGE &f = graph->e[2 * j];
            QUOVIX_GRAPH_EDGE &r = graph->e[2 * j + 1];
            const QUOVIX_FPDOT *s = list->half[p.saddle_half].dot[0];
            for (QUOVIX_GRAPH_EDGE *e : {&f, &r}) {
                for (int k = 0; k < 3; ++k) {
                    e->x_i[k] = s->x_i[k];
                    e->x[k] = s->x[k];
                }
                e->en = s->en;
            }
            f.v_i = &graph->v[p.vi];
            f.v_f = &graph->v[p.vf];
            r.v_i = f.v_f;
            r.v_f = f.v_i;
            f.e_r = &r;
            r.e_r = &f;
            f.index_half = p.saddle_half;
            r.index_half = p.other_half;
            for (int k = 0; k < 3; ++k) {
                f.bound_i[k] = p.bound_i[k];
                f.bound_f[k] = p.bound_f[k];
                f.bound[k] = p.bound_i[k] + p.bound_f[k];
                r.bound_i[k] = -f.bound_f[k];
                r.bound_f[k] = -f.bound_i[k];
                r.bound[k] = -f.bound[k];
            }
            double l = quovix_dot_distance(f.v_i->x, f.v_f->x, graph->a);
            if (p.vi == p.vf) {
                // a hop to the site's own image: its length is the lattice translation
                double t[3];
                for (int k = 0; k < 3; ++k)
                    t[k] = f.bound[0] * graph->a[0][k] + f.bound[1] * graph->a[1][k] +
                           f.bound[2] * graph->a[2][k];
                l = quovix_vector3_double_length(t);
            }
            for (QUOVIX_GRAPH_EDGE *e : {&f, &r}) {
                e->l = l;
                e->barrier = e->en - e->v_i->en;
                quovix_dot_direction(e->dir, e->v_i->x, e->x, graph->a);
            }
        }
        for (long j = 0; j < graph->total_e; ++j) graph->e[j].index = j;
        if (link_vertex_edges(graph.get(), false) != 0) return nullptr;

        const int c = ppt->conducting;
        std::memcpy(graph->type, ppt->type[c], QUOVIX_TYPE_LEN);
        graph->type[QUOVIX_TYPE_LEN - 1] = '\0';
        graph->os = ppt->os[c];
        graph->total_occ = 0.0;
        for (long i = 0; i < cell->total; ++i)
            if (same_species(cell->atom[i], graph->type, graph->os))
                graph->total_occ += cell->atom[i].occ;
        if (quovix_graph_assign_occ(graph.get(), cell) != 0) {
            std::fputs("Error: quovix_graph_assign_occ() returns non-zero.\n", stderr);
            return nullptr;
        }
        if (quovix_graph_assign_label(graph.get(), cell) != 0) {
            std::fputs("Error: quovix_graph_assign_label() returns non-zero.\n", stderr);
            return nullptr;
        }
        graph->volume = quovix_cell_calculate_volume(cell);
        graph->m = ppt->uni ? ppt->uni[c].m : 0.0;
        graph->c = graph->volume > 0.0 ? graph->total_occ / graph->volume : 0.0;
        return graph.release();
    });
}

int quovix_graph_assign_occ(QUOVIX_GRAPH *graph, QUOVIX_CELL *cell) {
    if (!graph || !cell) {
        std::fputs("Error: QUOVIX_GRAPH or QUOVIX_CELL has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    double cutoff =
        (quovix_vector3_double_length(graph->a_i[0]) + quovix_vector3_double_length(graph->a_i[1]) +
         quovix_vector3_double_length(graph->a_i[2])) /
        3.0 / 4.0;
    if (!(cutoff > 0.0) || !std::isfinite(cutoff)) cutoff = kAssignCutoffMax;
    double residual = graph->total_occ;
    for (;;) {
        cutoff *= 2.0;
        for (long i = 0; i < graph->total_v; ++i) graph->v[i].occ = 0.0;
        for (long t = 0; t < cell->total; ++t) {
            const QUOVIX_ATOM &at = cell->atom[t];
            if (!same_species(at, graph->type, graph->os)) continue;
            long count = 0;
            for (long i = 0; i < graph->total_v; ++i)
                if (quovix_dot_distance(at.x, graph->v[i].x, graph->a) <= cutoff) ++count;
            if (count == 0) continue;
            for (long i = 0; i < graph->total_v; ++i)
                if (quovix_dot_distance(at.x, graph->v[i].x, graph->a) <= cutoff)
                    graph->v[i].occ = std::min(1.0, graph->v[i].occ + at.occ / count);
        }
        double sum = 0.0;
        for (long i = 0; i < graph->total_v; ++i) sum += graph->v[i].occ;
        residual = graph->total_occ - sum;
        if (residual <= kAssignResidualMax || cutoff > kAssignCutoffMax) break;
    }
    std::printf("Message: graph occ assignment, residual occ = %.3lf, cutoff = %.3lf A.\n",
                residual, cutoff);
    return 0;
}

int quovix_graph_assign_label(QUOVIX_GRAPH *graph, QUOVIX_CELL *cell) {
    if (!graph || !cell) {
        std::fputs("Error: QUOVIX_GRAPH or QUOVIX_CELL has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    long atoms = 0;
    for (long t = 0; t < cell->total; ++t)
        if (same_species(cell->atom[t], graph->type, graph->os)) ++atoms;
    double cutoff =
        (quovix_vector3_double_length(graph->a_i[0]) + quovix_vector3_double_length(graph->a_i[1]) +
         quovix_vector3_double_length(graph->a_i[2])) /
        3.0 / 4.0;
    if (!(cutoff > 0.0) || !std::isfinite(cutoff)) cutoff = kAssignCutoffMax;
    long named = 0;
    for (;;) {
        cutoff *= 2.0;
        for (long i = 0; i < graph->total_v; ++i)
            std::memset(graph->v[i].name, 0, sizeof graph->v[i].name);
        for (long t = 0; t < cell->total; ++t) {
            const QUOVIX_ATOM &at = cell->atom[t];
            if (!same_species(at, graph->type, graph->os)) continue;
            for (long i = 0; i < graph->total_v; ++i)
                if (quovix_dot_distance(at.x, graph->v[i].x, graph->a) <= cutoff) {
                    std::memcpy(graph->v[i].name, at.name, QUOVIX_ATOM_NAME_LEN);
                    graph->v[i].name[QUOVIX_ATOM_NAME_LEN - 1] = '\0';
                }
        }
        named = 0;
        for (long i = 0; i < graph->total_v; ++i)
            if (graph->v[i].name[0] != '\0') ++named;
        if (named >= atoms || cutoff > kAssignCutoffMax) break;
    }
    std::printf("Message: graph occ label = %ld/%ld, cutoff = %.3lf A.\n", named, atoms, cutoff);
    // Sites away from every atom of the structure: named by energy group.
    long group = 1;
    for (long i = 0; i < graph->total_v; ++i) {
        if (graph->v[i].name[0] != '\0') continue;
        const double e0 = graph->v[i].en;
        char label[40];
        std::snprintf(label, sizeof label, "%.2s_i%ld", graph->type, group);
        for (long j = i; j < graph->total_v; ++j) {
            if (graph->v[j].name[0] != '\0') continue;
            // at most 10 characters of the label are kept
            if (std::fabs(graph->v[j].en - e0) <= kSameSiteEnergy)
                std::snprintf(graph->v[j].name, 11, "%.10s", label);
        }
        ++group;
    }
    for (long i = 0; i < graph->total_v; ++i) graph->v[i].site = 0;
    long site = 1;
    for (long i = 0; i < graph->total_v; ++i) {
        if (graph->v[i].site != 0) continue;
        const double e0 = graph->v[i].en;
        graph->v[i].site = site;
        for (long j = i + 1; j < graph->total_v; ++j)
            if (graph->v[j].site == 0 && std::fabs(graph->v[j].en - e0) <= kSameSiteEnergy)
                graph->v[j].site = site;
        ++site;
    }
    return 0;
}

// ====================================================================== supergraph

QUOVIX_GRAPH *quovix_graph_new_supergraph(QUOVIX_GRAPH *graph, const long s[3]) {
    if (!graph || !s) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (s[0] <= 0 || s[1] <= 0 || s[2] <= 0) {
        std::fputs("Error: supercell vector must be positive.\n", stderr);
        return nullptr;
    }
    const double cells = static_cast<double>(s[0]) * static_cast<double>(s[1]) * s[2];
    if (cells * static_cast<double>(std::max(graph->total_v, graph->total_e)) > kSupergraphMax ||
        cells > kSupergraphMax) {
        std::fputs("Error: supercell vector must be positive.\n", stderr);
        return nullptr;
    }
    const long S = s[0] * s[1] * s[2];
    const long V = graph->total_v, E = graph->total_e;
    quovix_graph_ptr super{quovix_graph_new(V * S, E * S)};
    if (!super) {
        std::fputs("Error: quovix_graph_new() returns NULL.\n", stderr);
        return nullptr;
    }
    auto cell_index = [&](const long t[3]) { return (t[0] * s[1] + t[1]) * s[2] + t[2]; };
    for (int k = 0; k < 3; ++k) {
        super->n[k] = graph->n[k] * s[k];
        for (int j = 0; j < 3; ++j) {
            super->a_i[k][j] = graph->a_i[k][j];
            super->a[k][j] = graph->a[k][j] * static_cast<double>(s[k]);
        }
    }
    std::memcpy(super->type, graph->type, sizeof super->type);
    super->os = graph->os;
    super->m = graph->m;
    super->volume = graph->volume * static_cast<double>(S);
    super->total_occ = graph->total_occ * static_cast<double>(S);
    super->c = graph->c;
    long t[3];
    for (t[0] = 0; t[0] < s[0]; ++t[0])
        for (t[1] = 0; t[1] < s[1]; ++t[1])
            for (t[2] = 0; t[2] < s[2]; ++t[2]) {
                const long r = cell_index(t);
                for (long i = 0; i < V; ++i) {
                    QUOVIX_GRAPH_VERTEX &v = super->v[r * V + i];
                    v = graph->v[i];
                    v.index = r * V + i;
                    v.e = nullptr;
                    v.total_e = 0;
                    v.sub = nullptr;
                    v.visited = false;
                    v.v_b = &graph->v[i];
                    for (int k = 0; k < 3; ++k) {
                        v.x_i[k] += t[k] * graph->n[k];
                        v.x[k] +=
                            t[0] * graph->a[0][k] + t[1] * graph->a[1][k] + t[2] * graph->a[2][k];
                    }
                }
                for (long j = 0; j < E; ++j) {
                    const QUOVIX_GRAPH_EDGE &o = graph->e[j];
                    QUOVIX_GRAPH_EDGE &e = super->e[r * E + j];
                    e = o;
                    e.index = r * E + j;
                    e.sub = &graph->e[j];
                    e.e_r = nullptr;
                    long tf[3], ts[3];
                    for (int k = 0; k < 3; ++k) {
                        const long to = t[k] + o.bound[k];
                        const long ws = t[k] + o.bound_i[k];
                        tf[k] = quovix_mod_long(to, s[k]);
                        ts[k] = quovix_mod_long(ws, s[k]);
                        // floor division: cells of the supercell crossed by the hop
                        e.bound[k] = static_cast<int>((to - tf[k]) / s[k]);
                        e.bound_i[k] = static_cast<int>((ws - ts[k]) / s[k]);
                        e.bound_f[k] = e.bound[k] - e.bound_i[k];
                        e.x_i[k] += ts[k] * graph->n[k];
                    }
                    for (int k = 0; k < 3; ++k)
                        e.x[k] += ts[0] * graph->a[0][k] + ts[1] * graph->a[1][k] +
                                  ts[2] * graph->a[2][k];
                    e.v_i = &super->v[r * V + o.v_i->index];
                    e.v_f = &super->v[cell_index(tf) * V + o.v_f->index];
                }
            }
    // Reverse hops: the reverse of (cell t, edge j) leaves the cell where the hop ends.
    for (long q = 0; q < E * S; ++q) {
        QUOVIX_GRAPH_EDGE &e = super->e[q];
        if (!e.sub->e_r || !e.v_f) {
            std::fputs("Error: failed to link e_r.\n", stderr);
            return nullptr;
        }
        const long rf = e.v_f->index / V;
        QUOVIX_GRAPH_EDGE &back = super->e[rf * E + e.sub->e_r->index];
        if (back.v_f != e.v_i || back.v_i != e.v_f) {
            std::fputs("Error: failed to link e_r.\n", stderr);
            return nullptr;
        }
        if (back.bound[0] != -e.bound[0] || back.bound[1] != -e.bound[1] ||
            back.bound[2] != -e.bound[2]) {
            std::fprintf(stderr, "Error: mismatch in e[].bound %ld <-> %ld.\n", e.index,
                         back.index);
            return nullptr;
        }
        e.e_r = &back;
    }
    if (link_vertex_edges(super.get(), true) != 0) return nullptr;
    return super.release();
}
