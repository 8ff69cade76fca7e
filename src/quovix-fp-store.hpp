// Dot records of the compact path grid, made on demand (internal to the path map).
#pragma once

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <vector>

#include "quovix-fp.hpp"

/// Cartesian position of grid index x_i: x[j] = a_i[0][j]*i0 + a_i[1][j]*i1 + a_i[2][j]*i2,
/// summed in this order by every path-map grid so that marker positions agree to the bit.
inline void quovix_fp_position(double x[3], const double a_i[3][3], const long x_i[3]) {
    for (int j = 0; j < 3; j++)
        x[j] = a_i[0][j] * static_cast<double>(x_i[0]) + a_i[1][j] * static_cast<double>(x_i[1]) +
               a_i[2][j] * static_cast<double>(x_i[2]);
}

/// Owns the materialised QUOVIX_FPDOT records in fixed blocks, so their addresses never change,
/// and finds them by flat grid index.
struct quovix_fpcube_store {
    static constexpr std::size_t block = 4096;
    std::vector<std::unique_ptr<QUOVIX_FPDOT[]>> blocks;
    std::size_t used = 0;
    std::unordered_map<long, QUOVIX_FPDOT *> index;

    std::size_t size() const { return used; }
    QUOVIX_FPDOT *find(long q) const {
        const auto it = index.find(q);
        return it == index.end() ? nullptr : it->second;
    }
    /// New zeroed record for point q (the caller checked that none exists). May throw.
    QUOVIX_FPDOT *add(long q) {
        if (used == blocks.size() * block) blocks.emplace_back(new QUOVIX_FPDOT[block]());
        QUOVIX_FPDOT *d = &blocks.back()[used % block];
        index.emplace(q, d);
        used++;
        return d;
    }
    template <class F>
    void for_each(F &&f) {
        for (std::size_t m = 0; m < used; m++) f(&blocks[m / block][m % block]);
    }
};
