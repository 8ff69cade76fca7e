#!/usr/bin/env bash
# Builds quovix.x and runs its main job on the bundled example: the bond valence sums and
# GII of LiFePO4, then the energy landscape of its mobile Li+ ion as a cube file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target quovix_x >/dev/null
exe="$PWD/build/release/quovix.x"
cd examples
"$exe" --cal-bv LiFePO4.cif
"$exe" --gen-cube LiFePO4.cif Li 1
echo "Landscape of Li+ written to $PWD/LiFePO4.cube"
