"""hostapd's neighbour tables, as wpa_cli reaches them through the global control socket."""
from labtalk.contract import Checker


class NeighbourTables:
    def __init__(self, journal, faults, clock, checker=None):
        self.journal, self.faults, self.clock = journal, faults, clock
        self.checker = checker or Checker(journal)
        self.tables = {}  # interface: {BSSID: {"ssid": text, "nr": hex}}
        self.running = lambda: True

    async def wpa_cli(self, arguments):
        """(exit status, output) of a wpa_cli call, as far as lumd and people use it."""
        arguments = list(arguments)
        if arguments[:1] == ["-g"]:
            arguments = arguments[2:]
        if arguments[:1] == ["raw"]:
            arguments = arguments[1:]
        ifname = arguments.pop(0)[len("IFNAME="):] if arguments and \
            arguments[0].startswith("IFNAME=") else ""
        verb = arguments[0] if arguments else ""
        self.checker.look_text("hostapd-command", " ".join(arguments))
        rule = self.faults.take("wpa-cli", ifname, verb)
        if rule["delay"]:
            await self.clock.sleep(rule["delay"])
        if rule["output"] is not None:
            return 0, rule["output"]
        if not self.running():
            return 255, "Failed to connect to hostapd - wpa_ctrl_open: No such file or directory\n"
        answer = self._execute(ifname, verb, arguments[1:])
        self.journal.add("lumd", "hostapd", "wpa_cli", {"ifname": ifname,
                                                        "command": " ".join(arguments),
                                                        "answer": answer.strip()})
        return 0, answer

    def _execute(self, ifname, verb, arguments):
        table = self.tables.setdefault(ifname, {})
        if verb == "SET_NEIGHBOR" and arguments:
            fields = dict(item.split("=", 1) for item in arguments[1:] if "=" in item)
            try:
                ssid = bytes.fromhex(fields["ssid"]).decode(errors="replace")
                bytes.fromhex(fields["nr"])
            except (KeyError, ValueError):
                return "FAIL\n"
            table[arguments[0]] = {"ssid": ssid, "nr": fields["nr"]}
            return "OK\n"
        if verb == "REMOVE_ALL_NEIGHBOR":
            table.clear()
            return "OK\n"
        if verb == "REMOVE_NEIGHBOR" and arguments:
            return "OK\n" if table.pop(arguments[0], None) else "FAIL\n"
        if verb == "SHOW_NEIGHBOR":
            return "".join(f"{bssid} ssid={entry['ssid'].encode().hex()} nr={entry['nr']}\n"
                           for bssid, entry in table.items())
        return "PONG\n" if verb == "PING" else "UNKNOWN COMMAND\n"
