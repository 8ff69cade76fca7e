#!/usr/bin/python3
"""How the per-structure summary of the screening workflow records what the program did,
with a stand-in for quovix.x whose --gh and --kmc behave as the case needs: a landscape
without a percolating path, a Monte Carlo run that fails, a crash, a step that hangs past the
time limit and a barrier printed as nan. Each case must keep exactly the values of the steps
that succeeded, and the table must show the others as empty fields.
"""
import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TOOL = os.path.join(ROOT, "tools", "screen_summary.py")
CIF = os.path.join(ROOT, "tests", "data", "Li2O_antifluorite_primitive_P1.cif")

# Prints what quovix.x prints for each command the workflow runs; SCREEN_FAKE picks the case.
FAKE = r'''#!/usr/bin/python3
import os, signal, sys, time
mode, cmd = os.environ["SCREEN_FAKE"], sys.argv[1]
if cmd == "--gen-cif-os":
    print("OS:   site  from     state     bv_sum  rejected (state: bv_sum)")
    print("OS:    Li1  file      Li1+   1.010000  -")
    print("OS:     O1  file       O2-  -2.020000  -")
elif cmd == "--print-cell":
    print("CELL: [  0]ATOM: name=   Li1;type=Li;os= 1;x_f=(0.25,0.25,0.25);occ=1.000; flag=0")
    print("CELL: [  1]ATOM: name=   Li1;type=Li;os= 1;x_f=(0.75,0.75,0.75);occ=1.000; flag=0")
    print("CELL: [  2]ATOM: name=    O1;type= O;os=-2;x_f=(0.000,0.000,0.000);occ=1.000; flag=0")
elif cmd == "--cal-bv":
    print("BV:   name type    occ    bv_sum")
    print("BV:    Li1 Li1+  1.000  1.010000")
    print("BV:     O1  O2-  1.000 -1.880000")
    print("BV:=============================================")
    print("GII: Global instability index = 0.090000")
elif cmd == "--gen-cube":
    with open(sys.argv[2][:-4] + ".cube", "w") as f:
        f.write("x\nConducting = Li1+ ; sf = 0.700000;\n   0 0 0 0\n")
        f.write("  24    0.377945    0.000000    0.000000\n" * 3)
elif cmd == "--gh":
    if mode == "crash":
        os.kill(os.getpid(), signal.SIGSEGV)
    if mode == "hang":
        time.sleep(30)
    e1 = {"nopath": "-1.000 (0.000 ~ 0.000)", "nan": "nan (0.1 ~ nan)"}.get(
        mode, "0.300 (-2.000 ~ -1.700)")
    print("QUOVIX_GRAPH_NETWORK: e_1D = " + e1)
    print("QUOVIX_GRAPH_NETWORK: e_2D = -1.000 (0.000 ~ 0.000)")
    print("QUOVIX_GRAPH_NETWORK: e_3D = -1.000 (0.000 ~ 0.000)")
    print("QUOVIX_GRAPH_NETWORK: e_loop = -1.000 (0.000 ~ 0.000)")
elif cmd == "--kmc":
    print("KMC: start calculating conductivity...", end="")
    sys.stderr.write("Error: overall rate is too small: 1.5e-43 (step 0)\n"
                     "Error: quovix_kmc_run() returns non-zero.\n")
'''

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL:", what)


def main():
    tmp = tempfile.mkdtemp(prefix="quovix_screen_summary_")
    try:
        run(tmp)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    if failures:
        print("%d failure(s)" % len(failures))
        return 1
    print("screen summaries: all checks passed")
    return 0


def summary(tmp, mode, *extra):
    exe = os.path.join(tmp, "fake.x")
    out = os.path.join(tmp, "structures", mode + ".json")
    res = subprocess.run(["/usr/bin/python3", TOOL, "run", "--exe", exe, "--input", CIF,
                          "--structure", mode, "--workdir", os.path.join(tmp, "work", mode),
                          "--out", out, "--kmc"] + list(extra),
                         env=dict(os.environ, SCREEN_FAKE=mode), capture_output=True, text=True)
    check(res.returncode == 0, "%s: exit status %d (%s)" % (mode, res.returncode, res.stderr))
    with open(out) as f:
        return json.load(f)


def run(tmp):
    with open(os.path.join(tmp, "fake.x"), "w") as f:
        f.write(FAKE)
    os.chmod(os.path.join(tmp, "fake.x"), 0o755)
    later = ("barrier_1d_eV", "barrier_min_eV", "percolation", "conductivity_S_cm", "t_kmc_s")

    r = summary(tmp, "nopath")
    check(r["status"] == "ok" and r["percolation"] == "none", "no path: %s" % r)
    check(all(r[k] is None for k in ("barrier_1d_eV", "e_1d_min_eV", "barrier_min_eV",
                                      "conductivity_S_cm", "t_kmc_s")),
          "no path: no barrier and no Monte Carlo")
    check("no percolating path" in (r["note"] or ""), "no path: note %r" % r["note"])
    check((r["formula"], r["gii"], r["bv_worst_site"], r["bv_worst_deviation"]) ==
          ("Li2O", 0.09, "O1", 0.12), "values read before the graph: %s" % r)
    check(r["grid"] == "24x24x24" and abs(r["resolution_A"] - 0.2) < 1e-6 and r["sf"] == 0.7,
          "cube header: %s %s %s" % (r["grid"], r["resolution_A"], r["sf"]))

    r = summary(tmp, "kmcfail")
    check((r["status"], r["failed_step"]) == ("failed", "kmc"), "Monte Carlo failure: %s" % r)
    check(r["error"] == "Error: overall rate is too small: 1.5e-43 (step 0)",
          "first error line: %r" % r["error"])
    check((r["barrier_1d_eV"], r["e_1d_min_eV"], r["e_1d_max_eV"], r["percolation"]) ==
          (0.3, -2.0, -1.7, "1D") and r["conductivity_S_cm"] is None,
          "barriers kept, no conductivity: %s" % r)

    r = summary(tmp, "crash")
    check((r["status"], r["failed_step"], r["error"]) ==
          ("failed", "gh", "--gh stopped by signal 11"), "crash: %s" % r)
    check(all(r[k] is None for k in later) and r["gii"] == 0.09, "crash: values %s" % r)

    r = summary(tmp, "hang", "--timeout", "1")
    check((r["status"], r["failed_step"], r["error"]) ==
          ("failed", "gh", "--gh did not finish within 1 s"), "time limit: %s" % r)
    check(all(r[k] is None for k in later) and r["t_gh_s"] < 10, "time limit: %s" % r)

    r = summary(tmp, "nan")
    check((r["status"], r["failed_step"]) == ("failed", "gh") and "nan" in r["error"] and
          all(r[k] is None for k in later), "nan barrier: %s" % r)

    table = os.path.join(tmp, "screen.csv")
    js = sorted(os.path.join(tmp, "structures", f) for f in
                os.listdir(os.path.join(tmp, "structures")))
    subprocess.run(["/usr/bin/python3", TOOL, "gather", "--csv", table] + js, check=True,
                   capture_output=True)
    with open(table, newline="") as f:
        rows = {r["structure"]: r for r in csv.DictReader(f)}
    check(sorted(rows) == ["crash", "hang", "kmcfail", "nan", "nopath"], "rows %s" % rows)
    check(rows["crash"]["barrier_1d_eV"] == "" and rows["kmcfail"]["barrier_1d_eV"] == "0.3"
          and rows["kmcfail"]["conductivity_S_cm"] == "", "empty fields for missing values")


if __name__ == "__main__":
    sys.exit(main())
