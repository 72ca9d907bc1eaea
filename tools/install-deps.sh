#!/bin/sh
# Installs the Debian packages the build, tests and benchmarks need, when
# something is missing and we are root. Quiet when all is there.
set -e

# missing PACKAGE...: the packages of the list that are not installed.
missing() {
  m=""
  for p in "$@"; do
    dpkg -s "$p" >/dev/null 2>&1 || m="$m $p"
  done
  echo "$m"
}

# install PACKAGE...: installs the given packages (we are root).
install() {
  echo "installing:$*"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq "$@" >/dev/null
}

# require PACKAGE...: installs what is missing; without root that is an error.
require() {
  need=$(missing "$@")
  [ -n "$need" ] || return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages:$need (run as root, or install them)" >&2
    exit 1
  fi
  # shellcheck disable=SC2086
  install $need
}

require cmake ninja-build g++ make libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev \
  strace util-linux procps pkg-config gcovr clang libclang-rt-dev python3 python3-pytest \
  debhelper dh-python lintian debootstrap

# Serving several hosts: the service's etcd client (libcurl, nlohmann-json)
# and, for the multi-host test, etcd itself.
require etcd-server etcd-client libcurl4-openssl-dev nlohmann-json3-dev

# The manual pages' check (groff, man).
require groff-base man-db

# The multi-host test's cluster file system: GlusterFS (its daemon and its
# FUSE client). Optional: without it (or when not root) the test says so
# and shares a local directory between its hosts.
need=$(missing glusterfs-server glusterfs-client)
if [ -n "$need" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "not installed (needs root):$need; the multi-host test runs without GlusterFS" >&2
  else
    # shellcheck disable=SC2086
    install $need
  fi
fi

# The benchmark's mail-server mix is checked against PostMark (W6).
require postmark
