// Pair table and batch kernel of the pair terms.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-pair.hpp"

// The vector kernel against its scalar reference at the edges of every branch: probes exactly
// at a bond's cut-off and inner radius and exactly at the 10 A Coulomb range, where the terms
// are made discontinuous (no shifts, an inner branch that does not meet the outer one), so a
// contact counted or branched differently shows as a jump; and a number of probes that fills
// no whole register, so the padded lanes are exercised.
TEST(PairKernel, MatchesScalarSumsAtBranchEdges) {
    quovix_pair_term bond;
    bond.kind = quovix_pair_kind::bonding;
    bond.cutoff = 3.0;
    bond.r_in = 1.5;
    bond.a2 = 2.0;
    bond.a0 = 7.0;
    bond.d0 = 1.3;
    bond.rmin = 2.0;
    bond.b = 0.37;
    quovix_pair_term like;
    like.kind = quovix_pair_kind::coulomb;
    like.q = 0.8;
    like.r_in = 2.5;
    like.a2 = 0.5;
    like.a0 = 3.0;
    quovix_pair_sources src;
    const double origin[3] = {0.0, 0.0, 0.0}, far[3] = {5.0, 0.0, 0.0}, other[3] = {0.0, 2.0, 1.0};
    src.add_bonded(origin, 0.5, bond);
    src.add_bonded(other, 1.0, bond);
    src.add_coulomb(far, 1.0, like, 16.0, 0.0);
    src.add_coulomb(other, 0.25, like, 1.6, 0.0);
    // x = 3 and 1.5: the first bond's cut-off and inner radius; x = -5: the Coulomb range.
    const std::vector<double> px = {3.0, 1.5, -5.0, 3.0000001, 1.5000001, -5.0000001,
                                    0.7, 2.2, 4.4,  -1.0,      0.1};
    const std::vector<double> py(px.size(), 0.0), pz(px.size(), 0.0);
    const std::size_t n = px.size();
    std::vector<double> b(n), c(n), be(n), ce(n);
    quovix_pair_kernel_sum(src, px.data(), py.data(), pz.data(), n, b.data(), c.data());
    quovix_pair_kernel_sum_exact(src, px.data(), py.data(), pz.data(), n, be.data(), ce.data());
    for (std::size_t p = 0; p < n; p++) {
        EXPECT_NEAR(b[p], be[p], 1e-13 * (1.0 + std::fabs(be[p]))) << "probe " << p;
        EXPECT_NEAR(c[p], ce[p], 1e-13 * (1.0 + std::fabs(ce[p]))) << "probe " << p;
    }
    // The edges themselves count, inclusive as in the plain loops: at x = 3 the bond at the
    // origin adds 0.5 E(3) (the other bond is out of range); at x = 1.5 its inner branch
    // 0.5 (2 * 1.5^2 + 7), the other bond its Morse energy at sqrt(7.25); at x = -5 the far
    // Coulomb source, 10 A away, q erfc(10 / 16) / 10.
    auto morse = [&](double x) { return quovix_energy_bonding(x, bond.d0, bond.rmin, bond.b); };
    EXPECT_NEAR(be[0], 0.5 * morse(3.0), 1e-14);
    EXPECT_EQ(be[3], 0.0);
    EXPECT_NEAR(be[1], 0.5 * (2.0 * 1.5 * 1.5 + 7.0) + morse(std::sqrt(7.25)), 1e-13);
    EXPECT_GT(std::fabs(be[1] - be[4]), 1.0);
    EXPECT_NEAR(ce[2] - ce[5], 0.8 * std::erfc(10.0 / 16.0) / 10.0, 1e-9);
}

// The batched pair derivatives of the dynamics against the scalar functions, element by element,
// for every count up to two registers and a half (whole registers and each padding length).
TEST(PairKernel, ForceBatchesMatchScalarDerivatives) {
    for (std::size_t n = 0; n <= 20; ++n) {
        std::vector<double> d(n), d0(n), rmin(n), b(n), q(n), reff(n), fb(n), fc(n);
        for (std::size_t k = 0; k < n; ++k) {
            d[k] = 0.9 + 0.37 * static_cast<double>(k);
            d0[k] = 0.2 + 0.01 * static_cast<double>(k);
            rmin[k] = 1.8 + 0.02 * static_cast<double>(k % 5);
            b[k] = 0.3 + 0.01 * static_cast<double>(k % 3);
            q[k] = 0.5 + 0.1 * static_cast<double>(k % 4);
            reff[k] = 1.2 + 0.3 * static_cast<double>(k % 7);
        }
        quovix_pair_bonding_force_batch(d.data(), d0.data(), rmin.data(), b.data(), n, fb.data());
        quovix_pair_coulomb_force_batch(d.data(), q.data(), reff.data(), n, fc.data());
        for (std::size_t k = 0; k < n; ++k) {
            const double eb = quovix_force_bonding(d[k], d0[k], rmin[k], b[k]);
            const double ec = quovix_force_coulombic(d[k], q[k], reff[k]);
            EXPECT_NEAR(fb[k], eb, 1e-14 * std::fabs(eb)) << n << " " << k;
            EXPECT_NEAR(fc[k], ec, 1e-14 * std::fabs(ec)) << n << " " << k;
        }
    }
}

// One table for every sum: a like-charged pair reads the charges and radii, an opposite pair
// the record stored cation first, whichever species comes first; os = 0 pairs are empty.
TEST(PairTable, OrientationAndKinds) {
    QUOVIX_PROPERTY ppt{};
    int os[3] = {2, -1, 0};
    QUOVIX_PROPERTY_UNITARY uni[3]{};
    QUOVIX_PROPERTY_BINARY rows[3][3]{};
    QUOVIX_PROPERTY_BINARY *bin[3] = {rows[0], rows[1], rows[2]};
    uni[0].q = 1.5;
    uni[0].rc = 0.9;
    uni[1].q = -0.75;
    uni[1].rc = 1.4;
    rows[0][1].cutoff = 6.0;
    rows[0][1].d0 = 0.4;
    rows[0][1].b = 0.5;
    rows[0][1].r_bc = 1.1;
    rows[1][0].cutoff = 99.0;  // anion-first record: never read
    rows[1][1].r_cc = 2.2;
    ppt.total = 3;
    ppt.os = os;
    ppt.uni = uni;
    ppt.bin = bin;
    quovix_pair_table t;
    ASSERT_TRUE(quovix_pair_table_build(t, &ppt));
    EXPECT_EQ(t.term(0, 1).kind, quovix_pair_kind::bonding);
    EXPECT_EQ(t.term(1, 0).cutoff, 6.0);
    EXPECT_EQ(t.term(1, 0).r_in, 1.1);
    EXPECT_EQ(t.term(1, 1).kind, quovix_pair_kind::coulomb);
    EXPECT_EQ(t.term(1, 1).q, 0.75 * 0.75);
    EXPECT_EQ(t.term(1, 1).rcs, 2.8);
    EXPECT_EQ(t.term(1, 1).r_in, 2.2);
    EXPECT_EQ(t.term(0, 2).kind, quovix_pair_kind::none);
    EXPECT_FALSE(quovix_pair_table_build(t, nullptr));
}
