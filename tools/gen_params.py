#!/usr/bin/env python3
"""Write data/database_unitary.dat and data/database_binary.dat from tools/params.

Inputs (tools/params):
  elements.csv          per-element facts: mass, period, group, block, Cordero covalent
                        radius, ionisation energies, electron affinity, Pauling
                        electronegativity, oxidation-state counts (ICSD-2024), the
                        coordination numbers Shannon lists per oxidation state, and the
                        Brese & O'Keeffe element parameters r and c.
  bvparm2020_pairs.csv  the rows of the accumulated table of bond-valence parameters
                        (bvparm2020.cif); its notice is in tools/params/NOTICE.
  oxide_cn.csv          characteristic (weighted mean) coordination numbers of cations in
                        oxides and oxysalts, Hawthorne (2026), Mineralogical Magazine,
                        doi:10.1180/mgm.2026.10215, Appendix 3 (CC BY 4.0).

The rules ("rules v2") are the ones written in the header of each output file and
in the comments below.  The output is a pure function of the two inputs: LF line
ends, fixed order, fixed number formats.

Usage (from anywhere):
  python3 tools/gen_params.py                 rewrite data/*.dat
  python3 tools/gen_params.py --out-dir DIR   write the two files into DIR
  python3 tools/gen_params.py --check         compare with data/*.dat, exit 1 on difference
"""

import argparse
import csv
import math
import os
import sys

RULES_VERSION = "rules v2"
GENERATOR = "tools/gen_params.py"
MAX_Z = 99

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PARAMS_DIR = os.path.join(ROOT, "tools", "params")
DATA_DIR = os.path.join(ROOT, "data")
UNITARY_NAME = "database_unitary.dat"
BINARY_NAME = "database_binary.dat"

# Anions, in the order the binary file lists them for each cation.
ANIONS = (("O", -2), ("S", -2), ("Se", -2), ("Te", -2), ("F", -1), ("Cl", -1),
          ("Br", -1), ("I", -1), ("N", -3), ("P", -3), ("As", -3), ("H", -1), ("C", -4))
ANION_OS = dict(ANIONS)

# Anion radii (A) for the radius ratio: Shannon at CN VI (N3- at IV); P3-, As3-,
# H- and C4- have no Shannon value and take these fixed radii.
ANION_RADIUS = {"O": 1.40, "S": 1.84, "Se": 1.98, "Te": 2.21, "F": 1.33, "Cl": 1.81,
                "Br": 1.96, "I": 2.20, "N": 1.46, "P": 1.927, "As": 2.026, "H": 1.241,
                "C": 1.62}

NOT_CATIONS = frozenset(("He", "Ne", "Ar", "F"))

# Table references whose rows were fitted with a softness-dependent b and a
# stated cut-off (they count more than the first shell).
SOFT_REFS = ("c", "ax", "ay")
# References for organic, metal-organic, transition-metal-complex, spin-state or
# hydrogen-bond regimes: never used for an inorganic pair.
EXCLUDED_REFS = frozenset(
    "bt l j i w h k g ae ab bl bm bn ai bq ba bc az bb am s ah al aa t as".split())

# Closed-shell d10 cations that sit in tetrahedra with soft anions.
D10_CATIONS = frozenset((("Cu", 1), ("Ag", 1), ("Au", 1), ("Zn", 2), ("Cd", 2), ("Hg", 2),
                         ("Ga", 3), ("In", 3), ("Tl", 3), ("Ge", 4), ("Sn", 4)))
D10_TETRAHEDRAL_ANIONS = frozenset(("S", "Se", "Te", "I", "P", "As"))
D10_MONOVALENT = frozenset((("Cu", 1), ("Ag", 1), ("Au", 1)))
D10_MONOVALENT_ANIONS = frozenset(("O", "N"))

# Cations whose radius ratio says 4 with these anions but that are octahedral in
# corundum, spinels, garnets, beryl and the cryolites.
OCTAHEDRAL_OVERRIDES = frozenset((("Al", 3, "O"), ("Al", 3, "F")))

# Radius-ratio limits: the largest CN in this list whose limit rho reaches wins.
RATIO_LIMITS = ((8, 0.732), (6, 0.414), (4, 0.225), (3, 0.155))

# Conversion of a first-shell pair (R0_1, b_1) to one that counts distant neighbours.
B_CONST, B_SOFT, B_N_CAT, B_N_AN = 0.4341, 0.2871, -0.0228, 0.0534
B_MIN, B_MAX = 0.30, 0.80
BOK_B = 0.37
CUTOFF_MIN, CUTOFF_MAX = 4.0, 8.0

# Known typos of the table: (cation, cation_os, anion, anion_os) -> corrected anion_os.
ANION_OS_FIXES = {("Mn", 9, "Se", -1): -2, ("Pr", 3, "Se", -1): -2,
                  ("Rh", 9, "Se", -1): -2, ("Ga", 1, "Se", -1): -2,
                  ("As", 5, "Cl", -2): -1}
# Rows off the Brese & O'Keeffe estimate by more than 0.7 A: (cation, os, anion, R0).
DROPPED_ROWS = frozenset((("Sb", 9, "H", 2.77), ("Pm", 3, "Cl", 2.82), ("Sr", 2, "Te", 2.06)))

# Shannon (Acta Cryst. A32 (1976) 751) effective ionic radii (A) of cations at the
# coordination number closest to VI among those listed (high-spin value where both
# spin states are given; IV rather than square-planar IV), transcribed from the same
# periodic-table data that elements.csv was extracted from.  Format: symbol os:CN:radius.
# The CN must be the listed one closest to VI in elements.csv; the generator checks.
SHANNON_CATIONS = """
H 1:2:-0.18
Li 1:6:0.76
Be 2:6:0.45
B 3:6:0.27
C 4:6:0.16
N 3:6:0.16 5:6:0.13
F 7:6:0.08
Na 1:6:1.02
Mg 2:6:0.72
Al 3:6:0.535
Si 4:6:0.4
P 3:6:0.44 5:6:0.38
S 4:6:0.37 6:6:0.29
Cl 5:3:0.12 7:6:0.27
K 1:6:1.38
Ca 2:6:1
Sc 3:6:0.745
Ti 2:6:0.86 3:6:0.67 4:6:0.605
V 2:6:0.79 3:6:0.64 4:6:0.58 5:6:0.54
Cr 2:6:0.8 3:6:0.615 4:6:0.55 5:6:0.49 6:6:0.44
Mn 2:6:0.83 3:6:0.645 4:6:0.53 5:4:0.33 6:4:0.255 7:6:0.46
Fe 2:6:0.78 3:6:0.645 4:6:0.585 6:4:0.25
Co 2:6:0.745 3:6:0.61 4:6:0.53
Ni 2:6:0.69 3:6:0.6 4:6:0.48
Cu 1:6:0.77 2:6:0.73 3:6:0.54
Zn 2:6:0.74
Ga 3:6:0.62
Ge 2:6:0.73 4:6:0.53
As 3:6:0.58 5:6:0.46
Se 4:6:0.5 6:6:0.42
Br 3:4:0.59 5:3:0.31 7:6:0.39
Rb 1:6:1.52
Sr 2:6:1.18
Y 3:6:0.9
Zr 4:6:0.72
Nb 3:6:0.72 4:6:0.68 5:6:0.64
Mo 3:6:0.69 4:6:0.65 5:6:0.61 6:6:0.59
Tc 4:6:0.645 5:6:0.6 7:6:0.56
Ru 3:6:0.68 4:6:0.62 5:6:0.565 7:4:0.38 8:4:0.36
Rh 3:6:0.665 4:6:0.6 5:6:0.55
Pd 1:2:0.59 2:6:0.86 3:6:0.76 4:6:0.615
Ag 1:6:1.15 2:6:0.94 3:6:0.75
Cd 2:6:0.95
In 3:6:0.8
Sn 4:6:0.69
Sb 3:6:0.76 5:6:0.6
Te 4:6:0.97 6:6:0.56
I 5:6:0.95 7:6:0.53
Xe 8:6:0.48
Cs 1:6:1.67
Ba 2:6:1.35
La 3:6:1.032
Ce 3:6:1.01 4:6:0.87
Pr 3:6:0.99 4:6:0.85
Nd 2:8:1.29 3:6:0.983
Pm 3:6:0.97
Sm 2:7:1.22 3:6:0.958
Eu 2:6:1.17 3:6:0.947
Gd 3:6:0.938
Tb 3:6:0.923 4:6:0.76
Dy 2:6:1.07 3:6:0.912
Ho 3:6:0.901
Er 3:6:0.89
Tm 2:6:1.03 3:6:0.88
Yb 2:6:1.02 3:6:0.868
Lu 3:6:0.861
Hf 4:6:0.71
Ta 3:6:0.72 4:6:0.68 5:6:0.64
W 4:6:0.66 5:6:0.62 6:6:0.6
Re 4:6:0.63 5:6:0.58 6:6:0.55 7:6:0.53
Os 4:6:0.63 5:6:0.575 6:6:0.545 7:6:0.525 8:4:0.39
Ir 3:6:0.68 4:6:0.625 5:6:0.57
Pt 2:6:0.8 4:6:0.625 5:6:0.57
Au 1:6:1.37 3:6:0.85 5:6:0.57
Hg 1:6:1.19 2:6:1.02
Tl 1:6:1.5 3:6:0.885
Pb 2:6:1.19 4:6:0.775
Bi 3:6:1.03 5:6:0.76
Po 4:6:0.94 6:6:0.67
At 7:6:0.62
Fr 1:6:1.8
Ra 2:8:1.48
Ac 3:6:1.12
Th 4:6:0.94
Pa 3:6:1.04 4:6:0.9 5:6:0.78
U 3:6:1.025 4:6:0.89 5:6:0.76 6:6:0.73
Np 2:6:1.1 3:6:1.01 4:6:0.87 5:6:0.75 6:6:0.72 7:6:0.71
Pu 3:6:1 4:6:0.86 5:6:0.74 6:6:0.71
Am 2:7:1.21 3:6:0.975 4:6:0.85
Cm 3:6:0.97 4:6:0.85
Bk 3:6:0.96 4:6:0.83
Cf 3:6:0.95 4:6:0.821
"""

NOTICE = """\
ACCUMULATED TABLE OF BOND VALENCE PARAMETERS, bvparm2020.cif, 2020-11-25
COPYRIGHT NOTICE
This table may be used and distributed without fee for non-profit purposes providing
1) that this copyright notice is included and
2) no fee is charged for the table and
3) details of any changes made in this list by anyone other than the copyright owner are
   suitably noted in the _audit_update record.
Please consult the copyright owner regarding any other uses.
The copyright is owned by I. David Brown, Brockhouse Institute for Materials Research,
McMaster University, Hamilton, Ontario Canada. idbrown@mcmaster.ca
DISCLAIMER: The values reported here are taken from the literature and other sources and the
author does not warrant their correctness nor accept any responsibility for errors. Users are
advised to consult the primary sources. The latest version is available at
http://www.iucr.org/resources/data/datasets/bond-valence-parameters
"""

CHANGES = """\
Changes made to the table's values by this project:
- Only the parameter rows were taken (reference texts left out) and flattened to
  tools/params/bvparm2020_pairs.csv.
- Corrected typos: anion state "Se -1" in the rows Mn 9, Pr 3, Rh 9 and Ga 1 read as Se -2;
  the row "As 5 Cl -2" read as Cl -1.
- Dropped rows (off the Brese & O'Keeffe estimate by more than 0.7 A): Sb 9 H 2.77,
  Pm 3 Cl 2.82, Sr 2 Te 2.06.
- Ignored rows: partners that are not one of the anions used here (C 2, Co -1, Mn -2, N -2),
  rows pairing an element with itself (such as Hg 2 Hg, I 0 I, S 9 S -2), and the
  ammonium (NH) rows.
- Rows of the softness-sensitive references (c, ax, ay) are used as they are; every other
  chosen row (or the Brese & O'Keeffe estimate) is converted to a softness-sensitive pair:
  b = 0.4341 + 0.2871 |sigma_cat - sigma_an| - 0.0228 n_cat + 0.0534 n_an, clamped to
  [0.30, 0.80] and rounded to 0.001; R0 = R0_1 + (b_1 - b) ln(N/V) + b ln(f), f the
  share of the valence the first shell keeps once a continuum of more distant anions
  counts too (rules v2; see the header of database_binary.dat; rules v1 had f = 0.86).
"""


class ParamError(Exception):
    pass


# ---------------------------------------------------------------- inputs

def _counts(text):
    """'0:8;2:18' -> {0: 8, 2: 18}"""
    out = {}
    for part in filter(None, text.split(";")):
        key, value = part.split(":")
        out[int(key)] = int(value)
    return out


def _cn_lists(text):
    """'2:4,6|3:6' -> {2: [4, 6], 3: [6]}"""
    out = {}
    for part in filter(None, text.split("|")):
        key, values = part.split(":")
        out[int(key)] = sorted(int(v) for v in values.split(","))
    return out


def _float_or_none(text):
    return float(text) if text.strip() else None


def read_elements(path):
    elements = []
    with open(path, newline="", encoding="utf-8") as f:
        for row in csv.DictReader(f):
            z = int(row["Z"])
            if z > MAX_Z:
                continue
            el = {
                "Z": z,
                "symbol": row["symbol"],
                "mass": float(row["mass"]),
                "period": int(row["period"]),
                "group": int(row["group"]),
                "block_index": int(row["block_index"]),
                "rc": _float_or_none(row["cov_radius_cordero"]),
                "IE": [_float_or_none(row["IE%d" % i]) for i in range(1, 10)],
                "EA": _float_or_none(row["EA"]),
                "X": _float_or_none(row["pauling_X"]),
                "default_os_column": int(row["default_os"]),
                "icsd24": _counts(row["icsd24_counts"]),
                "shannon_cn": _cn_lists(row["shannon_cn"]),
                "bok_r": _float_or_none(row["bok_r"]),
                "bok_c": _float_or_none(row["bok_c"]),
            }
            if "spdf"[el["block_index"]] != row["block"]:
                raise ParamError("block index of %s does not match its block" % el["symbol"])
            elements.append(el)
    elements.sort(key=lambda e: e["Z"])
    if [e["Z"] for e in elements] != list(range(1, MAX_Z + 1)):
        raise ParamError("elements.csv does not hold every element 1..%d" % MAX_Z)
    return elements


def fill_covalent_radii(elements):
    """An element without a Cordero radius (Bk, Cf, Es and heavier) takes that of the
    nearest lighter element of its block that has one (Cm, 1.69 A), so that no ion has
    rc = 0 and no structure is refused for it."""
    for el in elements:
        if el["rc"] is not None:
            continue
        lighter = [e for e in elements if e["Z"] < el["Z"]
                   and e["block_index"] == el["block_index"] and e["rc"] is not None]
        if not lighter:
            raise ParamError("no covalent radius for %s or a lighter element of its block"
                             % el["symbol"])
        el["rc"] = lighter[-1]["rc"]
        el["rc_from"] = lighter[-1]["symbol"]


def read_oxide_cn(path):
    """(symbol, os) -> characteristic coordination number in oxides."""
    out = {}
    with open(path, newline="", encoding="utf-8") as f:
        for row in csv.DictReader(f):
            key = (row["element"], int(row["oxidation_state"]))
            if key in out:
                raise ParamError("oxide_cn.csv lists %s%d+ twice" % key)
            out[key] = float(row["characteristic_cn"])
    return out


def read_table(path, elements_by_symbol):
    """Rows of the table after the corrections, drops and ignores listed in CHANGES."""
    rows = []
    with open(path, newline="", encoding="utf-8") as f:
        for raw in csv.DictReader(f):
            cat, an = raw["cation"], raw["anion"]
            cat_os, an_os = int(raw["cation_os"]), int(raw["anion_os"])
            r0 = float(raw["R0"])
            an_os = ANION_OS_FIXES.get((cat, cat_os, an, an_os), an_os)
            if (cat, cat_os, an, r0) in DROPPED_ROWS:
                continue
            if cat not in elements_by_symbol or cat == an:
                continue          # NH (ammonium) rows and self pairs
            if ANION_OS.get(an) != an_os or cat_os <= 0:
                continue          # partner is not one of the anions
            rows.append({
                "cation": cat, "os": cat_os, "anion": an, "anion_os": an_os,
                "R0": r0, "b": float(raw["b"]), "ref": raw["ref"],
                "cutoff": _float_or_none(raw["cutoff_A"]),
                "unchecked": raw["unchecked"] == "1",
                "order": int(raw["order_in_file"]),
            })
    rows.sort(key=lambda r: r["order"])
    return rows


def shannon_radii():
    radii = {}
    for line in SHANNON_CATIONS.strip().splitlines():
        symbol, *items = line.split()
        for item in items:
            os_text, cn_text, r_text = item.split(":")
            radii[(symbol, int(os_text))] = (int(cn_text), float(r_text))
    return radii


# ---------------------------------------------------------------- unitary values

def default_os(el):
    """Non-zero state with the largest ICSD-2024 count (elements.csv's own choice if none)."""
    counts = {os_: n for os_, n in el["icsd24"].items() if os_ != 0}
    if not counts:
        return el["default_os_column"]
    return max(sorted(counts), key=lambda os_: counts[os_])


def softness(el, os_):
    """Absolute softness 1/eta (1/eV).  Cation M^z+: eta = (I_(z+1) - I_z)/2; bare nucleus 0.
    Anion: the neutral atom's eta = (I_1 - EA)/2."""
    if os_ < 0:
        ie1, ea = el["IE"][0], el["EA"]
        return 2.0 / (ie1 - ea)
    if os_ == el["Z"]:
        return 0.0
    if os_ + 1 > 9 or el["IE"][os_ - 1] is None or el["IE"][os_] is None:
        raise ParamError("no ionisation energies for %s%d+" % (el["symbol"], os_))
    return 2.0 / (el["IE"][os_] - el["IE"][os_ - 1])


def cation_set(elements, table):
    """(symbol, os) of every cation: the table's states 1-8, the states with Shannon
    radii, and the states with an ICSD-2024 count of at least 10."""
    known = {e["symbol"] for e in elements}
    cations = set()
    for row in table:
        if 1 <= row["os"] <= 8:
            cations.add((row["cation"], row["os"]))
    for el in elements:
        for os_ in el["shannon_cn"]:
            if os_ > 0:
                cations.add((el["symbol"], os_))
        for os_, n in el["icsd24"].items():
            if os_ > 0 and n >= 10:
                cations.add((el["symbol"], os_))
    return {c for c in cations if c[0] in known and c[0] not in NOT_CATIONS}


# ---------------------------------------------------------------- first-shell pair

def bok_r0(r1, c1, r2, c2):
    return r1 + r2 - r1 * r2 * (math.sqrt(c1) - math.sqrt(c2)) ** 2 / (c1 * r1 + c2 * r2)


def bok_parameters(elements, table):
    """Brese & O'Keeffe (r, c) per element.  Elements without them: c = 0.136 + 0.792 X
    and r fitted by least squares to their own table rows, or 0.248 + 0.703 r_cov."""
    params = {}
    for el in elements:
        if el["bok_r"] is not None and el["bok_c"] is not None:
            params[el["symbol"]] = (el["bok_r"], el["bok_c"])
    for el in elements:
        symbol = el["symbol"]
        if symbol in params or el["X"] is None:
            continue
        c = 0.136 + 0.792 * el["X"]
        rows = [(params[r["anion"]], r["R0"]) for r in table
                if r["cation"] == symbol and r["anion"] in params]
        if rows:
            r = _fit_r(c, rows)
        elif el["rc"] is not None:
            r = 0.248 + 0.703 * el["rc"]
        else:
            continue
        params[symbol] = (r, c)
    return params


def _fit_r(c, rows):
    """Golden-section least squares for r in [0.05, 4.0] A (the cost has one minimum)."""
    def cost(r):
        return sum((bok_r0(r, c, r2, c2) - r0) ** 2 for (r2, c2), r0 in rows)
    lo, hi = 0.05, 4.0
    g = (math.sqrt(5.0) - 1.0) / 2.0
    for _ in range(200):
        a, b = hi - g * (hi - lo), lo + g * (hi - lo)
        if cost(a) <= cost(b):
            hi = b
        else:
            lo = a
    return 0.5 * (lo + hi)


def first_shell(cat, os_, an, rows, bok):
    """Best first-shell (R0_1, b_1) for cat^os+ with the anion an.  Rows of the excluded
    references are never used.  A cut-off stated by a first-shell row is not carried over:
    the converted pair reaches further than the row's fit did."""
    pair_rows = [r for r in rows if r["cation"] == cat and r["anion"] == an]
    usable = [r for r in pair_rows if r["ref"] not in EXCLUDED_REFS]
    exact = [r for r in usable if r["os"] == os_ and not r["unchecked"]]
    for ref in ("a", "bs", "b"):
        for r in exact:
            if r["ref"] == ref:
                return r["R0"], r["b"]
    for r in exact:
        if r["ref"] not in SOFT_REFS:
            return r["R0"], r["b"]
    nine = [r for r in usable if r["os"] == 9 and not r["unchecked"]]
    nine.sort(key=lambda r: (r["ref"] != "b", r["order"]))
    if nine:
        return nine[0]["R0"], nine[0]["b"]
    for r in usable:
        if r["os"] == os_ and r["unchecked"]:
            return r["R0"], r["b"]
    if cat not in bok or an not in bok:
        raise ParamError("no Brese & O'Keeffe parameters for %s-%s" % (cat, an))
    (r1, c1), (r2, c2) = bok[cat], bok[an]
    return bok_r0(r1, c1, r2, c2), BOK_B


# ---------------------------------------------------------------- first-shell share

def first_shell_share(r0_1, b_1, os_, cn, b, r_an):
    """Share f of a cation's valence that its N first-shell bonds keep once the anions
    beyond the first shell count too, with no fitted constant.  The distant anions are a
    uniform continuum of close-packed spheres of diameter a = 2 r_an (number density
    sqrt(2)/a^3) that starts at r2 = sqrt(d1^2 + a^2), the distance of an anion touching a
    first-shell anion at a right angle; d1 = R0_1 - b_1 ln(V/N) is the first-shell bond.
    With the bond valence exp((R0 - r)/b) and R0 at d1, the continuum adds per first-shell
    bond I = 4 pi rho b exp(-(r2 - d1)/b) (r2^2 + 2 b r2 + 2 b^2) (the integral of
    r^2 exp(-r/b) from r2 to infinity), so f = N / (N + I) = 1 / (1 + I/N)."""
    d1 = r0_1 - b_1 * math.log(os_ / cn)
    a = 2.0 * r_an
    r2 = math.sqrt(d1 * d1 + a * a)
    rho = math.sqrt(2.0) / a ** 3
    distant = (4.0 * math.pi * rho * b * math.exp(-(r2 - d1) / b)
               * (r2 * r2 + 2.0 * b * r2 + 2.0 * b * b))
    return 1.0 / (1.0 + distant / cn)


# ---------------------------------------------------------------- coordination number

def coordination_number(cat, os_, an, listed_cns, radius_entry, r0_1, b_1):
    if (cat, os_) in D10_CATIONS and an in D10_TETRAHEDRAL_ANIONS:
        return 4
    if (cat, os_) in D10_MONOVALENT and an in D10_MONOVALENT_ANIONS:
        return 4
    if (cat, os_, an) in OCTAHEDRAL_OVERRIDES:
        return 6
    r_an = ANION_RADIUS[an]
    if radius_entry is not None:
        rho = radius_entry[1] / r_an
        allowed = set(listed_cns)
    else:
        bond_cn6 = r0_1 - b_1 * math.log(os_ / 6.0)
        rho = (bond_cn6 - r_an) / r_an
        allowed = {n for n, _ in RATIO_LIMITS}
    for n, limit in RATIO_LIMITS:
        if n in allowed and rho >= limit:
            return n
    return min(allowed)


def closest_to_six(cns):
    return min(cns, key=lambda n: (abs(n - 6), n))


# ---------------------------------------------------------------- build

def ceil_half(x):
    return math.ceil(round(x * 2.0, 9)) / 2.0


def build(params_dir):
    elements = read_elements(os.path.join(params_dir, "elements.csv"))
    by_symbol = {e["symbol"]: e for e in elements}
    table = read_table(os.path.join(params_dir, "bvparm2020_pairs.csv"), by_symbol)
    radii = shannon_radii()
    bok = bok_parameters(elements, table)
    fill_covalent_radii(elements)
    oxide_cn = read_oxide_cn(os.path.join(params_dir, "oxide_cn.csv"))

    cations = cation_set(elements, table)
    for (symbol, os_), (cn, _) in radii.items():
        listed = by_symbol[symbol]["shannon_cn"].get(os_)
        if not listed or closest_to_six(listed) != cn:
            raise ParamError("Shannon entry %s%d+ CN %d does not match elements.csv"
                             % (symbol, os_, cn))
    for symbol, os_ in cations:
        if by_symbol[symbol]["shannon_cn"].get(os_) and (symbol, os_) not in radii:
            raise ParamError("no Shannon radius for %s%d+" % (symbol, os_))

    # Unitary lines: every cation and anion, then one line for each element left without.
    ions = sorted(cations | set(ANIONS), key=lambda s: (by_symbol[s[0]]["Z"], s[1]))
    soft = {ion: softness(by_symbol[ion[0]], ion[1]) for ion in ions}
    unitary = []
    placeholders = []
    for el in elements:
        d_os = default_os(el)
        lines = [(ion[1], soft[ion]) for ion in ions if ion[0] == el["symbol"]]
        if not lines:
            placeholders.append((el["symbol"], d_os))
            lines = [(d_os, 0.0)]
        for os_, sigma in lines:
            unitary.append({
                "Z": el["Z"], "symbol": el["symbol"], "os": os_, "default_os": d_os,
                "mass": el["mass"], "period": el["period"], "group": el["group"],
                "block": el["block_index"], "rc": el["rc"], "soft": sigma,
            })

    # Binary lines: every cation x anion, except where the anion element is less
    # electronegative than the cation element and the table never pairs the two elements.
    tabled_pairs = {(r["cation"], r["anion"]) for r in table}
    binary = []
    for cat, os_ in sorted(cations, key=lambda s: (by_symbol[s[0]]["Z"], s[1])):
        cel = by_symbol[cat]
        if cel["X"] is None:
            raise ParamError("no Pauling electronegativity for cation %s" % cat)
        for an, an_os in ANIONS:
            ael = by_symbol[an]
            if ael["X"] < cel["X"] and (cat, an) not in tabled_pairs:
                continue
            r0_1, b_1 = first_shell(cat, os_, an, table, bok)
            cn = coordination_number(cat, os_, an, cel["shannon_cn"].get(os_, []),
                                     radii.get((cat, os_)), r0_1, b_1)
            soft_rows = [r for r in table if r["cation"] == cat and r["os"] == os_
                         and r["anion"] == an and r["ref"] in SOFT_REFS]
            if soft_rows:
                r0, b, cutoff = soft_rows[0]["R0"], soft_rows[0]["b"], soft_rows[0]["cutoff"]
            else:
                # The rounded b also enters R0, so the file's R0 and b agree exactly.
                b = (B_CONST + B_SOFT * abs(soft[(cat, os_)] - soft[(an, an_os)])
                     + B_N_CAT * cel["period"] + B_N_AN * ael["period"])
                b = round(min(max(b, B_MIN), B_MAX), 3)
                f = first_shell_share(r0_1, b_1, os_, cn, b, ANION_RADIUS[an])
                r0 = r0_1 + (b_1 - b) * math.log(cn / os_) + b * math.log(f)
                cutoff = None
            r0 = round(r0, 4)
            if cutoff is None:
                cutoff = min(max(ceil_half(r0 + 8.0 * b), CUTOFF_MIN), CUTOFF_MAX)
            # The CN column sets where R_min = (...) R0 - b ln(V/CN) puts the mobile ion; for
            # oxides the mean observed coordination is the better reference than the
            # radius-ratio integer (Li+ is tetrahedral in Li2O, octahedral in LiFePO4).
            # The R0 conversion above keeps the integer, so bond-valence sums do not move.
            cn_text = "%d" % cn
            if an == "O" and (cat, os_) in oxide_cn:
                cn_text = "%.2f" % oxide_cn[(cat, os_)]
            binary.append((cat, os_, an, an_os, r0, b, cn_text, cutoff))

    return {"unitary": unitary, "binary": binary, "placeholders": placeholders}


# ---------------------------------------------------------------- output

def _comment(text):
    return "".join("# " + line + "\n" if line else "#\n" for line in text.splitlines())


def unitary_text(result):
    placeholder_list = ", ".join("%s %d" % p for p in result["placeholders"])
    head = """\
Quovix unitary parameter file: one line per ion (element, oxidation state).
Made by %s (%s) from tools/params/elements.csv and tools/params/bvparm2020_pairs.csv.
Regenerate it after changing the inputs; a file of your own in this layout also works.

Columns (white space separated):
 1 Z        atomic number
 2 symbol   element symbol
 3 os       oxidation state (negative for anions)
 4 def_os   the element's default oxidation state, the same on every line of the element:
            the non-zero state with the largest ICSD-2024 count (elements.csv's default_os
            where there is none); the element lookup reads it from the element's first line
 5 mass     atomic mass (amu)
 6 n        period
 7 group    group
 8 block    block index: s 0, p 1, d 2, f 3
 9 rc       covalent radius, Cordero et al. (2008), A; an element without one (Bk, Cf,
            Es) takes that of the nearest lighter element of its block that has one (Cm)
10 soft     absolute softness 1/eta in 1/eV, eta = (I - A)/2.  Cation M^z+: I = I_(z+1),
            A = I_z; a bare nucleus (H+) has 0.  Anion: the neutral atom, (I_1 - EA)/2.

Ions: the anions O2- S2- Se2- Te2- F- Cl- Br- I- N3- P3- As3- H- C4-, and as cations the
union of the accumulated table's oxidation states 1-8, the states with Shannon radii and the
states with an ICSD-2024 count of at least 10 (Z <= 99; no He, Ne, Ar or F cations).
Elements with no ion by these rules get one line with their default oxidation state and
softness 0, so that every element 1..%d can be looked up: %s.
Lines are ordered by Z, then by oxidation state.

Data sources: periodic-table facts and oxidation-state counts as listed in elements.csv;
ion list in part from the accumulated table of bond-valence parameters, whose notice follows.

""" % (GENERATOR, RULES_VERSION, MAX_Z, placeholder_list)
    out = [_comment(head + NOTICE + "\n" + CHANGES), "DATA_START\n"]
    for u in result["unitary"]:
        rc = 0.0 if u["rc"] is None else u["rc"]
        out.append("%-3d %-2s %3d %3d %9.4f %d %2d %d %.3f %.4f\n" % (
            u["Z"], u["symbol"], u["os"], u["default_os"], u["mass"], u["period"],
            u["group"], u["block"], rc, u["soft"]))
    out.append("DATA_END\n")
    return "".join(out)


def binary_text(result):
    head = """\
Quovix binary parameter file: one line per cation-anion pair, cation first.
Made by %s (%s) from tools/params/elements.csv, tools/params/bvparm2020_pairs.csv
and tools/params/oxide_cn.csv.
Regenerate it after changing the inputs; a file of your own in this layout also works.

Columns (white space separated):
 1 type1   cation symbol        2 os1   cation oxidation state
 3 type2   anion symbol         4 os2   anion oxidation state
 5 R0      bond-valence R0 (A), softness-sensitive (counts neighbours beyond the first shell)
 6 b       bond-valence b (A)
 7 CN      reference coordination number (used in R_min and the Morse depth)
 8 cutoff  interaction cut-off (A)

Pairs: every cation x anion of the unitary file, except where the anion element is less
electronegative (Pauling) than the cation element and the table has no row for the two.

R0 and b: the table's softness-sensitive row (refs c, ax, ay) for the exact pair, as it is,
with its stated cut-off.  Otherwise the best first-shell pair (R0_1, b_1): for the exact
state a row of ref a, then bs, then b, then any other general-chemistry ref (refs for
organic, metal-organic, complex, spin-state or hydrogen-bond regimes left out); a
valence-9 row (ref b first); an unchecked row of the exact state; else the Brese &
O'Keeffe estimate with b 0.37 (elements without r, c: c = 0.136 + 0.792 X, r fitted to
the element's rows, or 0.248 + 0.703 r_cov).
That pair is converted to one that also counts the more distant anions (V the cation's
oxidation state, N the integer CN below):
  b  = 0.4341 + 0.2871 |soft_cat - soft_an| - 0.0228 n_cat + 0.0534 n_an in [0.30, 0.80],
       rounded to 0.001 (soft and n as in the unitary file)
  R0 = R0_1 + (b_1 - b) ln(N/V) + b ln(f)
with f the share of the valence that the first shell keeps, from a continuum model of the
distant anions with no fitted constant (rules v1 used f = 0.86, which under-bonds
high-valence and low-coordinated cations by 10-20 %%):
  d1  = R0_1 - b_1 ln(V/N)       first-shell bond length
  a   = 2 r_an                   r_an the anion radius below (O 1.40 A)
  r2  = sqrt(d1^2 + a^2)         an anion touching a first-shell anion at a right angle
  rho = sqrt(2) / a^3            number density of close-packed spheres of diameter a
  I   = 4 pi rho b exp(-(r2 - d1)/b) (r2^2 + 2 b r2 + 2 b^2)
        (valence added per first-shell bond by the anions beyond r2)
  f   = 1 / (1 + I/N)            (P5+-O 0.944, Si4+-O 0.938, Zr4+-O 0.955, Ag+-I 0.975)
N: radius ratio rho = Shannon radius of the cation (at its listed CN closest to VI, high
spin) / anion radius (Shannon VI, N3- IV; P3- 1.927, As3- 2.026, H- 1.241, C4- 1.62 A);
the largest of 3, 4, 6, 8 listed for the cation with rho >= 0.155, 0.225, 0.414, 0.732,
else the smallest listed CN.  d10 Cu+ Ag+ Au+ Zn2+ Cd2+ Hg2+ Ga3+ In3+ Tl3+ Ge4+ Sn4+
with S, Se, Te, I, P, As, and Cu+ Ag+ Au+ with O, N: 4; Al3+ with O, F: 6 (octahedral in
corundum, spinels, garnets, beryl, cryolites).  Without Shannon data the cation radius is
R0_1 - b_1 ln(V/6) minus the anion radius, and any of 3, 4, 6, 8 may be taken.
CN column: for pairs with O2-, the cation's characteristic (weighted mean) coordination
number in oxides and oxysalts, two decimals (Hawthorne 2026, Mineralogical Magazine,
doi:10.1180/mgm.2026.10215, Appendix 3, CC BY 4.0; tools/params/oxide_cn.csv), where it
lists the cation in that state; the integer N otherwise.  The R0 conversion keeps the
integer N, so bond-valence sums and the GII do not depend on this column.
cutoff: the stated cut-off of a softness-sensitive row; else R0 + 8 b rounded up to the
next 0.5 A, within [4.0, 8.0].

Values derive from the accumulated table of bond-valence parameters; its notice follows.

""" % (GENERATOR, RULES_VERSION)
    out = [_comment(head + NOTICE + "\n" + CHANGES), "DATA_START\n"]
    for cat, os_, an, an_os, r0, b, cn, cutoff in result["binary"]:
        out.append("%-2s %d %-2s %2d %.4f %.3f %s %.1f\n" % (
            cat, os_, an, an_os, r0, b, cn, cutoff))
    out.append("DATA_END\n")
    return "".join(out)


def render(params_dir=PARAMS_DIR):
    result = build(params_dir)
    texts = {UNITARY_NAME: unitary_text(result), BINARY_NAME: binary_text(result)}
    for name, text in texts.items():
        for line in text.splitlines():
            if len(line) > 1000:
                raise ParamError("%s: line longer than 1000 characters" % name)
        if text.count("DATA_START") != 1 or text.count("DATA_END") != 1:
            raise ParamError("%s: marker words must appear once each" % name)
    return texts


def write(texts, out_dir):
    os.makedirs(out_dir, exist_ok=True)
    for name, text in texts.items():
        with open(os.path.join(out_dir, name), "w", encoding="ascii", newline="\n") as f:
            f.write(text)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--out-dir", default=DATA_DIR,
                        help="directory for the two files (default: data/ of the repository)")
    parser.add_argument("--check", action="store_true",
                        help="compare with the files in --out-dir instead of writing; "
                             "exit 1 on any difference")
    args = parser.parse_args(argv)
    try:
        texts = render()
    except ParamError as e:
        print("gen_params: %s" % e, file=sys.stderr)
        return 2
    if args.check:
        status = 0
        for name, text in texts.items():
            path = os.path.join(args.out_dir, name)
            try:
                with open(path, "rb") as f:
                    same = f.read() == text.encode("ascii")
            except OSError:
                same = False
            if not same:
                print("gen_params: %s differs from the generator's output" % path,
                      file=sys.stderr)
                status = 1
        return status
    write(texts, args.out_dir)
    return 0


if __name__ == "__main__":
    sys.exit(main())
