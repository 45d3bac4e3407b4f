#!/usr/bin/env bash
# The demo: a tour of a virtual Pro token through a private pcscd with the
# krfs tool, ending with the token mounted as a file system. Installs what is missing, builds, runs, cleans up.
# Usage: scripts/demo.sh [--short]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "${1:-}" != "--inside" ]; then
  bash scripts/setup.sh
  echo "== building krfs and krfs-vtoken"
  cmake -S . -B build -G Ninja >/dev/null
  cmake --build build --target krfs krfs-vtoken -j "$(nproc)" | tail -1
  # A private mount and network namespace: our pcscd never meets a system one.
  exec unshare --mount --net bash "$0" --inside "$@"
fi
shift
short=0
[ "${1:-}" = "--short" ] && short=1

# shellcheck source=lib/private-pcscd.sh
. scripts/lib/private-pcscd.sh
work=$(mktemp -d /tmp/krfs-demo.XXXXXX)
cleanup() {
  [ -n "${mounted:-}" ] && fusermount3 -u -z "$mounted" 2>/dev/null
  [ -n "${card_pid:-}" ] && kill "$card_pid" 2>/dev/null && wait "$card_pid" 2>/dev/null
  pcscd_stop
  rm -rf "$work"
}
trap cleanup EXIT

krfs="$root/build/tools/krfs/krfs"
vtoken="$root/build/vtoken/krfs-vtoken"
export DEMO_PIN=123456

step() { printf '\n\033[1m$ %s\033[0m\n' "$*"; }
run() { step "$*"; "$@"; }

echo "== starting a private pcscd with a virtual reader"
pcscd_start "$work"

echo "== making a virtual Pro42 token, user PIN $DEMO_PIN"
"$vtoken" init --state "$work/token.json" --model pro42 --label "krFS demo token" \
  --user-pin "$DEMO_PIN" --id 4B524653 --key 1024 >/dev/null
"$vtoken" serve --state "$work/token.json" --port 35963 > "$work/vtoken.log" 2>&1 &
card_pid=$!
for _ in $(seq 1 100); do
  "$krfs" readers 2>/dev/null | grep -q token && break
  sleep 0.1
done

run "$krfs" readers
run "$krfs" info
step "$krfs login --pin-env DEMO_PIN"
"$krfs" login --pin-env DEMO_PIN
run "$krfs" --login --pin-env DEMO_PIN mkdir 2000
printf 'Hello from krFS.\nThis file lives on a virtual token.\n' > "$work/hello.txt"
run "$krfs" --login --pin-env DEMO_PIN --log "$work/apdu.log" put "$work/hello.txt" 2000/0001
run "$krfs" ls -l -R
run "$krfs" cat 2000/0001
run "$krfs" keys
step "head -6 $work/apdu.log   (the APDUs of the put)"
head -6 "$work/apdu.log"
if [ $short -eq 0 ]; then
  step "$vtoken show --state token.json"
  "$vtoken" show --state "$work/token.json" | head -30
fi

echo
echo "== the token as a file system"
if [ -r /dev/fuse ] && [ -w /dev/fuse ] && command -v fusermount3 >/dev/null; then
  mkdir "$work/token"
  run "$krfs" --login --pin-env DEMO_PIN mount "$work/token"
  mounted="$work/token"
  run ls -l -R "$work/token"
  run cat "$work/token/2000/0001"
  run fusermount3 -u "$work/token"
  mounted=
else
  echo "(skipped: krfs mount needs /dev/fuse and fusermount3, and this machine has not both)"
fi
echo
echo "demo: done"
