// Command handlers of the landscape analysis on the grid: --fp-map, --fft and --fft-cubes.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-cmd.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp.hpp"
#include "quovix-grid.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"
#include "quovix-la.hpp"

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

namespace {

/// Kind of a critical point of the path map: name of the marker atom, element, CSV word; null
/// for points that are not critical.
struct critical_kind {
    const char *name, *element, *word;
};
const critical_kind *critical(int type, int total_dn) {
    static const critical_kind kinds[] = {{"MIN", "Li", "minimum"},
                                          {"SAD1", "Na", "saddle1"},
                                          {"SAD2", "K", "saddle2"},
                                          {"SAD3", "Cs", "saddle3"},
                                          {"MAX", "Rb", "maximum"}};
    if (type == FP_MIN) return &kinds[0];
    if (type == FP_SAD) return &kinds[total_dn == 2 ? 1 : total_dn == 3 ? 2 : 3];
    if (type == FP_MAX) return &kinds[4];
    return nullptr;
}

/// Adding +0.0 turns a negative zero (a product with a zero multiplier) into +0.0, so that
/// exact zeros print without a sign.
inline double unsigned_zero(double v) { return v + 0.0; }

/// Shared argument handling of --fft and --fft-cubes: [input.cube] | {flag:periodic}
/// {output_prefix}. False when the usage block was printed.
bool fft_args(QUOVIX_CMD_OPT *opt, std::initializer_list<const char *> usage, const char *&input,
              bool &periodic, char prefix[QUOVIX_PATH_LEN]) {
    quovix_args args(opt);
    if (args.count() < 1) {
        quovix_cmd_print_lines(usage);
        return false;
    }
    input = args.c_str(0);
    periodic = true;
    args.read_flag(1, periodic);
    if (args.has(2))
        std::snprintf(prefix, QUOVIX_PATH_LEN, "%.1000s", args.c_str(2));
    else
        std::snprintf(prefix, QUOVIX_PATH_LEN, "%.1000s", input);
    return true;
}

/// The header lines (with their own line ends) of a cube file: 6 + number of atoms lines.
bool cube_header(std::string &header, const char *path) {
    quovix_file_ptr f(std::fopen(path, "rb"));
    if (!f) return false;
    long lines = 6, natom = 0;
    std::string line;
    for (long m = 0; m < lines; m++) {
        line.clear();
        int c;
        while ((c = std::fgetc(f.get())) != EOF) {
            line += static_cast<char>(c);
            if (c == '\n') break;
            if (line.size() > 4096) return false;
        }
        if (line.empty()) return false;
        if (m == 2) {
            if (std::sscanf(line.c_str(), "%ld", &natom) != 1 || natom < 0 || natom > 1000000)
                return false;
            lines += natom;
        }
        header += line;
    }
    return true;
}

/// Writes `values` (row order of the grid) under `header`; a non-periodic file repeats the
/// first plane of each axis as its last, like the landscape writer does.
int write_cube(const char *path, const std::string &header, const std::vector<double> &values,
               const long n[3], bool periodic) {
    quovix_output_file out(path);
    if (!out) {
        std::fprintf(stderr, "Error: unable to open file %s\n", path);
        return 1;
    }
    std::fputs(header.c_str(), out.get());
    const long extra = periodic ? 0 : 1;
    for (long i = 0; i < n[0] + extra; i++)
        for (long j = 0; j < n[1] + extra; j++)
            for (long k = 0; k < n[2] + extra; k++) {
                const long q = ((i % n[0]) * n[1] + (j % n[1])) * n[2] + (k % n[2]);
                std::fprintf(out.get(), " %12.6f\r\n",
                             unsigned_zero(values[static_cast<std::size_t>(q)]));
            }
    if (out.commit()) return 1;
    std::printf("Message: cube file saved to %s.\n", path);
    return 0;
}

}  // namespace

/// --fft [input.cube] | {flag:periodic} {output_prefix}: critical points of the landscape with
/// their curvature, as a CSV table and a marker CIF.
void quovix_cmd_opt_do_fft(QUOVIX_CMD_OPT *opt) {
    const char *input = nullptr;
    bool periodic = true;
    char prefix[QUOVIX_PATH_LEN];
    if (!fft_args(opt,
                  {"Command: --fft [input.cube] | {flag:periodic} {output_prefix}\n\n",
                   "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
                   "Default true.\n",
                   "Command: {output_prefix}: prefix of the output files. Default the input "
                   "file name.\n",
                   "Command: finds the minima, saddle points and maxima of the landscape and "
                   "writes, from spectral derivatives of the grid, their energy, gradient norm "
                   "and the eigenvalues and eigenvectors of the energy curvature to "
                   "prefix.fft.csv, and the points as marker atoms to prefix.fft.cif.\n",
                   "         Li: local minimum.\n", "         Na: saddle point of 1st type.\n",
                   "         K: saddle point of 2st type.\n", "         Rb: local maximum.\n",
                   "Example: ./quovix.x --fft Li2O.cube\n"},
                  input, periodic, prefix))
        return;
    char csv_name[QUOVIX_PATH_LEN], cif_name[QUOVIX_PATH_LEN];
    std::snprintf(csv_name, sizeof csv_name, "%.1000s.fft.csv", prefix);
    std::snprintf(cif_name, sizeof cif_name, "%.1000s.fft.cif", prefix);
    if (quovix_output_check(csv_name, input) || quovix_output_check(cif_name, input)) return;
    quovix_cube_ptr cube(read_cube(input, periodic));
    if (!cube) return;
    quovix_fpcube_ptr fp(quovix_fpcube_new_from_cube(cube.get()));
    if (!fp) {
        std::fputs("Error: quovix_fpcube_new_from_cube() returns NULL.\n", stderr);
        return;
    }
    quovix_fft_ptr fft(quovix_fft_new_from_cube(cube.get()));
    if (!fft) {
        std::fputs("Error: quovix_fft_new_from_cube() returns NULL.\n", stderr);
        return;
    }
    cube.reset();
    long count = 0, per_kind[3] = {0, 0, 0};
    for (long q = 0; q < fp->total; q++)
        if (critical(fp->type[q], fp->total_dn[q])) count++;
    quovix_cell_ptr cell(quovix_cell_new(count));
    if (!cell) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return;
    }
    std::memcpy(cell->a, fp->a, sizeof cell->a);
    quovix_output_file csv(csv_name);
    if (!csv) {
        std::fprintf(stderr, "Error: unable to open file %s\n", csv_name);
        return;
    }
    std::fputs(
        "index,kind,i0,i1,i2,f0,f1,f2,x,y,z,energy,grad_norm,eig0,eig1,eig2,"
        "v0x,v0y,v0z,v1x,v1y,v1z,v2x,v2y,v2z\n",
        csv.get());
    const quovix_grid g(fp->n);
    QUOVIX_FFTDOT dot;
    long m = 0;
    for (long q = 0; q < fp->total; q++) {
        const critical_kind *kind = critical(fp->type[q], fp->total_dn[q]);
        if (!kind) continue;
        const auto w = g.index(q);
        const long x[3] = {w[0], w[1], w[2]};
        if (quovix_fftdot_read_from_fft(&dot, fft.get(), x)) {
            std::fputs("Error: quovix_fftdot_read_from_fft() returns non-zero.\n", stderr);
            return;
        }
        per_kind[fp->type[q] == FP_MIN ? 0 : fp->type[q] == FP_SAD ? 1 : 2]++;
        const double grad =
            std::sqrt(dot.f[0] * dot.f[0] + dot.f[1] * dot.f[1] + dot.f[2] * dot.f[2]);
        std::fprintf(csv.get(),
                     "%ld,%s,%ld,%ld,%ld,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,"
                     "%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f\n",
                     m, kind->word, x[0], x[1], x[2], double(x[0]) / double(g.n[0]),
                     double(x[1]) / double(g.n[1]), double(x[2]) / double(g.n[2]), dot.x[0],
                     dot.x[1], dot.x[2], dot.en, grad, unsigned_zero(dot.eig[0]),
                     unsigned_zero(dot.eig[1]), unsigned_zero(dot.eig[2]),
                     unsigned_zero(dot.eiv[0][0]), unsigned_zero(dot.eiv[0][1]),
                     unsigned_zero(dot.eiv[0][2]), unsigned_zero(dot.eiv[1][0]),
                     unsigned_zero(dot.eiv[1][1]), unsigned_zero(dot.eiv[1][2]),
                     unsigned_zero(dot.eiv[2][0]), unsigned_zero(dot.eiv[2][1]),
                     unsigned_zero(dot.eiv[2][2]));
        QUOVIX_ATOM &atom = cell->atom[m++];
        std::snprintf(atom.name, sizeof atom.name, "%s", kind->name);
        std::snprintf(atom.type, sizeof atom.type, "%s", kind->element);
        atom.os = 1;
        atom.occ = 1.0;
        for (int j = 0; j < 3; j++) atom.x[j] = dot.x[j];
    }
    quovix_cell_update_fractional(cell.get());
    if (csv.commit()) return;
    std::printf(
        "Message: %ld critical points (%ld minima, %ld saddle points, %ld maxima) saved "
        "to %s.\n",
        count, per_kind[0], per_kind[1], per_kind[2], csv_name);
    if (quovix_cell_export_cif_to_file(cif_name, cell.get(), nullptr))
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
}

/// --fft-cubes [input.cube] | {flag:periodic} {output_prefix}: four cube files derived from the
/// spectral derivatives, on the grid and under the header of the input.
void quovix_cmd_opt_do_fft_cubes(QUOVIX_CMD_OPT *opt) {
    const char *input = nullptr;
    bool periodic = true;
    char prefix[QUOVIX_PATH_LEN];
    if (!fft_args(opt,
                  {"Command: --fft-cubes [input.cube] | {flag:periodic} {output_prefix}\n\n",
                   "Command: {flag:periodic}: if set to true, cube file is treated as periodic. "
                   "Default true.\n",
                   "Command: {output_prefix}: prefix of the output files. Default the input "
                   "file name.\n",
                   "Command: writes four cube files from spectral derivatives of the landscape: "
                   "prefix.force.cube (|grad E|, eV/A), prefix.kmin.cube (smallest curvature "
                   "eigenvalue, eV/A^2, negative at saddle points), prefix.laplacian.cube "
                   "(eV/A^2) and prefix.newton.cube (length of the Newton step |H^-1 grad E|, "
                   "A, small near critical points).\n",
                   "Example: ./quovix.x --fft-cubes Li2O.cube\n"},
                  input, periodic, prefix))
        return;
    static const char *const suffix[4] = {".force.cube", ".kmin.cube", ".laplacian.cube",
                                          ".newton.cube"};
    char names[4][QUOVIX_PATH_LEN];
    for (int c = 0; c < 4; c++) {
        std::snprintf(names[c], QUOVIX_PATH_LEN, "%.1000s%s", prefix, suffix[c]);
        if (quovix_output_check(names[c], input)) return;
    }
    quovix_cube_ptr cube(read_cube(input, periodic));
    if (!cube) return;
    std::string header;
    if (!cube_header(header, input)) {
        std::fprintf(stderr, "Error: unable to open %s.\n", input);
        return;
    }
    const long n[3] = {cube->n[0], cube->n[1], cube->n[2]};
    quovix_fft_ptr fft(quovix_fft_new_from_cube(cube.get()));
    cube.reset();
    if (!fft) {
        std::fputs("Error: quovix_fft_new_from_cube() returns NULL.\n", stderr);
        return;
    }
    if (quovix_fft_calculate_derivatives(fft.get())) {
        std::fputs("Error: quovix_fft_calculate_derivatives() returns non-zero.\n", stderr);
        return;
    }
    const bool ok = quovix_guard("the derived grids", [&]() -> bool {
        const auto points = static_cast<std::size_t>(fft->total);
        std::vector<double> out[4];
        for (auto &v : out) v.resize(points);
            // Newton step: components along eigenvectors whose |eigenvalue| is below 1e-6 eV/A^2
            // (a flat direction) are left out instead of dividing by nearly zero.
#pragma omp parallel for schedule(static)
        for (long q = 0; q < fft->total; q++) {
            double k[3][3], eig[3], eiv[3][3];
            const double f[3] = {fft->f[0][q], fft->f[1][q], fft->f[2][q]};
            for (int j = 0; j < 3; j++)
                for (int l = 0; l < 3; l++) k[j][l] = fft->k[j][l][q];
            quovix_matrix33_double_eigensolver_symmetric(eig, eiv, k);
            double step2 = 0;
            for (int a = 0; a < 3; a++) {
                if (std::fabs(eig[a]) < 1e-6) continue;
                const double c = (eiv[a][0] * f[0] + eiv[a][1] * f[1] + eiv[a][2] * f[2]) / eig[a];
                step2 += c * c;
            }
            const auto u = static_cast<std::size_t>(q);
            out[0][u] = std::sqrt(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]);
            out[1][u] = eig[0];
            out[2][u] = k[0][0] + k[1][1] + k[2][2];
            out[3][u] = std::sqrt(step2);
        }
        for (int c = 0; c < 4; c++)
            if (write_cube(names[c], header, out[c], n, periodic)) return false;
        return true;
    });
    if (!ok) std::fputs("Error: unable to write the derived cube files.\n", stderr);
}
