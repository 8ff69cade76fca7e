#!/usr/bin/python3
"""Wall time of the screening workflow on the bundled set with 1 and 2 cores, and the time of
each step per structure (from the table's t_*_s columns).

  /usr/bin/python3 bench/screen_timing.py [--reps 3] [--exe build/release/quovix.x]

Runs of 1 and 2 cores alternate, each into a fresh folder, so that load on a shared machine
hits both alike; prints medians. "Engine" is the sum over structures of the quovix.x step
times; the workflow's own share is the rest (Snakemake start-up and scheduling, the Python
driver, the table and the plots).
"""
import argparse
import json
import os
import resource
import statistics
import subprocess
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
STEPS = ("t_os_s", "t_bv_s", "t_cube_s", "t_gh_s", "t_kmc_s", "t_total_s")


def run(cores, exe, tmp, k):
    out = os.path.join(tmp, "c%d_%d" % (cores, k))
    u0 = resource.getrusage(resource.RUSAGE_CHILDREN)
    t0 = time.monotonic()
    subprocess.run(["snakemake", "--profile", os.path.join(ROOT, "workflows/screen/local"),
                    "-s", os.path.join(ROOT, "workflows/screen/Snakefile"),
                    "--cores", str(cores), "--config", "output=" + out, "exe=" + exe,
                    "input=" + os.path.join(ROOT, "workflows/screen/examples")],
                   cwd=tmp, check=True, capture_output=True)
    wall = time.monotonic() - t0
    u1 = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = u1.ru_utime - u0.ru_utime + u1.ru_stime - u0.ru_stime
    with open(os.path.join(out, "screen.jsonl")) as f:
        rows = [json.loads(l) for l in f]
    return wall, cpu, rows


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--reps", type=int, default=3)
    p.add_argument("--exe", default=os.path.join(ROOT, "build", "release", "quovix.x"))
    a = p.parse_args()
    exe = os.path.abspath(a.exe)
    walls = {1: [], 2: []}
    cpus, engine_cpus = [], []
    steps, steps_cpu = {}, {}
    with tempfile.TemporaryDirectory(prefix="quovix_screen_bench_") as tmp:
        for k in range(a.reps):
            for cores in (1, 2):
                wall, cpu, rows = run(cores, exe, tmp, k)
                walls[cores].append(wall)
                for r in rows:
                    for s in STEPS:
                        if r[s] is not None:
                            steps.setdefault((r["structure"], s), []).append(r[s])
                        c = sum(r["cpu_s"].values()) if s == "t_total_s" else r["cpu_s"].get(s)
                        if c is not None:
                            steps_cpu.setdefault((r["structure"], s), []).append(c)
                engine = sum(r[s] for r in rows for s in STEPS[:-1] if r[s] is not None)
                engine_cpu = sum(v for r in rows for v in r["cpu_s"].values())
                cpus.append(cpu)
                engine_cpus.append(engine_cpu)
                print("run %d, %d core(s): wall %.1f s (quovix.x steps %.1f s); CPU %.1f s "
                      "(quovix.x %.1f s)" % (k, cores, wall, engine, cpu, engine_cpu))
    for cores in (1, 2):
        print("cores %d: median wall %.1f s of %s" % (cores, statistics.median(walls[cores]),
                                                       ["%.1f" % w for w in walls[cores]]))
    print("CPU of a whole run: median %.1f s, of which quovix.x %.1f s" % (
        statistics.median(cpus), statistics.median(engine_cpus)))
    names = sorted({n for n, _ in steps})
    print("median per structure, wall s (CPU s of quovix.x)")
    print("structure," + ",".join(STEPS))
    for n in names:
        print(n + "," + ",".join(
            "%.2f (%.2f)" % (statistics.median(steps[(n, s)]),
                             statistics.median(steps_cpu.get((n, s), [0.0])))
            if (n, s) in steps else "" for s in STEPS))


if __name__ == "__main__":
    main()
