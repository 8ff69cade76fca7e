// Path map: known answers on cosine landscapes, identity of the compact grid with the literal
// record grid, filter and cap boundaries.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-fp-reference.hpp"
#include "quovix-fp.hpp"
#include "temp_dir.hpp"

namespace {

using Field = std::function<double(double, double, double)>;

/// Cube of n0 x n1 x n2 points over lattice `a` filled with E(f0, f1, f2).
quovix_cube_ptr make_cube(long n0, long n1, long n2, const double a[3][3], const Field &e) {
    const long n[3] = {n0, n1, n2};
    quovix_cube_ptr cube(quovix_cube_new(n));
    for (int k = 0; k < 3; k++)
        for (int j = 0; j < 3; j++) {
            cube->a[k][j] = a[k][j];
            cube->a_i[k][j] = a[k][j] / static_cast<double>(n[k]);
        }
    for (long i = 0; i < n0; i++)
        for (long j = 0; j < n1; j++)
            for (long k = 0; k < n2; k++)
                cube->en[i][j][k] = e(double(i) / n0, double(j) / n1, double(k) / n2);
    return cube;
}

constexpr double ORTHO[3][3] = {{6, 0, 0}, {0, 7, 0}, {0, 0, 8}};
constexpr double TRICLINIC[3][3] = {{5.5, 0, 0}, {1.2, 6.1, 0}, {-0.8, 1.1, 7.3}};

/// Half paths as text (indices of every dot and the barrier), for comparisons.
std::string dump(const QUOVIX_FPHALF_LIST *list) {
    std::string s;
    char buf[96];
    for (long h = 0; h < list->total; h++) {
        std::snprintf(buf, sizeof buf, "%.17g:", list->half[h].barrier);
        s += buf;
        for (long m = 0; m < list->half[h].total; m++) {
            const QUOVIX_FPDOT *d = list->half[h].dot[m];
            std::snprintf(buf, sizeof buf, " %ld,%ld,%ld/%d", d->x_i[0], d->x_i[1], d->x_i[2],
                          d->type);
            s += buf;
        }
        s += '\n';
    }
    return s;
}

std::string dump(const QUOVIX_CELL *cell) {
    std::string s;
    char buf[160];
    for (long m = 0; m < cell->total; m++) {
        const QUOVIX_ATOM &a = cell->atom[m];
        std::snprintf(buf, sizeof buf, "%s %s %.17g %.17g %.17g\n", a.name, a.type, a.x_f[0],
                      a.x_f[1], a.x_f[2]);
        s += buf;
    }
    return s;
}

struct Outcome {
    std::string out, paths, cell;
    bool ok = false;
};

/// The whole map on the compact grid or the literal one: printed lines, half paths after the
/// filter, marker cell.
Outcome run(QUOVIX_CUBE *cube, double barrier_max, bool literal) {
    Outcome r;
    testing::internal::CaptureStdout();
    QUOVIX_FPCUBE *fp = nullptr;
    QUOVIX_FPCUBE_REF *ref = nullptr;
    QUOVIX_FPHALF_LIST *list = nullptr;
    if (literal) {
        ref = quovix_fpref_new_from_cube(cube);
        list = quovix_fpref_half_list_new_from_fpcube(ref);
    } else {
        fp = quovix_fpcube_new_from_cube(cube);
        list = quovix_fphalf_list_new_from_fpcube(fp);
    }
    if (list && (barrier_max < 0 || quovix_fphalf_list_filter(list, barrier_max) == 0)) {
        quovix_fphalf_list_label_path(list);
        r.paths = dump(list);
        QUOVIX_CELL *cell =
            literal ? quovix_fpref_export_to_cell(ref) : quovix_fpcube_export_to_cell(fp);
        r.cell = dump(cell);
        quovix_cell_free(cell);
        r.ok = true;
    }
    quovix_fphalf_list_free(list);
    quovix_fpcube_free(fp);
    quovix_fpref_free(ref);
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

void expect_same_as_literal(QUOVIX_CUBE *cube, double barrier_max) {
    testing::internal::CaptureStderr();
    omp_set_num_threads(1);
    const Outcome one = run(cube, barrier_max, false);
    omp_set_num_threads(2);
    const Outcome fast = run(cube, barrier_max, false);
    const Outcome lit = run(cube, barrier_max, true);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(fast.ok, lit.ok) << err;
    EXPECT_EQ(fast.out, lit.out);
    EXPECT_EQ(fast.paths, lit.paths);
    EXPECT_EQ(fast.cell, lit.cell);
    EXPECT_EQ(one.out + one.paths + one.cell, fast.out + fast.paths + fast.cell);  // threads
}

}  // namespace

// E = sum_k A_k cos(4 pi f_k): 8 minima, 24 first-order saddles with barrier 2 A_k along the axis
// whose coordinate sits at a maximum of its cosine, 8 maxima; the marker positions are the
// analytic ones in any cell shape.
TEST(FpMap, CosineLandscapeKnownCriticalPoints) {
    const double A[3] = {0.3, 0.5, 0.7};
    const Field e = [&](double f0, double f1, double f2) {
        return A[0] * std::cos(4 * M_PI * f0) + A[1] * std::cos(4 * M_PI * f1) +
               A[2] * std::cos(4 * M_PI * f2);
    };
    for (const auto *lattice : {ORTHO, TRICLINIC}) {
        quovix_cube_ptr cube = make_cube(12, 16, 20, lattice, e);
        testing::internal::CaptureStdout();
        quovix_fpcube_ptr fp(quovix_fpcube_new_from_cube(cube.get()));
        quovix_fphalf_list_ptr list(quovix_fphalf_list_new_from_fpcube(fp.get()));
        const std::string out = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(fp && list);
        EXPECT_EQ(out, "Message: QUOVIX_FPCUBE successfully generated containing 48 paths.\n");
        long count[7] = {0};
        for (long q = 0; q < fp->total; q++) count[fp->type[q]]++;
        EXPECT_EQ(count[FP_MIN], 8);
        EXPECT_EQ(count[FP_SAD], 24);
        EXPECT_EQ(count[FP_MAX], 8);
        // Every saddle has two descents of barrier 2 A_k, k the axis at its cosine maximum.
        ASSERT_EQ(list->total, 48);
        for (long h = 0; h < list->total; h++) {
            const QUOVIX_FPHALF &half = list->half[h];
            const QUOVIX_FPDOT *s = half.dot[0], *m = half.dot[half.total - 1];
            EXPECT_EQ(s->total_dn, 2);
            EXPECT_EQ(m->type, FP_MIN);
            int axis = -1;
            for (int k = 0; k < 3; k++)
                if ((s->x_i[k] * 2) % fp->n[k] == 0) axis = k;  // f = 0 or 1/2
            ASSERT_GE(axis, 0);
            EXPECT_NEAR(half.barrier, 2 * A[axis], 1e-12);
        }
        quovix_fphalf_list_label_path(list.get());
        quovix_cell_ptr cell(quovix_fpcube_export_to_cell(fp.get()));
        long minima = 0;
        for (long m = 0; m < cell->total; m++) {
            const QUOVIX_ATOM &at = cell->atom[m];
            if (std::strcmp(at.type, "Li") != 0) continue;
            minima++;
            for (int k = 0; k < 3; k++)
                EXPECT_NEAR(std::fabs(at.x_f[k] - 0.5), 0.25, 1e-9) << at.x_f[k];
        }
        EXPECT_EQ(minima, 8);
        expect_same_as_literal(cube.get(), -0.1);
        expect_same_as_literal(cube.get(), 0.8);  // keeps axes 0 and 1 only
    }
}

// Smooth random landscapes (many saddles, error points, branch warnings), coarse plateaus
// (equal neighbours) and every filter mode: compact and literal grids agree on every printed
// line, every half path and every marker.
TEST(FpMap, CompactGridMatchesLiteralRecords) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int trial = 0; trial < 6; trial++) {
        struct Wave {
            int m[3];
            double amp, phase;
        };
        std::vector<Wave> waves;
        for (int w = 0; w < 14; w++)
            waves.push_back(
                {{int(u(rng) * 3), int(u(rng) * 3), int(u(rng) * 3)}, 0.5 * u(rng), 3 * u(rng)});
        const double step = trial % 2 ? 0.05 : 0.0;  // odd trials: quantised energies
        const Field e = [&](double f0, double f1, double f2) {
            double s = 0;
            for (const Wave &w : waves)
                s += w.amp *
                     std::cos(2 * M_PI * (w.m[0] * f0 + w.m[1] * f1 + w.m[2] * f2) + w.phase);
            return step > 0 ? step * std::round(s / step) : s;
        };
        quovix_cube_ptr cube = make_cube(9 + trial, 13, 11 + 2 * trial, TRICLINIC, e);
        for (double barrier_max : {-0.1, 0.0, 0.05, 0.3})
            expect_same_as_literal(cube.get(), barrier_max);
    }
}

// One-point and flat grids (all minima, no path, a filter that fails) are pinned by the e2e
// cases fp-map-one-point, fp-map-flat and fp-map-flat-filter-fails. A grid handed over with a
// non-finite value (not through the cube reader, which refuses it first) is refused.
TEST(FpMap, NonFiniteGrid) {
    const Field bad = [](double f0, double, double) { return f0 > 0.4 ? NAN : 0.0; };
    quovix_cube_ptr nan_cube = make_cube(4, 4, 4, ORTHO, bad);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_fpcube_new_from_cube(nan_cube.get()), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("not a finite number"),
              std::string::npos);
}

// A ramp along one axis of a 1x1xN grid: its top is a saddle whose long descent holds N dots.
// Reaching the minimum ends a descent before the dot count is checked against 1999, so 2000 dots
// pass and 2001 fail, as in the literal grid.
TEST(FpMap, DescentCapBoundary) {
    for (long n : {2000L, 2001L}) {
        const Field ramp = [](double, double, double f2) { return f2; };
        quovix_cube_ptr cube = make_cube(1, 1, n, ORTHO, ramp);
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        quovix_fpcube_ptr fp(quovix_fpcube_new_from_cube(cube.get()));
        quovix_fphalf_list_ptr list(quovix_fphalf_list_new_from_fpcube(fp.get()));
        testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        if (n == 2000) {
            ASSERT_TRUE(list);
            ASSERT_EQ(list->total, 2);
            EXPECT_EQ(list->half[0].total, 2000);
            EXPECT_EQ(list->half[1].total, 2);
        } else {
            EXPECT_FALSE(list);
            EXPECT_EQ(err,
                      "Error: failed to descend to the local minimum within 2000 steps.\n"
                      "Error: quovix_fphalf_list_new() returns NULL.\n");
        }
        expect_same_as_literal(cube.get(), -0.1);
    }
}

// The graph marks cycles after clearing all types: types set through half-path dots must reach
// the marker cell, and cleared minima and saddles must disappear from it.
TEST(FpMap, TypesSetThroughDotsReachTheMarkerCell) {
    const Field e = [](double f0, double f1, double f2) {
        return 0.2 * std::cos(4 * M_PI * f0) + 0.4 * std::cos(4 * M_PI * f1) +
               0.6 * std::cos(4 * M_PI * f2);
    };
    quovix_cube_ptr cube = make_cube(8, 8, 12, ORTHO, e);
    testing::internal::CaptureStdout();
    quovix_fpcube_ptr fp(quovix_fpcube_new_from_cube(cube.get()));
    quovix_fphalf_list_ptr list(quovix_fphalf_list_new_from_fpcube(fp.get()));
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(list && list->total > 0);
    quovix_fpcube_clear_type(fp.get());
    QUOVIX_FPHALF one = list->half[0];
    QUOVIX_FPHALF_LIST single = {1, &one};
    quovix_fphalf_list_label_path(&single);
    quovix_cell_ptr cell(quovix_fpcube_export_to_cell(fp.get()));
    EXPECT_EQ(cell->total, one.total);  // every dot of the path, saddle and minimum included
    for (long m = 0; m < cell->total; m++) EXPECT_STREQ(cell->atom[m].type, "H");
}

// Real landscapes of the mobile ion (coarse grids): compact and literal grids agree.
TEST(FpMap, RealLandscapesMatchLiteralRecords) {
    struct Case {
        const char *file, *type;
        int os;
    };
    for (const Case &c :
         {Case{"LiFePO4_olivine_P1.cif", "Li", 1}, Case{"Li6PS5Cl_argyrodite.cif", "Li", 1},
          Case{"Na3PS4_cubic_2x2x2_P1.cif", "Na", 1}}) {
        test_import::Loaded in = test_import::load(test_import::data_file(c.file));
        ASSERT_EQ(in.status, 0) << c.file;
        testing::internal::CaptureStdout();
        QUOVIX_PROPERTY *ppt = nullptr;
        quovix_cube_ptr cube(quovix_cube_calculate_from_cell(
            &ppt, in.cell.get(), in.sym.get(), c.type, c.os, 0.75, 0.45, true,
            test_import::unitary().c_str(), test_import::binary().c_str()));
        quovix_property_free(ppt);
        testing::internal::GetCapturedStdout();
        ASSERT_TRUE(cube) << c.file;
        expect_same_as_literal(cube.get(), -0.1);
        expect_same_as_literal(cube.get(), 0.4);
    }
}
