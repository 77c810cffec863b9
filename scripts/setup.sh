#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Pelmora needs.
# Idempotent: packages already present are skipped, so a second run costs one dpkg query.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev
  libspdlog-dev libfmt-dev libjsoncpp-dev libudev-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  umockdev libumockdev-dev libglib2.0-dev gir1.2-umockdev-1.0 python3-gi
  adb python3
  usb.ids
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
