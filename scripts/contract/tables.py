"""The tables of docs/protocol.md, made from the schemas.

A table stands between "<!-- table: KIND ARGUMENT -->" and "<!-- end of table -->"; KIND is a
function of KINDS.
"""
import re

from labtalk import contract

TABLE = re.compile(r"<!-- table: (\S+) (.*?) -->\n.*?<!-- end of table -->\n", re.DOTALL)
HEADER = ("version", "service", "cmd", "command", "ap-mac", "domain")


def renew(path, write):
    """Complaints about tables that are not what the schemas make of them."""
    text = path.read_text(encoding="utf-8")
    made = TABLE.sub(lambda match: _framed(match[1], match[2]), text)
    if made == text:
        return []
    if write:
        path.write_text(made, encoding="utf-8")
        return []
    was, now = text.splitlines(), made.splitlines()
    line = next((n for n, (old, new) in enumerate(zip(was, now)) if old != new),
                min(len(was), len(now)))
    return [f"{path.name}:{line + 1}: not what the schemas say (scripts/check-schemas --write)"]


def _framed(kind, argument):
    return (f"<!-- table: {kind} {argument} -->\n\n{KINDS[kind](argument)}\n"
            "<!-- end of table -->\n")


def _table(head, rows):
    lines = [f"| {' | '.join(head)} |", "|" + "---|" * len(head)]
    return "\n".join(lines + [f"| {' | '.join(cell.replace('|', chr(92) + '|') for cell in row)} |"
                              for row in rows]) + "\n"


def sent(border):
    """What lumd says: its messages with the members beside the header."""
    return _table(("cmd", "further members", "when"), [
        (f"`{name}`", ", ".join(f"`{key}`" for key in schema["properties"] if key not in HEADER)
         or "none", schema["x-when"]) for name, schema in _messages(border)])


def taken(border):
    """What lumd hears: what comes of it and when."""
    return _table(("message", "what it does", "takes", "answer", "while another is carried out"), [
        (f"`{name}`", f"{schema['title']}. {schema['description']}", schema["x-lasts"],
         schema["x-answer"], schema["x-meanwhile"]) for name, schema in _messages(border)])


def asked(border):
    """What lumd asks for on the bus."""
    return _table(("request", "to", "members", "answer", "what for"), [
        (f"`{name}`", schema["x-to"], ", ".join(f"`{key}`" for key in schema["properties"]
                                                if not key.startswith("wlan")),
         f"`{schema['x-answer']}`" if schema["x-answer"] != "none" else "none",
         f"{schema['title']}. {schema['description']}") for name, schema in _messages(border)])


def members(argument):
    """The members of a message ("rrm-to-lumd rrm-update") or of a part ("common radio")."""
    document, name = argument.split()
    schema = contract.document(document)["$defs"][name]
    leave_out = HEADER if name in dict(_messages("rrm-to-lumd")) and name != "subscribe-response" \
        else ("version", "service", "cmd", "ap-mac")
    rows = [(key, member) for key, member in schema["properties"].items() if key not in leave_out]
    if any("x-wrong" in _all_of(member, document) for _, member in rows):
        return _table(("member", "value", "meaning", "missing", "wrong"), [
            (f"`{key}`", _value(member, document), _meaning(member, document),
             _all_of(member, document).get("x-missing", ""),
             _all_of(member, document).get("x-wrong", "")) for key, member in rows])
    return _table(("member", "value", "meaning"), [
        (f"`{key}`", _value(member, document), _meaning(member, document)) for key, member in rows])


KINDS = {"sent": sent, "taken": taken, "asked": asked, "members": members}


def _messages(border):
    return [(name, schema) for name, schema in contract.document(border)["$defs"].items()
            if not schema.get("x-part")]


def _all_of(member, document):
    return contract.resolved(member, document)


def _meaning(member, document):
    whole = _all_of(member, document)
    text = whole.get("description") or whole.get("title", "")
    if "x-missing" in whole and "x-wrong" not in whole:
        text += f" Missing {whole['x-missing']}."
    return text


def _value(member, document):
    """The type of a member, its range and its unit."""
    whole = _all_of(member, document)
    text = _type(member, whole)
    return f"{text}, {whole['x-unit']}" if "x-unit" in whole else text


def _type(member, whole):
    if "const" in whole:
        return _literal(whole["const"])
    if "enum" in whole:
        return ", ".join(map(_literal, whole["enum"]))
    if whole.get("type") == "array":
        return _array(whole)
    if whole.get("type") == "object":
        return f"object: {_part(member, whole)}"
    if whole.get("type") == "integer":
        return f"integer{_range(whole)}"
    if isinstance(whole.get("type"), list):
        return " or ".join(whole["type"])
    return whole.get("type", "anything")


def _array(whole):
    items = whole.get("items") or (whole.get("prefixItems") or [{}])[0]
    if items.get("type") == "array":
        return f"list of lists of {_part({}, items['items'])}"
    title = items.get("title") or next((part["title"] for part in items.get("allOf", [])
                                        if "title" in part), "")
    return f"list: {_lower(title)}"


def _part(member, whole):
    name = member.get("$ref", "").rpartition("/")[2]
    return f"`{name}`" if name else _lower(whole.get("title", "its members below"))


def _lower(title):
    return title[:1].lower() + title[1:]


def _literal(value):
    return f'`"{value}"`' if isinstance(value, str) else f"`{value}`"


def _range(whole):
    low, high = whole.get("minimum"), whole.get("maximum")
    if low == -2147483648 and high == 2147483647 or low is high is None:
        return ""
    return f" {low} ... {high}" if high is not None else f" from {low} on"
