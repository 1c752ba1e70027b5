"""What the service knows of one access point, from what it was told."""


class ApModel:
    def __init__(self, mac):
        self.mac = mac
        self.domain = ""
        self.factory = {}
        self.subscribed = False
        self.radios = {}       # by number: the last radio object
        self.clients = {}      # by MAC: radio, ssid, rssi, no-balance
        self.environment = []  # the last survey: one list of neighbours a pass

    def learn(self, message):
        """Takes in one message of the access point."""
        self.domain = message.get("domain", self.domain)
        self.factory = message.get("factory", self.factory)
        handler = self.HANDLERS.get(message.get("cmd"))
        if handler is not None:
            handler(self, message)

    def _radios(self, message):
        for radio in _objects(message.get("radios")):
            number = radio.get("id")
            present = _objects(radio.get("assoclist"))
            self.radios[number] = {**radio, "assoclist": present}
            if "assoclist" not in radio and radio.get("status"):
                continue
            self.clients = {mac: client for mac, client in self.clients.items()
                            if client["radio"] != number}
            for client in present:
                if "mac" in client:
                    self.clients[client["mac"]] = {"radio": number, "ssid": client.get("ssid"),
                                                   "rssi": client.get("rssi")}

    def _survey(self, message):
        self._radios(message)
        self.environment = message.get("rf-environment", [])

    def _assoc(self, message):
        self.clients[message.get("sta-mac")] = {
            "radio": message.get("radio"), "ssid": message.get("ssid"),
            "rssi": message.get("rssi"), "no-balance": message.get("no-balance")}

    def _gone(self, message):
        self.clients.pop(message.get("sta-mac"), None)

    def _all_gone(self, _message):
        self.clients.clear()

    HANDLERS = {
        "subscribe-request": _radios, "rrm-config-changed": _radios,
        "rrm-mode-response": _radios, "rrm-response": _survey, "rrm-client-assoc": _assoc,
        "rrm-client-disassoc": _gone, "rrm-sta-roam": _gone,
        "rrm-disassoc-all-clients": _all_gone,
    }

    def neighbours(self):
        """Every neighbour of the last survey once, with the strongest signal it was heard at."""
        best = {}
        for table in self.environment:
            for entry in table:
                known = best.get(entry["bssid"])
                if known is None or entry["rssi"] > known["rssi"]:
                    best[entry["bssid"]] = entry
        return sorted(best.values(), key=lambda entry: (entry["channel"], -entry["rssi"]))

    def as_json(self):
        return {"mac": self.mac, "domain": self.domain, "factory": self.factory,
                "subscribed": self.subscribed, "radios": list(self.radios.values()),
                "clients": self.clients, "environment": self.environment}


def _objects(value):
    """Those of an array, which may be none: the checker complains, the model goes on."""
    return [entry for entry in value if isinstance(entry, dict)] if isinstance(value, list) else []
