#!/usr/bin/python3
"""How long Writes wait while a controller reconciles one table of twenty under many entries.

    bench/reconcile.py [--entries 1000000] [--programs build/default/bin]

Starts an agent and a forwarding agent, pushes a program of twenty tables, fills them, and pushes
with RECONCILE_AND_COMMIT twice: the last table has another size then, or one more action. All the
while another thread writes one entry after the other and keeps the times.
"""

import argparse
import pathlib
import signal
import sys
import tempfile
import threading
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "examples/router"))

import stubs  # noqa: E402,F401  (makes the imports of messages below work)
import grpc  # noqa: E402
from p4.v1 import p4runtime_pb2, p4runtime_pb2_grpc  # noqa: E402

from stage import Switch, wait_until  # noqa: E402

TABLES = 20
FIRST_TABLE = 0x02000001
ACTION = 0x01000001
OTHER_ACTION = 0x01000002
BATCH = 4000
IN_FLIGHT = 4
LOOSE = [("grpc.max_receive_message_length", -1), ("grpc.max_metadata_size", 1 << 20)]


def program(entries, size_of_last=None, actions_of_last=1):
    config = p4runtime_pb2.ForwardingPipelineConfig()
    for number in range(TABLES):
        is_last = number == TABLES - 1
        table = config.p4info.tables.add(size=entries)
        table.preamble.id = FIRST_TABLE + number
        table.preamble.name = f"ingress.table_{number}"
        table.preamble.alias = f"table_{number}"
        table.match_fields.add(id=1, name="key", bitwidth=32, match_type=2)
        table.action_refs.add(id=ACTION)
        if is_last and size_of_last:
            table.size = size_of_last
        if is_last and actions_of_last > 1:
            table.action_refs.add(id=OTHER_ACTION)
    for number in range(2):
        action = config.p4info.actions.add()
        action.preamble.id = ACTION + number
        action.preamble.name = action.preamble.alias = f"set_{number}"
        for param in range(1 + number):
            action.params.add(id=param + 1, name=f"p{param}", bitwidth=32)
    return config


class Client:
    def __init__(self, server, election_id):
        self._channel = grpc.insecure_channel(server, options=LOOSE)
        self.stub = p4runtime_pb2_grpc.P4RuntimeStub(self._channel)
        self._election_id = election_id
        self._done = threading.Event()

    def become_primary(self):
        def requests():
            request = p4runtime_pb2.StreamMessageRequest()
            request.arbitration.device_id = 1
            request.arbitration.election_id.low = self._election_id
            yield request
            self._done.wait()
        self._stream = self.stub.StreamChannel(requests())
        return next(self._stream)

    def close(self):
        self._done.set()
        self._channel.close()

    def push(self, config, action):
        request = p4runtime_pb2.SetForwardingPipelineConfigRequest(
            device_id=1, action=action, config=config)
        request.election_id.low = self._election_id
        began = time.monotonic()
        self.stub.SetForwardingPipelineConfig(request, timeout=120)
        return began, time.monotonic()

    def write_of(self, kind, table, first, count, value):
        request = p4runtime_pb2.WriteRequest(device_id=1)
        request.election_id.low = self._election_id
        for key in range(first, first + count):
            update = request.updates.add(type=kind)
            entry = update.entity.table_entry
            entry.table_id = FIRST_TABLE + table
            entry.match.add(field_id=1).exact.value = key.to_bytes(4, "big").lstrip(b"\0") or b"\0"
            action = entry.action.action
            action.action_id = ACTION
            action.params.add(param_id=1, value=value.to_bytes(4, "big").lstrip(b"\0") or b"\0")
        return request


def fill(client, entries):
    each = entries // TABLES
    pending = []
    for table in range(TABLES):
        for first in range(0, each, BATCH):
            request = client.write_of(p4runtime_pb2.Update.INSERT, table, first,
                                      min(BATCH, each - first), 1)
            pending.append(client.stub.Write.future(request))
            if len(pending) >= IN_FLIGHT:
                pending.pop(0).result()
    for call in pending:
        call.result()


class Writer(threading.Thread):
    """One entry after the other; keeps the begin and end of each Write."""

    def __init__(self, client):
        super().__init__(daemon=True)
        self._client = client
        self._ends = False
        self.times = []
        self.refused = []

    def run(self):
        value = 2
        while not self._ends:
            request = self._client.write_of(p4runtime_pb2.Update.MODIFY, 0, 7, 1, value)
            value += 1
            began = time.monotonic()
            try:
                self._client.stub.Write(request, timeout=60)
            except grpc.RpcError as error:
                self.refused.append((began, error.code().name, error.details()))
            self.times.append((began, time.monotonic()))
            time.sleep(0.001)

    def end(self):
        self._ends = True
        self.join()

    def during(self, began, ended):
        """In milliseconds, of Writes under way in that time."""
        return sorted(1000 * (end - begin) for begin, end in self.times
                      if end >= began and begin <= ended)


def told(name, times):
    if not times:
        return f"{name}: no Write"
    return (f"{name}: {len(times)} Writes, median {times[len(times) // 2]:.1f} ms,"
            f" longest {times[-1]:.1f} ms")


def programmed(switch):
    words = switch.tell_forwarder("stats", quiet=True).split()
    return int(words[words.index("changes") + 1])


def measure(switch, entries):
    client = Client(switch.server, 1)
    wait_until(client.become_primary, "a stream", *switch.processes())
    reconcile = p4runtime_pb2.SetForwardingPipelineConfigRequest.RECONCILE_AND_COMMIT
    client.push(program(entries), p4runtime_pb2.SetForwardingPipelineConfigRequest.VERIFY_AND_COMMIT)
    began = time.monotonic()
    fill(client, entries)
    print(f"{entries} entries in {TABLES} tables, in {time.monotonic() - began:.1f} s", flush=True)
    steps = [("another size of one table", program(entries, size_of_last=2 * entries)),
             ("another action in one table", program(entries, 2 * entries, actions_of_last=2))]
    for name, config in steps:
        writer = Writer(client)
        writer.start()
        time.sleep(2)
        writes, changes = len(writer.times), programmed(switch)
        began, ended = client.push(config, reconcile)
        time.sleep(1)
        writer.end()
        changes = programmed(switch) - changes - (len(writer.times) - writes)
        print(f"{name}: reconciled in {1000 * (ended - began):.0f} ms; the forwarding agent"
              f" programmed about {changes} changes beside those of Writes")
        print("  " + told("before", writer.during(began - 2, began - 0.5)))
        print("  " + told("meanwhile", writer.during(began, ended)), flush=True)
        for at, code, text in writer.refused[:3]:
            print(f"  refused {1000 * (at - began):.0f} ms after its begin: {code} {text}")
    client.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--entries", type=int, default=1000000)
    parser.add_argument("--programs", type=pathlib.Path,
                        default=REPOSITORY / "build/default/bin")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        switch = Switch(options.programs, pathlib.Path(folder))
        switch.write_configuration()
        configuration = pathlib.Path(folder) / "agent.json"
        configuration.write_text(configuration.read_text().replace(
            str(pathlib.Path(folder) / "router.pb.bin"), ""))
        try:
            switch.start_agent()
            switch.start_forwarder()
            measure(switch, options.entries)
        finally:
            for process in switch.processes():
                process.end(signal.SIGTERM)


if __name__ == "__main__":
    main()
