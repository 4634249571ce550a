"""The demo's chapter in which the router forwards: hosts behind `korvel switch`."""

import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import router_program
from arp import ArpResponder
from controller import Controller, ControllerError
from entries import Entry, Meter
from network import MININET, PlainNet, taps_work
from routes import Neighbor, routing_entries
from stage import HERE, DemoError, command_text, expect, free_port, step, tell, wait_until

HOSTS = (1, 2, 3)  # host 2 has the address 10.0.2.1 and is at port 2
DEVICE_ID = 7
CPU_PORT = 510
KILLS = 10
SECONDS_UP = 1.1  # the switch starts at once what has run so long; else it waits longer each time
STREAM_PORT, METERED_PORT, TRANSFER_PORT = 5001, 5002, 5003
RATE = 1000  # datagrams a second
PAYLOAD = 200
FRAME = 14 + 20 + 8 + PAYLOAD  # bytes on the wire, as counters and meters see them
TRAFFIC = MININET / "traffic.py"


def host_mac(number):
    return f"02:00:00:00:01:{number:02x}"


def port_mac(number):
    return f"02:00:00:00:10:{number:02x}"


def gateways():
    return {number: (port_mac(number), f"10.0.{number}.254") for number in HOSTS}


def route_to(number):
    return Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": f"10.0.{number}.0/24"})


class Stream:
    """Numbered datagrams from one host to another, until end()."""

    def __init__(self, sender, receiver, port, count=sys.maxsize):
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
        self._receiver = receiver.popen([sys.executable, TRAFFIC, "receive", str(port)], **pipes)
        self._receiver.stdout.readline()  # it listens
        self._sender = sender.popen(
            [sys.executable, TRAFFIC, "send", receiver.IP(), str(port), "--rate", str(RATE),
             "--bytes", str(PAYLOAD), "--count", str(count)], **pipes)

    def flows(self):
        return self._sender.poll() is None and self._receiver.poll() is None

    def wait(self):
        self._sender.wait(timeout=60)

    def end(self):
        """What was sent, and what the receiver says."""
        said = [process.communicate(timeout=60)[0] for process in (self._sender, self._receiver)]
        return json.loads(said[0])["sent"], json.loads(said[1])

    def close(self):
        for process in (self._sender, self._receiver):
            if process.poll() is None:
                process.kill()
                process.wait()


class ForwardingStory:
    def __init__(self, programs, folder):
        self._programs = programs
        self._state = folder / "forwarding"
        self._log = folder / "switch.log"
        self._net = PlainNet()
        self._controller = None
        self._election_id = 0
        self._switch = None
        self._hosts = {}
        self._stream = None
        self._has_cpu_port = taps_work()

    def run(self):
        try:
            self.start()
            self.push()
            self.ping()
            self.trace()
            self.transfer()
            self.agent_dies()
            self.meter()
            self.forwarder_dies()
        except (DemoError, ControllerError, OSError, RuntimeError,
                subprocess.SubprocessError) as error:
            raise DemoError(f"{error}\n-- last words of korvel switch:\n{self._last_words()}"
                            ) from error

    def close(self):
        if self._stream:
            self._stream.close()
        if self._controller:
            self._controller.close()
        self._net.stop()

    def _last_words(self):
        try:
            return "\n".join(self._log.read_text(errors="replace").splitlines()[-20:])
        except OSError:
            return "(it has not been started)"

    def start(self):
        step("A switch that forwards: agent and forwarding agent in one command, and three hosts")
        self._switch = self._net.addSwitch(
            "r1", device_id=DEVICE_ID, grpc_port=free_port(), state_dir=self._state,
            cpu_port=CPU_PORT if self._has_cpu_port else None, log=self._log,
            program=self._programs / "korvel")
        for number in HOSTS:
            self._hosts[number] = self._net.addHost(
                f"h{number}", ip=f"10.0.{number}.1/24", mac=host_mac(number),
                defaultRoute=f"via 10.0.{number}.254")
            self._net.addLink(self._hosts[number], self._switch, port2=number)
        self._net.start()
        command = self._switch.korvel.command(self._switch.devices)
        tell("$ " + " ".join(["korvel", *command[1:]]).replace(f"{self._state.parent}/", "") + " &")

    def _connect(self):
        """As primary, with an answer to the hosts' ARP."""
        if self._controller:
            self._controller.close()
        self._election_id += 1
        self._controller = Controller(self._switch.korvel.server, DEVICE_ID, self._election_id)
        wait_until(lambda: self._controller.connected(1), "P4Runtime server", self._switch.korvel)
        self._controller.become_primary()
        if self._has_cpu_port:
            ArpResponder(self._controller, gateways())

    def push(self):
        step("Push the P4Info and the compiled program of router_program.py; write routes")
        self._connect()
        program = json.dumps(router_program.compiled()).encode()
        self._controller.push((HERE / "router.p4info.txtpb").read_text(), program)
        neighbors = {number: Neighbor(number, host_mac(number), port_mac(number))
                     for number in HOSTS}
        routes = {f"10.0.{number}.0/24": number for number in HOSTS}
        entries = routing_entries(neighbors, routes)
        self._controller.insert(*entries)
        tell(f"{len(program)} bytes of program, {len(entries)} entries:")
        for entry in self._controller.read("ipv4_route"):
            tell(entry)

    def ping(self):
        if self._has_cpu_port:
            step("Hosts ping each other; the controller answers their ARP by packet out")
        else:
            step("Hosts ping each other; they know the router's MAC addresses, since this machine"
                 " has no TAP devices for packets to controllers")
            self._tell_gateways()
        for number in HOSTS:
            for other in HOSTS:
                if other != number:
                    self._ping(number, other)
        self._tell_gateways()  # they would ask again now and then, also while the agent is away

    def _tell_gateways(self):
        for number, (mac, address) in gateways().items():
            self._hosts[number].neighbor_is(address, mac)

    def _ping(self, number, other):
        said = self._hosts[number].cmd(f"{sys.executable} {TRAFFIC} ping 10.0.{other}.1").strip()
        tell(f"h{number} -> h{other}: {said}")
        expect("3 of 3" in said, f"h{number} does not reach h{other}")

    def _tell_forwarder(self, *words):
        command = [self._programs / "korvel-forwarder", "ctl", "--state-dir", self._state, *words]
        tell(command_text(command, self._state.parent))
        done = subprocess.run(command, capture_output=True, text=True, timeout=30)
        expect(done.returncode == 0, f"it is refused: {done.stderr}")
        return done.stdout

    def trace(self):
        step("Trace a ping: parser states, tables, entries and actions that it meets")
        self._tell_forwarder("trace", "on", "1")
        self._hosts[1].cmd(f"{sys.executable} {TRAFFIC} ping --count 1 10.0.3.1")
        traced = self._tell_forwarder("trace")
        self._tell_forwarder("trace", "off")
        tell(traced.strip())
        for word in ("parse_ipv4", "ingress.ipv4_route", "ingress.set_dst_mac"):
            expect(word in traced, f"the trace does not tell of {word}")

    def transfer(self):
        step("h2 sends h1 twenty megabytes over TCP")
        taker = self._hosts[1].popen([sys.executable, TRAFFIC, "take", str(TRANSFER_PORT)],
                                     stdout=subprocess.PIPE, text=True)
        try:
            taker.stdout.readline()  # it listens
            said = self._hosts[2].cmd(f"{sys.executable} {TRAFFIC} give 10.0.1.1 {TRANSFER_PORT}")
            expect(said.startswith("{"), f"the transfer failed: {said}")
            given, taken = json.loads(said), json.loads(taker.communicate(timeout=60)[0])
        finally:
            taker.kill()
        tell(f"{taken['bytes']} bytes at {taken['megabits_per_second']} megabits a second")
        expect((given["bytes"], given["crc32"]) == (taken["bytes"], taken["crc32"]),
               f"they came changed: {given} and {taken}")

    def _child(self, name):
        """The process id of the agent or the forwarding agent of our switch."""
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                parent = int((folder / "stat").read_text().rpartition(")")[2].split()[1])
                command = (folder / "cmdline").read_bytes().split(b"\0")
            except OSError:  # it has ended
                continue
            words = [os.path.basename(word) for word in command[:2]]
            if parent == self._switch.korvel.pid and name.encode() in words:
                return int(folder.name)
        return None

    def _kill(self, name):
        old = self._child(name)
        expect(old, f"korvel switch has no child {name}")
        os.kill(old, signal.SIGKILL)
        wait_until(lambda: self._child(name) not in (None, old), f"new {name}",
                   self._switch.korvel)

    def agent_dies(self):
        step(f"h1 sends a stream to h3; the agent is killed {KILLS} times (SIGKILL) and started"
             " again")
        before = self._controller.count(route_to(3))
        entries = self._controller.read()
        begin = time.monotonic()
        self._stream = Stream(self._hosts[1], self._hosts[3], STREAM_PORT)
        for _ in range(KILLS):
            time.sleep(SECONDS_UP)
            self._kill("agent")
            self._connect()
            expect(self._controller.read() == entries, "the agent has lost entries")
            expect(self._stream.flows(), "the stream has ended")
        seconds = time.monotonic() - begin
        sent, received = self._stream.end()
        tell(f"{sent} datagrams sent in {seconds:.1f} s, {received['received']} received,"
             f" longest silence {received['longest_silence_ms']} ms; each time the controller found"
             f" its {len(entries)} entries")
        expect(received["received"] == sent and not received["missing"],
               f"datagrams were lost: sent {sent}, {received}")
        tell("not one is lost; the route's counter, read over P4Runtime:")

        def counted():
            count = self._controller.count(route_to(3))
            return count if count.packets - before.packets >= sent else None

        count = wait_until(counted, f"count of {sent} packets", self._switch.korvel)
        tell(f"{route_to(3)}: {count.packets - before.packets} packets,"
             f" {count.bytes - before.bytes} bytes of {FRAME} each")
        expect(count.packets - before.packets == sent, "it counts other packets")
        expect(count.bytes - before.bytes == sent * FRAME, "it counts other bytes")

    def meter(self):
        rate, burst, sent = 50000, 25000, 2 * RATE
        step(f"A meter: an access rule lets {rate} bytes a second pass, and bursts of {burst}")
        rule = Entry("acl", {"ip_protocol": 17, "l4_dst_port": METERED_PORT}, "acl_permit",
                     priority=10, meter=Meter(rate, burst, rate, burst))
        self._controller.insert(rule)
        begin = time.monotonic()
        self._stream = Stream(self._hosts[1], self._hosts[2], METERED_PORT, count=sent)
        self._stream.wait()
        seconds = time.monotonic() - begin
        sent, received = self._stream.end()
        came = received["received"]
        tell(f"{sent} datagrams of {FRAME} bytes in {seconds:.1f} s: {came} came through,"
             f" {sent - came} were above the rate")
        expect(came >= burst // FRAME, "the meter drops what is within the burst")
        expect(came * FRAME <= burst + rate * seconds, "the meter passes more than its rate")
        count = wait_until(lambda: self._all_counted(rule, sent), f"count of {sent} packets",
                           self._switch.korvel)
        tell(f"the rule has counted all of them: {count}")

    def _all_counted(self, rule, packets):
        count = self._controller.count(rule)
        return count if count.packets == packets else None

    def forwarder_dies(self):
        step("Kill the forwarding agent, too: it takes program and entries from shared memory")
        self._kill("korvel-forwarder")
        ping = f"{sys.executable} {TRAFFIC} ping --timeout 1 10.0.3.1"
        wait_until(lambda: "3 of 3" in self._hosts[1].cmd(ping), "ping through a new forwarder",
                   self._switch.korvel)
        self._ping(1, 3)
