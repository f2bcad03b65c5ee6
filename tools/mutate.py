#!/usr/bin/env python3
"""Plants the faults of sim/mutations.json one at a time and shows what detects each.

All faults go into one scratch copy of the tracked files, each behind a test of the environment variable KILN_MUTANT, so
that one build serves them all. Prints a table: the fault, the seed at which the simulation detects it, the first test
that fails, the number of operations of the minimized scenario, and whether kiln-agent run fails on it. With --explore
also: the small scenario whose exploration detects it, after how many deviations, and the number of operations of the
shortest schedule. The scenarios that a fault names as "small" are explored first.
Exit 1 if a fault is not detected.
"""
import argparse
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

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
    """Writes only files that differ, so that only those are built again."""
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
    """A statement, which ends with ; or }, becomes if/else; anything else is an expression. If the new text contains
    PLANTED, it replaces the old one unchanged."""
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
    """In a session of its own, so that its child processes end with it."""
    environment = dict(os.environ, KILN_MUTANT=str(number))
    started = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                               errors="replace", start_new_session=True)
    try:
        told, _ = started.communicate(timeout=timeout)
        return started.returncode, told
    except subprocess.TimeoutExpired:
        os.killpg(started.pid, signal.SIGKILL)
        told, _ = started.communicate()
        return TIMED_OUT, told


def ended(code):
    return "does not end" if code == TIMED_OUT else "ended"


def judge_by_tests(binaries, number, options):
    """The first test that fails; empty if none does."""
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
    """The check of the simulation that detects the fault, and the number of seeds; both empty if none does."""
    code, told = run([binaries / "kiln-sim", "--seeds", f"1..{options.seeds}", "--steps", str(options.steps),
                      "--failures", "1", "--jobs", str(options.jobs)], number, options.timeout)
    if code == 0:
        return "", ""
    seed = re.search(r"FAILED seed (\d+).*\n(.*)", told)
    return (seed.group(1), brief(seed.group(2))) if seed else ("?", ended(code))


def judge_minimized(binaries, number, seed, options):
    """The length of the minimized scenario, and whether an agent that only executes it fails."""
    out = pathlib.Path(options.scratch) / "minimized.jsonl"
    code, told = run([binaries / "kiln-sim", "--seed", seed, "--steps", str(options.steps), "--minimize", "--out", out],
                     number, options.timeout)
    command = re.search(r"(\d+) operations in .*: kiln-agent (.*)", told)
    if not command:
        return ended(code)
    code, told = run([binaries / "kiln-agent", *command.group(2).split()], number, options.timeout)
    return f"{command.group(1)}: {'passes' if code in (0, 5) else 'fails' if code == 1 else ended(code)}"


def explorations(mutation, deviations):
    """Each small scenario with each bound: the expected ones first, then the others by bound."""
    every = sorted(path.stem for path in pathlib.Path("sim/small").glob("*.jsonl"))
    expected = mutation.get("small", [])
    if unknown := set(expected) - set(every):
        sys.exit(f"{mutation['name']}: no such scenario: {', '.join(unknown)}")
    for names in expected, [name for name in every if name not in expected]:
        for bound in range(1, deviations + 1):
            for name in names:
                yield name, bound


def explore(binaries, number, name, bound, options):
    """The failure that the exploration finds, its deviations and its operations; None if there is none."""
    out = pathlib.Path(options.schedules) / f"{number}-{name}.jsonl"
    code, told = run([binaries / "kiln-sim", "--explore", f"sim/small/{name}.jsonl", "--from-ready", "--deviations",
                      str(bound), "--budget", str(options.budget), "--out", out], number, 3 * options.budget)
    if code == 0:
        return None
    if code == 2:
        sys.exit(f"{name} cannot be explored")
    wrong = re.search(r"FAILED .*\n(.*)", told)
    size = re.search(r"(\d+) deviations; (\d+) operations(.*)", told)
    what = brief(wrong.group(1)) if wrong else ended(code)
    if size is None:
        return what, "", ""
    return what, size.group(1), size.group(2) + (", not alone" if "not fail alone" in size.group(3) else "")


def judge_by_exploration(binaries, number, mutation, options):
    """Four cells: scenario, deviations, operations, and the failure."""
    end = time.monotonic() + options.timeout
    for name, bound in explorations(mutation, options.explore):
        if time.monotonic() > end:
            return f"not in {options.timeout} s", "", "", ""
        if found := explore(binaries, number, name, bound, options):
            return name, found[1], found[2], found[0]
    return f"not with {options.explore}", "", "", ""


def print_row(*cells):
    print(f"| {' | '.join(str(cell) for cell in cells)} |", flush=True)


def judge_all(binaries, mutations, options):
    """Prints the table; returns the number of undetected faults."""
    seeded, survivors = options.seeds != 0, 0
    heads = ["", "Planted"] + ["Simulation, at seed", "Tests", "Minimized"] * seeded
    heads += ["Small scenario", "Deviations", "Operations", "What is wrong"] * bool(options.explore)
    print_row(*heads)
    print_row(*["---"] * len(heads))
    for number, mutation in enumerate(mutations, 1):
        if options.only and number not in options.only:
            continue
        cells, seen = [number, mutation["name"]], False
        if seeded:
            seed, what = judge(binaries, number, options)
            test = judge_by_tests(binaries, number, options) if options.tests else ""
            replayed = judge_minimized(binaries, number, seed, options) if options.minimize and seed.isdigit() else ""
            cells += [f"{seed}: {what}" if seed else f"not in {options.seeds}",
                      test or ("none" if options.tests else "not run"), replayed]
            seen = bool(seed or test)
        if options.explore:
            cells += judge_by_exploration(binaries, number, mutation, options)
            seen = seen or bool(cells[-1])
        survivors += not seen
        print_row(*cells)
    return survivors


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--scratch", default="/tmp/kiln-mutants")
    parser.add_argument("--seeds", type=int, help="of the simulation; 300 by default, none with --explore")
    parser.add_argument("--steps", type=int, default=500)
    parser.add_argument("--timeout", type=int, default=300, help="seconds for one fault")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--preset", default="release", help="of the build")
    parser.add_argument("--only", type=int, nargs="*", help="numbers of faults")
    parser.add_argument("--tests", action="store_true", help="also run kiln-tests")
    parser.add_argument("--minimize", action="store_true", help="also run what kiln-sim makes of the seed in kiln-agent")
    parser.add_argument("--explore", type=int, default=0, metavar="D",
                        help="also explore the small scenarios, with 1, 2, ... D deviations")
    parser.add_argument("--budget", type=int, default=20, help="seconds for the exploration of one scenario")
    parser.add_argument("--schedules", help="folder for the shortest schedules; by default in the scratch copy")
    parser.add_argument("--check", action="store_true", help="only see that every fault still has its place")
    options = parser.parse_args()
    root = pathlib.Path(__file__).resolve().parent.parent
    scratch = pathlib.Path(options.scratch).resolve()
    options.schedules = options.schedules or scratch / "schedules"
    if options.seeds is None:
        options.seeds = 0 if options.explore else 300
    mutations = json.loads((root / "sim/mutations.json").read_text())
    texts = {}
    for number, mutation in enumerate(mutations, 1):
        plant(root, number, mutation, texts)
    if options.check:
        return
    os.chdir(root)  # where scenarios find their chip
    texts["src/kiln/platform/Assert.h"] = (root / "src/kiln/platform/Assert.h").read_text() + SWITCH
    copy_tree(root, scratch, texts)
    subprocess.run(["cmake", "--preset", options.preset, "-DCMAKE_CXX_FLAGS=-w -DKILN_MUTANTS"], cwd=scratch, check=True,
                   stdout=subprocess.DEVNULL)
    targets = ["kiln-sim"] + ["kiln-tests"] * options.tests + ["kiln-agent"] * options.minimize
    subprocess.run(["cmake", "--build", "--preset", options.preset, "--target", *targets], cwd=scratch, check=True,
                   stdout=subprocess.DEVNULL)
    binaries = scratch / f"build/{options.preset}/bin"
    pathlib.Path(options.schedules).mkdir(parents=True, exist_ok=True)
    sys.exit(1 if judge_all(binaries, mutations, options) else 0)


main()
