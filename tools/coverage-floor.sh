#!/bin/sh
# Fails when line or branch coverage of lib/ falls below the floor kept in
# .ci/coverage-floor. Reads the summary tools/coverage-report.sh left in
# <build>/coverage. The floor only ever rises: when the suite reaches more,
# raise it in the same change.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build-cov}
summary="$build/coverage/lib-summary.json"
floor="$src/.ci/coverage-floor"
if [ ! -f "$summary" ]; then
  echo "coverage-floor: no $summary (run make coverage first)" >&2
  exit 1
fi
python3 - "$summary" "$floor" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
floor = {}
for line in open(sys.argv[2]):
    line = line.split("#", 1)[0].split()
    if len(line) == 2:
        floor[line[0]] = float(line[1])
if set(floor) != {"lines", "branches"}:
    sys.exit(f"coverage-floor: {sys.argv[2]} must give 'lines' and 'branches'")
have = {"lines": s["line_percent"], "branches": s["branch_percent"]}
bad = False
for k in ("lines", "branches"):
    ok = have[k] >= floor[k]
    bad |= not ok
    print(f"coverage floor, lib/ {k}: {have[k]:.1f}% against a floor of {floor[k]:.1f}%"
          f" {'ok' if ok else 'BELOW THE FLOOR'}")
sys.exit(1 if bad else 0)
PY
