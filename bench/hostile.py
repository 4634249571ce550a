#!/usr/bin/python3
"""How many Writes a primary keeps while other clients do the switch harm, and how the agent grows.

    bench/hostile.py [--seconds 4] [--crowd NAME] [--programs build/default/bin]

Starts an agent with TLS and a Unix socket, and a forwarding agent. The primary writes over the
socket, batches of 100 and single updates; the others come with TLS. A quiet turn stands before and
behind each crowd, and the share is of their mean. The last crowd holds the monitoring's connections
from two addresses; how long a scrape from a third one takes is told beside the share.
"""

import argparse
import json
import multiprocessing
import os
import pathlib
import signal
import socket
import ssl
import statistics
import subprocess
import tempfile
import time

from reconcile import Client, LOOSE, REPOSITORY, fill, program, wait_until

import grpc
from p4.v1 import p4runtime_pb2, p4runtime_pb2_grpc

from stage import Switch, free_port

ENTRIES = 20_000
PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + bytes([0, 0, 0, 4, 0, 0, 0, 0, 0])
MODIFY = p4runtime_pb2.Update.MODIFY
HELLO = bytes([22, 3, 1, 2, 0, 1])  # the beginning of a ClientHello
SCRAPER = "127.0.0.9"
HOLDERS = ("127.0.0.2", "127.0.0.3")
PUSH = p4runtime_pb2.SetForwardingPipelineConfigRequest.VERIFY_AND_COMMIT


def make_certificates(folder):
    def run(*words):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", *words],
                       check=True, capture_output=True, cwd=folder)
    run("-subj", "/CN=ca", "-keyout", "ca.key", "-out", "ca.pem")
    for name, also in (("switch", "IP:127.0.0.1"), ("client", "URI:spiffe://lab/client")):
        run("-CA", "ca.pem", "-CAkey", "ca.key", "-subj", f"/CN={name}", "-addext",
            f"subjectAltName={also}", "-addext", "basicConstraints=critical,CA:false",
            "-keyout", f"{name}.key", "-out", f"{name}.pem")


class Place:
    """Where the switch listens, and the files of a client."""

    def __init__(self, port, monitoring, folder):
        self.port = port
        self.monitoring = monitoring  # its port
        self.folder = folder

    def connected(self):
        return socket.create_connection(("127.0.0.1", self.port))

    def connected_to_monitoring(self, own, timeout):
        """From the address `own`."""
        return socket.create_connection(("127.0.0.1", self.monitoring), timeout=timeout,
                                        source_address=(own, 0))

    def context(self):
        context = ssl.create_default_context(cafile=self.folder / "ca.pem")
        context.load_cert_chain(self.folder / "client.pem", self.folder / "client.key")
        context.set_alpn_protocols(["h2"])
        return context

    def channel(self):
        def read(name):
            return (self.folder / name).read_bytes()
        credentials = grpc.ssl_channel_credentials(read("ca.pem"), read("client.key"),
                                                   read("client.pem"))
        return grpc.secure_channel(f"127.0.0.1:{self.port}", credentials,
                                   options=LOOSE + [("grpc.use_local_subchannel_pool", 1)])


def hold_connections(place, count=1000):
    """Each has done its handshake, and says no more."""
    context = place.context()
    held = []
    for _ in range(count):
        connection = context.wrap_socket(place.connected(), server_hostname="127.0.0.1")
        connection.sendall(PREFACE)
        held.append(connection)
    yield f"{count} connections"
    time.sleep(3600)


def hold_half_handshakes(place, count=1000):
    """As many as the server takes, for as long as it lets them; then the next ones."""
    held = []
    began = False
    while True:
        while len(held) < count:
            connection = place.connected()
            connection.sendall(HELLO)
            connection.setblocking(False)
            held.append(connection)
        if not began:
            yield f"{count} half handshakes"
            began = True
        time.sleep(0.2)
        held = [one for one in held if is_open(one)]


def hold_monitoring(place, count=12):
    """As many half handshakes of each address as the monitoring takes, again and again."""
    held = []
    began = False
    while True:
        held = [(own, one) for own, one in held if is_open(one)]
        try:
            for own in HOLDERS:
                for _ in range(count - sum(1 for other, _ in held if other == own)):
                    connection = place.connected_to_monitoring(own, timeout=0.5)
                    connection.sendall(HELLO)
                    connection.setblocking(False)
                    held.append((own, connection))
        except OSError:
            pass  # it takes no more for now
        if not began:
            yield f"{len(HOLDERS)} addresses that hold the monitoring"
            began = True
        time.sleep(0.2)


def scrape(place):
    """Seconds for a scrape on a connection of its own; 0 when there was no answer."""
    context = place.context()
    context.set_alpn_protocols(["http/1.1"])
    began = time.monotonic()
    try:
        with context.wrap_socket(place.connected_to_monitoring(SCRAPER, 15),
                                 server_hostname="127.0.0.1") as connection:
            connection.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            answer = b""
            while piece := connection.recv(1 << 16):
                answer += piece
    except OSError:
        return 0
    return time.monotonic() - began if answer.startswith(b"HTTP/1.1 200") else 0


def scrapes_text(place, count=5):
    times = [scrape(place) for _ in range(count)]
    answered = [one * 1000 for one in times if one > 0]
    if not answered:
        return f"no scrape of {count} was answered"
    return (f"{len(answered)} of {count} scrapes answered, in {statistics.median(answered):.0f} ms,"
            f" {max(answered):.0f} ms at most")


def is_open(connection):
    try:
        if connection.recv(1, socket.MSG_PEEK):
            return True
    except BlockingIOError:
        return True
    except OSError:
        pass
    connection.close()
    return False


def knock(place):
    """One broken handshake after the other."""
    yield "broken handshakes, without a pause"
    while True:
        with place.connected() as connection:
            connection.sendall(b"no TLS at all\r\n\r\n")
            try:
                connection.recv(1)
            except OSError:
                pass


def control(place, count=64):
    """Controllers in roles of their own, each of which writes twice a second."""
    stubs = []
    streams = []
    for number in range(count):
        stub = p4runtime_pb2_grpc.P4RuntimeStub(place.channel())
        update = p4runtime_pb2.StreamMessageRequest()
        update.arbitration.device_id = 1
        update.arbitration.role.name = f"role-{number}"
        update.arbitration.election_id.low = 1
        streams.append(stub.StreamChannel(endless(update)))
        next(streams[-1])
        stubs.append(stub)
    yield f"{count} controllers"
    request = Client("127.0.0.1:1", 1).write_of(MODIFY, 1, 5, 1, 9)
    while True:
        for number, stub in enumerate(stubs):
            request.role = f"role-{number}"
            stub.Write(request)
            time.sleep(0.5 / count)


def endless(first):
    yield first
    time.sleep(3600)


def read_nothing(place, count=64):
    """Reads of all entries, and none of their responses is taken."""
    request = p4runtime_pb2.ReadRequest(device_id=1)
    request.entities.add().table_entry.table_id = 0
    calls = []
    for _ in range(count):
        channel = grpc.secure_channel(
            f"127.0.0.1:{place.port}",
            grpc.ssl_channel_credentials(*[(place.folder / name).read_bytes()
                                           for name in ("ca.pem", "client.key", "client.pem")]),
            options=[("grpc.http2.bdp_probe", 0), ("grpc.use_local_subchannel_pool", 1)])
        calls.append(p4runtime_pb2_grpc.P4RuntimeStub(channel).Read(request))
    yield f"{count} readers that take nothing"
    time.sleep(3600)


def crowd_main(crowd, place, ready):
    for name in crowd(place):
        ready.put(name)


class Crowd:
    """Runs in a process of its own for the length of a `with`."""

    def __init__(self, crowd, place):
        self._ready = multiprocessing.get_context("spawn").Queue()
        self._process = multiprocessing.get_context("spawn").Process(
            target=crowd_main, args=(crowd, place, self._ready), daemon=True)

    def __enter__(self):
        self._process.start()
        return self._ready.get(timeout=120)

    def __exit__(self, *_):
        self._process.kill()
        self._process.join()


class Growth:
    """The size of the agent."""

    def __init__(self, switch, pid):
        self._state = switch.state
        self._proc = pathlib.Path(f"/proc/{pid}")

    def __str__(self):
        status = dict(line.split(":", 1) for line in (self._proc / "status").read_text().split("\n")
                      if ":" in line)
        logs = sum(path.stat().st_size for path in self._state.glob("accounts*"))
        return (f"{int(status['VmRSS'].split()[0]) // 1024} MiB, {status['Threads'].strip()} threads,"
                f" {len(os.listdir(self._proc / 'fd'))} descriptors, {logs // 1024} KiB of log")


def rates(client, seconds):
    """Updates a second, in batches of 100 and one by one."""
    found = []
    for batch in (100, 1):
        requests = [client.write_of(MODIFY, 0, batch * index, batch, index % 7 + 1)
                    for index in range(5)]
        began = time.monotonic()
        done = 0
        while time.monotonic() - began < seconds / 2:
            client.stub.Write(requests[done % 5], timeout=60)
            done += 1
        found.append(done * batch / (time.monotonic() - began))
    return found


CROWDS = (control, hold_connections, hold_half_handshakes, read_nothing, knock, hold_monitoring)


def measure(client, place, growth, seconds, crowds):
    rates(client, seconds)  # warms up
    quiet = rates(client, seconds)
    print(f"quiet: {quiet[0]:.0f} updates/s in batches of 100, {quiet[1]:.0f} one by one; {growth}",
          flush=True)
    print(f"quiet: {scrapes_text(place)}", flush=True)
    for crowd in crowds:
        scrapes = ""
        with Crowd(crowd, place) as name:
            crowded = rates(client, seconds)
            size = str(growth)
            if crowd is hold_monitoring:
                scrapes = "; " + scrapes_text(place)
        time.sleep(1)
        after = rates(client, seconds)
        shares = [2 * crowded[i] / (quiet[i] + after[i]) for i in range(2)]
        print(f"{name}: {shares[0]:.2f} in batches of 100, {shares[1]:.2f} one by one; {size}"
              f"{scrapes}",
              flush=True)
        quiet = after
    time.sleep(12)
    print(f"afterwards: {growth}")


def start(programs, folder, monitoring):
    make_certificates(folder)
    switch = Switch(programs, folder)
    switch.write_configuration()
    path = folder / "agent.json"
    configuration = json.loads(path.read_text())
    configuration["p4runtime/config/system"]["forwardingPipelineConfigFilePath"] = ""
    configuration["p4runtime/config/security"] = {
        "certificate": str(folder / "switch.pem"), "key": str(folder / "switch.key"),
        "clientCa": str(folder / "ca.pem"), "unixSocket": str(folder / "p4rt.sock")}
    configuration["p4runtime/config/monitoring"] = {"address": f"0.0.0.0:{monitoring}"}
    path.write_text(json.dumps(configuration))
    return switch


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=4, help="of each turn")
    parser.add_argument("--crowd", action="append", choices=[one.__name__ for one in CROWDS],
                        help="only this one; may be repeated")
    parser.add_argument("--programs", type=pathlib.Path, default=REPOSITORY / "build/default/bin")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir="/dev/shm") as name:
        folder = pathlib.Path(name)
        monitoring = free_port()
        switch = start(options.programs, folder, monitoring)
        try:
            switch.start_agent()
            switch.start_forwarder()
            client = Client(f"unix:{folder}/p4rt.sock", 1)
            wait_until(client.become_primary, "a stream", *switch.processes())
            client.push(program(ENTRIES), PUSH)
            fill(client, ENTRIES)
            growth = Growth(switch, switch.agent.pid)
            measure(client, Place(switch.port, monitoring, folder), growth, options.seconds,
                    [one for one in CROWDS if one.__name__ in (options.crowd or [one.__name__])])
            client.close()
        finally:
            for process in switch.processes():
                process.end(signal.SIGTERM)


if __name__ == "__main__":
    main()
