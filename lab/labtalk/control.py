"""The control socket: one JSON request a line, one JSON reply a line.

A request is {"cmd": name, ...arguments}; its reply {"ok": true, "result": ...} or
{"ok": false, "error": text}. `ControlClient` is the client for tests and tools; docs/lab.md lists
the commands.
"""
import asyncio
import json
import socket
from typing import Any

from .unixserver import UnixServer

LINE_LIMIT = 64 * 1024 * 1024


class ControlServer(UnixServer):
    """Serves a table of commands: name to a function of keyword arguments, plain or async."""

    read_limit = LINE_LIMIT

    def __init__(self, commands):
        super().__init__()
        self.commands = commands

    async def serve(self, reader, writer):
        while line := await self._line(reader):
            reply = await self._reply(line)
            writer.write(json.dumps(reply, ensure_ascii=False).encode() + b"\n")
            await writer.drain()

    @staticmethod
    async def _line(reader):
        """The next request; nothing at the end, and after one that is too long."""
        try:
            return await reader.readline()
        except ValueError:
            return b""

    async def _reply(self, line):
        try:
            request = json.loads(line)
            name = request.pop("cmd")
            command = self.commands[name]
        except (ValueError, AttributeError, TypeError):
            return {"ok": False, "error": "not a JSON object with a member \"cmd\""}
        except KeyError as error:
            return {"ok": False, "error": f"unknown command or no \"cmd\": {error}"}
        try:
            result = command(**{key.replace("-", "_"): value for key, value in request.items()})
            if asyncio.iscoroutine(result):
                result = await result
        except Exception as error:  # whatever the command's arguments made of it
            return {"ok": False, "error": f"{name}: {error}"}
        return {"ok": True, "result": result}


class ControlError(Exception):
    """The other side refused a command or is gone."""


class ControlClient:
    """A blocking client. Not for the thread that runs the lab itself."""

    def __init__(self, path: str, timeout: float = 30.0):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(timeout)
        self._socket.connect(str(path))
        self._file = self._socket.makefile("rwb")

    def call(self, cmd: str, **arguments) -> Any:
        """The result of a command; ControlError with the reason when it failed."""
        request = {"cmd": cmd, **{key.replace("_", "-"): value
                                  for key, value in arguments.items()}}
        self._file.write(json.dumps(request).encode() + b"\n")
        self._file.flush()
        line = self._file.readline()
        if not line:
            raise ControlError(f"{cmd}: the lab closed the connection")
        reply = json.loads(line)
        if not reply["ok"]:
            raise ControlError(reply["error"])
        return reply["result"]

    def close(self) -> None:
        """Leaves the lab running."""
        self._file.close()
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
