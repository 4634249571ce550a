"""The demo's wires: a network of its own, with a cable at each of the switch's ports."""

import socket
import subprocess
import sys

from stage import HERE, expect

MININET = HERE.parent / "mininet"
sys.path.insert(0, str(MININET))

from plain_net import (NetworkError, PlainNet, enter,  # noqa: E402, F401  (others use them)
                       taps_work)

ETH_P_ALL = 3
CPU_DEVICE = "p4controller"
# What the forwarding agent says of why it punts a packet; any number would do.
PUNT_REASON = 1


def _ip(*words):
    return subprocess.run(["ip", *words], capture_output=True, text=True, check=False)


class Cable:
    """A veth pair: one end is a port of the switch, at the other we are."""

    def __init__(self, port, host):
        self.port = port
        self.host = host
        made = _ip("link", "add", port, "mtu", "9100", "type", "veth",
                   "peer", "name", host, "mtu", "9100")
        expect(made.returncode == 0, f"no cable from {port} to {host}: {made.stderr.strip()}")
        for end in (port, host):
            _ip("link", "set", end, "up")
        self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self._socket.bind((host, ETH_P_ALL))

    def send(self, packet):
        """Into the switch's port."""
        self._socket.send(packet)

    def carried(self, packet, seconds=10):
        """Whether this very packet comes out of the switch's port; others are passed over."""
        self._socket.settimeout(seconds)
        try:
            while True:
                data, (_, _, kind, *_) = self._socket.recvfrom(16384)
                if data == packet and kind != socket.PACKET_OUTGOING:
                    return True
        except TimeoutError:
            return False

    def close(self):
        self._socket.close()


def make_cpu_device():
    """What to tell agent and forwarder about the device between them: a TAP that the agent makes,
    or, where there are none, a veth pair of ours."""
    if taps_work():
        return ["--create-cpu-device"], []
    other_end = "p4cpu"
    made = _ip("link", "add", CPU_DEVICE, "mtu", "9200", "type", "veth",
               "peer", "name", other_end, "mtu", "9200")
    expect(made.returncode == 0, f"no device {CPU_DEVICE}: {made.stderr.strip()}")
    for end in (CPU_DEVICE, other_end):
        _ip("link", "set", end, "addrgenmode", "none")  # the kernel itself is to send nothing
        _ip("link", "set", end, "up")
    return [], ["--punt-device", other_end]
