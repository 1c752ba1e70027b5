"""schemas/asyncapi.json: all borders as one AsyncAPI 3.0 document, seen from lumd."""
from labtalk import contract

FORMAT = "application/schema+json;version=2020-12"
CHANNELS = {
    "rrm": ("RRM service", "service", "Websocket subprotocol websock-rrm."),
    "wids": ("WIDS service", "service", "Websocket subprotocol websock-wids."),
    "portal": ("Portal module", "bus", "Module 2 (lumd) and module 3. Beside these messages every "
               "text of the service, unread, both ways (websocket subprotocol websock-roaming)."),
    "bus": ("Daemons", "bus", "Requests from module 28 to modules 1, 6 and 34; client events to "
            "module 31."),
}
DIRECTIONS = {"from": ("send", "to"), "to": ("receive", "from")}


def build(examples):
    """The document. `examples(border)`: {message: [example]}."""
    borders = contract.borders()
    return {
        "asyncapi": "3.0.0",
        "info": {
            "title": "lumd", "version": "2.4.0",
            "description": "What the radio-management agent lumd says and hears. Made from the "
                           "files of schemas/; docs/protocol.md tells the rest.",
            "license": {"name": "Apache-2.0"}},
        "defaultContentType": "application/json",
        "servers": {
            "service": {"host": "service.example:8080", "protocol": "ws",
                        "description": "The cloud service; lumd is the client. Host, port and path "
                                       "are those of lumd's configuration file."},
            "bus": {"host": "localhost", "pathname": "/var/run/msgbus.sock", "protocol": "msgbus",
                    "description": "The local message bus (AF_UNIX), see msgbusd(8)."}},
        "channels": {name: _channel(name) for name in CHANNELS},
        "operations": {f"{border}.{name}": _operation(border, name, schema)
                       for border in borders for name, schema in _messages(border)},
        "components": {
            "messages": {f"{border}.{name}": _message(border, name, schema, examples(border))
                         for border in borders for name, schema in _messages(border)},
            "schemas": {name: {"schemaFormat": FORMAT, "schema": {"$defs": _moved(
                contract.document(name)["$defs"], name)}} for name in ["common", *borders]}},
    }


def _messages(border):
    return [(name, contract.document(border)["$defs"][name]) for name in contract.messages(border)]


def _channel(name):
    title, server, description = CHANNELS[name]
    borders = [border for border in contract.borders() if border.partition("-")[0] == name]
    return {"address": None, "title": title, "description": description,
            "servers": [{"$ref": f"#/servers/{server}"}],
            "messages": {f"{border}.{message}": {"$ref": f"#/components/messages/{border}.{message}"}
                         for border in borders for message in contract.messages(border)}}


def _operation(border, name, schema):
    channel, direction, _ = border.split("-")
    action, other = DIRECTIONS[direction]
    operation = {"action": action, "title": schema["title"],
                 "channel": {"$ref": f"#/channels/{channel}"},
                 "messages": [_in_channel(channel, border, name)]}
    answer, answering = schema.get("x-answer"), f"{channel}-{other}-lumd"
    if answer in contract.messages(answering):
        operation["reply"] = {"channel": {"$ref": f"#/channels/{channel}"},
                              "messages": [_in_channel(channel, answering, answer)]}
    return operation


def _in_channel(channel, border, name):
    return {"$ref": f"#/channels/{channel}/messages/{border}.{name}"}


def _message(border, name, schema, examples):
    notes = [f"{label}: {schema[key]}." for key, label in (
        ("x-when", "Sent when"), ("x-lasts", "Takes"), ("x-answer", "Answer"),
        ("x-meanwhile", "While another is carried out")) if key in schema]
    return {"name": name, "title": schema["title"],
            "description": " ".join([schema["description"], *notes]),
            "payload": {"schemaFormat": FORMAT,
                        "schema": {"$ref": f"#/components/schemas/{border}/schema/$defs/{name}"}},
            "examples": [{"payload": example} for example in examples[name]]}


def _moved(schema, name):
    """The same schema with references that lead to where it is in the document."""
    if isinstance(schema, list):
        return [_moved(entry, name) for entry in schema]
    if not isinstance(schema, dict):
        return schema
    moved = {key: _moved(value, name) for key, value in schema.items() if key != "$ref"}
    if "$ref" in schema:
        file, _, path = schema["$ref"].partition("#")
        moved["$ref"] = f"#/components/schemas/{file.removesuffix('.json') or name}/schema{path}"
    return moved
