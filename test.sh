#!/usr/bin/env bash
# On a fresh Debian 12: installs what is missing, checks that headers and sources compile by themselves, builds and runs
# all tests with the asan preset, those of the variant with ordered collections with the ordered preset, and with the
# release preset what holds the cost of an entry against its record, and the exploration of small scenarios. With --fuzz
# also the fuzz targets.
set -euo pipefail
cd "$(dirname "$0")"
tools/setup.sh
jobs="$(nproc)"
tools/check-alone.py --jobs "$jobs"
cmake --preset ordered >/dev/null
cmake --build --preset ordered
ctest --preset ordered -j "$jobs"
cmake --preset asan >/dev/null
cmake --build --preset asan
ctest --preset asan --output-on-failure -j "$jobs"
cmake --preset release >/dev/null
cmake --build --preset release --target kiln-workload kiln-sim
ctest --preset guard
ctest --preset explore -j "$jobs"
if [ "${1:-}" = --fuzz ]; then
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz
  ctest --preset fuzz -j "$jobs"
fi
