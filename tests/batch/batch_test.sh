#!/bin/bash
# resize-batch over three small movies, one of them broken, in folders with
# spaces: a local run, a second run that resumes, one that resumes after a
# simulated crash, a run with --force, a run over two hosts through the
# send-and-return path (ssh replaced by stand_in_ssh.sh), which must give the
# local run's outputs, and a re-encoding batch stopped with Ctrl-C.
#   batch_test.sh BIN_DIR   (where Resize and resize-batch are built)
set -u
bin=$1
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() {
    echo "FAILED: $*"
    sed 's/^/    /' "$tmp/said"
    failures=$((failures + 1))
}
# batch EXPECTED_STATUS ARGS...: runs resize-batch, its output in $tmp/said.
batch() {
    local expected=$1
    shift
    "$bin/resize-batch" "$@" >"$tmp/said" 2>&1
    local status=$?
    [ $status = "$expected" ] || fail "resize-batch $* exited $status, not $expected"
}
said() { grep -qF -- "$1" "$tmp/said" || fail "no line with '$1'"; }
sources() { (cd "$src" && find . -type f -exec md5sum {} + | sort); }

src="$tmp/card 1"
mkdir -p "$src/day 2"
movie() { python3 "$here/../fixtures/make_movie.py" --duration 0.5 --size 256x128 --out "$@" >/dev/null; }
movie "$src/a b.mp4" && movie "$src/day 2/c.MP4" --model older || exit 1
head -c 4000 "$src/a b.mp4" >"$src/day 2/broken.mp4"
before=$(sources)

local="$tmp/out put"
batch 1 "$src" "$local"
said "2 converted, 0 skipped (converted before), 1 failed"
said "failed: day 2/broken.mp4 ($local/.resize-batch/logs/day 2/broken.mp4.log)"
grep -q "broken.mp4: not an MP4 movie (no moov box)" "$local/.resize-batch/logs/day 2/broken.mp4.log" || fail "the broken movie's log"
for f in "a b.mp4" "day 2/c.MP4"; do
    "$bin/Inspect" "$local/$f" >/dev/null 2>&1 || fail "$f is not a whole movie"
done
leftovers=$(cd "$local" && find . -type f ! -path './.resize-batch/*' ! -name 'a b.mp4' ! -name c.MP4)
[ -z "$leftovers" ] || fail "files left in the output folder: $leftovers"
stamps=$(stat -c '%n %i %Y' "$local/a b.mp4" "$local/day 2/c.MP4")

# Again: the two finished movies are left as they are.
batch 1 "$src" "$local"
said "0 converted, 2 skipped (converted before), 1 failed"
[ "$(stat -c '%n %i %Y' "$local/a b.mp4" "$local/day 2/c.MP4")" = "$stamps" ] || fail "a finished output was redone"
# A crash after an output took its name but before it reached the disk: the
# file stands there, incomplete, and was never recorded as done.
: >"$local/a b.mp4"
tr '\0' '\n' <"$local/.resize-batch/done" | grep -vx "a b.mp4" | tr '\n' '\0' >"$tmp/done"
mv "$tmp/done" "$local/.resize-batch/done"
batch 1 "$src" "$local"
said "1 converted, 1 skipped (converted before), 1 failed"
"$bin/Inspect" "$local/a b.mp4" >/dev/null 2>&1 || fail "the incomplete output was not done again"
batch 1 --force "$src" "$local"
said "2 converted, 0 skipped (converted before), 1 failed"

# Two hosts that share nothing with this folder: the movies go there and the
# outputs and logs come back; nothing stays on the hosts. No $SHELL, as
# under cron or CI.
printf 'hostA\nhostB\n' >"$tmp/hosts"
remote="$tmp/remote"
unset SHELL
HOSTS_ROOT="$tmp/on hosts" PARALLEL_SSH="$here/stand_in_ssh.sh" batch 1 -j 1 --hosts "$tmp/hosts" "$src" "$remote"
said "2 converted, 0 skipped (converted before), 1 failed"
said "failed: day 2/broken.mp4 ($remote/.resize-batch/logs/day 2/broken.mp4.log)"
for f in "a b.mp4" "day 2/c.MP4"; do
    cmp -s "$local/$f" "$remote/$f" || fail "$f from the hosts differs from the local run's"
done
[ -s "$remote/.resize-batch/logs/a b.mp4.log" ] || fail "a log did not come back"
[ ! -e "$remote/day 2/broken.mp4" ] || fail "the broken movie has an output"
[ "$(cut -f2 "$remote/.resize-batch/joblog" | grep -x 'host[AB]' | sort -u | wc -l)" = 2 ] || fail "not both hosts ran jobs"
left=$(find "$tmp/on hosts" -mindepth 2)
[ -z "$left" ] || fail "files left on the hosts: $left"

# Ctrl-C (SIGINT to the batch's process group) during a re-encode: the job
# stops, its log ends with "cancelled.", and the output folder holds no
# partial file; the next batch converts that movie.
slow="$tmp/slow"
mkdir -p "$slow"
movie "$slow/long.mp4" --duration 4 --size 960x480 || exit 1
setsid bash -c 'echo $$ >"$0/pgid"; exec "$1/resize-batch" -j 1 -- -vw:960 "$0/slow" "$0/stopped" >"$0/said" 2>&1' "$tmp" "$bin" &
for _ in $(seq 600); do
    [ -n "$(find "$tmp/stopped" -name '*.tmp.mp4' -size +0 2>/dev/null)" ] && break
    sleep 0.05
done
kill -INT -- "-$(cat "$tmp/pgid")"
wait
[ "$(tail -n 1 "$tmp/stopped/.resize-batch/logs/long.mp4.log")" = cancelled. ] || fail "the stopped job's log does not end with cancelled."
left=$(cd "$tmp/stopped" && find . -type f ! -path './.resize-batch/*')
[ -z "$left" ] || fail "files left in the output folder of a stopped batch: $left"
batch 0 -- -vw:960 "$slow" "$tmp/stopped"
said "1 converted, 0 skipped (converted before), 0 failed"

# Refused before anything is written.
batch 2 "$src" "$src/out"
said "inside the source folder"
batch 2 -- -vw:320 -ss:1 "$src" "$tmp/cut"
said "-ss:1: a time range belongs to one movie"
[ ! -e "$src/out" ] && [ ! -e "$tmp/cut" ] || fail "a refused batch created its output folder"

[ "$(sources)" = "$before" ] || fail "the source folder changed"
exit $((failures > 0))
