"""The works: what is put in place before, what the worker does on the volume, and what must be true at the server
afterwards. Writing counts until the server has it, as seen from the server's side."""
import json
import os
import sys
import time

from comparison import content
from comparison.content import MIB
from comparison.processes import Failure, run

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Work:
    """rows: the lines of the table that it fills."""

    def __init__(self, name, rows, step=None):
        self.name, self.rows, self.step = name, rows, step or name

    def memory(self, sizes):
        """MiB that caches, the kernel's pages and the server take meanwhile, about."""
        return 3 * sizes.big if {"read", "first", "tail", "write"} & set(self.rows) else 3 * sizes.shared * sizes.shared_size

    def prepare(self, site):
        pass

    def act(self, site, path):
        return on_volume(site, self.step, path)


def on_volume(site, step, path, *arguments):
    text = run([sys.executable, "-B", "-m", "comparison.worker", step, path, json.dumps(site.sizes.__dict__),
                *arguments], site.timeout, cwd=HERE, env=dict(os.environ, LC_ALL="C"))
    return json.loads(text)


def wait_until_stored(site, times, is_there, is_same, what):
    """The time until the server has it all. Sizes alone are watched first; if the bytes are not the right ones then, the time
    counts until they are. Who stores later is not to share the processor with who looks: that rests longer than it looks."""
    deadline = time.monotonic() + site.timeout
    stored, looked = times["end"] if is_there() else None, 0
    while stored is None:
        if time.monotonic() > deadline:
            raise Failure(f"{what} is not on the server after {site.timeout:.0f} s")
        time.sleep(max(site.store.poll_seconds, 4 * looked))
        asked = time.monotonic()
        if is_there():
            stored = asked
        looked = time.monotonic() - asked
    while not is_same():
        if time.monotonic() > deadline:
            raise Failure(f"{what} has other bytes on the server")
        time.sleep(site.store.poll_seconds)
        stored = time.monotonic()  # when the comparison that succeeds began
    return stored - times["start"]


class Write(Work):
    def __init__(self):
        super().__init__("write", ["write"])

    def prepare(self, site):
        site.store.clear("scratch")

    def act(self, site, path):
        source = f"{site.data}/big"
        times = on_volume(site, "copy", path, source, "scratch/big")
        size = os.path.getsize(source)
        return {"write": wait_until_stored(site, times, lambda: site.store.size("scratch/big") == size,
                                           lambda: site.store.equals("scratch/big", source), "the file")}


class TreeWrite(Work):
    def __init__(self):
        super().__init__("tree-write", ["tree-write", "tree-remove"])

    def prepare(self, site):
        site.store.clear("scratch")

    def act(self, site, path):
        source, target = f"{site.data}/small", "scratch/tree"
        expected = {name: content.SMALL for name, _ in content.small_paths(site.sizes)}
        # The file that is copied last is looked for alone: to look at all takes as long as to store some.
        last = f"{target}/{max(expected)}"
        times = on_volume(site, "copy", path, source, target)
        written = wait_until_stored(site, times, lambda: site.store.size(last) == content.SMALL
                                    and site.store.tree(target) == expected,
                                    lambda: self.is_same(site, source, target), "the tree")
        # Some are not done with a file when it has its size, and refuse to remove it until then.
        time.sleep(1)
        times = on_volume(site, "remove", path, target)
        removed = wait_until_stored(site, times, lambda: site.store.is_gone(target), lambda: True, "the removal")
        return {"tree-write": written, "tree-remove": removed}

    @staticmethod
    def is_same(site, source, target):
        return all(site.store.equals(f"{target}/{name}", f"{source}/{name}")
                   for name, _ in content.small_paths(site.sizes))


class RandomWrites(Work):
    def __init__(self):
        super().__init__("random", ["random"])

    def prepare(self, site):
        site.store.clear("scratch")
        before, after = f"{site.folder}/database", f"{site.folder}/database.expected"
        if not os.path.exists(after):
            content.make_database(before, site.sizes)
            content.make_database(after, site.sizes, changed=True)
        site.store.put("scratch/database", before)

    def act(self, site, path):
        times = on_volume(site, "random", path, "scratch/database")
        after = f"{site.folder}/database.expected"
        size = site.sizes.database * MIB
        return {"random": wait_until_stored(site, times, lambda: site.store.size("scratch/database") == size,
                                            lambda: site.store.equals("scratch/database", after), "the file")}


class Mount(Work):
    """Timed by whoever mounts; the listing must be the whole one."""

    def __init__(self):
        super().__init__("mount", ["mount"])

    def act(self, site, path):
        names = set(run(["ls", path], site.timeout).split())
        ended = time.monotonic()
        if not {"big", "entries", "listed", "scratch", "shared", "small"} <= names:
            raise Failure(f"the listing has only {sorted(names)}")
        return {"mount": ended - site.mount_began}


WORKS = {work.name: work for work in (
    Mount(), Work("read", ["read", "reread"]), Work("first", ["first"]), Work("tail", ["tail"]), Write(),
    Work("tree-read", ["tree-read"]), TreeWrite(), Work("find", ["find-cold", "find-warm"]), Work("list", ["list"]),
    Work("parallel", ["parallel"]), RandomWrites())}


def titles(sizes):
    said = sizes.described()
    return {"mount": "mount until the first ls", "read": f"read {said['read']}", "reread": f"read {said['read']} again",
            "first": f"first byte of {said['read']}", "tail": f"last MiB of {said['read']}",
            "write": f"write {said['read']}", "tree-read": f"read {said['tree']}", "tree-write": f"write {said['tree']}",
            "tree-remove": f"remove {said['tree']}", "find-cold": f"find in {said['entries']}, cold",
            "find-warm": "the same, warm", "list": f"ls -l of {said['listed']}", "parallel": said["shared"],
            "random": f"write {said['random']}"}
