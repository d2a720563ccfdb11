#!/usr/bin/env bash
# Installs what building, testing and the demo need on a Debian machine.
# Does nothing when every package is already there; without root or sudo, or off Debian, it says
# what is missing and goes on with what is there.
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config
    qt6-base-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libssl-dev       # test oracle for MD5 and triple DES
    libxml2-utils    # xmllint, an independent reader of the settings files in tests
    strace           # makes one system call fail at a time in the fault tests
    procps           # ps, used by the agent's process-table test
    tzdata           # time zones with daylight saving, for the date tests
    faketime         # libfaketime: a fast clock for the tests that wait for days
    iproute2         # ip: loopback up in the tests' private network namespaces
    python3-prometheus-client  # a real parser of ravel-schedule's metrics in tests
    python3 desktop-file-utils  # plistlib and desktop-file-validate read the login entries in tests
    clang-format     # the formatting check in scripts/test.sh
    clang libclang-rt-14-dev   # libFuzzer and its sanitizers, for the fuzz targets
)

# Without Debian's package tools nothing can be checked or installed: say what is needed.
if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "bootstrap: not a Debian machine; the build and the tests need: ${packages[*]}" >&2
    exit 0
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null || ! sudo -n true 2>/dev/null; then
        echo "bootstrap: missing, and this account cannot install them (no root, no sudo):" \
            "${missing[*]}; going on with what is there" >&2
        exit 0
    fi
    sudo="sudo"
fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
