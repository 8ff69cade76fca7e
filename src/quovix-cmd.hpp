// Command front end: run context, command table, argument helper and handlers.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>

#include "quovix-alloc.hpp"  // owners of the cell and symmetry a handler reads
#include "quovix.hpp"

/// Context of one run; built by quovix_cmd_opt_init, freed by quovix_cmd_opt_free.
struct QUOVIX_CMD_OPT {
    int argc;
    char **argv;            // not owned
    char *dir_unitary;      // full path of database_unitary.dat
    char *dir_binary;       // full path of database_binary.dat
    char *dir_symcards;     // full path of database_symcards.dat
    char *path_executable;  // directory of the executable, ending with '/'
    char *mode_text;        // "-:text"
    char *mode_newline;     // "-:nl"
};

/// The whole run; 0 whenever the context could be built, 1 otherwise.
int quovix_cmd_start(int argc, char **argv);
QUOVIX_CMD_OPT *quovix_cmd_opt_init(int argc, char **argv);
/// Splits `path` at its last '/': dir keeps the separator, "./" when there is none.
/// Either output may be null; results are malloc'ed strings owned by the caller.
void quovix_cmd_opt_split_path(char **dir, char **name, const char *path);
void quovix_cmd_opt_get_type(char *type, const char *str);
void quovix_cmd_opt_free(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_print(QUOVIX_CMD_OPT *opt);
struct QUOVIX_TEXT;
QUOVIX_TEXT *quovix_cmd_opt_cat_tail(QUOVIX_CMD_OPT *opt);

/// Positional arguments of a handler: the words after the command name.
struct quovix_args {
    std::span<char *const> words;
    explicit quovix_args(const QUOVIX_CMD_OPT *opt);
    std::size_t count() const { return words.size(); }
    bool has(std::size_t i) const { return i < words.size(); }
    std::string_view str(std::size_t i) const;
    const char *c_str(std::size_t i) const { return has(i) ? words[i] : nullptr; }
    bool read_double(std::size_t i, double &out) const;  // "%lf"; false if missing/unreadable
    bool read_int(std::size_t i, int &out) const;        // "%d"
    bool read_long(std::size_t i, long &out) const;      // "%ld"
    /// "%lf" and finite: inf, nan and 1e309 are not a tolerance, factor or length.
    bool read_finite(std::size_t i, double &out) const;
    /// "%d" within -99..99 (99: unknown), so that a word such as 2147483648 is refused.
    bool read_os(std::size_t i, int &out) const;
    /// Flag by first letter: default true -> false on 'f'/'F'; default false -> true on 't'/'T'.
    /// A missing word leaves `out` unchanged.
    void read_flag(std::size_t i, bool &out) const;
};

/// Output name: whole input name + suffix, at most 1000 characters of the input.
void quovix_cmd_name_append(char out[QUOVIX_PATH_LEN], const char *input, const char *suffix);
/// Output name: input name without its last four characters (when longer than three) + suffix.
void quovix_cmd_name_replace_ext(char out[QUOVIX_PATH_LEN], const char *input, const char *suffix);

/// Reads the CIF `path` with the run's data files into `cell` and `symmetry`, which then own
/// the records. On failure both end up null, "Error: quovix_cell_import_cif_from_file() returns
/// non-zero." is printed and the result is false.
[[nodiscard]] bool quovix_cmd_read_cif(const QUOVIX_CMD_OPT *opt, const char *path,
                                       quovix_cell_ptr &cell, quovix_symmetry_ptr &symmetry);
/// Reads the CIF given as the command's trailing words (text mode: quovix_cmd_opt_cat_tail)
/// like quovix_cmd_read_cif; on failure prints the chain's error line and returns false.
[[nodiscard]] bool quovix_cmd_read_cif_text(QUOVIX_CMD_OPT *opt, quovix_cell_ptr &cell,
                                            quovix_symmetry_ptr &symmetry);
/// Result file name: word i when given, else the input (word 0) with its extension replaced by
/// `suffix`; checked with quovix_output_check before any calculation. False after the error
/// line when the file cannot be written.
[[nodiscard]] bool quovix_cmd_output_name(const quovix_args &args, std::size_t i,
                                          const char *suffix, char out[QUOVIX_PATH_LEN]);
/// An ion given as words i and i + 1: element symbol (two characters at most) and a non-zero
/// oxidation state; false after "Error: wrong parameter type." or "... os.".
[[nodiscard]] bool quovix_cmd_read_type_os(const quovix_args &args, std::size_t i,
                                           char type[QUOVIX_TYPE_LEN], int &os);
/// The one way to print a usage block ("Command: ..." and "Example: ..." lines): each line as
/// given (the lines carry their own line ends), on standard output.
void quovix_cmd_print_lines(std::initializer_list<const char *> lines);
/// Usage line of an optional screening factor (absent or non-positive: fitted).
inline constexpr const char *QUOVIX_CMD_SF_HELP =
    "Command: {sf}: screening factor. If set to non-positive value, automatic calculation is "
    "triggered. Default -0.1.\n";
/// Optional screening factor at word i: -0.1 (fitted) when absent; a word that is not a number,
/// NaN or above 10 prints "Error: wrong parameter sf." and gives false.
[[nodiscard]] bool quovix_cmd_read_sf(const quovix_args &args, std::size_t i, double &sf);

/// One row of the command table (quovix-cmd-table.cpp).
struct quovix_command {
    const char *option;                 // argv[1], matched exactly
    void (*handler)(QUOVIX_CMD_OPT *);  // quovix_cmd_opt_do_<name>
    const char *help;                   // its --help line; null: not listed (hidden command)
    bool new_group = false;             // a blank line before its --help line
};
/// Every command, in --help order.
std::span<const quovix_command> quovix_cmd_table();
/// The row of `option`, or null.
const quovix_command *quovix_cmd_find(const char *option);

// Handlers: each prints its own usage block when compulsory arguments are missing.
void quovix_cmd_opt_do_print_version(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_help(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_cell(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_ppt(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_ppt_full(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_sym(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_print_cube(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif_reduced(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif_p1(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif_assign(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif_assign_all(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cif_os(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_gin_lib(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_gin_eam(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_gin(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cube(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cube_gii(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cube_tot(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gen_cube_tot_eam(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_charge(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_bv(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_bv_gui(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_bv_type(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_gii(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_cn(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_cn_atom(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_cn_type(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_cn_bv(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_cn_gui(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_sym(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_cal_tot_en(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_rx_sd(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_rx_neb(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_rx_neb_images(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_fft(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_fft_cubes(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_fp_map(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_gh(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_kmc(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_sites(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_md(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_text_cal_bv(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_text_gen_gin_lib(QUOVIX_CMD_OPT *opt);
void quovix_cmd_opt_do_text_gen_gin_lib_set_sf(QUOVIX_CMD_OPT *opt);
