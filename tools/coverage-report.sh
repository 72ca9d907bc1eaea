#!/bin/sh
# Coverage report of a build made with -DSFL_COVERAGE=ON after the suite ran
# in it (make coverage does both). Reads the counts once with gcovr, then
# prints per-file figures and a summary for tools/ and for lib/, writes an
# HTML report to <build>/coverage/index.html, and checks lib/ against the
# floor (tools/coverage-floor.sh).
#
# Branch figures leave out the edges the compiler adds for exceptions
# (gcovr --exclude-throw-branches): every call that may throw has one, and
# counting them would measure which calls never threw rather than which
# decisions the code took both ways.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-build-cov}" && pwd)
jobs=${JOBS:-2}
out="$build/coverage"
rm -rf "$out"
mkdir -p "$out"

gcovr -r "$src" "$build" -j "$jobs" --exclude-throw-branches \
  --filter "$src/lib/" --filter "$src/tools/" --json "$out/all.json"

gcovr -r "$src" -a "$out/all.json" --html-details "$out/index.html" \
  --html-title "sfl coverage (exception branches excluded)"

for part in tools lib; do
  gcovr -r "$src" -a "$out/all.json" --filter "$src/$part/" \
    --json-summary "$out/$part-summary.json"
  python3 - "$out/$part-summary.json" "$part" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
# A file without branches has no branch percentage.
for f in s["files"]:
    if f["branch_percent"] is None:
        f["branch_percent"] = 100.0
print(f"== coverage of {sys.argv[2]}/ (branches: exception edges excluded) ==")
rows = [f for f in s["files"] if f["line_percent"] < 100 or f["branch_percent"] < 100]
rows.sort(key=lambda f: f["line_percent"])
print(f"{'file':<44} {'lines':>16} {'branches':>16}")
for f in rows:
    print(f"{f['filename']:<44} {f['line_covered']:>6}/{f['line_total']:<5} {f['line_percent']:5.1f}%"
          f" {f['branch_covered']:>6}/{f['branch_total']:<5} {f['branch_percent']:5.1f}%")
print(f"{len(s['files']) - len(rows)} other file(s) fully covered")
print(f"{sys.argv[2]}/ lines: {s['line_percent']:.1f}% ({s['line_covered']} of {s['line_total']}), "
      f"functions: {s['function_percent']:.1f}% ({s['function_covered']} of {s['function_total']}), "
      f"branches: {s['branch_percent']:.1f}% ({s['branch_covered']} of {s['branch_total']})")
PY
done
echo "HTML report: $out/index.html"
exec sh "$src/tools/coverage-floor.sh" "$build"
