// Command handlers of the relaxation: --rx-sd, --rx-neb and --rx-neb-images.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "quovix-cmd.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"
#include "quovix-rx-relax.hpp"
#include "quovix-rx.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;
constexpr long default_sd_steps = 200, default_neb_steps = 500, max_steps = 100000;
constexpr long default_images = 7, max_images = 100;
constexpr double sd_force_tol = 0.01;   // eV/A
constexpr double sd_max_move = 0.05;    // A
constexpr double neb_force_tol = 0.02;  // eV/A
constexpr double neb_spring = 5.0;      // eV/A^2

// Optional count at word i in [1, max]; non-positive or absent means the default.
bool read_count(const quovix_args &args, std::size_t i, long max, long &value, const char *what) {
    if (!args.has(i)) return true;
    long v = 0;
    if (!args.read_long(i, v) || v > max) {
        std::fprintf(stderr, "Error: wrong parameter %s.\n", what);
        return false;
    }
    if (v > 0) value = v;
    return true;
}

quovix_property_ptr build(const QUOVIX_CMD_OPT *opt, QUOVIX_CELL *cell, double sf) {
    quovix_property_ptr ppt{
        quovix_property_import_from_cell(cell, nullptr, 0, sf, opt->dir_unitary, opt->dir_binary)};
    if (!ppt) std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
    return ppt;
}

// The fixed flags of the file, moved from the atoms into an array of the command's own.
bool fixed_flags(QUOVIX_CELL *cell, const char *path, std::vector<char> &fixed) {
    if (quovix_cell_import_cif_read_constraint(cell, path) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_constraint() returns non-zero.\n", stderr);
        return false;
    }
    fixed.assign(static_cast<std::size_t>(cell->total), 0);
    for (long k = 0; k < cell->total; ++k) {
        fixed[k] = cell->atom[k].ignored ? 1 : 0;
        cell->atom[k].ignored = false;  // every atom counts in the energy
    }
    return true;
}

bool write_cell(const char *name, QUOVIX_CELL *cell) {
    quovix_symmetry_ptr p1{quovix_symmetry_new_p1()};
    if (!p1) {
        std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
        return false;
    }
    if (quovix_cell_export_cif_to_file(name, cell, p1.get()) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        return false;
    }
    return true;
}

// The band of cells (atoms sorted by building each parameter set), relaxed, written as
// "<base>.neb.<m>.cif" and "<base>.neb.csv".
void run_band(const QUOVIX_CMD_OPT *opt, std::vector<quovix_cell_ptr> &cells, long total,
              const char *path0, const char *type, int os, double sf, long steps,
              const char *base) {
    quovix_property_ptr ppt = build(opt, cells[0].get(), sf);
    if (!ppt) return;
    for (std::size_t m = 1; m < cells.size(); ++m) {
        // Same species order in every image; the fitted factor of the first is reused.
        if (!build(opt, cells[m].get(), ppt->sf)) return;
    }
    std::vector<char> fixed;
    if (!fixed_flags(cells[0].get(), path0, fixed)) return;
    std::vector<bool> free_atom(static_cast<std::size_t>(cells[0]->total));
    long moving = 0;
    for (long k = 0; k < cells[0]->total; ++k) {
        const QUOVIX_ATOM &a = cells[0]->atom[k];
        free_atom[k] = !fixed[k] && a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0;
        moving += free_atom[k] ? 1 : 0;
    }
    if (moving == 0) {
        std::fprintf(stderr, "Error: no free %s%d%c ion in %s.\n", type, quovix_abs_os(os),
                     quovix_sign_char(os), path0);
        return;
    }
    std::vector<QUOVIX_CELL *> raw;
    for (auto &c : cells) raw.push_back(c.get());
    quovix_owner<QUOVIX_RX_NEB, quovix_rx_neb_free> neb{
        quovix_rx_neb_new(raw.data(), static_cast<long>(raw.size()), total)};
    if (!neb) {
        std::fputs("Error: quovix_rx_neb_new() returns NULL.\n", stderr);
        return;
    }
    std::unique_ptr<bool[]> free_flags(new bool[free_atom.size()]);
    for (std::size_t k = 0; k < free_atom.size(); ++k) free_flags[k] = free_atom[k];
    if (quovix_rx_neb_run(neb.get(), ppt.get(), free_flags.get(), steps, neb_force_tol,
                          neb_spring) != 0) {
        std::fputs("Error: quovix_rx_neb_run() returns non-zero.\n", stderr);
        return;
    }
    quovix_rx_neb_print(neb.get());
    long top = 0;
    for (long m = 0; m < neb->total; ++m)
        if (neb->en[m] > neb->en[top]) top = m;
    std::printf("NEB: barrier = %.6f eV at image %ld\n", neb->en[top] - neb->en[0], top);
    char name[QUOVIX_PATH_LEN];
    for (long m = 0; m < neb->total; ++m) {
        std::snprintf(name, sizeof name, "%.990s.neb.%ld.cif", base, m);
        if (!write_cell(name, neb->cell[m])) return;
    }
    std::snprintf(name, sizeof name, "%.1000s.neb.csv", base);
    quovix_output_file csv(name);
    if (!csv) {
        std::fprintf(stderr, "Error: unable to write to %s.\n", name);
        return;
    }
    std::fputs("image,s_A,energy_eV,relative_eV\n", csv.get());
    for (long m = 0; m < neb->total; ++m)
        std::fprintf(csv.get(), "%ld,%.6f,%.6f,%.6f\n", m, neb->s[m], neb->en[m],
                     neb->en[m] - neb->en[0]);
    if (csv.commit() != 0) return;
    std::printf("Message: images saved to %.1000s.neb.0.cif ... %.1000s.neb.%ld.cif\n", base, base,
                neb->total - 1);
    std::printf("Message: energy profile saved to %s\n", name);
}

}  // namespace

/// --rx-sd [input.cif] | {sf} {steps} {flag:relax_lattice} {output_name}
void quovix_cmd_opt_do_rx_sd(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines(
            {"Command: --rx-sd [input.cif] | {sf} {steps} {flag:relax_lattice} {output_name}\n\n",
             QUOVIX_CMD_SF_HELP,
             "Command: {steps}: largest number of steps. Set to non-positive to use the default. "
             "Default 200.\n",
             "Command: {flag:relax_lattice}: if set to true, the lattice relaxes too, along its "
             "diagonal stress. Default false.\n",
             "Command: {output_name}: the relaxed structure. Default: the input name with "
             "\".rx.cif\" in place of its extension.\n",
             "Command: relaxes the cell by steepest descent on the bond-valence energy with "
             "embedding and writes the result in cif format; atoms flagged true in "
             "_atom_site_quovix_fixed stay in place. Stops when every force is below 0.01 eV/A.\n",
             "Example: ./quovix.x --rx-sd Li2O.cif\n",
             "Example: ./quovix.x --rx-sd Li2O.cif -1 500 true Li2O_relaxed.cif\n"});
        return;
    }
    double sf = 0.0;
    long steps = default_sd_steps;
    bool lattice = false;
    if (!quovix_cmd_read_sf(args, 1, sf) || !read_count(args, 2, max_steps, steps, "steps")) return;
    args.read_flag(3, lattice);
    char filename[QUOVIX_PATH_LEN];
    if (!quovix_cmd_output_name(args, 4, ".rx.cif", filename)) return;
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    quovix_property_ptr ppt = build(opt, cell.get(), sf);
    if (!ppt) return;
    if (quovix_property_calculate_unitary_eam_parameter(ppt.get()) != 0) {
        std::fputs("Error: quovix_property_calculate_unitary_eam_parameter() returns non-zero.\n",
                   stderr);
        return;
    }
    std::vector<char> fixed;
    if (!fixed_flags(cell.get(), args.c_str(0), fixed)) return;
    std::unique_ptr<bool[]> flags(new bool[fixed.size()]);
    for (std::size_t k = 0; k < fixed.size(); ++k) flags[k] = fixed[k] != 0;
    if (quovix_rx_sd_run(cell.get(), ppt.get(), flags.get(), steps, lattice, sd_force_tol,
                         sd_max_move) != 0) {
        std::fputs("Error: quovix_rx_sd_run() returns non-zero.\n", stderr);
        return;
    }
    if (!write_cell(filename, cell.get())) return;
    std::printf("Message: relaxed structure saved to %s\n", filename);
}

/// --rx-neb [start.cif] [end.cif] [type] [os] | {images} {sf} {steps}
void quovix_cmd_opt_do_rx_neb(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 4) {
        print_lines(
            {"Command: --rx-neb [start.cif] [end.cif] [type] [os] | {images} {sf} {steps}\n\n",
             "Command: [start.cif] [end.cif]: end structures with the same atoms in the same "
             "order and the same lattice.\n",
             "Command: [type] [os]: the moving ions; every other atom, and atoms flagged in "
             "_atom_site_quovix_fixed of start.cif, stay in place.\n",
             "Command: {images}: images between the ends. Set to non-positive to use the "
             "default. Default 7.\n",
             QUOVIX_CMD_SF_HELP, "Command: {steps}: largest number of steps. Default 500.\n",
             "Command: perform a simple nudged elastic bend calculation with input of two end "
             "images: climbing image on the interatomic energy; writes start.neb.<i>.cif and "
             "the energy profile start.neb.csv.\n",
             "Example: ./quovix.x --rx-neb Li2O_a.cif Li2O_b.cif Li 1\n"});
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {};
    int os = 0;
    if (!quovix_cmd_read_type_os(args, 2, type, os)) return;
    long images = default_images, steps = default_neb_steps;
    double sf = 0.0;
    if (!read_count(args, 4, max_images, images, "images") || !quovix_cmd_read_sf(args, 5, sf) ||
        !read_count(args, 6, max_steps, steps, "steps"))
        return;
    std::vector<quovix_cell_ptr> cells(2);
    for (int m = 0; m < 2; ++m) {
        quovix_symmetry_ptr sym;
        if (!quovix_cmd_read_cif(opt, args.c_str(m), cells[m], sym)) return;
    }
    char base[QUOVIX_PATH_LEN];
    quovix_cmd_name_replace_ext(base, args.c_str(0), "");
    run_band(opt, cells, images + 2, args.c_str(0), type, os, sf, steps, base);
}

/// --rx-neb-images [prefix] [count] [type] [os] | {sf} {steps}
void quovix_cmd_opt_do_rx_neb_images(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 4) {
        print_lines({"Command: --rx-neb-images [prefix] [count] [type] [os] | {sf} {steps}\n\n",
                     "Command: [prefix] [count]: the images prefix.0.cif ... prefix.<count-1>.cif "
                     "(at least 3), same atoms in the same order.\n",
                     "Command: [type] [os]: the moving ions.\n", QUOVIX_CMD_SF_HELP,
                     "Command: {steps}: largest number of steps. Default 500.\n",
                     "Command: nudged elastic band from a series of images; writes "
                     "prefix.neb.<i>.cif and prefix.neb.csv.\n",
                     "Example: ./quovix.x --rx-neb-images Li2O 9 Li 1\n"});
        return;
    }
    long count = 0;
    if (!args.read_long(1, count) || count < 3 || count > max_images + 2) {
        std::fputs("Error: wrong parameter count; it must lie in [3, 102].\n", stderr);
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {};
    int os = 0;
    if (!quovix_cmd_read_type_os(args, 2, type, os)) return;
    double sf = 0.0;
    long steps = default_neb_steps;
    if (!quovix_cmd_read_sf(args, 4, sf) || !read_count(args, 5, max_steps, steps, "steps")) return;
    QUOVIX_CELL **raw = quovix_cells_import_cif_from_file(args.c_str(0), static_cast<int>(count),
                                                          opt->dir_symcards, opt->dir_unitary);
    if (!raw) {
        std::fputs("Error: quovix_cells_import_cif_from_file() returns NULL.\n", stderr);
        return;
    }
    std::vector<quovix_cell_ptr> cells;
    for (long m = 0; m < count; ++m) cells.emplace_back(raw[m]);
    std::free(raw);
    char first[QUOVIX_PATH_LEN];
    std::snprintf(first, sizeof first, "%.1000s.0.cif", args.c_str(0));
    run_band(opt, cells, count, first, type, os, sf, steps, args.c_str(0));
}
