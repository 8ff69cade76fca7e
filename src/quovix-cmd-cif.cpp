// Structure commands: print the cell or its symmetry, search the space group, and write
// the cell back as CIF (full, reduced, P1, with partial occupancies resolved).
#include <cstdio>

#include "quovix-cmd.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;  // usage blocks, line by line

// What a command that writes the cell back works on: the output name and the input structure.
struct cif_job {
    char output[QUOVIX_PATH_LEN];
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
};

// Names the output, the word at `index` (at most 1000 characters of it) when given, else the
// whole input name with `suffix` appended (Li2O.cif gives Li2O.cif.cif for ".cif"), then reads
// checks that it can be written without replacing the input, then reads the CIF of the first
// argument; false after the failure line.
[[nodiscard]] bool start_job(const QUOVIX_CMD_OPT *opt, const quovix_args &args, std::size_t index,
                             const char *suffix, cif_job &job) {
    if (args.has(index)) {
        std::snprintf(job.output, QUOVIX_PATH_LEN, "%.1000s", args.c_str(index));
    } else {
        quovix_cmd_name_append(job.output, args.c_str(0), suffix);
    }
    if (quovix_output_check(job.output, args.c_str(0)) != 0) return false;
    return quovix_cmd_read_cif(opt, args.c_str(0), job.cell, job.sym);
}

void write_cif(const char *name, QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym) {
    if (quovix_cell_export_cif_to_file(name, cell, sym) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
    }
}

// Writes every atom of `cell` under the identity operation alone.
void write_cif_p1(const char *name, QUOVIX_CELL *cell) {
    quovix_symmetry_ptr p1(quovix_symmetry_new_p1());
    if (!p1) {
        std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
        return;
    }
    write_cif(name, cell, p1.get());
}

}  // namespace

/// --print-cell [input.cif]: reads the CIF and prints the full cell.
void quovix_cmd_opt_do_print_cell(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --print-cell [input.cif].\n\n",
                     "Example: ./quovix.x --print-cell Li2O.cif\n"});
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    quovix_cell_print(cell.get());
}

/// --print-sym [input.cif]: reads the CIF and prints the symmetry it was written under.
void quovix_cmd_opt_do_print_sym(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --print-sym [input.cif]\n\n", "Example: --print-sym Li2O.cif\n"});
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    quovix_symmetry_print(sym.get());
}

/// --cal-sym [input.cif] | {tolerance}: searches the settings file for the space group of
/// the structure (its own symmetry is discarded); tolerance in A, default 0.01.
void quovix_cmd_opt_do_cal_sym(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --cal-sym [input.cif] | {tolerance}\n\n",
                     "Command: attempts to find out the symmetry group of a structure. Only works "
                     "if the structure is in standard setting.\n",
                     "Example: ./quovix.x --cal-sym Li2O.cif\n"});
        return;
    }
    double tolerance = -1.0;  // non-positive: the search's default of 0.01 A
    if (args.has(1) && !args.read_finite(1, tolerance)) {
        std::fputs("Error: wrong parameter accuracy.\n", stderr);
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    sym.reset();
    quovix_symmetry_ptr found(
        quovix_symmetry_calculate_from_cell(cell.get(), tolerance, opt->dir_symcards));
    if (!found) {
        std::fputs("Error: quovix_symmetry_calculate_from_cell() returns non-zero.\n", stderr);
    }
}

/// --gen-cif [input.cif] | {output_name}: writes the cell under its own symmetry, one atom
/// per orbit; default output name: input name + ".cif".
void quovix_cmd_opt_do_gen_cif(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --gen-cif [input.cif] | {output_name}.\n\n",
                     "Command: {output_name}: the name of the output file. If omitted, the input "
                     "name appended by \".cif\" will be used.\n",
                     "Example: ./quovix.x --gen-cif Li2O.cif\n"});
        return;
    }
    cif_job job;
    if (!start_job(opt, args, 1, ".cif", job)) return;
    write_cif(job.output, job.cell.get(), job.sym.get());
}

/// --gen-cif-reduced [input.cif] | {output_name}: writes the cell reduced by its own
/// symmetry as a P1 structure; default output name: input name + ".reduced.cif".
void quovix_cmd_opt_do_gen_cif_reduced(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --gen-cif-reduced [input.cif] | {output_name}\n\n",
                     "Example: ./quovix.x --gen-cif-reduced Li2O.cif\n"});
        return;
    }
    cif_job job;
    if (!start_job(opt, args, 1, ".reduced.cif", job)) return;
    quovix_cell_ptr reduced(quovix_cell_reduce_by_symmetry(job.cell.get(), job.sym.get()));
    if (!reduced) {
        std::fputs("Error: quovix_cell_reduce_by_symmetry() returns NULL.\n", stderr);
        return;
    }
    write_cif_p1(job.output, reduced.get());
}

/// --gen-cif-p1 [input.cif] | {output_name}: writes every atom of the cell in P1; default
/// output name: input name + ".p1.cif".
void quovix_cmd_opt_do_gen_cif_p1(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --gen-cif-p1 [input.cif] | {output_name}\n\n",
                     "Example: quovix.x --gen-cif-p1 Li2O.cif\n"});
        return;
    }
    cif_job job;
    if (!start_job(opt, args, 1, ".p1.cif", job)) return;
    write_cif_p1(job.output, job.cell.get());
}

/// --gen-cif-assign [input.cif] [type] [os] | {output_name}: resolves at random the sites
/// shared with or partially occupied by the species (type, os) and writes the result in
/// P1; default output name: input name + ".assign.cif".
void quovix_cmd_opt_do_gen_cif_assign(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 3) {
        print_lines(
            {"Command: --gen-cif-assign [input.cif] [type] [os] | {output_name}\n\n",
             "Command: [type] the element type of partially occupied site, two characters.\n",
             "Command: [os] the oxidation state of partially occupied site, integer.\n",
             "Example: ./quovix.x --gen-cif-assign Li6PS5Cl.cif Li 1\n"});
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {0};
    quovix_cmd_opt_get_type(type, args.c_str(1));
    int os = 0;
    if (!args.read_int(2, os)) return;  // a non-number ends the command without a message
    if (!args.read_os(2, os)) {
        std::fputs("Error: wrong parameter os.\n", stderr);
        return;
    }
    cif_job job;
    if (!start_job(opt, args, 3, ".assign.cif", job)) return;
    quovix_cell_ptr assigned(
        quovix_cell_assign_partial_occ_at_conducting_site(job.cell.get(), type, os));
    if (!assigned) {
        std::fputs("Error: quovix_cell_assign_partial_occ_at_conducting_site() returns NULL.\n",
                   stderr);
        return;
    }
    write_cif(job.output, assigned.get(), nullptr);
}

/// --gen-cif-assign-all [input.cif] | {output_name}: resolves every partially occupied
/// site at random and writes the result in P1; default output name: input name +
/// ".assign.cif".
void quovix_cmd_opt_do_gen_cif_assign_all(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --gen-cif-assign-all [input.cif] | {output_name}\n\n",
                     "Example: ./quovix.x --gen-cif-assign-all Li6PS5Cl.cif\n"});
        return;
    }
    cif_job job;
    if (!start_job(opt, args, 1, ".assign.cif", job)) return;
    quovix_cell_ptr assigned(quovix_cell_assign_partial_occ_all(job.cell.get()));
    if (!assigned) {
        std::fputs("Error: quovix_cell_assign_partial_occ_all() returns NULL.\n", stderr);
        return;
    }
    write_cif(job.output, assigned.get(), nullptr);
}
