#!/bin/bash
# Whole `--cal-tot-en` runs (reading, screening-factor fit, energies) on 1 and on 2 threads,
# alternated run by run so that both sides share the machine's load; prints the median wall
# and CPU time of each side and their ratio.
#   bench/cal_tot_en_threads.sh build/release/quovix.x [repetitions]
set -euo pipefail
exe=$(realpath "$1")
reps=${2:-7}
TIMEFORMAT='%3R %3U %3S'
here=$(cd "$(dirname "$0")" && pwd)
# Work files on tmpfs when there is one, so that writing one run's output does not start disk
# writeback under the next run.
work=$(mktemp -d -p /dev/shm 2> /dev/null || mktemp -d)
trap 'rm -rf "$work"' EXIT
# The faujasite file has no occupancy column, which the CIF reader requires: add 1.0.
awk '{ if (s && substr($0, 1, 1) == " ") $0 = $0 "  1.0"; print }
     /^_atom_site_fract_z/ { print "_atom_site_occupancy"; s = 1 }' \
    "$here/../tests/data/FAU_faujasite_SiO2.cif" > "$work/FAU_faujasite_SiO2.cif"
cp "$here/../tests/data/Li4B7O12Cl_boracite.cif" "$work/"
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
for cif in FAU_faujasite_SiO2 Li4B7O12Cl_boracite; do
    : > "$work/t1"; : > "$work/t2"
    for ((r = 0; r < reps; r++)); do
        for t in 1 2; do
            # Wall time from bash's microsecond clock around the child; user and system time
            # from bash's own timer (1 ms resolution).
            start=$EPOCHREALTIME
            { time OMP_NUM_THREADS=$t "$exe" --cal-tot-en "$work/$cif.cif" > "$work/out$t" 2> /dev/null; } \
                2> "$work/one"
            end=$EPOCHREALTIME
            awk -v a="$start" -v b="$end" '{ printf "%.6f %.3f\n", b - a, $2 + $3 }' "$work/one" >> "$work/t$t"
        done
        cmp -s "$work/out1" "$work/out2" || { echo "$cif: output differs between 1 and 2 threads"; exit 1; }
    done
    w1=$(cut -d' ' -f1 "$work/t1" | median); w2=$(cut -d' ' -f1 "$work/t2" | median)
    c1=$(cut -d' ' -f2 "$work/t1" | median); c2=$(cut -d' ' -f2 "$work/t2" | median)
    awk -v n="$cif" -v w1="$w1" -v w2="$w2" -v c1="$c1" -v c2="$c2" -v r="$reps" 'BEGIN {
        printf "%s: median of %d, wall 1 thread %.4f s, 2 threads %.4f s, speed-up %.2f; CPU %.3f s / %.3f s\n",
               n, r, w1, w2, w1 / w2, c1, c2 }'
done
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
