"""Runs one program for each of several items, on all processors, and adds up the figures that it gives."""

import concurrent.futures
import os
import pathlib
import subprocess
import sys
import tempfile
from collections.abc import Callable, Sequence


def items_of(program: pathlib.Path, option: str) -> list[str]:
    """What the program can be run for, as it says itself."""
    return subprocess.run([program, option], capture_output=True, text=True, check=True).stdout.split()


def folder_in_memory(prefix: str) -> pathlib.Path:
    """A new folder, in memory where there is such a file system."""
    memory = pathlib.Path("/dev/shm")
    return pathlib.Path(tempfile.mkdtemp(prefix=prefix, dir=memory if os.access(memory, os.W_OK) else None))


def run_each(name: str, items: Sequence[str], run: Callable[[str], list[int]], figures: Sequence[str]) -> int:
    """Runs each item and shows the sums, or the first RuntimeError that a run raised; returns the exit status."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = [pool.submit(run, item) for item in items]
        try:
            totals = [sum(column) for column in zip(*(run.result() for run in runs))]
        except RuntimeError as violation:
            pool.shutdown(cancel_futures=True)
            print(f"{name}: {violation}", file=sys.stderr)
            return 1
    for figure, total in zip(figures, totals):
        print(f"  {figure}: {total:,}")
    return 0
