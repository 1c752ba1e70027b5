"""Calls to the system and to libraries that fail, one call site at a time."""
import pytest

from lumdtest.faults import FaultTable, Symbols, places_of
from lumdtest.lab import CONFIG, ask, radios


class FaultyLab:
    """A lab whose agent's calls can be made to fail."""

    def __init__(self, start_lab, folder, **options):
        self.table = FaultTable(folder / "faults")
        self.lab = start_lab("office", environment={"LAB_FAULTS": str(self.table.path)}, **options)
        self.symbols = Symbols(self.lab.lab.build.bin / "lumd")

    def site(self, function, place, helper=""):
        """The key of a call site that was reached."""
        for key, site in self.table.sites().items():
            names = self.symbols.look_up(places_of(key))
            there, by = (names[offset][0] for offset in places_of(key))
            if (site.function, there) == (function, place) and by.endswith(helper):
                return key
        raise AssertionError(f"{function} was not called in {place}")

    def errors(self, since):
        return [line.split("error: ", 1)[1] for line in self.lab.log_lines()[since:]
                if " error: " in line]


@pytest.fixture
def faulty(start_lab, folder):
    return FaultyLab(start_lab, folder)


def test_a_driver_socket_that_cannot_be_opened_costs_what_it_was_for(faulty):
    lab, table = faulty.lab, faulty.table
    first, second = radios(lab)
    site = faulty.site("socket", "socket_handle::open", "realtek_ioctl_ops::assign")
    since = len(lab.log_lines())
    table.arm(site, "EMFILE")
    without_first, without_second = radios(lab)
    table.disarm()
    lines = faulty.errors(since)
    refused = [line for line in lines if "cannot create socket for the ioctl call" in line]
    assert len(refused) == table.failed > 0
    assert all(line.endswith("(errno = Too many open files)") for line in refused)
    assert (without_first["channel"], without_first["power"]) == (0, 16)
    assert without_first["assoclist"] == without_second["assoclist"] == []
    # The other family's MIBs go through a tool.
    assert (without_second["channel"], without_second["power"]) == (36, 18)
    assert radios(lab) == [first, second]


def test_one_socket_that_cannot_be_opened_is_one_error_line(faulty):
    lab, table = faulty.lab, faulty.table
    before = radios(lab)
    site = faulty.site("socket", "socket_handle::open", "realtek_ioctl_ops::assign")
    since = len(lab.log_lines())
    table.arm(site, "EMFILE", times=1)
    assert len(radios(lab)) == 2
    told = [line for line in faulty.errors(since) if "cannot create socket" in line]
    assert table.failed == len(told) == 1
    assert radios(lab) == before


def test_a_survey_without_a_driver_socket_is_answered_empty_and_the_next_one_is_whole(faulty):
    lab, table = faulty.lab, faulty.table
    survey = {"cmd": "rrm-update", "rrm-scan-channels": "1 36"}
    site = faulty.site("socket", "socket_handle::open", "realtek_ioctl_ops::assign")
    table.arm(site, "EMFILE")
    assert not any(ask(lab, survey, "rrm-response")["rf-environment"])
    table.disarm()
    found = ask(lab, survey, "rrm-response")["rf-environment"]
    assert {entry["channel"] for table in found for entry in table} == {1, 36}
    assert lab.ap("locks") == []


def test_a_client_whose_request_gets_no_socket_is_asked_the_next_time(faulty):
    lab, table = faulty.lab, faulty.table
    overload = {"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
                "radios": [{"id": 0, "roam-count": 1}]}
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": []})
    since = lab.mark()
    lab.send(overload)
    lab.wait("bss-transition", since)
    site = faulty.site("socket", "socket_handle::open", "socket_handle::socket_handle")
    begun = len(lab.log_lines())
    table.arm(site, "EMFILE")
    since = lab.mark()
    lab.send(overload)
    lab.settle()
    assert lab.events(since, what="bss-transition") == []
    table.disarm()
    told = [line for line in faulty.errors(begun) if line.startswith("Cannot open sock for ifname")]
    assert len(told) == table.failed > 0
    since = lab.mark()
    lab.send(overload)
    lab.wait("bss-transition", since)
