"""CoreUtilsExtractFile: archives as the usual programs make them, and ones that mean harm."""

import contextlib
import functools
import io
import os
import shutil
import stat
import subprocess
import zipfile

import pytest

import hostile_archives
from hostile_archives import GIB, HARMLESS, MIB
from uploads import new_log

SUCCESS, FAILURE = 0, 1
LOG_LINE = "Error during extracting file"


def snapshot(directory):
    """{path: what is there} of everything below a directory, links not followed."""
    found = {}
    for path in directory.rglob("*"):
        status = path.lstat()
        content = (os.readlink(path) if path.is_symlink() else
                   path.read_bytes() if path.is_file() else b"")
        found[str(path.relative_to(directory))] = stat.S_IFMT(status.st_mode), content
    return found


def files_below(directory):
    """{path: content} of the files below a directory."""
    return {str(path.relative_to(directory)): path.read_bytes()
            for path in directory.rglob("*") if path.is_file()}


def extract(agent, archive, destination):
    return agent.call("CoreUtilsExtractFile", FilePath=agent.path(archive),
                      DestinationPath=agent.path(destination))


class Arena:
    """An archive, a place for what comes out of it, and around them what must stay as it is."""

    def __init__(self, directory):
        self.directory = directory
        self.archive = directory / "archive.zip"
        self.destination = directory / "deep/destination"
        self.outside = directory / "outside"
        self.outside.mkdir(parents=True)
        (self.outside / "precious.txt").write_bytes(b"precious\n")

    def surroundings(self):
        """Everything but what is in the destination."""
        return {path: what for path, what in snapshot(self.directory).items()
                if not path.startswith("deep/destination/")}

    def came_out(self):
        return files_below(self.destination)

    def refuses(self, agent, data, refused=1):
        """Extracts the archive and checks what holds for every refused one; what came out.
        `refused`: how many entries do not, 1 for an archive that cannot be read."""
        self.archive.write_bytes(data)
        self.destination.mkdir(parents=True, exist_ok=True)
        before, log = self.surroundings(), len(agent.log())
        code, container = extract(agent, self.archive, self.destination)
        assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
        assert self.surroundings() == before
        assert agent.log()[log:].count(LOG_LINE) == refused
        came_out = self.came_out()
        assert not any(path.is_symlink() for path in self.destination.rglob("*"))
        return came_out


@pytest.fixture
def arena(tmp_path):
    return Arena(tmp_path / "arena")


@functools.cache
def made(name):
    """A hostile archive that attacks nothing in particular, made once for all tests."""
    return hostile_archives.HOSTILE[name]("/nowhere")


def hostile(name, arena):
    return hostile_archives.HOSTILE[name](str(arena.outside))


# Names that have no place below the destination, or that Windows would take for something else.


def test_parent_directory(agent, arena):
    assert arena.refuses(agent, hostile("parent_directory", arena), refused=6) == HARMLESS


def test_absolute_path(agent, arena):
    assert arena.refuses(agent, hostile("absolute_path", arena), refused=3) == HARMLESS


def test_drive_letter(agent, arena):
    assert arena.refuses(agent, hostile("drive_letter", arena), refused=4) == HARMLESS


def test_unc_path(agent, arena):
    assert arena.refuses(agent, hostile("unc_path", arena), refused=6) == HARMLESS


def test_alternate_stream(agent, arena):
    assert arena.refuses(agent, hostile("alternate_stream", arena), refused=3) == HARMLESS


def test_reserved_name(agent, arena):
    assert arena.refuses(agent, hostile("reserved_name", arena), refused=9) == HARMLESS


def test_trailing_dot_or_blank(agent, arena):
    assert arena.refuses(agent, hostile("trailing_dot_or_blank", arena), refused=5) == HARMLESS


def test_forbidden_character(agent, arena):
    assert arena.refuses(agent, hostile("forbidden_character", arena), refused=5) == HARMLESS


def test_control_character(agent, arena):
    # The archive library takes it for text of another kind, and for damaged as a whole.
    assert arena.refuses(agent, hostile("control_character", arena)) == {}


def test_nul_in_name(agent, arena):
    assert arena.refuses(agent, made("nul_in_name"), refused=2) == HARMLESS


def test_no_name(agent, arena):
    came_out = arena.refuses(agent, made("no_name"), refused=3)
    assert came_out.items() >= HARMLESS.items()


def test_case_clash(agent, arena):
    came_out = arena.refuses(agent, made("case_clash"))
    assert came_out.pop("Clash.txt") == b"1"
    assert came_out == HARMLESS


def test_duplicate_name(agent, arena):
    came_out = arena.refuses(agent, made("duplicate_name"))
    assert came_out.pop("twice.txt") == b"1"
    assert came_out == HARMLESS


def test_file_and_directory(agent, arena):
    came_out = arena.refuses(agent, made("file_and_directory"))
    assert came_out.pop("node") == b"1"
    assert came_out == HARMLESS


def test_other_local_name(agent, arena):
    came_out = arena.refuses(agent, made("other_local_name"))
    assert came_out.items() >= HARMLESS.items() or came_out == {}


# Links.


def test_symbolic_link(agent, arena):
    came_out = arena.refuses(agent, hostile("symbolic_link", arena), refused=4)
    assert came_out.items() >= HARMLESS.items()


def test_a_link_in_the_destination_is_not_followed(fleet, arena):
    # Wine hides links of the file system from Windows programs.
    agent = fleet.pair("plain", "linux", "linux")[0]
    arena.destination.mkdir(parents=True)
    (arena.destination / "inner").symlink_to(arena.outside)
    (arena.destination / "first.txt").symlink_to(arena.outside / "precious.txt")
    arena.archive.write_bytes(hostile_archives.among_harmless())
    before = arena.surroundings()
    code, _ = extract(agent, arena.archive, arena.destination)
    assert arena.surroundings() == before
    assert code == FAILURE
    assert not (arena.outside / "last.txt").exists()


# Data that are not what they should be.


def test_encrypted(agent, arena):
    assert arena.refuses(agent, made("encrypted")) == HARMLESS


def test_encrypted_with_aes(agent, arena):
    assert arena.refuses(agent, made("encrypted_with_aes")) == HARMLESS


def test_called_encrypted(agent, arena):
    assert arena.refuses(agent, made("called_encrypted")) == HARMLESS


def test_wrong_crc(agent, arena):
    assert arena.refuses(agent, made("wrong_crc")) == HARMLESS


def test_damaged_data(agent, arena):
    assert arena.refuses(agent, made("damaged_data")) == HARMLESS


def test_unknown_method(agent, arena):
    assert arena.refuses(agent, made("unknown_method")) == HARMLESS


def test_truncated(agent, arena):
    assert arena.refuses(agent, made("truncated")) == {}


def test_piece_missing(agent, arena):
    assert arena.refuses(agent, made("piece_missing")) == {}


def test_concatenated(agent, arena):
    assert arena.refuses(agent, made("concatenated")) == {}


def test_data_in_front(agent, arena):
    assert arena.refuses(agent, made("data_in_front")) == {}


def test_trailing_garbage(agent, arena):
    assert arena.refuses(agent, made("trailing_garbage")) == {}


def test_overlapping_entries(agent, arena):
    assert len(arena.refuses(agent, made("overlapping_entries"))) <= 1


def test_shared_data(agent, arena):
    assert len(arena.refuses(agent, made("shared_data"))) <= 1


def test_not_an_archive(agent, arena):
    assert arena.refuses(agent, made("not_an_archive")) == {}


def test_empty_file(agent, arena):
    assert arena.refuses(agent, made("empty_file")) == {}


# More than there should be.


def test_zero_bomb(agent, arena):
    assert arena.refuses(agent, made("zero_bomb")) == HARMLESS


def test_many_bombs(agent, arena):
    came_out = arena.refuses(agent, made("many_bombs"), refused=2)
    assert came_out.items() >= {"first.txt": HARMLESS["first.txt"]}.items()
    # The archive is small, so that 1 GiB may come out of it.
    assert sum(map(len, came_out.values())) <= GIB
    assert came_out["bomb0.bin"] == bytes(600 * MIB)


def test_lying_size(agent, arena):
    assert arena.refuses(agent, made("lying_size")) == HARMLESS


def test_lying_size_reversed(agent, arena):
    assert arena.refuses(agent, made("lying_size_reversed")) == HARMLESS


def test_many_entries(agent, arena, platform):
    # Wine makes files slowly: on a busy machine it takes 20 ms for each.
    count = {"linux": 100_000, "windows": 1_000}[platform]
    arena.archive.write_bytes(hostile_archives.many_entries("", count))
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert sum(len(names) for _, _, names in os.walk(arena.destination)) == count
    assert not arena.archive.exists()
    shutil.rmtree(arena.destination)


@pytest.fixture
def strict_agent(fleet, platform):
    limits = {"max_entries": 1000, "max_bytes": 5_000_000, "max_ratio": 10}
    agent = fleet.make(platform, "strict", archives=limits)
    yield agent
    assert agent.stop() == 0


def test_the_limits_of_the_configuration_hold(strict_agent, platform, arena):
    assert len(arena.refuses(strict_agent, hostile_archives.many_entries("", 1001))) <= 1000
    shutil.rmtree(arena.destination)
    large = hostile_archives.Entry(b"large.bin", os.urandom(5_000_001))
    came_out = arena.refuses(strict_agent, hostile_archives.among_harmless(large))
    assert "large.bin" not in came_out
    shutil.rmtree(arena.destination)
    count = {"linux": 1000, "windows": 100}[platform]
    arena.archive.write_bytes(hostile_archives.many_entries("", count))
    assert extract(strict_agent, arena.archive, arena.destination)[0] == SUCCESS


def test_the_configured_ratio_holds_beyond_the_gibibyte_that_may_come_out_of_any_archive(
        fleet, platform, arena):
    agent = fleet.make(platform, "stingy", archives={"max_ratio": 10})
    # At the ordinary ratio more than this would come out of an archive of that size.
    padding = hostile_archives.Entry(b"padding.bin", os.urandom(8 * MIB), hostile_archives.STORED)
    bomb = hostile_archives.bomb("bomb.bin", 1200)
    data = hostile_archives.among_harmless(padding, bomb)
    assert 200 * len(data) > bomb.size + len(data)
    assert arena.refuses(agent, data) == {**HARMLESS, "padding.bin": padding.data}
    assert agent.stop() == 0


def test_names_that_only_windows_refuses_come_out_where_the_configuration_says_so(
        fleet, arena):
    agent = fleet.make("linux", "liberal", archives={"names": "any"})
    arena.archive.write_bytes(hostile("reserved_name", arena))
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert arena.came_out()["NUL.txt"] == hostile_archives.EVIL
    arena.archive.write_bytes(made("case_clash"))
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert arena.came_out()["clash.TXT"] == b"2"
    assert arena.refuses(agent, hostile("parent_directory", arena), refused=6)
    assert agent.stop() == 0


# Archives as they should be.

NAMES = ["plain.txt", "with blanks.txt", "größe ÄÖÜ.txt", "日本語.txt", "资料/计划 2025.txt",
         "inner/deep/er/file.bin", "no extension", "two.dots.in.name", ".hidden"]
OLD_TIME = 1_000_000_000


@pytest.fixture(scope="module")
def good_tree(tmp_path_factory):
    """A directory with all kinds of names and sizes."""
    directory = tmp_path_factory.mktemp("good")
    for number, name in enumerate(NAMES):
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(os.urandom(number * 4099) + b"x" * 100_000 * (number % 3))
        os.utime(path, (OLD_TIME + number * 1000, OLD_TIME + number * 1000))
    (directory / "empty directory").mkdir()
    (directory / "empty file").write_bytes(b"")
    (directory / "plain.txt").chmod(0o640)
    return directory


def pack_with_python(archive, directory):
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as packed:
        for path in sorted(directory.rglob("*")):
            packed.write(path, path.relative_to(directory))


def pack_stored(archive, directory):
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_STORED) as packed:
        for path in sorted(directory.rglob("*")):
            packed.write(path, path.relative_to(directory))


def pack_as_a_stream(archive, directory):
    """Sizes stand behind the data, as where the output cannot be rewound."""
    class Pipe(io.RawIOBase):
        def __init__(self, file):
            self.file = file

        def writable(self):
            return True

        def write(self, data):
            return self.file.write(data)

    with open(archive, "wb") as file, zipfile.ZipFile(Pipe(file), "w", 8) as packed:
        for path in sorted(directory.rglob("*")):
            packed.write(path, path.relative_to(directory))


def pack_by(*command):
    def pack(archive, directory):
        subprocess.run([*command, str(archive), "."], cwd=directory, check=True,
                       capture_output=True)
    return pack


def pack_by_names(*command):
    """The top entries one by one: no name begins with "./" then."""
    def pack(archive, directory):
        subprocess.run([*command, str(archive), *sorted(os.listdir(directory))], cwd=directory,
                       check=True, capture_output=True)
    return pack


PACKERS = {
    "zip": pack_by("zip", "-r"),
    "zip stored": pack_by("zip", "-r", "-0"),
    "zip without extra": pack_by("zip", "-r", "-X"),
    "zip with zip64": pack_by("zip", "-r", "-fz"),
    "7z": pack_by("7z", "a", "-tzip", "-mcu=on"),
    "bsdtar": pack_by_names("bsdtar", "-a", "-cf"),
    "bsdtar with dots": pack_by("bsdtar", "-a", "-cf"),
    "Python": pack_with_python,
    "Python stored": pack_stored,
    "Python stream": pack_as_a_stream,
}


@pytest.mark.parametrize("packer", PACKERS)
def test_good_archives_come_out_whole_and_are_deleted(agent, platform, arena, good_tree, packer):
    PACKERS[packer](arena.archive, good_tree)

    code, container = extract(agent, arena.archive, arena.destination)

    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert not arena.archive.exists()
    assert files_below(arena.destination) == files_below(good_tree)
    assert (arena.destination / "empty directory").is_dir()
    for name in NAMES:
        expected, actual = (good_tree / name).stat(), (arena.destination / name).stat()
        # The times of MS-DOS, in the local time and of every other second.
        assert abs(expected.st_mtime - actual.st_mtime) <= 2, name
    if platform == "linux" and packer != "7z":
        assert (arena.destination / "plain.txt").stat().st_mode & 0o777 == 0o640


def test_CoreUtilsExtractFile_of_an_empty_archive_succeeds(agent, arena):
    arena.archive.write_bytes(hostile_archives.build([]))
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert arena.destination.is_dir() and not arena.archive.exists()


def test_CoreUtilsExtractFile_replaces_older_files(agent, arena):
    arena.destination.mkdir(parents=True)
    (arena.destination / "first.txt").write_bytes(b"older")
    (arena.destination / "stays.txt").write_bytes(b"stays")
    arena.archive.write_bytes(hostile_archives.among_harmless())
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert arena.came_out() == {**HARMLESS, "stays.txt": b"stays"}


# What can go wrong on this side.


def test_an_entry_that_fails_leaves_the_older_file(agent, arena):
    arena.destination.mkdir(parents=True)
    (arena.destination / "evil.txt").write_bytes(b"older")
    came_out = arena.refuses(agent, made("wrong_crc"))
    assert came_out == {**HARMLESS, "evil.txt": b"older"}


def test_a_missing_archive_fails(agent, arena):
    before = arena.surroundings()
    code, container = extract(agent, arena.directory / "none.zip", arena.destination)
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert arena.surroundings() == before
    assert "does not exists!" in agent.log()


def test_a_destination_that_cannot_be_made_fails(agent, arena):
    arena.archive.write_bytes(hostile_archives.among_harmless())
    (arena.directory / "file").write_bytes(b"in the way")
    before = arena.surroundings()
    code, container = extract(agent, arena.archive, arena.directory / "file/destination")
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert arena.surroundings() == before
    assert "for the backup cannot be created!" in agent.log()


def test_an_entry_that_would_replace_the_archive_does_not_come_out(agent, arena):
    content = hostile_archives.among_harmless(hostile_archives.Entry(b"archive.zip", b"evil"))
    arena.destination.mkdir(parents=True)
    for destination in (arena.directory, arena.directory / "deep/../."):
        arena.archive.write_bytes(content)
        code, container = extract(agent, arena.archive, destination)
        assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
        assert arena.archive.read_bytes() == content
        # The others have come out.
        for name, data in HARMLESS.items():
            assert (arena.directory / name).read_bytes() == data


def test_the_second_call_fails(agent, arena):
    arena.archive.write_bytes(hostile_archives.among_harmless())
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    (code, container), log = new_log(
        agent, lambda: extract(agent, arena.archive, arena.destination))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert f"The file {agent.path(arena.archive)} does not exists!" in log
    assert arena.came_out() == HARMLESS


def test_the_log_tells_of_a_destination_that_was_made(agent, arena):
    line = f"Destination path for the backup '{agent.path(arena.destination)}' has been created."
    for is_missing in (True, False):
        arena.archive.write_bytes(hostile_archives.among_harmless())
        answer, log = new_log(agent, lambda: extract(agent, arena.archive, arena.destination))
        assert (answer[0], line in log) == (SUCCESS, is_missing)


@contextlib.contextmanager
def kept_from_deletion(platform, file):
    """Windows deletes no read-only file, Linux none that something is mounted on."""
    if platform == "windows":
        file.chmod(0o444)
        yield
        return
    subprocess.run(["mount", "--bind", file, file], check=True)
    yield
    subprocess.run(["umount", file], check=True)


def test_an_archive_that_cannot_be_deleted_stays_with_a_warning(agent, platform, arena):
    content = hostile_archives.among_harmless()
    arena.archive.write_bytes(content)
    with kept_from_deletion(platform, arena.archive):
        (code, container), log = new_log(
            agent, lambda: extract(agent, arena.archive, arena.destination))
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert f"Failed to delete the file '{agent.path(arena.archive)}'." in log
    assert arena.archive.read_bytes() == content
    assert arena.came_out() == HARMLESS


def test_a_full_disk_keeps_the_archive_and_leaves_no_piece(agent, arena, small_disk):
    large = hostile_archives.Entry(b"large.bin", os.urandom(3 * MIB))
    arena.archive.write_bytes(hostile_archives.among_harmless(large))
    code, container = extract(agent, arena.archive, small_disk / "destination")
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert arena.archive.exists()
    assert files_below(small_disk) == {"destination/" + name: content
                                       for name, content in HARMLESS.items()}


def test_a_console_user_without_the_role_is_refused(agent, arena):
    arena.archive.write_bytes(hostile_archives.among_harmless())
    status, _, body = agent.request("POST", "/v1/actions/CoreUtilsExtractFile", b"{}",
                                    user="visitor")
    assert (status, b"administrators_only" in body) == (403, True)


def test_memory_does_not_grow_with_what_comes_out(fleet, arena):
    agent = fleet.make("linux", "small")
    large = hostile_archives.Entry(b"large.bin", os.urandom(8) * (6 * MIB))
    arena.archive.write_bytes(hostile_archives.among_harmless(large))
    before = agent.peak_bytes()
    assert extract(agent, arena.archive, arena.destination)[0] == SUCCESS
    assert agent.peak_bytes() - before < 32 * MIB
    assert agent.stop() == 0
