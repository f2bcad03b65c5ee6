#!/usr/bin/env bash
# Line and branch coverage of the library by all tests and by simulation: coverage.sh [BUILD-DIRECTORY [SEEDS]]. Needs
# Debian's gcovr, which nothing else does. Branches that only exceptions take, which the compiler adds to every call, are
# not counted. Prints a table and leaves coverage.txt, with the lines that never ran, and coverage.json in the directory.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v gcovr >/dev/null || { echo "coverage: gcovr is missing; on Debian: apt-get install gcovr" >&2; exit 2; }
build=${1:-build/coverage}
seeds=${2:-100}
cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DKILN_COVERAGE=ON \
  -DKILN_YIELD_EVERY_ITEM=ON >/dev/null
cmake --build "$build" --target kiln-tests kiln-sim kiln-agent
find "$build" -name '*.gcda' -delete
"$build/bin/kiln-tests" --gtest_brief=1
"$build/bin/kiln-sim" --seeds "1..$seeds" --steps 500 --marks sim/marks.txt
folders=(platform runtime intake compose program status server)
gcovr -r . --object-directory "$build" "${folders[@]/#/--filter=src/kiln/}" --exclude-throw-branches \
  --exclude-unreachable-branches --json "$build/coverage.json"
gcovr -r . -a "$build/coverage.json" --exclude-throw-branches --txt "$build/coverage.txt" \
  --json-summary "$build/coverage-summary.json"
python3 - "$build/coverage-summary.json" "${folders[@]}" <<'END'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
print("| Folder | Lines | Branches |\n|---|---|---|")
for folder in sys.argv[2:] + ["all"]:
    own = [file for file in files if folder in ("all", file["filename"].split("/")[2])]
    cells = []
    for what in ("line", "branch"):
        covered, total = (sum(file[f"{what}_{of}"] for file in own) for of in ("covered", "total"))
        cells.append(f"{covered} of {total}, {100 * covered / total:.1f} %")
    print(f"| {folder} | {cells[0]} | {cells[1]} |")
END
