#!/usr/bin/env bash
# On a fresh Debian 12: installs what is missing, builds and runs all tests with the debug and the asan preset,
# the fuzz targets with the fuzz preset, and what holds the cost of an entry against its record with the release preset.
set -euo pipefail
cd "$(dirname "$0")"
tools/setup.sh
for preset in debug asan fuzz; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" --output-on-failure -j "$(nproc)"
done
cmake --preset release >/dev/null
cmake --build --preset release --target kiln-workload
ctest --preset guard
