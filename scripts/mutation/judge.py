"""Judges faults one after the other: by the unit tests of their room, then by system tests."""
import concurrent.futures

from .programs import Runner, SystemTests, UnitTests
from .tree import PER_FILE, programs_of

KILLED, SURVIVED, NOT_REACHED = "killed", "survived", "not reached"


class Judge:
    def __init__(self, tree, jobs, say, with_system=True):
        self.tree = tree
        self.jobs = jobs
        self.say = say
        self.with_system = with_system
        self.runner = Runner()
        self.size = (max(fault.number for fault in tree.faults) // PER_FILE + 1) * PER_FILE
        self.units = {}
        self.system = None

    def prepare(self, faults):
        """Learns what every test reaches that may be needed."""
        rooms = sorted({room for fault in faults for room in self.tree.rooms[fault.file]})
        for room in rooms:
            self.units[room] = [UnitTests(name, self.runner, self.size, self.jobs)
                                for name in programs_of(room)]
            for tests in self.units[room]:
                self.report(tests)
        if self.with_system:
            # One after the other: they measure time, and this one stands for all later runs.
            self.system = SystemTests(self.runner, self.size, 1)
            self.report(self.system)

    def report(self, tests):
        seconds = sum(test.seconds for test in tests.tests.values())
        self.say(f"{tests.name}: {len(tests.tests)} tests, {seconds:.0f} s")
        for name in tests.unfit:
            self.say(f"{tests.name}: {name} fails alone without a fault; not used")

    def judge(self, fault):
        """The record of one fault: its fields, what the unit tests said and what all said."""
        record = {"file": fault.file, "line": fault.line, "room": fault.room, "kind": fault.kind,
                  "function": fault.function, "before": fault.before, "after": fault.after,
                  "log": fault.log, "number": fault.number, "by": None}
        reached = False
        for tests in (one for room in self.tree.rooms[fault.file] for one in self.units[room]):
            reached = reached or bool(tests.reaching(fault.number))
            record["by"] = tests.notices(fault.number)
            if record["by"]:
                record["unit"] = record["verdict"] = KILLED
                return record
        record["unit"] = SURVIVED if reached else NOT_REACHED
        record["verdict"] = record["unit"]
        if self.system and self.system.reaching(fault.number):
            record["by"] = self.system.notices(fault.number)
            record["verdict"] = KILLED if record["by"] else SURVIVED
        return record

    def run(self, faults):
        """The records, as they come."""
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            waiting = [pool.submit(self.judge, fault) for fault in faults]
            for done in concurrent.futures.as_completed(waiting):
                yield done.result()
