#!/bin/sh
# One step of a soak: runs a test program with the given environment,
# shows its output and keeps it in the log directory for the summary
# (tools/soak-summary.sh), with the seconds it took. The test programs find
# the service and the tools through SFL_TEST_BIN_DIR, which CTest sets for
# the suite and this sets for a soak.
#   soak-step.sh BUILD LOGDIR NAME [VAR=VALUE ...] PROGRAM [ARGS ...]
set -u
build=$(cd "$1" && pwd)
logs=$2
name=$3
shift 3
mkdir -p "$logs"
log="$logs/$name.log"
start=$(date +%s)
status=0
{ env SFL_TEST_BIN_DIR="$build" "$@" 2>&1 || echo "soak step $name: exit $?"; } | tee "$log"
end=$(date +%s)
echo $((end - start)) > "$logs/$name.seconds"
if grep -q "^soak step $name: exit" "$log"; then status=1; fi
exit $status
