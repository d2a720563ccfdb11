#!/usr/bin/env bash
# Formats every tracked C/C++ file in place with clang-format and the root .clang-format.
# Usage: scripts/format.sh [--check]   (--check: change nothing, fail on any difference)
. "$(dirname "$0")/help.sh" "$@"
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

sources() {
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.cxx' '*.h' '*.hh' '*.hpp'
    else # an unpacked copy: every source outside the build folders
        find . -path './build*' -prune -o -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' \
            -o -name '*.cxx' -o -name '*.h' -o -name '*.hh' -o -name '*.hpp' \) -print0
    fi
}

sources | xargs -0 -r clang-format "${mode[@]}"
