"""msgbusctl, as its users type it, on a real bus."""
import json
import os
import pty
import re
import shutil
import signal
import socket
import stat
import subprocess

import pytest

from labap import msgbus
from lumdtest.msgbus import ATTACH, HEADER, frame
from lumdtest.waiting import PATIENCE, wait_until

HUBD, VAULTD = 6, 1


class Tool:
    """msgbusctl on the test's bus."""

    def __init__(self, programs, path):
        self.program = str(programs.binary("msgbusctl"))
        self.environment = {**os.environ, "MSGBUS_SOCKET": str(path), "TZ": "UTC"}

    def __call__(self, *arguments, **options):
        """What became of one command; its standard input is empty unless the test gives one."""
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.run([self.program, *arguments], env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=PATIENCE,
                              check=False, **options)

    def start(self, *arguments, **options):
        return subprocess.Popen([self.program, *arguments], env=self.environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, **options)


@pytest.fixture
def tool(programs, broker):
    return Tool(programs, broker.path)


@pytest.fixture
def hubd(broker):
    with broker.client(HUBD) as client:
        yield client


@pytest.fixture
def monitor(tool):
    """Starts monitors; each has joined the bus when it is there."""
    started = []

    def start(*arguments):
        process = tool.start("monitor", *arguments)
        started.append(process)
        assert process.stderr.readline().startswith("msgbusctl: monitoring ")
        return process

    yield start
    for process in started:
        process.kill()
        process.communicate()


def end(process, number=signal.SIGINT):
    """The status of a monitor that the user ends, and all that it still had to say."""
    process.send_signal(number)
    rest = process.communicate(timeout=PATIENCE)
    return process.returncode, *rest


def one_sentence(result):
    """What the tool says about wrong use."""
    assert (result.returncode, result.stdout) == (2, "")
    assert re.fullmatch(r"msgbusctl: [^\n]+ \(see msgbusctl --help\)\n", result.stderr)
    return result.stderr


# ---- list

def test_list_shows_modules_with_name_process_and_what_they_sent(tool, broker, hubd):
    with broker.client(200) as other:
        other.send(HUBD, "one")
        hubd.recv()
        other.send(HUBD, "two")
        hubd.recv()
        result = tool("list")
    ids = [str(os.getpid()), str(os.getuid())]
    lines = [line.split() for line in result.stdout.splitlines()]
    assert lines == [["module", "name", "pid", "uid", "sent", "received", "waiting", "bytes"],
                     ["6", "hubd", *ids, "0", "2", "0", "0"],
                     ["200", "-", *ids, "2", "0", "0", "0"]]
    assert (result.returncode, result.stderr) == (0, "")
    assert max(map(len, result.stdout.splitlines())) <= 80


def test_list_tells_what_waits_for_a_module_that_takes_nothing(tool, broker, hubd):
    size = 4 * 1024 * 1024
    with broker.client(200) as other:
        other.send(HUBD, b"x" * size)
        other.send(200, "the broker has read what was sent before")
        other.recv()
        listed = json.loads(tool("list", "--json").stdout)["modules"]
    assert [(one["waiting-frames"], one["waiting-bytes"]) for one in listed] == \
        [(1, size + HEADER.size), (0, 0)]


def test_list_for_machines_names_what_has_a_name(tool, broker, hubd):
    with broker.client(200):
        listed = json.loads(tool("--json", "list").stdout)["modules"]
    assert [one["module"] for one in listed] == [HUBD, 200]
    assert [one.get("name") for one in listed] == ["hubd", None]
    assert listed[0]["pid"] == os.getpid() and listed[0]["uid"] == os.getuid()


def test_list_of_an_empty_bus_has_its_head_alone(tool):
    assert len(tool("list").stdout.splitlines()) == 1
    assert json.loads(tool("list", "--json").stdout) == {"modules": []}


def as_nobody(broker):
    if os.getuid() != 0:
        pytest.skip("only root can become another user")
    broker.path.parent.chmod(0o755)
    broker.path.chmod(0o666)
    return {"user": 65534, "group": 65534, "extra_groups": []}


def test_list_is_refused_to_other_users_with_a_clear_text(tool, broker, hubd, tmp_path):
    user = as_nobody(broker)
    shutil.copy(tool.program, broker.path.parent / "msgbusctl")
    tool.program = str(broker.path.parent / "msgbusctl")
    result = tool("list", **user)
    assert result.stderr == ("msgbusctl: the broker refuses: only root and the user of the broker "
                             "may list its modules\n")
    assert result.returncode == 1


def test_list_says_so_when_the_broker_is_too_old(tool, folder):
    """A broker from before the request ends the connection at a type that it does not know."""
    with socket.socket(socket.AF_UNIX) as listener:
        tool.environment["MSGBUS_SOCKET"] = str(folder / "old")
        listener.bind(str(folder / "old"))
        listener.listen()
        process = tool.start("list")
        listener.accept()[0].close()
        _, error = process.communicate(timeout=PATIENCE)
    assert "it is older than this msgbusctl" in error
    assert process.returncode == 1


@pytest.mark.parametrize("answer", [frame(0, b"no JSON", kind=4), frame(0, b"{}", kind=4),
                                    frame(0, b"", kind=ATTACH), b"rubbish" * 10])
def test_list_survives_a_strange_answer(tool, folder, answer):
    with socket.socket(socket.AF_UNIX) as listener:
        tool.environment["MSGBUS_SOCKET"] = str(folder / "strange")
        listener.bind(str(folder / "strange"))
        listener.listen()
        process = tool.start("list")
        connection, _ = listener.accept()
        with connection:
            connection.sendall(answer)
            _, error = process.communicate(timeout=PATIENCE)
    assert re.fullmatch("msgbusctl: the .*\n", error)
    assert process.returncode == 1


# ---- monitor

def test_monitor_shows_names_beside_numbers(broker, monitor):
    process = monitor()
    with broker.client(HUBD) as hubd:
        hubd.send(VAULTD, "text")
        hubd.send(200, "x")
        lines = [re.sub(r"^[0-9:.]{12} ", "", process.stdout.readline()) for _ in range(5)]
    uid = os.getuid()
    assert lines == ["6 (hubd) joins\n",
                     f"6 (hubd) -> 1 (vaultd) #1 uid {uid} text\n",
                     "1 (vaultd) -> 6 (hubd) #1 undeliverable\n",
                     f"6 (hubd) -> 200 #2 uid {uid} x\n",
                     "200 -> 6 (hubd) #2 undeliverable\n"]


def test_monitor_for_machines_has_an_object_a_line(broker, monitor):
    process = monitor("--json")
    with broker.client(HUBD) as hubd:
        hubd.send(HUBD, '{"command":\n"x"}')
        hubd.send(200, "no JSON")
        hubd.send(200, b"\xff")
        events = [json.loads(process.stdout.readline()) for _ in range(6)]
    assert [event["type"] for event in events] == ["attach", "data", "data", "undeliverable",
                                                   "data", "undeliverable"]
    first, text, missing, raw = events[1], events[2], events[3], events[4]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", first.pop("time"))
    assert first == {"type": "data", "src": 6, "src-name": "hubd", "dst": 6, "dst-name": "hubd",
                     "seq": 1, "uid": os.getuid(), "size": 16, "payload": {"command": "x"}}
    assert text["text"] == "no JSON" and "dst-name" not in text
    assert (missing["src"], missing["dst"], missing["seq"]) == (200, 6, 2)
    assert raw["bytes"] == "ff"


def shown(process, last):
    """The texts that a monitor with --json shows up to the last."""
    texts = []
    while last not in texts:
        event = json.loads(process.stdout.readline())
        texts.append(event.get("payload", event.get("text", event["type"])))
    return texts


def test_monitor_shows_the_named_modules_alone(broker, monitor):
    process = monitor("--json", "--module", "hubd", "--module=200")
    with broker.client(HUBD) as hubd, broker.client(200) as tool, broker.client(7) as other:
        other.send(7, "to itself")
        other.send(HUBD, "to hubd")
        hubd.recv()
        hubd.send(7, "from hubd")
        other.recv()
        other.recv()
        tool.send(9, "from 200")
        tool.send(200, "last")
        assert shown(process, "last") == ["attach", "attach", "to hubd", "from hubd", "from 200",
                                          "undeliverable", "last"]


def test_monitor_shows_the_named_commands_alone(broker, monitor):
    process = monitor("--json", "--command", "get", "--command=last")
    with broker.client(HUBD) as hubd:
        for command in ("get", "set", "last"):
            hubd.send(200, json.dumps({"command": command}))
        assert shown(process, {"command": "last"}) == [{"command": "get"}, {"command": "last"}]


def test_monitor_writes_a_file_that_can_be_read_back(broker, monitor, folder):
    capture = folder / "capture.json"
    process = monitor("--write", str(capture), "--module", "200")
    with broker.client(HUBD) as hubd:
        hubd.send(200, '{"command":"x"}')
        shown_lines = [process.stdout.readline() for _ in range(2)]
    assert "undeliverable" in shown_lines[1]
    status, _, _ = end(process)
    events = [json.loads(line) for line in capture.read_text().splitlines()]
    assert [event["type"] for event in events] == ["data", "undeliverable"]
    assert events[0]["payload"] == {"command": "x"}
    assert status == 0
    assert stat.S_IMODE(capture.stat().st_mode) == 0o600


def test_monitor_that_cannot_write_its_file_says_so(tool):
    result = tool("monitor", "--write", "/no/such/folder")
    assert result.stderr == "msgbusctl: cannot write /no/such/folder: No such file or directory\n"
    assert result.returncode == 1


def test_monitor_says_so_when_the_disk_is_full(tool, broker, hubd):
    result = tool("monitor", "--write", "/dev/full")
    assert "cannot write to /dev/full: No space left on device" in result.stderr
    assert result.returncode == 1


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_monitor_ends_well_when_the_user_ends_it(monitor, number):
    assert end(monitor(), number) == (0, "", "")


def test_monitor_ends_quietly_with_its_reader(monitor):
    process = monitor()
    process.stdout.close()
    assert process.wait(PATIENCE) == 0
    assert process.stderr.read() == ""


def test_monitor_ends_while_its_reader_takes_nothing(broker, monitor):
    process = monitor()
    with broker.client(HUBD) as hubd:
        for _ in range(100):
            hubd.send(HUBD, "x" * 10000)
        hubd.send(HUBD, "last")
        while hubd.recv() != b"last":
            pass
    # Twice: the first may come just before it begins to write.
    wait_until(lambda: process.poll() is not None or process.send_signal(signal.SIGINT),
               "the monitor ends")
    assert process.returncode == 0


# ---- send and call

def test_send_takes_a_name(tool, hubd):
    result = tool("send", "hubd", "hello")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert hubd.recv() == b"hello"


@pytest.mark.parametrize("text", [["-"], []])
def test_send_reads_its_text_from_standard_input(tool, hubd, text):
    assert tool("send", "hubd", *text, input="from a pipe\n").returncode == 0
    assert hubd.recv() == b"from a pipe\n"


def test_send_takes_no_text_from_a_terminal(tool, hubd):
    near, far = pty.openpty()
    try:
        assert "send needs a text, or one on standard input" in \
            one_sentence(tool("send", "hubd", stdin=far))
    finally:
        os.close(near)
        os.close(far)


def answered(tool, server, *arguments):
    """What the tool prints when `server` answers what it is sent."""
    process = tool.start(*arguments)
    head = HEADER.unpack(server.socket.recv(HEADER.size, socket.MSG_WAITALL))
    request = server.socket.recv(head[4], socket.MSG_WAITALL)
    server.send_raw(frame(head[2], b"answer to " + request, seq=head[5]))
    return *process.communicate(timeout=PATIENCE), process.returncode


@pytest.mark.parametrize("words", [["call", "hubd", "x"], ["call", "6", "x"], ["-w", "send", "6", "x"],
                                   ["-t", "9", "send", "hubd", "x"], ["send", "hubd", "x", "--wait"],
                                   ["call", "--timeout=9", "hubd", "--", "x"]],
                         ids=" ".join)
def test_call_prints_the_answer(tool, hubd, words):
    assert answered(tool, hubd, *words) == ("answer to x\n", "", 0)


def test_call_goes_out_as_the_named_module(tool, hubd):
    process = tool.start("call", "--as", "vaultd", "hubd", "x")
    head = HEADER.unpack(hubd.socket.recv(HEADER.size, socket.MSG_WAITALL))
    assert head[2] == VAULTD
    process.kill()
    process.communicate()


def test_call_without_an_answer_fails(tool, hubd):
    result = tool("call", "-t", "0", "hubd", "x")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == "msgbusctl: no answer within 0 seconds\n"


def test_call_of_a_missing_module_fails_at_once(tool):
    result = tool("call", "hubd", "x")
    assert "module 6 is not on the bus" in result.stderr
    assert result.returncode == 1


def test_an_answer_that_cannot_be_written_is_a_failure(tool, hubd):
    with open("/dev/full", "w", encoding="utf-8") as full:
        process = subprocess.Popen([tool.program, "call", "hubd", "x"], env=tool.environment,
                                   stdout=full, stderr=subprocess.PIPE, text=True)
        head = HEADER.unpack(hubd.socket.recv(HEADER.size, socket.MSG_WAITALL))
        hubd.send_raw(frame(head[2], b"answer", seq=head[5]))
        _, error = process.communicate(timeout=PATIENCE)
    assert "No space left on device" in error
    assert process.returncode == 1


def test_without_standard_output_the_bus_sees_nothing_of_the_answer(tool, folder):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(folder / "closed"))
        listener.listen()
        command = ["sh", "-c", 'exec "$@" >&-', "sh", tool.program, "-s", str(folder / "closed"),
                   "call", "-m", "200", "hubd", "x"]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        connection, _ = listener.accept()
        with connection:
            connection.recv(HEADER.size, socket.MSG_WAITALL)
            connection.sendall(frame(200, kind=ATTACH))
            connection.recv(HEADER.size + 1, socket.MSG_WAITALL)
            connection.sendall(frame(200, b"answer"))
            assert connection.recv(1) == b""
        assert process.wait(PATIENCE) == 0


# ---- how it is used

@pytest.mark.parametrize("option", ["-h", "--help"])
def test_help_fits_a_terminal_and_names_every_module(tool, option):
    result = tool(option)
    assert (result.returncode, result.stderr) == (0, "")
    assert max(map(len, result.stdout.splitlines())) <= 80
    for name in ("vaultd", "scand", "list", "monitor", "call", "Examples:"):
        assert name in result.stdout


WRONG = {
    "say what to do": [],
    "'dance' is none of send, call, list": ["dance"],
    "send needs a destination": ["send"],
    "call needs a destination": ["call"],
    "there is no module 'hubx'": ["send", "hubx", "x"],
    "there is no module '255'": ["send", "255", "x"],
    "there is no module ''": ["send", "", "x"],
    "there is no module '1x'": ["-m", "1x", "send", "1", "x"],
    "there is no module '300'": ["monitor", "--module", "300"],
    "'b' is too much for send": ["send", "1", "a", "b"],
    "'now' is too much for list": ["list", "now"],
    "'hubd' is too much for monitor": ["monitor", "hubd"],
    "list takes no -m": ["-m", "3", "list"],
    "monitor takes no -w": ["-w", "monitor"],
    "send takes no --json": ["send", "--json", "1", "x"],
    "call takes no --module": ["call", "--module", "1", "1", "x"],
    "list takes no --write": ["list", "--write", "x"],
    "names takes no --json": ["names", "--json"],
    "there is no option '-z'": ["-z"],
    "there is no option '-y'": ["-wy", "send", "1", "x"],
    "there is no option '--jason'": ["list", "--jason"],
    "option '--json' takes no value": ["list", "--json=yes"],
    "--write wants the name of a file": ["monitor", "--write", "-"],
    "option '-s' needs a value": ["list", "-s"],
    "option '--module' needs a value": ["monitor", "--module"],
    "time 'soon' is not a number": ["-t", "soon", "call", "1", "x"],
    "time '-1' is not a number": ["-t", "-1", "call", "1", "x"],
}


@pytest.mark.parametrize("sentence", WRONG)
def test_a_wrong_word_gets_one_sentence(tool, sentence):
    assert sentence in one_sentence(tool(*WRONG[sentence]))


@pytest.mark.parametrize("words", [["list"], ["monitor"], ["call", "1", "x"]], ids=" ".join)
def test_without_a_broker_it_says_where_it_looked(tool, folder, words):
    result = tool("-s", str(folder / "nowhere"), *words)
    assert str(folder / "nowhere") in result.stderr
    assert "No such file or directory" in result.stderr
    assert result.returncode == 1


def test_names_shows_the_modules_that_the_lab_plays(tool):
    lines = [line.split()[:2] for line in tool("names").stdout.splitlines()]
    assert lines[0] == ["module", "name"]
    assert dict(lines[1:]) == {str(number): name for name, number in msgbus.MODULES.items()}
