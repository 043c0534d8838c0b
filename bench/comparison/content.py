"""The data that is worked on. Each MiB and each small file carries its number, so that whoever reads it can check it
at the speed of a memory comparison."""
import os
import random
from dataclasses import dataclass

MIB = 1 << 20
BLOCK = random.Random(20).randbytes(MIB)
SMALL = 4096
ENTRY = 8


@dataclass
class Sizes:
    big: int = 1024          # MiB of the large file
    folders: int = 20        # of the tree of small files
    per_folder: int = 100
    entry_folders: int = 200  # of the tree that is searched
    per_entry_folder: int = 100
    listed: int = 50000      # files in the one large folder
    shared: int = 10         # files that are read in parallel
    shared_size: int = 10    # MiB of each
    readers: int = 100
    database: int = 100      # MiB of the file that is written at random
    writes: int = 10000

    def described(self):
        return {"read": size_text(self.big), "tree": f"{self.folders * self.per_folder:,} × 4 KiB",
                "entries": f"{self.entry_folders * self.per_entry_folder:,} files in {self.entry_folders} folders",
                "listed": f"{self.listed:,} files", "shared": f"{self.readers} readers of {self.shared} × "
                f"{self.shared_size} MiB", "random": f"{self.writes:,} × 4 KiB in {self.database} MiB"}


QUICK = Sizes(big=128, folders=20, per_folder=10, entry_folders=40, listed=5000, readers=40, shared_size=4,
              database=16, writes=1000)
TINY = Sizes(big=8, folders=4, per_folder=5, entry_folders=5, per_entry_folder=10, listed=200, shared=4,
             shared_size=1, readers=8, database=2, writes=50)


def size_text(mebibytes):
    return f"{mebibytes // 1024} GiB" if mebibytes % 1024 == 0 else f"{mebibytes} MiB"


def stamp(block, number):
    """Never 0, so that a hole is not taken for it."""
    block[0:8] = (number + 1).to_bytes(8, "little")


def block_number(file, index):
    return file << 32 | index


def write_large(path, mebibytes, file=0):
    block = bytearray(BLOCK)
    with open(path, "wb", buffering=0) as f:
        for index in range(mebibytes):
            stamp(block, block_number(file, index))
            f.write(block)


def small_content(number):
    content = bytearray(BLOCK[:SMALL])
    stamp(content, number)
    return bytes(content)


def small_paths(sizes):
    """Path and number of each file of the tree of small files."""
    for folder in range(sizes.folders):
        for file in range(sizes.per_folder):
            yield f"folder{folder:03}/file{file:03}", folder * sizes.per_folder + file


def positions(sizes):
    chosen = random.Random(4)
    return [chosen.randrange(sizes.database * MIB // SMALL) * SMALL for _ in range(sizes.writes)]


def make(folder, sizes):
    """Everything that the works read, below one folder."""
    write_large(f"{folder}/big", sizes.big)
    os.makedirs(f"{folder}/shared")
    for file in range(sizes.shared):
        write_large(f"{folder}/shared/file{file}", sizes.shared_size, file + 1)
    for path, number in small_paths(sizes):
        os.makedirs(os.path.dirname(f"{folder}/small/{path}"), exist_ok=True)
        write_bytes(f"{folder}/small/{path}", small_content(number))
    for index in range(sizes.entry_folders):
        os.makedirs(f"{folder}/entries/folder{index:03}")
        for file in range(sizes.per_entry_folder):
            write_bytes(f"{folder}/entries/folder{index:03}/file{file:03}", bytes(ENTRY))
    os.makedirs(f"{folder}/listed")
    for file in range(sizes.listed):
        write_bytes(f"{folder}/listed/file{file:05}", bytes(ENTRY))
    os.makedirs(f"{folder}/scratch")


def write_bytes(path, content):
    with open(path, "wb", buffering=0) as f:
        f.write(content)


def make_database(path, sizes, changed=False):
    write_large(path, sizes.database, 99)
    if changed:
        with open(path, "r+b", buffering=0) as f:
            for at in positions(sizes):
                os.pwrite(f.fileno(), page(at), at)


def page(at):
    return (at + 1).to_bytes(8, "little") * (SMALL // 8)


def same_bytes(one, other):
    with open(one, "rb", buffering=0) as a, open(other, "rb", buffering=0) as b:
        while True:
            x, y = a.read(MIB), b.read(MIB)
            if x != y:
                return False
            if not x:
                return True
