#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds everything (warnings are errors) and
# runs every test.
# Usage: scripts/test.sh [default|asan|all]   (default: all = plain build, then sanitizer build)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh

echo "== formatting check"
bash scripts/format.sh --check

run_preset() {
    local preset=$1
    echo "== configure, build and test: $preset"
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    ctest --preset "$preset"
}

case "${1:-all}" in
    default) run_preset default ;;
    asan) run_preset asan ;;
    all)
        run_preset default
        run_preset asan
        ;;
    *)
        echo "usage: $0 [default|asan|all]" >&2
        exit 2
        ;;
esac
