#!/usr/bin/python3
"""The screening workflow (workflows/screen) on a small folder, end to end with Snakemake.

The folder mixes two Li+ conductors (LiCoO2 without oxidation states, so they are assigned;
Li2O, small enough for a short Monte Carlo run) with bad inputs: a text file, a CIF the reader
refuses and a structure without Li+. Checked: one row per file with the right status, step and
first error line; barriers consistent with their energy ranges; the conductivity only where it
was computed; the plots exist and are PNG files; a second run does nothing, and after one
summary is removed only that structure is screened again. Coarse grid (0.3 A), two cores.
"""
import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXE = os.environ.get("QUOVIX_EXE", os.path.join(ROOT, "build", "release", "quovix.x"))
SNAKEFILE = os.path.join(ROOT, "workflows", "screen", "Snakefile")
PROFILE = os.path.join(ROOT, "workflows", "screen", "local")
DATA = os.path.join(ROOT, "tests", "data")

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL:", what)


def snakemake(cwd, out, *extra):
    cmd = ["snakemake", "--profile", PROFILE, "-s", SNAKEFILE, "--cores", "2", "--config",
           "input=" + os.path.join(cwd, "in"), "output=" + out, "exe=" + EXE,
           "resolution=0.3", "kmc_steps=500"] + list(extra)
    res = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True)
    if res.returncode != 0:
        print(res.stdout[-3000:], res.stderr[-3000:])
    check(res.returncode == 0, "snakemake exit status %d" % res.returncode)
    return res.stdout + res.stderr


def main():
    if shutil.which("snakemake") is None:
        print("SKIP: snakemake is not installed (tools/install-deps.sh installs Debian's "
              "snakemake); the screening workflow is not tested.")
        return 0
    tmp = tempfile.mkdtemp(prefix="quovix_screen_")
    try:
        run(tmp)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    if failures:
        print("%d failure(s)" % len(failures))
        return 1
    print("screening workflow: all checks passed")
    return 0


def run(tmp):
    folder = os.path.join(tmp, "in")
    os.makedirs(folder)
    for f in ("LiCoO2_layered.cif", "Li2O_antifluorite_primitive_P1.cif", "NaCl_rocksalt.cif"):
        shutil.copy(os.path.join(DATA, f), folder)
    with open(os.path.join(folder, "notes on the set.txt"), "w") as f:
        f.write("candidates from the March run\n")
    with open(os.path.join(folder, "broken.cif"), "w") as f:
        f.write("data_broken\n_cell_length_a 5.0\n_cell_length_b 5.0\n")
    out = os.path.join(tmp, "results")
    snakemake(tmp, out)

    with open(os.path.join(out, "screen.csv"), newline="") as f:
        rows = {r["structure"]: r for r in csv.DictReader(f)}
    with open(os.path.join(out, "screen.jsonl")) as f:
        recs = {r["structure"]: r for r in map(json.loads, f)}
    expect = {"LiCoO2_layered": ("ok", ""), "Li2O_antifluorite_primitive_P1": ("ok", ""),
              "NaCl_rocksalt": ("failed", "read"), "notes_on_the_set.txt": ("failed", "read"),
              "broken": ("failed", "read")}
    check(sorted(rows) == sorted(expect), "one row per file: %s" % sorted(rows))
    check(sorted(recs) == sorted(rows), "JSON lines and CSV hold the same structures")
    for name, (status, step) in expect.items():
        r = rows.get(name, {})
        check((r.get("status"), r.get("failed_step")) == (status, step),
              "%s: status %s/%s" % (name, r.get("status"), r.get("failed_step")))

    check(rows["NaCl_rocksalt"]["error"] == "no Li1+ site in the structure",
          "NaCl: error %r" % rows["NaCl_rocksalt"]["error"])
    check(rows["notes_on_the_set.txt"]["error"].startswith("not a CIF file"),
          "text file: error %r" % rows["notes_on_the_set.txt"]["error"])
    check(rows["broken"]["error"].startswith("Error: "),
          "refused CIF: first error line of the reader, got %r" % rows["broken"]["error"])
    # Which fields a failed step leaves empty: tests/py/test_screen_summary.py, case by case.
    check(rows["NaCl_rocksalt"]["formula"] == "ClNa", "NaCl formula %r (read before the "
          "species check)" % rows["NaCl_rocksalt"]["formula"])

    lco, li2o = recs["LiCoO2_layered"], recs["Li2O_antifluorite_primitive_P1"]
    check((lco["formula"], li2o["formula"]) == ("CoLiO2", "Li2O"),
          "formulas %s, %s" % (lco["formula"], li2o["formula"]))
    check(lco["os_source"] == "assigned", "LiCoO2 states %s" % lco["os_source"])
    for r in (lco, li2o):
        dims = [d for d in ("1d", "2d", "3d") if r["barrier_%s_eV" % d] is not None]
        check(r["percolation"] == (dims[-1].upper() if dims else "none"),
              "%s: percolation %s, barriers in %s" % (r["structure"], r["percolation"], dims))
        for d in dims:  # barrier = highest saddle less lowest site of the same network
            e, lo, hi = (r[k % d] for k in ("barrier_%s_eV", "e_%s_min_eV", "e_%s_max_eV"))
            check(abs(hi - lo - e) < 0.0015, "%s %s: %g != %g - %g" % (r["structure"], d, e,
                                                                      hi, lo))
        if dims:
            check(r["barrier_min_eV"] == min(r["barrier_%s_eV" % d] for d in dims),
                  "%s: lowest barrier" % r["structure"])
        check(0 < r["resolution_A"] <= 0.3 and r["gii"] >= 0 and 0 < r["sf"] < 2,
              "%s: resolution %s, GII %s, sf %s" % (r["structure"], r["resolution_A"],
                                                    r["gii"], r["sf"]))
        # GII is a root mean square of the deviations: the worst one is at least GII.
        check(abs(r["bv_worst_deviation"]) >= r["gii"] - 1e-6,
              "%s: worst deviation %s below GII %s" % (r["structure"],
                                                       r["bv_worst_deviation"], r["gii"]))
    # Li2O percolates below the Monte Carlo threshold, LiCoO2 at this grid does not.
    check(li2o["conductivity_S_cm"] is not None and li2o["conductivity_err_S_cm"] is not None
          and li2o["t_kmc_s"] is not None, "Li2O: conductivity computed")
    check((lco["barrier_min_eV"] or 9) <= 1.0 or (lco["conductivity_S_cm"] is None and
                                                  "conductivity not computed" in lco["note"]),
          "LiCoO2: no conductivity above the barrier threshold, with a note")

    for name, r in recs.items():
        png = os.path.join(out, "profiles", name + ".png")
        check(os.path.isfile(png) == bool(r["profiles"]), "profile plot of %s" % name)
    for png in [os.path.join(out, "screen.barrier_vs_gii.png")] + \
            [os.path.join(out, "profiles", n + ".png") for n in recs if recs[n]["profiles"]]:
        with open(png, "rb") as f:
            check(f.read(8) == b"\x89PNG\r\n\x1a\n", "%s is a PNG file" % png)
    left = [f for f in os.listdir(os.path.join(out, "structures")) if f.startswith(".")]
    check(not left, "temporary files left: %s" % left)

    # Restart: nothing to redo; after an interruption that left one summary and the table
    # unwritten, only that structure is screened again.
    log = snakemake(tmp, out)
    check("Nothing to be done" in log, "second run redoes nothing")
    js = os.path.join(out, "structures")
    before = {f: os.stat(os.path.join(js, f)).st_mtime_ns for f in os.listdir(js)}
    for f in (os.path.join(js, "broken.json"), os.path.join(out, "screen.csv")):
        os.remove(f)
    snakemake(tmp, out)
    after = {f: os.stat(os.path.join(js, f)).st_mtime_ns for f in os.listdir(js)}
    check(sorted(after) == sorted(before), "summaries after the rerun: %s" % sorted(after))
    check({f for f in after if after[f] != before.get(f)} == {"broken.json"},
          "only the removed summary is made again")
    with open(os.path.join(out, "screen.csv"), newline="") as f:
        check(sorted(r["structure"] for r in csv.DictReader(f)) == sorted(expect),
              "table made again with every structure")


if __name__ == "__main__":
    sys.exit(main())
