#!/usr/bin/env bash
# Builds the agent and shows what it will do. The full sandbox demo comes with the agent itself.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default
echo "Built build/ravel.app/Contents/MacOS/ravel."
echo "The sandbox demo (deploy, hand over, start the updater with \"auto\") is not wired up yet."
