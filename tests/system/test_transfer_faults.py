"""Transfers that something comes between: nothing partial stays, and the next attempt succeeds."""

import random
import re
import subprocess
import threading

import pytest

from agents import REPLY_TIMEOUT_S
from cutting_proxy import MOST_CALL_BYTES, CuttingProxy
from fleet import aliases
from uploads import FAILURE, LOST, MIB, SUCCESS, new_log, wait_for

# A busy machine may well give an agent nothing to do for a second.
STALL_MS = 3000
MODES = ["plain", "ssl and pac"]
# Numbers of libcurl and statuses of HTTP; 99: it never began.
LOST_ON_THE_WAY = re.compile(r"Error (?!99:)[1-9][0-9]*: " + LOST)


class Link:
    """A device and its relay whose ways to each other lead through proxies."""

    def __init__(self, fleet, mode, platform, **relay_settings):
        self.mode = mode
        self.relay = fleet.make(platform, "relay", mode, relay=relay_settings)
        self.to_relay = CuttingProxy(self.relay.address())
        self.device = fleet.make(platform, "device", mode, self.to_relay.address(),
                                 relay=relay_settings)
        self.to_device = CuttingProxy(self.device.address())

    def upload(self, place):
        return place.upload(self.device, self.relay)

    def restore(self, backups, name):
        return backups.restore(self.device, self.relay, name, back_to=self.to_device.address())

    def end(self):
        for one in (self.to_relay, self.to_device):
            one.close()
        assert self.device.stop() == 0
        assert self.relay.stop() == 0


@pytest.fixture(scope="module", params=MODES)
def link(fleet, platform, request):
    made = Link(fleet, request.param, platform)
    yield made
    made.end()


@pytest.fixture(scope="module", params=MODES)
def impatient_link(fleet, platform, request):
    """One whose agents give up a transfer that stalls for STALL_MS."""
    made = Link(fleet, request.param, platform, stall_timeout_ms=STALL_MS)
    yield made
    made.end()


def upload_under(fault, after, link, place, left=None):
    """Uploads while the proxy strikes, then again: of the first try nothing may be left."""
    link.to_relay.strike(fault, after)
    (code, container), log = new_log(link.device, lambda: link.upload(place))
    assert link.to_relay.struck.is_set()
    # Whether the file arrived is told by the log alone.
    assert (code, container["ErrorCode"]) == (SUCCESS, 0), log
    assert LOST_ON_THE_WAY.search(log), log
    wait_for(lambda: place.stored() == (left or {}), 5)
    wait_for(lambda: aliases(link.relay) == [], 5)

    (code, _), log = new_log(link.device, lambda: link.upload(place))
    assert code == SUCCESS, log
    assert place.stored() == {place.target.name: place.content}, log


def points(seed, size):
    return random.Random(seed).sample(range(MOST_CALL_BYTES, size), 10)


@pytest.mark.parametrize("after", points(20250501, 3 * MIB))
def test_an_upload_that_is_cut_leaves_nothing(link, place, after):
    upload_under("cut", after, link, place)


def test_an_upload_that_is_cut_in_its_header_leaves_nothing(fleet, platform, place):
    link = Link(fleet, "plain", platform)
    for after in (1, 100):
        place.target.unlink(missing_ok=True)
        upload_under("cut", after, link, place)
    link.end()


@pytest.mark.parametrize("after", [MOST_CALL_BYTES, 2 * MIB])
def test_an_upload_that_is_half_closed_leaves_nothing(impatient_link, place, after):
    upload_under("half-close", after, impatient_link, place)


def test_an_upload_that_stalls_is_given_up(impatient_link, place):
    upload_under("stall", 2 * MIB, impatient_link, place)


def test_an_older_file_survives_an_upload_that_is_cut(link, place):
    place.target.write_bytes(b"older")
    upload_under("cut", MIB, link, place, left={place.target.name: b"older"})


def test_a_disk_that_becomes_full_in_the_midst_of_an_upload(link, place, small_disk):
    subprocess.run(["mount", "-o", "remount,size=8m", small_disk], check=True)
    place.source.write_bytes(bytes(6 * MIB))
    place.directory, place.target = small_disk, small_disk / "stored"
    link.to_relay.strike("hold", 2 * MIB)
    answers = []
    thread = threading.Thread(
        target=lambda: answers.append(new_log(link.device, lambda: link.upload(place))))
    thread.start()
    assert link.to_relay.struck.wait(REPLY_TIMEOUT_S)
    # There was room when the upload began.
    (small_disk / "other").write_bytes(bytes(5 * MIB))
    link.to_relay.release()
    thread.join(REPLY_TIMEOUT_S)
    (code, container), log = answers[0]
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert "Error 507: " + LOST in log, log
    assert [path.name for path in small_disk.iterdir()] == ["other"]
    assert aliases(link.relay) == []

    (small_disk / "other").unlink()
    assert link.upload(place)[0] == SUCCESS
    assert place.stored() == {"stored": bytes(6 * MIB)}


def restore_under(fault, after, link, backups):
    """Restores while the proxy strikes, then again; the relay's log tells what happened."""
    content = backups.add("one.zip")
    link.to_device.strike(fault, after)
    (code, container), log = new_log(link.relay, lambda: link.restore(backups, "one.zip"))
    assert link.to_device.struck.is_set()
    assert (code, container["ErrorCode"]) == (SUCCESS, 0), log
    assert LOST_ON_THE_WAY.search(log), log
    wait_for(lambda: backups.arrived() == {}, 5)
    wait_for(lambda: aliases(link.device) == [], 5)

    assert link.restore(backups, "one.zip")[0] == SUCCESS
    assert backups.arrived() == {"one.zip": content}


@pytest.mark.parametrize("after", points(20250502, 2 * MIB))
def test_a_restore_that_is_cut_leaves_nothing(link, backups, after):
    restore_under("cut", after, link, backups)


def test_a_restore_that_is_half_closed_leaves_nothing(impatient_link, backups):
    restore_under("half-close", MIB, impatient_link, backups)


def test_a_restore_that_stalls_is_given_up(impatient_link, backups):
    restore_under("stall", MIB, impatient_link, backups)


def test_a_directory_whose_restore_is_cut_is_packed_again(link, backups):
    backups.add_directory("db_20250131")
    link.to_device.strike("cut", MIB // 4)
    (code, _), log = new_log(link.relay, lambda: link.restore(backups, "db_20250131"))
    assert link.to_device.struck.is_set()
    assert (code, bool(LOST_ON_THE_WAY.search(log))) == (SUCCESS, True), log
    wait_for(lambda: backups.arrived() == {}, 5)
    assert [path.name for path in backups.kept.iterdir()] == ["db_20250131"]

    assert link.restore(backups, "db_20250131")[0] == SUCCESS
    assert list(backups.arrived()) == ["db_20250131.zip"]


# Agents that are killed.


@pytest.fixture(params=MODES)
def short_silence(fleet, platform, request):
    """Agents that forget aliases soon. On Linux stalls take long: only a cut ends an upload."""
    settings = {"alias_silence_ms": 3000}
    # Wine's server may keep connections open whose program was killed.
    if platform == "windows":
        settings["stall_timeout_ms"] = 3000
    made = Link(fleet, request.param, platform, **settings)
    yield made
    made.end()


def killed_meanwhile(agent, proxy, call):
    """Kills the sending agent while the proxy holds its upload; the answers of the call, if any."""
    proxy.strike("hold", 2 * MIB)
    answers = []

    def ask():
        try:
            answers.append(call())
        except ConnectionError:
            pass

    thread = threading.Thread(target=ask)
    thread.start()
    assert proxy.struck.wait(REPLY_TIMEOUT_S)
    agent.kill()
    proxy.release()
    thread.join(REPLY_TIMEOUT_S)
    return answers


def test_of_a_device_that_is_killed_nothing_stays_on_the_relay(short_silence, place):
    link = short_silence
    place.source.write_bytes(bytes(30 * MIB))
    answers = killed_meanwhile(link.device, link.to_relay, lambda: link.upload(place))
    assert answers == []
    wait_for(lambda: [row["Uploads"] for row in aliases(link.relay)] in ([], [0]))
    assert place.stored() == {}
    wait_for(lambda: aliases(link.relay) == [])
    assert "expired" in link.relay.log()

    link.device.start()
    place.source.write_bytes(place.content)
    assert link.upload(place)[0] == SUCCESS
    assert place.stored() == {place.target.name: place.content}


def test_of_a_relay_that_is_killed_nothing_stays_on_the_device(short_silence, backups):
    link = short_silence
    content = backups.add("one.zip", bytes(30 * MIB))
    answers = killed_meanwhile(link.relay, link.to_device,
                               lambda: link.restore(backups, "one.zip"))
    assert [(code, container["ErrorCode"]) for code, container in answers] == [(FAILURE, FAILURE)]
    assert "Failed to call action CoreUtilsRestoreBackup on relay" in link.device.log()
    wait_for(lambda: [row["Uploads"] for row in aliases(link.device)] in ([], [0]))
    assert backups.arrived() == {}
    wait_for(lambda: aliases(link.device) == [])
    assert "expired" in link.device.log()

    link.relay.start()
    link.to_relay.upstream = link.relay.address()
    assert link.restore(backups, "one.zip")[0] == SUCCESS
    assert backups.arrived() == {"one.zip": content}


@pytest.mark.parametrize("mode, device_platform, relay_platform", [
    ("plain", "linux", "linux"), ("plain", "windows", "windows"),
    ("ssl and pac", "linux", "windows"), ("ssl and pac", "windows", "linux")])
def test_a_relay_that_is_killed_and_starts_again(
        fleet, place, mode, device_platform, relay_platform):
    relay = fleet.make(relay_platform, "relay", mode)
    proxy = CuttingProxy(relay.address())
    device = fleet.make(device_platform, "device", mode, proxy.address())
    proxy.strike("stall", 2 * MIB)
    answers = []
    log = len(device.log())
    thread = threading.Thread(target=lambda: answers.append(place.upload(device, relay)))
    thread.start()
    assert proxy.struck.wait(20)
    relay.kill()
    thread.join(REPLY_TIMEOUT_S)
    assert [code for code, _ in answers] == [SUCCESS]
    assert LOST in device.log()[log:]
    assert "Failed to delete alias" in device.log()[log:]
    assert not place.target.exists()

    relay.start()
    proxy.upstream = relay.address()
    assert aliases(relay) == []
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.target.read_bytes() == place.content
    proxy.close()
    assert device.stop() == 0 and relay.stop() == 0
