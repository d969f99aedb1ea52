"""A local collector for the tests: the pelora_collector program from a build tree, on a free port,
recording what it accepts to a JSON-lines file.

PELORA_COLLECTOR names the program (default: the first build/*/tools/collector/pelora_collector of
this checkout); its CA certificate is certs/ca.pem beside it.
"""

import glob
import json
import os
import subprocess
import sys
import time
from decimal import Decimal

import pytest

CHECKOUT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(CHECKOUT, "python"))


def collector_program():
    program = os.environ.get("PELORA_COLLECTOR")
    if program:
        return program
    found = sorted(glob.glob(os.path.join(CHECKOUT, "build", "*", "tools", "collector",
                                          "pelora_collector")))
    if not found:
        pytest.skip("no pelora_collector built (set PELORA_COLLECTOR)")
    return found[0]


class Collector:
    def __init__(self, directory):
        program = collector_program()
        self.ca_file = os.path.join(os.path.dirname(program), "certs", "ca.pem")
        self.jsonl = os.path.join(directory, "received.jsonl")
        ready = os.path.join(directory, "ready")
        self.process = subprocess.Popen(
            [program, "--port", "0", "--quiet", "--jsonl", self.jsonl, "--ready-file", ready,
             "--iam-hold-ms", "100"],
            stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while not (os.path.exists(ready) and open(ready).read().strip()):
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("pelora_collector did not start")
            time.sleep(0.02)
        self.connect_to = open(ready).read().strip()

    def options(self, data_dir):
        """Client options that send to this collector and keep files under `data_dir`."""
        return dict(connect_to=[self.connect_to], ca_bundle=self.ca_file,
                    documents_dir=os.path.join(data_dir, "Documents"),
                    preferences_dir=os.path.join(data_dir, "config"), enable_iam=False,
                    flush_at=1_000_000, flush_interval=3600)

    def lines(self, kind):
        if not os.path.exists(self.jsonl):
            return []
        with open(self.jsonl) as file:
            records = [json.loads(line, parse_float=Decimal) for line in file]
        return [record["body"] for record in records if record["kind"] == kind]

    def raw(self):
        return open(self.jsonl).read() if os.path.exists(self.jsonl) else ""

    def events(self):
        """Events of accepted batches, each once (by message id), in arrival order."""
        seen, events = set(), []
        for batch in self.lines("batch"):
            for event in batch["batch"]:
                if event["messageId"] not in seen:
                    seen.add(event["messageId"])
                    events.append(event)
        return events

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)


@pytest.fixture
def collector(tmp_path):
    running = Collector(str(tmp_path))
    yield running
    running.stop()
