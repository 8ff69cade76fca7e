// Command handlers of the landscape analysis on the grid: --fp-map, --fft and --fft-cubes.
#include <cmath>
#include <cstdio>

#include "quovix-cmd.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-io.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;

/// Reads a cube without cell; prints the error chain and returns null on failure.
QUOVIX_CUBE *read_cube(const char *path, bool periodic) {
    QUOVIX_CUBE *cube = nullptr;
    if (quovix_cube_import_from_file(&cube, nullptr, path, periodic, nullptr) != 0) {
        quovix_cube_free(cube);
        std::fputs("Error: quovix_cube_import_from_file() returns non-zero.\n", stderr);
        return nullptr;
    }
    return cube;
}

}  // namespace

/// --fp-map [input.cube] | {barrier_max} {flag:periodic} {output_name}: minima, saddle points
/// and steepest-descent paths of a landscape as a CIF of marker atoms.
void quovix_cmd_opt_do_fp_map(QUOVIX_CMD_OPT *opt) {
    quovix_args args(opt);
    if (args.count() < 1) {
        print_lines(
            {"Command: --fp-map [input.cube] | {barrier_max} {flag:periodic} {output_name}\n\n",
             "Command: {barrier_max}: Only paths with barrier below this value are shown. If "
             "set to non-positive value, all paths are shown. Default -0.1.\n",
             "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
             "Default true.\n",
             "Command: generates a cif file representing paths in the provided cube.\n",
             "         H : path dots.\n", "         Li: local minimum.\n",
             "         Na: saddle point of 1st type.\n", "         K: saddle point of 2st type.\n",
             "         Rb: local maximum.\n", "Example: ./quovix.x --fp-map Li2O.cube\n"});
        return;
    }
    const char *input = args.c_str(0);
    double barrier_max = -0.1;
    if (args.has(1) && !args.read_double(1, barrier_max)) {
        std::fputs("Error: wrong parameter barrier_max.\n", stderr);
        return;
    }
    bool periodic = true;
    args.read_flag(2, periodic);
    char output[QUOVIX_PATH_LEN];
    if (args.has(3))
        std::snprintf(output, sizeof output, "%s", args.c_str(3));
    else
        std::snprintf(output, sizeof output, "%.1010s.fp.cif", input);
    if (quovix_output_check(output, input)) return;
    quovix_cube_ptr cube(read_cube(input, periodic));
    if (!cube) return;
    if (quovix_fpcube_export_cif_to_file(cube.get(), barrier_max, output) != 0)
        std::fputs("Error: quovix_fpcube_export_cif_to_file() returns non-zero.\n", stderr);
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
