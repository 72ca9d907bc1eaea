#!/bin/sh
# The built Debian packages, put into a fresh root with dpkg --root
# --unpack, serve a C consumer (pkg-config), a C++ consumer
# (find_package(sfl)) and a Python script, each built and run against that
# root alone: its headers, its library, its module and its sfl-monitor.
#
# Unpacking is dpkg's install without the configure step: configuring runs
# the maintainer scripts (making the sfl user, enabling the unit, compiling
# the module) inside the root, which needs a base system there.
#     sh deb_root_test.sh <directory holding the .deb files>
set -eu
debs=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-deb-root.XXXXXX")
monitors=""
cleanup() {
  for pid in $monitors; do kill -TERM "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() { echo "deb_root_test: FAILED: $*" >&2; exit 1; }

root=$work/root
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info"
touch "$root/var/lib/dpkg/status"
# The root has no libc or python3 of its own in dpkg's records: their
# dependencies are the host's.
dpkg --root="$root" --force-depends --force-not-root --unpack \
  "$debs"/libsfl1_*.deb "$debs"/libsfl-dev_*.deb "$debs"/sfl-tools_*.deb "$debs"/python3-sfl_*.deb \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg --unpack"; }
for p in libsfl1 libsfl-dev sfl-tools python3-sfl; do
  dpkg --root="$root" -s "$p" 2>/dev/null | grep -q '^Status: install ok unpacked' || fail "$p is not unpacked"
done

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=$root/usr/lib/$multiarch
[ -f "$libdir/libsfl.so.1" ] || fail "libsfl.so.1 not in $libdir"
[ -x "$root/usr/bin/sfl-monitor" ] || fail "sfl-monitor not installed"
[ -f "$root/lib/systemd/system/sfl-monitor.service" ] || fail "the unit is not installed"
grep -q '^ExecStart=/usr/bin/sfl-monitor ' "$root/lib/systemd/system/sfl-monitor.service" ||
  fail "the unit does not start /usr/bin/sfl-monitor"

# pkg-config and CMake see only the root (both files find the prefix from
# where they lie).
export PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR || true
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -o "$work/c-consumer" "$src/tests/install/consumer.c" \
  $(pkg-config --cflags --libs sfl) || fail "the C consumer does not build"
pkg-config --cflags sfl | grep -q -- "-I$root/" || fail "pkg-config does not give the root's headers"
cmake -S "$src/tests/install/cxx" -B "$work/cxx" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_FIND_ROOT_PATH="$root" -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY \
  -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY \
  >"$work/cxx.log" 2>&1 ||
  { cat "$work/cxx.log" >&2; fail "find_package(sfl) does not configure against the root"; }
cmake --build "$work/cxx" >>"$work/cxx.log" 2>&1 || { cat "$work/cxx.log" >&2; fail "the C++ consumer does not build"; }
grep -q "$root/usr/include/sfl" "$work/cxx/build.ninja" || fail "the C++ consumer did not use the root's headers"

# Each program with the root's library first on the search path and a store,
# run directory and service of its own. The library's service program is
# found beside it (../../bin from the library's directory): the root's.
run() {
  name=$1
  shift
  mkdir -p "$work/$name/store" "$work/$name/run"
  (cd "$work/$name" && LD_LIBRARY_PATH="$libdir" SFL_STORE_ROOT="$work/$name/store" \
     SFL_RUN_DIR="$work/$name/run" SFL_MONITOR_IDLE_SECONDS=30 "$@") || fail "$name"
  pid=$(sed -n 's/^main \([0-9]*\)$/\1/p' "$work/$name/run/sfl-monitor.state")
  [ -n "$pid" ] || fail "$name: no service was started"
  monitors="$monitors $pid"
  exe=$(readlink "/proc/$pid/exe" || true)
  [ "$exe" = "$root/usr/bin/sfl-monitor" ] || fail "$name: the service started is '$exe', not the root's"
}
unset SFL_MONITOR_PROGRAM SFL_LIBRARY PYTHONPATH || true
run c "$work/c-consumer"
run cxx "$work/cxx/consumer"
run python env PYTHONPATH="$root/usr/lib/python3/dist-packages" PYTHONDONTWRITEBYTECODE=1 \
  python3 "$src/tests/install/consumer.py"
for pid in $monitors; do kill -TERM "$pid" 2>/dev/null || true; done
monitors=""
echo "deb_root_test: the packages unpacked into a fresh root serve C, C++ and Python"
