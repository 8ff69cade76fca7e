// Energy landscape of a mobile ion on a grid over the cell: grid size, energy sum, symmetry
// filling, and the wrappers that build the parameter set and write the cube file.
#include <omp.h>
#include <unistd.h>  // isatty, for the progress line

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quovix-cube.hpp"
#include "quovix-grid.hpp"
#include "quovix-import.hpp"
#include "quovix-pair.hpp"

namespace {

// The grid holds at most 196^3 points.
constexpr long MAX_GRID_POINTS = 7529536;
// Grid counts are multiples of this step (divisible by 2, 3, 4, 6 and 8, so the fractional
// translations of space-group operations land on grid points).
constexpr long GRID_STEP = 24;
// A count above 13072 (= 7529536 / 24 / 24) can never survive the reduction, and the
// reduction only ever lowers the largest count, so capping larger counts at 546 * 24 = 13104
// leaves the result unchanged while bounding the loop.
constexpr double GRID_UNITS_CAP = 546.0;
// Screened Coulomb repulsion between like charges is counted up to the distance where its
// shifted energy vanishes (A); it is also the least search radius.
constexpr double COULOMB_RANGE = QUOVIX_COULOMB_SHIFT_DISTANCE;
// Energies above this cap (eV) are stored as the cap.
constexpr double ENERGY_CAP = 999.9;
// A grid value this close to 0 counts as "not computed yet".
constexpr double UNSET = 1e-7;
// Edge of the blocks of grid points that share one gathering of nearby sources (A).
constexpr double BLOCK_EDGE = 0.9;
// Refuse lattice searches with more images per atom than this (degenerate lattices).
constexpr long MAX_IMAGES = 1000000;

// One atom acting on the mobile ion, with the pair constants of (mobile, atom).
struct Term {
    double x[3];                 // Cartesian position in the home cell (A)
    double occ;                  // occupancy weight
    const quovix_pair_term *pt;  // constants of (mobile species, atom species)
    bool bonded;                 // opposite charges: shifted Morse bond; like: screened Coulomb
    double cut;                  // interaction range: the pair cutoff, or COULOMB_RANGE
    double reff;                 // Coulomb pair: sf (rc_M + rc_T)
    // Coulomb pair: q erfc(10 / r_eff) / 10, the constant second half of
    // quovix_energy_coulombic, computed once per atom instead of once per contact.
    double shift;
};

// Everything the grid loop needs, shared by the plain and the fast loop.
struct Landscape {
    quovix_cube_ptr cube;
    quovix_pair_table table;              // constants of every species pair
    std::vector<Term> terms;              // in cell atom order
    long m[3] = {0, 0, 0};                // lattice translations -m..m per axis
    QUOVIX_SYMMETRY *symmetry = nullptr;  // discrete cards filled; null: identity only
};

// Cartesian position of grid point (i, j, k): i a_i[0] + j a_i[1] + k a_i[2].
inline void grid_position(double r[3], const double a_i[3][3], long i, long j, long k) {
    for (int c = 0; c < 3; c++)
        r[c] = static_cast<double>(i) * a_i[0][c] + static_cast<double>(j) * a_i[1][c] +
               static_cast<double>(k) * a_i[2][c];
}

// Atom translated by (ta, tb, tc) lattice vectors.
inline void image_position(double p[3], const double x[3], const double a[3][3], long ta, long tb,
                           long tc) {
    for (int c = 0; c < 3; c++)
        p[c] = x[c] + static_cast<double>(ta) * a[0][c] + static_cast<double>(tb) * a[1][c] +
               static_cast<double>(tc) * a[2][c];
}

inline double distance(const double r[3], double px, double py, double pz) {
    double dx = px - r[0], dy = py - r[1], dz = pz - r[2];
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// Contribution of one contact at distance d (within range), before the occupancy weight.
inline double pair_energy(const Term &t, double d) {
    const quovix_pair_term &p = *t.pt;
    if (t.bonded)
        return d <= p.r_in ? quovix_pseudopotential_energy_bonding(d, p.a2, p.a1, p.a0)
                           : quovix_energy_bonding_with_energy_shift(d, p.d0, p.rmin, p.b, p.en_s);
    return d <= p.r_in ? quovix_pseudopotential_energy_coulombic(d, p.a2, p.a1, p.a0)
                       : quovix_energy_coulombic(d, p.q, t.reff);
}

// eV from the two reduced sums, capped.
inline double final_energy(double eb, double ec) {
    double e = QUOVIX_COULOMB * (eb + ec);
    return e > ENERGY_CAP ? ENERGY_CAP : e;
}

// The reference sum at one point: every term, every translation, in that order.
double point_energy_plain(const Landscape &ls, const double r[3]) {
    const double(*a)[3] = ls.cube->a;
    double eb = 0.0, ec = 0.0;
    for (const Term &t : ls.terms) {
        for (long ta = -ls.m[0]; ta <= ls.m[0]; ta++)
            for (long tb = -ls.m[1]; tb <= ls.m[1]; tb++)
                for (long tc = -ls.m[2]; tc <= ls.m[2]; tc++) {
                    double p[3];
                    image_position(p, t.x, a, ta, tb, tc);
                    double d = distance(r, p[0], p[1], p[2]);
                    if (d > t.cut) continue;
                    if (t.bonded)
                        eb += t.occ * pair_energy(t, d);
                    else
                        ec += t.occ * pair_energy(t, d);
                }
    }
    return final_energy(eb, ec);
}

// Integer form of a card for the grid: out = r_i in + t_i, wrapped into [0, n).
struct GridCard {
    long r[3][3];
    long t[3];
};

// Flat index of the image of (i, j, k) under a card.
inline long card_image(const GridCard &g, const quovix_grid &grid, long i, long j, long k) {
    return grid.flat(g.r[0][0] * i + g.r[0][1] * j + g.r[0][2] * k + g.t[0],
                     g.r[1][0] * i + g.r[1][1] * j + g.r[1][2] * k + g.t[1],
                     g.r[2][0] * i + g.r[2][1] * j + g.r[2][2] * k + g.t[2]);
}

// Grid value at a flat index.
inline double &value_at(QUOVIX_CUBE *cube, const quovix_grid &grid, long q) {
    const auto x = grid.index(q);
    return cube->en[x[0]][x[1]][x[2]];
}

// A value printed with six decimals (the cube file's " %12.6f") might round the other way if
// its last bits moved: it lies within 1e-9 eV of a rounding boundary. The vector math differs
// from the scalar functions by a few units in the last place, far below this window.
inline bool near_print_boundary(double v) {
    const double scaled = std::fabs(v) * 1e6;
    const double frac = scaled - std::floor(scaled);
    return std::fabs(frac - 0.5) < 1e-3;
}

// Shows "Progress: nn%" on standard error, only when it is a terminal.
class Progress {
   public:
    explicit Progress(long total) : total_(total), shown_(-1), on_(isatty(STDERR_FILENO) != 0) {}
    void update(long done) {
        if (!on_ || total_ <= 0) return;
        int pct = static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(total_));
        if (pct == shown_) return;
        shown_ = pct;
        std::fprintf(stderr, "\rProgress: %3d%% of %ld grid points", pct, total_);
        std::fflush(stderr);
    }
    void finish() {
        if (on_ && shown_ >= 0)
            std::fputs("\r                                             \r", stderr);
    }

   private:
    long total_;
    int shown_;
    bool on_;
};

// Steps 1 to 5: validation, grid counts, discrete cards, cube, ignored flags, search range
// and the list of acting atoms. Prints the reason and returns false on failure.
bool prepare(Landscape &ls, QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry, QUOVIX_PROPERTY *ppt,
             double resolution, bool ignore_conducting) {
    if (!cell || !cell->atom || cell->total <= 0) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return false;
    }
    if (quovix_cube_validate_property(ppt) != 0) {
        std::fputs("Error: quovix_cube_validate_property() returns non-zero.\n", stderr);
        return false;
    }
    if (!(resolution > 0.0) || !std::isfinite(resolution)) {
        std::fprintf(stderr, "Error: resolution must be a positive number, not %f.\n", resolution);
        return false;
    }
    double length[3];
    for (int k = 0; k < 3; k++) {
        length[k] = cell->parameter[k];
        if (!(length[k] > 0.0) || !std::isfinite(length[k])) {
            std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
            return false;
        }
    }
    long n[3];
    if (quovix_cube_grid_size(n, length, resolution) != 0) {
        std::fputs("Error: quovix_cube_grid_size() returns non-zero.\n", stderr);
        return false;
    }
    if (symmetry && symmetry->total > 0) {
        if (quovix_symmetry_fill_card_discrete(symmetry, n) != 0) {
            std::fputs("Error: quovix_symmetry_fill_card_discrete() returns non-zero.\n", stderr);
            return false;
        }
        ls.symmetry = symmetry;
    }
    ls.cube.reset(quovix_cube_new(n));
    if (!ls.cube) {
        std::fputs("Error: quovix_cube_new() returns NULL.\n", stderr);
        return false;
    }
    for (int k = 0; k < 3; k++)
        for (int c = 0; c < 3; c++) {
            ls.cube->a[k][c] = cell->a[k][c];
            ls.cube->a_i[k][c] = cell->a[k][c] / static_cast<double>(n[k]);
        }

    const int M = ppt->conducting;
    const int os_m = ppt->os[M];
    for (long t = 0; t < cell->total; t++) cell->atom[t].ignored = false;
    if (ignore_conducting) {
        for (long t = 0; t < cell->total; t++)
            if (std::strcmp(cell->atom[t].type, ppt->type[M]) == 0 && cell->atom[t].os == os_m)
                cell->atom[t].ignored = true;
        std::printf("Message: ignoring all %s%d%c ions during cube generation.\n", ppt->type[M],
                    quovix_abs_os(os_m), quovix_sign_char(os_m));
    } else {
        std::puts("Message: no ion is ignored during cube generation.");
    }

    double range = COULOMB_RANGE;
    for (int i = 0; i < ppt->total; i++)
        for (int j = 0; j < ppt->total; j++) range = std::max(range, ppt->bin[i][j].cutoff);
    long images = 1;
    for (int k = 0; k < 3; k++) {
        double mk = range / length[k] + 2.0;
        if (!(mk < 1000.0)) mk = 1000.0;
        ls.m[k] = static_cast<long>(mk);
        images *= 2 * ls.m[k] + 1;
    }
    if (images > MAX_IMAGES) {
        std::fprintf(stderr,
                     "Error: searching %ld * %ld * %ld lattice images per atom is too much for a "
                     "cell this small.\n",
                     2 * ls.m[0] + 1, 2 * ls.m[1] + 1, 2 * ls.m[2] + 1);
        return false;
    }

    if (!quovix_pair_table_build(ls.table, ppt)) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return false;
    }
    for (long t = 0; t < cell->total; t++) {
        const QUOVIX_ATOM &atom = cell->atom[t];
        if (atom.ignored) continue;
        if (!std::isfinite(atom.x_f[0]) || !std::isfinite(atom.x_f[1]) ||
            !std::isfinite(atom.x_f[2]) || !std::isfinite(atom.occ)) {
            std::fprintf(stderr, "Error: atom[%ld] has a non-finite position or occupancy.\n", t);
            return false;
        }
        int T = quovix_property_find_index(ppt, atom.type, atom.os);
        if (T < 0) {
            std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
            return false;
        }
        const int sign = os_m * ppt->os[T];
        if (sign == 0) continue;
        // The table reads bonded records cation first.
        Term term{};
        for (int c = 0; c < 3; c++)
            term.x[c] = atom.x_f[0] * cell->a[0][c] + atom.x_f[1] * cell->a[1][c] +
                        atom.x_f[2] * cell->a[2][c];
        term.occ = atom.occ;
        term.pt = &ls.table.term(M, T);
        term.bonded = sign < 0;
        if (term.bonded) {
            term.cut = term.pt->cutoff;
        } else {
            term.cut = COULOMB_RANGE;
            term.reff = ppt->sf * term.pt->rcs;
            term.shift = quovix_energy_coulombic_shift(term.pt->q, term.reff);
        }
        ls.terms.push_back(term);
    }
    return true;
}

// Reference loop: every point in grid order; a point still unset is computed from every
// term and every translation, and its value written to it and to all its symmetry images.
void fill_plain(Landscape &ls) {
    QUOVIX_CUBE *cube = ls.cube.get();
    const long *n = cube->n;
    for (long i = 0; i < n[0]; i++)
        for (long j = 0; j < n[1]; j++)
            for (long k = 0; k < n[2]; k++) {
                if (std::fabs(cube->en[i][j][k]) > UNSET) continue;
                double r[3];
                grid_position(r, cube->a_i, i, j, k);
                const double e = point_energy_plain(ls, r);
                cube->en[i][j][k] = e;
                if (!ls.symmetry) continue;
                for (int c = 0; c < ls.symmetry->total; c++) {
                    long in[3] = {i, j, k}, out[3];
                    quovix_card_transform_vector3_long(out, in, n, &ls.symmetry->card[c]);
                    cube->en[out[0]][out[1]][out[2]] = e;
                }
            }
}

// Fast loop. Gives the plain loop's value at every point within rounding (1e-12 eV), and the
// same six printed decimals:
//  - sources: each acting atom's translations (same -m..m range) that can come within its
//    range of the cell, kept in the plain loop's (atom, translation) order;
//  - the grid is cut into small blocks; each block gathers, through Cartesian bins, the
//    sources within its own radius plus their range, sorted back into source order and split
//    by kind into the batch kernel's arrays (quovix_pair_kernel_sum), which sums a register
//    of points at a time, each point in source order, with vector exp and erfc;
//  - a value within 1e-9 eV of a six-decimal rounding boundary is recomputed with the scalar
//    functions (quovix_pair_kernel_sum_exact), so the plain loop's own double is printed;
//  - only one point per symmetry orbit is computed: first the points the plain loop would
//    compute if no value were ~0 are found (cheap, integer), their energies computed in
//    parallel (a value depends only on the point and the sources, never on the thread or
//    the neighbours in the register), then the plain loop's visiting and filling is
//    replayed, computing on the spot the rare point it would recompute because a value came
//    out ~0.
class FastFill {
   public:
    // `scalar`: every point with the scalar pair functions (quovix_pair_kernel_sum_exact),
    // which gives the plain loop's doubles bit for bit.
    FastFill(Landscape &ls, bool scalar)
        : ls_(ls), cube_(ls.cube.get()), grid_(ls.cube->n), scalar_(scalar) {}

    void run() {
        const long *n = cube_->n;
        total_ = grid_.points();
        make_cards();
        make_sources();
        make_bins();
        if (cards_.empty()) {
            compute_in_place();
            return;
        }

        // Phase 1: the points the plain loop computes when every value is non-zero.
        std::vector<std::uint8_t> state(static_cast<std::size_t>(total_), 0);  // 1 rep, 2 image
        std::vector<long> reps;
        for (long i = 0, p = 0; i < n[0]; i++)
            for (long j = 0; j < n[1]; j++)
                for (long k = 0; k < n[2]; k++, p++) {
                    if (state[p]) continue;
                    state[p] = 1;
                    reps.push_back(p);
                    for (const GridCard &g : cards_) {
                        long q = card_image(g, grid_, i, j, k);
                        if (!state[q]) state[q] = 2;
                    }
                }

        // Phase 2: their energies, block by block, in parallel.
        std::vector<double> value(reps.size());
        compute(reps, value);

        // Phase 3: replay the plain loop's order of visiting and filling.
        std::size_t o = 0;
        for (long i = 0, p = 0; i < n[0]; i++)
            for (long j = 0; j < n[1]; j++)
                for (long k = 0; k < n[2]; k++, p++) {
                    const bool rep = state[p] == 1;
                    if (std::fabs(cube_->en[i][j][k]) <= UNSET) {
                        double e = rep ? value[o] : single(i, j, k);
                        cube_->en[i][j][k] = e;
                        for (const GridCard &g : cards_)
                            value_at(cube_, grid_, card_image(g, grid_, i, j, k)) = e;
                    }
                    if (rep) o++;
                }
    }

   private:
    Landscape &ls_;
    QUOVIX_CUBE *cube_;
    quovix_grid grid_;
    bool scalar_;
    long total_ = 0;
    std::vector<GridCard> cards_;
    // Sources, structure of arrays, in (term, translation) order.
    std::vector<double> sx_, sy_, sz_, scut_;
    std::vector<int> sterm_;
    double cut_max_ = 0.0;
    // Cartesian bins of sources.
    double bin_origin_[3] = {0, 0, 0};
    double bin_size_ = 1.0;
    long nbin_[3] = {1, 1, 1};
    std::vector<long> bin_start_;
    std::vector<int> bin_items_;

    // The grid form of the cards. An identity card maps every point to itself, where the
    // value has just been written, so it is left out.
    void make_cards() {
        if (!ls_.symmetry) return;
        const long *n = cube_->n;
        for (int c = 0; c < ls_.symmetry->total; c++) {
            const QUOVIX_CARD &card = ls_.symmetry->card[c];
            GridCard g{};
            bool identity = true;
            for (int r = 0; r < 3; r++) {
                for (int s = 0; s < 3; s++) {
                    g.r[r][s] = card.r_i[r][s];
                    identity = identity && g.r[r][s] == (r == s ? 1 : 0);
                }
                g.t[r] = card.t_i[r];
                identity = identity && quovix_grid::wrap(g.t[r], n[r]) == 0;
            }
            if (!identity) cards_.push_back(g);
        }
    }

    void make_sources() {
        const double(*a)[3] = cube_->a;
        // Interplanar spacings h_k = V / |a_j x a_l|: a point within distance c of the cell
        // has fractional coordinate k within c / h_k of [0, 1].
        double cross[3][3];
        for (int k = 0; k < 3; k++) {
            const double *u = a[(k + 1) % 3], *v = a[(k + 2) % 3];
            cross[k][0] = u[1] * v[2] - u[2] * v[1];
            cross[k][1] = u[2] * v[0] - u[0] * v[2];
            cross[k][2] = u[0] * v[1] - u[1] * v[0];
        }
        const double volume =
            std::fabs(a[0][0] * cross[0][0] + a[0][1] * cross[0][1] + a[0][2] * cross[0][2]);
        double h[3];
        for (int k = 0; k < 3; k++) {
            double len = std::sqrt(cross[k][0] * cross[k][0] + cross[k][1] * cross[k][1] +
                                   cross[k][2] * cross[k][2]);
            h[k] = len > 0.0 ? volume / len : 0.0;
        }
        // Reciprocal rows to get fractional coordinates of image positions for the filter.
        double recip[3][3];
        for (int k = 0; k < 3; k++)
            for (int c = 0; c < 3; c++) recip[k][c] = volume > 0.0 ? cross[k][c] / volume : 0.0;
        const double sign =
            (a[0][0] * cross[0][0] + a[0][1] * cross[0][1] + a[0][2] * cross[0][2]) < 0 ? -1.0
                                                                                        : 1.0;

        for (std::size_t t = 0; t < ls_.terms.size(); t++) {
            const Term &term = ls_.terms[t];
            cut_max_ = std::max(cut_max_, term.cut);
            double slack[3];
            for (int k = 0; k < 3; k++) slack[k] = h[k] > 0.0 ? term.cut / h[k] + 1e-6 : 1e300;
            for (long ta = -ls_.m[0]; ta <= ls_.m[0]; ta++)
                for (long tb = -ls_.m[1]; tb <= ls_.m[1]; tb++)
                    for (long tc = -ls_.m[2]; tc <= ls_.m[2]; tc++) {
                        double p[3];
                        image_position(p, term.x, a, ta, tb, tc);
                        bool near = true;
                        for (int k = 0; k < 3 && near; k++) {
                            double f = sign * (recip[k][0] * p[0] + recip[k][1] * p[1] +
                                               recip[k][2] * p[2]);
                            near = f >= -slack[k] && f <= 1.0 + slack[k];
                        }
                        if (!near) continue;
                        sx_.push_back(p[0]);
                        sy_.push_back(p[1]);
                        sz_.push_back(p[2]);
                        scut_.push_back(term.cut);
                        sterm_.push_back(static_cast<int>(t));
                    }
        }
    }

    void make_bins() {
        const std::size_t ns = sx_.size();
        if (ns == 0) return;
        double lo[3] = {sx_[0], sy_[0], sz_[0]}, hi[3] = {sx_[0], sy_[0], sz_[0]};
        for (std::size_t s = 0; s < ns; s++) {
            const double p[3] = {sx_[s], sy_[s], sz_[s]};
            for (int c = 0; c < 3; c++) {
                lo[c] = std::min(lo[c], p[c]);
                hi[c] = std::max(hi[c], p[c]);
            }
        }
        bin_size_ = std::max(1.0, cut_max_ / 4.0);
        for (;;) {
            long cells = 1;
            for (int c = 0; c < 3; c++) {
                nbin_[c] = static_cast<long>((hi[c] - lo[c]) / bin_size_) + 1;
                cells *= nbin_[c];
            }
            if (cells <= 4000000) break;
            bin_size_ *= 2.0;
        }
        for (int c = 0; c < 3; c++) bin_origin_[c] = lo[c];
        const long nb = nbin_[0] * nbin_[1] * nbin_[2];
        bin_start_.assign(static_cast<std::size_t>(nb) + 1, 0);
        std::vector<long> which(ns);
        for (std::size_t s = 0; s < ns; s++) {
            which[s] = bin_of(sx_[s], sy_[s], sz_[s]);
            bin_start_[which[s] + 1]++;
        }
        for (long b = 0; b < nb; b++) bin_start_[b + 1] += bin_start_[b];
        bin_items_.resize(ns);
        std::vector<long> fill(bin_start_.begin(), bin_start_.end() - 1);
        for (std::size_t s = 0; s < ns; s++) bin_items_[fill[which[s]]++] = static_cast<int>(s);
    }

    long bin_index(double v, int c) const {
        long b = static_cast<long>(std::floor((v - bin_origin_[c]) / bin_size_));
        return std::clamp(b, 0L, nbin_[c] - 1);
    }
    long bin_of(double x, double y, double z) const {
        return (bin_index(x, 0) * nbin_[1] + bin_index(y, 1)) * nbin_[2] + bin_index(z, 2);
    }

    // Sources that can be within range of a point less than `radius` from `center`, in
    // source order.
    void gather(std::vector<int> &out, const double center[3], double radius) const {
        out.clear();
        if (sx_.empty()) return;
        const double reach = radius + cut_max_ + 1e-6;
        long lo[3], hi[3];
        for (int c = 0; c < 3; c++) {
            lo[c] = bin_index(center[c] - reach, c);
            hi[c] = bin_index(center[c] + reach, c);
        }
        // Distance along axis c from the centre to bin b's slab (0 inside): bins whose box lies
        // beyond the reach are skipped whole. Every source lies inside its bin's box.
        auto gap = [&](long bin, int c) {
            const double lo_edge = bin_origin_[c] + static_cast<double>(bin) * bin_size_;
            return std::max({0.0, lo_edge - center[c], center[c] - (lo_edge + bin_size_)});
        };
        const double reach2 = reach * reach;
        for (long bx = lo[0]; bx <= hi[0]; bx++) {
            const double gx = gap(bx, 0);
            for (long by = lo[1]; by <= hi[1]; by++) {
                const double gy = gap(by, 1);
                if (gx * gx + gy * gy > reach2) continue;
                for (long bz = lo[2]; bz <= hi[2]; bz++) {
                    const double gz = gap(bz, 2);
                    if (gx * gx + gy * gy + gz * gz > reach2) continue;
                    const long b = (bx * nbin_[1] + by) * nbin_[2] + bz;
                    for (long q = bin_start_[b]; q < bin_start_[b + 1]; q++) {
                        const int s = bin_items_[q];
                        const double dx = sx_[s] - center[0], dy = sy_[s] - center[1],
                                     dz = sz_[s] - center[2];
                        const double r = radius + scut_[s] + 1e-6;
                        if (dx * dx + dy * dy + dz * dz <= r * r) out.push_back(s);
                    }
                }
            }
        }
        std::sort(out.begin(), out.end());
    }

    // The sources near a block in the kernel's arrays, and the work arrays of its points.
    struct Near {
        std::vector<int> idx;
        quovix_pair_sources src;
        std::vector<double> px, py, pz, eb, ec, out;
    };

    static void resize_points(Near &nr, long count) {
        const auto c = static_cast<std::size_t>(count);
        for (auto *v : {&nr.px, &nr.py, &nr.pz, &nr.eb, &nr.ec, &nr.out}) v->resize(c);
    }

    // The gathered sources, split by kind (each kind feeds its own sum, so splitting keeps
    // the order of every sum).
    void split(Near &nr) const {
        nr.src.clear();
        for (int s : nr.idx) {
            const Term &t = ls_.terms[sterm_[s]];
            const double x[3] = {sx_[s], sy_[s], sz_[s]};
            if (t.bonded)
                nr.src.add_bonded(x, t.occ, *t.pt);
            else
                nr.src.add_coulomb(x, t.occ, *t.pt, t.reff, t.shift);
        }
    }

    // Energies (eV, capped) of the points whose positions fill nr.px/py/pz[0..count) into
    // out[0..count).
    void energies(Near &nr, std::size_t count, double *out) const {
        if (scalar_) {
            quovix_pair_kernel_sum_exact(nr.src, nr.px.data(), nr.py.data(), nr.pz.data(), count,
                                         nr.eb.data(), nr.ec.data());
            for (std::size_t p = 0; p < count; p++) out[p] = final_energy(nr.eb[p], nr.ec[p]);
            return;
        }
        quovix_pair_kernel_sum(nr.src, nr.px.data(), nr.py.data(), nr.pz.data(), count,
                               nr.eb.data(), nr.ec.data());
        for (std::size_t p = 0; p < count; p++) {
            out[p] = final_energy(nr.eb[p], nr.ec[p]);
            if (!near_print_boundary(out[p])) continue;
            double eb, ec;
            quovix_pair_kernel_sum_exact(nr.src, &nr.px[p], &nr.py[p], &nr.pz[p], 1, &eb, &ec);
            out[p] = final_energy(eb, ec);
        }
    }

    void set_point(Near &nr, std::size_t slot, long i, long j, long k) const {
        double r[3];
        grid_position(r, cube_->a_i, i, j, k);
        nr.px[slot] = r[0];
        nr.py[slot] = r[1];
        nr.pz[slot] = r[2];
    }

    double single(long i, long j, long k) const {
        double r[3];
        grid_position(r, cube_->a_i, i, j, k);
        Near nr;
        gather(nr.idx, r, 0.0);
        split(nr);
        resize_points(nr, 1);
        set_point(nr, 0, i, j, k);
        double e;
        energies(nr, 1, &e);
        return e;
    }

    // Blocks of about 0.9 A along each axis: small enough that a block's gathered sources
    // are few more than a point's, large enough to share the gathering among many points.
    void block_layout(long bsz[3], long nblk[3]) const {
        const long *n = cube_->n;
        for (int c = 0; c < 3; c++) {
            const double step = std::sqrt(cube_->a_i[c][0] * cube_->a_i[c][0] +
                                          cube_->a_i[c][1] * cube_->a_i[c][1] +
                                          cube_->a_i[c][2] * cube_->a_i[c][2]);
            long b = step > 0.0 ? static_cast<long>(std::ceil(BLOCK_EDGE / step)) : 1;
            bsz[c] = std::clamp(b, 1L, n[c]);
            nblk[c] = (n[c] + bsz[c] - 1) / bsz[c];
        }
    }

    // Index ranges of block b and the sources near it.
    void open_block(long b, const long bsz[3], const long nblk[3], long lo[3], long hi[3],
                    Near &nr) const {
        const long *n = cube_->n;
        const long bi = b / (nblk[1] * nblk[2]), bj = (b / nblk[2]) % nblk[1], bk = b % nblk[2];
        lo[0] = bi * bsz[0];
        lo[1] = bj * bsz[1];
        lo[2] = bk * bsz[2];
        for (int c = 0; c < 3; c++) hi[c] = std::min(lo[c] + bsz[c], n[c]) - 1;
        double c0[3], c1[3], center[3];
        grid_position(c0, cube_->a_i, lo[0], lo[1], lo[2]);
        grid_position(c1, cube_->a_i, hi[0], hi[1], hi[2]);
        for (int c = 0; c < 3; c++) center[c] = 0.5 * (c0[c] + c1[c]);
        double radius = 0.0;
        for (int corner = 0; corner < 8; corner++) {
            double r[3];
            grid_position(r, cube_->a_i, (corner & 1) ? hi[0] : lo[0], (corner & 2) ? hi[1] : lo[1],
                          (corner & 4) ? hi[2] : lo[2]);
            radius = std::max(radius, distance(center, r[0], r[1], r[2]));
        }
        gather(nr.idx, center, radius);
        split(nr);
    }

    // Runs body(block, near) -> points done over the listed blocks on all threads, with the
    // progress line; an exception in a thread is rethrown as std::bad_alloc afterwards.
    template <class Body>
    void parallel_blocks(const std::vector<long> &blocks, long points, Body body) {
        Progress progress(points);
        std::atomic<long> done{0};
        std::atomic<bool> failed{false};
        const long nblocks = static_cast<long>(blocks.size());
#pragma omp parallel
        {
            Near nr;
#pragma omp for schedule(dynamic, 1)
            for (long q = 0; q < nblocks; q++) {
                if (failed.load(std::memory_order_relaxed)) continue;
                try {
                    const long count = body(blocks[q], nr);
                    const long now = done.fetch_add(count) + count;
                    if (omp_get_thread_num() == 0) progress.update(now);
                } catch (...) {
                    failed.store(true);
                }
            }
        }
        progress.finish();
        if (failed.load()) throw std::bad_alloc();
    }

    // No symmetry images: no value lands on another point, so the plain loop computes every
    // point once, in place. Each block writes its points straight into the grid.
    void compute_in_place() {
        long bsz[3], nblk[3];
        block_layout(bsz, nblk);
        std::vector<long> blocks(static_cast<std::size_t>(nblk[0] * nblk[1] * nblk[2]));
        for (std::size_t b = 0; b < blocks.size(); b++) blocks[b] = static_cast<long>(b);
        parallel_blocks(blocks, total_, [&](long b, Near &nr) {
            long lo[3], hi[3];
            open_block(b, bsz, nblk, lo, hi, nr);
            const long count = (hi[0] - lo[0] + 1) * (hi[1] - lo[1] + 1) * (hi[2] - lo[2] + 1);
            resize_points(nr, count);
            std::size_t slot = 0;
            for (long i = lo[0]; i <= hi[0]; i++)
                for (long j = lo[1]; j <= hi[1]; j++)
                    for (long k = lo[2]; k <= hi[2]; k++) set_point(nr, slot++, i, j, k);
            energies(nr, slot, nr.out.data());
            slot = 0;
            for (long i = lo[0]; i <= hi[0]; i++)
                for (long j = lo[1]; j <= hi[1]; j++)
                    for (long k = lo[2]; k <= hi[2]; k++) cube_->en[i][j][k] = nr.out[slot++];
            return count;
        });
    }

    // Energies of the listed points (grid order indices) into value[], block by block.
    void compute(const std::vector<long> &reps, std::vector<double> &value) {
        long bsz[3], nblk[3];
        block_layout(bsz, nblk);
        const long nb = nblk[0] * nblk[1] * nblk[2];
        auto block_of = [&](long p) {
            const auto x = grid_.index(p);
            return ((x[0] / bsz[0]) * nblk[1] + x[1] / bsz[1]) * nblk[2] + x[2] / bsz[2];
        };
        // Points grouped by block (counting sort, grid order kept within a block).
        std::vector<long> start(static_cast<std::size_t>(nb) + 1, 0);
        for (long p : reps) start[block_of(p) + 1]++;
        for (long b = 0; b < nb; b++) start[b + 1] += start[b];
        std::vector<long> items(reps.size());
        {
            std::vector<long> fill(start.begin(), start.end() - 1);
            for (std::size_t o = 0; o < reps.size(); o++)
                items[fill[block_of(reps[o])]++] = static_cast<long>(o);
        }
        std::vector<long> blocks;
        for (long b = 0; b < nb; b++)
            if (start[b + 1] > start[b]) blocks.push_back(b);

        parallel_blocks(blocks, static_cast<long>(reps.size()), [&](long b, Near &nr) {
            long lo[3], hi[3];
            open_block(b, bsz, nblk, lo, hi, nr);
            const long count = start[b + 1] - start[b];
            resize_points(nr, count);
            for (long it = start[b]; it < start[b + 1]; it++) {
                const auto x = grid_.index(reps[items[it]]);
                set_point(nr, static_cast<std::size_t>(it - start[b]), x[0], x[1], x[2]);
            }
            energies(nr, static_cast<std::size_t>(count), nr.out.data());
            for (long it = start[b]; it < start[b + 1]; it++)
                value[items[it]] = nr.out[static_cast<std::size_t>(it - start[b])];
            return count;
        });
    }
};

}  // namespace

/// Grid counts for lattice lengths `length` (A) at `resolution` (A): n_k = ceil(L_k / res /
/// 24) * 24, then, while n_0 n_1 n_2 > 196^3, the largest count drops by 24 (ties go to the
/// earlier axis, except that the third is taken whenever it is strictly the largest).
/// 0 on success; 1 for a non-positive resolution or length.
int quovix_cube_grid_size(long n[3], const double length[3], double resolution) {
    if (!n || !length || !(resolution > 0.0) || !std::isfinite(resolution)) {
        std::fputs("Error: resolution must be a positive number.\n", stderr);
        return 1;
    }
    for (int k = 0; k < 3; k++) {
        if (!(length[k] > 0.0) || !std::isfinite(length[k])) {
            std::fputs("Error: lattice lengths must be positive.\n", stderr);
            return 1;
        }
        double units = std::ceil(length[k] / resolution / static_cast<double>(GRID_STEP));
        if (!(units >= 1.0)) units = 1.0;
        if (units > GRID_UNITS_CAP) units = GRID_UNITS_CAP;
        n[k] = static_cast<long>(units) * GRID_STEP;
    }
    while (n[0] * n[1] * n[2] > MAX_GRID_POINTS) {
        if (n[0] < n[1]) {
            if (n[1] < n[2])
                n[2] -= GRID_STEP;
            else
                n[1] -= GRID_STEP;
        } else {
            if (n[0] < n[2])
                n[2] -= GRID_STEP;
            else
                n[0] -= GRID_STEP;
        }
    }
    return 0;
}

/// Checks what a landscape needs of the parameter set: every species has a non-zero oxidation
/// state, the mobile species is named, and each pair the mobile ion forms has its constants
/// (Morse constants and cutoff for opposite charges; charges, radii and screening factor for
/// like charges). 0 when usable, 1 after printing the first fault.
int quovix_cube_validate_property(QUOVIX_PROPERTY *ppt) {
    if (!ppt || ppt->total <= 0 || !ppt->uni || !ppt->bin || !ppt->os || !ppt->type) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; i++) {
        if (ppt->os[i] == 0) {
            std::fprintf(stderr, "Error: oxidation state is zero where atom[%ld]: %s0+.\n",
                         static_cast<long>(i), ppt->type[i]);
            return 1;
        }
    }
    const int M = ppt->conducting;
    if (M < 0 || M >= ppt->total) {
        std::fputs("Error: conducting ion is not specified in QUOVIX_PROPERTY.\n", stderr);
        return 1;
    }
    const QUOVIX_PROPERTY_UNITARY &um = ppt->uni[M];
    const int os_m = ppt->os[M];
    for (int T = 0; T < ppt->total; T++) {
        const QUOVIX_PROPERTY_UNITARY &ut = ppt->uni[T];
        const int os_t = ppt->os[T];
        if (os_m * os_t < 0) {
            const int cat = os_m > 0 ? M : T;
            const QUOVIX_PROPERTY_BINARY &p = os_m > 0 ? ppt->bin[M][T] : ppt->bin[T][M];
            const struct {
                const char *name;
                double value;
            } need[] = {{"cutoff", p.cutoff}, {"b", p.b}, {"d0", p.d0}, {"rmin", p.rmin}};
            for (const auto &v : need) {
                if (!(v.value > 0.0) || !std::isfinite(v.value)) {
                    std::fprintf(stderr, "Error: incorrect %s at [%d](%s%d%c)-(%s%d%c) %s=%f\n",
                                 v.name, cat, p.type1, quovix_abs_os(p.os1),
                                 quovix_sign_char(p.os1), p.type2, quovix_abs_os(p.os2),
                                 quovix_sign_char(p.os2), v.name, v.value);
                    return 1;
                }
            }
        } else {
            const QUOVIX_PROPERTY_UNITARY *check[2] = {&um, &ut};
            const int index[2] = {M, T};
            for (int s = 0; s < 2; s++) {
                const QUOVIX_PROPERTY_UNITARY &u = *check[s];
                if (!(u.rc > 0.0) || !std::isfinite(u.rc)) {
                    std::fprintf(stderr, "Error: incorrect rc at[%d](%s%d%c) rc=%f\n", index[s],
                                 u.type, quovix_abs_os(u.os), quovix_sign_char(u.os), u.rc);
                    return 1;
                }
                if (!(u.os * u.q > 0.0) || !std::isfinite(u.q)) {
                    std::fprintf(stderr, "Error: incorrect q at [%d](%s%d%c) q=%f\n", index[s],
                                 u.type, quovix_abs_os(u.os), quovix_sign_char(u.os), u.q);
                    return 1;
                }
            }
            if (!(ppt->sf > 0.0) || !std::isfinite(ppt->sf)) {
                std::fprintf(stderr, "Error: incorrect screening factor sf=%f\n", ppt->sf);
                return 1;
            }
        }
    }
    return 0;
}

/// Energy landscape (eV, capped at 999.9) of the mobile species ppt->conducting on a grid
/// over the cell (counts from quovix_cube_grid_size), one value per symmetry orbit computed
/// and copied to the orbit (symmetry may be null: no filling). With `ignore_conducting` the
/// atoms of the mobile species are marked `ignored` and leave the sum; the flags stay set.
/// Uses all OpenMP threads; the values do not depend on their number, lie within 1e-9 eV of
/// those of quovix_cube_calculate_plain and print identically with six decimals (the pair
/// terms go through the vector kernel of quovix-pair.hpp). New cube (free with quovix_cube_free),
/// or null after printing the reason.
QUOVIX_CUBE *quovix_cube_calculate(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                   QUOVIX_PROPERTY *ppt, double resolution,
                                   bool ignore_conducting) {
    return quovix_guard("the landscape work arrays", [&]() -> QUOVIX_CUBE * {
        Landscape ls;
        if (!prepare(ls, cell, symmetry, ppt, resolution, ignore_conducting)) return nullptr;
        FastFill(ls, false).run();
        return ls.cube.release();
    });
}

/// quovix_cube_calculate with the scalar pair functions instead of the vector kernel: the
/// plain loop's values bit for bit, at the speed of one exp or erfc call at a time. Kept as
/// the reference of the kernel (tests, benchmarks).
QUOVIX_CUBE *quovix_cube_calculate_scalar(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                          QUOVIX_PROPERTY *ppt, double resolution,
                                          bool ignore_conducting) {
    return quovix_guard("the landscape work arrays", [&]() -> QUOVIX_CUBE * {
        Landscape ls;
        if (!prepare(ls, cell, symmetry, ppt, resolution, ignore_conducting)) return nullptr;
        FastFill(ls, true).run();
        return ls.cube.release();
    });
}

/// The reference landscape: every grid point in order, every acting atom and every lattice
/// translation of the search range, symmetry images filled as points are computed. Same
/// arguments, messages and result as quovix_cube_calculate, much slower; kept for testing.
QUOVIX_CUBE *quovix_cube_calculate_plain(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                         QUOVIX_PROPERTY *ppt, double resolution,
                                         bool ignore_conducting) {
    return quovix_guard("the landscape work arrays", [&]() -> QUOVIX_CUBE * {
        Landscape ls;
        if (!prepare(ls, cell, symmetry, ppt, resolution, ignore_conducting)) return nullptr;
        fill_plain(ls);
        return ls.cube.release();
    });
}

/// Builds the parameter set of `cell` with the mobile species (type, os) and screening factor
/// `sf` (<= 0: fitted), then computes the landscape. The set is handed to the caller through
/// `ppt` (free with quovix_property_free) for the cube header; the cell's atoms are sorted in
/// place by the build. New cube, or null after printing the failing step (*ppt then null).
QUOVIX_CUBE *quovix_cube_calculate_from_cell(QUOVIX_PROPERTY **ppt, QUOVIX_CELL *cell,
                                             QUOVIX_SYMMETRY *symmetry, const char *type, int os,
                                             double sf, double resolution, bool ignore_conducting,
                                             const char *dir_unitary, const char *dir_binary) {
    if (ppt) *ppt = nullptr;
    quovix_property_ptr set{
        quovix_property_import_from_cell(cell, type, os, sf, dir_unitary, dir_binary)};
    if (!set) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_cube_ptr cube{
        quovix_cube_calculate(cell, symmetry, set.get(), resolution, ignore_conducting)};
    if (!cube) {
        std::fputs("Error: quovix_cube_calculate() returns NULL.\n", stderr);
        return nullptr;
    }
    if (ppt) *ppt = set.release();
    return cube.release();
}

/// Landscape of (type, os) in `cell` written to `filename` as a cube file with the cell in
/// its header (`periodic`: boundary planes stored once). 0 on success, 1 after printing the
/// failing step.
int quovix_cube_calculate_from_cell_and_write_to_file(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                                                      const char *type, int os, double sf,
                                                      double resolution, bool ignore_conducting,
                                                      bool periodic, const char *filename,
                                                      const char *dir_unitary,
                                                      const char *dir_binary) {
    QUOVIX_PROPERTY *raw = nullptr;
    quovix_cube_ptr cube{quovix_cube_calculate_from_cell(&raw, cell, symmetry, type, os, sf,
                                                         resolution, ignore_conducting, dir_unitary,
                                                         dir_binary)};
    quovix_property_ptr ppt{raw};
    if (!cube) {
        std::fputs("Error: quovix_cube_calculate_from_cell() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_cube_export_to_file(cube.get(), cell, ppt.get(), filename, periodic) != 0) {
        std::fputs("Error: quovix_cube_export_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

/// The cell the landscape is computed on when the mobile species shares sites with other
/// species: the default supercell of `cell` with the mixed sites around (type, os) resolved
/// at random (quovix_random, seeded once per run). New cell in P1 (free with
/// quovix_cell_free), or null after printing the failing step.
QUOVIX_CELL *quovix_cube_super_simple(QUOVIX_CELL *cell, const char *type, int os) {
    quovix_cell_ptr super{quovix_cell_supercell_default(cell)};
    if (!super) {
        std::fputs("Error: quovix_cell_supercell_default() returns NULL.\n", stderr);
        return nullptr;
    }
    QUOVIX_CELL *assigned =
        quovix_cell_assign_partial_occ_at_conducting_site(super.get(), type, os);
    if (!assigned) {
        std::fputs("Error: quovix_cell_assign_partial_occ_at_conducting_site() returns NULL.\n",
                   stderr);
        return nullptr;
    }
    // The name states the composition: recount it for the resolved occupancies.
    quovix_atom_sort(assigned->atom, assigned->total);
    quovix_cell_update_name(assigned);
    return assigned;
}

/// Landscape and cube file as quovix_cube_calculate_from_cell_and_write_to_file, handling a
/// mobile species that shares sites with other species: with `skip_mix_occ` nothing is
/// computed (a message says so, and the result is success); otherwise the occupancies are
/// resolved on a default supercell (quovix_cube_super_simple), that cell is written in P1 to
/// `filename_assigned`, and the landscape is computed on it. 0 on success, 1 after printing
/// the failing step.
int quovix_cube_calculate_from_cell_and_write_to_file_assign_partial_occ(
    QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry, const char *type, int os, double sf,
    double resolution, bool ignore_conducting, bool periodic, bool skip_mix_occ,
    const char *filename, const char *filename_assigned, const char *dir_unitary,
    const char *dir_binary) {
    if (!cell || !cell->atom || cell->total <= 0) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return 1;
    }
    // The landscape of `target` written to `filename`; 1 after the failure line.
    const auto write_landscape = [&](QUOVIX_CELL *target, QUOVIX_SYMMETRY *target_symmetry) {
        if (quovix_cube_calculate_from_cell_and_write_to_file(
                target, target_symmetry, type, os, sf, resolution, ignore_conducting, periodic,
                filename, dir_unitary, dir_binary) == 0) {
            return 0;
        }
        std::fputs(
            "Error: quovix_cube_calculate_from_cell_and_write_to_file() returns "
            "non-zero.\n",
            stderr);
        return 1;
    };
    if (!quovix_cell_partial_occ_at_conducting_site(cell, type, os)) {
        return write_landscape(cell, symmetry);
    }
    if (skip_mix_occ) {
        std::puts(
            "Message: partial occupancy at conducting sites detected. Cube file generation "
            "will be skipped.");
        return 0;
    }
    std::puts(
        "Message: partial occupancy at conducting sites detected. Cube will be generated "
        "based on an asigned supercell.");
    quovix_cell_ptr super{quovix_cube_super_simple(cell, type, os)};
    if (!super) {
        std::fputs("Error: quovix_cube_super_simple() returns NULL.\n", stderr);
        return 1;
    }
    quovix_symmetry_ptr p1{quovix_symmetry_new_p1()};
    if (!p1) {
        std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_cell_export_cif_to_file(filename_assigned, super.get(), p1.get()) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    return write_landscape(super.get(), p1.get());
}
