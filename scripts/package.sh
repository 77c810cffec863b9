#!/usr/bin/env bash
# Builds what users install, into one folder (default dist/): the Debian packages (checked with
# lintian, which fails the run on any error or warning), the Python wheel and the npm tarball.
# Usage: scripts/package.sh [OUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
bash scripts/setup.sh

out="$(mkdir -p "${1:-dist}" && cd "${1:-dist}" && pwd)"
rm -f "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes "$out"/*.whl "$out"/*.tgz

# Debian packages: binary only (the source is this checkout); the debs, .buildinfo and .changes go
# to the output folder, not the checkout's parent. The tree is cleaned again afterwards.
jobs="$(getconf _NPROCESSORS_ONLN)"
[ "$jobs" -gt 2 ] && jobs=2
name="pelmora_$(dpkg-parsechangelog -S Version)_$(dpkg-architecture -qDEB_HOST_ARCH)"
PELMORA_DEB_DIR="$out" dpkg-buildpackage -b -us -uc -j"$jobs" \
  --buildinfo-option="-u$out" --buildinfo-file="$out/$name.buildinfo" \
  --changes-option="-u$out" --changes-file="$out/$name.changes" >"$out/build.log" 2>&1 \
  || { tail -n 60 "$out/build.log" >&2; echo "package.sh: dpkg-buildpackage failed (log: $out/build.log)" >&2; exit 1; }
debian/rules clean >/dev/null 2>&1

# The Python wheel, with Debian's pip, setuptools and wheel: no build isolation, no index.
wheel_tree="$(mktemp -d)"
trap 'rm -rf "$wheel_tree"' EXIT
cp -r bindings/python/. "$wheel_tree"
/usr/bin/python3 -m pip wheel --quiet --no-deps --no-build-isolation --no-index \
  --wheel-dir "$out" "$wheel_tree"

# The npm tarball, with node-addon-api and node-api-headers bundled from the lock file's install.
(cd bindings/node && npm pack --silent --pack-destination "$out" >/dev/null)

ls -l "$out"/*.deb "$out"/*.whl "$out"/*.tgz
echo "== lintian"
lintian --fail-on error,warning --display-info "$out"/*.changes
echo "package.sh: packages in $out"
