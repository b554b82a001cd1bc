#!/usr/bin/env python3
"""Damages small packages in every way, byte by byte and line by line, and compares what the two readers make of each
damaged file, and what a commit makes of it, with a model of the format.

The work is done by the program campaign_damage; this script starts it for each sample and adds up the figures."""

import argparse
import pathlib
import shutil
import subprocess
import sys

from tally import folder_in_memory, items_of, run_each

ROOT = pathlib.Path(__file__).resolve().parents[2]
QUICK_CHECKS_ONE_IN = 40
FIGURES = ("damaged files", "of them opened", "contents compared", "commits", "commits refused")


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true", help=f"check one damaged file in {QUICK_CHECKS_ONE_IN}")
    parser.add_argument("--seed", type=int, default=1, help="which of them, with --quick (default: 1)")
    parser.add_argument("--preset", default="dev", help="whose build to take: dev, or asan")
    return parser.parse_args()


def check_sample(program: pathlib.Path, folder: pathlib.Path, sample: str, choice: list[str]) -> list[int]:
    """Damages one sample; ends the campaign where something is wrong."""
    own = folder / sample
    own.mkdir()
    result = subprocess.run([program, own, sample, *choice], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        how = f"killed by signal {-result.returncode}" if result.returncode < 0 else f"status {result.returncode}"
        raise RuntimeError(f"sample {sample}: {how}\n{result.stdout}{result.stderr}"
                           f"damage: the damaged file is {own}/package.txt; to repeat:\n"
                           f"  {program} $(mktemp -d) {' '.join([sample, *choice])}")
    shutil.rmtree(own)
    return [int(figure) for figure in result.stdout.split()]


def main() -> int:
    arguments = parse_arguments()
    program = ROOT / "build" / arguments.preset / "tests/campaigns/campaign_damage"
    samples = items_of(program, "--samples")
    choice = [str(QUICK_CHECKS_ONE_IN), str(arguments.seed)] if arguments.quick else []
    if arguments.quick:
        print(f"damage: one damaged file in {QUICK_CHECKS_ONE_IN}, seed {arguments.seed}")
    print(f"damage: {len(samples)} samples")
    folder = folder_in_memory("damage-")
    status = run_each("damage", samples, lambda sample: check_sample(program, folder, sample, choice), FIGURES)
    if status == 0:  # else the damaged file is in it
        shutil.rmtree(folder)
    return status


if __name__ == "__main__":
    sys.exit(main())
