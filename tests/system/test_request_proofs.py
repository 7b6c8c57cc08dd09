"""Proofs of requests, certificates and secrets: who gets through to a relay and who does not."""

import json
import re
import ssl
import time

import pytest

from agents import tls_context
from fleet import Authority, fleet_login, proof
from uploads import FAILURE, host_of, new_log, send, wait_for

# What is wrong with the certificate stands behind the reason.
NO_TLS = r"Connection from 127\.0\.0\.1 refused: no TLS: certificate verify failed .*, .*issuer"

# Proofs.


@pytest.fixture(scope="module")
def proving_relay(fleet, platform):
    return fleet.pair("pac", platform, platform)[1]


def ask(relay, authorization, target="/v1/actions/AgentGetIPAddress", body=b"{}"):
    return send(relay, "POST", target, body, authorization)[0]


def good_proof(relay, **changes):
    facts = dict(name="tester", method="POST", target="/v1/actions/AgentGetIPAddress",
                 host=host_of(relay), body=b"{}")
    facts.update(changes)
    return proof(**facts)


def test_a_proof_is_accepted_once(proving_relay):
    once = good_proof(proving_relay)
    assert ask(proving_relay, once) == 200
    _, log = new_log(proving_relay, lambda: ask(proving_relay, once))
    assert ask(proving_relay, once) == 401
    assert "refused: 401 unauthorized: the proof was used before" in log


@pytest.mark.parametrize("changes", [
    {"secret": "the secret of another fleet"}, {"method": "PUT"},
    {"target": "/v1/actions/AgentGetProgress"}, {"host": "127.0.0.1:1"},
    {"date": 1}, {"date": 1 << 40}, {"date": -1}, {"nonce": "00"}, {"nonce": "Z" * 32},
], ids=str)
def test_a_proof_of_something_else_is_refused(proving_relay, changes):
    # Good credentials in between, or the agent answers later and later.
    assert ask(proving_relay, good_proof(proving_relay)) == 200
    assert ask(proving_relay, good_proof(proving_relay, **changes)) == 401


def test_a_call_whose_body_is_not_the_proven_one_is_not_made(proving_relay):
    assert ask(proving_relay, good_proof(proving_relay, body=b'{"a":1}')) in (400, 401)


def refused_with(relay, make_authorization, why):
    """Asks until the log tells why: strangers get ten lines a second, which others may have taken."""
    def is_told():
        status, log = new_log(relay, lambda: ask(relay, make_authorization()))
        assert status == 401, log
        assert ask(relay, good_proof(relay)) == 200
        return why in log
    wait_for(is_told)


def test_an_expired_proof_is_refused_and_logged(proving_relay):
    refused_with(proving_relay, lambda: good_proof(proving_relay, date=int(time.time()) - 301),
                 "the proof is expired")
    early = good_proof(proving_relay, date=int(time.time()) + 310)
    assert ask(proving_relay, early) == 401
    assert ask(proving_relay, good_proof(proving_relay, date=int(time.time()) - 200)) == 200


def test_where_proofs_are_expected_a_fleet_password_is_refused(proving_relay):
    refused_with(proving_relay, lambda: fleet_login("tester"),
                 "agents must send proofs of their requests")
    assert proving_relay.call("AgentGetIPAddress")[0] == 0


def test_an_upload_whose_body_is_not_the_proven_one_is_not_stored(proving_relay, place):
    relay = proving_relay
    parameters = json.dumps({"AliasName": "drop", "AliasPath": relay.path(place.directory),
                             "AliasTemporary": False}).encode()
    target = "/v1/actions/HttpProtocolAddAlias"
    assert ask(relay, good_proof(relay, target=target, body=parameters), target, parameters) == 200
    put = lambda body, proven: send(relay, "PUT", "/drop/file", body, good_proof(
        relay, method="PUT", target="/drop/file", body=proven))[0]
    assert put(b"another", b"content") in (400, 401)
    assert place.stored() == {}
    assert put(b"content", b"content") in (200, 201, 204)
    assert place.stored() == {"file": b"content"}
    target = "/v1/actions/HttpProtocolDeleteAlias"
    assert ask(relay, good_proof(relay, target=target, body=parameters), target, parameters) == 200


# Members that do not belong.


def test_a_device_with_another_fleet_secret_is_refused(fleet, plain_pair, place):
    relay = plain_pair[1]
    device = fleet.make("linux", "device", parent=relay.address(),
                        secret="the secret of another fleet")
    (answer, device_log), log = new_log(
        relay, lambda: new_log(device, lambda: place.upload(device, relay)))
    assert answer[0] == FAILURE
    assert "Failed to add alias" in device_log
    assert "refused: 401 unauthorized: the credentials are not accepted" in log, log
    assert device.stop() == 0


def test_a_relay_with_a_certificate_of_another_authority_is_refused(fleet, place, tmp_path):
    stranger = Authority(tmp_path / "stranger")
    relay = fleet.make("linux", "relay", "ssl", issuer=stranger)
    device = fleet.make("linux", "device", "ssl", parent=relay.address())
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert answer[0] == FAILURE
    assert "Failed to add alias" in log and "certificate" in log.lower(), log
    assert place.stored() == {}
    assert device.stop() == 0 and relay.stop() == 0


def test_an_agent_without_a_certificate_is_refused_where_one_is_expected(fleet, platform, place):
    relay = fleet.pair("ssl ext", platform, platform)[1]
    body = json.dumps({"AliasName": "drop", "AliasPath": relay.path(place.directory),
                       "AliasTemporary": False}).encode()
    before = len(relay.log())
    try:
        status = send(relay, "POST", "/v1/actions/HttpProtocolAddAlias", body,
                      fleet_login("tester"))[0]
    except (ssl.SSLError, ConnectionError):
        status = 401
    assert status in (401, 403)
    wait_for(lambda: "certificate" in relay.log()[before:].lower(), 5)
    assert place.stored() == {}


def test_a_certificate_of_another_authority_is_refused_where_one_is_expected(
        fleet, platform, tmp_path):
    relay = fleet.pair("ssl ext", platform, platform)[1]
    certificate, key = Authority(tmp_path / "stranger").issue("tester")
    context = tls_context(fleet.authority.certificate)
    context.load_cert_chain(certificate, key)
    before = len(relay.log())
    try:
        status = send(relay, "POST", "/v1/actions/AgentGetIPAddress", b"{}",
                      fleet_login("tester"), context)[0]
    except (ssl.SSLError, ConnectionError):
        status = 401
    assert status in (401, 403)
    wait_for(lambda: re.search(NO_TLS, relay.log()[before:]), 5)

    context.load_cert_chain(*fleet.authority.issue("tester-" + platform))
    assert send(relay, "POST", "/v1/actions/AgentGetIPAddress", b"{}", fleet_login("tester"),
                context)[0] == 200


def test_an_agent_with_a_certificate_of_another_authority_hears_what_is_wrong(
        fleet, platform, place, tmp_path):
    relay = fleet.pair("ssl ext", platform, platform)[1]
    stranger = fleet.make(platform, "device", "ssl ext", relay.address(),
                          issuer=Authority(tmp_path / "stranger"), trusted=fleet.authority)
    before = len(relay.log())
    answer, log = new_log(stranger, lambda: place.upload(stranger, relay))
    assert (answer[0], "Failed to add alias" in log) == (FAILURE, True), log
    # What the relay says to it is the alert of TLS.
    assert "unknown ca" in log, log
    wait_for(lambda: re.search(NO_TLS, relay.log()[before:]), 5)
    assert place.stored() == {}
    assert stranger.stop() == 0


def test_a_device_without_tls_does_not_get_through_to_a_relay_that_speaks_it(fleet, place):
    relay = fleet.pair("ssl", "linux", "linux")[1]
    device = fleet.make("linux", "device", parent=relay.address())
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], "Failed to add alias" in log) == (FAILURE, True)
    assert device.stop() == 0


def test_credentials_do_not_leave_the_machine_in_clear(fleet, place):
    device = fleet.make("linux", "device", parent=("192.0.2.1", 7460))
    answer, log = new_log(device, lambda: place.upload(device, device))
    assert (answer[0], "Failed to add alias" in log) == (FAILURE, True)
    assert "TLS" in log or "clear" in log, log
    assert device.stop() == 0
