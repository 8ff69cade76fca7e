// Relaxation constraints of a CIF: the fixed flags of the atom-site loop applied to a cell.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "quovix-import.hpp"

/// Fixed flags from the column _atom_site_quovix_fixed of the atom-site loop, matched to the
/// cell's atoms by label (symmetry copies keep their site's label). A file without the column
/// has no constraint.
int quovix_cell_import_cif_read_constraint(QUOVIX_CELL *cell, const char *filename) {
    if (cell == nullptr || (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return 1;
    }
    quovix_text_ptr text{quovix_text_import_from_file(filename)};
    if (!text) {
        std::fputs("Error: quovix_text_import_from_file() returns NULL.\n", stderr);
        return 1;
    }
    if (std::strstr(text->content, "_atom_site_quovix_fixed") == nullptr) return 0;
    char **rows = nullptr;
    long row = 0;
    if (quovix_text_segregate_into_rows(&rows, &row, text.get(), '\n') != 0) {
        std::fputs("Error: quovix_text_segregate_into_rows() returns non-zero.\n", stderr);
        return 1;
    }
    char ***loop = nullptr;
    long loop_rows = 0, loop_cols = 0;
    const int found = quovix_cell_import_cif_grep_loop(&loop, &loop_rows, &loop_cols,
                                                       "_atom_site_label", rows, row);
    quovix_array_char_2D_free(rows, row);
    if (found != 0) {
        std::fputs("Error: quovix_cell_import_cif_grep_loop() returns non-zero.\n", stderr);
        return 1;
    }
    int status = 0;
    quovix_atom_ptr sites{quovix_atom_new(std::max(loop_rows - 1, 1L))};
    if (!sites) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        status = 1;
    } else if (quovix_cell_import_cif_read_atom_name(sites.get(), loop, loop_rows, loop_cols) !=
               0) {
        std::fputs("Error: quovix_cell_import_cif_read_atom_name() returns non-zero.\n", stderr);
        status = 1;
    } else if (quovix_cell_import_cif_read_atom_constraint(sites.get(), loop, loop_rows,
                                                           loop_cols) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_atom_constraint() returns non-zero.\n",
                   stderr);
        status = 1;
    }
    if (status == 0) {
        for (long i = 0; i < cell->total; ++i) {
            QUOVIX_ATOM &a = cell->atom[i];
            a.ignored = false;
            for (long k = 0; k + 1 < loop_rows; ++k) {
                if (sites.get()[k].ignored &&
                    std::strncmp(sites.get()[k].name, a.name, QUOVIX_ATOM_NAME_LEN) == 0) {
                    a.ignored = true;
                }
            }
        }
    }
    quovix_array_char_3D_free(loop, loop_rows, loop_cols);
    return status;
}
