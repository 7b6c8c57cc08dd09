"""C++ source as tokens, with what stands in which bracket. Knows as much of the language as mutating needs."""

import bisect
import dataclasses
import re

TOKEN = re.compile(
    r"""
      (?P<comment>//[^\n]*|/\*.*?\*/)
    | (?P<directive>^[ \t]*\#(?:\\\n|[^\n])*)
    | (?P<raw>R"(?P<mark>[^()\s\\]*)\(.*?\)(?P=mark)")
    | (?P<string>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
    | (?P<character>(?:u8|[uUL])?'(?:\\.|[^'\\\n])+')
    | (?P<number>\.?\d(?:[eEpP][+-]|'(?=\w)|[\w.])*)
    | (?P<name>[A-Za-z_]\w*)
    | (?P<operator><<=|>>=|<=>|\.\.\.|->|::|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|>>|[^\s\w])
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

OPENING = {"(": ")", "[": "]", "{": "}"}
CLOSING = set(OPENING.values())
CONTROL = {"if", "for", "while", "switch", "catch"}
# Whole declarations in which nothing is mutated, and what ends each.
UNTOUCHED = {"static_assert": ";", "using": ";", "namespace": "{;", "extern": "{;", "friend": ";"}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


class Source:
    """The tokens of a file without comments and directives; brackets know their partners."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = [
            Token(match.lastgroup if match.lastgroup != "mark" else "raw", match[0], match.start(), match.end())
            for match in TOKEN.finditer(text)
            if match.lastgroup not in ("comment", "directive")
        ]
        self.partner = {}
        self.within = []  # of each token: the bracket around it, None outside of all
        self._match_brackets()
        self.untouched = self._find_untouched()
        self._line_starts = [0] + [match.end() for match in re.finditer("\n", text)]

    def _match_brackets(self):
        open_brackets = []
        for index, token in enumerate(self.tokens):
            if token.kind == "operator" and token.text in CLOSING and open_brackets:
                start = open_brackets.pop()
                self.partner[start], self.partner[index] = index, start
            self.within.append(open_brackets[-1] if open_brackets else None)
            if token.kind == "operator" and token.text in OPENING:
                open_brackets.append(index)

    def _find_untouched(self):
        untouched, ends = set(), None
        for index, token in enumerate(self.tokens):
            if ends is None:
                ends = UNTOUCHED.get(token.text) if token.kind == "name" else None
            if ends is not None:
                untouched.add(index)
                if token.text in ends:
                    ends = None
        return untouched

    def text_at(self, index):
        """The token's text; empty beyond the ends."""
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def kind_at(self, index):
        return self.tokens[index].kind if 0 <= index < len(self.tokens) else ""

    def is_spaced(self, index):
        """Whether blanks stand on both sides: so the formatter writes binary operators, and no other."""
        token = self.tokens[index]
        return self.text[token.start - 1 : token.start].isspace() and self.text[token.end : token.end + 1].isspace()

    def line_of(self, position):
        return bisect.bisect_right(self._line_starts, position)

    def lines_around(self, start, end):
        """Where the lines that hold [start, end) begin and end."""
        begin = self.text.rfind("\n", 0, start) + 1
        stop = self.text.find("\n", end)
        return begin, stop if stop >= 0 else len(self.text)

    def definition_around(self, position):
        """The name of the function, class or constant whose lines `position` is in; "" outside of all."""
        for line in reversed(self.text[: self.lines_around(position, position)[1]].split("\n")):
            if not re.match(r"[A-Za-z]", line) or line.startswith("template"):
                continue
            named = re.search(r"([\w:~]+)\(|(?:struct|class|enum class) (\w+)|(\w+)(?:\[\])? *[={;]", line)
            return next(name for name in named.groups() if name) if named else ""
        return ""

    def is_function_body(self, index):
        """Whether the brace opens a function's or a lambda's body."""
        before = index - 1
        while self.text_at(before) in ("const", "noexcept", "override", "mutable"):
            before -= 1
        if self.text_at(before) != ")" or before not in self.partner:
            return False
        return self.text_at(self.partner[before] - 1) not in CONTROL
