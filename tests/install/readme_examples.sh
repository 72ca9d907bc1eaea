#!/bin/sh
# The examples of README's "Using sfl from C, C++ and Python" are the
# consumers the install test builds and runs, word for word.
#     sh readme_examples.sh <source dir>
set -eu
src=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-readme.XXXXXX")
trap 'rm -rf "$work"' EXIT
# The fenced blocks of that section, in order, one file each.
awk -v dir="$work" '
  /^## / { inside = ($0 == "## Using sfl from C, C++ and Python") }
  inside && /^```/ { if (open) { open = 0; close(out) } else { open = 1; out = dir "/" ++n } ; next }
  inside && open { print > out }
' "$src/README.md"
status=0
n=1
for f in tests/install/consumer.c tests/install/cxx/consumer.cpp tests/install/consumer.py; do
  if ! cmp -s "$work/$n" "$src/$f"; then
    echo "README example $n is not $f:"; diff "$src/$f" "$work/$n" || true; status=1
  fi
  n=$((n + 1))
done
[ $status -ne 0 ] || echo "README examples are the installed consumers"
exit $status
