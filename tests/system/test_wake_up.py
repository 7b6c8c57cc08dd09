"""CoreUtilsWakeUp: the magic packet as the network sees it, on both platforms."""

import ipaddress
import socket

import pytest

from agents import without_caller
from silent_network import own_loopback
from uploads import new_log

SUCCESS, BAD_PARAMETER = 0, 13
PORT = 7
WAIT_S = 10
EVERY_BIT = 0xFFFFFFFF

MAC = "00a0C9fe310B"
MAGIC = b"\xff" * 6 + bytes.fromhex(MAC) * 16


def number(address):
    return int(ipaddress.ip_address(address))


def wake(agent, address, mask, mac=MAC):
    code, container = agent.call("CoreUtilsWakeUp", IpAddress=number(address), NetworkMask=mask,
                                 MacAddress=mac)
    assert code == SUCCESS
    return without_caller(container)


class Sleeper:
    """Who listens on the port of an address; the address may be a broadcast one."""

    def __init__(self, address):
        self.address = address
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((address, PORT))
        self._socket.settimeout(WAIT_S)

    def next(self):
        return self._socket.recv(65536)

    def close(self):
        self._socket.close()


@pytest.fixture
def make_sleeper():
    made = []

    def make(address):
        made.append(Sleeper(address))
        return made[-1]

    yield make
    for one in made:
        one.close()


@pytest.fixture
def sleeper(make_sleeper):
    return make_sleeper(own_loopback())


def test_CoreUtilsWakeUp_sends_one_magic_packet(agent, sleeper):
    (container, log) = new_log(agent, lambda: wake(agent, sleeper.address, EVERY_BIT))
    assert sleeper.next() == MAGIC
    assert len(MAGIC) == 102
    # The container stays as it came.
    assert container == {"IpAddress": number(sleeper.address), "NetworkMask": EVERY_BIT,
                         "MacAddress": MAC}
    assert "WakeUp: Packet sent" in log

    # No second one lies between that and the next call's.
    wake(agent, sleeper.address, EVERY_BIT, "112233445566")
    assert sleeper.next() == b"\xff" * 6 + bytes.fromhex("112233445566") * 16


def test_numbers_may_be_signed(agent, sleeper):
    # -1 and 0xFFFFFFFF are the same 32 bits.
    wake(agent, sleeper.address, -1)
    assert sleeper.next() == MAGIC


@pytest.mark.parametrize("mask, broadcast", [
    ("255.255.0.0", "127.9.255.255"), ("255.255.255.0", "127.9.8.255"),
    ("255.255.255.252", "127.9.8.7"), ("255.0.0.0", "127.255.255.255")])
def test_the_packet_goes_to_the_subnets_broadcast_address(agent, make_sleeper, mask, broadcast):
    sleeper = make_sleeper(broadcast)
    wake(agent, "127.9.8.5", number(mask))
    assert sleeper.next() == MAGIC


def test_a_broadcast_goes_out_to_the_wire(agent, silent_network):
    silent_network.datagrams(PORT)
    _, log = new_log(
        agent, lambda: wake(agent, silent_network.address(9), number("255.255.255.0")))
    assert silent_network.datagrams(PORT) == [(silent_network.address(255), MAGIC)]
    assert "WakeUp: Packet sent" in log


@pytest.mark.parametrize("mac, bytes_", [
    ("", "000000000000"), ("1", "010000000000"), ("12345", "123405000000"),
    ("12:34:56:78", "120004560008"), ("zz11zz22zz33", "001100220033"),
    ("aabbccddeeff001122", "aabbccddeeff")])
def test_other_texts_than_addresses_are_taken_as_they_come(agent, sleeper, mac, bytes_):
    wake(agent, sleeper.address, EVERY_BIT, mac)
    assert sleeper.next() == b"\xff" * 6 + bytes.fromhex(bytes_) * 16


def test_what_is_missing_is_told_in_order(agent):
    given = {}
    for key, value, what in (("IpAddress", number("127.0.0.1"), "IP address"),
                             ("NetworkMask", EVERY_BIT, "network mask"),
                             ("MacAddress", MAC, "MAC address")):
        (code, container), log = new_log(agent, lambda: agent.call("CoreUtilsWakeUp", **given))
        assert (code, without_caller(container)) == (BAD_PARAMETER, given)
        assert f"WakeUp: Missing {what}" in log and log.count("WakeUp: ") == 1
        given[key] = value


def test_what_is_of_another_type_is_missing(agent):
    given = {"IpAddress": "127.0.0.1", "NetworkMask": EVERY_BIT, "MacAddress": MAC}
    (code, _), log = new_log(agent, lambda: agent.call("CoreUtilsWakeUp", **given))
    assert (code, "WakeUp: Missing IP address" in log) == (BAD_PARAMETER, True)


def test_zelctl_hands_over_large_numbers(agent, sleeper):
    code, container = agent.call_by_zelctl(
        "CoreUtilsWakeUp", IpAddress=number(sleeper.address), NetworkMask=EVERY_BIT, MacAddress=MAC)
    assert (code, container["NetworkMask"]) == (SUCCESS, EVERY_BIT)
    assert sleeper.next() == MAGIC
