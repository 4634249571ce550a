"""Hosts and switches in network namespaces, with no more than iproute2 and util-linux.

PlainNet has the part of Mininet's interface that small topologies need; so a topology can be
written once and built with either.
"""

import os
import shutil
import subprocess
import sys

from korvel_switch import KorvelProcess

IN_OWN_NETWORK = "KORVEL_PLAIN_NETWORK"  # set in the environment once we are there


class NetworkError(RuntimeError):
    """A device or an address could not be made."""


def run(*words):
    done = subprocess.run(words, capture_output=True, text=True, check=False)
    if done.returncode:
        raise NetworkError(f"{' '.join(words)}: {done.stderr.strip()}")
    return done.stdout


def ip(*words):
    return run("ip", *words)


def _works(unshare):
    """Whether a network of our own may have devices, and networks of hosts."""
    try:
        attempt = subprocess.run(
            [*unshare, "sh", "-c",
             "ip link add wire0 type veth peer name wire1 && unshare --net true"],
            capture_output=True, check=False)
        return attempt.returncode == 0
    except OSError:
        return False


def enter():
    """Starts this program over in a network namespace of its own, so that it meets nobody's
    devices; as root, or else as root of a user namespace. Returns "" when it is there, or why it
    cannot be."""
    if IN_OWN_NETWORK in os.environ:
        ip("link", "set", "lo", "up")
        return ""
    for command, package in (("unshare", "util-linux"), ("ip", "iproute2")):
        if not shutil.which(command):
            return f"the command {command} is missing (Debian: {package})"
    for unshare in (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"]):
        if _works(unshare):
            os.environ[IN_OWN_NETWORK] = "1"
            sys.stdout.flush()
            os.execvp(unshare[0], [*unshare, sys.executable, *sys.argv])
    return "this machine lets us make no network devices (CAP_NET_ADMIN, or user namespaces)"


def taps_work():
    """A switch needs one for its CPU port; containers often have no /dev/net/tun."""
    probe = ("dev", "korvelprobe", "mode", "tap")
    if subprocess.run(["ip", "tuntap", "add", *probe], capture_output=True,
                      check=False).returncode:
        return False
    ip("tuntap", "del", *probe)
    return True


def popen_dying_with_us(command, **options):
    """Even if this program is killed, nothing stays behind."""
    setpriv = shutil.which("setpriv")
    dying = [setpriv, "--pdeathsig", "TERM"] if setpriv else []
    return subprocess.Popen([*dying, *command], **options)


class PlainHost:
    """A network namespace, which lasts as long as a process that sleeps in it."""

    def __init__(self, name, ip, mac=None, defaultRoute=None):  # as Mininet spells it
        self.name = name
        self.device = f"{name}-eth0"
        self._address = ip
        self._mac = mac
        self._default_route = defaultRoute
        self._sleeper = subprocess.Popen(
            ["unshare", "--net", "sh", "-c", "echo; exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._sleeper.stdout.readline()  # it is in its namespace
        self.pid = self._sleeper.pid

    def IP(self):
        return self._address.partition("/")[0]

    def _inside(self, command):
        return ["nsenter", f"--net=/proc/{self.pid}/ns/net", *command]

    def popen(self, command, **options):
        return subprocess.Popen(self._inside(command), **options)

    def cmd(self, command):
        """The output of a shell's command, whatever its status."""
        return subprocess.run(self._inside(["sh", "-c", command]), text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout

    def plug_in(self, device):
        """Takes the end of a cable."""
        ip("link", "set", device, "netns", str(self.pid))
        self._ip("link", "set", "lo", "up")
        self._ip("link", "set", device, "name", self.device, "addrgenmode", "none")  # IPv4 alone
        if self._mac:
            self._ip("link", "set", self.device, "address", self._mac)
        self._ip("addr", "add", self._address, "dev", self.device)
        self._ip("link", "set", self.device, "up")
        if self._default_route:
            self._ip("route", "add", "default", *self._default_route.split())

    def neighbor_is(self, address, mac):
        """It need not ask for the address, now or later."""
        self._ip("neigh", "replace", address, "dev", self.device, "lladdr", mac,
                 "nud", "permanent")

    def _ip(self, *words):
        run(*self._inside(["ip", *words]))

    def stop(self):
        self._sleeper.communicate()  # the end of its input ends `cat`, and so the namespace


class PlainSwitch:
    """A `korvel switch` on devices of our own network namespace."""

    def __init__(self, name, **options):
        self.name = name
        self.devices = {}  # by P4 port
        self.korvel = KorvelProcess(name, **options)

    def plug_in(self, device, port):
        self.devices[port] = device
        ip("link", "set", device, "addrgenmode", "none")  # the kernel itself is to send nothing
        ip("link", "set", device, "up")

    def start(self):
        self.korvel.start(self.devices, popen_dying_with_us)

    def stop(self):
        self.korvel.stop()


class PlainNet:
    """Ends all that it has made in stop()."""

    def __init__(self):
        self.hosts = []
        self.switches = []
        self._cables = []

    def addHost(self, name, **options):
        self.hosts.append(PlainHost(name, **options))
        return self.hosts[-1]

    def addSwitch(self, name, **options):
        self.switches.append(PlainSwitch(name, **options))
        return self.switches[-1]

    def addLink(self, one, other, port1=0, port2=0):
        """A port number counts for a switch only."""
        devices = []
        for node, port in ((one, port1), (other, port2)):
            suffix = "-host" if isinstance(node, PlainHost) else f"-eth{port}"
            devices.append(f"{node.name}{suffix}")
        ip("link", "add", devices[0], "type", "veth", "peer", "name", devices[1])
        self._cables.append(devices[0])
        for node, port, device in ((one, port1, devices[0]), (other, port2, devices[1])):
            if isinstance(node, PlainHost):
                node.plug_in(device)
            else:
                node.plug_in(device, port)

    def start(self):
        for switch in self.switches:
            switch.start()
        for switch in self.switches:
            switch.korvel.wait_until_served()

    def stop(self):
        for node in self.switches + self.hosts:
            node.stop()
        for cable in self._cables:
            subprocess.run(["ip", "link", "del", cable], capture_output=True, check=False)
