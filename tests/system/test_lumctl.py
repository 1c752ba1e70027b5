"""lumctl: each fault of the surroundings has its line and its exit status, and no other has one."""
import base64
import hashlib
import json
import os
import pathlib
import socket
import subprocess
import threading

import pytest

from lumdtest.lab import running_lab
from lumdtest.service import MuteServer, Service, unused_port
from lumdtest.waiting import PATIENCE, wait_until

OK, WARNING, BROKEN, USAGE = 0, 1, 2, 64
HANDSHAKE_KEY = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"  # RFC 6455, 4.2.2
NOBODY = 65534
SPEED = 2  # of the agents' clock: what they wait for the bus must be enough on a busy machine


class Result:
    """What lumctl printed, and how it ended."""

    def __init__(self, run):
        self.status, self.output, self.errors = run.returncode, run.stdout, run.stderr

    @property
    def complaints(self):
        return [line for line in self.output.splitlines() if not line.startswith("ok ")]

    def expect(self, status, *parts):
        """That status, and one complaint with all of the parts and no other."""
        assert self.status == status, self.output + self.errors
        assert len(self.complaints) == 1, self.output
        assert all(part in self.complaints[0] for part in parts), self.complaints[0]


class Surroundings:
    """All that lumd needs, without lumd itself: a lab whose parts a test takes away."""

    def __init__(self, lab):
        self.lab, self.folder = lab, lab.lab.folder
        self.config = self.folder / "lumctl.conf"

    @property
    def port(self):
        return self.lab.lab.service.port

    def environment(self, **more):
        # The lab's clock is lumd's alone.
        return {**self.lab.lab.lumd_environment(),
                "LD_PRELOAD": str(self.lab.lab.build.lib / "liblabkernel.so"), **more}

    def run(self, *arguments, environment=(), **options):
        return Result(subprocess.run(
            [self.lab.lab.build.bin / "lumctl", *map(str, arguments)], text=True,
            env=self.environment(**dict(environment)), stdin=subprocess.DEVNULL,
            capture_output=True, timeout=PATIENCE, **options))

    def configure(self, *lines, url=None, mode="orvanta_service_url"):
        url = f"ws://127.0.0.1:{self.port}/agent" if url is None else url
        self.config.write_text("\n".join([f"{mode}={url}", *lines]) + "\n")

    def check(self, *lines, url=None, mode="orvanta_service_url", options=(), **more):
        self.configure(*lines, url=url, mode=mode)
        return self.run("check", "-f", self.config, *options, **more)


@pytest.fixture(scope="module")
def shared():
    with running_lab("minimal", start_lumd=False) as lab:
        yield Surroundings(lab)


@pytest.fixture
def around(shared):
    """The same with everything at its place, before and after."""
    yield shared
    shared.lab.do(lambda: shared.lab.lab.ap.files.start_hostapd())
    for name in ("", "_hostapd_started", "_config_updated"):
        shared.lab.do(lambda: shared.lab.lab.ap.files.remove(f"/tmp/.orvanta_notify{name}"))


class HttpServer:
    """Answers each request with what `answer(headers)` gives, and closes at the client's wish."""

    def __init__(self, answer):
        self._answer = answer
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"ws://127.0.0.1:{self._listener.getsockname()[1]}/agent"
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                client = self._listener.accept()[0]
            except OSError:
                return
            with client:
                self._handle(client)

    def _handle(self, client):
        client.settimeout(PATIENCE)
        request = b""
        while b"\r\n\r\n" not in request:
            piece = client.recv(4096)
            if not piece:
                return  # the connection was all it wanted
            request += piece
        lines = [line.split(": ", 1) for line in request.decode().split("\r\n")[1:] if line]
        client.sendall(self._answer({name.lower(): value for name, value in lines}).encode())
        client.recv(4096)

    def stop(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(PATIENCE)


@pytest.fixture
def http_server():
    servers = []

    def start(answer):
        servers.append(HttpServer(answer))
        return servers[-1]

    yield start
    for server in servers:
        server.stop()


def status_line(text):
    return lambda _: f"HTTP/1.1 {text}\r\nContent-Length: 0\r\n\r\n"


def without_subprotocol(headers):
    key = hashlib.sha1((headers["sec-websocket-key"] + HANDSHAKE_KEY).encode()).digest()
    return ("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Accept: {base64.b64encode(key).decode()}\r\n\r\n")


# Well


def test_in_healthy_surroundings_all_is_well(around):
    result = around.check()
    assert (result.status, result.complaints, result.errors) == (OK, [], "")
    checks = [line[9:24].strip() for line in result.output.splitlines()]
    assert list(dict.fromkeys(checks)) == [
        "configuration", "log file", "platform files", "bus", "name", "tcp", "websocket", "radios",
        "hostapd", "guardd", "notify files"]


@pytest.mark.parametrize("mode, subprotocol", [
    ("orvanta_service_url", "websock-rrm"), ("roam_service_url", "websock-roaming"),
    ("mac-list-service-url", "websock-wids")])
def test_each_mode_has_its_subprotocol(around, mode, subprotocol):
    result = around.check(mode=mode)
    assert result.status == OK, result.output
    assert f"subprotocol {subprotocol}, and closed again" in result.output


def test_the_portal_mode_needs_no_platform_files(around):
    result = around.check(mode="roam_service_url",
                          environment={"LUMD_PLATFORM_DIR": "/nonexistent"})
    assert result.status == OK and "platform" not in result.output


def test_the_service_sees_an_orderly_close(around):
    service = Service().start()
    try:
        assert around.check(url=f"ws://127.0.0.1:{service.port}/agent").status == OK
        link = service.accept()
        assert link.closed.wait(PATIENCE)
        assert link._link.close_code == 1000
    finally:
        service.stop()


def test_the_log_file_is_not_touched(around):
    log = around.folder / "untouched.log"
    around.check("log_level=15", "unknown", f"log_file={log}", url="wss://host:1/x",
                 environment={"LUMD_PLATFORM_DIR": "/nonexistent"})
    assert not log.exists()


def test_as_json_it_is_one_object_with_the_same_findings(around):
    lines = around.check("unknown=1")
    report = json.loads(around.check("unknown=1", options=["--json"]).output)
    assert report["status"] == "warning"
    assert len(report["findings"]) == len(lines.output.splitlines())
    wrong = [one for one in report["findings"] if one["status"] != "ok"]
    assert [(one["check"], one["file"], one["line"]) for one in wrong] == [
        ("configuration", str(around.config), 2)]
    assert "unknown key" in wrong[0]["text"] and wrong[0]["advice"]


def as_another_user(around, verb):
    if os.geteuid() != 0:
        pytest.skip("only root can be another user")
    around.folder.chmod(0o755)
    around.configure()
    around.config.chmod(0o644)
    return around.run(verb, "-f", around.config, user=NOBODY, group=NOBODY, extra_groups=[])


def test_another_user_is_told_that_the_bus_is_not_open_to_it(around):
    around.lab.lab.bus_path.chmod(0o600)
    as_another_user(around, "check").expect(WARNING, "bus", "not allowed to connect to it")


def test_another_user_is_told_that_the_policy_of_the_bus_refuses_it(around):
    around.lab.lab.bus_path.chmod(0o666)
    as_another_user(around, "check").expect(WARNING, "bus", f"policy gives user {NOBODY} no place")


def test_another_user_is_told_that_it_may_not_see_the_link(start_lab):
    if os.geteuid() != 0:
        pytest.skip("only root can be another user")
    lab = start_lab(speed=SPEED)
    lab.lab.folder.chmod(0o755)
    result = Surroundings(lab).run("status", "-f", lab.lab.config_path, user=NOBODY, group=NOBODY,
                                   extra_groups=[])
    assert result.status == WARNING
    assert "link           not allowed to look at the process's sockets" in result.output


# The configuration


def test_a_missing_configuration_is_broken(around):
    around.run("check", "-f", "/nonexistent").expect(BROKEN, "/nonexistent: is not there")


def test_a_directory_as_configuration_is_broken(around):
    around.run("check", "-f", around.folder).expect(BROKEN, "is a directory")


def test_a_binary_configuration_is_broken(around):
    around.config.write_bytes(b"\x7fELF\0\0")
    around.run("check", "-f", around.config).expect(BROKEN, "holds binary data")


def test_an_empty_configuration_is_broken(around):
    around.config.write_text("")
    around.run("check", "-f", around.config).expect(BROKEN, "no mode is enabled")


def test_an_unreadable_configuration_is_broken(around):
    if os.geteuid() != 0:
        pytest.skip("only root can be another user")
    around.configure()
    around.config.chmod(0o600)
    around.folder.chmod(0o755)
    result = around.run("check", "-f", around.config, user=NOBODY, group=NOBODY, extra_groups=[])
    assert result.status == BROKEN
    assert any("not allowed to read it" in line for line in result.complaints), result.output


def test_an_unknown_key_is_told_with_its_line(around):
    around.check("# comment", "loglevel=3").expect(
        WARNING, f"{around.config}:3: ", "unknown key 'loglevel'")


def test_a_line_without_equals_is_told_with_its_line(around):
    around.check("log_level 3").expect(WARNING, f"{around.config}:2: ", "has no '='")


@pytest.mark.parametrize("url, words", [
    ("wss://127.0.0.1:1/x", "scheme 'wss'"), ("ws://127.0.0.1/x", "no port"),
    ("ws://127.0.0.1:1", "no path")])
def test_a_url_that_is_not_usable_is_told_and_leaves_no_mode(around, url, words):
    result = around.check(url=url)
    assert result.status == BROKEN
    assert [words in result.complaints[0], "no mode" in result.complaints[1]] == [True, True]


@pytest.mark.parametrize("url, words", [
    ("ws://:80/x", "no host"), ("ws://127.0.0.1:0/x", "port '0'"),
    ("ws://127.0.0.1:65536/x", "port '65536'")])
def test_a_url_that_leads_nowhere_is_told(around, url, words):
    around.check(url=url).expect(BROKEN, f"{around.config}:1: ", words)


def test_of_several_urls_it_is_told_which_decides(around):
    around.check(f"mac-list-service-url=ws://127.0.0.1:{around.port}/x").expect(
        WARNING, f"{around.config}:2: ", "orvanta_service_url decides")


def test_a_log_file_that_cannot_be_written_is_told(around):
    around.check("log_file=/nonexistent/lumd.log").expect(WARNING, "log file", "/nonexistent/lumd")
    around.check(f"log_file={around.folder}").expect(WARNING, "log file", "no regular file")


def test_delays_that_make_no_sense_are_told(around):
    around.check("initial_connection_delay=9").expect(WARNING, "9 s, is above the longest, 0 s")


# Platform files and radios


@pytest.mark.parametrize("name", ["factory.json", "radios.json"])
def test_a_missing_platform_file_is_broken(around, tmp_path, name):
    for path in (around.folder / "platform").iterdir():
        (tmp_path / path.name).write_bytes(path.read_bytes())
    (tmp_path / name).unlink()
    around.check(environment={"LUMD_PLATFORM_DIR": str(tmp_path)}).expect(
        BROKEN, "platform files", str(tmp_path / name), "No such file")


@pytest.mark.parametrize("name", ["factory.json", "radios.json", "antennas.json"])
def test_a_platform_file_that_is_no_json_is_broken(around, tmp_path, name):
    for path in (around.folder / "platform").iterdir():
        (tmp_path / path.name).write_bytes(path.read_bytes())
    (tmp_path / name).write_text("{")
    around.check(environment={"LUMD_PLATFORM_DIR": str(tmp_path)}).expect(
        BROKEN, "platform files", str(tmp_path / name), "no JSON object")


def test_antennas_are_optional(around, tmp_path):
    for name in ("factory.json", "radios.json"):
        (tmp_path / name).write_bytes((around.folder / "platform" / name).read_bytes())
    result = around.check(environment={"LUMD_PLATFORM_DIR": str(tmp_path)})
    assert result.status == OK and "antennas.json: is not there (optional)" in result.output


def test_a_radio_that_the_kernel_does_not_know_is_broken(around, tmp_path):
    for path in (around.folder / "platform").iterdir():
        (tmp_path / path.name).write_bytes(path.read_bytes())
    radios = json.loads((tmp_path / "radios.json").read_text())
    radios["radios"].append({"ifname": "wlan7", "driver": "g6", "bands": ["5GHz"]})
    (tmp_path / "radios.json").write_text(json.dumps(radios))
    around.check(environment={"LUMD_PLATFORM_DIR": str(tmp_path)}).expect(
        BROKEN, "radios", "/sys/class/net/wlan7 is not there")


# The bus


def test_a_missing_bus_is_broken(around):
    around.check(environment={"MSGBUS_SOCKET": "/nonexistent/bus"}).expect(
        BROKEN, "bus", "there is no socket", "start msgbusd")


def test_a_file_that_is_no_socket_is_broken(around):
    around.check(environment={"MSGBUS_SOCKET": str(around.config)}).expect(BROKEN, "bus")


def test_a_socket_without_a_broker_is_broken(around, folder):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(folder / "dead"))
    around.check(environment={"MSGBUS_SOCKET": str(folder / "dead")}).expect(
        BROKEN, "bus", "Connection refused")


def test_a_broker_that_does_not_answer_is_broken(around, folder):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(folder / "mute"))
        listener.listen()
        around.check(environment={"MSGBUS_SOCKET": str(folder / "mute")}).expect(
            BROKEN, "bus", "the broker does not answer")


def test_a_bus_without_the_modules_of_the_mode_is_told(around, broker, folder):
    around.check(environment={"MSGBUS_SOCKET": str(folder / "bus")}).expect(
        WARNING, "bus", "not on the bus: vaultd, hubd, scand")


# The service


def test_a_closed_port_is_broken(around):
    around.check(url=f"ws://127.0.0.1:{unused_port()}/x").expect(BROKEN, "tcp", "refused")


def test_a_name_that_does_not_resolve_is_broken(around):
    around.check(url="ws://nowhere.invalid:80/x", options=["-t", "2"]).expect(
        BROKEN, "name", "nowhere.invalid: ")


def test_a_port_that_does_not_answer_is_broken(around):
    with socket.socket() as listener, socket.socket() as first, socket.socket() as second:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for client in (first, second):  # what the queue of a backlog of 0 takes
            client.setblocking(False)
            client.connect_ex(listener.getsockname())
        around.check(url=f"ws://127.0.0.1:{listener.getsockname()[1]}/x",
                     options=["-t", "1"]).expect(BROKEN, "tcp", "no answer within 1 s")


def test_a_refusal_is_told_with_its_http_status(around, http_server):
    around.check(url=http_server(status_line("404 Not Found")).url).expect(
        BROKEN, "websocket", "HTTP status 404")


def test_a_service_without_the_subprotocol_is_told(around, http_server):
    around.check(url=http_server(without_subprotocol).url).expect(
        WARNING, "websocket", "does not take the subprotocol websock-rrm")


def test_a_server_that_speaks_no_http_is_broken(around, http_server):
    around.check(url=http_server(lambda _: "220 mail.example ready\r\n\r\n").url).expect(
        BROKEN, "websocket", "handshake")


def test_a_silent_service_is_broken(around):
    server = MuteServer()
    try:
        around.check(url=f"ws://127.0.0.1:{server.port}/x", options=["-t", "1"]).expect(
            BROKEN, "websocket", "no answer to the opening handshake within 1 s")
    finally:
        server.stop()


# Siblings


def test_without_hostapd_and_guardd_lumd_would_wait(around):
    around.lab.do(lambda: around.lab.lab.ap.files.stop_hostapd())
    result = around.check()
    assert result.status == BROKEN
    assert [line for line in result.complaints if "hostapd" in line and "waits" in line]


def test_a_pid_file_of_a_dead_process_is_told(around):
    around.lab.do(lambda: around.lab.lab.ap.files.write("/var/run/hostapd.pid", "999999999\n"))
    around.check().expect(WARNING, "hostapd", "pid 999999999 of its pid file does not run")


def test_notify_files_wait_for_a_lumd_that_does_not_run(around):
    around.lab.do(lambda: around.lab.lab.ap.files.notify("config_updated"))
    result = around.check()
    assert result.status == OK
    assert ".orvanta_notify_config_updated" in result.output and "wait for lumd" in result.output


# Status


def status_of(lab, *options):
    return Surroundings(lab).run("status", "-f", lab.lab.config_path, *options)


def test_of_a_healthy_agent_all_is_well(start_lab):
    lab = start_lab(speed=SPEED)
    result = status_of(lab)
    assert (result.status, result.errors) == (OK, ""), result.output
    assert f"pid {lab.lab.lumd.pid}" in result.output
    assert "RRM" in result.output and "established" in result.output
    assert max(map(len, result.output.splitlines())) < 80


def test_as_json_the_status_has_members_for_monitoring(start_lab):
    lab = start_lab(speed=SPEED)
    status = json.loads(status_of(lab, "--json").output)
    assert (status["status"], status["mode"], status["subscribed"]) == ("ok", "RRM", "yes")
    assert status["process"]["pid"] == lab.lab.lumd.pid
    assert status["link"] == {"state": "established", "address": "127.0.0.1",
                              "port": lab.lab.service.port}
    assert {1, 6, 28, 31, 34} <= set(status["modules"])
    assert status["hostapd"] == "announced" and status["guardd"] == "absent"


def test_an_agent_whose_service_is_gone_has_no_link(start_lab):
    lab = start_lab(speed=SPEED)
    lab.run(lab.lab.service.silence())
    wait_until(lambda: status_of(lab).status == BROKEN, "the link is told as broken")
    assert "there is no connection to the service" in status_of(lab).output


def test_an_agent_that_does_not_run_is_broken(around):
    around.configure()
    result = around.run("status", "-f", around.config)
    assert result.status == BROKEN and "broken   lumd " in result.output


def test_the_last_warnings_of_the_log_are_shown(around):
    log = around.folder / "shown.log"
    log.write_text("".join(f"2026-01-15 12:00:00.000 LUMD[7] {severity}: number {count}\n"
                           for count, severity in enumerate(["error"] * 7 + ["debug"])))
    around.configure(f"log_file={log}")
    output = around.run("status", "-f", around.config).output
    assert [count for count in range(8) if f"number {count}" in output] == [2, 3, 4, 5, 6]


def test_watching_repeats_until_a_signal(around):
    around.configure()
    with subprocess.Popen([around.lab.lab.build.bin / "lumctl", "status", "--watch", "--json",
                           "-f", around.config], env=around.environment(), text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as watch:
        try:
            assert [json.loads(watch.stdout.readline())["status"] for _ in range(2)] == [
                "broken", "broken"]
        finally:
            watch.terminate()


# The command line


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_help_names_both_commands(around, option):
    result = around.run(option)
    assert result.status == OK and "lumctl check" in result.output
    assert "lumctl status" in result.output


def test_the_version_is_that_of_the_tree(around):
    text = (pathlib.Path(__file__).parents[2] / "CMakeLists.txt").read_text()
    version = text.split("project(lumd VERSION ", 1)[1].split()[0]
    assert around.run("--version").output == f"lumctl {version}\n"


@pytest.mark.parametrize("words", [
    [], ["chekc"], ["check", "status"], ["check", "-x"], ["check", "-f"], ["check", "-t"],
    ["check", "-t", "0"], ["check", "-t", "61"], ["check", "-t", "5s"], ["check", "-t", ""],
    ["check", "--jsn"], ["check", "--json=yes"], ["check", "--watch"], ["status", "-t", "1"],
    ["status", "now"], [""]])
def test_wrong_use_is_told_with_a_status_of_its_own(around, words):
    result = around.run(*words)
    assert (result.status, result.output) == (USAGE, "")
    assert "usage: lumctl check" in result.errors


# Completion


COMPLETION = pathlib.Path(__file__).parents[2] / "packaging/completion/lumctl"


def completions(*words):
    """What bash offers for the last of the words behind "lumctl"."""
    line = " ".join(f"'{word}'" for word in ("lumctl", *words))
    script = f"source '{COMPLETION}'; COMP_WORDS=({line}); COMP_CWORD={len(words)}; " \
             "_lumctl; printf '%s\\n' \"${COMPREPLY[@]}\""
    return subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True,
                          timeout=PATIENCE).stdout.split()


@pytest.mark.parametrize("words, offered", [
    ([""], ["check", "status", "--help", "--version"]), (["st"], ["status"]),
    (["check", "-"], ["-f", "-t", "--json"]), (["status", "--w"], ["--watch"]),
    (["check", "-t", ""], [])])
def test_bash_completes_what_may_stand_there(words, offered):
    assert completions(*words) == offered


def test_bash_completes_the_name_of_a_configuration(tmp_path):
    (tmp_path / "lumd.conf").touch()
    assert completions("check", "-f", f"{tmp_path}/lu") == [f"{tmp_path}/lumd.conf"]
