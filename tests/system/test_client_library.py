"""libmsgbus as other programs find it: installed, through pkg-config, and its two examples."""
import os
import re
import shutil
import subprocess

import pytest

from lumdtest.programs import ROOT
from lumdtest.waiting import PATIENCE

EXAMPLES = ROOT / "platform/msgbus/examples"
PATH = "/interface/wlan0/name"


def output(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=PATIENCE * 4,
                          **options).stdout


class Installed:
    """What cmake --install puts below a folder, as a compiler is told of it."""

    def __init__(self, build, prefix):
        self.prefix = prefix
        cache = (build / "CMakeCache.txt").read_text()
        self.compiler = re.search(r"^CMAKE_C_COMPILER:\w+=(.*)$", cache, re.MULTILINE)[1]
        sanitizers = re.search(r"^LUMD_SANITIZE:\w+=(.*)$", cache, re.MULTILINE)[1]
        self.options = ["-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                        *([f"-fsanitize={sanitizers}"] if sanitizers else [])]

    def tell(self, *question):
        """What pkg-config knows of the library."""
        folders = ":".join(map(str, self.prefix.rglob("pkgconfig")))
        return output("pkg-config", *question, "msgbus",
                      env={**os.environ, "PKG_CONFIG_LIBDIR": folders}).strip()

    def compile(self, source, program):
        output(self.compiler, *self.options, str(source), "-o", str(program),
               *self.tell("--cflags", "--libs").split())

    def environment(self, broker):
        return {**os.environ, "LD_LIBRARY_PATH": self.tell("--variable=libdir"),
                "MSGBUS_SOCKET": str(broker.path)}


@pytest.fixture(scope="module")
def installed(programs, tmp_path_factory):
    build = programs.bin.parent
    prefix = tmp_path_factory.mktemp("installed") / "first"
    output("cmake", "--install", str(build), "--prefix", str(prefix), "--component", "libmsgbus")
    return Installed(build, prefix)


@pytest.fixture(scope="module")
def ask(installed, tmp_path_factory):
    program = tmp_path_factory.mktemp("example") / "ask"
    installed.compile(EXAMPLES / "ask.c", program)
    return program


@pytest.fixture
def answering(broker):
    """The Python example, which knows one path."""
    process = subprocess.Popen(["/usr/bin/python3", EXAMPLES / "answer.py", f"{PATH}=radio one"],
                               env={**os.environ, "MSGBUS_SOCKET": str(broker.path)},
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "answering as module 1\n"
    yield process
    process.kill()
    process.communicate()


def run(ask, installed, broker, *arguments):
    result = subprocess.run([ask, *arguments], env=installed.environment(broker), text=True,
                            capture_output=True, timeout=PATIENCE, check=False)
    return result.returncode, result.stdout, result.stderr


def test_the_example_in_c_is_answered_by_the_one_in_python(ask, installed, broker, answering):
    assert run(ask, installed, broker, PATH) == (0, "radio one\n", "")
    assert run(ask, installed, broker, "/x") == (1, "", "ask: no value for /x\n")
    assert answering.poll() is None


def test_the_example_in_c_says_what_is_missing(ask, installed, broker):
    assert run(ask, installed, broker, PATH) == (1, "", f"ask: no value for {PATH}\n")
    assert run(ask, installed, broker) == (1, "", "usage: ask PATH\n")
    broker.stop()
    status, _, error = run(ask, installed, broker, PATH)
    assert status == 1 and "ask: there is no bus for us" in error


def test_the_example_in_python_answers_msgbusctl_and_ends_with_the_broker(programs, broker,
                                                                          answering):
    shown = output(programs.binary("msgbusctl"), "-s", broker.path, "call", "vaultd",
                   f'{{"command":"get","path":"{PATH}"}}')
    assert shown == '{"command": "get-response", "value": "radio one"}\n'
    broker.stop()
    assert answering.wait(PATIENCE) == 1
    assert answering.stderr.read() == "answer: the broker has hung up\n"


def test_the_library_exports_what_its_headers_declare_and_nothing_else(installed):
    declared = set()
    for header in ("msgbus.h", "cfgtree.h"):
        path = installed.tell("--variable=includedir") + f"/{header}"
        with open(path, encoding="utf-8") as text:
            code = re.sub(r"/\*.*?\*/", "", text.read(), flags=re.DOTALL)
        declared.update(re.findall(r"\b((?:msgbus|cfgtree)_\w+)\(", code))
    library = installed.tell("--variable=libdir") + "/libmsgbus.so"
    symbols = [line.split() for line in output("nm", "-D", "--defined-only", library).splitlines()]
    exported = {name.split("@")[0] for _, kind, name in symbols if kind == "T"}
    assert declared and exported == declared
    assert {kind for _, kind, _ in symbols} <= {"T", "A"}


def test_every_installed_header_stands_alone(installed, tmp_path):
    folder = installed.tell("--variable=includedir")
    headers = sorted(os.listdir(folder))
    assert "msgbus.h" in headers and "msgbus_modules.h" in headers
    for header in headers:
        source = tmp_path / "one.c"
        source.write_text(f"#include <{header}>\nint main(void) {{ return 0; }}\n")
        installed.compile(source, tmp_path / "one")


def test_the_flags_follow_an_installation_that_is_moved(installed, tmp_path):
    moved = tmp_path / "moved"
    shutil.copytree(installed.prefix, moved, symlinks=True)
    other = object.__new__(Installed)
    other.__dict__.update({**vars(installed), "prefix": moved})
    for name in ("prefix", "libdir", "includedir"):
        assert os.path.realpath(other.tell(f"--variable={name}")).startswith(str(moved))
    other.compile(EXAMPLES / "ask.c", tmp_path / "ask")
