#!/usr/bin/python3
"""Checks of data/database_symcards.dat, read the way the program reads it.

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
CIF_DIRS = [os.path.join(REPO, "tests", "data"), "/work/shared/cifs"]

# Hall symbols that are the leading part of an earlier entry's own Hall symbol, so a
# search by them meets that entry first (text -> Hall symbol of the entry found).
# The order of the file (International Tables order, standard setting first) and the
# plain substring search leave no way around these.
HALL_SHADOWED = {
    "P 2": "P 2y", "A 2": "A 2y", "I 2": "I 2y", "P -2": "P -2y",
    "P -2ya": "P -2yac", "A -2": "A -2y", "I -2": "I -2y", "A -2ya": "A -2yac",
    "B -2b": "B -2bc", "-P 2": "-P 2y", "-A 2": "-A 2y", "-I 2": "-I 2y",
    "-P 2ya": "-P 2yac", "-A 2ya": "-A 2yac", "-B 2b": "-B 2bc", "B 2 2": "B 2 2b",
    "P -2a 2": "P -2a 2a", "P -2ac 2": "P -2ac 2a", "P -2ab -2": "P -2ab -2ab",
    "P -2n 2": "P -2n 2a", "A -2a 2": "A -2a 2a", "-P 2ab 2b": "-P 2ab 2bc",
    "-P 2b 2": "-P 2b 2b", "-P 2c 2": "-P 2c 2c", "-P 2ab 2": "-P 2ab 2bc",
    "-P 2a 2b": "-P 2a 2bc", "-P 2bc 2b": "-P 2bc 2bc", "-P 2bc 2": "-P 2bc 2bc",
    "-P 2ac 2a": "-P 2ac 2ac", "-P 2b 2a": "-P 2b 2ab", "-P 2n 2": "-P 2n 2b",
    "-P 2ab 2a": "-P 2ab 2ab", "-P 2c 2a": "-P 2c 2ac", "-P 2ac 2b": "-P 2ac 2bc",
    "-P 2bc 2a": "-P 2bc 2ab", "-P 2n 2a": "-P 2n 2ab", "-A 2 2": "-A 2 2a",
    "-B 2 2": "-B 2 2b", "-A 2a 2": "-A 2a 2a", "-I 2b 2": "-I 2b 2b",
    "-I 2c 2": "-I 2c 2c", "P 4c -2": "P 4c -2c", "P 3 -2": 'P 3 -2"',
}
# The same for H-M symbols: C 2 2 2 (No. 21) is the start of C 2 2 21 (No. 20).
HM_SHADOWED = {"C 2 2 2": "C 2 2 21"}

# Symmetry names in the shared CIFs whose lookup does not give the file's own
# operations.  All these files carry an operations loop, which the reader uses first.
CIF_NAME_EXCEPTIONS = {
    # No origin in the symbol or number: origin choice 2 is found, the file uses 1.
    ("Li10GeP2S12_LGPS.cif", "P 42/n m c"): "P 42/n m c:2",
    ("Li10GeP2S12_LGPS.cif", "137"): "P 42/n m c:2",
    ("La2Zr2O7_pyrochlore_origin1.cif", "227"): "F d -3 m:2",
    # A number names hexagonal axes; the file is on rhombohedral axes.
    ("Cu17S9_digenite_rhombohedral.cif", "166"): "R -3 m:H",
    # Double quotes are not recognised: the value is the first token, '"F' / '"P'.
    ("Li4B7O12Cl_boracite.cif", '"F'): None,
    ("Li7B7Se15.cif", '"P'): None,
}
# Files without operations: the setting their name must find.
CIF_EXPECTED = {
    "CuCrP2Se6_HM_only.cif": "C 1 2 1",
    "Montmorillonite_C2b1_HM_only.cif": "C 1 2 1",
    "Berborite_number_only.cif": "P 3 c 1",
}


def scan_int(row):
    """sscanf "%d"."""
    m = re.match(r"[ \t\r\n]*([+-]?\d+)", row)
    return int(m.group(1)) if m else None


def scan_quoted(row):
    """sscanf "'%15[^'\\n\\r]s": the row must open with a quote."""
    m = re.match(r"'([^'\n\r]{1,15})", row)
    return m.group(1) if m else None


def parse_op(text):
    """One operation as the program parses it: (rotation, translation)."""
    comps = [re.sub(r"[ \t\r\n']", "", c) for c in text.split(",")]
    if len(comps) != 3:
        raise ValueError("not three components: %r" % text)
    rot, tra = [], []
    for comp in comps:
        row = []
        for letter in "xyz":
            pos = comp.find(letter)
            if pos < 0:
                pos = comp.find(letter.upper())
            row.append(0 if pos < 0 else 1 if pos == 0 or comp[pos - 1] == "+" else -1)
        t = Fraction(0)
        mark = comp.find("/") if "/" in comp else comp.find(".")
        if "/" in comp:
            t = Fraction(int(comp[mark - 1]), int(comp[mark + 1]))
        elif "." in comp:
            num = re.match(r"[+-]?\d*\.?\d*", comp).group(0)
            t = Fraction(num) if num not in ("", "+", "-", ".") else Fraction(0)
        if mark >= 2 and "-" in comp[mark - 2:]:
            t = -abs(t)
        rot.append(tuple(row))
        tra.append(t)
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


def lookup(entries, field, text):
    return next((i for i, e in enumerate(entries) if text in e[field]), None)


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

    def test_every_spelling_finds_its_setting(self):
        first_listing = {}
        for i, e in enumerate(self.entries):
            for sp in e["spellings"]:
                first_listing.setdefault(sp, i)
        failures = []
        shadowed = {("hall_row", k): v for k, v in HALL_SHADOWED.items()}
        shadowed.update({("hm_row", k): v for k, v in HM_SHADOWED.items()})
        for j, e in enumerate(self.entries):
            group_first = next(i for i, x in enumerate(self.entries)
                               if x["number"] == e["number"])
            queries = [("number_row", str(e["number"]), group_first),
                       ("hall_row", e["hall_text"], j)]
            queries += [("hm_row", sp, first_listing[sp]) for sp in e["spellings"]]
            for field, text, preferred in queries:
                i = lookup(self.entries, field, text)
                if i is None:
                    failures.append("%s %r: not found" % (field, text))
                elif self.entries[i]["ops"] != e["ops"] and not (
                        i == preferred and self.entries[i]["number"] == e["number"]):
                    found = self.entries[i]["hall_text" if field == "hall_row" else "hm"]
                    if shadowed.get((field, text)) != found:
                        failures.append("%s %r of entry %d finds entry %d (%s)"
                                        % (field, text, j + 1, i + 1, found))
        self.assertEqual(failures, [], "\n".join(failures))


def grep_keyword(rows, key):
    """Value of a single-valued CIF key as the program's reader takes it."""
    idx = next((i for i, row in enumerate(rows) if key in row), None)
    if idx is None:
        return None
    row = rows[idx]
    if idx < len(rows) - 2 and rows[idx + 1][:1] == ";":
        end = next((i for i in range(idx + 2, len(rows)) if rows[i][:1] == ";"), None)
        return None if end is None else "".join(r.rstrip("\r") for r in rows[idx + 2:end])
    if row.count("'") >= 2:
        return row[row.index("'") + 1:row.rindex("'")]
    m = re.match(r"[ \t]*([^ \t\r]+)", row[row.index(key) + len(key):])
    return m.group(1) if m else None


def grep_loop_column(rows, key):
    """Values of the column tagged exactly key, from the loop whose header has key."""
    block = None
    for k, row in enumerate(rows + [""]):
        first = row.strip(" \t\r\n")[:1]
        if block is not None:
            header, data = block
            if not first or first == "#" or "loop_" in row or (data and first == "_"):
                if any(key in h for h in header) and data:
                    break
                block = None
            elif first == "_" and not data:
                header.append(row)
                continue
            else:
                data.append(row)
                continue
        if "loop_" in row:
            block = ([], [])
    else:
        return None
    header, data = block
    tags = [h.split()[0] for h in header]
    if key not in tags:
        return None
    col = tags.index(key)
    values = []
    for row in data:
        tokens = re.findall(r"'([^']*)'|([^ \t\r\n']+)", row)
        tokens = [a or b for a, b in tokens]
        values.append(tokens[col] if col < len(tokens) else None)
    return values


class SharedCifs(unittest.TestCase):
    NAME_KEYS = ["_symmetry_space_group_name_H-M", "_space_group_name_H-M_alt"]
    NUMBER_KEYS = ["_symmetry_Int_Tables_number", "_space_group_IT_number", "_space_group_id"]
    HALL_KEYS = ["_symmetry_space_group_name_Hall", "_space_group_name_Hall"]

    def test_cif_symmetry_names_find_their_setting(self):
        files = {}
        for d in CIF_DIRS:
            if os.path.isdir(d):
                for name in sorted(os.listdir(d)):
                    if name.endswith(".cif"):
                        files.setdefault(name, os.path.join(d, name))
        if not files:
            self.skipTest("no CIF files in %s" % " or ".join(CIF_DIRS))
        _, entries = read_symcards(SYMCARDS)
        failures = []
        for name, path in files.items():
            with open(path, "rb") as fh:
                rows = fh.read().decode("latin-1").split("\n")
            ops = None
            for key in ("_symmetry_equiv_pos_as_xyz", "_space_group_symop_operation_xyz"):
                values = grep_loop_column(rows, key)
                if values:
                    ops = op_set(parse_op(v) for v in values)
                    break
            queries = set()
            for field, keys in (("hm_row", self.NAME_KEYS), ("number_row", self.NUMBER_KEYS),
                                ("hall_row", self.HALL_KEYS)):
                for key in keys:
                    value = grep_keyword(rows, key)
                    if value is not None:
                        queries.add((field, value))
                    # A double-quoted name must work once the file is given single quotes.
                    row = next((r for r in rows if key in r), "")
                    quoted = re.search(r'"([^"]+)"', row)
                    if quoted:
                        queries.add((field, quoted.group(1)))
            for field, value in sorted(queries):
                i = lookup(entries, field, value)
                found = None if i is None else entries[i]["hm"]
                if (name, value) in CIF_NAME_EXCEPTIONS:
                    if found != CIF_NAME_EXCEPTIONS[(name, value)]:
                        failures.append("%s %r: finds %s" % (name, value, found))
                elif i is None:
                    failures.append("%s %r: not found" % (name, value))
                elif ops is not None and entries[i]["ops"] != ops:
                    failures.append("%s %r: %s has other operations" % (name, value, found))
                elif ops is None and found != CIF_EXPECTED.get(name):
                    failures.append("%s %r: finds %s" % (name, value, found))
        self.assertEqual(failures, [], "\n".join(failures))


if __name__ == "__main__":
    unittest.main()
