"""CoreUtilsFileMD5: digests of real files, on both platforms."""

import hashlib
import os

import pytest


def digest(agent, path):
    code, container = agent.call("CoreUtilsFileMD5", FilePath=agent.path(path))
    assert code == 0
    return container["FileChecksum"]


@pytest.mark.parametrize("size", [0, 1, 63, 64, 4096, (1 << 20) - 1, 1 << 20, (1 << 20) + 1,
                                  5_000_000])
def test_the_digest_is_that_of_the_content(agent, tmp_path, size):
    content = os.urandom(size)
    file = tmp_path / "日本 file.bin"
    file.write_bytes(content)
    assert digest(agent, file) == hashlib.md5(content).hexdigest()


def test_what_is_no_file_has_no_digest(agent, tmp_path):
    (tmp_path / "directory").mkdir()
    assert digest(agent, tmp_path / "missing") == ""
    assert digest(agent, tmp_path / "directory") == ""
