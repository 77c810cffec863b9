#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time.
# Usage: scripts/fuzz.sh [seconds per target]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
seconds="${1:-60}"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DPELMORA_BUILD_FUZZ=ON -DPELMORA_BUILD_TESTS=OFF -DPELMORA_BUILD_BENCH=OFF -DPELMORA_WERROR=ON >/dev/null
cmake --build build-fuzz -j"$(getconf _NPROCESSORS_ONLN)"

status=0
for target in build-fuzz/fuzz/*/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="build-fuzz/corpus/$name"; mkdir -p "$corpus"
  seeds="fuzz/$(basename "$(dirname "$target")")/seeds"
  echo "== $name: ${seconds}s"
  if ! "$target" -max_total_time="$seconds" -print_final_stats=1 "$corpus" $( [ -d "$seeds" ] && echo "$seeds" ) \
      > "build-fuzz/$name.log" 2>&1; then
    tail -n 60 "build-fuzz/$name.log"; status=1
  fi
  grep -E '^stat::number_of_executed_units' "build-fuzz/$name.log" | sed "s/^/   $name /" || true
done
exit $status
