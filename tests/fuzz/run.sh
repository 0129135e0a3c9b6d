#!/usr/bin/env bash
# Runs the fuzzing harnesses, each for a bounded time.
#   run.sh BUILD_DIR [SECONDS] [HARNESS...]
# Each harness starts from its seeds (BUILD_DIR/seeds/<harness>, made by
# make_seeds.py), the inputs kept by earlier runs (BUILD_DIR/corpus/<harness>)
# and the committed regression inputs (tests/fuzz/regressions/<harness>).
# A crashing input is written to BUILD_DIR/crashes/<harness>/ and the script
# then exits with status 1 after running the remaining harnesses.
set -u
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "$1" && pwd)"  # absolute: the harnesses change their working folder
seconds="${2:-60}"
shift $(( $# >= 2 ? 2 : $# ))
[ $# -gt 0 ] || set -- boxtree makernote avcc sensor xml options convert
failed=0
mkdir -p "$build/logs"
for h in "$@"; do
  # Longest input: whole (media-less) movies for the box tree, long texts for
  # the XML readers and whole small movies for the conversion, small records
  # elsewhere.
  case "$h" in boxtree) max=65536 ;; xml | convert) max=262144 ;; sensor) max=16384 ;; *) max=4096 ;; esac
  corpus="$build/corpus/$h" crashes="$build/crashes/$h" log="$build/logs/$h.log"
  mkdir -p "$corpus" "$crashes" "$build/seeds/$h"
  dirs=("$corpus" "$build/seeds/$h")
  [ -d "$here/regressions/$h" ] && dirs+=("$here/regressions/$h")
  "$build/fuzz_$h" -max_total_time="$seconds" -max_len="$max" -timeout=20 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$crashes/" "${dirs[@]}" >"$log" 2>&1
  rc=$?
  runs=$(grep -o 'number_of_executed_units: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  [ $rc -eq 0 ] && echo "fuzz $h: ${runs:-?} executions in ${seconds} s, no failure" && continue
  failed=1
  echo "fuzz $h: FAILED (status $rc) after ${runs:-?} executions; inputs in $crashes, log $log"
  grep -m3 -E 'ERROR|runtime error|SUMMARY|deadly signal|No such file' "$log" | sed 's/^/    /'
done
exit $failed
