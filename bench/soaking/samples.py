"""What a process takes, over time; whether it grows."""
import os
import re
import statistics
from dataclasses import dataclass

from comparison.processes import Failure

MIB = 1 << 20


@dataclass
class Measure:
    """slack: by how much more than a tenth the last third may lie above the first, for what comes and goes."""

    title: str
    unit: int
    slack: int


MEASURES = {"memory": Measure("memory (MiB)", MIB, 4 * MIB), "descriptors": Measure("descriptors", 1, 16),
            "threads": Measure("threads", 1, 8), "cache": Measure("cache on disk (MiB)", MIB, 4 * MIB)}


def take(pid, cache_folder):
    """Memory is what is resident and its own: pages of files come and go as the system likes."""
    try:
        with open(f"/proc/{pid}/status") as f:
            status = f.read()
        descriptors = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError as error:
        raise Failure(f"the helper is gone: {error}") from error
    disk = os.statvfs(cache_folder)
    return {"memory": int(re.search(r"RssAnon:\s+(\d+)", status).group(1)) * 1024, "descriptors": descriptors,
            "threads": int(re.search(r"Threads:\s+(\d+)", status).group(1)),
            "cache": (disk.f_blocks - disk.f_bfree) * disk.f_frsize}


def thirds(values):
    size = len(values) // 3
    return values[:size], values[size:2 * size], values[-size:]


def growing(samples, patience=1):
    """The names of those whose last third lies above the first. patience: by how many times the slack; a short run has not
    seen everything once when its first third is over."""
    found = []
    for name, measure in MEASURES.items():
        first, _, last = (statistics.median(part) for part in thirds([sample[name] for sample in samples]))
        if last > first * 1.1 + measure.slack * patience:
            found.append(name)
    return found


def table(samples):
    """Markdown: the median of each third, and the most of all."""
    lines = ["| | first third | second | last | most |", "|---|---:|---:|---:|---:|"]
    for name, measure in MEASURES.items():
        values = [sample[name] for sample in samples]
        numbers = [statistics.median(part) for part in thirds(values)] + [max(values)]
        lines.append(f"| {measure.title} | " + " | ".join(f"{n / measure.unit:,.0f}" for n in numbers) + " |")
    return "\n".join(lines)
