// --gen-cif-os: oxidation states by bond valence for the sites of a CIF that gives none.
#include <cstdio>

#include "quovix-bv.hpp"
#include "quovix-cmd.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"
#include "quovix-os.hpp"

namespace {

// An element table without lines: the CIF reader then leaves every state the file does not
// give at 99 ("unknown") instead of the element's default. On Linux /dev/null opens as an
// empty file.
constexpr const char *kNoDefaults = "/dev/null";

// GII of a cell with the program's own bond-valence sums; negative when it cannot be computed.
double gii_of(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym, const QUOVIX_CMD_OPT *opt) {
    quovix_cell_ptr copy(quovix_cell_copy(cell));
    if (!copy) return -1.0;
    quovix_bv_ptr bv(
        quovix_bv_calculate_from_cell(copy.get(), sym, opt->dir_unitary, opt->dir_binary));
    if (!bv) return -1.0;
    return quovix_gii_calculate_from_bv_no_msg(bv.get());
}

void print_gii(const char *label, double gii) {
    if (gii < 0.0) {
        std::printf("OS: GII with %s = not available\n", label);
    } else {
        std::printf("OS: GII with %s = %f\n", label, gii);
    }
}

}  // namespace

/// --gen-cif-os [input.cif] | {output_name}: assigns oxidation states by bond valence to the
/// sites whose file gives none and writes the CIF with the states in the type symbols;
/// default output name: input name + ".os.cif".
void quovix_cmd_opt_do_gen_cif_os(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(
            {"Command: --gen-cif-os [input.cif] | {output_name}\n\n",
             "Command: assigns an oxidation state to every site whose file gives none and writes "
             "the cell with the states in its type symbols.\n",
             "Command: {output_name}: the name of the output file. If omitted, the input name "
             "appended by \".os.cif\" will be used.\n",
             "Command: the states come from the element's lines in database_unitary.dat. Anions "
             "keep their usual state (an atom whose nearest neighbour is more electronegative, "
             "as P in a phosphate, counts as a cation); states the file gives are kept. Among "
             "the charge-neutral assignments (within 0.5 % of the anion charge) the one whose "
             "bond valence sums lie closest to the states is chosen: it minimises the sum over "
             "cation sites of multiplicity x occupancy x (bv_sum - state)^2. Sites of one "
             "element may take different states. One site takes a state between two consecutive "
             "listed ones (written as both, sharing the position) when no integer assignment is "
             "neutral, or when it fits the sums better than an exactly neutral integer one. "
             "Anions leave their usual state only when nothing else is neutral.\n",
             "Command: prints one line per symmetry-distinct site: state, bond valence sum and "
             "the rejected states with their sums; then the GII with the default states and "
             "with the assigned ones.\n",
             "Example: ./quovix.x --gen-cif-os LiCoO2.cif\n"});
        return;
    }
    char output[QUOVIX_PATH_LEN];
    if (args.has(1)) {
        std::snprintf(output, QUOVIX_PATH_LEN, "%.1000s", args.c_str(1));
    } else {
        quovix_cmd_name_append(output, args.c_str(0), ".os.cif");
    }
    if (quovix_output_check(output, args.c_str(0)) != 0) return;

    QUOVIX_CELL *raw_cell = nullptr;
    QUOVIX_SYMMETRY *raw_sym = nullptr;
    const int status = quovix_cell_import_cif_from_file(&raw_cell, &raw_sym, args.c_str(0),
                                                        opt->dir_symcards, kNoDefaults);
    quovix_cell_ptr cell(raw_cell);
    quovix_symmetry_ptr sym(raw_sym);
    if (status != 0) {
        std::fputs("Error: quovix_cell_import_cif_from_file() returns non-zero.\n", stderr);
        return;
    }
    quovix_os_ptr os(
        quovix_os_assign_from_cell(cell.get(), sym.get(), opt->dir_unitary, opt->dir_binary));
    if (!os) {
        std::fputs("Error: quovix_os_assign_from_cell() returns NULL.\n", stderr);
        std::fputs("Error: no oxidation states assigned; nothing written.\n", stderr);
        return;
    }
    quovix_cell_ptr assigned(quovix_os_apply_to_cell(os.get(), cell.get()));
    if (!assigned) {
        std::fputs("Error: quovix_os_apply_to_cell() returns NULL.\n", stderr);
        return;
    }
    quovix_os_print(os.get());

    // The reader's own rule for the states the file does not give, for comparison.
    quovix_cell_ptr defaults(quovix_cell_copy(cell.get()));
    if (!defaults ||
        quovix_atom_update_default_os(defaults->atom, defaults->total, opt->dir_unitary) != 0) {
        std::fputs("Error: quovix_atom_update_default_os() returns non-zero.\n", stderr);
        return;
    }
    const double before = gii_of(defaults.get(), sym.get(), opt);
    const double after = gii_of(assigned.get(), sym.get(), opt);
    print_gii("the default states ", before);
    print_gii("the assigned states", after);

    if (quovix_cell_export_cif_to_file(output, assigned.get(), sym.get()) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
    }
}
