"""The websocket server of the lab and of the tests, seen by the library's own client."""
import asyncio

import pytest
import websockets

from labtalk.websocket import LinkClosed, Server

NAMES = ("websock-rrm", "websock-wids")
REQUEST = (b"GET /agent HTTP/1.1\r\nHost: lab\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n")


def talk(conversation, admit=lambda path: None):
    """Runs `conversation(server, links, received)` beside a server that takes in all it is sent."""
    links, received = [], asyncio.Queue()

    async def handler(link):
        links.append(link)
        async for message in link:
            received.put_nowait(message)

    async def run():
        server = Server(handler, NAMES, admit)
        await server.start("127.0.0.1", 0)
        try:
            await asyncio.wait_for(conversation(server, links, received), 30)
        finally:
            await asyncio.wait_for(server.stop(), 30)

    asyncio.run(run())


def connect(server, names=NAMES[:1], **options):
    return websockets.connect(f"ws://127.0.0.1:{server.port}/agent", subprotocols=names,
                              ping_interval=None, **options)


def test_texts_travel_both_ways_whole_and_in_pieces():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("größer")
            await client.send(["a", "b", "c"])
            assert [await received.get() for _ in range(2)] == ["größer", "abc"]
            await links[0].send("x" * 300_000)
            await links[0].send(["1", "2", ""])
            assert await client.recv() == "x" * 300_000
            assert await client.recv() == "12"
            assert links[0].path == "/agent"

    talk(conversation)


@pytest.mark.parametrize("offered, chosen", [
    (["websock-wids"], "websock-wids"), (["unknown", "websock-rrm"], "websock-rrm"), (None, None)])
def test_the_subprotocol_is_one_that_both_sides_know(offered, chosen):
    async def conversation(server, links, received):
        async with connect(server, offered) as client:
            await client.send("here")
            await received.get()
            assert (client.subprotocol, links[0].subprotocol) == (chosen, chosen)

    talk(conversation)


def test_a_handshake_is_refused_with_503():
    async def conversation(server, links, _received):
        reader, writer = await asyncio.open_connection("127.0.0.1", server.port)
        writer.write(REQUEST)
        assert (await reader.read()).startswith(b"HTTP/1.1 503 ")
        writer.close()
        assert links == []

    talk(conversation, admit=lambda path: "not today\n")


@pytest.mark.parametrize("request_text", [b"no HTTP at all\r\n\r\n", b""])
def test_a_client_that_speaks_no_http_is_let_go(request_text):
    async def conversation(server, links, _received):
        reader, writer = await asyncio.open_connection("127.0.0.1", server.port)
        writer.write(request_text)
        writer.write_eof()
        assert await reader.read() == b""
        writer.close()
        assert links == []

    talk(conversation)


def test_pings_are_counted_and_answered_until_told_otherwise():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await asyncio.wait_for(await client.ping(), 10)
            told = []
            links[0].on_ping = lambda: told.append(links[0].pings)
            links[0].answer_pings = False
            unanswered = await client.ping()
            await client.send("behind the ping")
            assert await received.get() == "behind the ping"
            await links[0].send("behind the pong")
            assert await client.recv() == "behind the pong"
            assert not unanswered.done()
            assert told == [2]

    talk(conversation)


def test_a_pong_that_no_ping_asked_for_goes_out_although_pings_are_not_answered():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("here")
            await received.get()
            links[0].answer_pings = False
            ping = await client.ping(b"")
            await links[0].send_pong()
            await asyncio.wait_for(ping, 10)

    talk(conversation)


def test_closing_shakes_hands_and_tells_the_code():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("here")
            await received.get()
            closing = asyncio.create_task(links[0].close())
            with pytest.raises(websockets.ConnectionClosedOK):
                await client.recv()
            await closing
            assert links[0].close_code == 1000

    talk(conversation)


def test_a_client_that_closes_is_answered_and_its_code_told():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("last words")
            await client.close(4001)
            await links[0].wait_closed()
            assert await received.get() == "last words"
            assert links[0].close_code == 4001

    talk(conversation)


@pytest.mark.parametrize("end", ["abort", "reset"])
def test_an_end_without_a_close_frame_is_1006_on_both_sides(end):
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("here")
            await received.get()
            getattr(links[0], end)()
            with pytest.raises(websockets.ConnectionClosedError):
                await client.recv()
            await links[0].wait_closed()
            assert links[0].close_code == 1006
            with pytest.raises(LinkClosed):
                await links[0].send("too late")

    talk(conversation)


async def connect_by_hand(server):
    """A connection whose client side nobody looks after, once the handshake is over."""
    reader, writer = await asyncio.open_connection("127.0.0.1", server.port)
    writer.write(REQUEST)
    await reader.readuntil(b"\r\n\r\n")
    return reader, writer


def test_a_reset_reaches_the_peer_as_one():
    async def conversation(server, links, _received):
        reader, writer = await connect_by_hand(server)
        links[0].reset()
        with pytest.raises(ConnectionResetError):
            await reader.read()
        writer.close()

    talk(conversation)


def test_a_peer_that_answers_no_close_frame_is_cut_off():
    async def conversation(server, links, _received):
        reader, writer = await connect_by_hand(server)
        await links[0].close()
        assert await reader.read() == b"\x88\x02\x03\xe8"
        writer.close()

    talk(conversation)


def test_the_server_stops_while_a_handshake_is_under_way():
    async def conversation(server, _links, _received):
        reader, writer = await asyncio.open_connection("127.0.0.1", server.port)
        writer.write(REQUEST[:20])
        _, later = await connect_by_hand(server)  # accepted after the one before
        await server.stop()
        assert await reader.read() == b""
        writer.close()
        later.close()

    talk(conversation)


def test_a_message_that_is_no_utf_8_is_not_taken_and_ends_the_link():
    async def conversation(server, links, received):
        reader, writer = await connect_by_hand(server)
        writer.write(b"\x81\x81\0\0\0\0\xff")  # a text of one byte, masked with zeros
        assert await reader.read() == b"\x88\x02\x03\xef"  # Close with code 1007
        await links[0].wait_closed()
        assert received.empty()
        writer.close()

    talk(conversation)


def test_bytes_that_are_no_utf_8_go_out_as_they_are():
    async def conversation(server, links, received):
        async with connect(server) as client:
            await client.send("here")
            await received.get()
            await links[0].send_payload(b"\xff")
            with pytest.raises(websockets.ConnectionClosedError):
                await client.recv()
            await links[0].wait_closed()
            assert links[0].close_code == 1007

    talk(conversation)
