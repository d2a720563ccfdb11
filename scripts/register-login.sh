#!/bin/sh
# Starts ravel with the user's session, or stops doing so: puts the login entry that the install
# step filled (INSTALLED/login/<label>.desktop or .plist) where the session looks for it.
#   Linux: ${XDG_CONFIG_HOME:-~/.config}/autostart/<label>.desktop
#   macOS: ~/Library/LaunchAgents/<label>.plist, loaded with launchctl for this login session
# Usage: register-login.sh [--remove] [--allow-root] [INSTALLED]
#   INSTALLED is the installed folder (the one holding ravel.app); by default the folder above
#   this script, which is installed as INSTALLED/login/register-login.sh.
#   --allow-root  register (or remove) for root all the same; without it, root is refused
# Run it as the user whose session is meant, never as root: the agent must not run as root.
# Running it again changes nothing.
# Exit status: 0 done (or nothing to do), 1 refused as root, bad installed folder or a failed
# step, 2 bad usage.
case "${1:-}" in -h | --help) # installed alone: its own help
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" | sed '/^[^#]*$/!d' | sed -n '/./,$p'
    exit 0 ;;
esac
set -eu

me=register-login.sh
fail() {
    echo "$me: $*" >&2
    exit 1
}
usage() {
    echo "usage: $me [--remove] [--allow-root] [INSTALLED]" >&2
    exit 2
}

remove=0
allow_root=0
installed=""
for arg in "$@"; do
    case "$arg" in
    --remove) remove=1 ;;
    --allow-root) allow_root=1 ;;
    -*) usage ;;
    *) [ -z "$installed" ] || usage; installed=$arg ;;
    esac
done
[ -n "$installed" ] || installed=$(dirname "$0")/..
# An entry in root's session would start the agent as root, which it must never be.
if [ "$(id -u)" -eq 0 ] && [ $allow_root -eq 0 ]; then
    fail "refusing to run as root: run it as the user whose session should start the agent" \
        "(--allow-root registers for root all the same)"
fi

case "$(uname -s)" in
Darwin) kind=plist ;;
*) kind=desktop ;;
esac

# The installed folder: an executable agent and exactly one filled entry of this platform's kind.
[ -d "$installed" ] || fail "no installed folder at $installed"
installed=$(cd "$installed" && pwd)
[ -x "$installed/ravel.app/Contents/MacOS/ravel" ] ||
    fail "$installed is not an installed ravel folder: no ravel.app/Contents/MacOS/ravel"
set -- "$installed"/login/*."$kind"
[ -f "$1" ] || fail "$installed is not an installed ravel folder: no login/*.$kind"
[ $# -eq 1 ] || fail "$installed has $# login/*.$kind entries; expected one"
entry=$1
label=$(basename "$entry" ".$kind")

# Copies the entry to $target through a temporary file, so the session never reads half of it.
put() {
    if ! { mkdir -p "$(dirname "$target")" && cp "$entry" "$target.tmp" &&
        chmod 644 "$target.tmp" && mv -f "$target.tmp" "$target"; }; then
        fail "could not write $target"
    fi
    echo "$me: registered $target"
}
take_away() {
    if [ -e "$target" ]; then
        rm -f "$target"
        echo "$me: removed $target"
    else
        echo "$me: not registered: $target"
    fi
}

if [ "$kind" = desktop ]; then
    target=${XDG_CONFIG_HOME:-$HOME/.config}/autostart/$label.desktop
    if [ $remove -eq 1 ]; then take_away; else put; fi
    exit 0
fi

# macOS: launchd reads the list at login; bootstrap also loads the job into this session now
# (which starts the agent, as a login would). A job already loaded under the label is booted out
# first, so that a second run leaves one job, loaded from the current file.
domain=gui/$(id -u)
target=$HOME/Library/LaunchAgents/$label.plist
launchctl bootout "$domain/$label" 2>/dev/null || true
if [ $remove -eq 1 ]; then
    take_away
else
    put
    launchctl bootstrap "$domain" "$target" || fail "launchctl bootstrap $domain $target failed"
fi
