#!/usr/bin/env bash
# Installs what is needed, builds Pelmora and runs its main job, pelmora-monitor: the Android
# phones plugged into this computer, live. Arguments go to the monitor (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(getconf _NPROCESSORS_ONLN)" --target pelmora-monitor pelmora-sim-phone
exec build/tools/monitor/pelmora-monitor "$@"
