#!/usr/bin/env bash
# A metadata-only conversion against cp, on XFS (where Resize clones the
# media) and on ext4 (where the kernel copies it).
#
# Makes an XFS image and an ext4 image of the same size, each mounted
# through a loop device with direct I/O (so that the image behaves like a
# disk, not like a file cached a second time), puts the ~1 GiB camera movies
# of bench/metadata_vs_cp.sh on both, and runs, alternating, RUNS times each:
#   cp --reflink=never SRC copy.mp4    every block copied
#   cp SRC copy.mp4                    a clone on XFS, a kernel copy on ext4
#   Resize SRC out.mp4                 metadata only
# each from a warm page cache with nothing left to write back. A run is
# timed twice: the command alone, and until its output is on the disk (the
# command, then syncfs of the image): cp --reflink=never leaves most of its
# work in the page cache. Prints for each command the median and the best
# time, the ratios to cp --reflink=never and to cp, and the share of its
# output's blocks that FIEMAP marks as shared (filefrag); then Resize's
# start-up alone (Resize --version), the part of a conversion that no file
# system saves. The best run is the one the rest of the machine disturbed
# least: on a shared virtual machine the medians wander.
#
#   bench/clone_vs_cp.sh [BUILD_DIR] [WORK_DIR]    (RUNS=5 by default)
#
# BEFORE=OTHER_BUILD_DIR adds that build's Resize to the alternation (the
# code before a change, say), with its own column.
#
# Needs root, two free loop devices, mkfs.xfs (xfsprogs: make setup) and
# about 18 GiB free under WORK_DIR (two 7 GiB images and the movies); says
# which is missing and stops.
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD
BUILD=${1:-build}
WORK=${2:-/tmp/resize-clone-bench}
RUNS=${RUNS:-5}
RESIZE=$(cd "$BUILD/bin" && pwd)/Resize
BEFORE=${BEFORE:+$(cd "$BEFORE/bin" && pwd)/Resize}
MEASURE=$REPO/bench/measure.py

stop() { echo "clone_vs_cp: $*; nothing measured." >&2; exit 2; }
[ -x "$RESIZE" ] || stop "missing $RESIZE (build first)"
[ -z "$BEFORE" ] || [ -x "$BEFORE" ] || stop "missing $BEFORE"
[ "$(id -u)" = 0 ] || stop "mounting the images needs root"
command -v mkfs.xfs >/dev/null || stop "mkfs.xfs is missing (xfsprogs; make setup installs it)"
command -v filefrag >/dev/null || stop "filefrag is missing (e2fsprogs)"
losetup --find >/dev/null 2>&1 || stop "no free loop device (a container without /dev/loop*?): an image file is mounted through one"

mkdir -p "$WORK"
WORK=$(cd "$WORK" && pwd)
MOVIES_ONLY=1 "$REPO/bench/metadata_vs_cp.sh" "$BUILD" "$WORK/movies"

LOOPS=()
cleanup() {
    for fs in xfs ext4; do
        mountpoint -q "$WORK/$fs" && umount "$WORK/$fs"
        rm -f "$WORK/$fs.img"
    done
    for dev in "${LOOPS[@]}"; do losetup -d "$dev" 2>/dev/null || true; done
}
trap cleanup EXIT

# mount_image FS MKFS...: a fresh image of FS at WORK/FS. Its space is taken
# up front (and mkfs told not to give it back), so that the file system
# underneath allocates nothing while the runs write.
mount_image() {
    local fs=$1; shift
    rm -f "$WORK/$fs.img"
    fallocate -l 7G "$WORK/$fs.img" || stop "no room for a 7 GiB image under $WORK"
    "$@" "$WORK/$fs.img" >/dev/null
    local dev
    dev=$(losetup --find --show --direct-io=on "$WORK/$fs.img") || stop "no loop device for the $fs image"
    LOOPS+=("$dev")
    mkdir -p "$WORK/$fs"
    mount "$dev" "$WORK/$fs" || stop "the $fs image cannot be mounted"
    cp --reflink=never "$WORK/movies/older.mp4" "$WORK/movies/newer.mp4" "$WORK/$fs/"
}
mount_image xfs mkfs.xfs -q -f -K -m reflink=1
mount_image ext4 mkfs.ext4 -q -F -E nodiscard
sync

# timed NAME OUTPUT CMD...: one run; appends "command-seconds on-disk-seconds"
# to NAME.runs and puts the share of OUTPUT's blocks that are shared in
# NAME.shared.
timed() {
    local name=$1 out=$2; shift 2
    local line t0 t1
    t0=$(date +%s.%N)
    line=$("$MEASURE" "$@") || { echo "failed: $*" >&2; exit 1; }
    sync -f "$out"
    t1=$(date +%s.%N)
    echo "${line%% *} $(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }')" >>"$WORK/$name.runs"
    filefrag -v "$out" | awk -F: '/^ *[0-9]+:/ { n += $4; if ($NF ~ /shared/) s += $4 }
        END { printf "%.2f %%\n", n ? 100 * s / n : 0 }' >"$WORK/$name.shared"
}
# figure NAME FIELD WHICH: the median (WHICH=m) or the least (b) of a field
# (1 command alone, 2 until on disk) over NAME's runs.
figure() {
    sort -g -k"$2","$2" "$WORK/$1.runs" |
        awk -v f="$2" -v w="$3" '{ v[NR] = $f } END { print w == "b" ? v[1] : v[int((NR + 1) / 2)] }'
}

COMMANDS="never cp ${BEFORE:+before }resize"
label() {
    case $1 in
    never) echo '`cp --reflink=never`' ;;
    cp) echo '`cp`' ;;
    before) echo 'Resize before' ;;
    resize) echo 'Resize' ;;
    esac
}

echo "== $RUNS run(s) each, alternating; load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf '\nTimes: median (best) of %s runs. Ratios: of the commands alone, median (best).\n' "$RUNS"
printf '\n| File system | Movie | Command | Alone | Until on disk | / `cp --reflink=never` | / `cp` | Blocks shared with the source |\n'
printf '|---|---|---|---|---|---|---|---|\n'
for fs in xfs ext4; do
    for model in older newer; do
        dir=$WORK/$fs
        src=$dir/$model.mp4
        # Round 0 is not counted: the first writes into the new images'
        # space cost the file system underneath more than later ones.
        for i in $(seq 0 "$RUNS"); do
            if [ "$i" = 1 ]; then for c in $COMMANDS; do rm -f "$WORK/$c.runs"; done; fi
            for c in $COMMANDS; do
                rm -f "$dir/copy.mp4" "$dir/out.mp4"
                sync
                cat "$src" >/dev/null
                case $c in
                never) timed never "$dir/copy.mp4" cp --reflink=never "$src" "$dir/copy.mp4" ;;
                cp) timed cp "$dir/copy.mp4" cp "$src" "$dir/copy.mp4" ;;
                before) timed before "$dir/out.mp4" "$BEFORE" "$src" "$dir/out.mp4" ;;
                resize) timed resize "$dir/out.mp4" "$RESIZE" "$src" "$dir/out.mp4" ;;
                esac
            done
        done
        for c in $COMMANDS; do
            awk -v fs="$fs" -v m="$model" -v c="$(label "$c")" -v sh="$(cat "$WORK/$c.shared")" \
                -v am="$(figure "$c" 1 m)" -v ab="$(figure "$c" 1 b)" -v dm="$(figure "$c" 2 m)" -v db="$(figure "$c" 2 b)" \
                -v nm="$(figure never 1 m)" -v nb="$(figure never 1 b)" -v cm="$(figure cp 1 m)" -v cb="$(figure cp 1 b)" 'BEGIN {
                printf "| %s | %s camera | %s | %.3f s (%.3f s) | %.3f s (%.3f s) | %.3f (%.3f) | %.2f (%.2f) | %s |\n",
                    fs, m, c, am, ab, dm, db, am / nm, ab / nb, am / cm, ab / cb, sh }'
        done
    done
done
rm -f "$WORK"/*.runs "$WORK"/*.shared "$WORK/xfs/out.mp4" "$WORK/ext4/out.mp4"
for i in $(seq "$RUNS"); do "$MEASURE" "$RESIZE" --version >>"$WORK/startup.runs"; done
echo
echo "Resize start-up alone (Resize --version), median: $(figure startup 1 m) s"
echo "load average after the runs: $(cut -d' ' -f1-3 /proc/loadavg)"
rm -f "$WORK/startup.runs"
