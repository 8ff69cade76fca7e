// Structure relaxation on the bond-valence energy: steepest descent of positions (and lattice)
// and the nudged elastic band with a climbing image.
#pragma once

#include "quovix-alloc.hpp"

/// Steepest descent of the free atoms (fixed[i] false) of `cell` on the energy with embedding
/// (quovix_cell_calculate_total_energy_eam; the embedding parameters of `ppt` must be set, or
/// be zero for the interatomic energy alone). Each step moves every free atom by 0.05 s A per
/// eV/A of its force and, with `relax_lattice`, strains each axis by -s (1 A^3/eV) times its
/// diagonal stress, both capped at `max_move` A; a step that raises the energy is undone and
/// s halved, an accepted one multiplies s by 1.2 (up to 20), so the energy never rises. Stops
/// when the largest force on a free atom is below `f_tol` eV/A (and, with the lattice, every
/// diagonal stress below 1e-4 eV/A^3), after `steps` steps, or when the step length falls
/// below 1e-6 A. Prints "RX: ..." lines per step. 0 on success (converged or not), 1 on error.
int quovix_rx_sd_run(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, const bool *fixed, long steps,
                     bool relax_lattice, double f_tol, double max_move);

/// A band of images between two end structures (same atoms, same order, same lattice).
struct QUOVIX_RX_NEB {
    long total;          // images, both ends included
    QUOVIX_CELL **cell;  // owned images; image positions are kept unwrapped in `x`
    double (*x)[3];      // total * atoms Cartesian positions (unwrapped), row image * atoms + k
    double *en;          // energy of each image (eV)
    double *s;           // reaction coordinate: path length from image 0 (A)
    long atoms;          // atoms per image
    long climbing;       // index of the climbing image, -1 while there is none
};

/// New band of `total` images: the given cells (copied) when `count` equals `total`, or the
/// two ends (cells[0], cells[count - 1]) linearly interpolated when count is 2. The end's
/// positions are taken as the periodic images closest to the start's. Null after an error line
/// when the images differ in atom count, species or order, or in lattice (1e-6 A).
QUOVIX_RX_NEB *quovix_rx_neb_new(QUOVIX_CELL *const *cells, long count, long total);
void quovix_rx_neb_free(QUOVIX_RX_NEB *neb);
void quovix_rx_neb_print(const QUOVIX_RX_NEB *neb);

/// Relaxes the band on the interatomic energy (quovix_cell_calculate_total_energy): the atoms
/// with free[k] move under the force perpendicular to the path (tangent by the energy-weighted
/// upwind rule of Henkelman and Jonsson) plus a spring force of `spring` eV/A^2 along it; after
/// 1/4 of the steps (or once the band has converged to 10 f_tol), the highest image climbs (its
/// force along the path inverted, no spring). The band moves by quick-min (velocity kept only
/// along the force), steps capped at 0.05 A per atom. Ends are
/// fixed. Stops when every image's largest free force is below f_tol eV/A or after `steps`.
/// Prints one "NEB: ..." line per 10 steps. 0 on success, 1 on error.
int quovix_rx_neb_run(QUOVIX_RX_NEB *neb, QUOVIX_PROPERTY *ppt, const bool *free, long steps,
                      double f_tol, double spring);
