"""What the benches report: rows, and the table of bench/README.md that is made of them."""

import dataclasses

BEGIN = "<!-- What scripts/bench --write measured. -->"
END = "<!-- The end of it. -->"


@dataclasses.dataclass(frozen=True)
class Aim:
    """A bound for the ratio to the peer, or for the figure itself where there is no peer."""

    relation: str
    bound: float

    def is_met(self, value):
        return {"at most": value <= self.bound, "below": value < self.bound,
                "at least": value >= self.bound}[self.relation]


def at_most(bound):
    return Aim("at most", bound)


def below(bound):
    return Aim("below", bound)


def at_least(bound):
    return Aim("at least", bound)


@dataclasses.dataclass(frozen=True)
class Row:
    what: str
    ours: float
    unit: str
    peer_name: str
    peer: float
    ratio: float
    aim: Aim
    met: bool  # None without an aim


def row(what, ours, unit, peer_name="", peer=None, aim=None):
    """One line of the table: `ours` beside the `peer`'s figure in the same unit, where there is
    one."""
    ratio = None if peer is None else ours / peer
    met = aim and aim.is_met(ours if ratio is None else ratio)
    return Row(what, ours, unit, peer_name, peer, ratio, aim, met)


def quantity(value, unit):
    """Three digits at least, as people write them: 12,345 ms; 2.91 µs; 120/s."""
    decimals = 0 if value >= 100 else 1 if value >= 10 else 2
    return f"{value:,.{decimals}f}" + (unit if unit.startswith("/") else f" {unit}")


def aim_text(one):
    if one.aim is None:
        return ""
    bound = f"{one.aim.bound:g}" + (f" {one.unit}" if one.ratio is None else "")
    return f"{one.aim.relation} {bound}" + ("" if one.met else ", missed")


def cells(one):
    peer = "" if one.peer is None else f"{one.peer_name}, {quantity(one.peer, one.unit)}"
    ratio = "" if one.ratio is None else f"{one.ratio:.2f}"
    return [one.what, quantity(one.ours, one.unit), peer, ratio, aim_text(one)]


def line(one):
    """The row for who watches the run."""
    return "; ".join(cell for cell in cells(one) if cell)


def table(rows):
    """The rows in Markdown."""
    head = ["| what | agent | peer | ratio | aim |", "|---|---|---|---|---|"]
    return "\n".join([*head, *(table_line(cells(one)) for one in rows)])


def table_line(texts):
    return "|" + "|".join(f" {text} " if text else " " for text in texts) + "|"


def summary(rows):
    aims = [one.met for one in rows if one.aim]
    return f"{aims.count(True)} aims met, {aims.count(False)} missed"


def with_measurement(document, measurement):
    """The document with the measurement between its two markers."""
    if document.count(BEGIN) != 1 or document.count(END) != 1:
        raise ValueError(f"there must be one line {BEGIN} and one line {END}")
    before, rest = document.split(BEGIN)
    _, after = rest.split(END)
    return f"{before}{BEGIN}\n\n{measurement}\n\n{END}{after}"
