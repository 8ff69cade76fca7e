// Force-field export for GULP (6.x input rules): the bond-valence pair terms as a ".lib"
// library, with or without the embedding term, and a complete ".gin" molecular-dynamics deck.
#pragma once

#include "quovix-alloc.hpp"

/// GULP label of species i of the set: the element symbol and a type number counting the
/// species of that element in the set's order ("Fe1" for the first iron species, "Fe2" for the
/// second). GULP refuses labels that carry a charge ("Li1+"), and a plain "Fe" potential would
/// act on every iron type, so every species gets a numbered label. `out` holds 8 characters.
void quovix_gin_label(char out[8], const QUOVIX_PROPERTY *ppt, int i);

/// The library text (LF line ends, every line at most 80 characters): a comment header, the
/// keyword noelectrostatics, the species charges (the set's fractional charges), one
/// "morse ener" line per cation-anion pair (De = 7.19982 d0 eV, a = 1/b, r0 = rmin, cut at the
/// pair cut-off, energy shifted to 0 there) and one "qerfc" line per like-charged pair
/// (rho = sf (rc_i + rc_j), cut at max(12 A, largest pair cut-off)). With `eam`, the
/// embedding term follows: "manybody" over the cation-anion pairs, the bond valence as
/// "eam_density exponential 0" (1.0 exp(-(r - R0)/b)) and "eam_functional square_root" with
/// A_i = 7.19982 f1_i / sqrt(|os_i|) eV (the embedding parameters must have been computed).
/// New text (quovix_text_free) or null after an error line: null set, a non-finite or
/// out-of-range number, or a line that would exceed 80 characters.
QUOVIX_TEXT *quovix_gin_lib_import_from_property(const QUOVIX_PROPERTY *ppt);
QUOVIX_TEXT *quovix_gin_lib_eam_import_from_property(const QUOVIX_PROPERTY *ppt);

/// Molecular-dynamics deck for GULP in flags mode: keyword line "md noelectrostatics", title,
/// cell with six zero strain flags (constant volume), every atom of the cell in fractional
/// coordinates ending "1 1 1" for the mobile species (type, os) and "0 0 0" for the framework,
/// the library inline, then NVT with the stochastic thermostat at `temperature` K, time step
/// 1 fs, `equilibration` and `production` ps, sampling and trajectory every 10 fs, written
/// under the word `name` (history, xyz movie, restart dump). Null after an error line: partial
/// occupancy (GULP's dynamics refuses it), no atom of the mobile species, charges that do not
/// sum to zero within 1e-6, or bad numbers.
QUOVIX_TEXT *quovix_gin_import_from_cell(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt,
                                         const char *type, int os, double temperature,
                                         double equilibration, double production, const char *name);
