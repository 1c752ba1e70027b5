"""hostapd's global control socket, answered by the test."""
import os
import socket
import threading


class FakeHostapd:
    """Answers each command with what `answers` has for its first word, "OK" without; None is silence.

    `commands` is what was asked, in its order.
    """

    def __init__(self, path):
        self.path = str(path)
        self.answers = {"PING": "PONG\n", "INTERFACES": ""}
        self.commands = []
        self._peers = []
        self._socket = self._thread = None

    def start(self):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.path)
        self._thread = threading.Thread(target=self._serve, args=(self._socket,))
        self._thread.start()

    def stop(self):
        """As a kill does: the socket's file stays, and nobody listens."""
        if self._socket is None:
            return
        # shutdown(2) does not wake a recvfrom(2) of a datagram socket.
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as last:
            last.sendto(b"", self.path)
        self._thread.join()
        self._socket.close()
        self._socket = None
        self._peers.clear()

    def start_again(self):
        os.unlink(self.path)
        self.start()

    def tell(self, event):
        """An event to everybody who attached."""
        for peer in list(self._peers):
            self._socket.sendto(event, peer)

    @property
    def is_attached(self):
        return bool(self._peers)

    def _serve(self, listener):
        while True:
            command, peer = listener.recvfrom(65536)
            if not command:
                return
            text = command.decode(errors="replace")
            if text == "ATTACH":
                self._peers.append(peer)
            self.commands.append(text)
            answer = self.answers.get(text.split(" ")[0], "OK\n")
            if answer is None:
                continue
            try:
                listener.sendto(answer if isinstance(answer, bytes) else answer.encode(), peer)
            except OSError:
                pass  # it did not wait
