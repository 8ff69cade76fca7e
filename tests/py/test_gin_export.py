"""GULP export checked by an independent reader of GULP's input rules (GULP 6.x: labels, line
length, line ends, numbers per potential line, flags mode, neutrality, time units), and the
written potentials evaluated at sample distances against the program's own energies of the same
pairs (--cal-tot-en on cells holding one pair in a 30 A box)."""
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile

from quovix_testlib import EXE, ROOT

LABEL = re.compile(r"^[A-Z][a-z]?[0-9]{1,3}$")
RESERVED = ("stop", "run", "star", "inc")
COUNTS = {"species": 1, "morse": 6, "qerfc": 2, "manybody": 2, "eam_density": 3,
          "eam_functional": 1}
COULOMB, GULP_COULOMB = 14.39964, 14.3997584


def is_number(tok):
    return bool(re.match(r"^[-+]?(\d|\.\d)", tok)) and sum(c.isalpha() for c in tok) <= 1


def check(text, deck):
    """Faults of a library (deck=False) or an input deck by the parser rules; [] if none."""
    faults, block, potentials = [], None, {}
    lines = text.split("\n")
    if "\r" in text:
        faults.append("CR line end")
    body = [l for l in lines if l.strip() and not l.startswith("#")]
    keywords = body[0].split() if deck else []
    flags_mode = deck and "md" in keywords and not {"conv", "conp", "cellonly", "noflags"} & set(
        keywords)
    charges, atoms = {}, []
    for n, line in enumerate(lines):
        if len(line) > 80:
            faults.append(f"line {n + 1} longer than 80 characters")
        words = line.split("#")[0].split()
        if not words:
            continue
        if words[0].lower().startswith(RESERVED) or "help" in words[0].lower():
            faults.append(f"line {n + 1} starts with a reserved word")
        if any(w.lower() in ("nan", "inf", "-nan", "-inf") for w in words):
            faults.append(f"line {n + 1}: not a number")
        if deck and n == 0:
            continue
        if len(words) > 1 and words[1] == "core":
            if not LABEL.match(words[0]):
                faults.append(f"line {n + 1}: bad label {words[0]}")
                continue
            nums = [w for w in words if is_number(w)]
            if block == "fractional":
                want = 6 if flags_mode else 3
                if len(nums) != want or (flags_mode and not all(x in "01" for x in nums[3:])):
                    faults.append(f"line {n + 1}: coordinates/flags")
                atoms.append(words[0])
                continue
            if len(words) > 3 and not is_number(words[2]) and (
                    not LABEL.match(words[2]) or words[3] != "core"):
                faults.append(f"line {n + 1}: second atom must be 'label core'")
            want = COUNTS.get(block)
            if want is None:
                faults.append(f"line {n + 1}: atom line outside a known block")
            elif len(nums) != want:
                faults.append(f"line {n + 1}: {len(nums)} numbers in {block}, want {want}")
            if block == "species":
                charges[words[0]] = float(nums[0])
            else:
                potentials.setdefault(block, []).append(
                    (words[0], words[2] if len(words) > 3 and words[3] == "core" else None,
                     [float(x) for x in nums]))
            continue
        block = words[0]
        if deck and block == "cell":
            continue
        if deck and re.match(r"^[-\d.]", words[0]) and lines[n - 1].strip() == "cell":
            if flags_mode and (len(words) != 12 or words[6:] != ["0"] * 6):
                faults.append("cell line without six strain flags")
        if block in ("timestep", "equilibration", "production", "sample", "write"):
            if words[-1] != "ps":
                faults.append(f"line {n + 1}: time without ps")
    if deck:
        total = sum(charges.get(a, float("nan")) for a in atoms)
        if not abs(total) < 1e-4:
            faults.append(f"cell charge {total}")
    return faults, charges, potentials, atoms


def run(args, cwd):
    return subprocess.run([EXE, *args], capture_output=True, text=True, cwd=cwd)


def energy(cwd, atoms, sf, what="interatomic"):
    """--cal-tot-en of a 30 A cubic P1 cell holding the given (label, type, x, y, z in A)."""
    rows = "\n".join(f"{l} {t} 1.0 {x / 30:.10f} {y / 30:.10f} {z / 30:.10f}"
                     for l, t, x, y, z in atoms)
    cif = ("data_pair\n_cell_length_a 30\n_cell_length_b 30\n_cell_length_c 30\n"
           "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n"
           "_symmetry_space_group_name_H-M 'P 1'\nloop_\n_symmetry_equiv_pos_as_xyz\n'x, y, z'\n"
           "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_occupancy\n"
           "_atom_site_fract_x\n_atom_site_fract_y\n_atom_site_fract_z\n" + rows + "\n")
    with open(os.path.join(cwd, "pair.cif"), "w") as f:
        f.write(cif)
    out = run(["--cal-tot-en", "pair.cif", str(sf)], cwd).stdout
    m = re.search(what + r" energy = (\S+) eV", out)
    return float(m.group(1)) if m else 0.0


def main():
    failures = []

    def expect(cond, what):
        if not cond:
            failures.append(what)

    tmp = tempfile.mkdtemp()
    try:
        for name in ("NaCl_rocksalt.cif", "LiFePO4_olivine_P1.cif", "Li10GeP2S12_LGPS.cif"):
            shutil.copy(os.path.join(ROOT, "tests", "data", name), tmp)
        # The checker itself rejects what GULP would misread.
        good = "species\nLi1   core 1.0\nmorse ener\nLi1 core O1 core 1 2 2 0.0 0.0 6\n"
        expect(not check(good, False)[0], "checker refuses a good library")
        for bad in (good.replace("Li1 ", "Li1+ "), good.replace("0.0 0.0 6", "0.0 6"),
                    good.replace("\n", "\r\n"), good + "# " + "x" * 80 + "\n"):
            expect(check(bad, False)[0], f"checker accepts a faulty library: {bad!r}")

        # Morse and screened Coulomb of NaCl against the program's pair energies.
        sf = 0.75
        run(["--gen-gin-lib", "NaCl_rocksalt.cif", str(sf)], tmp)
        lib = open(os.path.join(tmp, "NaCl_rocksalt.lib")).read()
        faults, charges, pots, _ = check(lib, False)
        expect(not faults, f"NaCl library: {faults}")
        (cat, an, (de, a, r0, _, _, rcut)), = pots["morse"]
        morse = lambda r: de * ((math.exp(a * (r0 - r)) - 1) ** 2 - 1)
        for d in (2.2, 2.7, 3.5, 5.0):
            want = energy(tmp, [("Na1", "Na1+", 0, 0, 0), ("Cl1", "Cl1-", d, 0, 0)], sf)
            got = morse(d) - morse(rcut)
            expect(abs(got - want) < 2e-6, f"morse at {d}: lib {got:.6f}, program {want:.6f}")
        rho = {p[0]: p[2][0] for p in pots["qerfc"]}["Na1"]
        q = charges["Na1"]
        far = [("Cl1", "Cl1-", 15, 15, 15), ("Cl2", "Cl1-", 15, 15, 0)]
        e = {d: energy(tmp, [("Na1", "Na1+", 0, 0, 0), ("Na2", "Na1+", d, 0, 0)] + far, sf)
             for d in (2.5, 3.0, 4.0, 6.0)}
        qerfc = lambda r: GULP_COULOMB * q * q * math.erfc(r / rho) / r
        for d in (2.5, 3.0, 4.0):  # differences: the program shifts by its value at 10 A
            got, want = qerfc(d) - qerfc(6.0), e[d] - e[6.0]
            expect(abs(got - want) < 2e-6 + 1e-5 * abs(want),
                   f"qerfc at {d}: lib {got:.6f}, program {want:.6f}")

        # Embedding: square-root functional of the exponential density, at the same distances.
        run(["--gen-gin-eam", "NaCl_rocksalt.cif", str(sf), "eam.lib"], tmp)
        eam = open(os.path.join(tmp, "eam.lib")).read()
        faults, _, pots, _ = check(eam, False)
        expect(not faults, f"EAM library: {faults}")
        (_, _, (c, b_inv, big_r0)), = pots["eam_density"]
        (_, _, (_, r_cut)), = pots["manybody"]
        amp = {p[0]: p[2][0] for p in pots["eam_functional"]}
        density = lambda r: c * math.exp(-b_inv * (r - big_r0))
        for d in (2.4, 2.8, 3.4):
            want = energy(tmp, [("Na1", "Na1+", 0, 0, 0), ("Cl1", "Cl1-", d, 0, 0)], sf, "eam")
            # The program fades each bond's density to 0 at the cut-off, which GULP's density
            # cannot: with that shift the written parameters give the program's energy; without
            # it (what GULP computes) they differ by the shift alone.
            shifted = -(amp["Na1"] + amp["Cl1"]) * math.sqrt(density(d) - density(r_cut))
            plain = -(amp["Na1"] + amp["Cl1"]) * math.sqrt(density(d))
            expect(abs(shifted - want) < 2e-6, f"eam at {d}: {shifted:.6f} vs {want:.6f}")
            expect(abs(plain - want) < 0.01 * abs(want), f"eam shift at {d}: {plain} vs {want}")

        # A deck holds every atom of the cell, moves only the mobile ions, is neutral.
        out = run(["--gen-gin", "LiFePO4_olivine_P1.cif", "Li", "1", "-1", "600", "5"], tmp)
        deck = open(os.path.join(tmp, "LiFePO4_olivine_P1.gin")).read()
        faults, _, _, atoms = check(deck, True)
        expect(not faults, f"LiFePO4 deck: {faults}")
        expect(len(atoms) == 28, f"{len(atoms)} atoms in the deck, the cell has 28")
        moving = [l for l in deck.splitlines() if l.endswith(" 1 1 1")]
        expect(len(moving) == 4 and all(l.startswith("Li") for l in moving), "mobile flags")
        expect("production 5.000000 ps" in deck and "temperature 600.000" in deck, "MD options")

        # Partial occupancy: a clear error and no deck.
        out = run(["--gen-gin", "Li10GeP2S12_LGPS.cif", "Li", "1"], tmp)
        expect("occupancy" in out.stderr and not os.path.exists(
            os.path.join(tmp, "Li10GeP2S12_LGPS.gin")), "partial occupancy not refused")
    finally:
        shutil.rmtree(tmp)
    for f in failures:
        print("FAIL", f)
    print(f"{0 if failures else 1} passed, {1 if failures else 0} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
