"""What may be said at lumd's borders: the schemas of the tree, and a checker of messages.

A border is a file of schemas/ without its ending: "rrm-from-lumd", "bus-to-lumd", ... What comes
from lumd must have its members in the order of the schema, too, which JSON Schema cannot tell.

The schemas are applied by python3-jsonschema. Where that is not installed only the names of
messages and the order of members are looked at (`IS_COMPLETE`), so that a lab needs no more than
lumd does.
"""
import functools
import json

try:
    from jsonschema import Draft202012Validator, validators
except ImportError:
    Draft202012Validator = None

from .resources import resource

FOLDER = resource("schemas")
IS_COMPLETE = Draft202012Validator is not None
LONGEST_COMPLAINT = 300
ANNOTATIONS = frozenset({"title", "description", "default", "examples"})
TEXTS = "driver-texts"  # of this file each definition is one text, and no message
# Where one schema is for all messages.
ONLY_MESSAGE = {"wids-to-lumd": "mac-list"}


@functools.lru_cache(maxsize=None)
def document(name):
    """One file of schemas/ as it stands."""
    return json.loads((FOLDER / f"{name}.json").read_text(encoding="utf-8"))


def borders() -> list[str]:
    return sorted(path.stem for path in FOLDER.glob("*-lumd.json"))


@functools.lru_cache(maxsize=None)
def messages(border: str) -> dict[str, dict]:
    """{name: schema} of a border, with every reference replaced by what it stands for."""
    return {name: resolved(schema, border) for name, schema in document(border)["$defs"].items()
            if not schema.get("x-part")}


def resolved(schema, name):
    """The same schema without references; `name`: the document it is in."""
    if isinstance(schema, list):
        return [resolved(entry, name) for entry in schema]
    if not isinstance(schema, dict):
        return schema
    own = {key: resolved(value, name) for key, value in schema.items() if key != "$ref"}
    if "$ref" not in schema:
        return own
    target = _target(schema["$ref"], name)
    if all(key not in target or _is_annotation(key) for key in own):
        return {**target, **own}
    return {**own, "allOf": [target, *own.get("allOf", [])]}


def _target(reference, name):
    file, _, path = reference.partition("#/$defs/")
    where = file.removesuffix(".json") or name
    return resolved(document(where)["$defs"][path], where)


def _is_annotation(key):
    return key in ANNOTATIONS or key.startswith("x-")


def name_of(border: str, message: dict) -> str | None:
    """Which message of the border it is, None when it does not say."""
    if border in ONLY_MESSAGE:
        return ONLY_MESSAGE[border]
    name = message.get("cmd", message.get("command"))
    return name if isinstance(name, str) else None


def complaints(border: str, message: object) -> list[str]:
    """Everything that is wrong with a message at that border."""
    if not isinstance(message, dict):
        return ["not a JSON object"]
    name = name_of(border, message)
    taken = border.endswith("to-lumd")
    if taken:  # lumd compares these without regard to letter case
        name = name and name.lower()
        message = {key: value.lower() if key in ("service", "cmd", "command") and
                   isinstance(value, str) else value for key, value in message.items()}
    schema = messages(border).get(name)
    if schema is None:
        return [f"unknown command {name!r}"]
    return ([] if taken else out_of_order(message, schema, "")) + _errors(border, name, message)


def text_complaints(name: str, text: str) -> list[str]:
    """Everything that is wrong with a text for a driver or hostapd."""
    return _errors(TEXTS, name, text)


def _errors(border, name, value):
    if not IS_COMPLETE:
        return []
    errors = sorted(_validator(border, name).iter_errors(value),
                    key=lambda error: list(map(str, error.absolute_path)))
    return [_in_words(error) for error in errors]


@functools.lru_cache(maxsize=None)
def _validator(border, name):
    distinct = validators.extend(Draft202012Validator, {"items": _distinct_items})
    return distinct(messages(border)[name])


def _distinct_items(validator, items, instance, schema):
    """The keyword "items", looking once at what an array has more than once: a survey of 40,000
    equal entries would hold up the conversation for seconds."""
    if not validator.is_type(instance, "array"):
        return
    good = set()
    first = len(schema.get("prefixItems", ()))
    for index, item in enumerate(instance[first:], first):
        text = json.dumps(item)
        if text in good:
            continue
        errors = list(validator.descend(item, items, path=index))
        yield from errors
        if not errors:
            good.add(text)


def _in_words(error):
    where = "".join(f"[{step}]" if isinstance(step, int) else f".{step}"
                    for step in error.absolute_path).lstrip(".")
    text = f"{where}: {error.message}" if where else error.message
    return text if len(text) <= LONGEST_COMPLAINT else text[:LONGEST_COMPLAINT] + "…"


def out_of_order(value, schema, where):
    """Objects below a value whose members do not stand in the order of the schema."""
    found = []
    for part in (schema, *schema.get("allOf", ())):
        if isinstance(value, dict):
            found += _out_of_order(value, part.get("properties", {}), where)
        elif isinstance(value, list):
            rules = part.get("prefixItems", [])
            for index, entry in enumerate(value):
                rule = rules[index] if index < len(rules) else part.get("items", {})
                found += out_of_order(entry, rule, f"{where}[{index}]")
    return found


def _out_of_order(value, properties, where):
    present = [key for key in value if key in properties]
    found = []
    if present != [key for key in properties if key in value]:
        found.append(f"{where}: members are out of order: {', '.join(value)}".removeprefix(": "))
    for key in present:
        if isinstance(properties[key], dict):
            found += out_of_order(value[key], properties[key], f"{where}.{key}".removeprefix("."))
    return found


class Checker:
    """Looks at the messages of one lab and keeps what is wrong with them: for each complaint the
    "border", the "cmd" of the message and the "complaint"."""

    def __init__(self, journal):
        self.journal, self.found = journal, []

    def look(self, border, message):
        """Returns the complaints about this message."""
        name = name_of(border, message) if isinstance(message, dict) else None
        return self._keep(border, name or "message", complaints(border, message))

    def look_text(self, name, text):
        """The same of a text for a driver or hostapd."""
        return self._keep(TEXTS, name, text_complaints(name, text))

    def _keep(self, border, name, new):
        for complaint in new:
            self.found.append({"border": border, "cmd": name, "complaint": complaint})
            self.journal.add("checker", "checker", "COMPLAINT", f"{border} {name}: {complaint}")
        return new
