// Periodic grid indexing.
#include <gtest/gtest.h>

#include "quovix-grid.hpp"

TEST(Grid, FlatAndIndexAreInverseWithWrapAround) {
    const quovix_grid g(3, 4, 5);
    for (long q = 0; q < g.points(); q++) {
        const auto x = g.index(q);
        EXPECT_EQ(g.flat(x[0], x[1], x[2]), q);
        EXPECT_EQ(g.flat(x[0] - 3, x[1] + 8, x[2] - 10), q);
    }
    EXPECT_EQ(g.shifted(g.flat(0, 0, 0), -1, -1, -1), g.flat(2, 3, 4));
    EXPECT_EQ(quovix_grid::wrap(-1, 1), 0);
    for (long v = -15; v <= 15; v++) EXPECT_EQ(quovix_grid::wrap(v, 4), ((v % 4) + 4) % 4) << v;
}

TEST(Grid, StencilsHoldEachNeighbourOnce) {
    int sum[3] = {0, 0, 0};
    for (const auto &s : quovix_grid_stencil26) {
        EXPECT_TRUE(s[0] || s[1] || s[2]);
        for (int k = 0; k < 3; k++) sum[k] += s[k];
    }
    EXPECT_EQ(sum[0] + sum[1] + sum[2], 0);
    EXPECT_EQ(quovix_grid_stencil26.front(), (std::array<int, 3>{-1, -1, -1}));
    EXPECT_EQ(quovix_grid_stencil26.back(), (std::array<int, 3>{1, 1, 1}));
}
