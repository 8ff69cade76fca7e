// Text buffer, record constructors/destructors/printers and zero-filled arrays.
#pragma once

#include "quovix.hpp"

// ---------------------------------------------------------------- text buffer
/// New buffer of 1024 zeroed bytes; `str` (may be null) is appended. Null on failure.
QUOVIX_TEXT *quovix_text_new(const char *str);
void quovix_text_free(QUOVIX_TEXT *text);
/// Appends `str`, growing in 1024-byte steps. Null text or str: successful no-op.
/// On a failed reallocation the whole record is freed and 1 returned.
int quovix_text_append(QUOVIX_TEXT *text, const char *str);
int quovix_text_cat(QUOVIX_TEXT *des, const QUOVIX_TEXT *src);
int quovix_text_dump(QUOVIX_TEXT *text);
void quovix_text_print(const QUOVIX_TEXT *text);
void quovix_text_fprint(std::FILE *out, const QUOVIX_TEXT *text);
/// Whole file (binary) into a new buffer; null on failure (empty file included).
QUOVIX_TEXT *quovix_text_import_from_file(const char *filename);
int quovix_text_export_to_file(const QUOVIX_TEXT *text, const char *filename);
int quovix_text_append_to_file(const QUOVIX_TEXT *text, const char *filename);
/// Splits at `sep`; rows are freed with quovix_array_char_2D_free(rows, row).
int quovix_text_segregate_into_rows(char ***content, long *row, const QUOVIX_TEXT *text, char sep);

// ---------------------------------------------------------------- records
QUOVIX_ATOM *quovix_atom_new(long n);
void quovix_atom_free(QUOVIX_ATOM *atom);
void quovix_atom_print(const QUOVIX_ATOM *atom);
void quovix_atom_fprint(std::FILE *out, const QUOVIX_ATOM *atom);

QUOVIX_CELL *quovix_cell_new(long total_atom);
void quovix_cell_free(QUOVIX_CELL *cell);
void quovix_cell_print(const QUOVIX_CELL *cell);
void quovix_cell_fprint(std::FILE *out, const QUOVIX_CELL *cell);
QUOVIX_CELL *quovix_cell_copy(const QUOVIX_CELL *cell);

QUOVIX_CARD *quovix_card_new(const char *text);
void quovix_card_free(QUOVIX_CARD *card);
void quovix_card_print(const QUOVIX_CARD *card);
void quovix_card_print_discrete(const QUOVIX_CARD *card);
/// As _print (discrete: _print_discrete), into `out`.
void quovix_card_fprint(std::FILE *out, const QUOVIX_CARD *card, bool discrete);

QUOVIX_SYMMETRY *quovix_symmetry_new(int total_card);
void quovix_symmetry_free(QUOVIX_SYMMETRY *symmetry);
void quovix_symmetry_print(const QUOVIX_SYMMETRY *symmetry);
void quovix_symmetry_print_discrete(const QUOVIX_SYMMETRY *symmetry);
/// As _print (discrete: _print_discrete), into `out`.
void quovix_symmetry_fprint(std::FILE *out, const QUOVIX_SYMMETRY *symmetry, bool discrete);
QUOVIX_SYMMETRY *quovix_symmetry_new_p1();
bool quovix_symmetry_is_p1(const QUOVIX_SYMMETRY *symmetry);

QUOVIX_PROPERTY_UNITARY *quovix_property_unitary_new(int total);
void quovix_property_unitary_free(QUOVIX_PROPERTY_UNITARY *uni);
void quovix_property_unitary_print(QUOVIX_PROPERTY_UNITARY uni);
int quovix_property_binary_new(QUOVIX_PROPERTY_BINARY ***bin, int total);
void quovix_property_binary_free(QUOVIX_PROPERTY_BINARY **bin, int total);
void quovix_property_binary_print(QUOVIX_PROPERTY_BINARY bin);

QUOVIX_PROPERTY *quovix_property_new(int total);
QUOVIX_PROPERTY *quovix_property_copy(const QUOVIX_PROPERTY *ppt);
void quovix_property_free(QUOVIX_PROPERTY *ppt);
void quovix_property_print(const QUOVIX_PROPERTY *ppt);
void quovix_property_print_format(const QUOVIX_PROPERTY *ppt);
/// As _print / _print_format, into `out`.
void quovix_property_fprint(std::FILE *out, const QUOVIX_PROPERTY *ppt);
void quovix_property_fprint_format(std::FILE *out, const QUOVIX_PROPERTY *ppt);

// ---------------------------------------------------------------- arrays
int *quovix_array_int_1D_new(long n);
int **quovix_array_int_2D_new(long m, long n);
int ***quovix_array_int_3D_new(long m, long n, long k);
void quovix_array_int_1D_free(int *array);
void quovix_array_int_2D_free(int **array, long m);
void quovix_array_int_3D_free(int ***array, long m, long n);

double *quovix_array_double_1D_new(long n);
double **quovix_array_double_2D_new(long m, long n);
double ***quovix_array_double_3D_new(long m, long n, long k);
void quovix_array_double_1D_free(double *array);
void quovix_array_double_2D_free(double **array, long m);
void quovix_array_double_3D_free(double ***array, long m, long n);
void quovix_array_double_1D_print(double *array, long n);
void quovix_array_double_2D_print(double **array, long m, long n);

char *quovix_array_char_1D_new(long n);
char **quovix_array_char_2D_new(long m, long n);
char ***quovix_array_char_3D_new(long m, long n, long k);
void quovix_array_char_1D_free(char *array);
void quovix_array_char_2D_free(char **array, long m);
void quovix_array_char_3D_free(char ***array, long m, long n);
void quovix_array_char_1D_print(char *array);
void quovix_array_char_2D_print(char **array, long m);
void quovix_array_char_3D_print(char ***array, long m, long n);

bool *quovix_array_bool_1D_new(long n);
void quovix_array_bool_1D_free(bool *array);

// Owners for the records above.
using quovix_text_ptr = quovix_owner<QUOVIX_TEXT, quovix_text_free>;
using quovix_atom_ptr = quovix_owner<QUOVIX_ATOM, quovix_atom_free>;
using quovix_cell_ptr = quovix_owner<QUOVIX_CELL, quovix_cell_free>;
using quovix_symmetry_ptr = quovix_owner<QUOVIX_SYMMETRY, quovix_symmetry_free>;
using quovix_property_ptr = quovix_owner<QUOVIX_PROPERTY, quovix_property_free>;
