#!/usr/bin/env bash
# Draws the picture of "Running a fleet": DESKTOPS real agents (40 by default) each live Monday
# 2024-01-01 on a clock 600 times faster than real time, each in private namespaces: login between
# 08:00 and 09:00, logout between 17:00 and 18:00, a one-day cycle last run at a moment of the day
# before, AutoCheckNow 0 over 240 minutes, a check every 5 minutes. `ravel-fleet observe` reads
# their logs, and a simulation of as many desktops with the same settings is drawn over them.
# Needs root (the namespaces). Takes about a minute of real time per ten desktops.
# Usage: scripts/fleet-observed.sh [DESKTOPS] [SVG]   (SVG: docs/fleet-observed-vs-simulated.svg)
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

desktops=${1:-40}
svg=${2:-docs/fleet-observed-vs-simulated.svg}
case $desktops in
    '' | *[!0-9]* | 0) echo "fleet-observed.sh: DESKTOPS must be a positive number, not \"$desktops\"" >&2; exit 2 ;;
esac
parallel=10 # desktops alive at once

bash scripts/bootstrap.sh >/dev/null
cmake --preset default >/dev/null
cmake --build --preset default --target ravel Tidewater ravel-fleet >/dev/null
fleet=$repo/build/ravel-fleet/ravel-fleet

work=$(mktemp -d "$repo/build/fleet-observed.XXXXXX")
trap '[ "${KEEP:-0}" = 1 ] || rm -rf "$work"' EXIT
mkdir "$work/logs"

# A settings file as the product writes them (see scripts/demo.sh).
settings() { # settings FILE SECTION KEY VALUE [SECTION KEY VALUE ...]
    local file=$1 section=""
    shift
    {
        printf '\xEF\xBB\xBF<?xml version="1.0" encoding="utf-8"?>\r\n<root>\r\n'
        while [ $# -ge 3 ]; do
            if [ "$1" != "$section" ]; then
                [ -z "$section" ] || printf '</%s>\r\n' "$section"
                section=$1
                printf '<%s>\r\n' "$section"
            fi
            printf '<%s>%s</%s>\r\n' "$2" "$3" "$2"
            shift 3
        done
        [ -z "$section" ] || printf '</%s>\r\n' "$section"
        printf '</root>\r\n'
    } >"$file"
}

# One desktop's installed product and data folder, its last launch at LAST (epoch seconds).
lay_out() { # lay_out FOLDER LAST
    local inst=$1/installed data=$1/data
    mkdir -p "$inst/ravel.app/Contents/MacOS" "$inst/Tidewater.app/Contents/MacOS" \
        "$inst/Brightwell Data" "$data/Brightwell"
    cp build/ravel.app/Contents/MacOS/ravel "$inst/ravel.app/Contents/MacOS/"
    cp build/examples/tidewater/Tidewater.app/Contents/MacOS/Tidewater \
        "$inst/Tidewater.app/Contents/MacOS/"
    settings "$inst/Tidewater.dat" DupInfo DuplicatePath "$data/" \
        UpdateSetting TimerMinutes 5 UpdateSetting AutoCheckNow 0 \
        UpdateSetting TimeRandomRange 240 LOG LogSwitch 1
    printf '\xEF\xBB\xBF<?xml version="1.0" encoding="utf-8"?>\r\n<root>\r\n<components>\r\n<component><main>1</main><displayname>Acme Product</displayname><name>acme</name></component>\r\n</components>\r\n</root>\r\n' \
        >"$inst/UpdateInfo.dat"
    printf '<?xml version="1.0"?>\r\n<item value="1.0"/>\r\n' >"$inst/Brightwell Data/Config.xml"
    settings "$data/Brightwell/UserInfo.dat" \
        UpdateStrategy Strategy cycle UpdateStrategy UpdateCycle 1 \
        UpdateRecord LastLaunchTime "$(date -u -d "@$2" '+%Y-%m-%d %H:%M:%S')" \
        UpdateInfo LastStatus ready DelayInfo DelayTimes 1 DelayInfo DelayTime 0
}

# Runs inside the namespaces, under the fast clock: the login starts the installed copy; at the
# logout the session's end reaches the resident copy (SIGTERM, by its PID).
# shellcheck disable=SC2016 # expanded by the inner shell
session='
    folder=$1 logout=$2
    "$folder/installed/ravel.app/Contents/MacOS/ravel" 2>>"$folder/stderr.txt" || true
    while [ "$(date +%s)" -lt "$logout" ]; do sleep 300; done
    resident="$folder/data/Brightwell/ravel.app/Contents/MacOS/ravel"
    for entry in /proc/[0-9]*; do
        if [ "$(tr "\0" "\n" 2>/dev/null <"$entry/cmdline" | head -n 1)" = "$resident" ]; then
            kill -TERM "${entry#/proc/}" 2>/dev/null || true
        fi
    done
    sleep 60'

monday=$(date -u -d '2024-01-01 00:00:00' +%s)
one_desktop() { # one_desktop NUMBER
    local folder=$work/desk-$1
    local login=$((monday + 8 * 3600 + RANDOM % 3600))
    local logout=$((monday + 17 * 3600 + RANDOM % 3600))
    lay_out "$folder" $((monday - 86400 + (RANDOM * 3 + RANDOM % 3) % 86400))
    local shift=$((login - $(date +%s)))
    [ $shift -lt 0 ] || shift=+$shift
    TZ=UTC sh tests/isolated.sh "$repo" -- \
        faketime -f "${shift}s x600" bash -c "$session" session "$folder" "$logout"
    cp "$folder/data/log/ravel.log" "$work/logs/desk-$1.log"
}

echo "== $desktops desktops live Monday 2024-01-01, $parallel at a time (a day is about a minute)"
started=0
while [ $started -lt "$desktops" ]; do
    batch=()
    for _ in $(seq 1 $parallel); do
        [ $started -lt "$desktops" ] || break
        started=$((started + 1))
        one_desktop $started &
        batch+=($!)
    done
    wait "${batch[@]}"
    echo "   $started of $desktops desktops done"
done

"$fleet" --agents "$desktops" --days 1 --auto-check-now 0 --range 240 --timer 5 \
    --csv "$work/simulated.csv" >/dev/null
TZ=UTC "$fleet" observe "$work/logs" --svg "$svg" --overlay "$work/simulated.csv" \
    --overlay-label "simulated: $desktops desktops, same settings"
echo "== the picture: $svg"
