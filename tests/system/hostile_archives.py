"""Archives that attack whoever unpacks them, made byte by byte.

As a script: hostile_archives.py DIRECTORY writes one file for each."""

import pathlib
import struct
import subprocess
import sys
import tempfile
import zlib
from dataclasses import dataclass

STORED, DEFLATED = 0, 8
ENCRYPTED, UTF8 = 0x1, 0x800
MADE_ON_UNIX, MADE_ON_DOS = 3 << 8, 0
REGULAR_FILE, SYMBOLIC_LINK = 0o100644, 0o120777
ZIP64_VERSION, PLAIN_VERSION = 45, 20
ALL_IN_ZIP64 = 0xFFFFFFFF
NEW_YEAR_2025 = 45 << 9 | 1 << 5 | 1
MIB, GIB = 1 << 20, 1 << 30

# What stands in front of the hostile entries of an archive, and behind them.
HARMLESS = {"first.txt": b"harmless, in front\n", "inner/last.txt": b"harmless, behind\n"}
EVIL = b"evil\n"


def deflate(data):
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    return packer.compress(data) + packer.flush()


@dataclass
class Entry:
    """One file of an archive. What is None follows from `data`."""
    name: bytes
    data: bytes = EVIL
    method: int = DEFLATED
    flags: int = UTF8
    mode: int = REGULAR_FILE
    made_on: int = MADE_ON_UNIX
    packed: bytes = None
    crc: int = None
    size: int = None
    #: Where the entry's local header stands, for an entry that has none of its own.
    offset: int = None

    def __post_init__(self):
        if self.packed is None:
            self.packed = deflate(self.data) if self.method == DEFLATED else self.data
        if self.crc is None:
            self.crc = zlib.crc32(self.data)
        if self.size is None:
            self.size = len(self.data)

    def _is_zip64(self):
        return self.size >= ALL_IN_ZIP64

    def _facts(self):
        """Method, time and date, checksum, sizes; the lengths of the name and of what follows."""
        wide = self._is_zip64()
        return struct.pack("<HHHHHIIIHH", ZIP64_VERSION if wide else PLAIN_VERSION, self.flags,
                           self.method, 0, NEW_YEAR_2025, self.crc,
                           ALL_IN_ZIP64 if wide else len(self.packed),
                           ALL_IN_ZIP64 if wide else self.size, len(self.name),
                           len(self._extra()))

    def _extra(self):
        if not self._is_zip64():
            return b""
        return struct.pack("<HHQQ", 1, 16, self.size, len(self.packed))

    def local(self):
        return b"PK\3\4" + self._facts() + self.name + self._extra()

    def central(self, offset):
        return (b"PK\1\2" + struct.pack("<H", self.made_on | ZIP64_VERSION) + self._facts()
                + struct.pack("<HHHII", 0, 0, 0, self.mode << 16, offset) + self.name
                + self._extra())


def build(entries):
    """The archive that holds the entries, in their order."""
    body, directory = bytearray(), bytearray()
    for entry in entries:
        directory += entry.central(len(body) if entry.offset is None else entry.offset)
        if entry.offset is None:
            body += entry.local() + entry.packed
    return bytes(body + directory) + end_of(len(entries), len(directory), len(body))


def end_of(count, size, offset):
    """What ends an archive, with its zip64 form in front where the count needs it."""
    zip64 = b""
    if count > 0xFFFF:
        zip64 = (b"PK\6\6" + struct.pack("<QHHIIQQQQ", 44, 45, 45, 0, 0, count, count, size, offset)
                 + b"PK\6\7" + struct.pack("<IQI", 0, offset + size, 1))
    count = min(count, 0xFFFF)
    return zip64 + b"PK\5\6" + struct.pack("<HHHHIIH", 0, 0, count, count, size, offset, 0)


def among_harmless(*entries):
    first, last = (Entry(name.encode(), data) for name, data in HARMLESS.items())
    return build([first, *entries, last])


def named(*names):
    return among_harmless(*(Entry(name if isinstance(name, bytes) else name.encode())
                            for name in names))


def parent_directory(outside):
    return named("../evil.txt", "inner/../../evil.txt", "..\\evil.txt", "inner\\..\\..\\evil.txt",
                 "..", "inner/../../../outside/evil.txt")


def absolute_path(outside):
    return named(outside + "/evil.txt", "//" + outside + "/evil.txt",
                 outside.replace("/", "\\") + "\\evil.txt")


def drive_letter(outside):
    backwards = outside.replace("/", "\\")
    return named("Z:" + backwards + "\\evil.txt", "C:" + outside + "/evil.txt", "C:evil.txt",
                 "inner/C:/evil.txt")


def unc_path(outside):
    backwards = outside.replace("/", "\\")
    return named("\\\\localhost\\share\\evil.txt", "//localhost/share/evil.txt",
                 "\\\\?\\Z:" + backwards + "\\evil.txt", "\\\\.\\Z:" + backwards + "\\evil.txt",
                 "\\\\?\\unix" + backwards + "\\evil.txt", "\\??\\Z:" + backwards + "\\evil.txt")


def alternate_stream(outside):
    return named("first.txt:evil", "first.txt::$DATA", "inner:evil/file.txt")


def reserved_name(outside):
    return named("CON", "NUL.txt", "COM1", "inner/aux", "lpt9.log", "con/evil.txt", "COM\u00b9",
                 "CONIN$", "CLOCK$")


def trailing_dot_or_blank(outside):
    return named("evil.", "evil.txt ", "evil./evil.txt", "evil /evil.txt", "...")


def forbidden_character(outside):
    return named("evil?.txt", "ev*il", "<evil>", 'ev"il', "ev|il")


def control_character(outside):
    return named("ev\x01il", "ev\nil", "evil\x1b[2J")


def symbolic_link(outside):
    link = lambda name, target: Entry(name.encode(), target.encode(), STORED, mode=SYMBOLIC_LINK)
    return among_harmless(link("link", outside + "/evil.txt"), Entry(b"link"),
                          link("directory", outside), Entry(b"directory/evil.txt"),
                          link("up", ".."), Entry(b"up/evil.txt"))


def case_clash(outside):
    return among_harmless(Entry(b"Clash.txt", b"1"), Entry(b"clash.TXT", b"2"))


def duplicate_name(outside):
    return among_harmless(Entry(b"twice.txt", b"1"), Entry(b"twice.txt", b"2"))


def file_and_directory(outside):
    return among_harmless(Entry(b"node", b"1"), Entry(b"node/evil.txt", b"2"))


def _with_secret(pack):
    """An archive of the harmless files and of one that `pack` has encrypted."""
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        (directory / "archive.zip").write_bytes(among_harmless())
        (directory / "secret.txt").write_bytes(EVIL * 10)
        subprocess.run(pack, cwd=directory, check=True, capture_output=True)
        return (directory / "archive.zip").read_bytes()


def encrypted(outside):
    return _with_secret(["zip", "-P", "password", "archive.zip", "secret.txt"])


def encrypted_with_aes(outside):
    return _with_secret(["7z", "a", "-tzip", "-ppassword", "-mem=AES256", "archive.zip",
                         "secret.txt"])


def called_encrypted(outside):
    return among_harmless(Entry(b"evil.txt", flags=UTF8 | ENCRYPTED))


def wrong_crc(outside):
    return among_harmless(Entry(b"evil.txt", crc=zlib.crc32(EVIL) ^ 1))


def damaged_data(outside):
    return among_harmless(Entry(b"evil.txt", packed=b"\xff" * 20))


def truncated(outside):
    whole = among_harmless(Entry(b"evil.txt"))
    return whole[:len(whole) * 6 // 10]


def piece_missing(outside):
    """The directory is there and leads elsewhere than it did."""
    whole = among_harmless(Entry(b"lost.txt", bytes(range(256)) * 20, STORED))
    return whole[:1000] + whole[2000:]


def concatenated(outside):
    return build([Entry(b"evil.txt")]) + among_harmless()


def data_in_front(outside):
    return b"#!/bin/sh\nexit\n" * 10 + among_harmless()


def trailing_garbage(outside):
    return among_harmless() + b"garbage\n" * 20


def crc_of_zeros(count):
    """CRC-32 of `count` zero bytes, in steps of doubling: appending zeros is linear over GF(2)."""
    def times(matrix, vector):
        result = 0
        for bit in range(32):
            if vector >> bit & 1:
                result ^= matrix[bit]
        return result

    register = 0xFFFFFFFF
    # What one more zero byte does to each bit of the register.
    step = [zlib.crc32(b"\0", (1 << bit) ^ 0xFFFFFFFF) ^ 0xFFFFFFFF for bit in range(32)]
    while count:
        if count & 1:
            register = times(step, register)
        step = [times(step, column) for column in step]
        count >>= 1
    return register ^ 0xFFFFFFFF


def deflated_zeros(mebibytes):
    """Each block stands for itself, so that one is enough to make them all."""
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    block = packer.compress(bytes(MIB)) + packer.flush(zlib.Z_FULL_FLUSH)
    return block * mebibytes + deflate(b"")


def bomb(name, mebibytes):
    return Entry(name.encode(), b"", packed=deflated_zeros(mebibytes), size=mebibytes * MIB,
                 crc=crc_of_zeros(mebibytes * MIB))


def zero_bomb(outside):
    """10 GiB of zeros, as its directory says."""
    return among_harmless(bomb("bomb.bin", 10 * GIB // MIB))


def many_bombs(outside):
    """None of them is beyond a limit, all of them together are."""
    return among_harmless(*(bomb(f"bomb{number}.bin", 600) for number in range(3)))


def lying_size(outside):
    """Far more comes out than is said."""
    return among_harmless(Entry(b"bomb.bin", b"", packed=deflated_zeros(10 * 1024), size=100,
                                crc=crc_of_zeros(100)))


def lying_size_reversed(outside):
    """Less comes out than is said."""
    return among_harmless(Entry(b"evil.txt", EVIL, size=MIB))


def many_entries(outside, count=100_000):
    """Nothing but many."""
    return build([Entry(b"%02d/%05d" % (number % 100, number), b"x", STORED)
                  for number in range(count)])


def nul_in_name(outside):
    return named(b"evil.txt\0.jpg", b"\0evil.txt")


def no_name(outside):
    return named(b"", "/", "inner//evil.txt")


def overlapping_entries(outside):
    """One entry's data are another entry's header and data; checksums and sizes are right."""
    inner = Entry(b"inner.txt", EVIL * 100)
    header = inner.local()
    stored_block = b"\0" + struct.pack("<HH", len(header), len(header) ^ 0xFFFF) + header
    outer = Entry(b"outer.txt", header + inner.data, packed=stored_block + inner.packed)
    inner.offset = len(outer.local()) + len(stored_block) - len(header)
    return build([outer, inner])


def shared_data(outside):
    """Two entries of one local header."""
    return build([Entry(b"one.txt"), Entry(b"two.txt", offset=0)])


def other_local_name(outside):
    """The local header has another name than the directory of the archive."""
    whole = among_harmless(Entry(b"good.txt"))
    return whole.replace(b"good.txt", b"../e.txt", 1)


def unknown_method(outside):
    return among_harmless(Entry(b"evil.txt", method=77))


def not_an_archive(outside):
    return b"This is no archive.\n" * 50


def empty_file(outside):
    return b""


HOSTILE = {make.__name__: make for make in (
    parent_directory, absolute_path, drive_letter, unc_path, alternate_stream, reserved_name,
    trailing_dot_or_blank, forbidden_character, control_character, symbolic_link, case_clash,
    duplicate_name,
    file_and_directory, encrypted, encrypted_with_aes, called_encrypted, wrong_crc, damaged_data,
    truncated, piece_missing, concatenated, data_in_front, trailing_garbage, zero_bomb, many_bombs,
    lying_size, lying_size_reversed, many_entries, nul_in_name, no_name, overlapping_entries,
    shared_data, other_local_name, unknown_method, not_an_archive, empty_file)}


def main(arguments):
    if len(arguments) != 1:
        print("usage: hostile_archives.py DIRECTORY", file=sys.stderr)
        return 2
    directory = pathlib.Path(arguments[0])
    directory.mkdir(parents=True, exist_ok=True)
    for name, make in HOSTILE.items():
        (directory / (name + ".zip")).write_bytes(make("/tmp/outside"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
