"""Coordination numbers of --cal-cn-gui (bond valence) and --cal-cn (distance shell) against an
independent neighbour analysis: pymatgen's CrystalNN (solid angles of the Voronoi cell, no bond
valences), on ordered structures of tests/data. Every cation site must agree."""
import os
import re
import subprocess
import sys
import tempfile
import warnings

from quovix_testlib import EXE, ROOT

warnings.filterwarnings("ignore")
try:
    from pymatgen.analysis.local_env import CrystalNN
    from pymatgen.core import Structure
except ImportError:
    print("SKIP: python3-pymatgen is not installed")
    sys.exit(0)

FILES = ["NaCl_rocksalt.cif", "KCl_rocksalt.cif", "Li2O_antifluorite_primitive_P1.cif",
         "TiO2_rutile.cif", "CaTiO3_cubic.cif", "SrTiO3_perovskite.cif", "Al2O3_corundum.cif",
         "LiFePO4_olivine_P1.cif", "LiCoO2_layered.cif", "LiMn2O4_spinel_P1.cif"]
ANIONS = {"O", "S", "Se", "F", "Cl", "Br", "I", "N"}
ROW = re.compile(r">\s*(\S+) \[([-\d.]+) ([-\d.]+) ([-\d.]+)\] : (\d+) ([\d.]+)")


def run(*args, cwd):
    return subprocess.run([EXE, *args], capture_output=True, text=True, cwd=cwd).stdout


def main():
    failures, checked = [], 0
    cnn = CrystalNN()
    with tempfile.TemporaryDirectory() as tmp:
        for name in FILES:
            src = os.path.join(ROOT, "tests", "data", name)
            structure = Structure.from_file(src)
            with open(src, "rb") as f, open(os.path.join(tmp, name), "wb") as g:
                g.write(f.read())
            rows = ROW.findall(run("--cal-cn-gui", name, cwd=tmp))
            labels = [r[0] for r in rows]
            for label, x, y, z, cn_bv, _ in rows:
                frac = [float(x), float(y), float(z)]
                site = min(range(len(structure)), key=lambda i: structure.lattice.
                           get_distance_and_image(structure[i].frac_coords, frac)[0])
                element = structure[site].specie.symbol
                if element in ANIONS:
                    continue
                want = cnn.get_cn(structure, site)
                shell = None
                if labels.count(label) == 1:  # --cal-cn names a site by its label
                    shell = re.search(r"coordination number = (\d+)",
                                      run("--cal-cn", name, label, cwd=tmp))
                checked += 1
                got = (int(cn_bv), int(shell.group(1)) if shell else want)
                if got != (want, want):
                    failures.append(f"{name} {label}: bond valence {got[0]}, shell {got[1]}, "
                                    f"CrystalNN {want}")
    print(f"{checked} cation sites compared")
    for f in failures:
        print("FAIL", f)
    print(f"{checked - len(failures)} passed, {len(failures)} failed")
    return 1 if failures or checked < 20 else 0


if __name__ == "__main__":
    sys.exit(main())
