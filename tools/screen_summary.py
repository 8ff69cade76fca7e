#!/usr/bin/python3
"""Screening of one structure with quovix.x, and the table of a screened set.

  screen_summary.py run --exe quovix.x --input X.cif --structure X --workdir W --out X.json ...
      runs the chain on one file (oxidation states when the file has none, bond valence sums
      and GII, landscape of the mobile ion, migration graph and percolation barriers,
      optionally kinetic Monte Carlo), times every step and writes one JSON object.
  screen_summary.py gather --csv T.csv --jsonl T.jsonl A.json B.json ...
      writes the table of the set (one row per structure, columns in COLUMNS).

A structure that fails gets status "failed", the step that failed and the first error line;
the values of the steps before it are kept, those after it stay empty (null in JSON). The
command exits 0 for such a structure: one bad file must not stop a screening run. Every file
is written to a temporary name in its directory and renamed, so an interrupted run never
leaves a summary that looks complete.
"""
import argparse
import csv
import io
import json
import math
import os
import re
import resource
import shutil
import subprocess
import sys
import time

BOHR_PER_ANGSTROM = 1.889725989  # the conversion the cube writer uses

# Columns of the table, in order (README: "Screening many structures").
COLUMNS = [
    "structure", "file", "status", "failed_step", "error", "note",
    "formula", "atoms", "os_source", "gii", "bv_worst_site", "bv_worst_deviation",
    "mobile", "sf", "grid", "resolution_A",
    "percolation", "barrier_min_eV",
    "barrier_1d_eV", "e_1d_min_eV", "e_1d_max_eV",
    "barrier_2d_eV", "e_2d_min_eV", "e_2d_max_eV",
    "barrier_3d_eV", "e_3d_min_eV", "e_3d_max_eV",
    "temperature_K", "conductivity_S_cm", "conductivity_err_S_cm",
    "diffusivity_cm2_s", "diffusivity_err_cm2_s",
    "t_os_s", "t_bv_s", "t_cube_s", "t_gh_s", "t_kmc_s", "t_total_s",
]

# --------------------------------------------------------------------------- parsers


def first_error_line(text):
    """First line that starts with "Error:", else the first non-blank line (None if none)."""
    lines = [l.strip() for l in text.splitlines() if l.strip()]
    for l in lines:
        if l.startswith("Error:"):
            return l
    return lines[0] if lines else None


def parse_species(word):
    """("Co", 3) from "Co3+", ("O", -2) from "O2-"; None when the word is no species."""
    m = re.fullmatch(r"([A-Z][a-z]?)(\d+)([+-])", word)
    if not m:
        return None
    os_ = int(m.group(2))
    return m.group(1), (os_ if m.group(3) == "+" else -os_)


def species_text(element, os_):
    return "%s%d%s" % (element, abs(os_), "+" if os_ >= 0 else "-")


def parse_cell(stdout):
    """Atoms of --print-cell: list of (element, os, occupancy)."""
    atoms = []
    pat = re.compile(r"type=\s*([A-Za-z]+);os=\s*(-?\d+);.*?occ=\s*([-+0-9.eE]+)")
    for line in stdout.splitlines():
        if "ATOM:" not in line:
            continue
        m = pat.search(line)
        if m:
            atoms.append((m.group(1), int(m.group(2)), float(m.group(3))))
    return atoms


def formula(atoms):
    """Formula of the cell contents (occupancies summed), Hill order, reduced by the greatest
    common divisor when every count is an integer; fractional counts keep up to 3 decimals."""
    count = {}
    for el, _, occ in atoms:
        count[el] = count.get(el, 0.0) + occ
    count = {k: v for k, v in count.items() if v > 5e-4}
    if not count:
        return ""
    if all(abs(v - round(v)) < 1e-3 for v in count.values()):
        g = 0
        for v in count.values():
            g = math.gcd(g, int(round(v)))
        count = {k: round(v) / g for k, v in count.items()}
    order = sorted(count)
    if "C" in count:  # Hill order: C, H, then the others alphabetically
        order = ["C"] + (["H"] if "H" in count else []) + [e for e in order if e not in ("C", "H")]
    out = []
    for el in order:
        v = count[el]
        if abs(v - 1.0) < 1e-3:
            out.append(el)
        elif abs(v - round(v)) < 1e-3:
            out.append("%s%d" % (el, round(v)))
        else:
            out.append("%s%s" % (el, ("%.3f" % v).rstrip("0").rstrip(".")))
    return "".join(out)


def parse_bv(stdout):
    """GII and the site whose bond valence sum is farthest from its oxidation state, from
    --cal-bv: (gii, site, deviation = sum - state in v.u., signed) or None."""
    gii, worst, in_sums = None, None, False
    for line in stdout.splitlines():
        w = line.split()
        if line.startswith("BV:") and w[1:] == ["name", "type", "occ", "bv_sum"]:
            in_sums = True
            continue
        if in_sums:
            if not line.startswith("BV:") or len(w) != 5:
                in_sums = False
            else:
                sp = parse_species(w[2])
                try:
                    dev = float(w[4]) - sp[1]
                except (TypeError, ValueError):
                    continue
                if worst is None or abs(dev) > abs(worst[1]):
                    worst = (w[1], dev)
        m = re.match(r"GII: Global instability index = (\S+)", line)
        if m:
            gii = float(m.group(1))
    if gii is None or not math.isfinite(gii):
        return None
    return gii, (worst[0] if worst else None), (round(worst[1], 6) if worst else None)


def parse_os(stdout):
    """Where the states of --gen-cif-os came from: the "from" word of every site line."""
    froms = []
    for line in stdout.splitlines():
        w = line.split()
        if len(w) >= 5 and w[0] == "OS:" and w[1] != "site" and w[2] in ("file", "bv", "anion"):
            froms.append(w[2])
    return froms


def parse_cube_header(path):
    """Grid counts, largest voxel edge (A) and the screening factor of a cube file's header."""
    with open(path, "rb") as f:
        head = [f.readline().decode("latin-1") for _ in range(6)]
    n, edge = [], []
    for line in head[3:6]:
        w = line.split()
        n.append(abs(int(w[0])))
        edge.append(math.sqrt(sum(float(x) ** 2 for x in w[1:4])) / BOHR_PER_ANGSTROM)
    m = re.search(r"sf\s*=\s*([-+0-9.eE]+)", head[1])
    return n, max(edge), (float(m.group(1)) if m else None)


def parse_network(stdout):
    """Percolation barriers of --gh: {"1d": (barrier, lowest site, highest saddle) or None, ...}
    from the lines "QUOVIX_GRAPH_NETWORK: e_1D = 0.510 (0.443 ~ 0.953)"; -1 means no network."""
    net = {}
    pat = re.compile(r"e_(1D|2D|3D|loop)\s*=\s*(\S+)\s*\(\s*(\S+)\s*~\s*(\S+)\s*\)")
    for line in stdout.splitlines():
        if "NETWORK" not in line:
            continue
        m = pat.search(line)
        if not m:
            continue
        e, lo, hi = (float(m.group(k)) for k in (2, 3, 4))
        if not all(math.isfinite(v) for v in (e, lo, hi)):
            raise ValueError("barrier printed as %s" % m.group(0))
        net[m.group(1).lower()] = (e, lo, hi) if e >= 0 else None
    return net if all(k in net for k in ("1d", "2d", "3d")) else None


def parse_kmc(stdout):
    """Conductivity (S/cm) and diffusivity (cm^2/s) of --kmc with their standard errors."""
    vals = {}
    for key in ("conductivity", "diffusivity"):
        m = re.search(r"KMC: %s = (\S+?)," % key, stdout)
        e = re.search(r"KMC: %s standard error = (\S+?)," % key, stdout)
        vals[key] = float(m.group(1)) if m else None
        vals[key + "_err"] = float(e.group(1)) if e else None
    if vals["conductivity"] is None:
        return None
    for k in ("diffusivity", "diffusivity_err"):  # printed in A^2/ps = 1e-4 cm^2/s
        if vals[k] is not None:
            vals[k] *= 1e-4
    return vals


def looks_like_cif(path):
    """A CIF is text with a data_ block header; refuse binary files and other text early."""
    with open(path, "rb") as f:
        head = f.read(1 << 20)
    if b"\0" in head:
        return False
    return re.search(rb"(^|\n)[ \t]*data_", head, re.I) is not None


# --------------------------------------------------------------------------- writing


def write_atomic(path, text):
    d = os.path.dirname(os.path.abspath(path))
    os.makedirs(d, exist_ok=True)
    tmp = os.path.join(d, ".%s.tmp%d" % (os.path.basename(path), os.getpid()))
    with open(tmp, "w", newline="") as f:
        f.write(text)
        f.flush()
        os.fsync(f.fileno())
    os.replace(tmp, path)


def csv_value(v):
    if v is None:
        return ""
    if isinstance(v, float):
        return "%.6g" % v
    return str(v)


# --------------------------------------------------------------------------- one structure


class StepFailed(Exception):
    def __init__(self, step, error):
        super().__init__(error)
        self.step, self.error = step, error


class Runner:
    def __init__(self, exe, workdir, timeout):
        self.exe, self.workdir, self.timeout = exe, workdir, timeout
        self.times = {}
        self.cpu = {}  # CPU seconds of quovix.x per step (user + system)

    def run(self, step, key, args):
        """Runs quovix.x in the work directory; keeps stdout/stderr as <step>.log/.err."""
        t0 = time.monotonic()
        u0 = resource.getrusage(resource.RUSAGE_CHILDREN)
        try:
            res = subprocess.run([self.exe] + args, cwd=self.workdir, capture_output=True,
                                 text=True, errors="replace",
                                 timeout=self.timeout if self.timeout > 0 else None)
        except subprocess.TimeoutExpired:
            self.times[key] = self.times.get(key, 0.0) + time.monotonic() - t0
            raise StepFailed(step, "%s did not finish within %g s" % (args[0], self.timeout))
        except OSError as e:
            raise StepFailed(step, "cannot run %s: %s" % (self.exe, e))
        self.times[key] = self.times.get(key, 0.0) + time.monotonic() - t0
        u1 = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.cpu[key] = self.cpu.get(key, 0.0) + (u1.ru_utime - u0.ru_utime) + \
            (u1.ru_stime - u0.ru_stime)
        with open(os.path.join(self.workdir, step + ".log"), "w") as f:
            f.write(res.stdout)
        with open(os.path.join(self.workdir, step + ".err"), "w") as f:
            f.write(res.stderr)
        if res.returncode < 0:
            raise StepFailed(step, "%s stopped by signal %d" % (args[0], -res.returncode))
        return res


def screen(a):
    """The chain for one file; returns the summary dictionary (never raises StepFailed)."""
    rec = {k: None for k in COLUMNS}
    rec.update(structure=a.structure, file=os.path.basename(a.input), status="ok",
               mobile=a.mobile, profiles={})
    el, os_ = parse_species(a.mobile) or (None, None)
    if el is None:
        raise SystemExit("screen_summary.py: mobile species must look like Li1+ (got %r)"
                         % a.mobile)
    t_start = time.monotonic()
    work = a.workdir
    if os.path.isdir(work):  # leftovers of an interrupted run
        shutil.rmtree(work)
    os.makedirs(work)
    r = Runner(os.path.abspath(a.exe), work, a.timeout)
    name = "structure"
    cif = name + ".cif"
    notes = []
    try:
        if not os.path.isfile(a.input):
            raise StepFailed("read", "no such file")
        if not looks_like_cif(a.input):
            raise StepFailed("read", "not a CIF file (no data_ block)")
        shutil.copyfile(a.input, os.path.join(work, "input.cif"))

        # Oxidation states: a file that gives none gets them by bond valence; a file that
        # gives all of them is used as it is (the CIF writer rounds coordinates).
        res = r.run("os", "t_os_s", ["--gen-cif-os", "input.cif", cif])
        froms = parse_os(res.stdout)
        os_note = None
        if froms and os.path.isfile(os.path.join(work, cif)) and any(f != "file" for f in froms):
            os_source = "assigned"
        else:
            if os.path.exists(os.path.join(work, cif)):
                os.remove(os.path.join(work, cif))
            shutil.copyfile(os.path.join(work, "input.cif"), os.path.join(work, cif))
            os_source = "file" if froms else "as read"
            if not froms:
                os_note = "states not assigned: %s" % first_error_line(res.stderr)

        res = r.run("cell", "t_os_s", ["--print-cell", cif])
        atoms = parse_cell(res.stdout)
        if not atoms:
            raise StepFailed("read", first_error_line(res.stderr) or "no atoms read")
        rec["formula"] = formula(atoms)
        rec["atoms"] = len(atoms)
        rec["os_source"] = os_source
        if os_note:
            notes.append(os_note)
        if not any(e == el and o == os_ and occ > 0 for e, o, occ in atoms):
            raise StepFailed("read", "no %s site in the structure" % a.mobile)

        res = r.run("bv", "t_bv_s", ["--cal-bv", cif])
        bv = parse_bv(res.stdout)
        if bv is None:
            raise StepFailed("bv", first_error_line(res.stderr) or "no GII printed")
        rec["gii"], rec["bv_worst_site"], rec["bv_worst_deviation"] = bv
        if a.gii_max > 0 and rec["gii"] > a.gii_max:
            rec["status"] = "rejected"
            notes.append("GII above %g" % a.gii_max)
            return finish(rec, r, notes, t_start)

        cube = name + ".cube"
        res = r.run("cube", "t_cube_s",
                    ["--gen-cube", cif, el, str(os_), "-1", repr(a.resolution)])
        cube_path = os.path.join(work, cube)
        err = first_error_line(res.stderr)
        if not os.path.isfile(cube_path) or (err or "").startswith("Error:"):
            raise StepFailed("cube", first_error_line(res.stderr) or "no cube file written")
        try:
            n, res_a, sf = parse_cube_header(cube_path)
        except (OSError, ValueError, IndexError):
            raise StepFailed("cube", "unreadable cube header")
        rec["grid"] = "x".join(str(k) for k in n)
        rec["resolution_A"], rec["sf"] = res_a, sf

        res = r.run("gh", "t_gh_s", ["--gh", cif, cube, el, str(os_)])
        try:
            net = parse_network(res.stdout)
        except ValueError as e:
            raise StepFailed("gh", str(e))
        if net is None:
            raise StepFailed("gh", first_error_line(res.stderr) or "no percolation lines printed")
        dims = [d for d in ("1d", "2d", "3d") if net[d] is not None]
        rec["percolation"] = dims[-1].upper() if dims else "none"
        for d in ("1d", "2d", "3d"):
            if net[d] is not None:
                rec["barrier_%s_eV" % d], rec["e_%s_min_eV" % d], rec["e_%s_max_eV" % d] = net[d]
        if dims:
            rec["barrier_min_eV"] = min(net[d][0] for d in dims)
        profiles = {}
        for d in dims:
            p = os.path.join(work, "%s.gh.%s.profile.csv" % (cif, d))
            if os.path.isfile(p):
                profiles[d.upper()] = os.path.relpath(p, a.root or os.path.dirname(a.out) or ".")
        rec["profiles"] = profiles

        if a.kmc:
            if not dims:
                notes.append("conductivity not computed: no percolating path")
            elif rec["barrier_min_eV"] > a.kmc_barrier_max:
                notes.append("conductivity not computed: barrier above %g eV" % a.kmc_barrier_max)
            else:
                sf_arg = repr(sf) if sf and sf > 0 else "-1"
                res = r.run("kmc", "t_kmc_s",
                            ["--kmc", cif, cube, el, str(os_), "-1", "-1", "-1", sf_arg,
                             repr(a.temperature), "0", str(a.kmc_steps)])
                k = parse_kmc(res.stdout)
                if k is None:
                    raise StepFailed("kmc", first_error_line(res.stderr) or "no conductivity printed")
                if not math.isfinite(k["conductivity"]):
                    raise StepFailed("kmc", "conductivity printed as %s" % k["conductivity"])
                rec["temperature_K"] = a.temperature
                rec["conductivity_S_cm"], rec["conductivity_err_S_cm"] = \
                    k["conductivity"], k["conductivity_err"]
                rec["diffusivity_cm2_s"], rec["diffusivity_err_cm2_s"] = \
                    k["diffusivity"], k["diffusivity_err"]
    except StepFailed as e:
        rec["status"], rec["failed_step"], rec["error"] = "failed", e.step, e.error
    cube_path = os.path.join(work, name + ".cube")
    if not a.keep_cube and os.path.exists(cube_path):
        os.remove(cube_path)
    return finish(rec, r, notes, t_start)


def finish(rec, r, notes, t_start):
    # A value the program printed as inf or nan is no result: it stays empty, with a note.
    bad = [k for k, v in rec.items() if isinstance(v, float) and not math.isfinite(v)]
    for k in bad:
        rec[k] = None
    if bad:
        notes.append("not a finite number: " + ", ".join(bad))
    for k in ("t_os_s", "t_bv_s", "t_cube_s", "t_gh_s", "t_kmc_s"):
        rec[k] = round(r.times[k], 3) if k in r.times else None
    rec["t_total_s"] = round(time.monotonic() - t_start, 3)
    rec["cpu_s"] = {k: round(v, 3) for k, v in r.cpu.items()}
    rec["note"] = "; ".join(notes) if notes else None
    return rec


# --------------------------------------------------------------------------- commands


def cmd_run(a):
    rec = screen(a)
    write_atomic(a.out, json.dumps(rec, sort_keys=False) + "\n")
    print("%s: %s%s" % (rec["structure"], rec["status"],
                        (" (%s: %s)" % (rec["failed_step"], rec["error"])) if rec["error"] else ""))


def read_summaries(paths):
    recs = []
    for p in paths:
        with open(p) as f:
            recs.append(json.loads(f.read()))
    recs.sort(key=lambda r: r["structure"])
    return recs


def cmd_gather(a):
    recs = read_summaries(a.summaries)
    buf = io.StringIO()
    w = csv.writer(buf, lineterminator="\n")
    w.writerow(COLUMNS)
    for r in recs:
        w.writerow([csv_value(r.get(k)) for k in COLUMNS])
    write_atomic(a.csv, buf.getvalue())
    if a.jsonl:
        write_atomic(a.jsonl, "".join(json.dumps(r) + "\n" for r in recs))
    ok = sum(r["status"] == "ok" for r in recs)
    print("screened %d structures: %d ok, %d rejected, %d failed" % (
        len(recs), ok, sum(r["status"] == "rejected" for r in recs),
        sum(r["status"] == "failed" for r in recs)))


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    r = sub.add_parser("run", help="screen one structure")
    r.add_argument("--exe", required=True)
    r.add_argument("--input", required=True)
    r.add_argument("--structure", required=True)
    r.add_argument("--workdir", required=True)
    r.add_argument("--out", required=True)
    r.add_argument("--root", help="profile paths are written relative to this (default: the "
                   "folder of --out)")
    r.add_argument("--mobile", default="Li1+")
    r.add_argument("--resolution", type=float, default=0.1)
    r.add_argument("--gii-max", type=float, default=0.0, help="reject above (<= 0: off)")
    r.add_argument("--kmc", action="store_true")
    r.add_argument("--kmc-barrier-max", type=float, default=1.0)
    r.add_argument("--temperature", type=float, default=300.0)
    r.add_argument("--kmc-steps", type=int, default=10000)
    r.add_argument("--timeout", type=float, default=0.0, help="per step, s (<= 0: none)")
    r.add_argument("--keep-cube", action="store_true")
    g = sub.add_parser("gather", help="table of the screened set")
    g.add_argument("--csv", required=True)
    g.add_argument("--jsonl")
    g.add_argument("summaries", nargs="*")
    a = p.parse_args(argv)
    if a.cmd == "run":
        cmd_run(a)
    else:
        cmd_gather(a)


if __name__ == "__main__":
    main()
