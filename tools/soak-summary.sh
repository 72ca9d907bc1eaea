#!/bin/sh
# The summary line of a soak, from the logs its steps left (soak-step.sh):
# operations and fault points of the I/O-fault loop, kills of the crash
# loop, processes x operations of the stress run, interleavings of the
# interleaving loop (when it ran), and the time in all.
#   soak-summary.sh LOGDIR
set -u
logs=$1
sum() { awk "$1" "$logs"/*.log 2>/dev/null; }
ops=$(sum '/^fault loop: .* fault points$/ { n++ } END { print n + 0 }')
points=$(sum '/^fault loop: .* fault points$/ { p += $(NF - 2) } END { print p + 0 }')
kills=$(sum '/^crash loop: [0-9]+ kills/ { k += $3 } END { print k + 0 }')
stress=$(sum '/^stress: [0-9]+ processes x [0-9]+ operations/ { print $2 " x " $5 }' | paste -sd, -)
interleavings=$(sum '/^interleaving loop: / { for (i = 2; i <= NF; i++) if ($i == "interleavings") n += $(i - 1) } END { print n + 0 }')
seconds=$(cat "$logs"/*.seconds 2>/dev/null | awk '{ s += $1 } END { print s + 0 }')
ilv=""
if [ "$interleavings" -gt 0 ]; then ilv=", $interleavings interleavings"; fi
echo "soak: $ops operations with $points fault points, $kills kills, ${stress:-no} stress (processes x operations)$ilv, ${seconds} s"
