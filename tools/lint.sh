#!/usr/bin/env bash
# Checks formatting and runs clang-tidy over the sources; needs clang-format and clang-tidy (Debian's packages).
# Arguments: the files to check; all sources if there are none.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t all < <(git ls-files '*.h' '*.cpp')
clang-format --dry-run --Werror "${all[@]}"
if [ $# -gt 0 ]; then sources=("$@"); else mapfile -t sources < <(git ls-files '*.cpp' ':!tests' ':!bench'); fi
# Without the build's precompiled headers, which are g++'s.
cmake --preset debug -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DKILN_BUILD_ORDERED=OFF >/dev/null
printf '%s\n' "${sources[@]}" | xargs -P "$(nproc)" -n 1 clang-tidy -p build/lint --quiet \
  --extra-arg=-Wno-unknown-warning-option
