"""What stands on controller.py's command line as entries, members and groups.

Words with a "=" are match fields first, and parameters after an action.
"""

from entries import Entry, Group, Member, Meter, NameOrValueError, Weighted


def number_of(text):
    if not text.isdecimal():
        raise NameOrValueError(f"'{text}' is no number")
    return int(text)


def actions_of(words):
    """ACTION[@WEIGHT] PARAM=VALUE..., as often as there are actions."""
    actions = []
    for word in words:
        name, equals, value = word.partition("=")
        if not equals:
            name, _, weight = word.partition("@")
            actions.append(Weighted(name, weight=number_of(weight or "1")))
        elif actions:
            actions[-1].params[name] = value
        else:
            raise NameOrValueError(f"expected an action before {word}")
    return actions


def entry_of(pipeline, options):
    """FIELD=VALUE..., then what the entry does: the first word without a "=" begins it."""
    entry = Entry(options.table, {}, priority=options.priority, meter=options.rate)
    words = list(options.words)
    while words and "=" in words[0]:
        name, _, value = words.pop(0).partition("=")
        entry.match[name] = value
    kind, colon, number = words[0].partition(":") if words else ("", "", "")
    if colon and kind in ("member", "group"):
        setattr(entry, kind, number_of(number))
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
        group.members[number_of(member)] = number_of(weight or "1")
    return group


def fields_of(words):
    """{NAME: VALUE} of NAME=VALUE..."""
    fields = {}
    for word in words:
        name, equals, value = word.partition("=")
        if not equals:
            raise NameOrValueError(f"expected NAME=VALUE, not {word}")
        fields[name] = value
    return fields


def rate(text):
    """CIR:CBURST, or CIR:CBURST:PIR:PBURST."""
    numbers = [int(number) for number in text.split(":")]
    if len(numbers) == 2:
        numbers *= 2
    return Meter(*numbers)
