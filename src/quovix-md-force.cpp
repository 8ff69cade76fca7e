// Forces, potential energy and virial of the free ions of a molecular-dynamics run.
//
// Pair terms: the bond-valence force field (screened Coulomb between like-charged ions, Morse
// bonding shifted to zero at the pair's cut-off between cations and anions), every contact
// within the 12 A cut-off of the dynamics. The contacts are those of the cell pair sums: lattice
// images -n..n per axis with n = trunc(2 + 12 / |a_k|), a contact closer than 0.2 A counted only
// when the occupancies add up to more than 1 and the symbols differ.
//
// With E the potential energy of the free ions (every pair with at least one free atom, each
// pair once; the framework's own pairs are constant and left out),
//   E = 7.19982 sum_{i free} sum_{j, T} w_ij occ_i occ_j phi(d),  w_ij = 1 (j free) or 2 (fixed),
// the double sum over ordered pairs counting a pair of free ions twice. The force on a free ion
// is F_i = -14.39964 sum_{j, T} occ_j phi'(d) v / d with v = x_i + T - x_j: minus the gradient
// of E per unit of the ion's occupancy, which keeps 0.5 occ m v^2 + E constant. The virial is
// W = sum_pairs -d phi'(d) (eV, each pair once) over the same pairs, plus the constant virial of
// the framework's pairs, so that the pressure P = (2 E_k + W) / (3 V) is the pressure of the
// whole crystal.
//
// Speed: the plain loop (every free ion, every atom, every image) is kept as the reference. The
// shipped loop walks per free ion a neighbour list built with a skin: the entries within
// cut-off + skin in the order of the plain loop (atom j, then k1, k2, k3), rebuilt when an ion
// has moved more than half the skin. The framework is fixed, so its images never change; the
// lattice translation between an ion's unwrapped and wrapped position is tracked, so that a
// list entry is translated into the image of the plain loop and its distance is computed with
// the plain loop's own arithmetic. Both loops therefore see the same contacts with the same
// distances in the same order. The energies and the virial then agree exactly; the forces,
// whose pair derivatives are evaluated in batches with the vector exp and erfc, agree to a few
// units in the last place of each term. Every result is the same for any number of threads
// (each free ion is summed by one thread; the per-ion sums are added in ion order).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-md.hpp"
#include "quovix-pair.hpp"
#include "quovix-reference.hpp"

namespace {

constexpr double close_contact = QUOVIX_MIN_CONTACT;
constexpr double weight_free = QUOVIX_COULOMB_HALF;  // ordered pair of two free ions
constexpr double weight_fixed = QUOVIX_COULOMB;      // a free ion and a fixed atom
constexpr long max_shift = 1000000000L;  // lattice translations beyond this: diverged run
constexpr long parallel_entries = 8192;  // list entries above which the forces use threads

bool valid(const QUOVIX_MD *md) {
    return md != nullptr && md->cell != nullptr && md->ppt != nullptr && md->state != nullptr &&
           md->x != nullptr && (md->cell->total <= 0 || md->cell->atom != nullptr);
}

inline bool contact_counts(double d, const QUOVIX_ATOM &ai, const QUOVIX_ATOM &aj) {
    return d >= close_contact ||
           (ai.occ + aj.occ > 1.0 && std::strncmp(ai.type, aj.type, QUOVIX_TYPE_LEN) != 0);
}

// dE/dd and E (reduced units) of one contact.
inline double term_force(const quovix_md_term &t, double d) {
    if (t.kind == quovix_md_term::coulomb) return quovix_force_coulombic(d, t.q, t.r_eff);
    return quovix_force_bonding(d, t.d0, t.rmin, t.b);
}
inline double term_energy(const quovix_md_term &t, double d) {
    if (t.kind == quovix_md_term::coulomb) return quovix_energy_coulombic(d, t.q, t.r_eff);
    return quovix_energy_bonding_with_energy_shift(d, t.d0, t.rmin, t.b, t.en_s);
}

// The counted contacts of one ion, by kind, with what their derivatives need; evaluate()
// writes 14.39964 phi'(d) / d of each into pair_q at its list index.
struct force_batch {
    std::vector<long> bg, cg;                      // list indices
    std::vector<double> bd, bd0, brmin, bb, bout;  // bonded
    std::vector<double> cd, cq, creff, cout;       // Coulomb

    void clear() {
        for (auto *v : {&bg, &cg}) v->clear();
        for (auto *v : {&bd, &bd0, &brmin, &bb, &cd, &cq, &creff}) v->clear();
    }
    void add(long g, double d, const quovix_md_term &t) {
        if (t.kind == quovix_md_term::coulomb) {
            cg.push_back(g);
            cd.push_back(d);
            cq.push_back(t.q);
            creff.push_back(t.r_eff);
        } else {
            bg.push_back(g);
            bd.push_back(d);
            bd0.push_back(t.d0);
            brmin.push_back(t.rmin);
            bb.push_back(t.b);
        }
    }
    void evaluate(double *pair_q) {
        bout.resize(bd.size());
        cout.resize(cd.size());
        quovix_pair_bonding_force_batch(bd.data(), bd0.data(), brmin.data(), bb.data(), bd.size(),
                                        bout.data());
        quovix_pair_coulomb_force_batch(cd.data(), cq.data(), creff.data(), cd.size(), cout.data());
        for (std::size_t k = 0; k < bg.size(); ++k)
            pair_q[bg[k]] = QUOVIX_COULOMB * bout[k] / bd[k];
        for (std::size_t k = 0; k < cg.size(); ++k)
            pair_q[cg[k]] = QUOVIX_COULOMB * cout[k] / cd[k];
    }
};

// Sums of one free ion, filled by one thread.
struct ion_sum {
    double f[3] = {0.0, 0.0, 0.0};
    double e = 0.0;
    double w = 0.0;
    std::vector<double> warnings;  // distances below the warning distance
};

// One image of atom j seen from free ion i: the tests and sums shared by both loops.
struct contact_visitor {
    const QUOVIX_MD *md;
    const quovix_md_state *s;
    bool want_e;
    inline void operator()(long i, long j, const long k[3], ion_sum &out) const {
        const QUOVIX_CELL *cell = md->cell;
        const QUOVIX_ATOM &ai = cell->atom[i];
        const QUOVIX_ATOM &aj = cell->atom[j];
        double v[3];
        const double d = quovix_images::distance(s->frame.a, ai.x, aj.x, k[0], k[1], k[2], v);
        const bool self = j == i && k[0] == 0 && k[1] == 0 && k[2] == 0;
        // Each pair is reported once: from its lower free ion, or from the free one.
        if (d < QUOVIX_MD_WARN_DISTANCE && !self && (!s->is_free[j] || j > i))
            out.warnings.push_back(d);
        const quovix_md_term &t =
            s->table[static_cast<std::size_t>(s->species[i]) * s->total_species + s->species[j]];
        if (t.kind == quovix_md_term::none || !(d <= t.range) || !contact_counts(d, ai, aj)) return;
        const double de = term_force(t, d);
        const double w = (s->is_free[j] ? weight_free : weight_fixed) * ai.occ * aj.occ;
        if (d > 0.0) {  // an exact overlap has no direction
            const double g = QUOVIX_COULOMB * aj.occ * de / d;
            for (int c = 0; c < 3; ++c) out.f[c] -= g * v[c];
        }
        if (want_e) {
            out.e += w * term_energy(t, d);
            out.w -= w * d * de;
        }
    }
};

// v = x_i moved by k . a, less x_j: the arithmetic of quovix_images::distance.
inline void image_vector(const double a[3][3], const double xi[3], const double xj[3],
                         const long k[3], double v[3]) {
    for (int c = 0; c < 3; ++c) {
        const double moved = xi[c] + k[0] * a[0][c] + k[1] * a[1][c] + k[2] * a[2][c];
        v[c] = moved - xj[c];
    }
}

// Adds the per-ion sums in ion order and prints the warnings.
void gather(QUOVIX_MD *md, const std::vector<ion_sum> &sums, double (*f)[3], double *en_p,
            double *virial) {
    const quovix_md_state &s = *md->state;
    double e = 0.0, w = 0.0;
    for (std::size_t n = 0; n < s.free.size(); ++n) {
        const long i = s.free[n];
        if (f != nullptr)
            for (int c = 0; c < 3; ++c) f[i][c] = sums[n].f[c];
        e += sums[n].e;
        w += sums[n].w;
        for (double d : sums[n].warnings)
            std::printf("Warning: unphysically low distance %lf detected at step %ld.\n", d,
                        md->step);
    }
    if (en_p != nullptr) *en_p = e;
    if (virial != nullptr) *virial = w;
}

// Visits the images k of -n..n (n of `nmax`, unbounded when null) of x_j seen from x_i within
// `range` (plus a margin), in the nested order k1, k2, k3: visit(k).
template <class F>
void walk_images(const quovix_images::frame &fr, const double xi[3], const double xj[3],
                 double range, F &&visit) {
    const double delta[3] = {xi[0] - xj[0], xi[1] - xj[1], xi[2] - xj[2]};
    const double r = range + 1e-6;
    long lo[3], hi[3];
    for (int m = 0; m < 3; ++m) {
        const double fm =
            delta[0] * fr.inv[0][m] + delta[1] * fr.inv[1][m] + delta[2] * fr.inv[2][m];
        const double reach = r * fr.g[m] + 1e-9;
        const double a = std::ceil(-fm - reach), b = std::floor(-fm + reach);
        if (!(a <= b) || !(std::fabs(a) < 1e6) || !(std::fabs(b) < 1e6)) return;
        lo[m] = static_cast<long>(a);
        hi[m] = static_cast<long>(b);
    }
    for (long k1 = lo[0]; k1 <= hi[0]; ++k1) {
        for (long k2 = lo[1]; k2 <= hi[1]; ++k2) {
            for (long k3 = lo[2]; k3 <= hi[2]; ++k3) {
                const long k[3] = {k1, k2, k3};
                double v[3];
                const double d = quovix_images::distance(fr.a, xi, xj, k1, k2, k3, v);
                if (d <= r) visit(k);
            }
        }
    }
}

// Radius of the list entries of a pair of species: its range, or the warning distance when it
// does not interact, plus the skin.
double list_radius(const quovix_md_term &t) {
    const double r = t.kind == quovix_md_term::none ? 0.0 : t.range;
    return std::max(r, QUOVIX_MD_WARN_DISTANCE) + QUOVIX_MD_SKIN;
}

bool lists_stale(const QUOVIX_MD *md) {
    const quovix_md_state &s = *md->state;
    if (!s.lists_valid) return true;
    const double limit = 0.5 * QUOVIX_MD_SKIN;
    for (std::size_t n = 0; n < s.free.size(); ++n) {
        const double *x = md->x[s.free[n]];
        const double *b = &s.x_build[3 * n];
        const double dx = x[0] - b[0], dy = x[1] - b[1], dz = x[2] - b[2];
        if (!(dx * dx + dy * dy + dz * dz <= limit * limit)) return true;
    }
    return false;
}

// Pairs the entries (i, j, k) and (j, i, -k) of two free ions (the same contact seen from both
// ends; -k because the lists count translations between unwrapped positions). Each list is
// sorted by (j, k), so the partner is found by bisection.
void link_mirrors(quovix_md_state &s) {
    const std::size_t nf = s.free.size();
    s.list_offset.assign(nf + 1, 0);
    for (std::size_t n = 0; n < nf; ++n)
        s.list_offset[n + 1] = s.list_offset[n] + static_cast<long>(s.lists[n].size());
    s.mirror.assign(static_cast<std::size_t>(s.list_offset[nf]), -1);
    s.pair_q.assign(static_cast<std::size_t>(s.list_offset[nf]), 0.0);
    std::vector<long> free_index(s.is_free.size(), -1);
    for (std::size_t n = 0; n < nf; ++n) free_index[s.free[n]] = static_cast<long>(n);
    const auto before = [](const quovix_md_contact &a, const quovix_md_contact &b) {
        if (a.j != b.j) return a.j < b.j;
        for (int m = 0; m < 3; ++m)
            if (a.k[m] != b.k[m]) return a.k[m] < b.k[m];
        return false;
    };
    const long nfree = static_cast<long>(nf);
#pragma omp parallel for schedule(dynamic, 4)
    for (long n = 0; n < nfree; ++n) {
        const std::vector<quovix_md_contact> &list = s.lists[n];
        for (std::size_t e = 0; e < list.size(); ++e) {
            const long m = free_index[list[e].j];
            if (m < 0) continue;
            quovix_md_contact key;
            key.j = static_cast<int>(s.free[n]);
            for (int c = 0; c < 3; ++c) key.k[c] = -list[e].k[c];
            const std::vector<quovix_md_contact> &other = s.lists[m];
            const auto it = std::lower_bound(other.begin(), other.end(), key, before);
            if (it != other.end() && !before(key, *it))
                s.mirror[s.list_offset[n] + e] = s.list_offset[m] + (it - other.begin());
        }
    }
}

void build_lists(QUOVIX_MD *md) {
    quovix_md_state &s = *md->state;
    const QUOVIX_CELL *cell = md->cell;
    const long nfree = static_cast<long>(s.free.size());
    s.lists.resize(s.free.size());
    s.x_build.resize(3 * s.free.size());
    bool ok = true;
#pragma omp parallel for schedule(dynamic, 1)
    for (long n = 0; n < nfree; ++n) {
        try {
            const long i = s.free[n];
            std::vector<quovix_md_contact> &list = s.lists[n];
            list.clear();
            const long *si = &s.shift[3 * i];
            for (long j = 0; j < cell->total; ++j) {
                const quovix_md_term &t =
                    s.table[static_cast<std::size_t>(s.species[i]) * s.total_species +
                            s.species[j]];
                const long *sj = &s.shift[3 * j];
                walk_images(s.frame, cell->atom[i].x, cell->atom[j].x, list_radius(t),
                            [&](const long k[3]) {
                                quovix_md_contact c;
                                c.j = static_cast<int>(j);
                                for (int m = 0; m < 3; ++m)
                                    c.k[m] = static_cast<int>(k[m] - si[m] + sj[m]);
                                list.push_back(c);
                            });
            }
            for (int m = 0; m < 3; ++m) s.x_build[3 * n + m] = md->x[i][m];
        } catch (...) {
#pragma omp atomic write
            ok = false;
        }
    }
    if (!ok) throw std::bad_alloc();
    s.list_entries = 0;
    for (const std::vector<quovix_md_contact> &list : s.lists)
        s.list_entries += static_cast<long>(list.size());
    link_mirrors(s);
    s.lists_valid = true;
    ++s.list_builds;
}

// Virial of the fixed atoms among themselves (eV), by the image walk of the cut-off.
double framework_virial(const QUOVIX_MD *md) {
    const quovix_md_state &s = *md->state;
    const QUOVIX_CELL *cell = md->cell;
    const long n = cell->total;
    std::vector<double> partial(static_cast<std::size_t>(std::max(n, 0L)), 0.0);
#pragma omp parallel for schedule(dynamic, 4)
    for (long i = 0; i < n; ++i) {
        if (s.is_free[i]) continue;
        const QUOVIX_ATOM &ai = cell->atom[i];
        double w = 0.0;
        for (long j = 0; j < n; ++j) {
            if (s.is_free[j]) continue;
            const QUOVIX_ATOM &aj = cell->atom[j];
            const quovix_md_term &t =
                s.table[static_cast<std::size_t>(s.species[i]) * s.total_species + s.species[j]];
            if (t.kind == quovix_md_term::none) continue;
            quovix_images::for_each_image(s.frame, ai.x, aj.x, t.range,
                                          [&](const double *, double d) {
                                              if (!(d <= t.range) || !contact_counts(d, ai, aj))
                                                  return;
                                              w -= ai.occ * aj.occ * d * term_force(t, d);
                                          });
        }
        partial[i] = w;
    }
    double sum = 0.0;
    for (double w : partial) sum += w;
    return sum * QUOVIX_COULOMB_HALF;
}

}  // namespace

/// Puts the free atoms of the cell at md->x: fractional coordinates x A^-1 wrapped into [0, 1)
/// and converted back (the formulas of the cell's coordinate updates); the integer part taken
/// off is kept as the atom's lattice translation. Fixed atoms stay exactly as read.
int quovix_md_update_cell(QUOVIX_MD *md) {
    if (!valid(md)) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return 1;
    }
    quovix_md_state &s = *md->state;
    const double(*a)[3] = s.frame.a;
    const double(*inv)[3] = s.frame.inv;
    for (long i : s.free) {
        QUOVIX_ATOM &at = md->cell->atom[i];
        const double *x = md->x[i];
        for (int k = 0; k < 3; ++k) {
            const double fk = x[0] * inv[0][k] + x[1] * inv[1][k] + x[2] * inv[2][k];
            double fl = std::floor(fk);
            if (!(std::fabs(fl) < static_cast<double>(max_shift))) {
                std::fprintf(stderr, "Error: position of atom %ld is out of range at step %ld.\n",
                             i, md->step);
                return 1;
            }
            double w = fk - fl;
            if (w >= 1.0) {  // a tiny negative value rounds up to exactly 1.0
                w = 0.0;
                fl += 1.0;
            }
            at.x_f[k] = w;
            s.shift[3 * i + k] = static_cast<long>(fl);
        }
        for (int k = 0; k < 3; ++k)
            at.x[k] = at.x_f[0] * a[0][k] + at.x_f[1] * a[1][k] + at.x_f[2] * a[2][k];
    }
    return 0;
}

/// Plain reference: for every free ion, every atom of the cell and every lattice image -n..n.
int quovix_md_calculate_interaction_plain(QUOVIX_MD *md, double (*f)[3], double *en_p,
                                          double *virial) {
    if (!valid(md)) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("interaction sums", [&]() -> int {
        const quovix_md_state &s = *md->state;
        const long nfree = static_cast<long>(s.free.size());
        std::vector<ion_sum> sums(s.free.size());
        const contact_visitor visit{md, &s, en_p != nullptr || virial != nullptr};
        const long *n = s.frame.n;
#pragma omp parallel for schedule(dynamic, 1)
        for (long q = 0; q < nfree; ++q) {
            const long i = s.free[q];
            for (long j = 0; j < md->cell->total; ++j) {
                for (long k1 = -n[0]; k1 <= n[0]; ++k1) {
                    for (long k2 = -n[1]; k2 <= n[1]; ++k2) {
                        for (long k3 = -n[2]; k3 <= n[2]; ++k3) {
                            const long k[3] = {k1, k2, k3};
                            visit(i, j, k, sums[q]);
                        }
                    }
                }
            }
        }
        gather(md, sums, f, en_p, virial);
        return 0;
    });
}

/// Shipped loop over the neighbour lists (rebuilt here when stale). With the energy or the
/// virial asked for, every entry is evaluated in the plain loop's order, which gives the plain
/// loop's sums exactly. For the forces alone, each contact between two free ions is evaluated
/// once, by the entry of the lower ion (or the lower entry of an ion's own images), and both
/// ends take phi'(d)/d from it: the same forces up to rounding, for half the pair terms.
int quovix_md_calculate_interaction(QUOVIX_MD *md, double (*f)[3], double *en_p, double *virial) {
    if (!valid(md)) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("neighbour lists", [&]() -> int {
        quovix_md_state &s = *md->state;
        if (lists_stale(md)) build_lists(md);
        const long nfree = static_cast<long>(s.free.size());
        std::vector<ion_sum> sums(s.free.size());
        const long *n = s.frame.n;
        // Threads only pay off above a few thousand contacts (a small cell's step is tens of
        // microseconds, comparable to waking a second thread on a busy machine).
        const bool parallel = s.list_entries > parallel_entries;
        // Image of the plain loop for entry c of free ion i; false outside -n..n.
        const auto image = [&](long i, const quovix_md_contact &c, long k[3]) {
            const long *si = &s.shift[3 * i];
            const long *sj = &s.shift[3 * c.j];
            bool inside = true;
            for (int m = 0; m < 3; ++m) {
                k[m] = c.k[m] + si[m] - sj[m];
                inside = inside && k[m] >= -n[m] && k[m] <= n[m];
            }
            return inside;
        };
        if (en_p != nullptr || virial != nullptr || f == nullptr) {
            const contact_visitor visit{md, &s, en_p != nullptr || virial != nullptr};
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
            for (long q = 0; q < nfree; ++q) {
                const long i = s.free[q];
                for (const quovix_md_contact &c : s.lists[q]) {
                    long k[3];
                    if (image(i, c, k)) visit(i, c.j, k, sums[q]);
                }
            }
            gather(md, sums, f, en_p, virial);
            return 0;
        }
        const QUOVIX_CELL *cell = md->cell;
        const double warn2 = QUOVIX_MD_WARN_DISTANCE * QUOVIX_MD_WARN_DISTANCE;
        // Pass 1: phi'(d)/d of the owned entries (14.39964 included; 0 when not counted). The
        // entries that count are gathered per ion by kind and their derivatives evaluated in
        // batches with the vector exp and erfc.
        bool batched = true;
#pragma omp parallel if (parallel)
        {
            force_batch batch;
#pragma omp for schedule(dynamic, 1)
            for (long q = 0; q < nfree; ++q) {
                const long i = s.free[q];
                const QUOVIX_ATOM &ai = cell->atom[i];
                const std::vector<quovix_md_contact> &list = s.lists[q];
                const long first = s.list_offset[q];
                try {
                    batch.clear();
                    for (std::size_t e = 0; e < list.size(); ++e) {
                        const long g = first + static_cast<long>(e);
                        const long partner = s.mirror[g];
                        if (partner >= 0 && partner < g) continue;  // evaluated by its partner
                        s.pair_q[g] = 0.0;
                        const quovix_md_contact &c = list[e];
                        long k[3];
                        if (!image(i, c, k)) continue;
                        const QUOVIX_ATOM &aj = cell->atom[c.j];
                        const quovix_md_term &t =
                            s.table[static_cast<std::size_t>(s.species[i]) * s.total_species +
                                    s.species[c.j]];
                        double v[3];
                        image_vector(s.frame.a, ai.x, aj.x, k, v);
                        const double d2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                        // Far contacts are dropped before the square root (then d > range).
                        const double reach = t.range + 1e-6;
                        if (d2 >= warn2 && (t.kind == quovix_md_term::none || d2 > reach * reach))
                            continue;
                        const double d = std::sqrt(d2);  // as quovix_images::distance does
                        const bool self = c.j == i && k[0] == 0 && k[1] == 0 && k[2] == 0;
                        if (d < QUOVIX_MD_WARN_DISTANCE && !self) sums[q].warnings.push_back(d);
                        if (t.kind == quovix_md_term::none || !(d <= t.range) ||
                            !contact_counts(d, ai, aj) || !(d > 0.0))
                            continue;
                        batch.add(g, d, t);
                    }
                    batch.evaluate(s.pair_q.data());
                } catch (...) {
#pragma omp atomic write
                    batched = false;
                }
            }
        }
        if (!batched) throw std::bad_alloc();
            // Pass 2: each ion gathers its contacts in list order.
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
        for (long q = 0; q < nfree; ++q) {
            const long i = s.free[q];
            const QUOVIX_ATOM &ai = cell->atom[i];
            const std::vector<quovix_md_contact> &list = s.lists[q];
            const long first = s.list_offset[q];
            double fi[3] = {0.0, 0.0, 0.0};
            for (std::size_t e = 0; e < list.size(); ++e) {
                const long g = first + static_cast<long>(e);
                const long partner = s.mirror[g];
                const double pq = s.pair_q[partner >= 0 && partner < g ? partner : g];
                if (pq == 0.0) continue;
                long k[3];
                if (!image(i, list[e], k)) continue;
                const QUOVIX_ATOM &aj = cell->atom[list[e].j];
                double v[3];
                image_vector(s.frame.a, ai.x, aj.x, k, v);
                for (int c = 0; c < 3; ++c) fi[c] -= aj.occ * pq * v[c];
            }
            for (int c = 0; c < 3; ++c) sums[q].f[c] = fi[c];
        }
        gather(md, sums, f, nullptr, nullptr);
        return 0;
    });
}

/// Virial of the fixed atoms among themselves (eV), computed once per run; NaN on failure.
double quovix_md_calculate_virial_framework(QUOVIX_MD *md) {
    if (!valid(md)) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return std::numeric_limits<double>::quiet_NaN();
    }
    quovix_md_state &s = *md->state;
    if (!s.framework_done) {
        const int status = quovix_guard("framework virial", [&]() -> int {
            s.virial_framework = framework_virial(md);
            return 0;
        });
        if (status != 0) return std::numeric_limits<double>::quiet_NaN();
        s.framework_done = true;
    }
    return s.virial_framework;
}

/// Forces on the free atoms (eV/A) into md->f, by the neighbour lists.
double (*quovix_md_calculate_force(QUOVIX_MD *md))[3] {
    if (!valid(md) || md->f == nullptr) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (quovix_md_calculate_interaction(md, md->f, nullptr, nullptr) != 0) {
        std::fputs("Error: quovix_md_calculate_interaction() returns non-zero.\n", stderr);
        return nullptr;
    }
    return md->f;
}

/// Pair table of the run (species x species) and the lattice frame of the cut-off; used by
/// quovix_md_new.
int quovix_md_prepare_interaction(QUOVIX_MD *md) {
    if (!valid(md)) {
        std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("pair tables", [&]() -> int {
        quovix_md_state &s = *md->state;
        QUOVIX_CELL *cell = md->cell;
        QUOVIX_PROPERTY *ppt = md->ppt;
        if (!quovix_images::make_frame(cell, QUOVIX_MD_CUTOFF, s.frame)) return 1;
        const long n = cell->total;
        s.species.assign(static_cast<std::size_t>(n), 0);
        s.is_free.assign(static_cast<std::size_t>(n), 0);
        s.shift.assign(static_cast<std::size_t>(3 * n), 0);
        s.free.clear();
        for (long i = 0; i < n; ++i) {
            const int sp = quovix_property_find_index(ppt, cell->atom[i].type, cell->atom[i].os);
            if (sp < 0) {
                std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
                return 1;
            }
            s.species[i] = sp;
            if (!cell->atom[i].ignored) {
                s.is_free[i] = 1;
                s.free.push_back(i);
            }
        }
        if (n > std::numeric_limits<int>::max()) {
            std::fputs("Error: too many atoms for the neighbour lists.\n", stderr);
            return 1;
        }
        quovix_pair_table shared;
        if (!quovix_pair_table_build(shared, ppt)) {
            std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
            return 1;
        }
        const int total = ppt->total;
        s.total_species = total;
        s.table.assign(shared.terms.size(), quovix_md_term{});
        for (std::size_t k = 0; k < shared.terms.size(); ++k) {
            const quovix_pair_term &p = shared.terms[k];
            quovix_md_term &t = s.table[k];
            if (p.kind == quovix_pair_kind::coulomb) {
                t.q = p.q;
                t.r_eff = ppt->sf * p.rcs;
                // Species without a radius (no parameter line) have no screened term.
                if (t.r_eff > 0.0 && std::isfinite(t.r_eff) && std::isfinite(t.q)) {
                    t.kind = quovix_md_term::coulomb;
                    t.range = QUOVIX_MD_CUTOFF;
                }
            } else if (p.kind == quovix_pair_kind::bonding) {
                t.d0 = p.d0;
                t.rmin = p.rmin;
                t.b = p.b;
                t.en_s = p.en_s;
                // A pair without Morse parameters (no line, no estimate) does not bond.
                if (p.d0 > 0.0 && p.rmin > 0.0 && p.b > 0.0 && p.cutoff > 0.0 &&
                    std::isfinite(p.d0)) {
                    t.kind = quovix_md_term::bonding;
                    t.range = std::min(QUOVIX_MD_CUTOFF, p.cutoff);
                }
            }
        }
        s.lists_valid = false;
        s.framework_done = false;
        return 0;
    });
}
