#!/bin/bash
# The fast benchmarks of two builds of the program (two source trees, each configured with the
# `bench` preset), alternated build by build over several rounds so that both sides share the
# machine's load; prints the median over the rounds of each benchmark's median of 5 repetitions.
#   bench/compare_builds.sh <old tree> <new tree> [rounds]
# Each tree is used from its own directory (the benchmarks read tests/data there).
set -euo pipefail
old=$(realpath "$1")
new=$(realpath "$2")
rounds=${3:-3}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
common=(--benchmark_repetitions=5 --benchmark_report_aggregates_only=true
        --benchmark_format=csv)
for ((r = 1; r <= rounds; r++)); do
    for side in old new; do
        tree=${!side}
        b=$tree/build/bench/bench
        (cd "$tree" && "$b/bench_symmetry" --benchmark_filter=Binned "${common[@]}" \
            > "$out/sym.$side.$r.csv" 2> /dev/null)
        (cd "$tree" && OMP_NUM_THREADS=1 "$b/bench_total_energy" \
            --benchmark_filter='BM_TotalEnergy/|Screening' "${common[@]}" \
            > "$out/tot.$side.$r.csv" 2> /dev/null)
        (cd "$tree" && OMP_NUM_THREADS=1 "$b/bench_bv_sum" --benchmark_filter='BM_BvSum/' \
            "${common[@]}" > "$out/bv.$side.$r.csv" 2> /dev/null)
        (cd "$tree" && "$b/bench_landscape" --benchmark_filter=fast "${common[@]}" \
            > "$out/land.$side.$r.csv" 2> /dev/null)
        echo "round $r, $side build done; load average $(cut -d' ' -f1-3 /proc/loadavg)"
    done
done
/usr/bin/python3 - "$out" <<'EOF'
import csv, glob, os, statistics, sys
from collections import defaultdict

res = defaultdict(lambda: defaultdict(list))
for path in glob.glob(os.path.join(sys.argv[1], "*.csv")):
    side = os.path.basename(path).split(".")[1]
    rows = [l for l in open(path) if l.startswith('"') or l.startswith("name")]
    for row in csv.DictReader(rows):
        if row["name"].endswith("_median"):
            res[row["name"][:-7]][side].append((float(row["real_time"]), float(row["cpu_time"]),
                                               row["time_unit"]))
print("| benchmark | old: wall / CPU | new: wall / CPU | new / old (wall, CPU) |")
print("|---|---|---|---|")
for name in sorted(res):
    o, n = res[name]["old"], res[name]["new"]
    if not o or not n:
        continue
    wo, co = (statistics.median(x[k] for x in o) for k in (0, 1))
    wn, cn = (statistics.median(x[k] for x in n) for k in (0, 1))
    unit = o[0][2]
    print(f"| {name} | {wo:.3f} / {co:.3f} {unit} | {wn:.3f} / {cn:.3f} {unit} | "
          f"{wn / wo:.2f}, {cn / co:.2f} |")
EOF
