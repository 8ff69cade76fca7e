#!/usr/bin/python3
"""Result files survive what a shared cluster does to a run.

1. kill -9 at random moments of a 25 MB cube write: the file under the name is always either
   the previous result or the complete new one (same bytes as an undisturbed run).
2. Several runs writing one cube name at once: the file is one run's complete result.
3. Under partial occupancy, concurrent runs write the landscape and the CIF of the supercell it
   was computed on (a slow and a fast run overlapping): the Mg positions in the cube header and in "<name>_assigned.cif" must be
   the same set after every round (a mismatch means the pair came from two runs).
"""
import hashlib
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

sys.dont_write_bytecode = True
from quovix_testlib import EXE, ROOT, cube_lines, read_cif_sites, fractional

DATA = os.path.join(ROOT, "tests", "data")
BOHR = 1.889725989
failures = []


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def run(args, cwd):
    return subprocess.run([EXE] + args, cwd=cwd, capture_output=True, text=True)


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL:", what)


def kill_during_write(work):
    shutil.copy(os.path.join(DATA, "NaCl_rocksalt.cif"), work)
    args = ["--gen-cube", "NaCl_rocksalt.cif", "Na", "1", "-1"]
    run(args + ["0.05", "t", "t", "f", "new.cube"], work)
    new = digest(os.path.join(work, "new.cube"))
    run(args + ["0.2", "t", "t", "f", "out.cube"], work)
    old = digest(os.path.join(work, "out.cube"))
    rng = random.Random(11)
    seen = set()
    for _ in range(3):
        p = subprocess.Popen([EXE] + args + ["0.05", "t", "t", "f", "out.cube"], cwd=work,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(rng.uniform(0.2, 2.0))
        p.kill()
        p.wait()
        now = digest(os.path.join(work, "out.cube"))
        check(now in (old, new), "kill -9 left a cube that is neither the old nor the new one")
        seen.add("old" if now == old else "new")
        old = now
    print("kill -9 rounds ended with:", sorted(seen))


def concurrent_writers(work):
    shutil.copy(os.path.join(DATA, "NaCl_rocksalt.cif"), work)
    args = ["--gen-cube", "NaCl_rocksalt.cif", "Na", "1", "-1", "0.1", "t", "t", "f"]
    run(args + ["ref.cube"], work)
    ref = digest(os.path.join(work, "ref.cube"))
    procs = [subprocess.Popen([EXE] + args + ["same.cube"], cwd=work, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True) for _ in range(4)]
    outs = [p.communicate()[0] for p in procs]
    check(all("cube file saved to same.cube" in o for o in outs), "a concurrent run failed")
    check(digest(os.path.join(work, "same.cube")) == ref, "concurrent writers mixed one cube")
    left = [f for f in os.listdir(work) if ".tmp-" in f]
    check(not left, "temporary files left behind: %s" % left)


def mg_positions_cube(path):
    lines = cube_lines(path)
    natom = int(lines[2].split()[0])
    vec = np.array([[float(x) for x in lines[3 + k].split()[1:4]] for k in range(3)])
    counts = [int(lines[3 + k].split()[0]) for k in range(3)]
    lat = vec * np.array(counts)[:, None] / BOHR
    pos = []
    for line in lines[6:6 + natom]:
        w = line.split()
        if int(w[0]) == 12:
            cart = np.array([float(x) for x in w[2:5]]) / BOHR
            pos.append(np.linalg.solve(lat.T, cart) % 1.0)
    return lat, pos


def same_sets(a, b):
    if len(a) != len(b):
        return False
    for p in a:
        d = np.array(b) - p
        d -= np.round(d)
        if np.min(np.abs(d).max(axis=1)) > 2e-3:
            return False
    return True


def pair_under_concurrency(work):
    # A slow run (fine grid) writes its supercell CIF first and its cube last; a fast run
    # started meanwhile writes both in between. Written one after the other, the files on disk
    # would be the slow run's cube beside the fast run's CIF.
    shutil.copy(os.path.join(DATA, "PMN-PT_cubic_mixed_sites.cif"), work)
    args = ["--gen-cube", "PMN-PT_cubic_mixed_sites.cif", "Mg", "2", "0.75"]
    for rnd in range(2):
        slow = subprocess.Popen([EXE] + args + ["0.25"], cwd=work, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        time.sleep(1.1)  # the runs seed their random generator from the clock in seconds
        fast = run(args + ["1.0"], work)
        slow.wait()
        check(fast.returncode == 0 and slow.returncode == 0, "a run failed")
        _, cube_mg = mg_positions_cube(os.path.join(work, "PMN-PT_cubic_mixed_sites.cube"))
        _, _, rows = read_cif_sites(os.path.join(work, "PMN-PT_cubic_mixed_sites_assigned.cif"))
        cif_mg = [np.array(fractional(r)) for r in rows if r["_atom_site_type_symbol"] == "Mg2+"]
        check(len(cube_mg) > 0, "no Mg in the cube header")
        check(same_sets(cube_mg, cif_mg), "round %d: cube and assigned CIF from different runs"
              % rnd)


for case in (kill_during_write, concurrent_writers, pair_under_concurrency):
    work = tempfile.mkdtemp(prefix="quovix-atomic-")
    try:
        case(work)
    finally:
        shutil.rmtree(work)
print("%d failure(s)" % len(failures))
sys.exit(1 if failures else 0)
