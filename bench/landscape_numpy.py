#!/usr/bin/python3
"""The landscape of a mobile ion written the way a careful numpy user would: the whole
`--gen-cube` for a P1 structure (read the CIF, build the parameters from the data files, compute
the grid, write the cube file), used to time the program against it.

Parameters come from the independent derivation of tests/py/test_cube_energy.py (effective b,
Morse constants and shifts, fractional charges, inner pseudopotentials). The grid is computed
in blocks of 8 x 8 x 8 points, each against the lattice images that can reach it, as distance
matrices with numpy's exp and scipy's erfc; only P1 cells (no symmetry filling).

    landscape_numpy.py input.cif Li 1 sf resolution output.cube [Na=1,P=5,S=-2]

The optional last argument gives oxidation states for type symbols that carry none.
"""
import math
import os
import sys

import numpy as np
from scipy.special import erfc

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "py"))
sys.dont_write_bytecode = True
import test_cube_energy as ref  # noqa: E402  (parameter derivation, independent of the C++)
from quovix_testlib import element, fractional, read_cif_sites  # noqa: E402

BOHR = 1.889725989
COULOMB = 14.39964
CAP = 999.9


def read_atoms(path, states):
    lengths, lat, rows = read_cif_sites(path)
    atoms = []
    for rec in rows:
        t = rec["_atom_site_type_symbol"]
        sym = element(t)
        num = t[len(sym):]
        if num:
            os_ = int(num[:-1] or "1") * (-1 if num.endswith("-") else 1)
        else:
            os_ = states[sym]
        f = [x - math.floor(x) for x in fractional(rec)]
        atoms.append((sym, os_, f, float(rec.get("_atom_site_occupancy", "1"))))
    return lat, lengths, atoms


def grid_counts(lengths, res):
    n = [int(math.ceil(L / res / 24.0)) * 24 for L in lengths]
    while n[0] * n[1] * n[2] > 7529536:
        if n[0] < n[1]:
            k = 2 if n[1] < n[2] else 1
        else:
            k = 2 if n[0] < n[2] else 0
        n[k] -= 24
    return n


def sources(lat, lengths, atoms, mobile, sf):
    """Per kind, arrays of image positions and their constants (images that can come within
    range of the cell only)."""
    species, uni, pairs = ref.build(atoms)
    um = uni[mobile]
    rng = max([10.0] + [p["cutoff"] for p in pairs.values()])
    m = [int(rng / L + 2) for L in lengths]
    shifts = np.array([[i, j, k] for i in range(-m[0], m[0] + 1) for j in range(-m[1], m[1] + 1)
                       for k in range(-m[2], m[2] + 1)], dtype=float)
    inv = np.linalg.inv(lat)
    h = 1.0 / np.linalg.norm(inv, axis=0)  # spacings of the lattice planes
    coul_cache = {}
    out = {"bond": [], "coul": []}
    for s, o, f, occ in atoms:
        if (s, o) == mobile:
            continue
        if o * mobile[1] < 0:
            p = pairs[(mobile, (s, o))] if mobile[1] > 0 else pairs[((s, o), mobile)]
            kind, const = "bond", (p["cutoff"], p["r_in"], p["a2"], p["a0"], p["d0"], p["rmin"],
                                   p["b"], p["en_s"])
        else:
            key = (s, o)
            if key not in coul_cache:
                q = um["q"] * uni[key]["q"]
                reff = sf * (um["rc"] + uni[key]["rc"])
                r_cc, a0, a2 = ref.inner(lambda y: ref.coulomb(y, q, reff),
                                         lambda y: ref.coulomb_force(y, q, reff))
                shift = q * math.erfc(10.0 / reff) / 10.0
                coul_cache[key] = (10.0, r_cc, a2, a0, q, reff, shift)
            kind, const = "coul", coul_cache[key]
        pos = np.dot(f, lat) + shifts @ lat
        frac = pos @ inv
        slack = const[0] / h + 1e-6
        keep = np.all((frac >= -slack) & (frac <= 1.0 + slack), axis=1)
        for x in pos[keep]:
            out[kind].append((x, occ) + const)
    return {k: np.array([np.concatenate([v[0], v[1:]]) for v in rows]) if rows else
            np.zeros((0, 2)) for k, rows in out.items()}


def near(src, center, reach):
    """The sources of each kind within `reach` (plus their own range) of `center`."""
    out = {}
    for kind, rows in src.items():
        if len(rows):
            keep = np.linalg.norm(rows[:, :3] - center, axis=1) <= reach + rows[:, 4] + 1e-6
            out[kind] = rows[keep]
        else:
            out[kind] = rows
    return out


def energies(points, src):
    """Energies (eV, capped) of an array of points."""
    eb = np.zeros(len(points))
    ec = np.zeros(len(points))
    b = src["bond"]
    if len(b):
        d = np.linalg.norm(points[:, None, :] - b[None, :, :3], axis=2)
        occ, cut, rin, a2, a0, d0, rmin, bb, ens = (b[:, k] for k in range(3, 12))
        e = np.exp((rmin - d) / bb)
        v = np.where(d <= rin, a2 * d * d + a0, 0.5 * d0 * ((e - 1.0) ** 2 - 1.0) - ens)
        eb = np.where(d <= cut, occ * v, 0.0).sum(axis=1)
    c = src["coul"]
    if len(c):
        d = np.linalg.norm(points[:, None, :] - c[None, :, :3], axis=2)
        occ, cut, rin, a2, a0, q, reff, shift = (c[:, k] for k in range(3, 11))
        with np.errstate(divide="ignore", invalid="ignore"):
            v = np.where(d <= rin, a2 * d * d + a0, q * erfc(d / reff) / d - shift)
        ec = np.where(d <= cut, occ * v, 0.0).sum(axis=1)
    return np.minimum(COULOMB * (eb + ec), CAP)


def landscape(path, sym, os_, sf, res, states=None):
    """Grid values, block by block: the points of an 8 x 8 x 8 block against the sources
    within the block's radius plus their range (the rest cannot reach it)."""
    lat, lengths, atoms = read_atoms(path, states or {})
    n = grid_counts(lengths, res)
    src = sources(lat, lengths, atoms, (sym, os_), sf)
    voxel = lat / np.array(n, dtype=float)[:, None]
    values = np.empty(n)
    B = 8
    for i0 in range(0, n[0], B):
        for j0 in range(0, n[1], B):
            for k0 in range(0, n[2], B):
                idx = np.stack(np.meshgrid(np.arange(i0, min(i0 + B, n[0])),
                                           np.arange(j0, min(j0 + B, n[1])),
                                           np.arange(k0, min(k0 + B, n[2])), indexing="ij"),
                               axis=-1)
                shape = idx.shape[:3]
                pts = idx.reshape(-1, 3) @ voxel
                center = 0.5 * (pts.min(axis=0) + pts.max(axis=0))
                radius = np.linalg.norm(pts - center, axis=1).max()
                values[i0:i0 + shape[0], j0:j0 + shape[1], k0:k0 + shape[2]] = \
                    energies(pts, near(src, center, radius)).reshape(shape)
    return lat, atoms, n, voxel, values


def write_cube(path, name, lat, atoms, n, voxel, values):
    with open(path, "wb") as out:
        out.write(("%s\r\n\r\n" % name).encode())
        out.write(b"%4d %11.6f %11.6f %11.6f\r\n" % (len(atoms), 0.0, 0.0, 0.0))
        for k in range(3):
            out.write(b"%4d %11.6f %11.6f %11.6f\r\n" % (n[k], *(voxel[k] * BOHR)))
        for s, o, f, occ in atoms:
            x = np.dot(f, lat) * BOHR
            out.write(b"%4d %11.6f %11.6f %11.6f %11.6f\r\n" % (0, float(o), *x))
        np.savetxt(out, values.reshape(-1), fmt=" %12.6f", newline="\r\n")


def main(argv):
    if len(argv) < 7:
        print(__doc__)
        return 1
    states = {}
    if len(argv) > 7:
        for w in argv[7].split(","):
            k, v = w.split("=")
            states[k] = int(v)
    lat, atoms, n, voxel, values = landscape(argv[1], argv[2], int(argv[3]), float(argv[4]),
                                             float(argv[5]), states)
    write_cube(argv[6], os.path.basename(argv[1]), lat, atoms, n, voxel, values)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
