// CIF reader: a small line-oriented reader that greps the text row by row for the keys
// the program needs (substring matching, one loop record per row, single quotes only,
// uncertainties dropped) and builds the full P1 cell plus its symmetry.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-import.hpp"

namespace {

// An oxidation state read from a file must be a finite number of sensible size; 99 stands
// for "unknown" and larger magnitudes are input errors, not charges.
constexpr double kMaxOxidationMagnitude = 1000.0;

bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Element symbol rule: the first alphabetic character, plus the next one when it is
// alphabetic too (whatever its case); never more than two letters. False when the text
// holds no letter.
bool element_symbol(char type[QUOVIX_TYPE_LEN], const char *text) {
    std::memset(type, 0, QUOVIX_TYPE_LEN);
    if (text == nullptr) return false;
    const char *p = text;
    while (*p != '\0' && !is_alpha(*p)) ++p;
    if (*p == '\0') return false;
    type[0] = p[0];
    if (is_alpha(p[1])) type[1] = p[1];
    return true;
}

// A double read with "%lf" from the start of a token; anything after the number (a
// standard uncertainty "(6)", ...) is ignored. Non-finite values count as unreadable.
bool read_number(const char *token, double &out) {
    double v = 0.0;
    if (token == nullptr || std::sscanf(token, "%lf", &v) != 1 || !std::isfinite(v)) return false;
    out = v;
    return true;
}

// True when a token holds more than a number and an optional standard uncertainty, as in
// "5,62" (a decimal comma: read as 5) or "0.25x": the reading keeps the number, and the
// caller warns so that the user knows the rest was dropped.
bool has_trailing_text(const char *token) {
    double v = 0.0;
    int used = 0;
    if (token == nullptr || std::sscanf(token, "%lf%n", &v, &used) != 1) return false;
    const char *p = token + used;
    if (*p == '(') {
        ++p;
        while (*p >= '0' && *p <= '9') ++p;
        if (*p != ')') return true;
        ++p;
    }
    while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') ++p;
    return *p != '\0';
}

// Occupancies are fractions of a site: values outside [0, 1] by more than this are typing
// errors (a count, a percentage, a sign), not rounding.
constexpr double kOccupancyTolerance = 0.01;

// The element table (rows between DATA_START and DATA_END) as (symbol, default os) pairs
// in file order; rows without a symbol and a fourth integer are skipped.
struct ElementRow {
    std::string symbol;
    int os;
};

bool read_element_table(const char *path, std::vector<ElementRow> &table) {
    quovix_file_ptr fp(path != nullptr ? std::fopen(path, "rb") : nullptr);
    if (!fp) return false;
    quovix_data_lines_for_each(fp.get(), [&](const char *buf) {
        int z = 0, os = 0, def = 0;
        char sym[16] = {0};
        if (std::sscanf(buf, "%d %15s %d %d", &z, sym, &os, &def) == 4) table.push_back({sym, def});
        return false;
    });
    return true;
}

bool oxidation_in_range(double v) {
    return std::isfinite(v) && std::fabs(v) <= kMaxOxidationMagnitude;
}

}  // namespace

/// Reads a CIF file into a new cell (full P1 content) and the symmetry it was written
/// under, using the settings file `dir_symcards` and the element table `dir_unitary`.
/// 0 on success (the caller frees *cell and *symmetry), 1 with an error chain otherwise.
int quovix_cell_import_cif_from_file(QUOVIX_CELL **cell, QUOVIX_SYMMETRY **symmetry,
                                     const char *filename, const char *dir_symcards,
                                     const char *dir_unitary) {
    if (cell != nullptr) *cell = nullptr;
    if (symmetry != nullptr) *symmetry = nullptr;
    quovix_text_ptr text(quovix_text_import_from_file(filename));
    if (!text) {
        std::fputs("Error: quovix_text_import_from_file() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_cell_import_cif_from_text(cell, symmetry, text.get(), dir_symcards, dir_unitary) !=
        0) {
        std::fputs("Error: quovix_cell_import_cif_from_text() returns NULL.\n", stderr);
        return 1;
    }
    return 0;
}

/// The reading sequence on a CIF held in a text buffer: rows, symmetry, the atom-site
/// loop (labels, types and oxidation states, occupancies and coordinates), mixed-valence
/// splitting, expansion by symmetry, lattice, default oxidation states, name and volume.
/// 0 on success (the caller owns *cell and *symmetry); 1 with everything freed otherwise.
int quovix_cell_import_cif_from_text(QUOVIX_CELL **cell, QUOVIX_SYMMETRY **symmetry,
                                     QUOVIX_TEXT *text, const char *dir_symcards,
                                     const char *dir_unitary) {
    if (cell != nullptr) *cell = nullptr;
    if (symmetry != nullptr) *symmetry = nullptr;
    if (cell == nullptr || symmetry == nullptr) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_SYMMETRY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    std::printf("Message: reading cif file...\n");
    char **rows = nullptr;
    long row = 0;
    if (quovix_text_segregate_into_rows(&rows, &row, text, '\n') != 0) {
        std::fputs("Error: quovix_text_segregate_rows() returns non-zero.\n", stderr);
        return 1;
    }
    struct RowsOwner {
        char **&rows;
        long &row;
        ~RowsOwner() { quovix_array_char_2D_free(rows, row); }
    } rows_owner{rows, row};

    quovix_symmetry_ptr sym(quovix_symmetry_import_from_array_char_2D(rows, row, dir_symcards));
    if (!sym) {
        std::fputs("Error: quovix_symmetry_import_from_array_char_2D() returns NULL.\n", stderr);
        return 1;
    }

    char ***loop = nullptr;
    long lrows = 0, lcols = 0;
    if (quovix_cell_import_cif_grep_loop(&loop, &lrows, &lcols, "_atom_site_label", rows, row) !=
        0) {
        std::fputs("Error: unable to find compulsory keyword '_atom_site_label' in cif file.\n",
                   stderr);
        return 1;
    }
    struct LoopOwner {
        char ****loop;
        long *rows, *cols;
        ~LoopOwner() {
            quovix_array_char_3D_free(*loop, *rows, *cols);
            *loop = nullptr;
        }
    } loop_owner{&loop, &lrows, &lcols};

    long total = lrows - 1;
    QUOVIX_ATOM *atom = quovix_atom_new(total);
    if (atom == nullptr) {
        std::fputs("Error: unable to allocate QUOVIX_ATOM.\n", stderr);
        return 1;
    }
    quovix_atom_ptr atom_owner(atom);

    quovix_cell_import_cif_read_atom_name(atom, loop, lrows, lcols);
    if (!quovix_cell_import_cif_exist_keyword("_atom_site_type_symbol", rows, row)) {
        std::printf("Message: unable to find keyword '_atom_site_type_symbol'.\n");
    } else if (quovix_cell_import_cif_exist_keyword("_atom_type_oxidation_number", rows, row)) {
        char ***tloop = nullptr;
        long trows = 0, tcols = 0;
        if (quovix_cell_import_cif_grep_loop(&tloop, &trows, &tcols, "_atom_type_symbol", rows,
                                             row) != 0) {
            std::fputs("Error: unable to find keyword '_atom_type_symbol' in cif file.\n", stderr);
            return 1;
        }
        const int status =
            quovix_cell_import_cif_read_atom_typeos(atom, loop, lrows, lcols, tloop, trows, tcols);
        quovix_array_char_3D_free(tloop, trows, tcols);
        if (status != 0) {
            std::fputs("Error: quovix_cell_import_cif_read_atom_typeos() returns non-zero.\n",
                       stderr);
            return 1;
        }
    } else if (quovix_cell_import_cif_read_atom_type(atom, loop, lrows, lcols) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_atom_type() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_cell_import_cif_read_atom(atom, loop, lrows, lcols) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_atom() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_atom_name_to_type(atom, total) != 0) {
        std::fputs("Error: quovix_atom_name_to_typeos() returns non-zero.\n", stderr);
        return 1;
    }
    atom_owner.release();
    if (quovix_atom_fork_os(&atom, &total) != 0) {
        atom_owner.reset(atom);
        std::fputs("Error: quovix_atom_fork_os() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_atom_spawn_by_symmetry(&atom, &total, sym.get()) != 0) {
        atom_owner.reset(atom);
        std::fputs("Error: quovix_atom_spawn_by_symmetry() returns non-zero.\n", stderr);
        return 1;
    }
    atom_owner.reset(atom);

    quovix_cell_ptr out(quovix_cell_new(0));
    if (!out) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return 1;
    }
    out->atom = atom_owner.release();
    out->total = total;
    quovix_array_char_3D_free(loop, lrows, lcols);
    loop = nullptr;

    if (quovix_cell_import_cif_read_lattice(out.get(), rows, row) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_lattice() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_array_char_2D_free(rows, row);
    rows = nullptr;
    row = 0;
    quovix_cell_update_cartesion(out.get());

    if (quovix_atom_update_default_os(out->atom, out->total, dir_unitary) != 0) {
        std::fputs("Error: quovix_atom_update_default_os() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_cell_update_name(out.get());
    std::printf("Message: calculated cell volume = %f\n", quovix_cell_calculate_volume(out.get()));
    *cell = out.release();
    *symmetry = sym.release();
    return 0;
}

/// Reads "prefix.0.cif" .. "prefix.(n-1).cif"; each file's symmetry is freed at once.
/// Returns an array of n new cells (free each with quovix_cell_free, then the array with
/// std::free), or null with everything read so far freed.
QUOVIX_CELL **quovix_cells_import_cif_from_file(const char *prefix, int n, const char *dir_symcards,
                                                const char *dir_unitary) {
    if (n < 1) {
        std::fputs("Error: number of cells must be larger than zero.\n", stderr);
        return nullptr;
    }
    auto **cells = static_cast<QUOVIX_CELL **>(
        std::calloc(static_cast<std::size_t>(n), sizeof(QUOVIX_CELL *)));
    if (cells == nullptr) {
        std::fputs("Error: unable to allocate QUOVIX_CELL[].\n", stderr);
        return nullptr;
    }
    for (int i = 0; i < n; ++i) {
        char name[QUOVIX_PATH_LEN];
        std::snprintf(name, sizeof name, "%.1000s.%d.cif", prefix != nullptr ? prefix : "", i);
        QUOVIX_SYMMETRY *sym = nullptr;
        if (quovix_cell_import_cif_from_file(&cells[i], &sym, name, dir_symcards, dir_unitary) !=
            0) {
            std::fputs("Error: quovix_cell_import_cif_from_file() returns non-zero.\n", stderr);
            for (int k = 0; k < i; ++k) quovix_cell_free(cells[k]);
            std::free(cells);
            return nullptr;
        }
        quovix_symmetry_free(sym);
    }
    return cells;
}

/// Labels from the first column whose tag contains _atom_site_label (at most 11
/// characters kept); every atom's `value` is set to 99.0 (no oxidation state read yet).
int quovix_cell_import_cif_read_atom_name(QUOVIX_ATOM *atom, char ***loop, long rows, long cols) {
    if (atom == nullptr || loop == nullptr) return 1;
    const quovix_cif_loop table{loop, rows, cols};
    const long col = table.column("_atom_site_label");
    for (long i = 1; i < rows; ++i) {
        QUOVIX_ATOM &a = atom[i - 1];
        std::memset(a.name, 0, sizeof a.name);
        const char *label = table.at(i, col);
        if (label != nullptr) std::strncpy(a.name, label, sizeof a.name - 1);
        a.value = 99.0;
    }
    return 0;
}

/// Element and oxidation state from _atom_site_type_symbol: the element symbol rule, then
/// a number read from the first digit, negated when a '-' follows the digit anywhere
/// (O2- gives -2, O-2 gives +2, Li+ gives no state).
int quovix_cell_import_cif_read_atom_type(QUOVIX_ATOM *atom, char ***loop, long rows, long cols) {
    if (atom == nullptr || loop == nullptr) return 1;
    const quovix_cif_loop table{loop, rows, cols};
    const long col = table.column("_atom_site_type_symbol");
    if (col < 0) {
        std::fputs("Error: unable to find keyword '_atom_site_type_symbol'.\n", stderr);
        return 1;
    }
    for (long i = 1; i < rows; ++i) {
        QUOVIX_ATOM &a = atom[i - 1];
        char buf[128] = {0};
        const char *field = table.at(i, col);
        if (field != nullptr) std::strncpy(buf, field, sizeof buf - 1);
        if (!element_symbol(a.type, buf)) {
            std::fprintf(stderr, "Error: invalid field content %s.\n", buf);
            return 1;
        }
        const char *digit = buf;
        while (*digit != '\0' && !is_digit(*digit)) ++digit;
        double v = 0.0;
        if (*digit != '\0' && std::sscanf(digit, "%lf", &v) == 1) {
            if (!oxidation_in_range(v)) {
                std::fprintf(stderr, "Error: invalid field content %s.\n", buf);
                return 1;
            }
            if (std::strchr(digit, '-') != nullptr) v = -v;
            a.value = v;
        }
    }
    return 0;
}

/// Element from the site's _atom_site_type_symbol, oxidation state from the _atom_type
/// loop record whose _atom_type_symbol equals the whole site symbol exactly (an unreadable
/// number leaves the state unknown). A site symbol without such a record fails.
int quovix_cell_import_cif_read_atom_typeos(QUOVIX_ATOM *atom, char ***loop, long rows, long cols,
                                            char ***loop_type, long rows_type, long cols_type) {
    if (atom == nullptr || loop == nullptr || loop_type == nullptr) return 1;
    const quovix_cif_loop table{loop, rows, cols};
    const quovix_cif_loop types{loop_type, rows_type, cols_type};
    const long col = table.column("_atom_site_type_symbol");
    if (col < 0) {
        std::fputs("Error: unable to find keyword '_atom_site_type_symbol'.\n", stderr);
        return 1;
    }
    const long col_sym = types.column("_atom_type_symbol");
    const long col_os = types.column("_atom_type_oxidation_number");
    if (col_sym < 0 || col_os < 0 || col_sym == col_os) {
        std::fputs("Error: invalid keywords.\n", stderr);
        return 1;
    }
    for (long i = 1; i < rows; ++i) {
        QUOVIX_ATOM &a = atom[i - 1];
        const char *field = table.at(i, col);
        char buf[128] = {0};
        if (field != nullptr) std::strncpy(buf, field, sizeof buf - 1);
        if (!element_symbol(a.type, buf)) {
            std::fprintf(stderr, "Error: invalid field content %s.\n", buf);
            return 1;
        }
        bool matched = false;
        for (long t = 1; t < rows_type && !matched; ++t) {
            const char *sym = types.at(t, col_sym);
            if (sym == nullptr || field == nullptr || std::strcmp(sym, field) != 0) continue;
            matched = true;
            double v = 0.0;
            if (read_number(types.at(t, col_os), v)) {
                if (!oxidation_in_range(v)) {
                    std::fputs("Error: invalid field.\n", stderr);
                    return 1;
                }
                a.value = v;
            }
        }
        if (!matched) {
            std::fputs("Error: invalid field.\n", stderr);
            return 1;
        }
    }
    return 0;
}

/// Occupancy and fractional coordinates (all four columns compulsory; the last matching
/// column wins), each coordinate brought into [0, 1) by fmod and +1 when negative.
int quovix_cell_import_cif_read_atom(QUOVIX_ATOM *atom, char ***loop, long rows, long cols) {
    if (atom == nullptr || loop == nullptr) return 1;
    const quovix_cif_loop table{loop, rows, cols};
    const long c_occ = table.column("_atom_site_occupancy", true);
    const long c_x = table.column("_atom_site_fract_x", true);
    const long c_y = table.column("_atom_site_fract_y", true);
    const long c_z = table.column("_atom_site_fract_z", true);
    if (c_occ < 0 || c_x < 0 || c_y < 0 || c_z < 0) {
        std::fputs("Error: invalid keywords.\n", stderr);
        return 1;
    }
    static const char *const coord_error[3] = {"Error: unable to read fractional x.\n",
                                               "Error: unable to read fractional y.\n",
                                               "Error: unable to read fractional z.\n"};
    static const char *const tag[4] = {"_atom_site_occupancy", "_atom_site_fract_x",
                                       "_atom_site_fract_y", "_atom_site_fract_z"};
    long trailing[4] = {0, 0, 0, 0};  // values with text after the number, per column
    // The first such value of a column is named; the count of the others follows at the end.
    const auto check_trailing = [&](int c, const char *token, const char *label, double v) {
        if (!has_trailing_text(token)) return;
        if (trailing[c]++ == 0) {
            std::printf(
                "Warning: %s of atom %s is read as %g from '%s'; the text after the number is "
                "ignored.\n",
                tag[c], label, v, token);
        }
    };
    for (long i = 1; i < rows; ++i) {
        QUOVIX_ATOM &a = atom[i - 1];
        if (!read_number(table.at(i, c_occ), a.occ)) {
            std::fputs("Error: unable to read occupancy.\n", stderr);
            return 1;
        }
        if (!(a.occ >= -kOccupancyTolerance && a.occ <= 1.0 + kOccupancyTolerance)) {
            std::fprintf(stderr, "Error: invalid occupancy %g of atom %s: outside (0, 1].\n", a.occ,
                         a.name);
            return 1;
        }
        check_trailing(0, table.at(i, c_occ), a.name, a.occ);
        const long cc[3] = {c_x, c_y, c_z};
        for (int k = 0; k < 3; ++k) {
            double v = 0.0;
            if (!read_number(table.at(i, cc[k]), v)) {
                std::fputs(coord_error[k], stderr);
                return 1;
            }
            check_trailing(k + 1, table.at(i, cc[k]), a.name, v);
            v = std::fmod(v, 1.0);
            if (v < 0.0) v += 1.0;
            if (v >= 1.0) v = 0.0;  // -1e-17 + 1 rounds to 1.0
            a.x_f[k] = v + 0.0;     // + 0.0 turns -0.0 into 0.0
        }
    }
    for (int c = 0; c < 4; ++c) {
        if (trailing[c] > 1) {
            std::printf("Warning: %ld values of %s in all carry text after the number.\n",
                        trailing[c], tag[c]);
        }
    }
    return 0;
}

/// Fixed flags (relaxation constraints) from _atom_site_quovix_fixed: a value starting
/// with 't' or 'T' sets the atom's `ignored`, anything else clears it.
int quovix_cell_import_cif_read_atom_constraint(QUOVIX_ATOM *atom, char ***loop, long rows,
                                                long cols) {
    if (atom == nullptr || loop == nullptr) return 1;
    const quovix_cif_loop table{loop, rows, cols};
    const long col = table.column("_atom_site_quovix_fixed");
    if (col < 0) {
        std::fputs("Error: unable to find keyword '_atom_site_quovix_fixed'.\n", stderr);
        return 1;
    }
    for (long i = 1; i < rows; ++i) {
        const char *v = table.at(i, col);
        atom[i - 1].ignored = v != nullptr && (v[0] == 't' || v[0] == 'T');
    }
    return 0;
}

// No crystal cell handled by a bond-valence tool comes near this length (A); larger values
// are typing errors or junk, and would only lead to absurd grids and image searches.
constexpr double kMaxCellLength = 1.0e4;

/// Cell lengths, angles (compulsory, in that order) and Z (optional). Lengths must be
/// positive and at most 1e4 A, angles strictly between 0 and 180 degrees and the three angles must
/// span a volume; anything else is rejected with an error line.
int quovix_cell_import_cif_read_lattice(QUOVIX_CELL *cell, char **rows, long row) {
    if (cell == nullptr) return 1;
    static const char *const keys[6] = {"_cell_length_a",   "_cell_length_b",
                                        "_cell_length_c",   "_cell_angle_alpha",
                                        "_cell_angle_beta", "_cell_angle_gamma"};
    double v[6] = {0, 0, 0, 0, 0, 0};
    for (int k = 0; k < 6; ++k) {
        char *value = quovix_cell_import_cif_grep_keyword(keys[k], rows, row);
        if (value == nullptr) {
            std::fputs("Error: quovix_cell_import_cif_grep_keyword() returns NULL.\n", stderr);
            return 1;
        }
        const bool ok = read_number(value, v[k]);
        if (!ok) {
            std::fprintf(stderr, "Error: unable to read %s from '%s'.\n", keys[k], value);
            std::free(value);
            return 1;
        }
        if (has_trailing_text(value)) {
            std::printf(
                "Warning: %s is read as %g from '%s'; the text after the number is "
                "ignored.\n",
                keys[k], v[k], value);
        }
        std::free(value);
    }
    for (int k = 0; k < 3; ++k) {
        if (!(v[k] > 0.0)) {
            std::fprintf(stderr, "Error: invalid lattice: %s = %f must be positive.\n", keys[k],
                         v[k]);
            return 1;
        }
        if (v[k] > kMaxCellLength) {
            std::fprintf(stderr, "Error: invalid lattice: %s = %g exceeds %.0f angstrom.\n",
                         keys[k], v[k], kMaxCellLength);
            return 1;
        }
        if (!(v[k + 3] > 0.0 && v[k + 3] < 180.0)) {
            std::fprintf(stderr, "Error: invalid lattice: %s = %f must lie between 0 and 180.\n",
                         keys[k + 3], v[k + 3]);
            return 1;
        }
    }
    // The lattice matrix needs c^2 - a2x^2 - a2y^2 > 0: in unit lengths this is the Gram
    // determinant 1 - cos^2 a - cos^2 b - cos^2 c + 2 cos a cos b cos c.
    const double ca = std::cos(v[3] * QUOVIX_DEG_TO_RAD), cb = std::cos(v[4] * QUOVIX_DEG_TO_RAD),
                 cg = std::cos(v[5] * QUOVIX_DEG_TO_RAD);
    const double gram = 1.0 - ca * ca - cb * cb - cg * cg + 2.0 * ca * cb * cg;
    if (!(gram > 1e-10)) {
        std::fprintf(stderr, "Error: invalid lattice: angles %f %f %f give no volume.\n", v[3],
                     v[4], v[5]);
        return 1;
    }
    for (int k = 0; k < 3; ++k) {
        cell->parameter[k] = v[k];
        cell->angle[k] = v[k + 3];
    }
    char *z = quovix_cell_import_cif_grep_keyword("_cell_formula_units_Z", rows, row);
    if (z == nullptr) {
        std::printf("Warning: _cell_formula_units_Z is not available. \n");
    } else {
        int value = 0;
        if (std::sscanf(z, "%d", &value) == 1) cell->Z = value;
        std::free(z);
    }
    return 0;
}

/// Element symbols from the labels for atoms whose type is still empty.
int quovix_atom_name_to_type(QUOVIX_ATOM *atom, long total) {
    if (atom == nullptr) return 1;
    for (long i = 0; i < total; ++i) {
        if (atom[i].type[0] != '\0') continue;
        if (!element_symbol(atom[i].type, atom[i].name)) {
            std::fputs("Error: unable to read atom.type from atom.name.\n", stderr);
            return 1;
        }
    }
    return 0;
}

/// Turns each atom's `value` into `os`: 99.0 stays unknown (99); a value more than 0.1 from
/// an integer is a mixed-valence site split into the ceiling valence (this atom) and the
/// floor valence (a copy appended at the end), occupancies in proportion (Fe 2.5 gives
/// Fe3 0.5 and Fe2 0.5); other values round to the nearest integer. `value` ends 0.0.
/// *atom may be reallocated and *total grows by the number of copies.
int quovix_atom_fork_os(QUOVIX_ATOM **atom, long *total) {
    if (atom == nullptr || *atom == nullptr || total == nullptr || *total < 0) return 1;
    const long n = *total;
    const auto is_unknown = [](double v) { return std::fabs(v - 99.0) <= 0.0001; };
    const auto is_mixed = [](double v) { return std::fabs(v - std::round(v)) > 0.1; };
    long extra = 0;
    for (long i = 0; i < n; ++i) {
        const double v = (*atom)[i].value;
        if (!oxidation_in_range(v)) {
            std::fprintf(stderr, "Error: invalid oxidation state %f.\n", v);
            return 1;
        }
        if (!is_unknown(v) && is_mixed(v)) ++extra;
    }
    if (extra > 0) {
        if (n + extra > QUOVIX_MAX_ATOMS) {
            std::fputs("Error: unable to reallocate QUOVIX_ATOM.\n", stderr);
            return 1;
        }
        auto *grown = static_cast<QUOVIX_ATOM *>(
            std::realloc(*atom, static_cast<std::size_t>(n + extra) * sizeof(QUOVIX_ATOM)));
        if (grown == nullptr) {
            std::fputs("Error: unable to reallocate QUOVIX_ATOM.\n", stderr);
            return 1;
        }
        *atom = grown;
    }
    QUOVIX_ATOM *a = *atom;
    long next = n;
    for (long i = 0; i < n; ++i) {
        const double v = a[i].value;
        if (is_unknown(v)) {
            a[i].os = 99;
        } else if (is_mixed(v)) {
            const double lo = std::floor(v), hi = std::ceil(v);
            const double occ = a[i].occ;
            a[next] = a[i];
            a[next].os = static_cast<int>(lo);
            a[next].occ = occ * (hi - v) / (hi - lo);
            a[next].value = 0.0;
            a[i].os = static_cast<int>(hi);
            a[i].occ = occ * (v - lo) / (hi - lo);
            ++next;
        } else {
            a[i].os = static_cast<int>(std::lround(v));  // halves away from zero
        }
        a[i].value = 0.0;
    }
    *total = next;
    return 0;
}

/// Default oxidation states from the element table `dir_unitary` for atoms whose os is
/// still 99: the fourth field of the first table row whose symbol equals the atom's type.
/// Elements missing from the table stay at 99. 1 when the table cannot be opened.
int quovix_atom_update_default_os(QUOVIX_ATOM *atom, long total, const char *dir_unitary) {
    return quovix_guard("element table", [&]() -> int {
        std::vector<ElementRow> table;
        if (!read_element_table(dir_unitary, table)) {
            std::fprintf(stderr, "Error: unable to open %s\n",
                         dir_unitary != nullptr ? dir_unitary : "");
            return 1;
        }
        if (atom == nullptr) return 0;
        for (long i = 0; i < total; ++i) {
            if (atom[i].os != 99) continue;
            for (const ElementRow &e : table) {
                if (e.symbol == atom[i].type) {
                    atom[i].os = e.os;
                    break;
                }
            }
        }
        return 0;
    });
}
