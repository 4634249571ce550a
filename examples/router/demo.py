#!/usr/bin/python3
"""Shows what Korvel does, step by step, with the router pipeline; `./dev demo` runs it.

It starts an agent and a forwarding agent, becomes their controller, and checks at every step that
the switch did what was expected: the exit status is 0 only if all of it was right.
"""

import argparse
import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import textwrap
import time

HERE = pathlib.Path(__file__).resolve().parent
START_SECONDS = 30  # for a process to answer


class DemoError(Exception):
    """Something was not as expected."""


def step(text):
    print(f"\n== {text}", flush=True)


def tell(text):
    print(textwrap.indent(str(text), "   "), flush=True)


def expect(truth, text):
    if not truth:
        raise DemoError(text)


def command_text(command, folder):
    """As one would type it in the demo's folder."""
    words = [pathlib.Path(command[0]).name]
    words += [str(word).removeprefix(f"{folder}/") for word in command[1:]]
    return "$ " + " ".join(words)


def dying_with_us(command):
    """Even if the demo itself is killed, nothing stays behind."""
    setpriv = shutil.which("setpriv")
    return [setpriv, "--pdeathsig", "KILL", *command] if setpriv else command


class Process:
    """A program that runs beside us; its output goes to a file."""

    def __init__(self, name, command, log):
        self.name = name
        self.log = log
        with open(log, "ab") as output:
            self._process = subprocess.Popen(dying_with_us(command), stdout=output, stderr=output)

    def alive(self):
        return self._process.poll() is None

    def end(self, signal_number):
        if self.alive():
            self._process.send_signal(signal_number)
        try:
            self._process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def last_words(self):
        lines = pathlib.Path(self.log).read_text(errors="replace").splitlines()[-15:]
        return "\n".join(lines) or "(it printed nothing)"


def wait_until(done, what, *processes):
    """Asks again and again; gives up when time is up or one of the processes has ended."""
    deadline = time.monotonic() + START_SECONDS
    while True:
        try:
            result = done()
            if result:
                return result
            reason = ""
        except Exception as error:  # the switch is not up yet; the last reason is told
            reason = f": {error}"
        for process in processes:
            expect(process.alive(), f"the {process.name} ended while waiting for {what}")
        expect(time.monotonic() < deadline, f"no {what} after {START_SECONDS} seconds{reason}")
        time.sleep(0.05)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Switch:
    """Agent and forwarding agent, on a state directory of their own."""

    def __init__(self, programs, folder):
        self.folder = folder
        self.korvel = programs / "korvel"
        self.forwarder_program = programs / "korvel-forwarder"
        self.state = folder / "state"
        self.state.mkdir()
        self.port = free_port()
        self.agent = None
        self.forwarder = None

    @property
    def server(self):
        return f"127.0.0.1:{self.port}"

    def processes(self):
        return [process for process in (self.agent, self.forwarder) if process]

    def build_pipeline(self):
        for name in ("router.p4info.txtpb", "router.entries.json"):
            shutil.copy(HERE / name, self.folder)
        self.run([self.korvel, "pipeline", "build",
                  "--p4info", self.folder / "router.p4info.txtpb",
                  "--entries", self.folder / "router.entries.json",
                  "--device-id", "1", "-o", self.folder / "router.pb.bin"])
        self.run([self.korvel, "pipeline", "check", self.folder / "router.pb.bin"])

    def write_configuration(self):
        """agent.json with our port and places."""
        configuration = json.loads((HERE / "agent.json").read_text())
        configuration["p4runtime/config/system"].update(
            grpcServerPort=self.port,
            forwardingPipelineConfigFilePath=str(self.folder / "router.pb.bin"))
        configuration["p4runtime/config/agent"].update(
            p4InfoJsonPath=str(self.folder / "p4info.json"),
            deviceJsonPath=str(self.folder / "device.json"))
        (self.folder / "agent.json").write_text(json.dumps(configuration, indent=2))

    def start_agent(self):
        self.agent = self.start("agent", [self.korvel, "agent", "--config",
                                          self.folder / "agent.json", "--state-dir", self.state])

    def start_forwarder(self):
        self.forwarder = self.start("forwarding agent",
                                    [self.forwarder_program, "--state-dir", self.state])
        wait_until(lambda: self.tell_forwarder("stats", quiet=True) is not None,
                   "answer of the forwarding agent", self.forwarder)

    def tell_forwarder(self, *words, quiet=False):
        return self.run([self.forwarder_program, "ctl", "--state-dir", self.state, *words],
                        quiet=quiet)

    def start(self, name, command):
        tell(command_text(command, self.folder) + " &")
        return Process(name, command, self.folder / f"{name.replace(' ', '-')}.log")

    def run(self, command, quiet=False):
        spoken = command_text(command, self.folder)
        if not quiet:
            tell(spoken)
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
        expect(done.returncode == 0, f"{spoken} failed: {done.stderr.strip()}")
        said = (done.stdout + done.stderr).replace(f"{self.folder}/", "").strip()
        if not quiet and said:
            tell(said)
        return done.stdout

    def end(self):
        for process in (self.agent, self.forwarder):
            if process:
                process.end(signal.SIGTERM)


class Demo:
    """The story. Keeps what the switch ought to hold, and compares after every chapter."""

    def __init__(self, switch, controllers, entry):
        self.switch = switch
        self.new_controller = controllers
        self.entry = entry
        self.controller = None
        self.wanted = {}  # an entry's key -> the entry

    def run(self):
        self.start()
        self.connect(election_id=1)
        self.insert_entries()
        self.modify_and_delete()
        self.refusals()
        self.failure_in_hardware()
        self.crash_and_restart()
        step("Everything was as expected.")

    def start(self):
        step("Make the pipeline file: what a P4 compiler says of router.p4, and our constant entries")
        self.switch.build_pipeline()
        step("Start the agent, which serves P4Runtime, and the forwarding agent, which programs"
             " tables")
        self.switch.write_configuration()
        self.switch.start_agent()
        self.switch.start_forwarder()

    def connect(self, election_id):
        step(f"Become primary with election id {election_id}, and fetch the pipeline")
        if self.controller:
            self.controller.close()
        self.controller = self.new_controller(self.switch.server, election_id=election_id)
        wait_until(lambda: self.controller.read() is not None, "P4Runtime server with a pipeline",
                   *self.switch.processes())
        self.controller.become_primary()
        tables = [table.preamble.alias for table in self.controller.pipeline.p4info.tables]
        tell(f"primary on {self.switch.server}; tables: {', '.join(tables)}")

    # What the switch ought to hold.

    @staticmethod
    def key(entry):
        return entry.table, tuple(sorted(entry.match.items())), entry.priority

    def normal(self, entry):
        """As the switch will spell it."""
        pipeline = self.controller.pipeline
        return pipeline.entry(pipeline.table_entry(entry))

    def remember(self, *entries):
        for entry in map(self.normal, entries):
            self.wanted[self.key(entry)] = entry

    def forget(self, *entries):
        for entry in map(self.normal, entries):
            del self.wanted[self.key(entry)]

    def check_switch(self):
        """The controller's view against what we asked for, and the forwarding agent's count."""
        held = {self.key(entry): entry for entry in self.controller.read()}
        for key, entry in held.items():
            expect(self.wanted.get(key) == entry, f"the switch holds, against expectation: {entry}")
        for key, entry in self.wanted.items():
            expect(key in held, f"the switch lacks: {entry}")
        rows = [line for line in self.switch.tell_forwarder("dump", quiet=True).splitlines()
                if line.strip()]
        expect(len(rows) == len(self.wanted),
               f"the forwarding agent holds {len(rows)} rows, not {len(self.wanted)}:\n" +
               "\n".join(rows))
        tell(f"checked: controller and forwarding agent agree on all {len(held)} entries")

    # The chapters.

    def insert_entries(self):
        step("Read the constant entries, which the agent programmed by itself")
        for entry in self.controller.read("packet_type"):
            tell(entry)
            self.remember(entry)
        expect(len(self.wanted) == 3, "the pipeline has three constant entries")

        step("Insert ports, next hops, neighbors, routes and an access rule: one batch, one answer")
        entry = self.entry
        entries = [
            entry("port", {"ingress_port": 1}, "set_vrf", {"vrf_id": 1}),
            entry("port", {"ingress_port": 2}, "set_vrf", {"vrf_id": 1}),
            entry("nexthop", {"nexthop_id": 7}, "forward",
                  {"port": 2, "smac": "02:00:00:00:00:02", "neighbor_id": 70}),
            entry("neighbor", {"port": 2, "neighbor_id": 70}, "set_dst_mac",
                  {"dmac": "02:00:00:00:07:00"}),
            entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"}, "set_nexthop",
                  {"nexthop_id": 7}),
            entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.20.0.0/16"}, "drop"),
            entry("ipv6_route", {"vrf_id": 1, "ipv6_dst": "2001:db8::/32"}, "set_nexthop",
                  {"nexthop_id": 7}),
            entry("acl", {"src_ip": "10.0.0.0&&&255.0.0.0", "ip_protocol": 6, "l4_dst_port": 23},
                  "acl_drop", priority=100),
        ]
        self.controller.insert(*entries)
        self.remember(*entries)
        for table in ("port", "nexthop", "neighbor", "ipv4_route", "ipv6_route", "acl"):
            for read in self.controller.read(table):
                tell(read)
        self.check_switch()

    def modify_and_delete(self):
        step("Modify a route, delete another, and read one entry by its key")
        changed = self.entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"}, "drop")
        gone = self.entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.20.0.0/16"})
        self.controller.modify(changed)
        self.controller.delete(gone)
        self.remember(changed)
        self.forget(gone)
        tell(self.controller.read_one(changed))
        expect(self.controller.read_one(changed) == self.normal(changed), "the modify took effect")
        expect(self.controller.read_one(gone) is None, "the delete took effect")
        self.check_switch()

    def written(self, updates):
        """Writes a batch that should fail in part; answers the code of each update."""
        from controller import WriteFailed
        try:
            self.controller.write(updates)
        except WriteFailed as failure:
            for number, error in enumerate(failure.errors):
                tell(f"update {number + 1}: {failure.code(number)} {error.message}".rstrip())
            return [failure.code(number) for number in range(len(updates))]
        raise DemoError("a batch with bad updates was answered with OK")

    def refusals(self):
        step("Bad updates are refused one by one, with the reason; good ones of the batch stand")
        good = self.entry("port", {"ingress_port": 3}, "drop")
        codes = self.written([
            self.controller.update("INSERT", self.entry("port", {"ingress_port": 1}, "drop")),
            self.controller.update("INSERT", good),
            self.controller.update("DELETE", self.entry("port", {"ingress_port": 99})),
        ])
        expect(codes == ["ALREADY_EXISTS", "OK", "NOT_FOUND"], f"got {codes}")
        self.remember(good)
        self.check_switch()

    def failure_in_hardware(self):
        step("Let the forwarding agent refuse one route, as hardware does when it runs out of room")
        self.switch.tell_forwarder("fail-code", "13")
        self.switch.tell_forwarder("fail-key", "ipv4_route:ipv4_dst=10.66.0.0/16")
        self.switch.tell_forwarder("fail-key", "ipv4_route:ipv4_dst=10.0.0.0/8")
        first = self.entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.65.0.0/16"}, "drop")
        refused = self.entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.66.0.0/16"}, "drop")
        changed = self.entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"},
                             "set_nexthop", {"nexthop_id": 7})
        last = self.entry("ipv6_route", {"vrf_id": 1, "ipv6_dst": "2001:db8:67::/48"}, "drop")
        codes = self.written([self.controller.update("INSERT", first),
                              self.controller.update("INSERT", refused),
                              self.controller.update("MODIFY", changed),
                              self.controller.update("INSERT", last)])
        expect(codes == ["OK", "RESOURCE_EXHAUSTED", "RESOURCE_EXHAUSTED", "OK"], f"got {codes}")
        self.remember(first, last)
        tell("the refused route was taken back, the changed one is as it was:")
        expect(self.controller.read_one(refused) is None, "a refused insert leaves nothing")
        tell(self.controller.read_one(changed))
        self.check_switch()
        self.switch.tell_forwarder("clear")
        self.controller.insert(refused)
        self.remember(refused)
        tell("once there is room, the same route goes in")
        self.check_switch()

    def crash_and_restart(self):
        step("Kill the agent at once (SIGKILL): its tables stay in shared memory, traffic flows on")
        self.switch.agent.end(signal.SIGKILL)
        rows = self.switch.tell_forwarder("dump", quiet=True).splitlines()
        expect(len(rows) == len(self.wanted), "the forwarding agent keeps every row")
        tell(f"the forwarding agent still holds {len(rows)} rows")
        step("Start the agent again: it knows every entry, and its controllers connect anew")
        self.switch.start_agent()
        self.connect(election_id=2)
        self.check_switch()
        codes = self.written([self.controller.update(
            "INSERT", self.entry("port", {"ingress_port": 1}, "drop"))])
        expect(codes == ["ALREADY_EXISTS"], f"got {codes}")
        fresh = self.entry("port", {"ingress_port": 4}, "set_vrf", {"vrf_id": 2})
        self.controller.insert(fresh)
        self.remember(fresh)
        self.check_switch()


def programs_folder(build):
    for folder in (build / "bin", build):
        if (folder / "korvel").exists() and (folder / "korvel-forwarder").exists():
            return folder
    sys.exit(f"demo: no korvel and korvel-forwarder in {build}; run ./dev build first")


def shared_memory_folder():
    return "/dev/shm" if os.access("/dev/shm", os.W_OK) else None


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build-dir", type=pathlib.Path, required=True,
                        help="where Korvel was built, for instance build/default")
    options = parser.parse_args()
    build = options.build_dir.resolve()
    programs = programs_folder(build)
    os.environ.setdefault("KORVEL_STUBS_DIR", str(build / "python"))
    sys.path.insert(0, str(HERE))
    from controller import Controller, ControllerError
    from entries import Entry, NameOrValueError

    # The terminal's signals end the demo through the clean-up below.
    for ending in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda *_: sys.exit(1))
    with contextlib.ExitStack() as cleanup:
        folder = cleanup.enter_context(
            tempfile.TemporaryDirectory(prefix="korvel-demo-", dir=shared_memory_folder()))
        switch = Switch(programs, pathlib.Path(folder))
        cleanup.callback(switch.end)
        try:
            demo = Demo(switch, Controller, Entry)
            cleanup.callback(lambda: demo.controller and demo.controller.close())
            demo.run()
        except (DemoError, ControllerError, NameOrValueError, OSError,
                subprocess.SubprocessError) as error:
            print(f"\ndemo: {error}", file=sys.stderr)
            for process in switch.processes():
                print(f"-- last words of the {process.name}:\n{process.last_words()}",
                      file=sys.stderr)
            sys.exit(1)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
