"""What the file system tells lumd: interfaces, /proc entries, pid files and notify files.

All of it lies below the lab's root folder, where the interposer leads lumd.
"""
import os
import pathlib
import shutil

UP, DOWN = "0x1003\n", "0x1002\n"
NOTIFY = "/tmp/.orvanta_notify"
OWN_PID = "the lab's own"  # in a recording, for the content of a pid file
HOSTAPD_PID, GUARDD_PID = "/var/run/hostapd.pid", "/var/run/guardd.pid"


class Files:
    def __init__(self, root, air, journal):
        self.root, self.air, self.journal = pathlib.Path(root), air, journal
        self.hostapd = self.guardd = False
        for folder in ("tmp", "var/run", "proc/net/rtk_wifi6", "sys/class/net"):
            (self.root / folder).mkdir(parents=True, exist_ok=True)

    def path(self, name):
        path = (self.root / name.lstrip("/")).resolve()
        if not path.is_relative_to(self.root.resolve()):
            raise ValueError(f"{name} lies outside the lab")
        return path

    def write(self, name, content=""):
        """Puts a file there in one step, so that lumd never reads half of it."""
        path = self.path(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        if path.is_dir():
            raise ValueError(f"{name} is a folder")
        self.journal.tape("files", "lab", "write", path=name,
                          content=OWN_PID if content == f"{os.getpid()}\n" else content)
        new = path.with_name(path.name + ".lab-new")
        new.write_text(content, encoding="utf-8")
        os.replace(new, path)

    def remove(self, name):
        path = self.path(name)
        self.journal.tape("files", "lab", "remove", path=name)
        if path.is_dir():
            shutil.rmtree(path)
        else:
            path.unlink(missing_ok=True)

    def exists(self, name):
        return self.path(name).exists()

    def refresh(self):
        """Brings every interface's files in line with the radio model."""
        for radio in self.air.radios:
            self._interface(radio, radio.ifname, radio.up)
            for vap in radio.vaps:
                self._interface(radio, vap.ifname, vap.up and radio.up and self.hostapd)

    def _interface(self, radio, ifname, up):
        self.write(f"/sys/class/net/{ifname}/flags", UP if up else DOWN)
        if radio.driver == "rtl8192cd":
            self.write(f"/proc/{ifname}/mib_11n", mib_11n(radio))
            reports = f"/proc/{ifname}/rm_neighbor_report"
        else:
            self.write(f"/proc/net/rtk_wifi6/{ifname}/coex_2g_40m", f"{radio.obss_coex}\n")
            reports = f"/proc/net/rtk_wifi6/{ifname}/nb_report"
        for name in (reports, reports + "_custom"):
            if not self.exists(name):
                self.write(name)

    def start_hostapd(self):
        self.hostapd = True
        self.refresh()
        self.write(HOSTAPD_PID, f"{os.getpid()}\n")
        self.journal.add("hostapd", "lumd", "started")
        self.notify("hostapd_started")

    def announce(self):
        """Tells a lumd that is about to start who runs, as the access point's start of it does."""
        for name, runs in (("hostapd_started", self.hostapd), ("guardd_started", self.guardd)):
            if runs:
                self.notify(name)

    def stop_hostapd(self):
        self.hostapd = False
        self.remove(HOSTAPD_PID)
        self.refresh()
        self.journal.add("hostapd", "lumd", "stopped")

    def start_guardd(self):
        self.guardd = True
        self.write(GUARDD_PID, f"{os.getpid()}\n")
        self.journal.add("guardd", "lumd", "started")
        self.notify("guardd_started")

    def stop_guardd(self):
        self.guardd = False
        self.remove(GUARDD_PID)
        self.journal.add("guardd", "lumd", "stopped")

    def notify(self, name):
        """The specific notify file first, the general one last: lumd looks for the latter."""
        self.write(f"{NOTIFY}_{name}")
        self.write(NOTIFY)


def mib_11n(radio):
    """The 802.11n page of the driver's settings, as far as anybody reads it."""
    width = {20: 0, 40: 1, 80: 2}.get(radio.bandwidth, 0)
    return f"  Make info: {radio.ifname}\n    use40M: {width}\n    coexist: {radio.obss_coex}\n"
