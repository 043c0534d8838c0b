"""Times the same work through Ombra, through each peer that is installed and over the raw wire, in turn, on the same
server with the same data, and prints one table with the ratios. The servers run on loopback, on free ports, with
everything below one temporary folder. To be run as root.

Exit status: 0 when no target is missed (one that has nothing to be compared with stays open), 1 when one is missed or a
work of Ombra failed, 2 when it cannot run.
"""
import argparse
import functools
import os
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile

from comparison import content, report, targets
from comparison.ceph import CephGateway
from comparison.peers import PEERS
from comparison.processes import Failure, end_all_below
from comparison.programs import Ombra
from comparison.runner import Runner, attempt, say
from comparison.servers import Apache, S3rver, Sshd, Vsftpd
from comparison.works import WORKS, titles

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROTOCOLS = ("sftp", "webdav", "s3", "ftp")
NAMES = ("ombra", *(peer.name for peer in PEERS))
EXAMPLES = """examples:
  bench/compare --quick
  bench/compare --full --markdown docs/performance.md
  bench/compare --delay 100 --protocol sftp --only read,find --programs ombra,sshfs
"""


def names(allowed):
    def parse(text):
        chosen = text.split(",")
        for name in chosen:
            if name not in allowed:
                raise argparse.ArgumentTypeError(f"{name} is none of {', '.join(allowed)}")
        return [name for name in allowed if name in chosen]
    return parse


def parse(arguments):
    parser = argparse.ArgumentParser(prog="bench/compare", description=__doc__, epilog=EXAMPLES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("--quick", action="store_true", help="small data, and nothing begins after 5 minutes")
    add("--smoke", action="store_true", help="tiny data and one run: whether everything works, not how fast")
    add("--full", action="store_true", help="S3 on Ceph's gateway instead of s3rver")
    add("--only", metavar="WORK,...", type=names(tuple(WORKS)), help=", ".join(WORKS))
    add("--protocol", metavar="NAME,...", type=names(PROTOCOLS), help=", ".join(PROTOCOLS))
    add("--programs", metavar="NAME,...", type=names(NAMES), help=", ".join(NAMES))
    add("--no-raw", dest="raw", action="store_false", help="leave the raw wire out")
    add("--runs", type=int, metavar="N", help="how often (5; with --quick or --delay 3)")
    add("--delay", type=int, default=0, metavar="MS", help="round trip to the server, made by a proxy")
    add("--timeout", type=float, metavar="SECONDS", help="of each step (300; --quick 60; with --delay 1200)")
    add("--markdown", metavar="FILE", help="write the table into its section of FILE")
    add("--json", metavar="FILE", help="where the figures go (build/bench/compare[-DELAYms].json)")
    add("--build", metavar="FOLDER", default=f"{ROOT}/build/release", help="the build to measure (build/release)")
    add("--folder", metavar="FOLDER", help="where the data lies (in /dev/shm when that is large enough)")
    add("--caches", metavar="FOLDER", help="where the programs keep their caches, and curl what it reads: a disk, for "
                                           "example (with the data)")
    add("--install-peers", action="store_true", help="install the peers that Debian has, and end")
    return settle(parser, parser.parse_args(arguments))


def settle(parser, options):
    """Fills in what depends on other options."""
    options.works = options.only or list(WORKS)
    options.protocol = options.protocol or list(PROTOCOLS)
    options.programs = options.programs or list(NAMES)
    small = options.quick or options.smoke
    if options.runs is None:
        options.runs = 1 if options.smoke else 3 if options.quick or options.delay else 5
    options.timeout = options.timeout or (60 if small else 1200 if options.delay else 300)
    options.budget = 280 if options.quick else None
    options.sizes = content.TINY if options.smoke else content.QUICK if options.quick else content.Sizes()
    if options.delay and not small:
        # What takes a round trip or more for each file would take hours.
        options.sizes.per_folder, options.sizes.writes = 10, 1000
    if options.runs < 1 or options.delay < 0 or options.delay > 2000:
        parser.error("--runs is at least 1, --delay from 0 to 2000")
    if options.caches and not os.path.isdir(options.caches):
        parser.error(f"--caches: {options.caches} is no folder")
    if not options.json:
        suffix = f"-{options.delay}ms" if options.delay else ""
        options.json = f"{ROOT}/build/bench/compare{suffix}.json"
    options.build = os.path.abspath(options.build)
    return options


def place(options):
    """Data in memory, so that no disk decides; what is written is there three times at most."""
    needed = (6 if not options.quick and not options.smoke else 1) << 30
    base = options.folder
    if not base and os.path.isdir("/dev/shm") and shutil.disk_usage("/dev/shm").free > needed:
        base = "/dev/shm"
    return new_folder(base)


def new_folder(base):
    folder = tempfile.mkdtemp(prefix="ombra-bench-", dir=base)
    os.chmod(folder, 0o711)
    return folder


def commit():
    """What is measured, as far as the build is one of it: asked before, since somebody may go on working meanwhile."""
    head = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"], capture_output=True, text=True)
    if head.returncode:
        return "unknown"
    changed = subprocess.run(["git", "-C", ROOT, "diff", "--quiet", "HEAD", "--", ".", ":!docs"]).returncode
    return head.stdout.strip() + ("-dirty" if changed else "")


def setting(options, runner, runs, measured):
    return {"date": report.today(), "machine": report.machine(), "commit": measured, "delay": options.delay,
            "runs": "one run" if runs == 1 else f"medians of {runs} runs", "sizes": options.sizes.__dict__,
            "protocols": options.protocol, "servers": {s.protocol: s.title for s in runner.servers},
            "command": shlex.join(["bench/compare", *sys.argv[1:]]),
            "options": {peer.name: peer.options_said for peer in PEERS if peer.name in options.programs}}


def ignore_signals():
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)


def measure(options, folder, caches):
    kinds = {"sftp": Sshd, "webdav": Apache, "s3": CephGateway if options.full else S3rver, "ftp": Vsftpd}
    makers = [functools.partial(Ombra, caches, options.timeout, options.build)] if "ombra" in options.programs else []
    makers += [functools.partial(peer, caches, options.timeout) for peer in PEERS if peer.name in options.programs]
    runner, measured = Runner(options, folder, caches), commit()
    try:
        runner.start([kinds[name] for name in options.protocol], makers)
        runs = runner.run()
    finally:
        ignore_signals()  # what is mounted would stay
        say("cleaning up")
        runner.close()
    # Of tiny data no figure means anything.
    lines = [] if options.smoke else targets.check(runner.results, options.protocol, options.sizes, options.delay,
                                                   options.quick)
    table = report.Report(runner.results, setting(options, runner, runs, measured), titles(options.sizes), lines)
    print(table.text())
    for name in options.programs:
        said = {peer.name: peer.options_said for peer in PEERS}.get(name)
        if said:
            print(f"{name}: {said}")
    table.save_json(options.json)
    say(f"figures: {options.json}")
    if options.markdown:
        table.save_markdown(options.markdown)
    failed = any(s.failure for (_, _, program), s in runner.results.series.items() if program == "ombra") or any(
        name in ("the server", "ombra") for _, name in runner.results.missing)
    return 1 if failed or any(line[4] is False for line in lines) else 0


def main(arguments):
    options = parse(arguments)
    if options.install_peers:
        return subprocess.run([f"{ROOT}/scripts/dependencies", "bench"]).returncode
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(130))
    # All servers are on this machine: nobody goes to them by way of another one.
    for name in [name for name in os.environ if name.lower().endswith("_proxy")]:
        del os.environ[name]
    folders = []
    try:
        folders.append(place(options))
        if options.caches:
            folders.append(new_folder(options.caches))
        return measure(options, folders[0], folders[-1])
    except (Failure, OSError) as failure:
        say(f"bench/compare: {failure}")
        return 2
    except KeyboardInterrupt:
        return 130
    finally:
        for folder in folders:
            attempt(lambda below=folder: end_all_below(below))
            shutil.rmtree(folder, ignore_errors=True)
