"""CoreUtilsExitOperatingSystem and `zelctl power` of the Windows build, in Wine prefixes that are
thrown away: whatever the end is called, what ends under Wine is every program of the prefix. No test
here may use another one."""

import http.client
import subprocess

import pytest

from agents import ROOT, clean_environment

WAIT_S = 60

pytestmark = pytest.mark.parametrize("platform", ["windows"], indirect=True)


@pytest.fixture
def session(tmp_path):
    """What programs need to run in a prefix of their own."""
    variables = {"ZEL_WINEPREFIX": tmp_path / "prefix"}
    yield variables
    subprocess.run([str(ROOT / "scripts/wine-run"), "--stop"], timeout=WAIT_S, check=True,
                   env=clean_environment(**variables))


@pytest.fixture
def agent(make_agent, session):
    made = make_agent(variables=session)
    made.add_users()
    made.start()
    assert made.call("CoreUtilsGetFileSystems")[0] == 0
    return made


@pytest.fixture
def beside(make_proxy, session):
    return make_proxy(**session)


@pytest.mark.parametrize("how", ["", "REBOOT"], ids=["log off", "restart"])
def test_every_program_of_the_session_ends(agent, beside, make_proxy, how):
    elsewhere = make_proxy()
    try:
        assert agent.call("CoreUtilsExitOperatingSystem", HowToExit=how)[0] == 0
    except (ConnectionError, http.client.HTTPException):
        pass  # The end of the session was faster than the reply.

    agent.process.wait(WAIT_S)
    beside.process.wait(WAIT_S)
    assert elsewhere.process.poll() is None
    assert elsewhere.stop() == 0


def test_zelctl_powers_off_when_it_is_told_to(agent, beside):
    # zelctl runs elsewhere, in the prefix of all tests.
    for verb in ("logoff", "off", "reboot"):
        done = agent.zelctl("power", verb)
        assert (done.returncode, b"--yes" in done.stderr) == (2, True)
    assert agent.call("CoreUtilsGetFileSystems")[0] == 0
    assert beside.process.poll() is None

    done = agent.zelctl("power", "off", "--yes")
    # The end may have been faster than the reply here, too.
    assert done.stdout == b"" and b"[y/N]" not in done.stderr
    agent.process.wait(WAIT_S)
    beside.process.wait(WAIT_S)
