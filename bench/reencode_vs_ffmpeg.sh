#!/usr/bin/env bash
# Re-encode speed and quality of Resize against ffmpeg's command-line tool.
#
# Synthesises a 10 s 3840x1920 30 fps H.264 movie of about 56 Mbit/s with
# stereo AAC (testsrc2 plus temporal noise, so that it does not compress
# trivially), then, side by side and alternating:
#   Resize -vw:1920 -vb:16000000 -ki:30 SRC out.mp4
#   ffmpeg as a user would write it: libx264 at its default preset, baseline
#     profile, the same size, bit rate and key-frame interval, and the audio
#     Resize writes (AAC, 128 kbit/s, one channel, the source's rate)
#   the same ffmpeg command writing full range, as Resize does (the camera
#     format's avcC says full range), for a like-for-like quality figure
#   cp SRC copy.mp4, for scale
# and reports wall time (median of RUNS runs), CPU time, peak RSS and each
# output's SSIM against the source scaled to 1920x960.
#
# Then the metadata-only path: the same movie with the camera's boxes added
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

SRC=src_10s.mp4
if [ ! -s "$SRC" ]; then
    echo "synthesising $SRC (10 s, 3840x1920, ~56 Mbit/s)..."
    ffmpeg -nostdin -v error -y \
        -f lavfi -i "testsrc2=size=3840x1920:rate=30:duration=10,noise=alls=12:allf=t" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -b:v 56M -maxrate 56M -bufsize 56M -g 30 \
        -c:a aac -ac 2 -b:a 192k -shortest "$SRC.tmp.mp4"
    mv "$SRC.tmp.mp4" "$SRC"
fi

RESIZE_CMD=("$RESIZE" -vw:1920 -vb:16000000 -ki:30 "$SRC" out_resize.mp4)
FFMPEG_CMD=(ffmpeg -nostdin -v error -y -i "$SRC" -vf scale=1920:960
            -c:v libx264 -profile:v baseline -b:v 16M -g 30
            -c:a aac -b:a 128k -ac 1 out_ffmpeg.mp4)
FFMPEG_FULL_CMD=(ffmpeg -nostdin -v error -y -i "$SRC" -vf scale=1920:960:out_range=full -pix_fmt yuvj420p
                 -c:v libx264 -profile:v baseline -b:v 16M -g 30
                 -c:a aac -b:a 128k -ac 1 out_ffmpeg_full.mp4)
COPY_CMD=(cp "$SRC" copy.mp4)

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

ssim() { # output [filter before ssim on the output] [on the reference]
    ffmpeg -nostdin -hide_banner -i "$1" -i "$SRC" \
        -lavfi "[0]${2:-null}[o];[1]scale=1920:960${3:-}[r];[o][r]ssim" -f null - 2>&1 |
        sed -n 's/.*All:\([0-9.]*\).*/\1/p' | tail -1
}

echo "== re-encode: $RUNS run(s) each, alternating; load average $(cut -d' ' -f1-3 /proc/loadavg)"
rm -f resize.runs ffmpeg.runs ffmpeg_full.runs copy.runs
for i in $(seq "$RUNS"); do
    measure resize "${RESIZE_CMD[@]}"
    measure ffmpeg "${FFMPEG_CMD[@]}"
    measure ffmpeg_full "${FFMPEG_FULL_CMD[@]}"
    measure copy "${COPY_CMD[@]}"
done
for n in resize ffmpeg ffmpeg_full copy; do
    echo "$n runs (wall s, cpu s, peak KiB): $(tr '\n' ';' <"$n.runs")"
done

describe() {
    ffprobe -v error -show_entries stream=codec_name,profile,width,height,bit_rate,color_range,sample_rate,channels \
        -of compact=nk=0:p=0 "$1" | tr '\n' ' '
}
echo "resize output: $(describe out_resize.mp4)"
echo "ffmpeg output: $(describe out_ffmpeg.mp4)"
echo "ffmpeg full-range output: $(describe out_ffmpeg_full.mp4)"

# SSIM as asked: ffmpeg's ssim filter compares each output in its own range,
# a full-range output against the reference converted to full range, where
# the same relative error scores lower (SSIM's constants do not scale with
# the signal). So also: SSIM with every output brought to limited range
# first, which puts the figures on one scale.
S_R=$(ssim out_resize.mp4); S_F=$(ssim out_ffmpeg.mp4); S_FF=$(ssim out_ffmpeg_full.mp4)
TV=("scale=out_range=tv,format=yuv420p" ",format=yuv420p")
L_R=$(ssim out_resize.mp4 "${TV[@]}"); L_F=$(ssim out_ffmpeg.mp4 "${TV[@]}"); L_FF=$(ssim out_ffmpeg_full.mp4 "${TV[@]}")

W_R=$(median resize 1); W_F=$(median ffmpeg 1); W_FF=$(median ffmpeg_full 1); W_C=$(median copy 1)
mib() { echo $(( $(median "$1" 3) / 1024 )); }
printf '\n| | Resize | ffmpeg | ffmpeg, full range | cp |\n|---|---|---|---|---|\n'
printf '| wall time (median of %d) | %s s | %s s | %s s | %s s |\n' "$RUNS" "$W_R" "$W_F" "$W_FF" "$W_C"
printf '| CPU time (user+sys) | %s s | %s s | %s s | %s s |\n' \
    "$(median resize 2)" "$(median ffmpeg 2)" "$(median ffmpeg_full 2)" "$(median copy 2)"
printf '| peak RSS | %s MiB | %s MiB | %s MiB | %s MiB |\n' "$(mib resize)" "$(mib ffmpeg)" "$(mib ffmpeg_full)" "$(mib copy)"
printf '| SSIM (as asked) | %s | %s | %s | |\n' "$S_R" "$S_F" "$S_FF"
printf '| SSIM (all in limited range) | %s | %s | %s | |\n' "$L_R" "$L_F" "$L_FF"
awk -v r="$W_R" -v f="$W_F" -v a="$S_R" -v b="$S_F" -v c="$L_R" -v d="$L_F" -v e="$S_FF" 'BEGIN {
    printf "\nwall-time ratio Resize/ffmpeg: %.2f\n", r / f
    printf "SSIM Resize - ffmpeg: %+.4f as asked, %+.4f in one range; as asked against ffmpeg full range: %+.4f\n",
        a - b, c - d, a - e
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
