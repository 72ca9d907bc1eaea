#!/bin/sh
# Every function sfl.h declares has its row in the table of C status forms
# (sfl_c_api.h), and every row of that table names a function that exists:
# a function added to sfl.h without its C form fails here.
#     sh check_c_forms.sh <sfl.h> <sfl_c_api.h>
set -eu
header=$1 table=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/sfl-cforms.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Declarations may span lines: join the header, drop comments, and take the
# name before the parameter list of every SFL_API declaration with one.
tr '\n' ' ' <"$header" | sed 's:/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/::g' | tr ';' '\n' |
  sed -n 's/.*SFL_API[^(]*[^A-Za-z0-9_]\(sfl_[A-Za-z0-9_]*\)[[:space:]]*(.*/\1/p' | sort >"$work/declared"
sed -n 's/^SFLC_\(RET\|RET0\|VOID\|VOID0\)(sfl_, *\([A-Za-z0-9_]*\).*/sfl_\2/p' "$table" | sort >"$work/forms"

[ -s "$work/declared" ] || { echo "no functions found in $header"; exit 1; }
missing=$(comm -23 "$work/declared" "$work/forms")
extra=$(comm -13 "$work/declared" "$work/forms")
dups=$(uniq -d "$work/forms")
status=0
[ -z "$missing" ] || { echo "functions of sfl.h without a C form:"; echo "$missing"; status=1; }
[ -z "$extra" ] || { echo "C forms of functions sfl.h does not declare:"; echo "$extra"; status=1; }
[ -z "$dups" ] || { echo "functions with more than one C form:"; echo "$dups"; status=1; }
[ $status -ne 0 ] || echo "C forms ok: $(wc -l <"$work/forms") functions of sfl.h"
exit $status
