"""What agents are killed in the midst of. Each kind prepares a round, does its operation, which the kill
interrupts, and judges what it finds afterwards:

    before   nothing has happened
    during   no answer came, but something has happened
    after    the answer was there before the kill, and holds
"""

import base64
import os
import random
import shutil
import subprocess
import zipfile

from agents import PASSWORDS, clean_environment, program
from fleet import Fleet, aliases
from kill_checks import TEMPORARIES, Caller, Lost, temporaries
from uploads import LOST, MIB, wait_for

KIB = 1024

MARK = b"\xef\xbb\xbf"  # what CoreUtilsWriteFile begins UTF-8 with
BEFORE, DURING, AFTER = "before", "during", "after"


class Kind:
    """`self.victim` is the agent that this round kills."""

    def __init__(self, directory, seed):
        self.directory = directory
        self.random = random.Random(seed)
        self.fleet = Fleet(directory / "fleet", None)
        self.agents = []
        self.leftovers = 0

    def make(self, **options):
        agent = self.fleet.make("linux", options.pop("name", "agent"), **options)
        # A port that was its own is its own again: others know it.
        agent.port = agent.address()[1]
        self.agents.append(agent)
        return agent

    def begin(self, number):
        """Prepares a round; `operate` belongs to it, then `judge` with whether it was answered."""
        self.caller = Caller(self.victim)
        self.prepare(number)

    def sweep(self, directory):
        """Counts and deletes the temporaries that a killed agent could not delete."""
        for file in directory.rglob(TEMPORARIES):
            self.leftovers += 1
            file.unlink()

    def operate(self):
        """Whether it was answered; may raise `Lost` instead."""
        raise NotImplementedError

    def answered(self):
        """The requests of this round that the victim has answered."""
        return self.caller.answered if self.caller.agent is self.victim else []

    def look(self):
        """After the kill, before the agent starts again."""

    def finish(self):
        """What can be told only in the end."""

    def end(self):
        for agent in self.agents:
            assert agent.stop() == 0, agent.describe()

    def text(self, size):
        return self.random.randbytes(size // 2).hex().encode()


class Files(Kind):
    """Files whose content is replaced, or that are new."""

    SIZE = 2 * MIB
    SUFFIX = ".txt"

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.victim = self.make()
        self.place = self.make_place()
        self.ledger = {}

    def make_place(self):
        place = self.directory / "place"
        place.mkdir()
        return place

    def prepare(self, number):
        self.target = self.place / f"file{self.random.randrange(12)}{self.SUFFIX}"
        self.old = self.ledger.get(self.target)
        self.new = self.text(self.SIZE)
        self.whole = MARK + self.new

    def write(self):
        code, _ = self.caller.call("CoreUtilsWriteFile", Path=str(self.target),
                                   FileContent=base64.b64encode(self.new).decode())
        assert code == 0

    def judge(self, answered):
        for path, content in self.ledger.items():
            assert path == self.target or path.read_bytes() == content, f"{path} changed"
        found = self.target.read_bytes() if self.target.exists() else None
        backups = sorted(self.place.glob(self.target.name + ".tmp*"))
        self.sweep(self.place)
        assert set(self.place.iterdir()) <= {*self.ledger, self.target, *backups}
        return self._verdict(answered, found, backups)

    def _verdict(self, answered, found, backups):
        whole = self.whole
        if answered:
            assert (found == whole, backups) == (True, [])
        elif found not in (self.old, whole):
            # As documented: the copy beside it holds the old content, and a new file may be empty.
            copies = [copy.read_bytes() for copy in backups]
            assert copies == [self.old or b""] or (self.old, found, copies) == (None, b"", [])
            assert found is None or whole is not None and whole.startswith(found)
        verdict = AFTER if answered else BEFORE if found == self.old and not backups else DURING
        self._tidy(found, backups)
        return verdict

    def _tidy(self, found, backups):
        """As whoever finds such a file would do it."""
        whole = found in (self.old, self.whole)
        if not whole and self.old is not None:
            backups[0].replace(self.target)
            found = self.old
        elif not whole:
            self.target.unlink(missing_ok=True)
            found = None
        for copy in self.place.glob(self.target.name + ".tmp*"):
            copy.unlink()
        if found is None:
            self.ledger.pop(self.target, None)
        else:
            self.ledger[self.target] = found


class Write(Files):
    NAME = "write"

    def operate(self):
        self.write()
        return True


class ScriptEdit(Files):
    """Start-up scripts that are written and deleted."""

    NAME = "script-edit"
    SIZE = 64 * KIB
    SUFFIX = ".mlx"

    def make_place(self):
        return self.victim.home / "data/ZelCoreUtils"

    def prepare(self, number):
        super().prepare(number)
        self.deletes = number % 2 == 1 and self.old is not None
        if self.deletes:
            self.whole = None

    def operate(self):
        if not self.deletes:
            self.write()
            return True
        assert self.caller.call("CoreUtilsDeleteFile", Path=str(self.target))[0] == 0
        return True


class Zelctl(Files):
    """`zelctl put` and `zelctl edit`, as people use them."""

    NAME = "zelctl"
    SIZE = 512 * KIB

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.local = directory / "local.txt"
        self.password = directory / "password"
        self.password.write_text(PASSWORDS["admin"] + "\n")

    def prepare(self, number):
        super().prepare(number)
        self.local.write_bytes(self.new)
        # The agent remembers a password that it has checked once; else the kills would all meet the check.
        status, _, _ = self.victim.request("GET", "/v1/actions", user="admin")
        assert status == 200
        self.verb = ["edit"] if number % 2 and self.old is not None else ["put", str(self.local)]

    def operate(self):
        environment = clean_environment(
            ZEL_AGENT=self.victim.url, ZEL_USER="admin", ZEL_PASSWORD_FILE=self.password,
            EDITOR=f"cp {self.local}", VISUAL=f"cp {self.local}", TMPDIR=self.directory)
        done = subprocess.run(program("linux", "zelctl") + [*self.verb, str(self.target)],
                              env=environment, stdin=subprocess.DEVNULL, capture_output=True)
        if done.returncode != 0:
            raise Lost(done.stderr)
        return True


class Upload(Kind):
    """A device sends files to its relay."""

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.relay = self.make(name="relay", relay={"alias_silence_ms": 1000})
        self.device = self.make(name="device", parent=self.relay.address())
        self.kept = directory / "kept"
        self.kept.mkdir()
        self.source = directory / "source.bin"
        self.ledger = {}

    def prepare(self, number):
        self.caller = Caller(self.device)
        self.target = self.kept / f"file{self.random.randrange(4)}.bin"
        self.new = self.random.randbytes(64 * KIB) * (24 * MIB // (64 * KIB))
        self.source.write_bytes(self.new)

    def operate(self):
        before = len(self.device.log())
        code, container = self.caller.call("CoreUtilsCopyFileToRelay", SourcePath=str(self.source),
                                           DestinationPath=str(self.target), IsZippedFile=False)
        # Whether the file arrived is told by the log alone.
        if code != 0 or container["ErrorCode"] != 0 or LOST in self.device.log()[before:]:
            raise Lost
        return True

    def judge(self, answered):
        # A relay that lives notices by itself that its sender has gone.
        if self.victim is self.device:
            wait_for(lambda: not temporaries(self.kept))
        found = self.target.read_bytes() if self.target.exists() else None
        old = self.ledger.get(self.target)
        assert found in ((self.new,) if answered else (old, self.new)), "partial or lost"
        left = len(temporaries(self.kept))
        self.sweep(self.kept)
        if found is not None:
            self.ledger[self.target] = found
        for path in self.kept.iterdir():
            assert path.read_bytes() == self.ledger[path], f"{path} changed"
        return AFTER if answered else DURING if left or found != old else BEFORE

    def finish(self):
        wait_for(lambda: aliases(Caller(self.relay)) == [])


class UploadReceiver(Upload):
    NAME = "upload-receiver"

    @property
    def victim(self):
        return self.relay


class UploadSender(Upload):
    NAME = "upload-sender"

    @property
    def victim(self):
        return self.device


class Extract(Kind):
    NAME = "extract"
    ENTRIES = 300

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.victim = self.make()
        self.content = {f"folder{number % 7}/entry{number}.bin":
                        self.random.randbytes(self.random.choice((100, 5_000, 60_000)))
                        for number in range(self.ENTRIES)}
        self.packed = directory / "packed.zip"
        with zipfile.ZipFile(self.packed, "w", zipfile.ZIP_DEFLATED) as archive:
            for name, data in self.content.items():
                archive.writestr(name, data)

    def prepare(self, number):
        self.target = self.directory / f"out{number}"
        self.archive = self.directory / f"archive{number}.zip"
        os.link(self.packed, self.archive)

    def operate(self):
        code, container = self.caller.call("CoreUtilsExtractFile", FilePath=str(self.archive),
                                           DestinationPath=str(self.target))
        assert (code, container["ErrorCode"]) == (0, 0)
        return True

    def _found(self):
        return {path.relative_to(self.target).as_posix(): path.read_bytes()
                for path in self.target.rglob("*") if path.is_file()}

    def judge(self, answered):
        left = len(temporaries(self.target))
        self.sweep(self.target)
        found = self._found()
        assert all(self.content[name] == data for name, data in found.items()), "a partial entry"
        if answered or not self.archive.exists():
            assert (found == self.content, self.archive.exists()) == (True, False)
        else:
            self.caller = Caller(self.victim)
            self.operate()
            assert self._found() == self.content
        self._remove()
        return AFTER if answered else DURING if found or left else BEFORE

    def _remove(self):
        shutil.rmtree(self.target, ignore_errors=True)
        self.archive.unlink(missing_ok=True)

