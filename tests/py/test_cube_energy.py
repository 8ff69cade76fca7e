#!/usr/bin/python3
"""Independent evaluation of the landscape energy at grid points of a real structure.

Everything here is computed from the data files and the CIF with the published formulas,
without the program's code: species parameters (unitary and pair files), effective b, Morse
constants and shifts, fractional charges, inner pseudopotentials, and the site energy of the
mobile ion, 14.39964 * (sum over bonded contacts + sum over like-charged contacts), capped at
999.9. The program's cube values (six decimals) must agree at sampled points and at the
lowest and highest point of the grid. The screening factor is given (0.9) so that no fit is
involved. Structure: the bundled LiFePO4 example (P1, Li+ Fe2+ P5+ O2-), mobile Li+.
"""
import math
import os
import shutil
import subprocess
import sys
import tempfile

import numpy as np

sys.dont_write_bytecode = True  # importing the shared module leaves no cache in tests/
from quovix_testlib import EXAMPLE_CIF as CIF, EXE, ROOT, cube_lines, cube_values, \
    data_words, element, fractional, read_cif_sites

UNITARY = os.path.join(ROOT, "data", "database_unitary.dat")
BINARY = os.path.join(ROOT, "data", "database_binary.dat")
SF = 0.9
RESOLUTION = "0.4"


def unitary(sym, os_):
    for w in data_words(UNITARY):
        if w[1] == sym and int(w[2]) == os_:
            return dict(an=int(w[0]), m=float(w[4]), n=int(w[5]), g=int(w[6]), b=int(w[7]),
                        rc=float(w[8]), soft=float(w[9]))
    raise SystemExit("no unitary line for %s%d" % (sym, os_))


def pair(s1, o1, s2, o2):
    for w in data_words(BINARY):
        if w[0] == s1 and int(w[1]) == o1 and w[2] == s2 and int(w[3]) == o2:
            return dict(r0=float(w[4]), b=float(w[5]), cn=float(w[6]), cutoff=float(w[7]))
    return None


def read_cif(path):
    """Lattice rows, cell lengths and (element, os, fractional position in [0, 1), occupancy)
    of the atoms of a P1 CIF whose type symbols carry the oxidation states."""
    lengths, lat, rows = read_cif_sites(path)
    atoms = []
    for rec in rows:
        t = rec["_atom_site_type_symbol"]
        sym = element(t)
        num = t[len(sym):]
        os_ = int(num[:-1]) * (-1 if num.endswith("-") else 1)
        f = [x - math.floor(x) for x in fractional(rec)]
        atoms.append((sym, os_, f, float(rec["_atom_site_occupancy"])))
    return lat, lengths, atoms


def morse(x, d0, rmin, b):
    e = math.exp((rmin - x) / b)
    return 0.5 * d0 * ((e - 1.0) ** 2 - 1.0)


def morse_force(x, d0, rmin, b):
    e = math.exp((rmin - x) / b)
    return -d0 * (e - 1.0) * e / b


def coulomb(x, q, reff):
    if x == 0.0:  # as in IEEE arithmetic: erfc(0) / 0 is +inf for a repulsive pair
        return math.copysign(math.inf, q)
    return q * math.erfc(x / reff) / x - q * math.erfc(10.0 / reff) / 10.0


def coulomb_force(x, q, reff):
    t = x / reff
    return -q * math.erfc(t) / x ** 2 - 2.0 * q * math.exp(-t * t) / (math.sqrt(math.pi) * reff * x)


def inner(energy, force):
    """Radius where the shifted energy reaches 1 and the quadratic a2 x^2 + a0 matching it."""
    x = 10.0
    while energy(x) < 1.0:
        x -= 1.0
    h = 1.0
    while h > 1e-6:
        x = x - h if energy(x) <= 1.0 else x + h
        h /= 2.0
    a2 = force(x) / (2.0 * x)
    return x, energy(x) - x * x * a2, a2


def build(atoms):
    species = sorted({(s, o) for s, o, _, _ in atoms})
    uni = {sp: unitary(*sp) for sp in species}
    for sp, u in uni.items():
        u["c"] = 1 if u["b"] in (0, 1) else 2 if u["b"] in (2, 3) else 0
        n = u["n"]
        neff = (1 if sp[0] in ("Li", "B", "Be") else n) if n < 5 else 4
        u["neff"] = neff
    splus = sum(o / math.sqrt(uni[(s, o)]["neff"]) * occ for s, o, _, occ in atoms if o > 0)
    sminus = sum(o / math.sqrt(uni[(s, o)]["neff"]) * occ for s, o, _, occ in atoms if o < 0)
    for (s, o), u in uni.items():
        ratio = -sminus / splus if o > 0 else -splus / sminus
        u["q"] = o / math.sqrt(u["neff"]) * math.sqrt(ratio)
    for sp in species:  # cap, species by species
        q = uni[sp]["q"]
        if abs(q) > abs(sp[1]):
            scale = sp[1] / q
            for u in uni.values():
                u["q"] *= scale
    # Pairs cation-anion: file values, effective b, Morse constants, shifts, inner quadratic.
    anions = [(s, o, occ) for s, o, _, occ in atoms if o < 0]
    pairs = {}
    for ci in species:
        for aj in species:
            if ci[1] <= 0 or aj[1] >= 0:
                continue
            p = pair(ci[0], ci[1], aj[0], aj[1])
            if p is None:
                raise SystemExit("missing pair %s %s" % (ci, aj))
            bbar = sum(occ * pair(ci[0], ci[1], s, o)["b"] for s, o, occ in anions) / \
                sum(occ for _, _, occ in anions)
            b = 0.6666666666666666 * bbar + (1 - 0.6666666666666666) * p["b"]
            ui, uj = uni[ci], uni[aj]
            rmin = (0.9185 + 0.2285 * abs(uj["soft"] - ui["soft"])) * p["r0"] - \
                b * math.log(ci[1] / p["cn"])
            c = float(ui["c"])
            d0 = b * b / 2.0 * c * (abs(ci[1] * aj[1]) * c) ** (1.0 / c) / \
                (math.sqrt(ui["n"] * uj["n"]) * rmin)
            en_s = morse(p["cutoff"], d0, rmin, b)
            r_bc, a0, a2 = inner(lambda x: morse(x, d0, rmin, b) - en_s,
                                 lambda x: morse_force(x, d0, rmin, b))
            pairs[(ci, aj)] = dict(cutoff=p["cutoff"], b=b, rmin=rmin, d0=d0, en_s=en_s,
                                   r_in=r_bc, a0=a0, a2=a2)
    return species, uni, pairs


def landscape_function(lat, lengths, atoms, mobile, sf, ignore_mobile=True):
    """energy(r): the mobile ion's energy (eV) at Cartesian r, from the atoms of the cell."""
    species, uni, pairs = build(atoms)
    um = uni[mobile]
    terms = []  # (position, occ, kind, constants)
    for s, o, f, occ in atoms:
        if ignore_mobile and (s, o) == mobile:
            continue
        x = np.dot(f, lat)
        if o * mobile[1] < 0:
            p = pairs[(mobile, (s, o))] if mobile[1] > 0 else pairs[((s, o), mobile)]
            terms.append((x, occ, "bond", p))
        else:
            q = um["q"] * uni[(s, o)]["q"]
            reff = sf * (um["rc"] + uni[(s, o)]["rc"])
            r_cc, a0, a2 = inner(lambda y: coulomb(y, q, reff),
                                 lambda y: coulomb_force(y, q, reff))
            terms.append((x, occ, "coul", dict(cutoff=10.0, q=q, reff=reff, r_in=r_cc, a0=a0,
                                               a2=a2)))
    rng = max([10.0] + [p["cutoff"] for p in pairs.values()])
    m = [int(rng / L + 2) for L in lengths]
    shifts = np.array([[i, j, k] for i in range(-m[0], m[0] + 1) for j in range(-m[1], m[1] + 1)
                       for k in range(-m[2], m[2] + 1)], dtype=float)
    images = np.dot(shifts, lat)

    def energy(r):
        eb = ec = 0.0
        for x, occ, kind, p in terms:
            for d in np.linalg.norm(x + images - r, axis=1):
                if d > p["cutoff"]:
                    continue
                if kind == "bond":
                    v = p["a2"] * d * d + p["a0"] if d <= p["r_in"] else \
                        morse(d, p["d0"], p["rmin"], p["b"]) - p["en_s"]
                    eb += occ * v
                else:
                    v = p["a2"] * d * d + p["a0"] if d <= p["r_in"] else coulomb(d, p["q"], p["reff"])
                    ec += occ * v
        return min(14.39964 * (eb + ec), 999.9)
    return energy


def main():
    lat, lengths, atoms = read_cif(CIF)
    energy = landscape_function(lat, lengths, atoms, ("Li", 1), SF)

    work = tempfile.mkdtemp(prefix="quovix_energy_")
    try:
        shutil.copy(CIF, work)
        res = subprocess.run([EXE, "--gen-cube", "LiFePO4.cif", "Li", "1", str(SF), RESOLUTION],
                             cwd=work, capture_output=True, text=True)
        if res.returncode != 0 or res.stderr:
            print("FAIL: --gen-cube:", res.stderr)
            return 1
        lines = cube_lines(os.path.join(work, "LiFePO4.cube"))
        n = [int(lines[k].split()[0]) for k in (3, 4, 5)]
        natom = int(lines[2].split()[0])
        vals = cube_values(lines, natom).reshape(n)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    voxel = lat / np.array(n, dtype=float)[:, None]
    picks = [(0, 0, 0), tuple(np.unravel_index(np.argmin(vals), vals.shape)),
             tuple(np.unravel_index(np.argmax(vals), vals.shape))]
    state = 7
    for _ in range(25):  # a fixed pseudo-random sample of points
        state = (1103515245 * state + 12345) % 2 ** 31
        picks.append(tuple(int(state // 7 ** k) % n[k] for k in range(3)))
    worst = 0.0
    for i, j, k in picks:
        r = i * voxel[0] + j * voxel[1] + k * voxel[2]
        want = energy(r)
        got = vals[i, j, k]
        worst = max(worst, abs(want - got))
        if abs(want - got) > 1.5e-6:
            print("FAIL: point (%d, %d, %d): program %.6f, independent %.9f" % (i, j, k, got, want))
            return 1
    print("grid %s, %d points agree within %.2e eV (min %.6f, max %.6f)" %
          (n, len(picks), worst, vals.min(), vals.max()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
