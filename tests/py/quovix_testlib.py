"""Pieces shared by the script tests: paths of the tree and of the program under test, a
reader for the atom sites of a P1 CIF with the program's lattice convention, and the values
of a cube file the program wrote. Imported by the tests beside it (not a test itself)."""
import math
import os

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXE = os.environ.get("QUOVIX_EXE", os.path.join(ROOT, "build", "quovix.x"))
EXAMPLE_CIF = os.path.join(ROOT, "examples", "LiFePO4.cif")
DEG = 0.0174532925  # the program's degree factor


def data_words(path):
    """Words of each non-blank line between the DATA_START and DATA_END lines of a data file."""
    started = False
    for line in open(path, encoding="latin-1"):
        if not started:
            started = "DATA_START" in line
            continue
        if "DATA_END" in line:
            break
        if line.split():
            yield line.split()


def read_cif_sites(path):
    """Cell lengths (a, b, c), lattice rows (program convention: a along x, b in the xy plane)
    and the rows of the atom-site loop of a P1 CIF, each a dict from column name to word."""
    par, rows, cols, in_loop = {}, [], [], False
    for line in open(path):
        w = line.split()
        if not w or w[0].startswith("#"):
            continue
        if w[0].startswith("_cell_"):
            par[w[0]] = float(w[1])
        if w[0] == "loop_":
            cols, in_loop = [], True
            continue
        if in_loop and w[0].startswith("_"):
            cols.append(w[0])
            continue
        if in_loop and "_atom_site_fract_x" in cols and len(w) == len(cols):
            rows.append(dict(zip(cols, w)))
    a, b, c = (par["_cell_length_" + k] for k in "abc")
    al, be, ga = (par["_cell_angle_" + k] * DEG for k in ("alpha", "beta", "gamma"))
    a1 = [b * math.cos(ga), b * math.sin(ga), 0.0]
    a2x = c * math.cos(be)
    a2y = (b * c * math.cos(al) - a2x * a1[0]) / a1[1]
    lat = np.array([[a, 0.0, 0.0], a1, [a2x, a2y, math.sqrt(c * c - a2x * a2x - a2y * a2y)]])
    return (a, b, c), lat, rows


def element(type_symbol):
    """Element of a CIF type symbol ("Fe2+" gives "Fe")."""
    return type_symbol.rstrip("+-0123456789")


def fractional(row):
    """Fractional position of an atom-site row."""
    return [float(row["_atom_site_fract_" + c]) for c in "xyz"]


def cube_lines(path):
    """Lines of a cube file written by the program (CRLF line ends)."""
    return open(path, "rb").read().split(b"\r\n")


def cube_values(lines, natom):
    """The grid values of a cube file, in file order, after its header of 6 + natom lines."""
    return np.array([float(x) for x in lines[6 + natom:] if x.strip()])
