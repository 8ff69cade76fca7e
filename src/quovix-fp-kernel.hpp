// Classification of one grid point from the energies of its 3x3x3 block (internal to the path
// map; shared by the compact grid and the on-demand dot records).
#pragma once

#include <array>
#include <string>

#include "quovix-fp.hpp"

/// Result of the per-point steps: region labels, counts, type and the steepest branches, all
/// as 27-cell block codes p*9 + q*3 + r (13 = the point itself).
struct quovix_fp_point {
    int cluster[27];
    int total_up, total_dn;
    int type;
    int n_up, n_dn;
    unsigned char up[QUOVIX_FPDOT_MAX_BRANCH], dn[QUOVIX_FPDOT_MAX_BRANCH];
    unsigned warn;   // bit v: a branch-count warning is printed before label visit v
    unsigned warn8;  // bit v: that warning is the "exceeds 8" one
};

/// Neighbour regions of the block `e` (e[13] is the centre): 26-connected regions of the
/// neighbours strictly lower (negative labels) or higher-or-equal (positive labels), labelled in
/// row order with one counter for both signs and merged towards the smaller label.
void quovix_fp_point_cluster(int cluster[27], const double e[27]);
/// Counts, type and branches of a labelled block; records the warnings it would print.
void quovix_fp_point_classify(quovix_fp_point &pt, const double e[27]);
/// Appends the warning lines of a classified point at grid index x to `out`.
void quovix_fp_point_warnings(std::string &out, const quovix_fp_point &pt, const long x[3]);
