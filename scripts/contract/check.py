"""What must hold of the schemas and of what is made from them."""
import json
import re

from jsonschema import Draft202012Validator
from jsonschema.exceptions import SchemaError

from labtalk import contract

from . import asyncapi, tables
from .pretty import pretty

TREE = contract.FOLDER.parent
PROTOCOL = TREE / "docs" / "protocol.md"
BUNDLE = contract.FOLDER / "asyncapi.json"
DICTIONARY = TREE / "fuzz" / "lumd.dict"
# Members that the agent's sources read and write by their name.
READ = re.compile(r'\bget_(?:string|int|opt_int|subobject)\(\s*"([^"]+)"')
WRITTEN = re.compile(r'\b(?:insert_(?:string|int)|make_(?:subobject|array))\(\s*"([^"]+)"')
# A report of a load balancer that there is not: nothing ever sends it.
NEVER_SENT = {"probe-list"}
MEMBER_NOTES = {"from": ("description",), "to": ("description", "x-missing", "x-wrong")}


def problems(write):
    """Complaints, each a line; with `write` what is made from the schemas is made first."""
    found = [problem for name in ["common", contract.TEXTS, *contract.borders()]
             for problem in check_document(name)]
    if found:
        return found
    for border in contract.borders():
        found += check_border(border)
        found += check_examples(border)
    found += check_texts() + check_sources() + check_dictionary()
    if not found:
        found += tables.renew(PROTOCOL, write) + renew_bundle(write)
    return found


def renew_bundle(write):
    made = pretty(asyncapi.build(examples))
    if write:
        BUNDLE.write_text(made, encoding="utf-8")
    elif not BUNDLE.exists() or BUNDLE.read_text(encoding="utf-8") != made:
        return [f"{BUNDLE.name}: not what the schemas say (scripts/check-schemas --write)"]
    return check_bundle(json.loads(made))


def check_bundle(bundle):
    """Each example is valid by the document alone, so all its references lead somewhere."""
    found = []
    for name, message in bundle["components"]["messages"].items():
        validator = Draft202012Validator({**message["payload"]["schema"], **bundle})
        found += [f"{BUNDLE.name}: {name}: {error.message}" for example in message["examples"]
                  for error in validator.iter_errors(example["payload"])]
    return found + [f"{BUNDLE.name}: {reference} leads nowhere"
                    for reference in sorted(set(references(bundle))) if not leads(bundle, reference)]


def references(value):
    if isinstance(value, dict):
        yield from [value["$ref"]] if isinstance(value.get("$ref"), str) else []
        value = list(value.values())
    for entry in value if isinstance(value, list) else ():
        yield from references(entry)


def leads(document, reference):
    for step in reference.removeprefix("#/").split("/"):
        if not isinstance(document, dict) or step not in document:
            return False
        document = document[step]
    return True


def check_document(name):
    try:
        Draft202012Validator.check_schema(contract.document(name))
        if name in contract.borders():
            contract.messages(name)
    except SchemaError as error:
        return [f"{name}.json: {error.message}"]
    except (KeyError, OSError) as error:
        return [f"{name}.json: a reference leads nowhere: {error}"]
    return []


def check_border(border):
    direction = "from" if border.endswith("from-lumd") else "to"
    found = []
    for name, schema in contract.messages(border).items():
        for path, member in members(schema):
            if isinstance(member, dict) and "const" not in member:
                found += [f"{border} {name}: {path} has no {note}"
                          for note in MEMBER_NOTES[direction] if note not in member]
    return found


def members(schema, path=""):
    """(path, schema) of each member of an object and of what is below it."""
    for key, member in schema.get("properties", {}).items():
        yield f"{path}{key}", member
        if isinstance(member, dict):
            yield from members(member, f"{path}{key}/")
    below = [schema.get("items"), schema.get("additionalProperties"), *schema.get("prefixItems", []),
             *schema.get("oneOf", []), *schema.get("patternProperties", {}).values()]
    for part in below:
        if isinstance(part, dict):
            yield from members(part, path)
    for part in schema.get("allOf", []):
        if "title" in part:  # others only narrow down what another part names
            yield from members(part, path)


def names(ending):
    """Names of all members at the borders that end so."""
    return {path.rpartition("/")[2] for border in contract.borders() if border.endswith(ending)
            for schema in contract.messages(border).values() for path, _ in members(schema)}


def examples(border):
    path = contract.FOLDER / "examples" / f"{border}.json"
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else {}


def check_examples(border):
    known, shown = contract.messages(border), examples(border)
    found = [f"{border} {name}: no example (scripts/check-schemas --record)"
             for name in known if not shown.get(name)]
    found += [f"examples/{border}.json: no message {name}" for name in shown if name not in known]
    for name in known:
        for example in shown.get(name, []):
            found += [f"{border} {name}: the example: {complaint}"
                      for complaint in contract.complaints(border, example)]
    return found


def check_texts():
    shown = examples(contract.TEXTS)
    return [f"{contract.TEXTS} {name}: {complaint}" for name in contract.messages(contract.TEXTS)
            for complaint in (contract.text_complaints(name, shown[name][0]) if shown.get(name)
                              else ["no example (scripts/check-schemas --record)"])]


def check_sources():
    """What the service logic reads and writes is in the schemas."""
    sources = [TREE / "src" / name for name in (
        "rrm_worker.cpp", "rrm_worker_config.cpp", "rrm_worker_report.cpp", "rrm_worker_scan.cpp",
        "rrm_worker_steering.cpp", "wids_worker.cpp", "websock_worker.cpp")]
    found = []
    for path in sources:
        text = path.read_text(encoding="utf-8")
        found += [f"{path.name} reads {name!r}, which no schema of what lumd takes has"
                  for name in sorted(set(READ.findall(text)) - names("to-lumd"))]
        found += [f"{path.name} writes {name!r}, which no schema of what lumd sends has"
                  for name in sorted(set(WRITTEN.findall(text)) - names("from-lumd") - NEVER_SENT)]
    return found


def check_dictionary():
    """The fuzzers know each member and each message that lumd takes."""
    text = DICTIONARY.read_text(encoding="utf-8")
    found = [f"fuzz/lumd.dict has no member {name}" for name in sorted(names("to-lumd"))
             if f'\\"{name}\\"' not in text]
    return found + [f"fuzz/lumd.dict has no message {name}" for border in contract.borders()
                    if border.endswith("to-lumd") for name in contract.messages(border)
                    if border not in contract.ONLY_MESSAGE and name not in text]
