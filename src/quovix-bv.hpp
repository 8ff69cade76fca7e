// Bond valence sums of the inequivalent sites of a cell and the global instability index.
#pragma once

#include "quovix-alloc.hpp"

struct QUOVIX_BV {
    long total;         // number of inequivalent sites
    QUOVIX_ATOM *atom;  // first cell atom of each site
    int *multi;         // multiplicity of each site
    double *sum;        // bond valence sum of each site (negative for anions)
    double **value;     // value[s][t]: part of sum[s] contributed by site t
};

QUOVIX_BV *quovix_bv_new(long total);
void quovix_bv_free(QUOVIX_BV *bv);
long quovix_bv_find_index(const QUOVIX_BV *bv, const char *name);

QUOVIX_BV *quovix_bv_calculate_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                         const char *dir_unitary, const char *dir_binary);
QUOVIX_BV *quovix_bv_calculate_from_cell_with_type(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                                   const char *type1, int os1, const char *type2,
                                                   int os2, const char *dir_unitary,
                                                   const char *dir_binary);
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt);
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell_at_default_cutoff(QUOVIX_CELL *cell,
                                                                   QUOVIX_PROPERTY *ppt);
int quovix_bv_validate_property(const QUOVIX_PROPERTY *ppt);

double quovix_gii_calculate_from_bv(const QUOVIX_BV *bv);
double quovix_gii_calculate_from_bv_no_msg(const QUOVIX_BV *bv);
double quovix_gii_calculate_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                      const char *dir_unitary, const char *dir_binary);

void quovix_bv_print(const QUOVIX_BV *bv);
void quovix_bv_print_gui(const QUOVIX_BV *bv);
QUOVIX_TEXT *quovix_bv_export_to_text(const QUOVIX_BV *bv);

using quovix_bv_ptr = quovix_owner<QUOVIX_BV, quovix_bv_free>;
