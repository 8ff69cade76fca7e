// Energy grids: the landscape of a mobile ion and the Gaussian cube file.
#pragma once

#include "quovix-alloc.hpp"

struct QUOVIX_CUBE {
    double ***en;     // en[i][j][k], value at (i/n0, j/n1, k/n2)
    double a[3][3];   // cell vectors (A), row k = vector k
    double a_i[3][3]; // voxel vectors (A), row k = a[k]/n[k]
    long n[3];        // grid points along each vector
};

QUOVIX_CUBE *quovix_cube_new(const long n[3]);
void quovix_cube_free(QUOVIX_CUBE *cube);
void quovix_cube_print_info(QUOVIX_CUBE *cube);

int quovix_cube_export_to_file(QUOVIX_CUBE *cube, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt,
                               const char *filename, bool periodic);
int quovix_cube_import_from_file(QUOVIX_CUBE **cube, QUOVIX_CELL **cell, const char *filename,
                                 bool periodic, const char *dir_unitary);

int quovix_cube_validate_property(QUOVIX_PROPERTY *ppt);
QUOVIX_CUBE *quovix_cube_calculate(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                   QUOVIX_PROPERTY *ppt, double resolution,
                                   bool ignore_conducting);

using quovix_cube_ptr = quovix_owner<QUOVIX_CUBE, quovix_cube_free>;
