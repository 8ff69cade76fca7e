// Reference versions of the hot paths: the plain, literal algorithms that the shipped (binned,
// threaded) versions must reproduce. They exist for the tests and the benchmarks only; the
// program itself never calls them.
#pragma once

#include "quovix-bv.hpp"
#include "quovix-cube-probe.hpp"
#include "quovix-cube.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-kmc.hpp"
#include "quovix-md.hpp"

// Symmetry (quovix-import-sym.cpp): all-pairs scans with the same tolerances and the same
// first-come order as the binned partner searches and sort.
int quovix_atom_remove_duplicate_plain(QUOVIX_ATOM **atom, long *total);
void quovix_atom_sort_plain(QUOVIX_ATOM *atom, long total);
QUOVIX_CELL *quovix_cell_reduce_by_symmetry_plain(QUOVIX_CELL *cell,
                                                  const QUOVIX_SYMMETRY *symmetry);
int quovix_cell_flag_site_by_symmetry_plain(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry);
bool quovix_cell_validate_by_symmetry_plain(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry,
                                            double tolerance);
QUOVIX_SYMMETRY *quovix_symmetry_calculate_from_cell_plain(QUOVIX_CELL *cell, double tolerance,
                                                           const char *dir_symcards);

// Bond valence sums (quovix-bv.cpp).
/// The sums of quovix_bv_calculate_from_flagged_cell by the plain loop over every lattice image
/// on one thread (reference of the shipped sum).
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell_reference(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);

// Cell energy (quovix-rx.cpp).
/// Interatomic energy in eV by the plain loop over all atom pairs and all lattice images
/// (single thread); the reference of quovix_cell_calculate_total_energy.
double quovix_cell_calculate_total_energy_reference(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);

// Landscape (quovix-cube-calc.cpp).
/// Reference landscape (every point, atom and translation); same contract as
/// quovix_cube_calculate, which reproduces its values within 1e-9 eV and its six printed
/// decimals exactly.
QUOVIX_CUBE *quovix_cube_calculate_plain(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                         QUOVIX_PROPERTY *ppt, double resolution,
                                         bool ignore_conducting);
/// The shipped landscape with scalar exp/erfc (no vector kernel): quovix_cube_calculate_plain's
/// values bit for bit, with the fast loop's binning, symmetry and threads.
QUOVIX_CUBE *quovix_cube_calculate_scalar(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                          QUOVIX_PROPERTY *ppt, double resolution,
                                          bool ignore_conducting);

// Probe landscapes (quovix-cube-probe.cpp).
/// The probe terms at one Cartesian point by the plain loop over every atom and every lattice
/// image (the reference of the grid loops): the GII of quovix_cube_by_gii_calculate and the
/// embedding change in eV. 0 on success, 1 after an error line.
int quovix_cube_probe_point_plain(double *gii, double *eam, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt,
                                  const double r[3]);

// Percolation networks (quovix-gh-network.cpp).
/// Reference search over every pair and triple; same result as
/// quovix_graph_network_new_from_cycle_list.
QUOVIX_GRAPH_NETWORK *quovix_graph_network_new_from_cycle_list_plain(QUOVIX_LIST *list);

// Monte Carlo (quovix-kmc.cpp).
/// The step of quovix_kmc_evolve by the literal algorithm: sum every rate, scan every edge, refresh
/// by scanning (the reference of the tests and benchmarks). 0 or 1.
int quovix_kmc_evolve_plain(QUOVIX_KMC *kmc);

// Dynamics (quovix-md-force.cpp).
/// quovix_md_calculate_interaction by the plain loop over every atom and every lattice image (test
/// reference).
int quovix_md_calculate_interaction_plain(QUOVIX_MD *md, double (*f)[3], double *en_p,
                                          double *virial);

// The path map's literal grid has a header of its own: quovix-fp-reference.hpp.
