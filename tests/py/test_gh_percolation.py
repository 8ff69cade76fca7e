"""Percolation barriers of --gh against exact answers and against the independent flood fill
of tools/cube_percolation.py (labelling plus periodic union-find, no code shared with the
program).

Landscapes E = sum_k A_k cos(4 pi f_k) have eight equal minima per cell and index-1 saddles
half way between them along each axis, so the 1D, 2D and 3D barriers are the sorted 2 A_k, in
any cell shape. Adding B sin(2 pi f_0) makes the sites unequal along axis 0: with s = sin(2 pi
f_0) the axis-0 term is A(1 - 2 s^2) + B s, minimal at s = -1 (f_0 = 3/4, -A - B) and s = 1
(f_0 = 1/4, -A + B), maximal at s = B / 4A (A + B^2 / 8A), so from the lowest site the axis-0
barrier is 2A + B + B^2 / 8A; B / 4A = 1/2 puts that maximum on the grid (f_0 = 1/12).
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "tools"))

import numpy as np  # noqa: E402

import cube_percolation  # noqa: E402
import gh_synthetic as syn  # noqa: E402
from quovix_testlib import EXE, ROOT  # noqa: E402

ORTHO = (6.0, 5.0, 4.5, 90.0, 90.0, 90.0)
TRICLINIC = (6.0, 5.0, 4.5, 80.0, 100.0, 95.0)
AMP = (0.3, 0.2, 0.45)


def flood(cube):
    en, _ = cube_percolation.read_cube(cube)
    lv = cube_percolation.percolation_levels(en)
    return [lv[d] - float(en.min()) for d in (1, 2, 3)]


class CosineLandscapes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="quovix-gh-")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def check(self, name, par, n, amp, expected, extra=None, period=2):
        cif, cube, _ = syn.cosine_case(self.dir, name, par, n, amp, extra, period)
        got, p = syn.run_gh(cif, cube, cwd=self.dir)
        self.assertEqual(p.stderr, "", name)
        for dim, want in zip(("1D", "2D", "3D"), expected):
            self.assertAlmostEqual(got[dim], want, delta=0.0015, msg=f"{name} {dim}")
        for dim, level in zip(("1D", "2D", "3D"), flood(cube)):
            self.assertAlmostEqual(got[dim], level, delta=0.0015, msg=f"{name} {dim} flood")
        return cif, cube

    def test_sorted_twice_amplitudes_in_orthogonal_and_triclinic_cells(self):
        want = sorted(2 * a for a in AMP)
        self.check("ortho", ORTHO, (24, 24, 24), AMP, want)
        self.check("triclinic", TRICLINIC, (24, 20, 16), AMP, want)

    def test_unequal_sites_along_one_axis(self):
        a0, b = 0.3, 0.6  # b / 4 a0 = 1/2
        extra = lambda F: b * np.sin(2 * np.pi * F[0])  # noqa: E731
        axis0 = 2 * a0 + b + b * b / (8 * a0)  # 1.35 eV
        self.check("unequal", ORTHO, (24, 24, 24), (a0, 0.2, 0.45),
                   sorted([axis0, 0.4, 0.9]), extra)

    def test_one_site_per_cell_percolates_like_the_conventional_cell(self):
        # the landscape of the orthogonal case above on a cell with one minimum
        prim = (3.0, 2.5, 2.25, 90.0, 90.0, 90.0)
        want = sorted(2 * a for a in AMP)
        self.check("primitive", prim, (12, 12, 12), AMP, want, period=1)

    def test_files_and_graph_render(self):
        cif, _ = self.check("files", ORTHO, (24, 24, 24), AMP, sorted(2 * a for a in AMP))
        for suffix in (".gh.cif", ".gh.txt", ".gh.dot", ".gh.1d.cif", ".gh.2d.cif",
                       ".gh.3d.cif", ".gh.0d.cif", ".gh.1d.profile.csv"):
            self.assertTrue(os.path.exists(cif + suffix), suffix)
        profile = np.genfromtxt(cif + ".gh.1d.profile.csv", delimiter=",", names=True,
                                dtype=None, encoding=None)
        # the 1D path runs along b (5 A) over two hops of 0.4 eV
        self.assertAlmostEqual(float(profile["distance_A"][-1]), 5.0, places=3)
        self.assertAlmostEqual(float(profile["energy_eV"].max()), 0.4, places=3)
        dot = shutil.which("dot")
        if dot:
            r = subprocess.run([dot, "-Tsvg", cif + ".gh.dot"], capture_output=True)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertIn(b"<svg", r.stdout)

    def test_filter_that_removes_every_hop_gives_no_network(self):
        cif, cube, _ = syn.cosine_case(self.dir, "filtered", ORTHO, (24, 24, 24), AMP)
        p = subprocess.run([EXE, "--gh", cif, cube, "Li", "1", "0.1"], capture_output=True,
                           text=True, cwd=self.dir)
        self.assertEqual(p.stderr, "")
        for dim in ("1D", "2D", "3D", "loop"):
            self.assertIn(f"e_{dim} = -1.000", p.stdout)
        for suffix in (".gh.1d.cif", ".gh.2d.cif", ".gh.3d.cif", ".gh.1d.profile.csv"):
            self.assertFalse(os.path.exists(cif + suffix), suffix)

    def test_bad_inputs_fail_cleanly(self):
        cif, cube, _ = syn.cosine_case(self.dir, "bad", ORTHO, (24, 24, 24), AMP)
        other, _, _ = syn.cosine_case(self.dir, "other", TRICLINIC, (24, 24, 24), AMP)
        flat = os.path.join(self.dir, "flat.cube")
        syn.write_cube(flat, np.zeros((12, 12, 12)), syn.lattice(ORTHO))
        cases = {
            "cell mismatch": ([other, cube, "Li", "1"], "does not match the grid"),
            "absent species": ([cif, cube, "Na", "1"], "Error: no Na1+ atom in"),
            "no saddle": ([cif, flat, "Li", "1"], "quovix_fphalf_list_filter() returns"),
            "bad os": ([cif, cube, "Li", "x"], "Error: wrong parameter os."),
        }
        for what, (args, message) in cases.items():
            p = subprocess.run([EXE, "--gh"] + args, capture_output=True, text=True,
                               cwd=self.dir)
            self.assertIn(message, p.stderr, what)
            self.assertNotIn("QUOVIX_GRAPH_NETWORK: e_1D", p.stdout, what)


class RealStructures(unittest.TestCase):
    """Coarse landscapes (0.3 A) of real structures: --gh agrees with the flood fill where the
    lowest site lies on the percolating network, and olivine LiFePO4 conducts along b."""

    def test_lifepo4_and_flood_fill(self):
        with tempfile.TemporaryDirectory(prefix="quovix-gh-real-") as d:
            src = os.path.join(ROOT, "tests", "data", "LiFePO4_olivine_P1.cif")
            cif = os.path.join(d, "LiFePO4.cif")
            shutil.copy(src, cif)
            subprocess.run([EXE, "--gen-cube", cif, "Li", "1", "-1", "0.3"], check=True,
                           capture_output=True, cwd=d)
            cube = os.path.join(d, "LiFePO4.cube")
            got, p = syn.run_gh(cif, cube, cwd=d)
            self.assertEqual(p.stderr, "")
            self.assertLess(got["1D"], 1.0)
            self.assertGreater(got["2D"], got["1D"] + 3.0)
            for dim, level in zip(("1D", "2D", "3D"), flood(cube)):
                self.assertAlmostEqual(got[dim], level, delta=0.0015, msg=dim)

    def test_primitive_rock_salt_conducts_like_the_conventional_cell(self):
        # one Na+ per primitive cell: every hop leads to the site's own image. The two grids
        # differ (the primitive one holds half the points of the conventional one), so the
        # barriers agree to the grid resolution; each agrees with the flood fill exactly.
        prim = (5.62 / 2 ** 0.5,) * 3 + (60.0,) * 3
        with tempfile.TemporaryDirectory(prefix="quovix-gh-nacl-") as d:
            got = {}
            for name in ("prim", "conv"):
                cif = os.path.join(d, name + ".cif")
                if name == "conv":
                    shutil.copy(os.path.join(ROOT, "tests", "data", "NaCl_rocksalt.cif"), cif)
                else:
                    syn.write_cif(cif, prim, [], [])
                    text = open(cif).read().replace("Li1+ 1.000", "Na1+ 1.000")
                    text = text.replace("O2- -2.000", "Cl1- -1.000")
                    text += "  Na1 Na1+ 0.0 0.0 0.0 1.0\n  Cl1 Cl1- 0.5 0.5 0.5 1.0\n"
                    open(cif, "w").write(text)
                subprocess.run([EXE, "--gen-cube", cif, "Na", "1", "0.75", "0.2"], check=True,
                               capture_output=True, cwd=d)
                cube = os.path.join(d, name + ".cube")
                got[name], p = syn.run_gh(cif, cube, ion="Na", cwd=d)
                self.assertEqual(p.stderr, "", name)
                for dim, level in zip(("1D", "2D", "3D"), flood(cube)):
                    self.assertAlmostEqual(got[name][dim], level, delta=0.0015, msg=name + dim)
            for dim in ("1D", "2D", "3D"):
                self.assertGreater(got["prim"][dim], 0.5)
                self.assertAlmostEqual(got["prim"][dim], got["conv"][dim], delta=0.03, msg=dim)


if __name__ == "__main__":
    unittest.main()
