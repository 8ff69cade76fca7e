#!/usr/bin/env python3
"""Checks of data/database_unitary.dat and data/database_binary.dat.

The files are read the way the program reads them (scanf formats, first match wins),
not through the generator's internals. That every cation-anion pair of the test structures has
parameters is checked by tests/py/test_bv_independent.py, which fails on a missing pair.  Run: python3 tests/py/test_params.py
"""

import math
import os
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DATA = os.path.join(ROOT, "data")
GENERATOR = os.path.join(ROOT, "tools", "gen_params.py")
UNITARY = os.path.join(DATA, "database_unitary.dat")
BINARY = os.path.join(DATA, "database_binary.dat")
UNI_KEY = "%*d %s %d"
UNI_VALUES = "%d %*s %*d %*d %lf %d %d %d %lf %lf"
UNI_ELEMENT = "%d %s %*d %d"
BIN_KEY = "%s %d %s %d"
BIN_VALUES = "%*s %*d %*s %*d %lf %lf %lf %lf"

NOTICE_FIRST = "ACCUMULATED TABLE OF BOND VALENCE PARAMETERS, bvparm2020.cif, 2020-11-25"
NOTICE_LAST = "http://www.iucr.org/resources/data/datasets/bond-valence-parameters"


# ---------------------------------------------------------------- C-like readers

_INT = re.compile(r"[+-]?\d+")
_FLOAT = re.compile(r"[+-]?(?:\d+\.?\d*|\.\d+)(?:[eE][+-]?\d+)?|[+-]?(?:inf|nan)", re.I)


def scanf(fmt, text):
    """The values C's sscanf assigns for a format of %d, %s, %lf (optionally %*),
    separated by blanks: conversions skip leading white space, %d stops at the first
    non-digit, scanning ends at the first conversion that fails."""
    values, pos = [], 0
    for conv in fmt.split():
        while pos < len(text) and text[pos].isspace():
            pos += 1
        suppress = conv.startswith("%*")
        kind = conv.lstrip("%*")
        if kind == "s":
            end = pos
            while end < len(text) and not text[end].isspace():
                end += 1
            if end == pos:
                break
            value = text[pos:end]
        else:
            m = (_INT if kind == "d" else _FLOAT).match(text, pos)
            if not m:
                break
            end = m.end()
            value = int(m.group()) if kind == "d" else float(m.group())
        pos = end
        if not suppress:
            values.append(value)
    return values


def read_lines(path):
    with open(path, "rb") as f:
        raw = f.read()
    return raw.decode("ascii").split("\n")


def data_lines(path):
    """Lines after the first line holding DATA_START, up to one holding DATA_END."""
    lines = read_lines(path)
    start = next(i for i, line in enumerate(lines) if "DATA_START" in line)
    out = []
    for line in lines[start + 1:]:
        if "DATA_END" in line:
            break
        out.append(line)
    return out


def unitary_lookup(lines, symbol, os_):
    for line in lines:
        key = scanf(UNI_KEY, line)
        if len(key) == 2 and key == [symbol, os_]:
            return scanf(UNI_VALUES, line)
    return None


def element_lookup(lines, z):
    for line in lines:
        got = scanf(UNI_ELEMENT, line)
        if len(got) < 2:
            raise AssertionError("element lookup stops at line %r" % line)
        if got[0] == z:
            return got
    return None


def binary_lookup(lines, cat, cat_os, an, an_os):
    for line in lines:
        if scanf(BIN_KEY, line) == [cat, cat_os, an, an_os]:
            return scanf(BIN_VALUES, line)
    return None


# ---------------------------------------------------------------- tests

class GeneratorOutput(unittest.TestCase):
    def test_committed_files_are_the_generators_output(self):
        with tempfile.TemporaryDirectory() as tmp:
            subprocess.run([sys.executable, GENERATOR, "--out-dir", tmp], check=True)
            for name in ("database_unitary.dat", "database_binary.dat"):
                with open(os.path.join(tmp, name), "rb") as a, \
                        open(os.path.join(DATA, name), "rb") as b:
                    self.assertEqual(a.read(), b.read(),
                                     "%s is stale: run tools/gen_params.py" % name)
            # --check reports a changed file.
            with open(os.path.join(tmp, "database_binary.dat"), "ab") as f:
                f.write(b"\n")
            bad = subprocess.run([sys.executable, GENERATOR, "--check", "--out-dir", tmp],
                                 capture_output=True)
            self.assertEqual(bad.returncode, 1)
            self.assertIn(b"database_binary.dat", bad.stderr)


class FileLayout(unittest.TestCase):
    def test_frame_markers_line_ends_and_notice(self):
        for path in (UNITARY, BINARY):
            with open(path, "rb") as f:
                raw = f.read()
            self.assertNotIn(b"\r", raw, path)
            self.assertTrue(raw.endswith(b"\n"), path)
            lines = read_lines(path)
            self.assertEqual([line for line in lines if "DATA_START" in line], ["DATA_START"])
            self.assertEqual([line for line in lines if "DATA_END" in line], ["DATA_END"])
            self.assertLess(max(len(line) for line in lines), 1000, path)
            head = "\n".join(lines[:lines.index("DATA_START")])
            self.assertIn("rules v2", head)
            self.assertIn(NOTICE_FIRST, head)
            self.assertIn(NOTICE_LAST, head)
        for notice in (os.path.join(DATA, "NOTICE"),
                       os.path.join(ROOT, "tools", "params", "NOTICE")):
            with open(notice, encoding="ascii") as f:
                text = f.read()
            self.assertIn(NOTICE_FIRST + "\nCOPYRIGHT NOTICE\n", text)
            self.assertIn(NOTICE_LAST, text)
            self.assertIn("Corrected typos", text)

    def test_unitary_lines_scan_completely_and_once(self):
        seen = set()
        for line in data_lines(UNITARY):
            key = scanf(UNI_KEY, line)
            self.assertEqual(len(key), 2, line)
            values = scanf(UNI_VALUES, line)
            self.assertEqual(len(values), 7, line)
            self.assertEqual(len(scanf(UNI_ELEMENT, line)), 3, line)
            tokens = line.split()
            self.assertEqual(len(tokens), 10, line)
            # %d must not stop inside a token that is meant as a real number, and back.
            self.assertEqual(values[1], float(tokens[4]), line)
            self.assertEqual(values[5:], [float(tokens[8]), float(tokens[9])], line)
            z, mass, period, group, block, rc, soft = values
            self.assertTrue(1 <= z <= 99 and mass > 0 and 1 <= period <= 7, line)
            self.assertTrue(1 <= group <= 18 and 0 <= block <= 3, line)
            self.assertTrue(rc > 0 and soft >= 0, line)
            self.assertNotIn(tuple(key), seen, "duplicate line for %s %d" % tuple(key))
            seen.add(tuple(key))

    def test_binary_lines_scan_completely_and_once(self):
        seen = set()
        for line in data_lines(BINARY):
            key = scanf(BIN_KEY, line)
            self.assertEqual(len(key), 4, line)
            self.assertTrue(key[1] > 0 > key[3], "cation first: " + line)
            values = scanf(BIN_VALUES, line)
            self.assertEqual(len(values), 4, line)
            self.assertEqual(values, [float(t) for t in line.split()[4:]], line)
            r0, b, cn, cutoff = values
            self.assertTrue(0.5 < r0 < 4.0 and 0.3 <= b <= 0.8, line)
            self.assertTrue(1 <= cn <= 12 and 3.0 <= cutoff <= 8.0, line)
            self.assertGreater(cutoff, r0, line)
            self.assertNotIn(tuple(key), seen, "duplicate pair " + line)
            seen.add(tuple(key))

    def test_every_element_is_found_by_atomic_number(self):
        lines = data_lines(UNITARY)
        with open(os.path.join(ROOT, "tools", "params", "elements.csv"), encoding="ascii") as f:
            symbols = {int(row.split(",")[0]): row.split(",")[1]
                       for row in f.read().splitlines()[1:]}
        default = {}
        for line in lines:
            z, symbol, os_default = scanf(UNI_ELEMENT, line)
            self.assertEqual(default.setdefault(symbol, os_default), os_default,
                             "column 4 changes within %s" % symbol)
        for z in range(1, 100):
            found = element_lookup(lines, z)
            self.assertIsNotNone(found, "no line for Z = %d" % z)
            self.assertEqual(found[1], symbols[z])

    def test_every_anion_has_a_line(self):
        lines = data_lines(UNITARY)
        for symbol, os_ in (("O", -2), ("S", -2), ("Se", -2), ("Te", -2), ("F", -1),
                            ("Cl", -1), ("Br", -1), ("I", -1), ("N", -3), ("P", -3),
                            ("As", -3), ("H", -1), ("C", -4)):
            values = unitary_lookup(lines, symbol, os_)
            self.assertIsNotNone(values, "%s%d" % (symbol, os_))
            self.assertGreater(values[6], 0.0, "softness of %s%d" % (symbol, os_))


class CheckValues(unittest.TestCase):
    """Pair values and the Morse minimum and depth the program derives from them."""

    # cation, os, anion, os: R0, b, CN, cutoff, R_min, D0 (eV).  Converted pairs carry
    # the first-shell share f of the continuum model (P5+-O 0.944); Li+-O, Na+-O and
    # Li+-S are the table's softness-sensitive rows.  Oxide pairs have the characteristic
    # CN (P5+-O 4.00), the others the radius-ratio integer; Al3+ is octahedral with F.
    TABLE = (
        ("Li", 1, "O", -2, 1.1745, 0.514, 4.64, 6.0, 1.904, 0.4995),
        ("Na", 1, "O", -2, 1.5766, 0.475, 6.31, 6.0, 2.365, 0.2804),
        ("Fe", 2, "O", -2, 1.6170, 0.457, 5.68, 5.5, 1.972, 0.7626),
        ("Fe", 3, "O", -2, 1.6654, 0.473, 5.68, 5.5, 1.863, 1.0590),
        ("P", 5, "O", -2, 1.6201, 0.516, 4.00, 6.0, 1.429, 2.7382),
        ("Li", 1, "S", -2, 1.4607, 0.656, 4, 6.0, 2.322, 0.5447),
        ("P", 5, "S", -2, 2.1756, 0.592, 4, 7.0, 1.980, 2.1242),
        ("Zr", 4, "O", -2, 1.8696, 0.462, 6.80, 6.0, 2.014, 0.9651),
        ("La", 3, "O", -2, 2.0913, 0.433, 8.70, 6.0, 2.429, 0.5556),
        ("Ag", 1, "I", -1, 2.0137, 0.623, 4, 7.0, 2.772, 0.2852),
        ("Al", 3, "F", -1, 1.4160, 0.507, 6, 5.5, None, None),
    )

    def test_reference_pairs(self):
        uni, bin_ = data_lines(UNITARY), data_lines(BINARY)
        for cat, cat_os, an, an_os, *want in self.TABLE:
            with self.subTest(pair="%s%d-%s%d" % (cat, cat_os, an, an_os)):
                r0, b, cn, cutoff = binary_lookup(bin_, cat, cat_os, an, an_os)
                _, _, n_i, _, block_i, _, soft_i = unitary_lookup(uni, cat, cat_os)
                _, _, n_j, _, _, _, soft_j = unitary_lookup(uni, an, an_os)
                c_i = 1 if block_i <= 1 else 2
                rmin = (0.9185 + 0.2285 * abs(soft_j - soft_i)) * r0 - b * math.log(cat_os / cn)
                d0 = ((b * b / 2) * c_i * (abs(cat_os * an_os) * c_i) ** (1.0 / c_i)
                      / (math.sqrt(n_i * n_j) * rmin) * 14.39964 * 0.5)
                self.assertAlmostEqual(r0, want[0], delta=5e-5)
                self.assertAlmostEqual(b, want[1], delta=5e-4)
                self.assertEqual(cn, want[2])
                self.assertEqual(cutoff, want[3])
                if want[4] is not None:
                    self.assertAlmostEqual(rmin, want[4], delta=5e-4)
                    self.assertAlmostEqual(d0, want[5], delta=5e-4)

    def test_reference_softness(self):
        uni = data_lines(UNITARY)
        for symbol, os_, soft in (("Li", 1, 0.0285), ("Na", 1, 0.0475), ("Fe", 3, 0.0824),
                                  ("Fe", 2, 0.1384), ("Ag", 1, 0.1438), ("H", 1, 0.0),
                                  ("O", -2, 0.1645), ("S", -2, 0.2415), ("F", -1, 0.1426),
                                  ("Cl", -1, 0.2138), ("I", -1, 0.2706)):
            self.assertAlmostEqual(unitary_lookup(uni, symbol, os_)[6], soft, delta=5e-5,
                                   msg="%s%d" % (symbol, os_))


if __name__ == "__main__":
    unittest.main()
