// Landscapes of a probe ion added to the structure: GII and embedding change at each point.
//
// Both need, at every grid point, the probe's bonds to its counter-ions (valence
// s = exp((r0 - d) / b) within the pair cut-off, contacts below 0.2 A excluded, as in the bond
// valence sums) and the bond valence sums / densities of the atoms it bonds to. The atoms'
// own sums and densities are computed once; the probe's bonds come from the images of the
// counter-ions that reach the cell, sorted into bins of fractional coordinates at least one
// cut-off thick, so that a point looks at 27 bins only. A point's value depends only on its
// position (bins and sources in fixed order), so the grid is the same for any thread count.
#include "quovix-cube-probe.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quovix-images.hpp"
#include "quovix-import.hpp"
#include "quovix-pair.hpp"
#include "quovix-reference.hpp"

namespace {

constexpr double cap = 999.9;  // eV, as the pair landscape

struct bond_term {
    bool ok = false;
    double r0 = 0.0, b = 1.0, cutoff = 0.0, s_cut = 0.0;
};

struct source {
    double x[3];
    long atom;
};

struct setup {
    const QUOVIX_CELL *cell = nullptr;
    int mobile = -1;
    std::vector<int> species;
    std::vector<bond_term> probe;  // the probe's bond to an atom of each species
    quovix_pair_table table;
    std::vector<double> occ, valence, sum, rho, f1;
    double q0 = 0.0, n0 = 0.0, range = 0.0;
    double f1_p = 0.0, valence_p = 1.0;
    // bins
    long nb[3] = {1, 1, 1}, lo[3] = {0, 0, 0}, span[3] = {1, 1, 1};
    double inv[3][3] = {};
    std::vector<std::vector<source>> bins;
};

// The bond of species i to species j from the shared pair table (record stored cation first).
bond_term pair_bond(const quovix_pair_table &table, int i, int j) {
    bond_term t;
    if (i < 0 || j < 0) return t;
    const quovix_pair_term &p = table.term(i, j);
    if (p.kind != quovix_pair_kind::bonding) return t;
    if (!(p.b > 0.0) || !(p.cutoff > QUOVIX_MIN_CONTACT) || !std::isfinite(p.r0)) return t;
    t.ok = true;
    t.r0 = p.r0;
    t.b = p.b;
    t.cutoff = p.cutoff;
    t.s_cut = p.s_cut;
    return t;
}

double embedding(double f1, double valence, double rho) {
    return rho > 0.0 && std::isfinite(f1) ? -f1 * std::sqrt(rho / valence) : 0.0;
}

// Species, base sums and densities, and the probe's bond terms. False after an error line.
bool prepare(setup &s, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (!cell || !cell->atom || cell->total < 1 || !ppt || !ppt->uni || !ppt->bin) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return false;
    }
    if (ppt->conducting < 0 || ppt->conducting >= ppt->total || ppt->uni[ppt->conducting].os == 0) {
        std::fputs("Error: the mobile species of QUOVIX_PROPERTY is not set.\n", stderr);
        return false;
    }
    const long n = cell->total;
    s.cell = cell;
    s.mobile = ppt->conducting;
    s.species.resize(static_cast<std::size_t>(n));
    s.occ.resize(static_cast<std::size_t>(n));
    s.valence.resize(static_cast<std::size_t>(n));
    s.f1.resize(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) {
        const QUOVIX_ATOM &a = cell->atom[i];
        s.species[i] = quovix_property_find_index(ppt, a.type, a.os);
        if (s.species[i] < 0) {
            std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
            return false;
        }
        s.occ[i] = a.occ;
        s.valence[i] = quovix_abs_os(a.os);
        s.f1[i] = a.os != 0 ? ppt->uni[s.species[i]].f1 : NAN;
    }
    const QUOVIX_PROPERTY_UNITARY &m = ppt->uni[s.mobile];
    s.f1_p = m.f1;
    s.valence_p = quovix_abs_os(m.os);
    if (!quovix_pair_table_build(s.table, ppt)) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return false;
    }
    s.probe.resize(static_cast<std::size_t>(ppt->total));
    for (int j = 0; j < ppt->total; ++j) {
        s.probe[j] = pair_bond(s.table, s.mobile, j);
        if (s.probe[j].ok) s.range = std::max(s.range, s.probe[j].cutoff);
    }
    // Bond valence sums and faded densities of the atoms, over their own bonds.
    double largest = 0.0;
    for (int i = 0; i < ppt->total; ++i)
        for (int j = 0; j < ppt->total; ++j) largest = std::max(largest, ppt->bin[i][j].cutoff);
    quovix_images::frame f;
    if (!quovix_images::make_frame(cell, std::max(largest, s.range), f)) return false;
    std::memcpy(s.inv, f.inv, sizeof s.inv);
    s.sum.assign(static_cast<std::size_t>(n), 0.0);
    s.rho.assign(static_cast<std::size_t>(n), 0.0);
#pragma omp parallel for schedule(dynamic, 4)
    for (long i = 0; i < n; ++i) {
        for (long j = 0; j < n; ++j) {
            const bond_term t = pair_bond(s.table, s.species[i], s.species[j]);
            if (!t.ok) continue;
            quovix_images::for_each_image(f, cell->atom[i].x, cell->atom[j].x, t.cutoff,
                                          [&](const double *, double d) {
                                              if (d < QUOVIX_MIN_CONTACT || !(d < t.cutoff)) return;
                                              const double v = std::exp((t.r0 - d) / t.b);
                                              s.sum[i] += s.occ[j] * v;
                                              s.rho[i] += s.occ[j] * (v - t.s_cut);
                                          });
        }
    }
    for (long i = 0; i < n; ++i) {
        s.q0 += s.occ[i] * (s.sum[i] - s.valence[i]) * (s.sum[i] - s.valence[i]);
        s.n0 += s.occ[i];
    }
    return true;
}

// Images of the probe's counter-ions that can come within its cut-off of the cell, binned.
bool build_bins(setup &s) {
    if (!(s.range > 0.0)) return true;  // the probe bonds to nothing
    const QUOVIX_CELL *cell = s.cell;
    double g[3];
    long m[3];
    for (int k = 0; k < 3; ++k) {
        g[k] = std::sqrt(s.inv[0][k] * s.inv[0][k] + s.inv[1][k] * s.inv[1][k] +
                         s.inv[2][k] * s.inv[2][k]);
        const double thickness = 1.0 / g[k];  // distance between lattice planes k
        s.nb[k] = std::max(1L, static_cast<long>(std::floor(thickness / s.range)));
        s.nb[k] = std::min(s.nb[k], 64L);
        const double e = s.range * g[k] + 1e-9;
        s.lo[k] = static_cast<long>(std::floor(-e * s.nb[k]));
        s.span[k] = static_cast<long>(std::floor((1.0 + e) * s.nb[k])) - s.lo[k] + 1;
        m[k] = static_cast<long>(e) + 2;
    }
    s.bins.assign(static_cast<std::size_t>(s.span[0] * s.span[1] * s.span[2]), {});
    for (long j = 0; j < cell->total; ++j) {
        if (!s.probe[s.species[j]].ok) continue;
        for (long t0 = -m[0]; t0 <= m[0]; ++t0) {
            for (long t1 = -m[1]; t1 <= m[1]; ++t1) {
                for (long t2 = -m[2]; t2 <= m[2]; ++t2) {
                    const double fr[3] = {cell->atom[j].x_f[0] + t0, cell->atom[j].x_f[1] + t1,
                                          cell->atom[j].x_f[2] + t2};
                    long b[3];
                    bool inside = true;
                    for (int k = 0; k < 3 && inside; ++k) {
                        b[k] = static_cast<long>(std::floor(fr[k] * s.nb[k])) - s.lo[k];
                        inside = b[k] >= 0 && b[k] < s.span[k];
                    }
                    if (!inside) continue;
                    source src;
                    src.atom = j;
                    for (int c = 0; c < 3; ++c)
                        src.x[c] =
                            fr[0] * cell->a[0][c] + fr[1] * cell->a[1][c] + fr[2] * cell->a[2][c];
                    s.bins[(b[0] * s.span[1] + b[1]) * s.span[2] + b[2]].push_back(src);
                }
            }
        }
    }
    return true;
}

// Per-thread accumulation of the probe's bonds to each atom.
struct scratch {
    std::vector<double> bond, faded;
    std::vector<long> touched;
    explicit scratch(long n)
        : bond(static_cast<std::size_t>(n)), faded(static_cast<std::size_t>(n)) {}
};

// GII and embedding change from the accumulated bonds; resets the scratch.
void finish(const setup &s, scratch &w, double sp, double rho_p, double *gii, double *eam) {
    double q = s.q0 + (sp - s.valence_p) * (sp - s.valence_p), de = 0.0;
    for (long i : w.touched) {
        const double before = s.sum[i] - s.valence[i], after = before + w.bond[i];
        q += s.occ[i] * (after * after - before * before);
        de += s.occ[i] * (embedding(s.f1[i], s.valence[i], s.rho[i] + w.faded[i]) -
                          embedding(s.f1[i], s.valence[i], s.rho[i]));
        w.bond[i] = w.faded[i] = 0.0;
    }
    w.touched.clear();
    de += embedding(s.f1_p, s.valence_p, rho_p);
    if (gii) *gii = std::sqrt(std::max(q, 0.0) / (s.n0 + 1.0));
    if (eam) *eam = QUOVIX_COULOMB_HALF * de;
}

void add_bond(const setup &s, scratch &w, long atom, double d, double &sp, double &rho_p) {
    const bond_term &t = s.probe[s.species[atom]];
    if (d < QUOVIX_MIN_CONTACT || !(d < t.cutoff)) return;
    const double v = std::exp((t.r0 - d) / t.b);
    sp += s.occ[atom] * v;
    rho_p += s.occ[atom] * (v - t.s_cut);
    if (w.bond[atom] == 0.0 && w.faded[atom] == 0.0) w.touched.push_back(atom);
    w.bond[atom] += v;
    w.faded[atom] += v - t.s_cut;
}

// Both terms at a point through the bins.
void point_binned(const setup &s, scratch &w, const double r[3], double *gii, double *eam) {
    double sp = 0.0, rho_p = 0.0;
    if (!s.bins.empty()) {
        long b[3];
        for (int k = 0; k < 3; ++k) {
            double fk = r[0] * s.inv[0][k] + r[1] * s.inv[1][k] + r[2] * s.inv[2][k];
            b[k] = static_cast<long>(std::floor(fk * s.nb[k])) - s.lo[k];
        }
        for (long d0 = -1; d0 <= 1; ++d0) {
            for (long d1 = -1; d1 <= 1; ++d1) {
                for (long d2 = -1; d2 <= 1; ++d2) {
                    const long c0 = b[0] + d0, c1 = b[1] + d1, c2 = b[2] + d2;
                    if (c0 < 0 || c1 < 0 || c2 < 0 || c0 >= s.span[0] || c1 >= s.span[1] ||
                        c2 >= s.span[2])
                        continue;
                    for (const source &src : s.bins[(c0 * s.span[1] + c1) * s.span[2] + c2]) {
                        const double dx = r[0] - src.x[0], dy = r[1] - src.x[1],
                                     dz = r[2] - src.x[2];
                        add_bond(s, w, src.atom, std::sqrt(dx * dx + dy * dy + dz * dz), sp, rho_p);
                    }
                }
            }
        }
    }
    finish(s, w, sp, rho_p, gii, eam);
}

// The probe terms over the whole grid of `cube` (values written there, or added with `add`).
bool fill(const setup &s, QUOVIX_CUBE *cube, bool want_gii, bool add) {
    const long n0 = cube->n[0], n1 = cube->n[1], n2 = cube->n[2];
    bool ok = true;
#pragma omp parallel
    {
        scratch w(s.cell->total);
#pragma omp for schedule(dynamic, 1)
        for (long i = 0; i < n0; ++i) {
            for (long j = 0; j < n1; ++j) {
                for (long k = 0; k < n2; ++k) {
                    double r[3];
                    for (int c = 0; c < 3; ++c)
                        r[c] = i * cube->a_i[0][c] + j * cube->a_i[1][c] + k * cube->a_i[2][c];
                    double gii = 0.0, eam = 0.0;
                    point_binned(s, w, r, &gii, &eam);
                    double &v = cube->en[i][j][k];
                    if (want_gii)
                        v = gii;
                    else if (add && v < cap)
                        v = std::min(v + eam, cap);
                }
            }
        }
    }
    return ok;
}

QUOVIX_CUBE *new_grid(const QUOVIX_CELL *cell, double resolution) {
    long n[3];
    if (!(resolution > 0.0) || !std::isfinite(resolution) ||
        quovix_cube_grid_size(n, cell->parameter, resolution) != 0) {
        std::fputs("Error: quovix_cube_grid_size() returns non-zero.\n", stderr);
        return nullptr;
    }
    QUOVIX_CUBE *cube = quovix_cube_new(n);
    if (!cube) {
        std::fputs("Error: quovix_cube_new() returns NULL.\n", stderr);
        return nullptr;
    }
    for (int k = 0; k < 3; ++k)
        for (int c = 0; c < 3; ++c) {
            cube->a[k][c] = cell->a[k][c];
            cube->a_i[k][c] = cell->a[k][c] / static_cast<double>(n[k]);
        }
    return cube;
}

void clear_ignored(QUOVIX_CELL *cell) {
    for (long i = 0; i < cell->total; ++i) cell->atom[i].ignored = false;
}

}  // namespace

QUOVIX_CUBE *quovix_cube_by_gii_calculate(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt,
                                          double resolution) {
    return quovix_guard("the GII landscape", [&]() -> QUOVIX_CUBE * {
        setup s;
        if (!prepare(s, cell, ppt) || !build_bins(s)) return nullptr;
        quovix_cube_ptr cube{new_grid(cell, resolution)};
        if (!cube) return nullptr;
        clear_ignored(cell);
        std::printf("Message: GII of the cell without the probe = %f\n", std::sqrt(s.q0 / s.n0));
        if (!fill(s, cube.get(), true, false)) return nullptr;
        return cube.release();
    });
}

QUOVIX_CUBE *quovix_cube_by_tot_en_calculate(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                             QUOVIX_PROPERTY *ppt, double resolution, bool eam) {
    return quovix_guard("the total-energy landscape", [&]() -> QUOVIX_CUBE * {
        setup s;
        if (eam && (!prepare(s, cell, ppt) || !build_bins(s))) return nullptr;
        quovix_cube_ptr cube{quovix_cube_calculate(cell, symmetry, ppt, resolution, false)};
        if (!cube) {
            std::fputs("Error: quovix_cube_calculate() returns NULL.\n", stderr);
            return nullptr;
        }
        clear_ignored(cell);
        if (eam && !fill(s, cube.get(), false, true)) return nullptr;
        return cube.release();
    });
}

int quovix_cube_probe_point_plain(double *gii, double *eam, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt,
                                  const double r[3]) {
    return quovix_guard("the probe terms", [&]() -> int {
        setup s;
        if (!prepare(s, cell, ppt)) return 1;
        scratch w(cell->total);
        double sp = 0.0, rho_p = 0.0;
        for (long j = 0; j < cell->total; ++j) {
            if (!s.probe[s.species[j]].ok) continue;
            long m[3];
            for (int k = 0; k < 3; ++k)
                m[k] = static_cast<long>(2.0 + s.range / cell->parameter[k]);
            for (long t0 = -m[0]; t0 <= m[0]; ++t0)
                for (long t1 = -m[1]; t1 <= m[1]; ++t1)
                    for (long t2 = -m[2]; t2 <= m[2]; ++t2) {
                        double d2 = 0.0;
                        for (int c = 0; c < 3; ++c) {
                            const double x = cell->atom[j].x[c] + t0 * cell->a[0][c] +
                                             t1 * cell->a[1][c] + t2 * cell->a[2][c];
                            d2 += (r[c] - x) * (r[c] - x);
                        }
                        add_bond(s, w, j, std::sqrt(d2), sp, rho_p);
                    }
        }
        finish(s, w, sp, rho_p, gii, eam);
        return 0;
    });
}
