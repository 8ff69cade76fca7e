#!/usr/bin/python3
"""Percolation levels of an energy landscape stored as a Gaussian cube file.

For a periodic grid of energies E(i, j, k) the region below a level L is the set of grid
points with E <= L. This script finds the lowest levels at which one connected part of that
region wraps the periodic cell along 1, 2 and 3 independent lattice directions, and reports
them relative to the global minimum of the grid: the 1D, 2D and 3D percolation barriers of a
mobile ion moving on the landscape.

Method (independent of the program it checks): for a trial level the region is labelled with
scipy.ndimage.label (26- or 6-connectivity, no wrap-around); the pairs of neighbouring points
across the cell faces then join labels with a lattice offset in a union-find that carries
offsets. A pair that closes a loop inside one set contributes its net translation, and the
rank of the translations of a set is its percolation dimension. The rank never falls when
the level rises, so each of the three levels is found by bisection over the sorted distinct
grid energies.

Command line:
    /usr/bin/python3 tools/cube_percolation.py file.cube [--non-periodic] [--six]
prints "1D", "2D", "3D" lines with the barrier in eV (relative to the global minimum) and
the absolute level. Import: read_cube(path, periodic=True) -> (energies, lattice) and
percolation_levels(energies, connectivity=26) -> dict with keys 1, 2, 3 of absolute levels.
"""

import sys

import numpy as np
from scipy import ndimage

BOHR_PER_ANGSTROM = 1.889725989


def read_cube(path, periodic=True):
    """Energy grid (n0, n1, n2) and lattice rows (A) of a cube file.

    A non-periodic file repeats the first plane of every axis at its end; those planes are
    dropped so that the returned grid is periodic in both cases.
    """
    with open(path, "r") as f:
        lines = f.read().splitlines()
    natoms = abs(int(lines[2].split()[0]))
    counts, voxel = [], []
    for k in range(3):
        parts = lines[3 + k].split()
        counts.append(int(parts[0]))
        voxel.append([float(v) / BOHR_PER_ANGSTROM for v in parts[1:4]])
    start = 6 + natoms
    values = np.array(" ".join(lines[start:]).split(), dtype=float)
    total = counts[0] * counts[1] * counts[2]
    if values.size < total:
        raise ValueError(f"{path}: {values.size} values for a {counts} grid")
    en = values[:total].reshape(counts)
    if not periodic:
        en = en[:-1, :-1, :-1]
    n = en.shape
    lattice = np.array(voxel) * np.array(n)[:, None]
    return en, lattice


def _half_stencil(connectivity):
    """One direction of every neighbour pair: 13 for 26-connectivity, 3 for 6."""
    out = []
    for d in np.ndindex(3, 3, 3):
        v = tuple(x - 1 for x in d)
        if v <= (0, 0, 0):
            continue
        if connectivity == 6 and sum(abs(x) for x in v) != 1:
            continue
        out.append(v)
    return out


def _rank(vectors):
    if not vectors:
        return 0
    return int(np.linalg.matrix_rank(np.array(vectors, dtype=float)))


def percolation_rank(en, level, connectivity=26):
    """Largest percolation dimension (0..3) of the connected parts of {E <= level}."""
    mask = en <= level
    if not mask.any():
        return 0
    structure = ndimage.generate_binary_structure(3, 3 if connectivity == 26 else 1)
    labels, count = ndimage.label(mask, structure=structure)
    n = np.array(en.shape)
    parent = list(range(count + 1))
    offset = [np.zeros(3, dtype=np.int64) for _ in range(count + 1)]
    wraps = [[] for _ in range(count + 1)]

    def find(x):
        path = []
        while parent[x] != x:
            path.append(x)
            x = parent[x]
        root = x
        # compress, accumulating offsets from the top of the path down
        acc = np.zeros(3, dtype=np.int64)
        for y in reversed(path):
            acc = acc + offset[y]
            offset[y] = acc.copy()
            parent[y] = root
        return root

    idx = np.indices(en.shape)
    for d in _half_stencil(connectivity):
        # points whose neighbour p + d lies outside the cell on some axis
        target = [idx[a] + d[a] for a in range(3)]
        cross = np.zeros(en.shape, dtype=bool)
        for a in range(3):
            cross |= (target[a] < 0) | (target[a] >= n[a])
        sel = cross & mask
        if not sel.any():
            continue
        p = np.nonzero(sel)
        q = tuple(np.mod(target[a][p], n[a]) for a in range(3))
        ok = mask[q]
        p = tuple(x[ok] for x in p)
        q = tuple(x[ok] for x in q)
        w = np.stack([np.floor_divide(target[a][p], n[a]) for a in range(3)], axis=1)
        l1 = labels[p]
        l2 = labels[q]
        triples = np.unique(np.column_stack([l1, l2, w]), axis=0)
        for row in triples:
            a_, b_ = int(row[0]), int(row[1])
            w_ = row[2:5].astype(np.int64)
            ra = find(a_)
            oa = offset[a_] if a_ != ra else np.zeros(3, dtype=np.int64)
            rb = find(b_)
            ob = offset[b_] if b_ != rb else np.zeros(3, dtype=np.int64)
            # copy of b in cell (oa + w) of a's root frame; b's root sits at oa + w - ob
            rel = oa + w_ - ob
            if ra == rb:
                if rel.any() and _rank(wraps[ra] + [list(rel)]) > _rank(wraps[ra]):
                    wraps[ra].append(list(rel))
            else:
                parent[rb] = ra
                offset[rb] = rel
                for v in wraps[rb]:
                    if _rank(wraps[ra] + [v]) > _rank(wraps[ra]):
                        wraps[ra].append(v)
                wraps[rb] = []
    best = 0
    for r in range(1, count + 1):
        if parent[r] == r:
            best = max(best, _rank(wraps[r]))
    return best


def percolation_levels(en, connectivity=26):
    """Lowest absolute levels at which {E <= level} percolates in 1, 2 and 3 dimensions.

    Returns {1: L1, 2: L2, 3: L3}; a dimension that never percolates (a grid thinner than
    the stencil) maps to None.
    """
    levels = np.unique(en)
    out = {}
    lo_start = 0
    for dim in (1, 2, 3):
        if percolation_rank(en, levels[-1], connectivity) < dim:
            out[dim] = None
            continue
        lo, hi = lo_start, len(levels) - 1
        while lo < hi:
            mid = (lo + hi) // 2
            if percolation_rank(en, levels[mid], connectivity) >= dim:
                hi = mid
            else:
                lo = mid + 1
        out[dim] = float(levels[lo])
        lo_start = lo
    return out


def main(argv):
    args = [a for a in argv[1:] if not a.startswith("--")]
    if len(args) != 1:
        sys.stderr.write(
            "usage: cube_percolation.py file.cube [--non-periodic] [--six]\n"
            "prints the 1D, 2D and 3D percolation barriers (eV, relative to the global "
            "minimum)\n"
        )
        return 2
    periodic = "--non-periodic" not in argv
    connectivity = 6 if "--six" in argv else 26
    en, _ = read_cube(args[0], periodic)
    e0 = float(en.min())
    levels = percolation_levels(en, connectivity)
    print(f"minimum {e0:.6f} eV")
    for dim in (1, 2, 3):
        lv = levels[dim]
        if lv is None:
            print(f"{dim}D none")
        else:
            print(f"{dim}D {lv - e0:.6f} eV (level {lv:.6f} eV)")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
