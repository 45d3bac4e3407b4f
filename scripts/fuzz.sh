#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each one for a
# bounded time, starting from the seeds in fuzz/corpus/<target>/.
#
#   scripts/fuzz.sh [seconds-per-target]
#
# The time may also come from KRFS_FUZZ_SECONDS; the default is 20 seconds.
# New corpus entries go to build-fuzz/corpus/<target>/, crashing inputs to
# build-fuzz/artifacts/<target>/. Exits non-zero if any target fails.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-${KRFS_FUZZ_SECONDS:-20}}
build=$root/build-fuzz

if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "fuzz.sh: seconds must be a positive whole number, not '$seconds'" >&2
    exit 2
fi

cmake -S "$root" -B "$build" -G Ninja -DKRFS_FUZZ=ON -DKRFS_WERROR="${KRFS_WERROR:-OFF}" \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
ninja -C "$build"

# Undefined behaviour must stop the run like a crash does.
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}

failed=()
for source in "$root"/fuzz/fuzz_*.cpp; do
    target=$(basename "$source" .cpp)
    seeds=$root/fuzz/corpus/$target
    work=$build/corpus/$target
    artifacts=$build/artifacts/$target
    log=$build/$target.log
    mkdir -p "$work" "$artifacts"
    echo "== $target: ${seconds}s"
    if "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$artifacts/" "$work" "$seeds" >"$log" 2>&1; then
        grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$log" | sed 's/^/   /'
        echo "   ok ($(grep -c . <(ls "$work")) inputs in the corpus)"
    else
        echo "   FAILED, see $log and $artifacts/"
        tail -n 30 "$log" | sed 's/^/   /'
        failed+=("$target")
    fi
done

if ((${#failed[@]})); then
    echo "fuzz.sh: failing targets: ${failed[*]}" >&2
    exit 1
fi
echo "fuzz.sh: all targets ran ${seconds}s without a failure"
