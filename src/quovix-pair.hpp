// Pair terms of the force field in bulk: the per-species-pair constants built once from a
// parameter set, and the batch kernel that sums them over many probe points at once.
//
// Every energy sum of the program (the landscape of a mobile ion, the cell energy, its stress
// and forces, and the Monte Carlo and dynamics that follow) reads its constants from one
// quovix_pair_table, and the sums over probe positions (landscapes, trial moves) go through
// quovix_pair_kernel_sum, which evaluates exp and erfc with the vector math library.
#pragma once

#include <cstddef>
#include <vector>

#include "quovix.hpp"

/// The screened Coulomb energy is shifted to zero at this distance (A), whatever cut-off the
/// caller applies; the landscape also counts like-charged contacts up to it.
inline constexpr double QUOVIX_COULOMB_SHIFT_DISTANCE = 10.0;

/// q erfc(10 / r_eff) / 10: the constant that quovix_energy_coulombic subtracts (reduced units).
double quovix_energy_coulombic_shift(double q, double r_eff);

enum class quovix_pair_kind { none, coulomb, bonding };

/// Constants of one ordered species pair (i, j). Bonded constants come from the pair record
/// stored cation first (bin[i][j] when species i is a cation, else bin[j][i]); the inner
/// pseudopotential a2 x^2 + a1 x + a0 applies for x <= r_in (r_bc of a bonded pair, r_cc of a
/// like-charged one). Pairs involving os = 0 are `none`.
struct quovix_pair_term {
    quovix_pair_kind kind = quovix_pair_kind::none;
    double cutoff = 0.0;  // bonded: the pair's cut-off (A); Coulomb: 0, the caller's range applies
    double d0 = 0.0, rmin = 0.0, b = 0.0, en_s = 0.0, f_s = 0.0;  // Morse constants and shifts
    double r0 = 0.0, s_cut = 0.0;  // bond valence: r0 and exp((r0 - cutoff) / b)
    double q = 0.0, rcs = 0.0;     // Coulomb: q_i q_j and rc_i + rc_j (r_eff = sf rcs)
    double r_in = 0.0, a0 = 0.0, a1 = 0.0, a2 = 0.0;  // inner pseudopotential
};

/// The pair constants of a parameter set, `total` x `total`, row i = first species.
struct quovix_pair_table {
    int total = 0;
    std::vector<quovix_pair_term> terms;
    const quovix_pair_term &term(int i, int j) const {
        return terms[static_cast<std::size_t>(i) * static_cast<std::size_t>(total) +
                     static_cast<std::size_t>(j)];
    }
};

/// Fills `table` from `ppt` (species, charges, radii, pair records). False on a set without
/// species or arrays (nothing printed). May throw std::bad_alloc.
bool quovix_pair_table_build(quovix_pair_table &table, const QUOVIX_PROPERTY *ppt);

/// Interacting images for the batch kernel, structure of arrays, in the order in which their
/// contributions are to be summed. A bonded source contributes, within its cut-off,
///   occ (d <= r_in ? a2 d^2 + a1 d + a0 : quovix_energy_bonding(d, d0, rmin, b) - en_s),
/// a Coulomb source, within QUOVIX_COULOMB_SHIFT_DISTANCE,
///   occ (d <= r_in ? a2 d^2 + a1 d + a0 : q erfc(d / r_eff) / d - shift),
/// with shift = quovix_energy_coulombic_shift(q, r_eff).
struct quovix_pair_sources {
    // bonded
    std::vector<double> bx, by, bz, bocc, bcut, brin, ba0, ba1, ba2, bd0, brmin, bb, bens, bbinv;
    // Coulomb
    std::vector<double> cx, cy, cz, cocc, crin, ca0, ca1, ca2, cq, creff, cshift, creffinv;

    void clear();
    /// Appends an image at (x, y, z) of a bonded (Morse) pair term.
    void add_bonded(const double x[3], double occ, const quovix_pair_term &t);
    /// Appends an image of a like-charged pair term with r_eff = sf * t.rcs at the caller's
    /// screening factor and shift = quovix_energy_coulombic_shift(t.q, r_eff), both computed
    /// once per term by the caller.
    void add_coulomb(const double x[3], double occ, const quovix_pair_term &t, double r_eff,
                     double shift);
};

/// The batch kernel. For every probe point p < n at (px[p], py[p], pz[p]) sums the bonded and
/// the Coulomb contributions of all sources, each source in its list order, into bond[p] and
/// coulomb[p] (reduced units; both overwritten). The probe points are processed in groups as
/// wide as the vector registers, each lane one point, so that every point's sums are taken in
/// source order whatever the group: the result of a point depends on nothing but its position
/// and the sources. exp and erfc come from the vector math library (glibc's libmvec), within a
/// few units in the last place of the scalar functions.
void quovix_pair_kernel_sum(const quovix_pair_sources &src, const double *px, const double *py,
                            const double *pz, std::size_t n, double *bond, double *coulomb);

/// The same sums with the scalar pair functions and the exact arithmetic of the plain loops
/// (quovix_energy_bonding_with_energy_shift, quovix_energy_coulombic, the pseudopotentials):
/// the reference of the kernel, and its fallback where the last bits matter.
void quovix_pair_kernel_sum_exact(const quovix_pair_sources &src, const double *px,
                                  const double *py, const double *pz, std::size_t n, double *bond,
                                  double *coulomb);

/// Distance derivatives of n contacts at once, each with its own constants:
///   bonded:  out[k] = quovix_force_bonding(d[k], d0[k], rmin[k], b[k]) = -d0 (e - 1) e / b,
///            e = exp((rmin - d) / b);
///   Coulomb: out[k] = quovix_force_coulombic(d[k], q[k], r_eff[k])
///            = -q erfc(t) / d^2 - 2 q exp(-t^2) / (sqrt(pi) r_eff d), t = d / r_eff.
/// Same operations as the scalar functions, with exp and erfc from the vector math library
/// (within a few units in the last place); each value depends on its own inputs only.
void quovix_pair_bonding_force_batch(const double *d, const double *d0, const double *rmin,
                                     const double *b, std::size_t n, double *out);
void quovix_pair_coulomb_force_batch(const double *d, const double *q, const double *r_eff,
                                     std::size_t n, double *out);
