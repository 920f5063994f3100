"""The table that a run of the benchmarks prints."""

from __future__ import annotations

from typing import NamedTuple


class Row(NamedTuple):
    """One line: what was measured, what it is compared with, and the verdict."""

    what: str
    measured: str
    compared: str
    ratio: str
    target: str
    verdict: str


HEAD = Row("what", "measured", "compared with", "ratio", "target", "")


class Table:
    """Rows and the notes below them."""

    def __init__(self) -> None:
        self._rows: list[Row] = []
        self._notes: list[str] = []

    def ratio(self, what: str, measured: float, compared: float, with_what: str, target: float | None = None) -> None:
        """Add a duration in seconds beside another one; the target is an upper bound of the ratio."""
        ratio = measured / compared
        verdict = "" if target is None else _verdict(ratio <= target)
        bound = "" if target is None else f"<= {target:.2f}"
        compared_text = f"{with_what} {duration(compared)}"
        self._rows.append(Row(what, duration(measured), compared_text, f"{ratio:.3f}", bound, verdict))

    def amount(self, what: str, measured: float, unit: str, compared: str = "", target: float | None = None) -> None:
        """Add an amount; the target is an upper bound of the amount itself."""
        verdict = "" if target is None else _verdict(measured <= target)
        bound = "" if target is None else f"<= {target:g} {unit}".rstrip()
        self._rows.append(Row(what, f"{measured:g} {unit}", compared, "", bound, verdict))

    def note(self, text: str) -> None:
        """Add a line below the table."""
        self._notes.append(text)

    def text(self) -> str:
        """The whole table, in columns."""
        rows = [HEAD, *self._rows]
        widths = [max(len(cell) for cell in column) for column in zip(*rows)]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows]
        lines.insert(1, "-" * (sum(widths) + 2 * (len(widths) - 1)))
        return "\n".join([*lines, "", *self._notes])


def duration(seconds: float) -> str:
    """A duration as people read it."""
    return f"{seconds * 1e3:.2f} ms" if seconds >= 1e-3 else f"{seconds * 1e6:.1f} us"


def _verdict(met: bool) -> str:
    return "met" if met else "MISSED"
