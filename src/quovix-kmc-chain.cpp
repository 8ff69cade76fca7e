// Kinetic Monte Carlo chain: CIF (and cube) -> landscape -> path map -> migration graph ->
// supercell graph -> Monte Carlo -> conductivity, logs and occupancy cells.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-gh.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"
#include "quovix-kmc.hpp"

namespace {

constexpr double kResolution = 0.1;      // grid spacing of a computed landscape (A)
constexpr double kCellTolerance = 0.01;  // cube and CIF lattices agree within this (A)

bool same_lattice(const double a[3][3], const double b[3][3]) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (!(std::fabs(a[i][j] - b[i][j]) <= kCellTolerance)) return false;
    return true;
}

bool file_exists(const char *path) {
    std::FILE *f = std::fopen(path, "rb");
    if (f == nullptr) return false;
    std::fclose(f);
    return true;
}

/// The landscape of the mobile ion and its parameter set: the given cube when it can be read
/// and lies on the CIF's lattice, else computed from the CIF. Says which in a message.
QUOVIX_CUBE *landscape(QUOVIX_PROPERTY **ppt, QUOVIX_CELL *cell, QUOVIX_SYMMETRY *symmetry,
                       const char *cubename, const char *type, int os, double sf,
                       const char *dir_unitary, const char *dir_binary) {
    if (cubename != nullptr && cubename[0] != '\0' && file_exists(cubename)) {
        QUOVIX_CUBE *raw = nullptr;
        const int status = quovix_cube_import_from_file(&raw, nullptr, cubename, true, dir_unitary);
        quovix_cube_ptr cube{raw};
        if (status == 0 && cube && same_lattice(cube->a, cell->a)) {
            *ppt = quovix_property_import_from_cell(cell, type, os, sf, dir_unitary, dir_binary);
            if (*ppt == nullptr) {
                std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
                return nullptr;
            }
            std::printf("Message: landscape read from %s.\n", cubename);
            return cube.release();
        }
        if (status == 0)
            std::printf(
                "Message: the cell of %s does not match the cif file; computing the "
                "landscape from the cif file.\n",
                cubename);
        else
            std::printf("Warning: %s cannot be read; computing the landscape from the cif file.\n",
                        cubename);
    } else {
        std::printf("Message: %s not found; computing the landscape from the cif file.\n",
                    cubename ? cubename : "(null)");
    }
    QUOVIX_CUBE *cube = quovix_cube_calculate_from_cell(ppt, cell, symmetry, type, os, sf,
                                                        kResolution, true, dir_unitary, dir_binary);
    if (cube == nullptr) {
        std::fputs("Error: quovix_cube_calculate_from_cell() returns NULL.\n", stderr);
        return nullptr;
    }
    return cube;
}

/// The migration graph of the landscape (path map, Fourier curvature, half paths, graph).
QUOVIX_GRAPH *graph_of(QUOVIX_CUBE *cube, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    quovix_fpcube_ptr fpcube{quovix_fpcube_new_from_cube(cube)};
    if (!fpcube) {
        std::fputs("Error: quovix_fpcube_new_from_cube() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_fft_ptr fft{quovix_fft_new_from_cube(cube)};
    if (!fft) {
        std::fputs("Error: quovix_fft_new_from_cube() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_fphalf_list_ptr halves{quovix_fphalf_list_new_from_fpcube(fpcube.get())};
    if (!halves) {
        std::fputs("Error: quovix_fphalf_list_new_from_fpcube() returns NULL.\n", stderr);
        return nullptr;
    }
    if (quovix_fphalf_list_filter(halves.get(), -1.0) != 0) {
        std::fputs("Error: quovix_fphalf_list_filter() returns non-zero.\n", stderr);
        return nullptr;
    }
    QUOVIX_GRAPH *graph = quovix_graph_new_filled(halves.get(), fft.get(), cell, ppt);
    if (graph == nullptr) {
        std::fputs("Error: quovix_graph_new_filled() returns NULL.\n", stderr);
        return nullptr;
    }
    return graph;
}

int write_occupancy(QUOVIX_KMC *kmc, QUOVIX_CELL *supercell, const char *filename) {
    quovix_cell_ptr occ{quovix_kmc_export_occ_to_cell(kmc, supercell)};
    if (!occ) {
        std::fputs("Error: quovix_kmc_export_occ_to_cell() returns NULL.\n", stderr);
        return 1;
    }
    quovix_symmetry_ptr p1{quovix_symmetry_new_p1()};
    if (!p1) {
        std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_cell_export_cif_to_file(filename, occ.get(), p1.get()) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

int chain(double &sigma, const char *cifname, const char *cubename, const char *type, int os,
          const int super[3], double sf, double temperature, double t_limit, long step_limit,
          long step_log, double cutoff, const char *dir_symcards, const char *dir_unitary,
          const char *dir_binary) {
    if (cifname == nullptr || type == nullptr || super == nullptr) {
        std::fputs("Error: wrong inputs for kinetic monte carlo.\n", stderr);
        return 1;
    }
    if (quovix_kmc_check_parameters(temperature, t_limit) != 0) return 1;
    if (step_limit == 0 && !(t_limit > 0.0)) {
        std::fputs("Error: t_limit and step_limit cannot both be zero.\n", stderr);
        return 1;
    }
    if (std::isnan(cutoff) || std::isinf(cutoff)) {
        std::fputs("Error: wrong parameter cutoff.\n", stderr);
        return 1;
    }
    const double cutoff_used = cutoff < 0.0 ? QUOVIX_KMC_CUTOFF_DEFAULT : cutoff;
    char logname[QUOVIX_PATH_LEN], xyzname[QUOVIX_PATH_LEN];
    char initname[QUOVIX_PATH_LEN], finalname[QUOVIX_PATH_LEN];
    std::snprintf(logname, sizeof logname, "%.1000s.kmc.log.txt", cifname);
    std::snprintf(xyzname, sizeof xyzname, "%.1000s.kmc.xyz.txt", cifname);
    std::snprintf(initname, sizeof initname, "%.1000s.kmc.init.cif", cifname);
    std::snprintf(finalname, sizeof finalname, "%.1000s.kmc.cif", cifname);
    for (const char *out : {logname, xyzname, initname, finalname})
        if (quovix_output_check(out, cifname) != 0) {
            std::fputs("Error: quovix_output_check() returns non-zero.\n", stderr);
            return 1;
        }

    QUOVIX_CELL *raw_cell = nullptr;
    QUOVIX_SYMMETRY *raw_symmetry = nullptr;
    const int read = quovix_cell_import_cif_from_file(&raw_cell, &raw_symmetry, cifname,
                                                      dir_symcards, dir_unitary);
    quovix_cell_ptr cell{raw_cell};
    quovix_symmetry_ptr symmetry{raw_symmetry};
    if (read != 0 || !cell) {
        std::fputs("Error: quovix_cell_import_cif_from_file() returns non-zero.\n", stderr);
        return 1;
    }
    double mobile = 0.0;
    for (long i = 0; i < cell->total; ++i)
        if (std::strcmp(cell->atom[i].type, type) == 0 && cell->atom[i].os == os)
            mobile += cell->atom[i].occ;
    if (!(mobile > 0.0)) {
        std::fprintf(stderr, "Error: no %s%d%c ions in %s.\n", type, quovix_abs_os(os),
                     quovix_sign_char(os), cifname);
        return 1;
    }

    QUOVIX_PROPERTY *raw_ppt = nullptr;
    quovix_cube_ptr cube{landscape(&raw_ppt, cell.get(), symmetry.get(), cubename, type, os, sf,
                                   dir_unitary, dir_binary)};
    quovix_property_ptr ppt{raw_ppt};
    if (!cube || !ppt) {
        if (cube) std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return 1;
    }
    quovix_graph_ptr graph{graph_of(cube.get(), cell.get(), ppt.get())};
    cube.reset();
    if (!graph) return 1;

    // Supercell: the given one, or the smallest whose perpendicular widths all reach twice
    // the cut-off, so that each ion meets at most one image of another.
    int s[3] = {super[0], super[1], super[2]};
    if (s[0] <= 0 || s[1] <= 0 || s[2] <= 0) quovix_kmc_supercell_default(s, graph->a, cutoff_used);
    const double edges = static_cast<double>(graph->total_e) * s[0] * s[1] * s[2];
    if (!(edges <= static_cast<double>(QUOVIX_KMC_EDGE_MAX)) || s[0] > 1000 || s[1] > 1000 ||
        s[2] > 1000) {
        std::fprintf(stderr,
                     "Error: supercell [%d, %d, %d] of %ld edges per cell exceeds %ld edges.\n",
                     s[0], s[1], s[2], graph->total_e, QUOVIX_KMC_EDGE_MAX);
        return 1;
    }
    std::printf("Message: supercell [%d, %d, %d]\n", s[0], s[1], s[2]);
    const long sl[3] = {s[0], s[1], s[2]};
    quovix_graph_ptr supergraph{quovix_graph_new_supergraph(graph.get(), sl)};
    if (!supergraph) {
        std::fputs("Error: quovix_graph_new_supergraph() returns NULL.\n", stderr);
        return 1;
    }
    quovix_kmc_ptr kmc{quovix_kmc_new(supergraph.get(), ppt.get(), cutoff)};
    if (!kmc) {
        std::fputs("Error: quovix_kmc_new() returns NULL.\n", stderr);
        return 1;
    }
    if (quovix_kmc_set_parameters(kmc.get(), temperature, t_limit, step_limit, step_log) != 0) {
        std::fputs("Error: quovix_kmc_set_parameters() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_output_file log(logname);
    quovix_output_file xyz(xyzname);
    if (!log || !xyz) {
        std::fprintf(stderr, "Error: unable to open %s.\n", !log ? logname : xyzname);
        return 1;
    }
    kmc->log = log.get();
    kmc->xyz = xyz.get();
    std::snprintf(kmc->logname, sizeof kmc->logname, "%s", logname);
    std::snprintf(kmc->xyzname, sizeof kmc->xyzname, "%s", xyzname);
    if (quovix_kmc_init(kmc.get()) != 0) {
        std::fputs("Error: quovix_kmc_init() returns non-zero.\n", stderr);
        return 1;
    }
    quovix_cell_ptr supercell{quovix_cell_supercell(cell.get(), sl)};
    if (!supercell) {
        std::fputs("Error: quovix_cell_supercell() returns NULL.\n", stderr);
        return 1;
    }
    if (write_occupancy(kmc.get(), supercell.get(), initname) != 0) return 1;
    if (quovix_kmc_calculate_conductivity(kmc.get()) != 0) {
        std::fputs("Error: quovix_kmc_calculate_conductivity() returns non-zero.\n", stderr);
        return 1;
    }
    kmc->log = nullptr;
    kmc->xyz = nullptr;
    if (log.commit() != 0 || xyz.commit() != 0) {
        std::fputs("Error: unable to write the kmc logs.\n", stderr);
        return 1;
    }
    if (write_occupancy(kmc.get(), supercell.get(), finalname) != 0) return 1;
    sigma = kmc->conductivity[3];
    return 0;
}

}  // namespace

double quovix_kmc_calculate_conductivity_from_file(
    const char *cifname, const char *cubename, const char *type, int os, const int super[3],
    double sf, double temperature, double t_limit, long step_limit, long step_log, double cutoff,
    const char *dir_symcards, const char *dir_unitary, const char *dir_binary) {
    double sigma = -1.0;
    const int status = quovix_guard("kmc", [&]() -> int {
        return chain(sigma, cifname, cubename, type, os, super, sf, temperature, t_limit,
                     step_limit, step_log, cutoff, dir_symcards, dir_unitary, dir_binary);
    });
    return status == 0 ? sigma : -1.0;
}
