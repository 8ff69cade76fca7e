// Text buffer, record constructors/destructors/printers and zero-filled arrays.
#include "quovix-alloc.hpp"

#include <climits>  // LONG_MAX
#include <cmath>
#include <cstdint>  // PTRDIFF_MAX
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quovix-io.hpp"

namespace {

// Buffers grow and are imported in whole blocks of this many bytes.
constexpr long kTextBlock = 1024;

// Tables of the formatted parameter dump are framed by rules of these widths.
constexpr int kUnitaryRule = 63;
constexpr int kBinaryRule = 90;

// Sign printed after the magnitude of an oxidation state in the parameter
// tables: '+' only for os >= 1, so a neutral species shows as "0-".
char table_sign(int os) { return os >= 1 ? '+' : '-'; }

void print_rule(std::FILE *out, char c, int width) {
    std::fputs("PPT:", out);
    for (int i = 0; i < width; i++) std::fputc(c, out);
    std::fputc('\n', out);
}

void text_print_to(std::FILE *out, const QUOVIX_TEXT *text) {
    if (!text || !text->content) {
        std::fputs("(not allocated)\n", out);
        return;
    }
    std::fprintf(out, "%s\n", text->content);
}

void atom_print_to(std::FILE *out, const QUOVIX_ATOM *atom) {
    if (!atom) {
        std::fputs("ATOM: (not allocated)\n", out);
        return;
    }
    // flag is a 64-bit long here; %ld prints the same digits as %d for every
    // value an int can hold and stays correct beyond.
    std::fprintf(out,
                 "ATOM: name=%6s;type=%2s;os=%2d;x_f=(%5.3f,%5.3f,%5.3f);occ=%5.3f; "
                 "flag=%ld;ignored=%d\n",
                 atom->name, atom->type, atom->os, atom->x_f[0], atom->x_f[1], atom->x_f[2],
                 atom->occ, atom->flag, atom->ignored ? 1 : 0);
}

void cell_print_to(std::FILE *out, const QUOVIX_CELL *cell) {
    if (!cell) {
        std::fputs("CELL: (not allocated)\n", out);
        return;
    }
    std::fprintf(out, "CELL: name: %s\n", cell->name);
    std::fputs("CELL: vector matrix:\n", out);
    for (int i = 0; i < 3; i++) {
        std::fputs("CELL:            ", out);
        for (int j = 0; j < 3; j++) std::fprintf(out, " %11.6f", cell->a[i][j]);
        std::fputc('\n', out);
    }
    std::fprintf(out, "CELL: parameters: %11.6f %11.6f %11.6f\n", cell->parameter[0],
                 cell->parameter[1], cell->parameter[2]);
    std::fprintf(out, "CELL: angles:     %11.6f %11.6f %11.6f\n", cell->angle[0], cell->angle[1],
                 cell->angle[2]);
    std::fprintf(out, "CELL: total atom: %ld\n", cell->total);
    if (!cell->atom) return;
    for (long i = 0; i < cell->total; i++) {
        std::fprintf(out, "CELL: [%3ld]", i);
        atom_print_to(out, &cell->atom[i]);
    }
}

void card_print_to(std::FILE *out, const QUOVIX_CARD *card, bool discrete) {
    if (!card) {
        std::fputs("CARD: (not allocated)\n", out);
        return;
    }
    std::fprintf(out, "CARD: text:%s\n", card->text);
    for (int i = 0; i < 3; i++) {
        std::fputs("CARD: ", out);
        if (discrete) {
            for (int j = 0; j < 3; j++) std::fprintf(out, " %2d", card->r_i[i][j]);
            std::fprintf(out, "      %ld\n", card->t_i[i]);
        } else {
            for (int j = 0; j < 3; j++) std::fprintf(out, " %6.3f", card->r_f[i][j]);
            std::fprintf(out, "      %6.3f\n", card->t_f[i]);
        }
    }
}

void symmetry_print_to(std::FILE *out, const QUOVIX_SYMMETRY *symmetry, bool discrete) {
    if (!symmetry) {
        std::fputs("SYMMETRY: (not allocated)\n", out);
        return;
    }
    std::fprintf(out, "SYMMETRY: Hermann-Maugui group symbol: %s\n", symmetry->sg_HM);
    std::fprintf(out, "SYMMETRY: Hall group symbol: %s\n", symmetry->sg_Hall);
    std::fprintf(out, "SYMMETRY: International Table ID: %d\n", symmetry->sg_id);
    std::fprintf(out, "SYMMETRY: Total number of cards: %d\n", symmetry->total);
    if (!symmetry->card) return;
    for (int i = 0; i < symmetry->total; i++) card_print_to(out, &symmetry->card[i], discrete);
}

void unitary_print_to(std::FILE *out, const QUOVIX_PROPERTY_UNITARY &uni) {
    std::fprintf(out, "%s(%d):soft=%5.3f;rc=%5.3f;m=%6.2f;an=%d;n=%d;g=%d;b=%d;c=%d;q=%6.3f\n",
                 uni.type, uni.os, uni.soft, uni.rc, uni.m, uni.an, uni.n, uni.g, uni.b, uni.c,
                 uni.q);
}

void binary_print_to(std::FILE *out, const QUOVIX_PROPERTY_BINARY &bin) {
    // The comma after d0 is part of the established format.
    std::fprintf(out,
                 "%s(%d)%s(%d):b=%5.3f;b_old=%5.3f;r0=%5.3f;cutoff=%3.1f;cn=%4.2f;d0=%6.3f,"
                 "rmin=%5.3f;r_bc=%5.3f;r_cc=%5.3f;bv_s=%6.3f;en_s=%8.5f;f_s=%7.5f;a0=%6.3f;"
                 "a1=%5.3f;a2=%5.3f\n",
                 bin.type1, bin.os1, bin.type2, bin.os2, bin.b, bin.b_old, bin.r0, bin.cutoff,
                 bin.cn, bin.d0, bin.rmin, bin.r_bc, bin.r_cc, bin.bv_s, bin.en_s, bin.f_s, bin.a0,
                 bin.a1, bin.a2);
}

// A parameter set is printable only when every array of its `total` species exists.
bool property_complete(const QUOVIX_PROPERTY *ppt) {
    return ppt && ppt->total > 0 && ppt->type && ppt->os && ppt->count && ppt->uni && ppt->bin;
}

void property_print_to(std::FILE *out, const QUOVIX_PROPERTY *ppt) {
    if (!property_complete(ppt)) {
        std::fputs("PPT: (not allocated)\n", out);
        return;
    }
    const int n = ppt->total;
    std::fprintf(out, "PPT: total number of PROPERTY_UNITARY: %d\n", n);
    for (int i = 0; i < n; i++) unitary_print_to(out, ppt->uni[i]);
    std::fprintf(out, "PPT: total number of PROPERTY_BINARY: %ld\n", static_cast<long>(n) * n);
    for (int i = 0; i < n; i++) {
        if (!ppt->bin[i]) continue;
        for (int j = 0; j < n; j++) binary_print_to(out, ppt->bin[i][j]);
    }
    if (ppt->conducting >= 0 && ppt->conducting < n) {
        std::fprintf(out, "PPT: conducting species = %s(%d)\n", ppt->type[ppt->conducting],
                     ppt->os[ppt->conducting]);
    } else {
        std::fputs("PPT: conducting species not specified.\n", out);
    }
    std::fprintf(out, "PPT: screening factor=%.6f\n", ppt->sf);
}

void property_print_format_to(std::FILE *out, const QUOVIX_PROPERTY *ppt) {
    if (!property_complete(ppt)) {
        std::fputs("PPT: (not allocated)\n", out);
        return;
    }
    const int n = ppt->total;
    std::fprintf(out, "PPT: total number of PROPERTY_UNITARY: %d\n", n);
    print_rule(out, '=', kUnitaryRule);
    std::fprintf(out, "PPT: | %s | %s | %s | %s | %s | %s | %s |\n", "type", "count", "an",
                 "softness", "  rc", "        q", "     F_1");
    print_rule(out, '-', kUnitaryRule);
    for (int i = 0; i < n; i++) {
        const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[i];
        std::fprintf(out, "PPT: | %2s%d%c | %5.1f | %2d | %8.6f | %4.2f | %9.6f | %8.6f |\n",
                     ppt->type[i], quovix_abs_os(ppt->os[i]), table_sign(ppt->os[i]), ppt->count[i],
                     u.an, u.soft, u.rc, u.q, u.f1);
    }
    print_rule(out, '-', kUnitaryRule);
    std::fprintf(out, "PPT: total number of PROPERTY_BINARY: %ld\n", static_cast<long>(n) * n);
    print_rule(out, '=', kBinaryRule);
    std::fprintf(out, "PPT: | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", "cation", " anion",
                 "     D_0", "   R_min", "    b", "     R_0", "R_cutoff", "  CN", "     F_0");
    print_rule(out, '-', kBinaryRule);
    for (int i = 0; i < n; i++) {
        if (!ppt->bin[i]) continue;
        for (int j = 0; j < n; j++) {
            const QUOVIX_PROPERTY_BINARY &b = ppt->bin[i][j];
            // Pairs without a cutoff (cation-cation, anion-anion) have no bond parameters.
            if (!(b.cutoff > 0.0)) continue;
            // d0 and f0 are stored in units of e^2/(4 pi eps0) / 2; the factor turns them
            // into eV for this table only.
            std::fprintf(out,
                         "PPT: | %4s%d%c | %4s%d%c | %8.6f | %8.6f | %5.3f | %8.6f | %8.6f | "
                         "%4.2f | %8.6f |\n",
                         b.type1, quovix_abs_os(b.os1), table_sign(b.os1), b.type2,
                         quovix_abs_os(b.os2), table_sign(b.os2), b.d0 * QUOVIX_COULOMB * 0.5,
                         b.rmin, b.b, b.r0, b.cutoff, b.cn, b.f0 * QUOVIX_COULOMB * 0.5);
        }
    }
    print_rule(out, '=', kBinaryRule);
    std::fprintf(out, "PPT: screening factor = %.6f\n", ppt->sf);
}

// calloc for counts derived from input: a count whose byte size would exceed
// PTRDIFF_MAX fails like an exhausted allocator instead of reaching calloc.
void *checked_calloc(long count, size_t size) {
    if (count <= 0 || static_cast<unsigned long>(count) > PTRDIFF_MAX / size) return nullptr;
    return std::calloc(static_cast<size_t>(count), size);
}

// Frees the first `m` rows of a row-pointer array and the array itself.
template <class T>
void free_rows(T **array, long m) {
    if (!array) return;
    for (long i = 0; i < m; i++) std::free(array[i]);
    std::free(array);
}

template <class T>
T *array_1d_new(long n) {
    if (n <= 0) {
        std::fputs("Error: unable to allocate QUOVIX_ARRAY_1D.\n", stderr);
        return nullptr;
    }
    T *array = static_cast<T *>(checked_calloc(n, sizeof(T)));
    if (!array) std::fputs("Error: unable to allocate QUOVIX_ARRAY_1D.\n", stderr);
    return array;
}

template <class T>
T **rows_new(long m, long n) {
    T **array = static_cast<T **>(checked_calloc(m, sizeof(T *)));
    if (!array) return nullptr;
    for (long i = 0; i < m; i++) {
        array[i] = static_cast<T *>(checked_calloc(n, sizeof(T)));
        if (!array[i]) {
            free_rows(array, i);
            return nullptr;
        }
    }
    return array;
}

template <class T>
T **array_2d_new(long m, long n) {
    T **array = (m > 0 && n > 0) ? rows_new<T>(m, n) : nullptr;
    if (!array) std::fputs("Error: unable to allocate QUOVIX_ARRAY_2D.\n", stderr);
    return array;
}

template <class T>
void array_3d_free(T ***array, long m, long n) {
    if (!array) return;
    for (long i = 0; i < m; i++) free_rows(array[i], array[i] ? n : 0);
    std::free(array);
}

template <class T>
T ***array_3d_new(long m, long n, long k) {
    if (m <= 0 || n <= 0 || k <= 0) {
        std::fputs("Error: unable to allocate QUOVIX_ARRAY_3D.\n", stderr);
        return nullptr;
    }
    T ***array = static_cast<T ***>(checked_calloc(m, sizeof(T **)));
    if (!array) {
        std::fputs("Error: unable to allocate QUOVIX_ARRAY_3D.\n", stderr);
        return nullptr;
    }
    for (long i = 0; i < m; i++) {
        array[i] = rows_new<T>(n, k);
        if (!array[i]) {
            array_3d_free(array, i, n);
            std::fputs("Error: unable to allocate QUOVIX_ARRAY_3D.\n", stderr);
            return nullptr;
        }
    }
    return array;
}

}  // namespace

// ===================================================================== text buffer

/// New text buffer of 1024 zeroed bytes, length 0; `str` (may be null) is appended.
/// Returns null on failure (error line on stderr); release with quovix_text_free.
QUOVIX_TEXT *quovix_text_new(const char *str) {
    auto *text = static_cast<QUOVIX_TEXT *>(std::calloc(1, sizeof(QUOVIX_TEXT)));
    if (!text) {
        std::fputs("Error: unable to allocate QUOVIX_TEXT.\n", stderr);
        return nullptr;
    }
    text->content = static_cast<char *>(std::calloc(kTextBlock, 1));
    if (!text->content) {
        std::fputs("Error: unable to allocate QUOVIX_TEXT->content.\n", stderr);
        std::free(text);
        return nullptr;
    }
    text->length = 0;
    text->allocated = kTextBlock;
    if (str && quovix_text_append(text, str) != 0) {
        // quovix_text_append has already released the record.
        std::fputs("Error: quovix_text_append() returns non-zero value.\n", stderr);
        return nullptr;
    }
    return text;
}

/// Releases the buffer and the record; null is accepted.
void quovix_text_free(QUOVIX_TEXT *text) {
    if (!text) return;
    std::free(text->content);
    std::free(text);
}

/// Appends `str`. When length + n reaches the allocation, the buffer becomes
/// floor((length + n + 1) / 1024) * 1024 + 1024 bytes, always room for the NUL.
/// Null text or str is a successful no-op. A failed reallocation frees the
/// whole record and returns 1: the caller must not use `text` afterwards.
int quovix_text_append(QUOVIX_TEXT *text, const char *str) {
    if (!text || !str) return 0;
    if (!text->content) {
        std::fputs("Error: QUOVIX->TEXT should not be NULL.\n", stderr);
        return 1;
    }
    const long n = static_cast<long>(std::strlen(str));
    const long need = text->length + n;
    if (need >= text->allocated) {
        const long size = (need + 1) / kTextBlock * kTextBlock + kTextBlock;
        char *grown = static_cast<char *>(std::realloc(text->content, static_cast<size_t>(size)));
        if (!grown) {
            std::fputs("Error: unable to reallocate QUOVIX->content.\n", stderr);
            quovix_text_free(text);
            return 1;
        }
        text->content = grown;
        text->allocated = size;
    }
    std::memcpy(text->content + text->length, str, static_cast<size_t>(n) + 1);
    text->length = need;
    return 0;
}

/// Appends the content of `src` to `des`; an empty `src` is a no-op. Returns 0 or 1;
/// on a failed growth `des` has been freed (see quovix_text_append).
int quovix_text_cat(QUOVIX_TEXT *des, const QUOVIX_TEXT *src) {
    if (!des || !src) {
        std::fputs("Error: QUOVIX_TEXT has not been properly initialized.\n", stderr);
        return 1;
    }
    if (!src->content || src->length == 0) return 0;
    if (quovix_text_append(des, src->content) != 0) {
        std::fputs("Error: quovix_text_append() returns non-zero value.\n", stderr);
        return 1;
    }
    return 0;
}

/// Empties the buffer: shrinks it back to 1024 bytes, zero-fills it, length 0.
int quovix_text_dump(QUOVIX_TEXT *text) {
    if (!text || !text->content) {
        std::fputs("Error: QUOVIX_TEXT has not been properly allocated.\n", stderr);
        return 1;
    }
    if (text->allocated > kTextBlock) {
        char *shrunk = static_cast<char *>(std::realloc(text->content, kTextBlock));
        if (!shrunk) {
            std::fputs("Error: unable to realloc QUOVIX_TEXT->content.\n", stderr);
            return 1;
        }
        text->content = shrunk;
    }
    std::memset(text->content, 0, kTextBlock);
    text->length = 0;
    text->allocated = kTextBlock;
    return 0;
}

/// Prints the content and a newline to stdout; null prints "(not allocated)".
void quovix_text_print(const QUOVIX_TEXT *text) { text_print_to(stdout, text); }

/// As quovix_text_print, to `out`.
void quovix_text_fprint(std::FILE *out, const QUOVIX_TEXT *text) { text_print_to(out, text); }

/// Reads a whole file (binary mode, line ends untouched) into a new buffer of
/// ((size + 1) / 1024 + 1) * 1024 bytes. An empty file counts as a failed read.
/// Returns null on failure; release with quovix_text_free.
QUOVIX_TEXT *quovix_text_import_from_file(const char *filename) {
    quovix_file_ptr file{filename ? std::fopen(filename, "rb") : nullptr};
    if (!file) {
        std::fprintf(stderr, "Error: unable to open %s\n", filename ? filename : "(null)");
        return nullptr;
    }
    long size = -1;
    if (std::fseek(file.get(), 0, SEEK_END) == 0) size = std::ftell(file.get());
    // A directory reports LONG_MAX as its end: sizes that would overflow the block
    // arithmetic below are unreadable, not allocatable.
    if (size < 0 || size > LONG_MAX - 2 * kTextBlock || std::fseek(file.get(), 0, SEEK_SET) != 0) {
        std::fprintf(stderr, "Error: failed to read content of %s\n", filename);
        return nullptr;
    }
    auto *text = static_cast<QUOVIX_TEXT *>(std::calloc(1, sizeof(QUOVIX_TEXT)));
    if (!text) {
        std::fputs("Error: unable to allocate QUOVIX_TEXT.\n", stderr);
        return nullptr;
    }
    quovix_text_ptr owner{text};
    const long allocated = ((size + 1) / kTextBlock + 1) * kTextBlock;
    text->content = static_cast<char *>(checked_calloc(allocated, 1));
    if (!text->content) {
        std::fputs("Error: unable to allocate buffer for cif.\n", stderr);
        return nullptr;
    }
    text->allocated = allocated;
    // One read of the whole file as a single item: zero bytes read (an empty
    // file included) is a failure.
    if (std::fread(text->content, static_cast<size_t>(size), 1, file.get()) != 1) {
        std::fprintf(stderr, "Error: failed to read content of %s\n", filename);
        return nullptr;
    }
    text->length = size;
    return owner.release();
}

namespace {
int text_write(const QUOVIX_TEXT *text, const char *filename, const char *mode) {
    if (!text || !text->content) {
        std::fputs("Error: QUOVIX_TEXT has not been properly allocated.\n", stderr);
        return 1;
    }
    std::FILE *file = filename ? std::fopen(filename, mode) : nullptr;
    if (!file) {
        std::fprintf(stderr, "Error: unable to open %s.\n", filename ? filename : "(null)");
        return 1;
    }
    const auto n = static_cast<size_t>(text->length);
    const bool written = std::fwrite(text->content, 1, n, file) == n;
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        std::fprintf(stderr, "Error: unable to write %s.\n", filename);
        return 1;
    }
    return 0;
}
}  // namespace

/// Writes the content to `filename` as a whole: the file appears complete or not at all, and
/// an existing file of that name is replaced only on success. Returns 0 or 1.
int quovix_text_export_to_file(const QUOVIX_TEXT *text, const char *filename) {
    if (!text || !text->content) {
        std::fputs("Error: QUOVIX_TEXT has not been properly allocated.\n", stderr);
        return 1;
    }
    quovix_output_file out(filename);
    if (!out) {
        std::fprintf(stderr, "Error: unable to open %s.\n", filename ? filename : "(null)");
        return 1;
    }
    const auto n = static_cast<size_t>(text->length);
    if (std::fwrite(text->content, 1, n, out.get()) != n) {
        std::fprintf(stderr, "Error: unable to write %s.\n", filename);
        return 1;
    }
    return out.commit();
}

int quovix_text_append_to_file(const QUOVIX_TEXT *text, const char *filename) {
    return text_write(text, filename, "ab");
}

/// Splits the text at `sep` (and at NUL characters): separators + 1 rows, the
/// separators themselves dropped, a CR before LF kept. Prints the row count as
/// "Message: total lines in the cif: %ld". On success *content owns the rows
/// (free with quovix_array_char_2D_free(*content, *row)); returns 0 or 1.
int quovix_text_segregate_into_rows(char ***content, long *row, const QUOVIX_TEXT *text, char sep) {
    if (!content || !row || !text || !text->content) {
        std::fputs("Error: QUOVIX_TEXT has not been properly allocated.\n", stderr);
        return 1;
    }
    const char *s = text->content;
    const long length = text->length;
    long rows = 0;
    for (long i = 0; i <= length; i++) {
        if (s[i] == sep || s[i] == '\0') rows++;
    }
    std::printf("Message: total lines in the cif: %ld\n", rows);
    char **out = static_cast<char **>(checked_calloc(rows, sizeof(char *)));
    if (!out) {
        std::fputs("Error: unable to allocate content.\n", stderr);
        return 1;
    }
    long start = 0;
    long r = 0;
    for (long i = 0; i <= length; i++) {
        if (s[i] != sep && s[i] != '\0') continue;
        const long len = i - start;
        out[r] = static_cast<char *>(std::calloc(static_cast<size_t>(len) + 1, 1));
        if (!out[r]) {
            std::fputs("Error: quovix_array_char_1D_new() returns NULL.\n", stderr);
            quovix_array_char_2D_free(out, r);
            return 1;
        }
        std::memcpy(out[r], s + start, static_cast<size_t>(len));
        r++;
        start = i + 1;
    }
    *content = out;
    *row = rows;
    return 0;
}

// ===================================================================== atoms and cells

/// Array of `n` zeroed atoms; `n` must be positive. Release with quovix_atom_free.
QUOVIX_ATOM *quovix_atom_new(long n) {
    if (n <= 0) {
        std::fputs("Error: number of atoms must be positive.\n", stderr);
        return nullptr;
    }
    auto *atom = static_cast<QUOVIX_ATOM *>(checked_calloc(n, sizeof(QUOVIX_ATOM)));
    if (!atom) std::fputs("Error: unable to allocate QUOVIX_ATOM.\n", stderr);
    return atom;
}

/// Releases an atom array; null is accepted.
void quovix_atom_free(QUOVIX_ATOM *atom) { std::free(atom); }

/// Prints one atom as an "ATOM: " line to stdout.
void quovix_atom_print(const QUOVIX_ATOM *atom) { atom_print_to(stdout, atom); }

/// As quovix_atom_print, to `out`.
void quovix_atom_fprint(std::FILE *out, const QUOVIX_ATOM *atom) { atom_print_to(out, atom); }

/// Zeroed cell, with `total_atom` zeroed atoms when positive (none otherwise).
/// Null on failure; release with quovix_cell_free.
QUOVIX_CELL *quovix_cell_new(long total_atom) {
    auto *cell = static_cast<QUOVIX_CELL *>(std::calloc(1, sizeof(QUOVIX_CELL)));
    if (!cell) {
        std::fputs("Error: unable to allocate QUOVIX_CELL.\n", stderr);
        return nullptr;
    }
    if (total_atom > 0) {
        cell->atom = static_cast<QUOVIX_ATOM *>(checked_calloc(total_atom, sizeof(QUOVIX_ATOM)));
        if (!cell->atom) {
            std::fputs("Error: unable to allocate QUOVIX_CELL->QUOVIX_ATOM.\n", stderr);
            std::free(cell);
            return nullptr;
        }
        cell->total = total_atom;
    }
    return cell;
}

/// Releases the atom array and the cell; null is accepted.
void quovix_cell_free(QUOVIX_CELL *cell) {
    if (!cell) return;
    std::free(cell->atom);
    std::free(cell);
}

/// Prints the cell (lattice, parameters, every atom) with "CELL: " lines to stdout.
void quovix_cell_print(const QUOVIX_CELL *cell) { cell_print_to(stdout, cell); }

/// As quovix_cell_print, to `out`.
void quovix_cell_fprint(std::FILE *out, const QUOVIX_CELL *cell) { cell_print_to(out, cell); }

/// Deep copy of a cell (all fields and a new atom array). Null in, null out;
/// release the copy with quovix_cell_free.
QUOVIX_CELL *quovix_cell_copy(const QUOVIX_CELL *cell) {
    if (!cell) return nullptr;
    quovix_cell_ptr copy{quovix_cell_new(0)};
    if (!copy) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    *copy = *cell;
    copy->atom = nullptr;
    copy->total = 0;
    if (cell->total > 0 && cell->atom) {
        copy->atom = quovix_atom_new(cell->total);
        if (!copy->atom) {
            std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
            return nullptr;
        }
        std::memcpy(copy->atom, cell->atom, static_cast<size_t>(cell->total) * sizeof(QUOVIX_ATOM));
        copy->total = cell->total;
    }
    return copy.release();
}

// ===================================================================== symmetry

/// Zeroed card with `text` copied in (at most 35 characters, always terminated;
/// null leaves it empty). Release with quovix_card_free.
QUOVIX_CARD *quovix_card_new(const char *text) {
    auto *card = static_cast<QUOVIX_CARD *>(std::calloc(1, sizeof(QUOVIX_CARD)));
    if (!card) {
        std::fputs("Error: unable to allocate CARD.\n", stderr);
        return nullptr;
    }
    if (text) {
        // Over-long operations are cut at the field width; the calloc keeps the NUL.
        std::strncpy(card->text, text, QUOVIX_CARD_TEXT_LEN - 1);
    }
    return card;
}

/// Releases one card; null is accepted.
void quovix_card_free(QUOVIX_CARD *card) { std::free(card); }

/// Prints the text and the fractional rotation/translation with "CARD: " lines.
void quovix_card_print(const QUOVIX_CARD *card) { card_print_to(stdout, card, false); }

/// Prints the text and the integer rotation/translation with "CARD: " lines.
void quovix_card_print_discrete(const QUOVIX_CARD *card) { card_print_to(stdout, card, true); }

/// As quovix_card_print (discrete: quovix_card_print_discrete), to `out`.
void quovix_card_fprint(std::FILE *out, const QUOVIX_CARD *card, bool discrete) {
    card_print_to(out, card, discrete);
}

/// Zeroed symmetry with `total_card` zeroed cards when positive. Null on failure;
/// release with quovix_symmetry_free.
QUOVIX_SYMMETRY *quovix_symmetry_new(int total_card) {
    auto *symmetry = static_cast<QUOVIX_SYMMETRY *>(std::calloc(1, sizeof(QUOVIX_SYMMETRY)));
    if (!symmetry) {
        std::fputs("Error: unable to allocate QUOVIX_SYMMETRY.\n", stderr);
        return nullptr;
    }
    if (total_card > 0) {
        symmetry->card =
            static_cast<QUOVIX_CARD *>(checked_calloc(total_card, sizeof(QUOVIX_CARD)));
        if (!symmetry->card) {
            std::fputs("Error: unable to allocate QUOVIX_SYMMETRY->QUOVIX_CARD.\n", stderr);
            std::free(symmetry);
            return nullptr;
        }
        symmetry->total = total_card;
    }
    return symmetry;
}

/// Releases the cards and the record; null is accepted.
void quovix_symmetry_free(QUOVIX_SYMMETRY *symmetry) {
    if (!symmetry) return;
    std::free(symmetry->card);
    std::free(symmetry);
}

/// Prints the group symbols, number and every card (fractional form).
void quovix_symmetry_print(const QUOVIX_SYMMETRY *symmetry) {
    symmetry_print_to(stdout, symmetry, false);
}

/// Prints the group symbols, number and every card (integer form).
void quovix_symmetry_print_discrete(const QUOVIX_SYMMETRY *symmetry) {
    symmetry_print_to(stdout, symmetry, true);
}

/// As quovix_symmetry_print (discrete: _print_discrete), to `out`.
void quovix_symmetry_fprint(std::FILE *out, const QUOVIX_SYMMETRY *symmetry, bool discrete) {
    symmetry_print_to(out, symmetry, discrete);
}

/// One-card P1 symmetry: "P 1", id 1, card "x, y, z" with identity r_f and zero
/// t_f (Cartesian and integer forms left zero). Release with quovix_symmetry_free.
QUOVIX_SYMMETRY *quovix_symmetry_new_p1() {
    QUOVIX_SYMMETRY *symmetry = quovix_symmetry_new(1);
    if (!symmetry) {
        std::fputs("Error: quovix_symmetry_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::strcpy(symmetry->sg_HM, "P 1");
    std::strcpy(symmetry->sg_Hall, "P 1");
    symmetry->sg_id = 1;
    std::strcpy(symmetry->card[0].text, "x, y, z");
    for (int i = 0; i < 3; i++) symmetry->card[0].r_f[i][i] = 1.0;
    return symmetry;
}

/// True when the symmetry holds exactly one card equal to the identity (rotation
/// and translation within 0.001).
bool quovix_symmetry_is_p1(const QUOVIX_SYMMETRY *symmetry) {
    if (!symmetry || symmetry->total != 1 || !symmetry->card) return false;
    const QUOVIX_CARD &c = symmetry->card[0];
    for (int i = 0; i < 3; i++) {
        if (std::abs(c.t_f[i]) > 0.001) return false;
        for (int j = 0; j < 3; j++) {
            if (std::abs(c.r_f[i][j] - (i == j ? 1.0 : 0.0)) > 0.001) return false;
        }
    }
    return true;
}

// ===================================================================== parameter sets

/// Zeroed array of `total` (> 0) species records. Release with quovix_property_unitary_free.
QUOVIX_PROPERTY_UNITARY *quovix_property_unitary_new(int total) {
    if (total <= 0) {
        std::fputs("Error: number of counts must be positive.\n", stderr);
        return nullptr;
    }
    auto *uni = static_cast<QUOVIX_PROPERTY_UNITARY *>(
        checked_calloc(total, sizeof(QUOVIX_PROPERTY_UNITARY)));
    if (!uni) std::fputs("Error: unable to allocate QUOVIX_PROPERTY_UNITARY.\n", stderr);
    return uni;
}

/// Releases a species array; null is accepted.
void quovix_property_unitary_free(QUOVIX_PROPERTY_UNITARY *uni) { std::free(uni); }

/// Prints one species record as a single line to stdout.
void quovix_property_unitary_print(QUOVIX_PROPERTY_UNITARY uni) { unitary_print_to(stdout, uni); }

/// Zeroed `total` x `total` pair matrix (array of row arrays) into *bin. Returns
/// 0, or 1 with nothing allocated. Release with quovix_property_binary_free(*bin, total).
int quovix_property_binary_new(QUOVIX_PROPERTY_BINARY ***bin, int total) {
    if (total <= 0) {
        std::fputs("Error: number of counts must be positive.\n", stderr);
        return 1;
    }
    if (!bin) {
        std::fputs("Error: unable to allocate QUOVIX_PROPERTY_BINARY.\n", stderr);
        return 1;
    }
    auto **rows = static_cast<QUOVIX_PROPERTY_BINARY **>(
        checked_calloc(total, sizeof(QUOVIX_PROPERTY_BINARY *)));
    if (!rows) {
        std::fputs("Error: unable to allocate QUOVIX_PROPERTY_BINARY.\n", stderr);
        return 1;
    }
    for (int i = 0; i < total; i++) {
        rows[i] = static_cast<QUOVIX_PROPERTY_BINARY *>(
            checked_calloc(total, sizeof(QUOVIX_PROPERTY_BINARY)));
        if (!rows[i]) {
            std::fprintf(stderr, "Error: unable to allocate QUOVIX_PROPERTY_BINARY[%d].\n", i);
            free_rows(rows, i);
            return 1;
        }
    }
    *bin = rows;
    return 0;
}

/// Releases a pair matrix of `total` rows (null rows skipped); null is accepted.
void quovix_property_binary_free(QUOVIX_PROPERTY_BINARY **bin, int total) {
    free_rows(bin, total > 0 ? total : 0);
}

/// Prints one pair record as a single line to stdout.
void quovix_property_binary_print(QUOVIX_PROPERTY_BINARY bin) { binary_print_to(stdout, bin); }

/// Parameter set for `total` species: conducting -1, sf 0 and, when total > 0,
/// zeroed species arrays and pair matrix. total 0 gives a record without arrays;
/// negative fails. Null on failure; release with quovix_property_free.
QUOVIX_PROPERTY *quovix_property_new(int total) {
    if (total < 0) {
        std::fputs("Error: number of counts must not be negative.\n", stderr);
        return nullptr;
    }
    auto *raw = static_cast<QUOVIX_PROPERTY *>(std::calloc(1, sizeof(QUOVIX_PROPERTY)));
    if (!raw) {
        std::fputs("Error: unable to allocate QUOVIX_PROPERTY.\n", stderr);
        return nullptr;
    }
    quovix_property_ptr ppt{raw};
    ppt->total = total;
    ppt->conducting = -1;
    ppt->sf = 0.0;
    if (total == 0) return ppt.release();
    const auto n = static_cast<size_t>(total);
    ppt->type =
        static_cast<char(*)[QUOVIX_TYPE_LEN]>(std::calloc(n, sizeof(char[QUOVIX_TYPE_LEN])));
    if (!ppt->type) {
        std::fputs("Error: unable to allocate type[].\n", stderr);
        return nullptr;
    }
    ppt->os = static_cast<int *>(std::calloc(n, sizeof(int)));
    if (!ppt->os) {
        std::fputs("Error: unable to allocate os[].\n", stderr);
        return nullptr;
    }
    ppt->count = static_cast<double *>(std::calloc(n, sizeof(double)));
    if (!ppt->count) {
        std::fputs("Error: unable to allocate count[].\n", stderr);
        return nullptr;
    }
    ppt->uni = quovix_property_unitary_new(total);
    if (!ppt->uni) {
        std::fputs("Error: quovix_property_unitary_new() returns NULL.\n", stderr);
        return nullptr;
    }
    if (quovix_property_binary_new(&ppt->bin, total) != 0) {
        std::fputs("Error: quovix_property_binary_new() returns non-zero.\n", stderr);
        return nullptr;
    }
    return ppt.release();
}

/// Deep copy of a parameter set (species arrays, records, pair matrix, sf,
/// conducting). Fails unless `ppt`, its `uni` and `bin` exist. Release with
/// quovix_property_free.
QUOVIX_PROPERTY *quovix_property_copy(const QUOVIX_PROPERTY *ppt) {
    if (!ppt || !ppt->uni || !ppt->bin || ppt->total <= 0) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return nullptr;
    }
    quovix_property_ptr copy{quovix_property_new(ppt->total)};
    if (!copy) {
        std::fputs("Error: quovix_property_new() returns NULL.\n", stderr);
        return nullptr;
    }
    const auto n = static_cast<size_t>(ppt->total);
    if (ppt->type) std::memcpy(copy->type, ppt->type, n * sizeof(char[QUOVIX_TYPE_LEN]));
    if (ppt->os) std::memcpy(copy->os, ppt->os, n * sizeof(int));
    if (ppt->count) std::memcpy(copy->count, ppt->count, n * sizeof(double));
    std::memcpy(copy->uni, ppt->uni, n * sizeof(QUOVIX_PROPERTY_UNITARY));
    for (size_t i = 0; i < n; i++) {
        if (ppt->bin[i]) std::memcpy(copy->bin[i], ppt->bin[i], n * sizeof(QUOVIX_PROPERTY_BINARY));
    }
    copy->sf = ppt->sf;
    copy->conducting = ppt->conducting;
    return copy.release();
}

/// Releases the arrays, the pair matrix and the record; null is accepted.
void quovix_property_free(QUOVIX_PROPERTY *ppt) {
    if (!ppt) return;
    std::free(ppt->type);
    std::free(ppt->os);
    std::free(ppt->count);
    quovix_property_unitary_free(ppt->uni);
    quovix_property_binary_free(ppt->bin, ppt->total);
    std::free(ppt);
}

/// Raw dump of a parameter set with "PPT: " lines; null or empty prints
/// "PPT: (not allocated)".
void quovix_property_print(const QUOVIX_PROPERTY *ppt) { property_print_to(stdout, ppt); }

/// The species and pair tables of --print-ppt (pairs without a cutoff skipped;
/// D_0 and F_0 converted to eV).
void quovix_property_print_format(const QUOVIX_PROPERTY *ppt) {
    property_print_format_to(stdout, ppt);
}

/// As quovix_property_print, to `out`.
void quovix_property_fprint(std::FILE *out, const QUOVIX_PROPERTY *ppt) {
    property_print_to(out, ppt);
}

/// As quovix_property_print_format, to `out`.
void quovix_property_fprint_format(std::FILE *out, const QUOVIX_PROPERTY *ppt) {
    property_print_format_to(out, ppt);
}

// ===================================================================== arrays

/// Zero-filled array of n (> 0) ints; release with quovix_array_int_1D_free.
int *quovix_array_int_1D_new(long n) { return array_1d_new<int>(n); }
/// m separately allocated zero-filled rows of n ints; release with quovix_array_int_2D_free.
int **quovix_array_int_2D_new(long m, long n) { return array_2d_new<int>(m, n); }
/// m x n x k zero-filled ints; release with quovix_array_int_3D_free(array, m, n).
int ***quovix_array_int_3D_new(long m, long n, long k) { return array_3d_new<int>(m, n, k); }
/// Releases a 1-D array; null is accepted.
void quovix_array_int_1D_free(int *array) { std::free(array); }
/// Releases a 2-D array of m rows (null rows skipped); null is accepted.
void quovix_array_int_2D_free(int **array, long m) { free_rows(array, m); }
/// Releases a 3-D array of outer sizes m, n; null is accepted.
void quovix_array_int_3D_free(int ***array, long m, long n) { array_3d_free(array, m, n); }

/// Zero-filled array of n (> 0) doubles; release with quovix_array_double_1D_free.
double *quovix_array_double_1D_new(long n) { return array_1d_new<double>(n); }
/// m separately allocated zero-filled rows of n doubles.
double **quovix_array_double_2D_new(long m, long n) { return array_2d_new<double>(m, n); }
/// m x n x k zero-filled doubles; release with quovix_array_double_3D_free(array, m, n).
double ***quovix_array_double_3D_new(long m, long n, long k) {
    return array_3d_new<double>(m, n, k);
}
/// Releases a 1-D array; null is accepted.
void quovix_array_double_1D_free(double *array) { std::free(array); }
/// Releases a 2-D array of m rows (null rows skipped); null is accepted.
void quovix_array_double_2D_free(double **array, long m) { free_rows(array, m); }
/// Releases a 3-D array of outer sizes m, n; null is accepted.
void quovix_array_double_3D_free(double ***array, long m, long n) { array_3d_free(array, m, n); }

/// Prints " %5.3f" per element and a newline; null prints "(not allocated)".
void quovix_array_double_1D_print(double *array, long n) {
    if (!array) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    for (long i = 0; i < n; i++) std::printf(" %5.3f", array[i]);
    std::fputc('\n', stdout);
}

/// Prints each of the m rows as a 1-D line; null prints "(not allocated)".
void quovix_array_double_2D_print(double **array, long m, long n) {
    if (!array) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    for (long i = 0; i < m; i++) quovix_array_double_1D_print(array[i], n);
}

/// Zero-filled array of n (> 0) chars; release with quovix_array_char_1D_free.
char *quovix_array_char_1D_new(long n) { return array_1d_new<char>(n); }
/// m separately allocated zero-filled rows of n chars.
char **quovix_array_char_2D_new(long m, long n) { return array_2d_new<char>(m, n); }
/// m x n x k zero-filled chars; release with quovix_array_char_3D_free(array, m, n).
char ***quovix_array_char_3D_new(long m, long n, long k) { return array_3d_new<char>(m, n, k); }
/// Releases a 1-D array; null is accepted.
void quovix_array_char_1D_free(char *array) { std::free(array); }
/// Releases a 2-D array of m rows (null rows skipped); null is accepted.
void quovix_array_char_2D_free(char **array, long m) { free_rows(array, m); }
/// Releases a 3-D array of outer sizes m, n; null is accepted.
void quovix_array_char_3D_free(char ***array, long m, long n) { array_3d_free(array, m, n); }

/// Prints the string and a newline; null prints "(not allocated)".
void quovix_array_char_1D_print(char *array) {
    if (!array) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    std::printf("%s\n", array);
}

/// Prints each of the m strings on its own line; null prints "(not allocated)".
void quovix_array_char_2D_print(char **array, long m) {
    if (!array) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    for (long i = 0; i < m; i++) quovix_array_char_1D_print(array[i]);
}

/// One line per outer index: "|%s|" per string ("|(not allocated)|" for a null
/// string, "(not allocated)" for a null row); null prints "(not allocated)".
void quovix_array_char_3D_print(char ***array, long m, long n) {
    if (!array) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    for (long i = 0; i < m; i++) {
        if (!array[i]) {
            std::fputs("(not allocated)", stdout);
        } else {
            for (long j = 0; j < n; j++) {
                if (array[i][j]) {
                    std::printf("|%s|", array[i][j]);
                } else {
                    std::fputs("|(not allocated)|", stdout);
                }
            }
        }
        std::fputc('\n', stdout);
    }
}

/// Zero-filled (false) array of n (> 0) bools; release with quovix_array_bool_1D_free.
bool *quovix_array_bool_1D_new(long n) { return array_1d_new<bool>(n); }
/// Releases a bool array; null is accepted.
void quovix_array_bool_1D_free(bool *array) { std::free(array); }
