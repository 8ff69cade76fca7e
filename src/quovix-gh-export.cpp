// Migration graph output: marker cells, Graphviz description, the cycle summary and energy
// profiles along the percolating paths, and the --gh and --sites chains.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"
#include "quovix-la.hpp"

namespace {

// Marker elements of the site groups, lowest energy first (then Cs for every further group).
constexpr const char *kSiteElements[] = {"Li", "Na", "K", "Rb", "Cs"};

bool hop_representative(const QUOVIX_GRAPH_EDGE &e) { return !e.e_r || e.index < e.e_r->index; }

int set_atom(QUOVIX_ATOM &at, const char *name, const char *type, const double x[3]) {
    std::snprintf(at.name, sizeof at.name, "%.11s", name);
    std::snprintf(at.type, sizeof at.type, "%s", type);
    at.os = 1;
    at.occ = 1.0;
    for (int k = 0; k < 3; ++k) at.x[k] = x[k];
    return 0;
}

// One point along a hop or a cycle: position unwrapped along the walk.
struct path_point {
    double s;          // distance from the start of the cycle (A)
    double en;         // energy (eV)
    double x[3];       // Cartesian position, continuous along the walk (A)
    const char *kind;  // vertex name, "saddle" or "none"
    long edge;         // edge index in the graph
    long hop;          // position of the edge in the cycle
};

// Dots of a cycle in walking order: for each edge its start half path climbed from the start
// site to the saddle, then the end half path descended to the next site.
bool walk_cycle(std::vector<path_point> &out, const QUOVIX_GRAPH_CYCLE *c,
                const QUOVIX_FPHALF_LIST *list, const double lattice[3][3]) {
    out.clear();
    double prev[3] = {0, 0, 0};
    double s = 0.0;
    bool first = true;
    for (long k = 0; k < c->total; ++k) {
        const QUOVIX_GRAPH_EDGE *e = c->e[k];
        if (!e || !e->e_r) return false;
        const long ha = e->index_half, hb = e->e_r->index_half;
        if (ha < 0 || hb < 0 || ha >= list->total || hb >= list->total) return false;
        const QUOVIX_FPHALF &A = list->half[ha];
        const QUOVIX_FPHALF &B = list->half[hb];
        std::vector<std::pair<const QUOVIX_FPDOT *, const char *>> dots;
        for (long t = A.total - 1; t >= 0; --t)
            dots.push_back({A.dot[t], t == A.total - 1 ? e->v_i->name
                                      : t == 0         ? "saddle"
                                                       : "none"});
        for (long t = 0; t < B.total; ++t) {
            if (t == 0 && quovix_fpdot_equal(B.dot[0], A.dot[0])) continue;
            dots.push_back({B.dot[t], t == B.total - 1 ? e->v_f->name : "none"});
        }
        for (std::size_t d = 0; d < dots.size(); ++d) {
            // the end site of one hop is the start site of the next: keep it once
            if (!first && d == 0) continue;
            const QUOVIX_FPDOT *dot = dots[d].first;
            path_point p{};
            if (first) {
                for (int j = 0; j < 3; ++j) p.x[j] = dot->x[j];
                first = false;
            } else {
                quovix_dot_pivot(p.x, dot->x, prev, lattice);
                s += quovix_vector3_double_distance(p.x, prev);
            }
            for (int j = 0; j < 3; ++j) prev[j] = p.x[j];
            p.s = s;
            p.en = dot->en;
            p.kind = dots[d].second;
            p.edge = e->index;
            p.hop = k;
            out.push_back(p);
        }
    }
    return true;
}

struct kind_cycles {
    const char *tag;  // "1D", "2D", "3D", "0D"
    double e_min;
    std::vector<QUOVIX_GRAPH_CYCLE *> cycles;
};

std::vector<kind_cycles> network_kinds(const QUOVIX_GRAPH_NETWORK *nw) {
    std::vector<kind_cycles> out;
    if (nw->e1 >= 0.0 && nw->c1) out.push_back({"1D", nw->e1_min, {nw->c1}});
    if (nw->e2 >= 0.0 && nw->c2[0] && nw->c2[1])
        out.push_back({"2D", nw->e2_min, {nw->c2[0], nw->c2[1]}});
    if (nw->e3 >= 0.0 && nw->c3[0] && nw->c3[1] && nw->c3[2])
        out.push_back({"3D", nw->e3_min, {nw->c3[0], nw->c3[1], nw->c3[2]}});
    if (nw->el >= 0.0 && nw->cl) out.push_back({"0D", nw->el_min, {nw->cl}});
    return out;
}

// Everything the chains build from the files, freed in reverse order of construction.
struct landscape {
    quovix_fpcube_ptr fpcube;
    quovix_fphalf_list_ptr half;
    quovix_graph_ptr graph;
};

int build_landscape(landscape &ls, const char *cifname, const char *cubename, const char *type,
                    int os, double barrier_cutoff, bool periodic, const char *dir_unitary,
                    const char *dir_binary, const char *dir_symcards) {
    quovix_fft_ptr fft;
    {
        QUOVIX_CUBE *raw = nullptr;
        if (quovix_cube_import_from_file(&raw, nullptr, cubename, periodic, nullptr) != 0) {
            quovix_cube_free(raw);
            std::fputs("Error: quovix_cube_import_from_file() returns non-zero.\n", stderr);
            return 1;
        }
        quovix_cube_ptr cube{raw};
        ls.fpcube.reset(quovix_fpcube_new_from_cube(cube.get()));
        if (!ls.fpcube) {
            std::fputs("Error: quovix_fpcube_new_from_cube() returns NULL.\n", stderr);
            return 1;
        }
        fft.reset(quovix_fft_new_from_cube(cube.get()));
        if (!fft) {
            std::fputs("Error: quovix_fft_new_from_cube() returns NULL.\n", stderr);
            return 1;
        }
    }
    ls.half.reset(quovix_fphalf_list_new_from_fpcube(ls.fpcube.get()));
    if (!ls.half) {
        std::fputs("Error: quovix_fphalf_list_new_from_fpcube() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_fphalf_list_filter(ls.half.get(), barrier_cutoff) != 0) {
        std::fputs("Error: quovix_fphalf_list_filter() returns non-zero.\n", stderr);
        return 1;
    }
    QUOVIX_CELL *raw_cell = nullptr;
    QUOVIX_SYMMETRY *raw_sym = nullptr;
    if (quovix_cell_import_cif_from_file(&raw_cell, &raw_sym, cifname, dir_symcards, dir_unitary) !=
        0) {
        quovix_cell_free(raw_cell);
        quovix_symmetry_free(raw_sym);
        std::fputs("Error: quovix_cell_import_cif_from_file() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_owner<QUOVIX_CELL, quovix_cell_free> cell{raw_cell};
    quovix_symmetry_free(raw_sym);  // the graph works on the full P1 cell
    long mobile = 0;
    for (long i = 0; i < cell->total; ++i)
        if (std::strncmp(cell->atom[i].type, type, QUOVIX_TYPE_LEN) == 0 && cell->atom[i].os == os)
            ++mobile;
    if (mobile == 0) {
        std::fprintf(stderr, "Error: no %s%d%c atom in %s.\n", type, quovix_abs_os(os),
                     quovix_sign_char(os), cifname);
        return 1;
    }
    quovix_owner<QUOVIX_PROPERTY, quovix_property_free> ppt{
        quovix_property_import_from_cell(cell.get(), type, os, 0.75, dir_unitary, dir_binary)};
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return 1;
    }
    ls.graph.reset(quovix_graph_new_filled(ls.half.get(), fft.get(), cell.get(), ppt.get()));
    if (!ls.graph) {
        std::fputs("Error: quovix_graph_new_filled() returns NULL.\n", stderr);
        return 1;
    }
    return 0;
}

int write_text(QUOVIX_TEXT *text, const char *name) {
    quovix_owner<QUOVIX_TEXT, quovix_text_free> owned{text};
    if (quovix_text_export_to_file(owned.get(), name) != 0) {
        std::fputs("Error: quovix_text_export_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

int append(QUOVIX_TEXT *text, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int append(QUOVIX_TEXT *text, const char *fmt, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    return quovix_text_append(text, line);
}

}  // namespace

// ====================================================================== marker cells

QUOVIX_CELL *quovix_graph_export_to_cell(QUOVIX_GRAPH *graph) {
    if (!graph) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    long hops = 0;
    for (long j = 0; j < graph->total_e; ++j)
        if (hop_representative(graph->e[j])) ++hops;
    QUOVIX_CELL *cell = quovix_cell_new(graph->total_v + hops);
    if (!cell) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(cell->a, graph->a, sizeof cell->a);
    long k = 0;
    for (long i = 0; i < graph->total_v; ++i) {
        const QUOVIX_GRAPH_VERTEX &v = graph->v[i];
        set_atom(cell->atom[k], v.name[0] ? v.name : "MIN", "Li", v.x);
        cell->atom[k++].occ = v.occ > 0.0 ? v.occ : 1.0;
    }
    long h = 0;
    for (long j = 0; j < graph->total_e; ++j) {
        if (!hop_representative(graph->e[j])) continue;
        char name[24];
        std::snprintf(name, sizeof name, "S%ld", h++);
        set_atom(cell->atom[k++], name, "Na", graph->e[j].x);
    }
    quovix_cell_update_fractional(cell);
    quovix_cell_bound_fractional(cell);
    quovix_cell_update_coordinate_cartesion(cell);
    return cell;
}

QUOVIX_CELL *quovix_graph_export_sites_to_cell(QUOVIX_GRAPH *graph) {
    if (!graph) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_CELL", [&]() -> QUOVIX_CELL * {
        // rank of each site group by energy
        long groups = 0;
        for (long i = 0; i < graph->total_v; ++i) groups = std::max(groups, graph->v[i].site);
        std::vector<double> en(static_cast<std::size_t>(groups) + 1, INFINITY);
        for (long i = 0; i < graph->total_v; ++i)
            en[graph->v[i].site] = std::min(en[graph->v[i].site], graph->v[i].en);
        QUOVIX_CELL *cell = quovix_cell_new(graph->total_v);
        if (!cell) {
            std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
            return nullptr;
        }
        std::memcpy(cell->a, graph->a, sizeof cell->a);
        for (long i = 0; i < graph->total_v; ++i) {
            const QUOVIX_GRAPH_VERTEX &v = graph->v[i];
            long rank = 0;
            for (long g = 1; g <= groups; ++g)
                if (en[g] < en[v.site] || (en[g] == en[v.site] && g < v.site)) ++rank;
            set_atom(cell->atom[i], v.name[0] ? v.name : "MIN", kSiteElements[std::min(rank, 4L)],
                     v.x);
            cell->atom[i].occ = v.occ > 0.0 ? v.occ : 1.0;
        }
        quovix_cell_update_fractional(cell);
        quovix_cell_bound_fractional(cell);
        quovix_cell_update_coordinate_cartesion(cell);
        return cell;
    });
}

// Vertex label: "index (site group)"; edge label: "edge index (barrier in meV)".
QUOVIX_TEXT *quovix_graph_export_dot_to_text(QUOVIX_GRAPH *graph) {
    if (!graph) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_TEXT *text = quovix_text_new("digraph pathway {\r\n");
    if (!text) {
        std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
        return nullptr;
    }
    for (long i = 0; i < graph->total_v; ++i)
        if (append(text, "%ld [label=\"%ld (%ld)\" shape=circle color=black];\r\n", i, i,
                   graph->v[i].site) != 0)
            return nullptr;  // the append freed the text
    for (long j = 0; j < graph->total_e; ++j) {
        const QUOVIX_GRAPH_EDGE &e = graph->e[j];
        if (append(text, "%ld -> %ld [label=\"%ld (%ld)\" color=black];\r\n", e.v_i->index,
                   e.v_f->index, j, std::lround(e.barrier * 1000.0)) != 0)
            return nullptr;
    }
    if (quovix_text_append(text, "}\r\n") != 0) return nullptr;
    return text;
}

// ====================================================================== path marks and text

int quovix_graph_cycle_label_path(QUOVIX_GRAPH_CYCLE *cycle, QUOVIX_FPHALF_LIST *list) {
    if (!cycle || !list) {
        std::fputs(
            "Error: QUOVIX_GRAPH_CYCLE or QUOVIX_FPHALF_LIST has not been properly "
            "initialized.\n",
            stderr);
        return 1;
    }
    for (long k = 0; k < cycle->total; ++k) {
        const QUOVIX_GRAPH_EDGE *e = cycle->e[k];
        const QUOVIX_GRAPH_EDGE *pair[2] = {e, e ? e->e_r : nullptr};
        for (const QUOVIX_GRAPH_EDGE *x : pair) {
            if (!x || x->index_half < 0 || x->index_half >= list->total) {
                std::fputs("Error: half path of the edge out of bound.\n", stderr);
                return 1;
            }
            QUOVIX_FPHALF &h = list->half[x->index_half];
            for (long t = 0; t < h.total; ++t)
                h.dot[t]->type = t == 0 ? FP_SAD : t == h.total - 1 ? FP_MIN : FP_PAT;
        }
    }
    return 0;
}

// ".gh.txt" columns: r_coor = distance along the cycle from its first site (A); energy =
// energy less the lowest site energy of the network kind (eV); site = the site name at a
// minimum, "saddle" at the saddle of a hop, "none" on the way; nw = network kind (1D, 2D, 3D,
// 0D for the local loop); x, y, z = Cartesian position, continuous along the cycle (A);
// index = edge of the graph the point belongs to. One block per cycle, kinds in that order.
QUOVIX_TEXT *quovix_graph_network_export_to_text(QUOVIX_GRAPH_NETWORK *network,
                                                 QUOVIX_FPHALF_LIST *list,
                                                 const double lattice[3][3]) {
    if (!network || !list || !lattice) {
        std::fputs("Error: QUOVIX_GRAPH_NETWORK has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_TEXT", [&]() -> QUOVIX_TEXT * {
        QUOVIX_TEXT *text = quovix_text_new(nullptr);
        if (!text) {
            std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
            return nullptr;
        }
        if (append(text, "%6s, %6s, %6s, %2s, %6s, %6s, %6s, %5s\r\n", "r_coor", "energy", "site",
                   "nw", "x", "y", "z", "index") != 0)
            return nullptr;
        std::vector<path_point> pts;
        for (const kind_cycles &kc : network_kinds(network)) {
            for (const QUOVIX_GRAPH_CYCLE *c : kc.cycles) {
                if (!walk_cycle(pts, c, list, lattice)) {
                    quovix_text_free(text);
                    std::fputs("Error: half path of the edge out of bound.\n", stderr);
                    return nullptr;
                }
                for (const path_point &p : pts)
                    if (append(text, "%6.3lf, %6.3lf, %6s, %2s, %6.3lf, %6.3lf, %6.3f, %5ld\r\n",
                               p.s, p.en - kc.e_min, p.kind, kc.tag, p.x[0], p.x[1], p.x[2],
                               p.edge) != 0)
                        return nullptr;
            }
        }
        return text;
    });
}

// Profile columns: cycle (1..3 within the kind), hop (position of the edge in the cycle),
// distance_A (along the cycle from its first site), energy_eV (less the lowest site energy of
// the kind, so the highest value is the barrier), point (site name, saddle or none).
QUOVIX_TEXT *quovix_graph_network_export_profile_to_text(QUOVIX_GRAPH_NETWORK *network, char kind,
                                                         QUOVIX_FPHALF_LIST *list,
                                                         const double lattice[3][3]) {
    if (!network || !list || !lattice) {
        std::fputs("Error: QUOVIX_GRAPH_NETWORK has not been properly initialized.\n", stderr);
        return nullptr;
    }
    const char *tag = kind == '1' ? "1D" : kind == '2' ? "2D" : kind == '3' ? "3D" : "0D";
    return quovix_guard("QUOVIX_TEXT", [&]() -> QUOVIX_TEXT * {
        for (const kind_cycles &kc : network_kinds(network)) {
            if (std::strcmp(kc.tag, tag) != 0) continue;
            QUOVIX_TEXT *text = quovix_text_new("cycle,hop,distance_A,energy_eV,point\n");
            if (!text) {
                std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
                return nullptr;
            }
            std::vector<path_point> pts;
            for (std::size_t c = 0; c < kc.cycles.size(); ++c) {
                if (!walk_cycle(pts, kc.cycles[c], list, lattice)) {
                    quovix_text_free(text);
                    std::fputs("Error: half path of the edge out of bound.\n", stderr);
                    return nullptr;
                }
                for (const path_point &p : pts)
                    if (append(text, "%zu,%ld,%.4f,%.4f,%s\n", c + 1, p.hop, p.s, p.en - kc.e_min,
                               p.kind) != 0)
                        return nullptr;
            }
            return text;
        }
        std::fprintf(stderr, "Error: no %s network to profile.\n", tag);
        return nullptr;
    });
}

// ====================================================================== chains

int quovix_graph_network_calculate_from_file_export_full(const char *outname, const char *cifname,
                                                         const char *cubename, const char *type,
                                                         int os, double barrier_cutoff,
                                                         bool periodic, const char *dir_unitary,
                                                         const char *dir_binary,
                                                         const char *dir_symcards) {
    if (!outname || !cifname || !cubename || !type) {
        std::fputs("Error: uninitialized input to generate QUOVIX_GRAPH.\n", stderr);
        return 1;
    }
    return quovix_guard("QUOVIX_GRAPH_NETWORK", [&]() -> int {
        const std::string prefix(outname, strnlen(outname, 1000));
        auto name = [&](const char *suffix) { return prefix + suffix; };
        if (quovix_output_check(name(".gh.cif").c_str(), cifname) != 0 ||
            quovix_output_check(name(".gh.cif").c_str(), cubename) != 0)
            return 1;
        landscape ls;
        if (build_landscape(ls, cifname, cubename, type, os, barrier_cutoff, periodic, dir_unitary,
                            dir_binary, dir_symcards) != 0)
            return 1;
        QUOVIX_GRAPH *graph = ls.graph.get();
        if (graph->total_v == 0) {
            // nothing to mark: every half path was filtered out (or none ends on a minimum)
            std::printf("Warning: the migration graph has no site; %s not written.\n",
                        name(".gh.cif").c_str());
        } else {
            quovix_owner<QUOVIX_CELL, quovix_cell_free> marks{quovix_graph_export_to_cell(graph)};
            if (!marks) {
                std::fputs("Error: quovix_graph_export_to_cell() returns NULL.\n", stderr);
                return 1;
            }
            if (quovix_cell_export_cif_to_file(name(".gh.cif").c_str(), marks.get(), nullptr) !=
                0) {
                std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
                return 1;
            }
        }
        QUOVIX_TEXT *dot = quovix_graph_export_dot_to_text(graph);
        if (!dot) {
            std::fputs("Error: quovix_graph_export_dot_to_text() returns NULL.\n", stderr);
            return 1;
        }
        if (write_text(dot, name(".gh.dot").c_str()) != 0) return 1;

        quovix_owner<QUOVIX_LIST, quovix_list_free> cycles{
            quovix_graph_cycle_list_new_from_graph(graph)};
        if (!cycles) {
            std::fputs("Error: quovix_graph_cycle_list_new_from_graph() returns NULL.\n", stderr);
            return 1;
        }
        quovix_owner<QUOVIX_GRAPH_NETWORK, quovix_graph_network_free> nw{
            quovix_graph_network_new_from_cycle_list(cycles.get())};
        if (!nw) {
            std::fputs("Error: quovix_graph_network_new_from_cycle_list() returns NULL.\n", stderr);
            return 1;
        }
        QUOVIX_TEXT *txt =
            quovix_graph_network_export_to_text(nw.get(), ls.half.get(), ls.fpcube->a);
        if (!txt) {
            std::fputs("Error: quovix_graph_network_export_to_text() returns NULL.\n", stderr);
            return 1;
        }
        if (write_text(txt, name(".gh.txt").c_str()) != 0) return 1;

        struct kind {
            double e;
            std::vector<QUOVIX_GRAPH_CYCLE *> cs;
            const char *cif;
            const char *profile;
            char tag;
        };
        const kind kinds[] = {
            {nw->e1, {nw->c1}, ".gh.1d.cif", ".gh.1d.profile.csv", '1'},
            {nw->e2, {nw->c2[0], nw->c2[1]}, ".gh.2d.cif", ".gh.2d.profile.csv", '2'},
            {nw->e3, {nw->c3[0], nw->c3[1], nw->c3[2]}, ".gh.3d.cif", ".gh.3d.profile.csv", '3'},
            {nw->el, {nw->cl}, ".gh.0d.cif", nullptr, 'l'},
        };
        for (const kind &k : kinds) {
            if (k.e < 0.0) continue;
            quovix_fpcube_clear_type(ls.fpcube.get());
            for (QUOVIX_GRAPH_CYCLE *c : k.cs)
                if (quovix_graph_cycle_label_path(c, ls.half.get()) != 0) {
                    std::fputs("Error: quovix_graph_cycle_label_path() returns non-zero.\n",
                               stderr);
                    return 1;
                }
            quovix_owner<QUOVIX_CELL, quovix_cell_free> marks{
                quovix_fpcube_export_to_cell(ls.fpcube.get())};
            if (!marks) {
                std::fputs("Error: quovix_fpcube_export_to_cell() returns NULL.\n", stderr);
                return 1;
            }
            if (quovix_cell_export_cif_to_file(name(k.cif).c_str(), marks.get(), nullptr) != 0) {
                std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
                return 1;
            }
            if (!k.profile) continue;
            QUOVIX_TEXT *prof = quovix_graph_network_export_profile_to_text(
                nw.get(), k.tag, ls.half.get(), ls.fpcube->a);
            if (!prof) {
                std::fputs("Error: quovix_graph_network_export_profile_to_text() returns NULL.\n",
                           stderr);
                return 1;
            }
            if (write_text(prof, name(k.profile).c_str()) != 0) return 1;
        }
        quovix_graph_network_print(nw.get());
        return 0;
    });
}

// Site table: one row per energy group of the graph (sites within 0.0003 eV): label (first
// vertex of the group), energy above the lowest site (eV), multiplicity (vertices in the cell),
// mean occupancy from the CIF, curvature eigenvalues at the first vertex (eV/A^2), hops out of
// a site (edges leaving the group / multiplicity), lowest barrier of those hops (eV; -1 when
// the site has none).
int quovix_graph_sites_calculate_from_file_export(const char *outname, const char *cifname,
                                                  const char *cubename, const char *type, int os,
                                                  double barrier_cutoff, bool periodic,
                                                  const char *dir_unitary, const char *dir_binary,
                                                  const char *dir_symcards) {
    if (!outname || !cifname || !cubename || !type) {
        std::fputs("Error: uninitialized input to generate QUOVIX_GRAPH.\n", stderr);
        return 1;
    }
    return quovix_guard("site table", [&]() -> int {
        const std::string prefix(outname, strnlen(outname, 1000));
        const std::string csv = prefix + ".sites.csv", cif = prefix + ".sites.cif";
        if (quovix_output_check(csv.c_str(), cifname) != 0 ||
            quovix_output_check(csv.c_str(), cubename) != 0)
            return 1;
        landscape ls;
        if (build_landscape(ls, cifname, cubename, type, os, barrier_cutoff, periodic, dir_unitary,
                            dir_binary, dir_symcards) != 0)
            return 1;
        const QUOVIX_GRAPH *g = ls.graph.get();
        if (g->total_v == 0) {
            std::fputs("Error: the landscape has no site.\n", stderr);
            return 1;
        }
        double e0 = g->v[0].en;
        long groups = 0;
        for (long i = 0; i < g->total_v; ++i) {
            e0 = std::min(e0, g->v[i].en);
            groups = std::max(groups, g->v[i].site);
        }
        struct row {
            const QUOVIX_GRAPH_VERTEX *first = nullptr;
            long mult = 0;
            double occ = 0.0;
            long hops = 0;
            double barrier = INFINITY;
        };
        std::vector<row> rows(static_cast<std::size_t>(groups) + 1);
        for (long i = 0; i < g->total_v; ++i) {
            const QUOVIX_GRAPH_VERTEX &v = g->v[i];
            row &r = rows[v.site];
            if (!r.first) r.first = &v;
            r.mult++;
            r.occ += v.occ;
            r.hops += v.total_e;
            for (int k = 0; k < v.total_e; ++k) r.barrier = std::min(r.barrier, v.e[k]->barrier);
        }
        std::vector<long> order;
        for (long s = 1; s <= groups; ++s)
            if (rows[s].first) order.push_back(s);
        std::stable_sort(order.begin(), order.end(),
                         [&](long x, long y) { return rows[x].first->en < rows[y].first->en; });
        quovix_owner<QUOVIX_TEXT, quovix_text_free> text{quovix_text_new(
            "site,label,energy_eV,multiplicity,occupancy,eig1_eV_A2,eig2_eV_A2,eig3_eV_A2,hops,"
            "barrier_min_eV\n")};
        if (!text) {
            std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
            return 1;
        }
        std::printf("SITES: conducting species %s%d%c; %ld sites in %zu groups\n", g->type,
                    quovix_abs_os(g->os), quovix_sign_char(g->os), g->total_v, order.size());
        std::printf("SITES: %4s %-11s %8s %5s %6s %9s %9s %9s %6s %8s\n", "site", "label", "energy",
                    "mult", "occ", "eig1", "eig2", "eig3", "hops", "barrier");
        for (long s : order) {
            const row &r = rows[s];
            const double occ = r.occ / r.mult;
            const double hops = static_cast<double>(r.hops) / r.mult;
            const double bar = std::isfinite(r.barrier) ? r.barrier : -1.0;
            std::printf("SITES: %4ld %-11s %8.4f %5ld %6.3f %9.3f %9.3f %9.3f %6.2f %8.4f\n", s,
                        r.first->name, r.first->en - e0, r.mult, occ, r.first->eig[0],
                        r.first->eig[1], r.first->eig[2], hops, bar);
            if (append(text.get(), "%ld,%s,%.4f,%ld,%.3f,%.4f,%.4f,%.4f,%.2f,%.4f\n", s,
                       r.first->name, r.first->en - e0, r.mult, occ, r.first->eig[0],
                       r.first->eig[1], r.first->eig[2], hops, bar) != 0) {
                (void)text.release();  // freed by the failed append
                return 1;
            }
        }
        if (quovix_text_export_to_file(text.get(), csv.c_str()) != 0) {
            std::fputs("Error: quovix_text_export_to_file() returns non-zero.\n", stderr);
            return 1;
        }
        quovix_owner<QUOVIX_CELL, quovix_cell_free> marks{
            quovix_graph_export_sites_to_cell(ls.graph.get())};
        if (!marks) {
            std::fputs("Error: quovix_graph_export_sites_to_cell() returns NULL.\n", stderr);
            return 1;
        }
        if (quovix_cell_export_cif_to_file(cif.c_str(), marks.get(), nullptr) != 0) {
            std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
            return 1;
        }
        std::printf("Message: site table saved to %s.\n", csv.c_str());
        return 0;
    });
}
