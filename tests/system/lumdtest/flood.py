"""Processes that flood the message bus, and how long a question to another module takes meanwhile.

A machine with more to run than processors makes everything wait, which says nothing of the bus. What
counts is the processor time of all who take part, the broker above all: the frames of others that it
forwards before the question's are in it.
"""
import contextlib
import multiprocessing
import os
import select
import signal
import time

from .msgbus import DATA, HEADER, BusClient, frame

PAYLOAD = b"{}"
BURST = 300
ASKER, ANSWERER, SINK, NOBODY = 40, 41, 42, 99
QUESTION, ANSWER = b"question", b"answer"
FORK = multiprocessing.get_context("fork")


def burst_to(module):
    return memoryview(frame(module, PAYLOAD) * BURST)


def flood(path, module, to):
    """Sends without end; takes what comes back, or the broker reads no more."""
    client = BusClient(path, module)
    client.socket.setblocking(False)
    burst = burst_to(to)
    rest = burst
    while True:
        readable, _, _ = select.select([client.socket], [client.socket], [])
        if readable and not client.socket.recv(1 << 20):
            return
        with contextlib.suppress(BlockingIOError):
            rest = rest[client.socket.send(rest):] or burst


def sink(client):
    """Takes whatever comes."""
    while client.socket.recv(1 << 20):
        pass


class Frames:
    """The data frames of one client by sender; made for floods of them."""

    def __init__(self, client):
        self.socket = client.socket
        self.socket.settimeout(None)
        self.buffer = b""

    def wait_for(self, sender):
        """Returns at the next frame of that module."""
        while True:
            at, found = 0, False
            while len(self.buffer) - at >= HEADER.size:
                _, _, src, _, size, _, _, kind = HEADER.unpack_from(self.buffer, at)
                if len(self.buffer) - at < HEADER.size + size:
                    break
                at += HEADER.size + size
                if src == sender and kind == DATA:
                    found = True
                    break
            self.buffer = self.buffer[at:]
            if found:
                return
            piece = self.socket.recv(1 << 16)
            if not piece:
                raise ConnectionError("the broker closed the connection")
            self.buffer += piece


def answer(client):
    """Answers each question."""
    frames = Frames(client)
    while True:
        frames.wait_for(ASKER)
        client.send(ASKER, ANSWER)


@contextlib.contextmanager
def processes(*calls):
    """Each (function, arguments) in a process of its own while the with block runs."""
    started = [FORK.Process(target=_quietly, args=call, daemon=True) for call in calls]
    for process in started:
        process.start()
    try:
        yield started
    finally:
        for process in started:
            os.kill(process.pid, signal.SIGKILL)
            process.join()


def _quietly(function, *arguments):
    with contextlib.suppress(OSError):
        function(*arguments)


@contextlib.contextmanager
def talk(broker):
    """A Talk between two modules beside a third that takes whatever comes."""
    with contextlib.ExitStack() as stack:
        asker, answerer, third = (stack.enter_context(broker.client(module))
                                  for module in (ASKER, ANSWERER, SINK))
        third.socket.settimeout(None)
        answering, _ = stack.enter_context(processes((answer, answerer), (sink, third)))
        yield Talk(asker, (broker.process.pid, answering.pid))


class Talk:
    """A module that asks another one."""

    def __init__(self, client, others):
        """`others`: the processes that it takes to get an answer."""
        self.client = client
        self.frames = Frames(client)
        self.others = others

    def delays(self, questions):
        """Seconds until the answer to each question, sorted; those in which the question or the
        answer waited for a processor do not count."""
        delays = []
        for _ in range(questions):
            start, busy = time.monotonic(), self._busy()
            self.client.send(ANSWERER, QUESTION)
            self.frames.wait_for(ANSWERER)
            delays.append(min(time.monotonic() - start, self._busy() - busy))
        return sorted(delays)

    def _busy(self):
        """Seconds of processor time of all whom it takes."""
        return time.process_time() + sum(map(processor_time, self.others))


def processor_time(pid):
    """Of another process, by the clock that clock_getcpuclockid(3) gives."""
    return time.clock_gettime(~pid << 3 | 2)
