#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Usage: scripts/test.sh [default|asan|fuzz|all]
#   all (the default): plain build, sanitizer build, then the fuzz smoke run
#   fuzz: every fuzz target over its seed corpus, then FUZZ_SECONDS (20) s of fuzzing each
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh

run_preset() {
    local preset=$1
    echo "== configure, build and test: $preset"
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    ctest --preset "$preset"
}

fuzz_smoke() {
    echo "== fuzz targets: seed corpora, then ${FUZZ_SECONDS:-20} s each"
    bash scripts/fuzz.sh "${FUZZ_SECONDS:-20}"
}

case "${1:-all}" in
    default) run_preset default ;;
    asan) run_preset asan ;;
    fuzz) fuzz_smoke ;;
    all)
        run_preset default
        run_preset asan
        fuzz_smoke
        ;;
    *)
        echo "usage: $0 [default|asan|fuzz|all]" >&2
        exit 2
        ;;
esac
