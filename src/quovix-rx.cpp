// Cell energies: interatomic pair energy, diagonal stress, screening-factor fit, and the
// bond-valence embedding energy with its analytic forces.
//
// Pair rules shared by every sum here:
//  - search radius R = max(12 A, largest pair cut-off); lattice images -n..n per axis with
//    n = trunc(2 + R / |a_k|);
//  - ordered pairs (i, j), i = j included, atom i skipped when `ignored` (atom j never tested);
//  - a contact closer than 0.2 A counts only when occ_i + occ_j > 1 and the symbols differ (an
//    impossible overlap, charged in full);
//  - like-charged pairs: screened Coulomb within R; cation-anion pairs: shifted Morse within the
//    pair's cut-off; pairs involving os = 0: nothing;
//  - reduced units (e^2/A) become eV through 7.19982 eV*A, half the Coulomb constant, the half
//    compensating the double sum over ordered pairs.
//
// Speed: the plain triple loop over atoms, atoms and all (2n+1)^3 images is kept as
// quovix_cell_calculate_total_energy_reference. The shipped sums find each atom's contacts in a
// binned cloud of the images near the home cell (image_cloud): the same contacts, tested on
// the plain loop's own distances near every threshold. Atoms are distributed over threads
// with OpenMP; each atom's partial sum is accumulated by one thread in a fixed order and the
// partial sums are added in atom order, so results do not depend on the number of threads.
// The screening-factor fit keeps the contacts of its six strained cells between iterations.
// The pair constants come from the shared table (quovix_pair_table_build). These sums keep the
// scalar exp and erfc rather than the vector kernel of the landscape: their time goes mostly
// into finding and sorting contacts, not into the pair functions (exp and erfc are under a
// fifth of --cal-tot-en), and the fit's printed pressures are differences of large energies,
// where the kernel's last-place differences would be amplified five-thousandfold by the 1e-4
// strain.
#include "quovix-rx.hpp"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quovix-images.hpp"
#include "quovix-import.hpp"
#include "quovix-pair.hpp"

namespace {

constexpr double min_energy_range = 12.0;  // A, smallest search radius of energy sums
constexpr double close_contact = QUOVIX_MIN_CONTACT;
constexpr double strain_step = 0.0001;  // central-difference strain of the stress
constexpr double default_sf = 0.75;
constexpr double sf_lower = 0.55, sf_upper = 1.0;
constexpr int max_fit_iterations = 100;
constexpr double fit_tolerance = 0.001 * 0.5;
// Above this estimated number of Coulomb contacts the fit does not keep contact lists in
// memory (8 bytes each in a fully occupied cell, 24 otherwise) and evaluates the energy
// directly instead.
constexpr double max_cached_contacts = 2.0e7;

using quovix_images::frame;
using quovix_images::make_frame;

inline bool contact_counts(double d, const QUOVIX_ATOM &ai, const QUOVIX_ATOM &aj) {
    return d >= close_contact ||
           (ai.occ + aj.occ > 1.0 && std::strncmp(ai.type, aj.type, QUOVIX_TYPE_LEN) != 0);
}

bool valid_input(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt) {
    return cell != nullptr && ppt != nullptr && (cell->total <= 0 || cell->atom != nullptr) &&
           ppt->total > 0 && ppt->uni != nullptr && ppt->bin != nullptr && ppt->type != nullptr &&
           ppt->os != nullptr;
}

double energy_range(const QUOVIX_PROPERTY *ppt) {
    double r = min_energy_range;
    for (int i = 0; i < ppt->total; ++i)
        for (int j = 0; j < ppt->total; ++j) r = std::max(r, ppt->bin[i][j].cutoff);
    return r;
}

// Species index of every atom; prints the lookup failure.
[[nodiscard]] bool species_of_atoms(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, std::vector<int> &sp) {
    sp.resize(static_cast<std::size_t>(std::max(cell->total, 0L)));
    for (long k = 0; k < cell->total; ++k) {
        sp[k] = quovix_property_find_index(ppt, cell->atom[k].type, cell->atom[k].os);
        if (sp[k] < 0) {
            std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
            return false;
        }
    }
    return true;
}

using term_kind = quovix_pair_kind;

// A term of the shared pair table with the range this sum gives it: the pair's cut-off for a
// bond, the search radius for a like-charged pair.
struct pair_term : quovix_pair_term {
    double range = 0.0;  // a contact counts when d <= range
};

std::vector<pair_term> pair_table(const QUOVIX_PROPERTY *ppt, double range) {
    quovix_pair_table shared;
    if (!quovix_pair_table_build(shared, ppt)) return {};
    std::vector<pair_term> table(shared.terms.size());
    for (std::size_t k = 0; k < table.size(); ++k) {
        static_cast<quovix_pair_term &>(table[k]) = shared.terms[k];
        if (table[k].kind == term_kind::coulomb) table[k].range = range;
        if (table[k].kind == term_kind::bonding) table[k].range = table[k].cutoff;
    }
    return table;
}

// Screened Coulomb energy quovix_energy_coulombic(x, q, r_eff) with its 10 A shift
// q erfc(10 / r_eff) / 10 computed once per pair of species. Beyond x / r_eff = 6 the screened
// term is dropped without evaluating erfc: erfc(6) = 2.2e-17, so each dropped term is below
// 2.2e-17 q / x (reduced units), many orders below the 1e-9 relative agreement with the
// plain loop even summed over millions of contacts. Otherwise the expression is the same.
inline double coulomb_energy(double x, double q, double r_eff, double shift) {
    const double t = x / r_eff;
    return (t > 6.0 ? 0.0 : q * std::erfc(t) / x) - shift;
}

inline double coulomb_shift(double q, double r_eff) {
    return quovix_energy_coulombic_shift(q, r_eff);
}

// Energy of one contact; `shift` is the pair's Coulomb shift at the current sf.
inline double term_energy(const pair_term &t, double d, double sf, double shift) {
    if (t.kind == term_kind::coulomb) return coulomb_energy(d, t.q, sf * t.rcs, shift);
    return quovix_energy_bonding_with_energy_shift(d, t.d0, t.rmin, t.b, t.en_s);
}

// Coulomb shifts of every pair term at a screening factor.
std::vector<double> coulomb_shifts(const std::vector<pair_term> &table, double sf) {
    std::vector<double> shift(table.size(), 0.0);
    for (std::size_t k = 0; k < table.size(); ++k) {
        if (table[k].kind == term_kind::coulomb)
            shift[k] = coulomb_shift(table[k].q, sf * table[k].rcs);
    }
    return shift;
}

inline double term_force(const pair_term &t, double d, double sf) {
    if (t.kind == term_kind::coulomb) return quovix_force_coulombic(d, t.q, sf * t.rcs);
    return quovix_force_bonding(d, t.d0, t.rmin, t.b);
}

// Periodic images of the atoms near the home cell, binned on a grid, for the neighbour search
// of the shipped sums. Image (j, k) stands for the plain loop's contact of atom i with atom j
// across the translation T = k.A: it sits at x_j - T, and is kept when it lies within the
// search radius of the box around the home atoms. Within a bin the images keep the plain order
// (atom j, then k1, k2, k3) and bins are visited in a fixed order, so the contacts of an atom
// are always summed in the same order. The image position only preselects candidates; the
// distance of a candidate is then computed from x_i, k and x_j exactly as the plain loop does,
// so both apply their tests to the same numbers.
struct image_cloud {
    std::vector<double> px, py, pz;  // image positions, in bin order
    std::vector<double> k;           // 3 translation indices per image
    std::vector<int> atom;           // source atom of each image
    std::vector<int> sp;             // its species
    std::vector<long> start;         // first image of each bin; bins + 1 entries
    double origin[3] = {0.0, 0.0, 0.0};
    double edge = 1.0;
    long nb[3] = {0, 0, 0};
};

// Largest number of bins of a cloud; a coarser grid is used beyond it.
constexpr double max_bins = 4.0e6;

bool finite_position(const double x[3]) {
    return std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]);
}

void build_cloud(const QUOVIX_CELL *cell, const frame &f, double range,
                 const std::vector<int> &species, image_cloud &c) {
    double lo[3] = {0.0, 0.0, 0.0}, hi[3] = {0.0, 0.0, 0.0};
    bool any = false;
    for (long j = 0; j < cell->total; ++j) {
        const double *x = cell->atom[j].x;
        if (!finite_position(x)) continue;  // such an atom has no contacts
        for (int m = 0; m < 3; ++m) {
            lo[m] = any ? std::min(lo[m], x[m]) : x[m];
            hi[m] = any ? std::max(hi[m], x[m]) : x[m];
        }
        any = true;
    }
    c.start.assign(1, 0);
    if (!any) return;
    const double reach = range + 1e-3;
    double extent[3], bins = 1.0;
    c.edge = std::max(range / 3.0, 0.5);
    for (int m = 0; m < 3; ++m) {
        c.origin[m] = lo[m] - reach;
        extent[m] = hi[m] - lo[m] + 2.0 * reach;
        bins *= std::ceil(extent[m] / c.edge);
    }
    if (bins > max_bins) c.edge *= std::cbrt(bins / max_bins) * 1.01;
    for (int m = 0; m < 3; ++m)
        c.nb[m] = std::max(1L, static_cast<long>(std::ceil(extent[m] / c.edge)));
    const long nbins = c.nb[0] * c.nb[1] * c.nb[2];
    // Every kept image in the plain order (atom j, then k1, k2, k3) with its bin. Two passes
    // over the images, one counting and one filling, write the cloud without intermediate
    // lists; both compute the same numbers (no FMA contraction in this build).
    auto for_each_image = [&](auto &&visit) {
        for (long j = 0; j < cell->total; ++j) {
            const double *x = cell->atom[j].x;
            if (!finite_position(x)) continue;
            for (long k1 = -f.n[0]; k1 <= f.n[0]; ++k1) {
                for (long k2 = -f.n[1]; k2 <= f.n[1]; ++k2) {
                    for (long k3 = -f.n[2]; k3 <= f.n[2]; ++k3) {
                        double y[3];
                        bool inside = true;
                        for (int m = 0; m < 3; ++m) {
                            y[m] = x[m] - (k1 * f.a[0][m] + k2 * f.a[1][m] + k3 * f.a[2][m]);
                            inside = inside && y[m] >= lo[m] - reach && y[m] <= hi[m] + reach;
                        }
                        if (!inside) continue;
                        long b[3];
                        for (int m = 0; m < 3; ++m) {
                            const long q = static_cast<long>((y[m] - c.origin[m]) / c.edge);
                            b[m] = std::clamp(q, 0L, c.nb[m] - 1);
                        }
                        visit((b[0] * c.nb[1] + b[1]) * c.nb[2] + b[2], y, j, k1, k2, k3);
                    }
                }
            }
        }
    };
    c.start.assign(static_cast<std::size_t>(nbins) + 1, 0);
    std::size_t count = 0;
    for_each_image([&](long bin, const double *, long, long, long, long) {
        ++c.start[static_cast<std::size_t>(bin) + 1];
        ++count;
    });
    for (long b = 0; b < nbins; ++b) c.start[b + 1] += c.start[b];
    std::vector<long> fill(c.start.begin(), c.start.end() - 1);
    c.px.resize(count);
    c.py.resize(count);
    c.pz.resize(count);
    c.k.resize(3 * count);
    c.atom.resize(count);
    c.sp.resize(count);
    // Stable: the plain order inside each bin.
    for_each_image([&](long bin, const double *y, long j, long k1, long k2, long k3) {
        const auto at = static_cast<std::size_t>(fill[static_cast<std::size_t>(bin)]++);
        c.px[at] = y[0];
        c.py[at] = y[1];
        c.pz[at] = y[2];
        c.k[3 * at] = static_cast<double>(k1);
        c.k[3 * at + 1] = static_cast<double>(k2);
        c.k[3 * at + 2] = static_cast<double>(k3);
        c.atom[at] = static_cast<int>(j);
        c.sp[at] = species[static_cast<std::size_t>(j)];
    });
}

// Everything a shipped pair sum needs; built once per call.
struct pair_setup {
    frame f{};
    image_cloud cloud;
    double range = 0.0;
    std::vector<int> sp;
    std::vector<pair_term> table;
    int total = 0;
    const pair_term &term(long i, long j) const {
        return table[static_cast<std::size_t>(sp[i]) * total + sp[j]];
    }
};

// Everything of a setup but the image cloud; prints the cause of a failure.
[[nodiscard]] bool prepare_setup(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, pair_setup &s) {
    s.range = energy_range(ppt);
    if (!make_frame(cell, s.range, s.f)) return false;
    if (!species_of_atoms(cell, ppt, s.sp)) return false;
    s.table = pair_table(ppt, s.range);
    s.total = ppt->total;
    return true;
}

[[nodiscard]] bool make_setup(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, pair_setup &s) {
    if (!prepare_setup(cell, ppt, s)) return false;
    build_cloud(cell, s.f, s.range, s.sp, s.cloud);
    return true;
}

// Visits every counted contact of atom i: visit(j, term, d, v) with v = x_i + T - x_j, for the
// images within the pair's range: the same contacts as the plain loop, in the cloud's order,
// with d and v equal to the plain loop's up to rounding.
// The bins of one grid row are contiguous, so each row is screened in chunks by a plain loop
// over the image coordinates that the compiler vectorises.
template <class F>
void for_each_contact(const QUOVIX_CELL *cell, const pair_setup &s, long i, F &&visit) {
    const QUOVIX_ATOM &ai = cell->atom[i];
    const double *x = ai.x;
    const image_cloud &c = s.cloud;
    if (!finite_position(x) || c.atom.empty()) return;
    const double(*a)[3] = s.f.a;
    const double r = s.range + 1e-3;  // preselection margin, far above rounding
    const double r2 = r * r;
    long lo[3], hi[3];
    for (int m = 0; m < 3; ++m) {
        lo[m] = std::clamp(static_cast<long>(std::floor((x[m] - r - c.origin[m]) / c.edge)), 0L,
                           c.nb[m] - 1);
        hi[m] = std::clamp(static_cast<long>(std::floor((x[m] + r - c.origin[m]) / c.edge)), 0L,
                           c.nb[m] - 1);
    }
    // Preselection radius per species of the partner (negative: no interaction).
    const pair_term *terms = &s.table[static_cast<std::size_t>(s.sp[i]) * s.total];
    double reach2[64];
    const bool small = s.total <= 64;
    if (small) {
        for (int t = 0; t < s.total; ++t) {
            const double rt = terms[t].range + 1e-3;
            reach2[t] = terms[t].kind == term_kind::none ? -1.0 : rt * rt;
        }
    }
    constexpr long chunk = 128;
    double d2[chunk];
    for (long b0 = lo[0]; b0 <= hi[0]; ++b0) {
        const double g0 = std::max(
            {0.0, c.origin[0] + b0 * c.edge - x[0], x[0] - (c.origin[0] + (b0 + 1) * c.edge)});
        for (long b1 = lo[1]; b1 <= hi[1]; ++b1) {
            const double g1 = std::max(
                {0.0, c.origin[1] + b1 * c.edge - x[1], x[1] - (c.origin[1] + (b1 + 1) * c.edge)});
            if (g0 * g0 + g1 * g1 > r2) continue;
            const long row = (b0 * c.nb[1] + b1) * c.nb[2];
            const long first = c.start[row + lo[2]], last = c.start[row + hi[2] + 1];
            for (long base = first; base < last; base += chunk) {
                const long n = std::min(chunk, last - base);
                const double *px = &c.px[base], *py = &c.py[base], *pz = &c.pz[base];
                for (long q = 0; q < n; ++q) {
                    const double u0 = x[0] - px[q], u1 = x[1] - py[q], u2 = x[2] - pz[q];
                    d2[q] = u0 * u0 + u1 * u1 + u2 * u2;
                }
                for (long q = 0; q < n; ++q) {
                    if (d2[q] > r2) continue;
                    const long k = base + q;
                    const int sj = c.sp[k];
                    if (small && !(d2[q] <= reach2[sj])) continue;
                    const pair_term &t = terms[sj];
                    if (t.kind == term_kind::none) continue;
                    const long j = c.atom[k];
                    double v[3] = {x[0] - c.px[k], x[1] - c.py[k], x[2] - c.pz[k]};
                    double d = std::sqrt(d2[q]);
                    // The image position differs from the plain loop's arithmetic by rounding
                    // only (~1e-15 A). Near a threshold the decision is taken on the plain
                    // loop's own distance, (x_i + k1 a1 + k2 a2 + k3 a3) - x_j.
                    if (std::fabs(d - t.range) < 1e-9 || std::fabs(d - close_contact) < 1e-9) {
                        const double *kv = &c.k[3 * k];
                        const double *xj = cell->atom[j].x;
                        for (int m = 0; m < 3; ++m) {
                            v[m] = (x[m] + kv[0] * a[0][m] + kv[1] * a[1][m] + kv[2] * a[2][m]) -
                                   xj[m];
                        }
                        d = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
                    }
                    if (!(d <= t.range) || !contact_counts(d, ai, cell->atom[j])) continue;
                    visit(j, t, d, v);
                }
            }
        }
    }
}

// Interatomic energy (reduced units, before the 7.19982 factor) with per-atom partial sums.
double pair_energy_sum(const QUOVIX_CELL *cell, const pair_setup &s, double sf) {
    const long n = cell->total;
    std::vector<double> partial(static_cast<std::size_t>(n), 0.0);
    const std::vector<double> shift = coulomb_shifts(s.table, sf);
#pragma omp parallel for schedule(dynamic, 4)
    for (long i = 0; i < n; ++i) {
        if (cell->atom[i].ignored) continue;
        const double occ_i = cell->atom[i].occ;
        double e = 0.0;
        for_each_contact(cell, s, i, [&](long j, const pair_term &t, double d, const double *) {
            e += occ_i * cell->atom[j].occ *
                 term_energy(t, d, sf, shift[static_cast<std::size_t>(&t - s.table.data())]);
        });
        partial[i] = e;
    }
    double sum = 0.0;
    for (long i = 0; i < n; ++i) sum += partial[i];
    return sum;
}

// ---------------------------------------------------------------------------------------------
// Contact lists for the screening-factor fit: the geometry of the six strained cells does not
// change between iterations, only sf does, which enters the Coulomb terms alone. The bonding
// energy of every atom is summed once; its Coulomb contacts are kept per partner species,
// sorted by distance, with the total weight of each list's tail, so that an iteration
// evaluates erfc only for the contacts with d / r_eff <= 6 and subtracts the shift of the
// others at once (see coulomb_energy).
// Everything is kept per atom, and the atoms of the six cells form one list of independent
// work items: one parallel region builds the cells' image clouds and then sorts all lists
// (in per-thread pools), and one parallel loop per iteration gives every atom's energy in all
// six cells, each item summed by one thread in a fixed order, the items then added in atom
// order. Nothing of the fit runs on one core only, and each iteration meets the other threads
// once. Reading the parameter files, building the lists and freeing them are what remains
// serial around it.
// ---------------------------------------------------------------------------------------------
struct atom_contacts {
    double bond = 0.0;  // bonding energy of the atom's contacts (reduced units)
    // The n Coulomb contacts, grouped by partner species and sorted by distance within a
    // group, as three arrays in one block of a pool: d[0..n), w[n..2n) (occ_i occ_j), and
    // tail[2n..3n), the total weight of a contact and the farther ones of its group. In a
    // fully occupied cell every weight is 1 and the tail of a contact is the count of the
    // group's contacts from it on, so the block holds d alone: a third of the memory, whose
    // first touch is a good part of the lists' cost. The groups' bounds are kept by the cell
    // (fit_models::groups).
    std::size_t pool = 0, offset = 0, n = 0;
};

struct fit_models {
    std::vector<pair_setup> setups;                 // one per strained cell
    std::vector<std::vector<atom_contacts>> atoms;  // [cell][atom]
    // The blocks of the contact lists, one pool per thread that built them: a few large
    // buffers instead of one small one per atom, cheap to allocate and to free.
    std::vector<std::vector<double>> pools;
    double expected_contacts = 0.0;  // estimate of all cells' contacts
    bool unit_weights = false;       // every atom fully occupied: blocks hold d alone
    std::size_t arrays() const { return unit_weights ? 1 : 3; }
    const double *block(const atom_contacts &a) const { return pools[a.pool].data() + a.offset; }
    // [cell][atom * (species + 1) + g]: first contact of partner species g in the atom's lists,
    // the last entry their end (all 0 for an ignored atom).
    std::vector<std::vector<std::uint32_t>> groups;
    std::size_t stride = 0;   // species + 1
    std::vector<long> first;  // first work item of each cell; cells + 1
    std::size_t cell_of(long item) const {
        return static_cast<std::size_t>(std::upper_bound(first.begin(), first.end(), item) -
                                        first.begin() - 1);
    }
};

// A Coulomb contact while the lists are built: `order` is its rank in the visiting order, which
// breaks ties of distance so that the sorted lists do not depend on the sort algorithm.
struct found_contact {
    double d;
    double w;
    std::uint32_t order;
};

// The contact lists of atom i of a cell; `scratch` is the calling thread's work space.
// `start` receives the bounds of the species groups (species + 1 entries).
void build_atom_contacts(const QUOVIX_CELL *cell, const pair_setup &s, long i, bool unit_weights,
                         atom_contacts &out, std::uint32_t *start,
                         std::vector<std::vector<found_contact>> &scratch,
                         std::vector<double> &pool) {
    if (cell->atom[i].ignored) return;
    const double occ_i = cell->atom[i].occ;
    scratch.resize(static_cast<std::size_t>(s.total));
    for (auto &list : scratch) list.clear();
    double e = 0.0;
    std::uint32_t order = 0;
    std::size_t count = 0;
    for_each_contact(cell, s, i, [&](long j, const pair_term &t, double d, const double *) {
        const double w = occ_i * cell->atom[j].occ;
        if (t.kind == term_kind::coulomb) {
            scratch[static_cast<std::size_t>(s.sp[j])].push_back({d, w, order++});
            ++count;
        } else {
            e += w * term_energy(t, d, 0.0, 0.0);
        }
    });
    out.bond = e;
    out.offset = pool.size();
    out.n = count;
    pool.resize(pool.size() + (unit_weights ? 1 : 3) * count);
    double *d = pool.data() + out.offset, *w = d + count, *tail = w + count;
    std::size_t n = 0;
    start[0] = 0;
    for (auto &list : scratch) {
        std::sort(list.begin(), list.end(), [](const found_contact &x, const found_contact &y) {
            return x.d < y.d || (x.d == y.d && x.order < y.order);
        });
        const std::size_t first = n;
        for (const found_contact &f : list) d[n++] = f.d;
        if (!unit_weights) {
            double sum = 0.0;
            for (std::size_t k = n; k > first; --k) {
                w[k - 1] = list[k - 1 - first].w;
                sum += w[k - 1];
                tail[k - 1] = sum;
            }
        }
        start[&list - scratch.data() + 1] = static_cast<std::uint32_t>(n);
    }
}

[[nodiscard]] bool build_fit_models(const std::vector<quovix_cell_ptr> &copies,
                                    QUOVIX_PROPERTY *ppt, fit_models &fm) {
    const std::size_t cells = copies.size();
    fm.setups.resize(cells);
    fm.atoms.resize(cells);
    fm.first.assign(1, 0);
    fm.groups.resize(cells);
    // The strained copies have the atoms, species and pair table of the first: only their
    // frames differ. Failures print their reason once; the image clouds, the costly part, are
    // built on all threads.
    if (cells == 0 || !prepare_setup(copies[0].get(), ppt, fm.setups[0])) return false;
    for (std::size_t c = 1; c < cells; ++c) {
        pair_setup &s = fm.setups[c];
        s.range = fm.setups[0].range;
        if (!make_frame(copies[c].get(), s.range, s.f)) return false;
        s.sp = fm.setups[0].sp;
        s.table = fm.setups[0].table;
        s.total = fm.setups[0].total;
    }
    fm.stride = static_cast<std::size_t>(fm.setups[0].total) + 1;
    for (std::size_t c = 0; c < cells; ++c) {
        fm.atoms[c].resize(static_cast<std::size_t>(std::max(copies[c]->total, 0L)));
        fm.groups[c].assign(fm.atoms[c].size() * fm.stride, 0);
        fm.first.push_back(fm.first.back() + static_cast<long>(fm.atoms[c].size()));
    }
    const long items = fm.first.back();
    const QUOVIX_CELL *base = copies[0].get();
    fm.unit_weights = std::all_of(base->atom, base->atom + std::max(base->total, 0L),
                                  [](const QUOVIX_ATOM &a) { return a.occ == 1.0; });
    bool ok = true;
    fm.pools.resize(static_cast<std::size_t>(omp_get_max_threads()));
    // One parallel region for the image clouds and the lists, without a barrier between them:
    // a thread that has no cloud left to build goes on to the lists, waiting only for the
    // cloud of the cell it takes. Every cloud is claimed before any thread leaves the first
    // loop, and building one waits for nothing, so the waits end. A thread that starts late
    // (the first parallel region of a run starts the worker threads) joins the lists instead
    // of holding up the others at a barrier.
    std::vector<std::atomic<bool>> built(cells);
    for (auto &flag : built) flag.store(false);
#pragma omp parallel
    {
#pragma omp for schedule(dynamic, 1) nowait
        for (long c = 0; c < static_cast<long>(cells); ++c) {
            pair_setup &s = fm.setups[static_cast<std::size_t>(c)];
            try {
                build_cloud(copies[c].get(), s.f, s.range, s.sp, s.cloud);
            } catch (...) {
#pragma omp atomic write
                ok = false;
            }
            built[static_cast<std::size_t>(c)].store(true, std::memory_order_release);
        }
        std::vector<std::vector<found_contact>> scratch;
        const auto me = static_cast<std::size_t>(omp_get_thread_num());
        std::vector<double> &pool = fm.pools[me];
        // Room for this thread's share of the lists (an upper estimate: every pair within the
        // search radius), so that the pool seldom grows.
        try {
            pool.reserve(
                static_cast<std::size_t>(static_cast<double>(fm.arrays()) * fm.expected_contacts /
                                         static_cast<double>(omp_get_num_threads())));
        } catch (...) {
        }
#pragma omp for schedule(dynamic, 4)
        for (long it = 0; it < items; ++it) {
            const std::size_t c = fm.cell_of(it);
            const long i = it - fm.first[c];
            while (!built[c].load(std::memory_order_acquire)) {
            }
            bool cloud_ok;
#pragma omp atomic read
            cloud_ok = ok;
            if (!cloud_ok) continue;
            try {
                const auto at = static_cast<std::size_t>(i);
                fm.atoms[c][at].pool = me;
                build_atom_contacts(copies[c].get(), fm.setups[c], i, fm.unit_weights,
                                    fm.atoms[c][at], &fm.groups[c][at * fm.stride], scratch, pool);
            } catch (...) {
#pragma omp atomic write
                ok = false;
            }
        }
    }
    if (!ok) {
        std::fputs("Error: unable to allocate contact lists.\n", stderr);
        return false;
    }
    return true;
}

// Energy (reduced units) of one atom's contacts at screening factor sf. With unit weights the
// products w * E and tail * shift are E and count * shift exactly, so both layouts give the
// same sums.
template <bool unit_weights>
double atom_energy(const atom_contacts &a, const double *block, const std::uint32_t *start,
                   std::size_t groups, const pair_term *terms, const double *shift, double sf) {
    double e = a.bond;
    const double *d = block, *w = d + a.n, *tail = w + a.n;
    for (std::size_t g = 0; g < groups; ++g) {
        const std::uint32_t begin = start[g], end = start[g + 1];
        if (begin == end) continue;
        const pair_term &t = terms[g];
        const double r_eff = sf * t.rcs;
        // Contacts beyond d / r_eff = 6 carry only the shift.
        const double *cut = std::partition_point(d + begin, d + end,
                                                 [r_eff](double x) { return !(x / r_eff > 6.0); });
        const auto screened = static_cast<std::uint32_t>(cut - d);
        if constexpr (unit_weights) {
            for (std::uint32_t c = begin; c < screened; ++c)
                e += coulomb_energy(d[c], t.q, r_eff, shift[g]);
            if (screened < end) e -= static_cast<double>(end - screened) * shift[g];
        } else {
            for (std::uint32_t c = begin; c < screened; ++c)
                e += w[c] * coulomb_energy(d[c], t.q, r_eff, shift[g]);
            if (screened < end) e -= tail[screened] * shift[g];
        }
    }
    return e;
}

// Energies (eV) of the six strained cells at screening factor sf.
void fit_energies(const fit_models &fm, const std::vector<quovix_cell_ptr> &copies, double sf,
                  std::vector<double> &energy) {
    const long items = fm.first.back();
    std::vector<double> partial(static_cast<std::size_t>(items), 0.0);
    // The pair table is the same for every cell; the shifts of species i's row are those of
    // its terms (i, j).
    const pair_setup &s0 = fm.setups.front();
    const std::vector<double> shift_all = coulomb_shifts(s0.table, sf);
#pragma omp parallel for schedule(dynamic, 8)
    for (long it = 0; it < items; ++it) {
        const std::size_t c = fm.cell_of(it);
        const auto i = static_cast<std::size_t>(it - fm.first[c]);
        const std::size_t row = static_cast<std::size_t>(fm.setups[c].sp[i]) * s0.total;
        const auto energy_of = fm.unit_weights ? atom_energy<true> : atom_energy<false>;
        partial[static_cast<std::size_t>(it)] =
            energy_of(fm.atoms[c][i], fm.block(fm.atoms[c][i]), &fm.groups[c][i * fm.stride],
                      fm.stride - 1, &s0.table[row], &shift_all[row], sf);
    }
    energy.assign(copies.size(), 0.0);
    for (std::size_t c = 0; c < copies.size(); ++c) {
        double sum = 0.0;
        for (long it = fm.first[c]; it < fm.first[c + 1]; ++it)
            sum += partial[static_cast<std::size_t>(it)];
        energy[c] = sum * QUOVIX_COULOMB_HALF;
    }
}

// Rough number of Coulomb contacts of a cell: atoms x atoms inside the search sphere.
double estimated_contacts(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    const double volume = std::fabs(quovix_cell_calculate_volume(cell));
    const double r = energy_range(ppt);
    const double n = static_cast<double>(cell->total);
    if (!(volume > 0.0)) return 1e300;
    return n * (n / volume) * (4.0 / 3.0 * 3.141592653589793 * r * r * r) + n;
}

// The six strained copies of the stress, in the order (axis 1, -eps), (axis 1, +eps), ...
[[nodiscard]] bool strained_copies(QUOVIX_CELL *cell, std::vector<quovix_cell_ptr> &copies) {
    for (int k = 0; k < 3; ++k) {
        for (int sign = -1; sign <= 1; sign += 2) {
            quovix_cell_ptr copy{quovix_cell_copy(cell)};
            if (!copy) {
                std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
                return false;
            }
            double strain[3][3] = {};
            strain[k][k] = sign * strain_step;
            if (quovix_cell_deform(copy.get(), strain) != 0) {
                std::fputs("Error: quovix_cell_deform() returns non-zero.\n", stderr);
                return false;
            }
            copies.push_back(std::move(copy));
        }
    }
    return true;
}

// Mean diagonal stress of the fit from the cached contact lists; false when an energy is 0.
[[nodiscard]] bool model_pressure(const fit_models &fm, const std::vector<quovix_cell_ptr> &copies,
                                  double volume, double sf, double &p) {
    std::vector<double> energy;
    fit_energies(fm, copies, sf, energy);
    double stress[3];
    for (int k = 0; k < 3; ++k) {
        const double lo = energy[static_cast<std::size_t>(2 * k)];
        if (lo == 0.0) {
            std::fputs("Error: quovix_cell_calculate_total_energy() returns 0.00.\n", stderr);
            return false;
        }
        const double hi = energy[static_cast<std::size_t>(2 * k + 1)];
        if (hi == 0.0) {
            std::fputs("Error: quovix_cell_calculate_total_energy() returns 0.00.\n", stderr);
            return false;
        }
        stress[k] = (hi - lo) / (2.0 * strain_step) / volume;
    }
    p = (stress[0] + stress[1] + stress[2]) / 3.0;
    return true;
}

// Pressure of the fit by the public stress function (used when contact lists would be large).
[[nodiscard]] bool direct_pressure(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, double sf, double &p) {
    const double saved = ppt->sf;
    ppt->sf = sf;
    double stress[3];
    const int status = quovix_cell_calculate_stress_diagonal(stress, cell, ppt);
    ppt->sf = saved;
    if (status != 0) return false;
    p = (stress[0] + stress[1] + stress[2]) / 3.0;
    return true;
}

// Runs an energy computation, turning an allocation failure into an error line and 0.
template <class F>
double guarded_energy(const char *what, F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        std::fprintf(stderr, "Error: unable to allocate %s.\n", what);
    }
    return 0.0;
}

// ---------------------------------------------------------------------------------------------
// Embedding energy.
//
// Each ion sits in the bond-valence density of its counter-ions,
//   rho_i = sum_j,T occ_j [exp((r0 - d)/b) - exp((r0 - cutoff)/b)]   (cation-anion contacts
//           within the pair's cut-off, same images and close-contact rule as the pair energy),
// which is its bond valence sum, shifted so that each bond fades continuously to zero at the
// cut-off. In the Finnis-Sinclair square-root form the embedding energy of the ion is
//   G_i(rho) = -f1_i sqrt(rho / |os_i|),
// equal to -f1_i when the ion's valence is satisfied (rho = |os_i|), f1_i being the embedding
// parameter of its species (reduced units, like d0). The cell's embedding energy is
//   E_emb = 7.19982 eV*A * sum_i occ_i G_i(rho_i)     (eV),
// over atoms i not marked `ignored`, with the same conversion factor as the pair sum. With it a
// cation at its ideal valence with one kind of counter-ion holds -7.19982 exp(x) f0 eV, exp(x)
// times the Morse energy of its cn bonds at rmin (each bond carries -0.5 d0 x 14.39964 eV,
// f0 = cn d0). An ion without counter-ions (rho = 0), of os = 0, or whose f1 is not a number
// contributes nothing.
// Derivative: dG/drho = -f1 / (2 sqrt(rho |os|)); d rho_i / dd = -occ_j exp((r0 - d)/b) / b.
// ---------------------------------------------------------------------------------------------
struct embedding {
    std::vector<double> rho;  // density of every atom
    std::vector<double> g;    // G_i(rho_i) per atom (0 when it does not contribute)
    std::vector<double> dg;   // dG_i/drho at rho_i
};

bool embeds(const QUOVIX_ATOM &atom, const QUOVIX_PROPERTY_UNITARY &u) {
    return atom.os != 0 && std::isfinite(u.f1);
}

template <class F>
void for_each_bond(const QUOVIX_CELL *cell, const pair_setup &s, long i, F &&visit) {
    for_each_contact(cell, s, i, [&](long j, const pair_term &t, double d, const double *v) {
        if (t.kind == term_kind::bonding) visit(j, t, d, v);
    });
}

void compute_embedding(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt, const pair_setup &s,
                       embedding &emb) {
    const long n = cell->total;
    emb.rho.assign(static_cast<std::size_t>(n), 0.0);
    emb.g.assign(static_cast<std::size_t>(n), 0.0);
    emb.dg.assign(static_cast<std::size_t>(n), 0.0);
#pragma omp parallel for schedule(dynamic, 4)
    for (long i = 0; i < n; ++i) {
        double rho = 0.0;
        for_each_bond(cell, s, i, [&](long j, const pair_term &t, double d, const double *) {
            rho += cell->atom[j].occ * (std::exp((t.r0 - d) / t.b) - t.s_cut);
        });
        emb.rho[i] = rho;
        const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[s.sp[i]];
        if (!embeds(cell->atom[i], u) || !(rho > 0.0)) continue;
        const double valence = quovix_abs_os(cell->atom[i].os);
        emb.g[i] = -u.f1 * std::sqrt(rho / valence);
        emb.dg[i] = -u.f1 / (2.0 * std::sqrt(rho * valence));
    }
}

}  // namespace

/// Interatomic energy of the cell in eV by the plain loop over atom pairs and all lattice
/// images (no range bounds, one thread). Kept as the reference of the shipped sum.
double quovix_cell_calculate_total_energy_reference(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (!valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 0.0;
    }
    const double range = energy_range(ppt);
    frame f;
    if (!make_frame(cell, range, f)) return 0.0;
    double sum = 0.0;
    for (long i = 0; i < cell->total; ++i) {
        const QUOVIX_ATOM &ai = cell->atom[i];
        if (ai.ignored) continue;
        for (long j = 0; j < cell->total; ++j) {
            const QUOVIX_ATOM &aj = cell->atom[j];
            int si = quovix_property_find_index(ppt, ai.type, ai.os);
            int sj = quovix_property_find_index(ppt, aj.type, aj.os);
            if (si < 0 || sj < 0) {
                std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
                return 0.0;
            }
            if (ai.os < 0) std::swap(si, sj);  // pair record is (cation, anion)
            const QUOVIX_PROPERTY_BINARY &bin = ppt->bin[si][sj];
            const QUOVIX_PROPERTY_UNITARY &ui = ppt->uni[si];
            const QUOVIX_PROPERTY_UNITARY &uj = ppt->uni[sj];
            for (long k1 = -f.n[0]; k1 <= f.n[0]; ++k1) {
                for (long k2 = -f.n[1]; k2 <= f.n[1]; ++k2) {
                    for (long k3 = -f.n[2]; k3 <= f.n[2]; ++k3) {
                        double v[3];
                        const double d = quovix_images::distance(f.a, ai.x, aj.x, k1, k2, k3, v);
                        if (d < close_contact &&
                            !(ai.occ + aj.occ > 1.0 &&
                              std::strncmp(ai.type, aj.type, QUOVIX_TYPE_LEN) != 0)) {
                            continue;
                        }
                        const long prod = static_cast<long>(ai.os) * aj.os;
                        if (prod >= 1 && d <= range) {
                            sum +=
                                ai.occ * aj.occ *
                                quovix_energy_coulombic(d, ui.q * uj.q, ppt->sf * (ui.rc + uj.rc));
                        } else if (prod < 0 && d <= bin.cutoff) {
                            sum += ai.occ * aj.occ *
                                   quovix_energy_bonding_with_energy_shift(d, bin.d0, bin.rmin,
                                                                           bin.b, bin.en_s);
                        }
                    }
                }
            }
        }
    }
    return sum * QUOVIX_COULOMB_HALF;
}

/// Interatomic energy of the cell in eV: screened Coulomb between like-charged ions and shifted
/// Morse between cations and anions, over ordered atom pairs and lattice images. Same contacts
/// as the plain loop; images out of range are not visited. 0 on null input or failure.
double quovix_cell_calculate_total_energy(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (!valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 0.0;
    }
    return guarded_energy("energy tables", [&]() -> double {
        pair_setup s;
        if (!make_setup(cell, ppt, s)) return 0.0;
        return pair_energy_sum(cell, s, ppt->sf) * QUOVIX_COULOMB_HALF;
    });
}

/// Diagonal stress (eV/A^3): stress_k = (E(+eps) - E(-eps)) / (2 eps) / V with the cell
/// strained by eps = 1e-4 along axis k (deformed copies), V the unstrained volume.
int quovix_cell_calculate_stress_diagonal(double stress[3], QUOVIX_CELL *cell,
                                          QUOVIX_PROPERTY *ppt) {
    if (stress == nullptr || !valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    const double volume = quovix_cell_calculate_volume(cell);
    for (int k = 0; k < 3; ++k) {
        double e[2];
        for (int side = 0; side < 2; ++side) {
            quovix_cell_ptr copy{quovix_cell_copy(cell)};
            if (!copy) {
                std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
                return 1;
            }
            double strain[3][3] = {};
            strain[k][k] = side == 0 ? -strain_step : strain_step;
            if (quovix_cell_deform(copy.get(), strain) != 0) {
                std::fputs("Error: quovix_cell_deform() returns non-zero.\n", stderr);
                return 1;
            }
            e[side] = quovix_cell_calculate_total_energy(copy.get(), ppt);
            if (e[side] == 0.0) {
                std::fputs("Error: quovix_cell_calculate_total_energy() returns 0.00.\n", stderr);
                return 1;
            }
        }
        stress[k] = (e[1] - e[0]) / (2.0 * strain_step) / volume;
    }
    return 0;
}

/// Fits ppt->sf so that the mean diagonal stress vanishes, when ppt->sf <= 0 on entry (a
/// positive sf is kept unchecked). Starts at 0.75 and moves sf by a step of 0.1 against the
/// sign of the pressure, halving the step at every sign change; falls back to 0.75 with a
/// warning when the set is incomplete, after 100 iterations or outside [0.55, 1.0]. Returns 0,
/// 1 on null input, -1 when an energy cannot be computed.
int quovix_property_calculate_screening_factor(QUOVIX_PROPERTY *ppt, QUOVIX_CELL *cell) {
    if (!valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been initialized properly.\n",
                   stderr);
        return 1;
    }
    if (ppt->sf > 0.0) return 0;
    ppt->sf = default_sf;
    if (quovix_property_validate_generic(ppt) != 0) {
        std::printf("Warning: quovix_property_validate_generic() returns non-zero.\n");
        std::printf("Message: default screening factor used %f.\n", ppt->sf);
        return 0;
    }
    const int status = quovix_guard("screening-factor fit", [&]() -> int {
        const double volume = quovix_cell_calculate_volume(cell);
        fit_models models;
        std::vector<quovix_cell_ptr> copies;
        models.expected_contacts = estimated_contacts(cell, ppt) * 6.0;
        const bool cached = models.expected_contacts <= max_cached_contacts;
        if (cached) {
            if (!strained_copies(cell, copies)) return -1;
            if (!build_fit_models(copies, ppt, models)) return -1;
        }
        auto pressure = [&](double sf, double &p) {
            return cached ? model_pressure(models, copies, volume, sf, p)
                          : direct_pressure(cell, ppt, sf, p);
        };

        double sf = default_sf;
        double p = 0.0;
        if (!pressure(sf, p)) return -1;
        bool negative = p <= 0.0;
        double h = 0.1, p_prev = 0.0, dp = 0.0;
        double last_sf = sf, last_p = p;  // the pressure is a function of sf only
        int iteration = 0;
        while (!(h < fit_tolerance && dp < fit_tolerance)) {
            if (sf != last_sf) {
                if (!pressure(sf, p)) return -1;
                last_sf = sf;
                last_p = p;
            } else {
                p = last_p;
            }
            if (p <= 0.0) {
                sf -= h;
            } else {
                sf += h;
            }
            if ((p <= 0.0) != negative) {
                h *= 0.5;
                negative = p <= 0.0;
            }
            dp = p - p_prev;
            p_prev = p;
            ++iteration;
            if (iteration > max_fit_iterations) {
                std::printf(
                    "Warning: failed to converge the screening factor. Default value used.\n");
                sf = default_sf;
                break;
            }
            if (sf < sf_lower || sf > sf_upper) {
                std::printf(
                    "Warning: screening factor out of bound (0.55~1.0). Default value used.\n");
                sf = default_sf;
                break;
            }
            std::printf("Message: calculating sf=%8.5f; p=%8.5f (conv: sf=%8.5f; p=%8.5f)\n", sf, p,
                        h, dp);
        }
        ppt->sf = sf;
        std::printf("Message: final screening factor = %f\n", sf);
        return 0;
    });
    return status == 0 ? 0 : -1;
}

/// Embedding energy of the cell in eV (see the comment above `embedding`); needs the embedding
/// parameters f1 (quovix_property_calculate_unitary_eam_parameter). 0 on null input.
double quovix_cell_calculate_eam_energy(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (!valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 0.0;
    }
    return guarded_energy("embedding tables", [&]() -> double {
        pair_setup s;
        if (!make_setup(cell, ppt, s)) return 0.0;
        embedding emb;
        compute_embedding(cell, ppt, s, emb);
        double sum = 0.0;
        for (long i = 0; i < cell->total; ++i) {
            if (!cell->atom[i].ignored) sum += cell->atom[i].occ * emb.g[i];
        }
        return sum * QUOVIX_COULOMB_HALF;
    });
}

/// Interatomic plus embedding energy in eV.
double quovix_cell_calculate_total_energy_eam(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    return quovix_cell_calculate_total_energy(cell, ppt) +
           quovix_cell_calculate_eam_energy(cell, ppt);
}

/// Cartesian forces -dE/dx (eV/A) of quovix_cell_calculate_total_energy_eam on every atom,
/// written to force[i][0..2] (cell->total rows). Atom positions are the Cartesian `x`. For an
/// ordered contact (i, j, T) with vector v = x_i + T - x_j and distance d, the pair energy
/// contributes 7.19982 occ_i occ_j phi'(d) v/d to dE/dx_i and the opposite to dE/dx_j; every
/// atom's force is gathered from its own contacts (contact (j, i, -T) mirrors (i, j, T)), so
/// each row is written by one thread. Returns 0, or 1 on null input or failure.
int quovix_cell_calculate_force(double **force, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (force == nullptr || !valid_input(cell, ppt)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    for (long i = 0; i < cell->total; ++i) {
        if (force[i] == nullptr) {
            std::fputs("Error: force array has not been properly allocated.\n", stderr);
            return 1;
        }
    }
    return quovix_guard("force tables", [&]() -> int {
        pair_setup s;
        if (!make_setup(cell, ppt, s)) return 1;
        embedding emb;
        compute_embedding(cell, ppt, s, emb);
        const long n = cell->total;
        const double sf = ppt->sf;
#pragma omp parallel for schedule(dynamic, 4)
        for (long m = 0; m < n; ++m) {
            const QUOVIX_ATOM &am = cell->atom[m];
            const double own_dg = am.ignored ? 0.0 : emb.dg[m];
            double grad[3] = {0.0, 0.0, 0.0};
            for_each_contact(
                cell, s, m, [&](long j, const pair_term &t, double d, const double *v) {
                    const QUOVIX_ATOM &aj = cell->atom[j];
                    // Pair term: from contact (m, j, T) when m counts, from (j, m, -T) when j
                    // counts.
                    const double owners = (am.ignored ? 0.0 : 1.0) + (aj.ignored ? 0.0 : 1.0);
                    double de_dd = owners * am.occ * aj.occ * term_force(t, d, sf);
                    if (t.kind == term_kind::bonding) {
                        const double ds_dd = -std::exp((t.r0 - d) / t.b) / t.b;
                        const double other_dg = aj.ignored ? 0.0 : emb.dg[j];
                        de_dd += am.occ * aj.occ * ds_dd * (own_dg + other_dg);
                    }
                    if (d > 0.0) {  // an exact overlap has no direction
                        for (int c = 0; c < 3; ++c) grad[c] += de_dd * v[c] / d;
                    }
                });
            for (int c = 0; c < 3; ++c) force[m][c] = -grad[c] * QUOVIX_COULOMB_HALF;
        }
        return 0;
    });
}
