"""Who may look and command: whoever has the token, from a page of this very server.

Another page in the same browser can send requests here, but does not know the token, and cannot
change the Origin header of its websocket (RFC 6454, 7; RFC 6455, 10.2). A name that is made to
resolve to this machine shows in the Host header.
"""
import hmac
import os
import pathlib
import secrets

from aiohttp import web

TOKEN_BYTES = 24
LOCAL = ("127.0.0.1", "localhost")
HEADERS = {
    "Cache-Control": "no-store", "Referrer-Policy": "no-referrer",
    "X-Content-Type-Options": "nosniff", "X-Frame-Options": "DENY",
    "Cross-Origin-Opener-Policy": "same-origin", "Cross-Origin-Resource-Policy": "same-origin",
}
POLICY = ("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
          "connect-src 'self' ws://{host}; base-uri 'none'; form-action 'none'; "
          "frame-ancestors 'none'")


class Guard:
    """Of one server; `port` once it listens."""

    def __init__(self, token: str):
        self.token, self.port = token, None

    def hosts(self) -> set[str]:
        return {f"{name}:{self.port}" for name in LOCAL}

    def check(self, request: web.Request, is_socket: bool = False) -> None:
        """Raises what the request is answered with when it is refused."""
        if request.headers.get("Host") not in self.hosts():
            raise web.HTTPForbidden(text="not the address of this console\n")
        origin = request.headers.get("Origin")
        if origin is None and is_socket or \
                origin is not None and origin not in {f"http://{host}" for host in self.hosts()}:
            raise web.HTTPForbidden(text="another page's request\n")
        if not hmac.compare_digest(request.match_info.get("token", "").encode(),
                                   self.token.encode()):
            raise web.HTTPForbidden(text="the address lacks the token that the lab printed\n")

    def protect(self, request: web.Request, response: web.StreamResponse) -> None:
        """Headers with which no other page can use what is answered."""
        response.headers.update(HEADERS)
        response.headers["Content-Security-Policy"] = POLICY.format(
            host=request.headers.get("Host", ""))


def new_token() -> str:
    return secrets.token_urlsafe(TOKEN_BYTES)


def kept_token(path: pathlib.Path) -> str:
    """That of an earlier lab, so that a page which is open finds this one; made when there is none.
    Only its owner can read the file."""
    try:
        text = path.read_text(encoding="ascii").strip()
        if path.stat().st_mode & 0o077 == 0 and text:
            return text
    except (OSError, UnicodeDecodeError):
        pass
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    token = new_token()
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w",
              encoding="ascii") as file:
        file.write(token + "\n")
    return token
