# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Finds the small changes that can be made in a C++ source: a condition negated or forced, a
comparison shifted, a constant off by one, a statement deleted, two neighbours swapped.

It knows as much of the language as that takes, and relies on clang-format in one thing: an operator
of two operands has space on both sides, and the brackets of a template have not. What it takes for
something else does not compile, and is no more than a change in vain. Comments, texts, directives,
types, parameters, array bounds, enumerators and static_assert stay as they are.
"""

import bisect
import collections
import dataclasses
import re

KINDS = ("negate", "force", "compare", "constant", "delete", "swap")

TOKEN = re.compile(r"""
    (?P<space>\s+)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>\#(?:[^\n\\]|\\.)*)
  | (?P<raw>(?:u8|[uUL])?R"(?P<end>[^()\\\s]*)\(.*?\)(?P=end)")
  | (?P<text>(?:u8|[uUL])?"(?:[^"\\\n]|\\.)*")
  | (?P<letter>(?:u8|[uUL])?'(?:[^'\\\n]|\\.)+')
  | (?P<number>\.?[0-9](?:[eEpP][+-]|'?[0-9A-Za-z_]|\.)*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><=>|<<=|>>=|\.\.\.|->\*|<<|<=|>=|==|!=|&&|\|\||::|->|\+\+|--|[-+*/%&|^]=|.)
""", re.DOTALL | re.VERBOSE)

OPENING = {"(": ")", "[": "]", "{": "}"}
CLOSING = set(OPENING.values())
SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}
# What stands before or behind a condition that is part of an expression.
LIMITS = ASSIGNMENTS | {",", ";", "?", ":", "return", "throw", "case"}
BINARY = (set(SHIFTED) | ASSIGNMENTS
          | {"&&", "||", "+", "-", "*", "/", "%", "&", "|", "^", "<<", "<=>", "?", ","})

# Keywords that a name may follow without being declared.
USING = {"co_await", "co_yield", "delete", "new", "not", "operator", "sizeof", "throw"}
# What a declaration may begin with, besides a type's own name.
DECLARING = {"alignas", "auto", "bool", "char", "const", "constexpr", "constinit", "decltype",
             "double", "enum", "extern", "float", "int", "long", "short", "signed", "static",
             "struct", "thread_local", "typename", "union", "unsigned", "void", "volatile"}
TYPES = {"class", "struct", "union"}
NO_CALLS = {"alignas", "__attribute__", "decltype", "explicit", "noexcept", "requires"}
SKIPPED = {"__asm__", "asm", "friend", "static_assert", "typedef", "using"}

INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)")

# A longer statement is shortened in a change's name.
LONGEST_STATEMENT = 100


@dataclasses.dataclass(frozen=True)
class Token:
    sort: str
    text: str
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Change:
    """One change. Its name is where it is made, what the lines were and are, and how manieth it is
    of those that are alike in all this: it survives that lines are added elsewhere."""

    file: str
    kind: str
    start: int
    end: int
    new: str
    function: str
    line: int
    column: int
    before: str
    after: str
    nth: int = 1
    alone: bool = True

    @property
    def name(self):
        return (self.file, self.function, self.kind, self.before, self.after, self.nth)

    @property
    def place(self):
        return f"{self.file}:{self.line}:{self.column}"

    def made_in(self, text):
        return text[:self.start] + self.new + text[self.end:]


@dataclasses.dataclass
class Statement:
    sort: str  # "expression", "declaration", "jump", "return", "loop", "compound" or "other"
    first: int
    end: int
    declared: frozenset = frozenset()


def in_one_line(text):
    """A piece of code without its comments and line breaks."""
    kept = "".join(" " if match.lastgroup == "comment" else match.group()
                   for match in TOKEN.finditer(text))
    return " ".join(kept.split())


def shortened(statement):
    statement = in_one_line(statement)
    if len(statement) <= LONGEST_STATEMENT:
        return statement
    half = LONGEST_STATEMENT // 2
    return f"{statement[:half].rstrip()} ... {statement[-half:].lstrip()}"


def tokens_of(text):
    found = []
    for match in TOKEN.finditer(text):
        if match.lastgroup not in ("space", "comment", "directive"):
            sort = "text" if match.group("raw") else match.lastgroup
            found.append(Token(sort, match.group(), match.start(), match.end()))
    return found


def matches_of(tokens):
    """Where each bracket's other one is."""
    partner, opened = {}, []
    for index, token in enumerate(tokens):
        if token.sort == "sign" and token.text in OPENING:
            opened.append(index)
        elif token.sort == "sign" and token.text in CLOSING:
            if not opened or OPENING[tokens[opened[-1]].text] != token.text:
                raise ValueError(f"a '{token.text}' without its other one")
            partner[index] = opened[-1]
            partner[opened.pop()] = index
    if opened:
        raise ValueError(f"a '{tokens[opened[-1]].text}' without its other one")
    return partner


class Finder:
    """Goes through a source once. Positions are indexes of tokens; ends are behind the last one."""

    def __init__(self, file, text):
        self._file = file
        self._text = text
        self._lines = [0] + [match.end() for match in re.finditer("\n", text)]
        self._tokens = tokens_of(text)
        self._partner = matches_of(self._tokens)
        self._scopes = []  # names of the classes and the function that is being looked at
        self._answers_yes_or_no = False
        self._found = {}  # by what comes out, so that nothing is made twice

    def changes(self):
        self._scope(0, len(self._tokens))
        found = sorted(self._found.values(),
                       key=lambda change: (change.start, change.end, KINDS.index(change.kind)))
        alike = collections.defaultdict(list)
        for change in found:
            alike[change.function, change.before, change.after].append(change)
        return [dataclasses.replace(change, nth=among.index(change) + 1, alone=len(among) == 1)
                for change in found
                for among in [alike[change.function, change.before, change.after]]]

    # ---- Tokens

    def _is(self, index, *texts):
        return index < len(self._tokens) and self._tokens[index].text in texts

    def _sort(self, index):
        return self._tokens[index].sort if 0 <= index < len(self._tokens) else ""

    def _spaced(self, index):
        """Whether the token is an operator of two operands."""
        token = self._tokens[index]
        return (token.sort == "sign" and token.text in BINARY
                and (token.text in (",", "?") or (self._text[token.start - 1].isspace()
                                                  and self._text[token.end].isspace()))
                and not self._is(index - 1, "template", "operator"))

    def _outer(self, first, end):
        """The tokens between that are in no brackets of their own, brackets included."""
        index = first
        while index < end:
            yield index
            if index in self._partner and self._tokens[index].text in OPENING:
                index = self._partner[index]
                yield index
            index += 1

    def _next(self, text, first, end):
        """Where the text comes next outside of brackets; the end if it does not."""
        return next((i for i in self._outer(first, end) if self._tokens[i].text == text), end)

    def _names(self, first, end):
        return {token.text for token in self._tokens[first:end] if token.sort == "name"}

    def _behind_template(self, index):
        """Behind the template's brackets that begin at the index, if they do."""
        if not self._is(index, "<") or self._spaced(index):
            return index
        depth = 0
        while index < len(self._tokens):
            if self._is(index, "<"):
                depth += 1
            elif self._is(index, ">"):
                depth -= 1
                if depth == 0:
                    return index + 1
            elif self._is(index, "(", "["):
                index = self._partner[index]
            elif self._is(index, ";", "{", "}"):
                return index
            index += 1
        return index

    # ---- Changes

    def _add(self, kind, start, end, new, names=None):
        """Makes a change known. Its lines name it, unless it is told other names."""
        text = self._text
        first_line = text.rfind("\n", 0, start) + 1
        line_end = text.find("\n", end)
        last_line = line_end if line_end >= 0 else len(text)
        before, after = names or (
            in_one_line(text[first_line:last_line]),
            in_one_line(text[first_line:start] + new + text[end:last_line]))
        change = Change(self._file, kind, start, end, new, "::".join(self._scopes),
                        bisect.bisect_right(self._lines, start), start - first_line + 1, before,
                        after)
        self._found.setdefault(change.made_in(text), change)

    def _replace(self, kind, first, end, new, names=None):
        self._add(kind, self._tokens[first].start, self._tokens[end - 1].end, new, names)

    def _delete(self, statement):
        self._replace("delete", statement.first, statement.end, ";",
                      (shortened(self._source(statement.first, statement.end)), ";"))

    def _source(self, first, end):
        return self._text[self._tokens[first].start:self._tokens[end - 1].end]

    # ---- Declarations outside of functions

    def _scope(self, first, end):
        while first < end:
            first = self._declaration(first, end)

    def _declaration(self, first, end):
        """Looks at one, and returns where it ends."""
        if self._is(first, ";"):
            return first + 1
        if self._is(first, "public", "private", "protected"):
            return first + 2
        if self._is(first, *SKIPPED) and not self._is(first, "friend"):
            return self._next(";", first, end) + 1
        if self._is(first, "template"):
            return self._behind_template(first + 1)
        names, called = set(), None
        index = first
        while index < end:
            token = self._tokens[index]
            if token.sort == "name":
                names.add(token.text)
            elif token.text == ";":
                return index + 1
            elif token.text == "=" and not self._is(index - 1, "operator"):
                return self._initialiser(index + 1, end, called is None)
            elif token.text == ":" and called is not None and not names & TYPES:
                return self._function(first, called, self._member_initialisers(index + 1))
            elif token.text == "(" and not self._is(index - 1, *NO_CALLS):
                called = index if called is None else called
                if self._is(index - 1, "operator"):
                    called = self._partner[index] + 1
                index = self._partner[index]
            elif token.text in ("(", "["):
                index = self._partner[index]
            elif token.text == "{":
                if "namespace" in names or (names == {"extern"} and called is None):
                    self._scope(index + 1, self._partner[index])
                    return self._partner[index] + 1
                if called is not None:
                    return self._function(first, called, index)
                if "enum" in names:
                    return self._next(";", index, end) + 1
                if names & TYPES:
                    self._class(first, index)
                else:
                    self._expression(index + 1, self._partner[index])
                index = self._partner[index]
            index += 1
        return end

    def _initialiser(self, first, end, variable):
        behind = self._next(";", first, end)
        if variable and not self._is(first, "default", "delete"):
            self._expression(first, behind)
        return behind + 1

    def _class(self, first, brace):
        colon = self._next(":", first, brace)
        name = next((self._tokens[i].text for i in range(colon - 1, first, -1)
                     if self._sort(i) == "name" and not self._is(i, "final")), "")
        self._scopes.append(name)
        self._scope(brace + 1, self._partner[brace])
        self._scopes.pop()

    def _member_initialisers(self, index):
        """Looks at them, and returns where the body begins."""
        while True:
            while not self._is(index, "(", "{"):
                index = self._behind_template(index) if self._is(index, "<") else index + 1
            self._expression(index + 1, self._partner[index])
            index = self._partner[index] + 1
            if self._is(index, "..."):
                index += 1
            if not self._is(index, ","):
                return index
            index += 1

    def _function(self, first, called, brace):
        name = self._name_begins(first, called)
        self._scopes.append(re.sub(r"<[^<>]*>|\s", "", self._text[self._tokens[name].start:
                                                                 self._tokens[called].start]))
        self._body(brace, self._is(name - 1, "bool"))
        self._scopes.pop()
        return self._partner[brace] + 1

    def _name_begins(self, first, called):
        """Where the function's name begins, with the classes that it is qualified with."""
        index = next((i for i in range(first, called) if self._is(i, "operator")), called - 1)
        if self._is(index - 1, "~"):
            index -= 1
        while index - 1 > first and self._is(index - 1, "::"):
            index -= 2
            if self._is(index, ">"):
                while index > first and not self._is(index, "<"):
                    index -= 1
                index -= 1
        return index

    def _body(self, brace, yes_or_no):
        outer, self._answers_yes_or_no = self._answers_yes_or_no, yes_or_no
        self._block(brace + 1, self._partner[brace], True)
        self._answers_yes_or_no = outer

    # ---- Statements

    def _block(self, first, end, whole_body=False):
        statements = []
        while first < end:
            statements.append(self._statement(first, end))
            first = statements[-1].end
        for number, statement in enumerate(statements):
            last = whole_body and statement is statements[-1]
            if self._deletable(statement, end, last):
                self._delete(statement)
            if number > 0:
                self._swap(statements[number - 1], statement)

    def _deletable(self, statement, block_end, last):
        if statement.sort == "declaration":
            return not statement.declared & self._names(statement.end, block_end)
        if statement.sort in ("return", "jump") and last:
            return False
        return statement.sort in ("expression", "loop", "jump", "return")

    def _swap(self, former, latter):
        if former.sort in ("jump", "return", "other") or latter.sort in ("jump", "return", "other"):
            return
        if (former.declared & self._names(latter.first, latter.end)
                or latter.declared & self._names(former.first, former.end)):
            return
        between = self._text[self._tokens[former.end - 1].end:self._tokens[latter.first].start]
        one = self._source(former.first, former.end)
        other = self._source(latter.first, latter.end)
        self._replace("swap", former.first, latter.end, other + between + one,
                      (f"{shortened(one)} {shortened(other)}",
                       f"{shortened(other)} {shortened(one)}"))

    def _branch(self, first, end):
        """A statement that depends on a condition; returns where it ends."""
        if self._is(first, "{"):
            self._block(first + 1, self._partner[first])
            return self._partner[first] + 1
        statement = self._statement(first, end)
        if self._deletable(statement, end, False):
            self._delete(statement)
        return statement.end

    def _statement(self, first, end):
        token = self._tokens[first]
        find = {"{": self._compound, "if": self._if, "while": self._while, "for": self._for,
                "do": self._do, "switch": self._switch, "try": self._try, "case": self._label,
                "default": self._label}.get(token.text)
        if find is not None:
            return find(first, end)
        if token.sort == "name" and self._is(first + 1, ":"):
            return self._label(first, end)
        if token.text in SKIPPED or token.text == "enum":
            return Statement("other", first, self._next(";", first, end) + 1)
        if token.text in TYPES and self._is_class(first, end):
            return Statement("other", first, self._declaration(first, end))
        return self._simple(first, end)

    def _is_class(self, first, end):
        brace = self._next("{", first, self._next(";", first, end))
        return self._is(brace, "{") and self._next("=", first, brace) == brace

    def _simple(self, first, end):
        semicolon = self._next(";", first, end)
        behind = min(semicolon + 1, end)
        if semicolon == first:
            return Statement("other", first, behind)
        if self._is(first, "break", "continue", "goto", "throw"):
            self._expression(first + 1, semicolon)
            return Statement("jump", first, behind)
        if self._is(first, "return", "co_return"):
            self._expression(first + 1, semicolon)
            if self._answers_yes_or_no and semicolon > first + 1:
                self._condition_forms(first + 1, semicolon)
            return Statement("return" if semicolon > first + 1 else "jump", first, behind)
        declared = self._declared(first, semicolon)
        if not declared:
            self._expression(first, semicolon)
            return Statement("expression", first, behind)
        # An array's bounds are part of its type.
        for index in self._outer(first, semicolon):
            if self._is(index, "=", "(", "{"):
                self._expression(index, semicolon)
                break
        return Statement("declaration", first, behind, frozenset(declared))

    def _compound(self, first, _end):
        self._block(first + 1, self._partner[first])
        return Statement("compound", first, self._partner[first] + 1)

    def _if(self, first, end):
        index = first + 2 if self._is(first + 1, "constexpr") else first + 1
        behind = self._partner[index]
        self._condition(index + 1, behind, True)
        behind = self._branch(behind + 1, end)
        if self._is(behind, "else"):
            behind = self._branch(behind + 1, end)
        return Statement("compound", first, behind)

    def _while(self, first, end):
        behind = self._partner[first + 1]
        self._condition(first + 2, behind)
        return Statement("compound", first, self._branch(behind + 1, end))

    def _do(self, first, end):
        condition = self._branch(first + 1, end) + 1
        behind = self._partner[condition]
        self._condition(condition + 1, behind)
        return Statement("compound", first, behind + 2)

    def _for(self, first, end):
        behind = self._partner[first + 1]
        init = self._next(";", first + 2, behind)
        sort = "loop"
        if init == behind:
            self._expression(self._next(":", first + 2, behind) + 1, behind)
        else:
            step = self._next(";", init + 1, behind)
            self._expression(first + 2, init)
            if step > init + 1:
                self._condition(init + 1, step)
                sort = "compound"
            self._expression(step + 1, behind)
        return Statement(sort, first, self._branch(behind + 1, end))

    def _switch(self, first, end):
        behind = self._partner[first + 1]
        self._expression(first + 2, behind)
        return Statement("loop", first, self._branch(behind + 1, end))

    def _try(self, first, _end):
        self._block(first + 2, self._partner[first + 1])
        behind = self._partner[first + 1] + 1
        while self._is(behind, "catch"):
            brace = self._partner[behind + 1] + 1
            self._block(brace + 1, self._partner[brace])
            behind = self._partner[brace] + 1
        return Statement("compound", first, behind)

    def _label(self, first, end):
        colon = self._next(":", first, end)
        self._expression(first + 1, colon)
        return Statement("other", first, colon + 1)

    def _declared(self, first, end):
        """The names that a statement or a condition declares; none if it declares nothing."""
        index = first
        while self._is(index, "[") and self._is(index + 1, "["):
            index = self._partner[index] + 1
        certain = False
        while self._sort(index) == "name" or self._is(index, "::"):
            if self._is(index, *USING):
                break
            certain = certain or self._is(index, *DECLARING) or (
                index > first and self._sort(index) == "name" and not self._is(index - 1, "::"))
            if self._is(index, *NO_CALLS) and self._is(index + 1, "("):
                index = self._partner[index + 1]
            index = self._behind_template(index + 1)
            while self._is(index, "*", "&", "&&", "...") and not self._spaced(index):
                index += 1
        if not certain or index == first:
            return set()
        if self._is(index, "[") and self._is(index - 1, "auto", "&", "&&"):
            return self._names(index, self._partner[index])
        names, last = set(), None
        for outer in self._outer(index - 1, end):
            if self._is(outer, "=", ",", "(", "{", "[", ";") and last is not None:
                names.add(last)
                last = None
            if self._sort(outer) == "name":
                last = self._tokens[outer].text
            if self._is(outer, "="):
                break
        if last is not None and not names:
            names.add(last)
        return names

    # ---- Conditions and expressions

    def _condition(self, first, end, may_declare=False):
        self._expression(first, end)
        semicolon = self._next(";", first, end)
        if semicolon < end:
            first = semicolon + 1
        declared = self._declared(first, end) if self._next("=", first, end) < end else set()
        if not declared:
            self._condition_forms(first, end)
        elif may_declare and len(declared) == 1:
            declaration = self._source(first, end)
            self._replace("negate", first, end, f"{declaration}; !{min(declared)}")
            self._replace("force", first, end, f"{declaration}; true")
            self._replace("force", first, end, f"{declaration}; false")

    def _condition_forms(self, first, end, forced=("true", "false")):
        if end == first + 1 and self._is(first, "true", "false"):
            return  # a constant
        operators = {self._tokens[i].text for i in self._outer(first, end) if self._spaced(i)}
        opposed = operators in ({"=="}, {"!="}) or (self._is(first, "!") and not operators)
        if not opposed:  # otherwise that is another change
            self._replace("negate", first, end, f"!({self._source(first, end)})")
        for value in forced:
            self._replace("force", first, end, value)

    def _expression(self, first, end):
        index = first
        while index < end:
            token = self._tokens[index]
            if token.text == "[" and token.sort == "sign":
                index = self._bracket(index, end)
                continue
            if token.sort == "number":
                self._constant(index)
            elif token.text in ("true", "false"):
                self._replace("constant", index, index + 1,
                              "false" if token.text == "true" else "true")
            elif token.text == "!":
                self._add("negate", token.start, token.end, "")
            elif token.sort == "sign" and self._spaced(index):
                self._operator(index, first, end)
            index += 1

    def _bracket(self, index, end):
        """Behind an attribute or a lambda, or inside of another bracket."""
        if self._is(index + 1, "["):
            return self._partner[index] + 1
        if self._sort(index - 1) == "name" and not self._is(index - 1, "return", "case", "throw"):
            return index + 1
        if self._is(index - 1, ")", "]"):
            return index + 1
        behind = self._partner[index] + 1
        if self._is(behind, "("):
            behind = self._partner[behind] + 1
        brace = self._next("{", behind, end)
        self._expression(index + 1, self._partner[index])
        self._body(brace, "bool" in self._names(behind, brace))
        return self._partner[brace] + 1

    def _constant(self, index):
        token = self._tokens[index]
        match = INTEGER.fullmatch(token.text)
        if match is None or (self._is(index - 1, "<") and not self._spaced(index - 1)):
            return  # a template's argument, or no integer
        digits, suffix = match.group(1).replace("'", ""), match.group(2)
        base = {"0x": 16, "0b": 2}.get(digits[:2].lower(), 8 if digits.startswith("0") else 10)
        for value in (int(digits, base) + 1, int(digits, base) - 1):
            new = f"{hex(value) if base == 16 else value}{suffix}"
            self._replace("constant", index, index + 1, f"({new})" if value < 0 else new)

    def _operator(self, index, first, end):
        text = self._tokens[index].text
        if text in SHIFTED:
            self._replace("compare", index, index + 1, SHIFTED[text])
        elif text in ("&&", "||"):
            limits = LIMITS | ({"||"} if text == "||" else {"&&", "||"})
            neutral = "true" if text == "&&" else "false"
            self._condition_forms(self._left(index, first, limits), index, (neutral,))
            self._condition_forms(index + 1, self._right(index, end, limits), (neutral,))
            self._condition_forms(self._left(index, first, LIMITS), self._right(index, end, LIMITS))
        elif text == "?":
            self._condition_forms(self._left(index, first, LIMITS), index)

    def _left(self, index, first, limits):
        while index > first:
            before = index - 1
            if self._tokens[before].text in OPENING or self._tokens[before].text in limits:
                break
            index = self._partner.get(before, before)
        return index

    def _right(self, index, end, limits):
        index += 1
        while index < end:
            if self._tokens[index].text in CLOSING or self._tokens[index].text in limits:
                break
            index = self._partner.get(index, index) + 1
        return index


def changes_in(file, text):
    """All changes in a source, in the order of their places."""
    return Finder(file, text).changes()
