#!/bin/sh
# make deb: the source and binary packages (libsfl1, libsfl-dev, sfl-tools,
# python3-sfl) built with debhelper from the committed tree (git archive of
# HEAD) in build-deb/, then lintian over them, failing on any error.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
out=$src/build-deb
version=$(sed -n '1s/^sfl (\([^)]*\)).*/\1/p' "$src/debian/changelog")
rm -rf "$out"
mkdir -p "$out"
git -C "$src" archive --prefix="sfl-$version/" HEAD | tar -x -C "$out"
(cd "$out/sfl-$version" && dpkg-buildpackage -us -uc -j"${JOBS:-2}") >"$out/build.log" 2>&1 ||
  { tail -40 "$out/build.log" >&2; echo "make deb: dpkg-buildpackage failed (log: $out/build.log)" >&2; exit 1; }
status=0
lintian --fail-on error --info "$out"/sfl_"$version"_*.changes >"$out/lintian.log" 2>&1 || status=$?
cat "$out/lintian.log"
[ $status -eq 0 ] || { echo "make deb: lintian found errors" >&2; exit 1; }
echo "make deb: packages in $out:"
ls "$out"/*.deb "$out"/*.dsc
