"""What must hold of an agent that was killed, and the calls whose answers are kept in a ledger."""

import http.client
import json
import time

from agents import START_TIMEOUT_S
from fleet import aliases, fleet_login

HEALTHY_WITHIN_S = 10
TEMPORARIES = ".zel-*.tmp"
CONFIGURATION = ("config/zelagent.ini", "config/users", "config/secret", "data/identity")


class Lost(Exception):
    """The agent was killed before it answered."""


class Caller:
    """Calls actions as an agent of the fleet, whose password is checked faster than people's, and
    remembers the requests that were answered."""

    def __init__(self, agent):
        self.agent = agent
        self.answered = []

    def call(self, action, **parameters):
        """(code, container); `Lost` where there is no answer."""
        headers = {"Authorization": fleet_login("tester")}
        try:
            status, replied, body = self.agent.request(
                "POST", "/v1/actions/" + action, json.dumps(parameters).encode(), headers, user=None)
        except (OSError, http.client.HTTPException) as error:
            raise Lost from error
        assert status == 200, (status, body)
        self.answered.append(replied["X-Request-Id"])
        reply = json.loads(body)
        return reply["code"], reply["container"]


class Witness:
    """Looks at one agent after each of its kills."""

    def __init__(self, agent):
        self.agent = agent
        self.slowest_start_s = 0.0
        self.seen_of_audit = 0
        self.torn_lines = 0
        self.known = self._configuration()

    def _configuration(self):
        return {name: (self.agent.home / name).read_bytes() for name in CONFIGURATION
                if (self.agent.home / name).exists()}

    def start_again(self):
        """Starts the killed agent: locks and sockets that it left behind must not hinder it."""
        began = time.monotonic()
        self.agent.start()
        status, _, body = self.agent.request("GET", "/v1/health", user=None)
        assert (status, json.loads(body)) == (200, {"status": "ok"})
        taken = time.monotonic() - began
        assert taken < min(HEALTHY_WITHIN_S, START_TIMEOUT_S), f"the start took {taken} s"
        self.slowest_start_s = max(self.slowest_start_s, taken)

    def check(self, answered):
        """`answered`: the requests of this round that had an answer."""
        assert self._configuration() == self.known
        assert aliases(Caller(self.agent)) == []
        self._check_audit(answered)
        left = [str(file) for file in self.agent.home.rglob(TEMPORARIES)]
        assert left == [], left

    def _check_audit(self, answered):
        trail = self.agent.home / "log/audit.jsonl"
        done = self.agent.zelctl("audit", "verify", str(trail))
        text = trail.read_bytes()
        new = text[self.seen_of_audit:]
        # A last line without its end is told by the next line: until then the check complains.
        if done.returncode != 0:
            assert not text.endswith(b"\n"), (done.stdout, done.stderr)
            self.torn_lines += 1
            Caller(self.agent).call("CoreUtilsInfosProcessAvailable")
            done = self.agent.zelctl("audit", "verify", str(trail))
        assert done.returncode == 0, (done.stdout, done.stderr)
        # `verify` has read all of it; the ledger is about what is new.
        self.seen_of_audit = len(text)
        missing = [request for request in answered if request.encode() not in new]
        assert missing == [], f"answered, but not in the audit trail: {missing}"


def temporaries(directory):
    return sorted(str(file) for file in directory.rglob(TEMPORARIES))
