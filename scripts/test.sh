#!/usr/bin/env bash
# The whole test suite: set-up, a Release build and a sanitizer build, each with
# every unit, component and end-to-end test, then a short fuzzing run.
# Usage: scripts/test.sh [--quick]   (--quick: normal build only, no fuzzing)
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
[ "${1:-}" = "--quick" ] && quick=1
jobs=$(nproc)

bash scripts/setup.sh

if [ "$(id -u)" -ne 0 ]; then
  echo "test: the end-to-end tests start a private pcscd in their own namespaces and need root" >&2
fi

run_suite() {
  local dir=$1; shift
  echo "== configure $dir $*"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  echo "== build $dir"
  cmake --build "$dir" -j "$jobs"
  echo "== test $dir"
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 300)
}

# Warnings fail the developers' builds, never a user's.
export KRFS_WERROR=ON
# Release (-O3) is what packagers build, and the optimiser finds warnings that
# lower levels miss; the sanitizer build below covers Debug.
run_suite build -DCMAKE_BUILD_TYPE=Release -DKRFS_WERROR=ON
echo "== consumer of the installed library"
bash scripts/consumer.sh build
echo "== the demo, short form"
bash scripts/demo.sh --short
if [ $quick -eq 0 ]; then
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DKRFS_SANITIZE=ON -DKRFS_WERROR=ON
  if [ -x scripts/fuzz.sh ] || [ -f scripts/fuzz.sh ]; then
    echo "== fuzz"
    bash scripts/fuzz.sh "${KRFS_FUZZ_SECONDS:-15}"
  fi
fi
echo "test: all suites passed"
