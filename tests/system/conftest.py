"""Fixtures: agents of both platforms."""

import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

import called_actions
import own_network
from agents import Agent, agent_path, copy_modules, tls_context
from backups import Backups
from desks import new_desk
from fleet import Authority, Fleet
from helpdesk import DATABASES, Helpdesk
from postgres import PostgresServer
from proxy import Proxy
from samba import FileServer
from silent_network import SilentNetwork
from uploads import PAIRS, Place

PLATFORMS = ("linux", "windows")

# Where the tests themselves run in the background, SIGINT is ignored, and what they start would
# inherit that: Ctrl-C is tested nevertheless.
signal.signal(signal.SIGINT, signal.default_int_handler)


def runs_tests(config):
    """Not where they are only listed, nor where they are only handed out to other processes."""
    return not config.option.collectonly and not getattr(config.option, "numprocesses", None)


# Last, as other plug-ins connect to the process that hands out the tests.
@pytest.hookimpl(trylast=True)
def pytest_configure(config):
    if runs_tests(config):
        own_network.enter()
    config.addinivalue_line("markers", "first: begins what goes on beside all other tests")
    config.addinivalue_line("markers", "last: waits for what a first one began")


def pytest_sessionfinish():
    called_actions.save()


def pytest_unconfigure(config):
    if runs_tests(config):
        own_network.stop_wine()


@pytest.hookimpl(trylast=True)
def pytest_collection_modifyitems(items):
    def position(item):
        return bool(item.get_closest_marker("last")) - bool(item.get_closest_marker("first"))

    items.sort(key=position)


@pytest.fixture(scope="session", params=PLATFORMS)
def platform(request):
    return request.param


@pytest.fixture(scope="session")
def agent(platform, tmp_path_factory):
    """A running agent with the users admin (administrator) and visitor (no rights)."""
    started = Agent(platform, tmp_path_factory.mktemp("home-" + platform))
    started.add_users()
    started.start()
    yield started
    status = started.stop()
    assert status == 0, started.describe()


@pytest.fixture
def make_agent(platform, tmp_path):
    """Makes agents that the test configures, starts and stops; what still runs is killed."""
    made = []

    def make(config="", platform=platform, **options):
        made.append(Agent(platform, tmp_path / f"home{len(made)}", config, **options))
        return made[-1]

    yield make
    for one in made:
        one.kill()


@pytest.fixture
def small_disk(tmp_path):
    """A file system of 1 MiB, mounted in a directory of its own. Needs root."""
    disk = tmp_path / "mounts/small"
    disk.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=755", "none", disk], check=True)
    yield disk
    subprocess.run(["umount", disk], check=True)


@pytest.fixture(scope="session")
def silent_network():
    made = SilentNetwork()
    yield made
    made.close()


@pytest.fixture(scope="session")
def file_server_with():
    """Makes file servers with these settings and keeps them."""
    made = {}

    def make(settings=None, **options):
        key = str((settings, options))
        if key not in made:
            made[key] = FileServer(settings, **options).start()
        return made[key]

    yield make
    for one in made.values():
        one.remove()


@pytest.fixture(scope="session")
def file_server(file_server_with):
    return file_server_with()


@pytest.fixture(scope="session")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("authority") / "ca")


@pytest.fixture(scope="session")
def fleet(tmp_path_factory, authority):
    """Makes the members of a fleet and keeps pairs of a device and its relay."""
    made = Fleet(tmp_path_factory.mktemp("fleet"), authority)
    yield made
    assert made.end() == []


@pytest.fixture(scope="module", params=PAIRS, ids=" ".join)
def pair(fleet, request):
    """A device and its relay."""
    return fleet.pair(*request.param)


@pytest.fixture(scope="module")
def plain_pair(fleet, platform):
    return fleet.pair("plain", platform, platform)


@pytest.fixture(scope="module")
def talkative_pair_with(fleet, platform):
    """Makes pairs of these modes that log all they have to say."""
    return lambda mode: fleet.pair(mode, platform, platform, log={"level": "detail"})


@pytest.fixture(scope="session")
def postgres():
    """A running server. What is lost when the machine goes down, tests do not ask for."""
    server = PostgresServer(["fsync=off"])
    try:
        yield server.start()
    finally:
        server.remove()


@pytest.fixture(scope="session")
def helpdesk(fleet, postgres):
    """Makes masters on both databases and their devices, and keeps them."""
    made = Helpdesk(fleet, postgres)
    yield made
    assert made.end() == []


@pytest.fixture(scope="module", params=DATABASES)
def database(request):
    return request.param


@pytest.fixture
def place(tmp_path):
    """A source file of the device and a directory of the relay."""
    return Place(tmp_path)


@pytest.fixture
def backups(tmp_path):
    return Backups(tmp_path)


@pytest.fixture
def make_member(tmp_path, authority):
    """Makes and starts agents of one fleet; options make a member an odd one."""
    made = []

    def make(platform, secret="the secret of the whole fleet", trusted=None, issuer=authority,
             alternative_name="IP:127.0.0.1"):
        name = f"member{len(made)}"
        home = tmp_path / name
        (home / "config").mkdir(parents=True)
        (home / "config/secret").write_text(secret)
        (home / "config/secret").chmod(0o600)
        certificate, key = issuer.issue(f"{name}-{tmp_path.name}", alternative_name)
        path = lambda file: agent_path(platform, file)
        config = (f"[agent]\nname = {name}\n"
                  f"[http]\ntls = yes\ncertificate = {path(certificate)}\n"
                  f"private_key = {path(key)}\n"
                  f"[fleet]\nsecret_file = secret\n"
                  f"ca = {path((trusted or authority).certificate)}\n")
        agent = Agent(platform, home, config,
                      modules=copy_modules(platform, tmp_path / (name + "-modules")))
        made.append(agent)
        agent.add_users()
        agent.start()
        agent.tls = tls_context(issuer.certificate)
        agent.tls.check_hostname = alternative_name == "IP:127.0.0.1"
        return agent

    yield make
    for agent in made:
        agent.kill()


@pytest.fixture
def short_directory():
    """A directory whose path is short and holds no blanks."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="zelrun"))
    yield path
    shutil.rmtree(path)


@pytest.fixture
def make_proxy(platform, short_directory):
    made = []

    def make(**environment):
        made.append(Proxy(platform, short_directory, **environment))
        return made[-1]

    yield make
    for one in made:
        one.kill()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Keeps what is on the screen of a test that failed."""
    report = (yield).get_result()
    desk = getattr(item, "funcargs", {}).get("desk")
    if report.failed and desk:
        desk.screen.photograph("failed-" + item.name)


@pytest.fixture(scope="session")
def made_desk(platform):
    with new_desk(platform) as made:
        yield made


@pytest.fixture
def desk(made_desk):
    """A user's desktop with nothing on the screen, a proxy and an agent."""
    made_desk.tidy()
    return made_desk
