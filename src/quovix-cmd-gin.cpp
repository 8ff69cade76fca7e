// Command handlers of the GULP export: --gen-gin-lib, --gen-gin-eam, --gen-gin and the two
// text-mode library commands.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "quovix-cmd.hpp"
#include "quovix-gin.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;
constexpr double default_temperature = 300.0;  // K
constexpr double default_production = 10.0;    // ps
constexpr double default_equilibration = 1.0;  // ps

// Cell with its sites flagged, and its parameter set (sf fitted when not positive).
bool load(const QUOVIX_CMD_OPT *opt, const char *path, double sf, quovix_cell_ptr &cell,
          quovix_property_ptr &ppt) {
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, path, cell, sym)) return false;
    if (quovix_cell_flag_site_by_symmetry(cell.get(), sym.get()) != 0) {
        std::fputs("Error: quovix_cell_flag_site_by_symmetry() returns non-zero.\n", stderr);
        return false;
    }
    ppt.reset(quovix_property_import_from_cell(cell.get(), nullptr, 0, sf, opt->dir_unitary,
                                               opt->dir_binary));
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return false;
    }
    return true;
}

// Writes the text (atomically) and says where.
void save(QUOVIX_TEXT *text, const char *filename, const char *what) {
    if (quovix_text_export_to_file(text, filename) != 0) {
        std::fputs("Error: quovix_text_export_to_file() returns non-zero.\n", stderr);
        return;
    }
    std::printf("Message: %s saved to %s.\n", what, filename);
}

// --gen-gin-lib and --gen-gin-eam.
void gen_library(QUOVIX_CMD_OPT *opt, bool eam) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines(
            {eam ? "Command: --gen-gin-eam [input.cif] | {sf} {output_name}\n\n"
                 : "Command: --gen-gin-lib [input.cif] | {sf} {output_name}\n\n",
             QUOVIX_CMD_SF_HELP,
             "Command: {output_name}: the name of the output file. If omitted, the input name "
             "with \".lib\" in place of its extension will be used.\n",
             eam ? "Command: generates an embedded-atom method forcefield file in .lib format "
                   "for GULP: Morse bonds, screened Coulomb repulsion and the bond-valence "
                   "embedding term.\n"
                 : "Command: generates a Morse type forcefield file in .lib format for GULP: "
                   "Morse bonds between cations and anions, screened Coulomb repulsion between "
                   "like charges.\n",
             eam ? "Example: ./quovix.x --gen-gin-eam Li2O.cif\n"
                 : "Example: ./quovix.x --gen-gin-lib Li2O.cif\n"});
        return;
    }
    double sf = 0.0;
    if (!quovix_cmd_read_sf(args, 1, sf)) return;
    char filename[QUOVIX_PATH_LEN];
    if (!quovix_cmd_output_name(args, 2, ".lib", filename)) return;
    quovix_cell_ptr cell;
    quovix_property_ptr ppt;
    if (!load(opt, args.c_str(0), sf, cell, ppt)) return;
    if (eam && quovix_property_calculate_unitary_eam_parameter(ppt.get()) != 0) {
        std::fputs("Error: quovix_property_calculate_unitary_eam_parameter() returns non-zero.\n",
                   stderr);
        return;
    }
    quovix_text_ptr text{eam ? quovix_gin_lib_eam_import_from_property(ppt.get())
                             : quovix_gin_lib_import_from_property(ppt.get())};
    if (!text) {
        std::fputs(eam ? "Error: quovix_gin_lib_eam_import_from_property() returns NULL.\n"
                       : "Error: quovix_gin_lib_import_from_property() returns NULL.\n",
                   stderr);
        return;
    }
    save(text.get(), filename, "GULP library");
}

// The text-mode library commands; `with_sf` reads the factor from argv[2].
void text_library(QUOVIX_CMD_OPT *opt, bool with_sf) {
    if (!opt || opt->argc <= (with_sf ? 3 : 2)) {
        std::fputs("Error: not enough arguments.\n", stderr);
        return;
    }
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif_text(opt, cell, sym)) return;
    double sf = -1.0;
    if (with_sf && std::sscanf(opt->argv[2], "%lf", &sf) != 1) {
        std::fputs("Error: wrong parameter sf.\n", stderr);
        return;
    }
    quovix_property_ptr ppt{quovix_property_import_from_cell(cell.get(), nullptr, 0, sf,
                                                             opt->dir_unitary, opt->dir_binary)};
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL", stderr);
        return;
    }
    quovix_text_ptr lib{quovix_gin_lib_import_from_property(ppt.get())};
    if (!lib) {
        std::fputs("Error: quovix_gin_lib_import_from_property() returns NULL.\n", stderr);
        return;
    }
    std::fputs("\n=====================================\n\n", stdout);
    quovix_text_fprint(stdout, lib.get());
}

}  // namespace

/// --gen-gin-lib [input.cif] | {sf} {output_name}: the bond-valence force field as a GULP
/// library.
void quovix_cmd_opt_do_gen_gin_lib(QUOVIX_CMD_OPT *opt) { gen_library(opt, false); }

/// --gen-gin-eam [input.cif] | {sf} {output_name}: the same with the embedding term.
void quovix_cmd_opt_do_gen_gin_eam(QUOVIX_CMD_OPT *opt) { gen_library(opt, true); }

/// --gen-gin [input.cif] [type] [os] | {sf} {temperature} {time} {output_name}: a GULP deck for
/// a dynamics run in which only the mobile ions move.
void quovix_cmd_opt_do_gen_gin(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 3) {
        print_lines(
            {"Command: --gen-gin [input.cif] [type] [os] | {sf} {temperature} {time} "
             "{output_name}\n\n",
             "Command: [type] the element type of conducting ion, two characters.\n",
             "Command: [os] the oxidation state of conducting ion, integer.\n", QUOVIX_CMD_SF_HELP,
             "Command: {temperature}: in K. Set to non-positive to use the default. Default "
             "300.\n",
             "Command: {time}: production time in ps, after 1 ps of equilibration. Set to "
             "non-positive to use the default. Default 10.\n",
             "Command: {output_name}: the name of the output file. If omitted, the input name "
             "with \".gin\" in place of its extension will be used.\n",
             "Command: generates an overall .gin input for a molecular dynamics run with GULP "
             "(NVT, 1 fs steps) in which only the conducting ions move; the cell must have no "
             "partial occupancy.\n",
             "Example: ./quovix.x --gen-gin Li2O.cif Li 1\n",
             "Example: ./quovix.x --gen-gin Li2O.cif Li 1 -1 600 50\n"});
        return;
    }
    char type[QUOVIX_TYPE_LEN] = {};
    int os = 0;
    if (!quovix_cmd_read_type_os(args, 1, type, os)) return;
    double sf = 0.0, temperature = default_temperature, production = default_production;
    if (!quovix_cmd_read_sf(args, 3, sf)) return;
    if (args.has(4) && (!args.read_double(4, temperature) || !(temperature <= 1e5))) {
        std::fputs("Error: wrong parameter temperature.\n", stderr);
        return;
    }
    if (!(temperature > 0.0)) temperature = default_temperature;
    if (args.has(5) && (!args.read_double(5, production) || !(production <= 1e6))) {
        std::fputs("Error: wrong parameter time.\n", stderr);
        return;
    }
    if (!(production > 0.0)) production = default_production;
    char filename[QUOVIX_PATH_LEN];
    if (!quovix_cmd_output_name(args, 6, ".gin", filename)) return;
    quovix_cell_ptr cell;
    quovix_property_ptr ppt;
    if (!load(opt, args.c_str(0), sf, cell, ppt)) return;
    // The run's files are named after the deck, without its extension.
    char base[QUOVIX_PATH_LEN];
    quovix_cmd_name_replace_ext(base, filename, "");
    const char *slash = std::strrchr(base, '/');
    quovix_text_ptr text{quovix_gin_import_from_cell(cell.get(), ppt.get(), type, os, temperature,
                                                     default_equilibration, production,
                                                     slash ? slash + 1 : base)};
    if (!text) {
        std::fputs("Error: quovix_gin_import_from_cell() returns NULL.\n", stderr);
        return;
    }
    save(text.get(), filename, "GULP input");
}

void quovix_cmd_opt_do_text_gen_gin_lib(QUOVIX_CMD_OPT *opt) { text_library(opt, false); }

void quovix_cmd_opt_do_text_gen_gin_lib_set_sf(QUOVIX_CMD_OPT *opt) { text_library(opt, true); }
