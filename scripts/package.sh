#!/usr/bin/env bash
# Builds what users install, into one folder (default dist/): the Debian packages (checked with
# lintian, which fails the run on any error or warning), the Python wheel and the npm tarball.
# Usage: scripts/package.sh [OUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

out="$(mkdir -p "${1:-dist}" && cd "${1:-dist}" && pwd)"
rm -f "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes "$out"/*.whl "$out"/*.tgz
work="$(mktemp -d)"
# The package build leaves its folders in the checkout (obj-*, debian/tmp, ...): cleaned at the end.
trap 'rm -rf "$work"; debian/rules clean >/dev/null 2>&1 || true' EXIT

# Debian packages: binary only (the source is this checkout); the debs, .buildinfo and .changes go
# to the output folder, not the checkout's parent.
jobs="$(getconf _NPROCESSORS_ONLN)"
[ "$jobs" -le 2 ] || jobs=2   # a shared machine
name="pelmora_$(dpkg-parsechangelog -S Version)_$(dpkg-architecture -qDEB_HOST_ARCH)"
PELMORA_DEB_DIR="$out" dpkg-buildpackage -b -us -uc -j"$jobs" \
  --buildinfo-option="-u$out" --buildinfo-file="$out/$name.buildinfo" \
  --changes-option="-u$out" --changes-file="$out/$name.changes" >"$out/build.log" 2>&1 \
  || { tail -n 60 "$out/build.log" >&2; echo "package.sh: dpkg-buildpackage failed (log: $out/build.log)" >&2; exit 1; }

# The Python wheel, with Debian's pip, setuptools and wheel: no build isolation, no index; built
# from a copy of the sources alone, so that setuptools' build folders stay out of the checkout and
# none of an earlier in-tree build gets in.
mkdir "$work/python" && cp -r bindings/python/pyproject.toml bindings/python/pelmora "$work/python/"
/usr/bin/python3 -m pip wheel --quiet --no-deps --no-build-isolation --no-index \
  --wheel-dir "$out" "$work/python"

# The npm tarball. node-addon-api and node-api-headers go inside it (bundled, from the lock file's
# install), so that it installs and builds with no download: Debian 12's node-addon-api is older
# than the addon needs and node-api-headers is not packaged. Only the tarball bundles them, since a
# folder installed by path has no node_modules to bundle and takes its dependencies from npm.
node_stage="$work/node" && mkdir -p "$node_stage"
(cd bindings/node && npm pack --silent --pack-destination "$node_stage" >/dev/null)
tar -xzf "$node_stage"/pelmora-*.tgz -C "$node_stage" && rm "$node_stage"/pelmora-*.tgz
# The table of codes is a link in the checkout, which npm pack leaves out: the file itself goes in.
cp common/codes.json "$node_stage/package/codes.json"
mkdir -p "$node_stage/package/node_modules"
cp -r bindings/node/node_modules/node-addon-api bindings/node/node_modules/node-api-headers \
  "$node_stage/package/node_modules/"
(cd "$node_stage/package" &&
  node -e 'const fs = require("fs"); const p = JSON.parse(fs.readFileSync("package.json"));
           p.bundleDependencies = Object.keys(p.dependencies);
           fs.writeFileSync("package.json", JSON.stringify(p, null, 2) + "\n");' &&
  npm pack --silent --pack-destination "$out" >/dev/null)

ls -l "$out"/*.deb "$out"/*.whl "$out"/*.tgz
echo "== lintian"
lintian --fail-on error,warning --display-info "$out"/*.changes
echo "package.sh: packages in $out"
