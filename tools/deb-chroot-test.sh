#!/bin/sh
# make deb-chroot-test: the built packages installed and configured by apt
# in a fresh Debian root that debootstrap makes from this machine's own apt
# source (its Debian mirror, this system's suite), so the maintainer scripts
# run (the sfl user, the unit, the module's byte-code); then the C, C++ and
# Python consumers are built and run inside that root, each with a store
# and service of its own. Needs root and the mirror; the whole run took
# about a minute here (three the first time the mirror was asked).
#     sh tools/deb-chroot-test.sh [--optional] <directory holding the .deb files>
# With --optional (make deb-test) a machine without root, debootstrap or the
# mirror skips the test with one line saying why, and succeeds; without it
# (make deb-chroot-test) that is a failure.
set -eu
optional=0
if [ "${1:-}" = "--optional" ]; then
  optional=1
  shift
fi
debs=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
fail() { echo "deb-chroot-test: FAILED: $*" >&2; exit 1; }
unavailable() {
  [ $optional -eq 1 ] || fail "$*"
  echo "deb-chroot-test: SKIPPED: $*"
  exit 0
}
[ "$(id -u)" -eq 0 ] || unavailable "needs root (debootstrap, chroot)"
command -v debootstrap >/dev/null || unavailable "debootstrap is not installed (apt-get install debootstrap)"

suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
# The mirror: SFL_DEB_MIRROR, else this machine's own Debian source.
mirror=${SFL_DEB_MIRROR:-}
[ -n "$mirror" ] || mirror=$(sed -n 's/^URIs: *\([^ ]*\/debian\)\/*$/\1/p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" && $2 ~ /\/debian\/?$/ { print $2; exit }' /etc/apt/sources.list 2>/dev/null)
[ -n "$mirror" ] || mirror=http://deb.debian.org/debian
# debootstrap fetches with wget (one of its dependencies): a mirror that does
# not answer for the suite's Release file is one the test cannot use.
wget -q -T 20 -t 2 -O /dev/null "$mirror/dists/$suite/Release" ||
  unavailable "the mirror $mirror does not answer for $suite"

work=$(mktemp -d /var/tmp/sfl-chroot.XXXXXX)
root=$work/root
monitors=""
cleanup() {
  for pid in $monitors; do kill -TERM "$pid" 2>/dev/null || true; done
  # Never remove the tree while the root's /proc is still mounted in it.
  if mountpoint -q "$root/proc" 2>/dev/null; then
    umount "$root/proc" || { echo "deb-chroot-test: $root/proc still mounted; $work left" >&2; return; }
  fi
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$work/debootstrap.log" 2>&1 ||
  { tail -20 "$work/debootstrap.log" >&2; fail "debootstrap $suite from $mirror"; }
mkdir -p "$root/srv/sfl/debs"
# The packages by their names inside the root (a glob would be expanded
# here, against this machine's paths, not the root's).
inroot=""
for p in libsfl1 libsfl-dev sfl-tools python3-sfl; do
  set -- "$debs"/${p}_*.deb
  [ -f "$1" ] || fail "no ${p} package in $debs (make deb)"
  cp "$1" "$root/srv/sfl/debs/"
  inroot="$inroot /srv/sfl/debs/$(basename "$1")"
done
cp -r "$src/tests/install" "$root/srv/sfl/install"
mount -t proc proc "$root/proc"
in_root() {
  chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"
}

# apt resolves the packages' dependencies from the mirror and configures
# them: what a Debian administrator's "apt install" does.
in_root apt-get update -qq >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; fail "apt-get update"; }
# shellcheck disable=SC2086 # one word per package
in_root apt-get install -y -qq --no-install-recommends gcc g++ cmake ninja-build pkg-config \
  $inroot >>"$work/apt.log" 2>&1 || { tail -30 "$work/apt.log" >&2; fail "apt-get install"; }
for p in libsfl1 libsfl-dev sfl-tools python3-sfl; do
  in_root dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed' || fail "$p is not configured"
done
in_root getent passwd sfl >/dev/null || fail "the configure step made no sfl user"
[ -f "$root/usr/share/man/man3/sfl_items.3.gz" ] || fail "the API reference is not installed"

in_root sh -c 'cd /srv/sfl && cc -std=c11 -Wall -Wextra -Werror -o c-consumer install/consumer.c $(pkg-config --cflags --libs sfl)' \
  || fail "the C consumer does not build"
in_root sh -c 'cmake -S /srv/sfl/install/cxx -B /srv/sfl/cxx -G Ninja -DCMAKE_BUILD_TYPE=Release && cmake --build /srv/sfl/cxx' \
  >"$work/cxx.log" 2>&1 || { cat "$work/cxx.log" >&2; fail "the C++ consumer does not build"; }

run() {
  name=$1
  shift
  in_root sh -c "mkdir -p /srv/sfl/$name/store /srv/sfl/$name/run && cd /srv/sfl/$name &&
    SFL_STORE_ROOT=/srv/sfl/$name/store SFL_RUN_DIR=/srv/sfl/$name/run SFL_MONITOR_IDLE_SECONDS=30 $*" ||
    fail "$name"
  pid=$(sed -n 's/^main \([0-9]*\)$/\1/p' "$root/srv/sfl/$name/run/sfl-monitor.state")
  [ -n "$pid" ] || fail "$name: no service was started"
  monitors="$monitors $pid"
  exe=$(readlink "/proc/$pid/exe" || true)
  [ "$exe" = "$root/usr/bin/sfl-monitor" ] || fail "$name: the service started is '$exe', not the root's"
}
run c /srv/sfl/c-consumer
run cxx /srv/sfl/cxx/consumer
run python python3 /srv/sfl/install/consumer.py
echo "deb-chroot-test: passed ($suite root from $mirror): packages configured, C, C++ and Python consumers ran"
