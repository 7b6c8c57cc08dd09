"""Compiles a mutant and puts the contract tests to it.

The tests are linked once, against a shared library of the module's objects. For a mutant one source is
compiled and that library linked anew.
"""

import hashlib
import json
import pathlib
import re
import resource
import shlex
import shutil
import signal
import subprocess

# Long for a test of milliseconds on a busy machine, short for a mutant that never ends.
QUICK_SECONDS = 60
QUICK_CPU_SECONDS = 10
SLOW_TEST_MS = 500
MEMORY_BYTES = 4 << 30
LIBRARY = "libmutated.so"
# With fewer mutants the precompiled header costs more than it saves.
WORTH_PRECOMPILING = 30


class HarnessError(Exception):
    pass


def run(command, **options):
    done = subprocess.run(command, capture_output=True, text=True, errors="replace", check=False, **options)
    if done.returncode != 0:
        raise HarnessError(f"{shlex.join(map(str, command))}\n{done.stdout}{done.stderr}")
    return done.stdout


def digest_of(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


class Harness:
    """The module's objects, the tests linked against them, and where they are."""

    def __init__(self, root, texts, build, work):
        self.root, self.texts, self.build, self.work = root, texts, build, work
        work.mkdir(parents=True, exist_ok=True)
        run(["ninja", "-C", build, "contract_tests"])
        self.commands = {
            str(pathlib.Path(entry["file"]).relative_to(root)): entry
            for entry in json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
            if "zel_module_objects" in entry["command"]
        }
        self.linker = ["-fuse-ld=lld"] if shutil.which("ld.lld") else []
        self.program = work / "contract_tests"
        self._objects = self._copy_objects()
        self._link_tests()
        self.slow_tests, self.slow_seconds = [], QUICK_SECONDS
        self.header = None
        self._originals = {}

    def sources(self):
        """Of all that is compiled here, relative to the root."""
        return sorted(self.commands)

    def _copy_objects(self):
        """So that a build in the meantime changes nothing."""
        objects = {}
        for number, (source, entry) in enumerate(sorted(self.commands.items())):
            words = shlex.split(entry["command"])
            objects[source] = self.work / f"original-{number}.o"
            shutil.copyfile(pathlib.Path(entry["directory"]) / words[words.index("-o") + 1], objects[source])
        return objects

    def _link_tests(self):
        last = run(["ninja", "-C", self.build, "-t", "commands", "contract_tests"]).splitlines()[-1]
        words = shlex.split(last.split("&&")[1])
        output = words.index("-o")
        words = [word for word in words[:output] + words[output + 2 :] if "zel_module_objects" not in word]
        self.compiler = words[0]
        library = self.work / LIBRARY
        self.link_library(library, {})
        # The objects call the fake host, which is in the program.
        first_object = next(at for at, word in enumerate(words) if word.endswith(".o"))
        words[first_object:first_object] = self.linker + ["-rdynamic", "-s", "-o", str(self.program)]
        run(words + [str(library), "-lm"], cwd=self.build)

    def link_library(self, library, replaced):
        objects = [str(replaced.get(source, self._objects[source])) for source in self.sources()]
        # An inline function of a mutated header is the library's own, also where the tests have the same.
        run([self.compiler, *self.linker, "-shared", "-s", "-Wl,-Bsymbolic-functions", f"-Wl,-soname,{LIBRARY}",
             "-o", library, *objects])

    def flags_of(self, source):
        """How the build compiles it, but for warnings, optimisation and what is printed for debuggers."""
        words = shlex.split(self.commands[source]["command"])
        return [word for word in words if re.match(r"-(I|D|std=|fPIC|isystem)", word)]

    def precompile(self):
        """One header of everything that the sources include."""
        lines = set()
        for source in self.sources():
            lines.update(re.findall(r"^#include .*$", self.texts[source], re.MULTILINE))
        header = self.work / "all_headers.h"
        header.write_text("\n".join(sorted(lines)) + "\n", encoding="utf-8")
        flags = self.flags_of(self.sources()[0])
        run([self.compiler, *flags, "-w", "-O0", "-x", "c++-header", header, "-o", f"{header}.gch"])
        self.header = header

    def compile_change(self, path, text, place, optimisation="-O0"):
        """The object files, by source, where `path` has this text; None when it does not compile. Of a header
        these are all."""
        if not path.endswith(".h"):
            made = self.compile(path, text, place, optimisation)
            return None if made is None else {path: made}
        headers = place / "headers"
        shutil.rmtree(headers, ignore_errors=True)
        (headers / path).parent.mkdir(parents=True)
        (headers / path).write_text(text, encoding="utf-8")
        objects = {}
        for source in self.sources():
            objects[source] = self.compile(source, self.texts[source], place, optimisation, headers)
            if objects[source] is None:
                return None
        return objects

    def compile(self, source, text, place, optimisation="-O0", headers=None):
        """The object file, always of the same name in `place`; None when the text does not compile. Headers in
        the directory `headers` stand for the tree's."""
        file = place / pathlib.Path(source).name
        file.write_text(text, encoding="utf-8")
        result = file.with_suffix(".o")
        result.unlink(missing_ok=True)
        header = ["-include", self.header] if self.header and optimisation == "-O0" and not headers else []
        header += ["-iquote", headers] if headers else []
        command = [self.compiler, *self.flags_of(source), *header, "-w", "-fmax-errors=1", optimisation,
                   "-iquote", (self.root / source).parent, "-c", file.name, "-o", result.name]
        done = subprocess.run(command, cwd=place, capture_output=True, check=False)
        return result if done.returncode == 0 else None

    def original_digest(self, source, place, optimisation):
        known = (source, optimisation)
        if known not in self._originals:
            made = self.compile(source, self.texts[source], place, optimisation)
            if made is None:
                raise HarnessError(f"{source} does not compile without a change")
            self._originals[known] = digest_of(made)
        return self._originals[known]

    def measure(self):
        """Runs everything on what is not mutated: all must pass; remembers what takes long."""
        report = self.work / f"baseline-{self._digest()}.json"
        if not report.exists():
            done = self._run_tests(self.work, "*", 600, 600, [f"--gtest_output=json:{report}.new"])
            if done is None or done.returncode != 0:
                output = done.stdout[-3000:] if done else "they took too long"
                raise HarnessError(f"the contract tests fail without a change:\n{output}")
            pathlib.Path(f"{report}.new").rename(report)
        total = 0.0
        for suite in json.loads(report.read_text(encoding="utf-8"))["testsuites"]:
            for test in suite["testsuite"]:
                seconds = float(test["time"].rstrip("s"))
                total += seconds
                if seconds * 1000 > SLOW_TEST_MS:
                    self.slow_tests.append(f"{suite['name']}.{test['name']}")
        self.slow_seconds = max(QUICK_SECONDS, 10 * total)

    def _digest(self):
        """Of what is tested and what tests it."""
        return hashlib.sha256((digest_of(self.program) + digest_of(self.work / LIBRARY)).encode()).hexdigest()[:16]

    def _run_tests(self, place, selection, seconds, cpu_seconds, more=()):
        """None when they took too long."""
        def limit():
            resource.setrlimit(resource.RLIMIT_CPU, (int(cpu_seconds), int(cpu_seconds)))
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

        command = [self.program, f"--gtest_filter={selection}", "--gtest_fail_fast", *more]
        process = subprocess.Popen(
            command, cwd=place, env={"LD_LIBRARY_PATH": str(place), "HOME": str(place)}, text=True, errors="replace",
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, preexec_fn=limit)
        try:
            output, _ = process.communicate(timeout=seconds)
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGKILL)
            process.communicate()
            return None
        return subprocess.CompletedProcess(command, process.returncode, output)

    def killed_near(self, place, suites):
        """What of the suites finds the mutant in `place`: a test, "time" or a crash; None when nothing does."""
        near = ":".join(f"{suite}.*" for suite in sorted(suites))
        if not near:
            return None
        return self._killer(place, f"{near}-{':'.join(self.slow_tests)}", QUICK_SECONDS, QUICK_CPU_SECONDS)

    def killed_quickly(self, place):
        """The same of all tests but the slow ones."""
        return self._killer(place, f"-{':'.join(self.slow_tests)}", QUICK_SECONDS, QUICK_CPU_SECONDS)

    def killed_slowly(self, place, foreign_suites):
        """The same of the slow tests, but for those suites."""
        slow = ":".join(test for test in self.slow_tests if test.split(".")[0] not in foreign_suites)
        return self._killer(place, slow, self.slow_seconds, self.slow_seconds) if slow else None

    def _killer(self, place, selection, seconds, cpu_seconds):
        done = self._run_tests(place, selection, seconds, cpu_seconds)
        if done is None:
            return "time"
        if done.returncode == 0:
            return None
        if "symbol lookup error" in done.stdout:
            raise HarnessError(done.stdout)
        failed = re.search(r"^\[  FAILED  \] (\w+\.\w+)", done.stdout, re.MULTILINE)
        return failed[1] if failed else f"crash in {self._last_test(done.stdout)}"

    @staticmethod
    def _last_test(output):
        started = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        return started[-1] if started else "the start"
