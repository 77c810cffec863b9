#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Pelmora needs (on macOS, the
# same from Homebrew). Idempotent: what is present is skipped, so a second run costs one query.
set -euo pipefail

if [ "$(uname -s)" = Darwin ]; then
  # IOKit and CoreFoundation come with the system; adb is a cask.
  command -v brew >/dev/null || { echo "setup.sh: macOS needs Homebrew (https://brew.sh)" >&2; exit 1; }
  formulae=(cmake ninja pkg-config spdlog fmt jsoncpp googletest google-benchmark)
  missing=()
  for f in "${formulae[@]}"; do brew list --formula "$f" >/dev/null 2>&1 || missing+=("$f"); done
  [ ${#missing[@]} -eq 0 ] || brew install "${missing[@]}"
  command -v adb >/dev/null || brew install --cask android-platform-tools
  exit 0
fi

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev
  libspdlog-dev libfmt-dev libjsoncpp-dev libudev-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  umockdev libumockdev-dev libglib2.0-dev gir1.2-umockdev-1.0 python3-gi
  adb python3 procps
  usb.ids
  python3-pytest
  # scripts/package.sh: the Debian packages, lintian, the wheel; and the check of them installed
  debhelper dpkg-dev lintian man-db python3-pip python3-setuptools python3-wheel python3-venv
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node.js for the Node binding: the machine's own when it has one, else Debian's.
command -v node >/dev/null || missing+=(nodejs npm)

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The Node binding's npm packages, from its lock file (npm ci also builds the addon); only when
# the lock file changed since the last run.
node_binding="$(cd "$(dirname "$0")/.." && pwd)/bindings/node"
if ! cmp -s "$node_binding/package-lock.json" "$node_binding/node_modules/.pelmora-lock"; then
  (cd "$node_binding" && npm ci --no-audit --no-fund --loglevel=error)
  cp "$node_binding/package-lock.json" "$node_binding/node_modules/.pelmora-lock"
fi
