// Command handlers of the bond-valence model: parameter tables, charges, bond valence sums,
// GII and total energy.
#include <cmath>
#include <cstdio>

#include "quovix-bv.hpp"
#include "quovix-cmd.hpp"
#include "quovix-import.hpp"
#include "quovix-rx.hpp"

namespace {

// Reads a CIF whose symmetry the command does not need: the cell alone, or null after the
// failure line.
quovix_cell_ptr read_cell(const QUOVIX_CMD_OPT *opt, const char *path) {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, path, cell, sym)) return nullptr;
    return cell;
}

// The parameter set of the cell with the run's parameter files, or null after the failure line.
quovix_property_ptr import_property(const QUOVIX_CMD_OPT *opt, QUOVIX_CELL *cell,
                                    const char *mobile, int os, double sf) {
    quovix_property_ptr ppt{
        quovix_property_import_from_cell(cell, mobile, os, sf, opt->dir_unitary, opt->dir_binary)};
    if (!ppt) std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
    return ppt;
}

// Bond valence sums of every inequivalent site of a cell read with its symmetry, or null
// after the failure line.
quovix_bv_ptr calculate_bv(const QUOVIX_CMD_OPT *opt, QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym) {
    quovix_bv_ptr bv{quovix_bv_calculate_from_cell(cell, sym, opt->dir_unitary, opt->dir_binary)};
    if (!bv) std::fputs("Error: quovix_bv_calculate_from_cell() returns non-zero.\n", stderr);
    return bv;
}

// --cal-bv and its text mode: the sums of the cell, then the GII.
void print_bv_and_gii(const QUOVIX_CMD_OPT *opt, QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym) {
    quovix_bv_ptr bv = calculate_bv(opt, cell, sym);
    if (!bv) return;
    quovix_bv_print(bv.get());
    quovix_gii_calculate_from_bv(bv.get());
}

void print_cal_bv_usage() {
    quovix_cmd_print_lines({"Command: --cal-bv [intput.cif]\n",
                            "Command: calculates and prints all bond valence sums for each ion.\n",
                            "Example: ./quovix.x --cal-bv Li2O.cif\n"});
}

// Element symbol argument read with "%2s".
[[nodiscard]] bool read_type(const quovix_args &args, std::size_t i, char type[QUOVIX_TYPE_LEN]) {
    return args.has(i) && std::sscanf(args.c_str(i), "%2s", type) == 1;
}

}  // namespace

/// --print-ppt [input.cif] | {screening factor}: builds the parameter set (sf fitted unless
/// given), its embedding parameters, and prints the formatted tables.
void quovix_cmd_opt_do_print_ppt(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(
            {"Command: --print-ppt [input.cif] | {screening factor}.\n\n",
             "Command: {screening factor}: a double in (0, 1)\n",
             "Example: ./quovix.x --print-ppt Li2O.cif\n",
             "         will trigger automatic calculation of screening factor.\n",
             "Example: ./quovix.x --print-ppt Li2O.cif 0.72.\n",
             "         will use provided screening factor 0.72.\n"});
        return;
    }
    quovix_cell_ptr cell = read_cell(opt, args.c_str(0));
    if (!cell) return;
    double sf = -1.0;
    if (args.has(1) && !args.read_finite(1, sf)) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return;
    }
    quovix_property_ptr ppt = import_property(opt, cell.get(), nullptr, 0, sf);
    if (!ppt) return;
    if (quovix_property_calculate_unitary_eam_parameter(ppt.get()) != 0) {
        std::fputs("Error: quovix_property_calculate_unitary_eam_parameter() returns non-zero.\n",
                   stderr);
        return;
    }
    quovix_property_print_format(ppt.get());
}

/// --print-ppt-full [input.cif] | {screening factor} {conducting ion type} {conducting ion os}:
/// raw dump of the parameter set. With the mobile species given, sf is always fitted.
void quovix_cmd_opt_do_print_ppt_full(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(
            {"Command: --print-ppt-full: [input.cif] | {screening factor} {conducting ion type} "
             "{conducting ion os}.\n\n",
             "Command: reserved for debugging purpose\n"});
        return;
    }
    quovix_cell_ptr cell = read_cell(opt, args.c_str(0));
    if (!cell) return;
    double sf = -1.0;
    char type[QUOVIX_TYPE_LEN] = {};
    const char *mobile = nullptr;
    int os = 0;
    if (args.count() >= 4) {
        // In this form the screening-factor word is not read: sf stays automatic.
        quovix_cmd_opt_get_type(type, args.c_str(2));
        if (!args.read_os(3, os)) {
            std::fputs("Error: wrong oxidation state.\n", stderr);
            return;
        }
        mobile = type;
    } else if (args.count() >= 2 && !args.read_finite(1, sf)) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return;
    }
    quovix_property_ptr ppt = import_property(opt, cell.get(), mobile, os, sf);
    if (!ppt) return;
    quovix_property_print(ppt.get());
}

/// --cal-charge [intput.cif]: prints the formal charge of the cell, sum of os * occ.
void quovix_cmd_opt_do_cal_charge(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines({"Command: --cal-charge [intput.cif]\n",
                                "Command: calculates and prints the total charge of the cell.\n",
                                "Example: ./quovix.x --cal-charge Li2O.cif\n"});
        return;
    }
    quovix_cell_ptr cell = read_cell(opt, args.c_str(0));
    if (!cell) return;
    double charge = 0.0;
    for (long k = 0; k < cell->total; ++k) charge += cell->atom[k].os * cell->atom[k].occ;
    std::printf("Total charge per unit cell: %.3f\n", charge);
}

/// --cal-bv [intput.cif]: bond valence sums of every inequivalent site and the GII.
void quovix_cmd_opt_do_cal_bv(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_cal_bv_usage();
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    print_bv_and_gii(opt, cell.get(), sym.get());
}

/// --cal-bv-gui [input.cif]: the sums as the compact block of the graphical front end (no GII).
/// Without a file it prints the --cal-bv usage.
void quovix_cmd_opt_do_cal_bv_gui(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_cal_bv_usage();
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    quovix_bv_ptr bv = calculate_bv(opt, cell.get(), sym.get());
    if (!bv) return;
    quovix_bv_print_gui(bv.get());
}

/// --cal-bv-type [intput.cif] [type1] [os1] [type2] [os2]: sums restricted to one
/// cation-anion species pair.
void quovix_cmd_opt_do_cal_bv_type(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 5) {
        quovix_cmd_print_lines(
            {"Command: --cal-bv-type [intput.cif] [type1] [os1] [type2] [os2]\n\n",
             "Command: {type1}: type of the cation.\n",
             "Command: {os1}: oxidation state of the cation.\n",
             "Command: {type2}: type of the anion.\n",
             "Command: {os2}: oxidation state of the anion.\n",
             "Command: calculates and prints bond valence sums for the specified ion type "
             "pair.\n"});
        return;
    }
    char type1[QUOVIX_TYPE_LEN] = {}, type2[QUOVIX_TYPE_LEN] = {};
    int os1 = 0, os2 = 0;
    if (!read_type(args, 1, type1)) {
        std::fputs("Error: wrong parameter type1.\n", stderr);
        return;
    }
    if (!args.read_os(2, os1)) {
        std::fputs("Error: wrong parameter os1.\n", stderr);
        return;
    }
    if (!read_type(args, 3, type2)) {
        std::fputs("Error: wrong parameter type2.\n", stderr);
        return;
    }
    if (!args.read_os(4, os2)) {
        std::fputs("Error: wrong parameter os2.\n", stderr);
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    quovix_bv_ptr bv{quovix_bv_calculate_from_cell_with_type(
        cell.get(), sym.get(), type1, os1, type2, os2, opt->dir_unitary, opt->dir_binary)};
    if (!bv) {
        std::fputs("Error: quovix_bv_calculate_from_cell_with_type() returns NULL.\n", stderr);
        return;
    }
    quovix_bv_print(bv.get());
}

/// --cal-gii [input.cif]: global instability index with its verdict.
void quovix_cmd_opt_do_cal_gii(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(
            {"Command: --cal-gii [input.cif]\n\n",
             "Command: calculates global instability index. The larger it is, the less stable this "
             "structure is ESTIMATED to be.\n",
             "Example: ./quovix.x --cal-gii Li2O.cif\n"});
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    if (quovix_gii_calculate_from_cell(cell.get(), sym.get(), opt->dir_unitary, opt->dir_binary) <
        0.0) {
        std::fputs("Error: quovix_gii_calculate_from_cell() returns negative value.\n", stderr);
    }
}

/// --text-cal-bv -:text <CIF words>: --cal-bv on a CIF given as command-line words.
void quovix_cmd_opt_do_text_cal_bv(QUOVIX_CMD_OPT *opt) {
    if (opt == nullptr || opt->argc <= 2) {
        std::fputs("Error: not enough arguments.\n", stderr);
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif_text(opt, cell, sym)) return;
    print_bv_and_gii(opt, cell.get(), sym.get());
}

/// --cal-tot-en [input.cif] | {sf}: interatomic energy, embedding energy and their sum (eV).
void quovix_cmd_opt_do_cal_tot_en(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines({"Command: --cal-tot-en [input.cif] | {sf}\n\n",
                                "Example: ./quovix.x --cal-tot-en Li2O.cif\n"});
        return;
    }
    double sf = -0.1;  // fitted
    if (args.has(1) && !args.read_finite(1, sf)) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    if (quovix_cell_flag_site_by_symmetry(cell.get(), sym.get()) != 0) {
        std::fputs("Error: quovix_cell_flag_site_by_symmetry() returns non-zero.\n", stderr);
        return;
    }
    quovix_property_ptr ppt = import_property(opt, cell.get(), nullptr, 0, sf);
    if (!ppt) return;
    // Species without parameters leave charges or Morse terms that are not numbers; such a
    // set gives no energy rather than "nan".
    const double pair = quovix_cell_calculate_total_energy(cell.get(), ppt.get());
    if (!std::isfinite(pair)) {
        std::fputs("Error: quovix_cell_calculate_total_energy() returns a non-finite value.\n",
                   stderr);
        return;
    }
    if (pair != 0.0) std::printf("Message: interatomic energy = %lf eV\n", pair);
    if (quovix_property_calculate_unitary_eam_parameter(ppt.get()) != 0) {
        std::fputs("Error: quovix_property_calculate_unitary_eam_parameter() returns non-zero.\n",
                   stderr);
        return;
    }
    const double eam = quovix_cell_calculate_eam_energy(cell.get(), ppt.get());
    if (!std::isfinite(eam)) {
        std::fputs("Error: quovix_cell_calculate_eam_energy() returns a non-finite value.\n",
                   stderr);
        return;
    }
    if (eam != 0.0) std::printf("Message: eam energy = %lf eV\n", eam);
    std::printf("Message: total energy = %lf eV\n", pair + eam);
}
