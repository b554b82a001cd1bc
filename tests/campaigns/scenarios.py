"""The scenarios of the program campaign_scenarios, and what it takes to run one under strace and to look at what it left.

Shared by the campaigns that disturb a process from outside: errors.py, kills.py and powerloss.py.
"""

import argparse
import fnmatch
import os
import random
import re
import shutil
import stat
import subprocess
import sys
import tempfile
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import ProcessPoolExecutor
from contextlib import contextmanager
from pathlib import Path
from typing import NamedTuple, TypeVar

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "build/dev/tests/campaigns/campaign_scenarios"
MARK = "getpriority"  # the system call that the program makes before and after a run, and nowhere else
SECONDS_TO_END = 60

# What a run of the program may exit with.
SUCCEEDED, FAILED, LEFT_DESCRIPTORS = 0, 1, 10

# The names of files that are made ready beside those that they replace, by the library, by opctext and, with something
# appended, by the ZIP library.
TEMPORARY_NAME = re.compile(r"(.*/)?(\.opc-[0-9a-f]{32}\.tmp|\.opctext-[0-9a-f]+\.tmp(\.\w+)?)")

Tree = dict[str, tuple[int, bytes]]  # relative path: permission bits and type, content or target of a link


class Scenario(NamedTuple):
    name: str
    target: str  # the one file that a run replaces; empty: none, or several
    is_across: bool  # folder and temporary area lie on different file systems
    is_program: bool  # of opctext


def all_scenarios() -> list[Scenario]:
    lines = subprocess.run([PROGRAM, "list"], check=True, capture_output=True, text=True).stdout.splitlines()
    fields = [line.split("\t") for line in lines]
    return [Scenario(name, "" if target == "-" else target, across == "across", kind == "program")
            for name, target, across, kind in fields]


class Violation(Exception):
    """The first thing that must not be; ends the campaign."""


class End(NamedTuple):
    """How a run ended."""

    status: int  # negative: the signal that ended it
    output: bytes
    errors: str
    calls: list[str]  # the traced system calls, a line each


def read_tree(folder: Path) -> Tree:
    """Everything below a folder."""
    tree: Tree = {}
    pending = [folder]
    while pending:
        for entry in os.scandir(pending.pop()):
            mode = entry.stat(follow_symlinks=False).st_mode
            if stat.S_ISLNK(mode):
                content = os.readlink(entry.path).encode()
            elif stat.S_ISDIR(mode):
                content = b""
                pending.append(Path(entry.path))
            else:
                content = Path(entry.path).read_bytes()
            tree[os.path.relpath(entry.path, folder)] = (mode, content)
    return tree


def differences(now: Tree, wanted: Tree) -> str:
    return ", ".join(f"{path} differs" for path in sorted(now.keys() | wanted.keys())
                     if now.get(path) != wanted.get(path))


class Workplace:
    """A folder with what a scenario begins with, and a temporary area; and what a run without disturbance makes of it."""

    def __init__(self, scenario: Scenario, base: Path, other_base: Path):
        self.scenario = scenario
        self.folder = base / "folder"
        self.area = (other_base if scenario.is_across else base) / "area"
        self._pristine = base / "pristine"
        self.area.mkdir()
        self._pristine.mkdir()
        subprocess.run([PROGRAM, "prepare", scenario.name, self._pristine], check=True, env=self._environment({}))
        self.renew()
        self.before = read_tree(self.folder)
        end = self.run()
        self.after = read_tree(self.folder)
        self.output = end.output
        if end.status != SUCCEEDED:
            raise Violation(f"{scenario.name} fails undisturbed: {end.errors}")

    @property
    def writes(self) -> bool:
        return self.before != self.after

    def renew(self) -> None:
        """Makes the folder what a run begins with, and the temporary area empty."""
        self.renew_folder({})
        for entry in self.area.iterdir():
            shutil.rmtree(entry) if entry.is_dir() else entry.unlink()

    def renew_folder(self, more: Tree) -> None:
        """Makes the folder what a run begins with, and adds files."""
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(self._pristine, self.folder, symlinks=True)
        for path, (mode, content) in more.items():
            (self.folder / path).write_bytes(content)
            (self.folder / path).chmod(stat.S_IMODE(mode))

    def run(self, strace: Sequence[str] = (), environment: dict[str, str] | None = None) -> End:
        """Runs the scenario, under strace where it gets options."""
        command = [str(PROGRAM), "run", self.scenario.name, str(self.folder)]
        trace = self.folder.parent / "trace"
        if strace:
            # The faster way to trace, with a filter, delivers no signals.
            faster = [] if "signal=" in " ".join(strace) else ["--seccomp-bpf"]
            command = ["strace", "-f", *faster, "-qq", "-o", str(trace), *strace, *command]
        trace.unlink(missing_ok=True)
        try:
            done = subprocess.run(command, capture_output=True, env=self._environment(environment or {}),
                                  timeout=SECONDS_TO_END)
        except subprocess.TimeoutExpired:
            raise Violation(f"{' '.join(command)}: does not end") from None
        calls = trace.read_text(errors="replace").splitlines() if trace.exists() else []
        return End(done.returncode, done.stdout, done.stderr.decode(errors="replace"), calls)

    def _environment(self, more: dict[str, str]) -> dict[str, str]:
        # The check for leaks can't work under strace.
        return {**os.environ, "TMPDIR": str(self.area), "ASAN_OPTIONS": "detect_leaks=0", "LC_ALL": "C", **more}


@contextmanager
def workplace(scenario: Scenario) -> Iterator[Workplace]:
    """A workplace in memory, where there is such a file system, for as long as the context lasts."""
    in_memory = "/dev/shm" if os.access("/dev/shm", os.W_OK | os.X_OK) else None
    on_disk = "/var/tmp"
    with tempfile.TemporaryDirectory(prefix="campaign_", dir=in_memory) as base, \
            tempfile.TemporaryDirectory(prefix="campaign_", dir=on_disk) as other:
        yield Workplace(scenario, Path(base), Path(other))


def calls_of_run(place: Workplace) -> tuple[dict[str, int], list[str]]:
    """The names of the system calls between the marks of an undisturbed run, in their order, and how many of each name
    were made before the first mark."""
    place.renew()
    names = [name_of_call(line) for line in place.run(["-e", "trace=all"]).calls]
    first = names.index(MARK)
    last = names.index(MARK, first + 1)
    earlier: dict[str, int] = {}
    for name in names[:first]:
        earlier[name] = earlier.get(name, 0) + 1
    return earlier, [name for name in names[first + 1:last] if name]


def name_of_call(line: str) -> str:
    """The name in a line of a trace; empty for what is no call."""
    match = re.match(r"\d+ +(\w+)\(", line)
    return match.group(1) if match else ""


def check_strace() -> None:
    probe = subprocess.run(["strace", "-f", "--seccomp-bpf", "-o", "/dev/null", "true"], capture_output=True, text=True)
    if probe.returncode != 0:
        sys.exit(f"strace can't trace here: {probe.stderr}")


Case = TypeVar("Case")


class Options(NamedTuple):
    """How much of a campaign to do."""

    share: float  # of the cases of each scenario
    seed: int
    keep_going: bool

    def sample(self, scenario: Scenario, cases: list[Case]) -> list[Case]:
        if self.share >= 1:
            return cases
        return random.Random(f"{self.seed} {scenario.name}").sample(cases, max(1, round(self.share * len(cases))))

    @contextmanager
    def noting(self, counts: Counter[str]) -> Iterator[None]:
        """Where all violations are to be reported, reports and counts those of the context."""
        try:
            yield
        except Violation as violation:
            if not self.keep_going:
                raise
            print(f"VIOLATION: {violation}", flush=True)
            counts["violations"] += 1


def campaign(description: str, try_scenario: Callable[[Scenario, Options], Counter[str]], quick_share: float) -> None:
    """The main program of a campaign: does its work on each scenario, with as many processes as there are processors,
    and says what was counted. Ends at the first violation."""
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="a random sample that takes seconds")
    parser.add_argument("--seed", type=int, default=1, help="of all that is random (default: 1)")
    parser.add_argument("--only", default="*", metavar="PATTERN", help="scenarios of these names")
    parser.add_argument("--keep-going", action="store_true", help="report all violations, not the first alone")
    arguments = parser.parse_args()
    check_strace()
    options = Options(quick_share if arguments.quick else 1, arguments.seed, arguments.keep_going)
    print(f"{Path(sys.argv[0]).stem}: seed {options.seed}", flush=True)

    chosen = [scenario for scenario in all_scenarios() if fnmatch.fnmatch(scenario.name, arguments.only)]
    if not chosen:
        sys.exit(f"there is no scenario of the name {arguments.only}")
    counts: Counter[str] = Counter()
    with ProcessPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        results = [pool.submit(try_scenario, scenario, options) for scenario in chosen]
        try:
            for result in results:
                counts.update(result.result())
        except Violation as violation:
            pool.shutdown(wait=False, cancel_futures=True)
            sys.exit(f"VIOLATION: {violation}")
    print("\n".join(f"{count:8} {what}" for what, count in counts.items()))
    sys.exit(1 if counts["violations"] else 0)
