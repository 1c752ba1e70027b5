"""What somebody else's service was found to do, for people and for machines."""
import json
import shutil
import textwrap
import time

from labservice.conformance import UNSEEN, VIOLATED, together
from labtalk import contract

from . import tables

WIDEST = 100          # columns; further than that nobody reads a line
SHOWN_FINDINGS = 5    # of a rule
INDENT = "    "


class Verdict:
    """On all access points of a trial: `labs` that have a ForeignService, and what the trial says
    about itself (`about`: members for the report)."""

    def __init__(self, labs, about):
        self._labs, self._about, self._begun = labs, about, time.time()
        self.trouble = None  # why the trial could not be carried out to its end

    @property
    def _services(self):
        return [lab.service for lab in self._labs if lab.service is not None]

    def rules(self):
        return together([service.conformance for service in self._services])

    @property
    def held(self):
        return all(service.conformance.held for service in self._services)

    def as_json(self):
        """The report."""
        return {**self._about, "held": self.held, "trouble": self.trouble,
                "begun": round(self._begun, 3), "seconds": round(time.time() - self._begun, 1),
                "schemas-applied": contract.IS_COMPLETE,
                "access-points": [self._access_point(lab) for lab in self._labs
                                  if lab.service is not None],
                "rules": [rule.as_json() for rule in self.rules().values()]}

    @staticmethod
    def _access_point(lab):
        service, factory = lab.service, lab.scenario["factory"]
        return {"mac": factory["mac"], "serial": factory["serial"],
                "held": service.conformance.held, "links": service.connections,
                "subscribed": service.subscriptions,
                "messages": {"from-lumd": service.texts["lumd"],
                             "to-lumd": service.texts["service"]}}

    def write(self, path):
        with open(path, "w", encoding="utf-8") as file:
            json.dump(self.as_json(), file, indent=2, ensure_ascii=False)
            file.write("\n")

    def show(self, show):
        """A table, then what was found."""
        rules = self.rules()
        if show.machine:
            for rule in rules.values():
                print(json.dumps({"what": "rule", "data": rule.as_json()}, ensure_ascii=False),
                      flush=True)
            return
        show.heading("what the service must do for lumd")
        rows = [[outcome(rule), rule.name, rule.seen or "", rule.says] for rule in rules.values()]
        width = columns()
        for line in tables.table(["outcome", "rule", "seen", "the service ..."], rows).splitlines():
            show.text(line[:width])
        for rule in rules.values():
            self._show_findings(show, rule.name, "VIOLATED", rule.violations, rule.violated)
            self._show_findings(show, rule.name, "advice", rule.advice, rule.advised)

    @staticmethod
    def _show_findings(show, name, kind, findings, count):
        if not count:
            return
        show.text(f"\n{name}, {kind} {count} times:" if count > 1 else f"\n{name}, {kind}:")
        for finding in findings[:SHOWN_FINDINGS]:
            clock = time.strftime("%H:%M:%S", time.localtime(finding["t"]))
            who = f"access point {finding['ap']}: " if "ap" in finding else ""
            show.text(textwrap.fill(f"{clock} {who}{finding['what']}", columns(),
                                    initial_indent="  ", subsequent_indent=INDENT))
        if count > SHOWN_FINDINGS:
            show.text(f"  ... and {count - SHOWN_FINDINGS} more (--report has them)")


def outcome(rule):
    if rule.outcome == VIOLATED:
        return "VIOLATED"
    return "held, advice" if rule.advised else "-" if rule.outcome == UNSEEN else "held"


def columns():
    return min(shutil.get_terminal_size().columns, WIDEST)
