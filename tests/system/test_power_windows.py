"""CoreUtilsExitOperatingSystem of the Windows build, in a Wine prefix that is thrown away. What ends
with a session under Wine is every program of the prefix; no test here may use another one."""

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


def test_a_log_off_ends_every_program_of_the_session(make_agent, make_proxy, session):
    elsewhere = make_proxy()
    beside = make_proxy(**session)
    agent = make_agent(variables=session)
    agent.add_users()
    agent.start()
    assert agent.call("CoreUtilsGetFileSystems")[0] == 0

    try:
        assert agent.call("CoreUtilsExitOperatingSystem", HowToExit="")[0] == 0
    except (ConnectionError, http.client.HTTPException):
        pass  # The end of the session was faster than the reply.

    agent.process.wait(WAIT_S)
    beside.process.wait(WAIT_S)
    assert elsewhere.process.poll() is None
    assert elsewhere.stop() == 0
