#!/usr/bin/python3
"""Percolation barriers of the mobile ions of the shared structures: --gen-cube at a given
resolution, then --gh, next to the independent flood fill of tools/cube_percolation.py.

    /usr/bin/python3 bench/gh_barriers.py build/release/quovix.x WORKDIR [resolution]

prints a Markdown table (barriers in eV; "-" where no network exists) and the wall time of
--gh per structure.
"""
import os
import re
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "tools"))
import cube_percolation  # noqa: E402

CASES = [
    ("Ag7PSe6_argyrodite.cif", "Ag", 1), ("Cu17S9_digenite_rhombohedral.cif", "Cu", 1),
    ("CuCrP2Se6_HM_only.cif", "Cu", 1), ("Ferrierite_Na_zeolite.cif", "Na", 1),
    ("Li10GeP2S12_LGPS.cif", "Li", 1), ("Li2O_antifluorite_primitive_P1.cif", "Li", 1),
    ("Li4B7O12Cl_boracite.cif", "Li", 1), ("Li6PS5Cl_argyrodite.cif", "Li", 1),
    ("Li7B7Se15.cif", "Li", 1), ("Li8Fe2NiCoO8_P1.cif", "Li", 1),
    ("LiCoO2_layered.cif", "Li", 1), ("LiFePO4_olivine_P1.cif", "Li", 1),
    ("LiMn2O4_spinel_P1.cif", "Li", 1), ("LiMnO2_mp-18767.cif", "Li", 1),
    ("Na0.8CoO2_P63mmc.cif", "Na", 1), ("Na3PS4_cubic_2x2x2_P1.cif", "Na", 1),
    ("NaCl_rocksalt.cif", "Na", 1),
]
LINE = re.compile(r"e_(1D|2D|3D) = +(-?[0-9.]+)")


def main(argv):
    exe, work = os.path.abspath(argv[1]), argv[2]
    res = argv[3] if len(argv) > 3 else "0.2"
    src = os.environ.get("QUOVIX_CIFS", "/work/shared/cifs")
    os.makedirs(work, exist_ok=True)
    print("| Structure | ion | grid | --gh 1D | 2D | 3D | flood 1D | 2D | 3D | --gh time |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for name, ion, os_ in CASES:
        cif = os.path.join(work, name)
        shutil.copy(os.path.join(src, name), cif)
        cube = cif[:-4] + ".cube"
        g = subprocess.run([exe, "--gen-cube", cif, ion, str(os_), "-1", res],
                           capture_output=True, text=True, cwd=work)
        if not os.path.exists(cube):
            print(f"| {name[:-4]} | {ion}{os_}+ | no cube | {g.stderr.strip()[:60]} |")
            continue
        t0 = time.time()
        p = subprocess.run([exe, "--gh", cif, cube, ion, str(os_)], capture_output=True,
                           text=True, cwd=work)
        dt = time.time() - t0
        got = dict(LINE.findall(p.stdout))
        en, _ = cube_percolation.read_cube(cube)
        lv = cube_percolation.percolation_levels(en)
        e0 = float(en.min())
        fl = ["%.3f" % (lv[d] - e0) if lv[d] is not None else "-" for d in (1, 2, 3)]
        gh = [got.get(k, "err") for k in ("1D", "2D", "3D")]
        gh = ["-" if v == "-1.000" else v for v in gh]
        n = "x".join(str(x) for x in en.shape)
        print(f"| {name[:-4]} | {ion}{os_}+ | {n} | " + " | ".join(gh) + " | " +
              " | ".join(fl) + f" | {dt:.2f} s |", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
