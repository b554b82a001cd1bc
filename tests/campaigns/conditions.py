"""Finds the conditions of C++ sources with libclang, and writes copies in which each can be made wrong at run time.

Every condition has a mutant that turns it round, and every <, <=, >, >= one that moves its boundary as well. A
condition is what `if`, `while`, `do`, `for` and `?:` decide by, an operand of `&&` and `||`, what a function or lambda
with a truth value returns, and every comparison wherever it stands.
"""

from __future__ import annotations

import dataclasses
import multiprocessing
import pathlib
import re

from clang.cindex import Cursor, CursorKind, Diagnostic, Index, TypeKind

RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISONS = {*RELATIONAL, "==", "!="}
FUNCTIONS = {
    CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.FUNCTION_TEMPLATE, CursorKind.CONSTRUCTOR,
    CursorKind.DESTRUCTOR, CursorKind.CONVERSION_FUNCTION,
}


@dataclasses.dataclass(frozen=True, order=True)
class Range:
    """Bytes of a source, the end exclusive."""

    begin: int
    end: int

    def holds(self, other: Range) -> bool:
        return self.begin <= other.begin and other.end <= self.end


@dataclasses.dataclass
class Mutant:
    number: int
    file: str  # relative to the root of the project
    line: int
    text: str  # of the condition
    change: str  # what the mutant does to it
    occurrence: int = 1  # which of its file's mutants that are otherwise alike

    @property
    def key(self) -> str:
        """Names the mutant as long as its line stays what it is."""
        again = f" [{self.occurrence}]" if self.occurrence > 1 else ""
        return f"{self.file}: {self.change}: {self.text}{again}"

    def __str__(self) -> str:
        return f"{self.file}:{self.line}: {self.change}: {self.text}"


class Source:
    """One file, and where its conditions are."""

    def __init__(self, path: pathlib.Path, name: str):
        self.name = name
        self.bytes = path.read_bytes()
        self.conditions: set[Range] = set()
        self.partial: set[Range] = set()  # of the conditions, those that are no whole operand
        self.relational: dict[Range, tuple[Range, str, Range]] = {}  # left, the moved operator, right
        self.declared: dict[Range, Range] = {}  # initialiser of a variable that a `while` decides by

    def take(self, other: Source) -> None:
        """Adds what was found elsewhere."""
        self.conditions |= other.conditions
        self.partial |= other.partial
        self.relational |= other.relational
        self.declared |= other.declared

    def text(self, area: Range) -> str:
        return self.bytes[area.begin:area.end].decode()

    def line(self, area: Range) -> int:
        return self.bytes.count(b"\n", 0, area.begin) + 1


def range_of(cursor: Cursor) -> Range:
    return Range(cursor.extent.start.offset, cursor.extent.end.offset)


def find_conditions(root: pathlib.Path, names: list[str]) -> list[Source]:
    """The sources of those names, below the root, with their conditions."""
    units = [str(root / name) for name in names if name.endswith(".cpp")]
    sources = Finder(root, names).sources
    with multiprocessing.Pool() as pool:
        for found in pool.imap_unordered(Finder(root, names).find_in, units):
            for source in found:
                sources[str(root / source.name)].take(source)
    return list(sources.values())


class Finder:
    """Walks the syntax tree of a source."""

    def __init__(self, root: pathlib.Path, names: list[str]):
        self.root = root
        self.sources = {str(root / name): Source(root / name, name) for name in names}

    def find_in(self, path: str) -> list[Source]:
        """The conditions of one source and of our headers that it includes."""
        unit = Index.create().parse(path, args=["-x", "c++", "-std=c++17", f"-I{self.root}"])
        faults = [fault for fault in unit.diagnostics if fault.severity >= Diagnostic.Error]
        if faults:
            raise RuntimeError(f"{path}: {faults[0]}")
        for cursor in unit.cursor.get_children():
            if cursor.location.file and cursor.location.file.name in self.sources:
                self.walk(cursor, self.sources[cursor.location.file.name], False)
        return list(self.sources.values())

    def walk(self, cursor: Cursor, source: Source, returns_truth: bool) -> None:
        kind = cursor.kind
        if kind in FUNCTIONS:
            # What the compiler computes can't change at run time.
            if any(token.spelling == "constexpr" for token in declaration_tokens(cursor)):
                return
            returns_truth = cursor.result_type.get_canonical().kind == TypeKind.BOOL
        elif kind == CursorKind.LAMBDA_EXPR:
            returns_truth = False  # unless the type of what it returns says so
        elif kind == CursorKind.STATIC_ASSERT:
            return
        children = list(cursor.get_children())
        self.look_at(cursor, children, source, returns_truth)
        for child in children:
            self.walk(child, source, returns_truth)

    def look_at(self, cursor: Cursor, children: list[Cursor], source: Source, returns_truth: bool) -> None:
        kind = cursor.kind
        if kind == CursorKind.IF_STMT:
            condition = next(c for c in children if c.kind != CursorKind.DECL_STMT)
            if condition.kind == CursorKind.VAR_DECL:
                add_declared(condition, source)
            else:
                add(condition, source)
        elif kind == CursorKind.WHILE_STMT:
            if children[0].kind == CursorKind.VAR_DECL:
                add_declared(children[0], source)
            else:
                add(children[0], source)
        elif kind == CursorKind.FOR_STMT:
            condition = condition_of_for(cursor, children, source)
            if condition is not None:
                add(condition, source)
        elif kind == CursorKind.DO_STMT:
            add(children[-1], source)
        elif kind == CursorKind.CONDITIONAL_OPERATOR:
            add(children[0], source)
        elif kind == CursorKind.RETURN_STMT:
            if children and (returns_truth or is_truth(children[0])):
                add(children[0], source)
        elif kind == CursorKind.UNARY_OPERATOR and source.text(range_of(cursor)).startswith("!"):
            add(children[0], source)
        elif kind in (CursorKind.BINARY_OPERATOR, CursorKind.CALL_EXPR):
            operator = operator_between(cursor, children, source)
            if operator in ("&&", "||"):
                for part in (cursor, children[0], children[-1]):
                    add(part, source)
                # The first of a && b && c is a && b, which nobody wrote as a condition of its own.
                if operator_between(children[0], list(children[0].get_children()), source) == operator:
                    source.partial.add(range_of(children[0]))
            elif operator in COMPARISONS:
                add(cursor, source)
                if operator in RELATIONAL:
                    source.relational[range_of(cursor)] = (range_of(children[0]), RELATIONAL[operator],
                                                           range_of(children[-1]))


def declaration_tokens(cursor: Cursor):
    """The tokens of a function before its body."""
    for token in cursor.get_tokens():
        if token.spelling == "{":
            return
        yield token


def is_truth(cursor: Cursor) -> bool:
    return cursor.type.get_canonical().kind == TypeKind.BOOL


def core(cursor: Cursor, source: Source) -> Cursor:
    """What is left of a condition without parentheses, conversions, negations and what a comma throws away."""
    while True:
        children = list(cursor.get_children())
        if cursor.kind == CursorKind.PAREN_EXPR:
            cursor = children[0]
        elif cursor.kind == CursorKind.UNEXPOSED_EXPR and len(children) == 1 and \
                range_of(children[0]) == range_of(cursor):
            cursor = children[0]
        elif cursor.kind == CursorKind.UNARY_OPERATOR and source.text(range_of(cursor)).startswith("!"):
            cursor = children[0]
        elif cursor.kind == CursorKind.BINARY_OPERATOR and operator_between(cursor, children, source) == ",":
            cursor = children[1]
        else:
            return cursor


def add(cursor: Cursor, source: Source) -> None:
    source.conditions.add(range_of(core(cursor, source)))


def add_declared(variable: Cursor, source: Source) -> None:
    """A variable that is a condition: its initialiser is made to give nothing."""
    initialiser = list(variable.get_children())[-1]
    source.declared[range_of(initialiser)] = range_of(variable)


def operator_between(cursor: Cursor, children: list[Cursor], source: Source) -> str:
    """The operator of an expression with two operands; empty where it is none, or comes from a macro."""
    if cursor.kind == CursorKind.CALL_EXPR and not cursor.spelling.startswith("operator"):
        return ""
    if len(children) < 2:
        return ""
    left, right = range_of(children[0]), range_of(children[-1])
    if not left.end <= right.begin:
        return ""
    return re.sub(r"/\*.*?\*/|//[^\n]*|\s", "", source.text(Range(left.end, right.begin)), flags=re.S)


def condition_of_for(cursor: Cursor, children: list[Cursor], source: Source) -> Cursor | None:
    """The child between the two semicolons."""
    whole = range_of(cursor)
    text = source.bytes[whole.begin:whole.end]
    first = second = 0
    depth = 0
    for offset, character in enumerate(text):
        if character in b"([{":
            depth += 1
        elif character in b")]}":
            depth -= 1
        elif character == ord(";") and depth == 1:
            if first:
                second = whole.begin + offset
                break
            first = whole.begin + offset
    between = Range(first, second)
    return next((c for c in children if between.holds(range_of(c)) and c.kind != CursorKind.DECL_STMT), None)


class Mutator:
    """Numbers the mutants of all sources and writes the sources that hold them."""

    def __init__(self) -> None:
        self.mutants: list[Mutant] = []

    def mutated(self, source: Source) -> str:
        areas = source.conditions - source.partial | set(source.relational) | set(source.declared)
        whole = Range(0, len(source.bytes))
        return self.render(source, whole, sorted(areas, key=lambda area: (area.begin, -area.end)))

    def render(self, source: Source, area: Range, inside: list[Range]) -> str:
        """The text of an area with the mutants of the conditions in it."""
        text = ""
        at = area.begin
        for position, condition in enumerate(inside):
            if condition.begin < at:
                continue  # in one that was rendered
            deeper = [other for other in inside[position + 1:] if condition.holds(other)]
            text += source.text(Range(at, condition.begin)) + self.wrapped(source, condition, deeper)
            at = condition.end
        return text + source.text(Range(at, area.end))

    def wrapped(self, source: Source, condition: Range, deeper: list[Range]) -> str:
        if condition in source.declared:
            number = self.new(source, source.declared[condition], "never")
            inner = self.render(source, condition, deeper)
            return f"mutants::isWrong({number}) ? decltype({inner})() : ({inner})"
        number = self.new(source, condition, "not")
        if condition not in source.relational:
            inner = self.render(source, condition, deeper)
        else:
            left, moved, right = source.relational[condition]
            boundary = self.new(source, condition, moved)
            first = self.render(source, left, [area for area in deeper if left.holds(area)])
            last = self.render(source, right, [area for area in deeper if right.holds(area)])
            operator = source.text(Range(left.end, right.begin))
            inner = f"mutants::isWrong({boundary}) ? {first} {moved} {last} : {first}{operator}{last}"
        return f"(mutants::isWrong({number}) != static_cast<bool>({inner}))"

    def new(self, source: Source, area: Range, change: str) -> int:
        number = len(self.mutants)
        text = " ".join(source.text(area).split())
        alike = [mutant for mutant in self.mutants
                 if (mutant.file, mutant.change, mutant.text) == (source.name, change, text)]
        self.mutants.append(Mutant(number, source.name, source.line(area), text, change, len(alike) + 1))
        return number
