// Commands whose calculation is not available in this build: each prints its usage block.
#include "quovix-cmd.hpp"

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
