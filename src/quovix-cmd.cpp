// Command front end: run context, banner, text mode, argument helper and usage blocks.
#include "quovix-cmd.hpp"

#include <unistd.h>  // readlink, for the directory of the running executable

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

// Data files looked for beside the executable.
// Oxidation states given on the command line: real ones lie well inside; 99 means unknown.
constexpr long kMaxArgumentOs = 99;

constexpr const char *kUnitaryName = "database_unitary.dat";
constexpr const char *kBinaryName = "database_binary.dat";
constexpr const char *kSymcardsName = "database_symcards.dat";

// The path separator of this platform and the directory used when a path has none.
constexpr char kSeparator = '/';
constexpr const char *kCurrentDir = "./";

char *dup_string(const char *s) {
    std::size_t n = std::strlen(s);
    char *out = static_cast<char *>(std::malloc(n + 1));
    if (out) std::memcpy(out, s, n + 1);
    return out;
}

// Directory of the running executable (with a trailing separator) from /proc/self/exe;
// empty when it cannot be read. Used when argv[0] carries no directory, i.e. the program
// was found through PATH, so that the data files beside it are still found.
std::string running_executable_dir() {
    char buf[QUOVIX_PATH_LEN];
    ssize_t len = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (len <= 0) return {};
    buf[len] = '\0';
    char *last = std::strrchr(buf, kSeparator);
    if (!last) return {};
    last[1] = '\0';
    return buf;
}

// Full path of one data file; warns (and carries on) when it cannot be opened.
char *data_file_path(const char *dir, const char *name) {
    char buffer[QUOVIX_PATH_LEN];
    std::snprintf(buffer, sizeof(buffer), "%.1023s", dir);
    std::size_t used = std::strlen(buffer);
    std::snprintf(buffer + used, sizeof(buffer) - used, "%s", name);
    if (quovix_file_ptr probe{std::fopen(buffer, "rb")}; !probe) {
        std::printf("Warning: unable to find %s\n", buffer);
    }
    return dup_string(buffer);
}

}  // namespace

// ---------------------------------------------------------------- run context

QUOVIX_CMD_OPT *quovix_cmd_opt_init(int argc, char **argv) {
    if (argc < 1 || !argv || !argv[0]) {
        std::fputs("Error: unable to allocate QUOVIX_CMD_OPT.\n", stderr);
        return nullptr;
    }
    if (std::strlen(argv[0]) > 999) {
        std::fputs("Error: executable path too long.\n", stderr);
        return nullptr;
    }
    quovix_owner<QUOVIX_CMD_OPT, quovix_cmd_opt_free> opt{
        static_cast<QUOVIX_CMD_OPT *>(std::calloc(1, sizeof(QUOVIX_CMD_OPT)))};
    if (!opt) {
        std::fputs("Error: unable to allocate QUOVIX_CMD_OPT.\n", stderr);
        return nullptr;
    }
    opt->argc = argc;
    opt->argv = argv;

    if (std::strchr(argv[0], kSeparator) == nullptr) {
        std::string dir = running_executable_dir();
        opt->path_executable = dup_string(dir.empty() ? kCurrentDir : dir.c_str());
    } else {
        quovix_cmd_opt_split_path(&opt->path_executable, nullptr, argv[0]);
    }
    if (!opt->path_executable) {
        std::fputs("Error: unable to allocate string.\n", stderr);
        return nullptr;
    }
    opt->dir_unitary = data_file_path(opt->path_executable, kUnitaryName);
    opt->dir_binary = data_file_path(opt->path_executable, kBinaryName);
    opt->dir_symcards = data_file_path(opt->path_executable, kSymcardsName);
    opt->mode_text = dup_string("-:text");
    opt->mode_newline = dup_string("-:nl");
    if (!opt->dir_unitary || !opt->dir_binary || !opt->dir_symcards || !opt->mode_text ||
        !opt->mode_newline) {
        std::fputs("Error: unable to allocate string.\n", stderr);
        return nullptr;
    }
    return opt.release();
}

void quovix_cmd_opt_split_path(char **dir, char **name, const char *path) {
    if (!path) path = "";
    const char *last = std::strrchr(path, kSeparator);
    if (last) {
        std::size_t n = static_cast<std::size_t>(last - path) + 1;
        if (dir) {
            *dir = static_cast<char *>(std::malloc(n + 1));
            if (*dir) {
                std::memcpy(*dir, path, n);
                (*dir)[n] = '\0';
            }
        }
        if (name) *name = dup_string(last + 1);
    } else {
        if (dir) *dir = dup_string(kCurrentDir);
        if (name) *name = dup_string(path);
    }
}

void quovix_cmd_opt_get_type(char *type, const char *str) {
    if (!type) return;
    type[0] = '\0';
    if (!str) return;
    std::size_t n = 0;
    while (n < 2 && str[n] != '\0') {
        type[n] = str[n];
        ++n;
    }
    type[n] = '\0';
    type[2] = '\0';
}

void quovix_cmd_opt_free(QUOVIX_CMD_OPT *opt) {
    if (!opt) return;
    std::free(opt->dir_unitary);
    std::free(opt->dir_binary);
    std::free(opt->dir_symcards);
    std::free(opt->path_executable);
    std::free(opt->mode_text);
    std::free(opt->mode_newline);
    std::free(opt);
}

void quovix_cmd_opt_print(QUOVIX_CMD_OPT *opt) {
    if (!opt) {
        std::printf("CMD_OPT: (not allocated)\n");
        return;
    }
    std::printf("CMD_OPT: dir_unitary=     %s\n", opt->dir_unitary);
    std::printf("CMD_OPT: dir_binary=      %s\n", opt->dir_binary);
    std::printf("CMD_OPT: dir_symcards=    %s\n", opt->dir_symcards);
    std::printf("CMD_OPT: path_executable= %s\n", opt->path_executable);
    std::printf("CMD_OPT: mode_text=   \"%s\"\n", opt->mode_text);
    std::printf("CMD_OPT: mode_newline=\"%s\"\n", opt->mode_newline);
}

QUOVIX_TEXT *quovix_cmd_opt_cat_tail(QUOVIX_CMD_OPT *opt) {
    if (!opt || !opt->argv) {
        std::fputs("Error: text-mode key phrase not found.\n", stderr);
        return nullptr;
    }
    // The last "-:text" among argv[0..argc-2] wins; the final word is not examined.
    int start = -1;
    for (int i = 0; i < opt->argc - 1; ++i) {
        if (std::strcmp(opt->argv[i], opt->mode_text) == 0) start = i + 1;
    }
    if (start < 0) {
        std::fputs("Error: text-mode key phrase not found.\n", stderr);
        return nullptr;
    }
    QUOVIX_TEXT *text = quovix_text_new(nullptr);
    if (!text) {
        std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
        return nullptr;
    }
    for (int i = start; i < opt->argc; ++i) {
        int status = 0;
        if (std::strcmp(opt->argv[i], opt->mode_newline) == 0) {
            status = quovix_text_append(text, "\n");
        } else {
            status = quovix_text_append(text, " ");
            if (status == 0) status = quovix_text_append(text, opt->argv[i]);
        }
        if (status != 0) {
            // A failed append has already released the buffer.
            std::fputs("Error: quovix_text_append() returns non-zero.\n", stderr);
            return nullptr;
        }
    }
    return text;
}

void quovix_cmd_opt_do_print_version(QUOVIX_CMD_OPT *) {
    std::printf("  Quovix-ver 1.3.0-cmd\n");
    std::printf("    --help to list commands available.\n");
    std::printf("    Developed by the Quovix team, bond-valence tools for ionic crystals.\n");
    std::printf("    Please report bugs to the Quovix issue tracker.\n");
}

// ---------------------------------------------------------------- arguments

quovix_args::quovix_args(const QUOVIX_CMD_OPT *opt) {
    if (opt && opt->argv && opt->argc > 2) {
        words = std::span<char *const>(opt->argv + 2, static_cast<std::size_t>(opt->argc - 2));
    }
}

std::string_view quovix_args::str(std::size_t i) const {
    return has(i) ? std::string_view(words[i]) : std::string_view();
}

bool quovix_args::read_double(std::size_t i, double &out) const {
    double v = 0.0;
    if (!has(i) || std::sscanf(words[i], "%lf", &v) != 1) return false;
    out = v;
    return true;
}

bool quovix_args::read_int(std::size_t i, int &out) const {
    int v = 0;
    if (!has(i) || std::sscanf(words[i], "%d", &v) != 1) return false;
    out = v;
    return true;
}

bool quovix_args::read_finite(std::size_t i, double &out) const {
    double v = 0.0;
    if (!read_double(i, v) || !std::isfinite(v)) return false;
    out = v;
    return true;
}

bool quovix_args::read_os(std::size_t i, int &out) const {
    // Read as a long first: "%d" on a word beyond the int range has no defined result.
    long v = 0;
    if (!read_long(i, v) || v < -kMaxArgumentOs || v > kMaxArgumentOs) return false;
    out = static_cast<int>(v);
    return true;
}

bool quovix_args::read_long(std::size_t i, long &out) const {
    long v = 0;
    if (!has(i) || std::sscanf(words[i], "%ld", &v) != 1) return false;
    out = v;
    return true;
}

void quovix_args::read_flag(std::size_t i, bool &out) const {
    if (!has(i)) return;
    char c = words[i][0];
    if (out) {
        if (c == 'f' || c == 'F') out = false;
    } else {
        if (c == 't' || c == 'T') out = true;
    }
}

void quovix_cmd_name_append(char out[QUOVIX_PATH_LEN], const char *input, const char *suffix) {
    std::snprintf(out, QUOVIX_PATH_LEN, "%.1000s%s", input ? input : "", suffix ? suffix : "");
}

void quovix_cmd_name_replace_ext(char out[QUOVIX_PATH_LEN], const char *input, const char *suffix) {
    char base[QUOVIX_PATH_LEN];
    std::snprintf(base, sizeof(base), "%.1000s", input ? input : "");
    std::size_t n = std::strlen(base);
    if (n > 3) base[n - 4] = '\0';
    std::snprintf(out, QUOVIX_PATH_LEN, "%s%s", base, suffix ? suffix : "");
}

namespace {

// Runs one CIF import into owned records; on failure prints "Error: <name>() returns
// non-zero." and leaves both owners empty.
template <class Import>
bool adopt_cif_import(const char *name, quovix_cell_ptr &cell, quovix_symmetry_ptr &symmetry,
                      Import &&import) {
    QUOVIX_CELL *c = nullptr;
    QUOVIX_SYMMETRY *s = nullptr;
    const int status = import(&c, &s);
    cell.reset(c);
    symmetry.reset(s);
    if (status != 0) {
        cell.reset();
        symmetry.reset();
        std::fprintf(stderr, "Error: %s() returns non-zero.\n", name);
        return false;
    }
    return true;
}

}  // namespace

bool quovix_cmd_read_cif(const QUOVIX_CMD_OPT *opt, const char *path, quovix_cell_ptr &cell,
                         quovix_symmetry_ptr &symmetry) {
    return adopt_cif_import("quovix_cell_import_cif_from_file", cell, symmetry,
                            [&](QUOVIX_CELL **c, QUOVIX_SYMMETRY **s) {
                                return quovix_cell_import_cif_from_file(
                                    c, s, path, opt->dir_symcards, opt->dir_unitary);
                            });
}

bool quovix_cmd_read_cif_text(QUOVIX_CMD_OPT *opt, quovix_cell_ptr &cell,
                              quovix_symmetry_ptr &symmetry) {
    quovix_text_ptr text{quovix_cmd_opt_cat_tail(opt)};
    if (!text) {
        std::fputs("Error: quovix_cmd_opt_cat_tail() returns NULL.\n", stderr);
        return false;
    }
    return adopt_cif_import("quovix_cell_import_cif_from_text", cell, symmetry,
                            [&](QUOVIX_CELL **c, QUOVIX_SYMMETRY **s) {
                                return quovix_cell_import_cif_from_text(
                                    c, s, text.get(), opt->dir_symcards, opt->dir_unitary);
                            });
}

bool quovix_cmd_output_name(const quovix_args &args, std::size_t i, const char *suffix,
                            char out[QUOVIX_PATH_LEN]) {
    if (args.has(i))
        std::snprintf(out, QUOVIX_PATH_LEN, "%s", args.c_str(i));
    else
        quovix_cmd_name_replace_ext(out, args.c_str(0), suffix);
    if (quovix_output_check(out, args.c_str(0)) != 0) {
        std::fputs("Error: quovix_output_check() returns non-zero.\n", stderr);
        return false;
    }
    return true;
}

bool quovix_cmd_read_type_os(const quovix_args &args, std::size_t i, char type[QUOVIX_TYPE_LEN],
                             int &os) {
    if (std::sscanf(args.c_str(i), "%2s", type) != 1) {
        std::fputs("Error: wrong parameter type.\n", stderr);
        return false;
    }
    if (!args.read_int(i + 1, os) || os == 0) {
        std::fputs("Error: wrong parameter os.\n", stderr);
        return false;
    }
    return true;
}

bool quovix_cmd_read_sf(const quovix_args &args, std::size_t i, double &sf) {
    sf = -0.1;
    if (!args.has(i)) return true;
    if (!args.read_double(i, sf) || std::isnan(sf) || sf > 10.0) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return false;
    }
    return true;
}

void quovix_cmd_print_lines(std::initializer_list<const char *> lines) {
    for (const char *line : lines) std::fputs(line, stdout);
}
