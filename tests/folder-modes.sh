#!/bin/sh
# Records the modes of the system folders the agent could widen, or checks that none changed.
# Usage: folder-modes.sh record|check FILE   (check: exits 1 and shows recorded against now)
modes() { stat -c '%n %a' / /usr /usr/local /tmp; }
case $1 in
record) modes >"$2" ;;
check) modes | diff -U0 --label recorded --label now "$2" - ;;
*) echo "usage: $0 record|check FILE" >&2 && exit 2 ;;
esac
