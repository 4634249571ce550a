"""The demo's wires: a network of its own, with a cable at each of the switch's ports."""

import os
import shutil
import socket
import subprocess
import sys

from stage import expect

IN_OWN_NETWORK = "KORVEL_DEMO_NETWORK"  # set in the environment once we are there
ETH_P_ALL = 3
CPU_DEVICE = "p4controller"
# What the forwarding agent says of why it punts a packet; any number would do.
PUNT_REASON = 1


def _ip(*words):
    return subprocess.run(["ip", *words], capture_output=True, text=True, check=False)


def _works(unshare):
    """Whether a network of our own may have devices like those we need."""
    try:
        attempt = subprocess.run([*unshare, "ip", "link", "add", "port1", "type", "veth", "peer",
                                  "name", "host1"], capture_output=True, check=False)
        return attempt.returncode == 0
    except OSError:
        return False


def enter():
    """Starts this program anew in a network namespace of its own, so that it meets nobody's
    devices; as root, or else as root of a user namespace. Returns "" when it is there, or why it
    cannot be."""
    if IN_OWN_NETWORK in os.environ:
        _ip("link", "set", "lo", "up")
        return ""
    if not shutil.which("unshare") or not shutil.which("ip"):
        return "the commands unshare and ip are missing (Debian: util-linux, iproute2)"
    for unshare in (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"]):
        if _works(unshare):
            os.environ[IN_OWN_NETWORK] = "1"
            sys.stdout.flush()
            os.execvp(unshare[0], [*unshare, sys.executable, *sys.argv])
    return "this machine lets us make no network devices (CAP_NET_ADMIN, or user namespaces)"


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
    probe = _ip("tuntap", "add", "korvelprobe", "mode", "tap")
    if probe.returncode == 0:
        _ip("tuntap", "del", "korvelprobe", "mode", "tap")
        return ["--create-cpu-device"], []
    other_end = "p4cpu"
    made = _ip("link", "add", CPU_DEVICE, "mtu", "9200", "type", "veth",
               "peer", "name", other_end, "mtu", "9200")
    expect(made.returncode == 0, f"no device {CPU_DEVICE}: {made.stderr.strip()}")
    for end in (CPU_DEVICE, other_end):
        _ip("link", "set", end, "addrgenmode", "none")  # the kernel itself is to send nothing
        _ip("link", "set", end, "up")
    return [], ["--punt-device", other_end]
