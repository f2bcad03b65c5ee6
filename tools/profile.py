#!/usr/bin/env python3
"""The time of each operation, per stage and per function, as tables in Markdown.

    tools/profile.py build/release/bin/kiln-workload [--entries 100000] [--operations newVersion,withdraw]

perf samples the thread's own clock during one operation of the whole server, on mixed requests in shuffled order.
A sample counts for the stage whose code was running, including the functions that it calls; recording a change
counts for the stages that read it. Calls of stages into chip and store count for these.
"""

import argparse
import collections
import json
import os
import re
import subprocess
import tempfile

OPERATIONS = ["firstInsert", "newVersion", "republish", "restart", "withdraw"]
# By the class of the innermost frame that identifies an owner; the first match counts.
OWNERS = [
    (re.compile(r"^KilnAgent::(Soft\w+|MdbRoom|PendingHwWrites)\b"), lambda match: "chip"),
    (re.compile(r"^KilnAgent::(AgentCollection|MemoryStateStore)\b"), lambda match: "store"),
    (re.compile(r"^KilnAgent::VlanDomainService\b"), lambda match: "VLAN-domain service"),
    (re.compile(r"^KilnEmServer::SwTableWriter\b"), lambda match: "EmSwTableWriterSm"),
    (re.compile(r"^KilnEmServer::(?:Vd|Untagged|Isem\dTag|EsemFodoVd)?ComposerSm\b"), lambda match: "ComposerSm"),
    (re.compile(r"^KilnEmServer::Resolver(?:Vd|Base)\b"), lambda match: "ResolverVd"),
    (re.compile(r"^KilnEmServer::(\w+Sm)\b"), lambda match: match[1]),
    # An input's list of changes counts for its reader; the input's type names one of the reader's handlers.
    (re.compile(r"^(?:non-virtual thunk to )?KilnEmServer::\w*Input<.*?&KilnEmServer::(?:\w*?)(ComposerSm|\w+Sm)\b"),
     lambda match: match[1]),
    (re.compile(r"^KilnBench::(publish|withdraw)\b"), lambda match: "store"),
]
REST = "the rest"


def record(binary, entries, operation, directory):
    """Samples one operation; returns its nanoseconds per entry and the samples' stacks, innermost frame first."""
    control = os.path.join(directory, "control")
    data = os.path.join(directory, "data")
    if not os.path.exists(control):
        os.mkfifo(control)
    command = ["perf", "record", "--quiet", "--freq", "997", "--call-graph", "dwarf,16384", "--event", "cpu-clock",
               "--delay=-1", "--control", f"fifo:{control}", "--output", data,
               binary, "--entries", str(entries), "--rounds", "1", "--warm", "--perf-control", control,
               "--operation", operation]
    out = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    script = subprocess.run(["perf", "script", "--input", data, "--no-inline", "--fields", "ip,sym"], check=True,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    stacks = [[line.split(None, 1)[1] for line in sample.splitlines() if len(line.split(None, 1)) == 2]
              for sample in script.split("\n\n") if sample.strip()]
    text = out.decode()
    return json.loads(text[text.index("{"):])[operation]["nanoseconds"], stacks


def owner(stack):
    for frame in stack:
        for pattern, name in OWNERS:
            match = pattern.match(frame)
            if match:
                return name(match)
    return REST


def short(symbol):
    """A function's name without the arguments of its templates."""
    text = symbol.replace("KilnEmServer::", "").replace("KilnAgent::", "").replace("KilnTunnelNiLib::", "")
    for _ in range(8):
        text = re.sub(r"<[^<>]*>", "", text)
    return text


def print_stages(results):
    """A row per owner, a column per operation: nanoseconds per entry."""
    columns = {}
    for operation, (nanoseconds, stacks) in results.items():
        counts = collections.Counter(owner(stack) for stack in stacks)
        columns[operation] = {name: nanoseconds * count / len(stacks) for name, count in counts.items()}
    names = sorted({name for column in columns.values() for name in column},
                   key=lambda name: -sum(column.get(name, 0) for column in columns.values()))
    print("| ns per entry | " + " | ".join(columns) + " |")
    print("|---|" + "---|" * len(columns))
    for name in names:
        print(f"| {name} | " + " | ".join(f"{column.get(name, 0):.0f}" for column in columns.values()) + " |")
    print("| all | " + " | ".join(f"{nanoseconds:.0f}" for nanoseconds, _ in results.values()) + " |")


def print_functions(results, rows=8):
    for operation, (_, stacks) in results.items():
        counts = collections.Counter(short(stack[0]) for stack in stacks if stack)
        top = ", ".join(f"`{name}` {100 * count / len(stacks):.0f} %" for name, count in counts.most_common(rows))
        print(f"\n{operation}: {top}.")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binary")
    parser.add_argument("--entries", type=int, default=100_000)
    parser.add_argument("--operations", default=",".join(OPERATIONS))
    arguments = parser.parse_args()
    results = {}
    with tempfile.TemporaryDirectory() as directory:
        for operation in arguments.operations.split(","):
            results[operation] = record(arguments.binary, arguments.entries, operation, directory)
    print_stages(results)
    print_functions(results)


if __name__ == "__main__":
    main()
