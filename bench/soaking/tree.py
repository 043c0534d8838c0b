"""The tree that is worked on. Every file's bytes follow from a number, so that whoever reads it can tell what they
have to be."""
import os
import random
from dataclasses import dataclass

MIB = 1 << 20
PAGE = 4096
BASE = random.Random(7).randbytes(MIB)


@dataclass
class Shape:
    """small: files of 4 KiB, in folders of 100; large: files of `large_size` bytes; disk: the bytes of the disk that the
    cache lies on, of which the helper takes half; descriptors: how many it may have, of which cache files take a quarter."""

    small: int
    large: int
    large_size: int
    disk: int
    descriptors: int


# Both have more bytes and more files than the cache may keep.
WHOLE = Shape(small=3000, large=60, large_size=4 * MIB, disk=256 * MIB, descriptors=8192)
SMALL = Shape(small=400, large=16, large_size=MIB, disk=24 * MIB, descriptors=1024)


def content(number, size):
    """`size` bytes, with the number of the file and of the page at the start of each page."""
    start = number * 977 % (MIB - PAGE)
    block = BASE[start:] + BASE[:start]
    data = bytearray((block * (size // MIB + 1))[:size])
    for at in range(0, size - 15, PAGE):
        data[at:at + 8] = number.to_bytes(8, "little")
        data[at + 8:at + 16] = at.to_bytes(8, "little")
    return bytes(data)


def small_path(number):
    return f"shared/folder{number // 100:03}/file{number:05}"


def large_path(number):
    return f"shared/large{number:03}"


def make(folder, shape):
    for number in range(shape.small):
        path = f"{folder}/{small_path(number)}"
        if number % 100 == 0:
            os.makedirs(os.path.dirname(path))
        write(path, content(number, PAGE))
    for number in range(shape.large):
        write(f"{folder}/{large_path(number)}", content(1 << 32 | number, shape.large_size))


def write(path, data):
    with open(path, "wb", buffering=0) as f:
        f.write(data)
