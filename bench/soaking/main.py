"""Mounts a folder of an SSH server of its own, lets programs read, write, list, move and remove in it for as long as is
said, compares every byte, and watches the helper's memory, descriptors, threads and cache. The tree is larger than the
cache may be, so that the cache is turned over all the time. To be run as root.

Exit status: 0 when all bytes were right and nothing grew from the first third of the time to the last, 1 when not, 2 when
it cannot run.
"""
import argparse
import concurrent.futures
import json
import os
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from comparison.main import ROOT, commit, ignore_signals
from comparison.processes import Failure, detach, end_all_below, kill_group, last_line, run, start
from comparison.programs import Ombra
from comparison.report import machine, today
from comparison.runner import attempt, say
from comparison.servers import Sshd
from soaking import samples, tree

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FEWEST_SAMPLES = 9
BEGIN, END = "<!-- results: soak -->", "<!-- end of results -->"


def parse(arguments):
    parser = argparse.ArgumentParser(prog="bench/soak", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("--minutes", type=float, default=20, metavar="N", help="how long (20)")
    add("--smoke", action="store_true", help="a small tree and half a minute: whether everything works")
    add("--workers", type=int, default=3, metavar="N", help="programs at a time (3)")
    add("--every", type=float, default=5, metavar="SECONDS", help="between two looks at the helper (5; --smoke 1)")
    add("--build", metavar="FOLDER", default=f"{ROOT}/build/release", help="the build to try (build/release)")
    add("--markdown", metavar="FILE", help="write the table into its section of FILE")
    add("--json", metavar="FILE", help="where all figures go (build/bench/soak.json)")
    options = parser.parse_args(arguments)
    if options.smoke:
        options.minutes, options.every = 0.5, 1
    options.shape = tree.SMALL if options.smoke else tree.WHOLE
    if options.minutes * 60 / options.every < FEWEST_SAMPLES or options.workers < 1:
        parser.error(f"--minutes and --every have to give at least {FEWEST_SAMPLES} looks; --workers is at least 1")
    options.json = options.json or f"{ROOT}/build/bench/soak.json"
    return options


class Volume:
    """A mounted folder, whose cache lies on a small disk of its own."""

    def __init__(self, folder, options):
        self.server_folder, self.options = f"{folder}/data", options
        os.makedirs(self.server_folder)
        tree.make(self.server_folder, options.shape)
        self.server = Sshd(folder, self.server_folder)
        self.program = Ombra(folder, 60, os.path.abspath(options.build))
        self.cache = self.program.environment["OMBRAFS_TMPDIR"]

    def start(self):
        missing = self.program.missing()
        if missing:
            raise Failure(missing)
        run(["mount", "-t", "tmpfs", "-o", f"size={self.options.shape.disk},mode=0700", "ombra-soak", self.cache])
        self.server.start()
        self.program.command = self.limited(self.program.command)
        self.path = self.program.mount(self.server, self.server.address)

    def limited(self, command):
        """The command with fewer descriptors, which the helper inherits."""
        path = f"{self.program.folder}/ombra"
        with open(path, "w") as f:
            f.write(f'#!/bin/sh\nulimit -n {self.options.shape.descriptors} && exec {shlex.quote(command)} "$@"\n')
        os.chmod(path, 0o755)
        return path

    def read_once(self):
        """So that the cache and the tree are full from the start."""
        paths = [os.path.join(folder, name) for folder, _, names in os.walk(f"{self.path}/shared") for name in names]
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            for _ in pool.map(read_to_end, paths):
                pass

    def close(self):
        attempt(self.program.close)
        attempt(self.server.stop)
        attempt(lambda: detach(self.cache))


def read_to_end(path):
    with open(path, "rb", buffering=0) as f:
        while f.read(tree.MIB):
            pass


def start_workers(volume, folder, seconds):
    shape = json.dumps(volume.options.shape.__dict__)
    workers = []
    for number in range(volume.options.workers):
        log = f"{folder}/worker{number}.log"
        workers.append((start([sys.executable, "-B", "-m", "soaking.worker", str(number), volume.path,
                               volume.server_folder, shape, str(seconds)], log, cwd=HERE), log))
    return workers


def watch(volume, workers, seconds, taken):
    """Looks at the helper while the workers work, and adds what it sees to `taken`; theirs is the end."""
    options = volume.options
    pid, began, told = volume.program.pid(), time.monotonic(), 0
    while any(process.poll() is None for process, _ in workers):
        time.sleep(options.every)
        if any([process.poll() for process, _ in workers]):  # of all, also of those behind one that still works
            break
        # What warming up takes longer than the first is no part of the time.
        if time.monotonic() - began > seconds + 300:
            raise Failure("a worker does not end")
        taken.append(samples.take(pid, volume.cache))
        if time.monotonic() - told > 60:
            told = time.monotonic()
            now = taken[-1]
            say(f"{(told - began) / 60:5.1f} min  memory {now['memory'] // tree.MIB} MiB, {now['descriptors']} descriptors, "
                f"{now['threads']} threads, cache {now['cache'] // tree.MIB} MiB")


def results(workers):
    """What was done, added up; and what went wrong."""
    done, wrong = {}, []
    for process, log in workers:
        if process.poll() is None:
            kill_group(process)
            continue
        if process.returncode != 0:
            wrong.append(last_line(log))
            continue
        with open(log) as f:
            for kind, count in json.loads(f.read().splitlines()[-1]).items():
                done[kind] = done.get(kind, 0) + count
    return done, wrong


def described(options, done, taken, built):
    shape, counts = options.shape, ", ".join(f"{count:,} × {kind}" for kind, count in sorted(done.items()))
    return (f"{today()}, {machine()}, commit {built}: {len(taken) * options.every / 60:.0f} minutes, "
            f"{options.workers} programs, a tree of {shape.small:,} × 4 KiB and {shape.large} × "
            f"{shape.large_size // tree.MIB} MiB, the cache on a disk of {shape.disk // tree.MIB} MiB. {counts}.")


def save(path, text):
    with open(path) as f:
        whole = f.read()
    before, begin, rest = whole.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise Failure(f"{path} has no place for the table ({BEGIN})")
    with open(path, "w") as f:
        f.write(f"{before}{BEGIN}\n{text}\n{END}{after}")


def soak(options, folder):
    seconds = options.minutes * 60
    workers, volume, built, taken = [], Volume(folder, options), commit(), []
    try:
        volume.start()
        try:
            say("reading the tree once")
            volume.read_once()
            say(f"working for {options.minutes:g} minutes")
            workers = start_workers(volume, folder, seconds)
            watch(volume, workers, seconds, taken)
            done, wrong = results(workers)
            if not wrong:
                volume.program.unmount()
        except (Failure, OSError) as failure:  # of what is tried, now that all else is there
            wrong = [str(failure)]
    finally:
        ignore_signals()  # what is mounted would stay
        for process, _ in workers:
            if process.poll() is None:
                kill_group(process)
        volume.close()
    for line in wrong:
        print(line)
    if wrong or len(taken) < FEWEST_SAMPLES:
        return 1
    text = f"{described(options, done, taken, built)}\n\n{samples.table(taken)}"
    print(text)
    os.makedirs(os.path.dirname(os.path.abspath(options.json)), exist_ok=True)
    with open(options.json, "w") as f:
        json.dump({"done": done, "every": options.every, "samples": taken}, f)
    if options.markdown:
        save(options.markdown, text)
    grown = samples.growing(taken, 4 if options.smoke else 1)
    for name in grown:
        print(f"GROWS: {name}")
    return 1 if grown else 0


def main(arguments):
    options = parse(arguments)
    if os.geteuid() != 0:
        say("bench/soak: has to be run as root, to mount the small disk that the cache lies on")
        return 2
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(130))
    base = "/dev/shm" if os.path.isdir("/dev/shm") else None
    folder = tempfile.mkdtemp(prefix="ombra-soak-", dir=base)
    os.chmod(folder, 0o711)
    try:
        return soak(options, folder)
    except (Failure, subprocess.SubprocessError, OSError) as failure:
        say(f"bench/soak: {failure}")
        return 2
    except KeyboardInterrupt:
        return 130
    finally:
        attempt(lambda: end_all_below(folder))
        shutil.rmtree(folder, ignore_errors=True)
