// Pair energies and their distance derivatives: Morse-type bonding between a cation and an
// anion, screened Coulomb repulsion between like-charged ions, and the inner pseudopotential.
//
// Units: x in A, charges in e, energies in reduced units (e^2/A). The cell sums turn them into
// eV with 7.19982 = 14.39964 / 2 eV*A. A "force" here is dE/dx (positive when the energy rises
// with distance), not -dE/dx. None of these functions allocates or fails: a zero b or x gives
// infinities, which callers avoid through their parameter and distance tests.
#include <cmath>

#include "quovix-import.hpp"
#include "quovix-pair.hpp"

/// Morse bonding energy 0.5 d0 [(e - 1)^2 - 1], e = exp((rmin - x) / b): -0.5 d0 at x = rmin,
/// 0 at infinity (reduced units).
double quovix_energy_bonding(double x, double d0, double rmin, double b) {
    const double e = std::exp((rmin - x) / b);
    return 0.5 * d0 * ((e - 1.0) * (e - 1.0) - 1.0);
}

/// dE/dx of quovix_energy_bonding: -d0 (e - 1) e / b.
double quovix_force_bonding(double x, double d0, double rmin, double b) {
    const double e = std::exp((rmin - x) / b);
    return -d0 * (e - 1.0) * e / b;
}

/// Bonding energy shifted by en_s (the energy at the cut-off), so it vanishes there.
double quovix_energy_bonding_with_energy_shift(double x, double d0, double rmin, double b,
                                               double en_s) {
    return quovix_energy_bonding(x, d0, rmin, b) - en_s;
}

/// Bonding energy shifted in value and slope: E - en_s - f_s (x - cutoff), so that both the
/// energy and its derivative vanish at the cut-off.
double quovix_energy_bonding_with_energy_shift_and_force_shift(double x, double d0, double rmin,
                                                               double b, double en_s, double f_s,
                                                               double cutoff) {
    return quovix_energy_bonding(x, d0, rmin, b) - en_s - f_s * (x - cutoff);
}

/// dE/dx of the bonding energy minus the force shift f_s.
double quovix_force_bonding_with_force_shift(double x, double d0, double rmin, double b,
                                             double f_s) {
    return quovix_force_bonding(x, d0, rmin, b) - f_s;
}

/// Screened Coulomb energy q erfc(x / r_eff) / x, shifted to zero at 10 A (reduced units;
/// q is the product of the two fractional charges, r_eff = sf (rc_i + rc_j)).
double quovix_energy_coulombic(double x, double q, double r_eff) {
    return q * std::erfc(x / r_eff) / x - quovix_energy_coulombic_shift(q, r_eff);
}

/// The shift of the screened Coulomb energy: its unshifted value q erfc(10 / r_eff) / 10 at
/// 10 A.
double quovix_energy_coulombic_shift(double q, double r_eff) {
    return q * std::erfc(QUOVIX_COULOMB_SHIFT_DISTANCE / r_eff) / QUOVIX_COULOMB_SHIFT_DISTANCE;
}

/// dE/dx of the unshifted screened Coulomb energy:
/// -q erfc(t) / x^2 - 2 q exp(-t^2) / (sqrt(pi) r_eff x), t = x / r_eff.
double quovix_force_coulombic(double x, double q, double r_eff) {
    const double t = x / r_eff;
    return -q * std::erfc(t) / (x * x) - 2.0 * q * std::exp(-t * t) / (QUOVIX_SQRT_PI * r_eff * x);
}

/// Inner bonding pseudopotential a2 x^2 + a1 x + a0 (used inside r_bc).
double quovix_pseudopotential_energy_bonding(double x, double a2, double a1, double a0) {
    return a2 * x * x + a1 * x + a0;
}

/// Inner Coulomb pseudopotential a2 x^2 + a1 x + a0 (used inside r_cc).
double quovix_pseudopotential_energy_coulombic(double x, double a2, double a1, double a0) {
    return a2 * x * x + a1 * x + a0;
}

/// Pair constants of every ordered species pair of `ppt`: screened Coulomb for like charges
/// (os_i os_j >= 1), shifted Morse for opposite charges from the record stored cation first,
/// nothing for pairs involving os = 0. False when the set has no species or arrays.
bool quovix_pair_table_build(quovix_pair_table &table, const QUOVIX_PROPERTY *ppt) {
    if (!ppt || ppt->total <= 0 || !ppt->uni || !ppt->bin || !ppt->os) return false;
    const int total = ppt->total;
    table.total = total;
    table.terms.assign(static_cast<std::size_t>(total) * static_cast<std::size_t>(total), {});
    for (int i = 0; i < total; ++i) {
        for (int j = 0; j < total; ++j) {
            quovix_pair_term &t =
                table.terms[static_cast<std::size_t>(i) * static_cast<std::size_t>(total) +
                            static_cast<std::size_t>(j)];
            const long prod = static_cast<long>(ppt->os[i]) * ppt->os[j];
            if (prod == 0) continue;
            // Bonded records are stored cation first; a like-charged pair reads the same
            // orientation, its pseudopotential being symmetric in i and j.
            const QUOVIX_PROPERTY_BINARY &bin = ppt->os[i] > 0 ? ppt->bin[i][j] : ppt->bin[j][i];
            t.a0 = bin.a0;
            t.a1 = bin.a1;
            t.a2 = bin.a2;
            if (prod >= 1) {
                t.kind = quovix_pair_kind::coulomb;
                t.q = ppt->uni[i].q * ppt->uni[j].q;
                t.rcs = ppt->uni[i].rc + ppt->uni[j].rc;
                t.r_in = bin.r_cc;
            } else {
                t.kind = quovix_pair_kind::bonding;
                t.cutoff = bin.cutoff;
                t.d0 = bin.d0;
                t.rmin = bin.rmin;
                t.b = bin.b;
                t.en_s = bin.en_s;
                t.f_s = bin.f_s;
                t.r0 = bin.r0;
                t.s_cut = std::exp((bin.r0 - bin.cutoff) / bin.b);
                t.r_in = bin.r_bc;
            }
        }
    }
    return true;
}
