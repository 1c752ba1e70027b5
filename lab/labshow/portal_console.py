"""The commands of a lab in portal mode."""
import json

from . import tables
from .console import Console

TEXT = "portal-message"


class PortalConsole(Console):
    """Both ends of the relay."""

    async def down(self, *words):
        """down TEXT: the service sends, the portal module must get it"""
        message = {"command": TEXT, "text": " ".join(words)}
        self.needs_link()
        since = self.lab.mark()
        await self.lab.service.send(json.dumps(message))
        await self.follow("portal", TEXT, since, 0, to="portal", data=message)

    async def up(self, *words):
        """up TEXT: the portal module sends, the service must get it"""
        message = {"command": TEXT, "text": " ".join(words)}
        self.needs_link()
        since = self.lab.mark()
        self.lab.ap.portal_send(message)
        await self.follow("service", "message", since, 0, to="service", data=message)

    async def unlink(self):
        """unlink: the portal module ends the link for good"""
        self.needs_link()
        since = self.lab.mark()
        self.lab.ap.portal_send({"service": "internal-ipc", "cmd": "unlink"})
        await self.follow("link", "disconnected", since, 0, to="service")
        await self.settle()

    async def status(self):
        """status: the link, the portal module, and what was passed on"""
        events = self.lab.journal.events
        portal = self.lab.ap.daemons["portal"]
        known = {**self.link_state(), "portal module": "running" if portal.running else "away",
                 "passed down": sum(event["to"] == "portal" and event["what"] == TEXT
                                    for event in events),
                 "passed up": sum(event["to"] == "service" and event["what"] == "message"
                                  for event in events)}
        self.show.text(tables.pairs(known))
        return known

    def commands(self):
        return {"status": self.status, "down": self.down, "up": self.up, "unlink": self.unlink,
                **self.common_commands()}

    def script(self):
        return ["down hello portal", "up hello service", "status"]
