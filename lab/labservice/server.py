"""The websocket server: accepts access points, answers, remembers, and sends commands."""
import json
import logging

from labtalk import websocket
from labtalk.contract import Checker
from labtalk.control import ControlServer
from labtalk.journal import Journal

from .model import ApModel

SUBPROTOCOLS = ("websock-rrm", "websock-roaming", "websock-wids")
SUCCESS = {"status": "success", "code": 200}
WIDS_SERVICE = "wids-mac-service"
# The relay of the portal mode carries whatever it is given.
BORDERS = {"websock-rrm": "rrm", "websock-wids": "wids"}


class ServiceError(Exception):
    """A command that cannot be sent."""


class Service:
    """The service on one port. Runs on one asyncio loop.

    `subscribe_answers`: what successive subscribe requests are answered with (status, code,
    domain, config); None answers nothing; the last one is used again and again.
    """

    path = "/agent"  # of the URL; every other is served as well

    def __init__(self, host="127.0.0.1", port=0, journal=None, checker=None):
        self.host, self.port = host, port
        self.journal = journal or Journal()
        self.checker = checker or Checker(self.journal)
        self.subscribe_answers = [dict(SUCCESS)]
        self.answer_pings = True
        self.accepting = True
        self.aps = {}         # by MAC
        self.links = []       # open connections, oldest first
        self.readers = []     # called with each text as it came, before anything is made of it
        self.connections = 0
        self._server = self._control = None

    async def start(self, control_path=None):
        logging.getLogger("websockets").setLevel(logging.CRITICAL)  # the journal tells
        await self.listen()
        if control_path is not None:
            self._control = ControlServer(self.commands())
            await self._control.start(str(control_path))

    async def listen(self):
        self._server = websocket.Server(self._serve, SUBPROTOCOLS, self._admit)
        await self._server.start(self.host, self.port)
        self.port = self._server.port
        self.journal.tape("service", "lab", "listen")

    async def silence(self):
        """Closes the port and every connection, as a service that is gone."""
        if self._server is not None:
            self.journal.tape("service", "lab", "silence")
            await self._server.stop()
            self._server = None

    async def stop(self):
        if self._control is not None:
            await self._control.stop()
        await self.silence()

    def _admit(self, path):
        if self.accepting:
            return None
        self.journal.add("service", "lumd", "refused", {"path": path})
        return "refused by the lab\n"

    async def _serve(self, link):
        link.answer_pings = self.answer_pings
        link.on_ping = lambda: self._pinged(link)
        self.connections += 1
        self.links.append(link)
        self.journal.tape("service", "lumd", "connect", path=link.path,
                          subprotocol=link.subprotocol)
        self.journal.add("lumd", "service", "connected", {"path": link.path,
                                                          "subprotocol": link.subprotocol})
        try:
            async for text in link:
                await self._receive(link, text)
        except ServiceError:
            pass
        finally:
            self.links.remove(link)
            for ap in self.aps.values():
                ap.subscribed = False
            self.journal.tape("service", "lumd", "disconnect", code=link.close_code)
            self.journal.add("lumd", "service", "disconnected",
                             {"code": link.close_code} if link.close_code else None)

    def _pinged(self, link):
        self.journal.tape("service", "lumd", "ping")
        self.journal.add("lumd", "service", "ping",
                         None if link.answer_pings else {"answered": False})

    async def _receive(self, link, text):
        self.journal.tape("service", "lumd", "text", text=text)
        for reader in self.readers:
            reader(text)
        try:
            message = json.loads(text)
        except ValueError:
            message = None
        what = message.get("cmd", "message") if isinstance(message, dict) else "message"
        self.journal.add("lumd", "service", what, message if message is not None else str(text))
        self._look(link, "from", message)
        if link.subprotocol == "websock-rrm" and isinstance(message, dict):
            await self._rrm(link, message)

    def _look(self, link, direction, message):
        if link.subprotocol in BORDERS:
            self.checker.look(f"{BORDERS[link.subprotocol]}-{direction}-lumd", message)

    async def _rrm(self, link, message):
        mac = message.get("ap-mac", "")
        ap = self.aps.setdefault(mac, ApModel(mac))
        ap.learn(message)
        if message.get("cmd") == "unsubscribe-request":
            ap.subscribed = False
        if message.get("cmd") == "subscribe-request":
            answers = self.subscribe_answers
            answer = answers.pop(0) if len(answers) > 1 else answers[0] if answers else None
            if answer is not None:
                ap.subscribed = answer.get("status", "").lower() == "success"
                await self.send({"cmd": "subscribe-response", "ap-mac": mac, **answer}, link)

    def ap(self):
        """The access point, when there is one only."""
        if len(self.aps) != 1:
            raise ServiceError(f"{len(self.aps)} access points are known")
        return next(iter(self.aps.values()))

    async def send(self, message, link=None, pieces=1, broken=False):
        """Sends a text as it is, or an object with the header filled in where it has none, which
        must then be as the schemas want it unless it is meant to be `broken`. ServiceError when
        nobody is there, or no longer."""
        link = link or (self.links[-1] if self.links else None)
        if link is None:
            raise ServiceError("no access point is connected")
        if isinstance(message, dict):
            service = WIDS_SERVICE if link.subprotocol == "websock-wids" else "rrm"
            message = {"version": "2.4", "service": service, **message}
            if not broken:
                self._look(link, "to", message)
        text = message if isinstance(message, str) else json.dumps(message, ensure_ascii=False)
        what = message.get("cmd", "message") if isinstance(message, dict) else "message"
        self.journal.tape("service", "lab", "text", text=text, pieces=pieces)
        self.journal.add("service", "lumd", what, message)
        size = -(-len(text) // max(pieces, 1)) or 1
        parts = [text[at:at + size] for at in range(0, len(text), size)] or [""]
        try:
            await link.send(parts if len(parts) > 1 else parts[0])
        except websocket.LinkClosed as lost:
            raise ServiceError("the access point has just gone") from lost

    async def drop(self, hard=False):
        """Closes every connection; `hard` without a Close frame."""
        self.journal.tape("service", "lab", "drop", hard=hard)
        for link in list(self.links):
            self.journal.add("service", "lumd", "dropped", {"hard": hard})
            if hard:
                link.abort()
            else:
                await link.close()

    # Commands of the control socket

    def commands(self):
        return {
            "status": self.status, "send": self._command_send, "drop": self.drop,
            "events": self._events, "wait-event": self._wait_event,
            "complaints": lambda: self.checker.found, "settings": self.settings,
            "silence": self.silence, "listen": self.listen,
        }

    def status(self):
        return {"port": self.port, "connections": self.connections, "links": len(self.links),
                "aps": [ap.as_json() for ap in self.aps.values()],
                "complaints": len(self.checker.found)}

    def settings(self, subscribe_answers=None, answer_pings=None, accepting=None):
        self.journal.tape("service", "lab", "settings", accepting=accepting,
                          answer_pings=answer_pings)
        for name, value in (("subscribe_answers", subscribe_answers),
                            ("answer_pings", answer_pings), ("accepting", accepting)):
            if value is not None:
                setattr(self, name, value)
        for link in self.links:
            link.answer_pings = self.answer_pings

    async def _command_send(self, message, pieces=1, broken=False):
        await self.send(message, pieces=pieces, broken=broken)

    def _events(self, since=0, **match):
        return self.journal.since(since, **match)

    async def _wait_event(self, since=0, timeout=10.0, **match):
        return await self.journal.wait(since, timeout, **match)
