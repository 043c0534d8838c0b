"""What is done on a mounted volume, in a process of its own: one that hangs can be given up. Each step checks what it
was given and prints its times as one JSON object.

    python3 -m comparison.worker WORK FOLDER SIZES-AS-JSON [ARGUMENTS]
"""
import json
import os
import subprocess
import sys
import threading
import time

from comparison import content
from comparison.content import MIB, Sizes

now = time.monotonic


# The bytes are random, so that no page can be wrong and have the right four of these. To compare all takes 50 µs a MiB,
# which the raw wire does not have to wait for.
SAMPLED = 1024


def expect(condition, text):
    if not condition:
        sys.exit(f"wrong: {text}")


def read_whole(path, mebibytes, file=0, step=SAMPLED):
    """A byte of each `step` is compared as it comes, and the number of each MiB."""
    block, expected = bytearray(MIB), bytearray(content.BLOCK)
    view = memoryview(block)
    descriptor = os.open(path, os.O_RDONLY)
    try:
        for index in range(mebibytes):
            got = 0
            while got < MIB:
                count = os.readv(descriptor, [view[got:]])
                expect(count > 0, f"{path} ends in MiB {index} of {mebibytes}")
                got += count
            content.stamp(expected, content.block_number(file, index))
            same = block == expected if step == 1 else (block[:8], block[::step]) == (expected[:8], expected[::step])
            expect(same, f"{path} has other bytes in MiB {index}")
        expect(os.read(descriptor, 1) == b"", f"{path} is longer than {mebibytes} MiB")
    finally:
        os.close(descriptor)


def read(folder, sizes):
    start = now()
    read_whole(f"{folder}/big", sizes.big)
    middle = now()
    read_whole(f"{folder}/big", sizes.big, step=1)
    return {"read": middle - start, "reread": now() - middle}


def first(folder, sizes):
    start = now()
    descriptor = os.open(f"{folder}/big", os.O_RDONLY)
    byte = os.pread(descriptor, 1, 0)
    end = now()
    expect(byte == b"\x01", "the first byte is another one")
    os.close(descriptor)
    return {"first": end - start}


def tail(folder, sizes):
    start = now()
    descriptor = os.open(f"{folder}/big", os.O_RDONLY)
    got = b""
    while len(got) < MIB:
        part = os.pread(descriptor, MIB - len(got), (sizes.big - 1) * MIB + len(got))
        expect(part, "the file ends too early")
        got += part
    end = now()
    os.close(descriptor)
    expected = bytearray(content.BLOCK)
    content.stamp(expected, content.block_number(0, sizes.big - 1))
    expect(got == expected, "the last MiB has other bytes")
    return {"tail": end - start}


def tree_read(folder, sizes):
    expected = bytearray(content.BLOCK[:content.SMALL])
    numbers = dict(content.small_paths(sizes))
    start = now()
    for sub in sorted(os.listdir(f"{folder}/small")):
        for name in sorted(os.listdir(f"{folder}/small/{sub}")):
            with open(f"{folder}/small/{sub}/{name}", "rb", buffering=0) as f:
                got = f.read()
            number = numbers.pop(f"{sub}/{name}", None)
            expect(number is not None, f"{sub}/{name} should not be there")
            content.stamp(expected, number)
            expect(got == expected, f"{sub}/{name} has other bytes")
    end = now()
    expect(not numbers, f"{len(numbers)} files are missing")
    return {"tree-read": end - start}


def find(folder, sizes):
    times = []
    for _ in range(2):
        start = now()
        # The size makes it ask for each file.
        sizes_text = subprocess.run(["find", f"{folder}/entries", "-type", "f", "-printf", "%s\n"],
                                    stdout=subprocess.PIPE, check=True).stdout
        times.append(now() - start)
        found = sizes_text.split()
        expect(len(found) == sizes.entry_folders * sizes.per_entry_folder, f"{len(found)} files are found")
        expect(set(found) == {b"%d" % content.ENTRY}, "a file has another size")
    return {"find-cold": times[0], "find-warm": times[1]}


def listed(folder, sizes):
    start = now()
    text = subprocess.run(["ls", "-l", f"{folder}/listed"], stdout=subprocess.PIPE, check=True).stdout
    end = now()
    lines = [line.split() for line in text.splitlines()[1:]]
    expect([line[-1] for line in lines] == [b"file%05d" % number for number in range(sizes.listed)],
           f"{len(lines)} files are listed, or others")
    expect({line[4] for line in lines} == {b"%d" % content.ENTRY}, "a file has another size")
    return {"list": end - start}


def parallel(folder, sizes):
    problems, start = [], 0.0

    def begin():
        nonlocal start
        start = now()

    gate = threading.Barrier(sizes.readers, begin)

    def one(index):
        gate.wait()
        try:
            file = index % sizes.shared
            read_whole(f"{folder}/shared/file{file}", sizes.shared_size, file + 1)
        except (OSError, SystemExit) as problem:
            problems.append(str(problem))

    threads = [threading.Thread(target=one, args=(index,)) for index in range(sizes.readers)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    end = now()
    expect(not problems, f"{len(problems)} readers failed: {problems[:1]}")
    return {"parallel": end - start}


def copy(folder, sizes, source, target):
    """Begin and end are handed on: whether it is stored is asked from the server's side."""
    start = now()
    subprocess.run(["cp", "-r", source, f"{folder}/{target}"], check=True)
    return {"start": start, "end": now()}


def remove(folder, sizes, target):
    start = now()
    subprocess.run(["rm", "-r", f"{folder}/{target}"], check=True)
    return {"start": start, "end": now()}


def random_writes(folder, sizes, target):
    path = f"{folder}/{target}"
    read_whole(path, sizes.database, 99)  # a database is read before it is written
    pages = [(content.page(at), at) for at in content.positions(sizes)]
    start = now()
    descriptor = os.open(path, os.O_WRONLY)
    for page, at in pages:
        expect(os.pwrite(descriptor, page, at) == content.SMALL, "a write is cut short")
    os.close(descriptor)
    return {"start": start, "end": now()}


WORKS = {"read": read, "first": first, "tail": tail, "tree-read": tree_read, "find": find, "list": listed,
         "parallel": parallel, "copy": copy, "remove": remove, "random": random_writes}

if __name__ == "__main__":
    try:
        print(json.dumps(WORKS[sys.argv[1]](sys.argv[2], Sizes(**json.loads(sys.argv[3])), *sys.argv[4:])))
    except subprocess.CalledProcessError as error:
        sys.exit(f"{error.cmd[0]} failed with status {error.returncode}")
    except OSError as error:
        sys.exit(str(error))
