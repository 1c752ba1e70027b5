"""Faults: rules that make one kernel call fail, lie or take its time."""
import errno

from . import scenario as scenarios

CALLS = ("vendor", "mib-get", "mib-set", "scan-trigger", "bss-transition", "iwpriv",
         "iwpriv-output", "wpa-cli")
RULE = {
    "call": None,      # of CALLS
    "ifname": None,    # None: any
    "name": None,      # vendor command or MIB; None: any
    "errno": None,     # "EIO"
    "count": None,     # the entry count that a result record claims
    "value": None,     # the value of a MIB
    "output": None,    # what iwpriv or wpa_cli print
    "delay": 0,        # seconds before the answer
    "times": None,     # None: until cleared
}


class Faults:
    def __init__(self, rules=()):
        self.rules = []
        for rule in rules:
            self.add(rule)

    def add(self, rule):
        rule = scenarios.fill(rule, RULE, "fault", ("call",))
        if rule["call"] not in CALLS:
            raise scenarios.ScenarioError(f"fault: {rule['call']!r} is none of {', '.join(CALLS)}")
        if rule["errno"] is not None and not hasattr(errno, rule["errno"]):
            raise scenarios.ScenarioError(f"fault: unknown errno {rule['errno']!r}")
        self.rules.append(rule)

    def clear(self):
        self.rules.clear()

    def take(self, call, ifname, name=None):
        """The first rule for this call, used up by one; an empty rule when there is none."""
        for rule in self.rules:
            if rule["call"] == call and rule["ifname"] in (None, ifname) \
                    and rule["name"] in (None, name) and rule["times"] != 0:
                if rule["times"] is not None:
                    rule["times"] -= 1
                return rule
        return RULE


def errno_of(rule):
    """The negative errno that a rule asks for, 0 for none."""
    return -getattr(errno, rule["errno"]) if rule["errno"] else 0
