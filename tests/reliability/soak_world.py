"""What the clients of the soak work on: three agents of a fleet, the peers that they ask, and files."""

import contextlib
import hashlib
import json
import pathlib
import random
import shutil
import tempfile
import zipfile

from agents import PASSWORDS
from fleet import Authority, Fleet
from mock_logind import MockLogind
from samba import PASSWORD, USER, FileServer
from scripted_proxy import (CLOSE_BUTTON, FIRST_BUTTON, NO_BUTTON, SECOND_BUTTON, ScriptedProxy)
from web_server import WebServer

# How agents speak with each other, and clients with them.
MODE = "ssl and pac"
ROTATE_BYTES = 1 << 20
# Proofs are remembered for so long: memory that grows until then is no leak.
PROOF_WINDOW = {"pac_window_ms": "20000"}
KEPT_FILES = 5
AUDIT_ROTATE_BYTES = 256 << 10
BUTTONS = {"[first]": FIRST_BUTTON, "[second]": SECOND_BUTTON, "[only]": CLOSE_BUTTON,
           "[end]": NO_BUTTON, "[nobody]": None}

GOOD_SCRIPT = """
function main()
  local path = ParamsContainer:get_string("Path")
  local code, result = action.invoke("CoreUtilsGetFileSize", {Path = path})
  assert(code == 0 and result.Result == ParamsContainer:get("Size"))
  code, result = action.invoke("CoreUtilsFileMD5", {FilePath = path})
  assert(code == 0 and result.FileChecksum == ParamsContainer:get("Md5"))
  local rows = {}
  for i = 1, 200 do rows[i] = {Name = "row " .. i, Number = i} end
  local c = container.new{Rows = rows}
  assert(c:count("Rows") == 200 and c:get("Rows", 199):get("Number") == 200)
end
"""
BROKEN_SCRIPT = """
function main()
  error("on purpose")
end
"""
DESCRIPTOR = '<jnlp>\n<property name="kvl-servername" value="old.example.net"/>\n</jnlp>\n'


def press(dialog):
    return next(button for word, button in BUTTONS.items() if word in dialog.text)


class World:
    """Makes and starts everything; `end` it. `described`: what clients are told of it."""

    def __init__(self, directory):
        self.ending = contextlib.ExitStack()
        self.directory = pathlib.Path(directory)
        try:
            self._make()
        except BaseException:
            self.end()
            raise

    def end(self):
        self.ending.close()

    def _make(self):
        self.described = {"ca": None, "agents": {}}
        self._make_files()
        self._start_peers()
        self._start_agents()

    def _make_files(self):
        described, chance = self.described, random.Random(7)
        for name in ("scratch", "stored", "restored", "backups", "directory", "sources"):
            (self.directory / name).mkdir()
            described[name] = str(self.directory / name)
        described["files"] = []
        for number in range(24):
            file = self.directory / "sources" / f"file {number} ü.bin"
            is_text = number % 2 == 0
            size = chance.randrange(1, 40_000)
            content = b"text " * (size // 5 + 1) if is_text else b"\0" + chance.randbytes(size)
            file.write_bytes(content)
            described["files"].append({"path": str(file), "size": len(content), "is_text": is_text,
                                       "md5": hashlib.md5(content).hexdigest()})
        text = "a line of text, größer\n" * 200
        file = self.directory / "sources/text.txt"
        file.write_text(text)
        described["text"] = {"path": str(file), "text": text, "size": len(text.encode())}
        for number in range(40):
            (self.directory / "directory" / f"entry {number:02}").write_bytes(b"x" * number)
        described["listed"] = [f"entry {number:02}" for number in range(40)]
        archive = self.directory / "backups/pc_20260102.zip"
        with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as made:
            for number in range(3):
                made.writestr(f"file {number}", b"some content " * 500 + chance.randbytes(500))
        described["archive"] = str(archive)
        scripts = {"good": GOOD_SCRIPT, "broken": BROKEN_SCRIPT}
        for name, script in scripts.items():
            (self.directory / f"{name}.mlx").write_text(script)
        described["scripts"] = {name: str(self.directory / f"{name}.mlx") for name in scripts}

    def _start_peers(self):
        # Sockets have short paths.
        short = pathlib.Path(tempfile.mkdtemp(prefix="zelsoak"))
        self.ending.callback(shutil.rmtree, short)
        self.logind = MockLogind(short)
        self.ending.callback(self.logind.stop)
        self.logind.add_session("c7", display=":9")
        self.proxy = ScriptedProxy(short / "proxy", press)
        self.ending.callback(self.proxy.stop)
        (self.directory / "web").mkdir()
        web = WebServer(self.directory / "web")
        self.ending.callback(web.stop)
        self.described["urls"] = {"good": web.url("/hop/2"), "bad": web.url("/status/404")}
        files = FileServer({"log level": 0})
        self.ending.callback(files.remove)
        files.start()
        self.described["share"] = {"path": files.share(), "user": USER, "password": PASSWORD}

    def _start_agents(self):
        (self.directory / "fleet").mkdir()
        self.fleet = Fleet(self.directory / "fleet", Authority(self.directory / "ca"))
        self.ending.callback(self.fleet.end)
        common = {"log": {"level": "detail", "rotate_bytes": ROTATE_BYTES, "kept_files": KEPT_FILES},
                  "audit": {"rotate_bytes": AUDIT_ROTATE_BYTES}, "security": PROOF_WINDOW}
        relay = self.fleet.make("linux", "relay", MODE, **common)
        master = self.fleet.make_master(MODE, **common)
        device = self.fleet.make("linux", "device", MODE, relay.address(), is_started=False,
                                 **common, master={"address": master.url},
                                 proxy={"pipe": self.proxy.pipe, "start": "no"})
        device.variables = self.logind.environment
        descriptors = device.home / "ui/console/jws/jnlp"
        descriptors.mkdir(parents=True)
        (descriptors / "console.jnlp").write_text(DESCRIPTOR)
        device.start()
        self.agents = {"device": device, "relay": relay, "master": master}

        described = self.described
        described["descriptor"] = str(descriptors / "console.jnlp")
        described["ca"] = str(self.fleet.authority.certificate)
        described["device_pid"] = device.process.pid
        described["identity"] = device.call("IdentityGetGUID")[1]["GUID"]
        described["actions"] = len(json.loads(device.request("GET", "/v1/actions")[2]))
        for name, agent in self.agents.items():
            described["agents"][name] = {"address": agent.address(), "users": PASSWORDS}
