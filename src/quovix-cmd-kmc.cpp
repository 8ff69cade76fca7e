// Command handler of the kinetic Monte Carlo: --kmc.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "quovix-cmd.hpp"
#include "quovix-kmc.hpp"

namespace {

void print_help() {
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
        QUOVIX_KMC_T_LIMIT_DEFAULT);
    std::printf(
        "Command: {step_limit}: limiting number of steps. Negative or larger than {step_limit} "
        "means using the default. Default: %ld.\n",
        QUOVIX_KMC_STEP_LIMIT_DEFAULT);
    std::printf(
        "Command: {step_log}: number of steps between two records of the logs. Non-positive to "
        "use the default: step_limit/100 (at least 1), or 1000 when only the time is "
        "limited.\n");
    std::printf(
        "Command: {cutoff}: the cutoff radius within which the coulomb repulsion is considered. "
        "If set to non-positive value, default value is used. Default: %.3lf\n",
        QUOVIX_KMC_CUTOFF_DEFAULT);
    std::printf(
        "Command: calculates conductivity by kinetic monte carlo method, importing cube file to "
        "skip the generation of cube.\n");
    std::printf("Example: ./quovix.x --kmc Li2O.cif Li2O.cube Li 1\n");
    std::printf(
        "Example: ./quovix.x --kmc AgI-a.cif AgI-a.cube Ag 1 2 2 2 -1 600 1000000 -1 -1 -0.1\n");
    std::printf(
        "Command: defaults: supercell = the smallest one whose perpendicular widths are all at "
        "least twice the cutoff; temperature = %.0lf K; step_limit at most %ld; equilibration = "
        "max(step_limit/10, 10 x number of ions) steps.\n",
        QUOVIX_KMC_TEMPERATURE_DEFAULT, QUOVIX_KMC_STEP_LIMIT_MAX);
    std::printf(
        "Command: the cube file is used when it exists and its cell matches the cif file; "
        "otherwise the landscape is computed from the cif file.\n");
    std::printf(
        "Command: standard errors of diffusivity, mobility and conductivity come from %d blocks "
        "of the production run.\n",
        QUOVIX_KMC_BLOCKS);
}

}  // namespace

/// --kmc [input.cif] [input.cube] {type} {os} | {s0 s1 s2} {sf} {temperature} {t_limit}
/// {step_limit} {step_log} {cutoff}: conductivity of the mobile ion by kinetic Monte Carlo.
void quovix_cmd_opt_do_kmc(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 4) {
        print_help();
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {};
    if (std::sscanf(args.c_str(2), "%2s", type) != 1) {
        std::fputs("Error: wrong parameter type.\n", stderr);
        return;
    }
    int os = 0;
    if (!args.read_int(3, os)) {
        std::fputs("Error: wrong parameter os.\n", stderr);
        return;
    }
    int super[3] = {-1, -1, -1};
    static const char *const super_error[3] = {"Error: wrong parameter s[0].\n",
                                               "Error: wrong parameter s[1].\n",
                                               "Error: wrong parameter s[2].\n"};
    for (int k = 0; k < 3; ++k) {
        if (args.has(4 + k) && !args.read_int(4 + k, super[k])) {
            std::fputs(super_error[k], stderr);
            return;
        }
    }
    double sf = -0.1;
    if (args.has(7) && (!args.read_double(7, sf) || !std::isfinite(sf))) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return;
    }
    double temperature = -0.1;
    if (args.has(8) && (!args.read_double(8, temperature) || std::isnan(temperature))) {
        std::fputs("Error: wrong parameter temperature.\n", stderr);
        return;
    }
    double t_limit = -1.0;
    if (args.has(9) && (!args.read_double(9, t_limit) || std::isnan(t_limit))) {
        std::fputs("Error: wrong parameter t_limit.\n", stderr);
        return;
    }
    long step_limit = -1;
    if (args.has(10) && !args.read_long(10, step_limit)) {
        std::fputs("Error: wrong parameter step_limit.\n", stderr);
        return;
    }
    long step_log = -1;
    if (args.has(11) && !args.read_long(11, step_log)) {
        std::fputs("Error: wrong parameter step_log.\n", stderr);
        return;
    }
    double cutoff = -1.0;
    if (args.has(12) && (!args.read_double(12, cutoff) || !std::isfinite(cutoff))) {
        std::fputs("Error: wrong parameter cutoff.\n", stderr);
        return;
    }
    if (!(cutoff > 0.0)) cutoff = -1.0;  // non-positive: the default
    char cifname[QUOVIX_PATH_LEN] = {};
    char cubename[QUOVIX_PATH_LEN] = {};
    std::snprintf(cifname, 1001, "%s", args.c_str(0));
    std::snprintf(cubename, 1001, "%s", args.c_str(1));
    const double sigma = quovix_kmc_calculate_conductivity_from_file(
        cifname, cubename, type, os, super, sf, temperature, t_limit, step_limit, step_log, cutoff,
        opt->dir_symcards, opt->dir_unitary, opt->dir_binary);
    if (sigma < 0.0)
        std::fputs("Error: quovix_kmc_calculate_conductivity_from_file() returns negative value.\n",
                   stderr);
}
