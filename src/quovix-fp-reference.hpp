// Literal path grid: one QUOVIX_FPDOT record per point with its 27 neighbour pointers, labels and
// branch pointers, built step by step as the path-map rules are stated. It costs about 500 bytes
// per point and serves as the reference that the compact grid (quovix-fp.hpp) must reproduce
// exactly: same warnings, same half paths, same marker cell. Used by tests and benchmarks.
#pragma once

#include "quovix-fp.hpp"

/// The literal grid: dot[i][j] is one contiguous row of n[2] records.
struct QUOVIX_FPCUBE_REF {
    QUOVIX_FPDOT ***dot;
    double a[3][3];
    double a_i[3][3];
    long n[3];
};

QUOVIX_FPCUBE_REF *quovix_fpref_new(const long n[3]);
void quovix_fpref_free(QUOVIX_FPCUBE_REF *fpcube);
/// Records, neighbour pointers, then cluster + classify + branch of every dot in row order.
QUOVIX_FPCUBE_REF *quovix_fpref_new_from_cube(QUOVIX_CUBE *cube);
/// Literal 5x5x5 region labelling of the dot at x.
void quovix_fpref_dot_cluster(QUOVIX_FPCUBE_REF *fpcube, const long x[3]);
void quovix_fpref_dot_classify(QUOVIX_FPCUBE_REF *fpcube, const long x[3]);
void quovix_fpref_dot_branch(QUOVIX_FPCUBE_REF *fpcube, const long x[3]);
/// Half paths of one saddle (dot array reallocated at every step) and of the whole grid
/// (one list per saddle, merged).
QUOVIX_FPHALF_LIST *quovix_fpref_half_list_new(QUOVIX_FPCUBE_REF *fpcube, const long x[3]);
QUOVIX_FPHALF_LIST *quovix_fpref_half_list_new_from_fpcube(QUOVIX_FPCUBE_REF *fpcube);
QUOVIX_CELL *quovix_fpref_export_to_cell(QUOVIX_FPCUBE_REF *fpcube);
/// The whole chain on the literal grid. 0 or 1.
int quovix_fpref_export_cif_to_file(QUOVIX_CUBE *cube, double barrier_max, const char *filename);
