// libFuzzer target: the cube-file reader (header, atoms, values), periodic and not.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"

namespace {
std::string input_path;  // one file per fuzzing process: the reader takes a path
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    const char *dir = std::getenv("TMPDIR");
    input_path = std::string(dir != nullptr && *dir ? dir : "/tmp") + "/quovix-fuzz-cube-" +
                 std::to_string(::getpid()) + ".cube";
    std::atexit([] { std::remove(input_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::FILE *f = std::fopen(input_path.c_str(), "wb");
    if (f == nullptr) return 0;
    const bool written = std::fwrite(data, 1, size, f) == size;
    if (std::fclose(f) != 0 || !written) return 0;
    for (const bool periodic : {true, false}) {
        QUOVIX_CUBE *cube = nullptr;
        QUOVIX_CELL *cell = nullptr;
        if (quovix_cube_import_from_file(&cube, &cell, input_path.c_str(), periodic,
                                         QUOVIX_DATA_DIR "/database_unitary.dat") == 0) {
            quovix_cube_print_info(cube);
        }
        quovix_cube_free(cube);
        quovix_cell_free(cell);
    }
    return 0;
}
