#!/usr/bin/env bash
# Builds quovix.x and runs its main job on a structure (default: the bundled example): the bond
# valence sums and GII, then the energy landscape of its mobile Li+ ion as a cube file.
# A CIF that gives no oxidation states first goes through --gen-cif-os, so that the states
# are chosen by bond valence instead of each element's most common one.
# Usage: tools/run-example.sh [structure.cif]   (default examples/LiFePO4.cif)
set -euo pipefail
cd "$(dirname "$0")/.."
cif="$(realpath "${1:-examples/LiFePO4.cif}")"
bash tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target quovix_x >/dev/null
exe="$PWD/build/release/quovix.x"
cd "$(dirname "$cif")"
name="$(basename "$cif")"
# States are given by an _atom_type_oxidation_number loop or by type symbols such as Fe2+.
if ! grep -Eq '_atom_type_oxidation_number|[[:space:]][A-Z][a-z]?[0-9.]*[0-9][+-]([[:space:]]|$)' "$name"; then
    "$exe" --gen-cif-os "$name" "${name%.cif}.os.cif"
    name="${name%.cif}.os.cif"
fi
"$exe" --cal-bv "$name"
"$exe" --gen-cube "$name" Li 1
echo "Landscape of Li+ written to $PWD/${name%.cif}.cube"
