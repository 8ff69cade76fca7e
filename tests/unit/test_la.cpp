// 3x3 linear algebra: eigensolver, rank, LU, linear solver, rotations, integer helpers. The SVD,
// random rotations and integer matrix products serve no command and are left untested here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "quovix-la.hpp"

namespace {

// The eigenvalue formula uses pi/3 and 2pi/3 truncated to 9 and 8 digits, so
// eigenvalues carry errors of a few 1e-9 times the spread of the matrix.
constexpr double kEigTol = 1e-7;

double uniform(double lo, double hi) { return lo + (hi - lo) * quovix_random(); }

void random_symmetric(double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = i; j < 3; j++) A[i][j] = A[j][i] = uniform(-1.0, 1.0);
    }
}

// Largest |V^T diag(eig) V - A| and largest deviation of V V^T from I.
void check_eigenpairs(const double A[3][3], const double eig[3], const double eiv[3][3],
                      double tol) {
    EXPECT_LE(eig[0], eig[1]);
    EXPECT_LE(eig[1], eig[2]);
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) {
            double rec = 0.0;
            double dot = 0.0;
            for (int k = 0; k < 3; k++) {
                rec += eiv[k][i] * eig[k] * eiv[k][j];
                dot += eiv[i][k] * eiv[j][k];
            }
            EXPECT_NEAR(rec, A[i][j], tol) << "A[" << i << "][" << j << "]";
            EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, tol) << "V V^T [" << i << "][" << j << "]";
        }
    }
}

void expect_matrix_near(const double X[3][3], const double Y[3][3], double tol) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) EXPECT_NEAR(X[i][j], Y[i][j], tol) << i << "," << j;
    }
}

}  // namespace

// ------------------------------------------------------------------ eigenvalues

TEST(Eigen, HandCheckedSpectra) {
    struct Case {
        const char *what;
        double A[3][3], eig[3];
    };
    const double r2 = std::sqrt(2.0);
    const Case cases[] = {
        {"diagonal", {{3, 0, 0}, {0, 1, 0}, {0, 0, 2}}, {1, 2, 3}},
        {"block [[2,1],[1,2]] + 5", {{2, 1, 0}, {1, 2, 0}, {0, 0, 5}}, {1, 3, 5}},
        {"discrete Laplacian", {{2, -1, 0}, {-1, 2, -1}, {0, -1, 2}}, {2 - r2, 2, 2 + r2}},
        {"smallest double", {{2, 1, 1}, {1, 2, 1}, {1, 1, 2}}, {1, 1, 4}},
        {"largest double", {{3, -1, -1}, {-1, 3, -1}, {-1, -1, 3}}, {1, 4, 4}},
        // A non-symmetric input is symmetrised first: its symmetric part has 0, 2, 3.
        {"non-symmetric", {{1, 2, 0}, {0, 1, 0}, {0, 0, 3}}, {0, 2, 3}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const bool symmetric = c.A[0][1] == c.A[1][0];
        double eig[3], eiv[3][3];
        if (symmetric) {  // the eigenvalue-only form takes a symmetric matrix as it is
            ASSERT_EQ(quovix_matrix33_double_eigenvalue_symmetric(eig, c.A), 0);
            for (int k = 0; k < 3; k++) EXPECT_NEAR(eig[k], c.eig[k], kEigTol) << k;
        }
        ASSERT_EQ(quovix_matrix33_double_eigensolver_symmetric(eig, eiv, c.A), 0);
        for (int k = 0; k < 3; k++) EXPECT_NEAR(eig[k], c.eig[k], kEigTol) << k;
        if (symmetric) check_eigenpairs(c.A, eig, eiv, 1e-7);
    }
    // Triple eigenvalue: the identity basis.
    double eig[3], eiv[3][3];
    const double scalar[3][3] = {{5, 0, 0}, {0, 5, 0}, {0, 0, 5}};
    ASSERT_EQ(quovix_matrix33_double_eigensolver_symmetric(eig, eiv, scalar), 0);
    const double id[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    expect_matrix_near(eiv, id, 0.0);
    for (double e : eig) EXPECT_EQ(e, 5.0);
}

TEST(Eigen, RandomSymmetricMatricesAreReconstructed) {
    // Eigenvalue errors of ~5e-9 (truncated constants) tilt each eigenvector by
    // about that over the gap to its neighbour, hence the gap-scaled tolerance.
    std::srand(20240611);
    for (int n = 0; n < 500; n++) {
        double A[3][3];
        random_symmetric(A);
        double eig[3];
        double eiv[3][3];
        ASSERT_EQ(quovix_matrix33_double_eigensolver_symmetric(eig, eiv, A), 0);
        const double gap = std::fmin(eig[1] - eig[0], eig[2] - eig[1]);
        SCOPED_TRACE(n);
        check_eigenpairs(A, eig, eiv, 1e-8 * (1.0 + 1.0 / gap));
        if (HasFailure()) break;
    }
}

// ------------------------------------------------------------------ rank

TEST(Rank, CountsPivotsAboveThreshold) {
    const double tiny[3][3] = {{1e-7, -5e-7, 0}, {0, 9e-7, 0}, {0, 0, -1e-6}};
    const double one_tiny[3][3] = {{1, 0, 0}, {0, 1e-7, 0}, {0, 0, 4}};
    const double rank1[3][3] = {{1, 2, 3}, {2, 4, 6}, {-3, -6, -9}};
    EXPECT_EQ(quovix_matrix33_double_rank(tiny), 0);
    EXPECT_EQ(quovix_matrix33_double_rank(one_tiny), 2);
    EXPECT_EQ(quovix_matrix33_double_rank(rank1), 1);

    // The in-place form leaves unit pivots in the reduced rows.
    double M[3][3] = {{0, 0, 2}, {0, 3, 0}, {4, 0, 0}};
    EXPECT_EQ(quovix_matrix33_double_compute_rank(M), 3);
    EXPECT_EQ(M[0][0], 1.0);
    EXPECT_EQ(M[1][1], 1.0);
    EXPECT_EQ(M[2][2], 1.0);
}

// ------------------------------------------------------------------ LU, solver, SVD

TEST(LinearSystems, LuFactorsSatisfyPaEqualsLu) {
    std::srand(7);
    for (int n = 0; n < 100; n++) {
        double A[3][3];
        for (auto &row : A)
            for (double &a : row) a = uniform(-2.0, 2.0);
        if (n == 0) A[0][0] = 0.0;  // forces a row exchange
        double P[3][3], L[3][3], U[3][3], PA[3][3], LU[3][3];
        quovix_matrix33_double_lusolver(P, L, U, A);
        quovix_matrix33_double_multiplication(PA, P, A);
        quovix_matrix33_double_multiplication(LU, L, U);
        SCOPED_TRACE(n);
        expect_matrix_near(PA, LU, 1e-12);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(L[i][i], 1.0);
            for (int j = 0; j < 3; j++) {
                EXPECT_EQ(j < i ? U[i][j] : 0.0, 0.0);
                EXPECT_EQ(j > i ? L[i][j] : 0.0, 0.0);
            }
        }
    }
}

TEST(LinearSystems, SolvesKnownSystemsAndRejectsSingularOnes) {
    const double A[3][3] = {{2, 1, 1}, {4, -6, 0}, {-2, 7, 2}};
    const double b[3] = {7, -8, 18};  // A (1, 2, 3)
    double x[3];
    ASSERT_EQ(quovix_matrix33_double_linearsolver(x, A, b), 0);
    EXPECT_NEAR(x[0], 1.0, 1e-12);
    EXPECT_NEAR(x[1], 2.0, 1e-12);
    EXPECT_NEAR(x[2], 3.0, 1e-12);

    const double singular[3][3] = {{1, 2, 3}, {2, 4, 6}, {1, 1, 1}};
    double y[3] = {-1, -1, -1};
    EXPECT_NE(quovix_matrix33_double_linearsolver(y, singular, b), 0);
    EXPECT_EQ(y[0], -1.0);  // untouched
    const double nearly[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1e-7}};
    EXPECT_NE(quovix_matrix33_double_linearsolver(y, nearly, b), 0);
}

// ------------------------------------------------------------------ vectors, rotations

TEST(Geometry, ComplementsAndRotationsAreOrthonormal) {
    const double a[3] = {0.3, -2.0, 0.7};
    double u[3], v[3], n[3], c[3];
    quovix_vector3_double_complement2(u, v, a);
    quovix_vector3_double_normalize(n, a);
    EXPECT_NEAR(quovix_vector3_double_length(u), 1.0, 1e-14);
    EXPECT_NEAR(quovix_vector3_double_length(v), 1.0, 1e-14);
    EXPECT_NEAR(quovix_vector3_double_dot(u, a), 0.0, 1e-14);
    EXPECT_NEAR(quovix_vector3_double_dot(v, a), 0.0, 1e-14);
    EXPECT_NEAR(quovix_vector3_double_dot(u, v), 0.0, 1e-14);
    quovix_vector3_double_cross(c, u, v);
    EXPECT_NEAR(quovix_vector3_double_dot(c, n), 1.0, 1e-14);  // right-handed

    double par[3], perp[3];
    const double t[3] = {1.0, 1.0, 0.0};
    quovix_vector3_double_project_parallel(par, a, t);
    quovix_vector3_double_project_perpendicular(perp, a, t);
    EXPECT_NEAR(par[0], -0.85, 1e-14);
    EXPECT_NEAR(perp[0], 0.3 + 0.85, 1e-14);

    // A quarter turn about z takes x to y.
    double R[3][3], x[3] = {1, 0, 0};
    quovix_matrix33_double_rotation_simple(R, 2, std::acos(0.0));
    quovix_matrix33_double_multiply_vector3(x, R, x);
    EXPECT_NEAR(x[0], 0.0, 1e-15);
    EXPECT_NEAR(x[1], 1.0, 1e-15);
}

// ------------------------------------------------------------------ scalars, random numbers

TEST(Scalars, ModuloAndGcd) {
    EXPECT_EQ(quovix_mod_long(-20, 20), 0);
    EXPECT_EQ(quovix_mod_long(-41, 20), 19);
    EXPECT_EQ(quovix_mod_long(5, -3), -1);  // ((5 rem -3) + -3) rem -3
    EXPECT_EQ(quovix_mod_long(7, 0), 0);
    EXPECT_EQ(quovix_gcd(12, -18), 6);
    EXPECT_EQ(quovix_gcd(0, 5), 5);
}

TEST(Random, UniformStaysInUnitIntervalAndNormalHasItsMoments) {
    std::srand(42);
    double lo = 1.0, hi = 0.0, mean = 0.0;
    const int n = 100000;
    for (int i = 0; i < n; i++) {
        const double r = quovix_random();
        lo = std::fmin(lo, r);
        hi = std::fmax(hi, r);
        mean += r / n;
    }
    EXPECT_GE(lo, 0.0);
    EXPECT_LE(hi, 1.0);
    EXPECT_GT(hi, 0.999);  // the divisor is RAND_MAX, not 32767
    EXPECT_NEAR(mean, 0.5, 0.01);

    double s1 = 0.0, s2 = 0.0;
    for (int i = 0; i < n; i++) {
        const double r = quovix_random_normal(3.0, 2.0);
        ASSERT_TRUE(std::isfinite(r));
        s1 += r;
        s2 += r * r;
    }
    const double m = s1 / n;
    EXPECT_NEAR(m, 3.0, 0.03);
    EXPECT_NEAR(std::sqrt(s2 / n - m * m), 2.0, 0.03);
}
