#!/usr/bin/env bash
# Builds the benchmarks (the "bench" preset, Release), runs every bench program with
# repetitions and prints one table: each figure, ravel beside its peer, the ratio of the medians
# and the target. Usage: scripts/bench.sh [repetitions]   (default 5)
# In-process figures are CPU time; figures with child processes (rsync) are wall-clock time.
# Every program runs in private network, mount and process namespaces (own loopback, private /tmp,
# /usr overlaid), so the agent's port and fixed places on this machine are never touched.
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."
repetitions=${1:-5}
case "$repetitions" in '' | *[!0-9]* | 0)
    echo "usage: $0 [repetitions]   (a whole number from 1; default 5)" >&2
    exit 2
    ;;
esac

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi

bash scripts/bootstrap.sh
# The peers, the namespaces and the table.
packages=(libpugixml-dev libtinyxml2-dev libssl-dev rsync util-linux iproute2 python3 dpkg-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "bench: installing ${missing[*]}"
    $sudo apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        -o DPkg::Lock::Timeout=600 "${missing[@]}"
fi

cmake --preset bench >/dev/null
cmake --build --preset bench

# Outside /tmp, which each program gets a private one of. The refresh trees are kept on disk,
# as an installed product is.
results="$PWD/build-bench/bench-results"
scratch="$PWD/build-bench/bench-scratch"
trap 'rm -rf "$scratch"' EXIT
rm -rf "$results" "$scratch"
mkdir -p "$results" "$scratch"

# The tests' namespaces (tests/isolated.sh), with this checkout kept reachable under any /tmp.
run_isolated() {
    $sudo sh tests/isolated.sh "$PWD" -- "$@"
}

# run PROGRAM OUT [ENV...]: one bench program, its figures as JSON in OUT.
run() {
    local program=$1 out=$2
    shift 2
    run_isolated env "$@" "$program" \
        --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
        --benchmark_out="$out" --benchmark_out_format=json >&2
}
for program in build-bench/bench/*_bench; do
    [ -x "$program" ] || continue
    name=$(basename "$program")
    echo "== $name" >&2
    tmpdir=/tmp
    [ "$name" = refresh_bench ] && tmpdir="$scratch"
    run "$program" "$results/$name.json" TMPDIR="$tmpdir"
    # The parse figures depend on the allocator's state: once more as a fresh process finds it.
    if [ "$name" = markup_bench ]; then
        echo "== $name, the allocator as a process finds it" >&2
        run "$program" "$results/$name.default-allocator.json" RAVEL_BENCH_ALLOCATOR=default
    fi
done

# What each side was built with: ravel here, the peers by Debian.
cache=build-bench/CMakeCache.txt
flag() { sed -n "s/^$1:[A-Z]*=//p" "$cache"; }
echo
echo "Built with: ravel by $("$(flag CMAKE_CXX_COMPILER)" --version | head -1)," \
    "flags \"$(flag CMAKE_CXX_FLAGS) $(flag CMAKE_CXX_FLAGS_RELEASE)\" (CMake's Release);" \
    "the peers are Debian's builds ($(dpkg-query -W -f='${Package} ${Version}, ' libpugixml1v5 \
        libtinyxml2-9 libssl3 2>/dev/null | sed 's/, $//')), made with Debian's flags" \
    "\"$(dpkg-buildflags --get CXXFLAGS 2>/dev/null | sed 's/ -ffile-prefix-map=[^ ]*//')\"."

echo
echo "Taken on $(nproc) cores, $(lscpu | sed -n 's/^Model name: *//p' | head -1), $(date -u '+%Y-%m-%d %H:%M UTC'), load average $(cut -d' ' -f1-3 /proc/loadavg)."
echo
python3 - "$results" "$repetitions" <<'PY'
import glob, json, os, re, sys

# figure: (peer, kind, limit). kind "ratio": ravel / peer at most limit; "time": ravel's time
# at most limit nanoseconds; None: reported only.
TARGETS = {
    "setdoc-400B": ("pugixml", "ratio", 1.0),
    "setdoc-1MiB": ("pugixml", "ratio", 1.0),
    "setdoc-deep100k": ("pugixml", "ratio", 1.0),
    "add-10k": ("pugixml", "ratio", 1.5),
    "GetConfigure": ("pugixml", "time", 10e3),
    "check-no-launch": (None, "time", 150e3),
    "md5-1MiB": ("openssl", "ratio", 1.0),
    "refresh-unchanged": ("rsync", "ratio", 0.7),
    "refresh-10pc-changed": ("rsync", "ratio", 1.0),
}
SCALE = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}

def fmt_time(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"

medians = {}  # figure -> impl -> (value, text)
order = []
for path in sorted(glob.glob(os.path.join(sys.argv[1], "*.json"))):
    # The markup figures run twice: with the allocator settled first, and as a process finds it.
    state = ""
    if os.path.basename(path).startswith("markup_bench"):
        state = ", default allocator" if "default-allocator" in path else ", allocator settled"
    for b in json.load(open(path))["benchmarks"]:
        # One repetition gives no aggregates: its single run stands for the median.
        wanted = b.get("aggregate_name") == "median" if int(sys.argv[2]) > 1 else b.get("run_type") == "iteration"
        if not wanted or b.get("error_occurred"):
            continue
        # Google Benchmark appends its options ("/iterations:1", "/real_time") to the name.
        name = re.sub(r"(/(iterations:\d+|real_time|manual_time))+$", "", b["run_name"])
        figure, _, impl = name.rpartition("/")
        figure += state
        if "KiB" in b:
            value, text = b["KiB"], f"{b['KiB'] / 1024:.1f} MiB"
        elif "us" in b:
            value, text = b["us"], f"{b['us']:.0f} µs CPU"
        else:
            wall = b["run_name"].endswith("/real_time")
            value = b["real_time" if wall else "cpu_time"] * SCALE[b["time_unit"]]
            text = fmt_time(value) + (" wall" if wall else "")
        if figure not in medians:
            medians[figure] = {}
            order.append(figure)
        medians[figure][impl] = (value, text)

rows = [("figure", "ravel", "peer", "ravel ÷ peer", "target")]
for figure in order:
    impls = medians[figure]
    ours = impls.get("ravel")
    peers = [i for i in impls if i != "ravel"] or [None]
    peer_name, kind, limit = TARGETS.get(figure.split(",")[0], (None, None, None))
    for peer in peers:
        ratio = ours[0] / impls[peer][0] if ours and peer and impls[peer][0] else None
        target = ""
        if kind == "ratio" and peer == peer_name:
            target = f"≤ {limit:g}× {peer}: " + ("met" if ratio is not None and ratio <= limit else "MISSED")
        elif kind == "time" and peer in (peer_name, None) and peer == peers[0]:
            target = f"≤ {fmt_time(limit)}: " + ("met" if ours and ours[0] <= limit else "MISSED")
        rows.append((figure,
                     ours[1] if ours else "–",
                     f"{impls[peer][1]} ({peer})" if peer else "–",
                     f"{ratio:.2f}" if ratio is not None else "–",
                     target or "–"))

widths = [max(len(r[i]) for r in rows) for i in range(5)]
for n, row in enumerate(rows):
    print("| " + " | ".join(c.ljust(w) for c, w in zip(row, widths)) + " |")
    if n == 0:
        print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
PY
