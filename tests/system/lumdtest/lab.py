"""Whole labs for the tests: the agent between a virtual access point and the service."""
from labap import scenario as scenarios
from labshow.handle import running_lab
from labshow.process import LabError
from labtalk.contract import IS_COMPLETE
from labtalk.journal import matches

__all__ = ["CONFIG", "LabError", "Labs", "ask", "begin", "radios", "running_lab", "scenario", "scenarios",
           "send_bytes", "service_texts"]

# Dumping a survey or a large message at debug level costs more than handling it.
NO_DEBUG_LINES = "log_level=7"
SPEED = 20
CONFIG = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0}


class Labs:
    """Starts labs and ends them; every agent must end with status 0, which it does only without
    any finding of the sanitizer it was built with, leaks included."""

    def __init__(self):
        self._running = []

    def start(self, scenario="minimal", wait=True, start_lumd=True, speed=SPEED, config=(),
              complaints=(), **options):
        """A LabHandle; `wait`: once the agent is subscribed (connected, in the WIDS mode).
        `complaints`: members of those that the test draws on purpose."""
        assert IS_COMPLETE, "python3-jsonschema is not installed"
        context = running_lab(scenario, speed=speed, start_lumd=False,
                              config=[NO_DEBUG_LINES, *config], **options)
        lab = context.__enter__()
        self._running.append((context, lab, list(complaints)))
        if start_lumd and wait:
            begin(lab)
        elif start_lumd:
            lab.start_lumd()
        return lab

    def stop(self):
        problems = []
        for context, lab, allowed in self._running:
            status = lab.stop_lumd()
            log = "\n".join(lab.log_lines()[-60:])
            unexpected = [complaint for complaint in lab.service("complaints")
                          if not any(matches(complaint, each) for each in allowed)]
            context.__exit__(None, None, None)
            if status not in (0, None):
                problems.append(f"status {status}; the log ends:\n{log}")
            problems += unexpected
        self._running.clear()
        assert not problems, "\n".join(map(str, problems))


def begin(lab):
    """Starts the agent and waits until it is at work. The second that it gives the broker is a
    short one on its clock: a machine that stalls for so long costs another start."""
    for may_stall in (True, True, False):
        lab.start_lumd()
        try:
            lab.wait_subscribed() if lab.lab.mode == "rrm" else lab.wait("connected")
            return
        except LabError:
            if not may_stall or lab.lab.lumd.running or not any(
                    "the broker does not answer" in line for line in lab.log_lines()):
                raise


def ask(lab, message, answer, timeout=60, broken=False, **match):
    """Sends a message from the service; the content of the answer."""
    since = lab.mark()
    lab.send(message, broken=broken)
    return lab.wait(answer, since, timeout=timeout, **match)["data"]


def radios(lab):
    """The radio objects as the agent reports them now."""
    return ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")["radios"]


def service_texts(lab):
    """A list that fills with each text that the service receives from now on, as it came."""
    texts = []
    lab.do(lambda: lab.lab.service.readers.append(texts.append))
    return texts


def send_bytes(lab, payload):
    """One text frame with these bytes, valid UTF-8 or not."""
    async def send():
        await lab.lab.service.links[-1].send_payload(payload)
    lab.run(send())


def scenario(name="minimal", **changes):
    """A scenario of the tree with other members."""
    return {**scenarios.load(name), **changes}
