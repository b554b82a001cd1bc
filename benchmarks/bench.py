#!/usr/bin/env python3
"""Measures how far each operation is from what the hardware allows and from what people would use instead.

Prints a table and leaves the figures (figures.json) and a plot (performance.svg) in the folder of the results. With
--publish the table and the plot go to docs/ as well. Lines that are left out by --only keep the figures of the last
time. ./run bench builds the programs that this needs, and starts it.
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import shutil
import sys
from pathlib import Path

from figures import Figure, Piece, for_markdown, for_terminal, operation_rows, piece_rows
from lines import LINES
from plot import draw
from workbench import FULL, GIB, QUICK, BenchFailure, Workbench, require

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "bench"
PIECES = "pieces"


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="tiny inputs, once each: whether everything still works")
    parser.add_argument("--only", metavar="TEXT", action="append", help="lines whose name holds it; may be repeated")
    parser.add_argument("--folder", type=Path, default=BUILD / "measuring", help="where to work; needs 20 GiB")
    parser.add_argument("--publish", action="store_true", help="put the table and the plot into docs/")
    parser.add_argument("--list", action="store_true", help="print the names of the lines")
    return parser.parse_args()


def chosen(names: list[str], only: list[str] | None) -> list[str]:
    result = [name for name in names if not only or any(text in name for text in only)]
    require(bool(result), "there is no such line: see --list")
    return result


def measure_pieces(bench: Workbench, is_quick: bool) -> list[Piece]:
    """What Google Benchmark says of the pieces: PIECE/textpackage beside PIECE/<reference>."""
    report = bench.scratch / "pieces.json"
    how = ["--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true"]
    if is_quick:
        how = ["--benchmark_min_time=0.001"]
    bench.call(bench.program("bench_pieces"), f"--benchmark_out={report}", "--benchmark_out_format=json", *how)
    speeds: dict[str, dict[str, list[float]]] = {}
    runs = json.loads(report.read_text(encoding="utf-8"))["benchmarks"]
    for run in sorted(runs, key=lambda run: run["family_index"]):
        require(not run.get("error_occurred"), f"{run['name']}: {run.get('error_message')}")
        if run["run_type"] == "iteration":
            piece, who = run["run_name"].split("/", 1)
            speeds.setdefault(piece, {}).setdefault(who, []).append(run["bytes_per_second"])
    pieces = []
    for name, whose in speeds.items():
        (reference,) = set(whose) - {"textpackage"}
        pieces.append(Piece(name, reference, whose["textpackage"], whose[reference]))
    require(bool(pieces), "bench_pieces measured nothing")
    return pieces


def machine() -> str:
    model = next(
        (line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo", encoding="utf-8") if "model name" in line),
        platform.machine(),
    )
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / GIB
    return f"{model}, {os.cpu_count()} cores, {memory:.0f} GiB of memory, Linux {platform.release()}"


class Results:
    """The figures of this time and, of lines that were left out, of the last."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self.folder = folder
        self.file = folder / "figures.json"
        raw = json.loads(self.file.read_text(encoding="utf-8")) if self.file.exists() else {}
        self.figures = {name: Figure(**figure) for name, figure in raw.get("operations", {}).items() if name in LINES}
        self.pieces = [Piece(**piece) for piece in raw.get("pieces", [])]

    def in_order(self) -> list[Figure]:
        return [self.figures[name] for name in LINES if name in self.figures]

    def save(self) -> None:
        raw = {
            "machine": machine(),
            "operations": {name: figure.to_json() for name, figure in self.figures.items()},
            "pieces": [piece.to_json() for piece in self.pieces],
        }
        self.file.write_text(json.dumps(raw, indent=1) + "\n", encoding="utf-8")
        if self.figures:
            (self.folder / "performance.svg").write_text(draw(self.in_order()), encoding="utf-8")

    def publish(self) -> None:
        page = ROOT / "docs" / "performance.md"
        text = page.read_text(encoding="utf-8")
        text = replaced(text, "operations", for_markdown(operation_rows(self.in_order())))
        text = replaced(text, "pieces", for_markdown(piece_rows(self.pieces)))
        text = replaced(text, "machine", machine())
        page.write_text(text, encoding="utf-8")
        shutil.copyfile(self.folder / "performance.svg", page.with_suffix(".svg"))


def replaced(page: str, what: str, content: str) -> str:
    """The page with something new between the two comments that are called so."""
    begin, end = f"<!-- {what}: written by ./run bench --publish -->\n", f"\n<!-- {what}: end -->"
    require(page.count(begin) == 1 and page.count(end) == 1, f"docs/performance.md: no place for {what}")
    before, rest = page.split(begin)
    return before + begin + content + end + rest.split(end)[1]


def main() -> int:
    options = arguments()
    if options.list:
        print("\n".join([*LINES, PIECES]))
        return 0
    require(not (options.quick and options.publish), "the figures of --quick mean nothing: don't publish them")
    kind = "quick" if options.quick else "full"
    bench = Workbench(BUILD, options.folder.resolve() / kind, QUICK if options.quick else FULL)
    results = Results(BUILD / "results" / kind)
    names = chosen([*LINES, PIECES], options.only)
    for name in names:
        print(f"bench: {name}", file=sys.stderr, flush=True)
        if name == PIECES:
            results.pieces = measure_pieces(bench, options.quick)
        else:
            results.figures[name] = LINES[name](bench)
        results.save()
    shutil.rmtree(bench.scratch)
    shutil.rmtree(bench.temporary)

    if options.quick:
        print(f"{len(names)} lines work; figures of inputs as small as these would mean nothing")
        return 0
    if results.figures:
        print(for_terminal(operation_rows(results.in_order())), end="\n\n")
    if results.pieces:
        print(for_terminal(piece_rows(results.pieces)), end="\n\n")
    print(f"On {machine()}. Ratios of times, ours to the reference's; the spread is that of the runs.")
    print(f"Figures and plot: {results.folder}")
    if options.publish:
        results.publish()
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BenchFailure as failure:
        print(f"bench: {failure}", file=sys.stderr)
        sys.exit(1)
