// Commands whose calculation is not available in this build: each prints its usage block.
#include "quovix-cmd.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;  // usage blocks, line by line

}  // namespace

void quovix_cmd_opt_do_gen_gin_lib(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --gen-gin-lib [input.cif] | {sf} {output_name}\n\n",
                 "Command: {sf}: screening factor. If set to non-positive value, automatic "
                 "calculation is triggered. Default -0.1.\n",
                 "Command: {output_name}: the name of the output file. If omitted, the input "
                 "name with \".lib\" will be used.\n",
                 "Command: generates a Morse type forcefield file in .lib format for GULP.\n",
                 "Example: ./quovix.x --gen-gin-lib Li2O.cif\n"});
}

void quovix_cmd_opt_do_gen_gin_eam(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --gen-gin-eam [input.cif] | {sf} {output_name}\n\n",
                 "Command: {sf}: screening factor. If set to non-positive value, automatic "
                 "calculation is triggered. Default -0.1.\n",
                 "Command: {output_name}: the name of the output file. If omitted, the input "
                 "name with \".lib\" will be used.\n",
                 "Command: generates an embedded-atom method forcefield file in .lib format "
                 "for GULP.\n",
                 "Example: ./quovix.x --gen-gin-eam Li2O.cif\n"});
}

void quovix_cmd_opt_do_gen_gin(QUOVIX_CMD_OPT *) {
    print_lines(
        {"Command: --gen-gin [input.cif] [type] [os] | {sf} {temperature} {output_name}\n\n",
         "Command: [type] the element type of conducting ion, two characters.\n",
         "Command: [os] the oxidation state of conducting ion, integer.\n",
         "Command: {sf}: screening factor. If set to non-positive value, automatic "
         "calculation is triggered. Default -0.1.\n",
         "Command: {temperature}: in K. Default 300.\n",
         "Command: generates an overall .gin input for a molecular dynamics run with "
         "GULP.\n",
         "Example: ./quovix.x --gen-gin Li2O.cif Li 1\n"});
}

void quovix_cmd_opt_do_gen_cube_gii(QUOVIX_CMD_OPT *) {
    print_lines(
        {"Command: --gen-cube-gii [input.cif] [type] [os] | {resolution} "
         "{flag:periodic} {output_name}\n\n",
         "Command: [type] the element type of conducting ion, two characters.\n",
         "Command: [os] the oxidation state of conducting ion, integer.\n",
         "Command: {resolution}: preferred seperation between voxels. Default 0.1.\n",
         "Command: {flag:periodic}: if set to true, generated cube file contains voxels "
         "along boundaries only once. Default true.\n",
         "Command: generates the static GII landscape of the conducting ion.\n",
         "Example: ./quovix.x --gen-cube-gii Li2O.cif Li 1\n"});
}

void quovix_cmd_opt_do_gen_cube_tot(QUOVIX_CMD_OPT *) {
    print_lines(
        {"Command: --gen-cube-tot [input.cif] [type] [os] | {sf} {resolution} "
         "{flag:periodic} {output_name}\n\n",
         "Command: [type] the element type of conducting ion, two characters.\n",
         "Command: [os] the oxidation state of conducting ion, integer.\n",
         "Command: {sf}: screening factor. If set to non-positive value, automatic "
         "calculation is triggered. Default -0.1.\n",
         "Command: {resolution}: preferred seperation between voxels. Default 0.1.\n",
         "Command: generates the total energy landscape of the conducting ion.\n",
         "Example: ./quovix.x --gen-cube-tot Li2O.cif Li 1\n"});
}

void quovix_cmd_opt_do_gen_cube_tot_eam(QUOVIX_CMD_OPT *) {
    print_lines(
        {"Command: --gen-cube-tot-eam [input.cif] [type] [os] | {sf} {resolution} "
         "{flag:periodic} {output_name}\n\n",
         "Command: [type] the element type of conducting ion, two characters.\n",
         "Command: [os] the oxidation state of conducting ion, integer.\n",
         "Command: {sf}: screening factor. If set to non-positive value, automatic "
         "calculation is triggered. Default -0.1.\n",
         "Command: {resolution}: preferred seperation between voxels. Default 0.1.\n",
         "Command: generates the total energy landscape with the EAM term.\n",
         "Example: ./quovix.x --gen-cube-tot-eam Li2O.cif Li 1\n"});
}

void quovix_cmd_opt_do_rx_sd(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --rx-sd [input.cif] | {sf} {step_max} {output_name}\n\n",
                 "Command: relaxes the cell by steepest descent and writes the result in cif "
                 "format.\n",
                 "Example: ./quovix.x --rx-sd Li2O.cif\n"});
}

void quovix_cmd_opt_do_rx_neb(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --rx-neb [initial.cif] [final.cif] [type] [os] | {images}\n\n",
                 "Command: performs a simple nudged elastic band calculation with input of two "
                 "end images.\n",
                 "Example: ./quovix.x --rx-neb Li2O.0.cif Li2O.1.cif Li 1\n"});
}

void quovix_cmd_opt_do_rx_neb_images(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --rx-neb-images [prefix] [images] [type] [os]\n\n",
                 "Command: performs a nudged elastic band calculation with input of a series of "
                 "images prefix.0.cif, prefix.1.cif, ...\n",
                 "Example: ./quovix.x --rx-neb-images Li2O 5 Li 1\n"});
}

void quovix_cmd_opt_do_fft(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --fft [input.cube] | {flag:periodic}\n\n",
                 "Command: Fourier analysis of a cube: critical points with eigenvalues and "
                 "eigenvectors.\n",
                 "Example: ./quovix.x --fft Li2O.cube\n"});
}

void quovix_cmd_opt_do_fft_cubes(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --fft-cubes [input.cube] | {flag:periodic}\n\n",
                 "Command: Fourier analysis writing force, force-constant, laplacian and slope "
                 "cubes.\n",
                 "Example: ./quovix.x --fft-cubes Li2O.cube\n"});
}

void quovix_cmd_opt_do_fp_map(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --fp-map [input.cube] | {barrier_max} {flag:periodic} {output_name}\n\n",
                 "Command: {barrier_max}: Only paths with barrier below this value are shown. If "
                 "set to non-positive value, all paths are shown. Default -0.1.\n",
                 "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
                 "Default true.\n",
                 "Command: generates a cif file representing paths in the provided cube.\n",
                 "         H : path dots.\n", "         Li: local minimum.\n",
                 "         Na: saddle point of 1st type.\n",
                 "         K: saddle point of 2st type.\n", "         Rb: local maximum.\n",
                 "Example: ./quovix.x --fp-map Li2O.cube\n"});
}

void quovix_cmd_opt_do_gh(QUOVIX_CMD_OPT *) {
    print_lines(
        {"Command: --gh [input.cif] [input.cube] [type] [os] | {barrier_max} "
         "{flag:periodic}\n\n",
         "Command: [type]: type of conducting ions.\n",
         "Command: [os]: oxidation state of conducting ions.\n",
         "Command: {barrier_max}: Only paths with barrier below this value are shown. If "
         "set to non-positive value, all paths are considered. Default -0.1.\n",
         "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
         "Default true.\n",
         "Command: analyze the conduction pathway of the given cube file and attempt to "
         "label sites according to the given cif file. Percolation thresholds are printed "
         "to screen, while corresponding pathway files are generated in cif format. "
         "Additionally, a summary of the pathway if generated in csv txt format.\n",
         "Example: ./quovix.x --gh Li2O.cif Li2O.cube Li 1\n"});
}

void quovix_cmd_opt_do_kmc(QUOVIX_CMD_OPT *) {
    std::printf(
        "Command: --kmc [input.cif] [input.cube] {type} {os} | {s0 s1 s2} {sf} {temperature} "
        "{t_limit} {step_limit} {step_log} {cutoff}\n\n");
    std::printf("Command: {type}: type of conducting ions.\n");
    std::printf("Command: {os}: oxidation state of conducting ions.\n");
    std::printf(
        "Command: {s1 s2 s3}: three positive integers defining the supercell. If missing or any "
        "of the three integers is non-positive, a default algorithm is triggered to generate the "
        "supercell.\n");
    std::printf(
        "Command: {sf}: screening factor. If set to non-positive value, automatic calculation is "
        "triggered. Default: -0.1.\n");
    std::printf(
        "Command: {temperature}: in K. If set to non-positive value, default value is used. "
        "Default: -0.1.\n");
    std::printf(
        "Command: {t_limit}: in picosecond. Negative number to use default value; set to 0.0 to "
        "turn off limiting by time. Default: %.0lf ps.\n",
        0.0);
    std::printf(
        "Command: {step_limit}: limiting number of steps. Negative or larger than {step_limit} "
        "means using the default. Default: %ld.\n",
        10000L);
    std::printf(
        "Command: {step_log}: number of steps between two log records. Non-positive to use the "
        "default value.\n");
    std::printf(
        "Command: {cutoff}: the cutoff radius within which the coulomb repulsion is considered. "
        "If set to non-positive value, default value is used. Default: %.3lf\n",
        5.0);
    std::printf(
        "Command: calculates conductivity by kinetic monte carlo method, importing cube file to "
        "skip the generation of cube.\n");
    std::printf("Example: ./quovix.x --kmc Li2O.cif Li2O.cube Li 1\n");
    std::printf(
        "Example: ./quovix.x --kmc AgI-a.cif AgI-a.cube Ag 1 2 2 2 -1 600 1000000 -1 -1 -0.1\n");
}

void quovix_cmd_opt_do_sites(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --sites [input.cif] [input.cube] [type] [os]\n\n",
                 "Command: prints a summary of sites based on graph analysis.\n",
                 "Example: ./quovix.x --sites Li2O.cif Li2O.cube Li 1\n"});
}

void quovix_cmd_opt_do_md(QUOVIX_CMD_OPT *) {
    std::printf(
        "Command: --md [input.cif] {type} {os} | {sf} {temperature} {t_end} {t_equil} {dt} "
        "{t_log}\n\n");
    std::printf(
        "Command: [input.cif]: must not contain any partial occupancy of conducting ions.\n");
    std::printf("Command: {type}: type of conducting ions.\n");
    std::printf("Command: {os}: oxidation state of conducting ions.\n");
    std::printf(
        "Command: {sf}: screening factor. If set to non-positive value, automatic calculation is "
        "triggered. Default: -0.1.\n");
    std::printf(
        "Command: {temperature}: temperature in K. Set to non-positive to use the default value. "
        "Default %.0lf.\n",
        300.0);
    std::printf(
        "Command: {t_end}: time of production in ps. Set to non-positive to use the default "
        "value. Default %.3lf.\n",
        10.0);
    std::printf(
        "Command: {t_equil}: time of equilibration in ps. Set to non-positive to use the default "
        "value. Default %.3lf.\n",
        2.0);
    std::printf(
        "Command: {dt}: time step in ps. Set to non-positive to use the default value. Default "
        "%.3lf.\n",
        0.001);
    std::printf(
        "Command: {t_log}: time interval of sampling in ps. Set to non-positive to sample every "
        "%ld steps.\n",
        100L);
    std::printf(
        "Command: perform a molecular dynamics fixing all ions except those specified as "
        "conducting.\n");
    std::printf("Example: ./quovix.x --md Li2O.cif Li 1\n");
    std::printf("Example: ./quovix.x --md Li2O.cif Li 1 600 100.0 10.0 0.005 1.0\n");
}

void quovix_cmd_opt_do_text_gen_gin_lib(QUOVIX_CMD_OPT *opt) {
    if (!opt || opt->argc <= 2) {
        std::fputs("Error: not enough arguments.\n", stderr);
        return;
    }
    print_lines({"Command: --text-gen-gin-lib -:text [cif words, lines separated by -:nl]\n\n",
                 "Command: prints the GULP library text for a CIF given in text mode.\n",
                 "Example: ./quovix.x --text-gen-gin-lib -:text data_x -:nl ...\n"});
}

void quovix_cmd_opt_do_text_gen_gin_lib_set_sf(QUOVIX_CMD_OPT *opt) {
    if (!opt || opt->argc <= 3) {
        std::fputs("Error: not enough arguments.\n", stderr);
        return;
    }
    print_lines(
        {"Command: --text-gen-gin-lib-set-sf [sf] -:text [cif words, lines separated by "
         "-:nl]\n\n",
         "Command: prints the GULP library text with the given screening factor for a "
         "CIF given in text mode.\n",
         "Example: ./quovix.x --text-gen-gin-lib-set-sf 0.75 -:text data_x -:nl ...\n"});
}
