"""A message with what its schema says about each member."""
import json

from labtalk import contract

MOST_ROWS = 1500       # of one message; a survey may have 40,000 members
LONGEST_VALUE = 400    # characters of one
LIMITS = (("minimum", "from {}"), ("maximum", "to {}"), ("enum", "one of {}"),
          ("const", "always {}"), ("maxLength", "at most {} characters"),
          ("maxItems", "at most {}"))
ABOUT = (("x-when", "sent"), ("x-lasts", "lasts"), ("x-answer", "answer"),
         ("x-meanwhile", "meanwhile"), ("x-to", "goes to"))


def opened(event, mode):
    """An event as a whole: {"n", "t", "from", "to", "what", "title", "about", "rows", "left-out"};
    a row is [depth, name, value, explanation]."""
    schema = schema_of(event, mode) or {}
    rows = _Rows()
    rows.add(0, "", event["data"], schema)
    about = [[name, schema[key]] for key, name in ABOUT if key in schema]
    if "description" in schema:
        about.insert(0, ["", schema["description"]])
    return {**{key: event[key] for key in ("n", "t", "from", "to", "what")},
            "title": schema.get("title", ""), "about": about, "rows": rows.rows,
            "left-out": rows.left_out}


def schema_of(event, mode):
    """The schema of what was said; None where there is none."""
    border = border_of(event, mode)
    if border is None:
        return None
    name = contract.ONLY_MESSAGE.get(border, event["what"])
    return contract.messages(border).get(name)


def border_of(event, mode):
    """The file of schemas/ for who spoke to whom."""
    speaker, listener = event["from"], event["to"]
    if "service" in (speaker, listener):
        return f"{mode}-{'from' if speaker == 'lumd' else 'to'}-lumd" if mode != "portal" else None
    if "portal" in (speaker, listener):
        return f"portal-{'from' if speaker == 'lumd' else 'to'}-lumd"
    if "driver" in (speaker, listener) or listener == "bus":
        return None
    return f"bus-{'from' if speaker == 'lumd' else 'to'}-lumd"


def place(border, message, path):
    """The schema of a member: place("rrm-to-lumd", "rrm-info", "radios[].channel"); {} where there
    is none."""
    schema = contract.messages(border).get(message, {})
    for step in path.replace("[]", ".[]").split("."):
        schema = _below(schema, step)
    return schema


def _below(schema, name):
    """The schema of a member, or of the elements for "[]"."""
    for part in (schema, *schema.get("allOf", ()), *schema.get("anyOf", ())):
        found = part.get("items") if name == "[]" else part.get("properties", {}).get(name)
        if isinstance(found, dict):
            return found
        if part is not schema and (found := _below(part, name)):
            return found
    return {}


def in_words(schema):
    """What the schema says about a value: description, unit and limits."""
    parts = [schema["description"]] if "description" in schema else []
    limits = [words.format(_listed(schema[key])) for key, words in LIMITS
              if key in schema and not _is_boundless(key, schema[key])]
    if "x-unit" in schema:
        limits.append(schema["x-unit"])
    if limits:
        parts.append("(" + ", ".join(limits).replace(", to ", " to ") + ")")
    return " ".join(parts)


def _listed(value):
    return ", ".join(map(json.dumps, value)) if isinstance(value, list) else \
        json.dumps(value, ensure_ascii=False) if isinstance(value, str) else value


def _is_boundless(key, value):
    """Whether it is only the range of the type."""
    return key in ("minimum", "maximum") and isinstance(value, int) and abs(value) >= 2**31 - 1


class _Rows:
    def __init__(self):
        self.rows, self.left_out = [], 0

    def add(self, depth, name, value, schema):
        if len(self.rows) >= MOST_ROWS:
            self.left_out += 1
            return
        said = in_words(schema) if depth else ""
        if isinstance(value, dict):
            self.rows.append([depth, name, "{}" if not value else "", said])
            for key, member in value.items():
                self.add(depth + 1, key, member, _below(schema, key))
        elif isinstance(value, list):
            self.rows.append([depth, name, f"{len(value)} of them" if value else "[]", said])
            rule = _below(schema, "[]")
            for index, entry in enumerate(value):
                own = schema.get("prefixItems", [])[index:index + 1]
                self.add(depth + 1, f"[{index}]", entry, own[0] if own else rule)
        else:
            text = json.dumps(value, ensure_ascii=False)
            cut = text[:LONGEST_VALUE] + "…" if len(text) > LONGEST_VALUE else text
            self.rows.append([depth, name, cut, said])
