// Kinetic Monte Carlo state: neighbour lists, rates, residence-time steps and the production run.
#include "quovix-kmc.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-la.hpp"
#include "quovix-pair.hpp"
#include "quovix-reference.hpp"

namespace {

// --------------------------------------------------------------- lattice geometry

/// Lattice rows a[k] and the inverse that turns a Cartesian row vector into fractions.
struct frame {
    double a[3][3];
    double inv[3][3];
    double width[3];  // perpendicular widths V / |a_i x a_j|
    bool ok = false;
};

frame make_frame(const double a[3][3]) {
    frame f{};
    std::memcpy(f.a, a, sizeof f.a);
    const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                       a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                       a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    if (!(std::fabs(det) > 1e-12) || !std::isfinite(det)) return f;
    // x = s A with s a row of fractions, so s = x A^-1.
    quovix_matrix33_double_inverse_cofactor(f.inv, a, det);
    for (int k = 0; k < 3; ++k) {
        double c[3];
        quovix_vector3_double_cross(c, a[(k + 1) % 3], a[(k + 2) % 3]);
        f.width[k] = std::fabs(det) / quovix_vector3_double_length(c);
    }
    f.ok = true;
    return f;
}

void to_fractional(double s[3], const frame &f, const double x[3]) {
    for (int k = 0; k < 3; ++k) s[k] = x[0] * f.inv[0][k] + x[1] * f.inv[1][k] + x[2] * f.inv[2][k];
}

/// Minimum-image distance for the cut-off test. Rounding the fractional difference gives the
/// nearest image whenever that image is closer than half the smallest perpendicular width
/// (its fractional components are then below 1/2 in magnitude); quovix_kmc_new refuses
/// cut-offs above that, so a distance below the cut-off is never missed.
double min_image_distance(const frame &f, const double x1[3], const double x2[3]) {
    const double dx[3] = {x2[0] - x1[0], x2[1] - x1[1], x2[2] - x1[2]};
    double s[3];
    to_fractional(s, f, dx);
    for (double &v : s) v -= std::nearbyint(v);
    double d2 = 0.0;
    for (int c = 0; c < 3; ++c) {
        const double x = s[0] * f.a[0][c] + s[1] * f.a[1][c] + s[2] * f.a[2][c];
        d2 += x * x;
    }
    return std::sqrt(d2);
}

/// Vertices binned by fractional position, bins at least one cut-off wide, so that every
/// vertex within the cut-off of a point lies in the 27 bins around it.
class vertex_bins {
   public:
    vertex_bins(const frame &f, const QUOVIX_GRAPH *g, double cutoff) : f_(f) {
        for (int k = 0; k < 3; ++k)
            nb_[k] = static_cast<int>(std::clamp(std::floor(f.width[k] / cutoff), 1.0, 64.0));
        bin_.resize(static_cast<std::size_t>(nb_[0]) * nb_[1] * nb_[2]);
        for (long i = 0; i < g->total_v; ++i) bin_[index_of(g->v[i].x)].push_back(i);
    }
    /// Candidate vertices near x (each once, in increasing index).
    void near(std::vector<long> &out, const double x[3]) const {
        out.clear();
        int c[3];
        cell_of(c, x);
        std::vector<int> seen;
        for (int i = -1; i <= 1; ++i)
            for (int j = -1; j <= 1; ++j)
                for (int k = -1; k <= 1; ++k) {
                    const int b = flat((c[0] + i + nb_[0]) % nb_[0], (c[1] + j + nb_[1]) % nb_[1],
                                       (c[2] + k + nb_[2]) % nb_[2]);
                    if (std::find(seen.begin(), seen.end(), b) != seen.end()) continue;
                    seen.push_back(b);
                    out.insert(out.end(), bin_[b].begin(), bin_[b].end());
                }
        std::sort(out.begin(), out.end());
    }

   private:
    void cell_of(int c[3], const double x[3]) const {
        double s[3];
        to_fractional(s, f_, x);
        for (int k = 0; k < 3; ++k) {
            double v = s[k] - std::floor(s[k]);
            if (!std::isfinite(v)) v = 0.0;
            c[k] = std::min(nb_[k] - 1, static_cast<int>(v * nb_[k]));
        }
    }
    int flat(int i, int j, int k) const { return (i * nb_[1] + j) * nb_[2] + k; }
    std::size_t index_of(const double x[3]) const {
        int c[3];
        cell_of(c, x);
        return static_cast<std::size_t>(flat(c[0], c[1], c[2]));
    }
    frame f_;
    int nb_[3];
    std::vector<std::vector<long>> bin_;
};

// --------------------------------------------------------------- small owned arrays

template <class T>
T *copy_out(const std::vector<T> &v) {
    if (v.empty()) return nullptr;
    T *p = static_cast<T *>(std::calloc(v.size(), sizeof(T)));
    if (p) std::copy(v.begin(), v.end(), p);
    return p;
}

// --------------------------------------------------------------- sum tree

/// Index of the leaf at which the running sum of the leaves passes u (descending from the
/// root: left when u falls below the left sum). Leaves with zero weight are never chosen
/// unless u is at or beyond the total by rounding, which the caller checks.
long tree_pick(const double *tree, long size, double u) {
    long k = 1;
    while (k < size) {
        const double left = tree[2 * k];
        if (u < left) {
            k = 2 * k;
        } else {
            u -= left;
            k = 2 * k + 1;
        }
    }
    return k - size;
}

void tree_set(double *tree, long size, long i, double value) {
    // The running value stays in a register; each parent is still left + right, in that order.
    long k = size + i;
    tree[k] = value;
    for (; k > 1; k /= 2) {
        value = (k % 2 == 0) ? value + tree[k + 1] : tree[k - 1] + value;
        tree[k / 2] = value;
    }
}

void tree_build(double *tree, long size) {
    for (long k = size - 1; k >= 1; --k) tree[k] = tree[2 * k] + tree[2 * k + 1];
}

long tree_leaves(long n) {
    long p = 1;
    while (p < n) p *= 2;
    return p;
}

// --------------------------------------------------------------- rates

double coulomb_de(double d, double qq, double r_eff) {
    // Contacts closer than 0.2 A are taken at 0.2 A: a huge but finite repulsion that still
    // forbids the pair, without the infinity of erfc(x)/x at x = 0.
    return QUOVIX_COULOMB * quovix_energy_coulombic(std::max(d, QUOVIX_MIN_CONTACT), qq, r_eff);
}

/// Arrhenius rate from the interaction-corrected energies of start, end and saddle.
double rate_from(const QUOVIX_KMC *kmc, double f, double ea, double eb, double es) {
    // The saddle counts only when it lies above both ends; otherwise the barrier is the
    // difference of the site energies, which is negative for a hop downhill.
    if (ea < es && eb < es) eb = es;
    const double x = -(eb - ea) / (QUOVIX_BOLTZMANN * kmc->temperature);
    // exp(600) ~ 1e260 keeps a sum over millions of edges finite.
    return f * std::exp(std::min(x, 600.0));
}

/// Rate of edge i from the running interaction sums (the fast step): as edge_rate, with the
/// repulsion on the start site read from phi (the end site is empty) and that on the end
/// site from phi less the mover's own share.
double edge_rate_fast(const QUOVIX_KMC *kmc, long i) {
    const QUOVIX_KMC_HOT &h = kmc->hot[i];
    if (!kmc->site_occ[h.a] || kmc->site_occ[h.b]) return 0.0;
    return rate_from(kmc, h.f, kmc->site_e[h.a], kmc->site_e[h.b] - h.de, h.es);
}

/// Rate of edge i in the current occupancy (1/ps), summing the neighbours literally.
double edge_rate(const QUOVIX_KMC *kmc, long i) {
    const QUOVIX_KMC_EDGE &ke = kmc->ke[i];
    const long a = ke.e->v_i->index;
    const long b = ke.e->v_f->index;
    const QUOVIX_KMC_VERTEX *kv = kmc->kv;
    if (!kv[a].occupied || kv[b].occupied) return 0.0;
    double ea = kv[a].en;
    for (int k = 0; k < kv[a].total_v; ++k)
        if (kv[a].v_n[k] != b && kv[kv[a].v_n[k]].occupied) ea += kv[a].v_de[k];
    double eb = kv[b].en;
    for (int k = 0; k < kv[b].total_v; ++k)
        if (kv[b].v_n[k] != a && kv[kv[b].v_n[k]].occupied) eb += kv[b].v_de[k];
    double es = ke.en;
    for (int k = 0; k < ke.total_v; ++k)
        if (kv[ke.v_n[k]].occupied) es += ke.v_de[k];
    return rate_from(kmc, ke.f, ea, eb, es);
}

/// The running interaction sums from scratch.
void recompute_phi(QUOVIX_KMC *kmc) {
    QUOVIX_KMC_VERTEX *kv = kmc->kv;
    for (long i = 0; i < kmc->graph->total_v; ++i) kmc->site_occ[i] = kv[i].occupied;
    for (long i = 0; i < kmc->graph->total_v; ++i) {
        double phi = 0.0;
        for (int k = 0; k < kv[i].total_v; ++k)
            if (kv[kv[i].v_n[k]].occupied) phi += kv[i].v_de[k];
        kmc->site_e[i] = kv[i].en + phi;
    }
    for (long i = 0; i < kmc->graph->total_e; ++i) {
        const QUOVIX_KMC_EDGE &ke = kmc->ke[i];
        double phi = 0.0;
        for (int k = 0; k < ke.total_v; ++k)
            if (kv[ke.v_n[k]].occupied) phi += ke.v_de[k];
        kmc->hot[i].es = ke.en + phi;
    }
}

/// An ion leaves (sign -1) or arrives on (+1) vertex v: the site sums around it follow.
void shift_phi_vertices(QUOVIX_KMC *kmc, long v, double sign) {
    const QUOVIX_KMC_VERTEX &kv = kmc->kv[v];
    for (int k = 0; k < kv.total_v; ++k) kmc->site_e[kv.v_n[k]] += sign * kv.v_de[k];
}

/// The same for the sums at the saddles near v.
void shift_phi_saddles(QUOVIX_KMC *kmc, long v, double sign) {
    const QUOVIX_KMC_VERTEX &kv = kmc->kv[v];
    for (int k = 0; k < kv.total_s; ++k) kmc->hot[kv.s_n[k]].es += sign * kv.s_de[k];
}

/// New rate of edge i; the sum tree follows.
void set_rate(QUOVIX_KMC *kmc, long i, double r) {
    QUOVIX_KMC_HOT &h = kmc->hot[i];
    if (r == h.r) return;
    h.r = r;
    kmc->ke[i].r = r;
    tree_set(kmc->tree, kmc->tree_size, i, r);
}

/// Refresh after an ion moved from vertex a to vertex b (the fast step). A rate changes only
/// through the occupancy of a and b, the repulsion sums of their neighbours and those of the
/// saddles near them. Around the saddles every listed edge is refreshed (their sums moved);
/// around the vertices, an occupied one can only gain or lose hops out of it and an empty one
/// hops into it, besides the hops out of a and into b, which just stopped.
void update_rate_local(QUOVIX_KMC *kmc, long a, long b) {
    QUOVIX_KMC_VERTEX *kv = kmc->kv;
    QUOVIX_KMC_HOT *hot = kmc->hot;
    shift_phi_vertices(kmc, a, -1.0);
    shift_phi_vertices(kmc, b, 1.0);
    shift_phi_saddles(kmc, a, -1.0);
    shift_phi_saddles(kmc, b, 1.0);
    // Every sum is final now; each edge is recomputed once (the stamp skips repeats).
    const long stamp = ++kmc->refresh;
    auto refresh_edge = [&](long i) {
        if (hot[i].stamp == stamp) return;
        hot[i].stamp = stamp;
        set_rate(kmc, i, edge_rate_fast(kmc, i));
    };
    for (long v : {a, b})
        for (int k = 0; k < kv[v].total_s; ++k) refresh_edge(kv[v].s_n[k]);
    auto refresh = [&](const long *start, const long *edge, long v) {
        for (long k = start[v]; k < start[v + 1]; ++k) refresh_edge(edge[k]);
    };
    refresh(kmc->out_start, kmc->out_e, a);
    refresh(kmc->in_start, kmc->in_e, b);
    auto visit = [&](long w) {
        if (kv[w].update) return;
        kv[w].update = true;
        if (kmc->site_occ[w])
            refresh(kmc->out_start, kmc->out_e, w);
        else
            refresh(kmc->in_start, kmc->in_e, w);
    };
    for (long v : {a, b}) {
        visit(v);
        for (int k = 0; k < kv[v].total_v; ++k) visit(kv[v].v_n[k]);
    }
    for (long v : {a, b}) {
        kv[v].update = false;
        for (int k = 0; k < kv[v].total_v; ++k) kv[kv[v].v_n[k]].update = false;
    }
}

// --------------------------------------------------------------- steps

enum class step_result { ok, rate_too_small, failed };

/// Moves the ion along edge i at the (already advanced) time.
void hop(QUOVIX_KMC *kmc, long i) {
    QUOVIX_GRAPH_EDGE *e = kmc->ke[i].e;
    const long a = e->v_i->index;
    const long b = e->v_f->index;
    QUOVIX_KMC_VERTEX &va = kmc->kv[a];
    QUOVIX_KMC_VERTEX &vb = kmc->kv[b];
    const long o = va.origin;
    QUOVIX_KMC_VERTEX &vo = kmc->kv[o];
    const double(*lat)[3] = kmc->graph->a;
    for (int k = 0; k < 3; ++k) {
        vo.y_i[k] += e->bound[k];
        vo.d[k] += e->v_f->x[k] - e->v_i->x[k] + e->bound[0] * lat[0][k] + e->bound[1] * lat[1][k] +
                   e->bound[2] * lat[2][k];
    }
    va.t += kmc->t - va.t_in;
    va.occupied = false;
    vb.occupied = true;
    kmc->site_occ[a] = false;
    kmc->site_occ[b] = true;
    vb.origin = o;
    vb.t_in = kmc->t;
    kmc->ke[i].r2[0] += 1.0;
}

/// Residence time: dt = -ln(rho) / R with rho kept inside [1e-5, 0.99999].
double draw_dt(double total) {
    double rho;
    do {
        rho = quovix_kmc_random();
    } while (rho < 1e-05 || rho > 0.99999);
    return -std::log(rho) / total;
}

step_result step_fast(QUOVIX_KMC *kmc) {
    const double total = kmc->tree[1];
    if (!(total >= QUOVIX_KMC_RATE_MIN)) return step_result::rate_too_small;
    const double u = quovix_kmc_random() * total;
    long i = tree_pick(kmc->tree, kmc->tree_size, u);
    if (i >= kmc->graph->total_e || !(kmc->ke[i].r > 0.0)) {
        // u at the very top of the total by rounding: the last edge with a rate.
        for (i = kmc->graph->total_e - 1; i >= 0 && !(kmc->ke[i].r > 0.0); --i) {
        }
        if (i < 0) {
            std::fputs("Error: transition failed.\n", stderr);
            return step_result::failed;
        }
    }
    const double dt = draw_dt(total);
    kmc->t += dt;
    kmc->t_total += dt;
    kmc->rate_integral += total * dt;
    const long a = kmc->ke[i].e->v_i->index;
    const long b = kmc->ke[i].e->v_f->index;
    hop(kmc, i);
    update_rate_local(kmc, a, b);
    return step_result::ok;
}

step_result step_plain(QUOVIX_KMC *kmc) {
    const long ne = kmc->graph->total_e;
    double total = 0.0;
    for (long i = 0; i < ne; ++i) total += kmc->ke[i].r;
    if (!(total >= QUOVIX_KMC_RATE_MIN)) return step_result::rate_too_small;
    const double u = quovix_kmc_random() * total;
    long pick = -1;
    double sum = 0.0;
    for (long i = 0; i < ne; ++i) {
        sum += kmc->ke[i].r;
        if (sum > u) {
            pick = i;
            break;
        }
    }
    if (pick < 0) {
        std::fputs("Error: transition failed.\n", stderr);
        return step_result::failed;
    }
    const double dt = draw_dt(total);
    kmc->t += dt;
    kmc->t_total += dt;
    kmc->rate_integral += total * dt;
    const long a = kmc->ke[pick].e->v_i->index;
    const long b = kmc->ke[pick].e->v_f->index;
    hop(kmc, pick);
    // The running sums stay current for a later fast step; the rates here use literal sums.
    shift_phi_vertices(kmc, a, -1.0);
    shift_phi_vertices(kmc, b, 1.0);
    shift_phi_saddles(kmc, a, -1.0);
    shift_phi_saddles(kmc, b, 1.0);
    kmc->kv[a].update = true;
    kmc->kv[b].update = true;
    if (quovix_kmc_update_rate(kmc) != 0) {
        std::fputs("Error: quovix_kmc_update_rate() returns non-zero.\n", stderr);
        return step_result::failed;
    }
    return step_result::ok;
}

step_result step_once(QUOVIX_KMC *kmc, bool plain) {
    return plain ? step_plain(kmc) : step_fast(kmc);
}

int evolve_with(QUOVIX_KMC *kmc, bool plain) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->tree == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    const step_result s = step_once(kmc, plain);
    if (s == step_result::rate_too_small) {
        std::fputs("Error: overall rate is too small.\n", stderr);
        return 1;
    }
    if (s != step_result::ok) return 1;
    ++kmc->step;
    if (quovix_kmc_log(kmc) != 0) {
        std::fputs("Error: quovix_kmc_log() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

// --------------------------------------------------------------- placement

/// Draws the starting placement: round(total_occ) ions, one after another, each on an empty
/// vertex chosen with probability proportional to its occupancy (without replacement); when
/// no empty vertex with occupancy is left, on the empty vertex of lowest energy.
int place_ions(QUOVIX_KMC *kmc) {
    QUOVIX_GRAPH *g = kmc->graph;
    const double want = std::nearbyint(g->total_occ);
    if (!(want >= 0.0) || want > static_cast<double>(g->total_v)) {
        std::fputs("Error: unable to assign occ.\n", stderr);
        return 1;
    }
    const long n_ion = static_cast<long>(want);
    const long nv = g->total_v;
    const long size = tree_leaves(std::max(nv, 1L));
    std::vector<double> tree(2 * static_cast<std::size_t>(size), 0.0);
    for (long i = 0; i < nv; ++i) {
        kmc->kv[i].init = false;
        const double occ = g->v[i].occ;
        tree[size + i] = (occ > 0.0 && std::isfinite(occ)) ? occ : 0.0;
    }
    tree_build(tree.data(), size);
    for (long n = 0; n < n_ion; ++n) {
        long index_min = -1;
        if (tree[1] > 0.0) {
            index_min = tree_pick(tree.data(), size, quovix_kmc_random() * tree[1]);
            if (index_min >= nv || kmc->kv[index_min].init || !(tree[size + index_min] > 0.0)) {
                index_min = -1;  // rounding at the top: last vertex still carrying weight
                for (long i = nv - 1; i >= 0; --i)
                    if (tree[size + i] > 0.0) {
                        index_min = i;
                        break;
                    }
            }
        } else {
            for (long i = 0; i < nv; ++i)
                if (!kmc->kv[i].init && (index_min < 0 || kmc->kv[i].en < kmc->kv[index_min].en))
                    index_min = i;
        }
        if (index_min < 0 || index_min >= nv) {
            std::fprintf(stderr, "Error: index_min = %ld out of bound.\n", index_min);
            return 1;
        }
        kmc->kv[index_min].init = true;
        tree_set(tree.data(), size, index_min, 0.0);
    }
    return 0;
}

bool has_placement(const QUOVIX_KMC *kmc) {
    for (long i = 0; i < kmc->graph->total_v; ++i)
        if (kmc->kv[i].init) return true;
    return kmc->graph->total_occ < 0.5;  // no ion to place at all
}

/// Origins, displacements and statistics start afresh from the current occupancy.
int start_production(QUOVIX_KMC *kmc) {
    QUOVIX_GRAPH *g = kmc->graph;
    long n = 0;
    for (long i = 0; i < g->total_v; ++i) n += kmc->kv[i].occupied ? 1 : 0;
    std::free(kmc->ion);
    kmc->ion = nullptr;
    kmc->total_ion = 0;
    if (n > 0) {
        kmc->ion = static_cast<long *>(std::calloc(static_cast<std::size_t>(n), sizeof(long)));
        if (kmc->ion == nullptr) {
            std::fputs("Error: unable to allocate kmc->ion.\n", stderr);
            return 1;
        }
    }
    for (long i = 0; i < g->total_v; ++i) {
        QUOVIX_KMC_VERTEX &v = kmc->kv[i];
        v.origin = i;
        std::memset(v.y_i, 0, sizeof v.y_i);
        std::memset(v.d, 0, sizeof v.d);
        v.t = 0.0;
        v.t_in = 0.0;
        if (v.occupied) kmc->ion[kmc->total_ion++] = i;
    }
    for (long i = 0; i < g->total_e; ++i) kmc->ke[i].r2[0] = 0.0;
    kmc->rate_integral = 0.0;
    kmc->step = 0;
    kmc->t = 0.0;
    kmc->total_block = 0;
    std::memset(kmc->block_s, 0, sizeof kmc->block_s);
    std::memset(kmc->block_t, 0, sizeof kmc->block_t);
    return 0;
}

/// Closes the time integrals of occupancy at the current time.
void finish_production(QUOVIX_KMC *kmc) {
    for (long i = 0; i < kmc->graph->total_v; ++i) {
        QUOVIX_KMC_VERTEX &v = kmc->kv[i];
        if (v.occupied) v.t += kmc->t - v.t_in;
        v.t_in = kmc->t;
    }
}

bool limit_reached(const QUOVIX_KMC *kmc) {
    if (kmc->step_limit > 0 && kmc->step >= kmc->step_limit) return true;
    if (kmc->t_limit > 0.0 && kmc->t >= kmc->t_limit) return true;
    return kmc->step >= QUOVIX_KMC_STEP_LIMIT_MAX;
}

}  // namespace

// ======================================================================= records

double quovix_kmc_random() {
    double r;
    do {
        r = quovix_random();
    } while (r >= 1.0);
    return r;
}

void quovix_kmc_supercell_default(int s[3], const double a[3][3], double cutoff) {
    const frame f = make_frame(a);
    for (int k = 0; k < 3; ++k) {
        s[k] = 1;
        if (f.ok && cutoff > 0.0 && std::isfinite(cutoff))
            s[k] = static_cast<int>(std::clamp(std::ceil(2.0 * cutoff / f.width[k]), 1.0, 1e6));
    }
}

void quovix_kmc_free(QUOVIX_KMC *kmc) {
    if (kmc == nullptr) return;
    const long nv = kmc->total_v;
    const long ne = kmc->total_e;
    if (kmc->kv)
        for (long i = 0; i < nv; ++i) {
            std::free(kmc->kv[i].v_n);
            std::free(kmc->kv[i].v_de);
            std::free(kmc->kv[i].e_n);
            std::free(kmc->kv[i].s_n);
            std::free(kmc->kv[i].s_de);
        }
    if (kmc->ke)
        for (long i = 0; i < ne; ++i) {
            std::free(kmc->ke[i].v_n);
            std::free(kmc->ke[i].v_de);
            std::free(kmc->ke[i].r2);
        }
    std::free(kmc->kv);
    std::free(kmc->ke);
    std::free(kmc->ion);
    std::free(kmc->tree);
    std::free(kmc->out_start);
    std::free(kmc->out_e);
    std::free(kmc->in_start);
    std::free(kmc->in_e);
    std::free(kmc->hot);
    std::free(kmc->site_e);
    std::free(kmc->site_occ);
    std::free(kmc);
}

QUOVIX_KMC *quovix_kmc_new(QUOVIX_GRAPH *graph, QUOVIX_PROPERTY *ppt, double cutoff) {
    if (graph == nullptr || ppt == nullptr || ppt->conducting < 0 ||
        ppt->conducting >= ppt->total || ppt->uni == nullptr || graph->total_v < 0 ||
        graph->total_e < 0 || (graph->total_v > 0 && graph->v == nullptr) ||
        (graph->total_e > 0 && graph->e == nullptr)) {
        std::fputs("Error: QUOVIX_GRAPH or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return nullptr;
    }
    if (cutoff < 0.0) cutoff = QUOVIX_KMC_CUTOFF_DEFAULT;
    // The repulsion between mobile ions: the like-charged term of the pair table.
    quovix_pair_table table;
    if (quovix_guard("pair table", [&] { return quovix_pair_table_build(table, ppt) ? 0 : 1; }) !=
        0) {
        std::fputs("Error: QUOVIX_GRAPH or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return nullptr;
    }
    const quovix_pair_term &self = table.term(ppt->conducting, ppt->conducting);
    const double qq = self.q;
    const double r_eff = ppt->sf * self.rcs;
    const frame f = make_frame(graph->a);
    if (!f.ok || !std::isfinite(cutoff) || !(graph->m > 0.0) || !std::isfinite(graph->m) ||
        (cutoff > 0.0 && (!(r_eff > 0.0) || !std::isfinite(r_eff) || !std::isfinite(qq)))) {
        std::fputs("Error: QUOVIX_GRAPH or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return nullptr;
    }
    const double width = std::min({f.width[0], f.width[1], f.width[2]});
    if (cutoff > 0.5 * width) {
        std::fprintf(stderr,
                     "Error: cutoff %.3lf A exceeds half the smallest supercell width %.3lf A.\n",
                     cutoff, 0.5 * width);
        return nullptr;
    }
    for (long i = 0; i < graph->total_e; ++i) {
        const QUOVIX_GRAPH_EDGE &e = graph->e[i];
        if (e.v_i == nullptr || e.v_f == nullptr || e.v_i->index < 0 ||
            e.v_i->index >= graph->total_v || e.v_f->index < 0 || e.v_f->index >= graph->total_v ||
            &graph->v[e.v_i->index] != e.v_i || &graph->v[e.v_f->index] != e.v_f) {
            std::fputs(
                "Error: QUOVIX_GRAPH or QUOVIX_PROPERTY has not been properly initialized.\n",
                stderr);
            return nullptr;
        }
    }
    if (graph->total_e > QUOVIX_KMC_EDGE_MAX) {
        std::fprintf(stderr, "Error: supercell graph of %ld edges is too large.\n", graph->total_e);
        return nullptr;
    }

    auto *raw = static_cast<QUOVIX_KMC *>(std::calloc(1, sizeof(QUOVIX_KMC)));
    if (raw == nullptr) {
        std::fputs("Error: unable to allocate QUOVIX_KMC.\n", stderr);
        return nullptr;
    }
    quovix_kmc_ptr kmc{raw};
    kmc->graph = graph;
    const long nv = graph->total_v;
    const long ne = graph->total_e;
    kmc->total_v = nv;
    kmc->total_e = ne;
    kmc->kv = static_cast<QUOVIX_KMC_VERTEX *>(
        std::calloc(static_cast<std::size_t>(std::max(nv, 1L)), sizeof(QUOVIX_KMC_VERTEX)));
    if (kmc->kv == nullptr) {
        std::fputs("Error: unable to allocate kmc->kv.\n", stderr);
        return nullptr;
    }
    kmc->ke = static_cast<QUOVIX_KMC_EDGE *>(
        std::calloc(static_cast<std::size_t>(std::max(ne, 1L)), sizeof(QUOVIX_KMC_EDGE)));
    if (kmc->ke == nullptr) {
        std::fputs("Error: unable to allocate kmc->ke.\n", stderr);
        return nullptr;
    }
    kmc->tree_size = tree_leaves(std::max(ne, 1L));
    kmc->tree = static_cast<double *>(
        std::calloc(2 * static_cast<std::size_t>(kmc->tree_size), sizeof(double)));
    if (kmc->tree == nullptr) {
        std::fputs("Error: unable to allocate kmc->tree.\n", stderr);
        return nullptr;
    }
    kmc->hot = static_cast<QUOVIX_KMC_HOT *>(
        std::calloc(static_cast<std::size_t>(std::max(ne, 1L)), sizeof(QUOVIX_KMC_HOT)));
    kmc->site_e = static_cast<double *>(
        std::calloc(static_cast<std::size_t>(std::max(nv, 1L)), sizeof(double)));
    kmc->site_occ =
        static_cast<bool *>(std::calloc(static_cast<std::size_t>(std::max(nv, 1L)), sizeof(bool)));
    if (kmc->hot == nullptr || kmc->site_e == nullptr || kmc->site_occ == nullptr) {
        std::fputs("Error: unable to allocate kmc->hot.\n", stderr);
        return nullptr;
    }
    kmc->temperature = QUOVIX_KMC_TEMPERATURE_DEFAULT;
    kmc->step_limit = QUOVIX_KMC_STEP_LIMIT_DEFAULT;
    kmc->step_log = QUOVIX_KMC_STEP_LIMIT_DEFAULT / 100;

    const int ok = quovix_guard("kmc neighbour lists", [&]() -> int {
        std::vector<long> cand;
        std::vector<long> vn;
        std::vector<double> vde;
        const bool interact = cutoff > 0.0;
        std::unique_ptr<vertex_bins> bins;
        if (interact) bins = std::make_unique<vertex_bins>(f, graph, cutoff);
        // Vertex neighbours and the repulsion an ion on each adds to the site.
        for (long i = 0; i < nv; ++i) {
            QUOVIX_KMC_VERTEX &kv = kmc->kv[i];
            kv.v = &graph->v[i];
            kv.en = graph->v[i].en;
            kv.origin = i;
            vn.clear();
            vde.clear();
            if (interact) {
                bins->near(cand, graph->v[i].x);
                for (long j : cand) {
                    if (j == i) continue;
                    const double d = min_image_distance(f, graph->v[i].x, graph->v[j].x);
                    if (d >= cutoff) continue;
                    vn.push_back(j);
                    vde.push_back(coulomb_de(d, qq, r_eff));
                }
            }
            if (vn.size() > 1000000) return 1;
            kv.total_v = static_cast<int>(vn.size());
            kv.v_n = copy_out(vn);
            if (!vn.empty() && kv.v_n == nullptr) {
                std::fprintf(stderr, "Error: unable to reallocate kmc->kv[%ld].v_n.\n", i);
                return 1;
            }
            kv.v_de = copy_out(vde);
            if (!vde.empty() && kv.v_de == nullptr) {
                std::fprintf(stderr, "Error: unable to reallocate kmc->kv[%ld].v_de.\n", i);
                return 1;
            }
        }
        // Edges: attempt frequency and the ions near the saddle.
        for (long i = 0; i < ne; ++i) {
            QUOVIX_KMC_EDGE &ke = kmc->ke[i];
            QUOVIX_GRAPH_EDGE *e = &graph->e[i];
            ke.e = e;
            kmc->hot[i].a = e->v_i->index;
            kmc->hot[i].b = e->v_f->index;
            ke.en = e->en;
            ke.l = e->l;
            ke.r2 = static_cast<double *>(std::calloc(1, sizeof(double)));
            if (ke.r2 == nullptr) {
                std::fprintf(stderr, "Error: unable to allocate kmc->ke[%ld].r2.\n", i);
                return 1;
            }
            // Harmonic frequency along the hop: curvature K from the start vertex's
            // eigenvalues weighted by the projections of the hop direction on its
            // eigenvectors, nu = 15.6 sqrt(K / m) THz with K in eV/A^2 and m in amu.
            const QUOVIX_GRAPH_VERTEX *vi = e->v_i;
            double curvature = 0.0;
            for (int k = 0; k < 3; ++k)
                curvature += vi->eig[k] * std::fabs(quovix_vector3_double_dot(e->dir, vi->eiv[k]));
            if (!(curvature > QUOVIX_KMC_CURVATURE_MIN)) curvature = QUOVIX_KMC_CURVATURE_MIN;
            ke.f = QUOVIX_KMC_FREQUENCY_FACTOR * std::sqrt(curvature / graph->m);
            vn.clear();
            vde.clear();
            if (interact) {
                bins->near(cand, e->x);
                for (long j : cand) {
                    if (j == vi->index || j == e->v_f->index) continue;
                    const double d = min_image_distance(f, e->x, graph->v[j].x);
                    if (d >= cutoff) continue;
                    vn.push_back(j);
                    vde.push_back(coulomb_de(d, qq, r_eff));
                }
            }
            ke.total_v = static_cast<int>(vn.size());
            ke.v_n = copy_out(vn);
            if (!vn.empty() && ke.v_n == nullptr) {
                std::fprintf(stderr, "Error: unable to reallocate kmc->ke[%ld].v_n.\n", i);
                return 1;
            }
            ke.v_de = copy_out(vde);
            if (!vde.empty() && ke.v_de == nullptr) {
                std::fprintf(stderr, "Error: unable to reallocate kmc->ke[%ld].v_de.\n", i);
                return 1;
            }
        }
        // Edges leaving and entering every vertex (compressed rows, edge order).
        std::vector<long> out_start(static_cast<std::size_t>(nv) + 1, 0);
        std::vector<long> in_start(static_cast<std::size_t>(nv) + 1, 0);
        for (long i = 0; i < ne; ++i) {
            ++out_start[kmc->hot[i].a + 1];
            ++in_start[kmc->hot[i].b + 1];
        }
        for (long v = 0; v < nv; ++v) {
            out_start[v + 1] += out_start[v];
            in_start[v + 1] += in_start[v];
        }
        std::vector<long> out_e(static_cast<std::size_t>(ne)), in_e(static_cast<std::size_t>(ne));
        {
            std::vector<long> o(out_start.begin(), out_start.end() - 1);
            std::vector<long> n(in_start.begin(), in_start.end() - 1);
            for (long i = 0; i < ne; ++i) {
                out_e[o[kmc->hot[i].a]++] = i;
                in_e[n[kmc->hot[i].b]++] = i;
            }
        }
        kmc->out_start = copy_out(out_start);
        kmc->in_start = copy_out(in_start);
        kmc->out_e = copy_out(out_e);
        kmc->in_e = copy_out(in_e);
        if (kmc->out_start == nullptr || kmc->in_start == nullptr ||
            (ne > 0 && (kmc->out_e == nullptr || kmc->in_e == nullptr))) {
            std::fputs("Error: unable to allocate kmc adjacency.\n", stderr);
            return 1;
        }
        // Repulsion between the two ends of each edge, and per vertex the saddles it sees.
        std::vector<std::vector<std::pair<long, double>>> sad(static_cast<std::size_t>(nv));
        for (long i = 0; i < ne; ++i) {
            QUOVIX_KMC_EDGE &ke = kmc->ke[i];
            const QUOVIX_KMC_VERTEX &va = kmc->kv[ke.e->v_i->index];
            for (int k = 0; k < va.total_v; ++k)
                if (va.v_n[k] == ke.e->v_f->index) kmc->hot[i].de = va.v_de[k];
            kmc->hot[i].f = ke.f;
            for (int k = 0; k < ke.total_v; ++k) sad[ke.v_n[k]].emplace_back(i, ke.v_de[k]);
        }
        for (long i = 0; i < nv; ++i) {
            QUOVIX_KMC_VERTEX &kv = kmc->kv[i];
            if (sad[i].size() > 100000000) return 1;
            kv.total_s = static_cast<int>(sad[i].size());
            if (kv.total_s == 0) continue;
            kv.s_n = static_cast<long *>(std::calloc(sad[i].size(), sizeof(long)));
            kv.s_de = static_cast<double *>(std::calloc(sad[i].size(), sizeof(double)));
            if (kv.s_n == nullptr || kv.s_de == nullptr) {
                std::fprintf(stderr, "Error: unable to allocate kmc->kv[%ld].s_n.\n", i);
                return 1;
            }
            for (int k = 0; k < kv.total_s; ++k) {
                kv.s_n[k] = sad[i][k].first;
                kv.s_de[k] = sad[i][k].second;
            }
            std::vector<std::pair<long, double>>().swap(sad[i]);
        }
        // e_n: every edge whose rate reads the occupancy of the vertex, i.e. edges that
        // start or end at it or at one of its neighbours, and edges with it near the saddle.
        std::vector<std::vector<long>> en(static_cast<std::size_t>(nv));
        for (long i = 0; i < ne; ++i) {
            const QUOVIX_KMC_EDGE &ke = kmc->ke[i];
            for (long end : {ke.e->v_i->index, ke.e->v_f->index}) {
                en[end].push_back(i);
                const QUOVIX_KMC_VERTEX &kv = kmc->kv[end];
                for (int k = 0; k < kv.total_v; ++k) en[kv.v_n[k]].push_back(i);
            }
            for (int k = 0; k < ke.total_v; ++k) en[ke.v_n[k]].push_back(i);
        }
        for (long i = 0; i < nv; ++i) {
            std::vector<long> &list = en[i];
            std::sort(list.begin(), list.end());
            list.erase(std::unique(list.begin(), list.end()), list.end());
            if (list.size() > 100000000) return 1;
            kmc->kv[i].total_e = static_cast<int>(list.size());
            kmc->kv[i].e_n = copy_out(list);
            if (!list.empty() && kmc->kv[i].e_n == nullptr) {
                std::fprintf(stderr, "Error: unable to reallocate kmc->kv[%ld].e_n.\n", i);
                return 1;
            }
            std::vector<long>().swap(list);
        }
        return 0;
    });
    if (ok != 0) return nullptr;
    return kmc.release();
}

// ======================================================================= parameters, rates

int quovix_kmc_check_parameters(double temperature, double t_limit) {
    if (std::isnan(temperature) || temperature > QUOVIX_KMC_TEMPERATURE_MAX) {
        std::fprintf(stderr, "Error: temperature %g K is out of range (at most %.0lf K).\n",
                     temperature, QUOVIX_KMC_TEMPERATURE_MAX);
        return 1;
    }
    if (std::isnan(t_limit) || std::isinf(t_limit)) {
        std::fputs("Error: t_limit must be finite.\n", stderr);
        return 1;
    }
    return 0;
}

int quovix_kmc_set_parameters(QUOVIX_KMC *kmc, double temperature, double t_limit, long step_limit,
                              long step_log) {
    if (kmc == nullptr || kmc->graph == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    if (quovix_kmc_check_parameters(temperature, t_limit) != 0) return 1;
    kmc->temperature = temperature > 0.0 ? temperature : QUOVIX_KMC_TEMPERATURE_DEFAULT;
    kmc->t_limit = t_limit < 0.0 ? QUOVIX_KMC_T_LIMIT_DEFAULT : t_limit;
    kmc->step_limit = (step_limit < 0 || step_limit > QUOVIX_KMC_STEP_LIMIT_MAX)
                          ? QUOVIX_KMC_STEP_LIMIT_DEFAULT
                          : step_limit;
    if (step_log > 0) {
        kmc->step_log = step_log;
    } else {
        kmc->step_log = kmc->step_limit > 0 ? std::max(1L, kmc->step_limit / 100) : 1000;
    }
    // Equilibration: a tenth of the production steps, and at least ten hops per ion.
    const long ions = static_cast<long>(std::max(0.0, std::nearbyint(kmc->graph->total_occ)));
    kmc->step_equil = std::max(10 * ions, kmc->step_limit / 10);
    return 0;
}

int quovix_kmc_update_rate(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->kv == nullptr || kmc->ke == nullptr ||
        kmc->tree == nullptr || !(kmc->temperature > 0.0)) {
        std::fputs("Error: wrong inputs for generating rates.\n", stderr);
        return 1;
    }
    const long nv = kmc->graph->total_v;
    const long ne = kmc->graph->total_e;
    for (long i = 0; i < nv; ++i) {
        QUOVIX_KMC_VERTEX &kv = kmc->kv[i];
        if (!kv.update) continue;
        for (int k = 0; k < kv.total_e; ++k) kmc->ke[kv.e_n[k]].update = true;
        kv.update = false;
    }
    for (long i = 0; i < ne; ++i) {
        if (!kmc->ke[i].update) continue;
        set_rate(kmc, i, edge_rate(kmc, i));
        kmc->ke[i].update = false;
    }
    return 0;
}

// ======================================================================= placement, steps

int quovix_kmc_reset(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->kv == nullptr || kmc->ke == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!has_placement(kmc) && place_ions(kmc) != 0) return 1;
    QUOVIX_GRAPH *g = kmc->graph;
    for (long i = 0; i < g->total_v; ++i) {
        kmc->kv[i].occupied = kmc->kv[i].init;
        kmc->kv[i].update = false;
    }
    for (long i = 0; i < g->total_e; ++i) {
        kmc->ke[i].r = 0.0;
        kmc->hot[i].r = 0.0;
        kmc->ke[i].update = true;
    }
    std::fill(kmc->tree, kmc->tree + 2 * kmc->tree_size, 0.0);
    recompute_phi(kmc);
    if (start_production(kmc) != 0) return 1;
    kmc->t_total = 0.0;
    if (quovix_kmc_update_rate(kmc) != 0) {
        std::fputs("Error: quovix_kmc_update_rate() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

int quovix_kmc_init(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->kv == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    if (place_ions(kmc) != 0) return 1;
    if (quovix_kmc_reset(kmc) != 0) {
        std::fputs("Error: quovix_kmc_reset() returns non-zero.\n", stderr);
        return 1;
    }
    // A stoichiometric crystal fills every site its ions occupy, and the only hops left lead
    // to interstitial minima far up in energy: the run would stall at once. Such a crystal
    // conducts by vacancies, so one ion (drawn at random) is left out and the run follows
    // that vacancy: the dilute-vacancy limit at one vacancy per supercell.
    const QUOVIX_GRAPH *g = kmc->graph;
    long ions = 0, filled = 0, sites = 0;
    for (long i = 0; i < g->total_v; ++i) {
        ions += kmc->kv[i].init ? 1 : 0;
        if (g->v[i].occ > 0.0) {
            ++sites;
            filled += kmc->kv[i].init ? 1 : 0;
        }
    }
    if (ions > 1 && filled == sites && !(kmc->tree[1] >= QUOVIX_KMC_RATE_MIN)) {
        long pick = static_cast<long>(quovix_kmc_random() * static_cast<double>(ions));
        for (long i = 0; i < g->total_v; ++i)
            if (kmc->kv[i].init && pick-- == 0) {
                kmc->kv[i].init = false;
                break;
            }
        std::printf(
            "Message: every site of the mobile ion is filled; one ion of %ld is left out to make "
            "a vacancy.\n",
            ions);
        if (quovix_kmc_reset(kmc) != 0) {
            std::fputs("Error: quovix_kmc_reset() returns non-zero.\n", stderr);
            return 1;
        }
    }
    return 0;
}

int quovix_kmc_evolve(QUOVIX_KMC *kmc) { return evolve_with(kmc, false); }

int quovix_kmc_evolve_plain(QUOVIX_KMC *kmc) { return evolve_with(kmc, true); }

int quovix_kmc_equilibrate(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->tree == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    for (long n = 0; n < kmc->step_equil; ++n) {
        const double total = kmc->tree[1];
        const step_result s = step_once(kmc, kmc->plain);
        if (s == step_result::rate_too_small) {
            std::fprintf(stderr, "Error: overall rate is too small: %.3e (step %ld)\n", total, n);
            return 1;
        }
        if (s != step_result::ok) return 1;
    }
    return 0;
}

int quovix_kmc_run(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->tree == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    if (kmc->step_limit == 0 && !(kmc->t_limit > 0.0)) {
        std::fputs("Error: t_limit and step_limit cannot both be zero.\n", stderr);
        return 1;
    }
    if (quovix_kmc_equilibrate(kmc) != 0) {
        std::fputs("Error: quovix_kmc_equilibrate() returns non-zero.\n", stderr);
        return 1;
    }
    if (start_production(kmc) != 0) return 1;
    if (quovix_kmc_log(kmc) != 0) {
        std::fputs("Error: quovix_kmc_log() returns non-zero.\n", stderr);
        return 1;
    }
    return quovix_guard("kmc blocks", [&]() -> int {
        // Blocks for the error bars: equal numbers of steps, or equal spans of time when
        // only the time is limited; a block closes with the squared displacement made in it.
        const long n_ion = kmc->total_ion;
        std::vector<double> mark(3 * static_cast<std::size_t>(n_ion), 0.0);
        double t_mark = 0.0;
        auto close_block = [&]() {
            if (kmc->total_block >= QUOVIX_KMC_BLOCKS || !(kmc->t > t_mark)) return;
            double *s = kmc->block_s[kmc->total_block];
            for (long n = 0; n < n_ion; ++n) {
                const QUOVIX_KMC_VERTEX &o = kmc->kv[kmc->ion[n]];
                double r2 = 0.0;
                for (int k = 0; k < 3; ++k) {
                    const double dk = o.d[k] - mark[3 * n + k];
                    s[k] += dk * dk;
                    r2 += dk * dk;
                    mark[3 * n + k] = o.d[k];
                }
                s[3] += r2;
            }
            kmc->block_t[kmc->total_block] = kmc->t - t_mark;
            t_mark = kmc->t;
            ++kmc->total_block;
        };
        const bool by_steps = kmc->step_limit > 0;
        while (!limit_reached(kmc)) {
            const int s = kmc->plain ? quovix_kmc_evolve_plain(kmc) : quovix_kmc_evolve(kmc);
            if (s != 0) {
                std::fputs(kmc->plain ? "Error: quovix_kmc_evolve_plain() returns non-zero.\n"
                                      : "Error: quovix_kmc_evolve() returns non-zero.\n",
                           stderr);
                return 1;
            }
            const int b = kmc->total_block;
            const bool boundary = by_steps
                                      ? kmc->step * QUOVIX_KMC_BLOCKS >= (b + 1) * kmc->step_limit
                                      : kmc->t * QUOVIX_KMC_BLOCKS >= (b + 1) * kmc->t_limit;
            if (boundary && b < QUOVIX_KMC_BLOCKS - 1) close_block();
        }
        close_block();
        finish_production(kmc);
        return 0;
    });
}

// ======================================================================= conductivity

int quovix_kmc_calculate_conductivity(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return 1;
    }
    QUOVIX_GRAPH *g = kmc->graph;
    std::printf("KMC: temperature = %.2lf K.\n", kmc->temperature);
    std::printf("KMC: t_limit = %.1e ps; step_limit = %ld.\n", kmc->t_limit, kmc->step_limit);
    std::printf("KMC: c = %.1e A^-3; os = %d.\n", g->c, g->os);
    std::printf("KMC: start calculating conductivity...\n");
    if (quovix_kmc_reset(kmc) != 0) {
        std::fputs("Error: quovix_kmc_reset() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_kmc_run(kmc) != 0) {
        std::fputs("Error: quovix_kmc_run() returns non-zero.\n", stderr);
        return 1;
    }
    // Mean over the ions of the run: round(total_occ) of them, one fewer with a vacancy made.
    const double n_ion = static_cast<double>(kmc->total_ion);
    if (!(kmc->t > 0.0) || !(n_ion > 0.0)) {
        std::fputs("Error: no simulated time or no mobile ion.\n", stderr);
        return 1;
    }
    // Squared displacement of every ion from its origin, unwrapped by the cells it crossed.
    double s[4] = {0.0, 0.0, 0.0, 0.0};
    for (long i = 0; i < g->total_v; ++i) {
        const QUOVIX_KMC_VERTEX &v = kmc->kv[i];
        if (!v.occupied) continue;
        const QUOVIX_KMC_VERTEX &o = kmc->kv[v.origin];
        double r2 = 0.0;
        for (int k = 0; k < 3; ++k) {
            const double dk = o.y_i[0] * g->a[0][k] + o.y_i[1] * g->a[1][k] +
                              o.y_i[2] * g->a[2][k] + g->v[i].x[k] - g->v[v.origin].x[k];
            s[k] += dk * dk;
            r2 += dk * dk;
        }
        s[3] += r2;
    }
    // Einstein: D = <r^2> / (6 t) (A^2/ps = 1e-8 m^2/s; the 6 kept for the components too).
    // Nernst-Einstein: mu = D z e / (kB T), sigma = mu c z e (x 10 for S/cm with c in A^-3).
    const double to_mobility = g->os / kmc->temperature * QUOVIX_E_OVER_KB;
    const double to_conductivity = g->c * g->os * QUOVIX_ELEMENTARY_CHARGE * 10.0;
    for (int k = 0; k < 4; ++k) {
        const double msd = s[k] / n_ion;
        const double d = msd / (6.0 * kmc->t);
        const double mu = d * to_mobility;
        kmc->displacement[k] += std::sqrt(msd);
        kmc->diffusivity[k] += d;
        kmc->mobility[k] += mu;
        kmc->conductivity[k] += mu * to_conductivity;
    }
    // Standard errors from the spread of the block estimates D_b = <r^2>_b / (6 t_b). In the
    // diffusive regime the relative spread of an MSD estimate does not depend on the time it
    // spans (for a random walk of N ions it is sqrt(2 / (3 N)) in 3-D), so the whole-run value
    // printed above scatters like a single block: its standard error is the standard deviation
    // of the blocks, not that of their mean.
    const int nb = kmc->total_block;
    for (int k = 0; k < 4; ++k) {
        double se = std::nan("");
        if (nb >= 2) {
            double mean = 0.0;
            double db[QUOVIX_KMC_BLOCKS];
            for (int b = 0; b < nb; ++b) {
                db[b] = kmc->block_s[b][k] / n_ion / (6.0 * kmc->block_t[b]);
                mean += db[b];
            }
            mean /= nb;
            double var = 0.0;
            for (int b = 0; b < nb; ++b) var += (db[b] - mean) * (db[b] - mean);
            se = std::sqrt(var / (nb - 1));
        }
        kmc->diffusivity_se[k] = se;
        kmc->mobility_se[k] = se * std::fabs(to_mobility);
        kmc->conductivity_se[k] = se * std::fabs(to_mobility * to_conductivity);
    }
    quovix_kmc_print_result(kmc);
    return 0;
}
