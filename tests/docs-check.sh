#!/bin/bash
# The README and the pages under docs/ keep their promises: every link to a file of the project
# leads to one, and every shell block marked "sh run" runs, from a folder that looks like the
# checkout with the default build beside it (outputs land in a scratch copy, never in the
# checkout).
# Usage: docs-check.sh SOURCE_DIR BUILD_DIR
set -u
source=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
failed=0
fail() { echo "FAILED: $*"; failed=1; }

# Links: [text](target) whose target is no URL and no anchor must name an existing file.
for page in "$source"/README.md "$source"/docs/*.md; do
    dir=$(dirname "$page")
    grep -o '\](\([^)#]*\)\(#[^)]*\)\?)' "$page" | sed 's/^](\([^)#]*\).*/\1/' | while read -r target; do
        case $target in http://* | https://* | mailto:* | "") continue ;; esac
        [ -e "$dir/$target" ] || echo "FAILED: ${page#$source/} links to a missing $target"
    done
done | grep . && failed=1

# Shell blocks marked "```sh run", run one by one with bash -e.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for entry in "$source"/*; do ln -s "$entry" "$scratch/$(basename "$entry")"; done
rm -f "$scratch/build" && ln -s "$build" "$scratch/build"
count=0
for page in "$source"/README.md "$source"/docs/*.md; do
    awk -v page="${page#$source/}" -v out="$scratch/.block" '
        /^```sh run$/ { inside = 1; n++; file = out "." n; printf "" > file; next }
        /^```/ && inside { inside = 0; close(file); print file; next }
        inside { print >> file }' "$page" | while read -r block; do
        if ! output=$(cd "$scratch" && bash -e "$block" 2>&1); then
            echo "FAILED: a block of ${page#$source/}:"
            sed 's/^/    /' "$block"
            echo "  said:"
            echo "$output" | tail -20 | sed 's/^/    /'
        fi
        rm -f "$block"
        echo ran >>"$scratch/.count"
    done | grep . && failed=1
done
count=$(wc -l <"$scratch/.count" 2>/dev/null || echo 0)
[ "$count" -gt 0 ] || fail "no \"sh run\" block found"
[ $failed -eq 0 ] && echo "links lead somewhere; $count runnable blocks ran"
exit $failed
