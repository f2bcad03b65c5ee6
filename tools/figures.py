#!/usr/bin/env python3
"""The table of the whole road, as Markdown, from the output of kiln-bench.

    kiln-bench --benchmark_filter='^mixed/.*/shuffled/(10000|100000|1000000)/' \\
        --benchmark_out=figures.json --benchmark_out_format=json
    tools/figures.py figures.json
"""

import json
import sys

HEAD = ["operation", "entries", "ns", "floor", "runtime alone", "naive", "times the floor", "naive over ours", "store",
        "chip", "allocations", "bytes of the server"]


def row(benchmark):
    _, operation, _, entries = benchmark["name"].split("/")[:4]

    def figure(name, digits=0):
        return f"{benchmark[name]:,.{digits}f}" if name in benchmark else ""

    return [operation, f"{int(entries):,}", figure("ns_per_entry"), figure("floor_ns"),
            figure("stage_chain_ns"), figure("naive_ns"), figure("times_floor", 1), figure("naive_times", 1),
            figure("store_ns"), figure("chip_ns"), figure("allocations_per_entry", 2), figure("server_bytes")]


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        benchmarks = json.load(file)["benchmarks"]
    print("| " + " | ".join(HEAD) + " |")
    print("|" + "---|" * len(HEAD))
    for benchmark in benchmarks:
        if benchmark["name"].startswith("mixed/"):
            print("| " + " | ".join(row(benchmark)) + " |")


if __name__ == "__main__":
    main()
