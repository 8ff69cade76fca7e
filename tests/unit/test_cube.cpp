// Tests of the cube record, the cube file format and the landscape calculation.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-alloc.hpp"
#include "quovix-cube.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"
#include "temp_dir.hpp"

namespace {

using test_import::capture;
using test_import::Captured;

const std::string kUnitary = test_import::unitary();
const std::string kBinary = test_import::binary();

using test_tmp::read_file;
using test_tmp::write_file;

std::string temp_path(const std::string &name) { return test_tmp::dir() + name; }

// A cube with the given counts over an orthogonal cell, values filled by `fill(i, j, k)`.
template <class F>
quovix_cube_ptr make_cube(long n0, long n1, long n2, const double len[3], F fill) {
    const long n[3] = {n0, n1, n2};
    quovix_cube_ptr cube{quovix_cube_new(n)};
    if (!cube) return cube;
    for (int k = 0; k < 3; k++) {
        cube->a[k][k] = len[k];
        cube->a_i[k][k] = len[k] / static_cast<double>(n[k]);
    }
    for (long i = 0; i < n0; i++)
        for (long j = 0; j < n1; j++)
            for (long k = 0; k < n2; k++) cube->en[i][j][k] = fill(i, j, k);
    return cube;
}

}  // namespace

// ----------------------------------------------------------------------------- record

TEST(CubeNew, ZeroedGridAndRefusals) {
    const long n[3] = {3, 4, 5};
    quovix_cube_ptr cube{quovix_cube_new(n)};
    ASSERT_TRUE(cube);
    EXPECT_EQ(cube->en[2][3][4], 0.0);

    // A zero count: see the case "one point, non-periodic" of CubeImport.BadFilesFailCleanly.
    // 2^21 per axis overflows the byte count.
    const long huge[3] = {1L << 21, 1L << 21, 1L << 21};
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_cube_new(huge), nullptr);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "Error: a cube of 2097152 * 2097152 * 2097152 points exceeds the available memory.\n");
}

// ----------------------------------------------------------------------------- writing

TEST(CubeExport, HeaderlessFileBytes) {
    const double len[3] = {2.0, 2.0, 2.0};
    auto cube = make_cube(2, 1, 1, len, [](long i, long, long) { return i ? -1.25 : 999.9; });
    ASSERT_TRUE(cube);
    const std::string path = temp_path("headerless.cube");

    testing::internal::CaptureStdout();
    ASSERT_EQ(quovix_cube_export_to_file(cube.get(), nullptr, nullptr, path.c_str(), true), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Message: cube file is generated without header.\nMessage: cube file saved to " +
                  path + ".\n");
    // 1 A = 1.889725989 Bohr.
    EXPECT_EQ(read_file(path),
              "noname\r\n\r\n"
              "   0    0.000000    0.000000    0.000000\r\n"
              "   2    1.889726    0.000000    0.000000\r\n"
              "   1    0.000000    3.779452    0.000000\r\n"
              "   1    0.000000    0.000000    3.779452\r\n"
              "   999.900000\r\n"
              "    -1.250000\r\n");

    std::remove(path.c_str());
}

TEST(CubeExport, ValuesMatchPrintfFormatting) {
    // The value writer must print exactly what " %12.6f" prints, rounding included.
    const double special[] = {0.0,       -0.0,        1e-7,          -1e-7,         0.0000005,
                              0.0000015, 2.5e-6,      -2.5e-6,       123456789.125, -999.9,
                              999.9,     1.0 / 3.0,   -2.0 / 3.0,    1e20,          -1e-300,
                              0.1234565, 12345.67895, -0.0000004999, 5e-7,          7.0000005};
    const long count = 200;
    std::srand(12345);
    std::vector<double> values;
    for (long t = 0; t < count; t++) {
        if (t < static_cast<long>(std::size(special))) {
            values.push_back(special[t]);
            continue;
        }
        double r = static_cast<double>(std::rand()) / RAND_MAX;
        double s = std::pow(10.0, static_cast<double>(std::rand() % 14) - 7.0);
        values.push_back((r - 0.5) * s);
    }
    auto value = [&](long t) { return values[static_cast<std::size_t>(t)]; };
    const double len[3] = {1.0, 1.0, 1.0};
    auto cube = make_cube(1, 1, count, len, [&](long, long, long k) { return value(k); });
    ASSERT_TRUE(cube);
    const std::string path = temp_path("format.cube");
    testing::internal::CaptureStdout();
    ASSERT_EQ(quovix_cube_export_to_file(cube.get(), nullptr, nullptr, path.c_str(), true), 0);
    testing::internal::GetCapturedStdout();
    std::string want;
    for (long k = 0; k < count; k++) {
        char buf[512];
        std::snprintf(buf, sizeof buf, " %12.6f\r\n", value(k));
        want += buf;
    }
    const std::string got = read_file(path);
    ASSERT_GE(got.size(), want.size());
    EXPECT_EQ(got.substr(got.size() - want.size()), want);
    std::remove(path.c_str());
}

// An atom whose species the set lacks is refused before any file is written.
TEST(CubeExport, MissingSpeciesWritesNothing) {
    quovix_cell_ptr cell{quovix_cell_new(1)};
    quovix_property_ptr ppt{quovix_property_new(1)};
    ASSERT_TRUE(cell && ppt);
    std::strcpy(cell->atom[0].type, "S");
    cell->atom[0].os = -2;
    std::strcpy(ppt->type[0], "O");
    ppt->os[0] = -2;
    ppt->conducting = 0;
    const double len[3] = {4.0, 4.0, 4.0};
    auto cube = make_cube(2, 2, 2, len, [](long, long, long) { return 1.0; });
    const std::string none = temp_path("never.cube");
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cube_export_to_file(cube.get(), cell.get(), ppt.get(), none.c_str(), true),
                  1);
    });
    EXPECT_EQ(c.err, "Error: quovix_property_find_index() returns negative value.\n");
    EXPECT_FALSE(std::ifstream(none).good());
}

TEST(CubeExport, RefusesUnwritablePath) {
    const double len[3] = {1.0, 1.0, 1.0};
    auto cube = make_cube(1, 1, 1, len, [](long, long, long) { return 1.0; });
    Captured c = capture([&] {
        EXPECT_EQ(
            quovix_cube_export_to_file(cube.get(), nullptr, nullptr, "/nonexistent/x.cube", true),
            1);
    });
    EXPECT_EQ(c.err, "Error: unable to open file /nonexistent/x.cube\n");
}

// ----------------------------------------------------------------------------- reading

TEST(CubeImport, RoundTripKeepsSixDecimalsBothWays) {
    std::srand(2024);
    const double len[3] = {7.3, 5.1, 9.6};
    auto cube = make_cube(12, 8, 16, len, [](long, long, long) {
        return (static_cast<double>(std::rand()) / RAND_MAX - 0.3) * 50.0;
    });
    ASSERT_TRUE(cube);
    // Tilt the cell so that every vector component goes through the Bohr conversion.
    cube->a[1][0] = 1.7;
    cube->a_i[1][0] = 1.7 / 8.0;
    const std::string path = temp_path("roundtrip.cube");
    for (bool periodic : {true, false}) {
        testing::internal::CaptureStdout();
        ASSERT_EQ(quovix_cube_export_to_file(cube.get(), nullptr, nullptr, path.c_str(), periodic),
                  0);
        QUOVIX_CUBE *raw = nullptr;
        QUOVIX_CELL *raw_cell = nullptr;
        ASSERT_EQ(quovix_cube_import_from_file(&raw, &raw_cell, path.c_str(), periodic, nullptr),
                  0);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("Message: cell information not read.\n"), std::string::npos);
        quovix_cube_ptr back{raw};
        EXPECT_EQ(raw_cell, nullptr);
        ASSERT_TRUE(back);
        for (int k = 0; k < 3; k++) EXPECT_EQ(back->n[k], cube->n[k]);
        for (int k = 0; k < 3; k++)
            for (int c = 0; c < 3; c++) EXPECT_NEAR(back->a_i[k][c], cube->a_i[k][c], 5e-7);
        double worst = 0.0;
        for (long i = 0; i < 12; i++)
            for (long j = 0; j < 8; j++)
                for (long k = 0; k < 16; k++)
                    worst = std::max(worst, std::fabs(back->en[i][j][k] - cube->en[i][j][k]));
        EXPECT_LE(worst, 5e-7) << (periodic ? "periodic" : "non-periodic");
    }

    // Read with the wrong flag: the non-periodic file read as periodic keeps the repeated
    // planes, so the grid grows by one point per axis and the extra plane equals plane 0.
    QUOVIX_CUBE *raw = nullptr;
    testing::internal::CaptureStdout();
    ASSERT_EQ(quovix_cube_import_from_file(&raw, nullptr, path.c_str(), true, nullptr), 0);
    testing::internal::GetCapturedStdout();
    quovix_cube_ptr wrong{raw};
    EXPECT_EQ(wrong->n[2], 17);
    EXPECT_NEAR(wrong->en[12][3][5], wrong->en[0][3][5], 1e-12);
    EXPECT_NEAR(wrong->en[1][2][16], cube->en[1][2][0], 5e-7);
    std::remove(path.c_str());
}

TEST(CubeImport, ReadsForeignLayoutWithSixValuesPerLine) {
    // Other writers put six "%13.5e" values on a line; values are read by white space.
    const std::string path = temp_path("foreign.cube");
    write_file(path,
               "made elsewhere\nsecond line\n    0    0.0 0.0 0.0\n"
               "    2    1.0 0.0 0.0\n    1    0.0 1.0 0.0\n    3    0.0 0.0 1.0\n"
               "  1.00000e+00 -2.50000e-01  3.0e2\n  4.00000E-03  5  -6\n");
    QUOVIX_CUBE *raw = nullptr;
    testing::internal::CaptureStdout();
    ASSERT_EQ(quovix_cube_import_from_file(&raw, nullptr, path.c_str(), true, nullptr), 0);
    testing::internal::GetCapturedStdout();
    quovix_cube_ptr cube{raw};
    EXPECT_EQ(cube->en[0][0][2], 300.0);
    EXPECT_EQ(cube->en[1][0][0], 0.004);
    EXPECT_EQ(cube->en[1][0][2], -6.0);
    EXPECT_NEAR(cube->a[0][0], 2.0 / 1.889725989, 1e-15);
    std::remove(path.c_str());
}

// Truncated values and a missing file: see the e2e cases print-cube-truncated and
// print-cube-missing.
TEST(CubeImport, BadFilesFailCleanly) {
    const std::string path = temp_path("bad.cube");
    const std::string head =
        "name\r\n\r\n   0    0.000000    0.000000    0.000000\r\n"
        "   2    1.000000    0.000000    0.000000\r\n"
        "   2    0.000000    1.000000    0.000000\r\n";
    const std::string with_atom =
        "n\r\n\r\n   1 0 0 0\r\n   1 1 0 0\r\n   1 0 1 0\r\n   1 0 0 1\r\n";
    struct Case {
        const char *what;
        std::string text;
        std::string error;
        bool periodic = true, with_cell = false;
    };
    const Case cases[] = {
        {"non-number value",
         head + "   2    0.000000    0.000000    1.000000\r\n 1\r\n 2\r\n x3\r\n 4\r\n 5\r\n 6\r\n "
                "7\r\n 8\r\n",
         "Error: unable to read value 3 from " + path + ".\n"},
        {"counts beyond the file", head + "   200000    0.000000    0.000000    1.000000\r\n 1\r\n",
         "Error: grid counts 2 * 2 * 200000 with 0 atoms do not fit the 4 bytes of " + path +
             ".\n"},
        {"zero count", head + "   0    0.000000    0.000000    1.000000\r\n 1\r\n",
         "Error: grid counts 2 * 2 * 0 in " + path + " must be positive.\n"},
        {"missing vector line", head, "Error: unable to read the grid vectors of " + path + ".\n"},
        {"empty file", "", "Error: unable to read the header of " + path + ".\n"},
        {"negative atom count", "n\r\n\r\n  -3 0 0 0\r\n   2 1 0 0\r\n   2 0 1 0\r\n   2 0 0 1\r\n",
         "Error: negative atom count in " + path + " is not supported.\n"},
        // A non-periodic file needs two points per axis: the chain names the allocation.
        {"one point, non-periodic",
         "n\r\n\r\n   0 0 0 0\r\n   1 1 0 0\r\n   2 0 1 0\r\n   2 0 0 1\r\n"
         " 1\r\n 2\r\n 3\r\n 4\r\n",
         "Error: argument must be positive.\nError: quovix_cube_new() returns NULL.\n", false},
        {"atom line", with_atom + "   3 0.5 1.0\r\n 1\r\n",
         "Error: unable to read atom 1 from " + path + ".\n", true, true},
        {"unknown atomic number", with_atom + " 150 0.5 1.0 0.0 0.0\r\n 1\r\n",
         "Error: unable to find element with atomic number 150 from " + kUnitary +
             ".\nError: quovix_property_type_from_atomic_number() returns non-zero.\n",
         true, true},
    };
    for (const Case &c : cases) {
        write_file(path, c.text);
        QUOVIX_CUBE *cube = nullptr;
        QUOVIX_CELL *cell = nullptr;
        Captured log = capture([&] {
            EXPECT_EQ(quovix_cube_import_from_file(&cube, c.with_cell ? &cell : nullptr,
                                                   path.c_str(), c.periodic, kUnitary.c_str()),
                      1)
                << c.what;
        });
        EXPECT_EQ(log.err, c.error) << c.what;
        EXPECT_EQ(cube, nullptr) << c.what;
        EXPECT_EQ(cell, nullptr) << c.what;
    }
    std::remove(path.c_str());
}

TEST(CubeName, AssignedCifName) {
    char out[QUOVIX_PATH_LEN];
    quovix_cubename_assigned(out, "dir/Li6PS5Cl.cif");
    EXPECT_STREQ(out, "dir/Li6PS5Cl_assigned.cif");
    std::string longname(1500, 'x');
    quovix_cubename_assigned(out, longname.c_str());
    EXPECT_EQ(std::string(out), std::string(996, 'x') + "_assigned.cif");
}

// ----------------------------------------------------------------------------- grid size

TEST(CubeGridSize, MultiplesOf24ReducedBelow196Cubed) {
    struct Case {
        double len[3];
        double res;
        long want[3];
    };
    const Case cases[] = {
        {{5, 5, 5}, 0.1, {72, 72, 72}},              // ceil(50 / 24) * 24
        {{10.3, 6.0, 4.7}, 0.1, {120, 72, 48}},      // small enough: no reduction
        {{30, 20, 10}, 0.1, {288, 216, 120}},        // one step on the longest axis
        {{23.9, 23.9, 14.3}, 0.1, {216, 240, 144}},  // tie of axes 1, 2: the first drops
        {{14.3, 23.9, 23.9}, 0.1, {144, 216, 240}},  // tie of axes 2, 3: the second drops
    };
    for (const Case &c : cases) {
        long n[3] = {0, 0, 0};
        ASSERT_EQ(quovix_cube_grid_size(n, c.len, c.res), 0);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(n[k], c.want[k]) << c.len[0] << " axis " << k;
    }
    // Large or absurd requests end as multiples of 24 within the point budget.
    const double big[][3] = {{30, 30, 30}, {30, 30, 0.5}};
    for (const auto &len : big) {
        long n[3] = {0, 0, 0};
        ASSERT_EQ(quovix_cube_grid_size(n, len, 1e-3), 0);
        EXPECT_LE(n[0] * n[1] * n[2], 196L * 196L * 196L);
        for (long v : n) EXPECT_TRUE(v > 0 && v % 24 == 0) << v;
    }
    long n[3];
    const double len[3] = {5, 5, 5};
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_cube_grid_size(n, len, 0.0), 1);
    EXPECT_EQ(quovix_cube_grid_size(n, len, NAN), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: resolution must be a positive number.\n"
              "Error: resolution must be a positive number.\n");
}

// ----------------------------------------------------------------------------- landscape

namespace {

struct Structure {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr symmetry;
    quovix_property_ptr ppt;
};

// Reads a CIF of tests/data and builds its parameter set with the mobile species (quietly).
Structure load(const char *file, const char *type, int os, double sf) {
    test_import::Loaded in = test_import::load(test_import::data_file(file));
    Structure s{std::move(in.cell), std::move(in.sym), nullptr};
    if (in.status == 0) {
        capture([&] {
            s.ppt.reset(quovix_property_import_from_cell(s.cell.get(), type, os, sf,
                                                         kUnitary.c_str(), kBinary.c_str()));
        });
    }
    return s;
}

enum class Loop { plain, scalar, vector };

quovix_cube_ptr landscape(Structure &s, double res, bool ignore, Loop loop, int threads = 2) {
    omp_set_num_threads(threads);
    testing::internal::CaptureStdout();
    QUOVIX_CELL *c = s.cell.get();
    QUOVIX_SYMMETRY *y = s.symmetry.get();
    QUOVIX_PROPERTY *p = s.ppt.get();
    quovix_cube_ptr cube{loop == Loop::plain    ? quovix_cube_calculate_plain(c, y, p, res, ignore)
                         : loop == Loop::scalar ? quovix_cube_calculate_scalar(c, y, p, res, ignore)
                                                : quovix_cube_calculate(c, y, p, res, ignore)};
    testing::internal::GetCapturedStdout();
    return cube;
}

// Largest |a - b| over the grid, and the number of points printed differently in the cube
// file's " %12.6f".
struct Comparison {
    double max_diff = 0.0;
    long printed = 0;
};
Comparison compare(const QUOVIX_CUBE *a, const QUOVIX_CUBE *b) {
    Comparison c;
    char x[64], y[64];
    for (long i = 0; i < a->n[0]; i++)
        for (long j = 0; j < a->n[1]; j++)
            for (long k = 0; k < a->n[2]; k++) {
                const double u = a->en[i][j][k], v = b->en[i][j][k];
                c.max_diff = std::max(c.max_diff, std::fabs(u - v));
                std::snprintf(x, sizeof x, " %12.6f", u);
                std::snprintf(y, sizeof y, " %12.6f", v);
                c.printed += std::strcmp(x, y) != 0;
            }
    return c;
}

// Number of grid points whose values differ in any bit.
long differing(const QUOVIX_CUBE *a, const QUOVIX_CUBE *b) {
    long count = 0;
    for (long i = 0; i < a->n[0]; i++)
        for (long j = 0; j < a->n[1]; j++)
            count += std::memcmp(a->en[i][j], b->en[i][j], sizeof(double) * a->n[2]) != 0;
    return count;
}

}  // namespace

// The shipped loop must give the reference loop's value at every point within 1e-9 eV and
// print it identically, with and without symmetry (P1, 16, 36 and 192 operations), with
// partial occupancies, for a mobile anion; and the same doubles for any number of threads.
TEST(CubeCalculate, FastMatchesPlainOnRealStructures) {
    struct Case {
        const char *file, *type;
        int os;
        double res;
        bool ignore;
    };
    const Case cases[] = {
        {"LiFePO4_olivine_P1.cif", "Li", 1, 0.45, true},
        {"NaCl_rocksalt.cif", "Na", 1, 0.2, true},
        {"Li10GeP2S12_LGPS.cif", "Li", 1, 0.5, true},
        {"LiCoO2_layered.cif", "Li", 1, 0.3, false},
        {"YBa2Cu3O7.cif", "O", -2, 0.4, true},
    };
    for (const Case &c : cases) {
        Structure s = load(c.file, c.type, c.os, 0.8);
        ASSERT_TRUE(s.ppt) << c.file;
        quovix_cube_ptr ref = landscape(s, c.res, c.ignore, Loop::plain);
        ASSERT_TRUE(ref) << c.file;
        double lo = 1e300, hi = -1e300;
        for (long i = 0; i < ref->n[0]; i++)
            for (long j = 0; j < ref->n[1]; j++)
                for (long k = 0; k < ref->n[2]; k++) {
                    lo = std::min(lo, ref->en[i][j][k]);
                    hi = std::max(hi, ref->en[i][j][k]);
                }
        EXPECT_GT(hi - lo, 5.0) << c.file;  // a real landscape: wells and walls
        // The binned, threaded loop with scalar functions: the plain doubles.
        quovix_cube_ptr scalar = landscape(s, c.res, c.ignore, Loop::scalar, 3);
        ASSERT_TRUE(scalar) << c.file;
        EXPECT_EQ(differing(ref.get(), scalar.get()), 0) << c.file;
        quovix_cube_ptr one = landscape(s, c.res, c.ignore, Loop::vector, 1);
        ASSERT_TRUE(one) << c.file;
        const Comparison cmp = compare(ref.get(), one.get());
        EXPECT_LE(cmp.max_diff, 1e-9) << c.file;
        EXPECT_EQ(cmp.printed, 0) << c.file;
        for (int threads : {2, 3}) {
            quovix_cube_ptr fast = landscape(s, c.res, c.ignore, Loop::vector, threads);
            ASSERT_TRUE(fast) << c.file;
            EXPECT_EQ(differing(one.get(), fast.get()), 0) << c.file << " threads " << threads;
        }
    }
}

// Points whose energy is exactly 0 (farther than every cut-off from all atoms) are computed
// again when the plain loop visits them; the fast loop must replay that, point for point.
TEST(CubeCalculate, ZeroRegionsReplayedLikePlain) {
    Structure s;
    s.cell = test_import::species_cell(
        24.0, {{"Na", 1, 0.0, 0.0, 0.0, 1.0}, {"Cl", -1, 0.5, 0.5, 0.5, 1.0}});
    const char *ops[] = {"x,y,z",   "-x,y,z",  "x,-y,z",  "x,y,-z",
                         "-x,-y,z", "-x,y,-z", "x,-y,-z", "-x,-y,-z"};
    s.symmetry.reset(quovix_symmetry_new(8));
    for (int c = 0; c < 8; c++) ASSERT_EQ(quovix_card_set_by_text(&s.symmetry->card[c], ops[c]), 0);
    capture([&] {
        s.ppt.reset(quovix_property_import_from_cell(s.cell.get(), "Li", 1, 0.75, kUnitary.c_str(),
                                                     kBinary.c_str()));
    });
    ASSERT_TRUE(s.ppt);
    quovix_cube_ptr ref = landscape(s, 1.0, true, Loop::plain);
    quovix_cube_ptr fast = landscape(s, 1.0, true, Loop::vector);
    ASSERT_TRUE(ref && fast);
    long zeros = 0;
    for (long i = 0; i < ref->n[0]; i++)
        for (long j = 0; j < ref->n[1]; j++)
            for (long k = 0; k < ref->n[2]; k++) zeros += ref->en[i][j][k] == 0.0;
    EXPECT_GT(zeros, 100);
    const Comparison cmp = compare(ref.get(), fast.get());
    EXPECT_LE(cmp.max_diff, 1e-9);
    EXPECT_EQ(cmp.printed, 0);
}

TEST(CubeCalculate, IgnoredIonsMessagesAndCap) {
    Structure s = load("LiFePO4_olivine_P1.cif", "Li", 1, 0.8);
    ASSERT_TRUE(s.ppt);
    omp_set_num_threads(2);
    // The message for ignored ions is pinned by the e2e case gen-cube-LiFePO4.
    testing::internal::CaptureStdout();
    quovix_cube_ptr ignored{
        quovix_cube_calculate(s.cell.get(), s.symmetry.get(), s.ppt.get(), 0.5, true)};
    testing::internal::GetCapturedStdout();
    for (long t = 0; t < s.cell->total; t++)
        EXPECT_EQ(s.cell->atom[t].ignored, std::strcmp(s.cell->atom[t].type, "Li") == 0);
    testing::internal::CaptureStdout();
    quovix_cube_ptr all{
        quovix_cube_calculate(s.cell.get(), s.symmetry.get(), s.ppt.get(), 0.5, false)};
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Message: no ion is ignored during cube generation.\n");
    ASSERT_TRUE(ignored && all);
    for (long t = 0; t < s.cell->total; t++) EXPECT_FALSE(s.cell->atom[t].ignored);
    // The mobile ions' own atoms repel the probe: every value rises or stays capped.
    long higher = 0, lower = 0;
    for (long i = 0; i < all->n[0]; i++)
        for (long j = 0; j < all->n[1]; j++)
            for (long k = 0; k < all->n[2]; k++) {
                higher += all->en[i][j][k] > ignored->en[i][j][k];
                lower += all->en[i][j][k] < ignored->en[i][j][k];
            }
    EXPECT_EQ(lower, 0);
    EXPECT_GT(higher, all->n[0] * all->n[1] * all->n[2] / 2);

    // Energies above 999.9 eV are stored as 999.9: make the inner Coulomb wall of Li-Fe
    // very high, so the points nearest the Fe atoms exceed the cap.
    const int li = quovix_property_find_index(s.ppt.get(), "Li", 1);
    const int fe = s.ppt->conducting == li ? quovix_property_find_index(s.ppt.get(), "Fe", 3) : -1;
    ASSERT_GE(fe, 0);
    s.ppt->bin[li][fe].a0 = 1000.0;
    quovix_cube_ptr capped = landscape(s, 0.8, true, Loop::vector);
    ASSERT_TRUE(capped);
    long at_cap = 0;
    double top = 0.0;
    for (long i = 0; i < capped->n[0]; i++)
        for (long j = 0; j < capped->n[1]; j++)
            for (long k = 0; k < capped->n[2]; k++) {
                at_cap += capped->en[i][j][k] == 999.9;
                top = std::max(top, capped->en[i][j][k]);
            }
    EXPECT_GT(at_cap, 0);
    EXPECT_EQ(top, 999.9);
}

TEST(CubeCalculate, BadParametersFailWithTheirReason) {
    Structure s = load("LiFePO4_olivine_P1.cif", "Li", 1, 0.8);
    ASSERT_TRUE(s.ppt);
    QUOVIX_PROPERTY *ppt = s.ppt.get();
    auto run = [&](double res) {
        return capture([&] {
                   quovix_cube_ptr cube{
                       quovix_cube_calculate(s.cell.get(), s.symmetry.get(), ppt, res, true)};
                   EXPECT_FALSE(cube);
               })
            .err;
    };
    EXPECT_EQ(run(-0.1), "Error: resolution must be a positive number, not -0.100000.\n");

    const int li = quovix_property_find_index(ppt, "Li", 1);
    const int o = quovix_property_find_index(ppt, "O", -2);
    ASSERT_GE(li, 0);
    ASSERT_GE(o, 0);
    const double b = ppt->bin[li][o].b;
    ppt->bin[li][o].b = 0.0;
    EXPECT_EQ(run(0.5), "Error: incorrect b at [" + std::to_string(li) +
                            "](Li1+)-(O2-) b=0.000000\n"
                            "Error: quovix_cube_validate_property() returns non-zero.\n");
    ppt->bin[li][o].b = b;

    const int conducting = ppt->conducting;
    ppt->conducting = -1;
    EXPECT_EQ(run(0.5),
              "Error: conducting ion is not specified in QUOVIX_PROPERTY.\n"
              "Error: quovix_cube_validate_property() returns non-zero.\n");
    ppt->conducting = conducting;

    // A zero oxidation state: see the e2e case gen-cube-LiFePO4-zero-os.
}

// Sites shared with the mobile species are resolved on a supercell written beside the cube
// (skipping them on request: see the e2e case gen-cube-PMN-PT-skip-mixed).
TEST(CubeCalculate, MixedSitesResolvedOnSupercell) {
    test_import::Loaded in =
        test_import::load(test_import::data_file("PMN-PT_cubic_mixed_sites.cif"));
    ASSERT_EQ(in.status, 0);
    const std::string cube = temp_path("mixed.cube"), assigned = temp_path("mixed_assigned.cif");
    std::srand(7);
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cube_calculate_from_cell_and_write_to_file_assign_partial_occ(
                      in.cell.get(), in.sym.get(), "Mg", 2, 0.75, 0.5, true, true, false,
                      cube.c_str(), assigned.c_str(), kUnitary.c_str(), kBinary.c_str()),
                  0);
    });
    EXPECT_NE(c.out.find("Message: partial occupancy at conducting sites detected. Cube will be "
                         "generated based on an asigned supercell.\n"),
              std::string::npos);
    // The cube is computed on the resolved 3 x 3 x 3 supercell (5 sites -> 27 cells of
    // Pb, O3 and one B-site cation each: 135 atoms, every one with occupancy 1).
    QUOVIX_CUBE *back = nullptr;
    QUOVIX_CELL *back_cell = nullptr;
    capture([&] {
        ASSERT_EQ(
            quovix_cube_import_from_file(&back, &back_cell, cube.c_str(), true, kUnitary.c_str()),
            0);
    });
    quovix_cube_ptr got{back};
    quovix_cell_ptr got_cell{back_cell};
    ASSERT_TRUE(got_cell);
    EXPECT_EQ(got_cell->total, 135);
    EXPECT_NEAR(got->a[0][0], 3 * in.cell->a[0][0], 1e-5);
    EXPECT_TRUE(std::ifstream(assigned).good());
    std::remove(cube.c_str());
    std::remove(assigned.c_str());
}
