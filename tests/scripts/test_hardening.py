"""What is installed is built with what makes mistakes with memory harder to use.

ZEL_BUILD_DIR names the Linux build (default build/linux). The Windows build is looked at where it
exists.
"""

import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LINUX_BIN = ROOT / os.environ.get("ZEL_BUILD_DIR", "build/linux") / "bin"
WINDOWS_BUILD = ROOT / "build" / "windows"

LINUX_PROGRAMS = ["zelagent", "zelctl", "zelproxy", "zelbrowse"]
LINUX_LIBRARIES = ["libZel.so", "libZelCore.so", "libZelMarlin.so", "libZelWindowsApi.so", "zelagent.mlx",
                   "modules/ZelCoreUtils.so", "modules/master/TaskDatabase.so"]
WINDOWS_FILES = ["zelagent.exe", "zelctl.exe", "zelproxy.exe", "libZel.dll", "libZelCore.dll",
                 "libZelMarlin.dll", "zelagent.mlx", "modules/ZelCoreUtils.dll"]
WINDOWS_FLAGS = {"HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"}


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=True).stdout


def undefined_symbols(file):
    """Names that the file takes from libraries, without their versions."""
    return {line.split()[-1].split("@")[0]
            for line in output_of("nm", "-D", "--undefined-only", file).splitlines()}


@pytest.mark.parametrize("name", LINUX_PROGRAMS + LINUX_LIBRARIES)
def test_addresses_are_bound_at_the_start_and_read_only_then(name):
    file = LINUX_BIN / name
    assert "GNU_RELRO" in output_of("readelf", "--segments", "--wide", file)
    assert re.search(r"\(FLAGS_1\).*\bNOW\b", output_of("readelf", "--dynamic", "--wide", file))


@pytest.mark.parametrize("name", LINUX_PROGRAMS)
def test_programs_run_anywhere_in_memory(name):
    file = LINUX_BIN / name
    assert re.search(r"Type:\s+DYN\b", output_of("readelf", "--file-header", "--wide", file))
    assert re.search(r"\(FLAGS_1\).*\bPIE\b", output_of("readelf", "--dynamic", "--wide", file))


@pytest.mark.parametrize("name", LINUX_PROGRAMS + LINUX_LIBRARIES)
def test_no_code_runs_on_the_stack(name):
    stack = re.search(r"GNU_STACK.*", output_of("readelf", "--segments", "--wide", LINUX_BIN / name))
    assert stack and " RW " in stack[0]


@pytest.mark.parametrize("name", LINUX_PROGRAMS + LINUX_LIBRARIES)
def test_stacks_are_guarded(name):
    assert "__stack_chk_fail" in undefined_symbols(LINUX_BIN / name)


@pytest.mark.parametrize("name", ["libZel.so", "libZelCore.so"])
def test_calls_of_the_c_library_are_checked(name):
    symbols = undefined_symbols(LINUX_BIN / name)
    assert any(symbol.endswith("_chk") for symbol in symbols), sorted(symbols)


@pytest.mark.skipif(not WINDOWS_BUILD.is_dir(), reason="no Windows build in build/windows")
@pytest.mark.parametrize("name", WINDOWS_FILES)
def test_windows_may_load_it_anywhere_and_runs_no_data(name):
    dump = output_of("x86_64-w64-mingw32-objdump", "-p", WINDOWS_BUILD / "bin" / name)
    flags = re.search(r"DllCharacteristics.*\n((?:\s+[A-Z_]+\n)*)", dump)
    assert flags and WINDOWS_FLAGS <= set(flags[1].split())
    # Without these the addresses in the file are the only ones that it can have.
    sections = output_of("x86_64-w64-mingw32-objdump", "-h", WINDOWS_BUILD / "bin" / name)
    assert re.search(r"^\s*\d+ \.reloc\b", sections, re.MULTILINE)
