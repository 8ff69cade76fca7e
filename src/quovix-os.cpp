// Oxidation states by bond valence: candidate states per symmetry-distinct site, their
// bond-valence sums with the program's parameter files, and the neutral assignment that
// brings the sums closest to the states (dynamic programme over the running charge).
#include "quovix-os.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "quovix-images.hpp"
#include "quovix-import.hpp"

namespace {

constexpr int kUnknown = 99;                 // os of an atom whose file gave no state
constexpr double kSearchRange = 12.0;        // neighbour search (A); every pair cut-off lies below
constexpr double kKeyScale = 1000.0;         // charges are merged in steps of 0.001 e
constexpr double kNeutralAbs = 0.01;         // a cell is neutral within max(0.01 e,
constexpr double kNeutralRel = 0.005;        //   0.5 % of its anion charge): refined occupancies
                                             //   rarely balance exactly (LGPS: 0.14 e of 48)
constexpr double kExactCharge = 1e-3;        // an assignment this close to neutral is exact
constexpr double kMixedMargin = 0.001;       // a mixed site keeps both states by at least 0.1 %
constexpr double kMaxWeight = 1e6;           // multiplicity x occupancy of one site
constexpr std::size_t kMaxNodes = 20000000;  // charges kept over all sites (about 0.7 GB)
// A chosen state whose sum is further off than max(0.5, 25 %) is reported.
constexpr double kFarOff = 0.5;
constexpr double kFarOffRel = 0.25;
// The parameter set softens each cation's b towards its anion environment:
// b = (2/3) <b(cation, anion of atom k)>_k + (1/3) b(cation, anion); the same here.
constexpr double kEffectiveBWeight = 0.6666666666666666;

// Pauling electronegativities of the elements that have an anion state in the parameter files.
// An atom whose nearest neighbour of another element is one of these and more electronegative
// is the centre of a complex anion (P in PO4, S in SO4, N in NO3, H in OH) and takes a cation
// state; every other element is less electronegative than all of them for this purpose.
struct anion_x {
    const char *symbol;
    double x;
};
constexpr anion_x kAnionX[] = {{"F", 3.98}, {"O", 3.44},  {"Cl", 3.16}, {"N", 3.04}, {"Br", 2.96},
                               {"I", 2.66}, {"S", 2.58},  {"Se", 2.55}, {"C", 2.55}, {"H", 2.20},
                               {"P", 2.19}, {"As", 2.18}, {"Te", 2.10}};

double electronegativity(const char *type) {
    for (const anion_x &a : kAnionX)
        if (std::strcmp(a.symbol, type) == 0) return a.x;
    return -1.0;
}

struct pair_params {
    double r0 = 0.0, b = 0.0, cutoff = 0.0;
    bool ok = false;
};

// What one atom carries under an assignment: up to two states sharing its occupancy.
struct atom_part {
    int os;
    double occ;
};

struct neighbour {
    long atom;
    double d;
};

// A node of the dynamic programme: best cost of the sites so far at one running charge.
struct node {
    long long key;  // charge in steps of 1 / kKeyScale
    double cost;
    double charge;  // exact charge of the path that reached it
    int parent;     // node index in the previous layer
    int state;      // candidate index of this layer's site
};

struct dp_site {
    long site;
    std::vector<int> state;
    std::vector<double> cost;  // w (V - state)^2, or the distance from the usual anion state
    std::vector<double> inc;   // w state
    std::vector<long long> inc_key;
};

struct solution {
    bool found = false;
    double cost = std::numeric_limits<double>::infinity();
    double charge = 0.0;
    std::vector<int> choice;  // candidate index per dp site; -1 for the mixed site
    int mixed = -1;           // dp index of the mixed site
    int lo = 0, hi = 0;
    double frac_hi = 0.0;
};

long long to_key(double charge) { return std::llround(charge * kKeyScale); }

class assigner {
   public:
    assigner(QUOVIX_CELL *cell, const char *dir_unitary, const char *dir_binary)
        : cell_(cell), dir_unitary_(dir_unitary), dir_binary_(dir_binary) {}

    QUOVIX_OS *run();

   private:
    bool read_states();
    const pair_params &pair(const char *cat, int cat_os, const char *an, int an_os);
    bool find_neighbours(const quovix_images::frame &f);
    int usual_anion_state(const char *type) const;
    double b_average(const char *cat, int cat_os);
    double bond_valence_sum(long site, int state);
    bool candidates(QUOVIX_OS *os, int tier, std::vector<dp_site> &sites, double &fixed);
    bool forward(const std::vector<dp_site> &s, double fixed, double tol,
                 std::vector<std::vector<node>> &layers) const;
    bool backward(const std::vector<dp_site> &s, double fixed, double tol,
                  std::vector<std::vector<node>> &layers) const;
    solution integer_solution(const std::vector<dp_site> &s,
                              const std::vector<std::vector<node>> &fw, double tol) const;
    solution mixed_solution(const std::vector<dp_site> &s, const QUOVIX_OS *os,
                            const std::vector<std::vector<node>> &fw,
                            const std::vector<std::vector<node>> &bw) const;
    void set_parts(const QUOVIX_OS *os);

    QUOVIX_CELL *cell_;
    const char *dir_unitary_;
    const char *dir_binary_;
    std::map<std::string, std::vector<int>> states_;  // listed states of each element
    std::map<std::tuple<std::string, int, std::string, int>, pair_params> pairs_;
    std::map<std::pair<std::string, int>, double> b_avg_;
    std::vector<std::vector<neighbour>> neighbours_;  // of each site's first atom
    std::vector<long> first_;                         // first atom of each site
    std::vector<std::vector<atom_part>> parts_;       // states of every atom
    std::vector<int> role_;                           // per site: +1, -1, 0 (given)
};

// The listed states of every element: the (symbol, os) of each line of the unitary file.
bool assigner::read_states() {
    quovix_file_ptr fp(dir_unitary_ != nullptr ? std::fopen(dir_unitary_, "rb") : nullptr);
    if (!fp) {
        std::fprintf(stderr, "Error: unable to open %s\n", dir_unitary_ ? dir_unitary_ : "");
        return false;
    }
    quovix_data_lines_for_each(fp.get(), [&](const char *buf) {
        int z = 0, os = 0;
        char sym[3] = {0};
        if (std::sscanf(buf, "%d %2s %d", &z, sym, &os) != 3 || os == 0 || os == kUnknown)
            return false;
        std::vector<int> &list = states_[sym];
        if (std::find(list.begin(), list.end(), os) == list.end() &&
            list.size() < static_cast<std::size_t>(QUOVIX_OS_MAX_STATES))
            list.push_back(os);
        return false;
    });
    for (auto &[symbol, list] : states_) std::sort(list.begin(), list.end());
    return true;
}

// The pair line the parameter set would read (first match of the binary file), cached.
const pair_params &assigner::pair(const char *cat, int cat_os, const char *an, int an_os) {
    const auto key = std::make_tuple(std::string(cat), cat_os, std::string(an), an_os);
    auto it = pairs_.find(key);
    if (it != pairs_.end()) return it->second;
    QUOVIX_PROPERTY_BINARY bin{};
    pair_params p;
    if (quovix_property_binary_read_from_file(&bin, cat, cat_os, an, an_os, dir_binary_) == 0) {
        p.r0 = bin.r0;
        p.b = bin.b;
        p.cutoff = std::min(bin.cutoff, kSearchRange);
        p.ok = bin.r0 > 0.0 && bin.b > 0.0 && bin.cutoff > QUOVIX_MIN_CONTACT;
    }
    return pairs_.emplace(key, p).first->second;
}

// Every atom within kSearchRange of each site's first atom (closer than 0.2 A left out).
bool assigner::find_neighbours(const quovix_images::frame &f) {
    neighbours_.assign(first_.size(), {});
    for (std::size_t s = 0; s < first_.size(); ++s) {
        const QUOVIX_ATOM &a = cell_->atom[first_[s]];
        for (long j = 0; j < cell_->total; ++j) {
            quovix_images::for_each_image(f, cell_->atom[j].x, a.x, kSearchRange,
                                          [&](const double *, double d) {
                                              if (d >= QUOVIX_MIN_CONTACT && d < kSearchRange)
                                                  neighbours_[s].push_back({j, d});
                                          });
        }
        if (neighbours_[s].size() > 200000) {
            std::fputs("Error: too many neighbours within 12 A for the oxidation-state search.\n",
                       stderr);
            return false;
        }
    }
    return true;
}

int assigner::usual_anion_state(const char *type) const {
    auto it = states_.find(type);
    if (it == states_.end() || it->second.empty() || it->second.front() >= 0) return 0;
    return it->second.front();  // the most negative listed state
}

// b averaged over the anion atoms of the cell (weighted by occupancy) for one cation state.
double assigner::b_average(const char *cat, int cat_os) {
    const auto key = std::make_pair(std::string(cat), cat_os);
    auto it = b_avg_.find(key);
    if (it != b_avg_.end()) return it->second;
    double num = 0.0, den = 0.0;
    for (long k = 0; k < cell_->total; ++k) {
        for (const atom_part &p : parts_[k]) {
            if (p.os >= 0) continue;
            const pair_params &pp = pair(cat, cat_os, cell_->atom[k].type, p.os);
            if (!pp.ok) return b_avg_[key] = std::numeric_limits<double>::quiet_NaN();
            num += p.occ * pp.b;
            den += p.occ;
        }
    }
    return b_avg_[key] = den > 0.0 ? num / den : std::numeric_limits<double>::quiet_NaN();
}

// Bond-valence sum of a site at `state` against the atoms' current parts, as the program
// computes it: s = occ exp((R0 - d)/b_eff) for 0.2 <= d < cut-off, negative for anions.
// NaN when a pair it needs has no parameters.
double assigner::bond_valence_sum(long site, int state) {
    const char *type = cell_->atom[first_[site]].type;
    double sum = 0.0;
    for (const neighbour &n : neighbours_[site]) {
        const QUOVIX_ATOM &other = cell_->atom[n.atom];
        for (const atom_part &p : parts_[n.atom]) {
            if (p.os == 0 || (p.os > 0) == (state > 0)) continue;
            const bool cation = state > 0;
            const char *cat = cation ? type : other.type;
            const int cat_os = cation ? state : p.os;
            const char *an = cation ? other.type : type;
            const int an_os = cation ? p.os : state;
            const pair_params &pp = pair(cat, cat_os, an, an_os);
            if (!pp.ok) return std::numeric_limits<double>::quiet_NaN();
            if (n.d >= pp.cutoff) continue;
            const double b =
                kEffectiveBWeight * b_average(cat, cat_os) + (1.0 - kEffectiveBWeight) * pp.b;
            sum += std::exp((pp.r0 - n.d) / b) * p.occ;
        }
    }
    return state > 0 ? sum : -sum;
}

// Parts of every atom under the sites' current choice (given states, usual anion states,
// cation sites not chosen yet are left out).
void assigner::set_parts(const QUOVIX_OS *os) {
    parts_.assign(static_cast<std::size_t>(cell_->total), {});
    for (long k = 0; k < cell_->total; ++k) {
        const QUOVIX_OS_SITE &s = os->site[cell_->atom[k].flag - 1];
        const double occ = cell_->atom[k].occ;
        if (s.lo == 0) continue;
        if (s.hi != s.lo) {
            parts_[k].push_back({s.lo, occ * (1.0 - s.frac_hi)});
            parts_[k].push_back({s.hi, occ * s.frac_hi});
        } else {
            parts_[k].push_back({s.lo, occ});
        }
    }
    b_avg_.clear();
}

// Candidate states and costs of the free sites for one tier; `fixed` receives the charge of
// the sites that are not free.
bool assigner::candidates(QUOVIX_OS *os, int tier, std::vector<dp_site> &out, double &fixed) {
    out.clear();
    fixed = 0.0;
    for (long s = 0; s < os->total; ++s) {
        QUOVIX_OS_SITE &site = os->site[s];
        site.lo = site.hi = 0;
        site.frac_hi = 0.0;
        if (site.given) {
            site.lo = site.hi = cell_->atom[first_[s]].os;
        } else if (role_[s] < 0) {
            site.lo = site.hi = usual_anion_state(site.type);
        }
    }
    set_parts(os);
    for (long s = 0; s < os->total; ++s) {
        QUOVIX_OS_SITE &site = os->site[s];
        if (site.given || (role_[s] < 0 && tier == 1)) {
            site.n_state = 0;
            fixed += site.lo * site.weight;
            continue;
        }
        dp_site d;
        d.site = s;
        site.n_state = 0;
        for (int state : states_[site.type]) {
            double cost = 0.0, bv = std::numeric_limits<double>::quiet_NaN();
            if (role_[s] > 0) {
                if (state < 0) continue;
                bv = bond_valence_sum(s, state);
                if (!std::isfinite(bv)) continue;
                cost = site.weight * (bv - state) * (bv - state);
            } else {
                const double usual = usual_anion_state(site.type);
                cost = site.weight * (state - usual) * (state - usual);
            }
            site.state[site.n_state] = state;
            site.bv[site.n_state] = bv;
            ++site.n_state;
            d.state.push_back(state);
            d.cost.push_back(cost);
            d.inc.push_back(site.weight * state);
            d.inc_key.push_back(to_key(site.weight * state));
        }
        if (d.state.empty()) {
            std::fprintf(stderr,
                         "Error: no listed oxidation state of %s at site %s has bond-valence "
                         "parameters with the anions of the cell.\n",
                         site.type, site.name);
            return false;
        }
        out.push_back(std::move(d));
    }
    return true;
}

// Keeps, per running charge, the cheapest way to reach it; charges that the remaining
// sites cannot bring back within the tolerance are dropped.
void merge(std::vector<node> &next) {
    std::stable_sort(next.begin(), next.end(), [](const node &a, const node &b) {
        return a.key != b.key ? a.key < b.key : a.cost < b.cost;
    });
    std::size_t w = 0;
    for (std::size_t r = 0; r < next.size(); ++r) {
        if (w > 0 && next[w - 1].key == next[r].key) continue;
        next[w++] = next[r];
    }
    next.resize(w);
}

bool assigner::forward(const std::vector<dp_site> &s, double fixed, double tol,
                       std::vector<std::vector<node>> &layers) const {
    const std::size_t n = s.size();
    std::vector<long long> min_rest(n + 1, 0), max_rest(n + 1, 0);
    for (std::size_t i = n; i-- > 0;) {
        min_rest[i] = min_rest[i + 1] + *std::min_element(s[i].inc_key.begin(), s[i].inc_key.end());
        max_rest[i] = max_rest[i + 1] + *std::max_element(s[i].inc_key.begin(), s[i].inc_key.end());
    }
    const long long tol_key = to_key(tol) + static_cast<long long>(n) + 1;  // rounding slack
    layers.assign(n + 1, {});
    layers[0].push_back({to_key(fixed), 0.0, fixed, -1, -1});
    std::size_t total = 1;
    for (std::size_t i = 0; i < n; ++i) {
        std::vector<node> &next = layers[i + 1];
        for (std::size_t p = 0; p < layers[i].size(); ++p) {
            const node &from = layers[i][p];
            for (std::size_t k = 0; k < s[i].state.size(); ++k) {
                const long long key = from.key + s[i].inc_key[k];
                if (key + min_rest[i + 1] > tol_key || key + max_rest[i + 1] < -tol_key) continue;
                next.push_back({key, from.cost + s[i].cost[k], from.charge + s[i].inc[k],
                                static_cast<int>(p), static_cast<int>(k)});
            }
        }
        merge(next);
        total += next.size();
        if (total > kMaxNodes) {
            std::fputs("Error: too many charge combinations for the oxidation-state search.\n",
                       stderr);
            return false;
        }
        if (next.empty()) break;
    }
    return true;
}

// The same from the last site backwards: layers[i] holds the charges of sites i..n-1.
bool assigner::backward(const std::vector<dp_site> &s, double fixed, double tol,
                        std::vector<std::vector<node>> &layers) const {
    const std::size_t n = s.size();
    std::vector<long long> min_pre(n + 1, 0), max_pre(n + 1, 0);
    min_pre[0] = max_pre[0] = to_key(fixed);
    for (std::size_t i = 0; i < n; ++i) {
        min_pre[i + 1] = min_pre[i] + *std::min_element(s[i].inc_key.begin(), s[i].inc_key.end());
        max_pre[i + 1] = max_pre[i] + *std::max_element(s[i].inc_key.begin(), s[i].inc_key.end());
    }
    const long long tol_key = to_key(tol) + static_cast<long long>(n) + 1;
    layers.assign(n + 1, {});
    layers[n].push_back({0, 0.0, 0.0, -1, -1});
    std::size_t total = 1;
    for (std::size_t i = n; i-- > 0;) {
        std::vector<node> &next = layers[i];
        for (std::size_t p = 0; p < layers[i + 1].size(); ++p) {
            const node &from = layers[i + 1][p];
            for (std::size_t k = 0; k < s[i].state.size(); ++k) {
                const long long key = from.key + s[i].inc_key[k];
                if (key + min_pre[i] > tol_key || key + max_pre[i] < -tol_key) continue;
                next.push_back({key, from.cost + s[i].cost[k], from.charge + s[i].inc[k],
                                static_cast<int>(p), static_cast<int>(k)});
            }
        }
        merge(next);
        total += next.size();
        if (total > kMaxNodes) {
            std::fputs("Error: too many charge combinations for the oxidation-state search.\n",
                       stderr);
            return false;
        }
    }
    return true;
}

solution assigner::integer_solution(const std::vector<dp_site> &s,
                                    const std::vector<std::vector<node>> &fw, double tol) const {
    solution best;
    const std::vector<node> &last = fw.back();
    int pick = -1;
    for (std::size_t p = 0; p < last.size(); ++p) {
        if (std::fabs(last[p].charge) > tol) continue;
        if (pick < 0 || last[p].cost < best.cost ||
            (last[p].cost == best.cost && std::fabs(last[p].charge) < std::fabs(best.charge))) {
            pick = static_cast<int>(p);
            best.cost = last[p].cost;
            best.charge = last[p].charge;
        }
    }
    if (pick < 0) return best;
    best.found = true;
    best.choice.assign(s.size(), 0);
    for (std::size_t i = s.size(); i-- > 0;) {
        const node &nd = fw[i + 1][pick];
        best.choice[i] = nd.state;
        pick = nd.parent;
    }
    return best;
}

// One site at a state between two consecutive listed states k and k + 1 so that the cell is
// exactly neutral. With t the share of k + 1, the site's cost w ((1 - t) c_k + t c_k+1) is
// linear in the charge of the other sites, so for each charge before the site the best charge
// after it is a range minimum over the backward layer (sparse table).
solution assigner::mixed_solution(const std::vector<dp_site> &s, const QUOVIX_OS *os,
                                  const std::vector<std::vector<node>> &fw,
                                  const std::vector<std::vector<node>> &bw) const {
    solution best;
    int best_f = -1, best_b = -1;
    std::size_t best_i = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        // Interchangeable sites give the same optimum: try the first of each kind only.
        bool seen = false;
        for (std::size_t j = 0; j < i && !seen; ++j) {
            seen = std::strcmp(os->site[s[j].site].type, os->site[s[i].site].type) == 0 &&
                   s[j].state == s[i].state && s[j].inc == s[i].inc && s[j].cost == s[i].cost;
        }
        if (seen) continue;
        const std::vector<node> &F = fw[i];
        const std::vector<node> &B = bw[i + 1];
        if (F.empty() || B.empty()) continue;
        const double w = os->site[s[i].site].weight;
        if (!(w > 0.0)) continue;
        for (std::size_t k = 0; k + 1 < s[i].state.size(); ++k) {
            const int lo = s[i].state[k], hi = s[i].state[k + 1];
            if (hi != lo + 1) continue;
            const double c_lo = s[i].cost[k] / w, c_hi = s[i].cost[k + 1] / w;
            const double beta = c_hi - c_lo;
            // g = cost - beta charge over B, range minima by a sparse table.
            const std::size_t nb = B.size();
            std::vector<std::vector<int>> table(1, std::vector<int>(nb));
            std::vector<double> g(nb);
            for (std::size_t q = 0; q < nb; ++q) {
                g[q] = B[q].cost - beta * B[q].charge;
                table[0][q] = static_cast<int>(q);
            }
            for (std::size_t len = 1; 2 * len <= nb; len *= 2) {
                const std::vector<int> &prev = table.back();
                std::vector<int> row(nb - 2 * len + 1);
                for (std::size_t q = 0; q < row.size(); ++q) {
                    const int a = prev[q], b = prev[q + len];
                    row[q] = g[b] < g[a] ? b : a;
                }
                table.push_back(std::move(row));
            }
            auto range_min = [&](std::size_t a, std::size_t b) {  // inclusive, a <= b
                std::size_t level = 0;
                while ((std::size_t{2} << level) <= b - a + 1) ++level;
                const int x = table[level][a], y = table[level][b + 1 - (std::size_t{1} << level)];
                return g[y] < g[x] ? y : x;
            };
            for (std::size_t p = 0; p < F.size(); ++p) {
                // Neutral: -w (lo + 1) < F + B < -w lo, kept off both ends by the margin.
                const double b_min = -w * (hi - kMixedMargin) - F[p].charge;
                const double b_max = -w * (lo + kMixedMargin) - F[p].charge;
                auto first =
                    std::lower_bound(B.begin(), B.end(), to_key(b_min) + 1,
                                     [](const node &nd, long long v) { return nd.key < v; });
                auto last =
                    std::upper_bound(B.begin(), B.end(), to_key(b_max) - 1,
                                     [](long long v, const node &nd) { return v < nd.key; });
                if (first >= last) continue;
                const int q = range_min(static_cast<std::size_t>(first - B.begin()),
                                        static_cast<std::size_t>(last - B.begin()) - 1);
                const double rest = F[p].charge + B[q].charge;
                const double t = -rest / w - lo;
                if (!(t > kMixedMargin && t < 1.0 - kMixedMargin)) continue;
                const double cost = F[p].cost + B[q].cost + w * ((1.0 - t) * c_lo + t * c_hi);
                if (cost < best.cost) {
                    best.cost = cost;
                    best.found = true;
                    best.lo = lo;
                    best.hi = hi;
                    best.frac_hi = t;
                    best.charge = rest + w * (lo + t);
                    best_f = static_cast<int>(p);
                    best_b = q;
                    best_i = i;
                }
            }
        }
    }
    if (!best.found) return best;
    best.mixed = static_cast<int>(best_i);
    best.choice.assign(s.size(), 0);
    best.choice[best_i] = -1;
    int pick = best_f;
    for (std::size_t i = best_i; i-- > 0;) {
        best.choice[i] = fw[i + 1][pick].state;
        pick = fw[i + 1][pick].parent;
    }
    pick = best_b;
    for (std::size_t i = best_i + 1; i < s.size(); ++i) {
        best.choice[i] = bw[i][pick].state;
        pick = bw[i][pick].parent;
    }
    return best;
}

QUOVIX_OS *assigner::run() {
    if (!read_states()) return nullptr;
    long total_sites = 0;
    for (long k = 0; k < cell_->total; ++k)
        total_sites = std::max(total_sites, cell_->atom[k].flag);
    quovix_os_ptr os(quovix_os_new(total_sites));
    if (!os) {
        std::fputs("Error: quovix_os_new() returns NULL.\n", stderr);
        return nullptr;
    }
    first_.assign(static_cast<std::size_t>(total_sites), -1);
    for (long k = 0; k < cell_->total; ++k) {
        const long s = cell_->atom[k].flag - 1;
        QUOVIX_OS_SITE &site = os->site[s];
        if (first_[s] < 0) {
            first_[s] = k;
            std::snprintf(site.name, sizeof site.name, "%s", cell_->atom[k].name);
            std::snprintf(site.type, sizeof site.type, "%s", cell_->atom[k].type);
            // A state of 0 read from a file (a loop of zeros) says nothing about the ion.
            const int given = cell_->atom[k].os;
            site.given = given != kUnknown && given != 0;
        }
        ++site.atoms;
        site.weight += cell_->atom[k].occ;
    }

    for (long s = 0; s < total_sites; ++s) {
        // Occupancies enter the charge keys: refuse what is not a number or absurdly large.
        const double w = os->site[s].weight;
        if (!std::isfinite(w) || w < 0.0 || w > kMaxWeight) {
            std::fprintf(stderr, "Error: invalid occupancy at site %s.\n", os->site[s].name);
            return nullptr;
        }
    }
    double anion_charge = 0.0, given_charge = 0.0;
    bool any_free = false;
    for (long s = 0; s < total_sites; ++s) {
        const QUOVIX_OS_SITE &site = os->site[s];
        if (site.given) {
            given_charge += cell_->atom[first_[s]].os * site.weight;
            if (cell_->atom[first_[s]].os < 0)
                anion_charge += cell_->atom[first_[s]].os * site.weight;
        } else {
            any_free = true;
            if (states_[site.type].empty()) {
                std::fprintf(stderr, "Error: no oxidation state of %s is listed in %s.\n",
                             site.type, dir_unitary_);
                return nullptr;
            }
        }
    }
    os->charge_given = given_charge;

    quovix_images::frame f;
    if (!quovix_images::make_frame(cell_, kSearchRange, f)) return nullptr;
    if (!find_neighbours(f)) return nullptr;

    // Roles: a free site of an element with an anion state is an anion unless its nearest
    // neighbour of another element is more electronegative.
    role_.assign(static_cast<std::size_t>(total_sites), 0);
    for (long s = 0; s < total_sites; ++s) {
        QUOVIX_OS_SITE &site = os->site[s];
        if (site.given) continue;
        role_[s] = 1;
        if (usual_anion_state(site.type) == 0) continue;
        const double x = electronegativity(site.type);
        double nearest = std::numeric_limits<double>::infinity();
        const char *partner = nullptr;
        for (const neighbour &n : neighbours_[s]) {
            const char *t = cell_->atom[n.atom].type;
            if (std::strcmp(t, site.type) != 0 && n.d < nearest) {
                nearest = n.d;
                partner = t;
            }
        }
        role_[s] = (partner != nullptr && electronegativity(partner) > x) ? 1 : -1;
        if (role_[s] < 0) anion_charge += usual_anion_state(site.type) * site.weight;
    }
    for (long s = 0; s < total_sites; ++s) os->site[s].role = role_[s];
    const double tol = std::max(kNeutralAbs, kNeutralRel * std::fabs(anion_charge));

    if (!any_free) {
        if (std::fabs(given_charge) > tol) {
            std::fprintf(stderr,
                         "Error: the oxidation states given in the file are not charge-neutral "
                         "(total charge %f).\n",
                         given_charge);
            return nullptr;
        }
    }

    std::vector<dp_site> sites;
    solution sol;
    for (int tier = 1; tier <= 2 && !sol.found; ++tier) {
        double fixed = 0.0;
        if (!candidates(os.get(), tier, sites, fixed)) return nullptr;
        if (tier == 2) {
            bool released = false;
            for (long s = 0; s < total_sites; ++s) released = released || role_[s] < 0;
            if (!released) break;  // nothing more to try
        }
        std::vector<std::vector<node>> fw, bw;
        if (!forward(sites, fixed, tol, fw)) return nullptr;
        sol = integer_solution(sites, fw, tol);
        // A mixed site is taken when no integer assignment is neutral. When one balances the
        // charge exactly, a mixed site competes with it on the cost (magnetite: Fe3+ on the
        // tetrahedral site and Fe2.5+ on the octahedral fit better than the normal-spinel
        // Fe2+/Fe3+). An integer assignment neutral only within the tolerance (refined
        // occupancies) is kept: a mixed site would merely absorb the refinement's imbalance.
        const bool exact = sol.found && std::fabs(sol.charge) < kExactCharge;
        if (!sites.empty() && (!sol.found || exact)) {
            if (!backward(sites, fixed, tol, bw)) return nullptr;
            solution mixed = mixed_solution(sites, os.get(), fw, bw);
            if (mixed.found && (!sol.found || mixed.cost < sol.cost)) sol = std::move(mixed);
        }
        if (sol.found) os->tier = tier;
    }
    if (!sol.found) {
        std::fprintf(stderr,
                     "Error: no charge-neutral assignment of the listed oxidation states exists "
                     "(charge of the states given in the file: %f).\n",
                     given_charge);
        return nullptr;
    }

    os->mixed = -1;
    for (std::size_t i = 0; i < sites.size(); ++i) {
        QUOVIX_OS_SITE &site = os->site[sites[i].site];
        if (static_cast<int>(i) == sol.mixed) {
            site.lo = sol.lo;
            site.hi = sol.hi;
            site.frac_hi = sol.frac_hi;
            os->mixed = static_cast<int>(sites[i].site);
        } else {
            site.lo = site.hi = sites[i].state[static_cast<std::size_t>(sol.choice[i])];
            site.frac_hi = 0.0;
        }
    }
    // Final sums against the assignment.
    set_parts(os.get());
    double charge = 0.0;
    for (long s = 0; s < total_sites; ++s) {
        QUOVIX_OS_SITE &site = os->site[s];
        site.state_mean = site.lo + site.frac_hi * (site.hi - site.lo);
        charge += site.state_mean * site.weight;
        const double v_lo = bond_valence_sum(s, site.lo);
        site.bv_sum = site.hi == site.lo ? v_lo
                                         : (1.0 - site.frac_hi) * v_lo +
                                               site.frac_hi * bond_valence_sum(s, site.hi);
    }
    os->charge = charge;
    return os.release();
}

}  // namespace

QUOVIX_OS *quovix_os_new(long total) {
    if (total < 0) {
        std::fputs("Error: number of sites must not be negative.\n", stderr);
        return nullptr;
    }
    quovix_os_ptr os(static_cast<QUOVIX_OS *>(std::calloc(1, sizeof(QUOVIX_OS))));
    if (!os) {
        std::fputs("Error: unable to allocate QUOVIX_OS.\n", stderr);
        return nullptr;
    }
    os->total = total;
    os->mixed = -1;
    if (total > 0) {
        os->site = static_cast<QUOVIX_OS_SITE *>(
            std::calloc(static_cast<std::size_t>(total), sizeof(QUOVIX_OS_SITE)));
        if (os->site == nullptr) {
            std::fputs("Error: unable to allocate QUOVIX_OS_SITE.\n", stderr);
            return nullptr;
        }
    }
    return os.release();
}

void quovix_os_free(QUOVIX_OS *os) {
    if (os == nullptr) return;
    std::free(os->site);
    std::free(os);
}

namespace {

// "Fe2+", "O2-", or "Co3.200+" for a mixed site.
void state_text(char *out, std::size_t size, const char *type, double state, bool mixed) {
    const char sign = state < 0 ? '-' : '+';
    if (mixed) {
        std::snprintf(out, size, "%s%.3f%c", type, std::fabs(state), sign);
    } else {
        std::snprintf(out, size, "%s%d%c", type, static_cast<int>(std::lround(std::fabs(state))),
                      sign);
    }
}

}  // namespace

void quovix_os_print(QUOVIX_OS *os) {
    if (os == nullptr) {
        std::fputs("OS: (not allocated)\n", stderr);
        return;
    }
    std::printf("OS: %6s %5s %9s %10s  %s\n", "site", "from", "state", "bv_sum",
                "rejected (state: bv_sum)");
    for (long s = 0; s < os->total; ++s) {
        const QUOVIX_OS_SITE &site = os->site[s];
        const bool mixed = site.hi != site.lo;
        char chosen[32];
        state_text(chosen, sizeof chosen, site.type, site.state_mean, mixed);
        const char *from =
            site.given ? "file" : (site.role < 0 && site.n_state == 0 ? "anion" : "bv");
        std::string rejected;
        for (int k = 0; k < site.n_state; ++k) {
            if (site.state[k] == site.lo || site.state[k] == site.hi) continue;
            char item[64];
            state_text(item, sizeof item, site.type, site.state[k], false);
            char text[96];
            if (std::isfinite(site.bv[k])) {
                std::snprintf(text, sizeof text, "%s%s: %.3f", rejected.empty() ? "" : ", ", item,
                              site.bv[k]);
            } else {
                std::snprintf(text, sizeof text, "%s%s", rejected.empty() ? "" : ", ", item);
            }
            rejected += text;
        }
        std::printf("OS: %6s %5s %9s %10.6f  %s\n", site.name, from, chosen, site.bv_sum,
                    rejected.empty() ? "-" : rejected.c_str());
    }
    std::printf("OS: formal charge of the cell = %f\n", os->charge);
    for (long s = 0; s < os->total; ++s) {
        const QUOVIX_OS_SITE &site = os->site[s];
        const double off = std::fabs(site.bv_sum - site.state_mean);
        if (!site.given && off > std::max(kFarOff, kFarOffRel * std::fabs(site.state_mean))) {
            std::printf(
                "Warning: the bond valence sum of site %s is %.3f away from its state; the listed "
                "states may not describe this structure.\n",
                site.name, off);
        }
    }
    if (os->tier == 2) {
        std::puts("Warning: no neutral assignment keeps every anion at its usual state.");
    }
}

/// Assigns states to the atoms whose os is 99 (see quovix-os.hpp).
QUOVIX_OS *quovix_os_assign_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                      const char *dir_unitary, const char *dir_binary) {
    if (cell == nullptr || sym == nullptr || (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_SYMMETRY has not been properly initialized.\n",
                   stderr);
        return nullptr;
    }
    if (cell->total < 1) {
        std::fputs("Error: the cell has no atoms.\n", stderr);
        return nullptr;
    }
    if (quovix_cell_flag_site_by_symmetry(cell, sym) != 0) {
        std::fputs("Error: quovix_cell_flag_site_by_symmetry() returns non-zero.\n", stderr);
        return nullptr;
    }
    return quovix_guard("oxidation-state search", [&]() -> QUOVIX_OS * {
        assigner a(cell, dir_unitary, dir_binary);
        return a.run();
    });
}

/// New cell with the assignment applied; mixed sites split into their two states.
QUOVIX_CELL *quovix_os_apply_to_cell(QUOVIX_OS *os, QUOVIX_CELL *cell) {
    if (os == nullptr || cell == nullptr || (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_OS has not been properly initialized.\n", stderr);
        return nullptr;
    }
    long extra = 0;
    for (long k = 0; k < cell->total; ++k) {
        const long s = cell->atom[k].flag - 1;
        if (s < 0 || s >= os->total) {
            std::fputs("Error: the cell's sites do not match QUOVIX_OS.\n", stderr);
            return nullptr;
        }
        if (os->site[s].hi != os->site[s].lo) ++extra;
    }
    quovix_cell_ptr out(quovix_cell_copy(cell));
    if (!out) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_atom_ptr atoms(quovix_atom_new(cell->total + extra));
    if (!atoms) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long n = 0;
    for (long k = 0; k < cell->total; ++k) {
        const QUOVIX_OS_SITE &site = os->site[cell->atom[k].flag - 1];
        QUOVIX_ATOM a = cell->atom[k];
        a.value = 0.0;
        if (site.hi != site.lo) {
            // As the CIF reader splits a mixed state: the same position, occupancy shared.
            QUOVIX_ATOM b = a;
            a.os = site.hi;
            a.occ = cell->atom[k].occ * site.frac_hi;
            b.os = site.lo;
            b.occ = cell->atom[k].occ * (1.0 - site.frac_hi);
            atoms.get()[n++] = a;
            atoms.get()[n++] = b;
        } else {
            a.os = site.lo;
            atoms.get()[n++] = a;
        }
    }
    quovix_atom_free(out->atom);
    out->atom = atoms.release();
    out->total = n;
    return out.release();
}
