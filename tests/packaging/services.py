"""Services of systemd without systemd: runs a unit's command, and listens as the service manager would."""

import configparser
import json
import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import threading
import time

PATIENCE = 60  # seconds
UNITS = "lib/systemd/system"


def unit(root, name):
    """The unit's settings, by section."""
    parser = configparser.ConfigParser(interpolation=None, strict=False)
    parser.optionxform = str
    parser.read_string((pathlib.Path(root) / "usr" / UNITS / name).read_text())
    return parser


def configuration_in(file):
    """The agent's configuration, whose file has lines of comments."""
    return json.loads(re.sub(r"(?m)^\s*//.*", "", file.read_text()))


def wait_until(done, what):
    deadline = time.monotonic() + PATIENCE
    while not done():
        if time.monotonic() > deadline:
            raise AssertionError(f"no {what} after {PATIENCE} seconds")
        time.sleep(0.02)


class Service:
    """A unit's process. `wrap` turns the unit and its command into the command that is run, and `place` a
    path of the unit into the one where the file is."""

    def __init__(self, root, name, wrap, place, watchdog=1.0):
        self.name = name
        self.unit = unit(root, name)
        self.place = place
        self.messages = []
        self.notify_path = place(f"/run/notify-{name}.sock")
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        pathlib.Path(self.notify_path).unlink(missing_ok=True)
        self._socket.bind(str(self.notify_path))
        os.chmod(self.notify_path, 0o666)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.log = pathlib.Path(place(f"/run/{name}.log"))
        self._watchdog = watchdog
        self._wrap = wrap
        self._process = None

    def command(self):
        service = self.unit["Service"]
        options = []
        if "EnvironmentFile" in service:
            for line in self.place(service["EnvironmentFile"]).read_text().splitlines():
                if line.startswith("OPTIONS="):
                    options = shlex.split(line.removeprefix("OPTIONS="))
        words = []
        for word in service["ExecStart"].split():
            words += options if word == "$OPTIONS" else [word]
        return words

    def start(self, notify_path=None):
        command, in_root = self._wrap(self.unit["Service"], self.command())
        environment = {"PATH": os.environ["PATH"],
                       "NOTIFY_SOCKET": f"/run/{pathlib.Path(self.notify_path).name}" if in_root
                       else str(self.notify_path),
                       "WATCHDOG_USEC": str(int(self._watchdog * 1e6))}
        with open(self.log, "ab") as log:
            self._process = subprocess.Popen(command, stdout=log, stderr=log, env=environment)
        return self

    @property
    def pid(self):
        return self._process.pid

    def said(self):
        """All lines that have come by now."""
        return list(self.messages)

    def _read(self):
        """A service manager that does not read loses messages."""
        while message := self._socket.recv(4096):
            self.messages += message.decode().splitlines()

    def wait_for(self, line, since=0):
        def came():
            if self._process.poll() is not None:
                raise AssertionError(f"{self.name} ended: {self.words()}")
            return any(line in said for said in self.said()[since:])
        try:
            wait_until(came, f"'{line}' of {self.name}")
        except AssertionError as error:
            raise AssertionError(f"{error}; it said {self.messages[-5:]}, and: {self.words()}")

    def words(self):
        return self.log.read_text(errors="replace")

    def reload(self):
        before = len(self.said())
        os.kill(self.pid, signal.SIGHUP)
        self.wait_for("READY=1", since=before)

    def stop(self):
        """Its exit status."""
        if self._process is None:
            return None
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
        try:
            status = self._process.wait(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            self._process.kill()
            status = self._process.wait()
        if self._reader.is_alive():
            self._end_reader()
        return status

    def _end_reader(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", str(self.notify_path))
        self._reader.join()
        self._socket.close()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
