"""Which suites of the contract tests are about which source: the first ones to try on a mutant of it."""

import re

HANDLER = re.compile(r"^ResultCode CoreUtils(\w+)\(", re.MULTILINE)
SUITE = re.compile(r"^TEST(?:_F|_P)?\((\w+)", re.MULTILINE)
INCLUDE = re.compile(r'^#include "((?:module|actions)/[\w/]+)\.h"', re.MULTILINE)


class Suites:
    """Suites are found by the actions that a source defines, by the names of the tests' files, and for what
    other sources include, by those sources. Those that found a mutant are remembered."""

    def __init__(self, root, texts):
        self._texts = texts
        self._of_file = {}
        for file in sorted((root / "tests" / "contract").rglob("*.cpp")):
            self._of_file[file.stem] = set(SUITE.findall(file.read_text(encoding="utf-8")))
        self._known = {source: self._find(source) for source in texts if source.endswith(".cpp")}
        # What every source includes is the matter of all suites.
        everything = set().union(*self._known.values())
        self._known |= {source: set(everything) for source in texts if source.endswith(".h")}

    def of(self, source):
        return self._known[source]

    def foreign_to(self, source):
        """Those that are about other sources alone."""
        others = (known for other, known in self._known.items() if other.endswith(".cpp"))
        return set().union(*others) - self._known[source]

    def learn(self, source, killer):
        suite = killer.rsplit(" ", 1)[-1].split(".")[0]
        if suite not in ("FaultSweep", "time", "start"):
            self._known[source].add(suite)

    def _find(self, source):
        own = self._of_source(source)
        if own:
            return own
        header = source.removesuffix(".cpp")
        users = [user for user, text in self._texts.items() if header in INCLUDE.findall(text) and user != source]
        return set().union(*(self._of_source(user) for user in users if user != "module/registry.cpp"))

    def _of_source(self, source):
        stem = source.rsplit("/", 1)[-1].removesuffix(".cpp")
        actions = set(HANDLER.findall(self._texts[source]))
        found = set(self._of_file.get(f"{stem}_test", ()))
        for suites in self._of_file.values():
            found |= suites & actions
            if suites & actions:
                found |= {suite for suite in suites if suite.startswith(tuple(actions))}
        return found
