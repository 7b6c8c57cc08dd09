"""CoreUtilsCopyFileToRelay: uploads from one agent to another, and what can go wrong with them."""

import threading

import pytest

import hostile_archives
from fleet import SECRET, aliases, fleet_password
from hostile_archives import HARMLESS
from uploads import FAILURE, LOST, MIB, PROTECTION, SUCCESS, new_log
from web_server import RelayOfOtherMake

# Uploads that succeed.


def test_CoreUtilsCopyFileToRelay_stores_the_bytes(pair, place):
    device, relay = pair
    (code, container), log = new_log(device, lambda: place.upload(device, relay))
    assert (code, container["ErrorCode"]) == (SUCCESS, 0), log
    assert place.stored() == {place.target.name: place.content}, log
    assert place.source.exists()
    assert aliases(relay) == []
    assert "Sender is '" in log and "' and Receiver is '127.0.0.1:" in log
    assert "copying file " in log and LOST not in log


@pytest.mark.parametrize("mode", ["plain", "ssl"])
def test_an_upload_is_understood_by_a_server_of_other_make(
        fleet, platform, place, tmp_path, mode):
    tls = fleet.authority.issue(f"other-{platform}") if mode == "ssl" else None
    other = RelayOfOtherMake(tmp_path / "nginx", tls)
    device = fleet.make(platform, "device", mode, other.address())
    for size in (0, 1000, len(place.content)):
        place.source.write_bytes(place.content[:size])
        (code, _), log = new_log(device, lambda: place.upload(device, device))
        assert (code, LOST in log) == (SUCCESS, False), log
        stored = [path for path in other.store.rglob("*") if path.is_file()]
        assert [path.name for path in stored] == [place.target.name]
        assert stored[0].read_bytes() == place.content[:size]
        stored[0].unlink()
    assert device.stop() == 0
    other.stop()


def test_no_log_tells_a_secret(fleet, pair, place):
    device, relay = pair
    place.upload(device, relay)
    place.source.unlink()
    place.upload(device, relay)
    for agent in (device, relay):
        told = agent.log() + (agent.home / "log/audit.jsonl").read_text(errors="replace")
        for name in ("device", "relay", "tester"):
            assert fleet_password(name) not in told
        assert SECRET not in told


def test_no_log_tells_a_secret_where_nobody_answers(fleet, place):
    device = fleet.make("linux", "device", parent=("127.0.0.1", 1))
    place.upload(device, device)
    device.call("CoreUtilsRestoreBackupFromRelay", HostName="127.0.0.1", HttpPort=1, Values={})
    device.call("CoreUtilsRestoreBackupFromRelay", HostName="no such host", HttpPort=1, Values={})
    told = device.log() + (device.home / "log/audit.jsonl").read_text(errors="replace")
    assert fleet_password("device") not in told and SECRET not in told
    assert device.stop() == 0


def test_CoreUtilsCopyFileToRelay_unpacks_archives(pair, place):
    device, relay = pair
    place.source.write_bytes(hostile_archives.among_harmless())
    place.target = place.directory / "packed.zip"
    code, container = place.upload(device, relay, IsZippedFile=True)
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert [path.name for path in place.directory.iterdir()] == ["packed"]
    for name, content in HARMLESS.items():
        assert (place.directory / "packed" / name).read_bytes() == content
    assert aliases(relay) == []


def test_an_upload_makes_the_directory_and_replaces_an_older_file(plain_pair, place):
    device, relay = plain_pair
    place.directory = place.directory / "new/directory"
    place.target = place.directory / "file"
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {"file": place.content}
    place.source.write_bytes(b"second")
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {"file": b"second"}


@pytest.mark.parametrize("content", [b"", b"x", bytes(65536)], ids=["empty", "byte", "buffer"])
def test_small_files_arrive(plain_pair, place, content):
    device, relay = plain_pair
    place.source.write_bytes(content)
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {place.target.name: content}


@pytest.mark.parametrize("name", ["a b", "per%cent", "plus+&=#", "semi;colon",
                                  "größe 日本 😀", "x" * 200, ".hidden"])
def test_odd_names_arrive(plain_pair, place, name):
    device, relay = plain_pair
    place.target = place.directory / name
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {name: place.content}


def test_a_name_that_looks_encoded_twice_is_refused(plain_pair, place):
    device, relay = plain_pair
    place.target = place.directory / "per%2ecent"
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], LOST in log) == (SUCCESS, True)
    assert place.stored() == {}


def test_what_does_not_unpack_on_the_relay_fails(plain_pair, place):
    device, relay = plain_pair
    place.target = place.directory / "packed.zip"
    (code, container), log = new_log(
        device, lambda: place.upload(device, relay, IsZippedFile=True))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to extract '" in log
    assert place.target.read_bytes() == place.content


def test_after_a_failed_upload_what_is_there_is_unpacked(plain_pair, place):
    device, relay = plain_pair
    place.target = place.directory / "packed.zip"
    place.target.write_bytes(hostile_archives.among_harmless())
    place.source.unlink()

    (code, container), log = new_log(
        device, lambda: place.upload(device, relay, IsZippedFile=True))
    assert (code, container["ErrorCode"], LOST in log) == (SUCCESS, SUCCESS, True)
    assert [path.name for path in place.directory.iterdir()] == ["packed"]
    for name, content in HARMLESS.items():
        assert (place.directory / "packed" / name).read_bytes() == content

    # Now there is nothing to unpack.
    (code, container), log = new_log(
        device, lambda: place.upload(device, relay, IsZippedFile=True))
    assert (code, container["ErrorCode"], LOST in log) == (FAILURE, FAILURE, True)
    assert "Failed to extract '" in log
    assert aliases(relay) == []


@pytest.mark.parametrize("mode", PROTECTION)
def test_the_log_tells_how_an_upload_is_protected(talkative_pair_with, place, mode):
    device, relay = talkative_pair_with(mode)
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert answer[0] == SUCCESS
    assert {one for one, line in PROTECTION.items() if line in log} == {mode}


def test_uploads_side_by_side_do_not_mix(plain_pair, place):
    device, relay = plain_pair
    answers = []

    def upload(target):
        answers.append(device.call("CoreUtilsCopyFileToRelay",
                                   SourcePath=device.path(place.source),
                                   DestinationPath=relay.path(target))[0])

    targets = [place.directory / f"file{number}" for number in range(8)]
    threads = [threading.Thread(target=upload, args=(target,)) for target in targets]
    for one in threads:
        one.start()
    for one in threads:
        one.join()
    assert answers == [SUCCESS] * 8
    assert all(target.read_bytes() == place.content for target in targets)
    assert aliases(relay) == []


@pytest.mark.parametrize("mode", ["plain", "ssl and pac"])
def test_memory_does_not_grow_with_the_file(fleet, place, mode):
    device, relay = fleet.pair(mode, "linux", "linux")
    assert place.upload(device, relay)[0] == SUCCESS
    with open(place.source, "wb") as file:
        file.truncate(100 * MIB)
    before = device.peak_bytes(), relay.peak_bytes()
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.target.stat().st_size == 100 * MIB
    place.target.unlink()
    assert device.peak_bytes() - before[0] < 32 * MIB
    assert relay.peak_bytes() - before[1] < 32 * MIB


@pytest.mark.parametrize("device_mode, relay_mode, arrives", [
    ("pac", "plain", True), ("plain", "pac", False), ("ssl and pac", "ssl", True),
    ("ssl", "ssl ext", True), ("ssl", "plain", False)])
def test_members_that_are_configured_differently(
        fleet, place, device_mode, relay_mode, arrives):
    relay = fleet.make("linux", "relay", relay_mode)
    device = fleet.make("linux", "device", device_mode, relay.address())
    code, container = place.upload(device, relay)
    assert (code == SUCCESS) == (container["ErrorCode"] == SUCCESS) == arrives
    assert place.stored() == ({place.target.name: place.content} if arrives else {})
    assert device.stop() == 0 and relay.stop() == 0


# Uploads that do not begin.


def test_a_relay_that_is_not_there(fleet, place):
    device = fleet.make("linux", "device", parent=("127.0.0.1", 1))
    (code, container), log = new_log(device, lambda: place.upload(device, device))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to add alias backup" in log
    assert device.stop() == 0


def test_no_relay_at_all(fleet, place):
    device = fleet.make("linux", "device")
    assert device.call("RelayGetValues")[0] == FAILURE
    (code, container), log = new_log(device, lambda: place.upload(device, device))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "the address is not a URL" in log and "Failed to add alias backup" in log
    assert "Sender is '" not in log and "copying file " not in log
    assert place.stored() == {}
    assert device.stop() == 0


def test_a_destination_without_a_directory_is_refused(plain_pair, place):
    device, relay = plain_pair
    (code, container), log = new_log(device, lambda: device.call(
        "CoreUtilsCopyFileToRelay", SourcePath=device.path(place.source),
        DestinationPath="file.zip"))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to add alias backup" in log and "copying file " not in log
    assert aliases(relay) == []


@pytest.mark.parametrize("what", ["missing", "directory"])
def test_a_source_that_cannot_be_read(plain_pair, place, what):
    device, relay = plain_pair
    place.source = place.source.parent / what
    if what == "directory":
        place.source.mkdir()
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], LOST in log) == (SUCCESS, True)
    assert place.stored() == {}
    assert aliases(relay) == []
