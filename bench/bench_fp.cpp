// Path map on large grids: the compact grid against the literal record grid (one QUOVIX_FPDOT
// with 27 neighbour pointers per point), whole chain from a cube file to the marker CIF, plus
// the Fourier derivative record. Each measurement runs in a fresh child process (this program
// re-executed), so that its peak resident memory is its own; the parent times the children and
// reads their peak memory from wait4().
//
//   bench_fp [repetitions] [sizes...]      default: 5 repetitions, sizes 72 144 196
//
// Landscapes: Li+ in Li6PS5Cl (cubic, 9.86 A), computed at 72^3 and 144^3; the 196^3 grid is
// the 144^3 landscape interpolated spectrally (zero-padded spectrum), since landscape grids are
// multiples of 24 points per axis. Cubes are cached in $TMPDIR/quovix-bench-fp/.
#include <fftw3.h>
#include <omp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_common.hpp"
#include "quovix-cube.hpp"
#include "quovix-fft.hpp"
#include "quovix-fp-reference.hpp"
#include "quovix-fp.hpp"

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Child side: one measured run. Returns the process status.
int child(const std::string &variant, const char *cube_path, const char *out_path) {
    QUOVIX_CUBE *raw = nullptr;
    {
        bench::quiet_stdout quiet;
        if (quovix_cube_import_from_file(&raw, nullptr, cube_path, true, nullptr)) return 2;
    }
    quovix_cube_ptr cube(raw);
    if (variant == "fast") return quovix_fpcube_export_cif_to_file(cube.get(), -0.1, out_path);
    if (variant == "literal") return quovix_fpref_export_cif_to_file(cube.get(), -0.1, out_path);
    if (variant == "fft") {
        quovix_fft_ptr fft(quovix_fft_new_from_cube(cube.get()));
        cube.reset();
        QUOVIX_FFTDOT dot;
        const long x[3] = {0, 0, 0};
        return !fft || quovix_fftdot_read_from_fft(&dot, fft.get(), x);
    }
    return 3;
}

struct Run {
    double seconds, cpu;
    long peak_kb;
    int status;
};

Run spawn(const char *self, const std::string &variant, const std::string &cube,
          const std::string &out, int threads) {
    std::fflush(stdout);  // the child must not repeat buffered output
    const auto t0 = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string log = out + ".stdout";
        std::freopen(log.c_str(), "w", stdout);
        setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
        execl(self, self, "--child", variant.c_str(), cube.c_str(), out.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage use{};
    wait4(pid, &status, 0, &use);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double cpu = double(use.ru_utime.tv_sec + use.ru_stime.tv_sec) +
                       1e-6 * double(use.ru_utime.tv_usec + use.ru_stime.tv_usec);
    return {s, cpu, use.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 99};
}

/// Spectral interpolation of a periodic grid onto m^3 points (modes below the old Nyquist).
quovix_cube_ptr resample(QUOVIX_CUBE *in, long m) {
    const long n = in->n[0];
    const long hn = n / 2 + 1, hm = m / 2 + 1;
    std::vector<double> src(static_cast<std::size_t>(n * n * n));
    for (long i = 0; i < n; i++)
        for (long j = 0; j < n; j++)
            for (long k = 0; k < n; k++)
                src[static_cast<std::size_t>((i * n + j) * n + k)] = in->en[i][j][k];
    fftw_complex *a = fftw_alloc_complex(static_cast<std::size_t>(n * n * hn));
    fftw_complex *b = fftw_alloc_complex(static_cast<std::size_t>(m * m * hm));
    std::vector<double> dst(static_cast<std::size_t>(m * m * m));
    fftw_plan p = fftw_plan_dft_r2c_3d(int(n), int(n), int(n), src.data(), a, FFTW_ESTIMATE);
    fftw_execute(p);
    fftw_destroy_plan(p);
    std::memset(b, 0, sizeof(fftw_complex) * static_cast<std::size_t>(m * m * hm));
    auto sig = [](long idx, long len) { return 2 * idx > len ? idx - len : idx; };
    for (long i = 0; i < n; i++)
        for (long j = 0; j < n; j++)
            for (long k = 0; k < hn; k++) {
                const long si = sig(i, n), sj = sig(j, n);
                if (2 * std::labs(si) >= n || 2 * std::labs(sj) >= n || 2 * k >= n) continue;
                const long ti = (si + m) % m, tj = (sj + m) % m;
                const double scale = 1.0 / double(n * n * n);
                b[(ti * m + tj) * hm + k][0] = a[(i * n + j) * hn + k][0] * scale;
                b[(ti * m + tj) * hm + k][1] = a[(i * n + j) * hn + k][1] * scale;
            }
    p = fftw_plan_dft_c2r_3d(int(m), int(m), int(m), b, dst.data(), FFTW_ESTIMATE);
    fftw_execute(p);
    fftw_destroy_plan(p);
    fftw_free(a);
    fftw_free(b);
    const long cnt[3] = {m, m, m};
    quovix_cube_ptr out(quovix_cube_new(cnt));
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++) {
            out->a[r][c] = in->a[r][c];
            out->a_i[r][c] = in->a[r][c] / double(m);
        }
    for (long i = 0; i < m; i++)
        for (long j = 0; j < m; j++)
            for (long k = 0; k < m; k++)
                out->en[i][j][k] = dst[static_cast<std::size_t>((i * m + j) * m + k)];
    return out;
}

/// The cube file of the benchmark landscape at n^3 points (made once, then cached).
std::string landscape(const std::string &dir, long n) {
    const std::string path = dir + "/Li6PS5Cl_" + std::to_string(n) + ".cube";
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) return path;
    bench::quiet_stdout quiet;
    const long base = n == 72 ? 72 : 144;
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    {
        QUOVIX_CELL *c = nullptr;
        QUOVIX_SYMMETRY *s = nullptr;
        const std::string cif = std::string(QUOVIX_TEST_DATA_DIR) + "/Li6PS5Cl_argyrodite.cif";
        if (quovix_cell_import_cif_from_file(&c, &s, cif.c_str(), bench::kSymcards.c_str(),
                                             bench::kUnitary.c_str()))
            return "";
        cell.reset(c);
        sym.reset(s);
    }
    QUOVIX_PROPERTY *ppt = nullptr;
    // resolution a/base - a tiny margin gives exactly `base` points per axis
    const double res = cell->parameter[0] / double(base) + 1e-6;
    quovix_cube_ptr cube(quovix_cube_calculate_from_cell(&ppt, cell.get(), sym.get(), "Li", 1, 0.75,
                                                         res, true, bench::kUnitary.c_str(),
                                                         bench::kBinary.c_str()));
    quovix_property_free(ppt);
    if (!cube || cube->n[0] != base) return "";
    if (n != base) cube = resample(cube.get(), n);
    if (quovix_cube_export_to_file(cube.get(), nullptr, nullptr, path.c_str(), true)) return "";
    return path;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 5 && std::strcmp(argv[1], "--child") == 0) return child(argv[2], argv[3], argv[4]);
    int reps = argc > 1 ? std::atoi(argv[1]) : 5;
    if (reps < 1) reps = 5;
    std::vector<long> sizes;
    for (int a = 2; a < argc; a++) sizes.push_back(std::atol(argv[a]));
    if (sizes.empty()) sizes = {72, 144, 196};
    const char *tmp = std::getenv("TMPDIR");
    const std::string dir = std::string(tmp ? tmp : "/tmp") + "/quovix-bench-fp";
    mkdir(dir.c_str(), 0755);
    std::printf("path map, cube file -> marker CIF (medians of %d runs, each in its own process)\n",
                reps);
    std::printf("%-6s %-8s %8s %10s %10s %10s  %s\n", "grid", "variant", "threads", "wall (s)",
                "cpu (s)", "peak (MB)", "output");
    for (long n : sizes) {
        const std::string cube = landscape(dir, n);
        if (cube.empty()) {
            std::printf("%ld: landscape failed\n", n);
            continue;
        }
        struct Variant {
            const char *name;
            int threads;
        };
        std::string reference;
        for (const Variant v : {Variant{"literal", 1}, Variant{"fast", 1}, Variant{"fast", 2},
                                Variant{"fft", 1}, Variant{"fft", 2}}) {
            std::vector<double> t, cpu;
            long peak = 0;
            int status = 0;
            const std::string out = dir + "/out_" + v.name + std::to_string(v.threads) + ".cif";
            for (int r = 0; r < reps; r++) {
                const Run run = spawn(argv[0], v.name, cube, out, v.threads);
                t.push_back(run.seconds);
                cpu.push_back(run.cpu);
                peak = std::max(peak, run.peak_kb);
                status |= run.status;
            }
            std::string same = "-";
            if (std::strcmp(v.name, "fft") != 0) {
                std::string text = slurp(out) + slurp(out + ".stdout");
                for (std::size_t at; (at = text.find(out)) != std::string::npos;)
                    text.replace(at, out.size(), "OUT");  // the messages name the file
                if (reference.empty())
                    reference = text, same = "reference";
                else
                    same = text == reference ? "identical" : "DIFFERENT";
            }
            std::printf("%ld^3  %-8s %8d %10.2f %10.2f %10.1f  %s%s\n", n, v.name, v.threads,
                        median(t), median(cpu), double(peak) / 1024.0, same.c_str(),
                        status ? " (failed)" : "");
            std::fflush(stdout);
        }
    }
    return 0;
}
