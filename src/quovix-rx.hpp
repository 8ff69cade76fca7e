// Cell energies, stress and the screening-factor fit.
#pragma once

#include "quovix-alloc.hpp"

/// Interatomic energy of the cell in eV (0 on null input).
double quovix_cell_calculate_total_energy(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);
/// Diagonal stress (eV/A^3) by central differences of the energy; 0 on success.
int quovix_cell_calculate_stress_diagonal(double stress[3], QUOVIX_CELL *cell,
                                          QUOVIX_PROPERTY *ppt);
/// Fits ppt->sf so that the cell's pressure vanishes (only when ppt->sf <= 0).
int quovix_property_calculate_screening_factor(QUOVIX_PROPERTY *ppt, QUOVIX_CELL *cell);
/// Embedding energy of the cell in eV (needs the embedding parameters f1).
double quovix_cell_calculate_eam_energy(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);
/// Interatomic plus embedding energy in eV.
double quovix_cell_calculate_total_energy_eam(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);
/// Cartesian forces -dE/dx (eV/A) of the total energy with embedding, force[i][0..2]
/// for atom i (array of cell->total rows); 0 on success.
int quovix_cell_calculate_force(double **force, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);
