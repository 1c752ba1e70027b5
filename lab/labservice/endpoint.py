"""The URL of a service, as lumd takes it."""
import dataclasses
import urllib.parse

NOT_LUMDS = {"wss": "lumd speaks plain ws, no TLS", "http": "a websocket is wanted (ws://)",
             "https": "a websocket is wanted (ws://), without TLS"}


class EndpointError(ValueError):
    """What is wrong with a URL."""


@dataclasses.dataclass(frozen=True)
class Endpoint:
    """`path` begins with "/" and has the query in it."""
    host: str
    port: int
    path: str

    @classmethod
    def parse(cls, text: str) -> "Endpoint":
        """Of "ws://HOST:PORT/PATH"; EndpointError tells what lumd cannot do with it."""
        try:
            parts = urllib.parse.urlsplit(text)
            port = parts.port
        except ValueError as error:
            raise EndpointError(f"{text}: {error}") from None
        if parts.scheme != "ws":
            why = NOT_LUMDS.get(parts.scheme, "ws://HOST:PORT/PATH is wanted")
            raise EndpointError(f"{text}: {why}")
        if not parts.hostname or ":" in parts.hostname or parts.username is not None:
            raise EndpointError(f"{text}: a host name or an IPv4 address is wanted")
        if not port or not parts.path or parts.fragment:
            raise EndpointError(f"{text}: lumd wants a port and a path, ws://HOST:PORT/PATH")
        path = parts.path + (f"?{parts.query}" if parts.query else "")
        return cls(parts.hostname, port, path)

    def __str__(self) -> str:
        return f"ws://{self.host}:{self.port}{self.path}"
