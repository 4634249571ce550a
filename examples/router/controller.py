#!/usr/bin/python3
"""A P4Runtime controller to copy from: writes and reads table entries by name.

    controller.py tables
    controller.py insert ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8 set_nexthop nexthop_id=7
    controller.py modify ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8 drop
    controller.py insert --priority 10 acl src_ip='10.0.0.0&&&255.0.0.0' l4_dst_port=22 acl_drop
    controller.py read ipv4_route
    controller.py delete ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8

A table of an action profile takes members, groups of them, or a one-shot set of actions; a number
after "@" is a weight:

    controller.py member insert wcmp_selector 1 set_nexthop nexthop_id=7
    controller.py member insert wcmp_selector 2 set_nexthop nexthop_id=8
    controller.py group insert wcmp_selector 10 1@3 2
    controller.py insert wcmp wcmp_id=1 group:10
    controller.py insert wcmp wcmp_id=2 set_nexthop@3 nexthop_id=7 set_nexthop nexthop_id=8

Direct counters, and direct meters; these go with the entry, or are set later:

    controller.py counters ipv4_route
    controller.py meter --priority 10 --rate 1000000:64000 acl l4_dst_port=22

A pipeline for a switch that may run any, with the compiled program where it executes that:

    controller.py push router.p4info.txtpb router.json

Packets, out of a port of the switch, and those that the switch gives to its controller:

    controller.py packet-out 1 --size 100
    controller.py packet-out 1 020000000002020000000001080045000014
    controller.py packets
"""

import argparse
import collections
import os
import pathlib
import queue
import sys
import threading

import stubs  # noqa: F401  (makes the imports of messages below work)
import grpc
from google.protobuf import text_format
from google.rpc import status_pb2
from p4.config.v1 import p4info_pb2
from p4.v1 import p4runtime_pb2, p4runtime_pb2_grpc

from entries import Count, NameOrValueError, Pipeline, meter_config, meter_of
from packets import CODE_NAMES, PacketHeaders, bytes_of, made_packet, stream_error
from words import (MAX_ID, MAX_INT32, bytes_of_file, entry_of, fields_of, group_of, member_of,
                   number, rate, server)

DETAILS_KEY = "grpc-status-details-bin"
MAX_PACKET = 65535


class ControllerError(Exception):
    """The switch refused a request as a whole; the text is for people."""


class WriteFailed(ControllerError):
    """Some updates of a batch failed; the others are programmed."""

    def __init__(self, updates, errors):
        self.updates = updates  # the Updates of the batch
        self.errors = errors  # one p4.v1.Error an update, in order; canonical_code 0: it is good
        failed = [f"update {i + 1}: {CODE_NAMES.get(error.canonical_code, error.canonical_code)}"
                  f" ({error.message})"
                  for i, error in enumerate(errors) if error.canonical_code]
        super().__init__(f"{len(failed)} of {len(updates)} updates failed; " + "; ".join(failed))

    def code(self, index):
        return CODE_NAMES[self.errors[index].canonical_code]


def _update_errors(error):
    """The p4.v1.Error of each update, from the binary trailer of a failed Write; None without."""
    for key, value in error.trailing_metadata() or ():
        if key == DETAILS_KEY:
            errors = []
            for detail in status_pb2.Status.FromString(value).details:
                errors.append(p4runtime_pb2.Error())
                detail.Unpack(errors[-1])
            return errors
    return None


class Controller:
    """One controller of one switch. Close it, or use it in a `with` statement."""

    def __init__(self, server="127.0.0.1:9559", device_id=1, election_id=1, timeout=15,
                 credentials=None, role=""):
        self.device_id = device_id
        self.role = role  # its name; "" is the default role
        self.election_id = p4runtime_pb2.Uint128(low=election_id)
        self.timeout = timeout  # seconds, of each request
        options = [
            ("grpc.max_receive_message_length", -1),
            # The errors of a batch come as metadata: about 100 bytes an update.
            ("grpc.max_metadata_size", 1024 * 1024),
            ("grpc.initial_reconnect_backoff_ms", 100),  # a switch that restarts is back at once
        ]
        self._channel = (grpc.secure_channel(server, credentials, options) if credentials
                         else grpc.insecure_channel(server, options))
        self._stub = p4runtime_pb2_grpc.P4RuntimeStub(self._channel)
        self._requests = queue.Queue()
        self._responses = queue.Queue()
        self._arrived = collections.deque()  # packets and errors that came before they were asked
        self._pipeline = None
        self._headers = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._requests.put(None)
        self._channel.close()

    def connected(self, seconds):
        """Whether there is a connection, or comes to be one in so many seconds. Calls that fail at
        once are no way to wait for a switch: a channel gets nowhere unless somebody waits on it."""
        try:
            self._stub.Capabilities(p4runtime_pb2.CapabilitiesRequest(), timeout=seconds,
                                    wait_for_ready=True)
            return True
        except grpc.RpcError:
            return False

    # The stream: who is primary, and packets.

    def become_primary(self):
        """Only the primary, the live controller with the highest election id, may write."""
        stream = self._stub.StreamChannel(iter(self._requests.get, None))
        threading.Thread(target=self._receive, args=(stream,), daemon=True).start()
        request = p4runtime_pb2.StreamMessageRequest()
        request.arbitration.device_id = self.device_id
        if self.role:
            request.arbitration.role.name = self.role
        request.arbitration.election_id.CopyFrom(self.election_id)
        self._requests.put(request)
        answer = self._arbitration_answer()
        if answer.status.code != grpc.StatusCode.OK.value[0]:
            raise ControllerError(
                f"election id {self.election_id.low} is below {answer.election_id.low}, which the"
                f" switch knows of an earlier controller; choose that or a higher one"
                f" ({answer.status.message})")

    def _receive(self, stream):
        try:
            for response in stream:
                self._responses.put(response)
            self._responses.put(None)
        except grpc.RpcError as error:
            self._responses.put(error)

    def _response(self, seconds):
        """The next message of the stream; raises queue.Empty when none comes in time."""
        response = self._responses.get(timeout=seconds)
        if response is None:
            raise ControllerError("the switch has ended the stream")
        if isinstance(response, grpc.RpcError):
            raise ControllerError(f"{response.code().name}: {response.details()}")
        return response

    def _arbitration_answer(self):
        while True:
            try:
                response = self._response(self.timeout)
            except queue.Empty:
                raise ControllerError("the switch does not answer on the stream") from None
            if response.HasField("arbitration"):
                return response.arbitration
            self._arrived.append(response)

    def send_packet(self, port, payload, metadata=None):
        """Out of a port of the switch, if no StreamError says otherwise; needs to be primary.
        `metadata` are fields of packet_out by name."""
        self.send(self.headers.packet_out(payload, {"egress_port": port, **(metadata or {})}))

    def send(self, packet_out):
        """A p4.v1.PacketOut as it is."""
        self._requests.put(p4runtime_pb2.StreamMessageRequest(packet=packet_out))

    def arrival(self, seconds=None):
        """The next PacketIn or StreamError; None when none comes in so many seconds."""
        while True:
            try:
                response = self._arrived.popleft() if self._arrived else self._response(seconds)
            except queue.Empty:
                return None
            if response.HasField("packet"):
                return self.headers.packet_in(response.packet)
            if response.HasField("error"):
                return stream_error(response.error)
            if response.arbitration.status.code != grpc.StatusCode.OK.value[0]:
                raise ControllerError("another controller has become primary, and gets the packets"
                                      f" ({response.arbitration.status.message})")

    def end_stream(self):
        """Says that no more comes, and waits for the switch to have dealt with what was sent.
        Returns the StreamErrors there were."""
        self._requests.put(None)
        errors = []
        while True:
            try:
                response = self._responses.get(timeout=self.timeout)
            except queue.Empty:
                raise ControllerError("the switch does not end the stream") from None
            if response is None:
                return errors
            if isinstance(response, grpc.RpcError):
                raise ControllerError(f"{response.code().name}: {response.details()}")
            if response.HasField("error"):
                errors.append(stream_error(response.error))

    # The pipeline.

    @property
    def pipeline(self):
        """What the switch runs; asked for once."""
        if self._pipeline is None:
            request = p4runtime_pb2.GetForwardingPipelineConfigRequest(device_id=self.device_id)
            answer = self._call(self._stub.GetForwardingPipelineConfig, request)
            if not answer.HasField("config"):
                raise ControllerError("the switch has no pipeline yet")
            self._pipeline = Pipeline(answer.config.p4info)
        return self._pipeline

    @property
    def headers(self):
        """Of packets, as the pipeline declares them."""
        if self._headers is None:
            self._headers = PacketHeaders(self.pipeline.p4info)
        return self._headers

    def push(self, p4info_text, device_config=b""):
        """Has the switch run another pipeline, without entries: a P4Info in text form, and the
        compiled program for a switch in software. Needs to be primary."""
        request = p4runtime_pb2.SetForwardingPipelineConfigRequest(
            device_id=self.device_id, election_id=self.election_id, role=self.role,
            action=p4runtime_pb2.SetForwardingPipelineConfigRequest.VERIFY_AND_COMMIT)
        text_format.Parse(p4info_text, request.config.p4info)
        request.config.p4_device_config = device_config
        self._call(self._stub.SetForwardingPipelineConfig, request)
        self._pipeline = self._headers = None  # asked for again

    # Entries, and the members and groups that entries of some tables name.

    def update(self, kind, thing):
        """An Update of an Entry, a Member or a Group to go into a batch; kind is "INSERT",
        "MODIFY" or "DELETE"."""
        return p4runtime_pb2.Update(type=p4runtime_pb2.Update.Type.Value(kind),
                                    entity=self.pipeline.entity(thing))

    def write(self, updates):
        """A batch. Returns when every update is programmed; raises WriteFailed when not all are."""
        request = p4runtime_pb2.WriteRequest(device_id=self.device_id, role=self.role,
                                             updates=updates)
        request.election_id.CopyFrom(self.election_id)
        try:
            self._stub.Write(request, timeout=self.timeout)
        except grpc.RpcError as error:
            errors = _update_errors(error)
            if errors is not None and len(errors) == len(updates):
                raise WriteFailed(updates, errors) from None
            raise ControllerError(f"{error.code().name}: {error.details()}") from None

    def insert(self, *things):
        self.write([self.update("INSERT", thing) for thing in things])

    def modify(self, *things):
        self.write([self.update("MODIFY", thing) for thing in things])

    def delete(self, *things):
        self.write([self.update("DELETE", thing) for thing in things])

    def read(self, table=None):
        """The Entries of a table, or of all of them, with their meters."""
        return self._read_entries(p4runtime_pb2.TableEntry(table_id=self._table_id(table)))

    def read_one(self, entry):
        """What the switch has under this entry's match and priority; None when nothing."""
        found = self._read_entries(self._key(entry))
        return found[0] if found else None

    def members(self, profile=None):
        """The Members of an action profile, or of all of them."""
        wanted = p4runtime_pb2.Entity()
        wanted.action_profile_member.action_profile_id = self._profile_id(profile)
        return [self.pipeline.thing(entity) for entity in self._read(wanted)]

    def groups(self, profile=None):
        """The Groups of an action profile, or of all of them."""
        wanted = p4runtime_pb2.Entity()
        wanted.action_profile_group.action_profile_id = self._profile_id(profile)
        return [self.pipeline.thing(entity) for entity in self._read(wanted)]

    def _read_entries(self, query):
        query.meter_config.SetInParent()  # asks for the meters to be told as well
        return [self.pipeline.entry(entity.table_entry)
                for entity in self._read(p4runtime_pb2.Entity(table_entry=query))
                if not entity.table_entry.is_default_action]

    # Direct counters and meters.

    def count(self, entry):
        """What has been counted for an entry."""
        return self._counts(self._key(entry))[0][1]

    def counts(self, table=None):
        """(Entry without its action, Count) for each entry of a table, or of all that count."""
        return self._counts(p4runtime_pb2.TableEntry(table_id=self._table_id(table)))

    def _counts(self, key):
        wanted = p4runtime_pb2.Entity()
        wanted.direct_counter_entry.table_entry.CopyFrom(key)
        found = (entity.direct_counter_entry for entity in self._read(wanted))
        return [(self.pipeline.entry(counted.table_entry),
                 Count(counted.data.packet_count, counted.data.byte_count)) for counted in found]

    def meter_is(self, entry, meter):
        """Limits an entry that is there; None takes its limits away."""
        update = p4runtime_pb2.Update(type=p4runtime_pb2.Update.MODIFY)
        update.entity.direct_meter_entry.table_entry.CopyFrom(self._key(entry))
        if meter is not None:
            update.entity.direct_meter_entry.config.CopyFrom(meter_config(meter))
        self.write([update])

    def meter(self, entry):
        """The Meter of an entry; None when it has no limits."""
        wanted = p4runtime_pb2.Entity()
        wanted.direct_meter_entry.table_entry.CopyFrom(self._key(entry))
        found = self._read(wanted)[0].direct_meter_entry
        return meter_of(found.config) if found.HasField("config") else None

    # What they have in common.

    def _table_id(self, name):
        return 0 if name is None else self.pipeline.table(name).preamble.id

    def _profile_id(self, name):
        return 0 if name is None else self.pipeline.profile(name).preamble.id

    def _key(self, entry):
        key = self.pipeline.table_entry(entry)
        key.ClearField("action")
        key.ClearField("meter_config")
        return key

    def _read(self, wanted):
        """The p4.v1.Entity messages that answer one."""
        request = p4runtime_pb2.ReadRequest(device_id=self.device_id, entities=[wanted])
        try:
            return [entity for response in self._stub.Read(request, timeout=self.timeout)
                    for entity in response.entities]
        except grpc.RpcError as error:
            raise ControllerError(f"{error.code().name}: {error.details()}") from None

    def _call(self, method, request):
        try:
            return method(request, timeout=self.timeout)
        except grpc.RpcError as error:
            raise ControllerError(f"{error.code().name}: {error.details()}") from None


# The command line.

def match_kind(field):
    if field.HasField("other_match_type"):
        return field.other_match_type
    return p4info_pb2.MatchField.MatchType.Name(field.match_type).lower()


def print_tables(pipeline):
    profiles = {profile.preamble.id: profile for profile in pipeline.p4info.action_profiles}
    for table in pipeline.p4info.tables:
        print(f"{table.preamble.alias} (up to {table.size} entries)")
        if table.implementation_id:
            profile = profiles[table.implementation_id]
            print(f"  profile {profile.preamble.alias} (up to {profile.size} members, "
                  f"{profile.max_group_size} in a group)")
        for field in table.match_fields:
            print(f"  match   {field.name}: bit<{field.bitwidth}> {match_kind(field)}")
        for ref in table.action_refs:
            if ref.scope == p4info_pb2.ActionRef.DEFAULT_ONLY:
                continue
            action = next(a for a in pipeline.p4info.actions if a.preamble.id == ref.id)
            params = ", ".join(f"{p.name}: bit<{p.bitwidth}>" for p in action.params)
            print(f"  action  {action.preamble.alias}({params})")


def add_key(command):
    command.add_argument("--priority", type=number(0, MAX_INT32), default=0,
                         help="of a ternary entry, above 0; goes before the table")
    command.add_argument("--rate", type=rate, metavar="CIR:CBURST[:PIR:PBURST]",
                         help="direct meter: rates a second and bursts; goes before the table")
    command.add_argument("table")
    command.add_argument("words", nargs="*", metavar="FIELD=VALUE... ACTION PARAM=VALUE",
                         help="match fields, then the action and its parameters; in a table of an"
                         " action profile member:ID, group:ID or several actions")


def add_profile_command(commands, name):
    command = commands.add_parser(name, help=f"insert, modify or delete a {name}")
    command.add_argument("kind", choices=("insert", "modify", "delete"))
    command.add_argument("profile")
    command.add_argument("id", type=number(1, MAX_ID))
    return command


def add_packet_commands(commands):
    out = commands.add_parser("packet-out", help="send packets out of a port of the switch")
    out.add_argument("--size", type=number(0, MAX_PACKET), metavar="BYTES",
                     help="of a made packet")
    out.add_argument("--count", type=number(1, MAX_INT32), default=1, help="default: %(default)s")
    out.add_argument("--field", action="append", default=[], metavar="NAME=VALUE",
                     help="of packet_out, such as submit_to_ingress=1; those not given are 0")
    out.add_argument("port", type=number(0, MAX_ID),
                     help="P4 port id; 'korvel port list' shows those mapped")
    out.add_argument("packet", nargs="?", metavar="HEX", help="the packet; or give --size")
    packets = commands.add_parser(
        "packets", help="print packets that the switch gives to its controller, as they come")
    packets.add_argument("--count", type=number(0, MAX_INT32), default=0,
                         help="end after so many; default: never")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--server", type=server, default="127.0.0.1:9559", metavar="HOST:PORT",
                        help="default: %(default)s")
    parser.add_argument("--device-id", type=number(0, MAX_ID), default=1,
                        help="that the switch is configured with; default: %(default)s")
    parser.add_argument("--election-id", type=number(1, 2**64 - 1), default=1,
                        help="the highest one is primary; default: %(default)s")
    parser.add_argument("--role", default="", help="to be primary of; default: the default role")
    parser.add_argument("--ca", type=bytes_of_file, metavar="FILE",
                        help="who signed the switch's certificate: TLS, with --cert and --key")
    parser.add_argument("--cert", type=bytes_of_file, metavar="FILE", help="our own certificate")
    parser.add_argument("--key", type=bytes_of_file, metavar="FILE", help="its private key")
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("tables", help="the pipeline's tables")
    read = commands.add_parser("read", help="the entries of a table, or of all")
    read.add_argument("table", nargs="?")
    for kind in ("insert", "modify", "delete"):
        add_key(commands.add_parser(kind, help=f"{kind} one entry"))
    add_profile_command(commands, "member").add_argument(
        "words", nargs="*", metavar="ACTION PARAM=VALUE")
    group = add_profile_command(commands, "group")
    group.add_argument("--max-size", type=number(0, MAX_INT32), default=0)
    group.add_argument("members", nargs="*", metavar="MEMBER[@WEIGHT]")
    profiles = commands.add_parser("profiles", help="members and groups of a profile, or of all")
    profiles.add_argument("profile", nargs="?")
    counters = commands.add_parser("counters", help="the counts of a table's entries")
    counters.add_argument("table", nargs="?")
    add_key(commands.add_parser("meter", help="limit an entry, or without --rate no more"))
    push = commands.add_parser("push", help="have the switch run this pipeline")
    push.add_argument("p4info", type=pathlib.Path, help="in text form")
    push.add_argument("program", type=pathlib.Path, nargs="?", help="compiled P4 JSON")
    add_packet_commands(commands)
    return parser.parse_args()


def print_things(controller, options):
    """The commands that only read."""
    if options.command == "tables":
        print_tables(controller.pipeline)
    elif options.command == "read":
        for entry in controller.read(options.table):
            print(entry)
    elif options.command == "profiles":
        for thing in controller.members(options.profile) + controller.groups(options.profile):
            print(thing)
    elif options.command == "counters":
        for entry, count in controller.counts(options.table):
            print(f"{entry}: {count}")
    else:
        return False
    return True


def write_thing(controller, options):
    """The commands that change something."""
    if options.command == "push":
        controller.push(options.p4info.read_text(),
                        options.program.read_bytes() if options.program else b"")
    elif options.command == "member":
        controller.write([controller.update(options.kind.upper(), member_of(options))])
    elif options.command == "group":
        controller.write([controller.update(options.kind.upper(), group_of(options))])
    elif options.command == "meter":
        controller.meter_is(entry_of(controller.pipeline, options), options.rate)
    else:
        entry = entry_of(controller.pipeline, options)
        controller.write([controller.update(options.command.upper(), entry)])


def send_packets(controller, options):
    if (options.packet is None) == (options.size is None):
        raise NameOrValueError("give either the packet in hexadecimal digits or --size")
    payload = made_packet(options.size) if options.packet is None else bytes_of(options.packet)
    for _ in range(options.count):
        controller.send_packet(options.port, payload, fields_of(options.field))
    errors = controller.end_stream()
    if errors:
        raise ControllerError(f"{len(errors)} of {options.count} packets refused; {errors[0]}")
    print(f"packet-out: {options.count} of {len(payload)} bytes taken by the switch; what becomes"
          " of them, 'korvel status' counts")


def print_packets(controller, options):
    print("primary; waiting for packets", flush=True)
    came = 0
    while not options.count or came < options.count:
        print(controller.arrival(), flush=True)
        came += 1


def credentials_of(options):
    """For TLS, where --ca is given; None without it."""
    if not options.ca:
        return None
    return grpc.ssl_channel_credentials(options.ca, options.key, options.cert)


def main():
    options = arguments()
    with Controller(options.server, options.device_id, options.election_id,
                    credentials=credentials_of(options), role=options.role) as controller:
        if print_things(controller, options):
            return
        controller.become_primary()
        if options.command == "packet-out":
            send_packets(controller, options)
        elif options.command == "packets":
            print_packets(controller, options)
        else:
            write_thing(controller, options)
            print(f"{options.command}: done")


if __name__ == "__main__":
    try:
        main()
    except BrokenPipeError:  # nobody reads on, as behind 'head'
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(1)
    except (ControllerError, NameOrValueError, OSError, text_format.ParseError) as error:
        sys.exit(f"controller: {error}")
    except KeyboardInterrupt:
        sys.exit(130)
