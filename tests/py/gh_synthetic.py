"""Synthetic landscapes with exact percolation barriers for the migration-graph tests: cube
files of sums of cosines on a given cell, with a matching P1 CIF (antifluorite-like: the mobile
Li+ on the minima, O2- on a face-centred lattice). Imported by the tests beside it."""
import math
import os
import re
import subprocess

import numpy as np

from quovix_testlib import DEG, EXE

BOHR = 1.889725989


def lattice(par):
    """Rows of the lattice (a along x, b in the xy plane), as the program builds them."""
    a, b, c, al, be, ga = par
    al, be, ga = al * DEG, be * DEG, ga * DEG
    a1 = [b * math.cos(ga), b * math.sin(ga), 0.0]
    a2x = c * math.cos(be)
    a2y = (b * c * math.cos(al) - a2x * a1[0]) / a1[1]
    return np.array([[a, 0.0, 0.0], a1, [a2x, a2y, math.sqrt(c * c - a2x * a2x - a2y * a2y)]])


def grid_fractions(n):
    f = [np.arange(m) / m for m in n]
    return np.meshgrid(*f, indexing="ij")


def write_cube(path, en, lat):
    n = en.shape
    with open(path, "w", newline="") as f:
        f.write("noname\r\n\r\n")
        f.write("%4d %11.6f %11.6f %11.6f\r\n" % (0, 0.0, 0.0, 0.0))
        for k in range(3):
            v = lat[k] / n[k] * BOHR
            f.write("%4d %11.6f %11.6f %11.6f\r\n" % (n[k], v[0], v[1], v[2]))
        for x in en.ravel():
            f.write(" %12.6f\r\n" % x)


def write_cif(path, par, li_sites, o_sites):
    lines = ["data_synthetic", ""]
    for key, v in zip(("length_a", "length_b", "length_c", "angle_alpha", "angle_beta",
                       "angle_gamma"), par):
        lines.append("_cell_%s %.6f" % (key, v))
    lines += ["_symmetry_space_group_name_H-M 'P 1'", "_symmetry_Int_Tables_number 1", "",
              "loop_", "_symmetry_equiv_pos_as_xyz", "  'x,y,z'", "",
              "loop_", "_atom_type_symbol", "_atom_type_oxidation_number",
              "  Li1+ 1.000", "  O2- -2.000", "",
              "loop_", "_atom_site_label", "_atom_site_type_symbol", "_atom_site_fract_x",
              "_atom_site_fract_y", "_atom_site_fract_z", "_atom_site_occupancy"]
    for i, s in enumerate(li_sites):
        lines.append("  Li%d Li1+ %.6f %.6f %.6f 1.0" % (i + 1, *s))
    for i, s in enumerate(o_sites):
        lines.append("  O%d O2- %.6f %.6f %.6f 1.0" % (i + 1, *s))
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def cosine_case(directory, name, par, n, amp, extra=None, period=2):
    """E = sum_k amp[k] cos(2 pi period f_k) (+ extra(F)); the Li sites sit on the minima.
    Returns (cif path, cube path, energies)."""
    F = grid_fractions(n)
    en = sum(amp[k] * np.cos(2 * math.pi * period * F[k]) for k in range(3))
    if extra is not None:
        en = en + extra(F)
    lat = lattice(par)
    cube = os.path.join(directory, name + ".cube")
    cif = os.path.join(directory, name + ".cif")
    write_cube(cube, en, lat)
    if period == 2:
        pos = (0.25, 0.75)
        li = [(x, y, z) for x in pos for y in pos for z in pos]
        o = [(0, 0, 0), (0, 0.5, 0.5), (0.5, 0, 0.5), (0.5, 0.5, 0)]
    else:
        li, o = [(0.5, 0.5, 0.5)], [(0.0, 0.0, 0.0)]
    write_cif(cif, par, li, o)
    return cif, cube, en


NETWORK = re.compile(r"QUOVIX_GRAPH_NETWORK: e_(1D|2D|3D|loop) = +(-?[0-9.]+) \(")


def run_gh(cif, cube, ion="Li", os_=1, cwd=None):
    """Barriers printed by --gh: dict '1D', '2D', '3D', 'loop' -> float; and the process."""
    p = subprocess.run([EXE, "--gh", cif, cube, ion, str(os_)], capture_output=True, text=True,
                       cwd=cwd)
    return {k: float(v) for k, v in NETWORK.findall(p.stdout)}, p
