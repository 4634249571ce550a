#!/usr/bin/python3
"""Shows what Korvel does, step by step, with the router pipeline; `./dev demo` runs it.

It starts an agent and a forwarding agent, becomes their controller, and checks at every step that
the switch did what was expected: the exit status is 0 only if all of it was right. It runs in a
network of its own, and leaves packets out where it cannot have one.
"""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

import network
from stage import DemoError, Switch, step


def programs_folder(build):
    for folder in (build / "bin", build):
        if (folder / "korvel").exists() and (folder / "korvel-forwarder").exists():
            return folder
    sys.exit(f"demo: no korvel and korvel-forwarder in {build}; run ./dev build first")


def shared_memory_folder():
    return "/dev/shm" if os.access("/dev/shm", os.W_OK) else None


def switch_with_ports(programs, folder, cleanup):
    """Three cables at it, from its ports to us; the forwarding agent punts our test packets."""
    cables = [network.Cable(f"port{i}", f"host{i}") for i in (1, 2, 3)]
    for cable in cables:
        cleanup.callback(cable.close)
    agent_options, forwarder_options = network.make_cpu_device()
    punting = ["--punt", "--punt-ethertype", "0x88b5", "--punt-field", f"reason={network.PUNT_REASON}"]
    return Switch(programs, folder, cables, agent_options, punting + forwarder_options)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build-dir", type=pathlib.Path, default="/usr",
                        help="where Korvel was built, for instance build/default; else it is installed")
    options = parser.parse_args()
    build = options.build_dir.resolve()
    programs = programs_folder(build)
    without_packets = network.enter()
    if (build / "CMakeCache.txt").exists():
        os.environ.setdefault("KORVEL_STUBS_DIR", str(build / "python"))
    from controller import ControllerError  # these make their messages in the folder just set
    from entries import NameOrValueError
    from forwarding_story import ForwardingStory
    from story import Demo

    # The terminal's signals end the demo through the clean-up below.
    for ending in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda *_: sys.exit(1))
    with contextlib.ExitStack() as cleanup:
        folder = cleanup.enter_context(
            tempfile.TemporaryDirectory(prefix="korvel-demo-", dir=shared_memory_folder()))
        if without_packets:
            print(f"demo: packets are left out: {without_packets}")
            switch = Switch(programs, pathlib.Path(folder))
        else:
            switch = switch_with_ports(programs, pathlib.Path(folder), cleanup)
        cleanup.callback(switch.end)
        try:
            demo = Demo(switch)
            cleanup.callback(lambda: demo.controller and demo.controller.close())
            demo.run()
            if not without_packets:
                switch.end()
                forwarding = ForwardingStory(programs, pathlib.Path(folder))
                cleanup.callback(forwarding.close)
                forwarding.run()
            step("Everything was as expected.")
        except (DemoError, ControllerError, NameOrValueError, network.NetworkError, OSError,
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
