#!/usr/bin/env bash
# Checks that re-encoding memory does not grow with the movie's length and
# that the transcoder keeps both cores busy. Synthesises a 3840x1920, 30 fps,
# ~56 Mbit/s H.264 movie with stereo AAC of 5 s and of 20 s, re-encodes each
# to 1920x960 through the transcoder, and reports peak RSS and CPU use.
#
#   bench/memory_flat.sh [BUILD_DIR] [WORK_DIR]
# H.264 at 16 Mbit/s; CODEC=h265 for H.265 at 8 Mbit/s.
# Exit status 1 when the two peaks differ by more than 10 %.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
WORK=${2:-/tmp/resize-bench}
TOOL=$BUILD/bin/transcode_memory_tool
case ${CODEC:-h264} in
h264) ENCODE=(-vb:16000000 -ki:30) ;;
h265) ENCODE=(-h265 -vb:8000000 -ki:30) ;;
*) echo "CODEC is h264 or h265" >&2; exit 2 ;;
esac
[ -x "$TOOL" ] || { echo "missing $TOOL (build first)" >&2; exit 2; }
mkdir -p "$WORK"

make_source() { # seconds path
    [ -s "$2" ] && return 0
    echo "synthesising $2 ($1 s, 3840x1920)..."
    ffmpeg -v error -y \
        -f lavfi -i "testsrc2=size=3840x1920:rate=30:duration=$1,noise=alls=12:allf=t" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$1" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -b:v 56M -maxrate 56M -bufsize 56M -g 30 \
        -c:a aac -ac 2 -b:a 192k -shortest "$2.tmp.mp4"
    mv "$2.tmp.mp4" "$2"
}

declare -A PEAK
for secs in 5 20; do
    src=$WORK/src_${secs}s.mp4
    make_source "$secs" "$src"
    rate=$(ffprobe -v error -select_streams v -show_entries format=bit_rate -of csv=p=0 "$src")
    echo "== ${secs} s source: $(awk -v r="$rate" 'BEGIN{printf "%.1f Mbit/s", r/1e6}')"
    /usr/bin/time -v "$TOOL" "$src" "$WORK/out_${secs}s.mp4" 1920 "${ENCODE[@]}" \
        >"$WORK/tool_${secs}s.txt" 2>"$WORK/time_${secs}s.txt"
    cat "$WORK/tool_${secs}s.txt"
    peak=$(awk -F: '/Maximum resident set size/ {gsub(/ /, "", $2); print $2}' "$WORK/time_${secs}s.txt")
    cpu=$(awk -F: '/Percent of CPU this job got/ {gsub(/ /, "", $2); print $2}' "$WORK/time_${secs}s.txt")
    echo "time -v      peak RSS ${peak} KiB, CPU ${cpu}"
    PEAK[$secs]=$peak
done

awk -v a="${PEAK[5]}" -v b="${PEAK[20]}" 'BEGIN {
    d = (b > a ? b - a : a - b) / (a > b ? a : b) * 100
    printf "peak RSS 5 s: %d KiB, 20 s: %d KiB, difference %.1f %%\n", a, b, d
    exit d > 10 ? 1 : 0
}'
