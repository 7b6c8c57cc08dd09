"""CoreUtilsRestoreBackupFromRelay and CoreUtilsRestoreBackup: backups come back."""

import contextlib
import os
import pathlib
import stat
import subprocess
import zipfile

import pytest

from agents import without_caller
from backups import OLD_TIME, PRIVATE, Backups
from fleet import aliases
from uploads import FAILURE, LOST, MIB, PROTECTION, SUCCESS, new_log


def slashes(text):
    return text.replace("\\", "/")


def test_CoreUtilsRestoreBackupFromRelay_brings_the_newest(pair, backups):
    device, relay = pair
    names = ["db_20240101.zip", "db_20241231.zip", "db_20250230.zip", "db_20251301.zip",
             "db_20250931.zip", "other_20260101.zip", "db_2026.zip", "db_19991231.zip"]
    # Wine takes every year for a leap year.
    names += ["db_20250229.zip"] if relay.platform == "linux" else []
    for name in names:
        backups.add(name, name.encode())
    newest = backups.add("db_20250131.zip")

    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "db", True))

    assert code == SUCCESS, (device.log()[-1500:], log)
    assert container == {"Name": slashes(device.path(backups.restored)) + "/db_20250131.zip",
                         "ErrorCode": 0}
    assert backups.arrived() == {"db_20250131.zip": newest}, log
    assert (backups.kept / "db_20250131.zip").read_bytes() == newest
    assert aliases(device) == []
    assert "copying file " in log and "Deleting alias backup" in log


def test_CoreUtilsRestoreBackup_packs_a_directory_and_deletes_the_archive(pair, backups):
    device, relay = pair
    content = backups.add_directory("db_20250131")
    code, container = backups.restore(device, relay, "db", True)
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert container["Name"].endswith("/restored/db_20250131.zip")
    assert list(backups.arrived()) == ["db_20250131.zip"]
    with zipfile.ZipFile(backups.restored / "db_20250131.zip") as archive:
        assert archive.testzip() is None
        assert {name: archive.read(name) for name in archive.namelist()
                if not name.endswith("/")} == content
    assert sorted(os.listdir(backups.kept)) == ["db_20250131"]


def test_CoreUtilsRestoreBackup_called_on_the_relay_itself(plain_pair, backups):
    device, relay = plain_pair
    content = backups.add("one.zip")
    host, port = device.address()
    code, container = relay.call(
        "CoreUtilsRestoreBackup", SourcePath=relay.path(backups.kept),
        DestinationPath=device.path(backups.restored), Name="one.zip", Last=False, HostName=host,
        HttpPort=port)
    assert (code, container) == (SUCCESS, {
        "Name": slashes(device.path(backups.restored)) + "/one.zip", "ErrorCode": 0})
    assert backups.arrived() == {"one.zip": content}
    assert (backups.kept / "one.zip").exists()


def test_CoreUtilsRestoreBackup_of_nothing_keeps_its_parameters(plain_pair, backups):
    device, relay = plain_pair
    host, port = device.address()
    parameters = {"SourcePath": relay.path(backups.kept),
                  "DestinationPath": device.path(backups.restored), "Name": "none", "Last": False,
                  "HostName": host, "HttpPort": port}
    (code, container), log = new_log(
        relay, lambda: relay.call("CoreUtilsRestoreBackup", **parameters))
    assert (code, without_caller(container)) == (FAILURE, parameters)
    assert "Failed to find the zip file to restore: " in log
    assert os.listdir(backups.kept) == [] and backups.arrived() == {}


@pytest.mark.parametrize("first", ["directory", "archive"])
def test_of_a_directory_and_an_archive_of_one_date_the_one_listed_last_wins(
        plain_pair, backups, first):
    device, relay = plain_pair
    if first == "directory":
        backups.add_directory("db_20250131")
    content = backups.add("db_20250131.zip")
    if first == "archive":
        backups.add_directory("db_20250131")
    # Wine sorts what it lists.
    listed = os.listdir(backups.kept) if relay.platform == "linux" else sorted(
        os.listdir(backups.kept))

    code, container = backups.restore(device, relay, "db", True)

    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert backups.arrived() == {"db_20250131.zip": content}
    # An archive that is chosen itself stays; beside a directory that is chosen it goes.
    assert (backups.kept / "db_20250131.zip").exists() == (listed[-1] == "db_20250131.zip")


def files_below(directory):
    """{name: content} of the files below a directory."""
    return {path.relative_to(directory).as_posix(): path.read_bytes()
            for path in directory.rglob("*") if path.is_file()}


def has_old_times(directory):
    return all(abs((directory / name).stat().st_mtime - time) <= 2 for name, time in (
        (PRIVATE, OLD_TIME), ("plain.txt", OLD_TIME), (PRIVATE + "/file.bin", OLD_TIME + 200)))


def permissions(path):
    return stat.S_IMODE(path.stat().st_mode)


def test_what_is_packed_unpacks_everywhere(plain_pair, backups, tmp_path):
    device, relay = plain_pair
    content = backups.add_directory("tree")
    assert backups.restore(device, relay, "tree")[0] == SUCCESS
    archive = backups.restored / "tree.zip"
    for check in (["unzip", "-t"], ["7z", "t"], ["bsdtar", "-tf"]):
        done = subprocess.run([*check, str(archive)], capture_output=True)
        assert done.returncode == 0, (check, done.stdout, done.stderr)

    target = tmp_path / "unzipped"
    subprocess.run(["unzip", "-q", str(archive), "-d", str(target)], check=True,
                   env=dict(os.environ, LC_ALL="C.UTF-8"))
    assert files_below(target) == content
    assert (target / "empty directory").is_dir()
    assert has_old_times(target)

    again = tmp_path / "by the agent"
    assert device.call("CoreUtilsExtractFile", FilePath=device.path(archive),
                       DestinationPath=device.path(again))[0] == SUCCESS
    assert files_below(again) == content
    assert has_old_times(again)
    if relay.platform == "linux":
        assert permissions(target / PRIVATE) == permissions(again / PRIVATE) == 0o700


@pytest.mark.parametrize("device_platform, relay_platform",
                         [("linux", "windows"), ("windows", "linux")])
def test_what_one_platform_packs_the_other_one_unpacks(
        fleet, backups, tmp_path, device_platform, relay_platform):
    device, relay = fleet.pair("ssl and pac", device_platform, relay_platform)
    content = backups.add_directory("tree")
    (backups.kept / "tree/plain.txt").chmod(0o444)
    assert backups.restore(device, relay, "tree")[0] == SUCCESS
    unpacked = tmp_path / "unpacked"
    assert device.call("CoreUtilsExtractFile", FilePath=device.path(backups.restored / "tree.zip"),
                       DestinationPath=device.path(unpacked))[0] == SUCCESS
    assert files_below(unpacked) == content
    assert (unpacked / "empty directory").is_dir()
    assert has_old_times(unpacked)
    is_read_only = {path.name: permissions(path) & 0o222 == 0
                    for path in unpacked.rglob("*") if path.is_file()}
    assert [name for name, fixed in is_read_only.items() if fixed] == ["plain.txt"]


def test_links_are_not_packed(fleet, backups, tmp_path):
    # Wine hides links of the file system from Windows programs.
    device, relay = fleet.pair("plain", "linux", "linux")
    content = backups.add_directory("tree")
    (tmp_path / "secret").write_bytes(b"secret")
    (backups.kept / "tree/link").symlink_to(tmp_path / "secret")
    (backups.kept / "tree/loop").symlink_to(backups.kept)
    assert backups.restore(device, relay, "tree")[0] == SUCCESS
    with zipfile.ZipFile(backups.restored / "tree.zip") as archive:
        assert {name for name in archive.namelist() if not name.endswith("/")} == set(content)


def test_an_archive_beside_a_directory_of_its_name_is_sent_and_deleted(plain_pair, backups):
    device, relay = plain_pair
    backups.add_directory("db_20250131")
    content = backups.add("db_20250131.zip")
    code, container = backups.restore(device, relay, "db_20250131")
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert backups.arrived() == {"db_20250131.zip": content}
    assert sorted(os.listdir(backups.kept)) == ["db_20250131"]


def test_no_backup_that_matches_is_told_by_the_log_alone(plain_pair, backups):
    device, relay = plain_pair
    backups.add("other_20250131.zip")
    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "db", True))
    assert (code, container) == (SUCCESS, {
        "Name": slashes(device.path(backups.restored)) + "/", "ErrorCode": 0})
    assert backups.arrived() == {}
    assert LOST in log
    assert sorted(os.listdir(backups.kept)) == ["other_20250131.zip"]


def test_a_directory_that_cannot_be_opened_is_told_by_the_log_alone(talkative_pair_with, backups):
    device, relay = talkative_pair_with("ssl")
    backups.kept = backups.kept / "none"
    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "db", True))
    assert (code, container) == (SUCCESS, {
        "Name": slashes(device.path(backups.restored)) + "/", "ErrorCode": 0})
    assert "Directory access error !" in log and LOST in log
    assert backups.arrived() == {}


@contextlib.contextmanager
def drive_of_wine(letter, directory):
    """Its root. Wine's drives are there when a first program has run."""
    link = pathlib.Path(os.environ["ZEL_WINEPREFIX"]) / "dosdevices" / f"{letter}:"
    link.symlink_to(directory)
    yield f"{letter}:\\"
    link.unlink()


def test_a_volume_without_entries_is_told_by_the_log_alone(fleet, backups):
    # Every other directory has at least "." and "..".
    device, relay = fleet.pair("ssl", "windows", "windows", log={"level": "detail"})
    host, port = device.address()
    with drive_of_wine("q", backups.kept) as root:
        (code, container), log = new_log(relay, lambda: relay.call(
            "CoreUtilsRestoreBackup", SourcePath=root,
            DestinationPath=device.path(backups.restored), Name="db", Last=True, HostName=host,
            HttpPort=port))
    assert (code, container) == (SUCCESS, {
        "Name": slashes(device.path(backups.restored)) + "/", "ErrorCode": 0})
    assert "File access error !" in log and LOST in log
    assert backups.arrived() == {}


@pytest.mark.parametrize("mode", PROTECTION)
def test_the_log_tells_how_a_restore_is_protected(talkative_pair_with, backups, mode):
    device, relay = talkative_pair_with(mode)
    backups.add("one.zip")
    answer, log = new_log(relay, lambda: backups.restore(device, relay, "one.zip"))
    assert answer[0] == SUCCESS
    assert {one for one, line in PROTECTION.items() if line in log} == {mode}


def test_a_backup_that_is_not_there_fails(plain_pair, backups):
    device, relay = plain_pair
    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "none"))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to find the zip file to restore: " in log
    assert "Failed to call action CoreUtilsRestoreBackup on relay" in device.log()


def test_an_archive_that_is_not_there_is_told_by_the_log_alone(plain_pair, backups):
    device, relay = plain_pair
    (code, _), log = new_log(relay, lambda: backups.restore(device, relay, "none.zip"))
    assert (code, LOST in log) == (SUCCESS, True)
    assert backups.arrived() == {}


def test_a_device_that_cannot_be_reached(plain_pair, backups):
    device, relay = plain_pair
    backups.add("one.zip")
    (code, container), log = new_log(
        relay, lambda: backups.restore(device, relay, "one.zip", back_to=("127.0.0.1", 1)))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to add alias backup" in log


@pytest.mark.parametrize("mode", ["plain", "ssl and pac"])
def test_two_devices_restore_from_one_relay(fleet, backups, tmp_path, mode):
    device, relay = fleet.pair(mode, "linux", "linux")
    second = fleet.make("windows", "second", mode, relay.address())
    content = backups.add("one.zip")
    others = Backups.__new__(Backups)
    others.kept, others.restored = backups.kept, tmp_path / "second"
    assert backups.restore(device, relay, "one.zip")[0] == SUCCESS
    assert others.restore(second, relay, "one.zip")[0] == SUCCESS
    assert backups.arrived() == others.arrived() == {"one.zip": content}
    assert second.stop() == 0


def test_progress_is_told(plain_pair, backups):
    device, relay = plain_pair
    backups.add("progress.zip")
    assert backups.restore(device, relay, "progress.zip")[0] == SUCCESS
    size = 2 * MIB + 5
    sent = [row for row in relay.call("AgentGetProgress")[1]["Values"]
            if row["Name"].endswith("progress.zip")]
    received = [row for row in device.call("AgentGetProgress")[1]["Values"]
                if row["Name"].endswith("progress.zip")]
    for rows, kind in ((sent, "send"), (received, "receive")):
        row = rows[-1]
        assert (row["Kind"], row["DoneBytes"], row["TotalBytes"], row["Running"],
                row["Failure"]) == (kind, size, size, False, "")
