// Parameter sets: species of a cell, per-species and per-pair parameters read from the two
// parameter files, estimates of missing pairs and the values derived from them.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-import.hpp"

namespace {

// Lines of the parameter files are read in chunks of at most 1023 characters.
constexpr int line_buffer_size = 1024;

// Weight of the cell-averaged b in the effective b of a bond (2/3 as a double).
constexpr double effective_b_weight = 0.6666666666666666;

// Copies at most two characters of an element symbol and terminates the field.
void copy_type(char dst[QUOVIX_TYPE_LEN], const char *src) {
    int k = 0;
    for (; src != nullptr && k < QUOVIX_TYPE_LEN - 1 && src[k] != '\0'; ++k) dst[k] = src[k];
    for (; k < QUOVIX_TYPE_LEN; ++k) dst[k] = '\0';
}

bool same_type(const char *a, const char *b) { return std::strncmp(a, b, QUOVIX_TYPE_LEN) == 0; }

bool same_species(const QUOVIX_ATOM &a, const QUOVIX_ATOM &b) {
    return same_type(a.type, b.type) && a.os == b.os;
}

// A data line of a parameter file with its key fields parsed once: the symbol and oxidation
// state of a unitary line ("Z symbol os ..."), or both of a binary line ("type1 os1 type2 os2
// ..."). A record is matched by comparing keys, and only a matching line is parsed in full, so
// that a set of n species reads each file once instead of n^2 times.
struct keyed_line {
    std::string text;
    std::string type1, type2;
    int os1 = 0, os2 = 0;
    bool keyed = false;  // the key fields were readable
};

enum class line_kind { unitary, binary };

// Reads the next word as sscanf's "%s" does (leading white space skipped); false at the end.
bool next_word(const char *&p, std::string &word) {
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    const char *begin = p;
    while (*p != '\0' && !std::isspace(static_cast<unsigned char>(*p))) ++p;
    word.assign(begin, p);
    return p != begin;
}

// Reads the next integer as sscanf's "%d" does; false when there is none. A value beyond the
// range of int saturates, which no species can match.
bool next_int(const char *&p, int &value) {
    char *end = nullptr;
    const long v = std::strtol(p, &end, 10);
    if (end == p) return false;
    p = end;
    value = static_cast<int>(std::clamp<long>(v, INT_MIN, INT_MAX));
    return true;
}

// A species as the records carry it: symbol (as copy_type stores it) and oxidation state.
struct species_key {
    std::string type;
    int os;
};

// Data lines of a parameter file whose keys name species of the set (for a pair line, both
// species), in file order (quovix_data_lines_for_each). The records only ever look at such
// lines, and the pair file has thousands of others.
[[nodiscard]] bool load_data_lines(const char *path, line_kind kind,
                                   const std::vector<species_key> &species,
                                   std::vector<keyed_line> &lines) {
    quovix_file_ptr file{path ? std::fopen(path, "rb") : nullptr};
    if (!file) return false;
    const auto known = [&species](const std::string &type, int os) {
        return std::any_of(species.begin(), species.end(),
                           [&](const species_key &k) { return k.os == os && k.type == type; });
    };
    keyed_line line;
    quovix_data_lines_for_each(file.get(), [&](const char *buf) {
        const char *p = buf;
        int z = 0;
        if (kind == line_kind::unitary) {
            line.keyed = next_int(p, z) && next_word(p, line.type1) && next_int(p, line.os1) &&
                         known(line.type1, line.os1);
        } else {
            line.keyed = next_word(p, line.type1) && next_int(p, line.os1) &&
                         known(line.type1, line.os1) && next_word(p, line.type2) &&
                         next_int(p, line.os2) && known(line.type2, line.os2);
        }
        if (line.keyed) {
            line.text = buf;
            lines.push_back(line);
        }
        return false;
    });
    return true;
}

// Result of matching one record against the data lines.
enum class match_result { found, absent, unreadable };

// Unitary line: "Z symbol os default_os mass n g block rc soft". The first line whose symbol
// and oxidation state equal the species' is parsed.
match_result match_unitary(QUOVIX_PROPERTY_UNITARY *uni, const char *line) {
    char symbol[line_buffer_size];
    int os = 0;
    if (std::sscanf(line, "%*d %1023s %d", symbol, &os) != 2) return match_result::absent;
    if (std::strcmp(symbol, uni->type) != 0 || os != uni->os) return match_result::absent;
    int an = 0, n = 0, g = 0, b = 0;
    double m = 0.0, rc = 0.0, soft = 0.0;
    if (std::sscanf(line, "%d %*s %*d %*d %lf %d %d %d %lf %lf", &an, &m, &n, &g, &b, &rc, &soft) <
        7) {
        return match_result::unreadable;
    }
    uni->an = an;
    uni->m = m;
    uni->n = n;
    uni->g = g;
    uni->b = b;
    uni->rc = rc;
    uni->soft = soft;
    return match_result::found;
}

// Binary line: "type1 os1 type2 os2 R0 b CN cutoff", matched in this order only.
match_result match_binary(QUOVIX_PROPERTY_BINARY *bin, const char *line) {
    char t1[line_buffer_size], t2[line_buffer_size];
    int os1 = 0, os2 = 0;
    if (std::sscanf(line, "%1023s %d %1023s %d", t1, &os1, t2, &os2) != 4)
        return match_result::absent;
    if (std::strcmp(t1, bin->type1) != 0 || os1 != bin->os1 || std::strcmp(t2, bin->type2) != 0 ||
        os2 != bin->os2) {
        return match_result::absent;
    }
    double r0 = 0.0, b = 0.0, cn = 0.0, cutoff = 0.0;
    if (std::sscanf(line, "%*s %*d %*s %*d %lf %lf %lf %lf", &r0, &b, &cn, &cutoff) < 4)
        return match_result::unreadable;
    bin->r0 = r0;
    bin->b_old = b;
    bin->b = b;
    bin->cn = cn;
    bin->cutoff = cutoff;
    return match_result::found;
}

[[nodiscard]] int read_unitary_from_lines(QUOVIX_PROPERTY_UNITARY *uni,
                                          const std::vector<keyed_line> &lines) {
    for (const keyed_line &line : lines) {
        if (!line.keyed || line.os1 != uni->os || line.type1 != uni->type) continue;
        const match_result r = match_unitary(uni, line.text.c_str());
        if (r == match_result::found) return 0;
        if (r == match_result::unreadable) {
            std::fputs("Error: unable read QUOVIX_PROPERTY_UNITARY.\n", stderr);
            return 1;
        }
    }
    return 0;
}

[[nodiscard]] int read_binary_from_lines(QUOVIX_PROPERTY_BINARY *bin,
                                         const std::vector<keyed_line> &lines) {
    for (const keyed_line &line : lines) {
        if (!line.keyed || line.os1 != bin->os1 || line.os2 != bin->os2 ||
            line.type1 != bin->type1 || line.type2 != bin->type2) {
            continue;
        }
        const match_result r = match_binary(bin, line.text.c_str());
        if (r == match_result::found) return 0;
        if (r == match_result::unreadable) {
            std::fputs("Error: unable read QUOVIX_PROPERTY_BINARY.\n", stderr);
            return 1;
        }
    }
    return 0;
}

// Writes the species labels into every unitary record and every pair record.
void label_records(QUOVIX_PROPERTY *ppt) {
    for (int i = 0; i < ppt->total; ++i) {
        copy_type(ppt->uni[i].type, ppt->type[i]);
        ppt->uni[i].os = ppt->os[i];
        for (int j = 0; j < ppt->total; ++j) {
            QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
            copy_type(bin.type1, ppt->type[i]);
            bin.os1 = ppt->os[i];
            copy_type(bin.type2, ppt->type[j]);
            bin.os2 = ppt->os[j];
        }
    }
}

// Drops the species arrays of a set (a fresh set from quovix_property_new has none).
void release_species(QUOVIX_PROPERTY *ppt) {
    std::free(ppt->type);
    std::free(ppt->os);
    std::free(ppt->count);
    quovix_property_unitary_free(ppt->uni);
    if (ppt->bin) quovix_property_binary_free(ppt->bin, ppt->total);
    ppt->type = nullptr;
    ppt->os = nullptr;
    ppt->count = nullptr;
    ppt->uni = nullptr;
    ppt->bin = nullptr;
    ppt->total = 0;
}

bool is_hydrogen(const QUOVIX_PROPERTY_UNITARY &u) {
    return std::strcmp(u.type, "H") == 0 || std::strcmp(u.type, "Hx") == 0 ||
           std::strcmp(u.type, "D") == 0;
}

// Finds x where e(x) = 1.0: steps down from 10 A by 1 A while e(x) < 1, then bisects with a
// halving step down to 1e-6 A. The step-down is bounded so that a curve that never reaches 1
// (zero charges, parameters that are not numbers) cannot loop forever.
template <class E>
double find_unit_energy_distance(E &&energy) {
    double x = 10.0;
    for (int k = 0; k < 100000 && energy(x) < 1.0; ++k) x -= 1.0;
    for (double h = 1.0; h > 1e-6; h *= 0.5) {
        if (energy(x) <= 1.0) {
            x -= h;
        } else {
            x += h;
        }
    }
    return x;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

/// Fills `uni` with the unitary-file line of species (type, os): an, m, n, g, b, rc, soft. A
/// species without a line keeps zero values (not an error). Returns 1 when the file cannot be
/// opened ("Error: unable to open %s") or the matching line is unreadable.
int quovix_property_unitary_read_from_file(QUOVIX_PROPERTY_UNITARY *uni, const char *type, int os,
                                           const char *dir_unitary) {
    if (uni == nullptr || type == nullptr) {
        std::fputs("Error: QUOVIX_PROPERTY_UNITARY has not been properly initialized.\n", stderr);
        return 1;
    }
    copy_type(uni->type, type);
    uni->os = os;
    quovix_file_ptr file{dir_unitary ? std::fopen(dir_unitary, "rb") : nullptr};
    if (!file) {
        std::fprintf(stderr, "Error: unable to open %s\n", dir_unitary ? dir_unitary : "(null)");
        return 1;
    }
    int status = 0;
    quovix_data_lines_for_each(file.get(), [&](const char *line) {
        const match_result r = match_unitary(uni, line);
        if (r == match_result::unreadable) {
            std::fputs("Error: unable read QUOVIX_PROPERTY_UNITARY.\n", stderr);
            status = 1;
        }
        return r != match_result::absent;
    });
    return status;
}

/// Fills `bin` with the binary-file line of the ordered pair (type1, os1)-(type2, os2): r0,
/// b_old = b, cn, cutoff. The reverse order does not match; a pair without a line keeps zero
/// values. Returns 1 when the file cannot be opened or the matching line is unreadable.
int quovix_property_binary_read_from_file(QUOVIX_PROPERTY_BINARY *bin, const char *type1, int os1,
                                          const char *type2, int os2, const char *dir_binary) {
    if (bin == nullptr || type1 == nullptr || type2 == nullptr) {
        std::fputs("Error: QUOVIX_PROPERTY_BINARY has not been properly initialized.\n", stderr);
        return 1;
    }
    copy_type(bin->type1, type1);
    bin->os1 = os1;
    copy_type(bin->type2, type2);
    bin->os2 = os2;
    quovix_file_ptr file{dir_binary ? std::fopen(dir_binary, "rb") : nullptr};
    if (!file) {
        std::fprintf(stderr, "Error: unable to open %s\n", dir_binary ? dir_binary : "(null)");
        return 1;
    }
    int status = 0;
    quovix_data_lines_for_each(file.get(), [&](const char *line) {
        const match_result r = match_binary(bin, line);
        if (r == match_result::unreadable) {
            std::fputs("Error: unable read QUOVIX_PROPERTY_BINARY.\n", stderr);
            status = 1;
        }
        return r != match_result::absent;
    });
    return status;
}

/// Reads every species' unitary line and every ordered pair's binary line. Each file is read
/// once and matched in memory, with the same first-match rules as the single-record readers.
int quovix_property_update_read_from_file(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell,
                                          const char *dir_unitary, const char *dir_binary) {
    (void)cell;  // the species list was taken from the cell before
    if (ppt == nullptr || (ppt->total > 0 && (ppt->uni == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("parameter file lines", [&]() -> int {
        std::vector<species_key> species;
        for (int i = 0; i < ppt->total; ++i) {
            char type[QUOVIX_TYPE_LEN];
            copy_type(type, ppt->type[i]);
            species.push_back({type, ppt->os[i]});
        }
        std::vector<keyed_line> unitary_lines, binary_lines;
        const bool unitary_ok =
            load_data_lines(dir_unitary, line_kind::unitary, species, unitary_lines);
        const bool binary_ok =
            load_data_lines(dir_binary, line_kind::binary, species, binary_lines);
        for (int i = 0; i < ppt->total; ++i) {
            QUOVIX_PROPERTY_UNITARY *uni = &ppt->uni[i];
            copy_type(uni->type, ppt->type[i]);
            uni->os = ppt->os[i];
            if (!unitary_ok) {
                std::fprintf(stderr, "Error: unable to open %s\n",
                             dir_unitary ? dir_unitary : "(null)");
            }
            if (!unitary_ok || read_unitary_from_lines(uni, unitary_lines) != 0) {
                std::fputs("Error: quovix_property_unitary_read_from_file() returns non-zero.\n",
                           stderr);
                return 1;
            }
            for (int j = 0; j < ppt->total; ++j) {
                QUOVIX_PROPERTY_BINARY *bin = &ppt->bin[i][j];
                copy_type(bin->type1, ppt->type[i]);
                bin->os1 = ppt->os[i];
                copy_type(bin->type2, ppt->type[j]);
                bin->os2 = ppt->os[j];
                if (!binary_ok) {
                    std::fprintf(stderr, "Error: unable to open %s\n",
                                 dir_binary ? dir_binary : "(null)");
                }
                if (!binary_ok || read_binary_from_lines(bin, binary_lines) != 0) {
                    std::fputs("Error: quovix_property_bin_read_from_file() returns non-zero.\n",
                               stderr);
                    return 1;
                }
            }
        }
        return 0;
    });
}

/// Value number `os` (0-based) of the last line of a hardness table whose first word equals
/// `type` (up to eight numbers per line); 0 when no line matches or `os` is out of range. An
/// unopenable file prints a warning to standard output and yields 0.
double quovix_property_hardness_read_from_file(const char *type, int os, const char *dir_hardness) {
    quovix_file_ptr file{dir_hardness ? std::fopen(dir_hardness, "rb") : nullptr};
    if (!file) {
        std::printf("Warning: unable to open %s\n", dir_hardness ? dir_hardness : "(null)");
        return 0.0;
    }
    if (type == nullptr) return 0.0;
    double result = 0.0;
    char buf[line_buffer_size + 1];  // lines of up to 1024 characters
    while (std::fgets(buf, sizeof buf, file.get()) != nullptr) {
        char symbol[line_buffer_size + 1];
        double v[8];
        const int k = std::sscanf(buf, "%1024s %lf %lf %lf %lf %lf %lf %lf %lf", symbol, &v[0],
                                  &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]);
        if (k < 1 || std::strcmp(symbol, type) != 0) continue;
        result = (os >= 0 && os < k - 1) ? v[os] : 0.0;
    }
    return result;
}

/// Sets atom->type (two characters) and atom->os from the first unitary-file line whose
/// atomic number is `an` (fields "Z symbol skipped os"). Returns 1 with a message when the
/// file cannot be opened, a line cannot be read, or no line has that number.
int quovix_property_type_from_atomic_number(int an, QUOVIX_ATOM *atom, const char *path) {
    if (atom == nullptr) {
        std::fputs("Error: QUOVIX_ATOM has not been initialized properly.\n", stderr);
        return 1;
    }
    quovix_file_ptr file{path ? std::fopen(path, "rb") : nullptr};
    if (!file) {
        std::fprintf(stderr, "Error: unable to open %s.\n", path ? path : "(null)");
        return 1;
    }
    int status = -1;  // -1: not found yet
    quovix_data_lines_for_each(file.get(), [&](char *line) {
        int z = 0, os = 0;
        char symbol[line_buffer_size];
        const int k = std::sscanf(line, "%d %1023s %*d %d", &z, symbol, &os);
        if (k < 2) {
            line[std::strcspn(line, "\r\n")] = '\0';
            std::fprintf(stderr, "Error: unable to process line %s.\n", line);
            status = 1;
            return true;
        }
        if (z != an) return false;
        copy_type(atom->type, symbol);
        if (k >= 3) atom->os = os;
        status = 0;
        return true;
    });
    if (status < 0) {
        std::fprintf(stderr, "Error: unable to find element with atomic number %d from %s.\n", an,
                     path);
        return 1;
    }
    return status;
}

// ---------------------------------------------------------------------------------------------
// Species list
// ---------------------------------------------------------------------------------------------

/// Index of species (type, os) in the set, or -1.
int quovix_property_find_index(const QUOVIX_PROPERTY *ppt, const char *type, int os) {
    if (ppt == nullptr || type == nullptr || ppt->type == nullptr || ppt->os == nullptr) return -1;
    for (int i = 0; i < ppt->total; ++i) {
        if (ppt->os[i] == os && std::strncmp(ppt->type[i], type, QUOVIX_TYPE_LEN) == 0) return i;
    }
    return -1;
}

/// Replaces the species list of `ppt` by the distinct (type, os) pairs of the cell, in the
/// order of quovix_atom_sort (the cell's atoms are sorted in place), with fresh zeroed unitary
/// records and pair matrix labelled with their species. `count` is zeroed.
int quovix_property_update_index_by_cell(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell) {
    if (ppt == nullptr) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    if (cell == nullptr || cell->total < 1 || cell->atom == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return 1;
    }
    release_species(ppt);
    quovix_atom_sort(cell->atom, cell->total);

    // After the sort each species is one run of atoms; a new species starts wherever the
    // symbol or the oxidation state changes.
    long runs = 1;
    for (long k = 1; k < cell->total; ++k) {
        if (!same_species(cell->atom[k - 1], cell->atom[k])) ++runs;
    }
    if (runs > INT_MAX / 2) {
        std::fputs("Error: too many species in QUOVIX_CELL.\n", stderr);
        return 1;
    }
    const int total = static_cast<int>(runs);
    auto *type = static_cast<char(*)[QUOVIX_TYPE_LEN]>(std::calloc(total, QUOVIX_TYPE_LEN));
    if (type == nullptr) {
        std::fputs("Error: unable to allocate ppt->type[].\n", stderr);
        return 1;
    }
    auto *os = static_cast<int *>(std::calloc(total, sizeof(int)));
    if (os == nullptr) {
        std::fputs("Error: unable to allocate ppt->os[].\n", stderr);
        std::free(type);
        return 1;
    }
    auto *count = static_cast<double *>(std::calloc(total, sizeof(double)));
    if (count == nullptr) {
        std::fputs("Error: unable to allocate ppt->count[].\n", stderr);
        std::free(type);
        std::free(os);
        return 1;
    }
    QUOVIX_PROPERTY_UNITARY *uni = quovix_property_unitary_new(total);
    if (uni == nullptr) {
        std::fputs("Error: quovix_property_unitary_new() returns NULL.\n", stderr);
        std::free(type);
        std::free(os);
        std::free(count);
        return 1;
    }
    QUOVIX_PROPERTY_BINARY **bin = nullptr;
    if (quovix_property_binary_new(&bin, total) != 0) {
        std::fputs("Error: quovix_property_binary_new() returns non-zero.\n", stderr);
        std::free(type);
        std::free(os);
        std::free(count);
        quovix_property_unitary_free(uni);
        return 1;
    }
    int s = 0;
    for (long k = 0; k < cell->total; ++k) {
        if (k > 0 && !same_species(cell->atom[k - 1], cell->atom[k])) ++s;
        copy_type(type[s], cell->atom[k].type);
        os[s] = cell->atom[k].os;
    }
    ppt->type = type;
    ppt->os = os;
    ppt->count = count;
    ppt->uni = uni;
    ppt->bin = bin;
    ppt->total = total;
    label_records(ppt);
    return 0;
}

/// Appends species (type, os) at the end of the set: grows type, os and count (the new count
/// is 0: the species has no atoms), recreates the unitary records and the pair matrix at the
/// new size (zeroed, labelled) and increments total.
int quovix_property_append_index(QUOVIX_PROPERTY *ppt, const char *type, int os) {
    if (ppt == nullptr || type == nullptr || ppt->total < 0 || ppt->total >= INT_MAX / 2) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    const int total = ppt->total + 1;
    auto *new_type = static_cast<char(*)[QUOVIX_TYPE_LEN]>(
        std::realloc(ppt->type, QUOVIX_TYPE_LEN * static_cast<std::size_t>(total)));
    if (new_type == nullptr) {
        std::fputs("Error: unable to reallocate ppt->type.\n", stderr);
        return 1;
    }
    ppt->type = new_type;
    auto *new_os =
        static_cast<int *>(std::realloc(ppt->os, sizeof(int) * static_cast<std::size_t>(total)));
    if (new_os == nullptr) {
        std::fputs("Error: unable to reallocate ppt->os.\n", stderr);
        return 1;
    }
    ppt->os = new_os;
    // The count array grows as well, with 0 for the new species, so that every per-species
    // loop can read it.
    auto *new_count = static_cast<double *>(
        std::realloc(ppt->count, sizeof(double) * static_cast<std::size_t>(total)));
    if (new_count == nullptr) {
        std::fputs("Error: unable to reallocate ppt->count.\n", stderr);
        return 1;
    }
    ppt->count = new_count;
    ppt->count[total - 1] = 0.0;
    QUOVIX_PROPERTY_UNITARY *uni = quovix_property_unitary_new(total);
    if (uni == nullptr) {
        std::fputs("Error: quovix_property_unitary_new() returns NULL.\n", stderr);
        return 1;
    }
    QUOVIX_PROPERTY_BINARY **bin = nullptr;
    if (quovix_property_binary_new(&bin, total) != 0) {
        std::fputs("Error: quovix_property_binary_new() returns non-zero.\n", stderr);
        quovix_property_unitary_free(uni);
        return 1;
    }
    quovix_property_unitary_free(ppt->uni);
    if (ppt->bin) quovix_property_binary_free(ppt->bin, ppt->total);
    ppt->uni = uni;
    ppt->bin = bin;
    copy_type(ppt->type[total - 1], type);
    ppt->os[total - 1] = os;
    ppt->total = total;
    label_records(ppt);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Estimates and derived values
// ---------------------------------------------------------------------------------------------

/// Estimates cn (and cutoff) of a cation-anion pair without a reference coordination number
/// when the anion is Cl-, Br-, I- (from the cation's F- pair) or S2- (from its O2- pair):
/// cn = slope * cn_ref + intercept, linear relations between the coordination numbers of the
/// halides / chalcogenides of one cation. r0 and b are never estimated. Never fails on a
/// valid record; a failed reference read leaves the pair unchanged.
int quovix_property_binary_estimate_from_file(QUOVIX_PROPERTY_BINARY *bin, const char *dir_binary) {
    if (bin == nullptr) {
        std::fputs("Error: QUOVIX_PROPERTY_BINARY has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!(bin->os1 >= 1 && bin->os2 < 0 && bin->cn <= 0.01)) return 0;
    struct rule {
        const char *anion;
        int os;
        const char *ref;
        int ref_os;
        double slope, intercept;
    };
    static constexpr rule rules[] = {
        {"Cl", -1, "F", -1, 0.3984, 3.4568},
        {"Br", -1, "F", -1, 0.3457, 3.3798},
        {"I", -1, "F", -1, 0.3806, 2.7873},
        {"S", -2, "O", -2, 0.7414, 0.9597},
    };
    for (const rule &r : rules) {
        if (std::strcmp(bin->type2, r.anion) != 0 || bin->os2 != r.os) continue;
        QUOVIX_PROPERTY_BINARY ref{};
        if (quovix_property_binary_read_from_file(&ref, bin->type1, bin->os1, r.ref, r.ref_os,
                                                  dir_binary) != 0) {
            return 0;
        }
        if (ref.cn > 0.0) {
            bin->cn = r.slope * ref.cn + r.intercept;
            if (ref.cutoff > 0.0) bin->cutoff = ref.cutoff;
        }
        return 0;
    }
    return 0;
}

/// Applies quovix_property_binary_estimate_from_file to every pair of the set.
int quovix_property_estimate(QUOVIX_PROPERTY *ppt, const char *dir_unitary,
                             const char *dir_binary) {
    (void)dir_unitary;  // the estimates only use pair data
    if (ppt == nullptr || (ppt->total > 0 && ppt->bin == nullptr)) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        for (int j = 0; j < ppt->total; ++j) {
            if (quovix_property_binary_estimate_from_file(&ppt->bin[i][j], dir_binary) != 0)
                return 1;
        }
    }
    return 0;
}

/// Effective b of every cation-anion pair: b = (2/3) b_avg + (1/3) b_old, where b_avg is the
/// cation's tabulated b averaged over all anion atoms of the cell weighted by occupancy. It
/// softens the bonds of a cation towards its mixed-anion environment.
int quovix_property_calculate_effective_b(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell) {
    if (ppt == nullptr || cell == nullptr || (ppt->total > 0 && ppt->bin == nullptr) ||
        (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    return quovix_guard("species indices", [&]() -> int {
        for (int i = 0; i < ppt->total; ++i)
            for (int j = 0; j < ppt->total; ++j) ppt->bin[i][j].b_old = ppt->bin[i][j].b;
        std::vector<int> species;
        std::vector<double> occ;
        for (long k = 0; k < cell->total; ++k) {
            const QUOVIX_ATOM &atom = cell->atom[k];
            if (atom.os >= 0) continue;
            const int s = quovix_property_find_index(ppt, atom.type, atom.os);
            if (s < 0) {
                std::fputs("Error: quovix_property_find_index() returns negative number.\n",
                           stderr);
                return 1;
            }
            species.push_back(s);
            occ.push_back(atom.occ);
        }
        for (int i = 0; i < ppt->total; ++i) {
            if (ppt->os[i] <= 0) continue;
            double num = 0.0, den = 0.0;
            for (std::size_t k = 0; k < species.size(); ++k) {
                num += occ[k] * ppt->bin[i][species[k]].b_old;
                den += occ[k];
            }
            const double b_avg = num / den;
            for (int j = 0; j < ppt->total; ++j) {
                if (ppt->os[j] >= 0) continue;
                QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
                bin.b = effective_b_weight * b_avg + (1.0 - effective_b_weight) * bin.b_old;
            }
        }
        return 0;
    });
}

/// Block class c: 1 for s and p elements (block index 0, 1), 2 for d and f (2, 3).
int quovix_property_unitary_derived(QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr || (ppt->total > 0 && ppt->uni == nullptr)) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        QUOVIX_PROPERTY_UNITARY &u = ppt->uni[i];
        if (u.b == 0 || u.b == 1) {
            u.c = 1;
        } else if (u.b == 2 || u.b == 3) {
            u.c = 2;
        }
    }
    return 0;
}

/// Morse parameters of every pair with complete bond-valence data (cutoff, r0, b, cn):
///   rmin = (0.9185 + 0.2285 |soft_j - soft_i|) r0 - b ln(os_i / cn)   (bond length at which a
///          bond carries os_i / cn valence units, corrected for the softness mismatch),
///   d0   = (b^2 / 2) c_i (|os_i os_j| c_i)^(1 / c_i) / (sqrt(n_i n_j) rmin)   (reduced units;
///          x 7.19982 gives eV per bond),
/// then the energy and force at the cut-off (en_s, f_s) and f0 = cn d0. A pair whose softness
/// is missing keeps rmin = 0 (with a warning) and an infinite d0, which validation reports.
int quovix_property_binary_derived(QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr || (ppt->total > 0 && (ppt->uni == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    const int total = ppt->total;
    for (int i = 0; i < total; ++i) {
        const QUOVIX_PROPERTY_UNITARY &ui = ppt->uni[i];
        for (int j = 0; j < total; ++j) {
            const QUOVIX_PROPERTY_UNITARY &uj = ppt->uni[j];
            QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
            if (!(bin.cutoff > 0.0001 && bin.r0 > 0.0 && bin.b > 0.0 && bin.cn > 0.0)) continue;
            if ((ui.soft > 0.0 && uj.soft > 0.0) || (is_hydrogen(ui) && ui.os == 1)) {
                bin.rmin = (0.9185 + 0.2285 * std::fabs(uj.soft - ui.soft)) * bin.r0 -
                           bin.b * std::log(static_cast<double>(ui.os) / bin.cn);
            } else {
                std::fprintf(stderr,
                             "Warning: r_min for (%s%d%c)-(%s%d%c) is set to 0 due to softness "
                             "= 0.\n",
                             ui.type, quovix_abs_os(ui.os), quovix_sign_char(ui.os), uj.type,
                             quovix_abs_os(uj.os), quovix_sign_char(uj.os));
            }
            const double c = static_cast<double>(ui.c);
            const double nn = static_cast<double>(ui.n) * static_cast<double>(uj.n);
            bin.d0 = (bin.b * bin.b / 2.0) * c *
                     std::pow(std::fabs(static_cast<double>(ui.os) * uj.os) * c, 1.0 / c) /
                     (std::sqrt(nn) * bin.rmin);
        }
    }
    for (int i = 0; i < total; ++i) {
        for (int j = 0; j < total; ++j) {
            QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
            if (!(bin.d0 > 0.0 && bin.rmin > 0.0 && bin.b > 0.0)) continue;
            bin.en_s = quovix_energy_bonding(bin.cutoff, bin.d0, bin.rmin, bin.b);
            bin.f_s = quovix_force_bonding(bin.cutoff, bin.d0, bin.rmin, bin.b);
        }
    }
    for (int i = 0; i < total; ++i) {
        for (int j = 0; j < total; ++j) {
            QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
            if (bin.d0 > 0.0 && bin.cn > 0.0) bin.f0 = bin.cn * bin.d0;
        }
    }
    return 0;
}

/// Fractional charges: q = os / sqrt(n_eff) scaled separately for cations and anions so the
/// cell is neutral (n_eff = period, 4 from period 5 on, 1 for Li, Be and B). A charge larger
/// than its oxidation state caps the whole set. Fails with "Error: total charge of the cell is
/// not neutral" when the charges cannot balance, including a cell with only cations or only
/// anions (the message then gives the formal charge of the cell).
int quovix_property_calculate_fractional_charge(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell) {
    if (ppt == nullptr || cell == nullptr || (ppt->total > 0 && ppt->uni == nullptr) ||
        (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    return quovix_guard("species indices", [&]() -> int {
        const int total = ppt->total;
        std::vector<double> unit(static_cast<std::size_t>(total));  // os / sqrt(n_eff)
        for (int i = 0; i < total; ++i) {
            const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[i];
            int n_eff = u.n < 5 ? u.n : 4;
            if (std::strcmp(u.type, "Li") == 0 || std::strcmp(u.type, "B") == 0 ||
                std::strcmp(u.type, "Be") == 0) {
                n_eff = u.n < 5 ? 1 : 4;
            }
            unit[i] = ppt->os[i] / std::sqrt(static_cast<double>(n_eff));
        }
        std::vector<int> species(static_cast<std::size_t>(cell->total));
        double s_pos = 0.0, s_neg = 0.0, formal = 0.0;
        bool charged = false;
        for (long k = 0; k < cell->total; ++k) {
            const QUOVIX_ATOM &atom = cell->atom[k];
            const int s = quovix_property_find_index(ppt, atom.type, atom.os);
            if (s < 0) {
                std::fputs("Error: quovix_property_find_index() returns negative values.\n",
                           stderr);
                return 1;
            }
            species[k] = s;
            if (atom.os > 0) s_pos += unit[s] * atom.occ;
            if (atom.os < 0) s_neg += unit[s] * atom.occ;
            if (atom.os != 0) charged = true;
            formal += atom.os * atom.occ;
        }
        // Without both cations and anions the two scalings have nothing to balance against.
        if (charged && (s_pos == 0.0 || s_neg == 0.0)) {
            std::fprintf(stderr, "Error: total charge of the cell is not neutral: %f\n", formal);
            return 1;
        }
        for (int i = 0; i < total; ++i) {
            const int os = ppt->os[i];
            if (os > 0) {
                ppt->uni[i].q = unit[i] * std::sqrt(-s_neg / s_pos);
            } else if (os < 0) {
                ppt->uni[i].q = unit[i] * std::sqrt(-s_pos / s_neg);
            } else {
                ppt->uni[i].q = 0.0;
            }
        }
        for (int i = 0; i < total; ++i) {
            const double q = ppt->uni[i].q;
            // A charge that is not a finite number (a species without unitary data) cannot be
            // capped; validation reports the species.
            if (!std::isfinite(q)) continue;
            if (!(std::fabs(q) > std::fabs(static_cast<double>(ppt->os[i])))) continue;
            const double scale = ppt->os[i] / q;
            for (int k = 0; k < total; ++k) ppt->uni[k].q *= scale;
            std::printf("Message: charge of %s(%d) is capped to %4.2f.\n", ppt->uni[i].type,
                        ppt->os[i], ppt->uni[i].q);
        }
        double charge = 0.0;
        for (long k = 0; k < cell->total; ++k) charge += ppt->uni[species[k]].q * cell->atom[k].occ;
        if (std::fabs(charge) > 1e-6) {
            std::fprintf(stderr, "Error: total charge of the cell is not neutral: %f\n", charge);
            return 1;
        }
        return 0;
    });
}

/// Inner pseudopotential of every pair: where the shifted bonding energy (bonded pairs) or the
/// screened Coulomb energy (like-charged pairs) reaches 1.0 (reduced units), at r_bc or r_cc,
/// the curve is continued inwards by a2 x^2 + a0 matching it in value and slope (a1 = 0).
int quovix_property_binary_pseudopotential(QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr || (ppt->total > 0 && (ppt->uni == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        for (int j = 0; j < ppt->total; ++j) {
            QUOVIX_PROPERTY_BINARY &bin = ppt->bin[i][j];
            if (bin.d0 > 0.0 && bin.rmin > 0.0 && bin.b > 0.0) {
                auto energy = [&bin](double x) {
                    return quovix_energy_bonding_with_energy_shift(x, bin.d0, bin.rmin, bin.b,
                                                                   bin.en_s);
                };
                const double x = find_unit_energy_distance(energy);
                bin.r_bc = x;
                bin.a1 = 0.0;
                bin.a2 = quovix_force_bonding(x, bin.d0, bin.rmin, bin.b) / (2.0 * x);
                bin.a0 = energy(x) - x * x * bin.a2;
            }
            if (bin.os1 * bin.os2 > 0) {
                const double q = ppt->uni[i].q * ppt->uni[j].q;
                const double r_eff = ppt->sf * (ppt->uni[i].rc + ppt->uni[j].rc);
                auto energy = [q, r_eff](double x) { return quovix_energy_coulombic(x, q, r_eff); };
                const double x = find_unit_energy_distance(energy);
                bin.r_cc = x;
                bin.a1 = 0.0;
                bin.a2 = quovix_force_coulombic(x, q, r_eff) / (2.0 * x);
                bin.a0 = energy(x) - x * x * bin.a2;
            }
        }
    }
    return 0;
}

/// count[i] = occupancy-weighted number of atoms of species i in the cell.
int quovix_property_calculate_type_count(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell) {
    if (ppt == nullptr || cell == nullptr || (ppt->total > 0 && ppt->count == nullptr) ||
        (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL and QUOVIX_PROPERTY has not been initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        double sum = 0.0;
        for (long k = 0; k < cell->total; ++k) {
            const QUOVIX_ATOM &atom = cell->atom[k];
            if (atom.os == ppt->os[i] && same_type(atom.type, ppt->type[i])) sum += atom.occ;
        }
        ppt->count[i] = sum;
    }
    return 0;
}

/// Embedding parameter f1 of every species (reduced energy units, like d0): the average over
/// its opposite-sign partners j, weighted by their counts, of exp(x) f0_KX with
///   x = 0.5879 ln|os_K/os_X| + 0.135 - 0.0898 ln(soft_K) - 0.9956 ln(b_KX) + 0.3986 ln(n_K)
///       - 0.51 ln(cn_KX) + 0.5272 ln(r0_KX)
/// (K the cation, X the anion of the pair). A species without partners gets NaN (0/0).
int quovix_property_calculate_unitary_eam_parameter(QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr ||
        (ppt->total > 0 && (ppt->uni == nullptr || ppt->bin == nullptr || ppt->count == nullptr))) {
        std::fputs("Error: QUOVIX_CELL and QUOVIX_PROPERTY has not been initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        double num = 0.0, den = 0.0;
        for (int j = 0; j < ppt->total; ++j) {
            if (!(ppt->os[i] * ppt->os[j] < 0)) continue;
            const int k = ppt->os[i] > 0 ? i : j;  // cation
            const int x = ppt->os[i] > 0 ? j : i;  // anion
            const QUOVIX_PROPERTY_BINARY &bin = ppt->bin[k][x];
            const QUOVIX_PROPERTY_UNITARY &uk = ppt->uni[k];
            const double e =
                0.5879 * std::log(std::fabs(static_cast<double>(ppt->os[k]) / ppt->os[x])) + 0.135 -
                0.0898 * std::log(uk.soft) - 0.9956 * std::log(bin.b) +
                0.3986 * std::log(static_cast<double>(uk.n)) - 0.51 * std::log(bin.cn) +
                0.5272 * std::log(bin.r0);
            num += std::exp(e) * bin.f0 * ppt->count[j];
            den += ppt->count[j];
        }
        ppt->uni[i].f1 = num / den;
    }
    return 0;
}

/// Checks that every charged species has a charge of its sign, rc, m and soft, and that every
/// cation-anion pair has cutoff, b, cn, r0, d0 and rmin; prints the first fault and returns 1.
int quovix_property_validate_generic(const QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr || (ppt->total > 0 && (ppt->uni == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[i];
        const int a = quovix_abs_os(u.os);
        const char s = quovix_sign_char(u.os);
        if (u.os * u.q <= 0.0) {
            std::fprintf(stderr, "Error: incorrect q at [%d](%s%d%c) q=%f\n", i, u.type, a, s, u.q);
            return 1;
        }
        if (u.rc <= 0.0) {
            std::fprintf(stderr, "Error: incorrect rc at[%d](%s%d%c) rc=%f\n", i, u.type, a, s,
                         u.rc);
            return 1;
        }
        if (u.m <= 0.0) {
            std::fprintf(stderr, "Error: incorrect m at[%d](%s%d%c) m=%f\n", i, u.type, a, s, u.m);
            return 1;
        }
        if (u.soft <= 0.0) {
            std::fprintf(stderr, "Error: incorrect soft at[%d](%s%d%c) soft=%f\n", i, u.type, a, s,
                         u.soft);
            return 1;
        }
    }
    static constexpr quovix_pair_check pair_checks[] = {
        {"cutoff", &QUOVIX_PROPERTY_BINARY::cutoff}, {"b", &QUOVIX_PROPERTY_BINARY::b},
        {"cn", &QUOVIX_PROPERTY_BINARY::cn},         {"r0", &QUOVIX_PROPERTY_BINARY::r0},
        {"d0", &QUOVIX_PROPERTY_BINARY::d0},         {"rmin", &QUOVIX_PROPERTY_BINARY::rmin}};
    return quovix_property_validate_pairs(ppt, pair_checks);
}

/// Positivity of the listed parameters of every cation-anion pair; see the header.
int quovix_property_validate_pairs(const QUOVIX_PROPERTY *ppt,
                                   std::span<const quovix_pair_check> checks) {
    if (ppt == nullptr || (ppt->total > 0 && (ppt->os == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    for (int i = 0; i < ppt->total; ++i) {
        if (ppt->os[i] <= 0) continue;
        for (int j = 0; j < ppt->total; ++j) {
            if (ppt->os[j] >= 0) continue;
            const QUOVIX_PROPERTY_BINARY &b = ppt->bin[i][j];
            for (const quovix_pair_check &check : checks) {
                const double value = b.*check.value;
                if (value <= 0.0) {
                    std::fprintf(stderr, "Error: incorrect %s at [%d](%s%d%c)-(%s%d%c) %s=%f\n",
                                 check.name, i, b.type1, quovix_abs_os(b.os1),
                                 quovix_sign_char(b.os1), b.type2, quovix_abs_os(b.os2),
                                 quovix_sign_char(b.os2), check.name, value);
                    return 1;
                }
            }
        }
    }
    return 0;
}
