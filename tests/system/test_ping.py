"""CoreUtilsPingICMP: who answers and who does not, on both platforms."""

import concurrent.futures
import time

import pytest

from uploads import new_log

SUCCESS = 0
# What the waits for a name and for an answer may take, and a little more on a busy machine.
NAME_S, ANSWER_S, SLACK_S = 10, 4, 4


def ping(agent, **parameters):
    """The answer, which is all that the container holds."""
    code, container = agent.call("CoreUtilsPingICMP", **parameters)
    assert (code, list(container)) == (SUCCESS, ["Result"])
    return container["Result"]


@pytest.mark.parametrize("host", ["127.0.0.1", "127.200.3.4", "localhost"])
def test_CoreUtilsPingICMP_hears_an_answer(agent, host):
    assert ping(agent, PingAddr=host) is True


def test_hosts_of_ipv6_answer_too(agent, platform):
    answers, log = new_log(agent, lambda: ping(agent, PingAddr="::1"))
    if platform == "linux":
        assert answers is True
    else:
        # Windows has the function; Wine says that it has not.
        assert (answers, "The system allows no echo requests to ::1" in log) == (False, True)


@pytest.mark.parametrize("host", ["", " ", "127.0.0.256", "no such host", "a" * 10_000,
                                  "host\0.example", "http://127.0.0.1/", "127.0.0.1\n", "-c1",
                                  "ü.invalid"])
def test_what_is_no_host_does_not_answer(agent, host):
    begin = time.monotonic()
    assert ping(agent, PingAddr=host) is False
    assert time.monotonic() - begin < NAME_S + SLACK_S


def test_without_an_address_nobody_answers(agent):
    assert ping(agent) is False
    assert ping(agent, PingAddr=[]) is False
    assert ping(agent, PingAddr=7) is False


def test_other_parameters_do_not_come_back(agent):
    assert ping(agent, PingAddr="127.0.0.1", Result="no", Other="kept?") is True


def test_unknown_names_do_not_answer(agent):
    begin = time.monotonic()
    assert ping(agent, PingAddr="nobody.invalid") is False
    assert time.monotonic() - begin < NAME_S + SLACK_S


def test_silent_hosts_are_given_up_while_others_answer(agent, silent_network):
    hosts = [silent_network.address(number) for number in range(10, 22)]
    begin = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(len(hosts)) as callers:
        silent = [callers.submit(ping, agent, PingAddr=host) for host in hosts]
        for _ in range(5):
            assert ping(agent, PingAddr="127.0.0.1") is True
        assert not any(one.done() for one in silent)
        assert [one.result() for one in silent] == [False] * len(hosts)
    assert ANSWER_S - 1 < time.monotonic() - begin < ANSWER_S + SLACK_S


def test_answers_are_not_mixed_up(agent):
    """Many at once, each to an address of its own, and everybody hears the own answer."""
    hosts = [f"127.0.{number}.1" for number in range(48)]
    with concurrent.futures.ThreadPoolExecutor(len(hosts)) as callers:
        assert list(callers.map(lambda host: ping(agent, PingAddr=host), hosts)) == [True] * 48
