"""A server behind a socket in the file system."""
import asyncio

READ_LIMIT = 64 * 1024  # bytes of one line; asyncio's own


class UnixServer:
    """`serve(reader, writer)` of the subclass talks with one client until either has enough."""

    read_limit = READ_LIMIT

    def __init__(self):
        self._server = None
        self._clients = set()  # a task each

    async def start(self, path):
        self._server = await asyncio.start_unix_server(self._accept, path, limit=self.read_limit)

    async def stop(self):
        """Ends every conversation; harmless when not started."""
        if self._server is None:
            return
        self._server.close()
        clients = list(self._clients)
        for client in clients:
            client.cancel()
        await asyncio.gather(*clients, return_exceptions=True)

    async def serve(self, reader, writer):
        raise NotImplementedError

    async def _accept(self, reader, writer):
        task = asyncio.current_task()
        self._clients.add(task)
        try:
            await self.serve(reader, writer)
        except (asyncio.IncompleteReadError, ConnectionError):
            pass
        finally:
            self._clients.discard(task)
            writer.close()
