#!/usr/bin/python3
"""Bond valence sums of quovix.x checked against an independent computation.

Each structure of tests/data is read with pymatgen's CIF parser (its own symmetry expansion and
periodic neighbour search), species get their oxidation states from the CIF or, when it gives
none, the default state of the element in data/database_unitary.dat, and the bond valence sums
are computed here from data/database_binary.dat:

    s = exp((R0 - d) / b) * occ(neighbour),  0.2 A <= d < cutoff, cation-anion pairs only,
    b = 2/3 * <b_old(cation, anion of atom k)>_k + 1/3 * b_old(cation, anion),

the average running over all anion atoms k of the cell weighted by occupancy. Every site that
quovix.x prints (--cal-bv for species, --cal-bv-gui for positions) must agree within 1e-4 v.u.
Structures that quovix.x or pymatgen cannot read are listed and skipped; at least the ordered
structures named in REQUIRED must be compared. A pair without parameters is a failure.
Exit status 0 when everything agrees. The sums under assigned states (--gen-cif-os) are the
bond valence module's sums of the assigned cell (unit test OxidationStates.SumsAgreeWith-
TheBondValenceModule), so the sums checked here cover them.
"""
import math
import os
import re
import subprocess
import sys
import warnings

warnings.filterwarnings("ignore")
from pymatgen.io.cif import CifParser  # noqa: E402

sys.dont_write_bytecode = True  # importing the shared module leaves no cache in tests/
from quovix_testlib import ROOT, data_words  # noqa: E402

DATA = os.path.join(ROOT, "data")
CIFS = os.path.join(ROOT, "tests", "data")
TOLERANCE = 1e-4
REQUIRED = ["NaCl_rocksalt.cif", "Li2O_antifluorite_primitive_P1.cif", "CaTiO3_cubic.cif",
            "TiO2_rutile.cif", "Fe3O4_P1.cif", "LiFePO4_olivine_P1.cif", "LiCoO2_layered.cif",
            "La2Zr2O7_pyrochlore_origin1.cif", "Na3PS4_cubic_2x2x2_P1.cif",
            "Ag7PSe6_argyrodite.cif", "LiMnO2_mp-18767.cif", "LiMn2O4_spinel_P1.cif"]

def read_parameters():
    default_os = {}
    for w in data_words(os.path.join(DATA, "database_unitary.dat")):
        if len(w) >= 4 and w[1] not in default_os:
            default_os[w[1]] = int(w[3])
    pairs = {}
    for w in data_words(os.path.join(DATA, "database_binary.dat")):
        if len(w) >= 8:
            key = (w[0], int(w[1]), w[2], int(w[3]))
            if key not in pairs:
                pairs[key] = (float(w[4]), float(w[5]), float(w[7]))  # R0, b, cutoff
    return default_os, pairs


def species_entries(structure, default_os):
    """(element, os, occ) of every site, splitting non-integer states as the CIF reader does."""
    entries = []
    for site in structure:
        here = []
        for sp, occ in site.species.items():
            symbol = sp.symbol
            ox = getattr(sp, "oxi_state", None)
            if ox is None:
                here.append((symbol, default_os.get(symbol), occ))
            elif abs(ox - round(ox)) > 0.1:  # mixed valence: two species sharing the site
                lo, hi = math.floor(ox), math.ceil(ox)
                here.append((symbol, hi, occ * (ox - lo) / (hi - lo)))
                here.append((symbol, lo, occ * (hi - ox) / (hi - lo)))
            else:
                here.append((symbol, int(round(ox)), occ))
        entries.append(here)
    return entries


def quovix_sites(exe, cif):
    """[(name, element, os, frac(3), sum)] from --cal-bv and --cal-bv-gui, or None."""
    out = subprocess.run([exe, "--cal-bv", cif], capture_output=True, text=True).stdout
    species = []
    for line in out.splitlines():
        m = re.match(r"BV: +(\S+) +([A-Za-z]+)(\d+)([+-]) +([-\d.]+) +([-\d.]+)$", line)
        if m:
            os_ = int(m.group(3))
            if m.group(4) == "-":
                os_ = -os_
            species.append((m.group(1), m.group(2), os_))
    gui = subprocess.run([exe, "--cal-bv-gui", cif], capture_output=True, text=True).stdout
    sites = []
    for line in gui.splitlines():
        m = re.match(r"> +(\S+) \[([-\d.]+) ([-\d.]+) ([-\d.]+)\] : ([-\d.]+)$", line)
        if m:
            sites.append((m.group(1), [float(m.group(k)) for k in (2, 3, 4)], float(m.group(5))))
    if not sites or len(sites) != len(species):
        return None
    return [(sp[0], sp[1], sp[2], s[1], s[2]) for sp, s in zip(species, sites)]


def independent_sums(structure, entries, pairs):
    """Function (site index, entry) -> bond valence sum, or raises KeyError for missing data."""
    anion_atoms = [(el, ox, occ) for here in entries for (el, ox, occ) in here if ox < 0]

    def b_old(cat, an):
        return pairs[(cat[0], cat[1], an[0], an[1])][1]

    eff_b = {}

    def effective_b(cat, an):
        key = (cat, an)
        if key not in eff_b:
            num = sum(occ * b_old(cat, (el, ox)) for el, ox, occ in anion_atoms)
            den = sum(occ for _, _, occ in anion_atoms)
            w = 0.6666666666666666
            eff_b[key] = w * (num / den) + (1.0 - w) * b_old(cat, an)
        return eff_b[key]

    present = {(el, ox) for here in entries for (el, ox, _) in here}
    rmax = max((pairs.get((c[0], c[1], a[0], a[1]), (0, 0, 0))[2]
                for c in present for a in present if c[1] > 0 and a[1] < 0), default=0.0)

    def bvs(index, entry):
        el, ox, _ = entry
        if ox == 0 or rmax <= 0.0:
            return 0.0
        total = 0.0
        centre = structure[index].coords
        for nb in structure.get_sites_in_sphere(centre, rmax):
            d = nb.nn_distance
            j = nb.index
            for el2, ox2, occ2 in entries[j]:
                if ox * ox2 >= 0:
                    continue
                cat, an = ((el, ox), (el2, ox2)) if ox > 0 else ((el2, ox2), (el, ox))
                r0, _, cutoff = pairs[(cat[0], cat[1], an[0], an[1])]
                if cutoff <= 0.2 or not (0.2 <= d < cutoff):
                    continue
                s = math.exp((r0 - d) / effective_b(cat, an)) * occ2
                total += s if ox > 0 else -s
        return total

    return bvs


def frac_match(a, b, tol=1.5e-3):
    for x, y in zip(a, b):
        d = abs((x - y) % 1.0)
        if min(d, 1.0 - d) > tol:
            return False
    return True


def main():
    exe = os.environ.get("QUOVIX_EXE")
    if not exe or not os.path.exists(exe):
        print("QUOVIX_EXE does not point at quovix.x")
        return 1
    default_os, pairs = read_parameters()
    failures, compared, skipped = [], [], []
    worst = 0.0
    for name in sorted(os.listdir(CIFS)):
        if not name.endswith(".cif"):
            continue
        path = os.path.join(CIFS, name)
        sites = quovix_sites(exe, path)
        if sites is None:
            skipped.append((name, "quovix.x gives no sums"))
            continue
        try:
            structure = CifParser(path).get_structures(primitive=False)[0]
        except Exception as e:  # noqa: BLE001
            skipped.append((name, "pymatgen: %s" % str(e)[:40]))
            continue
        entries = species_entries(structure, default_os)
        try:
            bvs = independent_sums(structure, entries, pairs)
            n_checked = 0
            for qname, el, ox, frac, qsum in sites:
                cands = [(i, e) for i, site in enumerate(structure)
                         if frac_match(site.frac_coords, frac)
                         for e in entries[i] if e[0] == el and e[1] == ox]
                if not cands:
                    failures.append("%s: site %s (%s%d) not found by pymatgen" % (name, qname, el, ox))
                    continue
                i, e = cands[0]
                mine = bvs(i, e)
                diff = abs(mine - qsum)
                worst = max(worst, diff)
                n_checked += 1
                if diff > TOLERANCE:
                    failures.append("%s: site %s %s%d quovix %.6f independent %.6f" %
                                    (name, qname, el, ox, qsum, mine))
            compared.append((name, n_checked, structure.is_ordered))
        except KeyError as e:  # the parameter files must cover every test structure
            failures.append("%s: no parameters for %s" % (name, e))
    for name, n, ordered in compared:
        print("compared %-40s %3d sites%s" % (name, n, "" if ordered else " (partial occupancy)"))
    for name, why in skipped:
        print("skipped  %-40s %s" % (name, why))
    print("largest difference %.2e v.u." % worst)
    missing = [r for r in REQUIRED if r not in [c[0] for c in compared]]
    for r in missing:
        failures.append("%s was not compared" % r)
    for f in failures:
        print("FAIL " + f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
