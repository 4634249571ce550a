"""A Mininet switch that runs `korvel switch`: copy this file beside your topology.

    from mininet.net import Mininet
    from korvel_switch import KorvelSwitch

    net = Mininet(switch=KorvelSwitch, controller=None)
    s1 = net.addSwitch("s1", device_id=1, grpc_port=50051, json="router.json")

A switch's P4 ports are Mininet's port numbers, so a switch's first link is port 1. Its P4Runtime
server listens on 127.0.0.1, in the switch's network namespace.

Without Mininet, plain_net.py runs the same switch in plain network namespaces.
"""

import signal
import socket
import subprocess
import time

START_SECONDS = 60  # until controllers can connect
FIRST_GRPC_PORT = 50051  # of device 1; each further device has the next


class KorvelProcess:
    """One `korvel switch`; no Mininet is needed for it. Options that are None are left out."""

    def __init__(self, name, *, device_id=1, grpc_port=None, cpu_port=510, json=None, pcap=None,
                 program="korvel", state_dir=None, log=None, options=()):
        self.name = name
        self.device_id = device_id
        self.grpc_port = grpc_port or FIRST_GRPC_PORT + device_id - 1
        self.cpu_port = cpu_port
        self.json = json  # compiled P4; without it, a controller pushes the program
        self.pcap = pcap  # a folder for the packets of each port
        self.program = program
        self.state_dir = state_dir
        self.log = log or f"/tmp/korvel-{name}.log"
        self.options = options  # further ones, as they are
        self._process = None

    @property
    def server(self):
        return f"127.0.0.1:{self.grpc_port}"

    def command(self, interfaces):
        """`interfaces` is {P4 port: device}."""
        command = [self.program, "switch", "--device-id", self.device_id,
                   "--grpc-server-addr", self.server]
        for port, device in sorted(interfaces.items()):
            command += ["-i", f"{port}@{device}"]
        for option, value in (("--cpu-port", self.cpu_port), ("--pcap", self.pcap),
                              ("--state-dir", self.state_dir)):
            if value is not None:
                command += [option, value]
        command += [*self.options, self.json or "--no-p4"]
        return [str(word) for word in command]

    def start(self, interfaces, popen=subprocess.Popen):
        with open(self.log, "wb") as log:
            self._process = popen(self.command(interfaces), stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT)

    @property
    def pid(self):
        return self._process.pid

    def alive(self):
        return self._process is not None and self._process.poll() is None

    def wait_until_served(self):
        """Until controllers can connect; for a switch in our own network namespace."""
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            if not self.alive():
                raise RuntimeError(f"{self.name} has ended: {self.last_words()}")
            try:
                socket.create_connection(("127.0.0.1", self.grpc_port), timeout=1).close()
                return
            except OSError:
                time.sleep(0.1)
        raise RuntimeError(f"{self.name} serves no controllers: {self.last_words()}")

    def last_words(self, lines=15):
        with open(self.log, errors="replace", encoding="utf-8") as log:
            return "".join(log.readlines()[-lines:]).strip()

    def stop(self):
        if self._process is None:
            return
        if self.alive():
            self._process.send_signal(signal.SIGINT)
        try:
            self._process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._process = None


try:
    from mininet.node import Switch
except ImportError:
    Switch = None

if Switch is not None:
    class KorvelSwitch(Switch):
        """Parameters beside Mininet's own are those of KorvelProcess. Without `device_id`, s1 is
        device 1, s2 device 2."""

        OPTIONS = ("grpc_port", "cpu_port", "json", "pcap", "program", "state_dir", "log",
                   "options")

        def __init__(self, name, device_id=None, **params):
            options = {option: params.pop(option) for option in self.OPTIONS if option in params}
            Switch.__init__(self, name, **params)
            self.korvel = KorvelProcess(name, device_id=device_id or int(self.dpid, 16), **options)

        def start(self, controllers):
            """`controllers` are OpenFlow's; P4Runtime controllers connect by themselves."""
            wires = {port: interface for port, interface in self.intfs.items()
                     if interface.name != "lo"}
            for interface in wires.values():  # the kernel itself is to send nothing there
                self.cmd(f"ip link set {interface.name} addrgenmode none")
            self.korvel.start({port: interface.name for port, interface in wires.items()},
                              self.popen)
            if not self.inNamespace:
                self.korvel.wait_until_served()

        def stop(self, deleteIntfs=True):
            self.korvel.stop()
            Switch.stop(self, deleteIntfs)
