// Structures and parameters: CIF reading, symmetry, cell operations, CIF writing,
// parameter sets and pair functions.
#pragma once

#include <cstdio>
#include <cstring>
#include <span>  // lists of pair-parameter checks

#include "quovix-alloc.hpp"

// ======================================================================
// Data files (parameter and element tables)
// ======================================================================
/// Calls visit(line) for each data line of an open data file: the lines after the one
/// containing "DATA_START" up to the one containing "DATA_END" (excluded) or the end of the
/// file, read as fgets chunks of 1023 characters (an overlong line is seen as several lines).
/// `visit` receives the line buffer (which it may modify) and returns true to stop.
template <class F>
void quovix_data_lines_for_each(std::FILE *file, F &&visit) {
    char buf[1024];
    bool started = false;
    while (std::fgets(buf, sizeof buf, file) != nullptr) {
        if (!started) {
            started = std::strstr(buf, "DATA_START") != nullptr;
            continue;
        }
        if (std::strstr(buf, "DATA_END") != nullptr || visit(buf)) return;
    }
}

// ======================================================================
// CIF text (quovix-import-text.cpp): tokenizer, loop-block and keyword searches
// ======================================================================
/// Read-only view of a loop block as built by quovix_cell_import_cif_grep_loop: row 0 holds
/// the tags, rows 1 .. rows-1 one record each; cells without a token are null.
struct quovix_cif_loop {
    char ***cells = nullptr;
    long rows = 0;
    long cols = 0;
    /// Column whose tag contains `key`: the first match, or the last when `last`; -1 if none.
    long column(const char *key, bool last = false) const;
    /// Text of record i in column col; null for col < 0 or an empty cell.
    const char *at(long i, long col) const;
};
int quovix_cell_import_cif_exist_keyword(const char *key, char **rows, long row);
/// Value of a single-valued key, malloc'ed (free with std::free), or null.
char *quovix_cell_import_cif_grep_keyword(const char *key, char **rows, long row);
/// Loop block whose header contains `key`; free with quovix_array_char_3D_free(loop, rows, cols).
int quovix_cell_import_cif_grep_loop(char ****loop, long *rows, long *cols, const char *key,
                                     char **content, long row);
int quovix_array_char_1D_is_blank_line(const char *row);
char quovix_array_char_1D_first_nonspace_char(const char *row);

// ======================================================================
// CIF reader (quovix-import-cif.cpp)
// ======================================================================
/// Reads a CIF into a new cell (full P1 content) and its symmetry; 0 on success.
/// The caller frees *cell and *symmetry.
int quovix_cell_import_cif_from_file(QUOVIX_CELL **cell, QUOVIX_SYMMETRY **symmetry,
                                     const char *filename, const char *dir_symcards,
                                     const char *dir_unitary);
int quovix_cell_import_cif_from_text(QUOVIX_CELL **cell, QUOVIX_SYMMETRY **symmetry,
                                     QUOVIX_TEXT *text, const char *dir_symcards,
                                     const char *dir_unitary);
/// Reads "prefix.0.cif" .. "prefix.(n-1).cif"; array of n cells (free each, then the array
/// with std::free), or null.
QUOVIX_CELL **quovix_cells_import_cif_from_file(const char *prefix, int n, const char *dir_symcards,
                                                const char *dir_unitary);
int quovix_cell_import_cif_read_atom_name(QUOVIX_ATOM *atom, char ***loop, long rows, long cols);
int quovix_cell_import_cif_read_atom_type(QUOVIX_ATOM *atom, char ***loop, long rows, long cols);
int quovix_cell_import_cif_read_atom_typeos(QUOVIX_ATOM *atom, char ***loop, long rows, long cols,
                                            char ***loop_type, long rows_type, long cols_type);
int quovix_cell_import_cif_read_atom(QUOVIX_ATOM *atom, char ***loop, long rows, long cols);
int quovix_cell_import_cif_read_atom_constraint(QUOVIX_ATOM *atom, char ***loop, long rows,
                                                long cols);
/// Fixed flags of the file's _atom_site_quovix_fixed column set on the cell's atoms (the
/// atom's `ignored` field), matched by label so that symmetry copies share their site's flag;
/// every other atom is cleared. A file without the column has no constraint. 0 or 1.
int quovix_cell_import_cif_read_constraint(QUOVIX_CELL *cell, const char *filename);
int quovix_cell_import_cif_read_lattice(QUOVIX_CELL *cell, char **rows, long row);
int quovix_atom_name_to_type(QUOVIX_ATOM *atom, long total);
/// Splits mixed-valence sites; may reallocate *atom (with realloc) and grow *total.
int quovix_atom_fork_os(QUOVIX_ATOM **atom, long *total);
int quovix_atom_update_default_os(QUOVIX_ATOM *atom, long total, const char *dir_unitary);

// ======================================================================
// Symmetry (quovix-import-sym.cpp)
// ======================================================================
int quovix_card_set_by_text(QUOVIX_CARD *card, const char *text);
QUOVIX_SYMMETRY *quovix_symmetry_import_from_array_char_2D(char **rows, long row,
                                                           const char *dir_symcards);
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_HM(const char *text, const char *dir_symcards);
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_id(const char *text, const char *dir_symcards);
QUOVIX_SYMMETRY *quovix_symmetry_import_by_keyword_Hall(const char *text, const char *dir_symcards);
QUOVIX_SYMMETRY *quovix_symmetry_import_by_internal_no(int no, const char *dir_symcards);
/// Number of entries in the settings file, -1 if it cannot be opened.
int quovix_symmetry_count_settings(const char *dir_symcards);
QUOVIX_SYMMETRY *quovix_symmetry_calculate_from_cell(QUOVIX_CELL *cell, double tolerance,
                                                     const char *dir_symcards);
int quovix_symmetry_fill_card_discrete(QUOVIX_SYMMETRY *symmetry, const long n[3]);
void quovix_card_transform_vector3_long(long out[3], const long in[3], const long n[3],
                                        const QUOVIX_CARD *card);
QUOVIX_ATOM quovix_atom_spawn_by_card(const QUOVIX_ATOM *atom, const QUOVIX_CARD *card);
/// Expands atoms by every card, removes duplicates and sorts; may replace *atom.
int quovix_atom_spawn_by_symmetry(QUOVIX_ATOM **atom, long *total, const QUOVIX_SYMMETRY *symmetry);
int quovix_atom_remove_duplicate(QUOVIX_ATOM **atom, long *total);
bool quovix_atom_equal(const QUOVIX_ATOM *a, const QUOVIX_ATOM *b);
bool quovix_atom_belong(const QUOVIX_ATOM *atom, const QUOVIX_ATOM *atoms, long total);
void quovix_atom_sort(QUOVIX_ATOM *atom, long total);
int quovix_atom_name_compare(const char *a, const char *b);
QUOVIX_CELL *quovix_cell_reduce_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry);
int quovix_cell_flag_site_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry);
bool quovix_cell_validate_by_symmetry(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry,
                                      double tolerance);
/// Largest atom array built from input (symmetry expansion, supercells): about 120 MB of
/// atoms; larger requests fail with a message instead of exhausting memory.
inline constexpr long QUOVIX_MAX_ATOMS = 1000000;

// ======================================================================
// Cell operations and CIF writer (quovix-import-cell.cpp)
// ======================================================================
void quovix_cell_update_lattice_cartesion(QUOVIX_CELL *cell);
void quovix_cell_update_lattice_fractional(QUOVIX_CELL *cell);
void quovix_cell_update_coordinate_cartesion(QUOVIX_CELL *cell);
void quovix_cell_update_coordinate_fractional(QUOVIX_CELL *cell);
void quovix_cell_update_cartesion(QUOVIX_CELL *cell);
void quovix_cell_update_fractional(QUOVIX_CELL *cell);
double quovix_cell_calculate_volume(const QUOVIX_CELL *cell);
void quovix_cell_bound_fractional(QUOVIX_CELL *cell);
double quovix_cell_min_distance_btw_atoms(const QUOVIX_CELL *cell, const QUOVIX_ATOM *atom1,
                                          const QUOVIX_ATOM *atom2);
void quovix_cell_update_name(QUOVIX_CELL *cell);
void quovix_cell_refresh(QUOVIX_CELL *cell);
int quovix_cell_count_type_os(const QUOVIX_CELL *cell);
QUOVIX_CELL *quovix_cell_supercell(const QUOVIX_CELL *cell, const long multiple[3]);
QUOVIX_CELL *quovix_cell_supercell_default(const QUOVIX_CELL *cell);
/// Deforms the cell by (I + strain): lattice rows a_k <- a_k (I + strain), atoms follow
/// their fractional coordinates; parameters and angles are updated. 0 on success.
int quovix_cell_deform(QUOVIX_CELL *cell, const double strain[3][3]);
bool quovix_cell_partial_occ_at_conducting_site(const QUOVIX_CELL *cell, const char *type, int os);
QUOVIX_CELL *quovix_cell_assign_partial_occ(QUOVIX_CELL *cell, const char *type, int os);
QUOVIX_CELL *quovix_cell_assign_partial_occ_at_conducting_site(const QUOVIX_CELL *cell,
                                                               const char *type, int os);
QUOVIX_CELL *quovix_cell_assign_partial_occ_all(const QUOVIX_CELL *cell);
QUOVIX_TEXT *quovix_cell_export_cif_to_text(QUOVIX_CELL *cell, const QUOVIX_SYMMETRY *symmetry);
int quovix_cell_export_cif_to_file(const char *filename, QUOVIX_CELL *cell,
                                   const QUOVIX_SYMMETRY *symmetry);

// ======================================================================
// Parameter sets (quovix-import-ppt.cpp)
// ======================================================================
int quovix_property_update_index_by_cell(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell);
int quovix_property_append_index(QUOVIX_PROPERTY *ppt, const char *type, int os);
int quovix_property_update_read_from_file(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell,
                                          const char *dir_unitary, const char *dir_binary);
int quovix_property_unitary_read_from_file(QUOVIX_PROPERTY_UNITARY *uni, const char *type, int os,
                                           const char *dir_unitary);
int quovix_property_binary_read_from_file(QUOVIX_PROPERTY_BINARY *bin, const char *type1, int os1,
                                          const char *type2, int os2, const char *dir_binary);
double quovix_property_hardness_read_from_file(const char *type, int os, const char *dir_hardness);
int quovix_property_type_from_atomic_number(int an, QUOVIX_ATOM *atom, const char *path);
int quovix_property_estimate(QUOVIX_PROPERTY *ppt, const char *dir_unitary, const char *dir_binary);
int quovix_property_binary_estimate_from_file(QUOVIX_PROPERTY_BINARY *bin, const char *dir_binary);
int quovix_property_calculate_effective_b(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell);
int quovix_property_unitary_derived(QUOVIX_PROPERTY *ppt);
int quovix_property_binary_derived(QUOVIX_PROPERTY *ppt);
int quovix_property_calculate_fractional_charge(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell);
int quovix_property_binary_pseudopotential(QUOVIX_PROPERTY *ppt);
int quovix_property_calculate_type_count(QUOVIX_PROPERTY *ppt, const QUOVIX_CELL *cell);
int quovix_property_calculate_unitary_eam_parameter(QUOVIX_PROPERTY *ppt);
int quovix_property_validate_generic(const QUOVIX_PROPERTY *ppt);
/// A pair parameter that must be positive, with the name its error line shows.
struct quovix_pair_check {
    const char *name;
    double QUOVIX_PROPERTY_BINARY::*value;
};
/// Checks the listed parameters of every cation-anion pair of the set (cation rows, then anion
/// columns, parameters in list order). The first one that is not positive is printed as
/// "Error: incorrect <name> at [i](<cation>)-(<anion>) <name>=<value>" and gives 1; 0 when all
/// pass. `os` and `bin` must be allocated for `total` species.
int quovix_property_validate_pairs(const QUOVIX_PROPERTY *ppt,
                                   std::span<const quovix_pair_check> checks);
int quovix_property_find_index(const QUOVIX_PROPERTY *ppt, const char *type, int os);

// ======================================================================
// Parameter set of a cell with its screening-factor fit (quovix-import-ppt-build.cpp)
// ======================================================================
/// Builds the parameter set of a cell (sorts the cell's atoms in place). `type` may be null
/// (no mobile species). sf <= 0 asks for the screening-factor fit. Null on failure.
QUOVIX_PROPERTY *quovix_property_import_from_cell(QUOVIX_CELL *cell, const char *type, int os,
                                                  double sf, const char *dir_unitary,
                                                  const char *dir_binary);
/// The build stages on a labelled set, the screening-factor fit included; 0 on success.
int quovix_property_update(QUOVIX_PROPERTY *ppt, QUOVIX_CELL *cell, const char *dir_unitary,
                           const char *dir_binary);

// ======================================================================
// Pair functions (quovix-import-pair.cpp); x is the distance in A,
// "force" is dE/dx.
// ======================================================================
double quovix_energy_bonding(double x, double d0, double rmin, double b);
double quovix_force_bonding(double x, double d0, double rmin, double b);
double quovix_energy_bonding_with_energy_shift(double x, double d0, double rmin, double b,
                                               double en_s);
double quovix_energy_bonding_with_energy_shift_and_force_shift(double x, double d0, double rmin,
                                                               double b, double en_s, double f_s,
                                                               double cutoff);
double quovix_force_bonding_with_force_shift(double x, double d0, double rmin, double b,
                                             double f_s);
double quovix_energy_coulombic(double x, double q, double r_eff);
double quovix_force_coulombic(double x, double q, double r_eff);
double quovix_pseudopotential_energy_bonding(double x, double a2, double a1, double a0);
double quovix_pseudopotential_energy_coulombic(double x, double a2, double a1, double a0);
