#!/usr/bin/env bash
# Times resize-batch over eight metadata-only conversions, one movie at a
# time (-j 1) against four at a time (-j 4), and prints the speed-up.
# The eight movies are copies of one synthetic 1920x960 camera movie of 10 s;
# each setting runs RUNS times (default 3), alternating, and the median counts.
#
#   bench/batch_jobs.sh [BUILD_DIR] [WORK_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
WORK=${2:-/tmp/resize-bench-batch}
RUNS=${RUNS:-3}
BATCH=$BUILD/bin/resize-batch
[ -x "$BATCH" ] || { echo "missing $BATCH (build first)" >&2; exit 2; }
mkdir -p "$WORK/src"
if [ ! -s "$WORK/src/m8.mp4" ]; then
    python3 tests/fixtures/make_movie.py --model newer --size 1920x960 --duration 10 --out "$WORK/one.mp4"
    for i in 1 2 3 4 5 6 7 8; do cp "$WORK/one.mp4" "$WORK/src/m$i.mp4"; done
fi
echo "8 movies of $(du -m "$WORK/one.mp4" | cut -f1) MiB, metadata-only, $(nproc) cores"

declare -A TIMES
for run in $(seq "$RUNS"); do
    for j in 1 4; do
        rm -rf "$WORK/out"
        t0=$(date +%s.%N)
        "$BATCH" -j "$j" "$WORK/src" "$WORK/out" >/dev/null
        t1=$(date +%s.%N)
        TIMES[$j]+="$(awk -v a="$t0" -v b="$t1" 'BEGIN {printf "%.3f", b - a}') "
    done
done
median() { tr ' ' '\n' | grep . | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
m1=$(echo "${TIMES[1]}" | median)
m4=$(echo "${TIMES[4]}" | median)
printf -- '-j 1: %.2f s   (runs: %s)\n' "$m1" "${TIMES[1]}"
printf -- '-j 4: %.2f s   (runs: %s)\n' "$m4" "${TIMES[4]}"
awk -v a="$m1" -v b="$m4" 'BEGIN {printf "speed-up: %.2f\n", a / b}'
