// Symmetry operations: "x, y, z" parsing, the space-group settings file, expansion of an
// asymmetric unit, duplicate removal, atom sorting, reduction, site numbering, validation
// of a cell against a setting and the space-group search.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quovix-grid.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"

namespace {

// ---------------------------------------------------------------------------
// Small helpers shared by the algorithms of this file.
// ---------------------------------------------------------------------------

// Two atoms are one site when their fractional coordinates differ by less than this on
// every axis (across the periodic boundary) ...
constexpr double kSameSiteFrac = 0.005;
// ... and their occupancies by less than this.
constexpr double kSameSiteOcc = 0.02;
// A cell fits a setting only when partner atoms agree in occupancy to this precision.
constexpr double kValidateOcc = 0.0005;
// Default search tolerance of the validation (A).
constexpr double kDefaultTolerance = 0.01;

// Reduces a fractional coordinate into [0, 1): subtract the floor, then correct the one
// rounding case (a tiny negative value gives exactly 1.0 after the subtraction).
double wrap_unit(double v) {
    v -= std::floor(v);
    if (v >= 1.0) v -= 1.0;
    if (v < 0.0) v += 1.0;
    return v;
}

// Byte order of two element symbols (strcmp within the symbol field), inline: the sorts and
// the partner searches compare symbols hundreds of thousands of times on a large cell.
inline int type_compare(const char (&a)[QUOVIX_TYPE_LEN], const char (&b)[QUOVIX_TYPE_LEN]) {
    for (int k = 0; k < QUOVIX_TYPE_LEN; ++k) {
        const auto ca = static_cast<unsigned char>(a[k]), cb = static_cast<unsigned char>(b[k]);
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) break;
    }
    return 0;
}

// Cartesian position of a fractional one; the rows of `a` are the lattice vectors.
void frac_to_cart(double out[3], const double f[3], const double a[3][3]) {
    for (int k = 0; k < 3; ++k) out[k] = f[0] * a[0][k] + f[1] * a[1][k] + f[2] * a[2][k];
}

double distance3(const double p[3], const double q[3]) {
    const double dx = p[0] - q[0], dy = p[1] - q[1], dz = p[2] - q[2];
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// Fractional-coordinate bins for the partner searches of duplicate removal, reduction and
// site numbering. Every bin is at least kSameSiteFrac wide, so two atoms that can be equal
// sit in the same or in periodically adjacent bins on every axis; candidates from the bins
// that the window reaches are then tested with quovix_atom_equal itself, so the tolerances
// are unchanged.
class FracBins {
   public:
    FracBins(const QUOVIX_ATOM *atom, long total) {
        // Aim at about two atoms per bin, never narrower than the equality window.
        long nb = static_cast<long>(std::cbrt(static_cast<double>(total) / 2.0));
        const long max_bins = static_cast<long>(1.0 / kSameSiteFrac);  // 200
        if (nb > max_bins) nb = max_bins;
        if (nb < 3) nb = 1;  // with fewer than three bins the neighbours would repeat
        nb_ = nb;
        grid_ = quovix_grid(nb_, nb_, nb_);
        start_.assign(static_cast<std::size_t>(nb_ * nb_ * nb_) + 1, 0);
        std::vector<long> key(static_cast<std::size_t>(total));
        for (long i = 0; i < total; ++i) {
            key[static_cast<std::size_t>(i)] = bin_of(atom[i].x_f);
            ++start_[static_cast<std::size_t>(key[static_cast<std::size_t>(i)]) + 1];
        }
        for (std::size_t b = 1; b < start_.size(); ++b) start_[b] += start_[b - 1];
        index_.resize(static_cast<std::size_t>(total));
        std::vector<long> fill(start_.begin(), start_.end() - 1);
        // Filled in array order, so each bin lists its atoms by increasing index.
        for (long i = 0; i < total; ++i) {
            index_[static_cast<std::size_t>(
                fill[static_cast<std::size_t>(key[static_cast<std::size_t>(i)])]++)] = i;
        }
    }

    // Calls f(j) for every atom index j in the bins that the equality window around fractional
    // position x reaches: on each axis the bins met by [u - w, u + w] (u the wrapped
    // coordinate, w the window with a margin far above rounding), periodically; mostly one
    // bin, so that a query tests a few atoms instead of those of 27 bins.
    template <class F>
    void for_each_near(const double x[3], F &&f) const {
        long lo[3], count[3];
        for (int k = 0; k < 3; ++k) {
            lo[k] = axis_bin(x[k]);
            count[k] = 1;
            if (nb_ == 1 || !std::isfinite(x[k])) continue;  // see axis_bin
            constexpr double w = kSameSiteFrac + 1e-9;
            const double u = wrap_unit(x[k]), n = static_cast<double>(nb_);
            const long first = static_cast<long>(std::floor((u - w) * n));
            const long last = static_cast<long>(std::floor((u + w) * n));
            lo[k] = first;
            count[k] = std::min(last - first + 1, nb_);
        }
        for (long dx = 0; dx < count[0]; ++dx) {
            for (long dy = 0; dy < count[1]; ++dy) {
                for (long dz = 0; dz < count[2]; ++dz) {
                    const long b = grid_.flat(lo[0] + dx, lo[1] + dy, lo[2] + dz);
                    for (long t = start_[static_cast<std::size_t>(b)];
                         t < start_[static_cast<std::size_t>(b) + 1]; ++t) {
                        f(index_[static_cast<std::size_t>(t)]);
                    }
                }
            }
        }
    }

   private:
    long axis_bin(double v) const {
        if (!std::isfinite(v)) return 0;  // never equal to anything; any bin will do
        const double u = wrap_unit(v);
        long b = static_cast<long>(u * static_cast<double>(nb_));
        if (b >= nb_) b = nb_ - 1;
        if (b < 0) b = 0;
        return b;
    }
    long bin_of(const double x[3]) const {
        return grid_.flat_inside(axis_bin(x[0]), axis_bin(x[1]), axis_bin(x[2]));
    }

    long nb_ = 1;
    quovix_grid grid_;  // nb_ bins per axis, periodic
    std::vector<long> start_;
    std::vector<long> index_;
};

// Cartesian bins over the stored positions `x`, for the validation's partner search (which
// compares Cartesian positions without periodic images). The bin edge is at least the
// tolerance, so a partner closer than the tolerance lies in one of at most 2 x 2 x 2 bins.
class CartBins {
   public:
    CartBins(const QUOVIX_CELL *cell, double tolerance) {
        const long n = cell->total;
        double lo[3] = {0.0, 0.0, 0.0};
        double hi[3] = {0.0, 0.0, 0.0};
        bool first = true;
        for (long i = 0; i < n; ++i) {
            const double *x = cell->atom[i].x;
            if (!std::isfinite(x[0]) || !std::isfinite(x[1]) || !std::isfinite(x[2])) continue;
            for (int k = 0; k < 3; ++k) {
                if (first || x[k] < lo[k]) lo[k] = x[k];
                if (first || x[k] > hi[k]) hi[k] = x[k];
            }
            first = false;
        }
        // About one atom per bin of the bounding box, never smaller than the tolerance.
        const double box = std::max(1e-6, (hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]));
        edge_ = std::max(tolerance, std::cbrt(box / static_cast<double>(std::max(1L, n))));
        if (!(edge_ > 0.0) || !std::isfinite(edge_)) edge_ = 1.0;
        for (long i = 0; i < n; ++i) {
            const double *x = cell->atom[i].x;
            if (!std::isfinite(x[0]) || !std::isfinite(x[1]) || !std::isfinite(x[2])) continue;
            bins_[key(cell_of(x[0]), cell_of(x[1]), cell_of(x[2]))].push_back(i);
        }
    }

    // Calls f(j) for every atom whose stored position may lie within `tolerance` of p.
    template <class F>
    void for_each_near(const double p[3], double tolerance, F &&f) const {
        long lo[3], hi[3];
        for (int k = 0; k < 3; ++k) {
            if (!std::isfinite(p[k])) return;  // a NaN distance is never below the tolerance
            lo[k] = cell_of(p[k] - tolerance);
            hi[k] = cell_of(p[k] + tolerance);
        }
        // A window wider than the occupied bins (a huge tolerance) visits every atom instead
        // of walking up to (2e6 + 1)^3 empty keys; the caller tests each candidate anyway.
        const double window = static_cast<double>(hi[0] - lo[0] + 1) *
                              static_cast<double>(hi[1] - lo[1] + 1) *
                              static_cast<double>(hi[2] - lo[2] + 1);
        if (window > static_cast<double>(bins_.size())) {
            for (const auto &bin : bins_) {
                for (long idx : bin.second) f(idx);
            }
            return;
        }
        for (long i = lo[0]; i <= hi[0]; ++i) {
            for (long j = lo[1]; j <= hi[1]; ++j) {
                for (long k = lo[2]; k <= hi[2]; ++k) {
                    const auto it = bins_.find(key(i, j, k));
                    if (it == bins_.end()) continue;
                    for (long idx : it->second) f(idx);
                }
            }
        }
    }

   private:
    long cell_of(double v) const {
        const double c = std::floor(v / edge_);
        // Positions are bounded by the cell in practice; clamp to keep the key finite.
        if (c > 1e6) return 1000000;
        if (c < -1e6) return -1000000;
        return static_cast<long>(c);
    }
    static std::uint64_t key(long i, long j, long k) {
        const auto u = [](long v) { return static_cast<std::uint64_t>(v + 1048576) & 0x1FFFFF; };
        return (u(i) << 42) | (u(j) << 21) | u(k);
    }

    double edge_ = 1.0;
    std::unordered_map<std::uint64_t, std::vector<long>> bins_;
};

// Fractional image of an atom under a card, wrapped into [0, 1).
void image_frac(double out[3], const double x[3], const QUOVIX_CARD *card) {
    for (int k = 0; k < 3; ++k) {
        const double v =
            card->r_f[k][0] * x[0] + card->r_f[k][1] * x[1] + card->r_f[k][2] * x[2] + card->t_f[k];
        out[k] = wrap_unit(v);
    }
}

bool symmetry_has_cards(const QUOVIX_SYMMETRY *symmetry) {
    return symmetry != nullptr && symmetry->total > 0 && symmetry->card != nullptr;
}

bool cell_has_atoms(const QUOVIX_CELL *cell) {
    return cell != nullptr && cell->total > 0 && cell->atom != nullptr;
}

// ---------------------------------------------------------------------------
// Operation text.
// ---------------------------------------------------------------------------

// Fails on text that is not an operation at all (not three components, or a rotation part
// that is not invertible); everything else follows the reading rules below, quirks included.
bool parse_component(const std::string &c, double row[3], double &t) {
    static const char lower[3] = {'x', 'y', 'z'};
    static const char upper[3] = {'X', 'Y', 'Z'};
    for (int j = 0; j < 3; ++j) {
        std::size_t p = c.find(lower[j]);
        if (p == std::string::npos) p = c.find(upper[j]);
        if (p == std::string::npos) {
            row[j] = 0.0;
        } else if (p == 0 || c[p - 1] == '+') {
            row[j] = 1.0;
        } else {
            row[j] = -1.0;  // normally after '-'; any other character counts the same
        }
    }
    // Translation: a fraction of two single digits anywhere, else a decimal number read
    // from the front of the component only (so "x+0.5" has no translation).
    t = 0.0;
    std::size_t mark = std::string::npos;
    const std::size_t slash = c.find('/');
    if (slash != std::string::npos) {
        if (slash == 0 || slash + 1 >= c.size()) return false;
        const char num = c[slash - 1], den = c[slash + 1];
        if (num < '0' || num > '9' || den < '1' || den > '9') return false;
        t = static_cast<double>(num - '0') / static_cast<double>(den - '0');
        mark = slash;
    } else {
        const std::size_t dot = c.find('.');
        if (dot != std::string::npos) {
            double v = 0.0;
            if (std::sscanf(c.c_str(), "%lf", &v) == 1) t = std::fabs(v);
            mark = dot;
        }
    }
    if (!std::isfinite(t)) return false;
    // Sign: a '-' from the second character before the '/' or '.' onwards makes the
    // translation negative; when that position lies before the start it stays positive.
    if (mark != std::string::npos && mark >= 2 && c.find('-', mark - 2) != std::string::npos) {
        t = -t;
    }
    // Into [-1, 1]: the same result as subtracting (adding) 1 while above 1 (below -1).
    if (t > 1.0) t -= std::ceil(t - 1.0);
    if (t < -1.0) t += std::ceil(-1.0 - t);
    return true;
}

// ---------------------------------------------------------------------------
// The settings file.
// ---------------------------------------------------------------------------

// The rows between the "DATA_START" row and the "DATA_END" row, cut as a line reader with
// a 1024-byte buffer cuts them (at most 1023 characters per row, the newline kept), plus
// the positions of the '#' rows that open the entries. The file is read in one go; rows
// are views into it.
struct Settings {
    std::string data;
    std::vector<std::string_view> rows;
    std::vector<std::size_t> entry;  // index in `rows` of each '#' row, in file order
};

bool has(std::string_view row, const char *key) { return row.find(key) != std::string_view::npos; }

bool settings_load(Settings &s, const char *path) {
    if (path == nullptr) return false;
    quovix_file_ptr fp(std::fopen(path, "rb"));
    if (!fp) return false;
    char buf[65536];
    for (std::size_t got; (got = std::fread(buf, 1, sizeof buf, fp.get())) > 0;)
        s.data.append(buf, got);
    constexpr std::size_t kRowMax = 1023;
    bool started = false;
    const std::string_view all(s.data);
    for (std::size_t p = 0; p < all.size();) {
        const std::size_t nl = all.find('\n', p);
        std::size_t len = (nl == std::string_view::npos ? all.size() : nl + 1) - p;
        if (len > kRowMax) len = kRowMax;
        const std::string_view row = all.substr(p, len);
        p += len;
        if (!started) {
            started = has(row, "DATA_START");
            continue;
        }
        if (has(row, "DATA_END")) break;
        if (row.find('#') != std::string_view::npos) s.entry.push_back(s.rows.size());
        s.rows.push_back(row);
    }
    return true;
}

enum class Lookup { hm, id, hall, internal };

// Reads a quoted symbol "'...'" (at most 15 characters) from the start of a row.
void scan_symbol(char out[QUOVIX_SG_LEN], std::string_view row) {
    char buf[QUOVIX_SG_LEN] = {0};
    if (std::sscanf(std::string(row).c_str(), "'%15[^'\n\r]s", buf) != 1) buf[0] = '\0';
    std::memcpy(out, buf, QUOVIX_SG_LEN);
    out[QUOVIX_SG_LEN - 1] = '\0';
}

void copy_symbol(char out[QUOVIX_SG_LEN], const char *text) {
    std::memset(out, 0, QUOVIX_SG_LEN);
    std::strncpy(out, text, QUOVIX_SG_LEN - 1);
}

// Builds the symmetry of the entry whose '#' row is rows[r]; null (with a message) when
// the entry is cut short or one of its operations cannot be read.
QUOVIX_SYMMETRY *settings_entry(const Settings &s, std::size_t r, const char *path, int no) {
    int n = 0;
    if (r + 4 >= s.rows.size() || std::sscanf(std::string(s.rows[r + 4]).c_str(), "%d", &n) != 1 ||
        n < 1 || static_cast<std::size_t>(n) > s.rows.size() - (r + 5)) {
        std::fprintf(stderr, "Error: invalid space group entry No.%d in %s.\n", no, path);
        return nullptr;
    }
    quovix_symmetry_ptr sym(quovix_symmetry_new(n));
    if (!sym) {
        std::fputs("Error: quovix_symmetry_new() returns NULL.\n", stderr);
        return nullptr;
    }
    if (std::sscanf(std::string(s.rows[r + 1]).c_str(), "%d", &sym->sg_id) != 1) sym->sg_id = 0;
    scan_symbol(sym->sg_Hall, s.rows[r + 2]);
    scan_symbol(sym->sg_HM, s.rows[r + 3]);
    for (int k = 0; k < n; ++k) {
        std::string op(s.rows[r + 5 + static_cast<std::size_t>(k)]);
        op.erase(
            std::remove_if(op.begin(), op.end(), [](char ch) { return ch == '\r' || ch == '\n'; }),
            op.end());
        if (quovix_card_set_by_text(&sym->card[k], op.c_str()) != 0) {
            std::fputs("quovix_card_set_by_text() returns non-zero.\n", stderr);
            return nullptr;
        }
    }
    return sym.release();
}

QUOVIX_SYMMETRY *settings_lookup(const char *text, const char *path, Lookup how, int no) {
    if (path == nullptr) path = "";
    if (how != Lookup::internal && text == nullptr) text = "";
    return quovix_guard("QUOVIX_SYMMETRY", [&]() -> QUOVIX_SYMMETRY * {
        Settings s;
        if (!settings_load(s, path)) {
            std::fprintf(stderr, "Error: unable to open %s\n", path);
            return nullptr;
        }
        std::size_t found = s.rows.size();
        if (how == Lookup::internal) {
            if (no >= 1 && static_cast<std::size_t>(no) <= s.entry.size()) {
                found = s.entry[static_cast<std::size_t>(no) - 1];
            }
        } else {
            const std::size_t offset = how == Lookup::id ? 1 : how == Lookup::hall ? 2 : 3;
            for (std::size_t r : s.entry) {
                if (r + offset < s.rows.size() && has(s.rows[r + offset], text)) {
                    found = r;
                    break;
                }
            }
        }
        if (found >= s.rows.size()) {
            switch (how) {
                case Lookup::hm:
                    std::fprintf(stderr, "Error: unable to find keyword H-M %s in %s.\n", text,
                                 path);
                    break;
                case Lookup::id:
                    std::fprintf(stderr, "Error: unable to find keyword id %s in %s.\n", text,
                                 path);
                    break;
                case Lookup::hall:
                    std::fprintf(stderr, "Error: unable to find keyword Hall %s in %s.\n", text,
                                 path);
                    break;
                case Lookup::internal:
                    std::fprintf(stderr,
                                 "Error: unable to find required space group No.%d in %s.\n", no,
                                 path);
                    break;
            }
            return nullptr;
        }
        int entry_no = 0;
        for (std::size_t e = 0; e < s.entry.size(); ++e) {
            if (s.entry[e] == found) entry_no = static_cast<int>(e) + 1;
        }
        QUOVIX_SYMMETRY *sym = settings_entry(s, found, path, entry_no);
        if (sym == nullptr) return nullptr;
        // The name the caller looked up replaces the file's spelling.
        if (how == Lookup::hm) copy_symbol(sym->sg_HM, text);
        if (how == Lookup::hall) copy_symbol(sym->sg_Hall, text);
        if (how == Lookup::id && std::sscanf(text, "%d", &sym->sg_id) != 1) sym->sg_id = 0;
        return sym;
    });
}

// ---------------------------------------------------------------------------
// Sorting. The order is the one of four successive exchange sorts (type; os among equal
// type; occupancy among equal type and os; label among the rest). An exchange sort is not
// stable, and atoms with equal keys (all images of one site) are common, so the shipped
// version computes the exchange sort's exact permutation without replaying its swaps
// (their number grows as n^2 when species alternate in the file).
// ---------------------------------------------------------------------------

int compare_pass(const QUOVIX_ATOM &a, const QUOVIX_ATOM &b, int pass) {
    const int t = type_compare(a.type, b.type);
    if (t != 0 || pass == 1) return t;
    if (a.os != b.os || pass == 2) return a.os < b.os ? -1 : (a.os > b.os ? 1 : 0);
    if (a.occ != b.occ || pass == 3) return a.occ < b.occ ? -1 : (a.occ > b.occ ? 1 : 0);
    return quovix_atom_name_compare(a.name, b.name);
}

// Plain exchange sort of one pass: swap when the earlier atom is greater. The comparison
// of pass p only looks at atoms equal in the keys of the earlier passes.
void exchange_pass_plain(QUOVIX_ATOM *atom, long total, int pass) {
    for (long i = 0; i < total; ++i) {
        for (long j = i + 1; j < total; ++j) {
            const QUOVIX_ATOM &a = atom[i], &b = atom[j];
            bool greater = false;
            switch (pass) {
                case 1:
                    greater = std::strcmp(a.type, b.type) > 0;
                    break;
                case 2:
                    greater = std::strcmp(a.type, b.type) == 0 && a.os > b.os;
                    break;
                case 3:
                    greater = std::strcmp(a.type, b.type) == 0 && a.os == b.os && a.occ > b.occ;
                    break;
                default:
                    greater = std::strcmp(a.type, b.type) == 0 && a.os == b.os && a.occ == b.occ &&
                              quovix_atom_name_compare(a.name, b.name) > 0;
                    break;
            }
            if (greater) std::swap(atom[i], atom[j]);
        }
    }
}

// Fenwick tree of counts over positions 0..n-1.
class Fenwick {
   public:
    explicit Fenwick(std::size_t n) : t_(n + 1, 0) {}
    void add(std::size_t i, long v) {
        for (++i; i < t_.size(); i += i & (~i + 1)) t_[i] += v;
    }
    // Sum over positions 0..i-1.
    long prefix(std::size_t i) const {
        long s = 0;
        for (; i > 0; i -= i & (~i + 1)) s += t_[i];
        return s;
    }
    // Smallest position whose prefix sum through it is k + 1 (the k-th set slot, from 0).
    std::size_t kth(long k) const {
        std::size_t pos = 0, step = 1;
        while (step * 2 < t_.size()) step *= 2;
        for (; step > 0; step /= 2) {
            if (pos + step < t_.size() && t_[pos + step] <= k) {
                pos += step;
                k -= t_[pos];
            }
        }
        return pos;
    }

   private:
    std::vector<long> t_;
};

// Same permutation as exchange_pass_plain, in O(n log n). The comparison of the pass is a
// strict weak order on the full key up to that pass (the previous passes left the array
// sorted by their keys), so every atom has a rank and the result is sorted by rank; what
// remains is the order among atoms of equal rank v. Step i of the exchange sort carries the
// atom at i forward along the chain of prefix minima of a[i..]. Seen through the three
// classes S (rank < v), V (rank v) and L (rank > v), with the V atoms told apart, a step
// is: if the first non-L atom at or after i is an S, that S becomes final; if it is a V,
// it jumps onto the first S after it and that S becomes final. So, reading the S and V
// atoms in array order, each S moves the leading V of the V atoms gathered so far to the
// back of them: the V atoms form a circular list that turns by one place per S and grows
// by one atom per V, and the final order of rank v reads that list from its head.
void exchange_pass_fast(QUOVIX_ATOM *atom, long total, int pass) {
    const std::size_t n = static_cast<std::size_t>(total);
    // An array already in order on the keys of passes 1..pass has no pair that the exchange
    // sort would swap, so its permutation is the identity (the common case of a cell sorted
    // before, which several steps of a run sort again).
    bool ordered = true;
    for (std::size_t i = 1; i < n && ordered; ++i)
        ordered = compare_pass(atom[i - 1], atom[i], pass) <= 0;
    if (ordered) return;
    std::vector<std::size_t> order(n);
    for (std::size_t i = 0; i < n; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return compare_pass(atom[a], atom[b], pass) < 0;
    });
    // `order` lists the positions rank by rank, each rank by increasing position.
    std::vector<std::size_t> result(n);
    Fenwick smaller(n);  // positions of the atoms of lower rank than the current one
    std::vector<long> slot;
    std::size_t begin = 0;
    while (begin < n) {
        std::size_t end = begin + 1;
        while (end < n && compare_pass(atom[order[begin]], atom[order[end]], pass) == 0) ++end;
        const std::size_t m = end - begin;
        // Insertion index of each V into the growing list, and the head at the end.
        slot.assign(m, 0);
        long head = 0;
        long below_previous = 0;  // S atoms before the previous V
        for (std::size_t j = 0; j < m; ++j) {
            const long below = smaller.prefix(order[begin + j]);
            const long size = static_cast<long>(j);
            head = size > 0 ? (head + (below - below_previous)) % size : 0;
            slot[j] = head;
            head += 1;
            below_previous = below;
        }
        const long size = static_cast<long>(m);
        head = (head + (static_cast<long>(begin) - below_previous)) % size;
        // Offline: the list after all insertions, filled from the last insertion back.
        Fenwick free_slots(m);
        for (std::size_t j = 0; j < m; ++j) free_slots.add(j, 1);
        std::vector<std::size_t> list(m);
        for (std::size_t j = m; j-- > 0;) {
            const std::size_t at = free_slots.kth(slot[j]);
            list[at] = order[begin + j];
            free_slots.add(at, -1);
        }
        for (std::size_t t = 0; t < m; ++t)
            result[begin + t] = list[(static_cast<std::size_t>(head) + t) % m];
        for (std::size_t j = begin; j < end; ++j) smaller.add(order[j], 1);
        begin = end;
    }
    std::vector<QUOVIX_ATOM> copy(atom, atom + n);
    for (std::size_t p = 0; p < n; ++p) atom[p] = copy[result[p]];
}

// ---------------------------------------------------------------------------
// Partner searches: shared bodies of the plain and the binned versions.
// ---------------------------------------------------------------------------

// Marks (in `ignored`) every atom equal to an earlier unmarked one; marks already set are
// kept (nothing is cleared first).
void mark_duplicates(QUOVIX_ATOM *atom, long total, bool fast) {
    if (!fast) {
        for (long i = 0; i < total; ++i) {
            if (atom[i].ignored) continue;
            for (long j = i + 1; j < total; ++j) {
                if (!atom[j].ignored && quovix_atom_equal(&atom[i], &atom[j]))
                    atom[j].ignored = true;
            }
        }
        return;
    }
    const FracBins bins(atom, total);
    for (long i = 0; i < total; ++i) {
        if (atom[i].ignored) continue;
        bins.for_each_near(atom[i].x_f, [&](long j) {
            if (j > i && !atom[j].ignored && quovix_atom_equal(&atom[i], &atom[j])) {
                atom[j].ignored = true;
            }
        });
    }
}

int remove_duplicate(QUOVIX_ATOM **atom, long *total, bool fast) {
    if (atom == nullptr || *atom == nullptr || total == nullptr || *total < 1) {
        std::fputs("Error: QUOVIX_ATOM has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("QUOVIX_ATOM", [&]() -> int {
        QUOVIX_ATOM *a = *atom;
        const long n = *total;
        mark_duplicates(a, n, fast);
        long kept = 0;
        for (long i = 0; i < n; ++i) kept += a[i].ignored ? 0 : 1;
        QUOVIX_ATOM *out = quovix_atom_new(kept);
        if (out == nullptr) {
            std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
            return 1;
        }
        long k = 0;
        for (long i = 0; i < n; ++i) {
            if (!a[i].ignored) out[k++] = a[i];
        }
        quovix_atom_free(a);
        *atom = out;
        *total = kept;
        return 0;
    });
}

void clear_marks(QUOVIX_CELL *cell) {
    for (long i = 0; i < cell->total; ++i) cell->atom[i].ignored = false;
}

QUOVIX_CELL *reduce_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry, bool fast) {
    if (!cell_has_atoms(cell) || !symmetry_has_cards(symmetry)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_SYMMETRY has not been properly initialized.\n",
                   stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_CELL", [&]() -> QUOVIX_CELL * {
        quovix_cell_ptr out(quovix_cell_copy(cell));
        if (!out) {
            std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
            return nullptr;
        }
        QUOVIX_ATOM *a = cell->atom;
        const long n = cell->total;
        clear_marks(cell);
        const FracBins *bins = nullptr;
        std::vector<FracBins> holder;
        if (fast) {
            holder.emplace_back(a, n);
            bins = &holder.front();
        }
        for (long i = 0; i < n; ++i) {
            if (a[i].ignored) continue;
            for (int c = 0; c < symmetry->total; ++c) {
                const QUOVIX_ATOM img = quovix_atom_spawn_by_card(&a[i], &symmetry->card[c]);
                if (bins == nullptr) {
                    for (long j = i + 1; j < n; ++j) {
                        if (!a[j].ignored && quovix_atom_equal(&img, &a[j])) a[j].ignored = true;
                    }
                } else {
                    bins->for_each_near(img.x_f, [&](long j) {
                        if (j > i && !a[j].ignored && quovix_atom_equal(&img, &a[j]))
                            a[j].ignored = true;
                    });
                }
            }
        }
        long kept = 0;
        for (long i = 0; i < n; ++i) kept += a[i].ignored ? 0 : 1;
        QUOVIX_ATOM *atoms = quovix_atom_new(kept);
        if (atoms == nullptr) {
            std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
            clear_marks(cell);
            return nullptr;
        }
        long k = 0;
        for (long i = 0; i < n; ++i) {
            if (!a[i].ignored) atoms[k++] = a[i];
        }
        // The marks were scratch: the input cell is handed back unmarked.
        clear_marks(cell);
        quovix_atom_free(out->atom);
        out->atom = atoms;
        out->total = kept;
        return out.release();
    });
}

int flag_site_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry, bool fast) {
    if (!cell_has_atoms(cell) || !symmetry_has_cards(symmetry)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_SYMMETRY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    return quovix_guard("site flags", [&]() -> int {
        QUOVIX_ATOM *a = cell->atom;
        const long n = cell->total;
        for (long i = 0; i < n; ++i) a[i].flag = 0;
        std::vector<FracBins> holder;
        if (fast) holder.emplace_back(a, n);
        long site = 0;
        for (long i = 0; i < n; ++i) {
            if (a[i].flag != 0) continue;
            a[i].flag = ++site;
            for (int c = 0; c < symmetry->total; ++c) {
                const QUOVIX_ATOM img = quovix_atom_spawn_by_card(&a[i], &symmetry->card[c]);
                if (!fast) {
                    for (long j = i + 1; j < n; ++j) {
                        if (a[j].flag == 0 && quovix_atom_equal(&img, &a[j])) a[j].flag = site;
                    }
                } else {
                    holder.front().for_each_near(img.x_f, [&](long j) {
                        if (j > i && a[j].flag == 0 && quovix_atom_equal(&img, &a[j]))
                            a[j].flag = site;
                    });
                }
            }
        }
        return 0;
    });
}

// Does atom j qualify as the partner of an image at Cartesian position p?
bool validate_partner(const QUOVIX_ATOM &src, const QUOVIX_ATOM &cand, const double p[3],
                      double tolerance) {
    return cand.os == src.os && std::strcmp(cand.type, src.type) == 0 &&
           std::fabs(cand.occ - src.occ) < kValidateOcc && distance3(p, cand.x) < tolerance;
}

bool validate_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry, double tolerance,
                          bool fast) {
    if (cell == nullptr || symmetry == nullptr) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_SYMMETRY has not been properly initialized.\n",
                   stderr);
        return false;
    }
    if (!(tolerance > 0.0)) tolerance = kDefaultTolerance;
    if (cell->total < 1 || cell->atom == nullptr || symmetry->card == nullptr) return true;
    return quovix_guard("validation", [&]() -> bool {
        QUOVIX_ATOM *a = cell->atom;
        const long n = cell->total;
        std::vector<CartBins> holder;
        if (fast) holder.emplace_back(cell, tolerance);
        for (int c = 0; c < symmetry->total; ++c) {
            const QUOVIX_CARD *card = &symmetry->card[c];
            clear_marks(cell);
            for (long i = 0; i < n; ++i) {
                if (a[i].ignored) continue;
                double f[3], p[3];
                image_frac(f, a[i].x_f, card);
                frac_to_cart(p, f, cell->a);
                long partner = -1;
                if (!fast) {
                    for (long j = 0; j < n; ++j) {
                        if (validate_partner(a[i], a[j], p, tolerance)) {
                            partner = j;
                            break;
                        }
                    }
                } else {
                    holder.front().for_each_near(p, tolerance, [&](long j) {
                        if ((partner < 0 || j < partner) &&
                            validate_partner(a[i], a[j], p, tolerance)) {
                            partner = j;
                        }
                    });
                }
                if (partner < 0) {
                    clear_marks(cell);
                    return false;
                }
                a[partner].ignored = true;
                a[i].ignored = true;
            }
        }
        return true;
    });
}

QUOVIX_SYMMETRY *calculate_from_cell(QUOVIX_CELL *cell, double tolerance, const char *path,
                                     bool fast) {
    if (!cell_has_atoms(cell)) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (path == nullptr) path = "";
    if (!(tolerance > 0.0)) tolerance = kDefaultTolerance;
    const int best = quovix_guard("space group search", [&]() -> int {
        Settings s;
        if (!settings_load(s, path)) {
            std::printf("Error: unable to open %s.\n", path);
            return -1;
        }
        const int count = static_cast<int>(s.entry.size());
        std::printf("Message: total %d space group settings found in %s.\n", count, path);
        int found = 0;
        for (int k = 1; k <= count; ++k) {
            quovix_symmetry_ptr sym(
                settings_entry(s, s.entry[static_cast<std::size_t>(k) - 1], path, k));
            if (!sym) {
                std::fprintf(stderr,
                             "Error: quovix_symmetry_import_by_internal_no() returns NULL at %d.\n",
                             k);
                return -1;
            }
            if (validate_by_symmetry(cell, sym.get(), tolerance, fast)) {
                std::printf("Message: structure fits to symmetry %s.\n", sym->sg_HM);
                found = k;
            }
        }
        return found;
    });
    if (best < 0) return nullptr;
    QUOVIX_SYMMETRY *sym = quovix_symmetry_import_by_internal_no(best, path);
    if (sym == nullptr) {
        std::fprintf(stderr, "Error: quovix_symmetry_import_by_internal_no() returns NULL at %d.\n",
                     best);
        return nullptr;
    }
    std::printf("Message: determined space group: %s\n", sym->sg_HM);
    return sym;
}

}  // namespace

/// Parses one operation in "x, y, z" form into card->text (at most 35 characters kept),
/// r_f and t_f. Components are split at ','; blanks, CR, LF and single quotes are dropped.
/// A letter at the start of a component or after '+' counts +1, after anything else -1.
/// The translation is a one-digit fraction anywhere ("1/2") or a decimal number at the
/// front only ("0.5+x"; "x+0.5" has none); it is negative when a '-' occurs from the
/// second character before the '/' or '.' onwards, and is brought into [-1, 1].
/// Returns 0, or 1 with a message for a null text or text that is not an operation.
int quovix_card_set_by_text(QUOVIX_CARD *card, const char *text) {
    if (card == nullptr || text == nullptr) {
        std::fputs("Error: unable to set QUOVIX_CARD->text.\n", stderr);
        return 1;
    }
    return quovix_guard("QUOVIX_CARD", [&]() -> int {
        std::memset(card->text, 0, sizeof card->text);
        std::strncpy(card->text, text, sizeof card->text - 1);
        std::vector<std::string> comp(1);
        for (const char *p = text; *p != '\0'; ++p) {
            const char ch = *p;
            if (ch == ',') {
                comp.emplace_back();
            } else if (ch != ' ' && ch != '\t' && ch != '\r' && ch != '\n' && ch != '\'') {
                comp.back().push_back(ch);
            }
        }
        double r[3][3] = {}, t[3] = {};
        bool ok = comp.size() == 3;
        for (int i = 0; ok && i < 3; ++i)
            ok = parse_component(comp[static_cast<std::size_t>(i)], r[i], t[i]);
        if (ok) {
            const double det = r[0][0] * (r[1][1] * r[2][2] - r[1][2] * r[2][1]) -
                               r[0][1] * (r[1][0] * r[2][2] - r[1][2] * r[2][0]) +
                               r[0][2] * (r[1][0] * r[2][1] - r[1][1] * r[2][0]);
            ok = std::fabs(std::fabs(det) - 1.0) < 1e-9;
        }
        if (!ok) {
            std::fprintf(stderr, "Error: invalid symmetry operation '%s'.\n", text);
            return 1;
        }
        std::memcpy(card->r_f, r, sizeof r);
        std::memcpy(card->t_f, t, sizeof t);
        return 0;
    });
}

/// The symmetry under which a CIF (split into rows) was written, from the first source
/// present: the operations loop (_symmetry_equiv_pos_as_xyz, else
/// _space_group_symop_operation_xyz), the H-M symbol, the International Tables number,
/// the Hall symbol. The lookups use the settings file `dir_symcards`. New symmetry (free
/// with quovix_symmetry_free) or null.
QUOVIX_SYMMETRY *quovix_symmetry_import_from_array_char_2D(char **rows, long row,
                                                           const char *dir_symcards) {
    if (rows == nullptr || row < 1) return nullptr;
    char ***loop = nullptr;
    long lrows = 0, lcols = 0;
    int found = quovix_cell_import_cif_grep_loop(&loop, &lrows, &lcols,
                                                 "_symmetry_equiv_pos_as_xyz", rows, row);
    if (found != 0) {
        found = quovix_cell_import_cif_grep_loop(&loop, &lrows, &lcols,
                                                 "_space_group_symop_operation_xyz", rows, row);
    }
    if (found == 0) {
        std::printf(
            "Message: determining symmetry from "
            "_symmetry_equiv_pos_as_xyz/_space_group_symop_operation_xyz ...\n");
        long col = -1;
        for (long j = 0; j < lcols && col < 0; ++j) {
            const char *tag = loop[0][j];
            if (tag != nullptr && (std::strcmp(tag, "_symmetry_equiv_pos_as_xyz") == 0 ||
                                   std::strcmp(tag, "_space_group_symop_operation_xyz") == 0)) {
                col = j;
            }
        }
        QUOVIX_SYMMETRY *sym = nullptr;
        if (col < 0) {
            std::fputs("Error: invalid keywords.\n", stderr);
        } else if (lrows - 1 > INT_MAX) {
            std::fputs("Error: too many symmetry operations.\n", stderr);
        } else {
            sym = quovix_symmetry_new(static_cast<int>(lrows - 1));
            if (sym == nullptr) std::fputs("Error: quovix_symmetry_new() returns NULL.\n", stderr);
            for (long i = 1; sym != nullptr && i < lrows; ++i) {
                const char *op = loop[i][col];
                if (op == nullptr || quovix_card_set_by_text(&sym->card[i - 1], op) != 0) {
                    if (op == nullptr) {
                        std::fprintf(stderr, "Error: symmetry operation missing at row %ld.\n", i);
                    }
                    std::fputs("Error: quovix_card_set_by_text() returns non-zero.\n", stderr);
                    quovix_symmetry_free(sym);
                    sym = nullptr;
                }
            }
        }
        quovix_array_char_3D_free(loop, lrows, lcols);
        return sym;
    }
    std::printf("Warning: quovix_cell_import_cif_grep_loop() returns non-zero.\n");

    struct Source {
        const char *keys[3];
        const char *message;
        Lookup how;
    };
    static const Source sources[3] = {
        {{"_symmetry_space_group_name_H-M", "_space_group_name_H-M_alt", nullptr},
         "Message: determining symmetry from H-M symbol ...\n",
         Lookup::hm},
        {{"_symmetry_Int_Tables_number", "_space_group_IT_number", "_space_group_id"},
         "Message: determining symmetry from IT id ...\n",
         Lookup::id},
        {{"_symmetry_space_group_name_Hall", "_space_group_name_Hall", nullptr},
         "Message: determining symmetry from Hall symbol ...\n",
         Lookup::hall},
    };
    for (const Source &src : sources) {
        char *value = nullptr;
        for (const char *key : src.keys) {
            if (key != nullptr && value == nullptr) {
                value = quovix_cell_import_cif_grep_keyword(key, rows, row);
            }
        }
        if (value == nullptr) continue;
        std::fputs(src.message, stdout);
        QUOVIX_SYMMETRY *sym = nullptr;
        switch (src.how) {
            case Lookup::hm:
                sym = quovix_symmetry_import_by_keyword_HM(value, dir_symcards);
                if (!sym)
                    std::fputs("quovix_symmetry_import_by_keyword_HM() returns NULL.\n", stderr);
                break;
            case Lookup::id:
                sym = quovix_symmetry_import_by_keyword_id(value, dir_symcards);
                if (!sym)
                    std::fputs("quovix_symmetry_import_by_keyword_id() returns NULL.\n", stderr);
                break;
            default:
                sym = quovix_symmetry_import_by_keyword_Hall(value, dir_symcards);
                if (!sym)
                    std::fputs("quovix_symmetry_import_by_keyword_Hall() returns NULL.\n", stderr);
                break;
        }
        std::free(value);
        return sym;
    }
    return nullptr;
}

/// Symmetry of the first settings entry whose H-M row contains `text`; sg_HM is the given
/// text, sg_Hall and sg_id come from the file. Null (with a message) when not found.
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_HM(const char *text, const char *dir_symcards) {
    return settings_lookup(text, dir_symcards, Lookup::hm, 0);
}

/// Symmetry of the first settings entry whose number row contains `text`; sg_id is the
/// given text read as an integer, the symbols come from the file.
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_id(const char *text, const char *dir_symcards) {
    return settings_lookup(text, dir_symcards, Lookup::id, 0);
}

/// Symmetry of the first settings entry whose Hall row contains `text`; sg_Hall is the
/// given text, sg_HM and sg_id come from the file.
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_Hall(const char *text,
                                                        const char *dir_symcards) {
    return settings_lookup(text, dir_symcards, Lookup::hall, 0);
}

/// Symmetry of the no-th entry (from 1) of the settings file, names and number from the file.
QUOVIX_SYMMETRY *quovix_symmetry_import_by_internal_no(int no, const char *dir_symcards) {
    return settings_lookup(nullptr, dir_symcards, Lookup::internal, no);
}

/// Number of entries ('#' rows between DATA_START and DATA_END) of the settings file;
/// -1 when it cannot be opened.
int quovix_symmetry_count_settings(const char *dir_symcards) {
    return quovix_guard("settings", [&]() -> int {
        Settings s;
        if (!settings_load(s, dir_symcards)) return -1;
        return static_cast<int>(s.entry.size());
    });
}

/// Searches the settings file for the space group of a cell: every entry the cell fits
/// (quovix_cell_validate_by_symmetry with `tolerance` in A, <= 0 meaning 0.01) is
/// reported, and the last fitting entry in file order is returned as a new symmetry.
/// Null when the file cannot be read or nothing fits.
QUOVIX_SYMMETRY *quovix_symmetry_calculate_from_cell(QUOVIX_CELL *cell, double tolerance,
                                                     const char *dir_symcards) {
    return calculate_from_cell(cell, tolerance, dir_symcards, true);
}

/// Reference version of quovix_symmetry_calculate_from_cell using the all-pairs validation.
QUOVIX_SYMMETRY *quovix_symmetry_calculate_from_cell_plain(QUOVIX_CELL *cell, double tolerance,
                                                           const char *dir_symcards) {
    return calculate_from_cell(cell, tolerance, dir_symcards, false);
}

/// Fills the grid form of every card for a grid of n[0] x n[1] x n[2] points:
/// r_i = rounded r_f, t_i[k] = lround(t_f[k] n[k]). 1 for a symmetry without cards.
int quovix_symmetry_fill_card_discrete(QUOVIX_SYMMETRY *symmetry, const long n[3]) {
    if (!symmetry_has_cards(symmetry) || n == nullptr) {
        std::fputs("Error: QUOVIX_SYMMETRY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int c = 0; c < symmetry->total; ++c) {
        QUOVIX_CARD *card = &symmetry->card[c];
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j)
                card->r_i[i][j] = static_cast<int>(std::lround(card->r_f[i][j]));
            card->t_i[i] = std::lround(card->t_f[i] * static_cast<double>(n[i]));
        }
    }
    return 0;
}

/// Applies the grid form of a card to grid indices: out = r_i in + t_i, each component
/// brought into [0, n[k]). `out` may be `in`.
void quovix_card_transform_vector3_long(long out[3], const long in[3], const long n[3],
                                        const QUOVIX_CARD *card) {
    long res[3];
    for (int k = 0; k < 3; ++k) {
        long v = card->r_i[k][0] * in[0] + card->r_i[k][1] * in[1] + card->r_i[k][2] * in[2] +
                 card->t_i[k];
        // Same as subtracting n while v >= n and adding n while v < 0.
        if (n[k] > 0) v = quovix_grid::wrap(v, n[k]);
        res[k] = v;
    }
    for (int k = 0; k < 3; ++k) out[k] = res[k];
}

/// Copy of `atom` moved by `card`: x_f <- r_f x_f + t_f, wrapped into [0, 1).
QUOVIX_ATOM quovix_atom_spawn_by_card(const QUOVIX_ATOM *atom, const QUOVIX_CARD *card) {
    QUOVIX_ATOM out = *atom;
    image_frac(out.x_f, atom->x_f, card);
    return out;
}

/// Expands atoms by every card (atom i, card k goes to position i*total+k), removes
/// duplicates (the first occurrence survives) and sorts; *atom is replaced (the old array
/// is freed) and *total updated. 1 with a message on failure, the input left untouched.
int quovix_atom_spawn_by_symmetry(QUOVIX_ATOM **atom, long *total,
                                  const QUOVIX_SYMMETRY *symmetry) {
    if (atom == nullptr || *atom == nullptr || total == nullptr || *total < 1) {
        std::fputs("Error: QUOVIX_ATOM has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!symmetry_has_cards(symmetry)) {
        std::fputs("Error: QUOVIX_SYMMETRY has not been properly initialized.\n", stderr);
        return 1;
    }
    const long n = *total;
    const long cards = symmetry->total;
    if (n > QUOVIX_MAX_ATOMS / cards) {
        std::fprintf(stderr,
                     "Error: %ld atoms times %ld operations exceed the limit of %ld atoms.\n", n,
                     cards, QUOVIX_MAX_ATOMS);
        return 1;
    }
    QUOVIX_ATOM *spawn = quovix_atom_new(n * cards);
    if (spawn == nullptr) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return 1;
    }
    for (long i = 0; i < n; ++i) {
        for (long k = 0; k < cards; ++k) {
            spawn[i * cards + k] = quovix_atom_spawn_by_card(&(*atom)[i], &symmetry->card[k]);
        }
    }
    long count = n * cards;
    if (quovix_atom_remove_duplicate(&spawn, &count) != 0) {
        std::fputs("Error: quovix_atom_remove_duplicate() returns non-zero.\n", stderr);
        quovix_atom_free(spawn);
        return 1;
    }
    quovix_atom_sort(spawn, count);
    quovix_atom_free(*atom);
    *atom = spawn;
    *total = count;
    return 0;
}

/// Removes atoms equal to an earlier one (quovix_atom_equal); atoms already marked in
/// `ignored` are dropped too. *atom is replaced by a new array of the survivors in order.
int quovix_atom_remove_duplicate(QUOVIX_ATOM **atom, long *total) {
    return remove_duplicate(atom, total, true);
}

/// Reference version of quovix_atom_remove_duplicate (all pairs).
int quovix_atom_remove_duplicate_plain(QUOVIX_ATOM **atom, long *total) {
    return remove_duplicate(atom, total, false);
}

/// Same site: equal type and os, every fractional coordinate within 0.005 (directly or
/// across the periodic boundary), occupancies within 0.02. Labels are not compared.
bool quovix_atom_equal(const QUOVIX_ATOM *a, const QUOVIX_ATOM *b) {
    if (a == nullptr || b == nullptr) return false;
    if (type_compare(a->type, b->type) != 0 || a->os != b->os) return false;
    for (int k = 0; k < 3; ++k) {
        const double d = std::fabs(a->x_f[k] - b->x_f[k]);
        if (!(d < kSameSiteFrac) && !(std::fabs(d - 1.0) < kSameSiteFrac)) return false;
    }
    return std::fabs(a->occ - b->occ) < kSameSiteOcc;
}

/// True when some atom of the array is equal to `atom`.
bool quovix_atom_belong(const QUOVIX_ATOM *atom, const QUOVIX_ATOM *atoms, long total) {
    if (atom == nullptr || atoms == nullptr) return false;
    for (long i = 0; i < total; ++i) {
        if (quovix_atom_equal(atom, &atoms[i])) return true;
    }
    return false;
}

/// Sorts atoms by type (byte order), then os, then occupancy, then label
/// (quovix_atom_name_compare), with the permutation of four successive exchange sorts.
void quovix_atom_sort(QUOVIX_ATOM *atom, long total) {
    if (atom == nullptr || total < 2) return;
    bool has_nan = false;
    for (long i = 0; i < total; ++i) has_nan = has_nan || std::isnan(atom[i].occ);
    // A NaN occupancy has no rank; such (broken) input takes the plain route.
    const int status = has_nan ? 1 : quovix_guard("sort buffers", [&]() -> int {
        for (int pass = 1; pass <= 4; ++pass) exchange_pass_fast(atom, total, pass);
        return 0;
    });
    if (status != 0) quovix_atom_sort_plain(atom, total);
}

/// Reference version of quovix_atom_sort: the four exchange sorts themselves, O(n^2).
void quovix_atom_sort_plain(QUOVIX_ATOM *atom, long total) {
    if (atom == nullptr || total < 2) return;
    for (int pass = 1; pass <= 4; ++pass) exchange_pass_plain(atom, total, pass);
}

/// Label order over at most 12 characters: both ending together is equal, the shorter
/// label is smaller, a digit sorts before a non-digit, two digits compare the whole
/// numbers starting there (Li2 before Li10), other characters by code. <0, 0 or >0.
int quovix_atom_name_compare(const char *a, const char *b) {
    if (a == nullptr) a = "";
    if (b == nullptr) b = "";
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    const auto number = [&](const char *s, int from) {
        long long v = 0;
        for (int k = from; k < QUOVIX_ATOM_NAME_LEN && is_digit(s[k]); ++k)
            v = v * 10 + (s[k] - '0');
        return v;
    };
    for (int i = 0; i < QUOVIX_ATOM_NAME_LEN; ++i) {
        const char ca = a[i], cb = b[i];
        if (ca == '\0' && cb == '\0') return 0;
        if (ca == '\0') return -1;
        if (cb == '\0') return 1;
        const bool da = is_digit(ca), db = is_digit(cb);
        if (da && !db) return -1;
        if (!da && db) return 1;
        if (da && db) {
            const long long na = number(a, i), nb = number(b, i);
            if (na != nb) return na < nb ? -1 : 1;
        } else if (ca != cb) {
            return static_cast<unsigned char>(ca) < static_cast<unsigned char>(cb) ? -1 : 1;
        }
        if (ca == '\0') break;
    }
    return 0;
}

/// New cell with one atom per orbit: an atom equal to the image of an earlier kept atom
/// under some card is dropped. Null (with a message) for a cell without atoms or a
/// symmetry without cards. The input cell is not changed.
QUOVIX_CELL *quovix_cell_reduce_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry) {
    return reduce_by_symmetry(cell, symmetry, true);
}

/// Reference version of quovix_cell_reduce_by_symmetry (all pairs).
QUOVIX_CELL *quovix_cell_reduce_by_symmetry_plain(QUOVIX_CELL *cell,
                                                  const QUOVIX_SYMMETRY *symmetry) {
    return reduce_by_symmetry(cell, symmetry, false);
}

/// Numbers the orbits in each atom's `flag` (from 1, in order of first appearance).
int quovix_cell_flag_site_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry) {
    return flag_site_by_symmetry(cell, symmetry, true);
}

/// Reference version of quovix_cell_flag_site_by_symmetry (all pairs).
int quovix_cell_flag_site_by_symmetry_plain(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry) {
    return flag_site_by_symmetry(cell, symmetry, false);
}

/// True when every card maps the cell onto itself: per card, each unmarked atom's image
/// (wrapped, in Cartesian form) must find an atom of the same type and os, occupancy
/// within 0.0005, whose stored position is closer than `tolerance` (A; <= 0 means 0.01),
/// without periodic images. The first such partner and the atom are marked in `ignored`;
/// on failure all marks are cleared, on success the marks of the last card are left.
bool quovix_cell_validate_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry,
                                      double tolerance) {
    return validate_by_symmetry(cell, symmetry, tolerance, true);
}

/// Reference version of quovix_cell_validate_by_symmetry (all pairs).
bool quovix_cell_validate_by_symmetry_plain(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry,
                                            double tolerance) {
    return validate_by_symmetry(cell, symmetry, tolerance, false);
}
