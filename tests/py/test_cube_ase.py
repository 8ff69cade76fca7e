#!/usr/bin/python3
"""Cube files written by --gen-cube open in an independent reader (ASE's cube reader).

Checks, for a periodic and a non-periodic file of the bundled LiFePO4 example: the grid
shape, the voxel vectors (against the CIF lattice divided by the counts), every value
(against the text of the file), the repeated boundary planes of the non-periodic file, and
the atoms of the header (against the CIF positions).
"""
import os
import shutil
import subprocess
import sys
import tempfile

import numpy as np
from ase.io.cube import read_cube_data

sys.dont_write_bytecode = True  # importing the shared module leaves no cache in tests/
from quovix_testlib import EXAMPLE_CIF as CIF, EXE, cube_lines, cube_values, element, \
    fractional, read_cif_sites

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL:", what)


def run(args, cwd):
    res = subprocess.run([EXE] + args, cwd=cwd, capture_output=True, text=True)
    check(res.returncode == 0, "exit status of %s" % args)
    check(res.stderr == "", "empty stderr of %s: %r" % (args, res.stderr))
    return res.stdout


def main():
    _, lat, rows = read_cif_sites(CIF)
    cif_atoms = [(element(r["_atom_site_type_symbol"]), fractional(r)) for r in rows]
    work = tempfile.mkdtemp(prefix="quovix_ase_")
    try:
        shutil.copy(CIF, work)
        # sf 0.9 (no fit), resolution 0.5 A: 24 points per axis for this cell.
        run(["--gen-cube", "LiFePO4.cif", "Li", "1", "0.9", "0.5"], work)
        run(["--gen-cube", "LiFePO4.cif", "Li", "1", "0.9", "0.5", "t", "f", "f",
             "open.cube"], work)
        per, per_atoms = read_cube_data(os.path.join(work, "LiFePO4.cube"))
        opn, opn_atoms = read_cube_data(os.path.join(work, "open.cube"))

        check(per.shape == (24, 24, 24), "periodic shape %s" % (per.shape,))
        check(opn.shape == (25, 25, 25), "non-periodic shape %s" % (opn.shape,))

        # Voxel vectors: ASE gives cell row = count * voxel.
        vox_ase = np.array(per_atoms.cell) / 24.0
        vox_open = np.array(opn_atoms.cell) / 25.0
        check(np.allclose(vox_ase, lat / 24.0, atol=2e-6), "voxel vectors vs CIF lattice / 24")
        check(np.allclose(vox_open, vox_ase, atol=1e-9), "same voxel vectors in both files")

        # Values: ASE's array in file order (first index outermost) equals the file text.
        vals = cube_values(cube_lines(os.path.join(work, "LiFePO4.cube")), len(cif_atoms))
        check(vals.size == 24 ** 3, "value count %d" % vals.size)
        check(np.array_equal(per.ravel(), vals), "ASE values equal the file values")
        # Non-periodic: same grid plus the first plane repeated after the last on each axis.
        check(np.array_equal(opn[:24, :24, :24], per), "non-periodic interior equals periodic")
        check(np.array_equal(opn[24, :, :], opn[0, :, :]), "plane i=24 repeats i=0")
        check(np.array_equal(opn[:, 24, :], opn[:, 0, :]), "plane j=24 repeats j=0")
        check(np.array_equal(opn[:, :, 24], opn[:, :, 0]), "plane k=24 repeats k=0")

        # Atoms of the header: same elements and positions as the CIF (the program keeps
        # fractional coordinates in [0, 1), so positions are compared modulo the lattice).
        check(len(per_atoms) == len(cif_atoms), "atom count %d" % len(per_atoms))
        frac = np.linalg.solve(lat.T, per_atoms.positions.T).T
        symbols = per_atoms.get_chemical_symbols()
        unmatched = 0
        for sym, f in cif_atoms:
            d = frac - np.array(f)
            d -= np.round(d)
            dist = np.linalg.norm(np.dot(d, lat), axis=1)
            if not any(s == sym and x < 2e-5 for s, x in zip(symbols, dist)):
                unmatched += 1
        check(unmatched == 0, "%d CIF atoms without a matching cube atom" % unmatched)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if failures:
        print("%d check(s) failed" % len(failures))
        return 1
    print("all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
