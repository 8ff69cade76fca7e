// The command table and the dispatch: one row per command. The --help listing and the
// tests' list of usage commands (tests/CMakeLists.txt reads the rows of this file) are
// built from it. A new command is one row here plus its handler in quovix-cmd-<module>.cpp.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "quovix-cmd.hpp"

namespace {

// Blank line before the row's entry in the --help listing.
constexpr bool kNewGroup = true;

// Rows in --help order; argv[1] is compared with each option exactly. Keep each row's option
// first on its line: the test list is read from here.
constexpr quovix_command kCommands[] = {
    {"--help", quovix_cmd_opt_do_print_help, "display this help."},
    {"-h", quovix_cmd_opt_do_print_help, nullptr},
    {"--version", quovix_cmd_opt_do_print_version, nullptr},
    {"-v", quovix_cmd_opt_do_print_version, nullptr},
    {"--print-sys", quovix_cmd_opt_print, nullptr},
    {"--print-cell", quovix_cmd_opt_do_print_cell, "print the loaded cell."},
    {"--print-ppt", quovix_cmd_opt_do_print_ppt,
     "print the property corresponding to the loaded cell."},
    {"--print-ppt-full", quovix_cmd_opt_do_print_ppt_full, nullptr},
    {"--print-sym", quovix_cmd_opt_do_print_sym,
     "print the symmetry corresponding to the loaded cell."},
    {"--print-cube", quovix_cmd_opt_do_print_cube, "print a summary of the loaded cube."},

    {"--gen-cif", quovix_cmd_opt_do_gen_cif, "write the loaded cell to file in cif format.",
     kNewGroup},
    {"--gen-cif-reduced", quovix_cmd_opt_do_gen_cif_reduced,
     "write the loaded cell reduced by symmetry to file in cif format."},
    {"--gen-cif-p1", quovix_cmd_opt_do_gen_cif_p1,
     "write the loaded cell to file in cif format without symmetry."},
    {"--gen-cif-assign", quovix_cmd_opt_do_gen_cif_assign,
     "write the cell with partially occupied sites of the conducting species assigned "
     "occupancy 1.0 at random."},
    {"--gen-cif-assign-all", quovix_cmd_opt_do_gen_cif_assign_all,
     "write the cell with all partially occupied sites assigned occupancy 1.0 at random."},
    {"--gen-cif-os", quovix_cmd_opt_do_gen_cif_os, nullptr},
    {"--gen-gin-lib", quovix_cmd_opt_do_gen_gin_lib,
     "generate a Morse type forcefield file in .lib format for calculation with software GULP."},
    {"--gen-gin-eam", quovix_cmd_opt_do_gen_gin_eam,
     "generate a Embedde-atom Method forcefield file in .lib format for calculation with "
     "software GULP."},
    {"--gen-gin", quovix_cmd_opt_do_gen_gin,
     "generate an overall input file in .gin format for performing molecular dynamics "
     "calculaiton with software GULP."},
    {"--gen-cube", quovix_cmd_opt_do_gen_cube,
     "static (bond-valence site energy) landscape of the conducting ion, written as a "
     "Gaussian cube file."},
    {"--gen-cube-gii", quovix_cmd_opt_do_gen_cube_gii,
     "static GII landscape, written as a cube file."},
    {"--gen-cube-tot", quovix_cmd_opt_do_gen_cube_tot,
     "total energy landscape, written as a cube file."},
    {"--gen-cube-tot-eam", quovix_cmd_opt_do_gen_cube_tot_eam,
     "total energy landscape with the EAM term, written as a cube file."},

    {"--cal-bv", quovix_cmd_opt_do_cal_bv,
     "calculate bond valences (sums) of the loaded cell, then its GII.", kNewGroup},
    {"--cal-bv-gui", quovix_cmd_opt_do_cal_bv_gui, nullptr},
    {"--cal-bv-type", quovix_cmd_opt_do_cal_bv_type, nullptr},
    {"--cal-gii", quovix_cmd_opt_do_cal_gii,
     "calculate the global instability index of the loaded cell."},
    {"--cal-cn", quovix_cmd_opt_do_cal_cn,
     "coordination number of the specified atom by radial distribution."},
    {"--cal-cn-bv", quovix_cmd_opt_do_cal_cn_bv,
     "coordination number of the specified atom by bond valence theory."},
    {"--cal-cn-atom", quovix_cmd_opt_do_cal_cn_atom, "coordination shell of the specified atom."},
    {"--cal-cn-type", quovix_cmd_opt_do_cal_cn_type,
     "averaged coordination number of the specified pair of ions."},
    {"--cal-cn-gui", quovix_cmd_opt_do_cal_cn_gui,
     "coordination numbers of all sites by bond valence theory."},
    {"--cal-sym", quovix_cmd_opt_do_cal_sym, "calculate symmetry of the loaded cell."},
    {"--cal-tot-en", quovix_cmd_opt_do_cal_tot_en,
     "calculate the total energy of the loaded cell."},
    {"--cal-charge", quovix_cmd_opt_do_cal_charge,
     "calculate the total charge of the loaded cell."},

    {"--rx-sd", quovix_cmd_opt_do_rx_sd,
     "relax the cell by steepest descent and write the result as CIF.", kNewGroup},
    {"--rx-neb", quovix_cmd_opt_do_rx_neb,
     "perform a simple nudged elastic bend calculation with input of two end images."},
    {"--rx-neb-images", quovix_cmd_opt_do_rx_neb_images,
     "nudged elastic band from a series of images."},
    {"--fft", quovix_cmd_opt_do_fft,
     "Fourier analysis of a cube: critical points with eigenvalues and eigenvectors."},
    {"--fft-cubes", quovix_cmd_opt_do_fft_cubes,
     "Fourier analysis writing force, force-constant, laplacian and slope cubes."},
    {"--fp-map", quovix_cmd_opt_do_fp_map, "CIF file representing the conduction path in a cube."},
    {"--gh", quovix_cmd_opt_do_gh,
     "CIF and csv files of the characteristic conduction pathway in a cube."},
    {"--sites", quovix_cmd_opt_do_sites, "summary of sites based on graph analysis."},
    {"--md", quovix_cmd_opt_do_md,
     "perform a molecular dynamics allowing only conducting ions to move."},
    {"--kmc", quovix_cmd_opt_do_kmc,
     "conducts a kinetic monte carlo simulation to estimate the ionic conductivity given the "
     "cif and cube files."},

    // Text mode: the structure follows "-:text" on the command line.
    {"--text-cal-bv", quovix_cmd_opt_do_text_cal_bv, nullptr},
    {"--text-gen-gin-lib", quovix_cmd_opt_do_text_gen_gin_lib, nullptr},
    {"--text-gen-gin-lib-set-sf", quovix_cmd_opt_do_text_gen_gin_lib_set_sf, nullptr},
};

}  // namespace

std::span<const quovix_command> quovix_cmd_table() { return kCommands; }

const quovix_command *quovix_cmd_find(const char *option) {
    if (option == nullptr) return nullptr;
    for (const quovix_command &c : kCommands) {
        if (std::strcmp(option, c.option) == 0) return &c;
    }
    return nullptr;
}

int quovix_cmd_start(int argc, char **argv) {
    quovix_owner<QUOVIX_CMD_OPT, quovix_cmd_opt_free> opt{quovix_cmd_opt_init(argc, argv)};
    if (!opt) {
        std::fputs("Error: quovix_cmd_opt_init() returns NULL.\n", stderr);
        return 1;
    }
    // One seed per run from the calendar time; every random choice draws from it.
    std::srand(static_cast<unsigned>(std::time(nullptr)));

    if (argc == 1) {
        quovix_cmd_opt_do_print_version(opt.get());
        return 0;
    }
    if (const quovix_command *c = quovix_cmd_find(argv[1])) {
        c->handler(opt.get());
        std::fflush(stdout);
        return 0;
    }
    std::printf("Error: arguments not recognized. '-h' for help.\n");
    return 0;
}

void quovix_cmd_opt_do_print_help(QUOVIX_CMD_OPT *) {
    std::printf("Message: avalable commands are listed.\n");
    std::printf(
        "Message: detailed help with each command can be found by typing each command without "
        "argument,\n");
    std::printf(
        "Message: basic format is: --command-name [compulsory arguments] | {optional "
        "arguments}\n");
    std::printf("\n");
    for (const quovix_command &c : kCommands) {
        if (c.help == nullptr) continue;
        if (c.new_group) std::printf("\n");
        // The option column is 20 characters wide, so that the longest option
        // (--gen-cif-assign-all) still lines up with the others.
        std::printf("Message:   %-20s: %s\n", c.option, c.help);
    }
}
