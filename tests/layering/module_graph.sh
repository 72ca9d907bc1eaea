#!/bin/sh
# The module graph of lib/kqbase: each library stands only on libraries
# drawn below it in README's layering diagram, and the build agrees.
#
#  1. The diagram: every library directory is drawn once, and each library
#     uses only libraries on lines below its own (so the graph has no cycle).
#  2. The build: the include directories a library's sources are compiled
#     with (compile_commands.json) are its own and exactly those of the
#     libraries the diagram says it uses; no other library's private
#     directory.
#  3. The sources: every header a library includes is its own or one of a
#     library it uses (no path reaching across directories), and it includes
#     at least one header of each library it uses (it links only what it
#     uses).
#  4. The compiler: with a library's own flags, each header of a library it
#     uses is found and each header of any other library is not.
#
#     sh module_graph.sh <source dir> <build dir> <C++ compiler>
set -eu
src=$1 build=$2 cxx=$3
kq=$src/lib/kqbase
readme=$src/README.md
db=$build/compile_commands.json

work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-module-graph.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
failures=0
fail() { echo "module_graph: $*" >&2; failures=$((failures + 1)); }

[ -f "$db" ] || { echo "module_graph: no $db (CMAKE_EXPORT_COMPILE_COMMANDS)" >&2; exit 1; }

# ---- 1. the diagram ----------------------------------------------------------------------------
# The fenced block after the marker line; one library a line: its name, a
# description, and after "->" the libraries it uses.
awk '
  /<!-- module graph -->/ { marked = 1; next }
  marked && /^```/ { if (inside) exit; inside = 1; next }
  inside {
    name = $1
    uses = ""
    n = index($0, "->")
    if (n > 0) uses = substr($0, n + 2)
    gsub(/^[ \t]+|[ \t]+$/, "", uses)
    gsub(/[ \t]+/, " ", uses)
    if (name != "") print name ":" uses
  }
' "$readme" >"$work/graph"
[ -s "$work/graph" ] || { echo "module_graph: no diagram after <!-- module graph --> in README" >&2; exit 1; }

libs=$(cut -d: -f1 "$work/graph")
uses_of() { sed -n "s/^$1:\\(.*\\)/\\1/p" "$work/graph"; }

for d in "$kq"/*/; do
  lib=$(basename "$d")
  n=$(grep -c "^$lib:" "$work/graph" || true)
  [ "$n" = 1 ] || fail "library $lib is drawn $n times in README's diagram (once wanted)"
done
line=0
for lib in $libs; do
  line=$((line + 1))
  [ -d "$kq/$lib" ] || fail "README draws $lib, which is not a directory of lib/kqbase"
  for used in $(uses_of "$lib"); do
    at=$(grep -n "^$used:" "$work/graph" | cut -d: -f1)
    if [ -z "$at" ]; then
      fail "$lib uses $used, which README does not draw"
    elif [ "$at" -le "$line" ]; then
      fail "$lib uses $used, which README draws above it or beside it (an upward dependency)"
    fi
  done
done

# ---- 2. the build ------------------------------------------------------------------------------
# Per compiled source of lib/kqbase: its library and the include directories
# it is compiled with, "<library> <directory>" one a line.
awk -v kq="$kq/" '
  /"command":/ { command = $0 }
  /"file":/ {
    file = $0
    sub(/.*"file": *"/, "", file); sub(/".*/, "", file)
    if (index(file, kq) != 1) next
    lib = substr(file, length(kq) + 1); sub(/\/.*/, "", lib)
    seen[lib] = 1
    n = split(command, words, /[ \t"]+/)
    for (i = 1; i <= n; i++)
      if (words[i] ~ /^-I/) {
        dir = substr(words[i], 3)
        if (dir == "" && i < n) dir = words[i + 1]
        print lib " " dir
      }
  }
  END { for (lib in seen) print lib " -" }
' "$db" | sort -u >"$work/flags"

for lib in $libs; do
  [ -d "$kq/$lib" ] || continue
  grep -q "^$lib " "$work/flags" || { ls "$kq/$lib"/*.cpp >/dev/null 2>&1 &&
    fail "no compiled source of $lib in $db"; continue; }
  visible=""
  for dir in $(sed -n "s/^$lib //p" "$work/flags"); do
    [ "$dir" = - ] && continue
    case $dir in
      "$kq"/*/include) other=${dir#"$kq"/}; other=${other%/include}
                       [ "$other" = "$lib" ] || visible="$visible $other" ;;
      "$kq/$lib") ;;  # its own sources' directory (sfl keeps sfl.h there)
      "$kq"/*) fail "$lib is compiled with the private directory $dir" ;;
    esac
  done
  want=$(for u in $(uses_of "$lib"); do echo "$u"; done | sort | tr '\n' ' ')
  got=$(for v in $visible; do echo "$v"; done | sort -u | tr '\n' ' ')
  [ "$want" = "$got" ] ||
    fail "$lib sees the headers of [ $got] but README says it uses [ $want]"
done

# ---- 3. the sources ----------------------------------------------------------------------------
owner_of() {  # the library whose include/ holds header $1, if any
  for l in $libs; do [ -f "$kq/$l/include/$1" ] && { echo "$l"; return; }; done
}
for lib in $libs; do
  [ -d "$kq/$lib" ] || continue
  : >"$work/used"
  for f in $(find "$kq/$lib" -name '*.h' -o -name '*.cpp'); do
    for h in $(sed -n 's/^[ \t]*#[ \t]*include[ \t]*"\([^"]*\)".*/\1/p' "$f"); do
      rel=${f#"$kq"/}
      case $h in */*) fail "$rel includes \"$h\": a path reaching across directories"; continue ;; esac
      [ -f "$(dirname "$f")/$h" ] && continue     # beside it in its own library
      [ -f "$kq/$lib/include/$h" ] && continue
      owner=$(owner_of "$h")
      if [ -z "$owner" ]; then
        fail "$rel includes \"$h\", which no library offers"
      elif echo " $(uses_of "$lib") " | grep -q " $owner "; then
        echo "$owner" >>"$work/used"
      else
        fail "$rel includes \"$h\" of $owner, which $lib does not use (README)"
      fi
    done
  done
  for u in $(uses_of "$lib"); do
    grep -qx "$u" "$work/used" || fail "$lib links $u but includes none of its headers"
  done
done

# ---- 4. the compiler ---------------------------------------------------------------------------
for lib in $libs; do
  grep -q "^$lib " "$work/flags" || continue
  flags=$(sed -n "s/^$lib //p" "$work/flags" | grep -v '^-$' | sed 's/^/-I/' | tr '\n' ' ')
  for other in $libs; do
    [ "$other" = "$lib" ] && continue
    for h in "$kq/$other"/include/*.h; do
      [ -f "$h" ] || continue
      printf '#include "%s"\n' "$(basename "$h")" >"$work/probe.cpp"
      # shellcheck disable=SC2086
      if (cd "$work" && "$cxx" -std=c++20 -E $flags probe.cpp >/dev/null 2>&1); then found=1; else found=0; fi
      if echo " $(uses_of "$lib") " | grep -q " $other "; then
        [ $found = 1 ] || fail "$lib cannot include $(basename "$h") of $other, which it uses"
      else
        [ $found = 0 ] || fail "$lib can include $(basename "$h") of $other, which it does not use"
      fi
    done
  done
done

if [ $failures -ne 0 ]; then
  echo "module_graph: $failures problem(s)" >&2
  exit 1
fi
echo "module_graph: $(echo $libs | wc -w) libraries, every dependency downward"
