"""A view without a lab: its conversation is what a test plays."""
from labconsole.source import View
from labtalk.journal import Journal


class PlayedView(View):
    def __init__(self, name):
        super().__init__(name, "rrm", Journal())
        self.link = {"state": "connected", "connected": True, "subscribed": True, "domain": "",
                     "mac": "", "factory": {}, "connections": 1, "lumd": "running"}

    def state(self):
        return {"about": {"scenario": self.name, "mode": self.mode, "speed": 1,
                          "description": "played by a test"},
                "link": self.link, "radios": [], "vaps": [], "clients": [], "roams": [],
                "survey": None, "timers": [], "daemons": {}, "faults": [], "complaints": 0,
                "log": [], "events": len(self.journal.events)}

    def summary(self):
        return {"link": self.link["state"], "connected": self.link["connected"],
                "subscribed": self.link["subscribed"], "radios": "6/20 36/80", "clients": 12,
                "events": len(self.journal.events), "complaints": 0, "faults": 0}
