"""The commands of a lab whose service is somebody else's: what happens at the access point."""
from . import tables
from .rrm_console import RrmConsole
from .verdict import Verdict

# Commands of the access point's side.
OWN = ("hostapd", "client", "drop-link", "restart", "show", "log", "fault", "help")


class ForeignConsole(RrmConsole):
    """Of the lab's own service's commands only those that the access point's side carries out."""

    def __init__(self, lab, show):
        super().__init__(lab, show)
        self._verdict = Verdict([lab], {})

    async def status(self):
        """status: the radios and clients that the service was told of"""
        self.show.heading(f"access point {self.known.mac}, "
                          f"{'subscribed' if self.known.subscribed else 'not subscribed'}")
        self.show.text(tables.overview(self.known, self.show.width))

    async def report(self):
        """report: what the service has held and violated so far"""
        self._verdict.show(self.show)
        return self._verdict.as_json()

    def commands(self):
        own = super().commands() if self.lab.mode == "rrm" else self.common_commands()
        return {"status": self.status, "report": self.report,
                **{name: own[name] for name in OWN if name in own}}
