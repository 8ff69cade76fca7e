#!/usr/bin/python3
"""Independent checks of the path map and the Fourier derivatives on real landscapes.

Cubes are made with --gen-cube from real structures (small grids). With numpy only, sharing no
code with the program:
- the minima of the --fp-map marker CIF (atoms "MIN") are exactly the grid points with no
  strictly lower neighbour among their 26 (periodic wrap-around);
- the minima listed by --fft are the same points, and their curvature eigenvalues (eV/A^2) equal
  those of a numpy spectral Hessian (complex FFT of the whole grid; at the Nyquist frequency of
  an even axis the first derivative is zero and the pure second derivative is kept), converted
  to Cartesian coordinates with the inverse of the voxel matrix.
"""
import os
import subprocess
import sys
import tempfile

import numpy as np

sys.dont_write_bytecode = True
from quovix_testlib import EXE, ROOT, cube_lines

BOHR = 1.889725989
CASES = [("examples/LiFePO4.cif", "Li", "1", "0.25"),
         ("tests/data/Li6PS5Cl_argyrodite.cif", "Li", "1", "0.45"),
         ("tests/data/Na3PS4_cubic_2x2x2_P1.cif", "Na", "1", "0.5")]


def read_cube(path):
    lines = cube_lines(path)
    natom = int(lines[2].split()[0])
    n = [int(lines[3 + k].split()[0]) for k in range(3)]
    a_i = np.array([[float(x) / BOHR for x in lines[3 + k].split()[1:4]] for k in range(3)])
    vals = np.array([float(x) for x in lines[6 + natom:] if x.strip()])
    return vals.reshape(n), a_i


def grid_minima(v):
    ok = np.ones(v.shape, bool)
    for d in np.ndindex(3, 3, 3):
        s = tuple(x - 1 for x in d)
        if s != (0, 0, 0):
            ok &= ~(np.roll(v, [-x for x in s], axis=(0, 1, 2)) < v)
    return {tuple(int(c) for c in p) for p in np.argwhere(ok)}


def marker_minima(cif, n):
    out = set()
    for line in open(cif):
        w = line.split()
        if len(w) == 6 and w[0] == "MIN":
            f = [float(x) for x in w[2:5]]
            out.add(tuple(int(round(f[k] * n[k])) % n[k] for k in range(3)))
    return out


def spectral_hessian(v, a_i):
    n = v.shape
    spec = np.fft.fftn(v)
    w, wd = [], []
    for k in range(3):
        m = np.fft.fftfreq(n[k]) * n[k]  # signed frequency; -n/2 at the Nyquist index
        wk = 2 * np.pi * m / n[k]
        nyq = (n[k] % 2 == 0) & (np.abs(m) == n[k] // 2)
        shape = [1, 1, 1]
        shape[k] = n[k]
        w.append(wk.reshape(shape))
        wd.append(np.where(nyq, 0.0, wk).reshape(shape))
    d = {}
    for k in range(3):
        for l in range(k, 3):
            mult = -(w[k] ** 2) if k == l else -(wd[k] * wd[l])
            d[k, l] = d[l, k] = np.real(np.fft.ifftn(spec * mult))
    b = np.linalg.inv(a_i)  # d/dr_j = sum_k b[j][k] d/ds_k
    return d, b


def main():
    failures = []
    with tempfile.TemporaryDirectory() as tmp:
        for cif, ion, os_, res in CASES:
            name = os.path.basename(cif)
            src = os.path.join(tmp, name)
            open(src, "wb").write(open(os.path.join(ROOT, cif), "rb").read())
            cube = src[:-4] + ".cube"
            subprocess.run([EXE, "--gen-cube", src, ion, os_, "0", res], cwd=tmp, check=True,
                           capture_output=True)
            subprocess.run([EXE, "--fp-map", cube], cwd=tmp, check=True, capture_output=True)
            subprocess.run([EXE, "--fft", cube], cwd=tmp, check=True, capture_output=True)
            v, a_i = read_cube(cube)
            want = grid_minima(v)
            got = marker_minima(cube + ".fp.cif", v.shape)
            if want != got or not want:
                failures.append("%s: minima %s vs %s" % (name, sorted(got), sorted(want)))
            d, b = spectral_hessian(v, a_i)
            rows = [r.split(",") for r in open(cube + ".fft.csv").read().splitlines()[1:]]
            fft_min = {(int(r[2]), int(r[3]), int(r[4])) for r in rows if r[1] == "minimum"}
            if fft_min != want:
                failures.append("%s: --fft minima differ" % name)
            worst = 0.0
            for r in rows:
                p = (int(r[2]), int(r[3]), int(r[4]))
                hs = np.array([[d[k, l][p] for l in range(3)] for k in range(3)])
                h = b @ hs @ b.T
                eig = np.linalg.eigvalsh(h)
                got_eig = np.array([float(x) for x in r[13:16]])
                # the table has six decimals
                worst = max(worst, float(np.max(np.abs(eig - got_eig) / (1 + 1e-6 * np.abs(eig)))))
            if worst > 1e-6:
                failures.append("%s: eigenvalues differ by %g eV/A^2" % (name, worst))
            print("%s: grid %s, %d minima, %d critical points, largest eigenvalue difference %.2g eV/A^2"
                  % (name, v.shape, len(want), len(rows), worst))
    if failures:
        print("\n".join(failures))
        sys.exit(1)


if __name__ == "__main__":
    main()
