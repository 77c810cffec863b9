#!/usr/bin/env bash
# Installs the packages that scripts/package.sh made with apt (as root), checks what a user gets
# from each, then purges them and checks that nothing of them is left.
# Usage: packaging/check-packages.sh DIST_DIR
set -euo pipefail
dist="$(cd "${1:?usage: $0 DIST_DIR}" && pwd)"
examples=/usr/share/doc/libpelmora-dev/examples
packages=(libpelmora2 libtarnwell1 libquenwick1 libpelmora-dev pelmora-tools pelmora-udev)
phone_model="Packaged Phone"
wait_seconds=60   # bound of every wait below
export DEBIAN_FRONTEND=noninteractive

work="$(mktemp -d)"
phone_pid=""
host_pid=""
stop() { [ -z "$1" ] || { kill "$1" && wait "$1"; } 2>/dev/null || true; }
cleanup() {
  stop "$host_pid"
  exec 3>&- 2>/dev/null || true
  stop "$phone_pid"
  apt-get purge -y -qq "${packages[@]}" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "check-packages: $*" >&2; exit 1; }

# wait_for FILE TEXT: until FILE holds TEXT, at most wait_seconds.
wait_for() {
  local deadline=$((SECONDS + wait_seconds))
  until grep -qF -- "$2" "$1" 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || { cat "$1" >&2 || true; fail "no '$2' in $1 after ${wait_seconds}s"; }
    sleep 0.5
  done
}

debs=()
for p in "${packages[@]}"; do debs+=("$dist/${p}_"*.deb); done
apt-get install -y -qq "${debs[@]}" >/dev/null

echo "-- tools"
[ "$(command -v pelmora-monitor)" = /usr/bin/pelmora-monitor ] || fail "pelmora-monitor is not /usr/bin's"
/usr/bin/pelmora-monitor --version
man -w pelmora-monitor
man -w pelmora-sim-phone >/dev/null
rules=/usr/lib/udev/rules.d/51-pelmora-android.rules
[ -f "$rules" ] || fail "$rules missing"
grep -q 'TAG+="uaccess"' "$rules" || fail "$rules grants no uaccess"

echo "-- a simulated phone behind a private adb server"
# The phone quits at the end of its input: it reads a pipe that stays open until the end.
mkfifo "$work/phone.in"
exec 3<>"$work/phone.in"
pelmora-sim-phone --own-server --model "$phone_model" >"$work/phone.out" 2>&1 <"$work/phone.in" &
phone_pid=$!
wait_for "$work/phone.out" "adb-server-port "
ANDROID_ADB_SERVER_PORT="$(sed -n 's/^adb-server-port \([0-9]*\).*/\1/p' "$work/phone.out" | head -n 1)"
export ANDROID_ADB_SERVER_PORT
[ -n "$ANDROID_ADB_SERVER_PORT" ] || fail "no port in $work/phone.out"

# run_host NAME COMMAND...: runs a host until it prints the phone (bounded), then stops it.
run_host() {
  local name="$1"; shift
  "$@" >"$work/$name.out" 2>&1 </dev/null &
  host_pid=$!
  wait_for "$work/$name.out" "$phone_model"
  stop "$host_pid"; host_pid=""
  echo "$name: sees \"$phone_model\""
}

echo "-- C host, built with pkg-config"
# shellcheck disable=SC2046  # pkg-config's words are meant to split
cc "$examples/host.c" $(pkg-config --cflags --libs pelmora) -o "$work/host"
mkdir -p "$work/state"
run_host host.c "$work/host" "$(pkg-config --variable=configdir pelmora)" "$work/state" "$work/state" "$wait_seconds"

echo "-- Python wheel in a fresh venv, no index"
/usr/bin/python3 -m venv "$work/venv"
"$work/venv/bin/pip" install --quiet --no-index "$dist"/pelmora-*-py3-none-any.whl
run_host host.py "$work/venv/bin/python" "$examples/host.py"

echo "-- npm tarball in a fresh folder, offline"
mkdir "$work/app"
# An unreachable registry: the tarball carries what its build needs.
(cd "$work/app" && echo '{ "name": "app", "version": "1.0.0", "private": true }' >package.json &&
  npm_config_registry=http://127.0.0.1:9/ npm install --offline --no-audit --no-fund \
    --loglevel=error "$dist"/pelmora-*.tgz >/dev/null &&
  node -e 'const p = require("pelmora"); const path = require("node:path");
           require(path.join(path.dirname(require.resolve("pelmora")), "build", "pelmora.node"));
           if (typeof p.listen !== "function") process.exit(1);
           console.log("require(\"pelmora\") loads from", require.resolve("pelmora"));')

echo "-- purge"
stop "$phone_pid"; phone_pid=""
apt-get purge -y -qq "${packages[@]}" >/dev/null
for p in "${packages[@]}"; do
  [ -z "$(dpkg -L "$p" 2>/dev/null)" ] || fail "$p still has files"
done
! ls /usr/lib/udev/rules.d/*pelmora* >/dev/null 2>&1 || fail "rules left in /usr/lib/udev/rules.d"
[ ! -e /usr/share/pelmora ] || fail "/usr/share/pelmora left"
echo "check-packages: all checks passed, nothing left"
