"""What is known of one fault."""
import dataclasses


@dataclasses.dataclass
class Fault:
    """`before` becomes `after` in the bytes [begin, end) of a file. The switched copy holds
    [whole_begin, whole_end) twice, as it is and as `code`; a named constant has several `uses`."""
    file: str
    line: int
    function: str
    kind: str
    begin: int
    end: int
    before: str
    after: str
    form: str = "expression"
    code: str = ""
    uses: list = dataclasses.field(default_factory=list)
    log: bool = False
    early: bool = False  # in what the compiler would otherwise compute beforehand
    room: str = ""
    number: int = 0

    @property
    def switch(self):
        """What tells, in the switched copy, whether the fault is on."""
        return f"lumd_mutant{'_asked' if self.early else ''}({self.number})"

    @property
    def ranges(self):
        return self.uses or [[self.begin, self.end]]

    @property
    def key(self):
        """Names the fault for as long as its function and its text stay."""
        return f"{self.file}: {self.function}: {self.before} -> {self.after}"

    @property
    def title(self):
        return f"{self.file}:{self.line}: {self.kind}: {self.before} -> {self.after}"
