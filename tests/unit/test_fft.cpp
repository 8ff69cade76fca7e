// Fourier derivatives: analytic periodic functions in a triclinic cell (Nyquist terms included),
// eigen decomposition, thread independence, a real landscape's minima.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"

namespace {

constexpr double LAT[3][3] = {{5.5, 0, 0}, {1.2, 6.1, 0}, {-0.8, 1.1, 7.3}};

/// E(f) = sum of A cos(2 pi m.f + phase) * (nyquist axis: cos(pi n_k f_k... on the grid)).
struct Term {
    int m[3];
    double amp, phase;
    int nyquist_axis;  // -1, or the axis whose Nyquist cosine multiplies the term
};

struct Analytic {
    double e, g[3], h[3][3];  // derivatives with respect to fractional coordinates
};

Analytic evaluate(const std::vector<Term> &terms, const double f[3], const long n[3]) {
    Analytic r{};
    for (const Term &t : terms) {
        double arg = t.phase;
        for (int k = 0; k < 3; k++) arg += 2 * M_PI * t.m[k] * f[k];
        const double c = std::cos(arg), s = std::sin(arg);
        double w[3];
        for (int k = 0; k < 3; k++) w[k] = 2 * M_PI * t.m[k];
        // Nyquist factor N(f_a) = cos(pi n_a f_a): on grid points N' = 0, N'' = -(pi n_a)^2 N.
        double nq = 1, nq2 = 0;
        if (t.nyquist_axis >= 0) {
            const int a = t.nyquist_axis;
            nq = std::cos(M_PI * n[a] * f[a]);
            nq = std::round(nq);  // exactly +-1 on the grid
            nq2 = -(M_PI * n[a]) * (M_PI * n[a]) * nq;
        }
        r.e += t.amp * c * nq;
        for (int k = 0; k < 3; k++) r.g[k] += -t.amp * w[k] * s * nq;
        for (int k = 0; k < 3; k++)
            for (int l = 0; l < 3; l++) r.h[k][l] += -t.amp * w[k] * w[l] * c * nq;
        if (t.nyquist_axis >= 0) r.h[t.nyquist_axis][t.nyquist_axis] += t.amp * c * nq2;
    }
    return r;
}

/// Reciprocal vectors without 2 pi: df_k/dr = rec[k].
void reciprocal(double rec[3][3], const double a[3][3]) {
    const double *u = a[0], *v = a[1], *w = a[2];
    const double cross[3][3] = {
        {v[1] * w[2] - v[2] * w[1], v[2] * w[0] - v[0] * w[2], v[0] * w[1] - v[1] * w[0]},
        {w[1] * u[2] - w[2] * u[1], w[2] * u[0] - w[0] * u[2], w[0] * u[1] - w[1] * u[0]},
        {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]}};
    const double vol = u[0] * cross[0][0] + u[1] * cross[0][1] + u[2] * cross[0][2];
    for (int k = 0; k < 3; k++)
        for (int j = 0; j < 3; j++) rec[k][j] = cross[k][j] / vol;
}

quovix_cube_ptr make_cube(const long n[3], const std::vector<Term> &terms) {
    quovix_cube_ptr cube(quovix_cube_new(n));
    for (int k = 0; k < 3; k++)
        for (int j = 0; j < 3; j++) {
            cube->a[k][j] = LAT[k][j];
            cube->a_i[k][j] = LAT[k][j] / static_cast<double>(n[k]);
        }
    for (long i = 0; i < n[0]; i++)
        for (long j = 0; j < n[1]; j++)
            for (long k = 0; k < n[2]; k++) {
                const double f[3] = {double(i) / n[0], double(j) / n[1], double(k) / n[2]};
                cube->en[i][j][k] = evaluate(terms, f, n).e;
            }
    return cube;
}

}  // namespace

// Cartesian gradient and Hessian at every grid point equal the analytic ones to 1e-8 of their
// largest magnitude, on even and odd grids, with Nyquist factors on even axes.
TEST(Fft, DerivativesOfCosineSumsInTriclinicCell) {
    const std::vector<Term> terms = {{{1, 0, 0}, 0.4, 0.3, -1},   {{0, 2, 0}, 0.3, -1.1, -1},
                                     {{0, 0, 3}, 0.2, 0.7, -1},   {{1, -2, 1}, 0.15, 2.0, -1},
                                     {{2, 1, -1}, 0.1, -0.4, -1}, {{0, 1, 0}, 0.05, 0.2, 0}};
    for (const auto &n3 : {std::vector<long>{12, 10, 14}, std::vector<long>{9, 11, 13}}) {
        const long n[3] = {n3[0], n3[1], n3[2]};
        std::vector<Term> use = terms;
        if (n[0] % 2) use.pop_back();  // the Nyquist term needs an even axis
        quovix_cube_ptr cube = make_cube(n, use);
        quovix_fft_ptr fft(quovix_fft_new_from_cube(cube.get()));
        ASSERT_TRUE(fft);
        double rec[3][3];
        reciprocal(rec, LAT);
        std::vector<double> errg, errh;
        double maxg = 0, maxh = 0, dg = 0, dh = 0;
        QUOVIX_FFTDOT dot;
        for (long i = 0; i < n[0]; i++)
            for (long j = 0; j < n[1]; j++)
                for (long k = 0; k < n[2]; k++) {
                    const long x[3] = {i, j, k};
                    ASSERT_EQ(quovix_fftdot_read_from_fft(&dot, fft.get(), x), 0);
                    const double f[3] = {double(i) / n[0], double(j) / n[1], double(k) / n[2]};
                    const Analytic an = evaluate(use, f, n);
                    for (int p = 0; p < 3; p++) {
                        double g = 0;
                        for (int a = 0; a < 3; a++) g += an.g[a] * rec[a][p];
                        maxg = std::max(maxg, std::fabs(g));
                        dg = std::max(dg, std::fabs(g - dot.f[p]));
                        for (int q = 0; q < 3; q++) {
                            double h = 0;
                            for (int a = 0; a < 3; a++)
                                for (int b = 0; b < 3; b++) h += an.h[a][b] * rec[a][p] * rec[b][q];
                            maxh = std::max(maxh, std::fabs(h));
                            dh = std::max(dh, std::fabs(h - dot.k[p][q]));
                        }
                    }
                    EXPECT_EQ(dot.en, cube->en[i][j][k]);
                }
        EXPECT_LT(dg, 1e-8 * maxg) << n[0];
        EXPECT_LT(dh, 1e-8 * maxh) << n[0];
    }
}

// The derivative grids do not depend on the number of threads.
TEST(Fft, EigenvectorsAndThreadIndependence) {
    const std::vector<Term> terms = {
        {{1, 1, 0}, 0.4, 0.3, -1}, {{0, 1, -1}, 0.3, 1.0, -1}, {{1, 0, 2}, 0.2, -0.5, -1}};
    const long n[3] = {8, 10, 12};
    quovix_cube_ptr cube = make_cube(n, terms);
    std::vector<std::vector<double>> grids;
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        quovix_fft_ptr fft(quovix_fft_new_from_cube(cube.get()));
        ASSERT_EQ(quovix_fft_calculate_derivatives(fft.get()), 0);
        std::vector<double> all;
        for (int j = 0; j < 3; j++) all.insert(all.end(), fft->f[j], fft->f[j] + fft->total);
        for (int j = 0; j < 3; j++)
            for (int l = 0; l < 3; l++)
                all.insert(all.end(), fft->k[j][l], fft->k[j][l] + fft->total);
        grids.push_back(all);
        // The decomposition is of the tensor read (the eigensolver itself is tested with the
        // linear algebra; eigenvalues at real minima against numpy by the script test).
        QUOVIX_FFTDOT dot;
        const long x[3] = {3, 4, 5};
        ASSERT_EQ(quovix_fftdot_read_from_fft(&dot, fft.get(), x), 0);
        for (int r = 0; r < 3; r++) {
            double kv = 0;
            for (int c = 0; c < 3; c++) kv += dot.k[r][c] * dot.eiv[0][c];
            EXPECT_NEAR(kv, dot.eig[0] * dot.eiv[0][r], 1e-6 * (1 + std::fabs(dot.eig[2])));
        }
    }
    omp_set_num_threads(2);
    EXPECT_EQ(grids[0], grids[1]);
}

// Real landscapes: the minima and their curvatures are checked against a numpy spectral Hessian
// by tests/py/test_fp_fft_independent.py.

// Bad grids: null cube, non-finite values.
TEST(Fft, RefusesBadGrids) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_fft_new_from_cube(nullptr), nullptr);
    const long n[3] = {2, 2, 2};
    quovix_cube_ptr cube(quovix_cube_new(n));
    cube->a_i[0][0] = cube->a_i[1][1] = cube->a_i[2][2] = 1.0;
    cube->en[1][0][1] = INFINITY;
    EXPECT_EQ(quovix_fft_new_from_cube(cube.get()), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("not a finite number"),
              std::string::npos);
}
