#!/usr/bin/env bash
# Line and branch coverage of the library by all tests and by simulation: coverage.sh [BUILD-DIRECTORY [SEEDS]]. Needs
# Debian's gcovr. Branches that only exceptions take, which the compiler adds to every call, are not counted.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/coverage}
seeds=${2:-300}
cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DKILN_COVERAGE=ON \
  -DKILN_YIELD_EVERY_ITEM=ON >/dev/null
cmake --build "$build" --target kiln-tests kiln-sim kiln-agent
find "$build" -name '*.gcda' -delete
"$build/bin/kiln-tests" --gtest_brief=1
"$build/bin/kiln-sim" --seeds "1..$seeds" --steps 500 --marks sim/marks.txt
folders=(platform runtime intake compose program status server)
gcovr -r . --object-directory "$build" "${folders[@]/#/--filter=}" --exclude-throw-branches \
  --exclude-unreachable-branches --json "$build/coverage.json"
for folder in "${folders[@]}" .; do
  summary=$(gcovr -r . -a "$build/coverage.json" --filter "$folder/" --exclude-throw-branches --json-summary -)
  python3 - "$folder" "$summary" <<'END'
import json, sys
s = json.loads(sys.argv[2])
print(f"| {'all' if sys.argv[1] == '.' else sys.argv[1]} | {s['line_covered']} of {s['line_total']}, {s['line_percent']} % "
      f"| {s['branch_covered']} of {s['branch_total']}, {s['branch_percent']} % |")
END
done
gcovr -r . -a "$build/coverage.json" --exclude-throw-branches --txt "$build/coverage.txt"
