"""What is asked of Ombra. A ratio is the other's time by Ombra's in the same run: above 1 Ombra is the faster one."""
from dataclasses import dataclass

from comparison.content import MIB
from comparison.results import quotient

BEST, RAW = "best peer", "raw wire"


@dataclass
class Target:
    protocol: str
    row: str
    other: str          # a program, BEST or RAW
    at_least: float


def ratios(delay):
    if delay >= 50:
        return [Target(protocol, row, BEST, 1.5) for protocol in ("sftp", "webdav", "s3", "ftp")
                for row in ("read", "tree-read", "find-cold", "find-warm")]
    if delay:
        return []
    targets = [Target("sftp", "read", "sshfs", 2), Target("sftp", "read", RAW, 0.7),
               Target("sftp", "write", "sshfs", 1.5), Target("sftp", "write", RAW, 0.7),
               Target("sftp", "tree-write", BEST, 1.3), Target("sftp", "tree-remove", "sshfs", 1),
               Target("sftp", "random", "sshfs", 0.8),
               Target("s3", "read", "s3fs", 1.3)]
    for protocol in ("webdav", "s3", "ftp"):
        targets += [Target(protocol, "read", BEST, 2), Target(protocol, "read", RAW, 0.7),
                    Target(protocol, "write", BEST, 1.5), Target(protocol, "write", RAW, 0.7),
                    Target(protocol, "tree-write", BEST, 1.5)]
    for protocol in ("sftp", "webdav", "s3", "ftp"):
        targets += [Target(protocol, "tree-read", BEST, 2), Target(protocol, "find-cold", BEST, 2),
                    Target(protocol, "find-warm", BEST, 3), Target(protocol, "mount", BEST, 1)]
    return targets


def check(results, protocols, sizes, delay, small=False):
    """Lines (protocol, what, reached, wanted, met or not, by how much), those of works that were not done left out."""
    lines = []
    for target in ratios(delay):
        if target.protocol in protocols:
            lines += ratio_line(results, target)
    for protocol in protocols:
        lines += absolute_lines(results, protocol, sizes, delay, small)
    return lines


def ratio_line(results, target):
    protocol, row = target.protocol, target.row
    series = results.get(protocol, row, "ombra")
    if series is None:
        return []
    other = target.other
    if other == BEST:
        other = results.best_peer(protocol, row)
        label = f"{row}: best peer ({other or 'none ran'})"
    elif other == RAW:
        other = "ssh" if protocol == "sftp" else "curl"
        label = f"{row}: raw {other}"
    else:
        label = f"{row}: {other}"
    if series.failure:
        return [(protocol, label, None, f"≥ {target.at_least:g} ×", False, "failed")]
    reached = results.ratio(protocol, row, other, "ombra") if other else None
    if reached is None:
        return [(protocol, label, None, f"≥ {target.at_least:g} ×", None, "nothing to compare with")]
    return [(protocol, label, f"{figure(reached, target.at_least)} ×", f"≥ {target.at_least:g} ×",
             reached >= target.at_least, amount(reached, target.at_least))]


def figure(value, limit):
    """Two digits behind the point, more where it looks like the limit with two and is not."""
    digits = 2
    while value != limit and float(f"{value:.{digits}f}") == float(f"{limit:.{digits}f}"):
        digits += 1
    return f"{value:.{digits}f}"


def amount(value, limit):
    percent = (value / limit - 1) * 100
    return f"{percent:+.2g} %" if abs(percent) < 1 else f"{percent:+.0f} %"


def absolute_lines(results, protocol, sizes, delay, small):
    lines = []

    def at_most(label, value, limit, unit):
        if value is not None:
            lines.append((protocol, label, f"{figure(value, limit)} {unit}", f"≤ {limit:g} {unit}", value <= limit,
                          amount(value, limit)))

    again, cold, warm = (results.get(protocol, row, "ombra") for row in ("reread", "find-cold", "find-warm"))
    if again and again.failure:
        lines.append((protocol, "reread: rate", None, "≥ 1 GB/s", False, "failed"))
    elif again:
        rate = sizes.big * MIB / again.median() / 1e9
        lines.append((protocol, "reread: rate", f"{figure(rate, 1)} GB/s", "≥ 1 GB/s", rate >= 1, amount(rate, 1)))
    if cold and cold.failure:
        lines.append((protocol, "find: warm by cold", None, "≤ 0.2 ×", False, "failed"))
    elif cold:
        at_most("find: warm by cold", quotient(warm, cold), 0.2, "×")
    if protocol == "sftp":
        for row in ("read", "write"):
            memory = results.memory(protocol, "ombra", [row])
            at_most(f"{row}: peak memory", memory and memory / MIB, 64, "MiB")
        entries = sizes.entry_folders * (sizes.per_entry_folder + 1)
        series = results.get(protocol, "find-cold", "ombra")
        if series and not small and series.grown and not series.failure:
            at_most("find: memory per entry", series.grown / 1024 / entries, 1, "KiB")
    own = results.memory(protocol, "ombra")
    others = [m for program in results.programs(protocol) if program not in ("ombra", "sshfs", "ssh", "curl")
              and (m := results.memory(protocol, program))]
    if own and others:
        at_most("peak memory, against the best peer but sshfs", own / MIB, round(min(others) / MIB, 1), "MiB")
    return lines
