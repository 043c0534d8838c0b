"""The table, as text for the terminal, as markdown for the document, as JSON for programs."""
import json
import os
import platform
import re
import statistics
import time

from comparison.content import MIB
from comparison.results import RAW

HEAD = ("work", "program", "median s", "min", "max", "× best peer", "× raw", "memory MiB", "CPU s")


def seconds(value):
    return "" if value is None else f"{value:.4f}" if value < 0.1 else f"{value:.3f}" if value < 10 else f"{value:.1f}"


def times(value):
    return "" if value is None else f"{value:.2f}"


class Report:
    def __init__(self, results, setting, titles, targets):
        self.results, self.setting, self.titles, self.targets = results, setting, titles, targets

    def server(self, protocol):
        why = self.results.missing.get((protocol, "the server"))
        return f"missing: {why}" if why else self.setting["servers"].get(protocol, "")

    def rows(self, protocol):
        for row in self.titles:
            for program in self.results.programs(protocol, row):
                yield row, program, self.cells(protocol, row, program)
            for (place, program), why in self.results.missing.items():
                if place == protocol and program != "the server" and self.results.programs(protocol, row):
                    yield row, program, [f"missing: {why}"]
            if row in self.results.left_out.get(protocol, ()):
                yield row, "", ["left out: the time was up"]

    def cells(self, protocol, row, program):
        results = self.results
        series = results.get(protocol, row, program)
        if series.failure:
            before = f"{seconds(series.median())} s, then " if series.values else ""
            return [f"{before}failed: {series.failure}"]
        best, raw = results.best_peer(protocol, row), "ssh" if protocol == "sftp" else "curl"
        has_raw = results.median(protocol, row, raw) is not None
        cpu = statistics.median(series.cpu) if series.cpu else None
        return [seconds(series.median()), seconds(min(series.values.values())), seconds(max(series.values.values())),
                times(results.ratio(protocol, row, best, program)) if best else "",
                times(results.ratio(protocol, row, raw, program)) if has_raw else "",
                f"{series.memory / MIB:.0f}" if series.memory else "", f"{cpu:.2f}" if cpu is not None else ""]

    def text(self):
        lines = []
        for protocol in self.setting["protocols"]:
            lines += ["", f"{protocol} ({self.server(protocol)})",
                      self.line(("", *HEAD[1:]), HEAD[0])]
            last = None
            for row, program, cells in self.rows(protocol):
                lines.append(self.line(("", program + (" (raw)" if program in RAW else ""), *cells),
                                       self.titles[row] if row != last else ""))
                last = row
        return "\n".join(lines + ["", *self.target_text()])

    @staticmethod
    def line(cells, title):
        if len(cells) == 3:
            return f"{title:<44}{cells[1]:<13}{cells[2]}"
        return f"{title:<44}{cells[1]:<13}" + "".join(f"{cell:>12}" for cell in cells[2:])

    def target_text(self):
        if not self.targets:
            return []
        word = {True: "met", False: "MISSED", None: "open"}
        lines = ["targets"]
        for protocol, label, reached, wanted, met, amount in self.targets:
            lines.append(f"  {protocol:<7} {label:<48} {reached or '':>12}  {wanted:<12} {word[met]:<7} {amount}")
        return lines

    def markdown(self):
        setting = self.setting
        lines = [f"Measured {setting['date']} on {setting['machine']}; {setting['runs']}; "
                 f"{'loopback' if not setting['delay'] else str(setting['delay']) + ' ms round trip'}; "
                 f"`{setting['command']}`; commit {setting['commit']}.", ""]
        for protocol in setting["protocols"]:
            lines += [f"### {protocol}: {self.server(protocol)}", "", self.row(HEAD), self.row(
                ["---", "---"] + ["---:"] * (len(HEAD) - 2))]
            last = None
            for row, program, cells in self.rows(protocol):
                title = self.titles[row] if row != last else ""
                cells = cells + [""] * (len(HEAD) - 2 - len(cells))
                lines.append(self.row([title, f"**{program}**" if program == "ombra" else program, *cells]))
                last = row
            lines.append("")
        if self.targets:
            lines += ["### Targets", "", self.row(("protocol", "what", "reached", "wanted", "", "by")),
                      self.row(["---"] * 6)]
            word = {True: "met", False: "**missed**", None: "open"}
            for protocol, label, reached, wanted, met, amount in self.targets:
                lines.append(self.row((protocol, label, reached or "", wanted, word[met], amount)))
            lines.append("")
        return "\n".join(lines)

    @staticmethod
    def row(cells):
        return "| " + " | ".join(str(cell).replace("|", "\\|") for cell in cells) + " |"

    def save_markdown(self, path):
        """Into the marked section of a document that has one, else as a file of its own."""
        name = f"{self.setting['delay']} ms" if self.setting["delay"] else "loopback"
        begin, end = f"<!-- results: {name} -->", "<!-- end of results -->"
        text = f"{begin}\n{self.markdown()}\n{end}"
        if os.path.exists(path):
            with open(path) as f:
                document = f.read()
            section = re.compile(re.escape(begin) + ".*?" + re.escape(end), re.S)
            text = section.sub(lambda _: text, document) if section.search(document) else f"{document}\n{text}\n"
        with open(path, "w") as f:
            f.write(text if text.endswith("\n") else text + "\n")

    def save_json(self, path):
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        series = [{"protocol": protocol, "work": row, "program": program, "seconds": list(s.values.values()),
                   "runs": list(s.values), "median": s.median(), "peakMemory": s.memory, "cpuSeconds": s.cpu,
                   "failure": s.failure or None}
                  for (protocol, row, program), s in self.results.series.items()]
        names = ("protocol", "what", "reached", "wanted", "met", "by")
        with open(path, "w") as f:
            json.dump({"setting": self.setting, "results": series,
                       "missing": [{"protocol": p, "program": n, "why": why}
                                   for (p, n), why in self.results.missing.items()],
                       "leftOut": self.results.left_out,
                       "targets": [dict(zip(names, line)) for line in self.targets]}, f, indent=1)


def machine():
    with open("/proc/cpuinfo") as f:
        model = re.search(r"model name\s*: (.*)", f.read())
    with open("/proc/meminfo") as f:
        memory = int(re.search(r"MemTotal:\s+(\d+)", f.read()).group(1)) / MIB
    return f"{os.cpu_count()} × {model.group(1) if model else platform.machine()}, {memory:.0f} GiB, Linux {platform.release()}"


def today():
    return time.strftime("%Y-%m-%d")
