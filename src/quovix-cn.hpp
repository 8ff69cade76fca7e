// Coordination numbers: neighbour shells by distance, by bond valence, and Hoppe's effective
// coordination number.
#pragma once

#include "quovix-alloc.hpp"

/// One neighbour of a site: an atom of the cell seen through one lattice translation.
struct QUOVIX_CN_BOND {
    long atom;   // index of the neighbour in the cell
    long t[3];   // lattice translation of the image (in cell vectors)
    double d;    // distance from the site (A)
    double s;    // bond valence (v.u., occupancy-weighted; 0 for like charges or beyond cut-off)
    bool inner;  // counter-ion of the first shell (distance gap rule)
};

/// The neighbourhood of one site within r_max, sorted by distance, and its coordination
/// numbers. Made by quovix_cn_new / quovix_cn_calculate, released by quovix_cn_free.
struct QUOVIX_CN {
    long site;             // index of the site's atom in the cell
    double r_max;          // neighbours listed up to this distance (A)
    long total;            // neighbours listed
    QUOVIX_CN_BOND *bond;  // `total` neighbours, nearest first
    long shell;            // counter-ions in the first shell (distance gap rule)
    double shell_occ;      // their occupancy sum
    double shell_end;      // distance of the last counter-ion of the shell (A), 0 when none
    double next;           // distance of the next counter-ion (A); 0 when none within 2 r_max
    double bv_sum;         // bond valence sum of the site (v.u., positive for every site)
    long cn_bv;            // bonds that carry the site's valence (share rule)
    double econ;           // Hoppe's effective coordination number over the counter-ions
};

/// Share of the bond valence sum carried by the bonds of the bond-valence coordination number.
inline constexpr double QUOVIX_CN_BV_SHARE = 0.85;
/// Smallest valence of a bond counted by the bond-valence coordination number (v.u.).
inline constexpr double QUOVIX_CN_BV_MIN = 0.05;
/// Default and largest accepted search radius of the distance shells (A).
inline constexpr double QUOVIX_CN_R_MAX_DEFAULT = 4.0;
inline constexpr double QUOVIX_CN_R_MAX_LIMIT = 20.0;

/// New record with room for `total` neighbours (zeroed); null after an error line.
QUOVIX_CN *quovix_cn_new(long total);
void quovix_cn_free(QUOVIX_CN *cn);
/// Prints the record with the tag "CN: "; null prints "CN: (not allocated)".
void quovix_cn_print(const QUOVIX_CN *cn);

/// Neighbourhood of the atom `site` of a cell whose parameter set `ppt` has been built (the
/// bond valences use its pair parameters and cut-offs): every atom image with
/// 0.2 A <= d <= r_max, nearest first (ties by atom index, then translation), the first shell
/// of counter-ions by the largest relative gap, the bond-valence coordination number and the
/// effective coordination number. r_max must lie in (0, 20] A. New record or null.
QUOVIX_CN *quovix_cn_calculate(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt, long site,
                               double r_max);

/// Index of the first atom named `name` in the cell, or -1.
long quovix_cn_find_atom(const QUOVIX_CELL *cell, const char *name);

/// Hoppe's effective coordination number of distances d[0..n) with weights w (occupancies):
/// ECoN = sum w_i exp(1 - (d_i / d_av)^6), d_av the weighted mean of the d_i with the same
/// weights, iterated from d_av = min d until it changes by less than 1e-9 A. 0 for n = 0.
double quovix_cn_effective(const double *d, const double *w, long n);

/// Occupancy-weighted mean, over the atoms of species 1, of the occupancy-weighted number of
/// species-2 atoms in their first shell (distance gap rule restricted to species 2, searched up
/// to r_max). Writes the number of species-1 atoms to *count. 0 on success, 1 after an error.
int quovix_cn_average_by_type(double *average, long *count, const QUOVIX_CELL *cell,
                              const char *type1, int os1, const char *type2, int os2, double r_max);

using quovix_cn_ptr = quovix_owner<QUOVIX_CN, quovix_cn_free>;
