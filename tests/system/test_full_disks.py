"""Disks that become full while files are sent, packed or received."""

import os
import socket
import subprocess

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

    subprocess.run(["mount", "-o", "remount,size=4m", small_disk], check=True)
    assert backups.restore(device, relay, "one.zip")[0] == SUCCESS
    assert backups.arrived() == {"one.zip": content}
