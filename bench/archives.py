"""Packing and unpacking a tree of many small files beside the usual programs."""

import os
import random
import subprocess
from pathlib import Path

from measuring import alternate
from report import at_most, below, row

ARCHIVED_FILES = int(os.environ.get("ZEL_BENCH_ARCHIVED_FILES", "20000"))
ARCHIVED_BYTES = 15 << 10  # of each file, on average
TEXT_BYTES = 4 << 20
LARGEST_BYTES = 1 << 20


def prose(source):
    """Text of words that are as unequally frequent as those of a language."""
    words = ["".join(source.choices("abcdefghijklmnopqrstuvwxyz", k=source.randint(2, 10)))
             for _ in range(3000)]
    picked = (words[int(source.paretovariate(0.5)) % 3000] for _ in range(TEXT_BYTES // 3))
    text = " ".join(picked).encode()
    assert len(text) >= TEXT_BYTES
    return text


def fill_tree(directory):
    """Files in 200 directories: two in three of text, the others of what cannot be compressed."""
    source = random.Random(1)
    text, tree = prose(source), directory / "tree"
    for i in range(ARCHIVED_FILES):
        path = tree / f"part{i % 20}/directory{i % 200}/file{i}.txt"
        path.parent.mkdir(parents=True, exist_ok=True)
        size = min(int(source.expovariate(1 / ARCHIVED_BYTES)) + 1, LARGEST_BYTES)
        at = source.randrange(len(text) - size)
        path.write_bytes(source.randbytes(size) if i % 3 == 0 else text[at:at + size])
    return tree


def bench_pack(build, directory):
    """Packing beside zip and 7z: time, and the size of what comes out, beside the faster one."""
    tree = fill_tree(directory)

    def pack(name, *command):
        def run():
            (directory / name).unlink(missing_ok=True)
            subprocess.run(command, cwd=tree, check=True, stdout=subprocess.DEVNULL)
        return run

    seconds = alternate(
        [pack("ours.zip", Path(build).resolve() / "bin/archive_bench", "pack", ".", "../ours.zip"),
         pack("zip.zip", "zip", "-6", "-q", "-r", "../zip.zip", "."),
         pack("7z.zip", "7z", "a", "-tzip", "-mx=5", "../7z.zip", ".")], 3)
    sizes = [(directory / name).stat().st_size for name in ("ours.zip", "zip.zip", "7z.zip")]
    faster = 1 if seconds[1] < seconds[2] else 2
    peer = ("", "`zip -6`", "`7z -mx=5`")[faster]
    megabytes = ARCHIVED_FILES * ARCHIVED_BYTES >> 20
    return [row(f"packing {ARCHIVED_FILES:,} files of {megabytes:,} MiB", seconds[0] * 1e3, "ms",
                peer, seconds[faster] * 1e3, at_most(0.5)),
            row("size of the archive", sizes[0] / 1e3, "kB", peer, sizes[faster] / 1e3, at_most(1))]


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
