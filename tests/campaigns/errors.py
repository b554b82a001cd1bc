#!/usr/bin/env python3
"""An error at every system call.

Every scenario is run again and again, and each time one of its system calls fails, or that one and all later ones of
its name, with an error that it may have; or moves fewer bytes than it was asked to. After each run the files must be
whole, old or new, success must mean that all was done, and nothing may be left behind.

    errors.py [--quick] [--seed N] [--only PATTERN] [--keep-going]
"""

import re
from collections import Counter
from typing import NamedTuple

from scenarios import (FAILED, LEFT_DESCRIPTORS, SUCCEEDED, TEMPORARY_NAME, End, Options, Scenario, Violation, Workplace,
                       calls_of_run, campaign, differences, read_tree, workplace)

QUICK_CASES = 700
ALL_CASES = 60000

# What a call may fail with, where that is not just an error of the disk.
ERRORS = {
    "close": ["EIO", "EINTR"],
    "copy_file_range": ["EIO", "ENOSPC", "EINTR"],
    "fchmod": ["EACCES", "EINTR"],
    "fsync": ["EIO", "ENOSPC", "EINTR"],
    "link": ["EACCES", "EMFILE"],
    "lseek": ["EIO"],
    "mkdir": ["EACCES", "ENOSPC"],
    "mkdirat": ["EACCES", "ENOSPC"],
    "mmap": ["ENOMEM", "EACCES"],
    "newfstatat": ["EACCES"],
    "openat": ["EMFILE", "EACCES", "ENOSPC", "EINTR"],
    "read": ["EIO", "EINTR"],
    "rename": ["EIO", "EACCES", "ENOSPC"],
    "unlink": ["EIO", "EINTR"],
    "unlinkat": ["EACCES", "EINTR"],
    "write": ["EIO", "ENOSPC", "EINTR"],
    "writev": ["EIO", "ENOSPC", "EINTR"],
}
DEFAULT_ERRORS = ["EIO"]

# Calls of the C library alone: without memory it asks for more in another way (the campaign "memory" withholds both),
# and the others can't fail.
NOT_DISTURBED = {"brk", "futex", "getpid"}

# Calls that the library repeats when a signal interrupts them, so that nobody notices.
REPEATED = {"close", "copy_file_range", "fchmod", "fsync", "openat", "read", "write"}
INTERRUPTIONS = 4  # in a row: a call that is interrupted for ever may be repeated for ever

# Calls without which nothing can be removed: where one of them fails for good, something stays.
REMOVING = {"fcntl", "getdents64", "mmap", "newfstatat", "openat", "rmdir", "unlink", "unlinkat"}


class Case(NamedTuple):
    """One disturbance of a run."""

    call: str
    number: int  # of the call among those of its name, from 1
    error: str  # empty: fewer bytes are moved than asked for
    goes_on: bool  # the later calls of the name are disturbed as well

    def __str__(self) -> str:
        return f"{self.call} {self.number}{'+' if self.goes_on else ''} {self.error or 'cut short'}"

    def strace(self) -> list[str]:
        if not self.error:
            return []
        last = f"..{self.number + INTERRUPTIONS - 1}" if self.error == "EINTR" else "+"
        when = f"{self.number}{last if self.goes_on else ''}"
        return ["-e", f"trace={self.call}", "-e", f"inject={self.call}:error={self.error}:when={when}"]

    def environment(self, earlier: int) -> dict[str, str]:
        """For fewer bytes, which are counted from the mark."""
        if self.error:
            return {}
        return {"SHORT_TRANSFERS": f"{self.call}:{self.number - earlier}{'+' if self.goes_on else ''}"}


def cases_of(earlier: dict[str, int], names: list[str]) -> list[Case]:
    """Every case of a run that makes these calls, the first of a name being number `earlier` + 1."""
    cases = []
    counts = dict(earlier)
    for name in names:
        counts[name] = number = counts.get(name, 0) + 1
        for error in [] if name in NOT_DISTURBED else ERRORS.get(name, DEFAULT_ERRORS):
            cases += [Case(name, number, error, False), Case(name, number, error, True)]
        if name in ("read", "write", "copy_file_range"):
            cases += [Case(name, number, "", False), Case(name, number, "", True)]
    return cases


def try_case(place: Workplace, case: Case, earlier: int) -> bool:
    """Runs a scenario with one disturbance and judges what is there afterwards; returns whether it noticed."""
    place.renew()
    end = place.run(case.strace(), case.environment(earlier))
    try:
        judge(place, case, end)
    except Violation as violation:
        how = " ".join(case.strace()) or f"-E SHORT_TRANSFERS={case.environment(earlier)['SHORT_TRANSFERS']}"
        raise Violation(f"{place.scenario.name}, {case}: {violation}\n"
                        f"  it exited with {end.status} and said: {end.errors.strip()}\n"
                        f"  the run was: strace {how} campaign_scenarios run {place.scenario.name} FOLDER") from None
    return end.status % LEFT_DESCRIPTORS == FAILED


def judge(place: Workplace, case: Case, end: End) -> None:
    scenario = place.scenario
    injected = sum("(INJECTED)" in line for line in end.calls)
    status = end.status
    if status in (SUCCEEDED + LEFT_DESCRIPTORS, FAILED + LEFT_DESCRIPTORS):
        left = int(re.search(r"(\d+) descriptors are left open", end.errors).group(1))
        # strace doesn't close what it makes fail to be closed; the ZIP library doesn't close a file that it can't mark.
        if left > injected or not (case.call == "close" or (case.call == "fcntl" and scenario.is_program)):
            raise Violation(f"{left} descriptors are left open")
        status -= LEFT_DESCRIPTORS
    if status not in (SUCCEEDED, FAILED):
        raise Violation("it neither succeeded nor reported a failure")
    if status == FAILED and not is_allowed_to_fail(scenario, case, injected, end.errors):
        raise Violation("it failed, although it can do without that")

    may_leave = case.goes_on and case.call in REMOVING and case.error != "EINTR"
    left_in_area = [path.name for path in place.area.iterdir()]
    if left_in_area and not may_leave:
        raise Violation(f"left in the temporary area: {left_in_area}")
    now = read_tree(place.folder)
    if may_leave:
        now = {path: entry for path, entry in now.items() if not TEMPORARY_NAME.fullmatch(path)}
    if status == SUCCEEDED:
        if now != place.after:
            raise Violation(f"success was reported, but {differences(now, place.after)}")
        if end.output != place.output:
            raise Violation("success was reported, but other data were read")
        return
    for path in now.keys() | place.before.keys() | place.after.keys():
        if now.get(path) not in (place.before.get(path), place.after.get(path)):
            raise Violation(f"{path} is neither as before nor new")
    changed = now.get(scenario.target) != place.before.get(scenario.target)
    if changed and case.call != "fsync":  # of the folder, after the rename
        raise Violation(f"a failure was reported, but {scenario.target} is new")


def is_allowed_to_fail(scenario: Scenario, case: Case, injected: int, message: str) -> bool:
    if not case.error or injected == 0:
        return False  # nothing happened that a run must notice
    if case.error != "EINTR" or case.call not in REPEATED:
        return True
    # The ZIP library, standard output and the mapping of the working copy repeat nothing.
    return scenario.is_program or "Could not create TextFileBuffer" in message


def try_scenario(scenario: Scenario, options: Options) -> Counter[str]:
    with workplace(scenario) as place:
        earlier, names = calls_of_run(place)
        counts = Counter({"scenarios": 1, "system calls": len(names)})
        for case in options.sample(scenario, cases_of(earlier, names)):
            with options.noting(counts):
                failed = try_case(place, case, earlier.get(case.call, 0))
                counts["runs with an error or short transfers"] += 1
                counts["of them reported a failure" if failed else "of them did without"] += 1
        return counts


if __name__ == "__main__":
    campaign(__doc__, try_scenario, QUICK_CASES / ALL_CASES)
