#!/usr/bin/python3
"""Two routers and three hosts, who ping each other; with Mininet or without.

    h1 10.0.1.1 --1 s1 3-----3 s2 1-- h3 10.0.3.1
    h2 10.0.2.1 --2

    sudo ./two_switches.py               # in plain network namespaces; often works without sudo
    sudo ./two_switches.py --mininet     # in Mininet; --stay opens its command line
    ./two_switches.py --stay             # goes on until Enter; then look around

Both switches run the program of examples/router; its controller here writes the routes and answers
ARP. Exit status 0: all pings came back; 77: this machine lets us make no network.
"""

import argparse
import json
import os
import pathlib
import shutil
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
ROUTER = HERE.parent / "router"
BUILT = HERE.parents[1] / "build" / "default"
sys.path[:0] = [str(HERE), str(ROUTER)]
if BUILT.exists():  # else this is an installation
    os.environ.setdefault("KORVEL_STUBS_DIR", str(BUILT / "python"))

import plain_net  # noqa: E402
import router_program  # noqa: E402
from arp import ArpResponder  # noqa: E402
from controller import Controller, ControllerError  # noqa: E402
from routes import Neighbor, routing_entries  # noqa: E402

HOSTS = {1: ("s1", 1), 2: ("s1", 2), 3: ("s2", 1)}  # host number: its switch and port there
TRUNK = 3  # port of either switch
SWITCHES = {"s1": 1, "s2": 2}  # device ids
SKIPPED = 77


def host_mac(number):
    return f"02:00:00:00:01:{number:02x}"


def port_mac(switch, port):
    return f"02:00:00:00:{0x10 + SWITCHES[switch]:02x}:{port:02x}"


def build(net, switch_options):
    """Works with Mininet and with PlainNet."""
    switches = {name: net.addSwitch(name, device_id=device, grpc_port=50050 + device,
                                    **switch_options(name))
                for name, device in SWITCHES.items()}
    hosts = {}
    for number, (switch, port) in HOSTS.items():
        hosts[number] = net.addHost(f"h{number}", ip=f"10.0.{number}.1/24", mac=host_mac(number),
                                    defaultRoute=f"via 10.0.{number}.254")
        net.addLink(hosts[number], switches[switch], port1=0, port2=port)
    net.addLink(switches["s1"], switches["s2"], port1=TRUNK, port2=TRUNK)
    return hosts, switches


def entries_of(switch):
    """Hosts of the switch itself are its neighbors; the others are behind the other switch."""
    other = next(name for name in SWITCHES if name != switch)
    trunk = 100
    neighbors = {trunk: Neighbor(TRUNK, port_mac(other, TRUNK), port_mac(switch, TRUNK))}
    routes = {}
    for number, (at, port) in HOSTS.items():
        if at == switch:
            neighbors[number] = Neighbor(port, host_mac(number), port_mac(switch, port))
        routes[f"10.0.{number}.0/24"] = number if at == switch else trunk
    return routing_entries(neighbors, routes)


def gateways_of(switch):
    return {port: (port_mac(switch, port), f"10.0.{number}.254")
            for number, (at, port) in HOSTS.items() if at == switch}


def control(switch):
    """The controller of a switch: its pipeline, its entries and an answer to its hosts' ARP."""
    controller = Controller(switch.korvel.server, device_id=switch.korvel.device_id)
    if not controller.connected(30):
        raise ControllerError(f"{switch.name} does not answer: {switch.korvel.last_words()}")
    controller.become_primary()
    controller.push((ROUTER / "router.p4info.txtpb").read_text(),
                    json.dumps(router_program.compiled()).encode())
    controller.insert(*entries_of(switch.name))
    ArpResponder(controller, gateways_of(switch.name))
    return controller


def ping_all(hosts):
    """Returns how many pings were not answered."""
    failed = 0
    for number, host in hosts.items():
        for other in hosts:
            if other != number:
                said = host.cmd(f"{sys.executable} {HERE / 'traffic.py'} ping 10.0.{other}.1")
                print(f"h{number} -> h{other}: {said.strip()}", flush=True)
                failed += "3 of 3" not in said
    return failed


def arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--mininet", action="store_true", help="Debian's package mininet")
    parser.add_argument("--stay", action="store_true", help="after the pings")
    parser.add_argument("--build-dir", type=pathlib.Path, default=BUILT,
                        help="where Korvel was built; else korvel is looked for in the PATH")
    return parser.parse_args()


def program_in(build):
    for folder in (build / "bin", build):
        if (folder / "korvel").exists():
            return folder / "korvel"
    return shutil.which("korvel") or sys.exit("no korvel; run ./dev build first")


def mininet_net():
    from korvel_switch import KorvelSwitch
    from mininet.net import Mininet
    return Mininet(switch=KorvelSwitch, controller=None)


def stay(net, with_mininet):
    if with_mininet:
        from mininet.cli import CLI
        CLI(net)
    else:
        for host in net.hosts:
            print(f"{host.name}: nsenter --net=/proc/{host.pid}/ns/net")
        input("Enter ends it. ")


def play(options, folder):
    def switch_options(name):
        return {"program": program, "state_dir": f"{folder}/{name}", "log": f"{folder}/{name}.log"}

    program = program_in(options.build_dir.resolve())
    if not plain_net.taps_work():
        print("two_switches: this machine lets us make no TAP devices, for packets to controllers")
        return SKIPPED
    net = mininet_net() if options.mininet else plain_net.PlainNet()
    controllers = []
    try:
        hosts, switches = build(net, switch_options)
        net.start()
        controllers = [control(switch) for switch in switches.values()]
        failed = ping_all(hosts)
        if failed:
            for switch in switches.values():
                print(f"-- last words of {switch.name}:\n{switch.korvel.last_words()}")
        if options.stay:
            stay(net, options.mininet)
        return 1 if failed else 0
    finally:
        for controller in controllers:
            controller.close()
        net.stop()


def main():
    options = arguments()
    trouble = "" if options.mininet else plain_net.enter()
    if trouble:
        print(f"two_switches: {trouble}")
        return SKIPPED
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="korvel-net-", dir=memory) as folder:
        try:
            return play(options, folder)
        except (ControllerError, RuntimeError, OSError) as error:
            print(f"two_switches: {error}", file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())
