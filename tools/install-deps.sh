#!/bin/sh
# Installs the Debian packages the build, tests and benchmarks need, when
# something is missing and we are root. Quiet when all is there.
set -e
need=""
for p in cmake ninja-build g++ make libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev strace util-linux procps pkg-config gcovr clang libclang-rt-dev python3 python3-pytest debhelper dh-python lintian; do
  dpkg -s "$p" >/dev/null 2>&1 || need="$need $p"
done
if [ -n "$need" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages:$need (run as root, or install them)" >&2
    exit 1
  fi
  echo "installing:$need"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq $need >/dev/null
fi

# Serving several hosts: the service's etcd client (libcurl, nlohmann-json)
# and, for the multi-host test, etcd itself.
need=""
for p in etcd-server etcd-client libcurl4-openssl-dev nlohmann-json3-dev; do
  dpkg -s "$p" >/dev/null 2>&1 || need="$need $p"
done
if [ -n "$need" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages:$need (run as root, or install them)" >&2
    exit 1
  fi
  echo "installing:$need"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq $need >/dev/null
fi

# The manual pages' check (groff, man).
need=""
for p in groff-base man-db; do
  dpkg -s "$p" >/dev/null 2>&1 || need="$need $p"
done
if [ -n "$need" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages:$need (run as root, or install them)" >&2
    exit 1
  fi
  echo "installing:$need"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq $need >/dev/null
fi

# The multi-host test's cluster file system: GlusterFS (its daemon and its
# FUSE client). Optional: without it (or when not root) the test says so
# and shares a local directory between its hosts.
need=""
for p in glusterfs-server glusterfs-client; do
  dpkg -s "$p" >/dev/null 2>&1 || need="$need $p"
done
if [ -n "$need" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "not installed (needs root):$need; the multi-host test runs without GlusterFS" >&2
  else
    echo "installing:$need"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq >/dev/null
    apt-get install -y -qq $need >/dev/null
  fi
fi
