#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds everything (warnings are errors) and
# runs every test.
# Usage: scripts/test.sh [default|per-user|asan|fuzz|all]
#   all (the default): plain build (the shared profile), the per-user profile's build, sanitizer
#   build, then the fuzz smoke run
#   per-user: the build of the per-user profile (RAVEL_PROFILE=per-user) and its tests
#   fuzz: every fuzz target over its seed corpus, then FUZZ_SECONDS (20) s of fuzzing each
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh

echo "== formatting check"
bash scripts/format.sh --check

# Stands in for an agent live on this machine: a listener on its port, outside the tests'
# namespaces. The tests must neither reach it nor be stopped by it; it notes each connection.
holder_log=$(mktemp)
holder=""
end_holder() {
    if [ -n "$holder" ]; then kill "$holder" 2>/dev/null || true; fi
    rm -f "$holder_log"
}
trap end_holder EXIT
if sh tests/isolated.sh "$PWD" -- true 2>/dev/null; then
    perl -MIO::Socket::INET -e '$| = 1;
        my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1:31334", Listen => 5, ReuseAddr => 1)
            or exit 3;
        print "listening\n";
        while (my $c = $s->accept) { print "connection\n"; close $c }' >"$holder_log" &
    holder=$!
    while kill -0 "$holder" 2>/dev/null && ! grep -q listening "$holder_log"; do sleep 0.1; done
    if grep -q listening "$holder_log"; then
        echo "== a listener on 127.0.0.1:31334 (PID $holder) stands in for an agent on this machine"
    else
        echo "== 127.0.0.1:31334 is in use on this machine already: the tests run beside it"
        holder=""
    fi
else
    echo "== no private namespaces here: tests that use the agent's port run one at a time"
fi
check_holder() {
    if grep -q connection "$holder_log"; then
        echo "FAILED: a test reached 127.0.0.1:31334 outside its namespaces" >&2
        exit 1
    fi
    if [ -n "$holder" ] && ! kill -0 "$holder" 2>/dev/null; then
        echo "FAILED: the listener on 127.0.0.1:31334 outside the tests has gone" >&2
        exit 1
    fi
}

run_preset() {
    local preset=$1
    echo "== configure, build and test: $preset"
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    ctest --preset "$preset"
    check_holder
}

fuzz_smoke() {
    echo "== fuzz targets: seed corpora, then ${FUZZ_SECONDS:-20} s each"
    bash scripts/fuzz.sh "${FUZZ_SECONDS:-20}"
}

case "${1:-all}" in
    default) run_preset default ;;
    per-user) run_preset per-user ;;
    asan) run_preset asan ;;
    fuzz) fuzz_smoke ;;
    all)
        run_preset default
        run_preset per-user
        run_preset asan
        fuzz_smoke
        ;;
    *)
        echo "usage: $0 [default|per-user|asan|fuzz|all]" >&2
        exit 2
        ;;
esac
