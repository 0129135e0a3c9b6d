#!/usr/bin/env bash
# Re-encode speed and quality of Resize against ffmpeg's command-line tool,
# for both output codecs.
#
# Synthesises 3840x1920 30 fps H.264 movies of about 56 Mbit/s with stereo
# AAC (testsrc2 plus temporal noise, so that they do not compress
# trivially), 10 s and 4 s long, then runs, alternating, RUNS times each:
#   H.264, 10 s source:
#     Resize -vw:1920 -vb:16000000 -ki:30 SRC10 out.mp4
#     ffmpeg as a user would write it: libx264 at its default preset,
#       Baseline, the same size, bit rate and key-frame interval, and the
#       audio Resize writes (AAC, 128 kbit/s, one channel, the source's rate)
#   H.265, 4 s source:
#     Resize -h265 -vw:1920 -vb:8000000 -ki:30 SRC4 out.mp4
#     ffmpeg with libx265 at its default preset, the same size, bit rate,
#       key-frame interval, tag and audio
# and reports for each the median wall time, CPU time (user + system) and
# peak RSS, and the SSIM of the output against the source scaled to
# 1920x960 (ffmpeg's bicubic), with the output first brought to limited
# range: Resize writes full range, as the camera format declares, and
# ffmpeg's ssim filter would otherwise score it in full range, where the
# same error scores lower. The load average is printed before and after;
# timings are only comparable on an otherwise idle machine.
#
# Then the metadata-only path: the 10 s movie with the camera's boxes added
# (tests/fixtures/make_movie.py around this picture and sound), Resize SRC
# out.mp4 against cp SRC out.mp4.
#
#   bench/reencode_vs_ffmpeg.sh [BUILD_DIR] [WORK_DIR]     (RUNS=3 by default)
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD
BUILD=${1:-build}
WORK=${2:-/tmp/resize-reencode-bench}
RUNS=${RUNS:-3}
RESIZE=$BUILD/bin/Resize
[ -x "$RESIZE" ] || { echo "missing $RESIZE (build first)" >&2; exit 2; }
RESIZE=$(cd "$(dirname "$RESIZE")" && pwd)/Resize
mkdir -p "$WORK"
cd "$WORK"

make_source() { # seconds path
    [ -s "$2" ] && return 0
    echo "synthesising $2 ($1 s, 3840x1920, ~56 Mbit/s)..."
    ffmpeg -nostdin -v error -y \
        -f lavfi -i "testsrc2=size=3840x1920:rate=30:duration=$1,noise=alls=12:allf=t" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$1" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -b:v 56M -maxrate 56M -bufsize 56M -g 30 \
        -c:a aac -ac 2 -b:a 192k -shortest "$2.tmp.mp4"
    mv "$2.tmp.mp4" "$2"
}
SRC=src_10s.mp4
SRC4=src_4s.mp4
make_source 10 "$SRC"
make_source 4 "$SRC4"

AUDIO=(-c:a aac -b:a 128k -ac 1)
R264=("$RESIZE" -vw:1920 -vb:16000000 -ki:30 "$SRC" r264.mp4)
F264=(ffmpeg -nostdin -v error -y -i "$SRC" -vf scale=1920:960
      -c:v libx264 -profile:v baseline -b:v 16M -g 30 "${AUDIO[@]}" f264.mp4)
R265=("$RESIZE" -h265 -vw:1920 -vb:8000000 -ki:30 "$SRC4" r265.mp4)
F265=(ffmpeg -nostdin -v error -y -i "$SRC4" -vf scale=1920:960
      -c:v libx265 -x265-params log-level=error -b:v 8M -g 30 -tag:v hvc1 "${AUDIO[@]}" f265.mp4)

# measure NAME CMD...: one run; appends "wall cpu peakKiB" to NAME.runs.
measure() {
    local name=$1; shift
    rm -f "$name.time"
    /usr/bin/time -f "%e %U %S %M" -o "$name.time" "$@" >"$name.log" 2>&1 ||
        { echo "$name failed:"; tail -20 "$name.log"; exit 1; }
    awk '{ printf "%.2f %.2f %d\n", $1, $2 + $3, $4 }' "$name.time" >>"$name.runs"
}

# median NAME FIELD: the median of a column of NAME.runs (1 wall, 2 cpu, 3 peak).
median() {
    sort -n -k"$2","$2" "$1.runs" | awk -v f="$2" '{ v[NR] = $f } END { print v[int((NR + 1) / 2)] }'
}

ssim() { # output source
    ffmpeg -nostdin -hide_banner -i "$1" -i "$2" \
        -lavfi "[0:v]scale=out_range=tv,format=yuv420p[o];[1:v]scale=1920:960,format=yuv420p[r];[o][r]ssim" \
        -f null - 2>&1 | sed -n 's/.*All:\([0-9.]*\).*/\1/p' | tail -1
}

echo "== re-encode: $RUNS run(s) each, alternating; load average $(cut -d' ' -f1-3 /proc/loadavg)"
NAMES=(r264 f264 r265 f265)
for n in "${NAMES[@]}"; do rm -f "$n.runs"; done
for i in $(seq "$RUNS"); do
    measure r264 "${R264[@]}"
    measure f264 "${F264[@]}"
    measure r265 "${R265[@]}"
    measure f265 "${F265[@]}"
done
echo "== load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
for n in "${NAMES[@]}"; do
    echo "$n runs (wall s, cpu s, peak KiB): $(tr '\n' ';' <"$n.runs")"
done

describe() {
    ffprobe -v error -show_entries stream=codec_name,profile,width,height,bit_rate,color_range,sample_rate,channels \
        -of compact=nk=0:p=0 "$1" | tr '\n' ' '
}
for n in "${NAMES[@]}"; do echo "$n output: $(describe "$n.mp4")"; done

declare -A W C M S
for n in "${NAMES[@]}"; do
    W[$n]=$(median "$n" 1); C[$n]=$(median "$n" 2); M[$n]=$(( $(median "$n" 3) / 1024 ))
done
S[r264]=$(ssim r264.mp4 "$SRC"); S[f264]=$(ssim f264.mp4 "$SRC")
S[r265]=$(ssim r265.mp4 "$SRC4"); S[f265]=$(ssim f265.mp4 "$SRC4")

printf '\n| Output | | Resize | ffmpeg default preset | Resize / ffmpeg |\n|---|---|---|---|---|\n'
row() { # codec-label prefix
    local r=r$2 f=f$2
    awk -v l="$1" -v n="$RUNS" -v rw="${W[$r]}" -v fw="${W[$f]}" -v rc="${C[$r]}" -v fc="${C[$f]}" \
        -v rm="${M[$r]}" -v fm="${M[$f]}" -v rs="${S[$r]}" -v fs="${S[$f]}" 'BEGIN {
        printf "| %s | wall time (median of %d) | %.2f s | %.2f s | %.2f |\n", l, n, rw, fw, rw / fw
        printf "| | CPU time (user+sys) | %.2f s | %.2f s | %.2f |\n", rc, fc, rc / fc
        printf "| | peak RSS | %d MiB | %d MiB | %.2f |\n", rm, fm, rm / fm
        printf "| | SSIM, output in limited range | %.4f | %.4f | %+.4f |\n", rs, fs, rs - fs
    }'
}
row "H.264 Baseline, 16 Mbit/s, 10 s" 264
row "H.265, 8 Mbit/s, 4 s" 265
awk -v a="${W[r264]}" -v b="${W[f264]}" -v c="${W[r265]}" -v d="${W[f265]}" \
    -v e="${S[r264]}" -v f="${S[f264]}" -v g="${S[r265]}" -v h="${S[f265]}" 'BEGIN {
    printf "\ntargets: wall-time ratio H.264 %.2f (at most 0.60), H.265 %.2f (at most 0.75);", a / b, c / d
    printf " SSIM Resize - ffmpeg H.264 %+.4f, H.265 %+.4f (at least -0.002)\n", e - f, g - h
}'

# ---------------------------------------------------------------- metadata only
CAM=camera_10s.mp4
if [ ! -s "$CAM" ]; then
    echo
    echo "adding the camera's boxes to $SRC..."
    # make_movie.py builds its movies around an ffmpeg base movie; here the
    # base is the synthetic source itself.
    python3 - "$REPO/tests/fixtures" "$SRC" "$CAM" <<'EOF'
import sys
from pathlib import Path
sys.path.insert(0, sys.argv[1])
import make_movie
src, out = Path(sys.argv[2]).resolve(), sys.argv[3]
o = make_movie.parse_options(["--size", "3840x1920", "--duration", "10", "--out", out])
make_movie.base_movie = lambda options: src
make_movie.build(o)
EOF
fi
rm -f meta.runs metacopy.runs
for i in $(seq $((RUNS * 2 + 1))); do
    measure meta "$RESIZE" "$CAM" out_meta.mp4
    measure metacopy cp "$CAM" copy_meta.mp4
done
W_M=$(median meta 1); W_MC=$(median metacopy 1)
echo
echo "metadata only on $CAM ($(( $(stat -c %s "$CAM") / 1048576 )) MiB), median of $((RUNS * 2 + 1)) runs:"
echo "  Resize $CAM out.mp4: $W_M s (peak RSS $(( $(median meta 3) / 1024 )) MiB)"
echo "  cp $CAM out.mp4:     $W_MC s"
awk -v m="$W_M" -v c="$W_MC" 'BEGIN { printf "  ratio Resize/cp: %.2f\n", m / c }'
