"""The commands of a lab in WIDS mode."""
from .console import Console


class WidsConsole(Console):
    """MAC lists: the access point takes its own and no other."""

    async def push(self, name=None):
        """push [NAME]: push a MAC list, by default the one that this access point waits for"""
        own = self.lab.scenario["mac-list-id"]
        name = own if name is None else name
        expected = "mac-list-received" if name.lower() == own.lower() else "mac-list-rejected"
        since = self.lab.mark()
        await self.lab.service.send({"Name": name, "white-list": ["00:11:22:33:44:50"],
                                     "black-list": ["0a:00:00:00:00:66"]})
        await self.lab.wait(expected, since)
        if expected == "mac-list-received":
            await self.lab.wait("update-wids-mac-lists-response", since)
        await self.settle()

    def commands(self):
        return {"push": self.push}

    def script(self):
        return ["push", "push somebody-else"]
