// Commands whose calculation is not available in this build: each prints its usage block.
#include "quovix-cmd.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;  // usage blocks, line by line

}  // namespace

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
