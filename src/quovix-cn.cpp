// Coordination numbers of a site, three ways:
// - distance shell: the counter-ions (opposite sign of oxidation state) sorted by distance; the
//   first shell is closed where the ratio of consecutive distances d_{k+1}/d_k is largest, the
//   first counter-ion beyond r_max standing for the end of the list, so a lone first shell
//   inside r_max is closed against the next one outside it;
// - bond valence: bonds in decreasing valence until they carry 85 % of the site's bond valence
//   sum; bonds within 1 % of the last one counted also count, so equivalent bonds are never
//   split; a bond of less than 0.05 v.u. never counts. The share is below 100 % because the
//   sum runs over every contact up to the pair cut-off, and with the softness-sensitive b of
//   soft anions the tail beyond the first shell carries 5-15 % of it; the floor keeps that tail
//   out when the first shell alone falls short of the share (tetrahedral Li+). On the
//   structures of the test set this matches a solid-angle neighbour analysis on every cation
//   of a textbook structure, and counts the weak but real bonds of an anion beside a strongly
//   bonded cation (O2- of a phosphate: one P-O bond of 1.1 v.u., three of 0.14-0.3 v.u.);
// - Hoppe's effective coordination number, ECoN = sum exp(1 - (l_i / l_av)^6) with the weighted
//   mean bond length l_av found iteratively (R. Hoppe, Z. Kristallogr. 150 (1979) 23).
// The neighbour search uses the same lattice images as the bond valence sums, so the valences
// here add up to the sums printed by --cal-bv.
#include "quovix-cn.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quovix-images.hpp"
#include "quovix-import.hpp"

namespace {

constexpr double tie_share = 0.99;       // bonds within 1 % of the last counted one also count
constexpr double econ_tolerance = 1e-9;  // A, convergence of Hoppe's mean length
constexpr int econ_iterations = 200;

struct contact {
    long atom;
    long t[3];
    double d;
};

bool same_species(const QUOVIX_ATOM &a, const char *type, int os) {
    return a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0;
}

// Every image of every atom within `range` of the atom `site`, nearest first; ties by atom
// index, then translation, so the order does not depend on the search.
bool collect(std::vector<contact> &out, const QUOVIX_CELL *cell, long site, double range) {
    quovix_images::frame f;
    if (!quovix_images::make_frame(cell, range, f)) return false;
    const double *xs = cell->atom[site].x;
    for (long j = 0; j < cell->total; ++j) {
        const double *xj = cell->atom[j].x;
        quovix_images::for_each_image(f, xj, xs, range, [&](const double *v, double d) {
            if (d < QUOVIX_MIN_CONTACT || d > range) return;
            contact c{j, {0, 0, 0}, d};
            // v = x_j + t.A - x_site, so t = (v - x_j + x_site) A^-1, an integer vector.
            double w[3];
            for (int k = 0; k < 3; ++k) w[k] = v[k] - xj[k] + xs[k];
            for (int m = 0; m < 3; ++m)
                c.t[m] = std::lround(w[0] * f.inv[0][m] + w[1] * f.inv[1][m] + w[2] * f.inv[2][m]);
            out.push_back(c);
        });
    }
    std::sort(out.begin(), out.end(), [](const contact &a, const contact &b) {
        if (a.d != b.d) return a.d < b.d;
        if (a.atom != b.atom) return a.atom < b.atom;
        return std::lexicographical_compare(a.t, a.t + 3, b.t, b.t + 3);
    });
    return true;
}

// Size of the first shell of the sorted distances d[0..m) (those within r_max), with `next`
// the first distance beyond r_max (0 when there is none): the k in 1..m with the largest
// d[k]/d[k-1], the end standing for an infinite gap. Ties go to the smaller shell.
long gap_shell(const std::vector<double> &d, long m, double next) {
    if (m == 0) return 0;
    long best = m;
    double best_ratio = next > 0.0 ? next / d[m - 1] : HUGE_VAL;
    for (long k = m - 1; k >= 1; --k) {
        const double ratio = d[k] / d[k - 1];
        if (ratio >= best_ratio) {
            best_ratio = ratio;
            best = k;
        }
    }
    return best;
}

}  // namespace

QUOVIX_CN *quovix_cn_new(long total) {
    if (total < 0) {
        std::fputs("Error: argument must be non-negative.\n", stderr);
        return nullptr;
    }
    auto *cn = static_cast<QUOVIX_CN *>(std::calloc(1, sizeof(QUOVIX_CN)));
    if (!cn) {
        std::fputs("Error: unable to allocate QUOVIX_CN.\n", stderr);
        return nullptr;
    }
    cn->total = total;
    cn->site = -1;
    if (total > 0) {
        cn->bond = static_cast<QUOVIX_CN_BOND *>(
            std::calloc(static_cast<std::size_t>(total), sizeof(QUOVIX_CN_BOND)));
        if (!cn->bond) {
            std::fputs("Error: unable to allocate cn->bond.\n", stderr);
            std::free(cn);
            return nullptr;
        }
    }
    return cn;
}

void quovix_cn_free(QUOVIX_CN *cn) {
    if (!cn) return;
    std::free(cn->bond);
    std::free(cn);
}

void quovix_cn_print(const QUOVIX_CN *cn) {
    if (!cn) {
        std::puts("CN: (not allocated)");
        return;
    }
    std::printf("CN: site = %ld, r_max = %f, neighbours = %ld\n", cn->site, cn->r_max, cn->total);
    std::printf("CN: shell = %ld (occ %.3f), shell_end = %f, next = %f\n", cn->shell, cn->shell_occ,
                cn->shell_end, cn->next);
    std::printf("CN: bv_sum = %f, cn_bv = %ld, econ = %f\n", cn->bv_sum, cn->cn_bv, cn->econ);
    for (long k = 0; k < cn->total; ++k) {
        const QUOVIX_CN_BOND &b = cn->bond[k];
        std::printf("CN: [%4ld] atom %ld (%ld %ld %ld) d = %f s = %f%s\n", k, b.atom, b.t[0],
                    b.t[1], b.t[2], b.d, b.s, b.inner ? " inner" : "");
    }
}

long quovix_cn_find_atom(const QUOVIX_CELL *cell, const char *name) {
    if (!cell || !cell->atom || !name) return -1;
    for (long k = 0; k < cell->total; ++k)
        if (std::strncmp(cell->atom[k].name, name, QUOVIX_ATOM_NAME_LEN) == 0) return k;
    return -1;
}

double quovix_cn_effective(const double *d, const double *w, long n) {
    if (n <= 0) return 0.0;
    double l_av = *std::min_element(d, d + n);
    auto weight = [&](long i, double l) { return w[i] * std::exp(1.0 - std::pow(d[i] / l, 6)); };
    for (int it = 0; it < econ_iterations; ++it) {
        double num = 0.0, den = 0.0;
        for (long i = 0; i < n; ++i) {
            num += d[i] * weight(i, l_av);
            den += weight(i, l_av);
        }
        const double next = den > 0.0 ? num / den : l_av;
        const bool done = std::fabs(next - l_av) < econ_tolerance;
        l_av = next;
        if (done) break;
    }
    double econ = 0.0;
    for (long i = 0; i < n; ++i) econ += weight(i, l_av);
    return econ;
}

QUOVIX_CN *quovix_cn_calculate(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt, long site,
                               double r_max) {
    if (!cell || !cell->atom || site < 0 || site >= cell->total) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (!ppt || !ppt->bin) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (!(r_max > 0.0 && r_max <= QUOVIX_CN_R_MAX_LIMIT)) {
        std::fprintf(stderr, "Error: r_max must lie in (0, %.1f] A.\n", QUOVIX_CN_R_MAX_LIMIT);
        return nullptr;
    }
    return quovix_guard("QUOVIX_CN", [&]() -> QUOVIX_CN * {
        const QUOVIX_ATOM &centre = cell->atom[site];
        const int self =
            quovix_property_find_index(const_cast<QUOVIX_PROPERTY *>(ppt), centre.type, centre.os);
        // Bonds reach up to the largest cut-off of the site's pairs; the shells look up to
        // twice r_max for the counter-ion that closes them.
        double range = 2.0 * r_max;
        std::vector<int> species(static_cast<std::size_t>(cell->total), -1);
        for (long j = 0; j < cell->total; ++j) {
            const QUOVIX_ATOM &a = cell->atom[j];
            species[j] =
                quovix_property_find_index(const_cast<QUOVIX_PROPERTY *>(ppt), a.type, a.os);
            if (self >= 0 && species[j] >= 0 && static_cast<long>(a.os) * centre.os < 0) {
                const auto &bin =
                    centre.os > 0 ? ppt->bin[self][species[j]] : ppt->bin[species[j]][self];
                range = std::max(range, bin.cutoff);
            }
        }
        range = std::min(range, 2.0 * QUOVIX_CN_R_MAX_LIMIT);
        std::vector<contact> all;
        if (!collect(all, cell, site, range)) return nullptr;

        auto counter = [&](long j) { return static_cast<long>(cell->atom[j].os) * centre.os < 0; };
        auto valence = [&](const contact &c) {
            const QUOVIX_ATOM &a = cell->atom[c.atom];
            if (!counter(c.atom) || self < 0 || species[c.atom] < 0) return 0.0;
            const auto &bin =
                centre.os > 0 ? ppt->bin[self][species[c.atom]] : ppt->bin[species[c.atom]][self];
            if (!(c.d < bin.cutoff) || !(bin.b > 0.0)) return 0.0;
            return std::exp((bin.r0 - c.d) / bin.b) * a.occ;
        };

        long listed = 0;
        while (listed < static_cast<long>(all.size()) && all[listed].d <= r_max) ++listed;
        quovix_cn_ptr cn{quovix_cn_new(listed)};
        if (!cn) {
            std::fputs("Error: quovix_cn_new() returns NULL.\n", stderr);
            return nullptr;
        }
        cn->site = site;
        cn->r_max = r_max;

        // Distance shell of the counter-ions.
        std::vector<double> d;
        std::vector<long> where;
        for (long k = 0; k < listed; ++k) {
            if (!counter(all[k].atom)) continue;
            d.push_back(all[k].d);
            where.push_back(k);
        }
        for (long k = listed; k < static_cast<long>(all.size()); ++k) {
            if (counter(all[k].atom)) {
                cn->next = all[k].d;
                break;
            }
        }
        cn->shell = gap_shell(d, static_cast<long>(d.size()), cn->next);
        for (long k = 0; k < listed; ++k) {
            QUOVIX_CN_BOND &b = cn->bond[k];
            b.atom = all[k].atom;
            std::copy(all[k].t, all[k].t + 3, b.t);
            b.d = all[k].d;
            b.s = valence(all[k]);
        }
        for (long k = 0; k < cn->shell; ++k) {
            cn->bond[where[k]].inner = true;
            cn->shell_occ += cell->atom[all[where[k]].atom].occ;
            cn->shell_end = all[where[k]].d;
        }

        // Bond valence: every bond within its cut-off, strongest first.
        std::vector<double> s;
        std::vector<double> ld, lw;
        for (const contact &c : all) {
            const double v = valence(c);
            if (v > 0.0) s.push_back(v);
            if (counter(c.atom)) {
                ld.push_back(c.d);
                lw.push_back(cell->atom[c.atom].occ);
            }
        }
        std::sort(s.begin(), s.end(), [](double a, double b) { return a > b; });
        for (double v : s) cn->bv_sum += v;
        double carried = 0.0;
        long count = 0;
        const long nb = static_cast<long>(s.size());
        while (count < nb && carried < QUOVIX_CN_BV_SHARE * cn->bv_sum &&
               s[count] >= QUOVIX_CN_BV_MIN)
            carried += s[count++];
        while (count > 0 && count < nb && s[count] >= tie_share * s[count - 1]) ++count;
        cn->cn_bv = count;
        cn->econ = quovix_cn_effective(ld.data(), lw.data(), static_cast<long>(ld.size()));
        return cn.release();
    });
}

int quovix_cn_average_by_type(double *average, long *count, const QUOVIX_CELL *cell,
                              const char *type1, int os1, const char *type2, int os2,
                              double r_max) {
    if (!average || !count || !cell || !cell->atom || !type1 || !type2) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!(r_max > 0.0 && r_max <= QUOVIX_CN_R_MAX_LIMIT)) {
        std::fprintf(stderr, "Error: r_max must lie in (0, %.1f] A.\n", QUOVIX_CN_R_MAX_LIMIT);
        return 1;
    }
    return quovix_guard("coordination tables", [&]() -> int {
        double sum = 0.0, weight = 0.0;
        long n = 0;
        for (long i = 0; i < cell->total; ++i) {
            if (!same_species(cell->atom[i], type1, os1)) continue;
            std::vector<contact> all;
            if (!collect(all, cell, i, 2.0 * r_max)) return 1;
            std::vector<double> d;
            std::vector<double> occ;
            double next = 0.0;
            for (const contact &c : all) {
                if (!same_species(cell->atom[c.atom], type2, os2)) continue;
                if (c.d > r_max) {
                    next = c.d;
                    break;
                }
                d.push_back(c.d);
                occ.push_back(cell->atom[c.atom].occ);
            }
            const long shell = gap_shell(d, static_cast<long>(d.size()), next);
            double cn = 0.0;
            for (long k = 0; k < shell; ++k) cn += occ[k];
            sum += cell->atom[i].occ * cn;
            weight += cell->atom[i].occ;
            ++n;
        }
        *count = n;
        *average = weight > 0.0 ? sum / weight : 0.0;
        return 0;
    });
}
