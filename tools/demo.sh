#!/bin/sh
# End-to-end demo of the sfl tool, run by `make run` as
#     sh tools/demo.sh <build dir>
# on the embedded defaults: the store under the current directory
# (./sfl-store unless SFL_STORE_ROOT says otherwise) and an interest service
# that the library starts on demand. Every step is a separate invocation of
# the tool, so every read-back is done by another process than the write.
# Exits non-zero at the first step that fails.
set -eu

build=${1:-build}
sfl="$build/bin/sfl"
here=$(cd "$(dirname "$0")" && pwd)
if [ ! -x "$sfl" ]; then
  echo "demo: $sfl not found (build first, e.g. 'make run')" >&2
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-demo.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM

step() { printf '\n== %s\n' "$*"; }
show() { printf '$ sfl %s\n' "$*"; }
fail() { echo "demo: FAILED: $*" >&2; exit 1; }

step "inputs"
cp "$here/../README.md" "$work/readme.txt"
head -c 200000 /dev/urandom >"$work/random.bin"
printf 'a note stored from standard input\nsecond line\n' >"$work/note.txt"
ls -l "$work" | sed 1d
echo "store: ${SFL_STORE_ROOT:-./sfl-store (default)}"

step "create a container"
show create
line=$("$sfl" create)
echo "$line"
container=${line%% *}

step "store three items (two files and standard input)"
show put "$container" readme.txt
readme=$("$sfl" put "$container" "$work/readme.txt")
echo "$readme"
show put "$container" random.bin
random=$("$sfl" put "$container" "$work/random.bin")
echo "$random"
show put "$container" "- < note.txt"
note=$("$sfl" put "$container" - <"$work/note.txt")
echo "$note"

step "list the container"
show ls "$container"
"$sfl" ls "$container"

step "read every item back in new processes and compare"
for pair in "readme:readme.txt" "random:random.bin" "note:note.txt"; do
  var=${pair%%:*}
  file=${pair#*:}
  eval "ref=\$$var"
  show get "$ref" -o "$file.back"
  "$sfl" get "$ref" -o "$work/$file.back"
  cmp "$work/$file" "$work/$file.back" || fail "$ref differs from $file"
  echo "   $ref matches $file ($(wc -c <"$work/$file") bytes)"
done
show lines "$note"
"$sfl" lines "$note"
show stat "$random" --json
"$sfl" stat "$random" --json

step "delete one item"
show rm "$random"
"$sfl" rm "$random"
show ls "$container"
"$sfl" ls "$container"
if "$sfl" get "$random" >/dev/null 2>"$work/err"; then
  fail "deleted item $random can still be read"
fi
echo "   reading it now fails: $(cat "$work/err")"

step "the interest service the library started on demand"
show service status
"$sfl" service status || true

step "clean up: the container goes with its last item"
path=$(echo "$line" | cut -d' ' -f2-)
show rm "$readme" "$note"
"$sfl" rm "$readme" "$note"
[ ! -e "$path" ] || fail "container file $path is still there"
echo "   $path removed"

printf '\ndemo: success (created, stored, listed, read back, compared, deleted)\n'
