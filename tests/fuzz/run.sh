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
harnesses=("$@")
[ ${#harnesses[@]} -gt 0 ] || harnesses=(boxtree makernote avcc sensor gps xml options)

# Longest input per harness: whole (media-less) movies for the box tree, long
# texts for the XML readers, small records elsewhere.
max_len() {
  case "$1" in
    boxtree) echo 65536 ;;
    xml) echo 262144 ;;
    sensor) echo 16384 ;;
    *) echo 4096 ;;
  esac
}

failed=0
mkdir -p "$build/logs"
for h in "${harnesses[@]}"; do
  bin="$build/fuzz_$h"
  if [ ! -x "$bin" ]; then
    echo "fuzz $h: no harness $bin"
    failed=1
    continue
  fi
  corpus="$build/corpus/$h"
  crashes="$build/crashes/$h"
  mkdir -p "$corpus" "$crashes" "$build/seeds/$h"
  dirs=("$corpus" "$build/seeds/$h")
  [ -d "$here/regressions/$h" ] && dirs+=("$here/regressions/$h")
  log="$build/logs/$h.log"
  "$bin" -max_total_time="$seconds" -max_len="$(max_len "$h")" -timeout=20 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$crashes/" "${dirs[@]}" >"$log" 2>&1
  rc=$?
  runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  if [ $rc -eq 0 ]; then
    echo "fuzz $h: ${runs:-?} executions in ${seconds} s, coverage ${cov:-?}, corpus $(ls "$corpus" | wc -l) inputs, no failure"
  else
    failed=1
    echo "fuzz $h: FAILED (status $rc) after ${runs:-?} executions; inputs in $crashes, log $log"
    grep -m3 -E 'ERROR|runtime error|SUMMARY|deadly signal' "$log" | sed 's/^/    /'
  fi
done
exit $failed
