"""Packing and unpacking a tree of many small files beside the usual programs."""

import itertools
import os
import random
import subprocess
from pathlib import Path

from measuring import alternate, seconds_of, size_text
from report import at_most, below, row

ARCHIVED_FILES = int(os.environ.get("ZEL_BENCH_ARCHIVED_FILES", "20000"))
ARCHIVED_BYTES = 15 << 10  # of each file, on average
TEXT_BYTES = 4 << 20
LARGEST_BYTES = 1 << 20
ONE_FILE_BYTES = int(os.environ.get("ZEL_BENCH_PACKED_BYTES", 512 << 20))


def prose(source):
    """Text of words that are as unequally frequent as those of a language."""
    words = ["".join(source.choices("abcdefghijklmnopqrstuvwxyz", k=source.randint(2, 10)))
             for _ in range(3000)]
    picked = (words[int(source.paretovariate(0.5)) % 3000] for _ in range(TEXT_BYTES // 3))
    text = " ".join(picked).encode()
    assert len(text) >= TEXT_BYTES
    return text


def contents():
    """What files hold, one after the other: two in three text, the others what cannot be compressed."""
    source = random.Random(1)
    text = prose(source)
    for i in itertools.count():
        size = min(int(source.expovariate(1 / ARCHIVED_BYTES)) + 1, LARGEST_BYTES)
        at = source.randrange(len(text) - size)
        yield source.randbytes(size) if i % 3 == 0 else text[at:at + size]


def fill_tree(directory):
    """Files in 200 directories."""
    tree = directory / "tree"
    for i, content in zip(range(ARCHIVED_FILES), contents()):
        path = tree / f"part{i % 20}/directory{i % 200}/file{i}.txt"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return tree


def fill_file(directory):
    """A directory with one file, of which the same was made."""
    tree, left = directory / "one", ONE_FILE_BYTES
    tree.mkdir()
    with open(tree / "file", "wb") as output:
        for content in contents():
            left -= output.write(content[:left])
            if left == 0:
                return tree


def packers(build, directory, tree):
    """What packs the tree into an archive: ours, zip and 7z."""
    def pack(name, *command):
        def run():
            (directory / name).unlink(missing_ok=True)
            subprocess.run(command, cwd=tree, check=True, stdout=subprocess.DEVNULL)
        return run

    return [pack("ours.zip", Path(build).resolve() / "bin/archive_bench", "pack", ".",
                 "../ours.zip"),
            pack("zip.zip", "zip", "-6", "-q", "-r", "../zip.zip", "."),
            pack("7z.zip", "7z", "a", "-tzip", "-mx=5", "../7z.zip", ".")]


def pack_rows(directory, what, seconds, size_aim):
    """Time, and the size of what came out, beside the faster one of the others."""
    sizes = [(directory / name).stat().st_size for name in ("ours.zip", "zip.zip", "7z.zip")]
    faster = 1 if seconds[1] < seconds[2] else 2
    peer = ("", "`zip -6`", "`7z -mx=5`")[faster]
    return [row(f"packing {what}", seconds[0] * 1e3, "ms", peer, seconds[faster] * 1e3,
                at_most(0.5)),
            row("size of the archive", sizes[0] / 1e3, "kB", peer, sizes[faster] / 1e3,
                size_aim)]


def bench_pack(build, directory):
    """Packing a tree and one large file, beside zip and 7z."""
    seconds = alternate(packers(build, directory, fill_tree(directory)), 3)
    rows = pack_rows(
        directory, f"{ARCHIVED_FILES:,} files of {ARCHIVED_FILES * ARCHIVED_BYTES >> 20:,} MiB",
        seconds, at_most(1))

    ours, by_zip, by_7z = packers(build, directory, fill_file(directory))
    # 7z takes minutes for several turns, and is the slower one by far.
    seconds = [*alternate([ours, by_zip], 1), seconds_of(by_7z)]
    return rows + pack_rows(directory, f"one file of {size_text(ONE_FILE_BYTES)}", seconds,
                            at_most(1.01))


def bench_extract(build, directory):
    """Unpacking such an archive beside unzip, bsdtar and 7z."""
    tree, out = fill_tree(directory), directory / "out"
    subprocess.run(["zip", "-6", "-q", "-r", "../a.zip", "."], cwd=tree, check=True)

    # Each turn has a directory of its own: nothing is replaced, and nothing deleted meanwhile. What
    # the others have left to the system to write is written before: ours waits for the disk.
    turns = iter(range(1000))

    def into_new(make):
        def run():
            target = out / str(next(turns))
            target.mkdir(parents=True)
            subprocess.run(make(target), cwd=directory, check=True, stdout=subprocess.DEVNULL)
        return run

    peers = ["`unzip`", "`bsdtar`", "`7z`"]
    ours, *others = alternate(
        [into_new(lambda to: (Path(build).resolve() / "bin/archive_bench", "extract", "a.zip", to)),
         into_new(lambda to: ("unzip", "-q", "a.zip", "-d", to)),
         into_new(lambda to: ("bsdtar", "-xf", "a.zip", "-C", to)),
         into_new(lambda to: ("7z", "x", f"-o{to}", "a.zip"))], 5, os.sync)
    names = [f"unpacking {ARCHIVED_FILES:,} files", "the same", "the same"]
    return [row(what, ours * 1e3, "ms", peer, seconds * 1e3, below(1))
            for what, peer, seconds in zip(names, peers, others)]
