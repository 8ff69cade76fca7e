#!/usr/bin/env bash
# Builds the project and runs every test (unit, end-to-end, scripts), then the fuzzing targets
# over their corpus and a short bounded campaign each (clang, sanitizers).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --workflow --preset test
cmake --workflow --preset fuzz
