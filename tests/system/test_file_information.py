"""CoreUtilsGetFileInformation on programs of the machine and of the Windows build, on both
platforms."""

import hashlib
import pathlib
import shutil
import struct

import pytest

from agents import BUILDS

FILE_NOT_FOUND = 14001
ACCESS_REFUSED = 12

WINE_PROGRAMS = pathlib.Path("/usr/lib/x86_64-linux-gnu/wine/x86_64-windows")
PRODUCTS = {
    "zelagent.exe": "zelagent.exe",
    "zelagent.mlx": "zelagent.mlx",
    "zelctl.exe": "zelctl.exe",
    "zelproxy.exe": "zelproxy.exe",
    "libZel.dll": "libZel.dll",
    "libZelCore.dll": "libZelCore.dll",
    "libZelMarlin.dll": "libZelMarlin.dll",
    "modules/ZelCoreUtils.dll": "ZelCoreUtils.dll",
}


def version_text(file, name):
    """A text of the file's version resource, found by its shape: an independent look."""
    data = file.read_bytes()
    key = (name + "\0").encode("utf-16-le")
    start = data.find(b"\1\0" + key)
    assert start > 0 and data.find(b"\1\0" + key, start + 1) < 0, f"{file} has not one {name}"
    characters = struct.unpack_from("<H", data, start - 2)[0]
    # The block begins four bytes before its kind, at a multiple of four.
    value = start + 2 + len(key)
    value += -(value - (start - 4)) % 4
    return data[value:value + characters * 2].decode("utf-16-le").rstrip("\0")


def expected_of(file):
    content = file.read_bytes()
    return {"FileChecksum": hashlib.md5(content).hexdigest(), "FileSize": len(content)}


def information(agent, file, **parameters):
    code, container = agent.call("CoreUtilsGetFileInformation", Path=agent.path(file), **parameters)
    container["FileChecksum"] = container.get("FileChecksum", "").lower()
    return code, container


@pytest.mark.parametrize("product", PRODUCTS)
def test_the_products_of_the_windows_build_tell_their_version(agent, product):
    file = BUILDS["windows"] / "bin" / product
    code, container = information(agent, file)
    assert code == 0
    assert container == {
        "OriginalFileName": PRODUCTS[product],
        "FileVersion": "11.5.0.0",
        **expected_of(file),
        "ApplicationName": PRODUCTS[product],
        "IsText": False,
    }


@pytest.mark.parametrize("program", ["comctl32.dll", "msi.dll", "shell32.dll"])
def test_programs_of_the_machine_tell_their_version(agent, program):
    file = WINE_PROGRAMS / program
    code, container = information(agent, file)
    assert code == 0
    assert container["OriginalFileName"].lower() == program
    assert container["OriginalFileName"] == version_text(file, "OriginalFilename")
    assert container["FileVersion"] == version_text(file, "FileVersion")
    assert container["IsText"] is False


def test_a_text_file_has_no_version_and_is_text(agent, tmp_path):
    file = tmp_path / "notes.txt"
    file.write_text("only text\n")
    code, container = information(agent, file)
    assert code == 0
    assert container == {"OriginalFileName": "", "FileVersion": "", **expected_of(file),
                         "ApplicationName": "", "IsText": True}


def test_a_missing_file_is_14001(agent, tmp_path):
    answer = agent.call("CoreUtilsGetFileInformation", Path=agent.path(tmp_path / "none"))
    assert answer == (FILE_NOT_FOUND, {"Result": 0})


def test_a_file_that_the_user_may_not_read_is_12(agent, tmp_path):
    file = tmp_path / "file"
    file.write_text("x")
    answer = agent.call("CoreUtilsGetFileInformation", user="visitor", Path=agent.path(file))
    assert answer == (ACCESS_REFUSED, {})


def test_the_inventory_names_the_application_and_is_read_again_after_changes(make_agent, tmp_path):
    file = tmp_path / "copy.dll"
    shutil.copy(BUILDS["windows"] / "bin/libZel.dll", file)
    agent = make_agent()
    inventory = agent.home / "config/applications.ini"
    agent.add_users()
    agent.start()

    def application():
        code, container = information(agent, file)
        assert code == 0
        return container["ApplicationName"]

    assert application() == "libZel.dll"
    inventory.write_text("[Any Agent]\nfile = LIBZEL.DLL\n")
    assert application() == "Any Agent"
    inventory.write_text("[Any Agent]\nfile = LIBZEL.DLL\n"
                         f"[This Agent]\nfile = libzel.dll\nsize = 1, {file.stat().st_size}\n")
    assert application() == "This Agent"
    inventory.unlink()
    assert application() == "libZel.dll"
    assert agent.stop() == 0


def test_the_core_answers_GetApplicationInfo(make_agent):
    agent = make_agent()
    (agent.home / "config/applications.ini").write_text(
        "[Editor]\nfile = edit.exe\nsize = 3221225472\npublisher = Example\nversion = 2\nbad\n")
    agent.add_users()
    agent.start()
    assert agent.call("GetApplicationInfo", FileName="EDIT.exe", FileSize=(3 << 30) - (1 << 32),
                      FileChecksum="") == (
        0, {"Name": "Editor", "Publisher": "Example", "Version": "2"})
    assert agent.call("GetApplicationInfo", FileName="edit.exe", FileSize=1) == (1, {})
    assert "applications.ini: line 6: neither [section] nor key = value" in agent.log()
    assert agent.stop() == 0
