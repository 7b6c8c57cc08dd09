"""scripts/check-includes finds a violation of each kind, and none in the tree itself."""

import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "scripts" / "check-includes"


def write(root, path, text):
    file = root / path
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(text, encoding="utf-8")


def check(root):
    done = subprocess.run(
        [sys.executable, str(SCRIPT), str(root)],
        capture_output=True, text=True, timeout=60, check=False,
    )
    assert done.stderr == ""
    lines = done.stdout.splitlines()
    assert done.returncode == (1 if lines else 0)
    return lines


@pytest.fixture
def tree(tmp_path):
    """A small tree without a violation."""
    write(tmp_path, "host/libZel.h", '#pragma once\n#include <string>\n#include "libZel/path.h"\n')
    write(tmp_path, "host/libZel/path.h", "#pragma once\n")
    write(tmp_path, "host/libZelCore.h", '#pragma once\n#include "libZel.h"\n')
    write(
        tmp_path,
        "host/windows_api.h",
        "#pragma once\n#ifdef _WIN32\n#include <winsock2.h>\n#include <windows.h>\n"
        "#include <lmserver.h>\n#else\n#include <netinet/in.h>\n#include <cstdint>\n#endif\n",
    )
    write(tmp_path, "module/action.h", '#pragma once\n#include "libZelCore.h"\n')
    write(
        tmp_path,
        "module/registry.cpp",
        '#include <array>\n#include "actions/files/copy.h"\n'
        "constexpr Row kRows[] = {\n"
        '    {"CoreUtilsCopyFile (string Path)", CoreUtilsCopyFile},\n'
        '    {"CoreUtilsDirDelete", CoreUtilsDirDelete},\n'
        "};\n",
    )
    write(tmp_path, "actions/files/copy.h", '#pragma once\n#include "module/action.h"\n')
    write(tmp_path, "agent/libZel/native_path.h", '#pragma once\n#include "libZel/path.h"\n')
    write(tmp_path, "agent/libZel/boundary.h", "#pragma once\n")
    write(
        tmp_path,
        "agent/libZel/platform/windows/file_system.cpp",
        "#ifdef __MINGW32__\n#include <windows.h>\n#endif\n",
    )
    write(tmp_path, "agent/libZelCore/settings.h", '#pragma once\n#include "libZel.h"\n')
    write(
        tmp_path,
        "agent/libZelCore/settings.cpp",
        '#include "settings.h"\n#include <boost/asio.hpp>\n'
        '#include "agent/libZel/native_path.h"\n#include "libZelCore.h"\n',
    )
    write(
        tmp_path,
        "agent/service/main.cpp",
        '#include "agent/libZelCore/settings.h"\n#include "agent/libZel/native_path.h"\n',
    )
    write(tmp_path, "agent/zelctl/main.cpp", '#include "agent/libZelCore/settings.h"\n')
    write(
        tmp_path,
        "tests/contract/copy_test.cpp",
        '#include <gtest/gtest.h>\n#include "module/action.h"\n'
        "TEST(CopyFile, Copies) {}\nTEST_F(DirDelete, Deletes) {}\n",
    )
    write(tmp_path, "docs/actions/files.md", "## CoreUtilsCopyFile\n\n## CoreUtilsDirDelete\n")
    return tmp_path


def test_the_tree_itself_has_no_violation():
    assert check(ROOT) == []


def test_a_clean_tree_has_no_violation(tree):
    assert check(tree) == []


@pytest.mark.parametrize(
    "path, include, complaint",
    [
        ("host/libZel/file.h", '"agent/libZel/native_path.h"',
         "host/ may not include agent/libZel/native_path.h"),
        ("host/libZel/file.h", '"module/action.h"', "host/ may not include module/action.h"),
        ("host/libZel/file.h", "<windows.h>",
         "host/ may not include <windows.h>: only the standard library"),
        ("host/libZel/socket.h", "<netinet/in.h>",
         "host/ may not include <netinet/in.h>: only the standard library"),
        ("host/windows_api.h", "<sys/socket.h>",
         "host/windows_api.h may not include <sys/socket.h>: it is none of SYSTEM_HEADERS"),
        ("host/windows_api.h", "<netdb.h>",
         "host/windows_api.h may not include <netdb.h>: it is none of SYSTEM_HEADERS"),
        ("actions/network/wake_on_lan.cpp", "<netinet/in.h>",
         "actions/ may not include <netinet/in.h>: only the standard library"),
        ("module/paths.cpp", '"agent/libZel/native_path.h"',
         "module/ may not include agent/libZel/native_path.h"),
        ("module/paths.cpp", "<agent/libZel/native_path.h>",
         "module/ may not include agent/libZel/native_path.h"),
        ("module/paths.cpp", "<boost/asio.hpp>",
         "module/ may not include <boost/asio.hpp>: only the standard library"),
        ("actions/files/list.cpp", "<curl/curl.h>",
         "actions/ may not include <curl/curl.h>: only the standard library"),
        ("actions/files/list.cpp", "<unistd.h>",
         "actions/ may not include <unistd.h>: only the standard library"),
        ("actions/files/list.cpp", '"agent/libZelCore/settings.h"',
         "actions/ may not include agent/libZelCore/settings.h"),
        ("agent/libZel/file.cpp", '"libZelCore.h"',
         "agent/libZel/ may not include host/libZelCore.h"),
        ("agent/libZel/file.cpp", '"agent/libZelCore/settings.h"',
         "agent/libZel/ may not include agent/libZelCore/settings.h"),
        ("agent/libZelCore/audit.cpp", '"agent/libZel/boundary.h"',
         "agent/libZelCore/ may not include agent/libZel/boundary.h"),
        ("agent/libZelCore/audit.cpp", '"module/action.h"',
         "agent/libZelCore/ may not include module/action.h"),
        ("agent/service/host.cpp", '"agent/libZel/boundary.h"',
         "agent/service/ may not include agent/libZel/boundary.h"),
        ("agent/zelctl/verbs.cpp", '"../libZel/boundary.h"',
         "agent/zelctl/ may not include agent/libZel/boundary.h"),
        ("agent/zelctl/verbs.cpp", '"tests/fake_host/fake_host.h"',
         "agent/zelctl/ may not include tests/fake_host/fake_host.h"),
        ("module/paths.cpp", '"tests/fake_host/fake_host.h"',
         "module/ may not include tests/fake_host/fake_host.h"),
        ("bench/dispatch.cpp", '"tests/fake_host/fake_host.h"',
         "bench/ may not include tests/fake_host/fake_host.h"),
        ("agent/libZelCore/audit.cpp", '"no_such_header.h"',
         '"no_such_header.h" is no header of the project'),
    ],
)
def test_a_forbidden_include_is_told_with_file_and_line(tree, path, include, complaint):
    write(tree, "tests/fake_host/fake_host.h", "#pragma once\n")
    write(tree, path, f"// A comment.\n#include {include}\n")
    assert check(tree) == [f"{path}:2: {complaint}"]


@pytest.mark.parametrize(
    "macro", ["_WIN32", "WIN32", "__linux__", "__APPLE__", "_MSC_VER", "__MINGW32__"]
)
@pytest.mark.parametrize(
    "path",
    [
        "module/paths.cpp",
        "actions/files/list.cpp",
        "actions/files/list_windows.cpp",
        "agent/libZel/file.cpp",
        "agent/libZelCore/audit.h",
        "host/libZel/file.h",
        "tests/agent/file_test.cpp",
    ],
)
def test_a_platform_conditional_is_told_with_file_and_line(tree, path, macro):
    write(tree, path, f"\n#ifdef {macro}\n#endif\n")
    assert check(tree) == [f"{path}:2: platform conditional {macro} outside platform code"]


@pytest.mark.parametrize("form", ["#if defined(_WIN32)", "#  ifndef _WIN32", "#elif !_WIN32"])
def test_every_form_of_conditional_counts(tree, form):
    write(tree, "module/paths.cpp", f"#if 0\n#endif\n{form}\n")
    assert check(tree) == [
        "module/paths.cpp:3: platform conditional _WIN32 outside platform code"
    ]


@pytest.mark.parametrize(
    "path",
    ["agent/libZel/pipe_windows.cpp", "agent/libZel/pipe_posix.cpp", "agent/libZel/platform/x.h"],
)
def test_platform_code_may_look_at_the_platform(tree, path):
    write(tree, path, "#ifdef _WIN32\n#endif\n")
    assert check(tree) == []


def test_an_action_without_a_section_is_told(tree):
    write(tree, "docs/actions/files.md", "## CoreUtilsCopyFile\n\nSee CoreUtilsDirDelete.\n")
    assert check(tree) == [
        "module/registry.cpp:5: CoreUtilsDirDelete has no section"
        ' "## CoreUtilsDirDelete" in docs/actions: ' "add it to its family's page"
    ]


def test_an_action_without_contract_tests_is_told(tree):
    write(tree, "tests/contract/copy_test.cpp", "TEST(CopyFile, Copies) {}\n// DirDelete\n")
    assert check(tree) == [
        "module/registry.cpp:5: CoreUtilsDirDelete has no suite DirDelete in tests/contract: "
        "add TEST(DirDelete, ...) or TEST_F"
    ]


def test_an_action_without_a_system_test_is_told_once_there_are_system_tests(tree):
    write(tree, "tests/system/test_files.py",
          "call('CoreUtilsCopyFile')\nassert names == ['CoreUtilsDirDelete']\n")
    assert check(tree) == [
        "module/registry.cpp:5: CoreUtilsDirDelete is not called in tests/system: "
        'add a test with agent.call("CoreUtilsDirDelete", ...)'
    ]


def test_a_registry_without_rows_is_told(tree):
    write(tree, "module/registry.cpp", "// nothing\n")
    assert check(tree) == ["module/registry.cpp:1: the registry has no rows"]


def test_every_violation_is_told(tree):
    write(tree, "module/paths.cpp", "#include <unistd.h>\n#ifdef _WIN32\n#endif\n")
    assert len(check(tree)) == 2


def test_a_folder_without_sources_is_an_error(tmp_path):
    done = subprocess.run(
        [sys.executable, str(SCRIPT), str(tmp_path)],
        capture_output=True, text=True, timeout=60, check=False,
    )
    assert done.returncode == 2
    assert "holds no sources" in done.stderr
