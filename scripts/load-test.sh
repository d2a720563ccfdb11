#!/usr/bin/env bash
# Runs the plain and the sanitizer test suites with `ctest -j2` over and over beside two CPU-bound
# processes, and stops at the first failure, printing the failing tests: the suite must hold on a
# busy machine. Builds both first. Not part of scripts/test.sh (it takes a while).
# Usage: scripts/load-test.sh [RUNS]   (default 20; each run is both suites)
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-20}
case $runs in
    '' | *[!0-9]* | 0) echo "load-test.sh: RUNS must be a positive number, not \"$runs\"" >&2; exit 2 ;;
esac

for preset in default asan; do
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
done

burners=()
stop_burners() { [ ${#burners[@]} -eq 0 ] || kill "${burners[@]}" 2>/dev/null || true; }
trap stop_burners EXIT
for _ in 1 2; do
    sh -c 'while :; do :; done' &
    burners+=($!)
done
echo "== two CPU-bound processes beside the tests: PIDs ${burners[*]}"

log=$(mktemp)
trap 'stop_burners; rm -f "$log"' EXIT
for run in $(seq 1 "$runs"); do
    for preset in default asan; do
        start=$(date +%s)
        if ! ctest --preset "$preset" -j2 >"$log" 2>&1; then
            echo "== run $run of $runs, $preset: FAILED"
            sed -n '/The following tests FAILED/,$p' "$log"
            exit 1
        fi
        echo "== run $run of $runs, $preset: passed in $(($(date +%s) - start)) s ($(grep -o '[0-9]* tests failed out of [0-9]*' "$log" | sed 's/.* out of /tests: /'))"
    done
done
echo "== all $runs runs of both suites passed under load"
