// Energy grid record and the Gaussian cube file: allocation, writing, reading, printing.
#include "quovix-cube.hpp"

#include <unistd.h>  // sysconf, for the physical-memory bound on grid sizes

#include <charconv>  // to_chars / from_chars: exact, locale-free number conversion
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

// Bytes of physical memory, or 0 when the system does not say.
unsigned long long physical_memory_bytes() {
    long pages = sysconf(_SC_PHYS_PAGES);
    long page_size = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || page_size <= 0) return 0;
    return static_cast<unsigned long long>(pages) * static_cast<unsigned long long>(page_size);
}

// Reads one line (without its CR/LF) into `line`; false at end of file before any character.
bool read_line(std::FILE *f, std::string &line) {
    line.clear();
    int c;
    bool any = false;
    while ((c = std::fgetc(f)) != EOF) {
        any = true;
        if (c == '\n') break;
        line.push_back(static_cast<char>(c));
    }
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    return any;
}

// Appends " %12.6f\r\n" for `v`. std::to_chars with fixed precision 6 rounds exactly as
// printf's "%.6f" does (correctly rounded decimal of the binary value), several times faster.
void append_value(std::string &out, double v) {
    char digits[400];
    auto res = std::to_chars(digits, digits + sizeof digits, v, std::chars_format::fixed, 6);
    std::size_t len = static_cast<std::size_t>(res.ptr - digits);
    out.push_back(' ');
    if (len < 12) out.append(12 - len, ' ');
    out.append(digits, len);
    out.append("\r\n");
}

void print_info_to(std::FILE *out, const QUOVIX_CUBE *cube) {
    if (!cube) {
        std::fputs("(not allocated)\n", out);
        return;
    }
    std::fprintf(out, "CUBE: cube size = %ld * %ld * %ld\n", cube->n[0], cube->n[1], cube->n[2]);
    std::fputs("CUBE: cell vector (A):\n", out);
    for (int k = 0; k < 3; k++)
        std::fprintf(out, "CUBE:  %11.6f %11.6f %11.6f\n", cube->a[k][0], cube->a[k][1],
                     cube->a[k][2]);
    std::fputs("CUBE: votex vector (A):\n", out);
    for (int k = 0; k < 3; k++)
        std::fprintf(out, "CUBE:  %11.6f %11.6f %11.6f\n", cube->a_i[k][0], cube->a_i[k][1],
                     cube->a_i[k][2]);
}

// Fractional coordinates of a Cartesian point for the lattice rows `a` (x = f0 a0 + f1 a1 +
// f2 a2), by Cramer's rule; false for a singular lattice.
bool cartesian_to_fractional(double f[3], const double x[3], const double a[3][3]) {
    double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                 a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                 a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    if (!(std::fabs(det) > 1e-12)) return false;
    // Solve f^T A = x^T, i.e. A^T f = x.
    double m[3][3];
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) m[r][c] = a[c][r];
    for (int k = 0; k < 3; k++) {
        double t[3][3];
        for (int r = 0; r < 3; r++)
            for (int c = 0; c < 3; c++) t[r][c] = (c == k) ? x[r] : m[r][c];
        double dk = t[0][0] * (t[1][1] * t[2][2] - t[1][2] * t[2][1]) -
                    t[0][1] * (t[1][0] * t[2][2] - t[1][2] * t[2][0]) +
                    t[0][2] * (t[1][0] * t[2][1] - t[1][1] * t[2][0]);
        f[k] = dk / det;
    }
    return true;
}

// Lattice lengths and angles (degrees, with the program's truncated degree factor) from rows.
void lattice_parameters(QUOVIX_CELL *cell) {
    double len[3];
    for (int k = 0; k < 3; k++)
        len[k] = std::sqrt(cell->a[k][0] * cell->a[k][0] + cell->a[k][1] * cell->a[k][1] +
                           cell->a[k][2] * cell->a[k][2]);
    auto angle = [&](int p, int q) {
        if (len[p] <= 0.0 || len[q] <= 0.0) return 0.0;
        double c = (cell->a[p][0] * cell->a[q][0] + cell->a[p][1] * cell->a[q][1] +
                    cell->a[p][2] * cell->a[q][2]) /
                   (len[p] * len[q]);
        if (c > 1.0) c = 1.0;
        if (c < -1.0) c = -1.0;
        return std::acos(c) / QUOVIX_DEG_TO_RAD;
    };
    for (int k = 0; k < 3; k++) cell->parameter[k] = len[k];
    cell->angle[0] = angle(1, 2);
    cell->angle[1] = angle(0, 2);
    cell->angle[2] = angle(0, 1);
}

}  // namespace

/// Zeroed grid of n[0] x n[1] x n[2] values with a, a_i zero. Rows are allocated level by
/// level (en, en[i], en[i][j]) as the 3-D double arrays of the alloc module are, so either
/// free routine fits. Refuses non-positive counts, overflowing products and grids larger than
/// the machine's physical memory. Free with quovix_cube_free. Null on failure.
QUOVIX_CUBE *quovix_cube_new(const long n[3]) {
    if (!n || n[0] <= 0 || n[1] <= 0 || n[2] <= 0) {
        std::fputs("Error: argument must be positive.\n", stderr);
        return nullptr;
    }
    long plane = 0, points = 0, bytes = 0;
    bool overflow = __builtin_mul_overflow(n[0], n[1], &plane) ||
                    __builtin_mul_overflow(plane, n[2], &points) ||
                    __builtin_mul_overflow(points, static_cast<long>(sizeof(double)), &bytes);
    unsigned long long memory = physical_memory_bytes();
    if (overflow || (memory > 0 && static_cast<unsigned long long>(bytes) > memory)) {
        std::fprintf(stderr,
                     "Error: a cube of %ld * %ld * %ld points exceeds the available memory.\n",
                     n[0], n[1], n[2]);
        return nullptr;
    }
    auto *cube = static_cast<QUOVIX_CUBE *>(std::calloc(1, sizeof(QUOVIX_CUBE)));
    if (!cube) {
        std::fputs("Error: unable to allocate QUOVIX_CUBE.\n", stderr);
        return nullptr;
    }
    for (int k = 0; k < 3; k++) cube->n[k] = n[k];
    cube->en =
        static_cast<double ***>(std::calloc(static_cast<std::size_t>(n[0]), sizeof(double **)));
    if (!cube->en) {
        std::fputs("Error: unable to allocate cube->en\n", stderr);
        std::free(cube);
        return nullptr;
    }
    for (long i = 0; i < n[0]; i++) {
        cube->en[i] =
            static_cast<double **>(std::calloc(static_cast<std::size_t>(n[1]), sizeof(double *)));
        if (!cube->en[i]) {
            std::fputs("Error: unable to allocate cube->en[]\n", stderr);
            quovix_cube_free(cube);
            return nullptr;
        }
        for (long j = 0; j < n[1]; j++) {
            cube->en[i][j] =
                static_cast<double *>(std::calloc(static_cast<std::size_t>(n[2]), sizeof(double)));
            if (!cube->en[i][j]) {
                std::fputs("Error: unable to allocate cube->en[][]\n", stderr);
                quovix_cube_free(cube);
                return nullptr;
            }
        }
    }
    return cube;
}

/// Releases the grid and the record; accepts null and partially built cubes.
void quovix_cube_free(QUOVIX_CUBE *cube) {
    if (!cube) return;
    if (cube->en) {
        for (long i = 0; i < cube->n[0]; i++) {
            if (!cube->en[i]) continue;
            for (long j = 0; j < cube->n[1]; j++) std::free(cube->en[i][j]);
            std::free(cube->en[i]);
        }
        std::free(cube->en);
    }
    std::free(cube);
}

/// Prints the grid counts, cell vectors and voxel vectors (A) to standard output; a null cube
/// prints "(not allocated)" without the tag.
void quovix_cube_print_info(const QUOVIX_CUBE *cube) { print_info_to(stdout, cube); }

/// Same as quovix_cube_print_info, to the given stream.
void quovix_cube_fprint_info(std::FILE *out, const QUOVIX_CUBE *cube) { print_info_to(out, cube); }

/// Writes the cube file (binary mode, CR LF line ends, lengths in Bohr). With a cell holding
/// atoms and a parameter set, the header names the cell and the mobile species and lists the
/// atoms (atomic number, fractional charge, position); otherwise it is anonymous. `periodic`
/// false repeats the first plane after the last along every axis. Every atom's species is
/// checked before the file is opened, so a failure never leaves a partial file behind.
/// 0 on success, 1 after printing the reason.
int quovix_cube_export_to_file(const QUOVIX_CUBE *cube, const QUOVIX_CELL *cell,
                               const QUOVIX_PROPERTY *ppt, const char *filename, bool periodic) {
    if (!cube || !cube->en || cube->n[0] <= 0 || cube->n[1] <= 0 || cube->n[2] <= 0) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!filename) {
        std::fputs("Error: unable to open file (null)\n", stderr);
        return 1;
    }
    return quovix_guard("the cube file buffer", [&]() -> int {
        const bool header =
            cell && cell->total > 0 && cell->atom && ppt && ppt->total > 0 && ppt->uni;
        std::vector<int> species;
        if (header) {
            species.resize(static_cast<std::size_t>(cell->total));
            for (long t = 0; t < cell->total; t++) {
                species[t] = quovix_property_find_index(ppt, cell->atom[t].type, cell->atom[t].os);
                if (species[t] < 0) {
                    std::fputs("Error: quovix_property_find_index() returns negative value.\n",
                               stderr);
                    return 1;
                }
            }
            std::puts("Message: cube file is generated with header.");
        } else {
            std::puts("Message: cube file is generated without header.");
        }

        quovix_output_file file(filename);
        if (!file) {
            std::fprintf(stderr, "Error: unable to open file %s\n", filename);
            return 1;
        }
        std::FILE *f = file.get();
        const double bohr = QUOVIX_ANGSTROM_TO_BOHR;
        if (header) {
            std::fprintf(f, "%s\r\n", cell->name);
            int m = ppt->conducting;
            if (m >= 0 && m < ppt->total)
                std::fprintf(f, "Conducting = %s%d%c ; sf = %lf;\r\n", ppt->uni[m].type,
                             quovix_abs_os(ppt->uni[m].os), quovix_sign_char(ppt->uni[m].os),
                             ppt->sf);
            else
                std::fputs("\r\n", f);  // no mobile species named: nothing to state
            std::fprintf(f, "%4ld %11.6f %11.6f %11.6f\r\n", cell->total, 0.0, 0.0, 0.0);
        } else {
            std::fputs("noname\r\n\r\n", f);
            std::fprintf(f, "%4d %11.6f %11.6f %11.6f\r\n", 0, 0.0, 0.0, 0.0);
        }
        const long extra = periodic ? 0 : 1;
        for (int k = 0; k < 3; k++)
            std::fprintf(f, "%4ld %11.6f %11.6f %11.6f\r\n", cube->n[k] + extra,
                         cube->a_i[k][0] * bohr, cube->a_i[k][1] * bohr, cube->a_i[k][2] * bohr);
        if (header) {
            for (long t = 0; t < cell->total; t++) {
                const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[species[t]];
                const QUOVIX_ATOM &atom = cell->atom[t];
                std::fprintf(f, "%4d %11.6f %11.6f %11.6f %11.6f\r\n", u.an, u.q, atom.x[0] * bohr,
                             atom.x[1] * bohr, atom.x[2] * bohr);
            }
        }
        // Values, first index outermost; in a non-periodic file the index count-1 is written
        // as index 0, so the last plane along each axis repeats the first.
        const long c0 = cube->n[0] + extra, c1 = cube->n[1] + extra, c2 = cube->n[2] + extra;
        std::string buf;
        buf.reserve(static_cast<std::size_t>(c2) * 16 + 64);
        for (long i = 0; i < c0; i++) {
            const long ii = (i == cube->n[0]) ? 0 : i;
            for (long j = 0; j < c1; j++) {
                const long jj = (j == cube->n[1]) ? 0 : j;
                const double *row = cube->en[ii][jj];
                buf.clear();
                for (long k = 0; k < c2; k++) append_value(buf, row[k == cube->n[2] ? 0 : k]);
                std::fwrite(buf.data(), 1, buf.size(), f);
            }
        }
        if (std::ferror(f) != 0 || file.commit() != 0) {
            std::fprintf(stderr, "Error: unable to write file %s\n", filename);
            return 1;
        }
        std::printf("Message: cube file saved to %s.\n", filename);
        return 0;
    });
}

/// Reads a cube file into a new cube (*cube) and, when `cell` is not null and the file lists
/// atoms, a new cell (*cell; species from the element table `dir_unitary`, lattice from the
/// grid). `periodic` must match the writer: false drops the repeated last plane of each axis.
/// Sizes are checked against the file length before anything is allocated. The caller frees
/// both; on failure neither is set. 0 on success, 1 after printing the reason.
int quovix_cube_import_from_file(QUOVIX_CUBE **cube, QUOVIX_CELL **cell, const char *filename,
                                 bool periodic, const char *dir_unitary) {
    if (!cube || !filename) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("the cube file buffer", [&]() -> int {
        quovix_file_ptr file{std::fopen(filename, "rb")};
        if (!file) {
            std::fprintf(stderr, "Error: unable to open %s.\n", filename);
            return 1;
        }
        std::FILE *f = file.get();
        std::fseek(f, 0, SEEK_END);
        const long file_size = std::ftell(f);
        std::fseek(f, 0, SEEK_SET);

        std::string line, name;
        long natom = 0;
        bool ok = read_line(f, name);
        ok = ok && read_line(f, line);
        ok = ok && read_line(f, line) && std::sscanf(line.c_str(), "%ld", &natom) == 1;
        if (!ok) {
            std::fprintf(stderr, "Error: unable to read the header of %s.\n", filename);
            return 1;
        }
        if (natom < 0) {
            std::fprintf(stderr, "Error: negative atom count in %s is not supported.\n", filename);
            return 1;
        }
        long count[3];
        double a_i[3][3];
        for (int k = 0; k < 3; k++) {
            if (!read_line(f, line) || std::sscanf(line.c_str(), "%ld", &count[k]) != 1 ||
                std::sscanf(line.c_str(), "%*d %lf %lf %lf", &a_i[k][0], &a_i[k][1], &a_i[k][2]) !=
                    3) {
                std::fprintf(stderr, "Error: unable to read the grid vectors of %s.\n", filename);
                return 1;
            }
            // nan, inf and 1e309 (read as inf) are no length; every later step would carry them.
            if (!std::isfinite(a_i[k][0]) || !std::isfinite(a_i[k][1]) ||
                !std::isfinite(a_i[k][2])) {
                std::fprintf(stderr, "Error: grid vector %d of %s is not finite.\n", k + 1,
                             filename);
                return 1;
            }
        }
        // Counts that the rest of the file cannot hold are refused before allocating: every
        // atom line takes at least 10 bytes and every value at least 2 (a digit, a separator).
        if (count[0] <= 0 || count[1] <= 0 || count[2] <= 0) {
            std::fprintf(stderr, "Error: grid counts %ld * %ld * %ld in %s must be positive.\n",
                         count[0], count[1], count[2], filename);
            return 1;
        }
        long points = 0;
        const long rest = file_size - std::ftell(f);
        if (__builtin_mul_overflow(count[0], count[1], &points) ||
            __builtin_mul_overflow(points, count[2], &points) || points > rest / 2 ||
            natom > rest / 10 || points * 2 + natom * 10 > rest) {
            std::fprintf(stderr,
                         "Error: grid counts %ld * %ld * %ld with %ld atoms do not fit the %ld "
                         "bytes of %s.\n",
                         count[0], count[1], count[2], natom, rest, filename);
            return 1;
        }
        const long shrink = periodic ? 0 : 1;
        const long n[3] = {count[0] - shrink, count[1] - shrink, count[2] - shrink};
        quovix_cube_ptr result{quovix_cube_new(n)};
        if (!result) {
            std::fputs("Error: quovix_cube_new() returns NULL.\n", stderr);
            return 1;
        }
        for (int k = 0; k < 3; k++)
            for (int c = 0; c < 3; c++) {
                result->a_i[k][c] = a_i[k][c] / QUOVIX_ANGSTROM_TO_BOHR;
                result->a[k][c] = result->a_i[k][c] * static_cast<double>(n[k]);
            }

        quovix_cell_ptr atoms;
        if (cell && natom > 0) {
            std::puts("Message: cell information found, attempting to load cell.");
            atoms.reset(quovix_cell_new(natom));
            if (!atoms) {
                std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
                return 1;
            }
            std::snprintf(atoms->name, sizeof atoms->name, "%s", name.c_str());
            for (int k = 0; k < 3; k++)
                for (int c = 0; c < 3; c++) atoms->a[k][c] = result->a[k][c];
            lattice_parameters(atoms.get());
            for (long t = 0; t < natom; t++) {
                QUOVIX_ATOM &atom = atoms->atom[t];
                int an = 0;
                double x[3];
                if (!read_line(f, line) || std::sscanf(line.c_str(), "%d %lf %lf %lf %lf", &an,
                                                       &atom.value, &x[0], &x[1], &x[2]) != 5) {
                    std::fprintf(stderr, "Error: unable to read atom %ld from %s.\n", t + 1,
                                 filename);
                    return 1;
                }
                if (!std::isfinite(atom.value) || !std::isfinite(x[0]) || !std::isfinite(x[1]) ||
                    !std::isfinite(x[2])) {
                    std::fprintf(stderr, "Error: atom %ld of %s has a non-finite number.\n", t + 1,
                                 filename);
                    return 1;
                }
                for (int c = 0; c < 3; c++) atom.x[c] = x[c] / QUOVIX_ANGSTROM_TO_BOHR;
                if (quovix_property_type_from_atomic_number(an, &atom, dir_unitary) != 0) {
                    std::fputs(
                        "Error: quovix_property_type_from_atomic_number() returns non-zero.\n",
                        stderr);
                    return 1;
                }
                // The file carries no occupancy: a listed atom is a whole atom.
                atom.occ = 1.0;
                double fr[3];
                if (cartesian_to_fractional(fr, atom.x, atoms->a)) {
                    for (int c = 0; c < 3; c++) {
                        fr[c] -= std::floor(fr[c]);
                        if (fr[c] >= 1.0) fr[c] -= 1.0;
                        atom.x_f[c] = fr[c];
                    }
                }
            }
        } else {
            std::puts("Message: cell information not read.");
            for (long t = 0; t < natom; t++) {
                if (!read_line(f, line)) {
                    std::fprintf(stderr, "Error: unable to read atom %ld from %s.\n", t + 1,
                                 filename);
                    return 1;
                }
            }
        }

        // The values: the rest of the file, read at once and parsed in the written order.
        std::string data(static_cast<std::size_t>(std::max(rest, 0L)), '\0');
        data.resize(std::fread(data.data(), 1, data.size(), f));
        const char *p = data.data();
        const char *end = p + data.size();
        long read = 0;
        for (long i = 0; i < count[0]; i++) {
            for (long j = 0; j < count[1]; j++) {
                for (long k = 0; k < count[2]; k++) {
                    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n' ||
                                       *p == '\f' || *p == '\v'))
                        p++;
                    if (p == end) {
                        std::fprintf(stderr, "Error: %s ends after %ld of %ld values.\n", filename,
                                     read, points);
                        return 1;
                    }
                    if (*p == '+') p++;
                    double v = 0.0;
                    auto res = std::from_chars(p, end, v);
                    if (res.ec == std::errc::result_out_of_range) {
                        v = std::strtod(std::string(p, res.ptr).c_str(), nullptr);
                    } else if (res.ec != std::errc()) {
                        std::fprintf(stderr, "Error: unable to read value %ld from %s.\n", read + 1,
                                     filename);
                        return 1;
                    }
                    if (!std::isfinite(v)) {
                        std::fprintf(stderr, "Error: value %ld of %s is not finite.\n", read + 1,
                                     filename);
                        return 1;
                    }
                    p = res.ptr;
                    read++;
                    if (i < n[0] && j < n[1] && k < n[2]) result->en[i][j][k] = v;
                }
            }
        }
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n')) p++;
        if (p != end)
            std::printf("Warning: %s holds more data than its grid counts; the rest is ignored.\n",
                        filename);
        std::printf("Message: cube loaded from %s successfully.\n", filename);
        *cube = result.release();
        if (cell) *cell = atoms.release();
        return 0;
    });
}

/// Name of the CIF holding the supercell with resolved occupancies: the input path without
/// its last four characters (when longer than three) followed by "_assigned.cif", from at
/// most 1000 characters of the input.
void quovix_cubename_assigned(char out[QUOVIX_PATH_LEN], const char *input) {
    if (!out) return;
    if (!input) input = "";
    std::size_t len = std::strlen(input);
    if (len > 1000) len = 1000;
    if (len > 3) len -= 4;
    std::snprintf(out, QUOVIX_PATH_LEN, "%.*s_assigned.cif", static_cast<int>(len), input);
}
