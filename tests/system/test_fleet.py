"""Two agents over TLS with a fleet's credentials: one calls actions of the other."""

import itertools
import ssl

import pytest

from agents import tls_context
from fleet import Authority

INVOKE_UNREACHABLE = 0x80000004
INVOKE_REFUSED = 0x80000005
INVOKE_UNKNOWN_ACTION = 0x80000001
FILE_NOT_FOUND = 14001

PAIRS = list(itertools.product(("linux", "windows"), repeat=2))


def call_through(caller, target, action, **parameters):
    """What the target answers to an action that the caller invokes on it."""
    code, container = caller.call("TestRemoteCall", Address=target.url, Action=action,
                                  Parameters=parameters)
    return code, container.get("Answer")


@pytest.mark.parametrize("caller_platform, target_platform", PAIRS)
def test_one_agent_calls_actions_of_another(
        make_member, tmp_path, caller_platform, target_platform):
    caller, target = make_member(caller_platform), make_member(target_platform)
    assert target.url.startswith("https://")
    (tmp_path / "file").write_text("12345")

    answer = call_through(caller, target, "CoreUtilsGetFileSize",
                          Path=target.path(tmp_path / "file"))
    assert answer == (0, {"Result": 5})
    answer = call_through(caller, target, "CoreUtilsCopyFile",
                          SourcePath=target.path(tmp_path / "file"),
                          DestinationPath=target.path(tmp_path / "file"))
    assert answer == (0, {})
    assert (tmp_path / "file(1)").read_text() == "12345"
    assert call_through(caller, target, "CoreUtilsDeleteFile",
                        Path=target.path(tmp_path / "none")) == (FILE_NOT_FOUND, {"Result": 0})
    unknown = {"Kept": "as it was"}
    assert call_through(caller, target, "NoSuchAction", **unknown) == (
        INVOKE_UNKNOWN_ACTION, unknown)

    assert '"agent/member0"' in (target.home / "log/audit.jsonl").read_text() or \
        '"member0"' in (target.home / "log/audit.jsonl").read_text()
    assert caller.stop() == 0 and target.stop() == 0


def test_a_call_for_a_console_user_keeps_his_rights(make_member, platform, tmp_path):
    caller, target = make_member(platform), make_member(platform)
    (tmp_path / "file").write_text("12345")
    code, _ = call_through(caller, target, "CoreUtilsGetFileSize",
                           Path=target.path(tmp_path / "file"), DACurrentConsoleUser="visitor")
    assert code == 12


def test_a_target_with_a_certificate_of_another_authority_is_refused(
        make_member, platform, tmp_path):
    stranger = Authority(tmp_path / "stranger")
    caller, target = make_member(platform), make_member(platform, issuer=stranger)
    parameters = {"Path": "kept"}
    assert call_through(caller, target, "CoreUtilsGetFileSize", **parameters) == (
        INVOKE_REFUSED, parameters)


def test_a_caller_that_trusts_another_authority_refuses(make_member, platform, tmp_path):
    stranger = Authority(tmp_path / "stranger")
    caller, target = make_member(platform, trusted=stranger), make_member(platform)
    assert call_through(caller, target, "CoreUtilsGetFileSize", Path="x")[0] == INVOKE_REFUSED


def test_a_certificate_for_another_host_is_refused(make_member, platform):
    caller = make_member(platform)
    target = make_member(platform, alternative_name="DNS:elsewhere.example")
    assert call_through(caller, target, "CoreUtilsGetFileSize", Path="x")[0] == INVOKE_REFUSED


def test_another_fleet_secret_is_refused(make_member, platform):
    caller = make_member(platform, secret="the secret of another fleet")
    target = make_member(platform)
    assert call_through(caller, target, "CoreUtilsGetFileSize", Path="x")[0] == INVOKE_REFUSED


def test_a_target_that_is_gone_is_unreachable(make_member, platform):
    caller, target = make_member(platform), make_member(platform)
    assert target.stop() == 0
    assert call_through(caller, target, "CoreUtilsGetFileSize", Path="x")[0] == INVOKE_UNREACHABLE


def test_zelctl_speaks_tls_and_refuses_a_stranger(make_member, platform, tmp_path, authority):
    stranger = Authority(tmp_path / "stranger")
    agent = make_member(platform)
    assert agent.zelctl("actions", ca=authority.certificate).returncode == 0
    refused = agent.zelctl("actions", ca=stranger.certificate)
    assert (refused.returncode, b"certificate" in refused.stderr) == (3, True)
    assert agent.zelctl("health").returncode == 3


def test_old_versions_of_tls_are_refused(make_member, platform, authority):
    agent = make_member(platform)
    agent.tls = tls_context(authority.certificate)
    agent.tls.set_ciphers("ALL:@SECLEVEL=0")
    agent.tls.minimum_version = ssl.TLSVersion.TLSv1
    agent.tls.maximum_version = ssl.TLSVersion.TLSv1_1
    with pytest.raises(ssl.SSLError):
        agent.request("GET", "/v1/health", user=None)
