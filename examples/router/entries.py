"""Table entries, members and groups with names and readable values, to and from P4Runtime messages.

P4Runtime addresses everything by number and sends values as bytes; the P4Info of the pipeline
says which number is which. `Pipeline` does that translation both ways.
"""

import contextlib
import dataclasses
import ipaddress
import re
from typing import NamedTuple

import stubs  # noqa: F401  (makes the next imports work)
from p4.config.v1 import p4info_pb2
from p4.v1 import p4runtime_pb2

MatchField = p4info_pb2.MatchField


class NameOrValueError(ValueError):
    """A name the pipeline does not have, or a value that does not fit its field."""


def _call_text(action, params, weight=""):
    return f"{action}{weight}({', '.join(f'{name}={value}' for name, value in params.items())})"


@dataclasses.dataclass
class Weighted:
    """An action of a one-shot set, which gets flows by its weight."""

    action: str
    params: dict = dataclasses.field(default_factory=dict)
    weight: int = 1

    def __str__(self):
        return _call_text(self.action, self.params, f"@{self.weight}")


@dataclasses.dataclass
class Meter:
    """Committed and peak rate a second, and bursts; in bytes or packets, as the P4Info says."""

    cir: int
    cburst: int
    pir: int
    pburst: int

    def __str__(self):
        return f"cir={self.cir} cburst={self.cburst} pir={self.pir} pburst={self.pburst}"


@dataclasses.dataclass
class Entry:
    """One table entry. Values are text: "7", "0x0800", "10.0.0.0/8", "2001:db8::/32",
    "00:11:22:33:44:55", "0x0800&&&0xffff". Fields left out of `match` are don't care.

    It does one thing: an action with its parameters or, in a table of an action profile, what a
    member, a group or a one-shot set of actions says."""

    table: str
    match: dict
    action: str = ""
    params: dict = dataclasses.field(default_factory=dict)
    priority: int = 0
    member: int = 0
    group: int = 0
    one_shot: list = dataclasses.field(default_factory=list)  # of Weighted
    meter: Meter | None = None  # None: no limit

    def __str__(self):
        match = " ".join(f"{name}={value}" for name, value in self.match.items())
        priority = f" priority={self.priority}" if self.priority else ""
        meter = f" meter {self.meter}" if self.meter else ""
        does = self._does()
        return f"{self.table}: {match}{priority}{f' -> {does}' if does else ''}{meter}"

    def _does(self):
        if self.member:
            return f"member:{self.member}"
        if self.group:
            return f"group:{self.group}"
        if self.one_shot:
            return ", ".join(map(str, self.one_shot))
        return _call_text(self.action, self.params) if self.action else ""


@dataclasses.dataclass
class Member:
    """An action under a number of the controller's choice, for entries and groups to name."""

    profile: str
    id: int
    action: str = ""
    params: dict = dataclasses.field(default_factory=dict)

    def __str__(self):
        action = f" -> {_call_text(self.action, self.params)}" if self.action else ""
        return f"{self.profile} member:{self.id}{action}"


@dataclasses.dataclass
class Group:
    """Members among which each flow gets one, by their weights."""

    profile: str
    id: int
    members: dict = dataclasses.field(default_factory=dict)  # member id: weight
    max_size: int = 0  # 0: as large as the profile allows

    def __str__(self):
        members = " ".join(f"{member}@{weight}" for member, weight in sorted(self.members.items()))
        return f"{self.profile} group:{self.id} -> {members or 'nothing'}"


class Count(NamedTuple):
    """What a direct counter has counted."""

    packets: int
    bytes: int

    def __str__(self):
        return f"{self.packets} packets, {self.bytes} bytes"


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


def meter_config(meter):
    return p4runtime_pb2.MeterConfig(**dataclasses.asdict(meter))


def meter_of(config):
    return Meter(config.cir, config.cburst, config.pir, config.pburst)


@contextlib.contextmanager
def naming(name):
    """Puts a name before what is wrong with its value."""
    try:
        yield
    except NameOrValueError as error:
        raise NameOrValueError(f"{name}: {error}") from None


def _is_ipv4(field):
    return any("IPV4_ADDRESS" in annotation for annotation in field.annotations)


def _by_id(objects):
    return {candidate.preamble.id: candidate for candidate in objects}


class Pipeline:
    """The tables, fields, actions and action profiles of a P4Info by name."""

    def __init__(self, p4info):
        self.p4info = p4info
        self._tables = _by_id(p4info.tables)
        self._actions = _by_id(p4info.actions)
        self._profiles = _by_id(p4info.action_profiles)

    def table(self, name):
        return self._named("table", self.p4info.tables, name)

    def action(self, name):
        return self._named("action", self.p4info.actions, name)

    def profile(self, name):
        return self._named("action profile", self.p4info.action_profiles, name)

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

    def entity(self, thing):
        """The p4.v1.Entity of an Entry, a Member or a Group."""
        entity = p4runtime_pb2.Entity()
        if isinstance(thing, Member):
            entity.action_profile_member.CopyFrom(self._member_message(thing))
        elif isinstance(thing, Group):
            entity.action_profile_group.CopyFrom(self._group_message(thing))
        else:
            entity.table_entry.CopyFrom(self.table_entry(thing))
        return entity

    def _member_message(self, member):
        message = p4runtime_pb2.ActionProfileMember(
            action_profile_id=self.profile(member.profile).preamble.id, member_id=member.id)
        if member.action:
            message.action.CopyFrom(self._action_message(member.action, member.params))
        return message

    def _group_message(self, group):
        message = p4runtime_pb2.ActionProfileGroup(
            action_profile_id=self.profile(group.profile).preamble.id, group_id=group.id,
            max_size=group.max_size)
        for member, weight in group.members.items():
            message.members.add(member_id=member, weight=weight)
        return message

    def table_entry(self, entry):
        """The p4.v1.TableEntry of an Entry."""
        table = self.table(entry.table)
        message = p4runtime_pb2.TableEntry(table_id=table.preamble.id, priority=entry.priority)
        for name, value in entry.match.items():
            field = self._part("match field", entry.table, table.match_fields, name)
            with naming(name):
                self._add_match(field, str(value), message)
        if entry.action:
            message.action.action.CopyFrom(self._action_message(entry.action, entry.params))
        elif entry.member:
            message.action.action_profile_member_id = entry.member
        elif entry.group:
            message.action.action_profile_group_id = entry.group
        for weighted in entry.one_shot:
            message.action.action_profile_action_set.action_profile_actions.add(
                action=self._action_message(weighted.action, weighted.params),
                weight=weighted.weight)
        if entry.meter:
            message.meter_config.CopyFrom(meter_config(entry.meter))
        return message

    def _action_message(self, name, params):
        action = self.action(name)
        message = p4runtime_pb2.Action(action_id=action.preamble.id)
        for name, value in params.items():
            param = self._part("parameter", action.preamble.alias, action.params, name)
            with naming(name):
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
            if length and not (length.isascii() and length.isdecimal()
                               and len(length) < 4 and int(length) <= bits):
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

    def thing(self, entity):
        """The Entry, Member or Group of a p4.v1.Entity."""
        if entity.HasField("action_profile_member"):
            message = entity.action_profile_member
            return Member(self._profiles[message.action_profile_id].preamble.alias,
                          message.member_id, *self._call(message.action))
        if entity.HasField("action_profile_group"):
            message = entity.action_profile_group
            return Group(self._profiles[message.action_profile_id].preamble.alias,
                         message.group_id,
                         {member.member_id: member.weight for member in message.members},
                         message.max_size)
        return self.entry(entity.table_entry)

    def entry(self, message):
        """The Entry of a p4.v1.TableEntry."""
        table = self._tables[message.table_id]
        given = {match.field_id: match for match in message.match}
        entry = Entry(table.preamble.alias, {}, priority=message.priority)
        for field in table.match_fields:
            if field.id in given:
                entry.match[field.name] = self._match_text(field, given[field.id])
        self._read_action(message.action, entry)
        if message.HasField("meter_config"):
            entry.meter = meter_of(message.meter_config)
        return entry

    def _read_action(self, message, entry):
        kind = message.WhichOneof("type")
        if kind == "action":
            entry.action, entry.params = self._call(message.action)
        elif kind == "action_profile_member_id":
            entry.member = message.action_profile_member_id
        elif kind == "action_profile_group_id":
            entry.group = message.action_profile_group_id
        elif kind == "action_profile_action_set":
            entry.one_shot = [Weighted(*self._call(chosen.action), chosen.weight) for chosen in
                              message.action_profile_action_set.action_profile_actions]

    def _call(self, message):
        """Name and parameters of a p4.v1.Action."""
        action = self._actions[message.action_id]
        values = {param.param_id: param.value for param in message.params}
        return action.preamble.alias, {param.name: to_text(values[param.id], param.bitwidth)
                                       for param in action.params}

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
