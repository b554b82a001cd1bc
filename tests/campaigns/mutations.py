#!/usr/bin/python3
"""Turns every condition of the library round, one at a time, and sees whether the tests notice.

Each condition of opccore/ and textpackage/ is wrapped in a copy of the sources so that the environment says, at run
time, which one is wrong (see conditions.py); the two libraries are built from that copy once. A first run of each test
by itself notes which conditions it comes by. Then each mutant meets the tests that come by it, the quickest first, up
to the first that fails. A mutant that makes a test hang is noticed, too.

Mutants that nobody can see from outside stand with their reasons in equivalent_mutants.txt and are not counted.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import dataclasses
import hashlib
import itertools
import json
import os
import pathlib
import queue
import random
import shutil
import subprocess
import sys
import time

import conditions
import testprograms
from testprograms import BUILD, ROOT, Folders, Test

FOLDER = BUILD / "mutants"
SOURCES = FOLDER / "source"
LIBRARIES = FOLDER / "libraries"
RECORD = FOLDER / "tests.json"
EQUIVALENTS = pathlib.Path(__file__).with_name("equivalent_mutants.txt")
LEAST_SHARE = 0.95  # of the mutants, to be noticed
QUICK_SAMPLE = 6
SLOW = 0.3  # seconds; tests that take longer run after the others, each by itself


@dataclasses.dataclass
class TestRun:
    """What is known of a test once it has run on the library without a mutant."""

    test: Test
    seconds: float
    visited: set[int]
    on_disk: bool  # it has nothing to test in memory


def library_sources() -> list[str]:
    return sorted(str(path.relative_to(ROOT)) for folder in ("opccore", "textpackage")
                  for path in (ROOT / folder).glob("*.[ch]pp"))


def write_if_changed(path: pathlib.Path, text: str) -> None:
    if not path.exists() or path.read_text() != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)


def fingerprint() -> str:
    """Of all that the mutated sources are made from."""
    made_from = [ROOT / name for name in library_sources()] + [pathlib.Path(conditions.__file__)]
    digest = hashlib.sha256()
    for path in made_from:
        digest.update(str(path).encode() + b"\0" + path.read_bytes())
    return digest.hexdigest()


def write_mutated_sources() -> list[conditions.Mutant]:
    """Writes the mutated copy of the project, unless it is there already."""
    record = FOLDER / "mutants.json"
    if record.exists():
        known = json.loads(record.read_text())
        if known["fingerprint"] == fingerprint():
            return [conditions.Mutant(**mutant) for mutant in known["mutants"]]

    mutator = conditions.Mutator()
    for source in conditions.find_conditions(ROOT, library_sources()):
        write_if_changed(SOURCES / source.name, mutator.mutated(source))
    for name in ("CMakeLists.txt", "opccore/CMakeLists.txt", "textpackage/CMakeLists.txt"):
        write_if_changed(SOURCES / name, (ROOT / name).read_text())
    shutil.copytree(ROOT / "cmake", SOURCES / "cmake", dirs_exist_ok=True)
    record.write_text(json.dumps(
        {"fingerprint": fingerprint(), "mutants": [dataclasses.asdict(mutant) for mutant in mutator.mutants]}))
    return mutator.mutants


def build_libraries() -> None:
    header = pathlib.Path(__file__).with_name("mutants.hpp")
    for command in (
        ["cmake", "-S", SOURCES, "-B", LIBRARIES, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
         f"-DCMAKE_CXX_FLAGS=-w -O1 -g0 -D_GLIBCXX_ASSERTIONS -include {header}",
         "-DTEXTPACKAGE_BUILD_TESTS=OFF", "-DTEXTPACKAGE_BUILD_PROGRAMS=OFF",
         "-DTEXTPACKAGE_WARNINGS_AS_ERRORS=OFF"],
        ["cmake", "--build", LIBRARIES],
    ):
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0:
            sys.exit(result.stdout)


def environment_for(mutant: int | None = None, visited: pathlib.Path | None = None) -> dict[str, str]:
    environment = {"LD_LIBRARY_PATH": testprograms.library_path(LIBRARIES)}
    if mutant is not None:
        environment["TEXTPACKAGE_MUTANT"] = str(mutant)
    if visited is not None:
        environment["TEXTPACKAGE_MUTANTS_VISITED"] = str(visited)
    return environment


class Bench:
    """Runs tests on the mutated libraries, so many at a time."""

    def __init__(self, jobs: int) -> None:
        self.memory: queue.SimpleQueue[Folders] = queue.SimpleQueue()
        self.disk: queue.SimpleQueue[Folders] = queue.SimpleQueue()
        self.folders: list[Folders] = []
        for _ in range(jobs):
            for place, on_disk in ((self.memory, False), (self.disk, True)):
                self.folders.append(Folders(on_disk))
                place.put(self.folders[-1])

    def __enter__(self) -> Bench:
        return self

    def __exit__(self, *_) -> None:
        for folders in self.folders:
            folders.remove()

    def run(self, program: pathlib.Path, names: list[str], environment: dict[str, str], seconds: float,
            on_disk: bool = False) -> testprograms.Outcome:
        place = self.disk if on_disk else self.memory
        folders = place.get()
        try:
            return testprograms.run_tests(program, names, environment, folders, seconds)
        finally:
            folders.clear()
            place.put(folders)

    def record(self, test: Test, conditions_there_are: int) -> TestRun:
        """Runs a test without a mutant. It must pass."""
        visited = FOLDER / f"visited-{test.program.name}-{hashlib.sha1(test.name.encode()).hexdigest()}"
        for on_disk in (False, True):
            visited.write_bytes(bytes(conditions_there_are))
            begin = time.monotonic()
            outcome = self.run(test.program, [test.name], environment_for(visited=visited), 120, on_disk)
            seconds = time.monotonic() - begin
            if not outcome.passed:
                raise RuntimeError(f"{test.name} fails without a mutant:\n{outcome.output}")
            if "[  SKIPPED ]" not in outcome.output:
                break
        numbers = {number for number, byte in enumerate(visited.read_bytes()) if byte}
        visited.unlink()
        return TestRun(test, seconds, numbers, on_disk)

    def is_noticed(self, mutant: conditions.Mutant, runs: list[TestRun]) -> str:
        """The program that noticed the mutant, or how; empty where none did."""
        environment = environment_for(mutant=mutant.number)
        for program, names, on_disk, seconds in batches(runs):
            outcome = self.run(program, names, environment, 5 + 10 * seconds, on_disk)
            if not outcome.passed:
                return "hangs" if outcome.timed_out else program.name
        print(f"{'survived' if runs else 'no test comes by'}: {mutant}", flush=True)
        return ""


def batches(runs: list[TestRun]):
    """Tests that run in one process each time: the quick ones of each program, then the slow ones one by one."""
    quick = [run for run in runs if run.seconds <= SLOW and not run.on_disk]
    groups = [list(group) for _, group in
              itertools.groupby(sorted(quick, key=lambda run: str(run.test.program)), lambda run: run.test.program)]
    groups.sort(key=lambda group: sum(run.seconds for run in group))
    slow = [run for run in runs if run.seconds > SLOW or run.on_disk]
    groups += [[run] for run in sorted(slow, key=lambda run: run.seconds)]
    for group in groups:
        yield (group[0].test.program, [run.test.name for run in group], group[0].on_disk,
               sum(run.seconds for run in group))


def read_equivalents() -> dict[str, str]:
    """Keys of mutants that can't be noticed, and why."""
    reasons = {}
    for line in EQUIVALENTS.read_text().splitlines():
        if line.startswith("#") or not line.strip():
            continue
        key, _, reason = line.partition(" -- ")
        if not reason.strip():
            sys.exit(f"{EQUIVALENTS.name}: no reason: {line}")
        reasons[key.strip()] = reason.strip()
    return reasons


def what_runs_depend_on() -> list[str]:
    return [fingerprint(), *(f"{program} {program.stat().st_mtime_ns}" for program in testprograms.PROGRAMS)]


def recorded_runs() -> list[TestRun]:
    """What an earlier full form recorded; nothing where the library or the tests have changed since."""
    if not RECORD.exists():
        return []
    known = json.loads(RECORD.read_text())
    if known.get("depends_on") != what_runs_depend_on():
        return []
    return [TestRun(Test(pathlib.Path(program), name), seconds, set(visited), on_disk)
            for program, name, seconds, visited, on_disk in known["runs"]]


def record_all(bench: Bench, pool: concurrent.futures.Executor, count: int) -> list[TestRun]:
    tests = [test for program in testprograms.PROGRAMS for test in testprograms.list_tests(program)]
    runs = list(pool.map(lambda test: bench.record(test, count), tests))
    RECORD.write_text(json.dumps({"depends_on": what_runs_depend_on(), "runs": [
        (str(run.test.program), run.test.name, run.seconds, sorted(run.visited), run.on_disk) for run in runs]}))
    return runs


def all_runs(mutant: conditions.Mutant) -> list[TestRun]:
    """What the quick form tries where nothing was recorded: whole programs, those for the mutant's folder first."""
    first = ["opccore_tests"] if mutant.file.startswith("opccore/") else ["package_tests", "textpackage_tests"]
    programs = sorted(testprograms.PROGRAMS, key=lambda program: program.name not in first)
    return [TestRun(Test(program, "*"), 1 + position, set(), False) for position, program in enumerate(programs)]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="a sample of the mutants, each of which must be noticed")
    parser.add_argument("--seed", type=int, default=1, help="of the sample (default: 1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="tests at a time (default: one a processor)")
    parser.add_argument("--only", metavar="TEXT", help="mutants in whose description this stands")
    options = parser.parse_args()

    begin = time.monotonic()
    FOLDER.mkdir(parents=True, exist_ok=True)
    mutants = write_mutated_sources()
    build_libraries()
    equivalents = read_equivalents()
    stale = set(equivalents) - {mutant.key for mutant in mutants}
    if stale:
        print("in equivalent_mutants.txt, but no mutant of the library:", *sorted(stale), sep="\n  ")
        return 1
    chosen = [mutant for mutant in mutants if mutant.key not in equivalents]
    if options.only:
        chosen = [mutant for mutant in chosen if options.only in str(mutant)]
    if options.quick:
        chosen = random.Random(options.seed).sample(chosen, min(QUICK_SAMPLE, len(chosen)))
    print(f"{len(mutants)} mutants, {len(equivalents)} that nobody can see; "
          f"trying {len(chosen)}" + (f" (seed {options.seed})" if options.quick else ""), flush=True)

    with Bench(options.jobs) as bench, concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        runs = recorded_runs()
        if not runs and not options.quick:
            runs = record_all(bench, pool, len(mutants))
            print(f"{len(runs)} tests recorded after {time.monotonic() - begin:.0f} s", flush=True)
        runs_of = {mutant.number: [run for run in runs if mutant.number in run.visited] if runs else all_runs(mutant)
                   for mutant in chosen}
        noticed = list(pool.map(lambda mutant: bench.is_noticed(mutant, runs_of[mutant.number]), chosen))
    return report(chosen, noticed, runs_of, LEAST_SHARE if not options.quick else 1, time.monotonic() - begin)


def report(mutants: list[conditions.Mutant], noticed: list[str], runs_of: dict[int, list[TestRun]],
           least_share: float, seconds: float) -> int:
    unvisited = sum(not runs_of[mutant.number] for mutant in mutants)
    killed = sum(bool(by) for by in noticed)
    share = killed / len(mutants)
    print(f"{killed} of {len(mutants)} mutants noticed ({share:.1%}), {noticed.count('hangs')} of them by a test that "
          f"hung; {len(mutants) - killed - unvisited} survived, {unvisited} not tried by any test; {seconds:.0f} s")
    if share < least_share:
        print(f"less than {least_share:.0%}. To see one again: tests/campaigns/mutations.py --only 'TEXT OF ITS LINE'")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
