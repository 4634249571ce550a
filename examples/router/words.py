"""What stands on controller.py's command line as entries, members and groups.

Words with a "=" are match fields first, and parameters after an action.
"""

import argparse
import pathlib
import re

from entries import Entry, Group, Member, Meter, NameOrValueError, Weighted, naming

MAX_INT32 = 2**31 - 1  # of sizes, priorities and weights
MAX_ID = 2**32 - 1
MAX_RATE = 2**63 - 1


def number_in(text, low, high):
    if not (text.isascii() and text.isdecimal() and len(text) < 40 and low <= int(text) <= high):
        raise NameOrValueError(f"'{text}' is no number from {low} to {high}")
    return int(text)


def number(low, high):
    """For argparse: the type of an option that is a number in a range."""
    def number_of(text):
        try:
            return number_in(text, low, high)
        except NameOrValueError as error:
            raise argparse.ArgumentTypeError(error) from None
    return number_of


def weight_of(text):
    with naming("weight"):
        return number_in(text or "1", 1, MAX_INT32)


def id_of(kind, text):
    with naming(kind):
        return number_in(text, 1, MAX_ID)


def server(text):
    """For argparse: gRPC would take port 443 where none is given."""
    if re.fullmatch(r"(\[.+\]|[^:]+):[0-9]+|(unix|dns|ipv4|ipv6):.+", text):
        return text
    raise argparse.ArgumentTypeError(f"'{text}' is no HOST:PORT, such as 127.0.0.1:9559")


def bytes_of_file(path):
    """For argparse."""
    try:
        return pathlib.Path(path).read_bytes()
    except OSError as error:
        raise argparse.ArgumentTypeError(f"cannot read {path}: {error.strerror}") from error


def put_once(values, name, value):
    if name in values:
        raise NameOrValueError(f"{name} is given twice: {values[name]} and {value}")
    values[name] = value


def actions_of(words):
    """ACTION[@WEIGHT] PARAM=VALUE..., as often as there are actions."""
    actions = []
    for word in words:
        name, equals, value = word.partition("=")
        if not equals:
            name, _, weight = word.partition("@")
            actions.append(Weighted(name, weight=weight_of(weight)))
        elif actions:
            put_once(actions[-1].params, name, value)
        else:
            raise NameOrValueError(f"expected an action before {word}")
    return actions


def entry_of(pipeline, options):
    """FIELD=VALUE..., then what the entry does: the first word without a "=" begins it."""
    entry = Entry(options.table, {}, priority=options.priority, meter=options.rate)
    words = list(options.words)
    while words and "=" in words[0]:
        name, _, value = words.pop(0).partition("=")
        put_once(entry.match, name, value)
    kind, colon, number_text = words[0].partition(":") if words else ("", "", "")
    if colon and kind in ("member", "group"):
        if len(words) > 1:
            raise NameOrValueError(f"expected nothing after {words[0]}, not {words[1]}")
        setattr(entry, kind, id_of(kind, number_text))
    elif pipeline.table(options.table).implementation_id:
        entry.one_shot = actions_of(words)
    elif words:
        entry.action, entry.params = one_action(words)
    return entry


def one_action(words):
    actions = actions_of(words)
    if len(actions) > 1:
        raise NameOrValueError(f"expected one action, not {actions[0].action} and "
                               f"{actions[1].action}")
    return actions[0].action, actions[0].params


def member_of(options):
    action = one_action(options.words) if options.words else ()
    return Member(options.profile, options.id, *action)


def group_of(options):
    group = Group(options.profile, options.id, max_size=options.max_size)
    for word in options.members:
        member, _, weight = word.partition("@")
        put_once(group.members, id_of("member", member), weight_of(weight))
    return group


def fields_of(words):
    """{NAME: VALUE} of NAME=VALUE..."""
    fields = {}
    for word in words:
        name, equals, value = word.partition("=")
        if not equals:
            raise NameOrValueError(f"expected NAME=VALUE, not {word}")
        put_once(fields, name, value)
    return fields


def rate(text):
    """CIR:CBURST, or CIR:CBURST:PIR:PBURST."""
    numbers = [number(0, MAX_RATE)(word) for word in text.split(":")]
    if len(numbers) not in (2, 4):
        raise argparse.ArgumentTypeError(
            f"'{text}' has {len(numbers)} numbers; write CIR:CBURST or CIR:CBURST:PIR:PBURST")
    return Meter(*numbers) if len(numbers) == 4 else Meter(*numbers, *numbers)
