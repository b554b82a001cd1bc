#!/usr/bin/env python3
"""Runs the tests on libraries that count, and names every line and branch of the library that no test comes by.

The two libraries of preset coverage take the place of those that the test programs were built with. A branch is one
outcome, true or false, of one condition; clang counts each operand of && and || for itself. What stays uncovered must
stand in the table of docs/reliability.md with its reason, and nothing else may stand there.

Clang counts how often a condition was asked and how often it was true, and takes the difference for false: tests that
kill a process in the middle of one stay out. (One that throws counts as false; the mutations see what this hides.)
"""

from __future__ import annotations

import argparse
import concurrent.futures
import dataclasses
import itertools
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

import testprograms
from testprograms import BUILD, ROOT

PRESET = BUILD / "coverage"
PROFILES = PRESET / "profiles"
LIBRARIES = [PRESET / "opccore" / "libopccore.so", PRESET / "textpackage" / "libtextpackage.so"]
PAGE = ROOT / "docs" / "reliability.md"
MOST_EXCEPTIONS = 20
WITHOUT = "*Killed*:*Dies*"  # tests
SHARDS = 4  # processes that share the tests of a program
SECONDS = 900  # that one of them may take


@dataclasses.dataclass(frozen=True)
class Gap:
    """Something that no test comes by."""

    file: str
    line: int
    source: str  # the text of the line
    what: str

    def __str__(self) -> str:
        return f"{self.file}:{self.line}: {self.what}"


@dataclasses.dataclass
class Coverage:
    lines: int = 0
    branches: int = 0
    gaps: list[Gap] = dataclasses.field(default_factory=list)
    uncovered_lines: int = 0
    uncovered_branches: int = 0


def run_shard(program: pathlib.Path, shard: int) -> str:
    """Runs a share of the tests of a program; what it said, where one failed."""
    environment = {
        "LD_LIBRARY_PATH": testprograms.library_path(PRESET),
        # One file for each library, into which all processes count as they go (%c): nothing to write when they end,
        # which tests that count or fail system calls would notice.
        "LLVM_PROFILE_FILE": str(PROFILES / "%m%c.profraw"),
        "GTEST_TOTAL_SHARDS": str(SHARDS),
        "GTEST_SHARD_INDEX": str(shard),
    }
    result = subprocess.run([program, "--gtest_brief=1", f"--gtest_filter=-{WITHOUT}"], env={**os.environ, **environment}, cwd=PROFILES,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            timeout=SECONDS)
    return "" if result.returncode == 0 else result.stdout.decode(errors="replace")


def run_all_tests(programs: list[pathlib.Path]) -> bool:
    shutil.rmtree(PROFILES, ignore_errors=True)
    PROFILES.mkdir(parents=True)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        shards = [pool.submit(run_shard, program, shard) for shard in range(SHARDS) for program in programs]
        failures = [shard.result() for shard in shards]
    print("".join(failures), end="")
    return not any(failures)


def export(form: str) -> str:
    profile = PROFILES / "all.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", profile, *PROFILES.glob("*.profraw")], check=True)
    command = ["llvm-cov-14", "export", f"-format={form}", f"-instr-profile={profile}", LIBRARIES[0]]
    for library in LIBRARIES[1:]:
        command += ["-object", library]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def is_ours(path: str) -> bool:
    return path.startswith((f"{ROOT}/opccore/", f"{ROOT}/textpackage/"))


def line_counts() -> dict[str, dict[int, int]]:
    """How often each line ran, by file."""
    counts: dict[str, dict[int, int]] = {}
    for line in export("lcov").splitlines():
        if line.startswith("SF:"):
            lines = counts.setdefault(line[3:], {})
        elif line.startswith("DA:"):
            number, count = line[3:].split(",")[:2]
            lines[int(number)] = lines.get(int(number), 0) + int(count)
    return {path: lines for path, lines in counts.items() if is_ours(path)}


def branch_counts() -> dict[str, dict[tuple[int, int, int, int], tuple[int, int]]]:
    """How often each condition was true and false, by file and place; the instances of a template together."""
    counts: dict[str, dict[tuple[int, int, int, int], tuple[int, int]]] = {}
    for file in json.loads(export("text"))["data"][0]["files"]:
        if not is_ours(file["filename"]):
            continue
        branches = counts.setdefault(file["filename"], {})
        for branch in file["branches"]:
            place = tuple(branch[:4])
            true, false = branches.get(place, (0, 0))
            branches[place] = (true + branch[4], false + branch[5])
    return counts


def measure() -> Coverage:
    coverage = Coverage()
    branches_of = branch_counts()
    for path, lines in sorted(line_counts().items()):
        name = str(pathlib.Path(path).relative_to(ROOT))
        text = pathlib.Path(path).read_text().splitlines()
        coverage.lines += len(lines)
        uncovered = sorted(number for number, count in lines.items() if count == 0)
        coverage.uncovered_lines += len(uncovered)
        for first, last in runs_of_numbers(uncovered):
            what = "line" if first == last else f"lines up to {last}"
            source = telling_line(text, first)
            coverage.gaps.append(Gap(name, first, source, f"{what} never run: {source}"))
        for (line, column, last_line, last_column), counts in sorted(branches_of.get(path, {}).items()):
            coverage.branches += 2
            if lines.get(line) == 0:
                coverage.uncovered_branches += 2  # named with its line
                continue
            end = last_column - 1 if last_line == line else None
            for outcome, count in zip(("true", "false"), counts):
                if count == 0:
                    coverage.uncovered_branches += 1
                    what = f"never {outcome}: {text[line - 1][column - 1:end]}"
                    coverage.gaps.append(Gap(name, line, text[line - 1].strip(), what))
    return coverage


def telling_line(text: list[str], number: int) -> str:
    """The line of that number, or the one before it that says more than a brace or a comment."""
    line = text[number - 1].strip()
    if number > 1 and (line == "}" or line.startswith("//")):
        return telling_line(text, number - 1)
    return line


def runs_of_numbers(numbers: list[int]):
    """First and last of each run of consecutive numbers."""
    for _, run in itertools.groupby(enumerate(numbers), lambda entry: entry[1] - entry[0]):
        members = [number for _, number in run]
        yield members[0], members[-1]


def read_exceptions() -> dict[tuple[str, str], str]:
    """The table of the page's section on coverage: file and line's text, and the reason."""
    section = PAGE.read_text().split("### coverage", 1)[1].split("\n#", 1)[0]
    rows = re.findall(r"^\| `([^`]+)` \| `(.+?)` \| (.+) \|$", section, flags=re.M)
    return {(file, source.replace(r"\|", "|")): reason for file, source, reason in rows}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="without the tests of opctext")
    options = parser.parse_args()

    begin = time.monotonic()
    programs = [program for program in testprograms.PROGRAMS if not options.quick or program.name != "opctext_tests"]
    if not run_all_tests(programs):
        print("coverage: tests failed on the libraries that count")
        return 1
    coverage = measure()
    exceptions = read_exceptions()
    unexcused = [gap for gap in coverage.gaps if (gap.file, gap.source) not in exceptions]
    stale = set(exceptions) - {(gap.file, gap.source) for gap in coverage.gaps}

    print(f"{coverage.lines - coverage.uncovered_lines} of {coverage.lines} lines and "
          f"{coverage.branches - coverage.uncovered_branches} of {coverage.branches} branches run; "
          f"{len(exceptions)} exceptions; {time.monotonic() - begin:.0f} s")
    for gap in coverage.gaps:
        print(f"{'excepted' if gap not in unexcused else 'UNCOVERED'}: {gap}")
    for file, source in sorted(stale):
        print(f"NO EXCEPTION ANY MORE: {file}: {source}: take it out of {PAGE.relative_to(ROOT)}")
    if len(exceptions) > MOST_EXCEPTIONS:
        print(f"more than {MOST_EXCEPTIONS} exceptions")
    return 1 if unexcused or stale or len(exceptions) > MOST_EXCEPTIONS else 0


if __name__ == "__main__":
    sys.exit(main())
