"""Somebody else's service in the place of the lab's own: reached through a relay, and judged."""
import json
import logging

from labtalk import frames
from labtalk.contract import Checker
from labtalk.journal import Journal

from .conformance import Conformance
from .endpoint import Endpoint
from .linkrules import LinkRules
from .messagerules import MessageRules
from .model import ApModel
from .relay import AGENT, SERVICE, Listener, Relay
from .server import ServiceError



class ForeignService:
    """The service at an endpoint, as far as one access point meets it. Its conversation stands in
    the journal as that of the lab's own service does. Runs on one asyncio loop.

    `mode`: rrm, wids or portal. `now()`: seconds of lumd's clock.
    """

    def __init__(self, endpoint: Endpoint, mode: str, now, journal: "Journal | None" = None,
                 checker: "Checker | None" = None):
        logging.getLogger("websockets").setLevel(logging.CRITICAL)
        self.endpoint, self.mode, self.now = endpoint, mode, now
        self.journal = journal or Journal()
        self.checker = checker or Checker(self.journal)  # of what lumd says
        self.conformance = Conformance(self._found)
        self.known = ApModel("")
        self.connections = 0
        self.subscriptions = 0
        self.texts = {AGENT: 0, SERVICE: 0}  # messages by who sent them
        self.rules = MessageRules(f"{mode}-to-lumd", self.known, self.conformance, now)
        self._relay = Relay(endpoint, lambda: Conversation(self))
        self.journal.listen(self._hear_refusals)

    @property
    def port(self) -> int:
        return self._relay.port

    @property
    def path(self) -> str:
        return self.endpoint.path

    @property
    def aps(self) -> dict:
        """Like the lab's own service: by MAC, none before it has said anything."""
        return {self.known.mac: self.known} if self.known.mac else {}

    @property
    def links(self) -> list:
        return [self._relay] if self._relay.connected else []

    async def start(self, _control_path=None) -> None:
        await self._relay.start()

    async def stop(self) -> None:
        await self._relay.stop()

    async def drop(self, hard: bool = True) -> None:
        """Cuts the link, as a network that fails."""
        self.journal.tape("service", "lab", "drop", hard=hard)
        self.journal.add("network", "lumd", "dropped", {"hard": hard})
        self._relay.drop()

    async def send(self, *_, **__):
        raise ServiceError("the service is somebody else's: it says what it wants to")

    def subscription_answered(self, taken_in: bool) -> None:
        self.known.subscribed = taken_in
        self.subscriptions += taken_in

    def ap(self) -> ApModel:
        if not self.known.mac:
            raise ServiceError("the access point has told nothing yet")
        return self.known

    def _found(self, kind, rule, sentence):
        self.journal.add("checker", "service", kind.upper(), f"{rule}: {sentence}")

    def _hear_refusals(self, event):
        if event["from"] == "hubd" and isinstance(event["data"], dict) and \
                event["data"].get("status") not in (None, "ok"):
            self.rules.refused(event["data"].get("reason") or event["what"])


class Conversation(Listener):
    """One connection's events, into the journal and before the rules."""

    def __init__(self, service):
        self._service, self._journal = service, service.journal
        self._rules = LinkRules(service.conformance, service.now)
        self._agent_pieces, self._path = [], None

    def unreachable(self, reason):
        self._journal.add("relay", "lumd", "unreachable", {"reason": reason})

    def request(self, head):
        self._path = head.first.split(" ")[1:2]
        self._rules.request(head)

    def response(self, head):
        self._rules.response(head)
        if self._rules.established:
            self._service.connections += 1
            self._journal.tape("service", "lumd", "connect", path="".join(self._path),
                               subprotocol=head.headers.get("sec-websocket-protocol"))
            self._journal.add("lumd", "service", "connected", {
                "path": "".join(self._path),
                "subprotocol": head.headers.get("sec-websocket-protocol")})
        else:
            self._journal.add("service", "lumd", "refused",
                              {"answer": head.first if head is not None else "no HTTP"})

    def frame(self, speaker, frame):
        if speaker == SERVICE:
            text = self._rules.service_frame(frame)
            if text is not None:
                self._from_service(text)
        else:
            self._rules.agent_frame(frame)
            if frame.opcode in frames.DATA:
                self._from_agent(frame)
        what = {frames.PING: "ping", frames.PONG: "pong", frames.CLOSE: "close"}.get(frame.opcode)
        if what is not None:
            self._tell(speaker, what, {"code": frame.close_code} if what == "close" else None)

    def _from_agent(self, frame):
        self._agent_pieces.append(frame.payload)
        if not frame.final:
            return
        text, self._agent_pieces = b"".join(self._agent_pieces).decode(errors="replace"), []
        message = parsed(text)
        service = self._service
        service.texts[AGENT] += 1
        self._journal.tape("service", "lumd", "text", text=text)
        self._tell(AGENT, name_of(message), message if message is not None else text)
        if service.mode == "portal":
            return
        service.checker.look(f"{service.mode}-from-lumd", message)
        if isinstance(message, dict):
            service.known.mac = message.get("ap-mac") or service.known.mac
            service.known.learn(message)
            service.rules.told(message)

    def _from_service(self, text):
        message, service = parsed(text), self._service
        service.texts[SERVICE] += 1
        self._journal.tape("service", "lab", "text", text=text, pieces=1)
        self._tell(SERVICE, name_of(message), message if message is not None else text)
        if service.mode != "portal":
            service.rules.heard(text)
        if name_of(message).lower() == "subscribe-response":
            service.subscription_answered(str(message.get("status")).lower() == "success")

    def _tell(self, speaker, what, data):
        target = AGENT if speaker == SERVICE else SERVICE
        self._journal.add(speaker, target, what, data)

    def ended(self, speaker, reset):
        self._rules.ended(speaker == SERVICE, reset)
        if self._rules.established:
            self._service.rules.link_lost()
        self._service.known.subscribed = False
        if speaker == SERVICE:
            self._journal.tape("service", "lab", "drop", hard=reset)
        self._tell(speaker, "disconnected", {"reset": True} if reset else None)


def parsed(text: str):
    try:
        return json.loads(text)
    except ValueError:
        return None


def name_of(message) -> str:
    name = message.get("cmd") if isinstance(message, dict) else None
    return name if isinstance(name, str) else "message"
