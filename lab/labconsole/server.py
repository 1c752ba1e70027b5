"""The console's web server: the page's files and one websocket a page."""
import asyncio
import json
import mimetypes
import pathlib

from aiohttp import WSMsgType, web

from labshow.process import LabError
from labtalk.resources import D3

from .guard import Guard
from .session import Session

PAGE = pathlib.Path(__file__).resolve().parent / "page"
HEARTBEAT = 20.0            # seconds between two pings of a page
LONGEST_MESSAGE = 256 * 1024  # bytes that a page may send at once
MOST_PAGES = 8


class Server:
    """Shows a board on 127.0.0.1. `port` 0: any that is free."""

    def __init__(self, board, token: str, port: int = 0):
        self.board, self.guard, self.port = board, Guard(token), port
        self._pages = set()
        self._runner = None

    @property
    def url(self) -> str:
        return f"http://127.0.0.1:{self.port}/{self.guard.token}/"

    async def start(self) -> None:
        if not D3.is_file():
            raise LabError(f"--console takes libjs-d3 ({D3} is not there)")
        app = web.Application()
        app.router.add_get("/{token}/", self._file)
        app.router.add_get("/{token}/socket", self._socket)
        app.router.add_get("/{token}/{name}", self._file)
        app.router.add_get("/{rest:.*}", self._nothing)
        self._runner = web.AppRunner(app, access_log=None)
        await self._runner.setup()
        site = web.TCPSite(self._runner, "127.0.0.1", self.port)
        await site.start()
        self.port = self.guard.port = self._runner.addresses[0][1]

    async def stop(self) -> None:
        for page in list(self._pages):
            await page.close(code=1001)
        if self._runner is not None:
            await self._runner.cleanup()

    async def _nothing(self, request):
        self.guard.check(request)
        raise web.HTTPNotFound()

    async def _file(self, request):
        self.guard.check(request)
        name = request.match_info.get("name", "index.html")
        path = D3 if name == D3.name else PAGE / name
        if path.parent not in (PAGE, D3.parent) or not path.is_file():
            raise web.HTTPNotFound()
        kind = mimetypes.guess_type(path.name)[0] or "application/octet-stream"
        response = web.Response(body=path.read_bytes(), content_type=kind,
                                charset="utf-8" if kind.startswith("text/") else None)
        self.guard.protect(request, response)
        return response

    async def _socket(self, request):
        self.guard.check(request, is_socket=True)
        if len(self._pages) >= MOST_PAGES:
            raise web.HTTPServiceUnavailable(text=f"{MOST_PAGES} pages are open\n")
        page = web.WebSocketResponse(heartbeat=HEARTBEAT, max_msg_size=LONGEST_MESSAGE,
                                     compress=False)
        await page.prepare(request)
        self._pages.add(page)
        session = Session(self.board, lambda message: page.send_str(
            json.dumps(message, ensure_ascii=False)))
        work = asyncio.ensure_future(session.run())
        try:
            async for message in page:
                if message.type == WSMsgType.TEXT:
                    await session.take(message.data)
        except ConnectionError:
            pass
        finally:
            work.cancel()
            await asyncio.gather(work, return_exceptions=True)
            session.close()
            self._pages.discard(page)
        return page
