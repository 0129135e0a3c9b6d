#!/usr/bin/env bash
# A metadata-only conversion against cp of the same file, side by side.
#
# Synthesises a camera movie of about 1 GiB for each generation (1920x960
# 30 fps H.264 of noise at about 140 Mbit/s with stereo AAC, wrapped by
# tests/fixtures/make_movie.py in every box the camera writes: maker note,
# sensor streams, thumbnail, XMP, Spherical XML, location boxes, GPS meta,
# and for the newer camera the spatial data), then runs, alternating,
#   Resize SRC out.mp4      (metadata only)
#   cp SRC copy.mp4
# and reports for each the median wall time of RUNS runs, CPU time, peak RSS
# and the bytes written (/proc/PID/io), with the ratios to cp.
#
#   bench/metadata_vs_cp.sh [BUILD_DIR] [WORK_DIR]    (RUNS=5 by default)
#
# MOVIES_ONLY=1 stops once the movies (WORK_DIR/older.mp4, newer.mp4) are
# there, for benchmarks that measure them elsewhere.
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD
BUILD=${1:-build}
WORK=${2:-/tmp/resize-metadata-bench}
RUNS=${RUNS:-5}
RESIZE=$(cd "$BUILD/bin" && pwd)/Resize
MEASURE=$REPO/bench/measure.py
[ -x "$RESIZE" ] || { echo "missing $RESIZE (build first)" >&2; exit 2; }
mkdir -p "$WORK"
cd "$WORK"

BASE=base_1g.mp4
if [ ! -s "$BASE" ]; then
    echo "synthesising $BASE (about 1 GiB)..."
    ffmpeg -nostdin -v error -y \
        -f lavfi -i "testsrc2=size=1920x960:rate=30:duration=6,noise=alls=30:allf=t" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=6" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -b:v 140M -maxrate 140M -bufsize 140M -g 30 \
        -c:a aac -ac 2 -b:a 128k -shortest clip.mp4
    # Ten copies of the clip, back to back, without encoding again.
    ffmpeg -nostdin -v error -y -stream_loop 9 -i clip.mp4 -c copy -map_metadata -1 "$BASE.tmp.mp4"
    mv "$BASE.tmp.mp4" "$BASE"
    rm -f clip.mp4
fi
DURATION=$(ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 "$BASE")

for model in older newer; do
    if [ ! -s "$model.mp4" ]; then
        echo "adding the $model camera's boxes..."
        python3 - "$REPO/tests/fixtures" "$BASE" "$model.mp4" "$model" "$DURATION" <<'PY'
import sys
from pathlib import Path
sys.path.insert(0, sys.argv[1])
import make_movie
base, out, model, duration = Path(sys.argv[2]).resolve(), sys.argv[3], sys.argv[4], sys.argv[5]
o = make_movie.parse_options(["--model", model, "--size", "1920x960", "--duration", duration, "--out", out])
make_movie.base_movie = lambda options: base  # the synthesised picture and sound
make_movie.build(o)
PY
    fi
done

[ "${MOVIES_ONLY:-0}" = 1 ] && exit 0

# run NAME CMD...: one measured run, appended to NAME.runs.
run() {
    local name=$1; shift
    "$MEASURE" "$@" >>"$name.runs" || { echo "$name failed: $*" >&2; exit 1; }
}
median() { # NAME FIELD (1 wall, 2 cpu, 3 peak KiB, 4 bytes written)
    sort -g -k"$2","$2" "$1.runs" | awk -v f="$2" '{ v[NR] = $f } END { print v[int((NR + 1) / 2)] }'
}

minimum() { sort -g -k"$2","$2" "$1.runs" | head -1 | cut -d' ' -f"$2"; }

echo "== $RUNS run(s) each, alternating; load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf '\n| Movie | Size | cp | Resize | Ratio | Resize peak RSS | Written / output size |\n|---|---|---|---|---|---|---|\n'
for model in older newer; do
    rm -f "$model-resize.runs" "$model-cp.runs"
    # Each run starts from the same state: the source read into the page
    # cache, and no dirty pages of an earlier run still being written back
    # (which would slow whichever run came next).
    settle() {
        rm -f out.mp4 copy.mp4
        sync
        cat "$model.mp4" >/dev/null
    }
    for i in $(seq "$RUNS"); do
        settle
        run "$model-cp" cp "$model.mp4" copy.mp4
        settle
        run "$model-resize" "$RESIZE" "$model.mp4" out.mp4
    done
    awk -v m="$model" -v s="$(stat -c %s "$model.mp4")" -v c="$(median "$model-cp" 1)" -v r="$(median "$model-resize" 1)" \
        -v cm="$(minimum "$model-cp" 1)" -v rm="$(minimum "$model-resize" 1)" -v p="$(median "$model-resize" 3)" \
        -v w="$(median "$model-resize" 4)" -v o="$(stat -c %s out.mp4)" 'BEGIN {
        printf "| %s camera | %.0f MiB | %.3f s (best %.3f) | %.3f s (best %.3f) | %.2f (best %.2f) | %.1f MiB | %.3f |\n",
            m, s / 1048576, c, cm, r, rm, r / c, rm / cm, p / 1024, w / o }'
done
echo
echo "cp median, then Resize median, over $RUNS alternating runs; best: the fastest run of each."
rm -f out.mp4 copy.mp4
