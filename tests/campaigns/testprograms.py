"""The test programs of preset dev, run on other builds of the two libraries than their own."""

from __future__ import annotations

import dataclasses
import os
import pathlib
import resource
import signal
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
PROGRAMS = [BUILD / "dev" / "tests" / name
            for name in ("opccore_tests", "package_tests", "textpackage_tests", "commit_tests", "opctext_tests")]

MOST_MEMORY = 4 << 30  # bytes that a test program may map
LARGEST_FILE = 1 << 30  # bytes


@dataclasses.dataclass(frozen=True)
class Test:
    program: pathlib.Path
    name: str  # Suite.Test


class Folders:
    """Where the tests put their files: deep below a folder of ours, so that a library that is wrong about ".." does
    no harm, in memory where there is such a file system."""

    def __init__(self, on_disk: bool = False):
        memory = pathlib.Path("/dev/shm")
        area = memory if not on_disk and os.access(memory, os.W_OK | os.X_OK) else BUILD
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="textpackage-campaign-", dir=area))
        self.root.chmod(0o755)  # some tests become another user
        self.deepest = self.root.joinpath(*"abcdefgh")
        self.deepest.mkdir(parents=True)

    def clear(self) -> None:
        remove_tree(self.root / "a")
        self.deepest.mkdir(parents=True, exist_ok=True)

    def remove(self) -> None:
        remove_tree(self.root)

    def environment(self) -> dict[str, str]:
        return {"TEST_TMPDIR": str(self.deepest), "TMPDIR": str(self.deepest)}


def remove_tree(folder: pathlib.Path) -> None:
    """By a program that can do it however deep the folders are that a wrong library made."""
    subprocess.run(["rm", "-rf", "--", folder], stderr=subprocess.DEVNULL, check=False)


def library_path(build: pathlib.Path) -> str:
    return f"{build / 'opccore'}:{build / 'textpackage'}"


def list_tests(program: pathlib.Path) -> list[Test]:
    """All tests of a program but those that are switched off."""
    listing = subprocess.run([program, "--gtest_list_tests"], check=True, capture_output=True, text=True).stdout
    tests = []
    suite = ""
    for line in listing.splitlines():
        words = line.split("#")[0].rstrip()
        if words.endswith(".") and not words.startswith(" "):
            suite = words
        elif words.startswith("  ") and "DISABLED_" not in suite + words:
            tests.append(Test(program, suite + words.strip()))
    return tests


def limit_process() -> None:
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (LARGEST_FILE, LARGEST_FILE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


@dataclasses.dataclass
class Outcome:
    passed: bool
    output: str
    timed_out: bool = False


def run_tests(program: pathlib.Path, names: list[str], environment: dict[str, str], folders: Folders,
              seconds: float) -> Outcome:
    """Runs tests in one process, up to the first that fails, and never longer than that."""
    command = [program, "--gtest_fail_fast", "--gtest_brief=1", "--gtest_filter=" + ":".join(names)]
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               env={**os.environ, **folders.environment(), **environment},
                               cwd=folders.deepest, preexec_fn=limit_process, start_new_session=True)
    try:
        output, _ = process.communicate(timeout=seconds)
        return Outcome(process.returncode == 0, output.decode(errors="replace"))
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output, _ = process.communicate()
        return Outcome(False, output.decode(errors="replace"), timed_out=True)
