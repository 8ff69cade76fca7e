// Migration graph of a mobile ion: sites and saddle hops, cycle basis, percolation network.
#pragma once

#include <cstdio>

#include "quovix-alloc.hpp"
#include "quovix-ds.hpp"

// Records of the path map and of the Fourier derivatives; the graph only holds pointers.
struct QUOVIX_FPCUBE;
struct QUOVIX_FPHALF_LIST;
struct QUOVIX_FFT;

struct QUOVIX_GRAPH_EDGE;

/// A site of the mobile ion: one local minimum of the landscape.
struct QUOVIX_GRAPH_VERTEX {
    char name[QUOVIX_ATOM_NAME_LEN];  // CIF label of the site, or "<type>_i<group>"
    long x_i[3];                      // grid indices of the minimum
    double x[3];                      // Cartesian position (A)
    double occ;                       // occupancy taken from the CIF atoms, at most 1
    double eig[3];                    // curvature eigenvalues at the minimum (eV/A^2)
    double eiv[3][3];                 // unit eigenvectors, eiv[k] belongs to eig[k]
    double en;                        // energy of the minimum (eV)
    long index;                       // position in the vertex array
    int total_e;                      // number of edges leaving the vertex
    QUOVIX_GRAPH_EDGE **e;            // those edges (owned array of pointers), in edge order
    long site;                        // energy group, from 1 (energies within 0.0003 eV)
    QUOVIX_GRAPH_VERTEX *sub;         // working link (forest, subgraph)
    bool visited;                     // working mark
    QUOVIX_GRAPH_VERTEX *v_b;         // working link (supergraph: the cell vertex)
};

/// A directed hop from `v_i` to `v_f` through one saddle point.
struct QUOVIX_GRAPH_EDGE {
    long x_i[3];               // grid indices of the saddle
    double x[3];               // Cartesian position of the saddle (A)
    double en;                 // saddle energy (eV)
    double l;                  // distance between the two sites, minimum image (A)
    long index;                // position in the edge array
    QUOVIX_GRAPH_VERTEX *v_i;  // start site
    QUOVIX_GRAPH_VERTEX *v_f;  // end site
    QUOVIX_GRAPH_EDGE *e_r;    // the same hop backwards
    double barrier;            // en - v_i->en (eV)
    int bound[3];    // lattice translation of the hop: v_f lies at v_f->x + bound . a seen from v_i
    int bound_i[3];  // part of `bound` from v_i up to the saddle
    int bound_f[3];  // part of `bound` from the saddle down to v_f
    double dir[3];   // unit vector from v_i towards the saddle
    long index_half;         // half path (path map) whose minimum is v_i
    QUOVIX_GRAPH_EDGE *sub;  // working link (forest, supergraph)
};

/// The migration graph. Owns the vertex and edge arrays and each vertex's edge array.
struct QUOVIX_GRAPH {
    long total_v;
    long total_e;
    QUOVIX_GRAPH_VERTEX *v;
    QUOVIX_GRAPH_EDGE *e;
    long n[3];                   // grid size
    double a_i[3][3];            // voxel vectors (A)
    double a[3][3];              // lattice vectors (A)
    double volume;               // cell volume (A^3)
    char type[QUOVIX_TYPE_LEN];  // mobile species
    int os;                      // its oxidation state
    double m;                    // its mass (amu)
    double c;                    // carrier density total_occ / volume (1/A^3)
    double total_occ;            // summed occupancy of the mobile atoms in the CIF
};

/// Vertices and edges referred to, not owned.
struct QUOVIX_GRAPH_LIST {
    long total_v;
    long total_e;
    QUOVIX_GRAPH_VERTEX **v;
    QUOVIX_GRAPH_EDGE **e;
};

/// A closed walk of edges; `bound` non-zero means it wraps the periodic cell.
struct QUOVIX_GRAPH_CYCLE {
    long total;
    QUOVIX_GRAPH_EDGE **e;  // edges in walking order (owned array, edges not owned)
    double barrier;         // e_max - e_min (eV)
    double e_min;           // lowest energy among the edges' start sites (eV)
    double e_max;           // highest saddle energy among the edges (eV)
    double l;               // summed hop lengths (A)
    int bound[3];           // summed translations
};

/// Percolation network: the cycles that set the 1D, 2D, 3D and local-loop barriers. The
/// cycles belong to the cycle list the network was made from. A barrier of -1.0 means that
/// no such network exists.
struct QUOVIX_GRAPH_NETWORK {
    QUOVIX_GRAPH_CYCLE *c1;
    QUOVIX_GRAPH_CYCLE *c2[2];
    QUOVIX_GRAPH_CYCLE *c3[3];
    QUOVIX_GRAPH_CYCLE *cl;
    double e_min;
    double e_max;
    double e1, e1_min, e1_max;
    double e2, e2_min, e2_max;
    double e3, e3_min, e3_max;
    double el, el_min, el_max;
};

// ---------------------------------------------------------------- records

/// New graph with zeroed arrays of `total_v` vertices and `total_e` edges (either may be 0).
/// Null on failure. Release with quovix_graph_free.
QUOVIX_GRAPH *quovix_graph_new(long total_v, long total_e);
void quovix_graph_free(QUOVIX_GRAPH *graph);
/// "GRAPH: " listing of the graph, its vertices and edges.
void quovix_graph_print(QUOVIX_GRAPH *graph);
void quovix_graph_fprint(std::FILE *out, QUOVIX_GRAPH *graph);

QUOVIX_GRAPH_LIST *quovix_graph_list_new();
void quovix_graph_list_free(QUOVIX_GRAPH_LIST *list);
/// Appends a reference; 0 or 1 ("Error: unable to reallocate list->v.\n" / "...->e.\n").
int quovix_graph_list_add_vertex(QUOVIX_GRAPH_LIST *list, QUOVIX_GRAPH_VERTEX *v);
int quovix_graph_list_add_edge(QUOVIX_GRAPH_LIST *list, QUOVIX_GRAPH_EDGE *e);
bool quovix_graph_list_is_empty(QUOVIX_GRAPH_LIST *list);
void quovix_graph_list_print(QUOVIX_GRAPH_LIST *list);

/// New cycle with room for `total` edge pointers (all null). Null on failure.
QUOVIX_GRAPH_CYCLE *quovix_graph_cycle_new(long total);
void quovix_graph_cycle_free(QUOVIX_GRAPH_CYCLE *cycle);
void quovix_graph_cycle_print(QUOVIX_GRAPH_CYCLE *cycle);

void quovix_graph_network_free(QUOVIX_GRAPH_NETWORK *network);
/// The five "QUOVIX_GRAPH_NETWORK: " lines (overall, 1D, 2D, 3D, loop).
void quovix_graph_network_print(QUOVIX_GRAPH_NETWORK *network);
void quovix_graph_network_fprint(std::FILE *out, QUOVIX_GRAPH_NETWORK *network);

// ---------------------------------------------------------------- building

/// The migration graph of a path map: sites from the minima ending half paths, hops from the
/// first-type saddles, curvature from the Fourier record, occupancies and labels from the
/// CIF atoms of the mobile species of `ppt`. Null on failure. Release with quovix_graph_free.
QUOVIX_GRAPH *quovix_graph_new_filled(QUOVIX_FPHALF_LIST *list, QUOVIX_FFT *fft, QUOVIX_CELL *cell,
                                      QUOVIX_PROPERTY *ppt);
/// Spreads the occupancy of the mobile atoms of `cell` over nearby vertices. 0 or 1.
int quovix_graph_assign_occ(QUOVIX_GRAPH *graph, QUOVIX_CELL *cell);
/// Names vertices after nearby mobile atoms, the rest by energy group; sets `site`. 0 or 1.
int quovix_graph_assign_label(QUOVIX_GRAPH *graph, QUOVIX_CELL *cell);

// ---------------------------------------------------------------- cycles

/// Minimum spanning forest as a graph of its own: copies of all vertices and of the forest
/// edges (both directions of each hop), with `sub` of every copy pointing to the original.
QUOVIX_GRAPH *quovix_graph_new_subgraph_minimum_spanning_forest(QUOVIX_GRAPH *graph);
/// Forest edges (one per hop, in the order Prim's method adds them), keyed on the saddle
/// energy `en`, which is the same for a hop and its reverse. Null on failure.
QUOVIX_GRAPH_LIST *quovix_graph_list_prim_forest(QUOVIX_GRAPH *graph);
/// Hops of `graph` outside the forest `subgraph`, one direction each (lower edge index).
QUOVIX_GRAPH_LIST *quovix_graph_list_edge_complementary(QUOVIX_GRAPH *graph,
                                                        QUOVIX_GRAPH *subgraph);
/// The closed walk made by `edge` (of the original graph) and the forest path from its end
/// back to its start, in walking order. Empty list when the ends lie in different trees.
QUOVIX_GRAPH_LIST *quovix_graph_list_cycle_from_spanning_forest(QUOVIX_GRAPH *forest,
                                                                QUOVIX_GRAPH_EDGE *edge);
/// Cycle record of a list of edges in walking order. Null on failure or for an empty list.
QUOVIX_GRAPH_CYCLE *quovix_graph_cycle_new_from_list(QUOVIX_GRAPH_LIST *list);
/// Fundamental cycles of the graph, sorted: a QUOVIX_LIST owning its QUOVIX_GRAPH_CYCLEs
/// (release with quovix_list_free). Null on failure.
QUOVIX_LIST *quovix_graph_cycle_list_new_from_graph(QUOVIX_GRAPH *graph);
/// Sorts by barrier, then length (both within 0.0001), then loops before wrapping cycles.
int quovix_graph_cycle_list_sort(QUOVIX_LIST *list);
/// qsort comparator over QUOVIX_GRAPH_CYCLE* elements.
int quovix_graph_cycle_compare(const void *a, const void *b);
/// Removes cycles that pass through the same hops as an earlier cycle. 0 or 1.
int quovix_graph_cycle_list_reduce(QUOVIX_LIST *list);
/// New list (referring to, not owning, the cycles) of the local loops (zero `bound`) whose
/// barrier is at most e_cutoff (eV) and whose length is at most l_cutoff (A); a negative
/// cutoff does not limit. Null on failure.
QUOVIX_LIST *quovix_graph_cycle_list_local_loops(QUOVIX_LIST *list, double e_cutoff,
                                                 double l_cutoff);
/// Whether `count` cycles are connected through shared start sites (see the .cpp).
bool quovix_graph_cycles_is_connected(QUOVIX_GRAPH_CYCLE **cycles, long count);

// ---------------------------------------------------------------- network

/// Percolation network of a sorted cycle list (1D, 2D, 3D and loop barriers). The search over
/// pairs and triples stops as soon as no remaining combination can improve. Null on failure;
/// release with quovix_graph_network_free before the cycle list.
QUOVIX_GRAPH_NETWORK *quovix_graph_network_new_from_cycle_list(QUOVIX_LIST *list);
/// The ".gh.txt" summary (CR LF lines): the dots along the cycles of each network kind.
QUOVIX_TEXT *quovix_graph_network_export_to_text(QUOVIX_GRAPH_NETWORK *network,
                                                 QUOVIX_FPHALF_LIST *list,
                                                 const double lattice[3][3]);
/// Energy profile of the cycles of one network kind ('1', '2', '3' or 'l'), comma separated
/// with LF line ends: "segment,distance_A,energy_eV,point". Null on failure.
QUOVIX_TEXT *quovix_graph_network_export_profile_to_text(QUOVIX_GRAPH_NETWORK *network, char kind,
                                                         QUOVIX_FPHALF_LIST *list,
                                                         const double lattice[3][3]);

// ---------------------------------------------------------------- export

/// Marker cell of the graph: one atom per vertex (element Li, named after the vertex) and one
/// per hop (element Na at the saddle). New cell; null on failure.
QUOVIX_CELL *quovix_graph_export_to_cell(QUOVIX_GRAPH *graph);
/// Marker cell of the sites: one atom per vertex, element Li for the lowest energy group, Na,
/// K, Rb, Cs for the next ones (then Cs again), named after the vertex. Null on failure.
QUOVIX_CELL *quovix_graph_export_sites_to_cell(QUOVIX_GRAPH *graph);
/// Graphviz description of the graph (renders with `dot -Tsvg`). Null on failure.
QUOVIX_TEXT *quovix_graph_export_dot_to_text(QUOVIX_GRAPH *graph);
/// Marks the half paths of the cycle's hops on their path grid: saddle, path dots, minimum.
int quovix_graph_cycle_label_path(QUOVIX_GRAPH_CYCLE *cycle, QUOVIX_FPHALF_LIST *list);

/// The graph replicated s[0] x s[1] x s[2] times, hops relinked across the replicas with
/// their translations in the supercell. Null on failure. Release with quovix_graph_free.
QUOVIX_GRAPH *quovix_graph_new_supergraph(QUOVIX_GRAPH *graph, const long s[3]);

// ---------------------------------------------------------------- geometry

/// On every axis the index distance, taken the shorter way round the periodic grid, is <= 1.
bool quovix_dot_adjacent(const long x1[3], const long x2[3], const long n[3]);
/// Distance between two Cartesian points under the lattice (nearest periodic image, A).
double quovix_dot_distance(const double x1[3], const double x2[3], const double lattice[3][3]);
/// Unit vector from x1 to the nearest image of x2 (zero vector when they coincide).
void quovix_dot_direction(double dir[3], const double x1[3], const double x2[3],
                          const double lattice[3][3]);
/// The periodic image of `in` nearest to `pivot`.
void quovix_dot_pivot(double out[3], const double in[3], const double pivot[3],
                      const double lattice[3][3]);

// ---------------------------------------------------------------- commands

/// The --gh chain: graph, cycle basis and network of the landscape in `cubename`, labelled
/// from `cifname`; writes "<outname>.gh.cif", ".gh.txt", ".gh.dot", the ".gh.1d/2d/3d/0d.cif"
/// and ".profile.csv" files of the networks found, and prints the network. 0 or 1.
int quovix_graph_network_calculate_from_file_export_full(const char *outname, const char *cifname,
                                                         const char *cubename, const char *type,
                                                         int os, double barrier_cutoff,
                                                         bool periodic, const char *dir_unitary,
                                                         const char *dir_binary,
                                                         const char *dir_symcards);
/// The --sites chain: table of the distinct sites of the mobile ion, printed and written as
/// "<outname>.sites.csv", with the marker cell "<outname>.sites.cif". 0 or 1.
int quovix_graph_sites_calculate_from_file_export(const char *outname, const char *cifname,
                                                  const char *cubename, const char *type, int os,
                                                  double barrier_cutoff, bool periodic,
                                                  const char *dir_unitary, const char *dir_binary,
                                                  const char *dir_symcards);

using quovix_graph_ptr = quovix_owner<QUOVIX_GRAPH, quovix_graph_free>;
