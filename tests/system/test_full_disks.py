"""Disks that become full while files are sent, packed, received, written or unpacked."""

import base64
import os
import socket
import subprocess
import zipfile

import pytest

from agents import REPLY_TIMEOUT_S
from fleet import aliases
from uploads import FAILURE, LOST, MIB, SUCCESS, Alias, begin_upload, host_of, new_log

KIB = 1024


def status_of(connection):
    return int(connection.recv(1000).split()[1])


def put_in_chunks(alias, target, size):
    """The status of an upload whose length is not told beforehand."""
    header = (f"PUT {target} HTTP/1.1\r\nHost: {host_of(alias.agent)}\r\n"
              f"Authorization: {alias.login}\r\nTransfer-Encoding: chunked\r\n\r\n")
    piece = b"10000\r\n" + bytes(64 * KIB) + b"\r\n"
    with socket.create_connection(alias.agent.address(), REPLY_TIMEOUT_S) as connection:
        connection.sendall(header.encode())
        try:
            for _ in range(size // (64 * KIB)):
                connection.sendall(piece)
            connection.sendall(b"0\r\n\r\n")
        except ConnectionError:
            pass  # the answer may be there all the same
        return status_of(connection)


@pytest.fixture
def alias(plain_pair, small_disk):
    made = Alias(plain_pair[1], small_disk)
    yield made
    made.delete()


def make_room(small_disk):
    subprocess.run(["mount", "-o", "remount,size=4m", small_disk], check=True)


def names(directory):
    return sorted(path.name for path in directory.iterdir())


def test_an_upload_that_does_not_fit_is_not_begun(plain_pair, place, small_disk):
    device, relay = plain_pair
    place.directory = small_disk
    place.target = small_disk / "file"
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], "Error 507: " + LOST in log) == (SUCCESS, True), log
    assert place.stored() == {}
    assert aliases(relay) == []

    make_room(small_disk)
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {"file": place.content}


def test_an_upload_of_unknown_length_that_fills_the_disk_leaves_nothing(alias, small_disk):
    (small_disk / "older").write_bytes(b"older")
    assert put_in_chunks(alias, "/drop/older", 3 * MIB) == 507
    assert names(small_disk) == ["older"]
    assert (small_disk / "older").read_bytes() == b"older"
    # There is room again.
    assert put_in_chunks(alias, "/drop/older", 512 * KIB) == 201
    assert (small_disk / "older").read_bytes() == bytes(512 * KIB)


def test_two_uploads_that_fit_alone_but_not_together(alias, small_disk):
    size = 700 * KIB
    with begin_upload(alias, "/drop/first", size, 64 * KIB) as first, \
            begin_upload(alias, "/drop/second", size, 64 * KIB) as second:
        first.sendall(bytes(size - 64 * KIB))
        assert status_of(first) == 201
        second.sendall(bytes(size - 64 * KIB))
        assert status_of(second) == 507
    assert names(small_disk) == ["first"]


def test_a_directory_whose_archive_does_not_fit_is_not_sent(plain_pair, backups, small_disk):
    device, relay = plain_pair
    backups.kept = small_disk
    (small_disk / "tree").mkdir()
    (small_disk / "tree/file").write_bytes(os.urandom(700 * KIB))
    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "tree"))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to find the zip file to restore: " in log
    assert names(small_disk) == ["tree"]
    assert backups.arrived() == {}

    make_room(small_disk)
    assert backups.restore(device, relay, "tree")[0] == SUCCESS
    assert list(backups.arrived()) == ["tree.zip"]
    assert names(small_disk) == ["tree"]


def test_a_backup_that_does_not_fit_on_the_device_arrives_when_there_is_room(
        plain_pair, backups, small_disk):
    device, relay = plain_pair
    content = backups.add("one.zip")
    backups.restored = small_disk
    (code, container), log = new_log(relay, lambda: backups.restore(device, relay, "one.zip"))
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert "Error 507: " + LOST in log, log
    assert backups.arrived() == {}
    assert aliases(device) == []

    make_room(small_disk)
    assert backups.restore(device, relay, "one.zip")[0] == SUCCESS
    assert backups.arrived() == {"one.zip": content}


def write_text(agent, path, text):
    return agent.call("CoreUtilsWriteFile", Path=agent.path(path),
                      FileContent=base64.b64encode(text).decode())


def test_text_that_does_not_fit_leaves_the_old_one(agent, small_disk):
    file = small_disk / "file.txt"
    old = b"old " * (75 * KIB)
    file.write_bytes(old)
    # The old text's copy fits, the new text does not; then not even the copy does.
    assert write_text(agent, file, b"new " * (200 * KIB)) == (FAILURE, {"Result": ""})
    assert (names(small_disk), file.read_bytes()) == (["file.txt"], old)
    (small_disk / "other").write_bytes(bytes(600 * KIB))
    assert write_text(agent, file, b"new") == (FAILURE, {"Result": ""})
    assert (names(small_disk), file.read_bytes()) == (["file.txt", "other"], old)

    (small_disk / "other").unlink()
    assert write_text(agent, file, b"new")[0] == SUCCESS
    assert file.read_bytes().endswith(b"new")
    assert names(small_disk) == ["file.txt"]


def test_an_archive_that_does_not_fit_stays_and_comes_out_when_there_is_room(
        agent, small_disk, tmp_path):
    archive = tmp_path / "archive.zip"
    content = {"first": os.urandom(300 * KIB), "second": os.urandom(900 * KIB), "third": b"third"}
    with zipfile.ZipFile(archive, "w") as zipped:
        for name, data in content.items():
            zipped.writestr(name, data)
    parameters = {"FilePath": agent.path(archive), "DestinationPath": agent.path(small_disk)}
    (code, container), log = new_log(
        agent, lambda: agent.call("CoreUtilsExtractFile", **parameters))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert log.count("Error during extracting file: ") == 1, log
    # What fits stays, of what does not fit nothing.
    assert {path.name: path.read_bytes() for path in small_disk.iterdir()} == {
        name: content[name] for name in ("first", "third")}

    make_room(small_disk)
    assert agent.call("CoreUtilsExtractFile", **parameters)[0] == SUCCESS
    assert {path.name: path.read_bytes() for path in small_disk.iterdir()} == content
    assert not archive.exists()
