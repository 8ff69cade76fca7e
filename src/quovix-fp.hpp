// Path map on the grid: classification of grid points from their 26 neighbours, steepest-descent
// half paths from saddle points to minima, barrier filter and the marker cell.
//
// Memory layout of the path grid
// ------------------------------
// The literal dot record (QUOVIX_FPDOT: 27 neighbour pointers, 27 region labels, 16 branch
// pointers) costs about 500 bytes per grid point, 4 GB on the largest landscape grid (196^3).
// QUOVIX_FPCUBE therefore keeps the classification in compact per-point arrays indexed by the
// row-order flat index q = (i0*n1 + i1)*n2 + i2 (see quovix_grid in quovix-grid.hpp):
//   en[q]        energy (eV)
//   type[q]      fpdot_type
//   total_up[q], total_dn[q]   region counts of the classification
//   dn[q][k]     k = 0..2: the first three down branches as 26-stencil codes, i.e. the offset
//                (p-1, q-1, r-1) of the branch neighbour coded as p*9 + q*3 + r (13 = the point
//                itself, used where no branch exists). Saddles have at most three down branches
//                that a half path starts from, every other dot is left through dn[0] only, so
//                three codes are all that tracing needs.
// about 14 bytes per point. Full QUOVIX_FPDOT records are materialised on demand, once per
// grid point, only for the dots that half paths visit (and for dots asked for through
// quovix_fpcube_dot). They are owned by the grid, never move once made, and carry `en`, `x_i`,
// `x`, `type`, `cluster`, `total_up` and `total_dn` exactly as the literal record would; their
// `nb`, `up` and `dn` pointers are null (the neighbourhood is reached by index through the grid).
//
// A materialised dot's `type` is authoritative for its point: the half-path labelling and the
// graph mark dots through the half paths' pointers, and quovix_fpcube_export_to_cell reads the
// type of a point from its dot record when one exists, else from type[q].
//
// Half paths hold pointers to materialised dots, so a half-path list must be freed before, or
// together with, the grid it came from.
//
// Output identity with the literal layout (one record per point with its 27 neighbour pointers)
// is checked in the unit tests against a literal implementation (quovix-fp-reference.hpp).
#pragma once

#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"

/// Kind of a grid point; the values are part of printed output and fixed.
enum fpdot_type : int {
    FP_UND = 0,  ///< not classified yet
    FP_NOR = 1,  ///< ordinary point: one lower and one higher neighbour region
    FP_MIN = 2,  ///< local minimum: no lower neighbour
    FP_MAX = 3,  ///< local maximum: no higher-or-equal neighbour
    FP_SAD = 4,  ///< saddle point: two or three separate lower neighbour regions
    FP_PAT = 5,  ///< dot on a kept half path (set by labelling)
    FP_ERR = 6   ///< neighbourhood that fits no rule
};

/// Largest number of dots in one half path; a longer descent fails the whole map.
inline constexpr long QUOVIX_FPHALF_MAX_DOTS = 1999;
/// At most this many up and down branches are stored per dot.
inline constexpr int QUOVIX_FPDOT_MAX_BRANCH = 8;
/// Down branches kept per point in the compact grid (enough for every saddle).
inline constexpr int QUOVIX_FPCUBE_DN_KEPT = 3;
/// Stencil code of the centre of the 3x3x3 block (p = q = r = 1).
inline constexpr unsigned char QUOVIX_FPCUBE_SELF = 13;

/// One grid point (literal record). In the shipped grid only materialised dots exist and their
/// `nb`, `up`, `dn` pointers are null; in the literal reference grid every field is filled.
struct QUOVIX_FPDOT {
    double en;                    ///< energy (eV)
    long x_i[3];                  ///< grid indices (i0, i1, i2)
    double x[3];                  ///< Cartesian position, sum_k a_i[k] * i_k (A)
    QUOVIX_FPDOT *nb[3][3][3];    ///< neighbourhood with wrap-around; nb[1][1][1] = self
    int type;                     ///< fpdot_type
    int cluster[3][3][3];         ///< region label per neighbour (+ higher/equal, - lower)
    int total_up, total_dn;       ///< region counts of the classification
    QUOVIX_FPDOT *up[8], *dn[8];  ///< highest / lowest neighbour of each up / down region
};

struct quovix_fpcube_store;  // materialised dot records (opaque, owned by the grid)

/// The path-finding grid in compact form (see the header comment for the layout).
struct QUOVIX_FPCUBE {
    double a[3][3];                              ///< lattice vectors (A), copied from the cube
    double a_i[3][3];                            ///< voxel vectors (A)
    long n[3];                                   ///< grid size
    long total;                                  ///< n[0] * n[1] * n[2]
    double *en;                                  ///< energy per point (eV)
    signed char *type;                           ///< fpdot_type per point
    signed char *total_up;                       ///< up-region count per point
    signed char *total_dn;                       ///< down-region count per point
    unsigned char (*dn)[QUOVIX_FPCUBE_DN_KEPT];  ///< first down branches as stencil codes
    quovix_fpcube_store *store;                  ///< materialised dots
};

/// One steepest-descent half path: dot[0] is the saddle, dot[total-1] where the descent stopped.
struct QUOVIX_FPHALF {
    long total;          ///< number of dots
    QUOVIX_FPDOT **dot;  ///< `total` pointers into the grid (array owned, dots not)
    double barrier;      ///< en(dot[0]) - en(dot[total-1]) (eV)
};

struct QUOVIX_FPHALF_LIST {
    long total;           ///< number of half paths
    QUOVIX_FPHALF *half;  ///< owned array
};

// ---------------------------------------------------------------- grid
/// Zeroed compact grid of n[0] x n[1] x n[2] points (type FP_UND). Null on failure.
QUOVIX_FPCUBE *quovix_fpcube_new(const long n[3]);
/// Grid from a cube: energies, lattice and voxel vectors, then cluster + classify + branch for
/// every point in row order (warnings printed in that order). Null on failure.
QUOVIX_FPCUBE *quovix_fpcube_new_from_cube(QUOVIX_CUBE *cube);
/// Frees the grid and every materialised dot; null accepted.
void quovix_fpcube_free(QUOVIX_FPCUBE *fpcube);
/// Diagnostic summary: size and the number of points of each type.
void quovix_fpcube_print(QUOVIX_FPCUBE *fpcube);
/// Sets every point's type, and every materialised dot's type, to FP_UND.
void quovix_fpcube_clear_type(QUOVIX_FPCUBE *fpcube);
/// The materialised record of grid index x (wrapped modulo n), made on first request and
/// stable afterwards. Null on failure.
QUOVIX_FPDOT *quovix_fpcube_dot(QUOVIX_FPCUBE *fpcube, const long x[3]);
/// Current type of flat point q: the dot record's when materialised, else the compact one.
int quovix_fpcube_type_at(const QUOVIX_FPCUBE *fpcube, long q);

// ---------------------------------------------------------------- per-dot steps
/// Neighbour regions of the dot at x (wrapped): fills the materialised dot's `cluster`.
/// 0 or 1.
int quovix_fpdot_cluster(QUOVIX_FPCUBE *fpcube, const long x[3]);
/// Inside a 27-label block: every label equal to the larger of c1, c2 becomes the smaller;
/// nothing when c1 == c2 or either is 0.
void quovix_fpdot_merge_cluster(int cluster[3][3][3], int c1, int c2);
/// Counts regions from the dot's `cluster` (running-extreme records) and sets total_up,
/// total_dn and type of the dot and of its grid point; prints the branch-count warnings. 0 or 1.
int quovix_fpdot_classify(QUOVIX_FPCUBE *fpcube, const long x[3]);
/// Stores the down-branch steps of the dot at x in the compact grid (up branches are not kept
/// in the compact form). 0 or 1.
int quovix_fpdot_branch(QUOVIX_FPCUBE *fpcube, const long x[3]);
/// True when both are the same record or have the same grid indices.
bool quovix_fpdot_equal(const QUOVIX_FPDOT *d1, const QUOVIX_FPDOT *d2);
void quovix_fpdot_print(const QUOVIX_FPDOT *dot);

// ---------------------------------------------------------------- half paths
QUOVIX_FPHALF_LIST *quovix_fphalf_list_new_empty();
/// Half paths of the saddle at x (wrapped): one per down branch, each followed through dn[0]
/// until a minimum or saddle. Null on failure (not a saddle, wrong dot, cap of 1999 dots).
QUOVIX_FPHALF_LIST *quovix_fphalf_list_new(QUOVIX_FPCUBE *fpcube, const long x[3]);
/// All half paths of the grid, saddles in row order. Null on failure (nothing partial).
QUOVIX_FPHALF_LIST *quovix_fphalf_list_new_from_fpcube(QUOVIX_FPCUBE *fpcube);
/// Appends the half paths of `list` to `master` (arrays move) and frees `list`. 0 or 1.
int quovix_fphalf_list_merge(QUOVIX_FPHALF_LIST *master, QUOVIX_FPHALF_LIST *list);
/// Drops half paths with barrier > en (en >= 0; en = 0 keeps only zero barriers); a negative en
/// keeps all. Fails on a null or empty list. 0 or 1.
int quovix_fphalf_list_filter(QUOVIX_FPHALF_LIST *list, double en);
/// Every FP_UND / FP_NOR dot of every half path becomes FP_PAT.
void quovix_fphalf_list_label_path(QUOVIX_FPHALF_LIST *list);
void quovix_fphalf_list_free(QUOVIX_FPHALF_LIST *list);
void quovix_fphalf_list_print(const QUOVIX_FPHALF_LIST *list);
void quovix_fphalf_print(const QUOVIX_FPHALF *half);

// ---------------------------------------------------------------- export
/// Marker cell: SAD1 Na / SAD2 K / SAD3 Cs, PAT H, MIN Li atoms in row order. Null on failure.
QUOVIX_CELL *quovix_fpcube_export_to_cell(QUOVIX_FPCUBE *fpcube);
/// Grid, half paths, filter (barrier_max >= 0), labels, marker CIF. 0 or 1.
int quovix_fpcube_export_cif_to_file(QUOVIX_CUBE *cube, double barrier_max, const char *filename);

using quovix_fpcube_ptr = quovix_owner<QUOVIX_FPCUBE, quovix_fpcube_free>;
using quovix_fphalf_list_ptr = quovix_owner<QUOVIX_FPHALF_LIST, quovix_fphalf_list_free>;
