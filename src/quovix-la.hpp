// Fixed-size 3-vector and 3x3-matrix algebra, symmetric eigensolver and random numbers.
#pragma once

void quovix_vector3_double_print(const double a[3]);
void quovix_vector3_double_copy(double a[3], const double b[3]);
void quovix_vector3_double_sum2(double sum[3], double x, const double a[3], double y,
                                const double b[3]);
void quovix_vector3_double_sum3(double sum[3], double x, const double a[3], double y,
                                const double b[3], double z, const double c[3]);
double quovix_vector3_double_dot(const double a[3], const double b[3]);
void quovix_vector3_double_cross(double p[3], const double a[3], const double b[3]);
double quovix_vector3_double_distance(const double a[3], const double b[3]);
double quovix_vector3_double_length(const double a[3]);
void quovix_vector3_double_normalize(double out[3], const double in[3]);
void quovix_vector3_double_project_parallel(double out[3], const double in[3], const double t[3]);
void quovix_vector3_double_project_perpendicular(double out[3], const double in[3],
                                                 const double t[3]);
void quovix_vector3_double_complement1(double u[3], const double a[3], const double b[3]);
void quovix_vector3_double_complement2(double u[3], double v[3], const double a[3]);
double quovix_vector3_double_max(const double x[3]);
double quovix_vector3_double_min(const double x[3]);

void quovix_matrix33_double_multiply_vector3(double res[3], const double M[3][3],
                                             const double v[3]);
void quovix_matrix33_double_print(const double A[3][3]);
void quovix_matrix33_double_transpose(double A[3][3]);
void quovix_matrix33_double_copy(double out[3][3], const double in[3][3]);
double quovix_matrix33_double_determinant(const double A[3][3]);
/// Inverse of A from its cofactors, each entry (cofactor) / det with `det` the caller's
/// determinant of A (non-zero): the one formula behind every fractional-coordinate conversion,
/// so that all of them give the same doubles.
inline void quovix_matrix33_double_inverse_cofactor(double inv[3][3], const double A[3][3],
                                                    double det) {
    inv[0][0] = (A[1][1] * A[2][2] - A[1][2] * A[2][1]) / det;
    inv[0][1] = (A[0][2] * A[2][1] - A[0][1] * A[2][2]) / det;
    inv[0][2] = (A[0][1] * A[1][2] - A[0][2] * A[1][1]) / det;
    inv[1][0] = (A[1][2] * A[2][0] - A[1][0] * A[2][2]) / det;
    inv[1][1] = (A[0][0] * A[2][2] - A[0][2] * A[2][0]) / det;
    inv[1][2] = (A[0][2] * A[1][0] - A[0][0] * A[1][2]) / det;
    inv[2][0] = (A[1][0] * A[2][1] - A[1][1] * A[2][0]) / det;
    inv[2][1] = (A[0][1] * A[2][0] - A[0][0] * A[2][1]) / det;
    inv[2][2] = (A[0][0] * A[1][1] - A[0][1] * A[1][0]) / det;
}
void quovix_matrix33_double_swap_row(double A[3][3], int m, int n);
void quovix_matrix33_double_swap_col(double A[3][3], int m, int n);
void quovix_matrix33_double_multiplication(double out[3][3], const double in1[3][3],
                                           const double in2[3][3]);
int quovix_matrix33_double_rank(const double A[3][3]);
void quovix_matrix33_double_diagonal(double D[3][3], const double d[3]);
void quovix_matrix33_double_round(double A[3][3]);
void quovix_matrix33_double_round_to_int(int res[3][3], const double A[3][3]);
void quovix_matrix33_double_rotation_simple(double R[3][3], int index, double angle);
void quovix_matrix33_double_rotation_euler(double R[3][3], const double angle[3]);
void quovix_matrix33_double_rotation_random(double R[3][3]);
void quovix_matrix33_double_symmetrize(double A[3][3]);
int quovix_matrix33_double_compute_rank(double M[3][3]);
int quovix_matrix33_double_eigenvalue_symmetric(double eig[3], const double A[3][3]);
int quovix_matrix33_double_eigensolver_symmetric(double eig[3], double eiv[3][3],
                                                 const double A[3][3]);
void quovix_matrix33_double_lusolver(double P[3][3], double L[3][3], double U[3][3],
                                     const double A[3][3]);
int quovix_matrix33_double_linearsolver(double x[3], const double A[3][3], const double b[3]);
int quovix_matrix33_double_svdsolver(double U[3][3], double s[3], double V[3][3],
                                     const double A[3][3]);

void quovix_matrix33_int_convert_to_double(double res[3][3], const int A[3][3]);
void quovix_matrix33_int_multiply_vector3(int res[3], const int M[3][3], const int v[3]);
void quovix_matrix33_int_multiplication(int out[3][3], const int in1[3][3], const int in2[3][3]);
void quovix_matrix33_int_transpose(int A[3][3]);
void quovix_matrix33_int_copy(int out[3][3], const int in[3][3]);
int quovix_matrix33_int_determinant(const int A[3][3]);
void quovix_matrix333_int_print(const int m[3][3]);

/// Uniform number in [0, 1], both ends possible: rand() / RAND_MAX (RAND_MAX is
/// 2147483647 here, not 32767; the contract is kept, not the literal divisor).
double quovix_random();
/// Normal deviate with mean `ave` and standard deviation `sd`, drawn from quovix_random.
double quovix_random_normal(double ave, double sd);
long quovix_mod_long(long x, long d);
int quovix_gcd(int a, int b);
int quovix_lcm(int a, int b);
