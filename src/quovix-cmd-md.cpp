// Command handler of the molecular dynamics: --md.
#include <cmath>
#include <cstdio>

#include "quovix-cmd.hpp"
#include "quovix-md.hpp"

namespace {

void print_md_help() {
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
        QUOVIX_MD_DEFAULT_TEMPERATURE);
    std::printf(
        "Command: {t_end}: time of production in ps. Set to non-positive to use the default "
        "value. Default %.3lf.\n",
        QUOVIX_MD_DEFAULT_T_END);
    std::printf(
        "Command: {t_equil}: time of equilibration in ps. Set to non-positive to use the default "
        "value. Default %.3lf.\n",
        QUOVIX_MD_DEFAULT_T_EQUIL);
    std::printf(
        "Command: {dt}: time step in ps. Set to non-positive to use the default value. Default "
        "%.3lf.\n",
        QUOVIX_MD_DEFAULT_DT);
    std::printf(
        "Command: {t_log}: time interval of sampling in ps. Set to non-positive to sample every "
        "%ld steps.\n",
        QUOVIX_MD_DEFAULT_STEP_LOG);
    std::printf(
        "Command: perform a molecular dynamics fixing all ions except those specified as "
        "conducting.\n");
    std::printf("Example: ./quovix.x --md Li2O.cif Li 1\n");
    std::printf("Example: ./quovix.x --md Li2O.cif Li 1 600 100.0 10.0 0.005 1.0\n");
}

}  // namespace

/// --md [input.cif] {type} {os} | {sf} {temperature} {t_end} {t_equil} {dt} {t_log}: molecular
/// dynamics of the conducting ions in the fixed framework. Type and os are compulsory; every
/// optional number not given is -0.1, and a non-positive one means its default.
void quovix_cmd_opt_do_md(QUOVIX_CMD_OPT *opt) {
    if (opt == nullptr || opt->argc <= 4) {
        print_md_help();
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {0};
    if (std::sscanf(opt->argv[3], "%2s", type) != 1) {
        std::fputs("Error: wrong parameter type.\n", stderr);
        return;
    }
    int os = 0;
    if (std::sscanf(opt->argv[4], "%d", &os) != 1) {
        std::fputs("Error: wrong parameter os.\n", stderr);
        return;
    }
    // sf, temperature, t_end, t_equil, dt, t_log in this order.
    double value[6] = {-0.1, -0.1, -0.1, -0.1, -0.1, -0.1};
    const char *const errors[6] = {
        "Error: wrong parameter sf.\n",    "Error: wrong parameter temperature.\n",
        "Error: wrong parameter t_end.\n", "Error: wrong parameter t_equil.\n",
        "Error: wrong parameter dt.\n",    "Error: wrong parameter t_log.\n"};
    for (int k = 0; k < 6 && 5 + k < opt->argc; ++k) {
        // A value that is not a number cannot stand for a parameter or its default.
        if (std::sscanf(opt->argv[5 + k], "%lf", &value[k]) != 1 || std::isnan(value[k]) ||
            (k == 0 && std::isinf(value[0]))) {
            std::fputs(errors[k], stderr);
            return;
        }
    }
    if (quovix_md_conduction_from_file(opt->argv[2], type, os, value[0], value[1], value[2],
                                       value[3], value[4], value[5], opt->dir_binary,
                                       opt->dir_unitary, opt->dir_symcards) < 0) {
        std::fputs("Error: quovix_md_conduction_from_file() returns negative value.\n", stderr);
    }
}
