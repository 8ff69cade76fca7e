// Spectral derivatives of a periodic energy grid (real-to-complex FFTW transforms).
#include "quovix-fft.hpp"

#include <fftw3.h>
#ifdef _OPENMP
#include <omp.h>
#endif

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quovix-grid.hpp"
#include "quovix-la.hpp"

/// FFTW-allocated buffers of the record.
struct quovix_fft_store {
    double *en = nullptr;          // real grid
    fftw_complex *spec = nullptr;  // half spectrum, n0 * n1 * (n2/2 + 1)
    double *grid[9] = {};          // f[0..2], then k00 k01 k02 k11 k12 k22
    ~quovix_fft_store() {
        fftw_free(en);
        fftw_free(spec);
        for (double *g : grid) fftw_free(g);
    }
};

namespace {

/// Largest grid accepted (points); far beyond any landscape, and keeps sizes in int for FFTW.
constexpr long MAX_POINTS = 1L << 30;

/// Signed frequency of index m on an axis of n points, and whether it is the Nyquist one.
inline double frequency(long m, long n, bool &nyquist) {
    nyquist = (n % 2 == 0) && (2 * m == n);
    const long s = 2 * m > n ? m - n : m;
    return 2.0 * M_PI * static_cast<double>(s) / static_cast<double>(n);
}

/// Inverse of a 3x3 matrix by cofactors; false when (nearly) singular.
bool invert(double out[3][3], const double m[3][3]) {
    const double det = quovix_matrix33_double_determinant(m);
    if (!std::isfinite(det) || std::fabs(det) < 1e-12) return false;
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            const int i1 = (j + 1) % 3, i2 = (j + 2) % 3, j1 = (i + 1) % 3, j2 = (i + 2) % 3;
            out[i][j] = (m[i1][j1] * m[i2][j2] - m[i1][j2] * m[i2][j1]) / det;
        }
    return true;
}

/// Component c of the nine derivative grids: 0..2 first derivatives, 3..8 the pairs (j, l).
constexpr int PAIR[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};

}  // namespace

QUOVIX_FFT *quovix_fft_new_from_cube(QUOVIX_CUBE *cube) {
    if (!cube || !cube->en || cube->n[0] <= 0 || cube->n[1] <= 0 || cube->n[2] <= 0) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    const long n0 = cube->n[0], n1 = cube->n[1], n2 = cube->n[2];
    if (n0 > MAX_POINTS || n1 > MAX_POINTS / n0 || n2 > MAX_POINTS / (n0 * n1)) {
        std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
        return nullptr;
    }
    auto *fft = static_cast<QUOVIX_FFT *>(std::calloc(1, sizeof(QUOVIX_FFT)));
    if (!fft) {
        std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
        return nullptr;
    }
    quovix_fft_ptr owner(fft);
    for (int k = 0; k < 3; k++) fft->n[k] = cube->n[k];
    fft->total = n0 * n1 * n2;
    std::memcpy(fft->a, cube->a, sizeof fft->a);
    std::memcpy(fft->a_i, cube->a_i, sizeof fft->a_i);
    if (!invert(fft->b, fft->a_i)) {
        std::fputs("Error: voxel vectors of QUOVIX_CUBE are singular.\n", stderr);
        return nullptr;
    }
    fft->store = new (std::nothrow) quovix_fft_store;
    if (!fft->store) {
        std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
        return nullptr;
    }
    const long half = n2 / 2 + 1;
    fft->store->en = fftw_alloc_real(static_cast<std::size_t>(fft->total));
    fft->store->spec = fftw_alloc_complex(static_cast<std::size_t>(n0 * n1 * half));
    if (!fft->store->en || !fft->store->spec) {
        std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
        return nullptr;
    }
    fft->en = fft->store->en;
    for (long i = 0; i < n0; i++)
        for (long j = 0; j < n1; j++)
            for (long k = 0; k < n2; k++) {
                const double v = cube->en[i][j][k];
                if (!std::isfinite(v)) {
                    std::fprintf(stderr,
                                 "Error: energy at (%ld, %ld, %ld) is not a finite number.\n", i, j,
                                 k);
                    return nullptr;
                }
                fft->en[(i * n1 + j) * n2 + k] = v;
            }
    fftw_plan plan =
        fftw_plan_dft_r2c_3d(static_cast<int>(n0), static_cast<int>(n1), static_cast<int>(n2),
                             fft->en, fft->store->spec, FFTW_ESTIMATE);
    if (!plan) {
        std::fputs("Error: unable to plan the Fourier transform.\n", stderr);
        return nullptr;
    }
    fftw_execute(plan);
    fftw_destroy_plan(plan);
    return owner.release();
}

void quovix_fft_free(QUOVIX_FFT *fft) {
    if (!fft) return;
    delete fft->store;
    std::free(fft);
}

int quovix_fft_calculate_derivatives(QUOVIX_FFT *fft) {
    if (!fft || !fft->store || !fft->store->spec) {
        std::fputs("Error: QUOVIX_FFT has not been properly initialized.\n", stderr);
        return 1;
    }
    if (fft->f[0]) return 0;
    quovix_fft_store *st = fft->store;
    const long n0 = fft->n[0], n1 = fft->n[1], n2 = fft->n[2], half = n2 / 2 + 1;
    const auto modes = static_cast<std::size_t>(n0 * n1 * half);
    const auto points = static_cast<std::size_t>(fft->total);
    for (double *&g : st->grid) {
        g = fftw_alloc_real(points);
        if (!g) {
            for (double *&h : st->grid) fftw_free(h), h = nullptr;
            std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
            return 1;
        }
    }
    // One complex scratch per component in flight; a single plan serves all of them
    // (fftw_execute_dft_c2r on buffers of the same alignment), each component is transformed
    // by one thread, so the values do not depend on the thread count.
    int threads = 1;
#ifdef _OPENMP
    threads = omp_get_max_threads() < 9 ? omp_get_max_threads() : 9;
#endif
    std::vector<fftw_complex *> scratch(static_cast<std::size_t>(threads), nullptr);
    bool ok = true;
    for (fftw_complex *&s : scratch) ok = ok && (s = fftw_alloc_complex(modes)) != nullptr;
    fftw_plan plan = nullptr;
    if (ok)
        plan = fftw_plan_dft_c2r_3d(static_cast<int>(n0), static_cast<int>(n1),
                                    static_cast<int>(n2), scratch[0], st->grid[0], FFTW_ESTIMATE);
    if (!ok || !plan) {
        for (fftw_complex *s : scratch) fftw_free(s);
        for (double *&h : st->grid) fftw_free(h), h = nullptr;
        std::fputs("Error: unable to allocate QUOVIX_FFT.\n", stderr);
        return 1;
    }
    const double norm = 1.0 / static_cast<double>(fft->total);
    const double(*b)[3] = fft->b;
#pragma omp parallel for num_threads(threads) schedule(static, 1)
    for (int c = 0; c < 9; c++) {
        int t = 0;
#ifdef _OPENMP
        t = omp_get_thread_num();
#endif
        fftw_complex *s = scratch[static_cast<std::size_t>(t)];
        const fftw_complex *spec = st->spec;
        for (long i = 0; i < n0; i++) {
            bool ny0;
            const double w0 = frequency(i, n0, ny0);
            for (long j = 0; j < n1; j++) {
                bool ny1;
                const double w1 = frequency(j, n1, ny1);
                for (long k = 0; k < half; k++) {
                    bool ny2;
                    const double w2 = frequency(k, n2, ny2);
                    const double w[3] = {w0, w1, w2};
                    const bool ny[3] = {ny0, ny1, ny2};
                    // Odd derivatives vanish at the Nyquist frequency; pure second ones keep it.
                    const double wd[3] = {ny0 ? 0.0 : w0, ny1 ? 0.0 : w1, ny2 ? 0.0 : w2};
                    const long m = (i * n1 + j) * half + k;
                    double re = 0, im = 0;  // multiplier
                    if (c < 3) {
                        im = b[c][0] * wd[0] + b[c][1] * wd[1] + b[c][2] * wd[2];
                    } else {
                        const int jj = PAIR[c - 3][0], ll = PAIR[c - 3][1];
                        const double gj = b[jj][0] * wd[0] + b[jj][1] * wd[1] + b[jj][2] * wd[2];
                        const double gl = b[ll][0] * wd[0] + b[ll][1] * wd[1] + b[ll][2] * wd[2];
                        double extra = 0;
                        for (int a = 0; a < 3; a++)
                            if (ny[a]) extra += b[jj][a] * b[ll][a] * w[a] * w[a];
                        re = -(gj * gl + extra);
                    }
                    re *= norm;
                    im *= norm;
                    s[m][0] = spec[m][0] * re - spec[m][1] * im;
                    s[m][1] = spec[m][0] * im + spec[m][1] * re;
                }
            }
        }
        fftw_execute_dft_c2r(plan, s, st->grid[c]);
    }
    fftw_destroy_plan(plan);
    for (fftw_complex *s : scratch) fftw_free(s);
    for (int j = 0; j < 3; j++) fft->f[j] = st->grid[j];
    for (int p = 0; p < 6; p++) {
        const int j = PAIR[p][0], l = PAIR[p][1];
        fft->k[j][l] = fft->k[l][j] = st->grid[3 + p];
    }
    return 0;
}

void quovix_fft_print(const QUOVIX_FFT *fft) {
    if (!fft) {
        std::puts("FFT: (not allocated)");
        return;
    }
    std::printf("FFT: grid = %ld * %ld * %ld\n", fft->n[0], fft->n[1], fft->n[2]);
    std::printf("FFT: derivatives %s\n", fft->f[0] ? "calculated" : "not calculated");
    for (int k = 0; k < 3; k++)
        std::printf("FFT: a_i[%d] = %11.6f %11.6f %11.6f\n", k, fft->a_i[k][0], fft->a_i[k][1],
                    fft->a_i[k][2]);
}

QUOVIX_FFTDOT *quovix_fftdot_new() {
    auto *dot = static_cast<QUOVIX_FFTDOT *>(std::calloc(1, sizeof(QUOVIX_FFTDOT)));
    if (!dot) std::fputs("Error: unable to allocate QUOVIX_FFTDOT.\n", stderr);
    return dot;
}

void quovix_fftdot_free(QUOVIX_FFTDOT *dot) { std::free(dot); }

void quovix_fftdot_print(const QUOVIX_FFTDOT *dot) {
    if (!dot) {
        std::puts("FFTDOT: (not allocated)");
        return;
    }
    std::printf("FFTDOT: (%ld %ld %ld) (%.6f %.6f %.6f)\n", dot->x_i[0], dot->x_i[1], dot->x_i[2],
                dot->x[0], dot->x[1], dot->x[2]);
    std::printf("FFTDOT: en = %f\n", dot->en);
    std::printf("FFTDOT: f = %f %f %f\n", dot->f[0], dot->f[1], dot->f[2]);
    for (int j = 0; j < 3; j++)
        std::printf("FFTDOT: k[%d] = %f %f %f\n", j, dot->k[j][0], dot->k[j][1], dot->k[j][2]);
    for (int j = 0; j < 3; j++)
        std::printf("FFTDOT: eig[%d] = %f; eiv = %f %f %f\n", j, dot->eig[j], dot->eiv[j][0],
                    dot->eiv[j][1], dot->eiv[j][2]);
}

int quovix_fftdot_read_from_fft(QUOVIX_FFTDOT *dot, QUOVIX_FFT *fft, const long x[3]) {
    if (!dot || !fft || !fft->store || !x) {
        std::fputs("Error: QUOVIX_FFT has not been properly initialized.\n", stderr);
        return 1;
    }
    if (quovix_fft_calculate_derivatives(fft)) {
        std::fputs("Error: quovix_fft_calculate_derivatives() returns non-zero.\n", stderr);
        return 1;
    }
    const quovix_grid g(fft->n);
    const long q = g.flat(x[0], x[1], x[2]);
    const auto w = g.index(q);
    for (int j = 0; j < 3; j++) dot->x_i[j] = w[j];
    for (int j = 0; j < 3; j++)
        dot->x[j] = fft->a_i[0][j] * static_cast<double>(w[0]) +
                    fft->a_i[1][j] * static_cast<double>(w[1]) +
                    fft->a_i[2][j] * static_cast<double>(w[2]);
    dot->en = fft->en[q];
    for (int j = 0; j < 3; j++) dot->f[j] = fft->f[j][q];
    for (int j = 0; j < 3; j++)
        for (int l = 0; l < 3; l++) dot->k[j][l] = fft->k[j][l][q];
    quovix_matrix33_double_symmetrize(dot->k);
    if (quovix_matrix33_double_eigensolver_symmetric(dot->eig, dot->eiv, dot->k) != 0) {
        std::fputs("Error: quovix_matrix33_double_eigensolver_symmetric() returns non-zero.\n",
                   stderr);
        return 1;
    }
    return 0;
}
