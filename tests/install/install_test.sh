#!/bin/sh
# Installs the built tree into a temporary prefix and uses it as an outside
# program would: a C consumer built through pkg-config and a C++ consumer
# built through find_package(sfl) each store an item and read it back on
# the embedded defaults (the interest service started on demand must be the
# installed one); a Python script does the same through the installed
# module. Also checks the installed layout, that the installed libsfl.so
# exports only the API, and that every installed header compiles alone as
# C11 and as C++20 (sfl.hpp as C++20).
#     sh install_test.sh <build dir> <source dir> <C compiler> <C++ compiler> [extra flags] [python3]
set -eu
build=$1 src=$2 cc=$3 cxx=$4 extra=${5:-} python=${6:-python3}

work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-install-test.XXXXXX")
monitors=""
cleanup() {
  for pid in $monitors; do kill -TERM "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() { echo "install_test: FAILED: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log" >&2; fail "cmake --install"; }

# ---- layout --------------------------------------------------------------------------------
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
unset PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR || true
pkg-config --exists sfl || fail "pkg-config does not find sfl in $prefix/lib/pkgconfig"
libdir=$(pkg-config --variable=libdir sfl)
incdir=$(pkg-config --variable=includedir sfl)
[ "$(cd "$libdir" && pwd)" = "$prefix/lib" ] || fail "libdir $libdir is not $prefix/lib"
[ "$(cd "$incdir" && pwd)" = "$prefix/include/sfl" ] || fail "includedir $incdir is not $prefix/include/sfl"
for f in include/sfl/sfl.h include/sfl/sfl_c.h include/sfl/sfl_c_api.h include/sfl/sfl.hpp include/sfl/er.h include/sfl/im_ref.h lib/libsfl.a lib/cmake/sfl/sflConfig.cmake \
         lib/cmake/sfl/sflConfigVersion.cmake lib/cmake/sfl/sflTargets.cmake \
         share/man/man1/sfl.1 share/man/man8/sfl-monitor.8 lib/systemd/system/sfl-monitor.service; do
  [ -f "$prefix/$f" ] || fail "$f not installed"
done
for f in bin/sfl bin/sfl-monitor; do [ -x "$prefix/$f" ] || fail "$f not installed"; done
# Nothing internal among the headers.
headers=$(cd "$prefix/include/sfl" && ls)
[ "$(echo $headers)" = "er.h im_ref.h sfl.h sfl.hpp sfl_c.h sfl_c_api.h" ] || fail "installed headers are: $headers"
# The shared library with its version links.
[ -L "$prefix/lib/libsfl.so" ] && [ "$(readlink "$prefix/lib/libsfl.so")" = libsfl.so.1 ] ||
  fail "libsfl.so is not a link to libsfl.so.1"
[ -L "$prefix/lib/libsfl.so.1" ] && [ "$(readlink "$prefix/lib/libsfl.so.1")" = libsfl.so.1.0.0 ] ||
  fail "libsfl.so.1 is not a link to libsfl.so.1.0.0"
[ -f "$prefix/lib/libsfl.so.1.0.0" ] && [ ! -L "$prefix/lib/libsfl.so.1.0.0" ] || fail "libsfl.so.1.0.0 missing"
soname=$(readelf -d "$prefix/lib/libsfl.so.1.0.0" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libsfl.so.1 ] || fail "SONAME is '$soname'"
ar t "$prefix/lib/libsfl.a" | grep -q '^sfl_base\.cpp\.o$' || fail "libsfl.a lacks the library's objects"
# The unit names the installed service program.
grep -qx "ExecStart=$prefix/bin/sfl-monitor --foreground.*" "$prefix/lib/systemd/system/sfl-monitor.service" ||
  fail "the unit does not start $prefix/bin/sfl-monitor"
# The manual pages carry the programs' options.
grep -q -- '--idle-seconds' "$prefix/share/man/man8/sfl-monitor.8" || fail "sfl-monitor.8 lacks the options"
grep -q '^\.TH SFL 1 ' "$prefix/share/man/man1/sfl.1" || fail "sfl.1 has no title line"
"$prefix/bin/sfl" --help >/dev/null || fail "the installed sfl does not run"

# ---- exports -------------------------------------------------------------------------------
sh "$src/tests/c/check_exports.sh" "$prefix/lib/libsfl.so" || fail "installed libsfl.so exports"

# ---- headers alone ---------------------------------------------------------------------------
# (sfl_c_api.h is the table sfl_c.h expands, not a header of its own.)
for h in "$prefix"/include/sfl/*.h; do
  [ "${h##*/}" != sfl_c_api.h ] || continue
  printf '#include "%s"\n' "$h" >"$work/alone.c"
  "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$work/alone.c" ||
    fail "$h does not compile alone as C11"
  printf '#include "%s"\n' "$h" >"$work/alone.cpp"
  "$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$work/alone.cpp" ||
    fail "$h does not compile alone as C++20"
done
printf '#include "%s"\n' "$prefix/include/sfl/sfl.hpp" >"$work/alone.cpp"
"$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Werror -fsyntax-only "$work/alone.cpp" ||
  fail "sfl.hpp does not compile alone as C++20"

# ---- consumers -------------------------------------------------------------------------------
# shellcheck disable=SC2046,SC2086
"$cc" -std=c11 -Wall -Wextra -Werror $extra -o "$work/c-consumer" "$src/tests/install/consumer.c" \
  $(pkg-config --cflags --libs sfl) -Wl,-rpath,"$libdir" || fail "the C consumer does not build"
# shellcheck disable=SC2086
cmake -S "$src/tests/install/cxx" -B "$work/cxx" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$extra" \
  >"$work/cxx.log" 2>&1 || { cat "$work/cxx.log" >&2; fail "find_package(sfl) project does not configure"; }
cmake --build "$work/cxx" >>"$work/cxx.log" 2>&1 || { cat "$work/cxx.log" >&2; fail "the C++ consumer does not build"; }

# Each consumer on the embedded defaults, with a store and run directory of
# its own and no hint where the service program is.
unset SFL_MONITOR_PROGRAM SFL_MONITOR_AUTOSTART SFL_STORE_ROOT SFL_RUN_DIR SFL_LIBRARY || true
run_consumer() {
  name=$1
  shift
  mkdir -p "$work/$name/store" "$work/$name/run"
  (cd "$work/$name" && SFL_STORE_ROOT="$work/$name/store" SFL_RUN_DIR="$work/$name/run" \
     SFL_MONITOR_IDLE_SECONDS=30 "$@") || fail "$name"
  state="$work/$name/run/sfl-monitor.state"
  [ -f "$state" ] || fail "$name: no interest service was started"
  pid=$(sed -n 's/^main \([0-9]*\)$/\1/p' "$state")
  [ -n "$pid" ] || fail "$name: no service pid in $state"
  monitors="$monitors $pid"
  exe=$(readlink "/proc/$pid/exe" || true)
  [ "$exe" = "$prefix/bin/sfl-monitor" ] || fail "$name: the service started is '$exe', not the installed one"
  [ -n "$(ls "$work/$name/store")" ] || fail "$name: nothing was stored under its store root"
}
run_consumer c "$work/c-consumer"
run_consumer cxx "$work/cxx/consumer"
# The Python module from where it was installed, loading the installed library.
pydir=$(echo "$prefix"/lib/python3*/dist-packages)
[ -f "$pydir/sfl/__init__.py" ] || fail "the Python module is not installed under $prefix/lib"
# A sanitized library needs the sanitizers' runtimes loaded first.
preload=""
case "$extra" in
  *sanitize=*) preload="LD_PRELOAD=$("$cc" -print-file-name=libasan.so):$("$cc" -print-file-name=libubsan.so) ASAN_OPTIONS=detect_leaks=0" ;;
esac
# shellcheck disable=SC2086
run_consumer python env $preload PYTHONPATH="$pydir" PYTHONDONTWRITEBYTECODE=1 "$python" "$src/tests/install/consumer.py"

# Stop the services this test started, and see them go.
for pid in $monitors; do kill -TERM "$pid"; done
for pid in $monitors; do
  n=0
  # Gone, or a zombie its adoptive parent has not reaped yet.
  while kill -0 "$pid" 2>/dev/null && ! grep -q '^[0-9]* (.*) Z' "/proc/$pid/stat" 2>/dev/null; do
    n=$((n + 1)); [ $n -le 100 ] || fail "service $pid did not stop"; sleep 0.1
  done
done
monitors=""
echo "install_test: installed tree works (C through pkg-config, C++ through find_package, Python)"
