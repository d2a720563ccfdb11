#!/usr/bin/env bash
# Makes every I/O call the agent makes fail in turn, with each error the call can give: the
# resident duplicate's check (start, missed-check test, first check with its reads and writes of
# UserInfo.dat, the updater's launch, the listener) and the installed copy's deployment (data
# folder, log, bundle, libraries, data folders, Tidewater.dat, the duplicate's start). A clean
# traced run lists the calls; each fault then runs the agent afresh under strace and checks: no
# crash, no hang, the exit status and log line where the agent reports the failure, no settings
# file lost or half-written, no temporary file left. The ctest case runs a sample; this runs all.
# Runs in private namespaces (needs root, as the tests do). Builds the default preset first.
# Prints a line per fault, then the injection points (call x occurrence) and faults (x errors)
# per call kind, and what was found. Status 0 when nothing was found, 1 otherwise.
# Usage: scripts/fault-loop.sh [--count] [--only check|deploy] [--kind KIND]
#   --count      only count the injection points and faults (the clean runs; a minute)
#   --only S     one scenario: check (the resident duplicate) or deploy (the installed copy)
#   --kind K     one call kind: open read write copy link rename sync mkdir chmod unlink start
#                exec listen
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

scenario='*' kind='*' mode=all
while [ $# -gt 0 ]; do
    case $1 in
        --count) mode=count; shift ;;
        --only) scenario=${2:?--only needs check or deploy}; shift 2 ;;
        --kind) kind=${2:?--kind needs a call kind}; shift 2 ;;
        *) echo "fault-loop.sh: unknown argument \"$1\" (see --help)" >&2; exit 2 ;;
    esac
done
case $scenario in check | deploy | '*') ;; *) echo "fault-loop.sh: --only check or deploy" >&2; exit 2 ;; esac

bash scripts/bootstrap.sh >/dev/null
cmake --preset default >/dev/null
cmake --build --preset default --target agent_fault_tests ravel Tidewater PolicyProbe >/dev/null

# The two scenarios run side by side, each in namespaces of its own.
logs=$(mktemp -d)
pids=()
trap '[ ${#pids[@]} -eq 0 ] || kill "${pids[@]}" 2>/dev/null; rm -rf "$logs"' EXIT
scenarios=$([ "$scenario" = '*' ] && echo check deploy || echo "$scenario")
for s in $scenarios; do
    RAVEL_FAULT_LOOP=$mode build/tests/faults/agent_fault_tests \
        --gtest_filter="Agent/FaultLoop.EachCallFailedInTurn/${s}_${kind}" >"$logs/$s" 2>&1 &
    pids+=($!)
done
# Progress: the lines of each fault as they come, until both runs have ended.
(for p in "${pids[@]}"; do while kill -0 "$p" 2>/dev/null; do sleep 1; done; done) &
tail -q -n +1 -f --pid=$! "$logs"/* 2>/dev/null |
    grep --line-buffered -E '^\[(check|deploy) |^  FINDING' || true
wait "${pids[@]}" || true
pids=()
log=$logs/all
cat "$logs"/check "$logs"/deploy >"$log" 2>/dev/null || true
status=0
grep -q '^\[  FAILED  \]' "$log" && status=1
grep -q '^SUMMARY' "$log" || { echo "fault-loop.sh: no case ran (see --help)" >&2; exit 2; }
echo
awk '/^SUMMARY/ {
    for (i = 2; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
    printf "%-7s %-7s %8s %8s %7s %6s\n", v["scenario"], v["kind"], v["points"], v["faults"],
           v["designed"], v["found"]
    P += v["points"]; F += v["faults"]; D += v["designed"]; N += v["found"]
} BEGIN { printf "%-7s %-7s %8s %8s %7s %6s\n", "run", "calls", "points", "faults", "design", "found" }
END { printf "%-15s %8d %8d %7d %6d\n", "total", P, F, D, N }' "$log"
[ $status -eq 0 ] && echo "nothing found" || echo "FOUND: see the FINDING lines above"
exit $status
