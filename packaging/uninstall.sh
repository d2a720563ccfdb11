#!/bin/sh
# Removes from this installed folder what ravel's install steps put there (every component, as
# listed in login/installed-files), then the folders that leaves empty, the installed folder
# included. It leaves the product's own files, the data folder and the users' login entries alone:
# first, as each user, run login/register-login.sh --remove, and end the resident agent.
# Usage: uninstall.sh [--dry-run]   (--dry-run: print what would go, change nothing)
# Exit status: 0 done, 1 no record of an install here, 2 bad usage.
case "${1:-}" in
    -h | --help)
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" | sed '/^[^#]*$/!d'
        exit 0 ;;
    --dry-run) run=echo ;;
    "") run="" ;;
    *) echo "usage: $0 [--dry-run]" >&2; exit 2 ;;
esac
here=$(cd "$(dirname "$0")/.." && pwd)
record="$here/login/installed-files"
[ -f "$record" ] || { echo "uninstall.sh: no $record: nothing of ravel's is installed here" >&2; exit 1; }
# Files first (the record itself last), then each listed file's folders, deepest first.
folders=$(mktemp)
trap 'rm -f "$folders"' EXIT
while IFS= read -r file; do
    [ -n "$file" ] || continue
    [ "$file" = login/installed-files ] || $run rm -f "$here/$file"
    dir=$(dirname "$file")
    while [ "$dir" != . ]; do
        echo "$dir" >>"$folders"
        dir=$(dirname "$dir")
    done
done <"$record"
$run rm -f "$record"
sort -u -r "$folders" | while IFS= read -r dir; do
    [ -d "$here/$dir" ] && [ -z "$(ls -A "$here/$dir")" ] && $run rmdir "$here/$dir"
done
[ -n "$run" ] || [ -n "$(ls -A "$here")" ] || rmdir "$here"
exit 0
