#!/usr/bin/python3
"""GII of every structure of a folder under two parameter sets, with the file's (or default)
states and with --gen-cif-os; per-species mean deviation of the bond-valence sums under both
sets, with the states --gen-cif-os wrote under the second.

Usage: compare_params.py CIF_DIR WORK_DIR DIR_A DIR_B
DIR_A and DIR_B each hold a quovix.x with its three data files (for example the parameter
files of two revisions); CIF_DIR has a MANIFEST.tsv whose 9th column says whether the file
gives oxidation states. Prints two Markdown tables."""
import collections
import os
import re
import shutil
import statistics
import subprocess
import sys

cifs, work = sys.argv[1], sys.argv[2]
os.makedirs(work, exist_ok=True)
EXE = {"v1": os.path.join(sys.argv[3], "quovix.x"), "v2": os.path.join(sys.argv[4], "quovix.x")}
manifest = {}
for line in open(os.path.join(cifs, "MANIFEST.tsv")).read().splitlines()[1:]:
    f = line.split("\t"); manifest[f[0]] = f[8]
def run(v, *args):
    return subprocess.run([EXE[v], *args], capture_output=True, text=True, cwd=work)
def gii(text):
    m = re.search(r"GII: Global instability index = ([-\d.naif]+)", text)
    return float(m.group(1)) if m else None
def os_gii(text):
    m = re.search(r"GII with the assigned states = ([-\d.]+)", text)
    return float(m.group(1)) if m else None
def site_sums(text):
    out = []
    for line in text.splitlines():
        m = re.match(r"BV: +(\S+) +([A-Za-z]+)(\d+)([+-]) +([-\d.]+) +([-\d.]+)$", line)
        if m:
            o = int(m.group(3)) * (-1 if m.group(4) == "-" else 1)
            out.append(("%s%s%s" % (m.group(2), m.group(3), m.group(4)), o, float(m.group(6))))
    return out
rows, dev = [], {v: collections.defaultdict(list) for v in EXE}
for name in sorted(n for n in os.listdir(cifs) if n.endswith(".cif")):
    shutil.copy(os.path.join(cifs, name), work)
    r = {"name": name, "states": manifest.get(name, "?")}
    for v in EXE:
        r["def_" + v] = gii(run(v, "--cal-gii", name).stdout)
        out = run(v, "--gen-cif-os", name, name + "." + v + ".os.cif")
        r["os_" + v] = os_gii(out.stdout)
    written = name + ".v2.os.cif"
    if os.path.exists(os.path.join(work, written)):
        for v in EXE:
            for species, o, s in site_sums(run(v, "--cal-bv", written).stdout):
                dev[v][species].append(s - o)
    rows.append(r)
fmt = lambda x: "-" if x is None else "%.3f" % x
print("| structure | states in file | GII v1 (file/default states) | GII v2 (file/default states) | GII v1 (--gen-cif-os) | GII v2 (--gen-cif-os) |")
print("|---|---|---|---|---|---|")
for r in rows:
    print("| %s | %s | %s | %s | %s | %s |" % (r["name"].replace(".cif", ""), r["states"], fmt(r["def_v1"]), fmt(r["def_v2"]), fmt(r["os_v1"]), fmt(r["os_v2"])))
for key in ("def", "os"):
    for v in EXE:
        vals = [r[key + "_" + v] for r in rows if r[key + "_" + v] is not None]
        print("median GII %s %s over %d structures: %.3f" % (key, v, len(vals), statistics.median(vals)))
print()
print("| species | sites | mean (BVS - state) v1 | mean (BVS - state) v2 | mean abs v1 | mean abs v2 |")
print("|---|---|---|---|---|---|")
def zkey(s):
    return (s[-1] == "-", s)
for sp in sorted(dev["v2"], key=zkey):
    a, b = dev["v1"][sp], dev["v2"][sp]
    if not a or not b: continue
    print("| %s | %d | %+.3f | %+.3f | %.3f | %.3f |" % (sp, len(b), sum(a)/len(a), sum(b)/len(b), sum(map(abs,a))/len(a), sum(map(abs,b))/len(b)))
