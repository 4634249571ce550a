#!/usr/bin/env python3
"""Checks every #include of the tree against one table of which folder may include which.

  tests/tree/includes.py [ROOT]      # ROOT: the tree to check, by default the one it stands in

A room is a folder with a line in the table, and `FOLDER/*` one room of all folders below FOLDER. Files of
one room include each other freely, and those of another only if the line names that room or a folder above
it; `ROOM+` names a room and all that it may include. The table leads one way: it may hold no circle.

Headers of the tree stand in quotes, by their path from the root (those below PI/include, and those generated
from proto, by their path from there); all others stand in angle brackets.

Prints a line for each offence, with its place and what to do, and ends with status 1 if there was any.
"""

import os
import pathlib
import re
import sys

TABLE = """
# room                    may include
proto/*                   -

platform/scrivel          -
platform/vela             platform/scrivel
platform/orrery           platform/vela+
platform/orrery/redis     platform/orrery+
platform/brine            platform/vela+
platform/lattice/records  platform/brine+
platform/lattice/types    platform/lattice/records+
platform/lattice/counters platform/lattice/records+
platform/lattice/doorbell platform/lattice/records+
platform/lattice          platform/lattice/types+ platform/lattice/doorbell+
platform/pollen/entities  platform/orrery+
platform/pollen/sql       platform/lattice+
platform/pollen/engine    platform/pollen/sql+
platform/pollen           platform/pollen/entities+ platform/pollen/engine+
platform/wirra/packets    platform/vela+
platform/wirra/devices    platform/orrery+
platform/wirra/interfaces platform/wirra/devices+

access                    platform/vela proto

journal                   platform/vela+

PI/include/PI             -
PI/include/PI/*           PI/include/PI proto
PI/core                   PI/include
PI/frontend/base          PI/core+ proto
PI/frontend/wire          PI/frontend/base+
PI/frontend/names         PI/frontend/base+
PI/frontend/model         PI/frontend/names+ access
PI/frontend/store         PI/frontend/model+ PI/frontend/wire+
PI/frontend/check         PI/frontend/store+
PI/frontend/target        PI/frontend/check+
PI/frontend/write         PI/frontend/target+
PI/frontend/read          PI/frontend/target+
PI/frontend/restore       PI/frontend/target+
PI/frontend/notices       PI/frontend/store+
PI/frontend               PI/frontend PI/core PI/include proto
PI/server/tls             -
PI/server                 PI/server/tls PI/core PI/include access proto

pipeline                  platform PI/include proto

p4/program                -
p4/externs                p4/program+
p4/match                  p4/externs+
p4/compile                p4/match+
p4/tables                 p4/compile+
p4/execute                p4/tables+
p4                        p4/execute+

P4Runtime/companion       platform
P4Runtime/plugin          P4Runtime/companion+
P4Runtime/pi              P4Runtime/companion+ PI/include proto
P4Runtime/pipeline        P4Runtime/pi+ pipeline+
P4Runtime/packet          P4Runtime/pipeline+
P4Runtime/table/rows      P4Runtime/pipeline+
P4Runtime/table/records   P4Runtime/table/rows+
P4Runtime/table/failures  P4Runtime/table/records+
P4Runtime/table/undo      P4Runtime/table/failures+
P4Runtime/table/write     P4Runtime/table/undo+
P4Runtime/table/restore   P4Runtime/table/write+
P4Runtime/table           P4Runtime/table/restore+
P4Runtime/table/target    P4Runtime/table+
P4Runtime/journal         PI/include journal platform/vela
P4Runtime/monitoring      P4Runtime/pipeline+
P4Runtime/agent           P4Runtime/packet+ P4Runtime/table+ P4Runtime/plugin+ P4Runtime/journal P4Runtime/monitoring access p4

forwarder/base            -
forwarder/table           platform
forwarder/counters        forwarder/table platform
forwarder/follow          forwarder/base forwarder/table forwarder/counters platform
forwarder/traffic         forwarder/base forwarder/table forwarder/follow platform
forwarder/device          platform
forwarder/packets         p4+ forwarder/base forwarder/device platform
forwarder/plane           p4+ forwarder/counters forwarder/follow forwarder/packets forwarder/table platform
forwarder/punt            forwarder/base forwarder/device platform
forwarder/control         p4+ forwarder/base forwarder/table forwarder/follow forwarder/traffic forwarder/packets forwarder/punt platform
forwarder                 p4+ forwarder platform
cli/client                platform
cli/agent                 cli/client+ P4Runtime/agent P4Runtime/companion
cli/table                 cli/client+
cli/journal               cli/client+ journal pipeline proto P4Runtime/monitoring PI/include
cli/pipeline              pipeline platform proto
cli/policy                access pipeline proto
cli/switch                P4Runtime/companion platform
cli/top                   cli/client+
cli                       cli/agent+ cli/journal+ cli/table+ cli/pipeline+ cli/policy+ cli/switch+ cli/top+

examples/minimal-forwarder   platform/lattice
examples/plugins/table-use   P4Runtime/plugin

tests/support             platform proto
tests/support/plugins     P4Runtime/plugin
tests/platform/*          platform tests/support
tests/access              access proto tests/support
tests/journal             journal platform/vela tests/support
tests/PI/*                PI access proto tests/support
tests/p4                  p4 proto
tests/pipeline            cli/pipeline+ PI/include platform tests/support
tests/P4Runtime/*         P4Runtime/agent+ tests/platform tests/support
tests/forwarder           forwarder platform tests/support
tests/forwarder/*         forwarder p4 platform tests/forwarder tests/p4 tests/support
tests/cli                 P4Runtime/agent platform tests/support
tests/cli/journal         cli/journal+ proto tests/support
tests/cli/switch          cli/switch+ tests/support
tests/cli/table           platform tests/support
tests/cli/top             cli/top+ tests/support
tests/e2e                 platform/vela proto tests/p4 tests/support

bench/brine               platform tests/support
bench/forward             p4+ forwarder platform tests/p4 tests/support
bench/forwarder           forwarder platform
bench/frontend            PI/include proto
bench/p4                  p4 tests/p4 proto
bench/p4runtime           proto tests/support
bench/packet              bench/p4runtime+
"""

SOURCE = re.compile(r"\.(h|c|cc|cpp|proto)$")
INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^">]+)[>"]')
GENERATED = re.compile(r"(?:p4|google/rpc|grpc/health)/.*\.pb\.h$")  # built from proto/


class Room:
    def __init__(self, line):
        self.name, *allowed = line.split()
        self.folder = self.name.removesuffix("/*")
        self.allowed = [folder for folder in allowed if folder != "-"]

    def holds(self, folder):
        if self.name.endswith("/*"):
            return folder.startswith(self.folder + "/")
        return folder == self.folder

    def may_include(self, room):
        return any((room.folder + "/").startswith(folder + "/") for folder in self.allowed)


class Table:
    def __init__(self, text):
        lines = (line.split("#")[0].strip() for line in text.splitlines())
        self.rooms = [Room(line) for line in lines if line]
        for room in self.rooms:
            room.allowed = sorted(self.spelt_out(room.allowed))

    def spelt_out(self, allowed):
        """The allowed folders, with each ROOM+ as the room and all that it may include."""
        seen = set()
        left = list(allowed)
        while left:
            folder = left.pop()
            if folder not in seen and folder.endswith("+"):
                left += [folder[:-1]] + self.room_named(folder[:-1]).allowed
            seen.add(folder)
        return {folder for folder in seen if not folder.endswith("+")}

    def room_named(self, name):
        for room in self.rooms:
            if room.name == name:
                return room
        sys.exit(f"table: {name}+ is the name of no room; give it a line")

    def room_of(self, folder):
        """The room of exactly this folder, else the nearest FOLDER/* above it, else None."""
        holders = [room for room in self.rooms if room.holds(folder)]
        return max(holders, key=lambda room: (room.name == folder, len(room.name)), default=None)

    def circle(self):
        """Some rooms that may include each other in a circle, or none."""
        done = set()

        def walk(room, path):
            if room in path:
                return path[path.index(room):] + [room]
            if room in done:
                return []
            done.add(room)
            onward = (other for other in self.rooms if other != room and room.may_include(other))
            return next(filter(None, (walk(other, path + [room]) for other in onward)), [])

        return next(filter(None, (walk(room, []) for room in self.rooms)), [])


def source_files(root):
    """Paths from the root; hidden folders and build folders are passed over."""
    for folder, folders, names in os.walk(root):
        if "CMakeCache.txt" in names:
            folders.clear()
            continue
        folders[:] = sorted(name for name in folders if not name.startswith("."))
        for name in sorted(filter(SOURCE.search, names)):
            yield (pathlib.Path(folder) / name).relative_to(root).as_posix()


class Check:
    def __init__(self, root, table):
        self.root, self.table = root, table
        self.files = list(source_files(root))
        self.known = set(self.files)
        self.offences = []

    def offend(self, place, message):
        self.offences.append(f"{place}: {message}")

    def run(self):
        self.check_table()
        for file in self.files:
            self.check_file(file)
        return self.offences

    def check_table(self):
        circle = self.table.circle()
        if circle:
            self.offend("table", " -> ".join(room.name for room in circle) +
                        ": a circle; decide which of these rooms comes first, and take an arrow out")
        used = {self.table.room_of(os.path.dirname(file)) for file in self.files}
        for room in self.table.rooms:
            if room not in used:
                self.offend("table", f"{room.name} has no sources; take its line out")

    def check_file(self, file):
        room = self.table.room_of(os.path.dirname(file))
        if not room:
            self.offend(file, f"{os.path.dirname(file) or 'the root'} is not in the table; give it a line in {__file__}")
            return
        for number, line in enumerate((self.root / file).read_text(encoding="utf-8").splitlines(), 1):
            found = INCLUDE.match(line)
            if found:
                self.check_include(f"{file}:{number}", room, *found.groups())

    def check_include(self, place, room, mark, name):
        target = self.target_folder(name)
        if target is None:
            beside = os.path.normpath(os.path.join(os.path.dirname(place), name))
            if beside in self.known:
                self.offend(place, f'name it by its path from the root: #include "{beside}"')
            elif mark == '"':
                self.offend(place, f"not a header of this tree; write #include <{name}>")
            return
        if mark == "<":
            self.offend(place, f'a header of this tree; write #include "{name}"')
        other = self.table.room_of(target)
        if other and other != room and not room.may_include(other):
            self.offend(place, f"{room.name} -> {other.name}: the table has no such arrow; hand in what is "
                               f"needed, or move it to a room that both may include")

    def target_folder(self, name):
        """The folder of the tree in which an included header stands; None for headers of others."""
        if GENERATED.match(name):
            return "proto/" + os.path.dirname(name)
        for path in (name, "PI/include/" + name):
            if path in self.known:
                return os.path.dirname(path)
        return None


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[2])
    check = Check(root.resolve(), Table(TABLE))
    offences = check.run()
    print("\n".join(offences) if offences else f"{len(check.files)} files include only what they may")
    sys.exit(1 if offences else 0)


if __name__ == "__main__":
    main()
