"""The recipe of docs/tls.md, as it stands there, with a service that speaks TLS.

The service is the lab's behind a second stunnel, whose certificate can be a wrong one.
"""
import asyncio
import pathlib
import re
import subprocess

from installed_lab import PORT, WAIT
from labshow.process import TREE

RECIPE = TREE / "docs/tls.md"
CERTIFICATES = TREE / "tls"
STUNNEL = "stunnel@lumd.service"
LUMD_CONF = pathlib.Path("/etc/lumd/lumd.conf")
HOSTS = pathlib.Path("/etc/hosts")
NAME, TLS_PORT = "rrm.example.net", 8443
# What the journal says of each wrong certificate; Debian 13's stunnel says more of a self-signed one.
UNVERIFIED = "CERT: Pre-verification error: "
WRONG = {"other-name": re.compile("CERT: Subject checks failed"),
         "other-authority": re.compile(UNVERIFIED + "unable to get local issuer certificate"),
         "self-signed": re.compile(UNVERIFIED + "(.*: )?self-signed certificate"),
         "expired": re.compile(UNVERIFIED + "certificate has expired")}


def recipe():
    """{path: content} of the files that the page names and shows."""
    text = RECIPE.read_text(encoding="utf-8")
    blocks = re.findall(r"^`(/etc/[^`]+)`[^\n]*:\n\n((?:    [^\n]*\n|\n)+)", text, re.MULTILINE)
    return {pathlib.Path(path): re.sub("^    ", "", block, flags=re.MULTILINE)
            for path, block in blocks}


class Tls:
    """The recipe carried out, for as long as wanted. `run`: carries out a command."""

    def __init__(self, run):
        self._run, self._service, self._before = run, None, {}

    async def __aenter__(self):
        """lumd's link goes through TLS once a service speaks it."""
        for path, content in recipe().items():
            content = content.replace(f"{NAME}:443", f"{NAME}:{TLS_PORT}") \
                .replace("/etc/ssl/certs/ca-certificates.crt", str(CERTIFICATES / "authority.pem"))
            path.parent.mkdir(exist_ok=True)
            self._write(path, content)
        plain = LUMD_CONF.read_text(encoding="utf-8")
        url = re.search("^    (orvanta_service_url=.*)", RECIPE.read_text(encoding="utf-8"),
                        re.MULTILINE)[1]
        self._write(LUMD_CONF, re.sub("(?m)^orvanta_service_url=.*", url, plain))
        self._write(HOSTS, f"127.0.0.1 localhost {NAME}\n")
        await self._restart()
        return self

    async def __aexit__(self, *_error):
        """All is as it was."""
        await self.serve(None)
        await self._run("systemctl", "stop", STUNNEL)
        for path, content in self._before.items():
            if content is None:
                path.unlink()
            else:
                path.write_text(content, encoding="utf-8")
        for path in recipe():
            if path.parent.name.endswith(".d") and not any(path.parent.iterdir()):
                path.parent.rmdir()
        await self._restart()

    async def serve(self, certificate):
        """The service shows that certificate from now on; None: it does not speak TLS."""
        if self._service is not None:
            self._service.terminate()
            await self._service.wait()
            self._service = None
        if certificate is None:
            return
        configuration = pathlib.Path("/run/tls-service.conf")
        configuration.write_text(
            f"foreground = yes\npid =\n[service]\naccept = 127.0.0.1:{TLS_PORT}\n"
            f"connect = 127.0.0.1:{PORT}\ncert = {CERTIFICATES / certificate}.pem\n",
            encoding="utf-8")
        self._service = await asyncio.create_subprocess_exec(
            "stunnel4", configuration, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    async def refused(self, certificate):
        """Whether the journal says of a wrong certificate what is wrong with it."""
        await self.serve(certificate)
        journal = await asyncio.create_subprocess_exec(
            "journalctl", "--boot", "--unit", STUNNEL, "--lines", "all", "--follow",
            stdout=subprocess.PIPE)
        try:
            async with asyncio.timeout(WAIT):
                async for line in journal.stdout:
                    if WRONG[certificate].search(line.decode()):
                        return True
        except TimeoutError:
            pass
        finally:
            journal.kill()
            await journal.wait()
        return False

    async def _restart(self):
        await self._run("systemctl", "daemon-reload")
        await self._run("systemctl", "restart", "lumd")

    def _write(self, path, content):
        self._before.setdefault(
            path, path.read_text(encoding="utf-8") if path.exists() else None)
        path.write_text(content, encoding="utf-8")
