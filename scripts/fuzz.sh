#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz", clang) and runs each one for the given time,
# starting from its seed corpus in fuzz/corpus/<target>. What the fuzzer learns is kept in
# build-fuzz/work/corpus/<target>, out of the repository; findings go to
# build-fuzz/work/findings/<target>. Prints executions and findings per target; exits non-zero
# when a target found anything.
# Usage: scripts/fuzz.sh [seconds] [target...]   (default: 60 s each, every target)
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(parse edit store seal)
case "$seconds" in '' | *[!0-9]*)
    echo "usage: $0 [seconds] [parse|edit|store|seal ...]" >&2
    exit 2
    ;;
esac

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

work=$PWD/build-fuzz/work
# Files the targets write go to memory when it can: a disk file rewritten per input is slow.
scratch_root=/dev/shm
[ -d "$scratch_root" ] && [ -w "$scratch_root" ] || scratch_root=$work
scratch=$(mktemp -d "$scratch_root/ravel-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export ASAN_OPTIONS=abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp:print_suppressions=0

status=0
for t in "${targets[@]}"; do
    seeds=fuzz/corpus/$t
    [ -d "$seeds" ] || { echo "fuzz: no target $t" >&2; exit 2; }
    mkdir -p "$work/corpus/$t" "$work/findings/$t" "$scratch/$t"
    log=$work/$t.log
    echo "== fuzz $t for ${seconds} s (log: ${log#$PWD/})"
    set +e
    TMPDIR=$scratch/$t nice "build-fuzz/fuzz/${t}_fuzz" "$work/corpus/$t" "$seeds" \
        -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$work/findings/$t/" >"$log" 2>&1
    code=$?
    set -e
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    found=$(find "$work/findings/$t" -type f -newer "$scratch/$t" | wc -l)
    echo "fuzz $t: ${execs:-0} executions, $found findings, corpus $(ls "$work/corpus/$t" | wc -l) inputs"
    if [ "$code" -ne 0 ] || [ "$found" -ne 0 ]; then
        grep -E 'fault|ERROR|SUMMARY' "$log" | head -5 || true
        ls "$work/findings/$t"
        status=1
    fi
done
exit $status
