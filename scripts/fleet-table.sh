#!/usr/bin/env bash
# Reruns the fleet simulations behind README's "Choosing settings for a fleet": rewrites the
# table between its markers in README.md and the picture docs/fleet-defaults-vs-spread.svg.
# Usage: scripts/fleet-table.sh [--speed]   (--speed also times 1,000,000 desktops)
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh
cmake --preset bench >/dev/null
cmake --build --preset bench --target ravel-fleet >/dev/null
fleet=build-bench/ravel-fleet/ravel-fleet
fleet_size=(--agents 100000 --days 14)

# label|options
rows=(
    "defaults (AutoCheckNow 1)|"
    "AutoCheckNow 0, TimeRandomRange 720|--auto-check-now 0 --range 720"
    "AutoCheckNow 0, TimeRandomRange 240|--auto-check-now 0 --range 240"
    "AutoCheckNow 0, TimeRandomRange 720, \`--synced\`|--auto-check-now 0 --range 720 --synced"
    "defaults, \`--synced\`|--synced"
)

# What-if: the same settings with a generator seed of each agent's own.
seed_rows=(
    "AutoCheckNow 0, TimeRandomRange 240, \`--unique-seeds\`|--auto-check-now 0 --range 240 --unique-seeds"
    "AutoCheckNow 0, TimeRandomRange 720, \`--synced --unique-seeds\`|--auto-check-now 0 --range 720 --synced --unique-seeds"
)

field() { # KEY JSON
    sed -E "s/.*\"$1\":([0-9.]+).*/\1/" <<<"$2"
}

table() { # ROW...
    echo "| settings (100,000 desktops, 14 days) | peak per minute | peak per second | peak ÷ mean | share in the login hour (08:00–09:10) |"
    echo "|---|---:|---:|---:|---:|"
    for row in "$@"; do
        local label=${row%%|*} options=${row#*|} json
        # shellcheck disable=SC2086 # the options are words
        json=$("$fleet" "${fleet_size[@]}" $options --json)
        printf '| %s | %s | %s | %.1f | %.0f%% |\n' "$label" "$(field peak_per_minute "$json")" \
            "$(field peak_per_second "$json")" "$(field peak_to_mean "$json")" \
            "$(awk "BEGIN { print $(field login_window_share "$json") * 100 }")"
    done
}

replace_block() { # NAME TEXT: the lines between <!-- NAME:begin --> and <!-- NAME:end -->
    awk -v name="$1" -v text="$2" '
        $0 == "<!-- " name ":end -->" { print text; skipping = 0 }
        !skipping { print }
        $0 == "<!-- " name ":begin -->" { skipping = 1 }
    ' README.md >README.md.new
    mv README.md.new README.md
}

settings_table=$(table "${rows[@]}")
seeds_table=$(table "${seed_rows[@]}")
printf '%s\n\n%s\n' "$settings_table" "$seeds_table"
replace_block fleet-table "$settings_table"
replace_block fleet-seeds "$seeds_table"

spread_csv=$(mktemp)
trap 'rm -f "$spread_csv"' EXIT
mkdir -p docs
"$fleet" "${fleet_size[@]}" --auto-check-now 0 --range 240 --csv "$spread_csv" >/dev/null
"$fleet" "${fleet_size[@]}" --svg docs/fleet-defaults-vs-spread.svg --overlay "$spread_csv" \
    --overlay-label "AutoCheckNow 0, TimeRandomRange 240" >/dev/null
echo "wrote the tables into README.md and docs/fleet-defaults-vs-spread.svg"

if [ "${1:-}" = "--speed" ]; then
    echo "1,000,000 desktops over 14 days on $(nproc) cores:"
    TIMEFORMAT="%R s elapsed, %U s user"
    time "$fleet" --agents 1000000 --days 14 >/dev/null
fi
