#!/usr/bin/env python3
"""Gives the library inputs that nobody thought of: the fuzz targets in fuzz/, each with its corpus.

In full: each target runs under libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer for a while, from its corpus.
Then inputs of 1 MiB in shapes made to take long (hostileInputs.py) go through the targets and through opctext without
sanitizers: none may take over a second of processor time or over 512 MiB. Quick: the same targets, without clang and
sanitizers, run over their corpus and random changes of it.

usage: fuzzing.py [--quick] [--seconds N] [--seed N] [--keep] [TARGET...]

  --seconds  for each target (60; quick: 2)
  --seed     of the random choices (1)
  --keep     adds what was found to the corpus, as little of it as covers the same edges
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from hostileInputs import MORE_SECONDS, hostile_bytes, hostile_texts, hostile_zips

ROOT = Path(__file__).resolve().parents[2]
CORPUS = ROOT / "fuzz" / "corpus"
PLAIN = ROOT / "build" / "dev"
FUZZER = ROOT / "build" / "fuzz" / "fuzz"
FINDINGS = ROOT / "build" / "fuzz-findings"
MOST_SECONDS = 1.0
MOST_MEBIBYTES = 512
MOST_EXIT_STATUS = 6  # of opctext; all that it does on purpose
LONGEST_KEPT = 2048  # bytes
INPUT = "INPUT"
CHANGE_AND_COMMIT = b"%%\n=changed\n*\n"  # commands of the target of the operations


class Violation(Exception):
    """Something that must not happen; the text says what, where, and how to repeat it."""


def environment(temporary: str) -> dict[str, str]:
    # A large quarantine of freed memory would count against the limit.
    return {**os.environ, "TMPDIR": temporary, "ASAN_OPTIONS": "quarantine_size_mb=16"}


def essence(text: str) -> str:
    """What a program said before it died: the reason, then where that was."""
    lines = text.strip().splitlines()
    reasons = [line for line in lines[:-30] if re.search("violated|ERROR|runtime error", line)]
    return "\n".join(reasons + lines[-30:])


# Random inputs

def change_randomly(target: str, seconds: float, seed: int, temporary: str) -> str:
    """Runs a target over its corpus and random changes of it; returns what it did."""
    reproducer = FINDINGS / f"{target}-{seed}"
    command = [PLAIN / "fuzz" / f"fuzz_{target}", "--mutate", str(seconds), "--seed", str(seed), "--reproducer",
               reproducer, CORPUS / target]
    done = subprocess.run(command, env=environment(temporary), capture_output=True, text=True, errors="replace")
    if done.returncode != 0:
        raise Violation(f"{essence(done.stderr)}\nrepeat: {command[0]} {reproducer}")
    return ", ".join(done.stdout.splitlines())


def fuzz(target: str, seconds: float, seed: int, keep: bool, temporary: str) -> str:
    """Runs a target under libFuzzer; returns what it did."""
    program = FUZZER / f"fuzz_{target}"
    with tempfile.TemporaryDirectory(dir=temporary) as found:
        # Ten times the promised second: sanitizers are slow, and the clock of a busy machine runs on.
        command = [program, found, CORPUS / target, f"-max_total_time={int(seconds)}", f"-seed={seed}", "-timeout=10",
                   f"-rss_limit_mb={2 * MOST_MEBIBYTES}", "-max_len=1048576", "-print_final_stats=1",
                   f"-artifact_prefix={FINDINGS}/{target}-"]
        done = subprocess.run(command, env=environment(temporary), capture_output=True, text=True, errors="replace")
        if done.returncode != 0:
            kept = re.findall(r"Test unit written to (\S+)", done.stderr)
            raise Violation(f"{essence(done.stderr)}\nrepeat: {program} {' '.join(kept)}")
        if keep:
            subprocess.run([program, "-merge=1", "-use_counters=0", f"-max_len={LONGEST_KEPT}", CORPUS / target, found],
                           env=environment(temporary), stderr=subprocess.DEVNULL, check=True)
    executions = re.findall(r"number_of_executed_units: (\d+)", done.stderr)[-1]
    new = re.findall(r"new_units_added: +(\d+)", done.stderr)[-1]
    coverage = re.findall(r"cov: (\d+) ft: (\d+)", done.stderr)[-1]
    return f"{executions} inputs, {coverage[0]} edges and {coverage[1]} features covered, {new} new inputs"


# Hostile inputs

def measure(command: list, temporary: str) -> tuple[float, float, int]:
    """Runs a program; returns its seconds of processor time, its MiB of memory and its exit status."""
    with open(os.devnull, "wb") as nowhere:
        process = subprocess.Popen(command, env=environment(temporary), stdout=nowhere, stderr=nowhere)
        _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, process.returncode


def measure_on_hostile_input(commands: dict[str, list], name: str, data: bytes, temporary: str) -> list[tuple]:
    """Measures each command, in which INPUT stands for the path, on one input."""
    path = Path(temporary) / f"hostile-{name}"
    path.write_bytes(data)
    most_seconds = MORE_SECONDS.get(name, MOST_SECONDS)
    results = []
    for program, words in commands.items():
        command = [path if word == INPUT else word for word in words]
        seconds, mebibytes, status = measure(command, temporary)
        for _ in range(3):  # again: it may have been the machine
            if seconds > most_seconds:
                seconds = min(seconds, measure(command, temporary)[0])
        results.append((program, name, seconds, mebibytes))
        if seconds > most_seconds or mebibytes > MOST_MEBIBYTES or status not in range(MOST_EXIT_STATUS + 1):
            FINDINGS.joinpath(path.name).write_bytes(data)
            raise Violation(f"{program} on {name}: {seconds:.2f} s, {mebibytes:.0f} MiB, exit status {status}\n"
                            f"repeat: {' '.join(map(str, words))} with {FINDINGS / path.name}")
    path.unlink()
    return results


def run_hostile_inputs(targets: list[str], temporary: str) -> None:
    def drivers(*names: str) -> dict[str, list]:
        return {name: [PLAIN / "fuzz" / f"fuzz_{name}", INPUT] for name in names if name in targets}

    def opctext(*commands: str) -> dict[str, list]:
        return {f"opctext {command}": [PLAIN / "opctext" / "opctext", *command.split()] for command in commands}

    of_text = opctext("list INPUT", "info INPUT", "check INPUT", "cat INPUT /last.txt", "cat --light INPUT /last.txt",
                      "unpack -o - INPUT")
    results = []
    for name, data in hostile_texts():
        results += measure_on_hostile_input({**drivers("scanner", "lightReader", "openAndRead"), **of_text}, name, data,
                                            temporary)
    for name, data in hostile_texts():
        results += measure_on_hostile_input(drivers("operations"), name, data + CHANGE_AND_COMMIT, temporary)
    for name, data in hostile_zips():
        results += measure_on_hostile_input(opctext("pack -o - INPUT"), name, data, temporary)
        results += measure_on_hostile_input(drivers("zipImport"), name, b"\2" + data, temporary)
    for name, data in hostile_bytes():
        results += measure_on_hostile_input(drivers("base64", "strings", "writeAndRead"), name, data, temporary)
    usual = [result for result in results if result[1] not in MORE_SECONDS]
    print(f"hostile inputs: {len(results)} runs, {len(usual)} of them within {MOST_SECONDS:.0f} s and "
          f"{MOST_MEBIBYTES} MiB, the others within what is allowed them")
    for kind, group in (("usual", usual), ("others", [result for result in results if result not in usual])):
        slowest = max(group, key=lambda result: result[2])
        largest = max(group, key=lambda result: result[3])
        print(f"  {kind}: longest {slowest[2]:.2f} s, {slowest[0]} on {slowest[1]}; "
              f"largest {largest[3]:.0f} MiB, {largest[0]} on {largest[1]}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--seconds", type=float)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("targets", nargs="*", default=sorted(path.name for path in CORPUS.iterdir()), metavar="TARGET")
    options = parser.parse_args()
    FINDINGS.mkdir(parents=True, exist_ok=True)
    print(f"seed {options.seed}")

    # Each target makes many small files: in memory that costs little.
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory) as temporary:
        def run(target: str) -> bool:
            try:
                if options.quick:
                    result = change_randomly(target, options.seconds or 2, options.seed, temporary)
                else:
                    result = fuzz(target, options.seconds or 60, options.seed, options.keep, temporary)
                print(f"{target}: {result}", flush=True)
                return True
            except Violation as violation:
                print(f"violated: {target}: {violation}", file=sys.stderr, flush=True)
                return False

        with ThreadPoolExecutor(os.cpu_count()) as executor:
            if not all(list(executor.map(run, options.targets))):
                return 1
        try:
            if not options.quick:
                run_hostile_inputs(options.targets, temporary)
        except Violation as violation:
            print(f"violated: {violation}", file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
