"""The mutants of a source file: each is the file with one small mistake in it."""

import dataclasses
import re

from source_text import CLOSING, CONTROL, Source

OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "|": ["&"], "&": ["|"],
    "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}
STEPS = {"++": "--", "--": "++"}
RESULT_CODES = {
    "kSuccess": "kFailure", "kFailure": "kSuccess", "kAccessRefused": "kFailure", "kBadParameter": "kFailure",
    "kSmbStepFailed": "kFailure", "kFileNotFound": "kSuccess", "kMasterNotInvoked": "kFailure",
}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "|=", "&=", "^=", "%="}
DECLARING = {"const", "constexpr", "static", "auto", "using", "typedef", "explicit", "virtual", "struct", "class", "enum"}
LEAVING = {"return", "break", "continue", "throw"}
NO_CALLEES = CONTROL | {"return", "sizeof", "alignof", "decltype", "noexcept", "operator"}
DECLARED = re.compile(r"(?:const\s+)?[\w:<>]+(?:[&*]+\s*|\s+)\w+(?:\s*=.*)?|const\s.*|[\w:<>]+[&*]+", re.DOTALL)


@dataclasses.dataclass
class Mutant:
    path: str
    line: int
    kind: str
    start: int
    end: int
    new: str
    id: str = ""
    key: str = ""
    """What survives a shift of lines: the file, the definition around, the line and what became of it."""

    def apply(self, text):
        return text[: self.start] + self.new + text[self.end :]


def in_one_line(text):
    return " ".join(text.split())


def could_never_compile(left, right):
    """Whether one is a text and the other an address or a number: none of these turns into the other."""
    texts = [argument.startswith('"') for argument in (left, right)]
    other = left if texts[1] else right
    return texts[0] != texts[1] and bool(re.match(r"&|[0-9]|kNoIndex$|true$|false$", other))


def takes_any_order(text_before):
    """Whether the call's name stands for a function to which the order of its arguments is all one."""
    return bool(re.search(r"std::(swap|min|max)(<[\w:]+>)?$", text_before))


class Mutator:
    def __init__(self, source):
        self.source = source
        self.tokens = source.tokens
        self.found = []
        self.by_kind = {
            "operator": self._operator, "number": self._number, "name": self._word,
            "character": self._character, "string": self._string,
        }

    def all(self):
        for index, token in enumerate(self.tokens):
            if index in self.source.untouched:
                continue
            if token.kind in self.by_kind:
                self.by_kind[token.kind](index, token)
            self._statement(index)
        self._identify()
        return self.found

    def _add(self, kind, start, end, new):
        # Lines keep their numbers.
        new += "\n" * (self.source.text.count("\n", start, end) - new.count("\n"))
        self.found.append(Mutant(self.source.path, self.source.line_of(start), kind, start, end, new))

    def _replace(self, kind, token, new):
        self._add(kind, token.start, token.end, new)

    def _operator(self, index, token):
        if token.text in OPERATORS and self.source.is_spaced(index):
            for new in OPERATORS[token.text]:
                self._replace("operator", token, new)
        elif token.text in STEPS:
            self._replace("operator", token, STEPS[token.text])
        elif token.text == "!":
            self._replace("operator", token, "")
        elif token.text == "(":
            self._arguments(index)

    def _number(self, _index, token):
        digits = re.fullmatch(r"(0[xX][0-9A-Fa-f']+|[0-9']+)(\w*)", token.text)
        if not digits:
            return
        value = int(digits[1].replace("'", ""), 16 if digits[1][:2] in ("0x", "0X") else 10)
        changed = {0: 1, 1: 0}.get(value, value + 1)
        self._replace("constant", token, (hex(changed) if "x" in digits[1].lower() else str(changed)) + digits[2])

    def _word(self, index, token):
        new = {"true": "false", "false": "true"}.get(token.text) or RESULT_CODES.get(token.text)
        # A code's own definition is told by its number.
        if new and self.source.text_at(index + 1) != "=":
            self._replace("constant", token, new)

    def _character(self, _index, token):
        opening = token.text[: token.text.index("'") + 1]
        self._replace("text", token, opening + ("y'" if token.text.endswith("'x'") else "x'"))

    def _string(self, _index, token):
        opening = token.text[: token.text.index('"') + 1]
        units = re.findall(r"\\x[0-9A-Fa-f]+|\\[0-7]{1,3}|\\.|%\w|.", token.text[len(opening) : -1])
        if not units:
            self._replace("text", token, opening + 'x"')
            return
        self._replace("text", token, opening + '"')
        if len(units) == 1:
            return
        letters = [place for place, unit in enumerate(units) if unit.isalnum()] or list(range(len(units)))
        dropped = letters[len(letters) // 2]
        self._replace("text", token, opening + "".join(units[:dropped] + units[dropped + 1 :]) + '"')

    def _statement(self, index):
        if not self._begins_statement(index):
            return
        end = self._end_of_statement(index)
        if end is None:
            return
        kind = self._kind_of_statement(index, end)
        if kind:
            self._add(kind, self.tokens[index].start, self.tokens[end].end, ";")

    def _begins_statement(self, index):
        source = self.source
        around = source.within[index]
        if around is None or source.text_at(around) != "{" or source.text_at(index) in CLOSING:
            return False
        before = index - 1
        text = source.text_at(before)
        if text == ")":
            return source.text_at(source.partner.get(before, 0) - 1) in CONTROL
        if text == ":":
            begin, _ = source.lines_around(self.tokens[before].start, self.tokens[before].start)
            return source.text[begin:].lstrip().startswith(("case ", "default:"))
        return text in (";", "{", "}", "else")

    def _end_of_statement(self, index):
        around = self.source.within[index]
        last = self.source.partner.get(around, len(self.tokens))
        for end in range(index, last):
            if self.source.within[end] == around and self.source.text_at(end) == ";":
                return end
        return None

    def _kind_of_statement(self, index, end):
        first = self.source.text_at(index)
        if first in LEAVING:
            return None if first == "return" and self._ends_function(end) else "leaving"
        if first == "delete":
            return "call"
        if first in DECLARING or first in CONTROL or first in ("case", "default", "else", "do", "try", "{", "}"):
            return None
        top = [at for at in range(index, end) if self.source.within[at] == self.source.within[index]]
        assigned = next((at for at in top if self.source.text_at(at) in ASSIGNMENTS), None)
        if self._declares(top, assigned):
            return None
        if assigned is not None or self.source.text_at(index) in STEPS or self.source.text_at(end - 1) in STEPS:
            return "assignment"
        return "call" if self.source.text_at(end - 1) == ")" else None

    def _declares(self, top, assigned):
        """Whether the statement starts like "Type name", so that without it nothing would compile."""
        for at, after in zip(top, top[1:]):
            if at == assigned:
                return False
            follows_type = self.source.kind_at(at) == "name" or self.source.text_at(at) in (">", "&", "*")
            if self.source.kind_at(after) == "name" and after == at + 1 and follows_type:
                # "*place = ..." starts with an operator, not with a type.
                if at != top[0] or self.source.kind_at(at) == "name":
                    return True
        return any(self.source.text_at(at) in DECLARING for at in top)

    def _ends_function(self, end):
        """Whether nothing but closing braces follows in the function: without its end it would have no value."""
        around = self.source.within[end]
        at = end + 1
        while around is not None and at == self.source.partner.get(around):
            if self.source.is_function_body(around):
                return True
            around, at = self.source.within[around], at + 1
        return False

    def _arguments(self, index):
        callee = self.source.text_at(index - 1)
        if self.source.kind_at(index - 1) != "name" and callee != ">":
            return
        if callee in NO_CALLEES or index not in self.source.partner:
            return
        if takes_any_order(self.source.text[: self.tokens[index].start]):
            return
        parts = self._parts(index)
        texts = [self.source.text[start:end] for start, end in parts]
        if any(DECLARED.fullmatch(text) for text in texts):
            return
        for one, other, left, right in zip(parts, parts[1:], texts, texts[1:]):
            if in_one_line(left) != in_one_line(right) and not could_never_compile(left, right):
                between = self.source.text[one[1] : other[0]]
                self._add("swap", one[0], other[1], right + between + left)

    def _parts(self, index):
        """Where the arguments in the bracket start and end."""
        parts, angles, start = [], 0, index + 1
        close = self.source.partner[index]
        for at in range(index + 1, close):
            text = self.source.text_at(at)
            if self.source.within[at] != index:
                continue
            if text in ("<", ">", ">>") and not self.source.is_spaced(at):
                angles = max(0, angles + {"<": 1, ">": -1, ">>": -2}[text])
            elif text == "," and angles == 0:
                parts.append((start, at))
                start = at + 1
        parts.append((start, close))
        return [(self.tokens[a].start, self.tokens[b - 1].end) for a, b in parts if a < b]

    def _identify(self):
        """Gives ids and keys, in the order of the text."""
        self.found.sort(key=lambda mutant: (mutant.start, mutant.end, mutant.kind, mutant.new))
        ids, keys = {}, {}
        for mutant in self.found:
            place = f"{mutant.path}:{mutant.line}:{mutant.kind}"
            ids[place] = ids.get(place, 0) + 1
            mutant.id = f"{place}:{ids[place]}"
            key = self._key_of(mutant)
            keys[key] = keys.get(key, 0) + 1
            mutant.key = key if keys[key] == 1 else f"{key} #{keys[key]}"

    def _key_of(self, mutant):
        text = self.source.text
        begin, stop = self.source.lines_around(mutant.start, mutant.end)
        old = in_one_line(text[begin:stop])
        new = in_one_line(text[begin : mutant.start] + mutant.new + text[mutant.end : stop])
        return f"{mutant.path} {self.source.definition_around(mutant.start)}: {old} => {new}"


def mutants_of(path, text):
    """All mutants of a file, in the order of its text."""
    return Mutator(Source(path, text)).all()
