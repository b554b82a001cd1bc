#!/usr/bin/env python3
"""Measures how time and memory grow with what a package is made of.

A subject is a kind of package file with one number that grows (bytes, parts, characters of a line), and what is done to
it: by the program campaign_growth on the library, or by opctext. Each is run in a process of its own at growing sizes.
Two things are required of it:

- time: the exponent e of time ~ size^e, fitted to the upper half of the sizes, where fixed costs have faded, is at most
  1.1. Time is the processor time of the process, which is steadier than the clock on a machine that others use too, and
  the least of several runs. A violation is measured again before it is reported.
- memory: the peak of the memory that is not backed by files (RssAnon) is at most 4 MiB, and so many bytes for each unit
  of the size. docs/reliability.md says how many, and why.

usage: growth.py [--quick] [WORD...]   only what has one of these words in its name
"""

import math
import os
import shutil
import subprocess
import sys
import tempfile
import time
import zipfile
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

BUILD = Path(__file__).resolve().parents[2] / "build" / "dev"
PROGRAM = BUILD / "tests" / "campaigns" / "campaign_growth"
OPCTEXT = BUILD / "opctext" / "opctext"

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
FIXED_MEMORY = 4 * MIB  # that each process may take, whatever the size

BEGIN = b"__ZKOPC_PACKAGE_BEGIN__ V3508k\n__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n"
END = b"\n__ZKOPC_PACKAGE_END__\n"
LINE = b"0123456789 abcdefghijklmnopqrstuvwxyz ABCDEFGHIJKLMNOPQRSTUVWXYZ 0123456789 abcde\n"
BASE64_LINE = b"QUJD" * 19 + b"\n"


# ------------------------------------------------------------------------------------------------------------ the files

def part_name(number: int) -> str:
    """The name of a numbered part, as campaign_growth makes it."""
    return f"/part/{number:07}.xml"


def begin_line(name: str, flag: str = "") -> bytes:
    return f"__ZKOPC_PART_BEGIN__ {name}{flag}\n".encode()


def write_repeated(file, line: bytes, size: int) -> None:
    """Writes a line again and again, `size` bytes in all, in blocks."""
    block = line * max(1, MIB // len(line))
    for _ in range(size // len(block)):
        file.write(block)
    file.write(block[:size % len(block)])


def many_parts(path: Path, count: int) -> None:
    with open(path, "wb") as file:
        file.write(BEGIN)
        for number in range(1, count + 1):
            file.write(begin_line(part_name(number)) + b"x" * 100 + b"\n")
        file.write(END[1:])


def many_binary_parts(path: Path, count: int) -> None:
    with open(path, "wb") as file:
        file.write(BEGIN)
        for number in range(1, count + 1):
            file.write(begin_line(part_name(number), " BASE64") + BASE64_LINE)
        file.write(END[1:])


def one_part(line: bytes, flag: str = "") -> Callable[[Path, int], None]:
    """A package with one large part that consists of this line again and again."""
    def make(path: Path, size: int) -> None:
        with open(path, "wb") as file:
            file.write(BEGIN + begin_line(part_name(1), flag))
            write_repeated(file, line, size - size % len(line))
            file.write(END)
    return make


def header_line(path: Path, size: int) -> None:
    with open(path, "wb") as file:
        write_repeated(file, b"h", size)
        file.write(b"\n" + BEGIN + END[1:])


def no_package(path: Path, size: int) -> None:
    with open(path, "wb") as file:
        write_repeated(file, b"h", size)


def long_name(path: Path, size: int) -> None:
    with open(path, "wb") as file:
        file.write(BEGIN + b"__ZKOPC_PART_BEGIN__ ")
        write_repeated(file, b"/folder", size - size % 7)
        file.write(b"\nx" + END)


def zip_of_members(path: Path, count: int) -> None:
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr("[Content_Types].xml", "<Types/>")
        for number in range(1, count + 1):
            archive.writestr(part_name(number)[1:], "x" * 100)


def zip_of_one_member(line: bytes) -> Callable[[Path, int], None]:
    def make(path: Path, size: int) -> None:
        with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=1) as archive:
            archive.writestr("[Content_Types].xml", "<Types/>")
            with archive.open("large.xml", "w") as member:
                write_repeated(member, line, size)
    return make


# --------------------------------------------------------------------------------------------------------- the subjects

@dataclass(frozen=True)
class Deed:
    """Something done to the package of a subject: an operation of campaign_growth, or a command line of opctext."""
    name: str
    memory: float  # the most bytes for each unit of the size
    exit_code: int = 0
    changes_file: bool = False

    def command(self, path: Path, size: int) -> list[str]:
        words = {"FILE": str(path), "SIZE": str(size), "LAST": part_name(size), "FIRST": part_name(1),
                 "OUTPUT": f"{path}.output", "opctext": str(OPCTEXT)}
        command = [words.get(word, word) for word in self.name.split()]
        return command if command[0] == str(OPCTEXT) else [str(PROGRAM), *command]


@dataclass(frozen=True)
class Subject:
    """A kind of package file, the sizes to try, and what to do to it."""
    name: str
    make: Callable[[Path, int], None]
    sizes: list[int]
    quick_sizes: list[int]
    deeds: list[Deed]


def steps(first: int, last: int) -> list[int]:
    """Sizes from the first to the last, each four times the one before."""
    return [first << shift for shift in range(0, (last // first).bit_length(), 2)]


BYTES = steps(MIB, GIB)
QUICK_BYTES = steps(2 * MIB, 8 * MIB)
PARTS = steps(1000, 1024000)
SOME_PARTS = steps(1000, 256000)
QUICK_PARTS = steps(1000, 4000)

SUBJECTS = [
    Subject("parts", many_parts, PARTS, QUICK_PARTS, [
        Deed("open FILE", 500),
        Deed("list FILE", 500),
        Deed("read-all FILE", 1000),
        Deed("read-one FILE", 500),
        Deed("light-none FILE", 0),
        Deed("light-one FILE SIZE", 0),
        Deed("light-all FILE SIZE", 1500),
        Deed("edit-one FILE", 500),
        Deed("edit-all FILE", 1000),
        Deed("delete-all FILE", 500, changes_file=True),
        Deed("create-many OUTPUT SIZE", 1000),
        Deed("opctext list FILE", 500),
        Deed("opctext cat FILE LAST", 500),
        Deed("opctext cat --light FILE LAST", 0),
        Deed("opctext check FILE", 500),
        Deed("opctext set FILE /new.xml", 500),
    ]),
    Subject("binary parts", many_binary_parts, SOME_PARTS, QUICK_PARTS, [
        Deed("read-all FILE", 1000),
        Deed("opctext unpack -f FILE -o OUTPUT", 2000),
    ]),
    Subject("bytes of a text part", one_part(LINE), BYTES, QUICK_BYTES, [
        Deed("open FILE", 0),
        Deed("read-one FILE", 0),
        Deed("light-none FILE", 4),
        Deed("edit-one FILE", 0),
        Deed("create-large-text OUTPUT SIZE", 0),
        Deed("opctext list FILE", 0),
        Deed("opctext cat FILE FIRST", 0),
        Deed("opctext cat --light FILE FIRST", 4),
        Deed("opctext check FILE", 0),
        Deed("opctext unpack -f FILE -o OUTPUT", 2),
    ]),
    Subject("bytes of a binary part", one_part(BASE64_LINE, " BASE64"), BYTES, QUICK_BYTES, [
        Deed("open FILE", 0),
        Deed("read-one FILE", 0),
        Deed("light-none FILE", 4),
        Deed("edit-one FILE", 0),
        Deed("create-large-binary OUTPUT SIZE", 0),
        Deed("opctext list FILE", 0),
        Deed("opctext cat FILE FIRST", 0),
        Deed("opctext check FILE", 0),
    ]),
    Subject("bytes of a line of text", one_part(b"x"), BYTES, QUICK_BYTES, [
        Deed("open FILE", 0),
        Deed("read-one FILE", 0),
        Deed("light-none FILE", 4),
        Deed("edit-one FILE", 0),
        Deed("opctext list FILE", 3),
        Deed("opctext cat FILE FIRST", 0),
        Deed("opctext check FILE", 3),
        Deed("opctext unpack -f FILE -o OUTPUT", 4),
    ]),
    Subject("bytes of a line of Base64", one_part(b"QUJD", " BASE64"), BYTES, QUICK_BYTES, [
        Deed("open FILE", 0),
        Deed("read-one FILE", 3),
        Deed("light-none FILE", 4),
        Deed("edit-one FILE", 0),
        Deed("opctext list FILE", 4),
        Deed("opctext check FILE", 4),
    ]),
    Subject("bytes of a header line", header_line, BYTES, QUICK_BYTES, [
        Deed("open FILE", 4),
        Deed("light-none FILE", 2),
        Deed("edit-one FILE", 4),
        Deed("set-header FILE SIZE", 5),
        Deed("opctext list FILE", 2),
        Deed("opctext info FILE", 5),
    ]),
    Subject("bytes of a line without a package", no_package, BYTES, QUICK_BYTES, [
        Deed("open FILE", 4, exit_code=1),
        Deed("light-none FILE", 2, exit_code=1),
        Deed("opctext list FILE", 2, exit_code=3),
        Deed("opctext cat FILE FIRST", 4, exit_code=3),
    ]),
    Subject("bytes of a part name", long_name, steps(MIB, 64 * MIB), QUICK_BYTES, [
        Deed("open FILE", 10),
        Deed("list FILE", 10),
        Deed("light-none FILE", 10),
        Deed("opctext list FILE", 10),
        Deed("opctext check FILE", 10),
    ]),
    Subject("times that a part is read", one_part(b"x\n"), PARTS, QUICK_PARTS, [
        Deed("read-again FILE SIZE", 0),
    ]),
    Subject("members of a ZIP file", zip_of_members, SOME_PARTS, QUICK_PARTS, [
        Deed("opctext pack -f --max-parts 1000000 FILE -o OUTPUT", 2000),
    ]),
    Subject("bytes of a member of lines", zip_of_one_member(LINE), BYTES, QUICK_BYTES, [
        Deed("opctext pack -f --max-ratio 5000 FILE -o OUTPUT", 2),
    ]),
    Subject("bytes of a member of one line", zip_of_one_member(b"x"), BYTES, QUICK_BYTES, [
        Deed("opctext pack -f --max-ratio 5000 FILE -o OUTPUT", 2),
    ]),
]


# ------------------------------------------------------------------------------------------------------- the measuring

class Failure(Exception):
    """A process did not end as it must."""


@dataclass
class Cost:
    seconds: float = math.inf  # of the processor
    memory: int = 0            # bytes of RssAnon at their peak

    def add_run(self, run: "Cost") -> None:
        self.seconds = min(self.seconds, run.seconds)
        self.memory = max(self.memory, run.memory)


def anonymous_memory(status: str) -> int:
    """RssAnon of a process in bytes, from its /proc/PID/status; 0 while it ends."""
    _, found, rest = status.partition("RssAnon:")
    return int(rest.split()[0]) * KIB if found else 0


def run_once(command: list[str], exit_code: int) -> Cost:
    """Runs a command to its end."""
    cost = Cost()
    with tempfile.TemporaryFile("w+") as errors:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=errors)
        with open(f"/proc/{process.pid}/status") as status:
            ended = 0
            while not ended:
                status.seek(0)
                cost.memory = max(cost.memory, anonymous_memory(status.read()))
                time.sleep(0.001)
                ended, result, usage = os.wait4(process.pid, os.WNOHANG)
        process.returncode = os.waitstatus_to_exitcode(result)
        cost.seconds = usage.ru_utime + usage.ru_stime
        if process.returncode != exit_code:
            errors.seek(0)
            raise Failure(f"{' '.join(command)} ended with {process.returncode}: {errors.read(2000)}")
    return cost


class Campaign:
    """Where the files are, how often to measure, and what is required."""

    def __init__(self, folder: Path, quick: bool) -> None:
        self.file = folder / "p.txt"
        self.quick = quick
        self.most_exponent = 1.5 if quick else 1.1  # fixed costs and chance weigh more in small sizes

    def measure(self, deed: Deed, size: int, cost: Cost) -> None:
        """Adds runs to what a deed costs at a size."""
        copy = self.file.with_name("copy.txt")
        end = time.monotonic() + (0.1 if self.quick else 2)
        for _ in range(3):
            if deed.changes_file:
                shutil.copyfile(self.file, copy)
            cost.add_run(run_once(deed.command(copy if deed.changes_file else self.file, size), deed.exit_code))
            if time.monotonic() > end:
                break

    def sizes(self, subject: Subject) -> list[int]:
        return subject.quick_sizes if self.quick else subject.sizes

    def run(self, subject: Subject) -> list[str]:
        """Measures all deeds of a subject and prints the figures; returns the violations."""
        print(f"{subject.name}, {self.sizes(subject)[0]} to {self.sizes(subject)[-1]}", flush=True)
        costs = {deed: {size: Cost() for size in self.sizes(subject)} for deed in subject.deeds}
        self.measure_all(subject, costs)
        for _ in range(5):
            doubtful = {deed: costs[deed] for deed in subject.deeds if exponent(costs[deed]) > self.most_exponent}
            if doubtful:
                self.measure_all(subject, doubtful)
        return [violation for deed in subject.deeds for violation in self.judge(deed, costs[deed])]

    def measure_all(self, subject: Subject, costs: dict[Deed, dict[int, Cost]]) -> None:
        for size in self.sizes(subject):
            subject.make(self.file, size)
            for deed in costs:
                self.measure(deed, size, costs[deed][size])

    def judge(self, deed: Deed, costs: dict[int, Cost]) -> list[str]:
        """Prints the figures of a deed; returns what is wrong with them."""
        largest = max(costs)
        slope = exponent(costs)
        memory = costs[largest].memory
        print(f"  {deed.name}: exponent {slope:.2f}; at the largest {costs[largest].seconds:.2f} s, "
              f"{memory / MIB:.1f} MiB, {memory / largest:.1f} bytes for each", flush=True)
        violations = []
        if slope > self.most_exponent:
            times = ", ".join(f"{size}: {cost.seconds:.4f} s" for size, cost in costs.items())
            violations.append(f"{deed.name}: time grows with exponent {slope:.2f}, not {self.most_exponent}: {times}")
        for size, cost in costs.items():
            most = FIXED_MEMORY + deed.memory * size
            if cost.memory > most:
                violations.append(f"{deed.name}: took {cost.memory} bytes of memory at {size}, not {most:.0f}")
        return violations


def exponent(costs: dict[int, Cost]) -> float:
    """The slope of log time over log size, fitted to the upper half of the sizes."""
    upper = sorted(costs)[len(costs) // 2 - (len(costs) < 4):]
    points = [(math.log(size), math.log(max(costs[size].seconds, 1e-6))) for size in upper]
    mean_x = sum(x for x, _ in points) / len(points)
    mean_y = sum(y for _, y in points) / len(points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / sum((x - mean_x) ** 2 for x, _ in points)


def base_folder() -> str | None:
    """Memory, where there is enough of it: what a disk costs says nothing about the library."""
    memory = Path("/dev/shm")
    return str(memory) if memory.is_dir() and shutil.disk_usage(memory).free > 8 * GIB else None


def main() -> int:
    quick = "--quick" in sys.argv[1:]
    words = [word for word in sys.argv[1:] if not word.startswith("-")]
    subjects = [subject for subject in SUBJECTS if not words or any(word in subject.name for word in words)]
    if not subjects:
        sys.exit(f"nothing that grows has one of these words in its name: {' '.join(words)}")
    violations = []
    with tempfile.TemporaryDirectory(prefix="growth-", dir=base_folder()) as folder:
        os.environ["TMPDIR"] = folder
        campaign = Campaign(Path(folder), quick)
        for subject in subjects:
            violations += [f"{subject.name}: {violation}" for violation in campaign.run(subject)]
    for violation in violations:
        print(f"VIOLATION: {violation}\nto repeat: {' '.join(sys.argv)}", file=sys.stderr)
    return 1 if violations else 0


if __name__ == "__main__":
    sys.exit(main())
