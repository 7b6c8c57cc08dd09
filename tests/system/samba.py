"""File servers: Samba on port 139 of loopback addresses, each in a private directory."""

import json
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

from silent_network import NETBIOS_SESSION, own_loopback

USER, PASSWORD = "alice", "Schön! 7 blue%ducks"
SHARE, GUESTS_SHARE, CLOSED_SHARE, SEALED_SHARE = "files", "open", "closed", "sealed"
# Whom the user is on this machine; there she needs no account.
ACCOUNT = "nobody"
START_TIMEOUT_S = 30
STOP_TIMEOUT_S = 30

GLOBAL = {
    "workgroup": "ZELTEST",
    "netbios name": "ZELFILES",
    "server role": "standalone server",
    "bind interfaces only": "yes",
    "smb ports": NETBIOS_SESSION,
    # What clients ask for, by name.
    "log level": "1 auth:3 smb2:10",
    "max log size": 0,
    "debug timestamp": "no",
    "passdb backend": "tdbsam",
    "guest account": ACCOUNT,
    "map to guest": "never",
    "load printers": "no",
    "printing": "bsd",
    "printcap name": "/dev/null",
    "disable spoolss": "yes",
    # A client that was killed is forgotten.
    "reset on zero vc": "yes",
}


class FileServer:
    """Use `start` and `remove`. `settings`: more of the configuration's first section."""

    def __init__(self, settings=None, address=None):
        self.address = address or own_loopback()
        # Not below the tests' own directories, which the server's accounts may not enter.
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="zelsmb"))
        self.directory.chmod(0o755)
        self.process = None
        self._configuration = self.directory / "smb.conf"
        directories = {}
        for name in ("private dir", "state directory", "lock directory", "cache directory",
                     "pid directory", "ncalrpc dir", "share"):
            directories[name] = self.directory / name.split()[0]
            directories[name].mkdir(mode=0o755)
        share = directories.pop("share")
        (self.directory / "users").write_text(f"{ACCOUNT} = {USER}\n")

        self._write({
            "global": {**GLOBAL, **directories,
                       "interfaces": f"{self.address}/8",
                       "log file": self.directory / "log",
                       "username map": self.directory / "users",
                       **(settings or {})},
            SHARE: {"path": share},
            "Größe 日本": {"path": share},
            "with blank": {"path": share},
            GUESTS_SHARE: {"path": share, "guest ok": "yes"},
            CLOSED_SHARE: {"path": share, "valid users": "root"},
            SEALED_SHARE: {"path": share, "smb encrypt": "required"},
        })
        subprocess.run(["smbpasswd", "-c", self._configuration, "-L", "-a", "-s", ACCOUNT],
                       input=f"{PASSWORD}\n{PASSWORD}\n".encode(), check=True, capture_output=True)

    def _write(self, sections):
        text = ""
        for section, values in sections.items():
            text += f"[{section}]\n" + "".join(f"{key} = {value}\n"
                                               for key, value in values.items())
        self._configuration.write_text(text)

    def start(self):
        # What is left behind ends with the tests. At its end the server ends its whole group.
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "smbd", "-F", "--no-process-group",
             "-s", self._configuration], start_new_session=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + START_TIMEOUT_S
        # Looked up, so that no connection of a test's own is in the log.
        while not self._is_listening():
            assert self.process.poll() is None and time.monotonic() < deadline, self.log()
            time.sleep(0.02)
        return self

    def _is_listening(self):
        return self._count_sockets("0A") > 0

    def connections(self):
        """How many there are."""
        return self._count_sockets("01")

    def _count_sockets(self, state):
        octets = reversed(self.address.split("."))
        local = "".join(f"{int(octet):02X}" for octet in octets) + f":{NETBIOS_SESSION:04X}"
        rows = (line.split() for line in pathlib.Path("/proc/net/tcp").read_text().splitlines())
        return sum(row[1] == local and row[3] == state for row in rows)

    def remove(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(STOP_TIMEOUT_S)
        shutil.rmtree(self.directory)

    def log(self):
        file = self.directory / "log"
        return file.read_text(errors="replace") if file.exists() else ""

    def share(self, name=SHARE):
        return rf"\\{self.address}\{name}"

    def requests(self, begin=0):
        """What clients asked for, in order ("NEGPROT", "SESSSETUP", "TCON", "TDIS", "LOGOFF"), since
        the log had that length."""
        return re.findall(r"smbd_smb2_request_dispatch: opcode\[SMB2_OP_(\w+)\]",
                          self.log()[begin:])

    def sessions(self):
        """Those that the server knows of."""
        done = subprocess.run(["smbstatus", "-s", self._configuration, "-j"], check=True,
                              capture_output=True, text=True)
        return json.loads(done.stdout)["sessions"]
