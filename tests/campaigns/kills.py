#!/usr/bin/env python3
"""Killed before and after every system call.

Every scenario that writes is run again and again, and each time killed before another of its system calls, the last time
after all of them. After each kill every file must be whole, old or new; what is left beside them must be temporary and
for nobody else; and the same run must work with all that still around, and leave it alone.

    kills.py [--quick] [--seed N] [--only PATTERN] [--keep-going]
"""

import stat
from collections import Counter
from typing import NamedTuple

from scenarios import (MARK, SUCCEEDED, TEMPORARY_NAME, Options, Scenario, Tree, Violation, Workplace, calls_of_run,
                       campaign, differences, read_tree, workplace)

QUICK_CASES = 400
ALL_CASES = 12000
KILLED = -9


class Kill(NamedTuple):
    """The moment before a system call; that after one is the same as that before the next."""

    call: str
    number: int  # among those of its name, from 1

    def strace(self) -> list[str]:
        return ["-e", f"trace={self.call}", "-e", f"inject={self.call}:signal=KILL:when={self.number}"]


def kills_of(earlier: dict[str, int], names: list[str]) -> list[Kill]:
    """Every kill of a run that makes these calls, the first of a name being number `earlier` + 1. The last is the one
    after all of them."""
    kills = []
    counts = dict(earlier)
    for name in [*names, MARK]:
        if name == "brk":  # how often it asks for memory is not always the same
            continue
        counts[name] = counts.get(name, 0) + 1
        kills.append(Kill(name, counts[name]))
    return kills


def try_kill(place: Workplace, kill: Kill) -> str:
    """Kills a run; returns what became of its target."""
    place.renew()
    end = place.run(kill.strace())
    try:
        if end.status != KILLED:
            raise Violation(f"it was not killed, but exited with {end.status}: {end.errors}")
        killed, left = judge_files(place)
        judge_area(place)
        judge_next_run(place, left)
    except Violation as violation:
        raise Violation(f"{place.scenario.name}, killed before {kill.call} {kill.number}: {violation}\n"
                        f"  the run was: strace {' '.join(kill.strace())} campaign_scenarios run "
                        f"{place.scenario.name} FOLDER") from None
    return "new" if killed == place.after else "old" if killed == place.before else "partly new"


def judge_files(place: Workplace) -> tuple[Tree, Tree]:
    """Returns the files that belong there, and those that are left over."""
    now = read_tree(place.folder)
    left = {path: entry for path, entry in now.items() if TEMPORARY_NAME.fullmatch(path)}
    now = {path: entry for path, entry in now.items() if path not in left}
    for path in now.keys() | place.before.keys() | place.after.keys():
        if now.get(path) not in (place.before.get(path), place.after.get(path)):
            if not is_unfinished_extraction(place.scenario, path, now):
                raise Violation(f"{path} is neither as before nor new")
    return now, left


def is_unfinished_extraction(scenario: Scenario, path: str, now: Tree) -> bool:
    """Files that are extracted where nothing was before are written in their places: they are no packages."""
    return scenario.name == "opctext-extract" and path in now


def judge_area(place: Workplace) -> None:
    """Nobody else may look at what is left in the temporary area."""
    for entry in place.area.iterdir():
        mode = entry.stat().st_mode
        if not (stat.S_ISDIR(mode) or stat.S_ISREG(mode)) or stat.S_IMODE(mode) & 0o077:
            raise Violation(f"{entry.name} is left in the temporary area with the permissions {stat.filemode(mode)}")


def judge_next_run(place: Workplace, left: Tree) -> None:
    """Runs the scenario undisturbed on what it began with, and on all that is left over."""
    left_in_area = read_tree(place.area)
    place.renew_folder(left)
    end = place.run()
    if end.status != SUCCEEDED:
        raise Violation(f"the next run fails: {end.errors}")
    now = read_tree(place.folder)
    if now != place.after | left:
        raise Violation(f"after the next run {differences(now, place.after | left)}")
    if read_tree(place.area) != left_in_area:
        raise Violation("the next run changed or removed what was left in the temporary area, or left something itself")


def try_scenario(scenario: Scenario, options: Options) -> Counter[str]:
    with workplace(scenario) as place:
        if not place.writes:
            return Counter()
        counts = Counter({"scenarios that write": 1})
        for kill in options.sample(scenario, kills_of(*calls_of_run(place))):
            with options.noting(counts):
                outcome = try_kill(place, kill)
                counts["kills"] += 1
                counts[f"of them left the files {outcome}"] += 1
        return counts


if __name__ == "__main__":
    campaign(__doc__, try_scenario, QUICK_CASES / ALL_CASES)
