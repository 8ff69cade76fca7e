#!/usr/bin/env bash
# Builds the project and runs every test (unit, end-to-end, scripts).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --workflow --preset test
