"""The lines of the table: what is done, beside what, and how the times should relate.

Each line is a function that makes its inputs, runs ours and the reference in turn, checks what they did, and returns
a figure. Whoever adds one adds it to `LINES` as well.
"""

from __future__ import annotations

import filecmp
import json
from collections.abc import Callable
from pathlib import Path

from figures import Figure
from workplace import MIB, Workplace, require

Run = Callable[[], float]

# The light reader's time is that of a few system calls: this much comes and goes by itself.
FLAT = 1.25


def in_turn(place: Workplace, runs: int, ours: Run, theirs: Run) -> tuple[list[float], list[float]]:
    """Ours, theirs, ours, theirs ..., each in an empty scratch folder, so that a change of the machine's mood
    reaches both."""
    times: tuple[list[float], list[float]] = ([], [])
    for _ in range(runs):
        for run, its_times in zip((ours, theirs), times):
            place.clear()
            its_times.append(run())
    place.clear()
    return times


def operation(place: Workplace, name: str, package: Path, expected: dict[str, int], *more: str | Path) -> Run:
    """A run of one of our operations that must have read or written what is expected."""

    def run() -> float:
        outcome = place.operation(name, package, *more)
        for what, count in expected.items():
            require(outcome[what] == count, f"{name} {package}: {outcome[what]} {what}, not {count}")
        return outcome["seconds"]

    return run


def large_package(place: Workplace) -> Path:
    return place.package("large", place.sizes.large)


def open_for_reading(place: Workplace) -> Figure:
    package = large_package(place)
    ours = operation(place, "open", package, {"parts": place.totals(package)["parts"]})
    theirs = lambda: place.seconds_of('cp "$1" "$2"', package, place.scratch / "copy")
    return Figure("open for reading, 1 GiB", "cp", 1.25, *in_turn(place, place.sizes.runs, ours, theirs))


def index(place: Workplace) -> Figure:
    package = large_package(place)
    ours = operation(place, "index", package, {"parts": place.totals(package)["parts"]})
    theirs = operation(place, "memcpy", package, {"bytes": package.stat().st_size})
    return Figure("index 1 GiB of mapped memory", "memcpy", 2.0, *in_turn(place, place.sizes.runs, ours, theirs))


def read_text(place: Workplace) -> Figure:
    package = large_package(place)
    expected = {"bytes": place.totals(package)["text_bytes"]}
    ours = operation(place, "read-text", package, expected)
    theirs = operation(place, "memcpy-text", package, expected)
    return Figure("read every text part of 1 GiB", "memcpy", 2.0, *in_turn(place, place.sizes.runs, ours, theirs))


def base64_lines(package: Path, target: Path) -> None:
    """The lines of the binary parts of a package, as `base64 -d` takes them."""
    with open(package, "rb") as lines, open(target, "wb") as out:
        is_binary = False
        for line in lines:
            if line.startswith(b"__ZKOPC_PA"):
                is_binary = line.endswith(b" BASE64\n")
            elif is_binary:
                out.write(line)


def decode(place: Workplace) -> Figure:
    package = large_package(place)
    lines = place.input(package.stem + ".base64", lambda path: base64_lines(package, path))
    count = place.totals(package)["binary_bytes"]
    ours = operation(place, "decode", package, {"bytes": count})

    def theirs() -> float:
        decoded = place.scratch / "decoded"
        seconds = place.seconds_of('base64 -d "$1" >"$2"', lines, decoded)
        require(decoded.stat().st_size == count, "base64 -d decoded something else")
        return seconds

    return Figure("decode every binary part of 1 GiB", "base64 -d", 1.0, *in_turn(place, place.sizes.runs, ours, theirs))


def encode(place: Workplace) -> Figure:
    source = place.package("bytes", place.sizes.binary)
    package = place.scratch / "encoded.txt"

    def ours() -> float:
        seconds = operation(place, "encode", package, {"bytes": place.sizes.binary}, source)()
        back = place.scratch / "back"
        place.call(place.program("opctext"), "cat", package, "/data.bin", output=back)
        require(filecmp.cmp(source, back, shallow=False), "what was encoded isn't what was given")
        return seconds

    theirs = lambda: place.seconds_of('base64 -w76 "$1" >"$2"; sync "$2"', source, place.scratch / "encoded")
    return Figure(
        "encode a binary part of 256 MiB into a committed file",
        "base64 -w76, sync",
        1.5,
        *in_turn(place, place.sizes.runs, ours, theirs),
    )


def light_third(place: Workplace) -> Figure:
    smallest, *larger = [
        operation(place, "light-third", place.package("series", size), {"parts": 3}) for size in place.sizes.series
    ]
    ours = lambda: max(run() for run in larger)
    return Figure(
        "light reader, nothing wanted after the third part, up to 1 GiB",
        "the same on 1 MiB",
        FLAT,
        *in_turn(place, place.sizes.runs, ours, smallest),
    )


def light_last(place: Workplace) -> Figure:
    package = large_package(place)
    ours = operation(place, "light-last", package, {"parts": 4}, "/word/webSettings.xml")
    theirs = lambda: place.seconds_of('wc -l "$1"', package)
    return Figure("light reader, last part of 1 GiB", "wc -l", 4.0, *in_turn(place, place.sizes.runs, ours, theirs))


def edit(place: Workplace, package: Path) -> Run:
    """Opens a copy of the package, changes one part and commits."""

    def run() -> float:
        copy = place.scratch / "edited.txt"
        # Synced before the clock starts: the operation shall not pay for the copy.
        place.call("sh", "-e", "-c", 'cp "$1" "$2"; sync "$2"', "sh", package, copy)
        return operation(place, "edit", copy, {"parts": place.totals(package)["parts"]})()

    return run


def commit(place: Workplace) -> Figure:
    package = large_package(place)
    theirs = lambda: place.seconds_of(
        'cd "$2"; cp "$1" first; cp first second; cp second third; sync third', package, place.scratch
    )
    return Figure(
        "open, change one part, commit, 1 GiB",
        "three times cp, sync",
        1.25,
        *in_turn(place, place.sizes.slow_runs, edit(place, package), theirs),
    )


def commit_many(place: Workplace) -> Figure:
    package = place.package("many", place.sizes.many)

    def make_archive(path: Path) -> None:
        place.clear()
        place.call(place.program("opctext"), "extract", package, "-C", place.scratch / "parts")
        place.call("tar", "-cf", path, "-C", place.scratch / "parts", ".")

    archive = place.input(package.stem + ".tar", make_archive)
    theirs = lambda: place.seconds_of(
        'cd "$2"; mkdir parts; tar -xf "$1" -C parts; tar -cf new.tar -C parts .; sync new.tar', archive, place.scratch
    )
    return Figure(
        "open, change one part, commit, 100,000 parts",
        "tar x, tar c, sync",
        1.0,
        *in_turn(place, place.sizes.slow_runs, edit(place, package), theirs),
    )


def flat_opc(place: Workplace, name: str, package: Path, runs: int) -> Figure:
    program = place.program("flat_opc")
    totals = place.totals(package)
    xml = place.input(package.stem + ".xml", lambda path: place.call(program, "make", package, path))

    def theirs() -> float:
        outcome = json.loads(place.call(program, "parse", xml))
        counts = (outcome["parts"], outcome["bytes"])
        require(counts == (totals["parts"], totals["binary_bytes"]), f"{xml}: parts and bytes {counts}")
        return outcome["seconds"]

    expected = {"parts": totals["parts"], "bytes": totals["text_bytes"] + totals["binary_bytes"]}
    ours = operation(place, "read-all", package, expected)
    return Figure(f"open and read everything, {name}", "Flat OPC, pugixml", 1 / 3, *in_turn(place, runs, ours, theirs))


def flat_opc_large(place: Workplace) -> Figure:
    return flat_opc(place, "1 GiB", large_package(place), place.sizes.slow_runs)


def flat_opc_office(place: Workplace) -> Figure:
    return flat_opc(place, "office-like, 10 MiB", place.package("office"), place.sizes.runs)


def command(place: Workplace, name: str, reference: str, ours: list[str | Path], theirs: list[str | Path]) -> Figure:
    """Two programs from their start to their end. Milliseconds are hyperfine's trade."""
    times: tuple[list[float], list[float]] = ([], [])
    report = place.scratch / "hyperfine.json"
    for _ in range(place.sizes.runs):
        for program, its_times in zip((ours, theirs), times):
            quoted = " ".join(f"'{word}'" for word in program)
            starts = str(max(place.sizes.starts, 2))
            place.call("hyperfine", "-N", "--warmup", "1", "--runs", starts, "--export-json", report, quoted)
            its_times.append(json.loads(report.read_text(encoding="utf-8"))["results"][0]["median"])
    return Figure(name, reference, 1.5, *times)


def office_files(place: Workplace) -> tuple[Path, Path]:
    """The office-like package as text and as ZIP."""
    package = place.package("office")
    unpack = lambda path: place.call(place.program("opctext"), "unpack", "-f", package, "-o", path)
    return package, place.input("office.zip", unpack)


def list_command(place: Workplace) -> Figure:
    package, archive = office_files(place)
    ours = [place.program("opctext"), "list", package]
    lines = place.call(*ours).count("\n")
    require(lines == place.totals(package)["parts"], f"opctext list printed {lines} lines")
    return command(place, "opctext list, office-like", "unzip -l", ours, ["unzip", "-l", archive])


def cat_command(place: Workplace) -> Figure:
    package, archive = office_files(place)
    ours = [place.program("opctext"), "cat", package, "/docProps/core.xml"]
    theirs = ["unzip", "-p", archive, "docProps/core.xml"]
    require(place.call(*ours) == place.call(*theirs), "opctext cat and unzip -p differ")
    return command(place, "opctext cat of a small part, office-like", "unzip -p", ours, theirs)


def memory(name: str, at_most: int, outcome: dict[str, float]) -> Figure:
    require(outcome["own_memory"] > 0, f"{name}: no memory seen")
    return Figure(name, "", at_most, [outcome["own_memory"] / MIB], [], "MiB")


def memory_of_open(place: Workplace) -> Figure:
    package = place.package("text", place.sizes.huge)
    return memory("own memory: open 4 GiB", 16, place.operation("open", package, watch_memory=True))


def memory_of_commit(place: Workplace) -> Figure:
    package = place.package("text", place.sizes.huge)
    copy = place.scratch / "edited.txt"
    place.call("cp", package, copy)
    figure = memory("own memory: commit 4 GiB of text", 32, place.operation("edit", copy, watch_memory=True))
    place.clear()
    return figure


def memory_of_encode(place: Workplace) -> Figure:
    source = place.package("bytes", place.sizes.huge_binary)
    target = place.scratch / "encoded.txt"
    figure = memory("own memory: encode 1 GiB", 32, place.operation("encode", target, source, watch_memory=True))
    place.clear()
    return figure


LINES: dict[str, Callable[[Workplace], Figure]] = {
    "open": open_for_reading,
    "index": index,
    "read text": read_text,
    "decode": decode,
    "encode": encode,
    "light reader third": light_third,
    "light reader last": light_last,
    "commit": commit,
    "commit many": commit_many,
    "flat opc": flat_opc_large,
    "flat opc office": flat_opc_office,
    "opctext list": list_command,
    "opctext cat": cat_command,
    "memory open": memory_of_open,
    "memory commit": memory_of_commit,
    "memory encode": memory_of_encode,
}
