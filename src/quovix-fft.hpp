// Spectral derivatives of a periodic energy grid (FFTW 3, double precision): Cartesian gradient
// (eV/A) and second-derivative tensor (eV/A^2) at grid points, with the eigen decomposition of
// the symmetrised tensor.
//
// Method
// ------
// The grid E(s) on integer grid coordinates s_k = 0..n_k-1 is transformed once with a
// real-to-complex transform, c(m) = sum_s E(s) exp(-2 pi i m.s/n). With the signed frequency
// m_k in (-n_k/2, n_k/2] and w_k = 2 pi m_k / n_k, the derivatives with respect to grid
// coordinates have the multipliers
//   d/ds_k            ->  i w_k            (0 at the Nyquist frequency m_k = n_k/2)
//   d2/ds_k2          ->  -w_k^2           (kept at the Nyquist frequency)
//   d2/ds_k ds_l, k!=l ->  (i w_k)(i w_l)  (0 when either axis is at its Nyquist frequency)
// Nyquist convention for even n_k: the Nyquist mode cos(pi s_k) has no first derivative on the
// grid points (sin(pi s_k) = 0 there) and its pure second derivative is -pi^2 cos(pi s_k), so the
// convention keeps every derivative real and is exact at grid points for band-limited grids.
// Odd n_k have no Nyquist frequency. Cartesian derivatives follow from r = s . a_i (rows of a_i
// are the voxel vectors): with B = a_i^-1, d/dr_j = sum_k B[j][k] d/ds_k, applied per mode in
// spectral space, so each Cartesian component costs one complex-to-real transform.
//
// Memory
// ------
// The record keeps the real grid (8 B/point) and its half spectrum (16 B per n0*n1*(n2/2+1)
// modes, about 8 B/point). The nine Cartesian derivative grids (three first, six distinct second
// derivatives; k[j][l] and k[l][j] share one grid) are real and made on the first point read
// (quovix_fftdot_read_from_fft) or by quovix_fft_calculate_derivatives: 72 B/point more, about
// 100 B/point in all instead of the 208 B/point of thirteen complex grids.
#pragma once

#include "quovix-cube.hpp"

struct quovix_fft_store;  // FFTW buffers (opaque, owned by the record)

/// Fourier derivative record of one periodic grid.
struct QUOVIX_FFT {
    long n[3];         ///< grid size
    long total;        ///< n[0] * n[1] * n[2]
    double a[3][3];    ///< lattice vectors (A)
    double a_i[3][3];  ///< voxel vectors (A)
    double b[3][3];    ///< inverse of a_i: d/dr_j = sum_k b[j][k] d/ds_k
    double *en;        ///< energy per point, row-order flat index (eV)
    double *f[3];      ///< dE/dr_j per point (eV/A); null until derivatives are made
    double *k[3][3];   ///< d2E/dr_j dr_l per point (eV/A^2); k[j][l] == k[l][j] (same grid)
    quovix_fft_store *store;
};

/// Everything known at one grid point.
struct QUOVIX_FFTDOT {
    long x_i[3];       ///< grid indices (wrapped)
    double x[3];       ///< Cartesian position (A)
    double en;         ///< energy (eV)
    double f[3];       ///< gradient dE/dr (eV/A)
    double k[3][3];    ///< second-derivative tensor (eV/A^2), symmetrised
    double eig[3];     ///< eigenvalues of k, ascending (eV/A^2)
    double eiv[3][3];  ///< unit eigenvectors, rows in the order of eig
};

/// Spectrum of the cube's grid (the derivative grids follow on first use). Null on failure.
QUOVIX_FFT *quovix_fft_new_from_cube(QUOVIX_CUBE *cube);
void quovix_fft_free(QUOVIX_FFT *fft);
void quovix_fft_print(const QUOVIX_FFT *fft);
/// Makes the nine derivative grids now (no-op when they exist). 0 or 1.
int quovix_fft_calculate_derivatives(QUOVIX_FFT *fft);

QUOVIX_FFTDOT *quovix_fftdot_new();
void quovix_fftdot_free(QUOVIX_FFTDOT *dot);
void quovix_fftdot_print(const QUOVIX_FFTDOT *dot);
/// Fills `dot` for grid index x (wrapped modulo n): energy, gradient, symmetrised tensor and
/// its eigen decomposition (quovix_matrix33_double_eigensolver_symmetric). 0 or 1.
int quovix_fftdot_read_from_fft(QUOVIX_FFTDOT *dot, QUOVIX_FFT *fft, const long x[3]);

using quovix_fft_ptr = quovix_owner<QUOVIX_FFT, quovix_fft_free>;
