"""What is typed after "fault": how the access point's calls and daemons are made to fail."""
import dataclasses

from labap import faults
from labap.daemons import ANSWERS, Behaviour

NUMBERS = ("delay", "count", "times")
CLEAR, DAEMON = "clear", "daemon"
BEHAVIOUR = tuple(field.name for field in dataclasses.fields(Behaviour))
MEMBERS = tuple(name for name in faults.RULE if name != "call")


async def apply(ap, words):
    """Carries the words out; ValueError tells what is wrong with them. None: nothing is done."""
    if not words:
        return
    if words[0] == CLEAR:
        await _clear(ap, words[1:])
    elif words[0] == DAEMON:
        await _change_daemon(ap, words[1:])
    else:
        ap.faults.add({"call": words[0], **_members(words[1:], MEMBERS)})


async def _clear(ap, rest):
    if rest:
        raise ValueError("fault clear takes no more")
    ap.faults.clear()
    for daemon in ap.daemons.values():
        daemon.set_behaviour()
        await daemon.start()


async def _change_daemon(ap, words):
    if len(words) < 2 or words[0] not in ap.daemons:
        raise ValueError(f"daemon NAME stop|start|MEMBER=VALUE ..., the name being one of "
                         f"{', '.join(ap.daemons)}")
    name, *rest = words
    if rest in (["stop"], ["start"]):
        await ap.daemon(name, rest[0])
    else:
        await ap.daemon(name, **_members(rest, BEHAVIOUR))


def _members(words, known):
    """{name: value} of NAME=VALUE words."""
    members = {}
    for word in words:
        name, equals, text = word.partition("=")
        if not equals or name not in known:
            raise ValueError(f"{word!r} is no MEMBER=VALUE, the member being one of "
                             f"{', '.join(known)}")
        members[name] = _value(name, text)
    return members


def _value(name, text):
    if name not in NUMBERS and name != "value":
        return text
    try:
        return float(text) if name == "delay" else int(text)
    except ValueError:
        if name in NUMBERS:
            raise ValueError(f"{name}={text}: not a number") from None
        return text


def present(ap):
    """The faults there are: rules, and the daemons that are away or not as usual."""
    found = [{name: value for name, value in rule.items() if value != faults.RULE[name]}
             for rule in ap.faults.rules if rule["times"] != 0]
    usual = dataclasses.asdict(Behaviour())
    for name, daemon in ap.daemons.items():
        other = {member: value for member, value in dataclasses.asdict(daemon.behaviour).items()
                 if value != usual[member]}
        if not daemon.running:
            found.append({DAEMON: name, "state": "stopped"})
        elif other and daemon.behaviour.times != 0:
            found.append({DAEMON: name, **other})
    return found


def line(fault):
    return "  ".join(f"{name}={value}" for name, value in fault.items())


def choices(words, ap):
    """What the next word may be."""
    if not words:
        return [*faults.CALLS, DAEMON, CLEAR]
    if words[0] == CLEAR:
        return []
    if words[0] != DAEMON:
        return [f"{name}=" for name in MEMBERS]
    if len(words) == 1:
        return [*ap.daemons]
    members = [f"answer={answer}" for answer in ANSWERS]
    members += [f"{name}=" for name in BEHAVIOUR if name != "answer"]
    return (["stop", "start"] if len(words) == 2 else []) + members
