// Path map: marker cell and the whole chain from a cube to the marker CIF.
#include <cstdio>
#include <cstring>

#include "quovix-fp-store.hpp"
#include "quovix-grid.hpp"
#include "quovix-import.hpp"

namespace {

/// Marker name and element of a dot that is written, or false for dots that are not.
bool marker(int type, int total_dn, const char **name, const char **element) {
    switch (type) {
        case FP_SAD:
            if (total_dn == 2)
                *name = "SAD1", *element = "Na";
            else if (total_dn == 3)
                *name = "SAD2", *element = "K";
            else
                *name = "SAD3", *element = "Cs";
            return true;
        case FP_PAT:
            *name = "PAT", *element = "H";
            return true;
        case FP_MIN:
            *name = "MIN", *element = "Li";
            return true;
        default:  // maxima, ordinary and error dots are not written
            return false;
    }
}

}  // namespace

QUOVIX_CELL *quovix_fpcube_export_to_cell(QUOVIX_FPCUBE *fpcube) {
    if (!fpcube || !fpcube->type) {
        std::fputs("Error: QUOVIX_FPCUBE has not been initialized properly.\n", stderr);
        return nullptr;
    }
    const char *name = nullptr, *element = nullptr;
    long count = 0;
    for (long q = 0; q < fpcube->total; q++)
        if (marker(quovix_fpcube_type_at(fpcube, q), fpcube->total_dn[q], &name, &element)) count++;
    QUOVIX_CELL *cell = quovix_cell_new(count);
    if (!cell) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(cell->a, fpcube->a, sizeof cell->a);
    const quovix_grid g(fpcube->n);
    long m = 0;
    for (long q = 0; q < fpcube->total; q++) {
        if (!marker(quovix_fpcube_type_at(fpcube, q), fpcube->total_dn[q], &name, &element))
            continue;
        QUOVIX_ATOM &atom = cell->atom[m++];
        std::snprintf(atom.name, sizeof atom.name, "%s", name);
        std::snprintf(atom.type, sizeof atom.type, "%s", element);
        atom.os = 1;
        atom.occ = 1.0;
        const auto w = g.index(q);
        const long x_i[3] = {w[0], w[1], w[2]};
        quovix_fp_position(atom.x, fpcube->a_i, x_i);
    }
    quovix_cell_update_fractional(cell);
    return cell;
}

int quovix_fpcube_export_cif_to_file(QUOVIX_CUBE *cube, double barrier_max, const char *filename) {
    if (!cube || !cube->en) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return 1;
    }
    quovix_fpcube_ptr fpcube(quovix_fpcube_new_from_cube(cube));
    if (!fpcube) {
        std::fputs("Error: quovix_fpcube_new_from_cube() returns NULL.\n", stderr);
        return 1;
    }
    quovix_fphalf_list_ptr list(quovix_fphalf_list_new_from_fpcube(fpcube.get()));
    if (!list) {
        std::fputs("Error: quovix_fphalf_list_new_from_fpcube() returns NULL.\n", stderr);
        return 1;
    }
    if (barrier_max >= 0 && quovix_fphalf_list_filter(list.get(), barrier_max)) {
        std::fputs("Error: quovix_fphalf_list_filter() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_fphalf_list_label_path(list.get());
    quovix_cell_ptr cell(quovix_fpcube_export_to_cell(fpcube.get()));
    if (!cell) {
        std::fputs("Error: quovix_fpcube_export_to_cell() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_cell_export_cif_to_file(filename, cell.get(), nullptr)) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}
