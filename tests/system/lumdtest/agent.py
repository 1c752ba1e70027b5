"""The agent's process."""
import os
import pathlib
import signal
import subprocess

from .waiting import PATIENCE, wait_until

URL_KEYS = {"portal": "roam_service_url", "rrm": "orvanta_service_url",
            "wids": "mac-list-service-url"}
# Waits of 0 seconds before every connection (rounds down to none, and never doubles).
NO_BACK_OFF = ("initial_connection_delay=1", "max_connection_delay=1")


class Agent:
    """One lumd with a configuration file and a log file of its own in `folder`."""

    def __init__(self, programs, folder, bus_path, port, mode="portal", host="127.0.0.1",
                 path="agent", log_level=15, settings=NO_BACK_OFF,
                 speed=None, environment=()):
        self.folder = pathlib.Path(folder)
        self.log_path = self.folder / "lumd.log"
        self.output_path = self.folder / "lumd.out"
        self.config = self.folder / "lumd.conf"
        lines = [f"{URL_KEYS[mode]}=ws://{host}:{port}/{path}", f"log_file={self.log_path}",
                 *settings]
        if log_level is not None:
            lines.append(f"log_level={log_level}")
        self.config.write_text("\n".join(lines) + "\n")
        self._program = programs.binary("lumd")
        self._environment = {**os.environ, "MSGBUS_SOCKET": str(bus_path)}
        if speed is not None:
            self._environment.update(programs.fast_clock(speed))
        self._environment.update(environment)
        self.process = None

    def start(self):
        with open(self.output_path, "ab") as output:
            self.process = subprocess.Popen([self._program, "-f", self.config],
                                            env=self._environment, stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output)
        return self

    def log(self):
        try:
            return self.log_path.read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def wait_log(self, text, count=1):
        wait_until(lambda: self.log().count(text) >= count, f"'{text}' in the agent's log")

    def threads(self):
        """Names of the living threads."""
        names = []
        for task in pathlib.Path(f"/proc/{self.process.pid}/task").iterdir():
            try:
                names.append((task / "comm").read_text().strip())
            except OSError:
                continue
        return sorted(names)

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def end(self, number=signal.SIGTERM, timeout=PATIENCE):
        """Sends the signal; the exit status. A sanitizer's finding makes it differ from 0."""
        self.process.send_signal(number)
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"the agent lives {timeout:g} s after signal {number}") from None

    def expect_clean_end(self, number=signal.SIGTERM, timeout=PATIENCE):
        status = self.end(number, timeout)
        assert status == 0, f"status {status}; output:\n{self.output_path.read_text()}"

    def stop(self):
        if self.alive():
            self.expect_clean_end()
