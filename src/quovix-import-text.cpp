// CIF text: the tokenizer, the loop-block and keyword searches on the rows of a CIF, and a
// read-only view of a loop block with column lookup. Lowest layer of the reading chain:
// the symmetry reader and the CIF reader both build on it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-import.hpp"

namespace {

bool is_blank_char(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool contains(const char *row, const char *key) {
    return row != nullptr && key != nullptr && std::strstr(row, key) != nullptr;
}

char *duplicate(const std::string &s) {
    char *out = static_cast<char *>(std::malloc(s.size() + 1));
    if (out != nullptr) std::memcpy(out, s.c_str(), s.size() + 1);
    return out;
}

// Splits one data row into tokens: separators are space, tab, CR and LF; a token that
// starts with a single quote runs to the next single quote (which ends it whatever
// follows). Returns false for a quote left open before the end of the row or a CR/LF.
bool tokenize_record(const char *row, std::vector<std::string> &tokens) {
    tokens.clear();
    const char *p = row;
    for (;;) {
        while (*p != '\0' && is_blank_char(*p)) ++p;
        if (*p == '\0') return true;
        if (*p == '\'') {
            const char *q = p + 1;
            while (*q != '\0' && *q != '\'' && *q != '\r' && *q != '\n') ++q;
            if (*q != '\'') return false;
            tokens.emplace_back(p + 1, static_cast<std::size_t>(q - p - 1));
            p = q + 1;
        } else {
            const char *q = p;
            while (*q != '\0' && !is_blank_char(*q)) ++q;
            tokens.emplace_back(p, static_cast<std::size_t>(q - p));
            p = q;
        }
    }
}

// First whitespace-delimited token of a header row.
bool first_token(const char *row, std::string &out) {
    const char *p = row;
    while (*p != '\0' && is_blank_char(*p)) ++p;
    const char *q = p;
    while (*q != '\0' && !is_blank_char(*q)) ++q;
    if (q == p) return false;
    out.assign(p, static_cast<std::size_t>(q - p));
    return true;
}

// Allocates the loop block: rows x cols cells, strings allocated one by one (cells without
// a token stay null). Released with quovix_array_char_3D_free(loop, rows, cols).
int build_loop(char ****out, char **content, long header_begin, long data_begin, long data_end,
               long rows, long cols) {
    char ***loop =
        static_cast<char ***>(std::calloc(static_cast<std::size_t>(rows), sizeof(char **)));
    if (loop == nullptr) {
        std::fputs("Error: unable to allocate loop.\n", stderr);
        return 1;
    }
    const auto fail = [&]() {
        quovix_array_char_3D_free(loop, rows, cols);
        return 1;
    };
    for (long i = 0; i < rows; ++i) {
        loop[i] = static_cast<char **>(std::calloc(static_cast<std::size_t>(cols), sizeof(char *)));
        if (loop[i] == nullptr) {
            std::fprintf(stderr, "Error: unable to allocate loop[%ld].\n", i);
            return fail();
        }
    }
    const auto put = [&](long i, long j, const std::string &s) {
        char *cell = quovix_array_char_1D_new(static_cast<long>(s.size()) + 1);
        if (cell == nullptr) {
            std::fputs("Error: quovix_array_char_1D_new() returns NULL.\n", stderr);
            return false;
        }
        std::memcpy(cell, s.c_str(), s.size() + 1);
        loop[i][j] = cell;
        return true;
    };
    std::string tag;
    for (long j = 0; j < cols; ++j) {
        if (!first_token(content[header_begin + j], tag)) {
            std::fputs("Error: sscanf() returns 0.\n", stderr);
            return fail();
        }
        if (!put(0, j, tag)) return fail();
    }
    std::vector<std::string> tokens;
    for (long r = data_begin; r < data_end; ++r) {
        const long record = r - data_begin + 1;
        if (!tokenize_record(content[r], tokens)) {
            std::fprintf(stderr, "Error: open single quotation mark detected at row %ld.\n",
                         record);
            return fail();
        }
        // Tokens beyond the loop's columns are discarded.
        for (std::size_t k = 0; k < tokens.size() && static_cast<long>(k) < cols; ++k) {
            if (!put(record, static_cast<long>(k), tokens[k])) return fail();
        }
    }
    *out = loop;
    return 0;
}

int grep_loop(char ****loop, long *rows, long *cols, const char *key, char **content, long row) {
    bool in_block = false, in_header = false, wanted = false;
    long header_begin = 0, data_begin = -1, block_end = -1;
    for (long r = 0; r < row; ++r) {
        const char *s = content[r] != nullptr ? content[r] : "";
        if (in_block) {
            const char first = quovix_array_char_1D_first_nonspace_char(s);
            const bool ends = quovix_array_char_1D_is_blank_line(s) || first == '#' ||
                              contains(s, "loop_") || (!in_header && first == '_');
            if (!ends) {
                if (in_header) {
                    if (first != '_') {
                        in_header = false;
                        data_begin = r;
                    } else if (contains(s, key)) {
                        wanted = true;
                    }
                }
                continue;
            }
            in_block = false;
            if (wanted) {
                block_end = r;
                break;
            }
        }
        if (contains(s, "loop_")) {
            in_block = true;
            in_header = true;
            wanted = false;
            header_begin = r + 1;
            data_begin = -1;
        }
    }
    if (in_block && wanted) block_end = row;  // the block runs to the last row of the text
    if (!wanted || block_end < 0 || data_begin < 0 || data_begin >= block_end) {
        std::printf("Warning: _loop block containing %s not found.\n", key);
        return 1;
    }
    const long c = data_begin - header_begin;
    const long r = block_end - data_begin + 1;
    if (build_loop(loop, content, header_begin, data_begin, block_end, r, c) != 0) return 1;
    *rows = r;
    *cols = c;
    return 0;
}

}  // namespace

/// Column whose tag (row 0) contains `key`: the first match, or the last when `last`; -1
/// when no tag matches.
long quovix_cif_loop::column(const char *key, bool last) const {
    long col = -1;
    if (cells == nullptr || cells[0] == nullptr) return -1;
    for (long j = 0; j < cols; ++j) {
        if (contains(cells[0][j], key)) {
            col = j;
            if (!last) break;
        }
    }
    return col;
}

/// Text of record `i` in column `col`, null for a missing column or an empty cell.
const char *quovix_cif_loop::at(long i, long col) const {
    if (cells == nullptr || cells[i] == nullptr || col < 0) return nullptr;
    return cells[i][col];
}

/// 1 when some row contains `key` as a substring, else 0.
int quovix_cell_import_cif_exist_keyword(const char *key, char **rows, long row) {
    if (rows == nullptr || key == nullptr) return 0;
    for (long r = 0; r < row; ++r) {
        if (contains(rows[r], key)) return 1;
    }
    return 0;
}

/// Value of a single-valued key, found in the first row containing it: a semicolon text
/// field on the following rows (trailing CRs dropped, rows joined without separator), else
/// everything between the first and the last single quote of the row, else the first
/// token after the key. Newly malloc'ed (free with std::free), or null.
char *quovix_cell_import_cif_grep_keyword(const char *key, char **rows, long row) {
    if (rows == nullptr || key == nullptr) return nullptr;
    return quovix_guard("keyword value", [&]() -> char * {
        long r = 0;
        while (r < row && !contains(rows[r], key)) ++r;
        if (r >= row) return nullptr;
        const char *s = rows[r];
        if (r < row - 2 && rows[r + 1] != nullptr && rows[r + 1][0] == ';') {
            std::string value;
            for (long k = r + 2; k < row; ++k) {
                const char *t = rows[k] != nullptr ? rows[k] : "";
                if (t[0] == ';') return duplicate(value);
                std::string piece(t);
                if (!piece.empty() && piece.back() == '\r') piece.pop_back();
                value += piece;
            }
            return nullptr;  // no closing ';' row
        }
        const char *q1 = std::strchr(s, '\'');
        const char *q2 = std::strrchr(s, '\'');
        if (q1 != nullptr && q2 != q1) {
            return duplicate(std::string(q1 + 1, static_cast<std::size_t>(q2 - q1 - 1)));
        }
        const char *p = std::strstr(s, key) + std::strlen(key);
        while (*p == ' ' || *p == '\t') ++p;
        if (*p == '\0' || *p == '\r') return nullptr;
        const char *e = p;
        while (*e != '\0' && *e != ' ' && *e != '\t' && *e != '\r') ++e;
        return duplicate(std::string(p, static_cast<std::size_t>(e - p)));
    });
}

/// The loop block whose header contains `key`: row 0 holds the tags, rows 1.. one record
/// per text row, cells without a token null. 0 on success (free the block with
/// quovix_array_char_3D_free(*loop, *rows, *cols)); 1 with a warning when there is no such
/// block with data rows, or with an error line for malformed records.
int quovix_cell_import_cif_grep_loop(char ****loop, long *rows, long *cols, const char *key,
                                     char **content, long row) {
    if (loop == nullptr || rows == nullptr || cols == nullptr || key == nullptr ||
        content == nullptr) {
        std::fputs("Error: unable to allocate loop.\n", stderr);
        return 1;
    }
    *loop = nullptr;
    *rows = 0;
    *cols = 0;
    return quovix_guard("loop",
                        [&]() -> int { return grep_loop(loop, rows, cols, key, content, row); });
}

/// 1 for a null or empty row or one holding only spaces, tabs, LF and CR.
int quovix_array_char_1D_is_blank_line(const char *row) {
    return quovix_array_char_1D_first_nonspace_char(row) == '\0' ? 1 : 0;
}

/// First character that is not a space, tab, LF or CR; 0 when there is none.
char quovix_array_char_1D_first_nonspace_char(const char *row) {
    if (row == nullptr) return '\0';
    while (*row != '\0' && is_blank_char(*row)) ++row;
    return *row;
}
