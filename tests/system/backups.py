"""Backups that a relay keeps and a device wants back."""

import os

from uploads import MIB

OLD_TIME = 1_000_000_000
# The directory of a tree that its owner alone may enter.
PRIVATE = "inner/deep"


class Backups:
    """A relay's directory of backups and the place where a device wants its own."""

    def __init__(self, directory):
        self.kept = directory / "kept"
        self.kept.mkdir()
        self.restored = directory / "restored"

    def add(self, name, content=None):
        (self.kept / name).write_bytes(os.urandom(2 * MIB + 5) if content is None else content)
        return (self.kept / name).read_bytes()

    def add_directory(self, name):
        directory = self.kept / name
        for number, file in enumerate(["plain.txt", "größe 日本.txt", "inner/deep/file.bin"]):
            path = directory / file
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(os.urandom(300_000 * number + 7))
            os.utime(path, (OLD_TIME + number * 100, OLD_TIME + number * 100))
        private = directory / PRIVATE
        private.chmod(0o700)
        os.utime(private, (OLD_TIME, OLD_TIME))
        (directory / "empty directory").mkdir()
        (directory / "empty file").write_bytes(b"")
        return {path.relative_to(directory).as_posix(): path.read_bytes()
                for path in directory.rglob("*") if path.is_file()}

    def arrived(self):
        return {path.name: path.read_bytes() for path in self.restored.iterdir()} \
            if self.restored.exists() else {}

    def restore(self, device, relay, name, last=False, back_to=None):
        """What the device answers that asks the relay for its backup."""
        host, port = relay.address()
        own_host, own_port = back_to or device.address()
        return device.call("CoreUtilsRestoreBackupFromRelay", HostName=host, HttpPort=port, Values={
            "SourcePath": relay.path(self.kept), "DestinationPath": device.path(self.restored),
            "Name": name, "Last": last, "HostName": own_host, "HttpPort": own_port})
