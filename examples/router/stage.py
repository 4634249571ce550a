"""What the demo stands on: its words, processes that it ends again, and a switch made of them."""

import json
import pathlib
import shutil
import signal
import socket
import subprocess
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

    @property
    def pid(self):
        return self._process.pid

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

    def status(self):
        """Its exit status, once it has ended by itself."""
        return self._process.wait(timeout=START_SECONDS)

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

    def __init__(self, programs, folder, cables=(), agent_options=(), forwarder_options=()):
        self.folder = folder
        self.cables = cables  # at its ports
        self.agent_options = agent_options
        self.forwarder_options = forwarder_options
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
        for name in ("router.p4info.txtpb", "router.entries.json", "router.queries.json"):
            shutil.copy(HERE / name, self.folder)
        self.run([self.korvel, "pipeline", "build",
                  "--p4info", self.folder / "router.p4info.txtpb",
                  "--entries", self.folder / "router.entries.json",
                  "--queries", self.folder / "router.queries.json",
                  "--device-id", "1", "-o", self.folder / "router.pb.bin"])
        self.run([self.korvel, "pipeline", "check", self.folder / "router.pb.bin"])

    def write_configuration(self, enabled=True):
        """agent.json with our port and places."""
        configuration = json.loads((HERE / "agent.json").read_text())
        configuration["p4runtime/config/system"].update(
            enabled=enabled, grpcServerPort=self.port,
            forwardingPipelineConfigFilePath=str(self.folder / "router.pb.bin"))
        configuration["p4runtime/config/agent"].update(
            p4InfoJsonPath=str(self.folder / "p4info.json"),
            deviceJsonPath=str(self.folder / "device.json"))
        (self.folder / "agent.json").write_text(json.dumps(configuration, indent=2))

    def start_agent(self):
        self.agent = self.start("agent", [self.korvel, "agent", "--config",
                                          self.folder / "agent.json", "--state-dir", self.state,
                                          *self.agent_options])

    def start_forwarder(self):
        self.forwarder = self.start("forwarding agent",
                                    [self.forwarder_program, "--state-dir", self.state,
                                     *self.forwarder_options])
        wait_until(lambda: "attached yes" in (self.tell_forwarder("stats", quiet=True) or ""),
                   "answer of the forwarding agent", self.forwarder)

    def tell_forwarder(self, *words, quiet=False):
        return self.run([self.forwarder_program, "ctl", "--state-dir", self.state, *words],
                        quiet=quiet)

    def korvel_run(self, *words, quiet=False):
        return self.run([self.korvel, *words, "--state-dir", self.state], quiet=quiet)

    def korvel_refused(self, *words):
        """What a command that must fail says."""
        command = [self.korvel, *words, "--state-dir", self.state]
        tell(command_text(command, self.folder))
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
        expect(done.returncode == 1, f"{command_text(command, self.folder)} is not refused")
        tell(done.stderr.strip())
        return done.stderr

    def attributes(self, path):
        return json.loads(self.korvel_run("get", path, "--json", quiet=True))["attributes"]

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
        for process in self.processes():
            process.end(signal.SIGTERM)
        self.agent = self.forwarder = None
