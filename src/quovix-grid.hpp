// Periodic 3-D grid indexing: wrap-around, flat <-> (i, j, k), and neighbour stencils.
#pragma once

#include <array>
#include <cstddef>

/// Index arithmetic of an n[0] x n[1] x n[2] periodic grid stored in row order (the last
/// index fastest), as the landscape, the path map, the Fourier record and the graph use it.
struct quovix_grid {
    long n[3] = {0, 0, 0};

    constexpr quovix_grid() = default;
    constexpr quovix_grid(long n0, long n1, long n2) : n{n0, n1, n2} {}
    explicit constexpr quovix_grid(const long counts[3]) : n{counts[0], counts[1], counts[2]} {}

    constexpr long points() const { return n[0] * n[1] * n[2]; }

    /// v modulo m in [0, m), also for negative v. Indices one period out (the common case of
    /// neighbours and symmetry images) are brought back without a division.
    static constexpr long wrap(long v, long m) {
        if (v >= 0 && v < m) return v;
        if (v >= m && v < 2 * m) return v - m;
        if (v < 0 && v >= -m) return v + m;
        const long r = v % m;
        return r < 0 ? r + m : r;
    }
    /// Row-order flat index of (i, j, k), each wrapped into the grid first.
    constexpr long flat(long i, long j, long k) const {
        return (wrap(i, n[0]) * n[1] + wrap(j, n[1])) * n[2] + wrap(k, n[2]);
    }
    /// Flat index of indices already inside the grid (no wrapping).
    constexpr long flat_inside(long i, long j, long k) const { return (i * n[1] + j) * n[2] + k; }
    /// (i, j, k) of a flat index in [0, points()).
    constexpr std::array<long, 3> index(long q) const {
        return {q / (n[1] * n[2]), (q / n[2]) % n[1], q % n[2]};
    }
    /// Flat index of the neighbour of q displaced by (di, dj, dk), with wrap-around.
    constexpr long shifted(long q, long di, long dj, long dk) const {
        const auto x = index(q);
        return flat(x[0] + di, x[1] + dj, x[2] + dk);
    }
};

/// The 6 face neighbours and the 26 neighbours of the 3x3x3 block (centre excluded), the
/// latter in row order of (p, q, r) in {-1, 0, 1}^3.
inline constexpr std::array<std::array<int, 3>, 6> quovix_grid_stencil6 = {
    {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}}};
inline constexpr std::array<std::array<int, 3>, 26> quovix_grid_stencil26 = [] {
    std::array<std::array<int, 3>, 26> s{};
    std::size_t m = 0;
    for (int p = -1; p <= 1; p++)
        for (int q = -1; q <= 1; q++)
            for (int r = -1; r <= 1; r++)
                if (p || q || r) s[m++] = {p, q, r};
    return s;
}();
