"""The kernel's radio side: what lumd's ioctls, /proc writes and iwpriv calls meet."""
import errno
import struct

from labtalk.contract import Checker
from labtalk.unixserver import UnixServer

from . import records
from .faults import errno_of

REPORT_FILES = {
    "/rm_neighbor_report": "standard", "/rm_neighbor_report_custom": "custom",
    "/nb_report": "standard", "/nb_report_custom": "custom",
}


class Kernel:
    """Answers calls from the radio model. Runs on the lab's event loop.

    `on_transition(vap, station)` is called for each BSS-transition request that a station hears.
    """

    def __init__(self, air, journal, faults, clock, on_transition, checker=None):
        self.air, self.journal, self.faults, self.clock = air, journal, faults, clock
        self.checker = checker or Checker(journal)
        self.on_transition = on_transition
        self.neighbour_lists = {}  # (interface, "standard" or "custom"): lines added

    # ioctls: each handler gives (result, iw_point length, data for the caller's buffer)

    async def ioctl(self, request, ifname, length, data, order):
        radio = self.air.radio(ifname)
        if radio is None:
            return -errno.ENODEV, length, b""
        handlers = {
            records.VENDOR_COMMAND.get(radio.driver): self._vendor_command,
            records.MIB_GET.get(radio.driver): self._mib_get,
            records.MIB_SET.get(radio.driver): self._mib_set,
            records.SCAN_TRIGGER.get(radio.driver): self._scan_trigger,
            records.BSS_TRANSITION.get(radio.driver): self._bss_transition,
        }
        handler = handlers.get(request)
        if handler is None:
            return -errno.EOPNOTSUPP, length, b""
        return await handler(radio, ifname, length, data, order)

    async def _vendor_command(self, radio, ifname, length, data, order):
        command = records.unpack_command(data, order)
        name = records.COMMAND_NAMES.get(command, "UNKNOWN")
        rule = await self._fault("vendor", ifname, name)
        if (failure := errno_of(rule)) or command not in self.COMMANDS:
            self._note(ifname, name, {"errno": rule["errno"] or "EINVAL"})
            return failure or -errno.EINVAL, length, b""
        answer = self.COMMANDS[command](self, radio, ifname, data, order, rule["count"])
        return 0, length, answer

    def _custom_scan(self, radio, ifname, data, order, _count):
        scan = self.air.start_scan(radio, records.unpack_scan_request(data, order))
        self._note(ifname, "scan-start", {"channels": scan.channels,
                                          "seconds": round(scan.duration(), 1)})
        return b""

    def _custom_scan_stop(self, radio, ifname, _data, _order, _count):
        running = radio.scan is not None and radio.scan.stopped is None
        self.air.stop_scan(radio)
        if running:
            self._note(ifname, "scan-stop")
        return b""

    def _scan_results(self, radio, ifname, _data, order, count):
        return self._results(radio, ifname, records.CUSTOM_SCAN_RESULTS, order, count)

    def _rrm_scan_results(self, radio, ifname, _data, order, count):
        return self._results(radio, ifname, records.RRM_SCAN_RESULTS, order, count)

    def _results(self, radio, ifname, command, order, count):
        found = self.air.scan_result(radio, rrm=command == records.RRM_SCAN_RESULTS)
        self._note(ifname, "scan-results", {"entries": len(found)})
        return records.pack_scan_result(command, found, order, count)

    def _stations(self, radio, ifname, _data, order, count):
        vap = radio.vap(ifname)
        stations = self.air.stations(vap) if vap is not None and vap.up else []
        self._note(ifname, "station-list", {"entries": len(stations)})
        return records.pack_stations(radio.channel, stations, order, count)

    def _available_channels(self, radio, ifname, _data, order, count):
        self._note(ifname, "channel-list", {"entries": len(radio.available)})
        return records.pack_channels(radio.available, order, count)

    COMMANDS = {
        records.CUSTOM_SCAN: _custom_scan,
        records.CUSTOM_SCAN_STOP: _custom_scan_stop,
        records.CUSTOM_SCAN_RESULTS: _scan_results,
        records.RRM_SCAN_RESULTS: _rrm_scan_results,
        records.GET_ASSOC_STAS: _stations,
        records.GET_AVAILABLE_CHANNELS: _available_channels,
    }

    async def _mib_get(self, radio, ifname, length, data, order):
        name = data.split(b"\0", 1)[0].decode(errors="replace")
        result, value = await self.read_mib("mib-get", radio, ifname, name)
        if result < 0:
            return result, length, b""
        return 0, 4, records.pack_int(value, order)

    async def _mib_set(self, radio, ifname, length, data, _order):
        name, _, value = data.split(b"\0", 1)[0].decode(errors="replace").partition("=")
        return await self.write_mib("mib-set", radio, ifname, name, value), length, b""

    async def _scan_trigger(self, radio, ifname, length, _data, _order):
        rule = await self._fault("scan-trigger", ifname)
        if failure := errno_of(rule):
            self._note(ifname, "scan-trigger", {"errno": rule["errno"]})
            return failure, length, b""
        scan = self.air.start_rrm_scan(radio, ifname)
        self._note(ifname, "rrm-scan-start", {"channels": scan.channels})
        return 0, length, b""

    async def _bss_transition(self, radio, ifname, length, data, _order):
        mac = records.mac_text(data[:6])
        rule = await self._fault("bss-transition", ifname)
        vap = radio.vap(ifname)
        station = vap.stations.get(mac) if vap is not None else None
        failure = errno_of(rule) or (0 if station is not None else -errno.ENOENT)
        self._note(ifname, "bss-transition", {"station": mac, "errno": rule["errno"] if failure
                                              and rule["errno"] else "ENOENT" if failure else None})
        if not failure:
            self.on_transition(vap, station)
        return failure, length, b""

    # MIBs, for the ioctls of one family and the iwpriv tool of the other

    async def read_mib(self, call, radio, ifname, name):
        self.checker.look_text("mib-get", name)
        rule = await self._fault(call, ifname, name)
        value = rule["value"] if rule["value"] is not None else radio.mib(ifname, name)
        result = errno_of(rule) or (-errno.EINVAL if value is None else 0)
        self._note(ifname, "mib-get", {"name": name, "value": value if result == 0 else None})
        return result, value

    async def write_mib(self, call, radio, ifname, name, value):
        self.checker.look_text("mib-set", f"{name}={value}")
        rule = await self._fault(call, ifname, name)
        result = errno_of(rule)
        self._note(ifname, "mib-set", {"name": name, "value": value, "errno": rule["errno"]})
        if result == 0:
            radio.set_mib(ifname, name, int(value) if value.lstrip("-").isdigit() else value)
        return result

    async def iwpriv(self, arguments):
        """(exit status, output) of `iwpriv <interface> set_mib|get_mib <argument>`."""
        if len(arguments) != 3 or arguments[1] not in ("set_mib", "get_mib"):
            return 1, "usage: iwpriv <interface> set_mib <name>=<value> | get_mib <name>\n"
        ifname, action, argument = arguments
        radio = self.air.radio(ifname)
        if radio is None:
            return 1, f"Interface doesn't accept private ioctl... ({ifname})\n"
        if action == "set_mib":
            name, _, value = argument.partition("=")
            return (1 if await self.write_mib("iwpriv", radio, ifname, name, value) else 0), ""
        rule = await self._fault("iwpriv-output", ifname, argument)
        if rule["output"] is not None:
            return 0, rule["output"]
        result, value = await self.read_mib("iwpriv", radio, ifname, argument)
        return (1, "") if result else (0, f"{ifname}  get_mib:{value}\n")

    # /proc

    def written(self, path, content):
        """A /proc file was closed after a write: a line of a neighbour list, or its end."""
        folder, _, file = path.rpartition("/")
        kind = REPORT_FILES.get("/" + file)
        ifname = folder.rpartition("/")[2]
        if kind is None:
            self._note(ifname, "proc-write", {"path": path, "content": content})
            return
        self.checker.look_text("neighbour-line", content.rstrip("\n"))
        lines = self.neighbour_lists.setdefault((ifname, kind), [])
        if content.startswith("delall"):
            lines.clear()
        else:
            lines.append(content.rstrip("\n"))
        self._note(ifname, f"neighbours-{kind}", {"line": content.rstrip("\n")})

    def neighbours(self, ifname, kind):
        return self.neighbour_lists.get((ifname, kind), [])

    async def _fault(self, call, ifname, name=None):
        rule = self.faults.take(call, ifname, name)
        if rule["delay"]:
            await self.clock.sleep(rule["delay"])
        return rule

    def _note(self, ifname, what, data=None):
        data = {key: value for key, value in (data or {}).items() if value is not None}
        self.journal.add("lumd", "driver", what, {"ifname": ifname, **data})


class KernelServer(UnixServer):
    """The socket behind liblabkernel.so (lab/kernel/remote_kernel.cpp has the wire format)."""

    IOCTL, WRITTEN = 1, 2

    def __init__(self, kernel, journal):
        super().__init__()
        self.kernel, self.journal = kernel, journal

    async def serve(self, reader, writer):
        greeting = await reader.readexactly(8)
        order = {b"LABKl": "<", b"LABKb": ">"}.get(greeting[:5])
        while order is not None:
            writer.write(await self._answer(reader, order))
            await writer.drain()

    async def _answer(self, reader, order):
        head = await reader.readexactly(20)
        kind, request, length, name_size, data_size = struct.unpack(order + "5I", head)
        name = (await reader.readexactly(name_size)).decode(errors="replace")
        data = await reader.readexactly(data_size)
        result, answer = 0, b""
        if kind == self.WRITTEN:
            text = data.decode(errors="replace")
            self.journal.tape("driver", "lumd", "write", path=name, content=text)
            self.kernel.written(name, text)
        else:
            asked = {"request": request, "ifname": name, "length": length,
                     "data": data.rstrip(b"\0").hex()}
            result, length, answer = await self.kernel.ioctl(request, name, length, data, order)
            self.journal.tape("driver", "lumd", "ioctl", **asked, result=result,
                              out_length=length, answer=answer.hex())
        return struct.pack(order + "iII", result, length, len(answer)) + answer
