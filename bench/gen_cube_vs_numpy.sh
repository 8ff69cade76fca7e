#!/bin/bash
# Whole `--gen-cube` runs against the numpy landscape (bench/landscape_numpy.py) on one core
# each, alternated run by run so that both sides share the machine's load; prints the median
# wall and CPU time of each side, their ratio, and how far the two cube files agree.
#   bench/gen_cube_vs_numpy.sh build/release/quovix.x [repetitions]
set -euo pipefail
exe=$(realpath "$1")
reps=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MKL_NUM_THREADS=1
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
# structure, mobile ion, oxidation states for the numpy reader (the files carry none; the
# program takes each element's default state of the unitary file)
cases="LiFePO4_olivine_P1 Li Li=1,Fe=3,P=5,O=-2
Na3PS4_cubic_2x2x2_P1 Na Na=1,P=5,S=-2"
while read -r name ion states; do
    cp "$here/../tests/data/$name.cif" "$work/"
    : > "$work/tq"; : > "$work/tn"
    for ((r = 0; r < reps; r++)); do
        (cd "$work" && /usr/bin/time -f "%e %U %S" -o tq1 "$exe" --gen-cube "$name.cif" "$ion" 1 \
            0.8 0.1 > /dev/null && cat tq1 >> tq)
        (cd "$work" && /usr/bin/time -f "%e %U %S" -o tn1 /usr/bin/python3 \
            "$here/landscape_numpy.py" "$name.cif" "$ion" 1 0.8 0.1 numpy.cube "$states" &&
            cat tn1 >> tn)
    done
    wq=$(awk '{ print $1 }' "$work/tq" | median); cq=$(awk '{ print $2 + $3 }' "$work/tq" | median)
    wn=$(awk '{ print $1 }' "$work/tn" | median); cn=$(awk '{ print $2 + $3 }' "$work/tn" | median)
    agree=$(/usr/bin/python3 - "$work/$name.cube" "$work/numpy.cube" <<'PY'
import sys
def values(path):
    lines = open(path, "rb").read().decode().split("\r\n")
    natom = int(lines[2].split()[0])
    return [l for l in lines[6 + natom:] if l.strip()]
a, b = values(sys.argv[1]), values(sys.argv[2])
worst = max(abs(float(x) - float(y)) for x, y in zip(a, b))
print("%d values, %d printed differently, largest difference %.1e eV" %
      (len(a), sum(x != y for x, y in zip(a, b)), worst))
PY
)
    awk -v n="$name" -v r="$reps" -v wq="$wq" -v cq="$cq" -v wn="$wn" -v cn="$cn" 'BEGIN {
        printf "%s (median of %d, 1 thread each): quovix.x %.2f s wall, %.2f s CPU; numpy %.2f s wall, %.2f s CPU; CPU ratio %.1f\n",
               n, r, wq, cq, wn, cn, cn / cq }'
    echo "  cubes: $agree"
done <<< "$cases"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
