"""The climbing-image barrier of one Li+ hop in Li2O (tetrahedral site to the octahedral
interstitial, only O2- and the moving ion in the cell) against the migration graph of the Li+
landscape of the same frame: the saddle and site energies that --gh reads off the grid must
match --rx-neb within the grid's resolution."""
import csv
import os
import re
import subprocess
import sys
import tempfile

from quovix_testlib import EXE

A = 4.6114
O_SITES = [(0, 0, 0), (0, 0.5, 0.5), (0.5, 0, 0.5), (0.5, 0.5, 0)]
LI_SITES = [(x, y, z) for x in (0.25, 0.75) for y in (0.25, 0.75) for z in (0.25, 0.75)]


def write_cif(path, li):
    rows = [f"O{k + 1} O2- 1.0 {x} {y} {z}" for k, (x, y, z) in enumerate(O_SITES)]
    rows += [f"Li{k + 1} Li1+ 1.0 {x} {y} {z}" for k, (x, y, z) in enumerate(li)]
    with open(path, "w") as f:
        f.write(f"data_li2o\n_cell_length_a {A}\n_cell_length_b {A}\n_cell_length_c {A}\n"
                "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n"
                "_symmetry_space_group_name_H-M 'P 1'\nloop_\n_symmetry_equiv_pos_as_xyz\n"
                "'x, y, z'\nloop_\n_atom_site_label\n_atom_site_type_symbol\n"
                "_atom_site_occupancy\n_atom_site_fract_x\n_atom_site_fract_y\n"
                "_atom_site_fract_z\n" + "\n".join(rows) + "\n")


def run(args, cwd):
    return subprocess.run([EXE, *args], capture_output=True, text=True, cwd=cwd)


def main():
    with tempfile.TemporaryDirectory() as tmp:
        write_cif(os.path.join(tmp, "li2o.cif"), LI_SITES)
        run(["--gen-cube", "li2o.cif", "Li", "1", "0.75", "0.1"], tmp)
        run(["--gh", "li2o.cif", "li2o.cube", "Li", "1"], tmp)
        with open(os.path.join(tmp, "li2o.cif.gh.1d.profile.csv")) as f:
            rows = [[c.strip() for c in r] for r in csv.reader(f)][1:]
        # cycle, hop, distance, energy, point: octahedral sites ("Li_i..."), tetrahedral sites
        # ("Li<n>") and saddles along the path that sets the 1D barrier.
        oct_e = min(float(r[3]) for r in rows if r[4].startswith("Li_i"))
        tet_e = min(float(r[3]) for r in rows if re.fullmatch(r"Li\d+", r[4]))
        saddle_e = min(float(r[3]) for r in rows if r[4] == "saddle")
        gh_barrier, gh_step = saddle_e - tet_e, oct_e - tet_e

        write_cif(os.path.join(tmp, "tet.cif"), [(0.25, 0.25, 0.25)])
        write_cif(os.path.join(tmp, "oct.cif"), [(0.5, 0.5, 0.5)])
        out = run(["--rx-neb", "tet.cif", "oct.cif", "Li", "1", "7", "0.75", "300"], tmp).stdout
        neb_barrier = float(re.search(r"NEB: barrier = (\S+) eV", out).group(1))
        with open(os.path.join(tmp, "tet.neb.csv")) as f:
            neb_step = float(list(csv.reader(f))[-1][3])
    print(f"tet -> oct barrier: --gh {gh_barrier:.4f} eV, --rx-neb {neb_barrier:.4f} eV")
    print(f"oct - tet energy:   --gh {gh_step:.4f} eV, --rx-neb {neb_step:.4f} eV")
    ok = abs(gh_barrier - neb_barrier) < 0.015 and abs(gh_step - neb_step) < 0.01
    print(f"{int(ok)} passed, {int(not ok)} failed")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
