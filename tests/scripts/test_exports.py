"""Modules export ModuleMain and nothing else.

ZEL_BUILD_DIR names the Linux build (default build/linux). The Windows build is looked at where it
exists.
"""

import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LINUX_BUILD = ROOT / os.environ.get("ZEL_BUILD_DIR", "build/linux")
WINDOWS_BUILD = ROOT / "build" / "windows"


def output_of(*command):
    return subprocess.run(
        command, capture_output=True, text=True, timeout=60, check=True
    ).stdout


def elf_exports(library):
    """Names of the defined dynamic symbols."""
    return [line.split()[-1] for line in output_of("nm", "-D", "--defined-only", library).splitlines()]


def pe_exports(library):
    """Names in the export table."""
    dump = output_of("x86_64-w64-mingw32-objdump", "-p", library)
    table = re.search(r"\[Ordinal/Name Pointer\] Table.*?\n((?:\s+\[.*\n)*)", dump)
    assert table, f"{library} has no export table"
    return [line.split()[-1] for line in table[1].splitlines()]


@pytest.mark.parametrize("module", ["ZelCoreUtils.so", "master/TaskDatabase.so"])
def test_the_linux_module_exports_module_main_alone(module):
    assert elf_exports(LINUX_BUILD / "bin" / "modules" / module) == ["ModuleMain"]


@pytest.mark.skipif(not WINDOWS_BUILD.is_dir(), reason="no Windows build in build/windows")
def test_the_windows_module_exports_module_main_alone():
    assert pe_exports(WINDOWS_BUILD / "bin" / "modules" / "ZelCoreUtils.dll") == ["ModuleMain"]
