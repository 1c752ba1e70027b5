"""JSON as the files of schemas/ have it: what fits on a line stands on one."""
import json

WIDTH = 100


def pretty(value):
    return _pretty(value, 0, 0) + "\n"


def _pretty(value, indent, taken):
    flat = json.dumps(value, ensure_ascii=False)
    if not isinstance(value, (dict, list)) or not value or taken + len(flat) <= WIDTH:
        return flat
    inner = " " * (indent + 2)
    if isinstance(value, dict):
        rows = []
        for key, entry in value.items():
            head = f"{inner}{json.dumps(key)}: "
            rows.append(head + _pretty(entry, indent + 2, len(head)))
        return "{\n" + ",\n".join(rows) + "\n" + " " * indent + "}"
    rows = [inner + _pretty(entry, indent + 2, len(inner)) for entry in value]
    return "[\n" + ",\n".join(rows) + "\n" + " " * indent + "]"
