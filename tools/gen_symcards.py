#!/usr/bin/python3
"""Generate data/database_symcards.dat, the space-group settings file of quovix.

Source: the space-group database of spglib as packaged by Debian (python3-spglib),
all 530 Hall settings: spglib.get_spacegroup_type(hall_number) for the table number,
Hall symbol, Hermann-Mauguin symbols and setting choice, and
spglib.get_symmetry_from_database(hall_number) for the operations.

Usage:
    tools/gen_symcards.py            write data/database_symcards.dat
    tools/gen_symcards.py --check    compare with the committed file, exit 1 if it differs
    tools/gen_symcards.py --report   also list the spellings that were dropped and why

Entry layout (see the file header for the full description):

    # 14 P 1 21/c 1 (hall 81)         entry start: the only rows with '#'
    14                                 International Tables number
    '-P 2ybc'                          Hall symbol
    'P 1 21/c 1' 'P 21/c' ...          Hermann-Mauguin spellings, canonical one first
    4                                  number of operations
    x, y, z                            one operation per row
    ...

The program finds a setting by H-M symbol, table number or Hall symbol by taking the
first entry whose row contains the given text (plain substring search).  Everything
below serves that rule:

Order.  Entries follow the International Tables number.  Within a group the setting a
file most likely means when it names only the group comes first: origin choice 2
before origin choice 1, hexagonal axes before rhombohedral axes, and otherwise
spglib's own order, which starts with the standard setting (for monoclinic groups:
unique axis b, cell choice 1).  Each number row holds the number alone, so a search
for "1" meets entry 1 before "10", "11", ...

Canonical symbol.  The first quoted symbol on the H-M row is what the program keeps
(at most 15 characters) and writes back into CIF files.  Convention: symbols with a
blank between the parts, screw axes written "21", "42", ... (no underscore); the full
symbol for monoclinic settings ("P 1 21/c 1", "C 1 2 1", "P 1 1 21/b"), the short
symbol otherwise ("P n m a", "F m -3 m"); ":1" / ":2" appended for the origin choice,
":H" / ":R" for rhombohedral groups on hexagonal / rhombohedral axes.  Groups 67 and 68
have several axis settings with the same "e" symbol; their non-standard axis settings
take the older symbol with a, b or c instead of e ("C m m b", "A b a a:2").

Spellings.  After the canonical symbol the H-M row lists other spellings of the same
setting, built by the rules in spellings():
  * the short and the full symbol, each with screw axes as "21" and as "2_1", with and
    without blanks ("P 21/c", "P 2_1/c", "P21/c", "P2_1/c", "P 1 21/c 1", "P121/c1");
    the short symbol also as "P2(1)/c" and in capitals without blanks ("P21/C");
  * the older symbols of groups 39, 41, 64, 67, 68 ("C m c a" for C m c e) and the older
    cubic symbols without the bar on 3 ("F m 3 m", "F d 3 m", "P a 3");
  * monoclinic settings: the group's standard short symbol with the spglib setting code
    ("C2:b1", "P 21/c:b2", "C c:-b1");
  * origin choices: ":2", " :2", " (origin choice 2)", " origin choice 2", and the
    letters " Z" (origin choice 2) and " S" (origin choice 1);
  * rhombohedral groups: ":H", " :H", " H", " (hexagonal axes)" and ":R", " :R", " R",
    " (rhombohedral axes)";
  * the hand-written additions of EXTRA_SPELLINGS.
A spelling shared by several settings ("P 21/a", "P n n n", "R -3 m") is kept only on
the first of them in file order, which is the preferred one.  Finally, when an
alternative spelling of an earlier entry contains a spelling of a later entry with
different operations (the compact "P4322" contains "P432"), the earlier entry's
alternative is dropped so that the later spelling finds its own setting.

Hall symbols are not changed.  Where one Hall symbol is a leading part of an earlier
entry's Hall symbol ("P 2" in "P 2y") a search by that Hall symbol meets the earlier
entry; this cannot be avoided without breaking the order and is listed by --report.
"""

import argparse
import os
import re
import sys
from fractions import Fraction

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUTPUT = os.path.join(REPO, "data", "database_symcards.dat")

MAX_SYMBOL = 15  # characters kept by the reader's "'%15[^'\n\r]s"
MAX_ROW = 1022   # a row and its line end must fit one 1023-character read
MAX_OP = 35      # characters kept per operation text

# Older symbols (a, b or c glide instead of e) of the standard settings of the groups
# with an e-glide; other axis settings follow by permute_symbol().
OLD_E_SYMBOLS = {39: "A b m 2", 41: "A b a 2", 64: "C m c a", 67: "C m m a", 68: "C c c a"}

# Groups whose non-standard axis settings share the e-symbol of another setting: the
# canonical symbol of those settings is the older one.
OLD_E_CANONICAL = (67, 68)

# Suffixes naming the origin choice or the axes of a setting, per spglib choice:
# (suffixes for the short symbol, suffixes for the full symbol).  Symbols without
# blanks get ":1", ":2", ":H" or ":R" only.  " S" and " Z" are the letters some
# databases append for origin choice 1 and 2.
SETTING_SUFFIXES = {
    "1": ([":1", " :1", " (origin choice 1)", " origin choice 1", " S"],
          [":1", " (origin choice 1)"]),
    "2": ([":2", " :2", " (origin choice 2)", " origin choice 2", " Z"],
          [":2", " (origin choice 2)"]),
    "H": ([":H", " :H", " H", " (hexagonal axes)"], [":H", " (hexagonal axes)"]),
    "R": ([":R", " :R", " R", " (rhombohedral axes)"], [":R", " (rhombohedral axes)"]),
}

# Hand-written spellings, keyed by spglib Hall number, for forms the rules in
# spellings() do not make.  They go through the same sharing and shadowing checks.
EXTRA_SPELLINGS = {
    # R -3 m and R -3 c with the axes named by the lattice word alone.
    458: ["R -3 m (hexagonal)"],
    459: ["R -3 m (rhombohedral)"],
    460: ["R -3 c (hexagonal)"],
    461: ["R -3 c (rhombohedral)"],
}

def dedupe(items):
    seen = set()
    out = []
    for item in items:
        if item not in seen:
            seen.add(item)
            out.append(item)
    return out


def plain(symbol):
    """Screw axes written "21" instead of "2_1"."""
    return symbol.replace("_", "")


def spaced_forms(symbol):
    """A symbol (screw axes as "2_1") written with "21" and with "2_1"."""
    return dedupe([plain(symbol), symbol])


def compact_forms(symbol, paren=False):
    """The same without blanks; with paren, also screw axes as in "P2(1)/c"."""
    out = [x.replace(" ", "") for x in spaced_forms(symbol)]
    if paren and "_" in symbol:
        out.append(re.sub(r"(\d)_(\d)", r"\1(\2)", symbol).replace(" ", ""))
    return dedupe(out)


def frac_text(value):
    """Translation in [0, 1) as a one-digit fraction."""
    f = Fraction(value).limit_denominator(24) % 1
    if abs(float(f) - (value % 1.0)) > 1e-6 and abs(float(f) - (value % 1.0)) < 1 - 1e-6:
        raise ValueError("translation %r is not a simple fraction" % value)
    if f == 0:
        return ""
    if f.denominator not in (2, 3, 4, 6) or f.numerator > 9:
        raise ValueError("translation %r cannot be written with one digit" % value)
    return "%d/%d" % (f.numerator, f.denominator)


def op_text(rotation, translation):
    parts = []
    for row, t in zip(rotation, translation):
        text = ""
        for coeff, letter in zip(row, "xyz"):
            if coeff == 1:
                text += ("+" if text else "") + letter
            elif coeff == -1:
                text += "-" + letter
            elif coeff != 0:
                raise ValueError("rotation entry %r" % coeff)
        tt = frac_text(t)
        if tt:
            text += "+" + tt
        parts.append(text)
    return ", ".join(parts)


def op_key(rotation, translation):
    """Operation in exact form, translation in twelfths reduced modulo 1."""
    r = tuple(tuple(int(v) for v in row) for row in rotation)
    t = tuple(int(round(float(v) * 12)) % 12 for v in translation)
    return r, t


class Setting:
    def __init__(self, hall, info, symmetry):
        self.hall = hall
        self.number = int(info["number"])
        self.hall_symbol = info["hall_symbol"]
        self.international = info["international"].split(" = ")[0]
        self.full = info["international_full"]
        self.choice = info["choice"]
        rotations = symmetry["rotations"]
        translations = symmetry["translations"]
        self.ops = [op_text(r, t) for r, t in zip(rotations, translations)]
        self.op_set = frozenset(op_key(r, t) for r, t in zip(rotations, translations))
        if self.choice[:1] in ("1", "2") and self.number >= 16:
            self.origin = self.choice[0]
            self.axes = self.choice[1:]
        else:
            self.origin = ""
            self.axes = self.choice
        self.rhombohedral = self.choice if self.choice in ("H", "R") else ""
        self.monoclinic = 3 <= self.number <= 15
        self.orthorhombic = 16 <= self.number <= 74
        self.short = self._short_symbol()
        self.old_short, self.old_full = self._old_symbols()
        self.canonical = self._canonical()
        self.spellings = []

    def _short_symbol(self):
        tokens = self.full.split()
        if self.monoclinic:
            rest = [t for t in tokens[1:] if t != "1"]
            return " ".join([tokens[0]] + rest)
        if self.orthorhombic:
            return " ".join([tokens[0]] + [t.split("/")[-1] for t in tokens[1:]])
        return self.international

    def _old_symbols(self):
        if self.number in OLD_E_SYMBOLS:
            old = permute_symbol(OLD_E_SYMBOLS[self.number], self.axes)
            old_tokens = old.split()
            full_tokens = self.full.split()
            new_full = [full_tokens[0]]
            for ft, ot in zip(full_tokens[1:], old_tokens[1:]):
                new_full.append(ft[:-1] + ot[-1] if ft.endswith("e") else ft)
            return old, " ".join(new_full)
        if self.number >= 200 and " -3" in self.short:
            return self.short.replace(" -3", " 3"), ""
        return "", ""

    def _canonical(self):
        if self.monoclinic:
            name = plain(self.full)
        elif self.number in OLD_E_CANONICAL and self.axes:
            name = self.old_short
        else:
            name = plain(self.short)
        if self.origin:
            name += ":" + self.origin
        if self.rhombohedral:
            name += ":" + self.rhombohedral
        return name


def permute_symbol(symbol, axes):
    """Orthorhombic symbol of the standard setting rewritten for spglib axis code axes.

    The code names, for the new a, b, c in turn, the standard axis it lies along
    ("cab": new a along old c, new b along old a, new c along old b; signs do not
    matter here).  A letter at a position moves with its axis; a glide letter and a
    face-centring letter A, B, C are renamed after the axis they refer to.
    """
    code = (axes or "abc").replace("-", "")
    rename = {old: "abc"[new] for new, old in enumerate(code)}
    tokens = symbol.split()
    lattice = tokens[0]
    if lattice in "ABC":
        lattice = rename[lattice.lower()].upper()
    letters = [tokens[1 + "abc".index(old)] for old in code]
    letters = [rename.get(x, x) for x in letters]
    return " ".join([lattice] + letters)


def load_settings():
    import spglib
    settings = []
    for hall in range(1, 531):
        info = spglib.get_spacegroup_type(hall)
        if not isinstance(info, dict):  # newer spglib returns an object
            info = {k: getattr(info, k) for k in
                    ("number", "hall_symbol", "international", "international_full",
                     "choice")}
        settings.append(Setting(hall, info, spglib.get_symmetry_from_database(hall)))
    return settings, spglib.__version__


def order_settings(settings):
    """International Tables order; origin choice 2 before 1 for the same axes."""
    first_axes = {}
    for s in settings:
        first_axes.setdefault((s.number, s.axes), len(first_axes))

    def key(s):
        return (s.number, first_axes[(s.number, s.axes)], 0 if s.origin != "1" else 1)

    return sorted(settings, key=key)


def mirror_glides(setting, axis):
    """Glide letters ('m', 'a', 'b', 'c', 'n') of planes perpendicular to axis."""
    letters = set()
    for r, t in setting.op_set:
        want = tuple(tuple((-1 if i == axis else 1) if i == j else 0 for j in range(3))
                     for i in range(3))
        if r != want:
            continue
        par = [t[i] for i in range(3) if i != axis]
        others = [i for i in range(3) if i != axis]
        if par == [0, 0]:
            letters.add("m")
        elif par == [6, 6]:
            letters.add("n")
        for k, i in enumerate(others):
            if par[k] == 6 and par[1 - k] == 0:
                letters.add("abc"[i])
    return letters


def check_old_symbol(setting):
    """Each glide letter of an older orthorhombic symbol must be a plane of the group."""
    for pos, letter in enumerate(setting.old_short.split()[1:]):
        if letter in "mabcn" and letter not in mirror_glides(setting, pos):
            raise ValueError("hall %d: %s has no %s plane at position %d"
                             % (setting.hall, setting.old_short, letter, pos + 1))


def spellings(s, group_short):
    """All spellings of setting s, canonical first (before removing shared ones)."""
    out = [s.canonical]
    short_names = [s.short] + ([s.old_short] if s.old_short else [])
    full_names = [s.full] + ([s.old_full] if s.old_full else [])
    suffix = s.origin or s.rhombohedral
    if suffix:
        short_suffixes, full_suffixes = SETTING_SUFFIXES[suffix]
        for name in short_names:
            out += [f + x for f in spaced_forms(name) for x in short_suffixes]
        for name in full_names:
            out += [f + x for f in spaced_forms(name) for x in full_suffixes]
        for name in short_names + full_names:
            out += [f + ":" + suffix for f in compact_forms(name)]
    for name in short_names:
        out += spaced_forms(name) + compact_forms(name, paren=True)
        out.append(plain(name).replace(" ", "").upper())
    for name in full_names:
        out += spaced_forms(name) + compact_forms(name)
    if s.monoclinic:
        code = ":" + s.choice
        out += [f + code for f in spaced_forms(group_short) + compact_forms(group_short, True)]
        out += [f + " " + code for f in spaced_forms(group_short)]
    out += EXTRA_SPELLINGS.get(s.hall, [])
    return dedupe(out)


def hm_row(spelling_list):
    return " ".join("'%s'" % x for x in spelling_list)


def first_match(entries, text, row_of):
    for index, e in enumerate(entries):
        if text in row_of(e):
            return index
    return None


def resolve(entries):
    """Remove shared and shadowing spellings; return notes on what was removed."""
    notes = []
    seen = {}
    for j, e in enumerate(entries):
        kept = []
        for sp in e.spellings:
            if sp in seen:
                i = seen[sp]
                if sp == e.canonical and entries[i].op_set != e.op_set:
                    raise ValueError("canonical %r of hall %d is listed earlier"
                                     % (sp, e.hall))
                if sp != e.canonical:
                    continue
            seen.setdefault(sp, j)
            kept.append(sp)
        e.spellings = kept

    unavoidable = set()
    changed = True
    while changed:
        changed = False
        rows = [hm_row(e.spellings) for e in entries]
        for j, e in enumerate(entries):
            for sp in list(e.spellings):
                i = next(k for k, row in enumerate(rows) if sp in row)
                if i >= j or entries[i].op_set == e.op_set or (j, sp) in unavoidable:
                    continue
                holder = entries[i]
                culprits = [x for x in holder.spellings if sp in x]
                if holder.canonical in culprits:
                    if sp == e.canonical:
                        unavoidable.add((j, sp))
                        notes.append("'%s' finds %s first: it is part of that symbol"
                                     % (sp, holder.canonical))
                        continue
                    e.spellings.remove(sp)
                    notes.append("dropped '%s' of %s: it finds %s first"
                                 % (sp, e.canonical, holder.canonical))
                else:
                    for x in culprits:
                        holder.spellings.remove(x)
                        notes.append("dropped '%s' of %s: it would capture '%s' of %s"
                                     % (x, holder.canonical, sp, e.canonical))
                changed = True
                break
            if changed:
                break
    return notes


def hall_shadows(entries):
    notes = []
    for j, e in enumerate(entries):
        i = first_match(entries, e.hall_symbol, lambda x: "'%s'" % x.hall_symbol)
        if i < j and entries[i].op_set != e.op_set:
            notes.append("Hall '%s' of %s finds '%s' (%s) first"
                         % (e.hall_symbol, e.canonical, entries[i].hall_symbol,
                            entries[i].canonical))
    return notes


HEADER = """\
database_symcards.dat: space-group settings for quovix

What it is: the 530 settings (Hall symbols) of the 230 space groups with their
symmetry operations.  The program reads it to expand a structure file that gives
only a space-group name or number, and to test which setting a P1 cell obeys.

How it was made: written by tools/gen_symcards.py from the space-group database
of spglib {version} (Debian package python3-spglib).  Do not edit by hand; change
the generator and run it again (tools/gen_symcards.py --check compares).

Layout: after the marker row below, every entry starts at a row containing the
hash sign (no other row between the markers contains one) and then has
  1. the International Tables number alone on its row;
  2. the Hall symbol in single quotes;
  3. the Hermann-Mauguin symbols in single quotes: first the canonical symbol
     (at most 15 characters, the name the program keeps), then more spellings
     of the same setting (full and short symbols, 21 or 2_1, with or without
     blanks, older forms, origin and axes suffixes such as :2 or :H);
  4. the number of operations n;
  5. n rows with one operation each, as x, y, z text with fractions.
Entries are numbered 1, 2, ... in file order.

Order: International Tables number; within a group the setting meant when only
the group is named comes first (origin choice 2 before 1, hexagonal axes before
rhombohedral axes, unique axis b and cell choice 1 for monoclinic groups, else
the standard setting).  A name, number or Hall symbol is looked up by taking the
first entry whose row contains it, so a spelling shared by several settings
finds the first of them.  Alternative spellings that would catch the name of a
later setting are left out.  A Hall symbol that is the leading part of an
earlier entry's Hall symbol (P 2 in P 2y) finds that earlier entry.
"""


def generate(settings, version):
    entries = order_settings(settings)
    group_short = {}
    for s in entries:
        group_short.setdefault(s.number, s.short)
        if s.orthorhombic:
            # The axis permutation must turn the standard symbol into spglib's own.
            if permute_symbol(plain(group_short[s.number]), s.axes) != plain(s.short):
                raise ValueError("hall %d: %s is not %s in setting %s"
                                 % (s.hall, s.short, group_short[s.number], s.axes))
            if s.old_short:
                check_old_symbol(s)
        s.spellings = spellings(s, group_short[s.number])
    notes = resolve(entries)
    notes += hall_shadows(entries)

    lines = HEADER.format(version=version).rstrip("\n").split("\n")
    lines.append("DATA_START")
    for e in entries:
        if len(e.canonical) > MAX_SYMBOL:
            raise ValueError("canonical symbol %r too long" % e.canonical)
        hm = hm_row(e.spellings)
        if len(hm) > MAX_ROW:
            raise ValueError("H-M row of hall %d too long (%d)" % (e.hall, len(hm)))
        lines.append("# %d %s (hall %d)" % (e.number, e.canonical, e.hall))
        lines.append("%d" % e.number)
        lines.append("'%s'" % e.hall_symbol)
        lines.append(hm)
        lines.append("%d" % len(e.ops))
        for op in e.ops:
            if len(op) > MAX_OP:
                raise ValueError("operation %r too long" % op)
            lines.append(op)
    lines.append("DATA_END")
    body = lines[lines.index("DATA_START") + 1:]
    for row in body:
        if "#" in row and not row.startswith("# "):
            raise ValueError("stray hash sign in %r" % row)
    return "\n".join(lines) + "\n", notes


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--check", action="store_true",
                        help="compare with %s instead of writing it" % OUTPUT)
    parser.add_argument("--report", action="store_true",
                        help="list removed spellings and Hall symbols that meet an "
                             "earlier entry")
    parser.add_argument("--output", default=OUTPUT, help="file to write or check")
    args = parser.parse_args(argv)

    settings, version = load_settings()
    text, notes = generate(settings, version)
    if args.report:
        for note in notes:
            print(note)
    if args.check:
        try:
            with open(args.output, "r", encoding="ascii", newline="") as fh:
                current = fh.read()
        except (OSError, UnicodeDecodeError) as exc:
            print("cannot read %s: %s" % (args.output, exc), file=sys.stderr)
            return 1
        if current != text:
            print("%s differs from the generator output" % args.output, file=sys.stderr)
            return 1
        print("%s is up to date" % args.output)
        return 0
    os.makedirs(os.path.dirname(args.output), exist_ok=True)
    with open(args.output, "w", encoding="ascii", newline="\n") as fh:
        fh.write(text)
    print("wrote %s (%d entries)" % (args.output, len(settings)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
