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
from workbench import MIB, Workbench, require

Run = Callable[[], float]

# The light reader's time is that of a few system calls: this much comes and goes by itself.
FLAT = 1.25


def in_turn(bench: Workbench, runs: int, ours: Run, theirs: Run) -> tuple[list[float], list[float]]:
    """Ours, theirs, ours, theirs ..., each in an empty scratch folder, so that a change of the machine's mood
    reaches both."""
    times: tuple[list[float], list[float]] = ([], [])
    for _ in range(runs):
        for run, its_times in zip((ours, theirs), times):
            bench.clear()
            its_times.append(run())
    bench.clear()
    return times


def operation(bench: Workbench, name: str, package: Path, expected: dict[str, int], *more: str | Path) -> Run:
    """A run of one of our operations that must have read or written what is expected."""

    def run() -> float:
        outcome = bench.operation(name, package, *more)
        for what, count in expected.items():
            require(outcome[what] == count, f"{name} {package}: {outcome[what]} {what}, not {count}")
        return outcome["seconds"]

    return run


def script(bench: Workbench, text: str, *arguments: str | Path) -> Run:
    """A run of a shell script, which the arguments reach as $1, $2 ..."""
    return lambda: bench.seconds_of(text, *arguments)


def large_package(bench: Workbench) -> Path:
    return bench.package("large", bench.sizes.large)


def open_for_reading(bench: Workbench) -> Figure:
    package = large_package(bench)
    ours = operation(bench, "open", package, {"parts": bench.totals(package)["parts"]})
    theirs = script(bench, 'cp "$1" "$2"', package, bench.scratch / "copy")
    return Figure("open for reading, 1 GiB", "cp", 1.25, *in_turn(bench, bench.sizes.runs, ours, theirs))


def index(bench: Workbench) -> Figure:
    package = large_package(bench)
    ours = operation(bench, "index", package, {"parts": bench.totals(package)["parts"]})
    theirs = operation(bench, "memcpy", package, {"bytes": package.stat().st_size})
    return Figure("index 1 GiB of mapped memory", "memcpy", 2.0, *in_turn(bench, bench.sizes.runs, ours, theirs))


def read_text(bench: Workbench) -> Figure:
    package = large_package(bench)
    expected = {"bytes": bench.totals(package)["text_bytes"]}
    ours = operation(bench, "read-text", package, expected)
    theirs = operation(bench, "memcpy-text", package, expected)
    return Figure("read every text part, 1 GiB", "memcpy", 2.0, *in_turn(bench, bench.sizes.runs, ours, theirs))


def base64_lines(package: Path, target: Path) -> None:
    """The lines of the binary parts of a package, as `base64 -d` takes them."""
    with open(package, "rb") as lines, open(target, "wb") as out:
        is_binary = False
        for line in lines:
            if line.startswith(b"__ZKOPC_PA"):
                is_binary = line.endswith(b" BASE64\n")
            elif is_binary:
                out.write(line)


def decode(bench: Workbench) -> Figure:
    package = large_package(bench)
    lines = bench.input(package.stem + ".base64", lambda path: base64_lines(package, path))
    count = bench.totals(package)["binary_bytes"]
    ours = operation(bench, "decode", package, {"bytes": count})

    def theirs() -> float:
        decoded = bench.scratch / "decoded"
        seconds = bench.seconds_of('base64 -d "$1" >"$2"', lines, decoded)
        require(decoded.stat().st_size == count, "base64 -d decoded something else")
        return seconds

    return Figure("decode every binary part, 1 GiB", "base64 -d", 1.0, *in_turn(bench, bench.sizes.runs, ours, theirs))


def encode(bench: Workbench) -> Figure:
    source = bench.package("bytes", bench.sizes.binary)
    package = bench.scratch / "encoded.txt"

    def ours() -> float:
        seconds = operation(bench, "encode", package, {"bytes": bench.sizes.binary}, source)()
        back = bench.scratch / "back"
        bench.call(bench.program("opctext"), "cat", package, "/data.bin", output=back)
        require(filecmp.cmp(source, back, shallow=False), "what was encoded isn't what was given")
        return seconds

    theirs = script(bench, 'base64 -w76 "$1" >"$2"; sync "$2"', source, bench.scratch / "encoded")
    return Figure(
        "encode a binary part of 256 MiB into a committed file",
        "base64 -w76, sync",
        1.5,
        *in_turn(bench, bench.sizes.runs, ours, theirs),
    )


def light_third(bench: Workbench) -> Figure:
    smallest, *larger = [
        operation(bench, "light-third", bench.package("series", size), {"parts": 3}) for size in bench.sizes.series
    ]
    return Figure(
        "light reader, nothing wanted after the third part, up to 1 GiB",
        "the same on 1 MiB",
        FLAT,
        *in_turn(bench, bench.sizes.runs, lambda: max(run() for run in larger), smallest),
    )


def light_last(bench: Workbench) -> Figure:
    package = large_package(bench)
    ours = operation(bench, "light-last", package, {"parts": 4}, "/word/webSettings.xml")
    theirs = script(bench, 'wc -l "$1"', package)
    return Figure("light reader, last part of 1 GiB", "wc -l", 4.0, *in_turn(bench, bench.sizes.runs, ours, theirs))


def edit(bench: Workbench, package: Path) -> Run:
    """Opens a copy of the package, changes one part and commits."""

    def run() -> float:
        copy = bench.scratch / "edited.txt"
        # Synced before the clock starts: the operation shall not pay for the copy.
        bench.call("sh", "-e", "-c", 'cp "$1" "$2"; sync "$2"', "sh", package, copy)
        return operation(bench, "edit", copy, {"parts": bench.totals(package)["parts"]})()

    return run


def commit(bench: Workbench) -> Figure:
    package = large_package(bench)
    theirs = script(
        bench, 'cd "$2"; cp "$1" first; cp first second; cp second third; sync third', package, bench.scratch
    )
    return Figure(
        "open, change one part, commit, 1 GiB",
        "three times cp, sync",
        1.25,
        *in_turn(bench, bench.sizes.slow_runs, edit(bench, package), theirs),
    )


def commit_many(bench: Workbench) -> Figure:
    package = bench.package("many", bench.sizes.many)

    def make_archive(path: Path) -> None:
        bench.clear()
        bench.call(bench.program("opctext"), "extract", package, "-C", bench.scratch / "parts")
        bench.call("tar", "-cf", path, "-C", bench.scratch / "parts", ".")

    archive = bench.input(package.stem + ".tar", make_archive)
    theirs = script(
        bench,
        'cd "$2"; mkdir parts; tar -xf "$1" -C parts; tar -cf new.tar -C parts .; sync new.tar',
        archive,
        bench.scratch,
    )
    return Figure(
        "open, change one part, commit, 100,000 parts",
        "tar x, tar c, sync",
        1.0,
        *in_turn(bench, bench.sizes.slow_runs, edit(bench, package), theirs),
    )


def flat_opc(bench: Workbench, name: str, package: Path, runs: int) -> Figure:
    program = bench.program("flat_opc")
    totals = bench.totals(package)
    xml = bench.input(package.stem + ".xml", lambda path: bench.call(program, "make", package, path))

    def theirs() -> float:
        outcome = json.loads(bench.call(program, "parse", xml))
        counts = (outcome["parts"], outcome["bytes"])
        require(counts == (totals["parts"], totals["binary_bytes"]), f"{xml}: parts and bytes {counts}")
        return outcome["seconds"]

    expected = {"parts": totals["parts"], "bytes": totals["text_bytes"] + totals["binary_bytes"]}
    ours = operation(bench, "read-all", package, expected)
    return Figure(f"open and read everything, {name}", "Flat OPC, pugixml", 1 / 3, *in_turn(bench, runs, ours, theirs))


def flat_opc_large(bench: Workbench) -> Figure:
    return flat_opc(bench, "1 GiB", large_package(bench), bench.sizes.slow_runs)


def flat_opc_office(bench: Workbench) -> Figure:
    return flat_opc(bench, "office-like, 10 MiB", bench.package("office"), bench.sizes.runs)


def command(bench: Workbench, name: str, reference: str, ours: list[str | Path], theirs: list[str | Path]) -> Figure:
    """Two programs from their start to their end. Milliseconds are hyperfine's trade."""
    times: tuple[list[float], list[float]] = ([], [])
    report = bench.scratch / "hyperfine.json"
    for _ in range(bench.sizes.runs):
        for program, its_times in zip((ours, theirs), times):
            quoted = " ".join(f"'{word}'" for word in program)
            starts = str(max(bench.sizes.starts, 2))
            bench.call("hyperfine", "-N", "--warmup", "1", "--runs", starts, "--export-json", report, quoted)
            its_times.append(json.loads(report.read_text(encoding="utf-8"))["results"][0]["median"])
    return Figure(name, reference, 1.5, *times)


def office_files(bench: Workbench) -> tuple[Path, Path]:
    """The office-like package as text and as ZIP."""
    package = bench.package("office")
    archive = bench.input(
        "office.zip", lambda path: bench.call(bench.program("opctext"), "unpack", "-f", package, "-o", path)
    )
    return package, archive


def list_command(bench: Workbench) -> Figure:
    package, archive = office_files(bench)
    ours = [bench.program("opctext"), "list", package]
    lines = bench.call(*ours).count("\n")
    require(lines == bench.totals(package)["parts"], f"opctext list printed {lines} lines")
    return command(bench, "opctext list, office-like", "unzip -l", ours, ["unzip", "-l", archive])


def cat_command(bench: Workbench) -> Figure:
    package, archive = office_files(bench)
    ours = [bench.program("opctext"), "cat", package, "/docProps/core.xml"]
    theirs = ["unzip", "-p", archive, "docProps/core.xml"]
    require(bench.call(*ours) == bench.call(*theirs), "opctext cat and unzip -p differ")
    return command(bench, "opctext cat of a small part, office-like", "unzip -p", ours, theirs)


def memory(name: str, at_most: int, outcome: dict[str, float]) -> Figure:
    require(outcome["own_memory"] > 0, f"{name}: no memory seen")
    return Figure(name, "", at_most, [outcome["own_memory"] / MIB], [], "MiB")


def memory_of_open(bench: Workbench) -> Figure:
    package = bench.package("text", bench.sizes.huge)
    return memory("own memory: open 4 GiB", 16, bench.operation("open", package, watch_memory=True))


def memory_of_commit(bench: Workbench) -> Figure:
    package = bench.package("text", bench.sizes.huge)
    copy = bench.scratch / "edited.txt"
    bench.call("cp", package, copy)
    figure = memory("own memory: commit 4 GiB of text", 32, bench.operation("edit", copy, watch_memory=True))
    bench.clear()
    return figure


def memory_of_encode(bench: Workbench) -> Figure:
    source = bench.package("bytes", bench.sizes.huge_binary)
    target = bench.scratch / "encoded.txt"
    figure = memory("own memory: encode 1 GiB", 32, bench.operation("encode", target, source, watch_memory=True))
    bench.clear()
    return figure


LINES: dict[str, Callable[[Workbench], Figure]] = {
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
