#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the cross-check scripts need,
# only when something is missing. Runs as root (or through sudo when available).
set -euo pipefail

packages=(cmake g++ make pkg-config clang-format libfftw3-dev libgtest-dev libgmock-dev libbenchmark-dev
          python3 python3-spglib python3-gemmi python3-pymatgen python3-ase python3-numpy
          python3-scipy python3-matplotlib graphviz snakemake
          clang libclang-rt-14-dev libfuzzer-14-dev)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
