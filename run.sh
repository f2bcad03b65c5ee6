#!/usr/bin/env bash
# On a fresh Debian 12: installs what is missing, builds the release preset, runs the large example.
set -euo pipefail
cd "$(dirname "$0")"
tools/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target kiln-agent
exec build/release/bin/kiln-agent run "${@:-examples/metro.jsonl}"
