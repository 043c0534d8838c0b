"""One program that works on the volume until it is told to end, and compares every byte that it is given: on the
volume, and on the server once a close has said that it is stored. Ends with what it has done as a JSON object, or with the
first thing that is wrong.

    python3 -m soaking.worker NUMBER VOLUME SERVER-FOLDER SHAPE-AS-JSON SECONDS
"""
import json
import os
import random
import shutil
import sys
import time

from soaking.tree import MIB, PAGE, Shape, content, large_path, small_path, write

KEPT = 60  # files of its own, at most


class Wrong(Exception):
    pass


def expect(condition, text):
    if not condition:
        raise Wrong(text)


def read(path):
    with open(path, "rb", buffering=0) as f:
        pieces = []
        while piece := f.read(MIB):
            pieces.append(piece)
    return b"".join(pieces)


class Worker:
    def __init__(self, number, volume, server, shape):
        self.random = random.Random(number)
        self.volume, self.server, self.shape = volume, server, shape
        self.folder = f"own{number}"
        self.own = {}      # name: the bytes that it has to have
        self.made = 0
        self.done = {}
        os.mkdir(f"{volume}/{self.folder}")

    def at(self, name):
        return f"{self.volume}/{self.folder}/{name}"

    def expect_stored(self, name):
        expect(read(f"{self.server}/{self.folder}/{name}") == self.own[name],
               f"the server has other bytes of {self.folder}/{name}, {len(self.own[name])} bytes long")

    def some_bytes(self):
        size = self.random.choice((0, 100, PAGE, PAGE, 16 * 1024, 16 * 1024, 300 * 1024, 2 * MIB))
        return content(self.random.getrandbits(60), self.random.randint(size // 2, size))

    def new_name(self):
        """Never the same twice: what is kept under names that are gone would grow."""
        self.made += 1
        return f"item {self.made} of mine"

    def read_small(self):
        number = self.random.randrange(self.shape.small)
        expect(read(f"{self.volume}/{small_path(number)}") == content(number, PAGE), f"{small_path(number)} is wrong")

    def read_large(self):
        number = self.random.randrange(self.shape.large)
        expect(read(f"{self.volume}/{large_path(number)}") == content(1 << 32 | number, self.shape.large_size),
               f"{large_path(number)} is wrong")

    def list_shared(self):
        first = self.random.randrange(self.shape.small) // 100 * 100
        expected = {os.path.basename(small_path(n)): PAGE for n in range(first, min(first + 100, self.shape.small))}
        with os.scandir(f"{self.volume}/{os.path.dirname(small_path(first))}") as entries:
            found = {entry.name: entry.stat().st_size for entry in entries}
        expect(found == expected, f"the folder of {small_path(first)} is listed wrongly")

    def list_own(self):
        with os.scandir(f"{self.volume}/{self.folder}") as entries:
            found = {entry.name: entry.stat().st_size for entry in entries}
        expect(found == {name: len(data) for name, data in self.own.items()}, f"{self.folder} is listed wrongly")

    def create(self):
        name, data = self.new_name(), self.some_bytes()
        write(self.at(name), data)
        self.own[name] = data
        self.expect_stored(name)

    def chosen(self):
        if not self.own:
            self.create()
        return self.random.choice(list(self.own))

    def overwrite(self):
        name, data = self.chosen(), self.some_bytes()
        write(self.at(name), data)
        self.own[name] = data
        self.expect_stored(name)

    def append(self):
        name, data = self.chosen(), self.some_bytes()[:100000]
        with open(self.at(name), "ab", buffering=0) as f:
            f.write(data)
        self.own[name] += data
        self.expect_stored(name)

    def patch(self):
        name, data = self.chosen(), self.random.randbytes(PAGE)
        at = self.random.randint(0, len(self.own[name]))
        with open(self.at(name), "r+b", buffering=0) as f:
            os.pwrite(f.fileno(), data, at)
        old = self.own[name]
        self.own[name] = old[:at] + data + old[at + PAGE:]
        self.expect_stored(name)

    def read_own(self):
        name = self.chosen()
        expect(read(self.at(name)) == self.own[name], f"{self.folder}/{name} is wrong")

    def rename(self):
        name, new = self.chosen(), self.new_name()
        os.rename(self.at(name), self.at(new))
        self.own[new] = self.own.pop(name)
        expect(not os.path.exists(self.at(name)), f"{name} is still there under its old name")
        self.expect_stored(new)

    def remove(self):
        name = self.chosen()
        os.unlink(self.at(name))
        del self.own[name]
        expect(not os.path.lexists(f"{self.server}/{self.folder}/{name}"), f"{name} is still on the server")

    def folder_of_files(self):
        """Made, filled, moved and removed with all that is in it."""
        name, moved = self.new_name(), self.new_name()
        os.makedirs(f"{self.at(name)}/below")
        for index in range(5):
            write(f"{self.at(name)}/below/{index}", content(index, PAGE))
        os.rename(self.at(name), self.at(moved))
        for index in range(5):
            expect(read(f"{self.at(moved)}/below/{index}") == content(index, PAGE), f"{moved} is wrong")
        shutil.rmtree(self.at(moved))
        expect(not os.path.lexists(f"{self.server}/{self.folder}/{moved}"), f"{moved} is still on the server")

    STEPS = [("read", 12, read_small), ("read", 3, read_large), ("list", 2, list_shared), ("list", 1, list_own),
             ("write", 3, create), ("write", 2, overwrite), ("write", 1, append), ("write", 2, patch),
             ("read", 2, read_own), ("move", 1, rename), ("remove", 3, remove), ("folder", 1, folder_of_files)]

    def warm_up(self):
        """As full as it will be, before anything is measured."""
        while len(self.own) < KEPT // 2:
            self.create()

    def step(self):
        if len(self.own) >= KEPT:
            self.remove()
        kind, _, act = self.random.choices(self.STEPS, [weight for _, weight, _ in self.STEPS])[0]
        act(self)
        self.done[kind] = self.done.get(kind, 0) + 1

    def work(self, seconds):
        self.warm_up()
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.step()


if __name__ == "__main__":
    worker = Worker(int(sys.argv[1]), sys.argv[2], sys.argv[3], Shape(**json.loads(sys.argv[4])))
    try:
        worker.work(float(sys.argv[5]))
    except (Wrong, OSError) as problem:
        sys.exit(f"wrong: {problem}")
    print(json.dumps(worker.done), flush=True)
