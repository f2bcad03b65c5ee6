#!/usr/bin/env python3
"""Measures a serving agent while one client asks for many dumps.

Another client publishes one request after the other; measured are the time for each answer, the longest time
between two watchdog messages to the service manager, and the growth of the agent's memory. Exits with 1 if one of
them is above its limit, or if an answer is wrong.
"""

import argparse
import json
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

WATCHDOG_SECONDS = 0.2  # signs of life come four times as often


def resident_kib(process):
    with open(f"/proc/{process.pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


class Client:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.received = bytearray()

    def send(self, *operations):
        self.socket.sendall(b"".join(json.dumps(operation).encode() + b"\n" for operation in operations))

    def answer(self):
        searched = 0
        while (end := self.received.find(b"\n", searched)) < 0:
            searched = len(self.received)
            data = self.socket.recv(1 << 20)
            if not data:
                raise SystemExit("load-test: the agent ended")
            self.received += data
        line = bytes(self.received[:end])
        del self.received[:end + 1]
        return line

    def ask(self, *operations):
        """The answer to the last of some operations, all of which must be accepted."""
        self.send(*operations)
        answers = [json.loads(self.answer()) for _ in operations]
        for answer in answers:
            if not answer["ok"]:
                raise SystemExit(f"load-test: {answer}")
        return answers[-1]


class Watch:
    """Samples the agent's messages to its service manager, and its memory, until it is stopped."""

    def __init__(self, directory):
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.path = os.path.join(directory, "notify")
        self.manager.bind(self.path)
        self.manager.settimeout(0.02)
        self.gap = self.resident = 0
        self.on = False

    def start(self, process):
        self.on = True
        self.thread = threading.Thread(target=self.run, args=(process,))
        self.thread.start()

    def run(self, process):
        last = time.monotonic()
        while self.on:
            self.resident = max(self.resident, resident_kib(process))
            try:
                told = self.manager.recv(4096)
            except TimeoutError:
                told = b""
            now = time.monotonic()
            self.gap = max(self.gap, now - last)
            if b"WATCHDOG=1" in told:
                last = now

    def stop(self):
        self.on = False
        self.thread.join()


def publication(version):
    return {"op": "publish", "feature": "mirroring", "database": "isem", "requestVersion": version,
            "key": {"isemMplsEntryKey": {"label": version % 16, "labelSpace": 200}},
            "entry": {"isemMplsEntry": {"lif": version, "vsi": 3}}}


def ask_for_dumps(client, count, dumps):
    client.send(*[{"op": "show", "what": "dump"}] * count)
    for number in range(count):
        dump = client.answer()
        dumps["bytes"] += len(dump)
        if number in (0, count - 1):
            dumps["kept"].append(dump)  # parsed later: that would delay the other client's clock
    dumps["done"] = True


def measure(options, directory):
    watch = Watch(directory)
    scenario = os.path.join(directory, "scenario.jsonl")
    with open(scenario, "w") as file:
        subprocess.run([options.agent, "generate", "--requests", str(options.requests)], stdout=file, check=True)
    state = os.path.join(directory, "state")
    environment = dict(os.environ, NOTIFY_SOCKET=watch.path, WATCHDOG_USEC=str(int(WATCHDOG_SECONDS * 1e6)))
    process = subprocess.Popen([options.agent, "serve", "--state", state] + ["--no-sync"] * options.no_sync,
                               env=environment, stderr=subprocess.DEVNULL)
    path = os.path.join(state, "socket")
    while not os.path.exists(path):
        time.sleep(0.01)
    subprocess.run([options.agent, "send", "--quiet", path, scenario], check=True)
    publisher, reader = Client(path), Client(path)
    publisher.ask({"op": "settle"})
    before = resident_kib(process)
    watch.start(process)
    dumps = {"bytes": 0, "kept": [], "done": False}
    begin = time.monotonic()
    thread = threading.Thread(target=ask_for_dumps, args=(reader, options.dumps, dumps))
    thread.start()
    latencies = []
    while not dumps["done"]:
        sent = time.monotonic()
        publisher.ask(publication(len(latencies) + 1))
        latencies.append(time.monotonic() - sent)
        time.sleep(0.002)
    seconds = time.monotonic() - begin
    thread.join()
    watch.stop()
    process.terminate()
    if process.wait(60) != 0:
        raise SystemExit("load-test: the agent did not stop cleanly")
    rows = [len(json.loads(dump)["dump"]["statuses"]) for dump in dumps["kept"]]
    return seconds, dumps["bytes"], rows, latencies, watch.gap, watch.resident - before


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("agent", help="the kiln-agent to measure")
    parser.add_argument("--requests", type=int, default=17000)
    parser.add_argument("--dumps", type=int, default=64)
    parser.add_argument("--no-sync", action="store_true", help="as of serve")
    parser.add_argument("--most-latency", type=float, default=0.1, help="seconds until a publication is answered")
    parser.add_argument("--most-gap", type=float, default=0.5, help="seconds between two signs of life")
    parser.add_argument("--most-growth", type=float, default=64, help="MiB of memory")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kiln-load-") as directory:
        seconds, size, rows, latencies, gap, growth = measure(options, directory)
    worst = max(latencies)
    print(f"{options.dumps} dumps of {rows[-1]} statuses, {size / 2**20:.0f} MiB, in {seconds:.1f} s; during them "
          f"{len(latencies)} publications, answered after {statistics.median(latencies) * 1e3:.1f} ms (median), "
          f"{worst * 1e3:.1f} ms (worst); watchdog gap at most {gap * 1e3:.0f} ms; memory grew by "
          f"{growth / 1024:.1f} MiB")
    good = worst <= options.most_latency and gap <= options.most_gap and growth <= options.most_growth * 1024
    return 0 if good and min(rows) > 0.9 * options.requests else 1


if __name__ == "__main__":
    sys.exit(main())
