"""What was measured, and how it is shown: as a table for a terminal, for Markdown and as JSON."""

from __future__ import annotations

from dataclasses import asdict, dataclass
from statistics import median


@dataclass(frozen=True)
class Figure:
    """One line of the table: our runs and, run by run, those of the reference beside them."""

    name: str
    reference: str  # what we are compared with; empty: with nothing but the limit
    at_most: float  # of the ratio, or of our own value where there is no reference
    ours: list[float]
    theirs: list[float]
    unit: str = "s"

    @property
    def our_value(self) -> float:
        return median(self.ours)

    @property
    def their_value(self) -> float | None:
        return median(self.theirs) if self.theirs else None

    @property
    def ratio(self) -> float | None:
        return self.our_value / median(self.theirs) if self.theirs else None

    @property
    def spread(self) -> tuple[float, float] | None:
        """The least and the greatest ratio of two runs that stood side by side."""
        ratios = [ours / theirs for ours, theirs in zip(self.ours, self.theirs)]
        return (min(ratios), max(ratios)) if ratios else None

    @property
    def part_of_limit(self) -> float:
        """At most 1 where the line is met."""
        return (self.our_value if self.ratio is None else self.ratio) / self.at_most

    @property
    def is_met(self) -> bool:
        return self.part_of_limit <= 1

    def to_json(self) -> dict:
        return asdict(self)


def show_value(value: float | None, unit: str) -> str:
    if value is None:
        return "–"
    if unit == "s" and value < 0.1:
        return f"{value * 1000:.2f} ms"
    return f"{value:.2f} {unit}" if value < 10 else f"{value:.1f} {unit}"


def show_ratio(figure: Figure) -> str:
    return "–" if figure.ratio is None else f"{figure.ratio:.2f}"


def show_spread(figure: Figure) -> str:
    return "–" if figure.spread is None else "{:.2f} to {:.2f}".format(*figure.spread)


def show_limit(figure: Figure) -> str:
    return f"{figure.at_most:.2f}" if figure.reference else show_value(figure.at_most, figure.unit)


def operation_rows(figures: list[Figure]) -> list[list[str]]:
    rows = [["Operation", "Ours", "Reference", "Its time", "Ratio", "Spread", "At most", "Met"]]
    for figure in figures:
        rows.append(
            [
                figure.name,
                show_value(figure.our_value, figure.unit),
                figure.reference or "–",
                show_value(figure.their_value, figure.unit),
                show_ratio(figure),
                show_spread(figure),
                show_limit(figure),
                "yes" if figure.is_met else "NO",
            ]
        )
    return rows


@dataclass(frozen=True)
class Piece:
    """A piece of the library beside its reference, in bytes a second of each run."""

    name: str
    reference: str
    ours: list[float]
    theirs: list[float]

    @property
    def ratio(self) -> float:
        """Of the times."""
        return median(self.theirs) / median(self.ours)

    def to_json(self) -> dict:
        return asdict(self)


def piece_rows(pieces: list[Piece]) -> list[list[str]]:
    rows = [["Piece", "Ours", "Reference", "Its speed", "Ratio of times"]]
    for piece in pieces:
        speeds = [f"{median(runs) / 1e9:.2f} GB/s" for runs in (piece.ours, piece.theirs)]
        rows.append([piece.name, speeds[0], piece.reference, speeds[1], f"{piece.ratio:.2f}"])
    return rows


def for_terminal(rows: list[list[str]]) -> str:
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows)


def for_markdown(rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join([lines[0], "|" + " --- |" * len(rows[0]), *lines[1:]])
