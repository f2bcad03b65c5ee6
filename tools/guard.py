#!/usr/bin/env python3
"""Compares the cost of an entry with its record, without a clock.

    tools/guard.py build/release/bin/kiln-workload            # 1 if a figure is above its record plus tolerance
    tools/guard.py build/release/bin/kiln-workload --record   # writes a new record

Per operation: instructions (counted by valgrind's callgrind), calls of the allocator, and bytes of the server alone,
each per entry. The figures are of one compiler and one C library: make the record on the machine that runs CI.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile

RECORD = pathlib.Path(__file__).parent.parent / "bench" / "guard.json"
# Enough entries for prefetching, as in production.
ENTRIES = 8000
ROOM = 1.04
# Differences below this are noise: a table that grows once, one more page.
SLACK = {"instructions": 10, "allocations": 0.005, "bytes": 8}


def run_workload(binary, subject):
    command = [binary, "--entries", str(ENTRIES), "--subject", subject]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)


def count_instructions(binary, subject):
    """Instructions per entry and operation; of a repeated operation, the last repetition counts."""
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={directory}/out", "--quiet",
             binary, "--entries", str(ENTRIES), "--subject", subject],
            check=True, stdout=subprocess.DEVNULL)
        counts = {}
        dumps = pathlib.Path(directory).glob("out.*")
        for dump in sorted(dumps, key=lambda path: int(path.suffix[1:])):
            text = dump.read_text()
            operation = re.search(r"^desc: Trigger: Client Request: (\w+)$", text, re.MULTILINE)
            total = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
            if operation and total:
                counts[operation[1]] = int(total[1]) / ENTRIES
        return counts


def measure(binary):
    whole, store, chip = (run_workload(binary, subject) for subject in ("mixed", "store", "chip"))
    # Features hand in their requests as lists, or one by one.
    figures = {}
    for road in ("mixed", "mixedSingly"):
        instructions = count_instructions(binary, road)
        for operation, cost in (whole if road == "mixed" else run_workload(binary, road)).items():
            figures[f"{road}.{operation}.instructions"] = round(instructions[operation])
            figures[f"{road}.{operation}.allocations"] = round(cost["allocations"], 3)
    # After the restart the server has been built in another order, after the withdrawals it should hold nothing.
    for operation in ("firstInsert", "newVersion", "withdraw"):
        own = whole[operation]["bytes"] - store[operation]["bytes"] - chip[operation]["bytes"]
        figures[f"mixed.{operation}.bytes"] = round(own)
    return figures


def limit(name, recorded):
    return max(recorded * ROOM, recorded + SLACK[name.split(".")[2]])


def compare(figures, recorded):
    """Prints every figure; returns the names of those that are too large or not recorded."""
    failed = []
    for name, figure in figures.items():
        known = recorded.get(name)
        good = known is not None and figure <= limit(name, known)
        if not good:
            failed.append(name)
        print(f"{'ok  ' if good else 'FAIL'} {name}: {figure}, recorded {known}")
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binary")
    parser.add_argument("--record", action="store_true")
    arguments = parser.parse_args()
    figures = measure(arguments.binary)
    if arguments.record:
        RECORD.write_text(json.dumps({"entries": ENTRIES, "perEntry": figures}, indent=2) + "\n")
        return 0
    failed = compare(figures, json.loads(RECORD.read_text())["perEntry"])
    if failed:
        print(f"guard: {len(failed)} figures are above their record; where that is meant, record anew", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
