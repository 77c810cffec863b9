#!/usr/bin/env bash
# Builds and runs every test. Usage: scripts/test.sh [plain|asan|tsan]   (default: plain)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

kind="${1:-plain}"
case "$kind" in
  plain) dir=build;      sanitize="" ;;
  asan)  dir=build-asan; sanitize=address ;;
  tsan)  dir=build-tsan; sanitize=thread ;;
  *) echo "usage: $0 [plain|asan|tsan]" >&2; exit 2 ;;
esac

# The thread-sanitizer build also takes the descriptor and process calls of macOS, so that they run here.
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPELMORA_WERROR=ON \
  -DPELMORA_SANITIZE="$sanitize" -DPELMORA_BUILD_BENCH="$([ "$kind" = plain ] && echo ON || echo OFF)" \
  -DPELMORA_PORTABLE_POSIX="$([ "$kind" = tsan ] && echo ON || echo OFF)" >/dev/null
cmake --build "$dir" -j"$(getconf _NPROCESSORS_ONLN)"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:verify_asan_link_order=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp}"
# The README test runs the README's Node.js code, which needs the addon (the plain build only).
if [ "$kind" = plain ]; then (cd bindings/node && npm run --silent build >/dev/null); fi
ctest --test-dir "$dir" --output-on-failure --timeout 300 -j2

# The Python and Node.js bindings, against this build's library (uninstrumented hosts cannot load
# a sanitizer build, so only the plain one).
if [ "$kind" = plain ]; then
  library=libPelmora.so.2
  [ "$(uname -s)" = Darwin ] && library=libPelmora.2.dylib
  export PELMORA_LIBRARY="$PWD/$dir/code/$library"
  export PELMORA_SIM_PHONE="$PWD/$dir/tools/sim-phone/pelmora-sim-phone"
  PYTHONPATH=bindings/python /usr/bin/python3 -m pytest -q -p no:cacheprovider bindings/python/tests
  (cd bindings/node && node --test test/)
fi
