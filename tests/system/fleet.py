"""Certificates, secrets, proofs and members of a fleet."""

import hashlib
import hmac
import secrets
import shutil
import subprocess
import time

from agents import Agent, agent_path, basic, copy_modules, tls_context

SECRET = "the secret of the whole fleet"

# How the members of a fleet speak with each other: [security] ssl and pac.
MODES = {
    "plain": ("none", "none"),
    "ssl sent": ("send", "none"),
    "ssl": ("send_and_receive", "none"),
    "pac": ("none", "send_and_receive"),
    "ssl and pac": ("send_and_receive", "send_and_receive"),
    "ssl ext": ("send_and_receive_ext", "none"),
}


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


class Authority:
    """A certificate authority in a directory of its own."""

    def __init__(self, directory):
        self.directory = directory
        directory.mkdir()
        self.certificate = directory / "ca.pem"
        self.key = directory / "ca.key"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", self.key, "-out", self.certificate, "-days", "2",
                "-subj", "/CN=Test fleet authority")

    def issue(self, name, alternative_name="IP:127.0.0.1"):
        """(certificate, key) of an agent."""
        certificate = self.directory / f"{name}.pem"
        key = self.directory / f"{name}.key"
        request = self.directory / f"{name}.csr"
        extensions = self.directory / f"{name}.ext"
        extensions.write_text(f"subjectAltName={alternative_name}\n")
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", key, "-out", request, "-subj", f"/CN={name}")
        openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key,
                "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", certificate)
        return certificate, key


def fleet_password(name, secret=SECRET):
    """The password by which the agents of a fleet know the one of this name."""
    return hmac.new(secret.encode(), name.encode(), hashlib.sha256).hexdigest()


def fleet_login(name, secret=SECRET):
    """The value of Authorization that the agent of this name sends where there are no proofs."""
    return basic("agent/" + name, fleet_password(name, secret))


def proof(name, method, target, host, body=b"", secret=SECRET, date=None, nonce=None):
    """The value of Authorization that proves a request: agent/libZel/request_proof.h."""
    date = int(time.time()) if date is None else date
    nonce = nonce or secrets.token_hex(16)
    digest = hashlib.sha256(body).hexdigest()
    said = "".join(part + "\n" for part in (method, target, host, name, str(date), nonce, digest))
    mac = hmac.new(secret.encode(), said.encode(), hashlib.sha256).hexdigest()
    return f"PAC agent={name},date={date},nonce={nonce},sha256={digest},mac={mac}"


def write_configuration(home, sections):
    text = ""
    for section, values in sections.items():
        text += f"[{section}]\n" + "".join(f"{key} = {value}\n" for key, value in values.items())
    (home / "config/zelagent.ini").write_text(text)


class Fleet:
    """Makes agents of one fleet; ends those that still run."""

    def __init__(self, directory, authority):
        self.directory = directory
        self.authority = authority
        self.agents = []
        self.pairs = {}
        # Passwords are hashed slowly: once for all members, whatever their platform.
        template = Agent("linux", directory / "template")
        template.add_users()
        self.users = template.home / "config/users"

    def make(self, platform, name, mode="plain", parent=None, secret=SECRET, issuer=None,
             trusted=None, is_started=True, **sections):
        """A member. `parent`: the relay's (host, port). `sections`: more of the configuration."""
        home = self.directory / f"{len(self.agents)}-{name}"
        (home / "config").mkdir(parents=True)
        shutil.copy2(self.users, home / "config/users")
        (home / "config/secret").write_text(secret)
        (home / "config/secret").chmod(0o600)

        authority = issuer or self.authority
        ssl, pac = MODES[mode]
        settings = {
            "agent": {"name": name},
            "http": {},
            "fleet": {"secret_file": "secret"},
            "security": {"ssl": ssl, "pac": pac},
        }
        if ssl != "none":
            certificate, key = authority.issue(home.name)
            settings["http"] = {"tls": "yes", "certificate": agent_path(platform, certificate),
                                "private_key": agent_path(platform, key)}
            settings["fleet"]["ca"] = agent_path(platform,
                                                 (trusted or self.authority).certificate)
        if parent:
            settings["relay"] = {"parent": "%s:%d" % tuple(parent), "parent_guid": "the-relay"}
        for section, values in sections.items():
            settings.setdefault(section, {}).update(values)
        write_configuration(home, settings)

        modules = copy_modules(platform, self.directory / (home.name + "-modules"))
        agent = Agent(platform, home, modules=modules)
        agent.name = name
        agent.secret = secret
        if ssl != "none":
            agent.tls = tls_context(authority.certificate)
        self.agents.append(agent)
        return agent.start() if is_started else agent

    def make_master(self, mode="plain", database="", name="master", **options):
        """A member that keeps the fleet's tasks; without `database` in a file below its home."""
        settings = {"enabled": "yes", "max_listed": "10000", "database": database}
        settings.update(options.pop("master", {}))
        return self.make("linux", name, mode, master=settings, **options)

    def make_device(self, platform, master, mode="plain", name="device", **options):
        """A member whose tasks go to that master."""
        settings = {"address": master.url, **options.pop("master", {})}
        return self.make(platform, name, mode, master=settings, **options)

    def pair(self, mode, device_platform, relay_platform, **sections):
        """(device, relay), the same ones each time: the relay is the device's parent."""
        key = mode, device_platform, relay_platform, str(sections)
        if key not in self.pairs:
            relay = self.make(relay_platform, "relay", mode, **sections)
            device = self.make(device_platform, "device", mode, relay.address(), **sections)
            self.pairs[key] = device, relay
        return self.pairs[key]

    def end(self):
        """Stops the pairs in order, and kills what else still runs; what went wrong."""
        problems = []
        for pair in self.pairs.values():
            for agent in pair:
                status = agent.stop()
                if status != 0:
                    problems.append((status, agent.describe()))
        for agent in self.agents:
            agent.kill()
        return problems


def aliases(agent):
    """The rows of the agent's aliases."""
    code, container = agent.call("HttpProtocolListAliases")
    assert code == 0
    rows = container.get("Values", {})
    return list(rows.values()) if isinstance(rows, dict) else rows
