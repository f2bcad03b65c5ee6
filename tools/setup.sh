#!/usr/bin/env bash
# Installs, on Debian 12, the packages that building and testing need and that are missing. Idempotent.
set -euo pipefail

packages=(
  g++ cmake ninja-build git
  clang-14 libclang-rt-14-dev llvm-14
  libfmt-dev libboost1.81-dev nlohmann-json3-dev libcli11-dev
  liblmdb-dev libxxhash-dev pkg-config
  libgtest-dev libbenchmark-dev python3 valgrind
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: install as root: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q >/dev/null
"${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
