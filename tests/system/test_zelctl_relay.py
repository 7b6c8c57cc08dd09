"""zelctl's verbs over the relay, backups and archives: relay, backup and extract."""

import json
import os
import pty
import re
import subprocess

import pytest

import hostile_archives
from agents import PASSWORDS, REPLY_TIMEOUT_S, clean_environment, program
from cutting_proxy import CuttingProxy
from fleet import aliases
from hostile_archives import HARMLESS
from uploads import MIB, Alias


def run(agent, *arguments, **options):
    done = agent.zelctl(*arguments, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


@pytest.fixture(scope="module")
def pair(fleet, platform):
    """A device and its relay."""
    return fleet.pair("plain", platform, platform)


@pytest.fixture
def source(tmp_path):
    file = tmp_path / "source ü.bin"
    file.write_bytes(os.urandom(MIB + 3))
    return file


def test_relay_put_copies_a_file(pair, tmp_path, source):
    device, relay = pair
    target = tmp_path / "target.bin"
    assert run(device, "relay", "put", device.path(source), relay.path(target)) == (0, "", "")
    assert target.read_bytes() == source.read_bytes()
    assert aliases(relay) == []


def read_until(terminal, pattern):
    """What a program shows until the pattern is there; all of it, if it ends before."""
    shown = ""
    while not re.search(pattern, shown):
        try:
            shown += os.read(terminal, 1000).decode()
        except OSError:
            return shown
    return shown


def test_relay_put_over_tls_shows_on_a_terminal_how_far_it_is(fleet, tmp_path, source):
    relay = fleet.make("linux", "relay", "ssl and pac")
    proxy = CuttingProxy(relay.address())
    device = fleet.make("linux", "device", "ssl and pac", proxy.address())
    source.write_bytes(bytes(40 * MIB))
    target = tmp_path / "target.bin"
    password = tmp_path / "password"
    password.write_text(PASSWORDS["admin"])
    proxy.strike("hold", 2 * MIB)
    terminal, stderr = pty.openpty()
    zelctl = subprocess.Popen(
        program("linux", "zelctl") + ["relay", "put", str(source), str(target)],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=stderr,
        env=clean_environment(ZEL_AGENT=device.url, ZEL_USER="admin", ZEL_PASSWORD_FILE=password,
                              ZEL_CA=fleet.authority.certificate))
    os.close(stderr)
    try:
        line = r"\rsource ü\.bin  \[#*\.+\]  ?\d+%  [\d.]+ [KM]iB"
        shown = read_until(terminal, line)
        assert re.search(line, shown), shown
        proxy.release()
        output = zelctl.communicate(timeout=REPLY_TIMEOUT_S)[0]
        # What it covers the line with.
        assert re.search(r"\r +\r$", read_until(terminal, "never")), shown
    finally:
        zelctl.kill()
        zelctl.wait()
        os.close(terminal)
        proxy.close()
    assert (zelctl.returncode, output) == (0, b"")
    assert target.read_bytes() == source.read_bytes()
    assert device.stop() == 0 and relay.stop() == 0


def test_relay_put_unpacks(pair, tmp_path):
    device, relay = pair
    (tmp_path / "source.zip").write_bytes(hostile_archives.among_harmless())
    (tmp_path / "relay").mkdir()
    assert run(device, "relay", "put", "--unpack", device.path(tmp_path / "source.zip"),
               relay.path(tmp_path / "relay/packed.zip")) == (0, "", "")
    assert [path.name for path in (tmp_path / "relay").iterdir()] == ["packed"]
    assert (tmp_path / "relay/packed/first.txt").read_bytes() == HARMLESS["first.txt"]


def test_relay_put_of_what_does_not_unpack_says_so(pair, tmp_path, source):
    device, relay = pair
    status, output, errors = run(device, "relay", "put", "--unpack", device.path(source),
                                 relay.path(tmp_path / "packed.zip"))
    assert (status, output) == (1, "")
    assert "could not unpack it" in errors and "CoreUtilsCopyFileToRelay: code 1" in errors
    assert (tmp_path / "packed.zip").exists()


def test_relay_put_of_a_missing_file_fails_although_the_action_succeeds(pair, tmp_path):
    device, relay = pair
    status, output, errors = run(device, "relay", "put", device.path(tmp_path / "none"),
                                 relay.path(tmp_path / "target"))
    assert (status, output) == (1, "")
    assert errors.startswith("zelctl: the upload failed")
    assert not (tmp_path / "target").exists()


def test_relay_put_to_a_full_disk_fails_although_the_action_succeeds(pair, source, small_disk):
    device, relay = pair
    source.write_bytes(bytes(3 * MIB))
    status, _, errors = run(device, "relay", "put", device.path(source),
                            relay.path(small_disk / "file"))
    assert (status, errors.startswith("zelctl: the upload failed")) == (1, True), errors
    assert list(small_disk.iterdir()) == []


def test_relay_put_without_a_relay_says_so(agent, source, tmp_path):
    status, _, errors = run(agent, "relay", "put", agent.path(source),
                            agent.path(tmp_path / "target"))
    assert (status, "no relay is configured" in errors) == (1, True), errors


def test_relay_info_tells_both_addresses(pair):
    device, relay = pair
    status, output, errors = run(device, "relay", "info")
    assert (status, errors) == (0, "")
    assert "Relay: 127.0.0.1:%d\n" % relay.address()[1] in output
    assert "Relay's identity: the-relay\n" in output
    assert ":%d\n" % device.address()[1] in output.split("This agent: ")[1]


def test_relay_info_without_a_relay_says_so(agent):
    status, output, errors = run(agent, "relay", "info")
    assert status == 1
    assert output.startswith("This agent: ")
    assert "no relay is configured" in errors


def test_relay_aliases_lists_them(pair, tmp_path):
    relay = pair[1]
    assert run(relay, "relay", "aliases") == (0, "", "")
    alias = Alias(relay, tmp_path, "listed")
    status, output, _ = run(relay, "relay", "aliases")
    lines = output.splitlines()
    assert (status, len(lines)) == (0, 2)
    assert lines[0].split()[:3] == ["ALIAS", "DIRECTORY", "OWNER"]
    assert lines[1].startswith("listed ") and "agent/tester" in lines[1]
    rows = json.loads(run(relay, "--json", "relay", "aliases")[1])["container"]["Values"]
    assert [row["AliasName"] for row in rows] == ["listed"]
    alias.delete()


@pytest.fixture
def kept(tmp_path):
    directory = tmp_path / "kept"
    (directory / "db_20250201").mkdir(parents=True)
    (directory / "db_20250201/file").write_bytes(b"in a directory")
    for name in ("db_20250131.zip", "db_20241231.zip", "web_20250101.zip", "db_20251399.zip"):
        (directory / name).write_bytes(name.encode())
    (directory / "notes.txt").write_bytes(b"no backup")
    return directory


def test_backup_list_tells_the_newest(pair, kept):
    relay = pair[1]
    status, output, errors = run(relay, "backup", "list", relay.path(kept), "db")
    assert (status, errors) == (0, "")
    rows = [line.split() for line in output.splitlines()[1:]]
    assert [row[0] for row in rows] == ["db_20241231.zip", "db_20250131.zip", "db_20250201"]
    assert [row[1] for row in rows] == ["2024-12-31", "2025-01-31", "2025-02-01"]
    assert ["newest" in row for row in rows] == [False, False, True]
    assert "web_20250101.zip" in run(relay, "backup", "list", relay.path(kept))[1]
    status, _, errors = run(relay, "backup", "list", relay.path(kept / "none"))
    assert (status, "cannot be opened" in errors) == (1, True)


def test_backup_list_marks_what_backup_restore_takes(pair, tmp_path):
    device, relay = pair
    (tmp_path / "kept").mkdir()
    for number, name in enumerate(["db_20250131.zip", "db_20260101.ZIP", "db_21060208.zip",
                                   "db_20250401.bak", "old-db_20250201.zip"]):
        (tmp_path / "kept" / name).write_bytes(bytes([number]))
    rows = run(relay, "backup", "list", relay.path(tmp_path / "kept"), "db")[1].splitlines()[1:]
    assert [row.split()[0] for row in rows if "newest" in row] == ["old-db_20250201.zip"]

    assert run(device, "backup", "restore", "--last", "db", "--from",
               relay.path(tmp_path / "kept"), "--to", device.path(tmp_path / "restored"))[0] == 0
    assert os.listdir(tmp_path / "restored") == ["old-db_20250201.zip"]


def test_backup_restore_brings_it_back_and_prints_where_it_is(pair, kept, tmp_path):
    device, relay = pair
    arguments = ["--from", relay.path(kept), "--to", device.path(tmp_path / "restored")]
    status, output, errors = run(device, "backup", "restore", "web_20250101.zip", *arguments)
    assert (status, errors) == (0, "")
    assert output.strip().replace("\\", "/").endswith("/restored/web_20250101.zip")
    assert (tmp_path / "restored/web_20250101.zip").read_bytes() == b"web_20250101.zip"

    status, output, errors = run(device, "backup", "restore", "--last", "db", *arguments,
                                 "--relay", "127.0.0.1:%d" % relay.address()[1])
    assert (status, errors) == (0, "")
    assert output.strip().endswith("/db_20250201.zip")
    assert sorted(os.listdir(tmp_path / "restored")) == ["db_20250201.zip", "web_20250101.zip"]


def test_backup_restore_deletes_no_only_copy_of_a_name_without_its_zip(pair, kept, tmp_path):
    device, relay = pair
    arguments = ["--from", relay.path(kept), "--to", device.path(tmp_path / "restored")]
    status, output, errors = run(device, "backup", "restore", "web_20250101", *arguments)
    assert (status, output) == (2, "")
    assert "web_20250101.zip on the relay is deleted afterwards, be it the only copy" in errors
    assert (kept / "web_20250101.zip").exists()
    assert not (tmp_path / "restored").exists()

    status, output, errors = run(device, "backup", "restore", "--directory", "db_20250201", *arguments)
    assert (status, errors) == (0, "")
    assert output.strip().endswith("/db_20250201.zip")


def test_backup_restore_of_nothing_fails(pair, kept, tmp_path):
    device, relay = pair
    arguments = ["--from", relay.path(kept), "--to", device.path(tmp_path / "restored")]
    # The relay says so.
    status, output, errors = run(device, "backup", "restore", "--directory", "none", *arguments)
    assert (status, output, "no such backup" in errors) == (1, "", True), errors
    # The relay takes it for a success.
    for name in (["none.zip"], ["--last", "none"]):
        status, output, errors = run(device, "backup", "restore", *name, *arguments)
        assert (status, output) == (1, ""), name
        assert errors.startswith("zelctl: the upload failed"), errors
    assert not (tmp_path / "restored/none.zip").exists()


def test_extract_unpacks_and_says_when_something_is_left(agent, tmp_path):
    archive, target = tmp_path / "archive.zip", tmp_path / "target"
    archive.write_bytes(hostile_archives.among_harmless())
    assert run(agent, "extract", agent.path(archive), agent.path(target)) == (0, "", "")
    assert (target / "inner/last.txt").read_bytes() == HARMLESS["inner/last.txt"]
    assert not archive.exists()

    archive.write_bytes(hostile_archives.wrong_crc(""))
    status, output, errors = run(agent, "extract", agent.path(archive), agent.path(target))
    assert (status, output) == (1, "")
    assert "could not be unpacked wholly" in errors and "CoreUtilsExtractFile: code 1" in errors
    assert archive.exists()
    assert run(agent, "extract", agent.path(tmp_path / "none"), agent.path(target))[0] == 1


def test_visitors_may_do_none_of_it(agent, tmp_path):
    path = agent.path(tmp_path)
    for arguments in (["relay", "put", path, path], ["extract", path, path],
                      ["backup", "restore", "x.zip", "--from", path, "--to", path, "--relay",
                       "127.0.0.1:1"]):
        status, _, errors = run(agent, *arguments, user="visitor")
        assert (status, "administrator" in errors) == (3, True), (arguments, errors)
