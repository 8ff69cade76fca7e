// Lattice-image search shared by the pair sums (bond valence sums, cell energies, forces).
//
// A pair sum takes a search radius R and, per axis k, the images -n_k..n_k with
// n_k = trunc(2 + R / |a_k|). The plain loops visit all (2n+1)^3 images of every pair. The
// bounded walk (for_each_image) visits, in the same nested order, only the images of -n..n
// that can lie within the pair's range, and computes their distances with the same floating
// point operations, so it sees exactly the contacts of the plain loops, in the same order.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "quovix-la.hpp"
#include "quovix.hpp"

namespace quovix_images {

// Image counts beyond this per axis mean a lattice that is degenerate for the search radius.
inline constexpr long max_per_axis = 2000;

struct frame {
    double a[3][3];    // rows: lattice vectors (A)
    double inv[3][3];  // inverse: fractional row = Cartesian row * inv
    double g[3];       // |column m of inv| = 1 / spacing of the lattice planes m
    long n[3];         // images -n..n per axis
};

/// Fills `f` for a search radius; prints the cause and returns false for a degenerate lattice.
[[nodiscard]] inline bool make_frame(const QUOVIX_CELL *cell, double range, frame &f) {
    std::memcpy(f.a, cell->a, sizeof f.a);
    const double(*a)[3] = f.a;
    const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                       a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                       a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    if (!(std::fabs(det) > 1e-12) || !std::isfinite(det)) {
        std::fputs("Error: lattice vectors of QUOVIX_CELL are degenerate.\n", stderr);
        return false;
    }
    quovix_matrix33_double_inverse_cofactor(f.inv, a, det);
    for (int m = 0; m < 3; ++m) {
        f.g[m] = std::sqrt(f.inv[0][m] * f.inv[0][m] + f.inv[1][m] * f.inv[1][m] +
                           f.inv[2][m] * f.inv[2][m]);
        const double len = std::sqrt(a[m][0] * a[m][0] + a[m][1] * a[m][1] + a[m][2] * a[m][2]);
        const double n = 2.0 + range / len;
        if (!(n <= static_cast<double>(max_per_axis))) {
            std::fputs("Error: lattice vector too short for the search range.\n", stderr);
            return false;
        }
        f.n[m] = static_cast<long>(n);  // truncation
    }
    return true;
}

/// Calls visit(v, d) for every image k of -n..n with d = |x_i + k.A - x_j| <= range (plus a
/// 1e-6 A margin; the caller applies its exact tests), in the order of the plain nested loop
/// (k1 outer, k3 inner), with v = x_i + k.A - x_j and d computed exactly as the plain loop does.
/// Along each axis m only the k_m with |f_m + k_m| <= range |column m of A^-1| are tried, f the
/// fractional coordinates of x_i - x_j (the component m of v is v . column m of A^-1); the
/// remaining candidates are screened by their squared distance.
template <class F>
inline void for_each_image(const frame &f, const double xi[3], const double xj[3], double range,
                           F &&visit) {
    const double delta[3] = {xi[0] - xj[0], xi[1] - xj[1], xi[2] - xj[2]};
    const double r = range + 1e-6;
    const double r2 = r * r;
    long lo[3], hi[3];
    for (int m = 0; m < 3; ++m) {
        const double fm = delta[0] * f.inv[0][m] + delta[1] * f.inv[1][m] + delta[2] * f.inv[2][m];
        const double reach = r * f.g[m] + 1e-9;
        const double a = std::ceil(-fm - reach), b = std::floor(-fm + reach);
        const double n = static_cast<double>(f.n[m]);
        if (!(a <= b) || a > n || b < -n) return;  // also positions that are not numbers
        lo[m] = static_cast<long>(std::max(a, -n));
        hi[m] = static_cast<long>(std::min(b, n));
    }
    for (long k1 = lo[0]; k1 <= hi[0]; ++k1) {
        for (long k2 = lo[1]; k2 <= hi[1]; ++k2) {
            // Same association as the plain loop: ((x_i + k1 a1) + k2 a2) + k3 a3.
            double base[3];
            for (int c = 0; c < 3; ++c) base[c] = xi[c] + k1 * f.a[0][c] + k2 * f.a[1][c];
            for (long k3 = lo[2]; k3 <= hi[2]; ++k3) {
                double v[3];
                for (int c = 0; c < 3; ++c) v[c] = (base[c] + k3 * f.a[2][c]) - xj[c];
                const double d2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                if (d2 > r2) continue;
                visit(v, std::sqrt(d2));
            }
        }
    }
}

/// Distance from x_j to x_i moved by k1 a1 + k2 a2 + k3 a3; v receives the vector.
inline double distance(const double a[3][3], const double xi[3], const double xj[3], long k1,
                       long k2, long k3, double v[3]) {
    for (int c = 0; c < 3; ++c) {
        const double moved = xi[c] + k1 * a[0][c] + k2 * a[1][c] + k3 * a[2][c];
        v[c] = moved - xj[c];
    }
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

}  // namespace quovix_images
