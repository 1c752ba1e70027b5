"""What a service must do for lumd, rule by rule, and what became of it in a conversation."""
import dataclasses
import time

HELD, VIOLATED, UNSEEN = "held", "violated", "not seen"
MOST_KEPT = 50  # findings of a rule and access point; the rest is only counted

RULES = {  # each sentence after "the service"; 46 columns
    "handshake": "answers the handshake well, within 5 s",
    "subprotocol": "names the subprotocol that was offered",
    "frames": "sends sound frames, and messages as text",
    "closing": "ends a link with a Close frame",
    "pong": "answers each ping before the next one, 30 s",
    "subscription": "answers subscribe-request within 30 s",
    "message": "sends one JSON object a message",
    "version": "names version 2.4 or later in each message",
    "command": "sends commands that lumd carries out",
    "members": "sends members as the schemas have them",
    "address": "names the access point of the link, if any",
    "refusal": "asks for nothing that must be refused",
    "patience": "lets a survey end before it asks again",
}


@dataclasses.dataclass
class Rule:
    """What is known of one rule. `seen`: how often it was put to the test; `violations` and
    `advice`: findings, each with a time (s of the epoch) and a sentence. Advice is about what works
    and is hardly meant."""
    name: str
    seen: int = 0
    violated: int = 0
    advised: int = 0
    violations: list = dataclasses.field(default_factory=list)
    advice: list = dataclasses.field(default_factory=list)

    @property
    def says(self) -> str:
        return RULES[self.name]

    @property
    def outcome(self) -> str:
        if self.violated:
            return VIOLATED
        return HELD if self.seen else UNSEEN

    def as_json(self) -> dict:
        return {"rule": self.name, "says": self.says, "outcome": self.outcome, "seen": self.seen,
                "violated": self.violated, "advised": self.advised,
                "violations": self.violations, "advice": self.advice}


class Conformance:
    """The rules of one access point's conversation. `on_finding(kind, rule, sentence)` is called
    for each finding, `kind` being "violation" or "advice"."""

    def __init__(self, on_finding=lambda kind, rule, sentence: None):
        self.rules = {name: Rule(name) for name in RULES}
        self._on_finding = on_finding

    def see(self, name: str) -> None:
        """The rule was put to the test."""
        self.rules[name].seen += 1

    def violate(self, name: str, sentence: str) -> None:
        rule = self.rules[name]
        rule.violated += 1
        self._keep(rule.violations, "violation", name, sentence)

    def advise(self, name: str, sentence: str) -> None:
        rule = self.rules[name]
        rule.advised += 1
        self._keep(rule.advice, "advice", name, sentence)

    def _keep(self, findings, kind, name, sentence):
        if len(findings) < MOST_KEPT:
            findings.append({"t": round(time.time(), 3), "what": sentence})
        self._on_finding(kind, name, sentence)

    def judge(self, name: str, faults: list) -> None:
        """One test of the rule, with all that was wrong."""
        self.see(name)
        for fault in faults:
            self.violate(name, fault)

    @property
    def held(self) -> bool:
        return not any(rule.violated for rule in self.rules.values())


def together(parts: list) -> dict:
    """The rules of several access points as one: {name: Rule}; each finding names its "ap", the
    number in `parts`, where there are several."""
    whole = {name: Rule(name) for name in RULES}
    for number, part in enumerate(parts):
        for name, rule in part.rules.items():
            mark = {"ap": number} if len(parts) > 1 else {}
            total = whole[name]
            total.seen += rule.seen
            total.violated += rule.violated
            total.advised += rule.advised
            total.violations += [{**finding, **mark} for finding in rule.violations]
            total.advice += [{**finding, **mark} for finding in rule.advice]
    return whole
