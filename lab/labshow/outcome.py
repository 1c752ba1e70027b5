"""What became of a command."""
import dataclasses
import time

DONE, REFUSED, UNKNOWN, FAILED, INTERRUPTED = "done", "refused", "unknown", "failed", "interrupted"


@dataclasses.dataclass(frozen=True)
class Outcome:
    """`command`: the line as it was typed, None for the whole session. `kind`: done, refused (it
    was not begun), unknown, failed (something did not come) or interrupted. `reason`: why it is
    not done. `result`: what a command found out, as JSON has it."""
    command: str
    kind: str = DONE
    reason: str = None
    result: object = None

    @property
    def is_done(self):
        return self.kind == DONE

    def as_json(self):
        """One line of --json, beside the events."""
        given = {"reason": self.reason, "result": self.result}
        return {"t": time.time(), "command": self.command, "outcome": self.kind,
                **{name: value for name, value in given.items() if value is not None}}

    def text(self):
        """What a person is told; nothing when it is done, because the output has told."""
        if self.is_done:
            return None
        if self.command is None:
            return self.reason
        name = self.command.split()[0]
        return f"{name} failed: {self.reason}" if self.kind == FAILED else f"{name}: {self.reason}"
