#!/bin/sh
# The cost of cluster mode: exchanges per second and their mean time
# (sfl_cluster_bench), and W1 (sfl_bench), each with a host alone and with
# a three-member etcd on loopback ports. Everything it starts it stops by
# pid; its files are in a temporary directory it removes.
#
#   sh bench/cluster_cost.sh [BUILD_DIR]        (default build)
set -eu
build=${1:-build}
build=$(cd "$build" && pwd)
command -v etcd >/dev/null || { echo "needs etcd (tools/install-deps.sh installs it)" >&2; exit 1; }
dir=$(mktemp -d /tmp/sfl-cluster-cost-XXXXXX)
pids=""
cleanup() {
  for p in $pids; do kill "$p" 2>/dev/null || true; done
  for p in $pids; do wait "$p" 2>/dev/null || true; done
  for r in "$dir"/run-*; do
    [ -d "$r" ] && "$build/bin/sfl-monitor" --stop --force --run-dir "$r" >/dev/null 2>&1 || true
  done
  rm -rf "$dir"
}
trap cleanup EXIT INT TERM

port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
initial=""; urls=""
for i in 0 1 2; do
  eval c$i=$(port); eval p$i=$(port)
  eval initial=\"\$initial\${initial:+,}m$i=http://127.0.0.1:\$p$i\"
  eval urls=\"\$urls\${urls:+,}http://127.0.0.1:\$c$i\"
done
for i in 0 1 2; do
  eval cp=\$c$i; eval pp=\$p$i
  etcd --name m$i --data-dir "$dir/m$i" --listen-client-urls http://127.0.0.1:$cp \
    --advertise-client-urls http://127.0.0.1:$cp --listen-peer-urls http://127.0.0.1:$pp \
    --initial-advertise-peer-urls http://127.0.0.1:$pp --initial-cluster "$initial" \
    --initial-cluster-state new --initial-cluster-token cost$$ >"$dir/m$i.log" 2>&1 &
  pids="$pids $!"
done
i=0
until ETCDCTL_API=3 etcdctl --endpoints="$urls" put probe x >/dev/null 2>&1; do
  i=$((i + 1)); [ $i -lt 60 ] || { echo "etcd did not come up" >&2; exit 1; }; sleep 0.5
done

export SFL_MONITOR_PROGRAM="$build/bin/sfl-monitor"
for mode in alone cluster; do
  echo "== $mode"
  mkdir -p "$dir/store-$mode"
  (
    export SFL_STORE_ROOT="$dir/store-$mode" SFL_RUN_DIR="$dir/run-$mode"
    if [ $mode = cluster ]; then
      export SFL_CLUSTER_ETCD="$urls" SFL_CLUSTER_NAME="cost$$" SFL_CLUSTER_HOST=bench
    fi
    "$build/bench/sfl_cluster_bench" 3
    "$build/bench/sfl_bench" --workloads W1 --reps 1 --no-strace --scale "${W1_SCALE:-0.1}" --dir "$dir/w1-$mode" \
      --out "$dir/w1-$mode.json" | grep -E '^W1 .* sfl '
  )
done
