// Path map: the compact grid, classification of every point and the on-demand dot records.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "quovix-fp-kernel.hpp"
#include "quovix-fp-store.hpp"
#include "quovix-grid.hpp"

namespace {

/// For each cell v of the 3x3x3 block (row order), the cells u < v that touch it (faces, edges or
/// corners). Only those can carry a label when v is visited, since labels are handed out in
/// visiting order; the centre (13) is never part of a region and is left out.
struct back_lists {
    int count[27];
    int cell[27][13];
};
constexpr back_lists make_back_lists() {
    back_lists b{};
    for (int v = 0; v < 27; v++) {
        b.count[v] = 0;
        const int vp = v / 9, vq = (v / 3) % 3, vr = v % 3;
        for (int u = 0; u < v; u++) {
            if (u == 13) continue;
            const int dp = u / 9 - vp, dq = (u / 3) % 3 - vq, dr = u % 3 - vr;
            if (dp >= -1 && dp <= 1 && dq >= -1 && dq <= 1 && dr >= -1 && dr <= 1)
                b.cell[v][b.count[v]++] = u;
        }
    }
    return b;
}
constexpr back_lists BACK = make_back_lists();

inline void merge27(int cl[27], int c1, int c2) {
    if (c1 == c2 || c1 == 0 || c2 == 0) return;
    const int hi = c1 > c2 ? c1 : c2, lo = c1 > c2 ? c2 : c1;
    for (int m = 0; m < 27; m++)
        if (cl[m] == hi) cl[m] = lo;
}

/// Energies of the 3x3x3 block around (i, j, k) with wrap-around, block code p*9 + q*3 + r.
void gather(double e[27], const QUOVIX_FPCUBE *fp, long i, long j, long k) {
    const quovix_grid g(fp->n);
    const long kk[3] = {quovix_grid::wrap(k - 1, g.n[2]), k, quovix_grid::wrap(k + 1, g.n[2])};
    for (int p = 0; p < 3; p++) {
        const long ii = quovix_grid::wrap(i + p - 1, g.n[0]);
        for (int q = 0; q < 3; q++) {
            const long jj = quovix_grid::wrap(j + q - 1, g.n[1]);
            const double *row = fp->en + (ii * g.n[1] + jj) * g.n[2];
            for (int r = 0; r < 3; r++) e[p * 9 + q * 3 + r] = row[kk[r]];
        }
    }
}

}  // namespace

// ---------------------------------------------------------------- per-point kernel
void quovix_fp_point_cluster(int cl[27], const double e[27]) {
    int sign[27];
    for (int v = 0; v < 27; v++) {
        sign[v] = v == 13 ? 0 : (e[v] < e[13] ? -1 : 1);  // an equal neighbour counts as higher
        cl[v] = 0;
    }
    int open = 1;  // one counter for both signs
    for (int v = 0; v < 27; v++) {
        if (!sign[v]) continue;
        for (int m = 0; m < BACK.count[v]; m++) {
            const int u = BACK.cell[v][m];
            if (cl[u] == 0 || sign[u] != sign[v]) continue;
            if (cl[v] == 0)
                cl[v] = cl[u];
            else
                merge27(cl, cl[v], cl[u]);
        }
        if (cl[v] == 0) cl[v] = sign[v] > 0 ? open++ : -(open++);
    }
}

void quovix_fp_point_classify(quovix_fp_point &pt, const double e[27]) {
    const int *cl = pt.cluster;
    int up = 0, dn = 0, mx = 0, mn = 0;
    pt.warn = pt.warn8 = 0;
    // Regions are counted as new records of the running extreme while the labels are read in
    // row order, not as a set of distinct labels.
    for (int v = 0; v < 27; v++) {
        if (up > 8 || dn > 8) {
            pt.warn |= 1u << v;
            pt.warn8 |= 1u << v;
        } else if (up > 3) {
            pt.warn |= 1u << v;
        }
        if (cl[v] > mx) {
            mx = cl[v];
            up++;
        }
        if (cl[v] < mn) {
            mn = cl[v];
            dn++;
        }
    }
    pt.total_up = up;
    pt.total_dn = dn;
    if (dn == 0)
        pt.type = FP_MIN;
    else if (dn == 1)
        pt.type = up == 1 ? FP_NOR : FP_ERR;
    else if (dn <= 3)
        pt.type = FP_SAD;
    else
        pt.type = FP_ERR;
    if (up == 0 && dn >= 1) pt.type = FP_MAX;

    // Branches: the highest point of each new up record, the lowest of each new down record;
    // ties go to the later cell in row order.
    pt.n_up = 0;
    mx = 0;
    for (int v = 0; v < 27; v++) {
        if (cl[v] > mx && pt.n_up < QUOVIX_FPDOT_MAX_BRANCH) {
            mx = cl[v];
            double best = e[13];
            int pick = 13;
            for (int w = 0; w < 27; w++)
                if (cl[w] == mx && e[w] >= best) best = e[w], pick = w;
            pt.up[pt.n_up++] = static_cast<unsigned char>(pick);
        }
    }
    pt.n_dn = 0;
    mn = 0;
    for (int v = 0; v < 27; v++) {
        if (cl[v] < mn && pt.n_dn < QUOVIX_FPDOT_MAX_BRANCH) {
            mn = cl[v];
            double best = e[13];
            int pick = 13;
            for (int w = 0; w < 27; w++)
                if (cl[w] == mn && e[w] <= best) best = e[w], pick = w;
            pt.dn[pt.n_dn++] = static_cast<unsigned char>(pick);
        }
    }
}

void quovix_fp_point_warnings(std::string &out, const quovix_fp_point &pt, const long x[3]) {
    if (!pt.warn) return;
    char line[256];
    for (int v = 0; v < 27; v++) {
        if (!(pt.warn & (1u << v))) continue;
        if (pt.warn8 & (1u << v))
            std::snprintf(line, sizeof line,
                          "Warning: no. of branches exceeds 8 at (%ld,%ld,%ld); there might be an "
                          "error.\n",
                          x[0], x[1], x[2]);
        else
            std::snprintf(line, sizeof line,
                          "Warning: no. of branches exceeds 4 at (%ld,%ld,%ld); there might be a "
                          "discontinuity\n",
                          x[0], x[1], x[2]);
        out += line;
    }
}

void quovix_fpdot_merge_cluster(int cluster[3][3][3], int c1, int c2) {
    merge27(&cluster[0][0][0], c1, c2);
}

// ---------------------------------------------------------------- grid
QUOVIX_FPCUBE *quovix_fpcube_new(const long n[3]) {
    if (!n || n[0] <= 0 || n[1] <= 0 || n[2] <= 0) {
        std::fputs("Error: all arguments must be positive.\n", stderr);
        return nullptr;
    }
    // Bound the count before multiplying (and before any allocation): 2^31 points is far
    // beyond any landscape and keeps every flat index exact.
    constexpr long max_points = 1L << 31;
    if (n[0] > max_points || n[1] > max_points / n[0] || n[2] > max_points / (n[0] * n[1])) {
        std::fputs("Error: unable to allocate QUOVIX_FPCUBE.\n", stderr);
        return nullptr;
    }
    auto *fp = static_cast<QUOVIX_FPCUBE *>(std::calloc(1, sizeof(QUOVIX_FPCUBE)));
    if (!fp) {
        std::fputs("Error: unable to allocate QUOVIX_FPCUBE.\n", stderr);
        return nullptr;
    }
    quovix_fpcube_ptr owner(fp);
    for (int k = 0; k < 3; k++) fp->n[k] = n[k];
    fp->total = n[0] * n[1] * n[2];
    const auto points = static_cast<std::size_t>(fp->total);
    fp->en = static_cast<double *>(std::calloc(points, sizeof(double)));
    fp->type = static_cast<signed char *>(std::calloc(points, 1));
    fp->total_up = static_cast<signed char *>(std::calloc(points, 1));
    fp->total_dn = static_cast<signed char *>(std::calloc(points, 1));
    fp->dn = static_cast<unsigned char(*)[QUOVIX_FPCUBE_DN_KEPT]>(
        std::calloc(points, QUOVIX_FPCUBE_DN_KEPT));
    if (!fp->en || !fp->type || !fp->total_up || !fp->total_dn || !fp->dn) {
        std::fputs("Error: unable to allocate fpcube->dot\n", stderr);
        return nullptr;
    }
    fp->store = new (std::nothrow) quovix_fpcube_store;
    if (!fp->store) {
        std::fputs("Error: unable to allocate fpcube->dot[]\n", stderr);
        return nullptr;
    }
    return owner.release();
}

void quovix_fpcube_free(QUOVIX_FPCUBE *fpcube) {
    if (!fpcube) return;
    delete fpcube->store;
    std::free(fpcube->en);
    std::free(fpcube->type);
    std::free(fpcube->total_up);
    std::free(fpcube->total_dn);
    std::free(fpcube->dn);
    std::free(fpcube);
}

void quovix_fpcube_print(QUOVIX_FPCUBE *fpcube) {
    if (!fpcube) {
        std::puts("FPCUBE: (not allocated)");
        return;
    }
    long count[7] = {0, 0, 0, 0, 0, 0, 0};
    for (long q = 0; q < fpcube->total; q++) {
        const int t = quovix_fpcube_type_at(fpcube, q);
        if (t >= 0 && t < 7) count[t]++;
    }
    std::printf("FPCUBE: grid = %ld * %ld * %ld\n", fpcube->n[0], fpcube->n[1], fpcube->n[2]);
    std::printf(
        "FPCUBE: und = %ld; nor = %ld; min = %ld; max = %ld; sad = %ld; pat = %ld; "
        "err = %ld\n",
        count[FP_UND], count[FP_NOR], count[FP_MIN], count[FP_MAX], count[FP_SAD], count[FP_PAT],
        count[FP_ERR]);
    std::printf("FPCUBE: dot records = %zu\n", fpcube->store ? fpcube->store->size() : 0);
}

void quovix_fpcube_clear_type(QUOVIX_FPCUBE *fpcube) {
    if (!fpcube) return;
    std::memset(fpcube->type, FP_UND, static_cast<std::size_t>(fpcube->total));
    if (fpcube->store) fpcube->store->for_each([](QUOVIX_FPDOT *d) { d->type = FP_UND; });
}

int quovix_fpcube_type_at(const QUOVIX_FPCUBE *fpcube, long q) {
    if (fpcube->store) {
        if (const QUOVIX_FPDOT *d = fpcube->store->find(q)) return d->type;
    }
    return fpcube->type[q];
}

QUOVIX_FPDOT *quovix_fpcube_dot(QUOVIX_FPCUBE *fpcube, const long x[3]) {
    if (!fpcube || !fpcube->store || !x) return nullptr;
    const quovix_grid g(fpcube->n);
    const long i = quovix_grid::wrap(x[0], g.n[0]), j = quovix_grid::wrap(x[1], g.n[1]),
               k = quovix_grid::wrap(x[2], g.n[2]);
    const long q = g.flat_inside(i, j, k);
    if (QUOVIX_FPDOT *d = fpcube->store->find(q)) return d;
    return quovix_guard("QUOVIX_FPDOT", [&]() -> QUOVIX_FPDOT * {
        QUOVIX_FPDOT *d = fpcube->store->add(q);
        d->en = fpcube->en[q];
        d->x_i[0] = i;
        d->x_i[1] = j;
        d->x_i[2] = k;
        quovix_fp_position(d->x, fpcube->a_i, d->x_i);
        d->type = fpcube->type[q];
        d->total_up = fpcube->total_up[q];
        d->total_dn = fpcube->total_dn[q];
        double e[27];
        gather(e, fpcube, i, j, k);
        quovix_fp_point_cluster(&d->cluster[0][0][0], e);
        return d;
    });
}

// ---------------------------------------------------------------- per-dot steps
int quovix_fpdot_cluster(QUOVIX_FPCUBE *fpcube, const long x[3]) {
    QUOVIX_FPDOT *d = quovix_fpcube_dot(fpcube, x);
    if (!d) {
        std::fputs("Error: QUOVIX_FPCUBE has not been properly initialized.\n", stderr);
        return 1;
    }
    double e[27];
    gather(e, fpcube, d->x_i[0], d->x_i[1], d->x_i[2]);
    quovix_fp_point_cluster(&d->cluster[0][0][0], e);
    return 0;
}

namespace {
/// Classification of the materialised dot at x from its stored labels.
QUOVIX_FPDOT *classified(QUOVIX_FPCUBE *fpcube, const long x[3], quovix_fp_point &pt) {
    QUOVIX_FPDOT *d = quovix_fpcube_dot(fpcube, x);
    if (!d) {
        std::fputs("Error: QUOVIX_FPCUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    std::memcpy(pt.cluster, &d->cluster[0][0][0], sizeof pt.cluster);
    double e[27];
    gather(e, fpcube, d->x_i[0], d->x_i[1], d->x_i[2]);
    quovix_fp_point_classify(pt, e);
    return d;
}
}  // namespace

int quovix_fpdot_classify(QUOVIX_FPCUBE *fpcube, const long x[3]) {
    quovix_fp_point pt;
    QUOVIX_FPDOT *d = classified(fpcube, x, pt);
    if (!d) return 1;
    std::string warn;
    quovix_fp_point_warnings(warn, pt, d->x_i);
    std::fputs(warn.c_str(), stdout);
    d->type = pt.type;
    d->total_up = pt.total_up;
    d->total_dn = pt.total_dn;
    const long q = quovix_grid(fpcube->n).flat_inside(d->x_i[0], d->x_i[1], d->x_i[2]);
    fpcube->type[q] = static_cast<signed char>(pt.type);
    fpcube->total_up[q] = static_cast<signed char>(pt.total_up);
    fpcube->total_dn[q] = static_cast<signed char>(pt.total_dn);
    return 0;
}

int quovix_fpdot_branch(QUOVIX_FPCUBE *fpcube, const long x[3]) {
    quovix_fp_point pt;
    QUOVIX_FPDOT *d = classified(fpcube, x, pt);
    if (!d) return 1;
    const long q = quovix_grid(fpcube->n).flat_inside(d->x_i[0], d->x_i[1], d->x_i[2]);
    for (int k = 0; k < QUOVIX_FPCUBE_DN_KEPT; k++)
        fpcube->dn[q][k] = k < pt.n_dn ? pt.dn[k] : QUOVIX_FPCUBE_SELF;
    return 0;
}

// ---------------------------------------------------------------- whole grid
QUOVIX_FPCUBE *quovix_fpcube_new_from_cube(QUOVIX_CUBE *cube) {
    if (!cube || !cube->en) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    quovix_fpcube_ptr fp(quovix_fpcube_new(cube->n));
    if (!fp) {
        std::fputs("Error: quovix_fpcube_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(fp->a, cube->a, sizeof fp->a);
    std::memcpy(fp->a_i, cube->a_i, sizeof fp->a_i);
    const long n0 = fp->n[0], n1 = fp->n[1], n2 = fp->n[2];
    for (long i = 0; i < n0; i++)
        for (long j = 0; j < n1; j++) {
            const double *row = cube->en[i][j];
            double *dst = fp->en + (i * n1 + j) * n2;
            for (long k = 0; k < n2; k++) {
                // Comparisons with NaN or infinities would classify nonsense and make barriers
                // undefined: such a landscape is refused.
                if (!std::isfinite(row[k])) {
                    std::fprintf(stderr,
                                 "Error: energy at (%ld, %ld, %ld) is not a finite number.\n", i, j,
                                 k);
                    return nullptr;
                }
                dst[k] = row[k];
            }
        }

    // Every point depends only on its own block, so planes are classified in parallel; the
    // warnings of each plane are collected and printed in row order afterwards.
    return quovix_guard("the path map work arrays", [&]() -> QUOVIX_FPCUBE * {
        std::vector<std::string> warnings(static_cast<std::size_t>(n0));
        QUOVIX_FPCUBE *g = fp.get();
        bool failed = false;  // an exception must not leave the parallel region
#pragma omp parallel for schedule(dynamic, 1) reduction(|| : failed)
        for (long i = 0; i < n0; i++) {
            double e[27];
            quovix_fp_point pt;
            std::string &warn = warnings[static_cast<std::size_t>(i)];
            try {
                for (long j = 0; j < n1; j++)
                    for (long k = 0; k < n2; k++) {
                        gather(e, g, i, j, k);
                        quovix_fp_point_cluster(pt.cluster, e);
                        quovix_fp_point_classify(pt, e);
                        const long q = (i * n1 + j) * n2 + k;
                        g->type[q] = static_cast<signed char>(pt.type);
                        g->total_up[q] = static_cast<signed char>(pt.total_up);
                        g->total_dn[q] = static_cast<signed char>(pt.total_dn);
                        for (int m = 0; m < QUOVIX_FPCUBE_DN_KEPT; m++)
                            g->dn[q][m] = m < pt.n_dn ? pt.dn[m] : QUOVIX_FPCUBE_SELF;
                        if (pt.warn) {
                            const long x[3] = {i, j, k};
                            quovix_fp_point_warnings(warn, pt, x);
                        }
                    }
            } catch (...) {
                failed = true;
            }
        }
        if (failed) throw std::bad_alloc();
        for (const std::string &w : warnings) std::fputs(w.c_str(), stdout);
        return fp.release();
    });
}
