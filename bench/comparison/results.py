"""What was measured, and what it says in relation."""
import statistics
from dataclasses import dataclass, field

RAW = ("ssh", "curl")


@dataclass
class Series:
    """One program at one row of the table: a value per run that succeeded. After a failure it is not run again; what it did
    before stands, so that who fails once is not out of the comparison."""

    values: dict = field(default_factory=dict)   # run -> seconds
    memory: int = 0                               # bytes, the most of all runs
    grown: int = 0                                # what the work added to it
    cpu: list = field(default_factory=list)       # seconds of each run
    failure: str = ""

    def median(self):
        return statistics.median(self.values.values()) if self.values else None


class Results:
    def __init__(self):
        self.series = {}    # (protocol, row, program) -> Series
        self.missing = {}   # (protocol, program) -> why
        self.left_out = {}  # protocol -> rows that nobody came to

    def of(self, protocol, row, program):
        return self.series.setdefault((protocol, row, program), Series())

    def get(self, protocol, row, program):
        return self.series.get((protocol, row, program))

    def programs(self, protocol, row=None):
        seen = []
        for place, line, program in self.series:
            if place == protocol and row in (None, line) and program not in seen:
                seen.append(program)
        return seen

    def has_failed(self, protocol, rows, program):
        return any((s := self.get(protocol, row, program)) and s.failure for row in rows)

    def median(self, protocol, row, program):
        series = self.get(protocol, row, program)
        return series.median() if series else None

    def best_peer(self, protocol, row):
        peers = [(m, p) for p in self.programs(protocol, row) if p not in RAW and p != "ombra"
                 and (m := self.median(protocol, row, p)) is not None]
        return min(peers)[1] if peers else None

    def ratio(self, protocol, row, other, program):
        """Time of the other by that of the program, run by run, so that a machine whose speed drifts does not decide;
        above 1 the program is the faster one."""
        a, b = self.get(protocol, row, other), self.get(protocol, row, program)
        return quotient(a, b) if a and b else None

    def memory(self, protocol, program, rows=None):
        found = [s.memory for (place, row, name), s in self.series.items()
                 if (place, name) == (protocol, program) and s.memory and (rows is None or row in rows)]
        return max(found) if found else None


def quotient(a, b):
    """Of two series, the median of the quotients within the runs that both have."""
    pairs = [a.values[run] / max(b.values[run], 1e-9) for run in a.values if run in b.values]
    return statistics.median(pairs) if pairs else None
