#!/usr/bin/python3
"""What an installation holds works from where it is installed: units, programs, headers, manual.

  staged_test.py BUILD_FOLDER      # installs into a folder of its own; needs no root
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from services import Service, configuration_in, free_port, unit, wait_until

BUILD = None  # set from the command line
SERVICES = ("korvel-agent.service", "korvel-forwarder.service", "korvel-switch.service")


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          check=False, timeout=300, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}: {done.stdout}{done.stderr}")
    return done.stdout


class Staged(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # Sockets have short names.
        cls.folder = tempfile.TemporaryDirectory(prefix="kp-", dir="/dev/shm")
        cls.root = pathlib.Path(cls.folder.name)
        for component in ("programs", "development"):
            run("cmake", "--install", BUILD, "--prefix", "/usr", "--component", component,
                env={**os.environ, "DESTDIR": str(cls.root)})
        cls.etc = cls.root / "etc/korvel"
        shutil.rmtree(cls.etc, ignore_errors=True)
        shutil.copytree(pathlib.Path(__file__).resolve().parents[2] / "packaging/etc", cls.etc)
        (cls.root / "run").mkdir()
        cls.state = cls.root / "run/korvel"
        cls.library = next((cls.root / "usr/lib").rglob("libkorvel-forwarding.a")).parent
        cls.examples = cls.root / "usr/share/korvel/examples"

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def setUp(self):
        shutil.rmtree(self.state, ignore_errors=True)

    def place(self, path):
        return self.root / str(path).lstrip("/")

    def wrap(self, _, command):
        places = ("/usr/", "/etc/", "/run/")
        return [str(self.place(word)) if word.startswith(places) else word for word in command], False

    def service(self, name):
        service = Service(self.root, name, self.wrap, self.place)
        self.addCleanup(service.stop)
        return service

    def configure(self, **system):
        self.port = system.setdefault("grpcServerPort", free_port())
        configuration = configuration_in(self.etc / "agent.json")
        configuration["p4runtime/config/system"].update(system)
        agent = configuration["p4runtime/config/agent"]
        for name in ("p4InfoJsonPath", "deviceJsonPath"):
            agent[name] = str(self.state / pathlib.Path(agent[name]).name)
        self.write(configuration)
        return configuration

    def write(self, configuration):
        (self.etc / "agent.json").write_text(json.dumps(configuration))

    def korvel(self, *words):
        return run(self.root / "usr/bin/korvel", *words, "--state-dir", self.state)

    def controller(self, *words):
        router = self.examples / "router"
        return run("/usr/bin/python3", "-B", router / "controller.py", "--server",
                   f"127.0.0.1:{self.port}", *words, cwd=router,
                   env={**os.environ, "KORVEL_STUBS_DIR": str(BUILD / "python")})

    def health(self, service=""):
        import grpc
        asked = b"\n" + bytes([len(service)]) + service.encode() if service else b""
        with grpc.insecure_channel(f"127.0.0.1:{self.port}") as channel:
            check = channel.unary_unary("/grpc.health.v1.Health/Check")
            try:
                answer = check(asked, timeout=30)
            except grpc.RpcError as error:
                return error.code().name
        return {b"\x08\x01": "SERVING", b"\x08\x02": "NOT_SERVING"}[answer]

    # The stories.

    def test_units_are_well_formed_and_confined(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not there")
        for name in SERVICES:
            text = (self.root / "usr/lib/systemd/system" / name).read_text()
            checked = self.root / name  # with programs that are there
            checked.write_text(text.replace("/usr/bin/korvel", f"{self.root}/usr/bin/korvel").replace(
                "/etc/korvel", str(self.etc)))
            run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", checked)
            # Of 100; what is left is the network, which is what they are for.
            run("systemd-analyze", "security", "--offline=yes", "--threshold=30", checked)
            for capability in ("AmbientCapabilities", "CapabilityBoundingSet"):
                self.assertEqual(unit(self.root, name)["Service"][capability],
                                 "CAP_NET_ADMIN CAP_NET_RAW", name)

    def test_agent_and_forwarder_serve_as_services(self):
        self.configure(deviceId=1)
        agent = self.service("korvel-agent.service").start()
        agent.wait_for("READY=1")
        agent.wait_for("WATCHDOG=1")
        agent.wait_for("STATUS=waits for a pipeline")
        self.assertEqual(self.health(), "NOT_SERVING")  # nobody programs yet
        forwarder = self.service("korvel-forwarder.service").start()
        forwarder.wait_for("READY=1")
        forwarder.wait_for("WATCHDOG=1")
        forwarder.wait_for("STATUS=attached to the agent")
        for name in ("", "p4.v1.P4Runtime"):
            wait_until(lambda name=name: self.health(name) == "SERVING", f"health of '{name}'")
        self.assertEqual(self.health("p4.v1.Another"), "NOT_FOUND")
        # The controller of the examples, installed with them.
        self.controller("push", "router.p4info.txtpb")
        agent.wait_for(f"STATUS=serves on 127.0.0.1:{self.port}; forwarding agents: 1")
        self.controller("insert", "ipv4_route", "vrf_id=1", "ipv4_dst=10.0.0.0/8", "drop")
        # Each ends with a word to the service manager.
        for service in (forwarder, agent):
            self.assertEqual(service.stop(), 0, service.words())
            self.assertIn("STOPPING=1", service.said())

    def test_hang_up_reads_the_configuration_again(self):
        configuration = self.configure(deviceId=1)
        agent = self.service("korvel-agent.service").start()
        agent.wait_for("READY=1")
        path = "p4runtime/config/system"
        self.korvel("set", path, "maxReads", "77")
        # What stands in the file as it stood keeps what an operator has set.
        agent.reload()
        self.assertEqual(self.korvel("get", path, "maxReads").strip(), "77")
        # One setting at once, one that only a start heeds, and a mapping.
        configuration[path].update(maxWrites=33, deviceId=9)
        configuration["p4runtime/config/port-mapping/4"] = {"intf": "eth-a"}
        self.write(configuration)
        agent.reload()
        self.assertEqual(self.korvel("get", path, "maxWrites").strip(), "33")
        self.assertEqual(self.korvel("get", path, "deviceId").strip(), "1")
        self.assertIn("4", self.korvel("port", "list"))
        wait_until(lambda: "deviceId stays 1: deviceId is read when the agent starts" in agent.words(),
                   "line about deviceId")
        # A check finds it beforehand.
        faulty = self.etc / "faulty.json"
        faulty.write_text(json.dumps({path: {"maxWrite": 5}}))
        check = [self.root / "usr/bin/korvel", "config", "check"]
        self.assertIn("all settings are known", run(*check, self.etc / "agent.json"))
        refused = subprocess.run([*check, faulty], capture_output=True, text=True, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn('did you mean "maxWrites"?', refused.stderr)
        # A faulty file changes nothing, and says where.
        (self.etc / "agent.json").write_text(json.dumps({path: {"maxWrites": 5, "nothing": 1}}))
        agent.reload()
        self.assertEqual(self.korvel("get", path, "maxWrites").strip(), "33")
        wait_until(lambda: '"nothing" is no attribute' in agent.words(), "line about the fault")
        # What has left the file gets its default, and a mapping goes.
        del configuration[path]["maxWrites"], configuration["p4runtime/config/port-mapping/4"]
        configuration[path]["deviceId"] = 1
        self.write(configuration)
        agent.reload()
        self.assertEqual(self.korvel("get", path, "maxWrites").strip(), "256")
        self.assertNotIn("eth-a", self.korvel("port", "list"))

    def test_switch_serves_as_a_service(self):
        self.port = free_port()
        environment = self.etc / "switch.env"
        environment.write_text(re.sub(r"127\.0\.0\.1:\d+", f"127.0.0.1:{self.port}",
                                      environment.read_text()))
        switch = self.service("korvel-switch.service").start()
        switch.wait_for("READY=1")
        switch.wait_for("WATCHDOG=1")
        switch.wait_for(f"STATUS=serves on 127.0.0.1:{self.port}")
        self.controller("push", "router.p4info.txtpb", "router.json")
        self.controller("insert", "ipv4_route", "vrf_id=1", "ipv4_dst=10.0.0.0/8", "drop")
        self.assertIn("10.0.0.0/8", self.controller("read", "ipv4_route"))
        switch.reload()  # goes on
        self.assertIn("10.0.0.0/8", self.controller("read", "ipv4_route"))
        self.assertEqual(switch.stop(), 0, switch.words())
        self.assertIn("STOPPING=1", switch.said())

    def test_forwarding_agents_and_plugins_compile_against_it(self):
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.root))
        examples = self.root / "usr/share/doc/korvel-dev/examples"
        self.assertIn("libkorvel-forwarding.a", os.listdir(self.library))

        def flags(package, *kinds):
            return run("pkg-config", *kinds, f"--define-variable=prefix={self.root}/usr", package,
                       env={**os.environ, "PKG_CONFIG_PATH": str(self.library / "pkgconfig")}).split()

        program = folder / "mine"
        run("c++", "-std=c++20", examples / "minimal-forwarder/MinimalForwarder.cpp", "-o", program,
            *flags("korvel-forwarding", "--cflags", "--libs"))
        plugins = folder / "plugins"
        plugins.mkdir()
        run("cc", "-std=c99", "-shared", "-fPIC", examples / "plugins/table-use/table_use.c", "-o",
            plugins / "table-use.so", *flags("korvel-plugin", "--cflags"))
        configuration = self.configure(deviceId=1)
        configuration["p4runtime/config/agent"]["pluginDirectory"] = str(plugins)
        self.write(configuration)
        self.service("korvel-agent.service").start().wait_for("READY=1")
        with subprocess.Popen([program, self.state, "100"]) as mine:
            try:
                wait_until(lambda: f"(pid {mine.pid})" in self.korvel("status"), "forwarding agent")
            finally:
                mine.kill()
        self.assertIn(str(plugins), self.korvel("get", "p4runtime/status/plugin/table-use"))

    def test_plugins_lie_beside_the_library(self):
        self.configure(deviceId=1)
        self.service("korvel-agent.service").start().wait_for("READY=1")
        self.assertIn("running", self.korvel("get", "p4runtime/status/plugin/table-use"))

    def test_manual_and_completion_say_what_the_programs_say(self):
        pages = self.root / "usr/share/man/man1"
        seen = 0
        for program in ("korvel", "korvel-forwarder"):
            source = self.root / f"usr/share/bash-completion/completions/{program}"
            for words in self.commands(program):
                text = run(self.root / "usr/bin" / program, *words, "--help")
                text = text.partition("\nTaken with a line of warning")[0]
                options = set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, flags=re.M))
                page = (pages / f"{'-'.join([program, *words])}.1").read_text()
                typed = [program, *words, "--"]
                offered = run("bash", "-c", f"""source {source}
                    COMP_WORDS=({' '.join(typed)}) COMP_CWORD={len(typed) - 1}
                    _{program.replace('-', '_')}; printf '%s\\n' "${{COMPREPLY[@]}}" """).split()
                self.assertEqual(options, {one for one in offered if one.startswith("--")}, words)
                for option in options:
                    self.assertIn(option.replace("-", "\\-"), page, words)
                seen += len(options)
        self.assertGreater(seen, 100)

    def commands(self, program, words=()):
        yield words
        text = run(self.root / "usr/bin" / program, *words, "--help")
        for name in re.findall(r"^  (\w[\w-]*)", text.partition("Subcommands:")[2], flags=re.M):
            yield from self.commands(program, (*words, name))


if __name__ == "__main__":
    BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main(verbosity=2)
