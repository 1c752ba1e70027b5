"""Plays the radio-management service for access points. See docs/lab.md.

Type a JSON object (or "@file") and Enter to send it to the access point that connected last.
"""
import argparse
import asyncio
import json
import pathlib
import signal
import sys

from labtalk import journal

from .server import Service, ServiceError


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=8080, help="0 takes a free one")
    parser.add_argument("--config", help="file with the \"config\" of the subscribe response")
    parser.add_argument("--status", default="success", help="status of the subscribe response")
    parser.add_argument("--code", type=int, default=200, help="code of the subscribe response")
    parser.add_argument("--silent", action="store_true", help="answer no subscribe request")
    parser.add_argument("--control", help="path of a control socket")
    parser.add_argument("--json", action="store_true", help="one JSON object an event")
    return parser.parse_args()


def subscribe_answer(options):
    if options.silent:
        return None
    answer = {"status": options.status, "code": options.code}
    if options.config:
        answer["config"] = json.loads(pathlib.Path(options.config).read_text(encoding="utf-8"))
    return answer


async def type_ahead(service, line):
    """Sends what was typed, as an object when it is one."""
    text = pathlib.Path(line[1:]).read_text(encoding="utf-8") if line.startswith("@") else line
    try:
        await service.send(json.loads(text))
    except (ValueError, OSError, ServiceError) as error:
        print(f"not sent: {error}", file=sys.stderr)


async def main():
    options = arguments()
    service = Service(options.host, options.port)
    service.subscribe_answers = [subscribe_answer(options)]
    service.journal.listen(journal.printer(options.json))
    await service.start(options.control)
    print(f"listening on ws://{options.host}:{service.port}/", file=sys.stderr)
    loop, done = asyncio.get_running_loop(), asyncio.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        loop.add_signal_handler(number, done.set)

    def typed():
        line = sys.stdin.readline()
        if not line:
            loop.remove_reader(sys.stdin)
        elif line.strip():
            loop.create_task(type_ahead(service, line.strip()))

    try:
        loop.add_reader(sys.stdin, typed)
    except OSError:
        pass  # a file or /dev/null as standard input cannot be waited for
    await done.wait()
    await service.stop()


def run():
    asyncio.run(main())


if __name__ == "__main__":
    run()
