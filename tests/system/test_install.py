"""What cmake --install and OpenWrt's packages bring."""
import re
import subprocess

import pytest

from lumdtest.programs import ROOT

PROGRAMS = ["apctl", "apd", "lumctl", "lumd", "msgbusctl", "msgbusd"]
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


class Feed:
    """OpenWrt's packages of one installation, built by a stand-in for OpenWrt's rules."""

    def __init__(self, image, folder):
        self._image, self._folder = image, folder

    def _make(self, goal, **variables):
        settings = {"TOPDIR": ROOT / "tests/system/openwrt", "PKG_INSTALL_DIR": self._image.folder}
        return subprocess.run(
            ["make", "-s", "-C", ROOT / "packaging/openwrt", goal,
             *(f"{name}={value}" for name, value in (settings | variables).items())],
            check=True, capture_output=True, text=True).stdout

    def files(self, package):
        to = self._folder / package
        self._make(package, TO=to)
        return {str(path.relative_to(to)) for path in to.rglob("*")
                if path.is_symlink() or path.is_file()}

    def needs(self, package, **variables):
        said = self._make(f"show-{package}", **variables)
        return set(re.search(r"DEPENDS:=(.*)", said)[1].split())


@pytest.fixture(name="feed")
def openwrt_feed(configured, tmp_path):
    return Feed(Image(configured, tmp_path / "image", "/usr"), tmp_path / "packages")


def test_openwrts_packages_hold_what_runs_there(feed):
    assert feed.files("lumd") == {"usr/sbin/lumd", "usr/sbin/lumctl", "usr/libexec/lumd/hostapd-notify",
                                  "etc/init.d/lumd", "etc/config/lumd", "etc/lumd/lumd.conf"}
    assert feed.files("msgbus") == {"usr/sbin/msgbusd", "usr/bin/msgbusctl", "etc/init.d/msgbusd",
                                    "etc/lumd/msgbusd.conf"}


def test_openwrts_schemas_are_those_of_the_tree(feed):
    names = {str(path.relative_to(ROOT)) for path in (ROOT / "schemas").rglob("*") if path.is_file()}
    assert feed.files("lumd-schemas") == {f"usr/share/lumd/{name}" for name in names}


def test_openwrts_lumd_brings_the_tools_of_the_radios(feed):
    assert {"+wireless-tools", "+wpa-cli", "+msgbus", "+libwebsockets-mbedtls"} <= feed.needs("lumd")


def test_openwrts_lumd_takes_a_websocket_library_without_tls(feed):
    needed = feed.needs("lumd", LUMD_LIBWEBSOCKETS="libwebsockets-plain")
    assert [name for name in needed if "websockets" in name] == ["+libwebsockets-plain"]
