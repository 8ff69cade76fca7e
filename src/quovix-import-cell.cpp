// Cell operations: lattice matrix and coordinate conversions, volume, wrapping, periodic
// distances, composition name, supercells, random resolution of partial occupancies and
// the CIF writer.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-la.hpp"

namespace {

// Atoms closer than this (A) share a site when partial occupancies are resolved.
constexpr double kSharedSite = 0.3;
// Atoms whose occupancy ends below this are left out of a resolved cell.
constexpr double kMinOccupancy = 0.01;
// A draw of the cumulative-occupancy rule that reaches no atom is repeated; this many
// failures in a row (only possible with broken occupancies) end the drawing.
constexpr long kMaxFailedDraws = 1000000;

bool cell_has_atoms(const QUOVIX_CELL *cell) {
    return cell != nullptr && cell->total > 0 && cell->atom != nullptr;
}

bool same_species(const QUOVIX_ATOM &a, const char *type, int os) {
    return a.os == os && std::strcmp(a.type, type) == 0;
}

[[gnu::format(printf, 2, 3)]] void appendf(std::string &out, const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof buf) {
        out.append(buf, static_cast<std::size_t>(n));
        return;
    }
    std::vector<char> big(static_cast<std::size_t>(n) + 1);
    va_start(ap, fmt);
    std::vsnprintf(big.data(), big.size(), fmt, ap);
    va_end(ap);
    out.append(big.data(), static_cast<std::size_t>(n));
}

// Replaces the atoms of `cell` by those of `atoms` for which keep[i] is true, in order.
// Null (with a message) on failure, including when no atom is kept.
QUOVIX_CELL *copy_with_atoms(const QUOVIX_CELL *cell, const std::vector<QUOVIX_ATOM> &atoms,
                             const std::vector<char> &keep) {
    quovix_cell_ptr out(quovix_cell_copy(cell));
    if (!out) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    long kept = 0;
    for (char k : keep) kept += k ? 1 : 0;
    QUOVIX_ATOM *a = quovix_atom_new(kept);
    if (a == nullptr) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long n = 0;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        if (keep[i]) a[n++] = atoms[i];
    }
    quovix_atom_free(out->atom);
    out->atom = a;
    out->total = kept;
    return out.release();
}

// Index drawn uniformly from 0..count-1 with quovix_random.
std::size_t random_index(std::size_t count) {
    auto k = static_cast<std::size_t>(quovix_random() * static_cast<double>(count));
    return k >= count ? count - 1 : k;
}

// One draw of the cumulative-occupancy rule: walks the candidates in order adding occ/S
// and returns the first at which the running sum reaches r, or -1 if none does.
long draw_by_occupancy(const QUOVIX_ATOM *atom, const std::vector<long> &candidates, double S) {
    const double r = quovix_random();
    double run = 0.0;
    for (long j : candidates) {
        run += atom[j].occ / S;
        if (run >= r) return j;
    }
    return -1;
}

}  // namespace

/// Lattice matrix from `parameter` and `angle` (degrees, converted with 0.0174532925):
/// a0 = (a, 0, 0), a1 = (b cos g, b sin g, 0), a2 = (c cos b, (b c cos a - a2x a1x)/a1y,
/// sqrt(c^2 - a2x^2 - a2y^2)).
void quovix_cell_update_lattice_cartesion(QUOVIX_CELL *cell) {
    if (cell == nullptr) return;
    const double a = cell->parameter[0], b = cell->parameter[1], c = cell->parameter[2];
    const double alpha = cell->angle[0] * QUOVIX_DEG_TO_RAD;
    const double beta = cell->angle[1] * QUOVIX_DEG_TO_RAD;
    const double gamma = cell->angle[2] * QUOVIX_DEG_TO_RAD;
    double(*m)[3] = cell->a;
    m[0][0] = a;
    m[0][1] = 0.0;
    m[0][2] = 0.0;
    m[1][0] = b * std::cos(gamma);
    m[1][1] = b * std::sin(gamma);
    m[1][2] = 0.0;
    m[2][0] = c * std::cos(beta);
    m[2][1] = (b * c * std::cos(alpha) - m[2][0] * m[1][0]) / m[1][1];
    m[2][2] = std::sqrt(c * c - m[2][0] * m[2][0] - m[2][1] * m[2][1]);
}

/// `parameter` (row lengths) and `angle` (degrees, same conversion factor) from the
/// lattice matrix: alpha between a1 and a2, beta between a0 and a2, gamma between a0 and a1.
void quovix_cell_update_lattice_fractional(QUOVIX_CELL *cell) {
    if (cell == nullptr) return;
    const double(*m)[3] = cell->a;
    double len[3];
    for (int k = 0; k < 3; ++k)
        len[k] = std::sqrt(m[k][0] * m[k][0] + m[k][1] * m[k][1] + m[k][2] * m[k][2]);
    const auto angle = [&](int i, int j) {
        const double dot = m[i][0] * m[j][0] + m[i][1] * m[j][1] + m[i][2] * m[j][2];
        double cosv = dot / (len[i] * len[j]);
        cosv = std::max(-1.0, std::min(1.0, cosv));
        return std::acos(cosv) / QUOVIX_DEG_TO_RAD;
    };
    for (int k = 0; k < 3; ++k) cell->parameter[k] = len[k];
    cell->angle[0] = angle(1, 2);
    cell->angle[1] = angle(0, 2);
    cell->angle[2] = angle(0, 1);
}

/// Cartesian positions x = x_f[0] a0 + x_f[1] a1 + x_f[2] a2 of every atom.
void quovix_cell_update_coordinate_cartesion(QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) return;
    for (long i = 0; i < cell->total; ++i) {
        QUOVIX_ATOM &at = cell->atom[i];
        for (int k = 0; k < 3; ++k) {
            at.x[k] =
                at.x_f[0] * cell->a[0][k] + at.x_f[1] * cell->a[1][k] + at.x_f[2] * cell->a[2][k];
        }
    }
}

/// Fractional positions of every atom from its Cartesian one (x_f = x A^-1, the rows of A
/// being the lattice vectors). A singular lattice leaves the atoms unchanged.
void quovix_cell_update_coordinate_fractional(QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) return;
    const double(*m)[3] = cell->a;
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    if (!(std::fabs(det) > 0.0) || !std::isfinite(det)) return;
    double inv[3][3];
    quovix_matrix33_double_inverse_cofactor(inv, m, det);
    for (long i = 0; i < cell->total; ++i) {
        QUOVIX_ATOM &at = cell->atom[i];
        for (int k = 0; k < 3; ++k) {
            at.x_f[k] = at.x[0] * inv[0][k] + at.x[1] * inv[1][k] + at.x[2] * inv[2][k];
        }
    }
}

/// Lattice matrix from the constants, then Cartesian positions from fractional ones.
void quovix_cell_update_cartesion(QUOVIX_CELL *cell) {
    quovix_cell_update_lattice_cartesion(cell);
    quovix_cell_update_coordinate_cartesion(cell);
}

/// Constants from the lattice matrix, then fractional positions from Cartesian ones.
void quovix_cell_update_fractional(QUOVIX_CELL *cell) {
    quovix_cell_update_lattice_fractional(cell);
    quovix_cell_update_coordinate_fractional(cell);
}

/// Cell volume |a0 . (a1 x a2)| in cubic angstrom; 0 for a null cell.
double quovix_cell_calculate_volume(const QUOVIX_CELL *cell) {
    if (cell == nullptr) return 0.0;
    const double(*m)[3] = cell->a;
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    return std::fabs(det);
}

/// Every fractional coordinate replaced by x - floor(x), so it lies in [0, 1) (1.0 gives 0.0).
void quovix_cell_bound_fractional(QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) return;
    for (long i = 0; i < cell->total; ++i) {
        for (double &v : cell->atom[i].x_f) {
            v -= std::floor(v);
            if (v >= 1.0) v = 0.0;  // a tiny negative value rounds up to exactly 1.0
        }
    }
}

/// Shortest Cartesian distance between atom1 and the 27 images of atom2 shifted by
/// i a0 + j a1 + k a2 with i, j, k in {-1, 0, 1}; no larger shifts are tried.
double quovix_cell_min_distance_btw_atoms(const QUOVIX_CELL *cell, const QUOVIX_ATOM *atom1,
                                          const QUOVIX_ATOM *atom2) {
    if (cell == nullptr || atom1 == nullptr || atom2 == nullptr) return 0.0;
    double best = -1.0;
    for (int i = -1; i <= 1; ++i) {
        for (int j = -1; j <= 1; ++j) {
            for (int k = -1; k <= 1; ++k) {
                double d2 = 0.0;
                for (int c = 0; c < 3; ++c) {
                    const double p =
                        atom2->x[c] + i * cell->a[0][c] + j * cell->a[1][c] + k * cell->a[2][c];
                    d2 += (p - atom1->x[c]) * (p - atom1->x[c]);
                }
                const double d = std::sqrt(d2);
                if (best < 0.0 || d < best) best = d;
            }
        }
    }
    return best;
}

/// Composition name: with the atoms in sorted order (the cell itself is not reordered),
/// each run of equal type and os adds "%s%d%c:%.3f " (symbol, |os|, sign, summed
/// occupancy) while the name stays within 127 characters.
void quovix_cell_update_name(QUOVIX_CELL *cell) {
    if (cell == nullptr) return;
    std::memset(cell->name, 0, sizeof cell->name);
    if (!cell_has_atoms(cell)) return;
    quovix_guard("cell name", [&]() -> int {
        std::vector<QUOVIX_ATOM> sorted(cell->atom, cell->atom + cell->total);
        quovix_atom_sort(sorted.data(), cell->total);
        std::string name;
        std::size_t i = 0;
        while (i < sorted.size()) {
            std::size_t j = i;
            double occ = 0.0;
            while (j < sorted.size() && same_species(sorted[j], sorted[i].type, sorted[i].os)) {
                occ += sorted[j].occ;
                ++j;
            }
            std::string piece;
            appendf(piece, "%s%d%c:%.3f ", sorted[i].type, quovix_abs_os(sorted[i].os),
                    quovix_sign_char(sorted[i].os), occ);
            if (name.size() + piece.size() > static_cast<std::size_t>(QUOVIX_CELL_NAME_LEN - 1))
                break;
            name += piece;
            i = j;
        }
        std::memcpy(cell->name, name.c_str(), name.size() + 1);
        return 0;
    });
}

/// Resets every atom's flag to 0, value to 0.0 and ignored to false.
void quovix_cell_refresh(QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) return;
    for (long i = 0; i < cell->total; ++i) {
        cell->atom[i].flag = 0;
        cell->atom[i].value = 0.0;
        cell->atom[i].ignored = false;
    }
}

/// Number of distinct (type, os) species of the cell.
int quovix_cell_count_type_os(const QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) return 0;
    return quovix_guard("species list", [&]() -> int {
        std::set<std::pair<std::string, int>> species;
        for (long i = 0; i < cell->total; ++i)
            species.emplace(cell->atom[i].type, cell->atom[i].os);
        return static_cast<int>(species.size());
    });
}

/// Supercell of multiple[0] x multiple[1] x multiple[2] cells: lattice rows, lengths and
/// Z scaled, angles kept; shifts run outermost (i over a, then b, then c) with the atoms
/// of the cell in order inside, each at (x_f + shift)/multiple. New cell or null.
QUOVIX_CELL *quovix_cell_supercell(const QUOVIX_CELL *cell, const long multiple[3]) {
    if (multiple == nullptr || multiple[0] < 1 || multiple[1] < 1 || multiple[2] < 1) {
        std::fputs("Error: supercell parameters must be positive.\n", stderr);
        return nullptr;
    }
    if (!cell_has_atoms(cell)) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    // Sizes come from input: check the product before allocating.
    long count = cell->total;
    for (int k = 0; k < 3; ++k) {
        if (multiple[k] > QUOVIX_MAX_ATOMS || count > QUOVIX_MAX_ATOMS / multiple[k]) {
            std::fprintf(stderr,
                         "Error: supercell %ld x %ld x %ld of %ld atoms exceeds %ld atoms.\n",
                         multiple[0], multiple[1], multiple[2], cell->total, QUOVIX_MAX_ATOMS);
            return nullptr;
        }
        count *= multiple[k];
    }
    quovix_cell_ptr out(quovix_cell_copy(cell));
    if (!out) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    QUOVIX_ATOM *atom = quovix_atom_new(count);
    if (atom == nullptr) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long n = 0;
    for (long i = 0; i < multiple[0]; ++i) {
        for (long j = 0; j < multiple[1]; ++j) {
            for (long k = 0; k < multiple[2]; ++k) {
                const long shift[3] = {i, j, k};
                for (long t = 0; t < cell->total; ++t) {
                    QUOVIX_ATOM &at = atom[n++];
                    at = cell->atom[t];
                    for (int c = 0; c < 3; ++c) {
                        at.x_f[c] = (cell->atom[t].x_f[c] + static_cast<double>(shift[c])) /
                                    static_cast<double>(multiple[c]);
                    }
                }
            }
        }
    }
    quovix_atom_free(out->atom);
    out->atom = atom;
    out->total = count;
    for (int k = 0; k < 3; ++k) {
        out->parameter[k] = cell->parameter[k] * static_cast<double>(multiple[k]);
        for (int c = 0; c < 3; ++c) out->a[k][c] = cell->a[k][c] * static_cast<double>(multiple[k]);
    }
    // Z comes from the file: keep the product within int.
    const long long z = static_cast<long long>(cell->Z) * (multiple[0] * multiple[1] * multiple[2]);
    out->Z = z > INT_MAX ? INT_MAX : (z < INT_MIN ? INT_MIN : static_cast<int>(z));
    quovix_cell_update_coordinate_cartesion(out.get());
    quovix_cell_update_name(out.get());
    return out.release();
}

/// Supercell with the default multiples for N atoms: N >= 250: 1,1,1; 32..249: 2,1,2
/// when c is strictly the longest axis, else 2,2,1; 16..31: 2,2,2; 5..15: 3,3,3;
/// 2..4: 4,4,4; 1: 5,5,5. Null for a cell without atoms.
QUOVIX_CELL *quovix_cell_supercell_default(const QUOVIX_CELL *cell) {
    const long n = cell != nullptr ? cell->total : 0;
    long m[3] = {1, 1, 1};
    if (n < 1) {
        std::fprintf(stderr, "Error: wrong total atom number %ld\n in QUOVIX_CELL.\n", n);
        return nullptr;
    }
    if (n >= 250) {
        m[0] = m[1] = m[2] = 1;
    } else if (n >= 32) {
        // Three successive tests, a then b then c: unless that axis is strictly the
        // longest, its multiple becomes 1 and the other two 2. Only the last test that
        // fires counts, so a strictly longest a or b still ends as 2, 2, 1.
        const double *p = cell->parameter;
        for (int k = 0; k < 3; ++k) {
            const int u = (k + 1) % 3, v = (k + 2) % 3;
            if (!(p[k] > p[u] && p[k] > p[v])) {
                m[k] = 1;
                m[u] = 2;
                m[v] = 2;
            }
        }
    } else if (n >= 16) {
        m[0] = m[1] = m[2] = 2;
    } else if (n >= 5) {
        m[0] = m[1] = m[2] = 3;
    } else if (n >= 2) {
        m[0] = m[1] = m[2] = 4;
    } else {
        m[0] = m[1] = m[2] = 5;
    }
    QUOVIX_CELL *out = quovix_cell_supercell(cell, m);
    if (out == nullptr) std::fputs("Error: quovix_cell_supercell() returns NULL.\n", stderr);
    return out;
}

/// Deforms the lattice by (I + strain): each row a_k <- a_k (I + strain); atoms keep their
/// fractional coordinates, Cartesian positions follow, constants and angles are updated.
int quovix_cell_deform(QUOVIX_CELL *cell, const double strain[3][3]) {
    if (cell == nullptr || strain == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return 1;
    }
    double f[3][3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) f[i][j] = (i == j ? 1.0 : 0.0) + strain[i][j];
    }
    double out[3][3];
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 3; ++j) {
            out[k][j] = cell->a[k][0] * f[0][j] + cell->a[k][1] * f[1][j] + cell->a[k][2] * f[2][j];
        }
    }
    std::memcpy(cell->a, out, sizeof out);
    quovix_cell_update_lattice_fractional(cell);
    quovix_cell_update_coordinate_cartesion(cell);
    return 0;
}

/// True when some atom of the species (type, os) lies, by periodic minimum distance,
/// closer than 0.3 A to an atom of another species.
bool quovix_cell_partial_occ_at_conducting_site(const QUOVIX_CELL *cell, const char *type, int os) {
    if (!cell_has_atoms(cell) || type == nullptr) return false;
    for (long i = 0; i < cell->total; ++i) {
        if (!same_species(cell->atom[i], type, os)) continue;
        for (long j = 0; j < cell->total; ++j) {
            if (same_species(cell->atom[j], type, os)) continue;
            if (quovix_cell_min_distance_btw_atoms(cell, &cell->atom[i], &cell->atom[j]) <
                kSharedSite) {
                return true;
            }
        }
    }
    return false;
}

/// Random full occupation of the species' partial sites: with S the summed occupancy of
/// its atoms below 1.0, floor(S) of them are kept with occupancy 1.0 (each draw of
/// quovix_random picks by cumulative occ/S) and the rest dropped. New cell or null; the
/// input's `ignored` marks end cleared.
QUOVIX_CELL *quovix_cell_assign_partial_occ(QUOVIX_CELL *cell, const char *type, int os) {
    if (!cell_has_atoms(cell) || type == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_CELL", [&]() -> QUOVIX_CELL * {
        QUOVIX_ATOM *a = cell->atom;
        const long n = cell->total;
        std::vector<QUOVIX_ATOM> atoms(a, a + n);
        for (long i = 0; i < n; ++i) a[i].ignored = false;
        double S = 0.0;
        for (long i = 0; i < n; ++i) {
            if (same_species(a[i], type, os) && a[i].occ < 1.0) {
                a[i].ignored = true;
                S += a[i].occ;
            }
        }
        long failures = 0;
        while (S >= 1.0 && failures < kMaxFailedDraws) {
            std::vector<long> marked;
            for (long i = 0; i < n; ++i) {
                if (a[i].ignored) marked.push_back(i);
            }
            if (marked.empty()) break;
            const long pick = draw_by_occupancy(a, marked, S);
            if (pick < 0) {
                ++failures;
                continue;
            }
            failures = 0;
            a[pick].ignored = false;
            atoms[static_cast<std::size_t>(pick)].occ = 1.0;
            S -= 1.0;
        }
        std::vector<char> keep(static_cast<std::size_t>(n));
        for (long i = 0; i < n; ++i) keep[static_cast<std::size_t>(i)] = a[i].ignored ? 0 : 1;
        for (long i = 0; i < n; ++i) a[i].ignored = false;
        return copy_with_atoms(cell, atoms, keep);
    });
}

/// Random resolution of the sites around a conducting species (type, os). The sites are
/// its partially occupied atoms and those within 0.3 A of another atom, together with
/// every atom within 0.3 A of them. Species by species (in sorted order), sites are filled
/// by draws of quovix_random with the cumulative occupancy rule while the remaining
/// expected count (the species' summed occupancy over the sites, less one per choice) is at
/// least 0.5; a chosen atom gets occupancy 1.0 and removes every undecided atom within
/// 0.3 A; undecided atoms left over are dropped. Then, while the total charge sum(occ os)
/// exceeds 0.5 |os| in magnitude, random conducting atoms are removed, or restored onto
/// empty sites. Atoms left with occupancy below 0.01 are dropped. New cell or null.
QUOVIX_CELL *quovix_cell_assign_partial_occ_at_conducting_site(const QUOVIX_CELL *cell,
                                                               const char *type, int os) {
    if (!cell_has_atoms(cell) || type == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("m.element", [&]() -> QUOVIX_CELL * {
        const long n = cell->total;
        std::vector<QUOVIX_ATOM> atoms(cell->atom, cell->atom + n);
        enum : char { untouched, undecided, chosen, removed };
        std::vector<char> state(static_cast<std::size_t>(n), untouched);
        const auto at = [&](long i) -> QUOVIX_ATOM & { return atoms[static_cast<std::size_t>(i)]; };
        const auto st = [&](long i) -> char & { return state[static_cast<std::size_t>(i)]; };
        const auto close = [&](long i, long j) {
            return quovix_cell_min_distance_btw_atoms(cell, &cell->atom[i], &cell->atom[j]) <
                   kSharedSite;
        };

        // Sites to resolve.
        std::vector<long> conducting;
        for (long i = 0; i < n; ++i) {
            if (same_species(at(i), type, os)) conducting.push_back(i);
        }
        if (conducting.empty()) {
            std::printf("Warning: no atom of species %s%d%c in QUOVIX_CELL.\n", type,
                        quovix_abs_os(os), quovix_sign_char(os));
        }
        for (long i : conducting) {
            bool shared = false;
            for (long j = 0; j < n; ++j) {
                if (j != i && close(i, j)) {
                    shared = true;
                    st(j) = undecided;
                }
            }
            if (shared || at(i).occ < 1.0) st(i) = undecided;
        }
        std::vector<long> site;
        for (long i = 0; i < n; ++i) {
            if (st(i) == undecided) site.push_back(i);
        }
        std::vector<std::vector<long>> near(site.size());
        for (std::size_t u = 0; u < site.size(); ++u) {
            for (std::size_t v = u + 1; v < site.size(); ++v) {
                if (close(site[u], site[v])) {
                    near[u].push_back(site[v]);
                    near[v].push_back(site[u]);
                }
            }
        }

        // Fill species by species.
        std::vector<std::pair<std::string, int>> species;
        for (long i : site) species.emplace_back(at(i).type, at(i).os);
        std::sort(species.begin(), species.end());
        species.erase(std::unique(species.begin(), species.end()), species.end());
        // Each species' share is its summed occupancy over the sites, fixed before any draw,
        // so sites taken by an earlier species do not shrink the share of a later one.
        std::vector<double> share(species.size(), 0.0);
        for (std::size_t k = 0; k < species.size(); ++k) {
            for (long i : site) {
                if (same_species(at(i), species[k].first.c_str(), species[k].second))
                    share[k] += at(i).occ;
            }
        }
        for (std::size_t k = 0; k < species.size(); ++k) {
            const auto &sp = species[k];
            double E = share[k];
            long failures = 0;
            while (E >= 0.5 && failures < kMaxFailedDraws) {
                std::vector<long> cand;
                for (long i : site) {
                    if (st(i) == undecided && same_species(at(i), sp.first.c_str(), sp.second)) {
                        cand.push_back(i);
                    }
                }
                if (cand.empty()) break;
                const long pick = draw_by_occupancy(atoms.data(), cand, E);
                if (pick < 0) {
                    ++failures;
                    continue;
                }
                failures = 0;
                st(pick) = chosen;
                at(pick).occ = 1.0;
                const auto u = static_cast<std::size_t>(std::find(site.begin(), site.end(), pick) -
                                                        site.begin());
                for (long other : near[u]) {
                    if (st(other) == undecided) st(other) = removed;
                }
                E -= 1.0;
            }
        }
        for (long i : site) {
            if (st(i) == undecided) st(i) = removed;
        }

        // Charge balance with the conducting species, when every charge is known.
        bool known = os != 0 && os != 99;
        for (long i = 0; i < n && known; ++i) known = st(i) == removed || at(i).os != 99;
        if (known && !conducting.empty()) {
            double q = 0.0;
            for (long i = 0; i < n; ++i) {
                if (st(i) != removed) q += at(i).occ * at(i).os;
            }
            const double limit = 0.5 * std::fabs(static_cast<double>(os));
            for (std::size_t step = 0; step <= 2 * conducting.size() && std::fabs(q) > limit;
                 ++step) {
                const bool fewer = (q > 0.0) == (os > 0);
                std::vector<long> cand;
                if (fewer) {
                    for (long i : conducting) {
                        if (st(i) == chosen) cand.push_back(i);
                    }
                    if (cand.empty()) {
                        for (long i : conducting) {
                            if (st(i) != removed) cand.push_back(i);
                        }
                    }
                } else {
                    // Only onto empty sites: every atom within 0.3 A must be gone.
                    for (long i : conducting) {
                        if (st(i) != removed) continue;
                        const auto u = static_cast<std::size_t>(
                            std::find(site.begin(), site.end(), i) - site.begin());
                        bool free_site = true;
                        if (u < site.size()) {
                            for (long other : near[u])
                                free_site = free_site && st(other) == removed;
                        }
                        if (free_site) cand.push_back(i);
                    }
                }
                if (cand.empty()) break;
                const long pick = cand[random_index(cand.size())];
                if (fewer) {
                    q -= at(pick).occ * at(pick).os;
                    st(pick) = removed;
                } else {
                    at(pick).occ = 1.0;
                    st(pick) = chosen;
                    q += at(pick).occ * at(pick).os;
                }
            }
        }

        std::vector<char> keep(static_cast<std::size_t>(n));
        for (long i = 0; i < n; ++i) {
            keep[static_cast<std::size_t>(i)] =
                st(i) != removed && at(i).occ >= kMinOccupancy ? 1 : 0;
        }
        return copy_with_atoms(cell, atoms, keep);
    });
}

/// Every species resolved: on a copy of the cell (whose atoms get sorted while the species
/// list is built), first _assign_partial_occ_at_conducting_site for each species sharing a
/// site with another, then _assign_partial_occ for each species. New cell or null.
QUOVIX_CELL *quovix_cell_assign_partial_occ_all(const QUOVIX_CELL *cell) {
    if (!cell_has_atoms(cell)) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    quovix_cell_ptr work(quovix_cell_copy(cell));
    if (!work) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_property_ptr ppt(quovix_property_new(0));
    if (!ppt) {
        std::fputs("Error: quovix_property_new() returns NULL.\n", stderr);
        return nullptr;
    }
    if (quovix_property_update_index_by_cell(ppt.get(), work.get()) != 0) {
        std::fputs("Error: quovix_property_update_index_by_cell() returns NULL.\n", stderr);
        return nullptr;
    }
    for (int s = 0; s < ppt->total; ++s) {
        if (!quovix_cell_partial_occ_at_conducting_site(work.get(), ppt->type[s], ppt->os[s]))
            continue;
        quovix_cell_ptr next(quovix_cell_assign_partial_occ_at_conducting_site(
            work.get(), ppt->type[s], ppt->os[s]));
        if (!next) {
            std::fputs("Error: quovix_cell_assign_partial_occ_at_conducting_site() returns NULL.\n",
                       stderr);
            return nullptr;
        }
        work = std::move(next);
    }
    for (int s = 0; s < ppt->total; ++s) {
        quovix_cell_ptr next(quovix_cell_assign_partial_occ(work.get(), ppt->type[s], ppt->os[s]));
        if (!next) {
            std::fputs("Error: quovix_cell_assign_partial_occ() returns NULL.\n", stderr);
            return nullptr;
        }
        work = std::move(next);
    }
    return work.release();
}

/// CIF text of the cell written under `symmetry` (null: P1, with a message): the cell is
/// reduced by the symmetry, sorted and written with the fixed template (CR LF line ends,
/// the quirks of the first line and of the fract_y tag included). New text or null.
QUOVIX_TEXT *quovix_cell_export_cif_to_text(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry) {
    quovix_symmetry_ptr p1;
    if (symmetry == nullptr) {
        std::printf("Message: symmetry info missing. Using P1.\n");
        p1.reset(quovix_symmetry_new_p1());
        if (!p1) {
            std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
            return nullptr;
        }
        symmetry = p1.get();
    }
    quovix_cell_ptr reduced(quovix_cell_reduce_by_symmetry(cell, symmetry));
    if (!reduced) {
        std::fputs("Error: quovix_cell_reduce_by_symmetry() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_atom_sort(reduced->atom, reduced->total);
    return quovix_guard("cif text", [&]() -> QUOVIX_TEXT * {
        const QUOVIX_CELL &c = *reduced;
        std::string s;
        s += "data_generated-by-Quovix\r\n\n";
        appendf(s, "_chemical_name_systematic         '%s'\r\n", c.name);
        appendf(s, "_cell_length_a                    %.3f\r\n", c.parameter[0]);
        appendf(s, "_cell_length_b                    %.3f\r\n", c.parameter[1]);
        appendf(s, "_cell_length_c                    %.3f\r\n", c.parameter[2]);
        appendf(s, "_cell_angle_alpha                 %.3f\r\n", c.angle[0]);
        appendf(s, "_cell_angle_beta                  %.3f\r\n", c.angle[1]);
        appendf(s, "_cell_angle_gamma                 %.3f\r\n", c.angle[2]);
        appendf(s, "_cell_volume                      %.3f\r\n",
                quovix_cell_calculate_volume(reduced.get()));
        appendf(s, "_cell_formula_units_Z             %d\r\n", c.Z);
        appendf(s, "_symmetry_space_group_name_H-M    '%s'\r\n", symmetry->sg_HM);
        appendf(s, "_symmetry_Int_Tables_number       %d\r\n", symmetry->sg_id);
        s += "\r\nloop_\r\n";
        s += "  _symmetry_equiv_pos_site_id\r\n";
        s += "  _symmetry_equiv_pos_as_xyz\r\n";
        for (int k = 0; k < symmetry->total; ++k) {
            appendf(s, "  %3d    '%s'\r\n", k + 1, symmetry->card[k].text);
        }
        s += "\r\nloop_\r\n";
        s += "  _atom_type_symbol\r\n";
        s += "  _atom_type_oxidation_number\r\n";
        for (long i = 0; i < c.total; ++i) {
            const QUOVIX_ATOM &a = c.atom[i];
            if (i > 0 && same_species(c.atom[i - 1], a.type, a.os)) continue;
            appendf(s, "  %s%d%c     %d\r\n", a.type, quovix_abs_os(a.os), quovix_sign_char(a.os),
                    a.os);
        }
        s += "\r\nloop_\r\n";
        s += "  _atom_site_label\r\n";
        s += "  _atom_site_type_symbol\r\n";
        s += "  _atom_site_fract_x\r\n";
        s += "  _atom_site_fract_y\n";
        s += "  _atom_site_fract_z\r\n";
        s += "  _atom_site_occupancy\r\n";
        for (long i = 0; i < c.total; ++i) {
            const QUOVIX_ATOM &a = c.atom[i];
            appendf(s, "  %s  %s%d%c  %.3f  %.3f  %.3f  %.3f\r\n", a.name, a.type,
                    quovix_abs_os(a.os), quovix_sign_char(a.os), a.x_f[0], a.x_f[1], a.x_f[2],
                    a.occ);
        }
        s += "\r\n#end of data\r\n";
        QUOVIX_TEXT *text = quovix_text_new(s.c_str());
        if (text == nullptr) std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
        return text;
    });
}

/// Writes the CIF text of the cell (see quovix_cell_export_cif_to_text) to `filename` and
/// prints "Message: cif file saved to ...". 0 on success, 1 with an error chain.
int quovix_cell_export_cif_to_file(const char *filename, QUOVIX_CELL *cell,
                                   const QUOVIX_SYMMETRY *symmetry) {
    quovix_text_ptr text(quovix_cell_export_cif_to_text(cell, symmetry));
    if (!text) {
        std::fputs("Error: quovix_cell_export_cif_to_text() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_text_export_to_file(text.get(), filename) != 0) {
        std::fputs("Error: quovix_text_export_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    std::printf("Message: cif file saved to %s\n", filename);
    return 0;
}
