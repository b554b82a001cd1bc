"""The folder that a measurement works in, the programs it starts there, and the inputs it makes."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

MIB = 1 << 20
GIB = 1 << 30


class BenchFailure(Exception):
    """An operation failed, or didn't do what it was to do; its figure would be worth nothing."""


@dataclass(frozen=True)
class Sizes:
    """How large the inputs are and how often each line is run."""

    large: int  # bytes of the one large package
    series: tuple[int, ...]  # bytes of packages that differ in nothing but their size
    huge: int  # bytes of the text package that memory is watched with
    binary: int  # bytes to encode
    huge_binary: int  # the same, with memory watched
    many: int  # parts
    runs: int
    slow_runs: int  # of the lines that take many seconds
    starts: int  # of a program that takes milliseconds, in each run


FULL = Sizes(
    large=GIB,
    series=(MIB, 16 * MIB, 256 * MIB, GIB),
    huge=4 * GIB,
    binary=256 * MIB,
    huge_binary=GIB,
    many=100_000,
    runs=5,
    slow_runs=3,
    starts=10,
)
QUICK = Sizes(
    large=2 * MIB,
    series=(MIB // 2, 2 * MIB),
    huge=4 * MIB,
    binary=MIB,
    huge_binary=2 * MIB,
    many=200,
    runs=1,
    slow_runs=1,
    starts=2,
)


class Workbench:
    """Everything that is made lies in `folder`, the temporary area as well: one file system for all.

    Inputs stay there for the next time; what the operations make goes into `scratch`, which each run finds empty.
    """

    def __init__(self, build: Path, folder: Path, sizes: Sizes) -> None:
        self.build = build
        self.inputs = folder / "inputs"
        self.scratch = folder / "scratch"
        self.sizes = sizes
        self.temporary = folder / "tmp"
        self.inputs.mkdir(parents=True, exist_ok=True)
        shutil.rmtree(self.temporary, ignore_errors=True)
        self.temporary.mkdir()
        self.clear()

    def clear(self) -> None:
        """Empties the scratch folder, and waits until nothing that is still to be written slows the next run."""
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir()
        os.sync()

    def program(self, name: str) -> Path:
        return self.build / ("opctext" if name == "opctext" else "benchmarks") / name

    def call(self, *command: str | Path, output: Path | None = None) -> str:
        """Runs a command to its end; what it printed, unless that goes into a file."""
        environment = os.environ | {"TMPDIR": str(self.temporary), "LC_ALL": "C"}
        with open(output or os.devnull, "wb") as file:
            done = subprocess.run(
                command,
                env=environment,
                stdout=file if output else subprocess.PIPE,
                stderr=subprocess.PIPE,
                check=False,
            )
        if done.returncode != 0:
            words = " ".join(str(word) for word in command)
            raise BenchFailure(f"{words}: exit status {done.returncode}: {done.stderr.decode().strip()}")
        return "" if output else done.stdout.decode()

    def operation(self, name: str, *arguments: str | Path, watch_memory: bool = False) -> dict[str, float]:
        """One operation of ours, in a process of its own: what `bench_operations` says of it."""
        options = ["--memory"] if watch_memory else []
        return json.loads(self.call(self.program("bench_operations"), *options, name, *arguments))

    def seconds_of(self, script: str, *arguments: str | Path) -> float:
        """The time that a shell script takes, which the arguments reach as $1, $2 ..."""
        begin = time.perf_counter()
        self.call("sh", "-e", "-c", script, "sh", *arguments)
        return time.perf_counter() - begin

    def package(self, shape: str, size: int = 0) -> Path:
        """A generated input."""
        return self.input(
            f"{shape}-{size}.txt" if size else f"{shape}.txt",
            lambda path: self.totals_file(path).write_text(
                self.call(self.program("generate_input"), shape, path, str(size)), encoding="utf-8"
            ),
        )

    def totals(self, package: Path) -> dict[str, int]:
        """What a generated package holds: `parts`, `text_bytes`, `binary_bytes`."""
        return json.loads(self.totals_file(package).read_text(encoding="utf-8"))

    @staticmethod
    def totals_file(package: Path) -> Path:
        return package.with_suffix(".json")

    def input(self, name: str, make: Callable[[Path], object]) -> Path:
        """An input by its name, made unless it is there already and no older than the program that generates it."""
        path = self.inputs / name
        generator = self.program("generate_input")
        if not path.exists() or path.stat().st_mtime < generator.stat().st_mtime:
            make(path)
            os.utime(path)
        return path


def require(claim: bool, words: str) -> None:
    if not claim:
        raise BenchFailure(words)
