"""CoreUtilsListDomains and CoreUtilsListServers: the Windows network, as its browsers know it."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

import pytest

from agents import Agent, clean_environment, program
from browsers import SMBD, WindowsNetwork, run

OK, FAILURE = 0, 1
LIMIT_S = 30
# A machine that does other things too starts programs late.
SLACK_S = 5

DOMAINS = ["ZELFIRST", "ZELSECOND"]
FIRST = ["ALPHA", "BETA"]
SECOND = ["GAMMA"]


@pytest.fixture(scope="module")
def network():
    made = WindowsNetwork()
    try:
        yield made.start()
    finally:
        made.remove()


class HostAgent(Agent):
    """An agent of Linux on a host, where it is also asked."""

    def __init__(self, host, home):
        super().__init__("linux", home)
        self.host = host
        self.add_users()
        host.run(self.start)

    def call(self, action, **options):
        return self.host.run(super().call, action, **options)

    def begin(self, action, **options):
        return self.host.begin(super().call, action, **options)

    def end(self):
        assert self.stop() == 0, self.describe()


@pytest.fixture(scope="module")
def member(network, tmp_path_factory):
    """The agent of the member `beta`, once the browsers know of everybody."""
    agent = HostAgent(network.beta, tmp_path_factory.mktemp("member"))
    network.wait_until(lambda: names(agent, "CoreUtilsListDomains") == DOMAINS
                       and names(agent, "CoreUtilsListServers", DomainName="ZELFIRST") == FIRST
                       and names(agent, "CoreUtilsListServers", DomainName="ZELSECOND") == SECOND)
    yield agent
    agent.end()


@pytest.fixture(scope="module")
def lonely(network, tmp_path_factory):
    agent = HostAgent(network.lonely(), tmp_path_factory.mktemp("lonely"))
    yield agent
    agent.end()


def values(answer):
    """The names of an answer that must be a success with nothing else in it."""
    code, container = answer
    assert (code, list(container)) == (OK, ["Values"])
    return container["Values"]


def names(agent, action, **parameters):
    """The names in the order of the letters, as several browsers answer in any order."""
    code, container = agent.call(action, **parameters)
    return sorted(container["Values"]) if code == OK else None


def test_domains_and_workgroups_are_listed(member):
    assert sorted(values(member.call("CoreUtilsListDomains"))) == DOMAINS


def test_what_the_caller_sent_is_not_in_the_answer(member):
    answer = member.call("CoreUtilsListDomains", DomainName="ZELFIRST", Values=["old"], Other=1)
    assert sorted(values(answer)) == DOMAINS


def test_the_computers_of_a_domain_are_listed_in_the_browsers_order(member):
    # nmbd names itself first, then the others.
    assert values(member.call("CoreUtilsListServers", DomainName="ZELFIRST")) == FIRST
    assert values(member.call("CoreUtilsListServers", DomainName="ZELSECOND")) == SECOND


def test_case_does_not_matter_in_a_domains_name(member):
    assert values(member.call("CoreUtilsListServers", DomainName="zelSecond")) == SECOND


def test_without_a_name_the_computers_of_the_own_workgroup_are_listed(member):
    # Which is the one of smb.conf, not the default.
    assert values(member.call("CoreUtilsListServers")) == FIRST
    assert values(member.call("CoreUtilsListServers", DomainName="")) == FIRST


@pytest.fixture
def public_home():
    """A home that `nobody` may read, too, which `tmp_path` is not."""
    with tempfile.TemporaryDirectory() as made:
        home = pathlib.Path(made)
        home.chmod(0o755)
        yield home


def test_the_smb_conf_of_a_home_decides_nothing(network, member, public_home):
    configuration = public_home / ".smb/smb.conf"
    configuration.parent.mkdir()
    configuration.parent.chmod(0o755)
    configuration.write_text("[global]\nworkgroup = ZELSECOND\n")
    configuration.chmod(0o644)
    # Else it would decide nothing whatever the program does.
    read = subprocess.run(["cat", configuration], user="nobody", group="nogroup", extra_groups=[],
                          capture_output=True)
    assert (read.returncode, read.stdout) == (0, configuration.read_bytes())

    done = network.beta.run(subprocess.run, [*program("linux", "zelbrowse"), "servers"],
                            env=clean_environment(HOME=public_home), capture_output=True)
    assert (done.returncode, done.stdout, done.stderr) == (OK, b"ALPHA\0BETA\0", b"")


@pytest.mark.parametrize("name, reason", [
    ("ZELNONE", "no browser answers for ZELNONE"),
    ("no domain %2F here", "no domain can have this name"),
    ("a b&c@d;e#f", "no browser answers for a b&c@d;e#f"),
    ("10.213.7.1", "no domain can have this name"),
    ("ZELFIRST/share", "no domain can have this name"),
    ("x" * 16, "no domain can have this name"),
])
def test_an_unknown_domain_has_no_computers(member, name, reason):
    assert member.call("CoreUtilsListServers", DomainName=name) == (FAILURE, {})
    assert reason in member.log()


def test_a_name_of_64_characters_is_no_domains(member):
    assert member.call("CoreUtilsListServers", DomainName="x" * 64) == (FAILURE, {})


def test_a_server_is_no_domain(member):
    assert member.call("CoreUtilsListServers", DomainName="GAMMA") == (FAILURE, {})
    assert "no browser answers for GAMMA" in member.log()


def test_several_may_ask_at_once(member):
    asked = [member.begin("CoreUtilsListDomains"),
             member.begin("CoreUtilsListServers"),
             member.begin("CoreUtilsListServers", DomainName="ZELSECOND")]
    domains, own, second = (values(one.result()) for one in asked)
    assert (sorted(domains), own, second) == (DOMAINS, FIRST, SECOND)


def test_a_call_with_an_error_leaves_nothing_for_the_next(member):
    assert member.call("CoreUtilsListServers", DomainName="ZELNONE") == (FAILURE, {})
    assert values(member.call("CoreUtilsListServers", DomainName="ZELSECOND")) == SECOND


def test_a_browser_that_says_nothing_is_given_up_while_others_are_served(network, member):
    network.alpha.signal(SMBD, signal.SIGSTOP)
    try:
        began = time.monotonic()
        asked = member.begin("CoreUtilsListServers", DomainName="ZELFIRST")
        # Another browser is not kept from answering, nor is the agent.
        assert values(member.call("CoreUtilsListServers", DomainName="ZELSECOND")) == SECOND
        assert member.call("CoreUtilsGetFileSystems")[0] == OK
        assert not asked.done()
        assert asked.result() == (FAILURE, {})
        assert time.monotonic() - began < LIMIT_S + SLACK_S
    finally:
        network.alpha.signal(SMBD, signal.SIGCONT)
    network.wait_until(
        lambda: names(member, "CoreUtilsListServers", DomainName="ZELFIRST") == FIRST)


@pytest.mark.parametrize("action", ["CoreUtilsListDomains", "CoreUtilsListServers"])
def test_without_a_browser_nothing_is_listed(lonely, action):
    began = time.monotonic()
    assert lonely.call(action) == (FAILURE, {})
    assert time.monotonic() - began < LIMIT_S
    assert "the network is not browsed: no browser answers" in lonely.log()


def test_without_the_library_nothing_is_listed(lonely):
    needed = subprocess.run(["ldd", *program("linux", "zelbrowse")], capture_output=True, text=True)
    library, = re.findall(r"libsmbclient\S* => (\S+)", needed.stdout)
    lonely.host.run(run, "mount", "--bind", "/dev/null", os.path.realpath(library))
    try:
        assert lonely.call("CoreUtilsListDomains") == (FAILURE, {})
    finally:
        lonely.host.run(run, "umount", os.path.realpath(library))
    assert "error while loading shared libraries" in lonely.log().splitlines()[-1]
    assert "libsmbclient" in lonely.log().splitlines()[-1]


@pytest.mark.parametrize("while_it", ["starts", "waits"])
def test_browsing_ends_with_the_agent(network, tmp_path, while_it):
    agent = HostAgent(network.beta, tmp_path)
    network.gamma.signal(SMBD, signal.SIGSTOP)
    try:
        asked = agent.begin("CoreUtilsListServers", DomainName="ZELSECOND")
        network.wait_until(lambda: children(agent))
        if while_it == "waits":
            network.wait_until(lambda: is_nobodys(children(agent)[0]))
        browsing, = children(agent)
        if while_it == "waits":
            assert pathlib.Path(f"/proc/{browsing}/environ").read_bytes() == b""
        killed = time.monotonic()
        agent.kill()
        with pytest.raises(OSError):
            asked.result()
        network.wait_until(lambda: not runs(browsing))
        assert time.monotonic() - killed < SLACK_S
    finally:
        network.gamma.signal(SMBD, signal.SIGCONT)
        agent.kill()


def of_process(file):
    """What /proc tells in a file of a process or thread: nothing, once that has ended."""
    try:
        return file.read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def children(agent):
    """The programs that the agent has started, by whichever of its threads."""
    tasks = pathlib.Path(f"/proc/{agent.process.pid}/task").iterdir()
    return [int(one) for task in tasks for one in of_process(task / "children").split()]


def is_nobodys(process):
    """Whether the program has come so far that it has given up its rights."""
    status = of_process(pathlib.Path(f"/proc/{process}/status"))
    return re.search(r"(?s)Uid:\t65534\t65534\t65534\t65534\n.*CapPrm:\t0{16}\n.*NoNewPrivs:\t1",
                     status)


def runs(process):
    """Whether the process is there and more than what its parent has not asked for yet."""
    stat = of_process(pathlib.Path(f"/proc/{process}/stat"))
    return stat != "" and stat.rpartition(")")[2].split()[0] != "Z"


@pytest.mark.parametrize("platform", ["windows"], indirect=True)
@pytest.mark.parametrize("action, parameters", [
    ("CoreUtilsListDomains", {}),
    ("CoreUtilsListServers", {}),
    ("CoreUtilsListServers", {"DomainName": "ZELFIRST"}),
])
def test_wine_browses_no_network(agent, action, parameters):
    assert agent.call(action, Other="old", **parameters) == (FAILURE, {})
