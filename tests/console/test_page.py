"""What stands on the pages of a known scenario, and who may open them."""
import asyncio
import functools
import http.server
import threading

import aiohttp
import pytest


def answer(url, **headers):
    """(status, text) of a GET with these headers."""
    async def get():
        async with aiohttp.ClientSession() as session, session.get(url, headers=headers) as got:
            return got.status, await got.text()
    return asyncio.run(get())


def socket_status(console, token=None, **headers):
    """With what a websocket is answered: 101 when it is taken."""
    url = console.url.replace("http:", "ws:") + "socket"
    if token is not None:
        url = url.replace(console.server.guard.token, token)

    async def connect():
        try:
            async with aiohttp.ClientSession() as session, \
                    session.ws_connect(url, headers=headers):
                return 101
        except aiohttp.WSServerHandshakeError as error:
            return error.status
    return asyncio.run(connect())


def own_origin(console):
    return {"Origin": console.url[:console.url.index("/", 8)]}


def test_page_is_served_to_whoever_has_the_token(played):
    status, text = answer(played.url)
    assert status == 200 and "lumd console" in text


@pytest.mark.parametrize("path", ["", "wrong/", "wrong/main.js"])
def test_nothing_is_served_without_the_token(played, path):
    root = played.url.replace("token/", "")
    assert answer(root + path)[0] in (403, 404)


def test_no_other_file_is_served(played):
    for name in ("..%2fserver.py", "server.py", "%2fetc%2fpasswd"):
        assert answer(played.url + name)[0] == 404


def test_name_that_resolves_here_is_refused(played):
    assert answer(played.url, Host=f"evil.example:{played.server.port}")[0] == 403


def test_socket_is_for_the_servers_own_page(played):
    assert socket_status(played, **own_origin(played)) == 101
    assert socket_status(played, Origin="http://evil.example") == 403
    assert socket_status(played, Origin="null") == 403
    assert socket_status(played) == 403
    assert socket_status(played, token="wrong", **own_origin(played)) == 403


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        """Nobody reads it."""


@pytest.fixture
def elsewhere(tmp_path):
    """The address of another server's page."""
    (tmp_path / "index.html").write_text("<title>elsewhere</title>", encoding="utf-8")
    handler = functools.partial(Quiet, directory=tmp_path)
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}/"
        server.shutdown()


def test_hostile_page_can_neither_read_nor_command(office, elsewhere, page):
    """A page of another origin in the same browser, even with the token."""
    _, console = office
    page.driver.get(elsewhere)
    told = page.driver.execute_async_script("""
        const [url, done] = arguments;
        const told = {};
        const socket = new WebSocket(url.replace("http:", "ws:") + "socket");
        socket.onopen = () => { told.socket = "open"; };
        socket.onclose = async () => {
            told.socket ??= "refused";
            told.read = await fetch(url).then(() => "read", () => "refused");
            done(told);
        };""", console.url)
    assert told == {"socket": "refused", "read": "refused"}
    page.driver.get_log("browser")  # the browser's own account of both


def test_access_point_stands_on_the_page(office, page):
    _, console = office
    page.open(console)
    page.until_text("#status", "connected, subscribed")
    radio = page.text("[data-radio=wlan0]")
    for part in ("wlan0", "2.4GHz", "rtl8192cd", "20 MHz", "(8 to 20)", "(5 to 23)"):
        assert part in radio
    vaps = page.text("[aria-label=VAPs]")
    assert "wlan1-va2" in vaps and "WPA2_1X" in vaps and "00:11:22:33:44:5b" in vaps
    clients = page.text("[aria-label=Clients]")
    assert clients.count("02:1a:2b:00:00:") == 12 and "-48 dBm" in clients


def test_conversation_is_on_the_page_as_it_happens(office, page):
    handle, console = office
    page.open(console, "talk")
    page.until_text("#talk .rows", "ping")
    handle.send({"cmd": "rrm-request-mode"})
    page.until_text("#talk .rows", "rrm-request-mode", "rrm-mode-response")
