#!/usr/bin/env bash
# Quality per encoder time of the x264 and x265 settings Resize could use,
# with the encoder alone: the frames Resize hands the encoder (a 3840x1920
# source scaled to 1920x960 with bicubic filtering, full range) are written
# once as raw video, then each setting encodes them through ffmpeg's
# command-line tool with Resize's rate control (average bit rate, VBV of
# twice the rate over two seconds, key frames exactly every 30 frames).
# Prints CPU time (user+sys) and wall time of each encode, the bit rate and
# the SSIM against the source scaled to 1920x960 with the output first
# brought to limited range (as bench/reencode_vs_ffmpeg.sh measures), and
# the same for what ffmpeg's default command encodes (its own limited-range
# frames, default preset), as the mark to meet.
#
# Uses the sources of bench/reencode_vs_ffmpeg.sh (same WORK_DIR; run that
# first): H.264 Baseline at 16 Mbit/s on the 10 s movie, H.265 at 8 Mbit/s
# on the 4 s one.
#
#   bench/encoder_settings.sh [WORK_DIR]
set -euo pipefail
WORK=${1:-/tmp/resize-reencode-bench}
cd "$WORK"
for s in src_10s.mp4 src_4s.mp4; do
    [ -s "$s" ] || { echo "missing $WORK/$s (run bench/reencode_vs_ffmpeg.sh first)" >&2; exit 2; }
done

raw() { # source name layout: frames as Resize's scaler gives them (in the
        # layout the encoder takes: NV12 for x264, planar for x265), and the
        # reference
    [ -s "$2.full.yuv" ] || ffmpeg -nostdin -v error -y -i "$1" -an \
        -vf "scale=1920:960:out_range=full,format=$3" -f rawvideo "$2.full.yuv"
    [ -s "$2.ref.yuv" ] || ffmpeg -nostdin -v error -y -i "$1" -an \
        -vf scale=1920:960,format=yuv420p -f rawvideo "$2.ref.yuv"
}
raw src_10s.mp4 s10 nv12
raw src_4s.mp4 s4 yuv420p

RAW=(-f rawvideo -s 1920x960 -r 30)

ssim() { # output reference
    ffmpeg -nostdin -hide_banner -i "$1" "${RAW[@]}" -pix_fmt yuv420p -i "$2" \
        -lavfi "[0:v]scale=out_range=tv,format=yuv420p[o];[o][1:v]ssim=shortest=1" -f null - 2>&1 |
        sed -n 's/.*All:\([0-9.]*\).*/\1/p' | tail -1
}

report() { # label output reference timefile
    local br
    br=$(ffprobe -v error -select_streams v -show_entries stream=bit_rate -of csv=p=0 "$2")
    awk -v l="$1" -v s="$(ssim "$2" "$3")" -v b="$br" '{
        printf "| %s | %.1f s | %.1f s | %.2f | %s |\n", l, $2 + $3, $1, b / 1e6, s }' "$4"
}

encode() { # codec rate stem preset params
    local codec=$1 rate=$2 stem=$3 preset=$4 params=$5 fixed layout=yuv420p
    if [ "$codec" = libx264 ]; then
        fixed=(-profile:v baseline -x264-params "scenecut=0${params:+:$params}")
        layout=nv12
    else
        fixed=(-x265-params "scenecut=0:open-gop=0:log-level=error${params:+:$params}")
    fi
    /usr/bin/time -f "%e %U %S" -o enc.time ffmpeg -nostdin -v error -y "${RAW[@]}" -pix_fmt $layout -color_range pc \
        -i "$stem.full.yuv" -c:v "$codec" -preset "$preset" "${fixed[@]}" -color_range pc \
        -b:v "$rate" -maxrate "$((2 * ${rate%M}))M" -bufsize "$((2 * ${rate%M}))M" -g 30 enc.mp4
    report "$preset${params:+ $params}" enc.mp4 "$stem.ref.yuv" enc.time
}

# ffmpeg's default command on the same frames as ffmpeg scales them (limited
# range, the reference itself): default preset, no VBV.
mark() { # stem codec rate
    local extra=(-profile:v baseline)
    [ "$2" = libx265 ] && extra=(-x265-params log-level=error)
    /usr/bin/time -f "%e %U %S" -o enc.time ffmpeg -nostdin -v error -y "${RAW[@]}" -pix_fmt yuv420p -i "$1.ref.yuv" \
        -c:v "$2" "${extra[@]}" -b:v "$3" -g 30 enc.mp4
    report "ffmpeg's default (limited range, no VBV)" enc.mp4 "$1.ref.yuv" enc.time
}

header() { printf '\n%s\n\n| Setting | CPU time | wall time | Mbit/s | SSIM |\n|---|---|---|---|---|\n' "$1"; }

echo "load average $(cut -d' ' -f1-3 /proc/loadavg)"
header "x264, Baseline, 16 Mbit/s, 10 s (300 frames)"
mark s10 libx264 16M
for setting in "medium|" "faster|" "faster|trellis=0" "veryfast|" "veryfast|subme=3" "veryfast|aq-mode=2" \
               "veryfast|subme=3:aq-mode=2" "veryfast|subme=4:aq-mode=2" "superfast|aq-mode=2"; do
    encode libx264 16M s10 "${setting%%|*}" "${setting#*|}"
done
header "x265, 8 Mbit/s, 4 s (120 frames)"
mark s4 libx265 8M
for setting in "medium|" "ultrafast|" "superfast|" "superfast|sao=1" "veryfast|" "veryfast|signhide=0" \
               "veryfast|psy-rd=0" "veryfast|frame-threads=2" "faster|" "fast|"; do
    encode libx265 8M s4 "${setting%%|*}" "${setting#*|}"
done
echo
echo "load average $(cut -d' ' -f1-3 /proc/loadavg)"
