"""What cmake --install brings: every text names paths of the prefix that was chosen."""
import re
import subprocess

import pytest

from lumdtest.programs import ROOT

PROGRAMS = ["lumctl", "lumd", "msgbusctl", "msgbusd"]
# In roff a hyphen stands behind a backslash.
NAMED = re.compile(r"(?<![\w./@-])/(?:usr|opt|etc)(?:/(?:[\w.+-]|\\-)+)+")


@pytest.fixture(scope="module", name="configured")
def configured_tree(tmp_path_factory):
    """A configured tree with empty files for its programs: here it only matters where they go."""
    build = tmp_path_factory.mktemp("build")
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DLUMD_TESTS=OFF", "-DLUMD_LAB=OFF",
                    "-DLUMD_LIBMSGBUS=OFF"], check=True, capture_output=True)
    (build / "bin").mkdir(exist_ok=True)
    for program in PROGRAMS:
        (build / "bin" / program).touch()
    return build


class Image:
    """What one installation brought."""

    def __init__(self, build, folder, prefix):
        self.folder, self.prefix = folder, prefix
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                       capture_output=True, env={"DESTDIR": str(folder), "PATH": "/usr/bin:/bin"})

    def has(self, path):
        return (self.folder / path.lstrip("/")).exists()

    def named(self):
        """Each path that a text names."""
        texts = (path.read_text() for path in self.folder.rglob("*") if path.is_file())
        return {path.replace("\\-", "-").rstrip(".") for text in texts
                for path in NAMED.findall(text)}


@pytest.fixture(params=["/usr", "/usr/local", "/opt/lumd"], name="image")
def installed_image(request, configured, tmp_path):
    return Image(configured, tmp_path, request.param)


def test_a_path_that_a_text_names_was_installed(image):
    named = {path for path in image.named() if not path.startswith("/etc/")}
    assert f"{image.prefix}/sbin/lumd" in named
    assert f"{image.prefix}/libexec/lumd/hostapd-notify" in named
    assert [path for path in named if not image.has(path)] == []


def test_the_configuration_is_where_the_programs_look_for_it(image):
    configuration = {path for path in image.named() if path.startswith("/etc/")}
    assert {"/etc/lumd/lumd.conf", "/etc/lumd/msgbusd.conf"} <= configuration
    assert [path for path in configuration if not path.startswith("/etc/lumd")] == []


@pytest.mark.parametrize("program", PROGRAMS)
def test_each_program_has_its_page_and_its_completion(image, program):
    share = image.folder / image.prefix.lstrip("/") / "share"
    assert list(share.glob(f"man/man[18]/{program}.[18]"))
    assert (share / "bash-completion/completions" / program).exists()


def test_units_are_installed_below_the_prefix(image):
    for unit in ["lumd.service", "msgbusd.service", "hostapd.service.d/lumd.conf"]:
        assert image.has(f"{image.prefix}/lib/systemd/system/{unit}")
