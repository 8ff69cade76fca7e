// Kinetic Monte Carlo of the mobile ions on the migration graph of a supercell: hop rates with
// the Coulomb repulsion of nearby ions, residence-time steps, and diffusivity, mobility and
// conductivity from the mean squared displacement.
#pragma once

#include <cstdio>

#include "quovix-gh.hpp"
#include "quovix.hpp"

inline constexpr double QUOVIX_KMC_CUTOFF_DEFAULT = 5.0;         // Coulomb cut-off (A)
inline constexpr double QUOVIX_KMC_TEMPERATURE_DEFAULT = 300.0;  // K
inline constexpr double QUOVIX_KMC_TEMPERATURE_MAX = 1.0e5;      // K; higher is rejected
inline constexpr double QUOVIX_KMC_T_LIMIT_DEFAULT = 0.0;        // ps; 0 = no time limit
inline constexpr long QUOVIX_KMC_STEP_LIMIT_DEFAULT = 10000;
inline constexpr long QUOVIX_KMC_STEP_LIMIT_MAX = 1000000000;  // hard ceiling of any run
inline constexpr double QUOVIX_KMC_FREQUENCY_FACTOR = 15.6;    // sqrt(eV/A^2/amu) -> 1/ps
inline constexpr double QUOVIX_KMC_CURVATURE_MIN = 0.001;      // eV/A^2
inline constexpr double QUOVIX_KMC_RATE_MIN = 1e-20;           // 1/ps
inline constexpr int QUOVIX_KMC_BLOCKS = 10;                   // blocks of the error bars
inline constexpr long QUOVIX_KMC_EDGE_MAX = 4000000;           // largest supercell graph

/// State of one graph vertex (site).
struct QUOVIX_KMC_VERTEX {
    QUOVIX_GRAPH_VERTEX *v;  // the graph vertex (not owned)
    int total_v;
    long *v_n;     // other vertices closer than the cut-off
    double *v_de;  // Coulomb energy an ion on v_n[k] adds to this site (eV)
    int total_e;
    long *e_n;      // every edge whose rate depends on the occupancy of this vertex
    bool occupied;  // an ion sits here now
    bool init;      // occupied at the start of the run
    long origin;    // vertex where the ion now here started
    long y_i[3];    // cells crossed by the ion that started here
    double d[3];    // displacement of the ion that started here (A)
    double t;       // time this vertex was occupied during the production run (ps)
    double t_in;    // time of the last arrival on this vertex (ps)
    double en;      // site energy (eV)
    bool update;    // its edges need new rates
    int total_s;
    long *s_n;     // edges with this vertex near their saddle
    double *s_de;  // its Coulomb energy at each of those saddles (eV)
};

/// State of one directed graph edge (hop).
struct QUOVIX_KMC_EDGE {
    QUOVIX_GRAPH_EDGE *e;  // the graph edge (not owned)
    int total_v;
    long *v_n;     // vertices closer than the cut-off to the saddle, except its two ends
    double *v_de;  // their Coulomb energy at the saddle (eV)
    double f;      // attempt frequency (1/ps)
    double r;      // current rate (1/ps)
    double *r2;    // r2[0]: hops made along this edge in the production run
    double en;     // saddle energy (eV)
    double l;      // hop length (A)
    bool update;   // rate must be recomputed
};

/// What the fast step reads of an edge, packed into one cache line.
struct QUOVIX_KMC_HOT {
    long a, b;   // start and end vertex
    double f;    // attempt frequency (1/ps)
    double es;   // saddle energy + repulsion of the ions now near the saddle (eV)
    double de;   // repulsion between the two ends, 0 beyond the cut-off (eV)
    double r;    // current rate (1/ps), the same as the edge's r
    long stamp;  // last fast refresh that recomputed this rate
    long unused;
};

/// The Monte Carlo state. The graph is not owned: free it after the state.
struct QUOVIX_KMC {
    QUOVIX_GRAPH *graph;
    long total_v, total_e;  // sizes of kv and ke (the graph's when the state was made)
    QUOVIX_KMC_VERTEX *kv;
    QUOVIX_KMC_EDGE *ke;
    long step;        // production steps so far
    double t;         // simulated production time (ps)
    double t_total;   // simulated time including the equilibration (ps)
    long step_limit;  // 0: no limit by steps
    double t_limit;   // ps; 0: no limit by time
    double temperature;
    double displacement[4], diffusivity[4], mobility[4], conductivity[4];  // x, y, z, total
    long step_log;  // steps between two log records
    char logname[QUOVIX_PATH_LEN], xyzname[QUOVIX_PATH_LEN];
    std::FILE *log, *xyz;  // not owned
    // Beyond the records of the model: run control, the sum tree and the error bars.
    long step_equil;  // equilibration steps before the production run
    bool plain;       // step with the plain O(edges) reference instead of the sum tree
    long total_ion;
    long *ion;        // origin vertex of every ion in the production run
    long tree_size;   // leaves of the sum tree (a power of two >= number of edges)
    double *tree;     // tree[1] = total rate; tree[k] = tree[2k] + tree[2k+1]; leaves at tree_size
    int total_block;  // blocks of the production run closed so far
    double block_s[QUOVIX_KMC_BLOCKS][4];  // summed squared displacement within each block (A^2)
    double block_t[QUOVIX_KMC_BLOCKS];     // duration of each block (ps)
    double diffusivity_se[4], mobility_se[4], conductivity_se[4];  // standard errors
    double rate_integral;     // time integral of the total rate over the production run
    long *out_start, *out_e;  // edges leaving vertex v: out_e[out_start[v] .. out_start[v+1])
    long *in_start, *in_e;    // edges entering vertex v, likewise
    long refresh;             // fast refreshes so far (stamps of the edges)
    QUOVIX_KMC_HOT *hot;      // per edge, for the fast step
    double *site_e;           // per vertex: en + repulsion of the ions now on v_n (eV)
    bool *site_occ;           // per vertex: occupied (the same as kv[].occupied)
};

/// Builds the state for a (supercell) graph: Coulomb neighbour lists of vertices and saddles
/// within `cutoff` (negative: 5.0 A; 0: no interaction) and attempt frequencies from the
/// curvature at the start vertex and the ion mass. The cut-off may not exceed half the
/// perpendicular width of the cell. Null after an error line on failure; free with
/// quovix_kmc_free.
QUOVIX_KMC *quovix_kmc_new(QUOVIX_GRAPH *graph, QUOVIX_PROPERTY *ppt, double cutoff);
void quovix_kmc_free(QUOVIX_KMC *kmc);
void quovix_kmc_print(QUOVIX_KMC *kmc);
void quovix_kmc_print_short(QUOVIX_KMC *kmc);
void quovix_kmc_print_result(QUOVIX_KMC *kmc);

/// Stores the run parameters, replacing the non-positive ones by their defaults (temperature
/// 300 K; t_limit < 0: 0 = off; step_limit < 0 or above the ceiling: 10000; step_log <= 0:
/// step_limit / 100 or 1000 when running by time) and sets the equilibration length.
/// 1 after an error line for a non-finite or too high temperature or limit.
int quovix_kmc_set_parameters(QUOVIX_KMC *kmc, double temperature, double t_limit, long step_limit,
                              long step_log);
/// Checks the values quovix_kmc_set_parameters refuses (before a long set-up). 0 or 1 after the
/// same error line.
int quovix_kmc_check_parameters(double temperature, double t_limit);
/// Recomputes the rate of every edge marked for update (and of every edge depending on a
/// vertex marked for update) by scanning all vertices and edges. 0 or 1.
int quovix_kmc_update_rate(QUOVIX_KMC *kmc);
/// Places the ions anew at random by vertex occupancy, then resets. 0 or 1.
int quovix_kmc_init(QUOVIX_KMC *kmc);
/// Back to the starting placement (placing the ions first when there is none), with zero
/// time, steps and displacements and fresh rates. 0 or 1.
int quovix_kmc_reset(QUOVIX_KMC *kmc);
/// step_equil steps without logging or statistics. 0 or 1.
int quovix_kmc_equilibrate(QUOVIX_KMC *kmc);
/// One residence-time step: sum tree pick, local rate refresh. 0 or 1.
int quovix_kmc_evolve(QUOVIX_KMC *kmc);
/// Equilibrates, then evolves until t_limit or step_limit, closing the error-bar blocks. 0 or 1.
int quovix_kmc_run(QUOVIX_KMC *kmc);
/// Prints the settings, resets, runs and prints diffusivity, mobility and conductivity. 0 or 1.
int quovix_kmc_calculate_conductivity(QUOVIX_KMC *kmc);

int quovix_kmc_log(QUOVIX_KMC *kmc);
int quovix_kmc_log_trj(QUOVIX_KMC *kmc);
int quovix_kmc_log_xyz(QUOVIX_KMC *kmc);

/// Marker cell: the supercell lattice with one mobile ion per occupied vertex. New cell or null.
QUOVIX_CELL *quovix_kmc_export_to_cell(QUOVIX_KMC *kmc);
/// Occupancy cell: the atoms of `cell` (the supercell) other than the mobile species, plus one
/// mobile ion per vertex with its time-averaged occupancy (the current one before any
/// production time). New cell or null.
QUOVIX_CELL *quovix_kmc_export_occ_to_cell(QUOVIX_KMC *kmc, QUOVIX_CELL *cell);

/// Uniform number in [0, 1) from quovix_random (a draw of exactly 1 is repeated).
double quovix_kmc_random();

/// Smallest replication of the lattice `a` whose perpendicular widths are all at least twice
/// the cut-off (at least 1 per axis).
void quovix_kmc_supercell_default(int s[3], const double a[3][3], double cutoff);

/// The command's chain from CIF (and cube when it matches) to conductivity. Returns the total
/// conductivity (S/cm), negative on failure.
double quovix_kmc_calculate_conductivity_from_file(const char *cifname, const char *cubename,
                                                   const char *type, int os, const int super[3],
                                                   double sf, double temperature, double t_limit,
                                                   long step_limit, long step_log, double cutoff,
                                                   const char *dir_symcards,
                                                   const char *dir_unitary, const char *dir_binary);

using quovix_kmc_ptr = quovix_owner<QUOVIX_KMC, quovix_kmc_free>;
