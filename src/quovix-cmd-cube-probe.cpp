// Command handlers of the probe landscapes: --gen-cube-gii, --gen-cube-tot, --gen-cube-tot-eam.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "quovix-cmd.hpp"
#include "quovix-cube-probe.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;
constexpr double default_resolution = 0.1;  // A

enum class kind { gii, tot, tot_eam };

void usage(kind k) {
    const char *names[] = {"--gen-cube-gii", "--gen-cube-tot", "--gen-cube-tot-eam"};
    const char *name = names[static_cast<int>(k)];
    char head[256], example[128];
    if (k == kind::gii)
        std::snprintf(head, sizeof head,
                      "Command: %s [input.cif] [type] [os] | {resolution} {flag:periodic} "
                      "{output_name}\n\n",
                      name);
    else
        std::snprintf(head, sizeof head,
                      "Command: %s [input.cif] [type] [os] | {sf} {resolution} {flag:periodic} "
                      "{output_name}\n\n",
                      name);
    std::snprintf(example, sizeof example, "Example: ./quovix.x %s Li2O.cif Li 1\n", name);
    const char *what =
        k == kind::gii
            ? "Command: generates the static GII landscape of the conducting ion: the global "
              "instability index of the structure with one conducting ion added at each point "
              "(every ion of the cell kept), written to <input>.gii.cube.\n"
        : k == kind::tot
            ? "Command: generates the total energy landscape of the conducting ion: the energy "
              "(eV) of the structure with one conducting ion added at each point less that of "
              "the structure, pair terms with every ion of the cell, written to "
              "<input>.tot.cube.\n"
            : "Command: generates the total energy landscape with the EAM term: as "
              "--gen-cube-tot plus the change of the embedding energy of the probe and its "
              "neighbours, written to <input>.tot-eam.cube.\n";
    print_lines({head, "Command: [type] the element type of conducting ion, two characters.\n",
                 "Command: [os] the oxidation state of conducting ion, integer.\n"});
    if (k != kind::gii)
        print_lines(
            {"Command: {sf}: screening factor. If set to non-positive value, automatic "
             "calculation is triggered. Default -0.1.\n"});
    print_lines(
        {"Command: {resolution}: preferred seperation between voxels. Set to "
         "non-positive to use the default. Default 0.1.\n",
         "Command: {flag:periodic}: if set to true, generated cube file contains voxels "
         "along boundaries only once. Default true.\n",
         what, example});
}

void run(QUOVIX_CMD_OPT *opt, kind k) {
    const std::clock_t start = std::clock();
    const quovix_args args(opt);
    if (args.count() < 3) {
        usage(k);
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {};
    int os = 0;
    if (std::sscanf(args.c_str(1), "%2s", type) != 1) {
        std::fputs("Error: wrong parameter type.\n", stderr);
        return;
    }
    if (!args.read_int(2, os) || os == 0) {
        std::fputs("Error: wrong parameter conducting os.\n", stderr);
        return;
    }
    std::size_t next = 3;
    double sf = 0.75;  // the GII does not depend on it
    if (k != kind::gii) {
        sf = -0.1;
        if (args.has(next) && (!args.read_double(next, sf) || std::isnan(sf) || sf > 10.0)) {
            std::fputs("Error: wrong parameter screening factor.\n", stderr);
            return;
        }
        ++next;
    }
    double resolution = default_resolution;
    if (args.has(next) && (!args.read_double(next, resolution) || !(resolution <= 100.0))) {
        std::fputs("Error: wrong parameter resolution.\n", stderr);
        return;
    }
    if (!(resolution > 0.0)) resolution = default_resolution;
    bool periodic = true;
    args.read_flag(next + 1, periodic);
    char filename[QUOVIX_PATH_LEN];
    const char *suffix[] = {".gii.cube", ".tot.cube", ".tot-eam.cube"};
    if (!quovix_cmd_output_name(args, next + 2, suffix[static_cast<int>(k)], filename)) return;
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    bool present = false;
    for (long i = 0; i < cell->total; ++i)
        present = present || (cell->atom[i].os == os &&
                              std::strncmp(cell->atom[i].type, type, QUOVIX_TYPE_LEN) == 0);
    if (!present)
        std::printf(
            "Warning: no %s%d%c ion in the cell; the probe is added to the structure as "
            "given.\n",
            type, quovix_abs_os(os), quovix_sign_char(os));
    quovix_property_ptr ppt{quovix_property_import_from_cell(cell.get(), type, os, sf,
                                                             opt->dir_unitary, opt->dir_binary)};
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return;
    }
    if (k != kind::tot && quovix_property_calculate_unitary_eam_parameter(ppt.get()) != 0) {
        std::fputs("Error: quovix_property_calculate_unitary_eam_parameter() returns non-zero.\n",
                   stderr);
        return;
    }
    quovix_cube_ptr cube{k == kind::gii
                             ? quovix_cube_by_gii_calculate(cell.get(), ppt.get(), resolution)
                             : quovix_cube_by_tot_en_calculate(cell.get(), sym.get(), ppt.get(),
                                                               resolution, k == kind::tot_eam)};
    if (!cube) {
        std::fputs(k == kind::gii ? "Error: quovix_cube_by_gii_calculate() returns NULL.\n"
                                  : "Error: quovix_cube_by_tot_en_calculate() returns NULL.\n",
                   stderr);
        return;
    }
    if (quovix_cube_export_to_file(cube.get(), cell.get(), ppt.get(), filename, periodic) != 0) {
        std::fputs("Error: quovix_cube_export_to_file() returns non-zero.\n", stderr);
        return;
    }
    // Processor time of the whole run in seconds. Linux counts CLOCKS_PER_SEC = 1e6 ticks per
    // second, so the ticks are divided by that constant rather than by 1000.
    if (k == kind::tot_eam)
        std::printf("Elapsed: %f seconds.\n",
                    static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
}

}  // namespace

void quovix_cmd_opt_do_gen_cube_gii(QUOVIX_CMD_OPT *opt) { run(opt, kind::gii); }
void quovix_cmd_opt_do_gen_cube_tot(QUOVIX_CMD_OPT *opt) { run(opt, kind::tot); }
void quovix_cmd_opt_do_gen_cube_tot_eam(QUOVIX_CMD_OPT *opt) { run(opt, kind::tot_eam); }
