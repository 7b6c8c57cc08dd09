"""What became of the mutants: kept from run to run, and told."""

import hashlib
import json
import threading

# The detail of a survivor that the slow tests have not seen.
QUICK = "quick"
OUTCOMES = ("killed", "survived", "identical", "uncompiled")


def read_listed(path):
    """The survivors that stand: their keys with the reasons."""
    listed = {}
    for line in path.read_text(encoding="utf-8").splitlines():
        if not line or line.startswith("# "):
            continue
        key, separator, reason = line.partition("\t")
        if not separator or not reason.strip():
            raise ValueError(f"{path}: no reason for {key}")
        listed[key] = reason.strip()
    return listed


class State:
    """Outcomes in a file that grows by a line each. One holds as long as its source is the same; that of a
    survivor also only as long as the tests are."""

    def __init__(self, path, texts, tests):
        """`texts`: the sources by their paths; `tests`: what tells these tests from others."""
        self._path, self._tests = path, tests[:16]
        self._sources = {
            source: hashlib.sha256(text.encode()).hexdigest()[:16] for source, text in texts.items()
        }
        self._lock = threading.Lock()
        self._rows = {}
        if path.exists():
            for line in path.read_text(encoding="utf-8").splitlines():
                try:
                    row = json.loads(line)
                except ValueError:  # the last line of a run that was cut off
                    continue
                self._rows[row["key"]] = row

    def add(self, mutant, outcome, detail):
        row = {
            "key": mutant.key, "id": mutant.id, "outcome": outcome, "detail": detail,
            "source": self._sources[mutant.path], "tests": self._tests,
        }
        with self._lock:
            self._rows[mutant.key] = row
            with self._path.open("a", encoding="utf-8") as file:
                file.write(json.dumps(row) + "\n")

    def outcome_of(self, mutant):
        """None while it is not known."""
        row = self._rows.get(mutant.key)
        return row["outcome"] if row and row["source"] == self._sources[mutant.path] else None

    def detail_of(self, mutant):
        return self._rows[mutant.key]["detail"]

    def knows(self, mutant, survivors_again=False, quick=False):
        outcome = self.outcome_of(mutant)
        if outcome != "survived":
            return outcome is not None
        row = self._rows[mutant.key]
        is_whole = quick or row["detail"] != QUICK
        return is_whole and not survivors_again and row["tests"] == self._tests


class Report:
    """The figures of the chosen mutants, by folder, and what somebody has to look at."""

    def __init__(self, every, chosen, state, listed):
        self._listed, self._state = listed, state
        self._ran = [mutant for mutant in chosen if state.outcome_of(mutant)]
        self._chosen = len(chosen)
        survivors = [mutant for mutant in self._ran if state.outcome_of(mutant) == "survived"]
        self.unlisted = [mutant for mutant in survivors if mutant.key not in listed]
        self.listed_but_gone = [
            mutant for mutant in self._ran if mutant.key in listed and state.outcome_of(mutant) != "survived"
        ]
        keys = {mutant.key for mutant in every}
        self.listed_without_mutant = [key for key in listed if key not in keys]

    def _row(self, mutants):
        counts = dict.fromkeys(OUTCOMES, 0)
        for mutant in mutants:
            counts[self._state.outcome_of(mutant)] += 1
        row = {"mutants": len(mutants), **counts}
        row["listed"] = sum(
            self._state.outcome_of(mutant) == "survived" and mutant.key in self._listed for mutant in mutants
        )
        could = counts["killed"] + counts["survived"]
        row["share"] = round(100 * counts["killed"] / could, 1) if could else None
        return row

    def rows(self):
        folders = {}
        for mutant in self._ran:
            folders.setdefault(mutant.path.rsplit("/", 1)[0], []).append(mutant)
        return {**{folder: self._row(folders[folder]) for folder in sorted(folders)}, "all": self._row(self._ran)}

    def as_data(self):
        return {
            "chosen": self._chosen,
            "rows": self.rows(),
            "unlisted": [{"id": mutant.id, "key": mutant.key} for mutant in self.unlisted],
            "listed but gone": [mutant.key for mutant in self.listed_but_gone],
            "listed without mutant": self.listed_without_mutant,
        }

    def as_text(self):
        columns = ("mutants", "uncompiled", "identical", "killed", "survived", "listed", "share")
        lines = ["", f"{'':18}" + "".join(f"{column:>12}" for column in columns)]
        for folder, row in self.rows().items():
            cells = ["-" if row[column] is None else str(row[column]) for column in columns]
            lines.append(f"{folder:18}" + "".join(f"{cell:>12}" for cell in cells))
        lines.append("share: of what compiled to other code, how many percent were killed")
        if len(self._ran) < self._chosen:
            lines.append(f"{self._chosen - len(self._ran)} did not run")
        lines += [f"survived, not listed: {mutant.id}\n    {mutant.key}" for mutant in self.unlisted]
        lines += [
            f"listed, but {self._state.outcome_of(mutant)} now ({self._state.detail_of(mutant)}): {mutant.key}"
            for mutant in self.listed_but_gone
        ]
        lines += [f"listed, but no mutant: {key}" for key in self.listed_without_mutant]
        return "\n".join(lines)
