#!/usr/bin/env python3
"""Checks that every header compiles by itself, and every source that is otherwise compiled in a batch.

    tools/check-alone.py [--jobs N] [--compiler clang++-14] [FILE...]

Files are parsed with all warnings, and nothing is generated. A header that its own source includes first is checked with
that source. What many files include is parsed once: a file that reaches all headers of a prefix in PREFIXES through its
own includes starts from the precompiled prefix. That hides no missing include, since includes come before all else in a
file and every included header is checked as well.
"""
import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDERS = ["src", "sim", "tests", "fuzz", "bench"]
EXCEPT = ("bench/naive/", "tests/embed/")  # compiled in the place of others; a project of its own
IN_BATCHES = ("src/", "sim/", "tests/")
AGENT = ["kiln/agent/host/EmbeddedAgent.h", "kiln/agent/io/JsonValue.h"]
# The richest first.
PREFIXES = [
    ["<gtest/gtest.h>", *AGENT],
    ["tests/TestSupport.h"],
    ["kiln/agent/scenario/Scenario.h"],
    AGENT,
    ["kiln/server/KilnEmServerSm.h"],
    ["kiln/runtime/stage/Input.h", "kiln/runtime/stage/Output.h", "kiln/runtime/model/EmCollections.h"],
    ["kiln/runtime/stage/Stage.h", "kiln/runtime/model/EmTypes.h"],
    ["kiln/agent/io/JsonValue.h"],
    ["kiln/runtime/stage/Stage.h"],
    ["kiln/runtime/model/EmTypes.h"],
    ["kiln/platform/Value.h"],
    ["kiln/platform/Assert.h"],
]
FLAGS = """-std=c++20 -Isrc -I. -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
           -Wnon-virtual-dtor -Werror -DFMT_SHARED -DKILN_SOURCE_DIR="" -DKILN_COMMIT="" """.split()
INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|(<[^>]+>))', re.MULTILINE)


def files_to_check():
    paths = (path.relative_to(ROOT).as_posix() for folder in FOLDERS for path in (ROOT / folder).rglob("*.*"))
    names = sorted(path for path in paths if not path.startswith(EXCEPT))
    sources = [name for name in names if name.endswith(".cpp") and name.startswith(IN_BATCHES)
               and not name.endswith("/main.cpp")]
    first = {match[1] for name in sources if (match := INCLUDE.search((ROOT / name).read_text()))}
    return sources + [name for name in names if name.endswith(".h") and name.removeprefix("src/") not in first]


class Closures:
    """What each file includes, directly or not, as it is written there."""

    def __init__(self):
        self.known = {}

    def of(self, path):
        if path not in self.known:
            self.known[path] = reached = set()
            for quoted, system in INCLUDE.findall(path.read_text()):
                reached.add(quoted or system)
                if quoted:
                    base = ROOT / "src" if quoted.startswith("kiln/") else ROOT
                    reached |= self.of(base / quoted)
        return self.known[path]


def run(compiler, arguments, language, text):
    """What the compiler says about the text, if it refuses it."""
    done = subprocess.run([compiler, *FLAGS, *arguments, "-x", language, "-"], cwd=ROOT, input=text, text=True,
                          capture_output=True)
    return done.stderr if done.returncode else ""


def include_line(header):
    return f"#include {header}\n" if header.startswith("<") else f'#include "{header}"\n'


def prefix_of(closure):
    return next((number for number, prefix in enumerate(PREFIXES) if closure.issuperset(prefix)), None)


def precompile(compiler, number, scratch):
    """The file made of a prefix; none if it does not compile, in which case its headers fail by themselves."""
    target = f"{scratch}/{number}.pch"
    text = "".join(include_line(header) for header in PREFIXES[number])
    wrong = run(compiler, ["-fpch-instantiate-templates", "-o", target], "c++-header", text)
    return None if wrong else target


def check(compiler, name, precompiled):
    arguments = ["-fsyntax-only"] + (["-include-pch", precompiled] if precompiled else [])
    return run(compiler, arguments, "c++", include_line(name.removeprefix("src/")))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--compiler", default="clang++-14")
    parser.add_argument("files", nargs="*")
    options = parser.parse_args()
    names = options.files or files_to_check()
    closures = Closures()
    prefixes = {name: prefix_of(closures.of(ROOT / name)) for name in names}
    used = sorted({number for number in prefixes.values() if number is not None})
    failed = 0
    with tempfile.TemporaryDirectory() as scratch, concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        made = dict(zip(used, pool.map(lambda number: precompile(options.compiler, number, scratch), used)))
        faults = pool.map(lambda name: check(options.compiler, name, made.get(prefixes[name])), names)
        for name, fault in zip(names, faults):
            if fault:
                failed += 1
                print(f"{name} does not compile by itself:\n{fault}", file=sys.stderr)
    print(f"{len(names)} files, {failed} that do not compile by themselves")
    return 1 if failed else 0


sys.exit(main())
