#!/usr/bin/env bash
# Builds quovix.x and runs its main job on the bundled example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target quovix_x >/dev/null
cd examples
../build/release/quovix.x --version
