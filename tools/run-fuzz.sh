#!/bin/sh
# Runs every fuzz target of a fuzz build for a number of seconds each,
# starting from the corpus kept in the repository (fuzz/corpus/<target>/,
# only read) and a scratch corpus in the build directory (where new inputs
# go). A crash, hang, sanitizer report or outsized allocation stops that
# target with its input saved under <build>/fuzz-artifacts/; the run then
# fails. Prints each target's executions at the end.
#
#   tools/run-fuzz.sh <fuzz build dir> <seconds> [target...]
set -u
build=${1:?usage: run-fuzz.sh <fuzz build dir> <seconds> [target...]}
seconds=${2:?usage: run-fuzz.sh <fuzz build dir> <seconds> [target...]}
shift 2
src=$(cd "$(dirname "$0")/.." && pwd)
targets=${*:-"open_read check dump itemref service_msg"}
mkdir -p "$build/fuzz-artifacts" "$build/fuzz-logs"
summary=""
failed=0
for t in $targets; do
  mkdir -p "$build/fuzz-corpus/$t"
  log="$build/fuzz-logs/$t.log"
  echo "== fuzz_$t for $seconds s"
  "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -malloc_limit_mb=256 -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/$t-" \
    "$build/fuzz-corpus/$t" "$src/fuzz/corpus/$t" >"$log" 2>&1
  rc=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if [ "$rc" -ne 0 ]; then
    failed=1
    echo "fuzz_$t FAILED (exit $rc); see $log and $build/fuzz-artifacts/"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$log" | head -20
  fi
  summary="$summary$(printf '%-12s %12s executions%s' "$t" "${runs:-?}" "$([ $rc -ne 0 ] && echo ', FAILED')")
"
done
printf '\n%s' "$summary"
exit $failed
