#!/usr/bin/env python3
"""Layer check on the object files of the core library.

Reads the defined and undefined symbols of every member of the static library with `nm`
and fails when an object calls a function defined in a higher layer. Calls within one
layer are allowed, but no two objects may call each other, directly or through others.
Every object must belong to a layer: a new source file gets its place in LAYERS.

Usage: check_layers.py <nm> <libquovix_core.a>
"""
import fnmatch
import subprocess
import sys

# Lowest first. Patterns match the object name without ".cpp.o".
LAYERS = [
    ("files", ["quovix-io"]),
    ("records and algebra", ["quovix-alloc", "quovix-ds", "quovix-la"]),
    ("CIF text", ["quovix-import-text"]),
    ("symmetry", ["quovix-import-sym"]),
    ("pair functions", ["quovix-import-pair", "quovix-pair-*"]),
    ("parameter tables", ["quovix-import-ppt"]),
    ("cell", ["quovix-import-cell"]),
    ("CIF reader", ["quovix-import-cif", "quovix-import-cif-*"]),
    ("energies", ["quovix-rx", "quovix-rx-*"]),
    ("parameter set with fit", ["quovix-import-ppt-build"]),
    ("bond valence and landscape", ["quovix-bv", "quovix-bv-*", "quovix-cube", "quovix-cube-*"]),
    ("spectral tools", ["quovix-fft", "quovix-fft-*"]),
    ("path map", ["quovix-fp", "quovix-fp-*"]),
    ("migration graph", ["quovix-gh", "quovix-gh-*"]),
    ("simulation and export",
     ["quovix-kmc", "quovix-kmc-*", "quovix-md", "quovix-md-*", "quovix-cn", "quovix-cn-*",
      "quovix-gin", "quovix-gin-*", "quovix-os"]),
    ("command helpers", ["quovix-cmd"]),
    ("command handlers", ["quovix-cmd-*"]),
    ("command table", ["quovix-cmd-table"]),
]

STRONG = set("TDBR")  # weak (W, V) and unique (u) symbols are inline copies, not calls


def layer_of(name):
    # The most specific pattern wins ("quovix-cmd-bv" is a handler, not a helper).
    best = None
    for rank, (_, patterns) in enumerate(LAYERS):
        for p in patterns:
            if fnmatch.fnmatchcase(name, p) and (best is None or len(p) > best[1]):
                best = (rank, len(p))
    return None if best is None else best[0]


def read_members(nm, archive, flags):
    out = subprocess.run([nm, *flags, archive], capture_output=True, text=True, check=True).stdout
    members, current = {}, None
    for line in out.splitlines():
        if line.endswith(".o:"):
            current = line[:-1].removesuffix(".o").removesuffix(".cpp")
            members.setdefault(current, [])
        elif line.strip() and current is not None:
            parts = line.split()
            members[current].append((parts[-2], parts[-1]))
    return members


def demangle(nm_symbol):
    out = subprocess.run(["c++filt", nm_symbol], capture_output=True, text=True)
    return out.stdout.strip() or nm_symbol


def main():
    if len(sys.argv) != 3:
        print(__doc__)
        return 2
    nm, archive = sys.argv[1], sys.argv[2]
    defined = read_members(nm, archive, ["--defined-only", "-g"])
    undefined = read_members(nm, archive, ["-u"])
    owner = {}
    for obj, syms in defined.items():
        for kind, sym in syms:
            if kind in STRONG:
                owner[sym] = obj

    faults = []
    rank = {}
    for obj in defined:
        rank[obj] = layer_of(obj)
        if rank[obj] is None:
            faults.append(f"{obj}: no layer; add it to LAYERS in {sys.argv[0]}")
    edges = {}
    for obj, syms in undefined.items():
        for _, sym in syms:
            dst = owner.get(sym)
            if dst is None or dst == obj:
                continue
            edges.setdefault(obj, {}).setdefault(dst, sym)
            if rank.get(obj) is not None and rank.get(dst) is not None and rank[dst] > rank[obj]:
                faults.append(f"{obj} ({LAYERS[rank[obj]][0]}) calls up into {dst} "
                              f"({LAYERS[rank[dst]][0]}): {demangle(sym)}")

    # Loops inside a layer: depth-first search for an edge back onto the current path.
    state, path = {}, []

    def visit(node):
        state[node] = 1
        path.append(node)
        for nxt in sorted(edges.get(node, {})):
            if state.get(nxt) == 1:
                faults.append("loop: " + " -> ".join(path[path.index(nxt):] + [nxt]))
            elif nxt not in state:
                visit(nxt)
        path.pop()
        state[node] = 2

    for obj in sorted(defined):
        if obj not in state:
            visit(obj)

    for f in faults:
        print(f)
    print(f"{len(defined)} objects, {sum(len(d) for d in edges.values())} links between them, "
          f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
