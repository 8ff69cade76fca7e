// Command handlers of the migration graph: --gh (percolation network) and --sites (site table).
#include <cmath>
#include <cstdio>

#include "quovix-cmd.hpp"
#include "quovix-gh.hpp"

namespace {

// Arguments shared by both commands: [input.cif] [input.cube] [type] [os] | {barrier_max}
// {flag:periodic}. False after printing the error line of the first unreadable argument.
struct gh_args {
    char type[QUOVIX_TYPE_LEN] = {0};
    int os = 0;
    double barrier_max = -0.1;
    bool periodic = true;
    char cif[QUOVIX_PATH_LEN] = {0};
    char cube[QUOVIX_PATH_LEN] = {0};
};

bool read_gh_args(const quovix_args &args, gh_args &out) {
    std::snprintf(out.cif, sizeof out.cif, "%.1000s", args.c_str(0));
    std::snprintf(out.cube, sizeof out.cube, "%.1000s", args.c_str(1));
    if (std::sscanf(args.c_str(2), "%2s", out.type) != 1) {
        std::fputs("Error: wrong parameter type.\n", stderr);
        return false;
    }
    if (!args.read_int(3, out.os)) {
        std::fputs("Error: wrong parameter os.\n", stderr);
        return false;
    }
    if (args.has(4) && (!args.read_double(4, out.barrier_max) || std::isnan(out.barrier_max))) {
        std::fputs("Error: wrong parameter barrier_max.\n", stderr);
        return false;
    }
    args.read_flag(5, out.periodic);
    return true;
}

}  // namespace

/// --gh [input.cif] [input.cube] [type] [os] | {barrier_max} {flag:periodic}
void quovix_cmd_opt_do_gh(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 4) {
        quovix_cmd_print_lines(
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
        return;
    }
    gh_args a;
    if (!read_gh_args(args, a)) return;
    if (quovix_graph_network_calculate_from_file_export_full(
            a.cif, a.cif, a.cube, a.type, a.os, a.barrier_max, a.periodic, opt->dir_unitary,
            opt->dir_binary, opt->dir_symcards) != 0)
        std::fputs(
            "Error: quovix_graph_network_calculate_from_file_export_full() returns non-zero.\n",
            stderr);
}

/// --sites [input.cif] [input.cube] [type] [os] | {barrier_max} {flag:periodic}
void quovix_cmd_opt_do_sites(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 4) {
        quovix_cmd_print_lines(
            {"Command: --sites [input.cif] [input.cube] [type] [os] | {barrier_max} "
             "{flag:periodic}\n\n",
             "Command: [type]: type of conducting ions.\n",
             "Command: [os]: oxidation state of conducting ions.\n",
             "Command: {barrier_max}: Only hops with barrier below this value are considered. "
             "If set to negative value, all hops are considered. Default -0.1.\n",
             "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
             "Default true.\n",
             "Command: prints a summary of sites based on graph analysis: one row per group of "
             "sites of equal energy with its label, energy above the lowest site (eV), "
             "multiplicity, occupancy, curvature eigenvalues (eV/A^2), hops per site and the "
             "lowest barrier out of the site (eV). The table is also written as "
             "[input.cif].sites.csv, and the sites as [input.cif].sites.cif.\n",
             "Example: ./quovix.x --sites Li2O.cif Li2O.cube Li 1\n"});
        return;
    }
    gh_args a;
    if (!read_gh_args(args, a)) return;
    if (quovix_graph_sites_calculate_from_file_export(a.cif, a.cif, a.cube, a.type, a.os,
                                                      a.barrier_max, a.periodic, opt->dir_unitary,
                                                      opt->dir_binary, opt->dir_symcards) != 0)
        std::fputs("Error: quovix_graph_sites_calculate_from_file_export() returns non-zero.\n",
                   stderr);
}
