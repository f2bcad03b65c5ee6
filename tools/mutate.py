#!/usr/bin/env python3
"""Plants the faults of sim/mutations.json one at a time and shows what catches each.

All faults go into one scratch copy of the tracked files, each behind a test of the environment variable KILN_MUTANT, so
that one build serves them all. Prints a table: planted, seen by the simulation at which seed, and by which test; and of
how many operations the minimized scenario is, and whether kiln-agent run fails on it.
Exit 1 where one survives both.
"""
import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

TIMED_OUT = 1000
SWITCH = """
#include <cstdlib>
/// Whether the fault of this number is planted.
inline bool kilnMutant(int number) {
  static const int planted = std::getenv("KILN_MUTANT") ? std::atoi(std::getenv("KILN_MUTANT")) : 0;
  return planted == number;
}
"""


def copy_tree(root, scratch, texts):
    """Writes only what differs, so that only that is built again."""
    files = subprocess.run(["git", "ls-files"], cwd=root, check=True, capture_output=True, text=True).stdout.split()
    for name in files:
        if not (root / name).is_file():
            continue
        target = scratch / name
        target.parent.mkdir(parents=True, exist_ok=True)
        content = texts[name].encode() if name in texts else (root / name).read_bytes()
        if not target.is_file() or target.read_bytes() != content:
            target.write_bytes(content)


def plant(root, number, mutation, texts):
    """A statement, which ends with ; or }, becomes if/else; anything else is an expression. Where the new text says
    PLANTED, it replaces the old one as it is."""
    path, old, new = mutation["file"], mutation["old"], mutation["new"]
    text = texts.setdefault(path, (root / path).read_text())
    if text.count(old) != mutation.get("times", 1):
        sys.exit(f"{path}: {mutation['name']}: found {text.count(old)} times: {old}")
    if "PLANTED" in new:
        planted = new.replace("PLANTED", f"kilnMutant({number})")
    elif old.rstrip()[-1] in ";}":
        planted = f"if (kilnMutant({number})) {{ {new} }} else {{ {old} }}"
    else:
        planted = f"(kilnMutant({number}) ? ({new}) : ({old}))"
    texts[path] = text.replace(old, planted)


def run(command, number, timeout):
    environment = dict(os.environ, KILN_MUTANT=str(number))
    try:
        done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=timeout, errors="replace")
        return done.returncode, done.stdout
    except subprocess.TimeoutExpired as late:
        return TIMED_OUT, (late.stdout or b"").decode(errors="replace")


def ended(code):
    return "does not end" if code == TIMED_OUT else "ended"


def judge_by_tests(binaries, number, options):
    """The first test that fails; empty where none does."""
    code, told = run([binaries / "kiln-tests", "--gtest_brief=1", "--gtest_fail_fast",
                      "--gtest_filter=-Simulation.*"], number,
                     options.timeout)
    failed = re.search(r"\[  FAILED  \] ([^\s,]+)", told)
    return "" if code == 0 else failed.group(1) if failed else ended(code)


def brief(text):
    """The first words, without namespaces and without the values in parentheses."""
    inner = re.compile(r"\([^()]*\)")
    while inner.search(text):
        text = inner.sub("", text)
    return re.sub(r"Kiln\w+::|\|", "", text)[:70].strip()


def judge(binaries, number, options):
    """By what the simulation catches the fault, and after how many seeds; both empty where it does not."""
    code, told = run([binaries / "kiln-sim", "--seeds", f"1..{options.seeds}", "--steps", str(options.steps),
                      "--failures", "1", "--jobs", str(options.jobs)], number, options.timeout)
    if code == 0:
        return "", ""
    seed = re.search(r"FAILED seed (\d+).*\n(.*)", told)
    return (seed.group(1), brief(seed.group(2))) if seed else ("?", ended(code))


def judge_minimized(binaries, number, seed, options):
    """How long the minimized scenario is, and whether an agent that only executes it fails."""
    out = pathlib.Path(options.scratch) / "minimized.jsonl"
    code, told = run([binaries / "kiln-sim", "--seed", seed, "--steps", str(options.steps), "--minimize", "--out", out],
                     number, options.timeout)
    command = re.search(r"(\d+) operations in .*: kiln-agent (.*)", told)
    if not command:
        return ended(code)
    code, told = run([binaries / "kiln-agent", *command.group(2).split()], number, options.timeout)
    return f"{command.group(1)}: {'passes' if code in (0, 5) else 'fails' if code == 1 else ended(code)}"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--scratch", default="/tmp/kiln-mutants")
    parser.add_argument("--seeds", type=int, default=300)
    parser.add_argument("--steps", type=int, default=500)
    parser.add_argument("--timeout", type=int, default=300, help="seconds for one fault")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--preset", default="release", help="of the build")
    parser.add_argument("--only", type=int, nargs="*", help="numbers of faults")
    parser.add_argument("--tests", action="store_true", help="also run kiln-tests")
    parser.add_argument("--minimize", action="store_true", help="also run what kiln-sim makes of the seed in kiln-agent")
    parser.add_argument("--check", action="store_true", help="only see that every fault still has its place")
    options = parser.parse_args()
    root = pathlib.Path(__file__).resolve().parent.parent
    scratch = pathlib.Path(options.scratch).resolve()
    mutations = json.loads((root / "sim/mutations.json").read_text())
    texts = {}
    for number, mutation in enumerate(mutations, 1):
        plant(root, number, mutation, texts)
    if options.check:
        return
    os.chdir(root)  # where scenarios find their chip
    texts["platform/Assert.h"] = (root / "platform/Assert.h").read_text() + SWITCH
    copy_tree(root, scratch, texts)
    subprocess.run(["cmake", "--preset", options.preset, "-DCMAKE_CXX_FLAGS=-w -DKILN_MUTANTS"], cwd=scratch, check=True,
                   stdout=subprocess.DEVNULL)
    targets = ["kiln-sim"] + ["kiln-tests"] * options.tests + ["kiln-agent"] * options.minimize
    subprocess.run(["cmake", "--build", "--preset", options.preset, "--target", *targets], cwd=scratch, check=True,
                   stdout=subprocess.DEVNULL)
    binaries = scratch / f"build/{options.preset}/bin"
    survivors = 0
    print("| | Planted | Simulation, at seed | Tests | Minimized |\n|---|---|---|---|---|", flush=True)
    for number, mutation in enumerate(mutations, 1):
        if options.only and number not in options.only:
            continue
        seeds, what = judge(binaries, number, options)
        test = judge_by_tests(binaries, number, options) if options.tests else ""
        survivors += not seeds and not test
        seen = f"{seeds}: {what}" if seeds else f"not in {options.seeds}"
        replayed = judge_minimized(binaries, number, seeds, options) if options.minimize and seeds.isdigit() else ""
        test = test or ("none" if options.tests else "not run")
        print(f"| {number} | {mutation['name']} | {seen} | {test} | {replayed} |", flush=True)
    sys.exit(1 if survivors else 0)


main()
