"""tests/mutation: what it mutates, what it leaves alone, that it can fail, and a sample of the module's own mutants.

ZEL_BUILD_DIR names the Linux build (default build/linux), whose contract tests must be built.
"""

import json
import pathlib
import subprocess
import sys
import textwrap

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOOL = ROOT / "tests" / "mutation" / "run.py"
SURVIVORS = ROOT / "tests" / "mutation" / "survivors.txt"
sys.path.insert(0, str(TOOL.parent))

import mutants as mutants_module  # noqa: E402
from outcomes import QUICK, Report, State, read_listed  # noqa: E402
from run import in_sampling_order, mutated_sources  # noqa: E402


def mutants_of(text, path="module/a.cpp"):
    return mutants_module.mutants_of(path, text)


def changed_lines(statement, kind):
    """What mutants of that kind make of the statement, which stands alone in a function."""
    text = f"int Function() {{\n  {statement}\n  return kOther;\n}}\n"
    return [
        mutant.apply(text).split("\n")[1].strip() for mutant in mutants_of(text)
        if mutant.kind == kind and mutant.line == 2
    ]


@pytest.mark.parametrize(
    "statement, kind, expected",
    [
        ("if (a == b) x();", "operator", ["if (a != b) x();"]),
        ("if (a != b) x();", "operator", ["if (a == b) x();"]),
        ("if (a < b) x();", "operator", ["if (a <= b) x();", "if (a >= b) x();"]),
        ("if (a >= b) x();", "operator", ["if (a < b) x();", "if (a > b) x();"]),
        ("if (a && b) x();", "operator", ["if (a || b) x();"]),
        ("if (a || b) x();", "operator", ["if (a && b) x();"]),
        ("if (!a) x();", "operator", ["if (a) x();"]),
        ("c = a + b;", "operator", ["c = a - b;"]),
        ("c = a | b;", "operator", ["c = a & b;"]),
        ("c = a & b;", "operator", ["c = a | b;"]),
        ("c += b;", "operator", ["c -= b;"]),
        ("++c;", "operator", ["--c;"]),
        ("std::vector<int> c;", "operator", []),
        ("const A& c = d->e();", "operator", []),
        ("c = 7;", "constant", ["c = 8;"]),
        ("c = 0;", "constant", ["c = 1;"]),
        ("c = 1;", "constant", ["c = 0;"]),
        ("c = 0xFFu;", "constant", ["c = 0x100u;"]),
        ("c = true;", "constant", ["c = false;"]),
        ("return kSuccess;", "constant", ["return kFailure;"]),
        ("return kAccessRefused;", "constant", ["return kFailure;"]),
        ('c = "abc";', "text", ['c = "";', 'c = "ac";']),
        ('c = "";', "text", ['c = "x";']),
        (r'c = "\\";', "text", ['c = "";']),
        ("c = 'a';", "text", ["c = 'x';"]),
        ("c = 'x';", "text", ["c = 'y';"]),
        ("a.b(c)->d(e);", "call", [";"]),
        ("if (a) b(c);", "call", ["if (a) ;"]),
        ("const A b(c);", "call", []),
        ("ZelString b(c);", "call", []),
        ("std::vector<int> b(c);", "call", []),
        ("a.b = c;", "assignment", [";"]),
        ("*a = c;", "assignment", [";"]),
        ("a[1] += c;", "assignment", [";"]),
        ("++a;", "assignment", [";"]),
        ("const int a = c;", "assignment", []),
        ("auto a = c;", "assignment", []),
        ("A a = c;", "assignment", []),
        ("if (a) return b;", "leaving", ["if (a) ;"]),
        ("while (a) { if (b) continue; if (c) break; }", "leaving",
         ["while (a) { if (b) ; if (c) break; }", "while (a) { if (b) continue; if (c) ; }"]),
        ("c = f(a, b, d);", "swap", ["c = f(b, a, d);", "c = f(a, d, b);"]),
        ("c = f(g(a, b), d);", "swap", ["c = f(d, g(a, b));", "c = f(g(b, a), d);"]),
        ("c = f<A, B>(a, std::pair<A, B>());", "swap", ["c = f<A, B>(std::pair<A, B>(), a);"]),
        ("c = f(a, a);", "swap", []),
        ('c = f("a", &b);', "swap", []),
        ("if (a, b) x();", "swap", []),
        ("c = std::min<size_t>(a, b);", "swap", []),
    ],
)
def test_each_kind_makes_these_mistakes(statement, kind, expected):
    assert changed_lines(statement, kind) == expected


def test_a_function_keeps_its_last_return_and_the_order_of_its_parameters():
    text = "int F(int a, const B& b) {\n  if (a) return b;\n  return c;\n}\n"
    assert [mutant.id for mutant in mutants_of(text)] == ["module/a.cpp:2:leaving:1"]


@pytest.mark.parametrize(
    "text",
    [
        "// a == b; f(1, 2);\n",
        '/* a == b;\n   f("x", true); */\n',
        '#include "a/b.h"\n#define A \\\n  1 + 2\n',
        "static_assert(sizeof(int) == 4);\n",
        "using A = std::array<int, 3>;\n",
        "namespace a::b {\n}  // namespace a::b\n",
        'extern "C" int F(int a);\n',
    ],
)
def test_what_is_no_code_of_a_function_is_left_alone(text):
    assert mutants_of(text) == []


def test_a_mark_of_a_comment_in_a_text_is_text():
    text = 'void F() {\n  f("http://a");  // 1 == 2\n}\n'
    assert {mutant.kind for mutant in mutants_of(text)} == {"text", "call"}


def test_lines_keep_their_numbers():
    text = "void F() {\n  f(a,\n    b);\n  g(1);\n}\n"
    assert all(mutant.apply(text).count("\n") == text.count("\n") for mutant in mutants_of(text))


def test_a_key_survives_a_shift_of_lines_and_tells_equal_lines_apart():
    text = "int F() {\n  f(1);\n  f(1);\n}\nint G() {\n  f(1);\n}\n"
    keys = [mutant.key for mutant in mutants_of(text)]
    assert len(set(keys)) == len(keys)
    assert "module/a.cpp F: f(1); => f(0);" in keys
    assert "module/a.cpp F: f(1); => f(0); #2" in keys
    assert "module/a.cpp G: f(1); => f(0);" in keys
    assert [mutant.key for mutant in mutants_of("// A line.\n\n" + text)] == keys


def test_the_order_depends_on_the_seed_alone_and_every_beginning_is_spread_over_the_files():
    text = "void F() {\n" + "  f(1);\n" * 20 + "}\n"
    every = mutants_of(text, "module/a.cpp") + mutants_of(text, "module/b.cpp")
    order = [mutant.id for mutant in in_sampling_order(every, 1)]
    assert [mutant.id for mutant in in_sampling_order(every, 1)] == order
    assert [mutant.id for mutant in in_sampling_order(every, 2)] != order
    for length in range(2, len(every), 2):
        of_a = sum(place.startswith("module/a.cpp") for place in order[:length])
        assert abs(of_a - length / 2) <= 1


def test_every_source_of_the_module_has_mutants():
    sources = mutated_sources(ROOT)
    assert {"module/action.h", "module/registry.cpp", "actions/files/file_content.cpp"} <= set(sources)
    # Headers may hold nothing but declarations.
    for source in ["module/action.h"] + [source for source in sources if source.endswith(".cpp")]:
        assert mutants_of((ROOT / source).read_text(encoding="utf-8"), source), source


def test_survivors_are_listed_with_reasons_and_name_mutants_that_exist():
    keys = {
        mutant.key for source in mutated_sources(ROOT)
        for mutant in mutants_of((ROOT / source).read_text(encoding="utf-8"), source)
    }
    assert set(read_listed(SURVIVORS)) - keys == set()


def test_a_listed_survivor_without_a_reason_is_an_error(tmp_path):
    listed = tmp_path / "survivors.txt"
    listed.write_text("module/a.cpp F: a => b\t\n", encoding="utf-8")
    with pytest.raises(ValueError, match="no reason"):
        read_listed(listed)


def test_outcomes_hold_while_the_source_is_the_same(tmp_path):
    text = "void F() {\n  f(1);\n}\n"
    killed, survivor = mutants_of(text)
    source = {"module/a.cpp": text}
    state = State(tmp_path / "state", source, "tests")
    state.add(killed, "killed", "Suite.Test")
    state.add(survivor, "survived", "")
    again = State(tmp_path / "state", source, "tests")
    assert again.knows(killed) and again.knows(survivor)
    assert not again.knows(survivor, survivors_again=True)
    other_tests = State(tmp_path / "state", source, "others")
    assert other_tests.knows(killed) and not other_tests.knows(survivor)
    report = Report([killed, survivor], [killed, survivor], again, {killed.key: "why", "gone": "why"})
    assert report.unlisted == [survivor]
    assert report.listed_but_gone == [killed]
    assert report.listed_without_mutant == ["gone"]
    changed = {"module/a.cpp": text + "\n"}
    assert not State(tmp_path / "state", changed, "tests").knows(killed)


def test_what_the_slow_tests_have_not_seen_counts_for_quick_runs_alone(tmp_path):
    text = "void F() {\n  f(1);\n}\n"
    state = State(tmp_path / "state", {"module/a.cpp": text}, "tests")
    mutant = mutants_of(text)[0]
    state.add(mutant, "survived", QUICK)
    assert state.knows(mutant, quick=True)
    assert not state.knows(mutant)


# ---- The whole tool ----

SMALL_TREE = {
    "CMakeLists.txt": """
        cmake_minimum_required(VERSION 3.25)
        project(small LANGUAGES CXX)
        set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
        set(CMAKE_POSITION_INDEPENDENT_CODE ON)
        find_package(GTest REQUIRED)
        include_directories(.)
        add_library(zel_module_objects OBJECT module/give.cpp module/sum.cpp)
        add_executable(contract_tests $<TARGET_OBJECTS:zel_module_objects> tests/contract/sum_test.cpp)
        target_link_libraries(contract_tests GTest::gtest_main)
        """,
    # Two mutants survive the tests below, one hangs, one has the code of the original, one does not compile.
    "module/limits.h": """
        #pragma once
        constexpr unsigned kMost = 100;
        inline int Given() { return 3; }
        """,
    "module/give.cpp": """
        #include "module/limits.h"
        struct Pair { int a; const char* b; };
        int Take(Pair*, int) { return Given(); }
        int Give(Pair* pair, int a) { return Take(pair, a); }
        """,
    "module/sum.cpp": """
        #include "module/limits.h"
        unsigned Sum(unsigned last) {
          unsigned sum = 0;
          for (unsigned i = 1; i <= last; ++i) sum += i * i + 1;
          if (last > kMost) return 0;
          [[maybe_unused]] const int unused = 4;
          return sum;
        }
        """,
    "tests/contract/sum_test.cpp": """
        #include <gtest/gtest.h>
        #include "module/limits.h"
        unsigned Sum(unsigned last);
        struct Pair;
        int Give(Pair* pair, int a);
        TEST(Sum, AddsUp) { EXPECT_EQ(Sum(3), 17u); }
        TEST(Sum, IsNothingForNothing) { EXPECT_EQ(Sum(0), 0u); }
        TEST(Sum, IsNothingForTooMuch) { EXPECT_EQ(Sum(200), 0u); }
        TEST(Give, Gives) { EXPECT_EQ(Give(nullptr, 1), 3); }
        // The tests' own is not the mutant's.
        TEST(Given, IsThree) { EXPECT_EQ(Given(), 3); }
        """,
}
PLANTED = ["module/limits.h kMost: constexpr unsigned kMost = 100; => constexpr unsigned kMost = 101;",
           "module/sum.cpp Sum: if (last > kMost) return 0; => if (last >= kMost) return 0;"]


def mutate(*words):
    return subprocess.run(
        [sys.executable, str(TOOL), *map(str, words)], capture_output=True, text=True, timeout=300, check=False)


@pytest.fixture(scope="module")
def small_tree(tmp_path_factory):
    root = tmp_path_factory.mktemp("small-tree")
    for path, text in SMALL_TREE.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(textwrap.dedent(text).lstrip(), encoding="utf-8")
    subprocess.run(["cmake", "-G", "Ninja", "-S", root, "-B", root / "build/linux"], check=True, timeout=60,
                   capture_output=True)
    return root


def test_a_planted_survivor_fails_the_run_until_it_is_listed(small_tree):
    listed = small_tree / "survivors.txt"
    listed.write_text("# Nothing.\n", encoding="utf-8")
    words = ["--root", small_tree, "--build", small_tree / "build/linux", "--survivors", listed, "--jobs", 2]
    done = mutate(*words)
    assert done.returncode == 1, done.stdout + done.stderr
    assert [key for key in PLANTED if f"\n    {key}\n" in done.stdout] == PLANTED
    report = json.loads((small_tree / "build/mutation/report.json").read_text(encoding="utf-8"))
    assert sorted(row["key"] for row in report["unlisted"]) == sorted(PLANTED)
    counts = report["rows"]["all"]
    assert "\n    module/limits.h Given: " not in done.stdout
    assert counts["identical"] >= 1 and counts["uncompiled"] >= 1 and counts["killed"] >= 8

    # The outcomes are known by now: nothing runs again.
    listed.write_text("".join(f"{key}\tnobody asks for so much\n" for key in PLANTED), encoding="utf-8")
    done = mutate(*words)
    assert done.returncode == 0, done.stdout + done.stderr


def test_tests_that_fail_without_a_change_prove_nothing(small_tree):
    test = small_tree / "tests/contract/sum_test.cpp"
    text = test.read_text(encoding="utf-8")
    test.write_text(text.replace("17u", "18u"), encoding="utf-8")
    try:
        done = mutate("--root", small_tree, "--build", small_tree / "build/linux", "--work", small_tree / "other")
    finally:
        test.write_text(text, encoding="utf-8")
    assert done.returncode == 2
    assert "fail without a change" in done.stderr


def test_of_a_sample_of_the_module_every_mutant_is_killed_or_listed(tmp_path):
    done = mutate("--sample", 12, "--seed", 3, "--jobs", 2, "--work", tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr
    counts = json.loads((tmp_path / "report.json").read_text(encoding="utf-8"))["rows"]["all"]
    assert counts["mutants"] == 12
    assert counts["killed"] >= 6
