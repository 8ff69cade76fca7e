// Command handlers of the landscape and cube-file commands: --print-cube and --gen-cube.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "quovix-cmd.hpp"
#include "quovix-cube.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

// The landscape of a species the cell does not hold would be computed as if it were there
// (its parameters would come from the tables alone): usually a typing error in type or os.
// A zero os or a species the tables lack fails later in the calculation, with its own
// messages, so only a species the tables know is refused here.
bool mobile_species_present(const QUOVIX_CELL *cell, const char *type, int os,
                            const char *dir_unitary) {
    for (long i = 0; i < cell->total; ++i) {
        if (cell->atom[i].os == os && std::strcmp(cell->atom[i].type, type) == 0) return true;
    }
    QUOVIX_PROPERTY_UNITARY known{};
    if (os == 0 || quovix_property_unitary_read_from_file(&known, type, os, dir_unitary) != 0 ||
        known.an <= 0) {
        return true;
    }
    std::fprintf(stderr, "Error: conducting ion %s%d%c is not present in the cell.\n", type,
                 quovix_abs_os(os), quovix_sign_char(os));
    return false;
}

// The grid holds at most 196^3 points: a finer spacing than that allows is coarsened, and
// the user is told so. The counts are those of quovix_cube_grid_size, on the cell the
// landscape is computed on (the default supercell under partial occupancy).
void warn_if_grid_capped(QUOVIX_CELL *cell, bool supercell, double resolution) {
    constexpr double kStep = 24.0;
    if (!(resolution > 0.0)) resolution = 0.1;
    double length[3] = {cell->parameter[0], cell->parameter[1], cell->parameter[2]};
    if (supercell) {
        quovix_cell_ptr super{quovix_cell_supercell_default(cell)};
        if (!super) return;  // the calculation reports it
        for (int k = 0; k < 3; ++k) length[k] = super->parameter[k];
    }
    long n[3] = {0, 0, 0};
    if (quovix_cube_grid_size(n, length, resolution) != 0) return;
    bool capped = false;
    for (int k = 0; k < 3; ++k) {
        const double wanted = std::max(1.0, std::ceil(length[k] / resolution / kStep)) * kStep;
        capped = capped || static_cast<double>(n[k]) < wanted;
    }
    if (!capped) return;
    std::printf(
        "Warning: grid capped at %ld x %ld x %ld points (at most 196^3): voxel spacing %.4f %.4f "
        "%.4f A instead of the requested %g A.\n",
        n[0], n[1], n[2], length[0] / static_cast<double>(n[0]),
        length[1] / static_cast<double>(n[1]), length[2] / static_cast<double>(n[2]), resolution);
}

}  // namespace

/// --print-cube [input.cube] | {flag:periodic}: reads a cube file (with its cell when the
/// header lists atoms) and prints the cell and the grid summary.
void quovix_cmd_opt_do_print_cube(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(
            {"Command: --print-cube [input.cube] | {flag:periodic}\n\n",
             "Command: [input.cube]: in Guassian cube format. Headers are optional.\n",
             "Command: {flag:periodic}: t or f. If true, the cube is treated as periodic, "
             "namely boundaries are not repeatedly recorded in the file. Default value "
             "true.\n",
             "Example: ./quovix.x --print-cube Li2O.cube\n"});
        return;
    }
    bool periodic = true;
    args.read_flag(1, periodic);
    QUOVIX_CUBE *raw_cube = nullptr;
    QUOVIX_CELL *raw_cell = nullptr;
    int status = quovix_cube_import_from_file(&raw_cube, &raw_cell, args.c_str(0), periodic,
                                              opt->dir_unitary);
    quovix_cube_ptr cube{raw_cube};
    quovix_cell_ptr cell{raw_cell};
    if (status != 0) {
        std::fputs("Error: quovix_cube_import_from_file() returns non-zero.\n", stderr);
        return;
    }
    quovix_cell_print(cell.get());
    quovix_cube_print_info(cube.get());
}

/// --gen-cube [input.cif] [type] [os] | {sf} {resolution} {flag:ignore_conducting_ion}
/// {flag:periodic} {flag:skip_mix_occ} {output_name}: landscape of the mobile ion written as
/// a cube file (default name: the CIF name with ".cube" for its extension).
void quovix_cmd_opt_do_gen_cube(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 3) {
        quovix_cmd_print_lines(
            {"Command: --gen-cube [input.cif] [type] [os] | {sf} {resolution} "
             "{flag:ignore_conducting_ion} {flag:periodic} {flag:skip_mix_occ} "
             "{output_name}\n\n",
             "Command: [type] the element type of conducting ion, two characters.\n",
             "Command: [os] the oxidation state of conducting ion, integer.\n",
             "Command: {sf}: customized screening factor to use. If set to non-positive, "
             "automatic calculation is triggered. Default 0.0.\n",
             "Command: {resolution}: preferred seperation between voxels. Actual "
             "resolution will be slightly different guarantee the number of voxels along "
             "each lattice parameter is a multiple of 12. Default 0.1.\n",
             "Command: {flag:ignore_conducting_ion}: if set to true, all ions with the "
             "same type and os as the conducting ion are ignored during calculation. "
             "Default true.\n",
             "Command: {flag:periodic}: if set to true, generated cube file contains "
             "voxels along boundaries only once. Default true.\n",
             "Command: {flag:skip_mix_occ}: if set to true, skip the cube file generation "
             "for structure with mixed occupancy site. Default false.\n",
             "Command: we advice staying with the default setting. If the screening factor "
             "cannot be calculated automatically, a suitable estimate of about 0.74 can be "
             "used.\n",
             "Example: ./quovix.x --gen-cube Li2O.cif Li 1\n",
             "Example: ./quovix.x --gen-cube Li2O.cif Li 1 0.71 0.05 f t\n"});
        return;
    }
    const char *input = args.c_str(0);
    char type[QUOVIX_TYPE_LEN] = {0};
    quovix_cmd_opt_get_type(type, args.c_str(1));
    int os = 0;
    if (!args.read_os(2, os)) {
        std::fputs("Error: wrong parameter conducting os.\n", stderr);
        return;
    }
    double sf = -0.1;  // non-positive: fitted while the parameter set is built
    if (args.has(3) && !args.read_finite(3, sf)) {
        std::fputs("Error: wrong parameter screening factor.\n", stderr);
        return;
    }
    double resolution = 0.1;
    if (args.has(4)) {
        if (!args.read_finite(4, resolution)) {
            std::fputs("Error: wrong parameter resolution.\n", stderr);
            return;
        }
        if (resolution <= 0.0) resolution = 0.1;
    }
    bool ignore_conducting = true, periodic = true, skip_mix_occ = false;
    args.read_flag(5, ignore_conducting);
    args.read_flag(6, periodic);
    args.read_flag(7, skip_mix_occ);
    char output[QUOVIX_PATH_LEN];
    if (args.has(8))
        std::snprintf(output, sizeof output, "%.1000s", args.c_str(8));
    else
        quovix_cmd_name_replace_ext(output, input, ".cube");
    char assigned[QUOVIX_PATH_LEN];
    quovix_cubename_assigned(assigned, input);

    // A bad output path fails now, not after the landscape.
    if (quovix_output_check(output, input) != 0) return;

    quovix_cell_ptr cell;
    quovix_symmetry_ptr symmetry;
    if (!quovix_cmd_read_cif(opt, input, cell, symmetry)) return;
    if (!mobile_species_present(cell.get(), type, os, opt->dir_unitary)) return;
    const bool mixed = quovix_cell_partial_occ_at_conducting_site(cell.get(), type, os);
    if (mixed && !skip_mix_occ && quovix_output_check(assigned, input) != 0) return;
    if (!(mixed && skip_mix_occ)) warn_if_grid_capped(cell.get(), mixed, resolution);
    // The landscape and, under partial occupancy, the supercell it was computed on are put
    // in place together: a reader never finds one run's cube beside another run's CIF.
    quovix_output_group pair;
    if (quovix_cube_calculate_from_cell_and_write_to_file_assign_partial_occ(
            cell.get(), symmetry.get(), type, os, sf, resolution, ignore_conducting, periodic,
            skip_mix_occ, output, assigned, opt->dir_unitary, opt->dir_binary) != 0) {
        std::fputs(
            "Error: quovix_cube_calculate_from_cell_and_write_to_file_assign_partial_occ() "
            "returns non-zero.\n",
            stderr);
        return;
    }
    pair.commit();  // prints its own error line
}
