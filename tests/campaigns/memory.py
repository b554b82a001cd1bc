#!/usr/bin/env python3
"""Makes each allocation of each scenario fail, once and from then on: no crash, no leak, files old or new, success
reported only where it happened, and everything usable afterwards.

The work is done by the program campaign_memory; this script starts it for each scenario and adds up the figures."""

import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile

from tally import folder_in_memory, items_of, run_each

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "build/dev/tests/campaigns/campaign_memory"
QUICK_TRIES_ONE_IN = 200
FIGURES = ("allocations of undisturbed runs", "runs with failing allocations",
           "of them left temporary files, where all later allocations failed", "of them left a mapped file open",
           "of them ended by the JSON or the C++ library")


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true", help=f"try one allocation in {QUICK_TRIES_ONE_IN}")
    parser.add_argument("--seed", type=int, default=1, help="which of them, with --quick (default: 1)")
    return parser.parse_args()


def try_scenario(folder: pathlib.Path, other: pathlib.Path, scenario: str, choice: list[str]) -> list[int]:
    """Goes through the allocations of one scenario; ends the campaign where something is wrong."""
    own = [folder / scenario, other / scenario]
    for path in own:
        path.mkdir()
    result = subprocess.run([PROGRAM, *own, scenario, *choice], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise RuntimeError(f"{result.stdout}{result.stderr}memory: to repeat: "
                           f"{PROGRAM} $(mktemp -d) $(mktemp -d) {scenario} --at ALLOCATION once|from")
    return [int(figure) for figure in result.stdout.split()]


def main() -> int:
    arguments = parse_arguments()
    scenarios = items_of(PROGRAM, "--scenarios")
    choice = [str(QUICK_TRIES_ONE_IN), str(arguments.seed)] if arguments.quick else []
    if arguments.quick:
        print(f"memory: one allocation in {QUICK_TRIES_ONE_IN}, seed {arguments.seed}")
    print(f"memory: {len(scenarios)} scenarios")
    folder = folder_in_memory("memory-")
    other = pathlib.Path(tempfile.mkdtemp(prefix="memory-"))  # on another file system, if the first is in memory
    try:
        return run_each("memory", scenarios, lambda scenario: try_scenario(folder, other, scenario, choice), FIGURES)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
        shutil.rmtree(other, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
