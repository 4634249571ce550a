#!/usr/bin/python3
"""The packages in a fresh root: installed, used, upgraded while a switch runs, removed and purged.

  package_test.py FOLDER_OF_PACKAGES ROOT_ARCHIVE    # as root; `./dev package-test` calls it

ROOT_ARCHIVE, with all that korvel depends on, is made by mmdebstrap if it is not there. The services run with the user and the capabilities
that their units say; the service manager is this test.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from services import Service, configuration_in, free_port, wait_until

PACKAGES = ROOT_ARCHIVE = None  # set from the command line
CONTROLLER = "/usr/share/korvel/examples/router/controller.py"


def run(*command, check=True, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          check=False, timeout=900, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}: {done.stdout}{done.stderr}")
    return done.stdout


def package(name):
    (found,) = PACKAGES.glob(f"{name}_*.deb")
    return found


def with_version(file, version, folder):
    """The same package, as a later one."""
    tree = folder / "tree"
    run("dpkg-deb", "--raw-extract", file, tree)
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"(?m)^Version: .*", f"Version: {version}", control.read_text()))
    later = folder / "later.deb"
    run("dpkg-deb", "--build", "--root-owner-group", tree, later)
    return later


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not ROOT_ARCHIVE.exists():
            needed = re.findall(r"(?:^|, )([a-z0-9.+-]+)",
                                run("dpkg-deb", "--field", package("korvel"), "Depends"))
            run("mmdebstrap", "--variant=minbase", "--include=" + ",".join(["systemd", *needed]),
                "bookworm", ROOT_ARCHIVE)
        cls.folder = tempfile.TemporaryDirectory(prefix="korvel-package-test-")
        cls.scratch = pathlib.Path(cls.folder.name)
        cls.root = cls.scratch / "root"
        cls.root.mkdir()
        run("tar", "-xf", ROOT_ARCHIVE, "-C", cls.root)
        # Our mounts end with us: the test runs in a mount namespace of its own.
        for kind, place in (("proc", "proc"), ("tmpfs", "run"), ("tmpfs", "dev/shm")):
            (cls.root / place).mkdir(exist_ok=True)
            run("mount", "-t", kind, kind, cls.root / place)
        for device in ("null", "zero", "urandom", "random", "net/tun"):
            if not pathlib.Path("/dev", device).exists():
                continue
            node = cls.root / "dev" / device
            node.parent.mkdir(exist_ok=True)
            node.touch()
            run("mount", "--bind", f"/dev/{device}", node)

    @classmethod
    def tearDownClass(cls):
        for line in reversed(pathlib.Path("/proc/self/mounts").read_text().splitlines()):
            place = line.split()[1]
            if place.startswith(str(cls.root)):
                run("umount", "--lazy", place)
        cls.folder.cleanup()

    def inside(self, *command, check=True):
        return run("chroot", self.root, *command, check=check,
                   env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
                        "HOME": "/root", "LC_ALL": "C.UTF-8"})

    def install(self, file):
        (self.root / "tmp/new.deb").write_bytes(file.read_bytes())
        return self.inside("apt-get", "install", "-q", "-y", "--no-install-recommends",
                           "/tmp/new.deb")

    def place(self, path):
        return self.root / str(path).lstrip("/")

    def wrap(self, service, command):
        """With its user and its capabilities; systemd makes the folders."""
        for folder, mode in (("run/korvel", 0o700), ("var/lib/korvel", 0o755)):
            (self.root / folder).mkdir(exist_ok=True)
            (self.root / folder).chmod(mode)
            self.inside("chown", "korvel:", f"/{folder}")
        names = service["AmbientCapabilities"].lower().split()
        capabilities = ",".join(["-all"] + [f"+{name.removeprefix('cap_')}" for name in names])
        confined = ["setpriv", f"--reuid={service['User']}", f"--regid={service['User']}",
                    "--init-groups", f"--inh-caps={capabilities}", f"--ambient-caps={capabilities}",
                    f"--bounding-set={capabilities}", "--no-new-privs"]
        return ["chroot", str(self.root), *confined, *command], True

    def service(self, name):
        service = Service(self.root, name, self.wrap, self.place)
        self.addCleanup(service.stop)
        return service

    def controller(self, *words):
        return run("/usr/bin/python3", "-B", self.place(CONTROLLER), "--server",
                   f"127.0.0.1:{self.port}", *words, cwd=self.place(CONTROLLER).parent)

    def test_life_of_the_package(self):
        self.install(package("korvel"))
        self.check_installed()
        self.check_agent_and_upgrade()
        self.check_switch()
        self.check_development()
        self.check_removal()

    def check_installed(self):
        self.assertIn("korvel", self.inside("getent", "passwd", "korvel"))
        conffiles = self.inside("dpkg-query", "-W", "-f", "${Conffiles}", "korvel")
        for name in ("agent.json", "agent.env", "forwarder.env", "switch.env"):
            self.assertIn(f"/etc/korvel/{name}", conffiles)
        # The operator says which service is to run.
        self.assertFalse(list((self.root / "etc/systemd/system").rglob("korvel*")))
        for name in ("agent", "forwarder", "switch"):
            self.inside("systemd-analyze", "verify", "--man=no", f"/lib/systemd/system/korvel-{name}.service")
        self.inside("korvel", "--version")
        self.assertEqual(self.inside("dpkg", "--verify", "korvel"), "")

    def configure(self):
        self.port = free_port()
        file = self.root / "etc/korvel/agent.json"
        configuration = configuration_in(file)
        configuration["p4runtime/config/system"]["grpcServerPort"] = self.port
        file.write_text(json.dumps(configuration))
        environment = self.root / "etc/korvel/switch.env"
        environment.write_text(re.sub(r"127\.0\.0\.1:\d+", f"127.0.0.1:{self.port}",
                                      environment.read_text()))
        return file

    def forwarder_stats(self):
        """Lines that tell of work: an agent that comes back is to bring none."""
        return re.findall(r"(?m)^(?:changes|rows|snapshots|inserted|deleted|modified)\b.*",
                          self.inside("korvel-forwarder", "ctl", "stats"))

    def check_agent_and_upgrade(self):
        edited = self.configure()
        agent = self.service("korvel-agent.service").start()
        agent.wait_for("READY=1")
        forwarder = self.service("korvel-forwarder.service").start()
        forwarder.wait_for("STATUS=attached to the agent")
        self.controller("push", "router.p4info.txtpb")
        for number in range(1, 4):
            self.controller("insert", "ipv4_route", "vrf_id=1", f"ipv4_dst=10.{number}.0.0/16", "drop")
        entries = self.controller("read")
        dump = self.inside("korvel-forwarder", "ctl", "dump")
        stats = self.forwarder_stats()
        self.assertTrue(stats)
        configuration = edited.read_text()
        self.install(with_version(package("korvel"), "0.1.0+later", self.scratch))
        self.assertIn("0.1.0+later", self.inside("dpkg-query", "-W", "korvel"))
        self.assertEqual(edited.read_text(), configuration)
        # As the package has systemd do it.
        script = (self.root / "var/lib/dpkg/info/korvel.postinst").read_text()
        self.assertRegex(script, r"invoke try-restart 'korvel-agent.service'")
        self.assertNotRegex(script, r"invoke.*korvel-(forwarder|switch)")
        self.assertEqual(agent.stop(), 0, agent.words())
        agent = self.service("korvel-agent.service").start()
        agent.wait_for(f"STATUS=serves on 127.0.0.1:{self.port}; forwarding agents: 1")
        self.assertEqual(self.controller("read"), entries)
        self.assertEqual(self.inside("korvel-forwarder", "ctl", "dump"), dump)
        self.assertEqual(self.forwarder_stats(), stats)
        self.assertEqual([forwarder.stop(), agent.stop()], [0, 0])

    def check_switch(self):
        self.inside("rm", "-rf", "/run/korvel")
        switch = self.service("korvel-switch.service").start()
        switch.wait_for("READY=1")
        self.controller("push", "router.p4info.txtpb", "router.json")
        self.controller("insert", "ipv4_route", "vrf_id=1", "ipv4_dst=10.0.0.0/8", "drop")
        self.assertIn("10.0.0.0/8", self.controller("read", "ipv4_route"))
        self.inside("korvel", "status")
        self.assertEqual(switch.stop(), 0, switch.words())

    def check_development(self):
        """The compiler is ours, and all else is of the package."""
        run("dpkg-deb", "-x", package("korvel-dev"), self.root)
        flags = run("pkg-config", "--cflags", "--libs", "korvel-forwarding", env={
            **os.environ, "PKG_CONFIG_SYSROOT_DIR": str(self.root),
            "PKG_CONFIG_PATH": str(next(self.root.glob("usr/lib/*/pkgconfig")))}).split()
        # Other libraries are those of this machine.
        ours = [flag for flag in flags if "korvel" in flag or str(self.root) not in flag]
        ours += [f"-L{next(self.root.glob('usr/lib/*/libkorvel-forwarding.a')).parent}"]
        source = self.place("/usr/share/doc/korvel-dev/examples/minimal-forwarder/MinimalForwarder.cpp")
        run("c++", "-std=c++20", source, "-o", self.scratch / "mine", *ours)

    def check_removal(self):
        self.inside("apt-get", "remove", "-q", "-y", "korvel")
        self.assertFalse((self.root / "usr/bin/korvel").exists())
        self.assertTrue((self.root / "etc/korvel/agent.json").exists())
        self.inside("apt-get", "purge", "-q", "-y", "korvel")
        for place in ("etc/korvel", "var/lib/korvel", "run/korvel"):
            self.assertFalse((self.root / place).exists(), place)


if __name__ == "__main__":
    ROOT_ARCHIVE = pathlib.Path(sys.argv.pop(2)).resolve()
    PACKAGES = pathlib.Path(sys.argv.pop(1)).resolve()
    if os.geteuid() != 0:
        sys.exit("package_test.py: needs root, for chroot and mounts")
    if "KORVEL_PACKAGE_TEST_INSIDE" not in os.environ:
        os.environ["KORVEL_PACKAGE_TEST_INSIDE"] = "1"
        os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "/usr/bin/python3", "-B",
                              __file__, str(PACKAGES), str(ROOT_ARCHIVE)])
    unittest.main(verbosity=2)
