"""The commands of a lab in portal mode."""
import json

from .console import Console


class PortalConsole(Console):
    """Both ends of the relay."""

    async def down(self, *words):
        """down TEXT: the service sends, the portal module must get it"""
        message = {"command": "portal-message", "text": " ".join(words)}
        since = self.lab.mark()
        await self.lab.service.send(json.dumps(message))
        await self.lab.wait("portal-message", since, to="portal", data=message)

    async def up(self, *words):
        """up TEXT: the portal module sends, the service must get it"""
        message = {"command": "portal-message", "text": " ".join(words)}
        since = self.lab.mark()
        self.lab.ap.portal_send(message)
        await self.lab.wait("message", since, to="service", data=message)

    def commands(self):
        return {"down": self.down, "up": self.up}

    def script(self):
        return ["down hello portal", "up hello service"]
