// Energy grids: the landscape of a mobile ion and the Gaussian cube file.
#pragma once

#include "quovix-alloc.hpp"

struct QUOVIX_CUBE {
    double ***en;      // en[i][j][k], value at (i/n0, j/n1, k/n2)
    double a[3][3];    // cell vectors (A), row k = vector k
    double a_i[3][3];  // voxel vectors (A), row k = a[k]/n[k]
    long n[3];         // grid points along each vector
};

QUOVIX_CUBE *quovix_cube_new(const long n[3]);
void quovix_cube_free(QUOVIX_CUBE *cube);
void quovix_cube_print_info(const QUOVIX_CUBE *cube);

int quovix_cube_export_to_file(const QUOVIX_CUBE *cube, const QUOVIX_CELL *cell,
                               const QUOVIX_PROPERTY *ppt, const char *filename, bool periodic);
int quovix_cube_import_from_file(QUOVIX_CUBE **cube, QUOVIX_CELL **cell, const char *filename,
                                 bool periodic, const char *dir_unitary);

int quovix_cube_validate_property(QUOVIX_PROPERTY *ppt);
QUOVIX_CUBE *quovix_cube_calculate(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                   QUOVIX_PROPERTY *ppt, double resolution, bool ignore_conducting);

// ---------------------------------------------------------------- landscape helpers
/// Same as quovix_cube_print_info, to the given stream.
void quovix_cube_fprint_info(std::FILE *out, const QUOVIX_CUBE *cube);
/// Grid counts (multiples of 24, at most 196^3 points in all) for lattice lengths at a
/// resolution (A). 0 on success, 1 for non-positive input.
int quovix_cube_grid_size(long n[3], const double length[3], double resolution);
/// Parameter set with the mobile species + landscape; *ppt receives the set (caller frees).
QUOVIX_CUBE *quovix_cube_calculate_from_cell(QUOVIX_PROPERTY **ppt, QUOVIX_CELL *cell,
                                             QUOVIX_SYMMETRY *symmetry, const char *type, int os,
                                             double sf, double resolution, bool ignore_conducting,
                                             const char *dir_unitary, const char *dir_binary);
/// Parameter set + landscape + cube file with header. 0 or 1.
int quovix_cube_calculate_from_cell_and_write_to_file(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                                      const char *type, int os, double sf,
                                                      double resolution, bool ignore_conducting,
                                                      bool periodic, const char *filename,
                                                      const char *dir_unitary,
                                                      const char *dir_binary);
/// As above, resolving sites the mobile species shares with others on a default supercell
/// (written to filename_assigned), or skipping the structure when skip_mix_occ. 0 or 1.
int quovix_cube_calculate_from_cell_and_write_to_file_assign_partial_occ(
    QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry, const char *type, int os, double sf,
    double resolution, bool ignore_conducting, bool periodic, bool skip_mix_occ,
    const char *filename, const char *filename_assigned, const char *dir_unitary,
    const char *dir_binary);
/// Default supercell with the mixed sites around (type, os) resolved at random; new cell.
QUOVIX_CELL *quovix_cube_super_simple(QUOVIX_CELL *cell, const char *type, int os);
/// "<input without its last 4 characters>_assigned.cif", from at most 1000 input characters.
void quovix_cubename_assigned(char out[QUOVIX_PATH_LEN], const char *input);

using quovix_cube_ptr = quovix_owner<QUOVIX_CUBE, quovix_cube_free>;
