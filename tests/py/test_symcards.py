#!/usr/bin/python3
"""Checks of data/database_symcards.dat: the operations of every entry are spglib's, the rows
fit the reader, the entries are groups in table order.
Which entry each spelling finds is checked through the program's own lookup by the unit test
SymmetryLookup.EveryShippedSpellingFindsItsOperations, and the settings named by the test
structures by tests/py/test_cif_expansion.py (expansion compared with pymatgen or gemmi).

Run from anywhere: /usr/bin/python3 tests/py/test_symcards.py
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from fractions import Fraction

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SYMCARDS = os.path.join(REPO, "data", "database_symcards.dat")
GENERATOR = os.path.join(REPO, "tools", "gen_symcards.py")

def scan_int(row):
    """sscanf "%d"."""
    m = re.match(r"[ \t\r\n]*([+-]?\d+)", row)
    return int(m.group(1)) if m else None


def scan_quoted(row):
    """sscanf "'%15[^'\\n\\r]s": the row must open with a quote."""
    m = re.match(r"'([^'\n\r]{1,15})", row)
    return m.group(1) if m else None


def parse_op(text):
    """One operation of the file, (rotation rows, translations): every component has the form
    -?[xyz]([+-][xyz])*(+n/d)? (test_entries_are_groups_in_table_order checks that; the
    program's reading of such text is checked by the unit test CardSetByText)."""
    rot, tra = [], []
    for comp in (re.sub(r"[\s']", "", c) for c in text.split(",")):
        rot.append(tuple(0 if v not in comp else -1 if "-" + v in comp else 1 for v in "xyz"))
        frac = re.search(r"([+-]?\d+)/(\d+)", comp)
        tra.append(Fraction(int(frac.group(1)), int(frac.group(2))) if frac else Fraction(0))
    if len(rot) != 3:
        raise ValueError("not three components: %r" % text)
    return tuple(rot), tuple(tra)


def op_set(ops):
    """Operations with translations in twelfths, reduced modulo lattice translations."""
    out = set()
    for r, tr in ops:
        twelfths = [t * 12 for t in tr]
        if any(x.denominator != 1 for x in twelfths):
            raise ValueError("translation %r is not in twelfths" % (tr,))
        out.add((r, tuple(int(x) % 12 for x in twelfths)))
    return frozenset(out)


def is_group(ops):
    for ra, ta in ops:
        for rb, tb in ops:
            r = tuple(tuple(sum(ra[i][k] * rb[k][j] for k in range(3)) for j in range(3))
                      for i in range(3))
            t = tuple((sum(ra[i][k] * tb[k] for k in range(3)) + ta[i]) % 12
                      for i in range(3))
            if (r, t) not in ops:
                return False
    return True


def read_symcards(path):
    """Entries as the program reads them: dict rows and parsed fields."""
    with open(path, "rb") as fh:
        rows = fh.read().decode("ascii").split("\n")
    start = next(i for i, row in enumerate(rows) if "DATA_START" in row)
    end = next(i for i, row in enumerate(rows) if "DATA_END" in row)
    data = rows[start + 1:end]
    heads = [i for i, row in enumerate(data) if "#" in row]
    entries = []
    for k, h in enumerate(heads):
        number_row, hall_row, hm_row, count_row = data[h + 1:h + 5]
        count = scan_int(count_row)
        op_rows = data[h + 5:h + 5 + count]
        nxt = heads[k + 1] if k + 1 < len(heads) else len(data)
        entries.append({
            "head": data[h], "number_row": number_row, "hall_row": hall_row, "hm_row": hm_row,
            "hall_text": re.fullmatch(r"'([^']*)'", hall_row).group(1),
            "number": scan_int(number_row), "hall": scan_quoted(hall_row),
            "hm": scan_quoted(hm_row), "count": count, "op_rows": op_rows,
            "rows_left": nxt - (h + 5), "spellings": re.findall(r"'([^']*)'", hm_row),
            "ops": op_set(parse_op(r) for r in op_rows),
        })
    return rows, entries


class SymcardsFile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.rows, cls.entries = read_symcards(SYMCARDS)

    def test_matches_spglib_and_generator_output(self):
        try:
            import spglib
        except ImportError:
            self.skipTest("spglib is not importable (install python3-spglib)")
        # The operations as the program parses them are spglib's, entry by entry.
        for e in self.entries:
            hall = int(re.search(r"\(hall (\d+)\)", e["head"]).group(1))
            sym = spglib.get_symmetry_from_database(hall)
            ref = op_set((tuple(tuple(int(v) for v in row) for row in r),
                          tuple(Fraction(float(v)).limit_denominator(12) for v in t))
                         for r, t in zip(sym["rotations"], sym["translations"]))
            self.assertEqual(e["ops"], ref, e["head"])
        run = subprocess.run([sys.executable, GENERATOR, "--check"], capture_output=True)
        self.assertEqual(run.returncode, 0, run.stderr.decode())
        with tempfile.TemporaryDirectory() as tmp:
            changed = os.path.join(tmp, "changed.dat")
            with open(changed, "w", newline="\n") as fh:
                fh.write("\n".join(self.rows).replace("x, y, z", "x, y, -z", 1))
            run = subprocess.run([sys.executable, GENERATOR, "--check", "--output", changed],
                                 capture_output=True)
            self.assertEqual(run.returncode, 1)

    def test_rows_fit_the_reader(self):
        # The program reads at most 1023 characters per call, line end included.
        self.assertTrue(all(len(row) <= 1022 and "\r" not in row for row in self.rows))
        marks = [row for row in self.rows if "DATA_START" in row or "DATA_END" in row]
        self.assertEqual(marks, ["DATA_START", "DATA_END"])
        cut = set()
        for e in self.entries:
            self.assertEqual(e["number_row"], str(e["number"]))
            if e["hall"] != e["hall_text"]:
                cut.add(e["hall_text"])
            self.assertEqual(e["hm"], e["spellings"][0], "H-M symbol longer than 15")
            self.assertRegex(e["hm"], r"^[PABCIFR] \S")
            for sp in e["spellings"]:
                self.assertRegex(sp, r"^[PABCIFR]\S*( \S+)*$")
            self.assertTrue(all(len(r) <= 35 for r in e["op_rows"]))
        # Two standard Hall symbols have 16 characters; the program keeps 15 of them
        # as the name, and a search by the whole symbol still finds the entry.
        self.assertEqual(cut, {"P 32 2c (0 0 -1)", "P 64 2c (0 0 -1)"})

    def test_entries_are_groups_in_table_order(self):
        self.assertEqual(len(self.entries), 530)
        numbers = [e["number"] for e in self.entries]
        self.assertEqual(numbers, sorted(numbers))
        self.assertEqual(set(numbers), set(range(1, 231)))
        op_text = re.compile(r"^-?[xyz]([+-][xyz])*(\+[1-5]/[2346])?$")
        bad = []
        for k, e in enumerate(self.entries, 1):
            comps = [c for r in e["op_rows"] for c in r.split(", ")]
            if e["count"] != e["rows_left"] or len(e["ops"]) != e["count"]:
                bad.append("entry %d: count %d, %d rows" % (k, e["count"], e["rows_left"]))
            elif not all(op_text.match(c) for c in comps):
                bad.append("entry %d: operation text" % k)
            elif (((1, 0, 0), (0, 1, 0), (0, 0, 1)), (0, 0, 0)) not in e["ops"] \
                    or not is_group(e["ops"]):
                bad.append("entry %d: not a group" % k)
        self.assertEqual(bad, [])


if __name__ == "__main__":
    unittest.main()
