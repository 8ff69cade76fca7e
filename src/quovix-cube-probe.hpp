// Landscapes of a probe ion added to the structure: the global instability index and the
// total energy (with or without the embedding term) at every grid point.
#pragma once

#include "quovix-cube.hpp"

/// GII (v.u.) of the structure with one ion of the mobile species ppt->conducting added at each
/// grid point. Every atom of the cell stays (weighted by its occupancy) and the probe adds its
/// bonds: with S_i the bond valence sum of atom i before, V_i = |os_i|, and s_j the valence of
/// the probe's bond to atom j (its counter-ions within the pair cut-off, every image counted),
///   GII(r)^2 = [ sum_i occ_i (|S_i| + d_i - V_i)^2 + (S_p - V_p)^2 ] / (sum_i occ_i + 1),
/// d_i = sum of s_j over the images of atom i, S_p = sum_j occ_j s_j. Grid counts as
/// quovix_cube_grid_size; every point is computed (both cores, the same values for any thread
/// count). New cube, or null after the reason.
QUOVIX_CUBE *quovix_cube_by_gii_calculate(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt,
                                          double resolution);

/// Total-energy landscape (eV): the energy of the structure with one probe ion added at each
/// point less that of the structure alone. The pair part is the landscape of every ion of the
/// cell, the mobile species included (quovix_cube_calculate without ignoring any ion, with its
/// symmetry filling and 999.9 cap); with `eam`, the change of the embedding energy follows:
///   7.19982 [ G_p(rho_p) + sum_i occ_i (G_i(rho_i + e_i) - G_i(rho_i)) ],
/// G_i(rho) = -f1_i sqrt(rho / |os_i|), rho_i the bond-valence density of atom i (bonds faded to
/// 0 at the cut-off), e_i the probe's bonds to atom i, rho_p the probe's own density (the
/// embedding parameters of `ppt` must be set). The probe does not see its own periodic images
/// (a constant). New cube, or null after the reason.
QUOVIX_CUBE *quovix_cube_by_tot_en_calculate(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                             QUOVIX_PROPERTY *ppt, double resolution, bool eam);
