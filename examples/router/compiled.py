"""Builds compiled P4 JSON for the architecture v1model, which switches in software execute.

A P4 compiler writes such files. Here a program says in Python what a compiler would read in P4:
headers, parser states, actions, tables and the way through them. `Program.json` resolves the way
into next nodes and returns the file's content. It covers what router_program.py needs.
"""

import collections

# Of every v1model program; fields that it does not use may be left out.
STANDARD_METADATA = {
    "ingress_port": 9, "egress_spec": 9, "egress_port": 9, "instance_type": 32,
    "packet_length": 32, "enq_timestamp": 32, "enq_qdepth": 19, "deq_timedelta": 32,
    "deq_qdepth": 19, "ingress_global_timestamp": 48, "egress_global_timestamp": 48,
    "mcast_grp": 16, "egress_rid": 16, "checksum_error": 1, "parser_error": 32, "priority": 3}
# The switch finds these fields under other names.
ALIASES = {
    "queueing_metadata": ("enq_timestamp", "enq_qdepth", "deq_timedelta", "deq_qdepth"),
    "intrinsic_metadata": ("ingress_global_timestamp", "egress_global_timestamp", "mcast_grp",
                           "egress_rid", "priority")}
CORE_ERRORS = ("NoError", "PacketTooShort", "NoMatch", "StackOutOfBounds", "HeaderTooShort",
               "ParserTimeout", "ParserInvalidArgument")


# Values and expressions.

class Expression:
    """A number or a truth, as the JSON spells it; operators make larger ones."""

    def __init__(self, json):
        self.json = json

    def __eq__(self, other):
        return operation("==", self, other)

    def __ne__(self, other):
        return operation("!=", self, other)

    def __le__(self, other):
        return operation("<=", self, other)

    def __add__(self, other):
        return operation("+", self, other)

    def __and__(self, other):
        return operation("&", self, other)

    __hash__ = None

    @property
    def parameter(self):
        """Where a primitive takes it, an operation has a wrapper around it."""
        if self.json["type"] == "expression":
            return {"type": "expression", "value": self.json}
        return self.json


class Field(Expression):
    def __init__(self, header, name, bits):
        super().__init__({"type": "field", "value": [header, name]})
        self.place = [header, name]
        self.bits = bits


def expression(value):
    return value if isinstance(value, Expression) else Expression(
        {"type": "hexstr", "value": hex(value)})


def operation(name, left, right):
    return Expression({"type": "expression", "value": {
        "op": name, "left": None if left is None else expression(left).json,
        "right": expression(right).json}})


def both(left, right):
    return operation("and", left, right)


def either(left, right):
    return operation("or", left, right)


def one_less(field):
    """Expressions know no width: what a field of so many bits keeps is cut out."""
    ones = 2**field.bits - 1
    return (field + ones) & ones


def byte_string(value, bits):
    return f"0x{value:0{(bits + 7) // 8 * 2}x}"


# What actions and parser states do.

def primitive(name, *parameters):
    return {"op": name, "parameters": list(parameters)}


def assign(field, value):
    return primitive("assign", field.json, expression(value).parameter)


def set_valid(header):
    return primitive("add_header", header.json)


def set_invalid(header):
    return primitive("remove_header", header.json)


def mark_to_drop(standard_metadata):
    return primitive("mark_to_drop", standard_metadata.json)


def leave_pipeline():
    return primitive("exit")


def extract(header):
    return primitive("extract", {"type": "regular", "value": header.name})


def set_field(field, value):
    return primitive("set", field.json, expression(value).parameter)


# The parts of a program.

class Header:
    """Its fields are attributes."""

    def __init__(self, name, fields):
        self.name = name
        self.fields = {key: Field(name, spelled, bits) for key, (spelled, bits) in fields.items()}
        self.json = {"type": "header", "value": name}

    def __getattr__(self, name):
        try:
            return self.fields[name]
        except KeyError:
            raise AttributeError(f"the header {self.name} has no field {name}") from None

    def is_valid(self):
        return operation("d2b", None, Field(self.name, "$valid$", 1))


class Action:
    def __init__(self, name, number, parameters, primitives):
        self.json = {"name": name, "id": number, "primitives": primitives,
                     "runtime_data": [{"name": parameter, "bitwidth": bits}
                                      for parameter, bits in parameters.items()]}

    def call(self, *arguments):
        return {"action_id": self.json["id"], "action_data": [hex(value) for value in arguments]}


class Profile:
    """An action selector: the hash of the inputs chooses a member of a group."""

    def __init__(self, name, number, size, algorithm, inputs):
        self.json = {"name": name, "id": number, "max_size": size, "selector": {
            "algo": algorithm, "input": [field.json for field in inputs]}}


class Table:
    def __init__(self, json):
        self.json = json

    def go_on(self, node):
        self.json["base_default_next"] = node
        self.json["next_tables"] = {name: node for name in self.json["actions"]}


class If:
    """Statements for the case that the condition holds."""

    def __init__(self, condition, *then):
        self.condition = condition
        self.then = then


class Block:
    """Primitives that stand in the control itself; the name is for those who trace packets."""

    def __init__(self, name, *primitives):
        self.name = name
        self.primitives = list(primitives)


class Program:
    def __init__(self, source, errors=()):
        self._source = source
        self._errors = {name: number for number, name in enumerate((*CORE_ERRORS, *errors))}
        self._types = []
        self._headers = []
        self._states = []
        self._actions = []
        self._tables = []
        self._conditionals = []
        self._calls = collections.Counter()  # of actions, by the name of their tables
        self._profiles = []
        self._counters = []
        self._meters = []
        self._calculations = []
        self._checksums = []
        self._first = None
        self.standard_metadata = self._instance(
            "standard_metadata",
            {name: (name, bits) for name, bits in STANDARD_METADATA.items()}, metadata=True)

    def _instance(self, name, fields, metadata=False):
        widths = [[spelled, bits, False] for spelled, bits in fields.values()]
        padding = -sum(bits for _, bits, _ in widths) % 8
        if padding:
            widths.append(["_padding", padding, False])
        self._types.append({"name": f"{name}_t", "id": len(self._types), "fields": widths})
        self._headers.append({"name": name, "id": len(self._headers), "header_type": f"{name}_t",
                              "metadata": metadata, "pi_omit": True})
        return Header(name, fields)

    def header(self, name, **widths):
        """Fields in the order of the wire."""
        return self._instance(name, {field: (field, bits) for field, bits in widths.items()})

    def user_metadata(self, **widths):
        return self._instance("scalars", {field: (f"userMetadata.{field}", bits)
                                          for field, bits in widths.items()}, metadata=True)

    def error(self, name):
        return expression(self._errors[name])

    def verify(self, condition, error):
        """For a parser state: ends the parser with the error unless the condition holds."""
        return primitive("verify", condition.json, self.error(error).json)

    def state(self, name, *operations, select=None, cases=None, default=None):
        """The first one is the parser's start; without a next state the parser ends."""
        transitions = [{"type": "hexstr", "value": byte_string(value, select.bits), "mask": None,
                        "next_state": state} for value, state in (cases or {}).items()]
        transitions.append({"type": "default", "value": None, "mask": None, "next_state": default})
        self._states.append({"name": name, "id": len(self._states),
                             "parser_ops": list(operations), "transitions": transitions,
                             "transition_key": [select.json] if select is not None else []})

    def _made_action(self, name, parameters, primitives):
        action = Action(name, len(self._actions), parameters, primitives)
        self._actions.append(action.json)
        return action

    def no_action(self):
        return self._made_action("NoAction", {}, [])

    def action(self, **parameters):
        """Before a function that returns the primitives, given the parameters."""
        def action_of(body):
            arguments = [Expression({"type": "runtime_data", "value": position})
                         for position in range(len(parameters))]
            return self._made_action(f"ingress.{body.__name__}", parameters, body(*arguments))
        return action_of

    def selector(self, name, size, algorithm, *inputs):
        profile = Profile(f"ingress.{name}", len(self._profiles), size, algorithm, inputs)
        self._profiles.append(profile.json)
        return profile

    def table(self, name, key, actions, *, size, default=None, entries=(), profile=None,
              counter=None, meter=None):
        """`key` is {name: (match type, field)}; `entries` of the program itself have a key and a
        call; `meter` has a name and the field for its colour."""
        kinds = [kind for kind, _ in key.values()]
        table = {"name": f"ingress.{name}", "id": len(self._tables),
                 "match_type": next((kind for kind in ("ternary", "lpm") if kind in kinds),
                                    "exact"),
                 "type": "indirect_ws" if profile else "simple",
                 "max_size": size, "with_counters": counter is not None, "support_timeout": False,
                 "direct_meters": f"ingress.{meter[0]}" if meter else None,
                 "key": [{"match_type": kind, "name": field_name, "target": field.place,
                          "mask": None} for field_name, (kind, field) in key.items()],
                 "action_ids": [action.json["id"] for action in actions],
                 "actions": [action.json["name"] for action in actions]}
        if profile:
            table["action_profile"] = profile.json["name"]
        if default:
            table["default_entry"] = {**default.call(), "action_const": True,
                                      "action_entry_const": True}
        if entries:
            table["entries"] = [
                {"match_key": [{"match_type": kind, "key": byte_string(value, field.bits)}
                               for value, (kind, field) in zip(values, key.values())],
                 "action_entry": call, "priority": priority}
                for priority, (values, call) in enumerate(entries, 1)]
        if counter:
            self._counters.append({"name": f"ingress.{counter}", "id": len(self._counters),
                                   "is_direct": True, "binding": table["name"]})
        if meter:
            self._meters.append({"name": f"ingress.{meter[0]}", "id": len(self._meters),
                                 "type": "bytes", "rate_count": 2, "size": size, "is_direct": True,
                                 "binding": table["name"], "result_target": meter[1].place})
        self._tables.append(table)
        return Table(table)

    def ipv4_checksum(self, field, inputs, condition):
        """Verified behind the parser, computed again before the deparser."""
        for does in ("verify", "update"):
            calculation = f"{does}_{field.place[0]}"
            self._calculations.append({"name": calculation, "id": len(self._calculations),
                                       "algo": "csum16",
                                       "input": [value.json for value in inputs]})
            self._checksums.append({"name": calculation, "id": len(self._checksums),
                                    "target": field.place, "type": "generic",
                                    "calculation": calculation, "verify": does == "verify",
                                    "update": does == "update", "if_cond": condition.json})

    # The way through tables and conditions.

    def apply(self, *statements):
        """The control's body: tables, actions to be called, Ifs and Blocks."""
        self._first = self._linked(statements, None)

    def _linked(self, statements, following):
        """The name of the first node; from the last statement on, each node knows the next."""
        for statement in reversed(statements):
            following = self._node(statement, following)
        return following

    def _node(self, statement, following):
        if isinstance(statement, If):
            return self._condition(statement, following)
        if isinstance(statement, Block):
            statement = self._made_action(statement.name, {}, statement.primitives)
        if isinstance(statement, Action):
            statement = self._table_of(statement)
        statement.go_on(following)
        return statement.json["name"]

    def _condition(self, statement, following):
        node = {"name": f"node_{len(self._conditionals)}", "id": len(self._conditionals),
                "expression": statement.condition.json, "false_next": following}
        self._conditionals.append(node)
        node["true_next"] = self._linked(statement.then, following)
        return node["name"]

    def _table_of(self, action):
        """The JSON has actions in tables only: one without key, unknown to controllers."""
        name = f"tbl_{action.json['name'].rpartition('.')[2]}"
        self._calls[name] += 1
        table = {"name": f"{name}_{self._calls[name]}" if self._calls[name] > 1 else name,
                 "id": len(self._tables), "match_type": "exact", "type": "simple", "max_size": 1,
                 "with_counters": False, "support_timeout": False, "direct_meters": None,
                 "key": [], "action_ids": [action.json["id"]], "actions": [action.json["name"]],
                 "default_entry": {**action.call(), "action_const": True,
                                   "action_entry_const": True}}
        self._tables.append(table)
        return Table(table)

    def json(self, deparsed):
        """The file's content; `deparsed` are the headers in the order of the wire."""
        nothing_in_egress = {"name": "egress", "id": 1, "init_table": None, "tables": [],
                             "action_profiles": [], "conditionals": []}
        return {
            "program": self._source,
            "__meta__": {"version": [2, 23], "compiler": "router_program.py"},
            "header_types": self._types,
            "headers": self._headers,
            "field_aliases": [[f"{prefix}.{name}", ["standard_metadata", name]]
                              for prefix, names in ALIASES.items() for name in names],
            "errors": [[name, number] for name, number in self._errors.items()],
            "parsers": [{"name": "parser", "id": 0, "init_state": self._states[0]["name"],
                         "parse_states": self._states}],
            "deparsers": [{"name": "deparser", "id": 0,
                           "order": [header.name for header in deparsed]}],
            "calculations": self._calculations,
            "counter_arrays": self._counters,
            "meter_arrays": self._meters,
            "actions": self._actions,
            "pipelines": [{"name": "ingress", "id": 0, "init_table": self._first,
                           "tables": self._tables, "action_profiles": self._profiles,
                           "conditionals": self._conditionals}, nothing_in_egress],
            "checksums": self._checksums}
