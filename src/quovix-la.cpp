// Fixed-size 3-vector and 3x3-matrix algebra, symmetric eigensolver and random numbers.
#include "quovix-la.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>  // rand, RAND_MAX

namespace {

// Entries and pivots at or below this magnitude count as zero.
constexpr double kPivotZero = 1e-6;
// Off-diagonal weight below which a symmetric matrix counts as diagonal.
constexpr double kDiagonalZero = 1e-11;
// pi/3 and 2pi/3 with the digits the eigenvalue formula has always used;
// eigenvalues printed elsewhere depend on these exact values.
constexpr double kPiThird = 1.04719755;
constexpr double kTwoPiThird = 2.0943951;
constexpr double kTwoPi = 6.283185307179586;

void sort3_ascending(double v[3]) {
    for (int i = 0; i < 2; i++) {
        for (int j = 0; j < 2 - i; j++) {
            if (v[j] > v[j + 1]) {
                const double t = v[j];
                v[j] = v[j + 1];
                v[j + 1] = t;
            }
        }
    }
}

void identity(double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) A[i][j] = (i == j) ? 1.0 : 0.0;
    }
}

// M = A - lambda * I.
void shifted(double M[3][3], const double A[3][3], double lambda) {
    quovix_matrix33_double_copy(M, A);
    for (int i = 0; i < 3; i++) M[i][i] -= lambda;
}

}  // namespace

// ===================================================================== 3-vectors

/// Prints the three components with "%5.3f" on one line to stdout.
void quovix_vector3_double_print(const double a[3]) {
    std::printf("%5.3f %5.3f %5.3f\n", a[0], a[1], a[2]);
}

/// a = b.
void quovix_vector3_double_copy(double a[3], const double b[3]) {
    for (int i = 0; i < 3; i++) a[i] = b[i];
}

/// sum = x*a + y*b; `sum` may be `a` or `b`.
void quovix_vector3_double_sum2(double sum[3], double x, const double a[3], double y,
                                const double b[3]) {
    for (int i = 0; i < 3; i++) sum[i] = x * a[i] + y * b[i];
}

/// sum = x*a + y*b + z*c (fractional to Cartesian with the lattice rows a, b, c);
/// `sum` may be one of the inputs.
void quovix_vector3_double_sum3(double sum[3], double x, const double a[3], double y,
                                const double b[3], double z, const double c[3]) {
    for (int i = 0; i < 3; i++) sum[i] = x * a[i] + y * b[i] + z * c[i];
}

/// Scalar product a.b.
double quovix_vector3_double_dot(const double a[3], const double b[3]) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

/// p = a x b; `p` may be `a` or `b`.
void quovix_vector3_double_cross(double p[3], const double a[3], const double b[3]) {
    const double r0 = a[1] * b[2] - a[2] * b[1];
    const double r1 = a[2] * b[0] - a[0] * b[2];
    const double r2 = a[0] * b[1] - a[1] * b[0];
    p[0] = r0;
    p[1] = r1;
    p[2] = r2;
}

/// Euclidean distance |a - b| (no periodic images).
double quovix_vector3_double_distance(const double a[3], const double b[3]) {
    const double d[3] = {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
    return quovix_vector3_double_length(d);
}

/// Euclidean length |a|.
double quovix_vector3_double_length(const double a[3]) {
    return std::sqrt(quovix_vector3_double_dot(a, a));
}

/// out = in / |in| (in place allowed); a zero vector gives the zero vector.
void quovix_vector3_double_normalize(double out[3], const double in[3]) {
    const double len = quovix_vector3_double_length(in);
    for (int i = 0; i < 3; i++) out[i] = (len > 0.0) ? in[i] / len : 0.0;
}

/// out = component of `in` along `t`: (in.t / t.t) t; zero when t is zero.
void quovix_vector3_double_project_parallel(double out[3], const double in[3], const double t[3]) {
    const double tt = quovix_vector3_double_dot(t, t);
    const double f = (tt > 0.0) ? quovix_vector3_double_dot(in, t) / tt : 0.0;
    for (int i = 0; i < 3; i++) out[i] = f * t[i];
}

/// out = in less its component along `t` (in place allowed).
void quovix_vector3_double_project_perpendicular(double out[3], const double in[3],
                                                 const double t[3]) {
    double par[3];
    quovix_vector3_double_project_parallel(par, in, t);
    for (int i = 0; i < 3; i++) out[i] = in[i] - par[i];
}

/// u = normalised a x b: the unit direction orthogonal to both.
void quovix_vector3_double_complement1(double u[3], const double a[3], const double b[3]) {
    double p[3];
    quovix_vector3_double_cross(p, a, b);
    quovix_vector3_double_normalize(u, p);
}

/// Two unit vectors u, v orthogonal to `a` and to each other, with (a, u, v)
/// right-handed (u x v points along a). `a` must not be zero.
void quovix_vector3_double_complement2(double u[3], double v[3], const double a[3]) {
    double n[3];
    quovix_vector3_double_normalize(n, a);
    // Start from the coordinate axis least aligned with a, so the cross product is well
    // conditioned.
    int k = 0;
    for (int i = 1; i < 3; i++) {
        if (std::fabs(n[i]) < std::fabs(n[k])) k = i;
    }
    double e[3] = {0.0, 0.0, 0.0};
    e[k] = 1.0;
    double w[3];
    quovix_vector3_double_complement1(w, e, n);  // orthogonal to a
    double z[3];
    quovix_vector3_double_complement1(z, n, w);  // a x u
    quovix_vector3_double_copy(u, w);
    quovix_vector3_double_copy(v, z);
}

/// Largest component.
double quovix_vector3_double_max(const double x[3]) {
    double m = x[0];
    if (x[1] > m) m = x[1];
    if (x[2] > m) m = x[2];
    return m;
}

/// Smallest component.
double quovix_vector3_double_min(const double x[3]) {
    double m = x[0];
    if (x[1] < m) m = x[1];
    if (x[2] < m) m = x[2];
    return m;
}

// ===================================================================== 3x3 double matrices

/// res = M v (row-major M); `res` may be `v`.
void quovix_matrix33_double_multiply_vector3(double res[3], const double M[3][3],
                                             const double v[3]) {
    double r[3];
    for (int i = 0; i < 3; i++) r[i] = M[i][0] * v[0] + M[i][1] * v[1] + M[i][2] * v[2];
    quovix_vector3_double_copy(res, r);
}

/// Prints the three rows, " %9.6f" per element, to stdout.
void quovix_matrix33_double_print(const double A[3][3]) {
    for (int i = 0; i < 3; i++) std::printf(" %9.6f %9.6f %9.6f\n", A[i][0], A[i][1], A[i][2]);
}

/// Transposes A in place.
void quovix_matrix33_double_transpose(double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = i + 1; j < 3; j++) {
            const double t = A[i][j];
            A[i][j] = A[j][i];
            A[j][i] = t;
        }
    }
}

/// out = in.
void quovix_matrix33_double_copy(double out[3][3], const double in[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) out[i][j] = in[i][j];
    }
}

/// Determinant by cofactor expansion along the first row.
double quovix_matrix33_double_determinant(const double A[3][3]) {
    return A[0][0] * (A[1][1] * A[2][2] - A[1][2] * A[2][1]) -
           A[0][1] * (A[1][0] * A[2][2] - A[1][2] * A[2][0]) +
           A[0][2] * (A[1][0] * A[2][1] - A[1][1] * A[2][0]);
}

/// Exchanges rows m and n (0..2) in place.
void quovix_matrix33_double_swap_row(double A[3][3], int m, int n) {
    if (m == n || m < 0 || n < 0 || m > 2 || n > 2) return;
    for (int j = 0; j < 3; j++) {
        const double t = A[m][j];
        A[m][j] = A[n][j];
        A[n][j] = t;
    }
}

/// Exchanges columns m and n (0..2) in place.
void quovix_matrix33_double_swap_col(double A[3][3], int m, int n) {
    if (m == n || m < 0 || n < 0 || m > 2 || n > 2) return;
    for (int i = 0; i < 3; i++) {
        const double t = A[i][m];
        A[i][m] = A[i][n];
        A[i][n] = t;
    }
}

/// out = in1 in2; `out` may be one of the inputs.
void quovix_matrix33_double_multiplication(double out[3][3], const double in1[3][3],
                                           const double in2[3][3]) {
    double r[3][3];
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) {
            r[i][j] = in1[i][0] * in2[0][j] + in1[i][1] * in2[1][j] + in1[i][2] * in2[2][j];
        }
    }
    quovix_matrix33_double_copy(out, r);
}

/// Rank of A (pivots above 1e-6), computed on a copy.
int quovix_matrix33_double_rank(const double A[3][3]) {
    double M[3][3];
    quovix_matrix33_double_copy(M, A);
    return quovix_matrix33_double_compute_rank(M);
}

/// D = diag(d).
void quovix_matrix33_double_diagonal(double D[3][3], const double d[3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) D[i][j] = (i == j) ? d[i] : 0.0;
    }
}

/// Rounds every entry to the nearest integer (halves away from zero), in place.
void quovix_matrix33_double_round(double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) A[i][j] = std::round(A[i][j]);
    }
}

/// res[i][j] = nearest integer of A[i][j], halves away from zero.
void quovix_matrix33_double_round_to_int(int res[3][3], const double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) res[i][j] = static_cast<int>(std::lround(A[i][j]));
    }
}

/// Right-handed rotation by `angle` (radians) about coordinate axis `index`
/// (0: x, 1: y, 2: z), acting on column vectors: v' = R v. Another index gives I.
void quovix_matrix33_double_rotation_simple(double R[3][3], int index, double angle) {
    identity(R);
    if (index < 0 || index > 2) return;
    const int a = (index + 1) % 3;
    const int b = (index + 2) % 3;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    R[a][a] = c;
    R[a][b] = -s;
    R[b][a] = s;
    R[b][b] = c;
}

/// R = Rz(angle[2]) Ry(angle[1]) Rx(angle[0]): rotate about x first, then y, then z.
void quovix_matrix33_double_rotation_euler(double R[3][3], const double angle[3]) {
    double Rk[3][3];
    identity(R);
    for (int k = 0; k < 3; k++) {
        quovix_matrix33_double_rotation_simple(Rk, k, angle[k]);
        quovix_matrix33_double_multiplication(R, Rk, R);
    }
}

/// Euler rotation with three angles drawn uniformly in [0, 2 pi] by quovix_random.
void quovix_matrix33_double_rotation_random(double R[3][3]) {
    double angle[3];
    for (double &a : angle) a = kTwoPi * quovix_random();
    quovix_matrix33_double_rotation_euler(R, angle);
}

/// A = (A + A^T) / 2, in place.
void quovix_matrix33_double_symmetrize(double A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = i + 1; j < 3; j++) {
            const double m = 0.5 * (A[i][j] + A[j][i]);
            A[i][j] = m;
            A[j][i] = m;
        }
    }
}

/// Rank by Gauss-Jordan elimination with complete pivoting, reducing M in place:
/// the largest remaining entry (search from -0.1, so any finite entry
/// qualifies) becomes the pivot while its magnitude exceeds 1e-6; its row is
/// moved up and scaled to a unit pivot and its column cleared in every other
/// row. Only rows are exchanged, so the reduced rows span the row space of M.
int quovix_matrix33_double_compute_rank(double M[3][3]) {
    bool col_used[3] = {false, false, false};
    int rank = 0;
    for (int step = 0; step < 3; step++) {
        double best = -0.1;
        int pr = -1;
        int pc = -1;
        for (int i = step; i < 3; i++) {
            for (int j = 0; j < 3; j++) {
                if (col_used[j]) continue;
                if (std::fabs(M[i][j]) > best) {
                    best = std::fabs(M[i][j]);
                    pr = i;
                    pc = j;
                }
            }
        }
        if (pr < 0 || best <= kPivotZero) break;
        quovix_matrix33_double_swap_row(M, step, pr);
        const double pivot = M[step][pc];
        for (int j = 0; j < 3; j++) M[step][j] /= pivot;
        M[step][pc] = 1.0;
        for (int i = 0; i < 3; i++) {
            if (i == step) continue;
            const double f = M[i][pc];
            for (int j = 0; j < 3; j++) M[i][j] -= f * M[step][j];
            M[i][pc] = 0.0;
        }
        col_used[pc] = true;
        rank++;
    }
    return rank;
}

/// Eigenvalues of a symmetric matrix in ascending order, by the closed
/// trigonometric form (A = q I + p B, eigenvalues q + 2p cos(phi + 2k pi/3)).
/// Returns 0.
int quovix_matrix33_double_eigenvalue_symmetric(double eig[3], const double A[3][3]) {
    const double p1 = A[0][1] * A[0][1] + A[0][2] * A[0][2] + A[1][2] * A[1][2];
    if (p1 < kDiagonalZero) {
        eig[0] = A[0][0];
        eig[1] = A[1][1];
        eig[2] = A[2][2];
        sort3_ascending(eig);
        return 0;
    }
    const double q = (A[0][0] + A[1][1] + A[2][2]) / 3.0;
    const double d0 = A[0][0] - q;
    const double d1 = A[1][1] - q;
    const double d2 = A[2][2] - q;
    const double p = std::sqrt((d0 * d0 + d1 * d1 + d2 * d2 + 2.0 * p1) / 6.0);
    double B[3][3];
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) B[i][j] = (A[i][j] - (i == j ? q : 0.0)) / p;
    }
    const double r = quovix_matrix33_double_determinant(B) / 2.0;
    double phi;
    if (r <= -1.0) {
        phi = kPiThird;
    } else if (r >= 1.0) {
        phi = 0.0;
    } else {
        phi = std::acos(r) / 3.0;
    }
    eig[2] = q + 2.0 * p * std::cos(phi);
    eig[0] = q + 2.0 * p * std::cos(phi + kTwoPiThird);
    eig[1] = 3.0 * q - eig[0] - eig[2];
    // With the truncated constants a repeated eigenvalue can come out with its
    // two copies swapped by ~1e-8; the order is part of the result.
    sort3_ascending(eig);
    return 0;
}

/// Eigenvalues (ascending) and unit eigenvectors of the symmetrised A; the
/// vectors are the rows eiv[0..2], in the order of the eigenvalues. Each null
/// space comes from the rows of A - lambda I reduced by
/// quovix_matrix33_double_compute_rank. Returns 0 (1 only for an impossible rank).
int quovix_matrix33_double_eigensolver_symmetric(double eig[3], double eiv[3][3],
                                                 const double A[3][3]) {
    double S[3][3];
    quovix_matrix33_double_copy(S, A);
    quovix_matrix33_double_symmetrize(S);
    quovix_matrix33_double_eigenvalue_symmetric(eig, S);

    double M0[3][3];
    shifted(M0, S, eig[0]);
    const int rank0 = quovix_matrix33_double_compute_rank(M0);
    if (rank0 < 0) return 1;
    if (rank0 == 0) {  // A = lambda I: any basis
        identity(eiv);
        return 0;
    }
    if (rank0 == 1) {  // smallest eigenvalue double: its plane is orthogonal to the row
        double v[3];
        quovix_vector3_double_normalize(v, M0[0]);
        quovix_vector3_double_complement2(eiv[0], eiv[1], v);
        quovix_vector3_double_cross(eiv[2], eiv[0], eiv[1]);
        return 0;
    }
    double r0[3];
    double r1[3];
    quovix_vector3_double_normalize(r0, M0[0]);
    quovix_vector3_double_normalize(r1, M0[1]);
    quovix_vector3_double_complement1(eiv[0], r0, r1);

    double M1[3][3];
    shifted(M1, S, eig[1]);
    const int rank1 = quovix_matrix33_double_compute_rank(M1);
    if (rank1 == 1) {  // the two larger eigenvalues are equal
        quovix_vector3_double_complement2(eiv[1], eiv[2], eiv[0]);
        return 0;
    }
    quovix_vector3_double_normalize(r0, M1[0]);
    quovix_vector3_double_normalize(r1, M1[1]);
    quovix_vector3_double_complement1(eiv[1], r0, r1);
    quovix_vector3_double_cross(eiv[2], eiv[0], eiv[1]);
    return 0;
}

/// LU decomposition with partial (row) pivoting: P A = L U, P a permutation
/// matrix, L unit lower triangular, U upper triangular. A column whose largest
/// remaining entry is exactly zero is left as it is; pivots of magnitude up to
/// 1e-6 mark the matrix as singular for quovix_matrix33_double_linearsolver.
void quovix_matrix33_double_lusolver(double P[3][3], double L[3][3], double U[3][3],
                                     const double A[3][3]) {
    identity(P);
    quovix_matrix33_double_copy(U, A);
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) L[i][j] = 0.0;
    }
    for (int k = 0; k < 3; k++) {
        int p = k;
        for (int i = k + 1; i < 3; i++) {
            if (std::fabs(U[i][k]) > std::fabs(U[p][k])) p = i;
        }
        if (p != k) {
            quovix_matrix33_double_swap_row(U, k, p);
            quovix_matrix33_double_swap_row(P, k, p);
            quovix_matrix33_double_swap_row(L, k, p);  // only columns < k are filled yet
        }
        if (U[k][k] == 0.0) continue;
        for (int i = k + 1; i < 3; i++) {
            const double f = U[i][k] / U[k][k];
            L[i][k] = f;
            for (int j = k; j < 3; j++) U[i][j] -= f * U[k][j];
            U[i][k] = 0.0;
        }
    }
    for (int i = 0; i < 3; i++) L[i][i] = 1.0;
}

/// Solves A x = b through P A = L U (forward and back substitution on P b).
/// Returns 1, x untouched and nothing printed, when a pivot of U is not larger
/// than 1e-6 in magnitude (singular or nearly singular A); 0 otherwise.
int quovix_matrix33_double_linearsolver(double x[3], const double A[3][3], const double b[3]) {
    double P[3][3];
    double L[3][3];
    double U[3][3];
    quovix_matrix33_double_lusolver(P, L, U, A);
    for (int i = 0; i < 3; i++) {
        if (!(std::fabs(U[i][i]) > kPivotZero)) return 1;
    }
    double y[3];
    quovix_matrix33_double_multiply_vector3(y, P, b);
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < i; j++) y[i] -= L[i][j] * y[j];
    }
    double r[3];
    for (int i = 2; i >= 0; i--) {
        double s = y[i];
        for (int j = i + 1; j < 3; j++) s -= U[i][j] * r[j];
        r[i] = s / U[i][i];
    }
    quovix_vector3_double_copy(x, r);
    return 0;
}

/// Singular value decomposition A = U diag(s) V^T from the eigen decomposition
/// of A^T A: s ascending (square roots of its eigenvalues), the columns of V
/// its unit eigenvectors, column k of U = A v_k / s_k for s_k > 1e-6; columns of
/// U for smaller singular values complete U to an orthonormal basis. Prints
/// "Error: negative eigenvalue." and returns 1 when an eigenvalue of A^T A is
/// below -1e-6; 0 otherwise.
int quovix_matrix33_double_svdsolver(double U[3][3], double s[3], double V[3][3],
                                     const double A[3][3]) {
    double At[3][3];
    quovix_matrix33_double_copy(At, A);
    quovix_matrix33_double_transpose(At);
    double AtA[3][3];
    quovix_matrix33_double_multiplication(AtA, At, A);
    double eig[3];
    double eiv[3][3];
    quovix_matrix33_double_eigensolver_symmetric(eig, eiv, AtA);
    for (double e : eig) {
        if (e < -kPivotZero) {
            std::fputs("Error: negative eigenvalue.\n", stderr);
            return 1;
        }
    }
    double u[3][3] = {};  // u[k] = column k of U
    bool have[3] = {false, false, false};
    for (int k = 0; k < 3; k++) {
        s[k] = eig[k] > 0.0 ? std::sqrt(eig[k]) : 0.0;
        for (int i = 0; i < 3; i++) V[i][k] = eiv[k][i];
        if (s[k] > kPivotZero) {
            quovix_matrix33_double_multiply_vector3(u[k], A, eiv[k]);
            for (int i = 0; i < 3; i++) u[k][i] /= s[k];
            have[k] = true;
        }
    }
    // Singular values ascend, so the missing columns are the leading ones.
    const int missing = !have[0] + !have[1] + !have[2];
    if (missing == 3) {
        identity(u);
    } else if (missing == 2) {
        quovix_vector3_double_complement2(u[0], u[1], u[2]);
    } else if (missing == 1) {
        quovix_vector3_double_complement1(u[0], u[1], u[2]);
    }
    for (int i = 0; i < 3; i++) {
        for (int k = 0; k < 3; k++) U[i][k] = u[k][i];
    }
    return 0;
}

// ===================================================================== 3x3 int matrices

/// res = A converted entry by entry.
void quovix_matrix33_int_convert_to_double(double res[3][3], const int A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) res[i][j] = A[i][j];
    }
}

/// res = M v; `res` may be `v`.
void quovix_matrix33_int_multiply_vector3(int res[3], const int M[3][3], const int v[3]) {
    int r[3];
    for (int i = 0; i < 3; i++) r[i] = M[i][0] * v[0] + M[i][1] * v[1] + M[i][2] * v[2];
    for (int i = 0; i < 3; i++) res[i] = r[i];
}

/// out = in1 in2; `out` may be one of the inputs.
void quovix_matrix33_int_multiplication(int out[3][3], const int in1[3][3], const int in2[3][3]) {
    int r[3][3];
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) {
            r[i][j] = in1[i][0] * in2[0][j] + in1[i][1] * in2[1][j] + in1[i][2] * in2[2][j];
        }
    }
    quovix_matrix33_int_copy(out, r);
}

/// Transposes A in place.
void quovix_matrix33_int_transpose(int A[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = i + 1; j < 3; j++) {
            const int t = A[i][j];
            A[i][j] = A[j][i];
            A[j][i] = t;
        }
    }
}

/// out = in.
void quovix_matrix33_int_copy(int out[3][3], const int in[3][3]) {
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) out[i][j] = in[i][j];
    }
}

/// Determinant by cofactor expansion along the first row.
int quovix_matrix33_int_determinant(const int A[3][3]) {
    return A[0][0] * (A[1][1] * A[2][2] - A[1][2] * A[2][1]) -
           A[0][1] * (A[1][0] * A[2][2] - A[1][2] * A[2][0]) +
           A[0][2] * (A[1][0] * A[2][1] - A[1][1] * A[2][0]);
}

/// Prints the three rows of an integer matrix, " %3d" per element, to stdout.
void quovix_matrix333_int_print(const int m[3][3]) {
    for (int i = 0; i < 3; i++) std::printf(" %3d %3d %3d\n", m[i][0], m[i][1], m[i][2]);
}

// ===================================================================== scalars and random numbers

/// Uniform number in [0, 1], both ends possible. On this platform RAND_MAX is
/// 2147483647, not 32767, so the divisor is RAND_MAX itself: dividing by
/// 32767.0 would give values far above 1. The contract, not the literal, is kept.
double quovix_random() { return std::rand() / static_cast<double>(RAND_MAX); }

/// Normal deviate ave + sd * sqrt(-2 ln p) cos(2 pi q) (Box-Muller) with p, q
/// uniform in (0, 1]; a draw of exactly 0 is repeated so log(0) never occurs.
double quovix_random_normal(double ave, double sd) {
    double p;
    do {
        p = quovix_random();
    } while (p <= 0.0);
    double q;
    do {
        q = quovix_random();
    } while (q <= 0.0);
    return ave + sd * std::sqrt(-2.0 * std::log(p)) * std::cos(kTwoPi * q);
}

/// x modulo d with the sign of d: in [0, d) for positive d (equal to
/// ((x rem d) + d) rem d, without its overflow). d = 0 gives 0.
long quovix_mod_long(long x, long d) {
    if (d == 0 || d == 1 || d == -1) return 0;  // also avoids LONG_MIN % -1
    long r = x % d;
    if ((d > 0 && r < 0) || (d < 0 && r > 0)) r += d;
    return r;
}

/// Greatest common divisor of |a| and |b| by Euclid's remainders; gcd(0, 0) = 0.
int quovix_gcd(int a, int b) {
    long x = std::labs(static_cast<long>(a));
    long y = std::labs(static_cast<long>(b));
    if (x < y) {
        const long t = x;
        x = y;
        y = t;
    }
    while (y != 0) {
        const long r = x % y;
        x = y;
        y = r;
    }
    return static_cast<int>(x);
}

/// Least common multiple |a b / gcd(a, b)|; 0 when a or b is 0.
int quovix_lcm(int a, int b) {
    const int g = quovix_gcd(a, b);
    if (g == 0) return 0;
    const long l = std::labs(static_cast<long>(a) / g * static_cast<long>(b));
    return static_cast<int>(l);
}
