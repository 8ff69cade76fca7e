#!/usr/bin/python3
"""Plots of a screened set (the screen.jsonl table of tools/screen_summary.py).

  screen_plots.py screen.jsonl --scatter barrier_vs_gii.png --profiles profiles/

- one PNG per structure with a percolating path, profiles/<structure>.png: the energy
  profile along the path of each percolating network (1D, 2D, 3D panels; one line per cycle
  of the network) from the profile files of --gh, energies relative to the lowest site of
  the network, so each panel's maximum is its barrier;
- the scatter of the lowest percolation barrier against the GII of the set, one point per
  structure with a barrier, coloured by the highest dimension that percolates.
"""
import argparse
import csv
import json
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

DIM_COLOURS = {"1D": "tab:orange", "2D": "tab:blue", "3D": "tab:green"}


def read_profile(path):
    """Rows of a --gh profile file grouped by cycle: {cycle: (distance, energy, point)}."""
    cycles = {}
    with open(path, newline="") as f:
        for row in csv.DictReader(f):
            try:
                c = int(row["cycle"])
                d, e = float(row["distance_A"]), float(row["energy_eV"])
            except (KeyError, TypeError, ValueError):
                continue
            x, y, p = cycles.setdefault(c, ([], [], []))
            x.append(d)
            y.append(e)
            p.append((row.get("point") or "").strip())
    return cycles


def plot_profiles(rec, root, path):
    """One figure per structure; returns False when it has no profile to show."""
    panels = []
    for dim in ("1D", "2D", "3D"):
        rel = (rec.get("profiles") or {}).get(dim)
        if not rel:
            continue
        p = rel if os.path.isabs(rel) else os.path.join(root, rel)
        if os.path.isfile(p):
            cyc = read_profile(p)
            if cyc:
                panels.append((dim, cyc))
    if not panels:
        return False
    fig, axes = plt.subplots(1, len(panels), figsize=(4.2 * len(panels), 3.4), squeeze=False,
                             sharey=False)
    for ax, (dim, cyc) in zip(axes[0], panels):
        for c in sorted(cyc):
            x, y, pts = cyc[c]
            ax.plot(x, y, "-", lw=1.4, label="cycle %d" % c)
            sx = [xi for xi, pi in zip(x, pts) if pi == "saddle"]
            sy = [yi for yi, pi in zip(y, pts) if pi == "saddle"]
            mx = [xi for xi, pi in zip(x, pts) if pi not in ("saddle", "none", "")]
            my = [yi for yi, pi in zip(y, pts) if pi not in ("saddle", "none", "")]
            ax.plot(sx, sy, "^", ms=4, color=ax.lines[-1].get_color())
            ax.plot(mx, my, "o", ms=3, color=ax.lines[-1].get_color())
        b = rec.get("barrier_%s_eV" % dim.lower())
        ax.set_title("%s path, barrier %s" % (dim, "%.3f eV" % b if b is not None else "?"),
                     fontsize=10)
        ax.set_xlabel("distance along the path (A)")
        if ax is axes[0][0]:
            ax.set_ylabel("energy above the path's lowest site (eV)")
        if len(cyc) > 1:
            ax.legend(fontsize=7, frameon=False)
        ax.grid(alpha=0.3)
    fig.suptitle("%s  %s  (%s; ^ saddle, o site)" % (rec["structure"], rec.get("formula") or "",
                                                     rec.get("mobile") or ""), fontsize=10)
    fig.tight_layout(rect=(0, 0, 1, 0.94))
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


def plot_scatter(recs, path):
    pts = [r for r in recs if r.get("gii") is not None and r.get("barrier_min_eV") is not None]
    fig, ax = plt.subplots(figsize=(6.0, 4.8))
    for dim, colour in DIM_COLOURS.items():
        sel = [r for r in pts if r.get("percolation") == dim]
        if sel:
            ax.scatter([r["gii"] for r in sel], [r["barrier_min_eV"] for r in sel], s=28,
                       color=colour, label="percolates in %s" % dim, zorder=3)
    if len(pts) <= 40:  # names stay readable for small sets
        for r in pts:
            ax.annotate(r["structure"], (r["gii"], r["barrier_min_eV"]), fontsize=7,
                        xytext=(4, 3), textcoords="offset points")
    missing = len(recs) - len(pts)
    ax.set_xlabel("global instability index GII (v.u.)")
    ax.set_ylabel("lowest percolation barrier (eV)")
    ax.set_title("%d of %d structures%s" % (len(pts), len(recs),
                                            "; %d without a percolation barrier not shown"
                                            % missing if missing else ""), fontsize=10)
    ax.grid(alpha=0.3)
    if pts:
        ax.margins(x=0.1, y=0.08)  # room for the names at the edges
        ax.legend(fontsize=8, frameon=False, ncol=3, loc="upper center",
                  bbox_to_anchor=(0.5, -0.13))
    else:
        ax.text(0.5, 0.5, "no structure has a percolation barrier", ha="center",
                transform=ax.transAxes)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)


def save_atomic(draw, path, *args):
    """Draws into a temporary name beside path, then renames."""
    d = os.path.dirname(os.path.abspath(path))
    os.makedirs(d, exist_ok=True)
    tmp = os.path.join(d, ".tmp%d.%s" % (os.getpid(), os.path.basename(path)))
    ok = draw(*args, tmp)
    if ok is False:
        return False
    os.replace(tmp, path)
    return True


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("table", help="screen.jsonl written by screen_summary.py gather")
    p.add_argument("--scatter", required=True, help="PNG of barrier against GII")
    p.add_argument("--profiles", required=True, help="folder for one PNG per structure")
    a = p.parse_args(argv)
    with open(a.table) as f:
        recs = [json.loads(l) for l in f if l.strip()]
    root = os.path.dirname(os.path.abspath(a.table))
    os.makedirs(a.profiles, exist_ok=True)
    n = 0
    for r in recs:
        n += save_atomic(lambda tmp, r=r: plot_profiles(r, root, tmp),
                         os.path.join(a.profiles, r["structure"] + ".png"))
    save_atomic(lambda tmp: plot_scatter(recs, tmp), a.scatter)
    print("plots: %d profile figures in %s, scatter %s" % (n, a.profiles, a.scatter))


if __name__ == "__main__":
    sys.exit(main())
