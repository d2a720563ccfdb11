#!/usr/bin/env bash
# Formats every tracked C/C++ file in place with clang-format and the root .clang-format.
# Usage: scripts/format.sh [--check]   (--check: change nothing, fail on any difference)
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(-i)
case "${1:-}" in
    "") ;;
    --check) mode=(--dry-run --Werror) ;;
    *)
        echo "usage: $0 [--check]" >&2
        exit 2
        ;;
esac

git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.cxx' '*.h' '*.hh' '*.hpp' |
    xargs -0 -r clang-format "${mode[@]}"
