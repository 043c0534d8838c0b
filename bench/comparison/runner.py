"""Goes through protocols, works, runs and programs; the programs take turns within one run."""
import os
import sys
import time
from dataclasses import dataclass

from comparison import content
from comparison.memory import warm
from comparison.processes import Failure, run, start, stop, wait_for_port
from comparison.raw import Raw
from comparison.results import Results
from comparison.works import WORKS


@dataclass
class Site:
    """What a work needs to know."""

    server: object
    host: str
    data: str        # a local twin of what is served
    folder: str      # for temporary files, beside the programs' caches
    sizes: content.Sizes
    timeout: float
    mount_began: float = 0

    @property
    def store(self):
        return self.server.store


def say(text):
    print(text, file=sys.stderr, flush=True)


class Proxy:
    """The way to the servers when it is to take long: the same ports at another address of loopback."""

    address = "127.0.0.2"

    def __init__(self, build, folder, delay, servers):
        program = f"{build}/bin/delay_proxy"
        if not os.access(program, os.X_OK):
            raise Failure(f"{program} is not built (cmake --build --preset release --target delay_proxy)")
        ports = [str(server.port) for server in servers] + [s.data_ports for s in servers if s.data_ports]
        log = f"{folder}/proxy.log"
        self.process = start([program, "--delay", str(delay), "--listen", self.address, "--connect", "127.0.0.1",
                              *ports], log)
        wait_for_port(servers[0].port, self.process, log, self.address)

    def stop(self):
        stop(self.process)


class Runner:
    def __init__(self, options, folder, caches):
        self.options, self.folder, self.caches = options, folder, caches
        self.results = Results()
        self.servers, self.programs, self.proxy = [], [], None
        self.began = time.monotonic()

    def start(self, server_kinds, program_makers):
        data = f"{self.folder}/data"
        say(f"making data in {data}")
        os.makedirs(data)
        content.make(data, self.options.sizes)
        open_to_servers(data)
        for kind in server_kinds:
            try:
                server = kind(self.folder, data)
                self.servers.append(server)
                if kind.protocol == "ftp" and self.options.delay:
                    server.start(Proxy.address)
                else:
                    server.start()
                say(f"{kind.title} serves; filling it")
                server.store.fill(data, self.options.sizes)
            except Failure as failure:
                self.results.missing[(kind.protocol, "the server")] = str(failure)
                say(f"{kind.protocol}: {failure}")
                server.stop()
                self.servers.remove(server)
        if self.options.delay and self.servers:
            self.proxy = Proxy(self.options.build, self.folder, self.options.delay, self.servers)
        self.programs = [make() for make in program_makers]

    def site(self, server):
        host = Proxy.address if self.proxy else server.address
        return Site(server, host, f"{self.folder}/data", self.caches, self.options.sizes, self.options.timeout)

    def run(self):
        for number in range(self.options.runs):
            for server in self.servers:
                site = self.site(server)
                for work in (WORKS[name] for name in self.options.works):
                    if self.is_over(number):
                        say("the time is up" + ("" if number else f": {server.protocol} from {work.name} on is left out"))
                        if number == 0:
                            self.leave_out(server, work.name)
                        return max(number, 1)
                    self.turn(number, site, work)
        return self.options.runs

    def leave_out(self, server, first):
        """Of that server the works from the first one on, and of those behind it all."""
        names = self.options.works
        for one in self.servers[self.servers.index(server):]:
            rest = names[names.index(first):] if one is server else names
            self.results.left_out[one.protocol] = [row for name in rest for row in WORKS[name].rows]

    def is_over(self, number):
        """With a budget, what repeats ends earlier than what was not done yet."""
        if self.options.budget is None:
            return False
        return time.monotonic() - self.began > self.options.budget * (0.75 if number else 1)

    def turn(self, number, site, work):
        protocol = site.server.protocol
        here = [p for p in self.programs if protocol in p.protocols]
        shift = number % max(len(here), 1)  # nobody is always the first
        for program in here[shift:] + here[:shift]:
            missing = program.missing()
            if missing:
                self.results.missing[(protocol, program.name)] = missing
            elif not self.results.has_failed(protocol, work.rows, program.name):
                self.one(number, site, work, program)
        raw = Raw(site)
        step = raw.works().get(work.name)
        if step and self.options.raw and not self.results.has_failed(protocol, work.rows[:1], raw.name):
            self.one_raw(number, site, work, raw, step)

    def one(self, number, site, work, program):
        protocol = site.server.protocol
        self.announce(number, protocol, work, program)
        if not self.is_ready(site, work):
            return
        series = {row: self.results.of(protocol, row, program.name) for row in work.rows}
        try:
            values, memory, grown, cpu = self.timed(site, work, program)
            for row, one in series.items():
                one.values[number] = values[row]
                one.cpu.append(cpu)
                if memory > one.memory:
                    one.memory, one.grown = memory, grown
            say("      " + "  ".join(f"{row} {values[row]:.3f} s" for row in work.rows))
            program.unmount()
        except (Failure, OSError, ValueError, LookupError) as failure:
            text = (str(failure) or type(failure).__name__) + program.last_words()
            program.kill()
            for row in series.values():
                row.failure = text
            say(f"      FAILED: {text}")

    def is_ready(self, site, work):
        """False when it is the server that fails, which no program is to be blamed for."""
        try:
            site.server.check_alive()
            work.prepare(site)
            return True
        except (Failure, OSError) as failure:
            self.results.missing[(site.server.protocol, "the server")] = str(failure)
            say(f"      {failure}")
            return False

    @staticmethod
    def timed(site, work, program):
        """Seconds by row, peak memory and what the work added to it in bytes, seconds of processor time."""
        program.prepare(site.server, site.host)
        site.mount_began = time.monotonic()
        path = program.mount(site.server, site.host)
        before = 0
        if work.name != "mount":  # that one goes on
            run(["stat", path], site.timeout)  # some are mounted before they have logged in
            before, _ = program.usage()
            warm(work.memory(site.sizes))
        values = work.act(site, path)
        memory, cpu = program.usage()
        return values, memory, memory - before, cpu

    def one_raw(self, number, site, work, raw, step):
        self.announce(number, site.server.protocol, work, raw)
        series = self.results.of(site.server.protocol, work.rows[0], raw.name)
        try:
            if work.name == "write":
                work.prepare(site)
            with raw.logged_in():
                warm(work.memory(site.sizes))
                series.values[number] = step()[work.rows[0]]
            say(f"      {series.values[number]:.3f} s")
        except (Failure, OSError, ValueError) as failure:
            series.failure = str(failure)
            say(f"      FAILED: {failure}")

    def announce(self, number, protocol, work, program):
        say(f"run {number + 1}/{self.options.runs}  {protocol:<7}{work.name:<11}{program.name}")

    def close(self):
        for program in self.programs:
            attempt(program.close)
        if self.proxy:
            attempt(self.proxy.stop)
        for server in self.servers:
            attempt(server.stop)


def attempt(step):
    """One thing that cannot be cleaned up does not leave the others behind."""
    try:
        step()
    except Exception as problem:
        say(f"while cleaning up: {problem}")


def open_to_servers(data):
    """Servers work under another account than programs that come by SSH: all may change everything."""
    for folder, _, files in os.walk(data):
        # Not the topmost one: vsftpd refuses to be locked up in a folder that it may write to.
        os.chmod(folder, 0o755 if folder == data else 0o777)
        for name in files:
            os.chmod(os.path.join(folder, name), 0o666)
