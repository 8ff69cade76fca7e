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

void quovix_cmd_opt_do_cal_cn(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --cal-cn [input.cif] [atom name] | {bin width}\n\n",
                 "Command: calculates the coordination number of the specified atom by radial "
                 "distribution.\n",
                 "Example: ./quovix.x --cal-cn Li2O.cif Li1\n"});
}

void quovix_cmd_opt_do_cal_cn_atom(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --cal-cn-atom [input.cif] [atom name] | {radius}\n\n",
                 "Command: prints the coordination shell of the specified atom.\n",
                 "Example: ./quovix.x --cal-cn-atom Li2O.cif Li1\n"});
}

void quovix_cmd_opt_do_cal_cn_type(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --cal-cn-type [input.cif] [type1] [os1] [type2] [os2]\n\n",
                 "Command: calculates the averaged coordination number of the specified pair of "
                 "ions.\n",
                 "Example: ./quovix.x --cal-cn-type Li2O.cif Li 1 O -2\n"});
}

void quovix_cmd_opt_do_cal_cn_bv(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --cal-cn-bv [input.cif] [atom name]\n\n",
                 "Command: calculates the coordination number of the specified atom by bond "
                 "valence theory.\n",
                 "Example: ./quovix.x --cal-cn-bv Li2O.cif Li1\n"});
}

void quovix_cmd_opt_do_cal_cn_gui(QUOVIX_CMD_OPT *) {
    print_lines({"Command: --cal-cn-gui [input.cif]\n\n",
                 "Command: calculates coordination numbers of all sites by bond valence "
                 "theory.\n",
                 "Example: ./quovix.x --cal-cn-gui Li2O.cif\n"});
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
