#!/usr/bin/python3
"""A P4Runtime controller to copy from: writes and reads table entries by name.

    controller.py tables
    controller.py insert ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8 set_nexthop nexthop_id=7
    controller.py modify ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8 drop
    controller.py insert --priority 10 acl src_ip='10.0.0.0&&&255.0.0.0' l4_dst_port=22 acl_drop
    controller.py read ipv4_route
    controller.py delete ipv4_route vrf_id=1 ipv4_dst=10.0.0.0/8
"""

import argparse
import queue
import sys
import threading

import stubs  # noqa: F401  (makes the imports of messages below work)
import grpc
from google.rpc import status_pb2
from p4.config.v1 import p4info_pb2
from p4.v1 import p4runtime_pb2, p4runtime_pb2_grpc

from entries import Entry, NameOrValueError, Pipeline

DETAILS_KEY = "grpc-status-details-bin"
CODE_NAMES = {code.value[0]: code.name for code in grpc.StatusCode}


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

    def __init__(self, server="127.0.0.1:9559", device_id=1, election_id=1, timeout=15):
        self.device_id = device_id
        self.election_id = p4runtime_pb2.Uint128(low=election_id)
        self.timeout = timeout  # seconds, of each request
        self._channel = grpc.insecure_channel(server, options=[
            ("grpc.max_receive_message_length", -1),
            # The errors of a batch come as metadata: about 100 bytes an update.
            ("grpc.max_metadata_size", 1024 * 1024),
        ])
        self._stub = p4runtime_pb2_grpc.P4RuntimeStub(self._channel)
        self._requests = queue.Queue()
        self._responses = queue.Queue()
        self._pipeline = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._requests.put(None)
        self._channel.close()

    # The stream: who is primary.

    def become_primary(self):
        """Only the primary, the live controller with the highest election id, may write."""
        stream = self._stub.StreamChannel(iter(self._requests.get, None))
        threading.Thread(target=self._receive, args=(stream,), daemon=True).start()
        request = p4runtime_pb2.StreamMessageRequest()
        request.arbitration.device_id = self.device_id
        request.arbitration.election_id.CopyFrom(self.election_id)
        self._requests.put(request)
        status = self._arbitration_answer().status
        if status.code != grpc.StatusCode.OK.value[0]:
            raise ControllerError(
                f"another controller is primary with a higher election id than "
                f"{self.election_id.low}; choose a higher one ({status.message})")

    def _receive(self, stream):
        try:
            for response in stream:
                self._responses.put(response)
        except grpc.RpcError as error:
            self._responses.put(error)

    def _arbitration_answer(self):
        while True:
            try:
                response = self._responses.get(timeout=self.timeout)
            except queue.Empty:
                raise ControllerError("the switch does not answer on the stream") from None
            if isinstance(response, grpc.RpcError):
                raise ControllerError(f"{response.code().name}: {response.details()}")
            if response.HasField("arbitration"):
                return response.arbitration

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

    # Entries.

    def update(self, kind, entry):
        """An Update to go into a batch; kind is "INSERT", "MODIFY" or "DELETE"."""
        update = p4runtime_pb2.Update(type=p4runtime_pb2.Update.Type.Value(kind))
        update.entity.table_entry.CopyFrom(self.pipeline.table_entry(entry))
        return update

    def write(self, updates):
        """A batch. Returns when every update is programmed; raises WriteFailed when some are not."""
        request = p4runtime_pb2.WriteRequest(device_id=self.device_id, updates=updates)
        request.election_id.CopyFrom(self.election_id)
        try:
            self._stub.Write(request, timeout=self.timeout)
        except grpc.RpcError as error:
            errors = _update_errors(error)
            if errors is not None and len(errors) == len(updates):
                raise WriteFailed(updates, errors) from None
            raise ControllerError(f"{error.code().name}: {error.details()}") from None

    def insert(self, *entries):
        self.write([self.update("INSERT", entry) for entry in entries])

    def modify(self, *entries):
        self.write([self.update("MODIFY", entry) for entry in entries])

    def delete(self, *entries):
        self.write([self.update("DELETE", entry) for entry in entries])

    def read(self, table=None):
        """The Entries of a table, or of all of them."""
        wanted = p4runtime_pb2.TableEntry()
        if table is not None:
            wanted.table_id = self.pipeline.table(table).preamble.id
        return self._read(wanted)

    def read_one(self, entry):
        """What the switch has under this entry's match and priority; None when nothing."""
        wanted = self.pipeline.table_entry(entry)
        wanted.ClearField("action")
        found = self._read(wanted)
        return found[0] if found else None

    def _read(self, wanted):
        request = p4runtime_pb2.ReadRequest(device_id=self.device_id)
        request.entities.add().table_entry.CopyFrom(wanted)
        try:
            return [self.pipeline.entry(entity.table_entry)
                    for response in self._stub.Read(request, timeout=self.timeout)
                    for entity in response.entities if not entity.table_entry.is_default_action]
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
    for table in pipeline.p4info.tables:
        print(f"{table.preamble.alias} (up to {table.size} entries)")
        for field in table.match_fields:
            print(f"  match   {field.name}: bit<{field.bitwidth}> {match_kind(field)}")
        for ref in table.action_refs:
            action = next(a for a in pipeline.p4info.actions if a.preamble.id == ref.id)
            params = ", ".join(f"{p.name}: bit<{p.bitwidth}>" for p in action.params)
            print(f"  action  {action.preamble.alias}({params})")


def entry_of(table, words, priority):
    """FIELD=VALUE... ACTION PARAM=VALUE...: the word without a "=" is the action."""
    entry = Entry(table, {}, priority=priority)
    for word in words:
        name, equals, value = word.partition("=")
        if not equals:
            entry.action = name
        elif entry.action:
            entry.params[name] = value
        else:
            entry.match[name] = value
    return entry


def arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--server", default="127.0.0.1:9559", help="default: %(default)s")
    parser.add_argument("--device-id", type=int, default=1)
    parser.add_argument("--election-id", type=int, default=1)
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("tables", help="what the pipeline has")
    read = commands.add_parser("read", help="the entries of a table, or of all")
    read.add_argument("table", nargs="?")
    for command in ("insert", "modify", "delete"):
        write = commands.add_parser(command, help=f"{command} one entry")
        write.add_argument("--priority", type=int, default=0,
                           help="of a ternary entry, above 0; goes before the table")
        write.add_argument("table")
        write.add_argument("words", nargs="*", metavar="FIELD=VALUE... ACTION PARAM=VALUE",
                           help="match fields, then the action and its parameters")
    return parser.parse_args()


def main():
    options = arguments()
    with Controller(options.server, options.device_id, options.election_id) as controller:
        if options.command == "tables":
            print_tables(controller.pipeline)
        elif options.command == "read":
            for entry in controller.read(options.table):
                print(entry)
        else:
            controller.become_primary()
            entry = entry_of(options.table, options.words, options.priority)
            controller.write([controller.update(options.command.upper(), entry)])
            print(f"{options.command}: done")


if __name__ == "__main__":
    try:
        main()
    except (ControllerError, NameOrValueError) as error:
        sys.exit(f"controller: {error}")
