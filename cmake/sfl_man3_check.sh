#!/bin/sh
# sfl_man3_check.sh DIR PAGE...: fails unless every page exists and groff
# and man read it without a warning.
dir=$1; shift
[ $# -gt 0 ] || { echo "no pages given"; exit 1; }
rc=0
for page in "$@"; do
  if [ ! -s "$page" ]; then echo "$page: missing"; rc=1; continue; fi
  out=$(groff -man -ww -z "$page" 2>&1)
  [ -z "$out" ] || { echo "$page: groff: $out"; rc=1; }
  if command -v man >/dev/null 2>&1; then
    out=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$out" ] || { echo "$page: man: $out"; rc=1; }
  fi
done
[ $rc -eq 0 ] && echo "$# pages in $dir: no warnings"
exit $rc
