"""What is done with the bytes of one file: copies, digests, text."""

import os
import subprocess

from agents import Agent
from measuring import alternate, fill_with_noise, size_text
from report import at_most, row

COPY_BYTES = int(os.environ.get("ZEL_BENCH_COPY_BYTES", str(1 << 29)))
DIGEST_BYTES = int(os.environ.get("ZEL_BENCH_DIGEST_BYTES", str(1 << 30)))
READ_BYTES = 10 << 20


def bench_copy(build, directory):
    """A file copy through the action beside cp."""
    source, destination = directory / "source", directory / "destination"
    fill_with_noise(source, COPY_BYTES)

    def prepare():
        assert not destination.exists() or destination.stat().st_size == COPY_BYTES
        destination.unlink(missing_ok=True)
        os.sync()

    with Agent(build, directory / "home") as agent:
        def run_ours():
            answer = agent.call("CoreUtilsCopyFile", {"SourcePath": str(source),
                                                      "DestinationPath": str(destination)})
            assert answer["code"] == 0, answer

        def run_cp():
            subprocess.run(["cp", "-p", source, destination], check=True)

        ours, peer = alternate([run_ours, run_cp], 9, prepare)
    return [row(f"copy of a file of {size_text(COPY_BYTES)}", ours * 1e3, "ms", "`cp -p`",
                peer * 1e3, at_most(1.05))]


def bench_digest(build, directory):
    """An MD5 digest beside openssl's."""
    file = directory / "digested"
    fill_with_noise(file, DIGEST_BYTES)
    with Agent(build, directory / "home") as agent:
        def run_openssl():
            return subprocess.run(["openssl", "md5", "-r", file], capture_output=True, text=True,
                                  check=True).stdout.split()[0]

        def run_ours():
            return agent.call("CoreUtilsFileMD5", {"FilePath": str(file)})["container"][
                "FileChecksum"]

        assert run_ours() == run_openssl()
        ours, peer = alternate([run_ours, run_openssl], 5)
    return [row(f"MD5 of {size_text(DIGEST_BYTES)}", ours * 1e3, "ms", "`openssl md5`", peer * 1e3,
                at_most(1.02))]


def bench_read(build, directory):
    """A text as Base64 beside base64(1)."""
    file = directory / "text"
    line = "The quick brown fox jumps over the lazy dog, 0123456789.\n"
    file.write_text((line * (READ_BYTES // len(line) + 1))[:READ_BYTES])
    encoded = subprocess.run(["base64", "-w0", file], stdout=subprocess.PIPE, check=True).stdout

    def run_base64():
        subprocess.run(["base64", file], stdout=subprocess.DEVNULL, check=True)

    with Agent(build, directory / "home") as agent, agent.connect() as connection:
        run_ours = connection.caller("CoreUtilsReadFile", {"Path": str(file), "Length": READ_BYTES})
        assert encoded in bytes(run_ours())
        ours, peer = alternate([run_ours, run_base64], 15)
    return [row(f"text of {size_text(READ_BYTES)} through `CoreUtilsReadFile`", ours * 1e3, "ms",
                "`base64`", peer * 1e3, at_most(2))]
