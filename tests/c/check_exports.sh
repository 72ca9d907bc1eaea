#!/bin/sh
# The shared library exports its API and nothing else: no support-library
# internals (os_, mdc_, cust_, ext_, ml_ ...), no C++ helpers beyond the
# escape type callers catch.
set -eu
lib="$1"
syms=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//')
bad=$(printf '%s\n' "$syms" | grep -Ev '^(sfl_|sflc_|er_|im_(FormItemRef|ItemRef2Text|ItemRef2FName|FName2ItemRef)$|MemFreeMap$|MemFreeMapSize$|FilesInColdStore$|FrozenCount$|_ZN9er_Escape|_ZNK9er_Escape|_ZTI9er_Escape|_ZTS9er_Escape|_ZTV9er_Escape|_ZN9er_EscapeD|_Z15er_TracedEscape|_init$|_fini$)' || true)
if [ -n "$bad" ]; then
  echo "unexpected exported symbols:"; printf '%s\n' "$bad"; exit 1
fi
for must in sfl_OpenSfl sfl_CreateSfl sfl_CloseFile sfl_OpenItem er_CallC sflc_OpenSfl sflc_LastError \
            MemFreeMap FrozenCount; do
  printf '%s\n' "$syms" | grep -qx "$must" || { echo "missing export: $must"; exit 1; }
done
echo "exports ok: $(printf '%s\n' "$syms" | wc -l) symbols"
