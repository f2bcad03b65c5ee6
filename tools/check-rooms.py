#!/usr/bin/env python3
"""Checks that the folders of the sources depend on each other in one direction.

    tools/check-rooms.py

ROOMS is the order. A source includes files of its own folder and of those in earlier lines, and names each by its path
from the include root. The table in docs/architecture.md names the folders of src/ in the same order. Exit 1 and one
line for each fault otherwise.
"""
import collections
import pathlib
import re
import sys

# Folders of one line do not include each other.
ROOMS = [
    ["platform"],
    ["runtime/trace"],
    ["runtime/collections"],
    ["runtime/stage", "runtime/model"],
    ["intake", "compose", "program"],
    ["status"],
    ["server"],
    ["agent/io", "agent/platform"],
    ["agent/chip", "agent/store"],
    ["agent/host"],
    ["agent/scenario"],
    ["agent/report"],
    ["agent/service"],
    ["agent/command"],
]
# What is built beside the product, and what it includes: itself, the product and these.
BESIDE = {"sim": [], "tests": ["sim"], "fuzz": ["sim", "tests"], "bench": []}

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def includes(folder):
    """Pairs of a source's path and a path that it includes."""
    for path in sorted(folder.rglob("*")):
        if path.suffix in (".h", ".cpp"):
            for included in INCLUDE.findall(path.read_text()):
                yield path.relative_to(ROOT), included


def faults_of_rooms():
    level = {room: number for number, line in enumerate(ROOMS) for room in line}
    for path, included in includes(ROOT / "src"):
        room = path.parent.relative_to("src/kiln").as_posix()
        if room not in level:
            yield f"{path}: {room} is not in the list of rooms"
            continue
        root, _, rest = included.partition("/")
        other = pathlib.PurePosixPath(rest).parent.as_posix()
        if root != "kiln" or other not in level:
            yield f"{path}: {included} is in no room of the product"
        elif other != room and level[other] >= level[room]:
            yield f"{path}: {room} includes {included}, of a room that is not below it"


def faults_beside():
    for folder, others in BESIDE.items():
        for path, included in includes(ROOT / folder):
            if included.partition("/")[0] not in ("kiln", folder, *others):
                yield f"{path}: {folder} includes {included}"


def faults_of_the_document():
    name = "docs/architecture.md"
    layers = (ROOT / name).read_text().partition("## Layers")[2].partition("\n## ")[0]
    written = re.findall(r"^\| `([\w/]+)/` \|", layers, re.MULTILINE)
    expected = [room for line in ROOMS for room in line]
    for room, count in collections.Counter(written).items():
        if count > 1 or room not in expected + list(BESIDE):
            yield f"{name}: {room} is listed twice or is no room"
    if [room for room in written if room in expected] != expected:
        yield f"{name}: the table of layers does not have the rooms in the order {', '.join(expected)}"
    if missing := [room for room in BESIDE if room not in written]:
        yield f"{name}: the table of layers lacks {', '.join(missing)}"


faults = [*faults_of_rooms(), *faults_beside(), *faults_of_the_document()]
print("\n".join(faults), file=sys.stderr)
sys.exit(1 if faults else 0)
