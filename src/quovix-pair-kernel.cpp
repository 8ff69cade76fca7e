// Batch kernel of the pair terms: many probe points against one list of sources, one probe
// point per vector lane, exp and erfc from glibc's vector math library (libmvec).
//
// The width follows the instruction set the translation unit is compiled for: 8 lanes with
// AVX-512, 4 with AVX2, 2 with the SSE2 of every x86-64 processor (the portable build). The
// libmvec entry points follow the x86-64 vector function ABI (_ZGV<isa>N<lanes>v_<name>);
// glibc declares them for the compiler's own use only under -ffast-math, which this program
// never uses (it would reorder the sums), so they are declared here and called directly. No
// flag beyond the project's own is needed: the arithmetic around the calls (differences,
// squares, square roots, quotients, selects) is written on whole registers. Distances are the
// scalar code's to the bit, so every range test decides alike; the values differ from the
// scalar functions by a few units in the last place: libmvec's exp and erfc are within 4 ulp,
// and the arguments (rmin - d) / b and d / r_eff are formed with the reciprocal of b and r_eff
// (a multiplication instead of a division, which costs as much as the exp itself).
#include <immintrin.h>

#include <cmath>

#include "quovix-import.hpp"
#include "quovix-pair.hpp"

#if defined(__AVX512F__)
extern "C" __m512d _ZGVeN8v_exp(__m512d);
extern "C" __m512d _ZGVeN8v_erfc(__m512d);
#elif defined(__AVX2__)
extern "C" __m256d _ZGVdN4v_exp(__m256d);
extern "C" __m256d _ZGVdN4v_erfc(__m256d);
#else
extern "C" __m128d _ZGVbN2v_exp(__m128d);
extern "C" __m128d _ZGVbN2v_erfc(__m128d);
#endif

namespace {

// One register of doubles and the few operations the kernel needs beyond + - * / (which GCC
// provides on vector types).
#if defined(__AVX512F__)
using vd = __m512d;
constexpr std::size_t lanes = 8;
inline vd load(const double *p) { return _mm512_loadu_pd(p); }
inline void store(double *p, vd v) { _mm512_storeu_pd(p, v); }
inline vd splat(double x) { return _mm512_set1_pd(x); }
// The masked form avoids _mm512_undefined_pd, which g++ 12 reports as maybe uninitialised.
inline vd vsqrt(vd x) { return _mm512_mask_sqrt_pd(x, 0xFF, x); }
inline vd vexp(vd x) { return _ZGVeN8v_exp(x); }
inline vd verfc(vd x) { return _ZGVeN8v_erfc(x); }
// Lanes where a <= b (ordered), as a bit mask.
inline unsigned le_mask(vd a, vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_LE_OQ); }
// a where a <= b, else c.
inline vd select_le(vd a, vd b, vd yes, vd no) {
    return _mm512_mask_blend_pd(_mm512_cmp_pd_mask(a, b, _CMP_LE_OQ), no, yes);
}
#elif defined(__AVX2__)
using vd = __m256d;
constexpr std::size_t lanes = 4;
inline vd load(const double *p) { return _mm256_loadu_pd(p); }
inline void store(double *p, vd v) { _mm256_storeu_pd(p, v); }
inline vd splat(double x) { return _mm256_set1_pd(x); }
inline vd vsqrt(vd x) { return _mm256_sqrt_pd(x); }
inline vd vexp(vd x) { return _ZGVdN4v_exp(x); }
inline vd verfc(vd x) { return _ZGVdN4v_erfc(x); }
inline unsigned le_mask(vd a, vd b) {
    return static_cast<unsigned>(_mm256_movemask_pd(_mm256_cmp_pd(a, b, _CMP_LE_OQ)));
}
inline vd select_le(vd a, vd b, vd yes, vd no) {
    return _mm256_blendv_pd(no, yes, _mm256_cmp_pd(a, b, _CMP_LE_OQ));
}
#else
using vd = __m128d;
constexpr std::size_t lanes = 2;
inline vd load(const double *p) { return _mm_loadu_pd(p); }
inline void store(double *p, vd v) { _mm_storeu_pd(p, v); }
inline vd splat(double x) { return _mm_set1_pd(x); }
inline vd vsqrt(vd x) { return _mm_sqrt_pd(x); }
inline vd vexp(vd x) { return _ZGVbN2v_exp(x); }
inline vd verfc(vd x) { return _ZGVbN2v_erfc(x); }
inline unsigned le_mask(vd a, vd b) {
    return static_cast<unsigned>(_mm_movemask_pd(_mm_cmple_pd(a, b)));
}
inline vd select_le(vd a, vd b, vd yes, vd no) {
    const vd m = _mm_cmple_pd(a, b);
    return _mm_or_pd(_mm_and_pd(m, yes), _mm_andnot_pd(m, no));
}
#endif

// Squared distances are screened against the square of the range enlarged by this relative
// margin, far above rounding; the exact test d <= range is then made on d itself.
constexpr double screen_margin = 1e-9;

// Sums of G registers of probe points (G * lanes points; unused lanes hold copies). Two
// registers per source give the processor independent work to overlap the square roots,
// quotients and library calls of one register with those of the other.
template <int G>
void group_sum(const quovix_pair_sources &s, const double *px, const double *py, const double *pz,
               double *bond, double *coulomb) {
    vd rx[G], ry[G], rz[G], eb[G], ec[G];
    const vd zero = splat(0.0);
    for (int g = 0; g < G; ++g) {
        rx[g] = load(px + g * lanes);
        ry[g] = load(py + g * lanes);
        rz[g] = load(pz + g * lanes);
        eb[g] = zero;
        ec[g] = zero;
    }
    // Each lane adds, source after source, occ * value where the contact counts and +0.0
    // elsewhere: adding +0.0 leaves every sum that starts at +0.0 unchanged, so a lane's sum is
    // the plain loop's sum over its own contacts, in source order.
    const std::size_t nb = s.bx.size();
    for (std::size_t k = 0; k < nb; ++k) {
        const double cut = s.bcut[k];
        const double reach = cut * (1.0 + screen_margin);
        vd d2[G];
        unsigned any = 0;
        for (int g = 0; g < G; ++g) {
            const vd dx = splat(s.bx[k]) - rx[g], dy = splat(s.by[k]) - ry[g],
                     dz = splat(s.bz[k]) - rz[g];
            d2[g] = dx * dx + dy * dy + dz * dz;
            any |= le_mask(d2[g], splat(reach * reach));
        }
        if (any == 0) continue;
        for (int g = 0; g < G; ++g) {
            const vd d = vsqrt(d2[g]);
            // quovix_energy_bonding_with_energy_shift: 0.5 d0 ((e - 1)^2 - 1) - en_s.
            const vd e = vexp((splat(s.brmin[k]) - d) * splat(s.bbinv[k]));
            const vd em1 = e - splat(1.0);
            const vd morse =
                splat(0.5) * splat(s.bd0[k]) * (em1 * em1 - splat(1.0)) - splat(s.bens[k]);
            // quovix_pseudopotential_energy_bonding: a2 d d + a1 d + a0.
            const vd inner = splat(s.ba2[k]) * d * d + splat(s.ba1[k]) * d + splat(s.ba0[k]);
            const vd value = select_le(d, splat(s.brin[k]), inner, morse);
            eb[g] = eb[g] + select_le(d, splat(cut), splat(s.bocc[k]) * value, zero);
        }
    }
    const std::size_t nc = s.cx.size();
    const double reach = QUOVIX_COULOMB_SHIFT_DISTANCE * (1.0 + screen_margin);
    const vd reach2 = splat(reach * reach), range = splat(QUOVIX_COULOMB_SHIFT_DISTANCE);
    for (std::size_t k = 0; k < nc; ++k) {
        vd d2[G];
        unsigned any = 0;
        for (int g = 0; g < G; ++g) {
            const vd dx = splat(s.cx[k]) - rx[g], dy = splat(s.cy[k]) - ry[g],
                     dz = splat(s.cz[k]) - rz[g];
            d2[g] = dx * dx + dy * dy + dz * dz;
            any |= le_mask(d2[g], reach2);
        }
        if (any == 0) continue;
        for (int g = 0; g < G; ++g) {
            const vd d = vsqrt(d2[g]);
            // quovix_energy_coulombic: q erfc(d / r_eff) / d - shift.
            const vd screened =
                splat(s.cq[k]) * verfc(d * splat(s.creffinv[k])) / d - splat(s.cshift[k]);
            const vd inner = splat(s.ca2[k]) * d * d + splat(s.ca1[k]) * d + splat(s.ca0[k]);
            const vd value = select_le(d, splat(s.crin[k]), inner, screened);
            ec[g] = ec[g] + select_le(d, range, splat(s.cocc[k]) * value, zero);
        }
    }
    for (int g = 0; g < G; ++g) {
        store(bond + g * lanes, eb[g]);
        store(coulomb + g * lanes, ec[g]);
    }
}

}  // namespace

void quovix_pair_sources::clear() {
    for (auto *v : {&bx,   &by,    &bz,  &bocc, &bcut,  &brin,  &ba0,    &ba1,     &ba2,
                    &bd0,  &brmin, &bb,  &bens, &bbinv, &cx,    &cy,     &cz,      &cocc,
                    &crin, &ca0,   &ca1, &ca2,  &cq,    &creff, &cshift, &creffinv})
        v->clear();
}

void quovix_pair_sources::add_bonded(const double x[3], double occ, const quovix_pair_term &t) {
    bx.push_back(x[0]);
    by.push_back(x[1]);
    bz.push_back(x[2]);
    bocc.push_back(occ);
    bcut.push_back(t.cutoff);
    brin.push_back(t.r_in);
    ba0.push_back(t.a0);
    ba1.push_back(t.a1);
    ba2.push_back(t.a2);
    bd0.push_back(t.d0);
    brmin.push_back(t.rmin);
    bb.push_back(t.b);
    bens.push_back(t.en_s);
    bbinv.push_back(1.0 / t.b);
}

void quovix_pair_sources::add_coulomb(const double x[3], double occ, const quovix_pair_term &t,
                                      double r_eff, double shift) {
    cx.push_back(x[0]);
    cy.push_back(x[1]);
    cz.push_back(x[2]);
    cocc.push_back(occ);
    crin.push_back(t.r_in);
    ca0.push_back(t.a0);
    ca1.push_back(t.a1);
    ca2.push_back(t.a2);
    cq.push_back(t.q);
    creff.push_back(r_eff);
    creffinv.push_back(1.0 / r_eff);
    cshift.push_back(shift);
}

/// Probe points in groups of two registers, then one; a last partial register is padded with
/// copies of its last point, whose results are dropped.
void quovix_pair_kernel_sum(const quovix_pair_sources &src, const double *px, const double *py,
                            const double *pz, std::size_t n, double *bond, double *coulomb) {
    std::size_t p = 0;
    for (; p + 2 * lanes <= n; p += 2 * lanes)
        group_sum<2>(src, px + p, py + p, pz + p, bond + p, coulomb + p);
    for (; p + lanes <= n; p += lanes)
        group_sum<1>(src, px + p, py + p, pz + p, bond + p, coulomb + p);
    if (p == n) return;
    double gx[lanes], gy[lanes], gz[lanes], gb[lanes], gc[lanes];
    for (std::size_t l = 0; l < lanes; ++l) {
        const std::size_t q = p + l < n ? p + l : n - 1;
        gx[l] = px[q];
        gy[l] = py[q];
        gz[l] = pz[q];
    }
    group_sum<1>(src, gx, gy, gz, gb, gc);
    for (std::size_t l = 0; p + l < n; ++l) {
        bond[p + l] = gb[l];
        coulomb[p + l] = gc[l];
    }
}

/// Scalar sums with the plain loops' operations, point by point.
void quovix_pair_kernel_sum_exact(const quovix_pair_sources &s, const double *px, const double *py,
                                  const double *pz, std::size_t n, double *bond, double *coulomb) {
    for (std::size_t p = 0; p < n; ++p) {
        double eb = 0.0, ec = 0.0;
        for (std::size_t k = 0; k < s.bx.size(); ++k) {
            const double dx = s.bx[k] - px[p], dy = s.by[k] - py[p], dz = s.bz[k] - pz[p];
            const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
            if (d > s.bcut[k]) continue;
            eb += s.bocc[k] * (d <= s.brin[k] ? quovix_pseudopotential_energy_bonding(
                                                    d, s.ba2[k], s.ba1[k], s.ba0[k])
                                              : quovix_energy_bonding_with_energy_shift(
                                                    d, s.bd0[k], s.brmin[k], s.bb[k], s.bens[k]));
        }
        for (std::size_t k = 0; k < s.cx.size(); ++k) {
            const double dx = s.cx[k] - px[p], dy = s.cy[k] - py[p], dz = s.cz[k] - pz[p];
            const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
            if (d > QUOVIX_COULOMB_SHIFT_DISTANCE) continue;
            // quovix_energy_coulombic with its constant second half computed once per term.
            ec += s.cocc[k] *
                  (d <= s.crin[k]
                       ? quovix_pseudopotential_energy_coulombic(d, s.ca2[k], s.ca1[k], s.ca0[k])
                       : s.cq[k] * std::erfc(d / s.creff[k]) / d - s.cshift[k]);
        }
        bond[p] = eb;
        coulomb[p] = ec;
    }
}

namespace {

// Applies `body` to whole registers of the n inputs, the last partial one padded with copies
// of its last element (whose results are dropped).
template <std::size_t M, class F>
void elementwise(const double *const (&in)[M], std::size_t n, double *out, F &&body) {
    std::size_t k = 0;
    for (; k + lanes <= n; k += lanes) {
        vd v[M];
        for (std::size_t m = 0; m < M; ++m) v[m] = load(in[m] + k);
        store(out + k, body(v));
    }
    if (k == n) return;
    double pad[M][lanes], res[lanes];
    for (std::size_t m = 0; m < M; ++m)
        for (std::size_t l = 0; l < lanes; ++l) pad[m][l] = in[m][k + l < n ? k + l : n - 1];
    vd v[M];
    for (std::size_t m = 0; m < M; ++m) v[m] = load(pad[m]);
    store(res, body(v));
    for (std::size_t l = 0; k + l < n; ++l) out[k + l] = res[l];
}

}  // namespace

void quovix_pair_bonding_force_batch(const double *d, const double *d0, const double *rmin,
                                     const double *b, std::size_t n, double *out) {
    const double *const in[4] = {d, d0, rmin, b};
    elementwise(in, n, out, [](const vd(&v)[4]) {
        const vd e = vexp((v[2] - v[0]) / v[3]);
        return (splat(0.0) - v[1]) * (e - splat(1.0)) * e / v[3];
    });
}

void quovix_pair_coulomb_force_batch(const double *d, const double *q, const double *r_eff,
                                     std::size_t n, double *out) {
    const double *const in[3] = {d, q, r_eff};
    elementwise(in, n, out, [](const vd(&v)[3]) {
        const vd t = v[0] / v[2];
        return (splat(0.0) - v[1]) * verfc(t) / (v[0] * v[0]) -
               splat(2.0) * v[1] * vexp(splat(0.0) - t * t) / (splat(QUOVIX_SQRT_PI) * v[2] * v[0]);
    });
}
