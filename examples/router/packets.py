"""Packets to and from the switch, with their metadata by name.

What travels beside a packet stands in the P4Info, as the headers packet_out and packet_in.
"""

import dataclasses

import stubs  # noqa: F401  (makes the next imports work)
import grpc
from p4.v1 import p4runtime_pb2

from entries import NameOrValueError, to_bytes, to_text

SHOWN_BYTES = 64
CODE_NAMES = {code.value[0]: code.name for code in grpc.StatusCode}
# To a made-up host, of an EtherType that is there for experiments.
TEST_HEADER = bytes.fromhex("020000000002" "020000000001" "88b5")


@dataclasses.dataclass
class PacketIn:
    """A packet that the switch gave to its controller."""

    payload: bytes
    metadata: dict  # name: value as text

    def __str__(self):
        metadata = " ".join(f"{name}={value}" for name, value in self.metadata.items())
        cut = "..." if len(self.payload) > SHOWN_BYTES else ""
        return (f"packet in: {metadata or 'no metadata'}, {len(self.payload)} bytes "
                f"{self.payload[:SHOWN_BYTES].hex()}{cut}")


@dataclasses.dataclass
class StreamError:
    """What the switch says of a message on the stream that it did not take."""

    code: str  # "INVALID_ARGUMENT"
    message: str

    def __str__(self):
        return f"stream error: {self.code}: {self.message}"


def stream_error(error):
    """The StreamError of a p4.v1.StreamError."""
    return StreamError(CODE_NAMES.get(error.canonical_code, str(error.canonical_code)),
                       error.message)


def made_packet(size):
    """A packet of so many bytes, to try ways out."""
    if size < len(TEST_HEADER):
        raise NameOrValueError(f"a packet has {len(TEST_HEADER)} bytes or more, not {size}")
    return TEST_HEADER + bytes(i % 256 for i in range(size - len(TEST_HEADER)))


def bytes_of(text):
    """A packet as people write it: pairs of hexadecimal digits, with blanks or colons if liked."""
    digits = text.removeprefix("0x").replace(":", "").replace(" ", "")
    try:
        return bytes.fromhex(digits)
    except ValueError:
        raise NameOrValueError(f"'{text}' is no packet: write pairs of hexadecimal digits, or"
                               " --size N for a made one") from None


class PacketHeaders:
    """packet_out and packet_in of a P4Info."""

    def __init__(self, p4info):
        headers = {header.preamble.name: header.metadata
                   for header in p4info.controller_packet_metadata}
        self.out_fields = headers.get("packet_out", ())
        self.in_fields = headers.get("packet_in", ())

    def packet_out(self, payload, metadata):
        """The p4.v1.PacketOut; fields that `metadata` does not name are 0."""
        message = p4runtime_pb2.PacketOut(payload=payload)
        known = [field.name for field in self.out_fields]
        for name in metadata:
            if name not in known:
                raise NameOrValueError(f"packet_out has no field '{name}'; it has: "
                                       f"{', '.join(known) or 'none'}")
        for field in self.out_fields:
            try:
                value = to_bytes(metadata.get(field.name, 0), field.bitwidth)
            except NameOrValueError as error:
                raise NameOrValueError(f"{field.name}: {error}") from None
            message.metadata.add(metadata_id=field.id, value=value)
        return message

    def packet_in(self, message):
        """The PacketIn of a p4.v1.PacketIn."""
        given = {metadata.metadata_id: metadata.value for metadata in message.metadata}
        return PacketIn(message.payload, {
            field.name: to_text(given[field.id], field.bitwidth)
            for field in self.in_fields if field.id in given})
