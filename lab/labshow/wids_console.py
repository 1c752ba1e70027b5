"""The commands of a lab in WIDS mode."""
from . import tables
from .console import Console

RECEIVED, REJECTED = "mac-list-received", "mac-list-rejected"
UPDATED = "update-wids-mac-lists-response"


class WidsConsole(Console):
    """MAC lists: the access point takes its own and no other."""

    async def push(self, name=None):
        """push [NAME]: push a MAC list, by default the one that this access point waits for"""
        own = self.lab.scenario["mac-list-id"]
        name = own if name is None else name
        expected = RECEIVED if name.lower() == own.lower() else REJECTED
        since = self.lab.mark()
        await self.lab.service.send({"Name": name, "white-list": ["00:11:22:33:44:50"],
                                     "black-list": ["0a:00:00:00:00:66"]})
        await self.follow("access point", expected, since, 0)
        if expected == RECEIVED:
            await self.follow("network manager", UPDATED, since, 0)
        await self.settle()

    async def status(self):
        """status: the link, the list that is waited for, and what became of those that came"""
        events = self.lab.journal.events
        counts = {what: sum(event["what"] == what for event in events)
                  for what in (RECEIVED, REJECTED, UPDATED)}
        known = {**self.link_state(), "waits for": self.lab.scenario["mac-list-id"],
                 "lists taken": counts[RECEIVED], "lists rejected": counts[REJECTED],
                 "answers of the network manager": counts[UPDATED]}
        self.show.text(tables.pairs(known))
        return known

    def choices(self, words):
        return [self.lab.scenario["mac-list-id"]] if words == ["push"] else super().choices(words)

    def commands(self):
        return {"status": self.status, "push": self.push, **self.common_commands()}

    def script(self):
        return ["push", "push somebody-else", "status"]
