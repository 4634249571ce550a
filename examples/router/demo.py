#!/usr/bin/python3
"""Shows what Korvel does, step by step, with the router pipeline; `./dev demo` runs it.

It starts an agent and a forwarding agent, becomes their controller, and checks at every step that
the switch did what was expected: the exit status is 0 only if all of it was right.
"""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

from stage import DemoError, Switch


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
    from controller import ControllerError  # these make their messages in the folder just set
    from entries import NameOrValueError
    from story import Demo

    # The terminal's signals end the demo through the clean-up below.
    for ending in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda *_: sys.exit(1))
    with contextlib.ExitStack() as cleanup:
        folder = cleanup.enter_context(
            tempfile.TemporaryDirectory(prefix="korvel-demo-", dir=shared_memory_folder()))
        switch = Switch(programs, pathlib.Path(folder))
        cleanup.callback(switch.end)
        try:
            demo = Demo(switch)
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
