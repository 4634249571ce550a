"""Table entries with names and readable values, to and from P4Runtime messages.

P4Runtime addresses everything by number and sends values as bytes; the P4Info of the pipeline
says which number is which. `Pipeline` does that translation both ways.
"""

import contextlib
import dataclasses
import ipaddress
import re

import stubs  # noqa: F401  (makes the next imports work)
from p4.config.v1 import p4info_pb2
from p4.v1 import p4runtime_pb2

MatchField = p4info_pb2.MatchField


class NameOrValueError(ValueError):
    """A name the pipeline does not have, or a value that does not fit its field."""


@dataclasses.dataclass
class Entry:
    """One table entry. Values are text: "7", "0x0800", "10.0.0.0/8", "2001:db8::/32",
    "00:11:22:33:44:55", "0x0800&&&0xffff". Fields left out of `match` are don't care."""

    table: str
    match: dict
    action: str = ""
    params: dict = dataclasses.field(default_factory=dict)
    priority: int = 0

    def __str__(self):
        match = " ".join(f"{name}={value}" for name, value in self.match.items())
        params = ", ".join(f"{name}={value}" for name, value in self.params.items())
        priority = f" priority={self.priority}" if self.priority else ""
        action = f" -> {self.action}({params})" if self.action else ""
        return f"{self.table}: {match}{priority}{action}"


def to_bytes(text, bits):
    """The number, or the address, in the shortest big-endian form, as P4Runtime wants it."""
    text = str(text)
    try:
        if re.fullmatch(r"[0-9a-fA-F]{2}(:[0-9a-fA-F]{2}){5}", text):
            number = int(text.replace(":", ""), 16)
        elif "." in text or ":" in text:
            number = int(ipaddress.ip_address(text))
        else:
            number = int(text, 0)
    except ValueError:
        raise NameOrValueError(f"'{text}' is no number or address") from None
    if number < 0 or number.bit_length() > bits:
        raise NameOrValueError(f"{text} does not fit {bits} bits")
    return number.to_bytes(max(1, (number.bit_length() + 7) // 8), "big")


def to_text(value, bits, is_ipv4=False):
    number = int.from_bytes(value, "big")
    if bits == 48:
        return ":".join(f"{byte:02x}" for byte in number.to_bytes(6, "big"))
    if bits == 128:
        return str(ipaddress.IPv6Address(number))
    if bits == 32 and is_ipv4:
        return str(ipaddress.IPv4Address(number))
    return str(number)


@contextlib.contextmanager
def _naming(name):
    """Puts the field's name before what is wrong with its value."""
    try:
        yield
    except NameOrValueError as error:
        raise NameOrValueError(f"{name}: {error}") from None


def _is_ipv4(field):
    return any("IPV4_ADDRESS" in annotation for annotation in field.annotations)


class Pipeline:
    """The tables, fields and actions of a P4Info by name."""

    def __init__(self, p4info):
        self.p4info = p4info
        self._tables = {table.preamble.id: table for table in p4info.tables}
        self._actions = {action.preamble.id: action for action in p4info.actions}

    def table(self, name):
        return self._named("table", self.p4info.tables, name)

    def action(self, name):
        return self._named("action", self.p4info.actions, name)

    @staticmethod
    def _named(kind, objects, name):
        for candidate in objects:
            if name in (candidate.preamble.name, candidate.preamble.alias):
                return candidate
        known = ", ".join(candidate.preamble.alias for candidate in objects)
        raise NameOrValueError(f"no {kind} '{name}'; there is: {known}")

    @staticmethod
    def _part(kind, owner, parts, name):
        for part in parts:
            if part.name == name:
                return part
        known = ", ".join(part.name for part in parts) or "none"
        raise NameOrValueError(f"{owner} has no {kind} '{name}'; it has: {known}")

    # From names to messages.

    def table_entry(self, entry):
        """The p4.v1.TableEntry of an Entry."""
        table = self.table(entry.table)
        message = p4runtime_pb2.TableEntry(table_id=table.preamble.id, priority=entry.priority)
        for name, value in entry.match.items():
            field = self._part("match field", entry.table, table.match_fields, name)
            with _naming(name):
                self._add_match(field, str(value), message)
        if entry.action:
            message.action.action.CopyFrom(self._action_message(entry))
        return message

    def _action_message(self, entry):
        action = self.action(entry.action)
        message = p4runtime_pb2.Action(action_id=action.preamble.id)
        for name, value in entry.params.items():
            param = self._part("parameter", entry.action, action.params, name)
            with _naming(name):
                message.params.add(param_id=param.id, value=to_bytes(value, param.bitwidth))
        return message

    @staticmethod
    def _add_match(field, text, message):
        bits = field.bitwidth
        if text == "*":
            return
        match = message.match.add(field_id=field.id)
        if field.match_type == MatchField.LPM:
            address, _, length = text.partition("/")
            match.lpm.value = to_bytes(address, bits)
            if length and not length.isdecimal() or int(length or 0) > bits:
                raise NameOrValueError(f"'{text}' has no prefix length from 0 to {bits}")
            match.lpm.prefix_len = int(length or bits)
        elif field.match_type == MatchField.TERNARY:
            value, _, mask = text.partition("&&&")
            match.ternary.value = to_bytes(value, bits)
            match.ternary.mask = to_bytes(mask or str(2**bits - 1), bits)
        elif field.match_type == MatchField.RANGE:
            low, _, high = text.partition("..")
            match.range.low = to_bytes(low, bits)
            match.range.high = to_bytes(high or low, bits)
        elif field.match_type == MatchField.OPTIONAL:
            match.optional.value = to_bytes(text, bits)
        else:
            match.exact.value = to_bytes(text, bits)

    # From messages to names.

    def entry(self, message):
        """The Entry of a p4.v1.TableEntry."""
        table = self._tables[message.table_id]
        given = {match.field_id: match for match in message.match}
        entry = Entry(table.preamble.alias, {}, priority=message.priority)
        for field in table.match_fields:
            if field.id in given:
                entry.match[field.name] = self._match_text(field, given[field.id])
        if message.action.HasField("action"):
            action = self._actions[message.action.action.action_id]
            values = {param.param_id: param.value for param in message.action.action.params}
            entry.action = action.preamble.alias
            entry.params = {param.name: to_text(values[param.id], param.bitwidth)
                            for param in action.params}
        return entry

    @staticmethod
    def _match_text(field, match):
        bits, ipv4 = field.bitwidth, _is_ipv4(field)
        kind = match.WhichOneof("field_match_type")
        if kind == "lpm":
            return f"{to_text(match.lpm.value, bits, ipv4 or bits == 32)}/{match.lpm.prefix_len}"
        if kind == "ternary":
            value = to_text(match.ternary.value, bits, ipv4)
            if int.from_bytes(match.ternary.mask, "big") == 2**bits - 1:
                return value
            return f"{value}&&&{to_text(match.ternary.mask, bits, ipv4)}"
        if kind == "range":
            return f"{to_text(match.range.low, bits)}..{to_text(match.range.high, bits)}"
        return to_text(getattr(match, kind).value, bits, ipv4)
