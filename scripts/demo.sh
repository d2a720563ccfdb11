#!/usr/bin/env bash
# The agent's main job, in a sandbox folder: an installed product is laid out, the installed
# copy of ravel is started as a login would start it, it deploys itself into the product's data
# folder and hands over to that duplicate, which finds the updater due and starts it with "auto".
# Set KEEP=1 to keep the sandbox folder afterwards.
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
note() { printf '   %s\n' "$*"; }

# Whether something listens on 127.0.0.1:31334, without connecting (a connection would end a
# running agent).
port_taken() {
    local table
    for table in /proc/net/tcp /proc/net/tcp6; do
        [ -r "$table" ] || continue
        # Local port 31334 is 7A66; state 0A is LISTEN.
        if awk 'NR > 1 && $2 ~ /:7A66$/ && $4 == "0A" { found = 1 } END { exit !found }' "$table"; then
            return 0
        fi
    done
    return 1
}

# PID of the process whose command starts with the given executable path, or nothing. The path
# goes through the environment: on a command line it would make the agent's own process-table
# test count this look-up as a second agent.
pid_of() {
    ps -ww -eo pid=,args= | EXE="$1" awk 'BEGIN { exe = ENVIRON["EXE"] } { line = $0; sub(/^ *[0-9]+ /, "", line) }
        !found && index(line, exe) == 1 && (length(line) == length(exe) || substr(line, length(exe) + 1, 1) == " ") { print $1; found = 1 }'
}

alive() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null && [ "$(ps -o stat= -p "$1" | cut -c1)" != "Z" ]; }

wait_for() {  # wait_for SECONDS COMMAND...
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.2
    done
}

if port_taken; then
    echo "Port 31334 on 127.0.0.1 is already in use (another ravel agent, or something else)."
    echo "The demo needs that port for its own agent; stop whatever holds it and run again."
    exit 1
fi

say "Building (default preset)"
bash scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target ravel Tidewater PolicyProbe
build=$repo/build

place=$(mktemp -d "${TMPDIR:-/tmp}/ravel-demo.XXXXXX")
inst=$place/installed
data=$place/data
dup=$data/Brightwell
dup_exe=$dup/ravel.app/Contents/MacOS/ravel
dup_pid=""

cleanup() {
    if alive "$dup_pid"; then
        kill "$dup_pid" 2>/dev/null || true
    fi
    if [ "${KEEP:-0}" = "1" ]; then
        echo
        echo "Kept the sandbox: $place"
    else
        rm -rf "$place"
    fi
}
trap cleanup EXIT

# A settings file as the product writes them: UTF-8 mark, declaration, root, sections, keys.
# Keys of one section are given one after the other.
settings() {  # settings FILE SECTION KEY VALUE [SECTION KEY VALUE ...]
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

say "1. An installed product in $inst"
mkdir -p "$inst/ravel.app/Contents/MacOS" "$inst/Tidewater.app/Contents/MacOS" \
    "$inst/Brightwell Data" "$inst/UpdateInfo" "$dup"
cp "$build/ravel.app/Contents/MacOS/ravel" "$inst/ravel.app/Contents/MacOS/ravel"
cp "$build/examples/tidewater/Tidewater.app/Contents/MacOS/Tidewater" \
    "$inst/Tidewater.app/Contents/MacOS/Tidewater"
cp "$build/examples/policy-probe/libPolicyProbe.dylib" "$inst/"
echo "a shared library" >"$inst/libcompress.dylib"
echo "another shared library" >"$inst/libnetwork.dylib"
echo "not a .dylib: stays behind" >"$inst/libnotes.so"
settings "$inst/Tidewater.dat" \
    DupInfo DuplicatePath "$data/" \
    UpdateSetting TimerMinutes 60 \
    UpdateSetting AutoCheckNow 1 \
    LOG LogSwitch 1
printf '\xEF\xBB\xBF<?xml version="1.0" encoding="utf-8"?>\r\n<root>\r\n<components>\r\n<component><main>1</main><displayname>Demo Product</displayname><name>demo</name></component>\r\n</components>\r\n</root>\r\n' \
    >"$inst/UpdateInfo.dat"
printf '<?xml version="1.0"?>\r\n<item value="1.0"/>\r\n' >"$inst/Brightwell Data/Config.xml"
echo "product data" >"$inst/Brightwell Data/rules.txt"
echo "component notes" >"$inst/UpdateInfo/components.txt"
# The user's schedule: a one-day cycle whose last run was long ago, so the updater is due.
settings "$dup/UserInfo.dat" \
    UpdateStrategy Strategy cycle \
    UpdateStrategy UpdateCycle 1 \
    UpdateRecord LastLaunchTime "2001-01-01 00:00:00" \
    UpdateInfo LastStatus ready \
    DelayInfo DelayTimes 1
(cd "$inst" && find . -mindepth 1 | sort | sed 's/^\.\//   /')
note "Tidewater.dat points the data folder at $data/ (\"DupInfo\"/\"DuplicatePath\")."
note "UserInfo.dat in $dup says the last update ran on 2001-01-01: a check is due."

say "2. Starting the installed copy as a login would: no argument"
set +e
"$inst/ravel.app/Contents/MacOS/ravel" 2>"$place/installed-stderr.txt"
status=$?
set -e
note "installed copy exited with status $status (0: deployed and handed over)"

say "3. What it deployed into the duplicate folder $dup"
(cd "$dup" && find . -maxdepth 1 -mindepth 1 | sort | sed 's/^\.\//   /')
note "lib*.dylib files came along; libnotes.so did not."

say "4. The resident duplicate"
if ! wait_for 30 test -n "$(pid_of "$dup_exe")"; then
    echo "No duplicate appeared. The log says:"
    cat "$data/log/ravel.log"
    exit 1
fi
dup_pid=$(pid_of "$dup_exe")
note "PID $dup_pid, started as:"
note "  $(ps -ww -o args= -p "$dup_pid")"
note "(its one argument is the installed folder it was deployed from)"

say "5. The updater, started by the duplicate"
wait_for 30 test -s "$inst/Tidewater.args" || { echo "the updater did not run"; exit 1; }
note "Tidewater.args (the stand-in updater records its arguments there): $(cat "$inst/Tidewater.args")"
note "UserInfo.dat, as the updater left it:"
tr -d '\r' <"$dup/UserInfo.dat" | grep -E 'LastLaunchTime|LastStatus' | sed 's/^/     /'

say "6. The strategy plug-in"
wait_for 30 grep -q 'Leave InitAgent()' "$data/log/ravel.log" || true
if [ -f "$dup/PolicyProbe.trace" ]; then
    note "libPolicyProbe.dylib was loaded and initialised: $(cat "$dup/PolicyProbe.trace")"
else
    note "the plug-in left no trace"
fi

say "7. Ending the duplicate through its port (a connection to 127.0.0.1:31334)"
exec 3<>/dev/tcp/127.0.0.1/31334
exec 3>&-
if wait_for 30 bash -c "! kill -0 $dup_pid 2>/dev/null || [ \"\$(ps -o stat= -p $dup_pid | cut -c1)\" = Z ]"; then
    note "PID $dup_pid is gone."
else
    echo "the duplicate did not end"
    exit 1
fi

say "8. The log: $data/log/ravel.log"
note "One block per process: the installed copy (deploy, hand over), then the duplicate (check,"
note "launch, plug-in, and its end when the port was connected to)."
sed 's/^/   /' "$data/log/ravel.log"

left=$(pid_of "$dup_exe")$(pid_of "$inst/ravel.app/Contents/MacOS/ravel")
if [ -n "$left" ]; then
    echo "left behind: $left"
    exit 1
fi
say "Done: no agent process left behind."
