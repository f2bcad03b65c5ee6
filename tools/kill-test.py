#!/usr/bin/env python3
"""Kills a serving agent again and again, at random moments and under load, and checks the remaining state.

The load publishes and withdraws requests, allots and revokes VLAN domains, and removes and adds features. After each
kill the agent is started again over the same state. Checked are:
- nothing that was acknowledged as durable is lost, and the state is the result of all operations up to some moment
  after the last acknowledgement: never of a later operation without an earlier one;
- the tables of requests that do not change get no write and no removal, whenever the agent is killed; if it was quiet
  when it was killed, no table does; and by the agent's own report no entry or status that was settled before and the
  same after was touched;
- statuses, tables, VLAN domains and the rest equal the state of a new agent with the same requests.
One kill in four hits an agent in the middle of its reconciliation.
"""

import argparse
import json
import os
import random
import select
import signal
import socket
import subprocess
import sys
import tempfile
import time

QUIET_TABLES = ("lemVpwsAc", "isemInnerEth")
BUSY_FEATURES = ("mpls", "srv6", "bridging")
BUSY_KEYS = 60
INTERFACES = 12


class Lost(Exception):
    """The remaining state is not the required one."""


def request(op, feature, database, table, key, **rest):
    return {"op": op, "feature": feature, "database": database, "key": {table + "EntryKey": key}, **rest}


def quiet_requests(count):
    for n in range(count // 2):
        yield request("publish", "vpws", "lem", "lemVpwsAc",
                      {"inLif": n, "outerVlanId": n % 4096, "innerVlanId": 1, "outerPcp": 0, "innerPcp": 0},
                      entry={"lemVpwsAcEntry": {"outLif": n, "destination": 2, "statisticsId": 3}}, requestVersion=1)
        yield request("publish", "evpn", "isem", "isemInnerEth", {"vsi": n, "profile": 0},
                      entry={"isemInnerEthEntry": {"lif": n, "vsi": 3}}, requestVersion=1)


def busy_operation(rng, version):
    """One operation on few keys, so that they change often and features want the same ones."""
    kind = rng.random()
    if kind < 0.1:
        interface = {"intfId": rng.randrange(INTERFACES), "systemTcamId": 0}
        if rng.random() < 0.3:
            return {"op": "revoke", **interface}
        return {"op": "allot", **interface, "vlanDomain": rng.randrange(1, 9)}
    table, database, key, entry = rng.choice((
        ("isemMpls", "isem", {"label": rng.randrange(BUSY_KEYS), "labelSpace": 0}, {"lif": version, "vsi": 1}),
        ("isemUntagged", "isem", {"intfId": rng.randrange(INTERFACES), "systemTcamId": 0},
         {"lif": version, "vsi": 1, "profile": 0}),
        ("esemFodo", "esem", {"fodoId": rng.randrange(BUSY_KEYS)}, {"outLif": version, "editProfile": 1})))
    feature = rng.choice(BUSY_FEATURES)
    if kind > 0.93:
        return {"op": "removeFeature" if kind > 0.985 else "addFeature", "feature": feature}
    if kind < 0.35:
        return request("withdraw", feature, database, table, key)
    return request("publish", feature, database, table, key, entry={table + "Entry": entry}, requestVersion=version)


class Model:
    """The state that the operations so far request."""

    def __init__(self):
        self.requests = {}
        self.domains = {}
        self.absent = set()

    def apply(self, operation):
        op = operation["op"]
        if op == "removeFeature":
            self.absent.add(operation["feature"])
            self.requests = {place: request for place, request in self.requests.items() if place[0] not in self.absent}
        elif op == "addFeature":
            self.absent.discard(operation["feature"])
        elif op in ("publish", "withdraw") and operation["feature"] not in self.absent:
            place = (operation["feature"], operation["database"], json.dumps(operation["key"], sort_keys=True))
            self.requests.pop(place, None) if op == "withdraw" else self.requests.update({place: operation})
        elif op == "allot":
            self.domains[operation["intfId"]] = operation
        elif op == "revoke":
            self.domains.pop(operation["intfId"], None)

    def operations(self):
        return [{"op": "vlanDomains", "mode": "manual"}, *self.requests.values(), *self.domains.values(),
                *({"op": "removeFeature", "feature": feature} for feature in sorted(self.absent))]

    def matches(self, dump):
        statuses = {(row["feature"], row["database"], json.dumps(row["key"], sort_keys=True)): row["requestVersion"]
                    for row in dump["statuses"]}
        wanted = {place: operation["requestVersion"] for place, operation in self.requests.items()}
        domains = {row["intfId"]: row["vlanDomain"] for row in dump["vlanDomains"]}
        return statuses == wanted and domains == {n: op["vlanDomain"] for n, op in self.domains.items()}


class Agent:
    """A serving agent and a connection to it."""

    def __init__(self, options, directory):
        self.process = subprocess.Popen([options.agent, "serve", "--state", directory] +
                                        (["--no-sync"] if options.no_sync else []), stderr=subprocess.PIPE)
        self.path = os.path.join(directory, "socket")
        self.socket = None
        self.received = b""

    def connect(self):
        end = time.monotonic() + 60
        while time.monotonic() < end:
            self.socket = socket.socket(socket.AF_UNIX)
            try:
                self.socket.connect(self.path)
                return
            except OSError:
                self.socket.close()
            if self.process.poll() is not None:
                raise Lost("the agent did not come back: " + self.process.stderr.read().decode())
            time.sleep(0.002)
        raise Lost("the agent does not listen")

    def answers(self):
        """The received answers; waits for the first. None at the end of the connection."""
        try:
            data = self.socket.recv(1 << 20)
        except OSError:
            data = b""
        *lines, self.received = (self.received + data).split(b"\n")
        return (None if not data else [json.loads(line) for line in lines])

    def ask(self, *operations):
        """The answer to the last of some operations."""
        self.socket.sendall(b"".join(json.dumps(operation).encode() + b"\n" for operation in operations))
        got = []
        while len(got) < len(operations):
            answers = self.answers()
            if answers is None:
                raise Lost("the agent ended: " + self.process.stderr.read().decode())
            got += answers
        for operation, answer in zip(operations, got):
            if not answer["ok"]:
                raise Lost(f"{operation} was answered {answer}")
        return got[-1]

    def wait_ready(self):
        while not self.ask({"op": "settle"}, {"op": "show", "what": "agent"})["agent"]["ready"]:
            time.sleep(0.002)

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.stderr.close()
        if self.socket:
            self.socket.close()


def load(agent, rng, version, seconds):
    """Sends operations without waiting for their answers, kills the agent, and counts what it acknowledged."""
    sent, acknowledged = [], 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        burst = [busy_operation(rng, version + len(sent) + n) for n in range(rng.randrange(1, 40))]
        agent.socket.sendall(b"".join(json.dumps(operation).encode() + b"\n" for operation in burst))
        sent += burst
        if rng.random() < 0.7 and select.select([agent.socket], [], [], 0.01)[0]:
            acknowledged += len(agent.answers() or [])
    agent.process.send_signal(signal.SIGKILL)
    agent.process.wait()
    while (answers := agent.answers()) is not None:
        acknowledged += len(answers)
    agent.kill()
    return sent, acknowledged


def comparable(dump):
    """The part of a dump that depends on the requests alone. A serving agent does not sort its rows."""
    def in_order(part):
        return sorted(part, key=lambda row: json.dumps(row, sort_keys=True)) if isinstance(part, list) else part
    parts = {name: in_order(part) for name, part in dump.items() if name not in ("hardware", "oneMoment")}
    return {**parts, "tables": {stem: in_order(table) for stem, table in dump["tables"].items()}}


def check_recompute(options, directory, model, dump):
    path = os.path.join(directory, "model.jsonl")
    with open(path, "w") as file:
        file.writelines(json.dumps(operation) + "\n" for operation in model.operations())
    run = subprocess.run([options.agent, "run", path, "--dump", "-"], stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL, check=True)
    fresh = comparable(json.loads(run.stdout))
    for name, part in comparable(dump).items():
        if part != fresh[name]:
            raise Lost(f"{name} differs from the recompute")


def check_hitless(agent, quiet_before):
    hardware = agent.ask({"op": "show", "what": "agent"})["agent"]["hardware"]
    for table, counters in hardware.items():
        touched = counters["written"] + counters["removed"]
        if touched and (quiet_before or table in QUIET_TABLES):
            raise Lost(f"{table}: {touched} entries were touched by the restart")
    report = agent.ask({"op": "show", "what": "reconcile"})["reconcile"]
    if report is None or report["disturbed"] != 0 or report["state"] != "complete":
        raise Lost(f"the restart was not hitless: {json.dumps(report)}")


def take_up(agent, model, unacknowledged, quiet_before):
    """Finds out which of the operations without acknowledgement took effect, and checks everything else."""
    agent.connect()
    agent.wait_ready()
    check_hitless(agent, quiet_before)
    dump = agent.ask({"op": "settle"}, {"op": "show", "what": "dump"})["dump"]
    if not dump["oneMoment"]:
        raise Lost("a quiet agent's dump does not show one moment")
    standing = 0
    while not model.matches(dump):
        if standing == len(unacknowledged):
            raise Lost("what stands is not what the operations gave up to any moment")
        model.apply(unacknowledged[standing])
        standing += 1
    return dump


def run(options, directory):
    rng = random.Random(options.seed)
    state = os.path.join(directory, "state")
    model, version, counts = Model(), 2, {"operations": 0, "acknowledged": 0, "reconciling": 0, "quiet": 0}
    agent = Agent(options, state)
    agent.connect()
    first = [{"op": "vlanDomains", "mode": "manual"}, *quiet_requests(options.requests)]
    agent.ask(*first, {"op": "settle"})
    for operation in first:
        model.apply(operation)
    unacknowledged, quiet_before = [], True
    agent.kill()
    for kill in range(1, options.kills + 1):
        agent = Agent(options, state)
        if rng.random() < 0.25:
            time.sleep(rng.random() * options.reconciling)
            counts["reconciling"] += 1
            agent.kill()
            continue
        dump = take_up(agent, model, unacknowledged, quiet_before)
        if kill % options.compare_every == 0:
            check_recompute(options, directory, model, dump)
        sent, acknowledged = load(agent, rng, version, rng.random() * 0.08) if rng.random() < 0.9 else ([], 0)
        version += len(sent)
        for operation in sent[:acknowledged]:
            model.apply(operation)
        unacknowledged, quiet_before = sent[acknowledged:], not sent
        agent.kill()
        counts["operations"] += len(sent)
        counts["acknowledged"] += acknowledged
        counts["quiet"] += quiet_before
        if sys.stderr.isatty():
            print(f"\r{kill} kills", end="", file=sys.stderr)
    agent = Agent(options, state)
    check_recompute(options, directory, model, take_up(agent, model, unacknowledged, quiet_before))
    agent.process.terminate()
    if agent.process.wait(60) != 0:
        raise Lost("the agent did not stop cleanly")
    return counts


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("agent", help="the kiln-agent to kill")
    parser.add_argument("--kills", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1, help="of operations and moments; the latter also depend "
                        "on the machine")
    parser.add_argument("--requests", type=int, default=2000, help="that are left alone")
    parser.add_argument("--reconciling", type=float, default=0.1,
                        help="seconds from a start within which an agent is killed while it reconciles")
    parser.add_argument("--compare-every", type=int, default=10, help="kills between comparisons with a recompute")
    parser.add_argument("--no-sync", action="store_true", help="as of serve")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kiln-kill-") as directory:
        begin = time.monotonic()
        try:
            counts = run(options, directory)
        except Lost as lost:
            print(f"kill-test: {lost} (seed {options.seed})", file=sys.stderr)
            return 1
    print(f"{options.kills} kills in {time.monotonic() - begin:.0f} s, {counts['reconciling']} of them while "
          f"reconciling, {counts['quiet']} while quiet; {counts['operations']} operations sent, "
          f"{counts['acknowledged']} acknowledged, none lost")
    return 0


if __name__ == "__main__":
    sys.exit(main())
