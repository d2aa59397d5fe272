"""Interleaved sampling, and tables of what came out."""

import statistics
import sys


class Failed(Exception):
    """A contender could not be started or gave a wrong result; the text says why."""


class Row:
    """One contender's line in a table: its name, what takes a sample, and the samples taken.

    `sample()` gives a list of numbers. `needed` tells that a failure is a failure of the whole run and not just of a
    peer that is then left out.
    """

    def __init__(self, name, sample, needed=False):
        self.name = name
        self.sample = sample
        self.needed = needed
        self.values = []
        self.error = None

    def median(self):
        return statistics.median(self.values)

    def spread(self):
        """The middle half of the samples; all of them where there are few."""
        if len(self.values) < 8:
            return min(self.values), max(self.values)
        low, _, high = statistics.quantiles(self.values, n=4)
        return low, high


def interleave(rows, rounds):
    """Takes one sample of each row a round, so that what disturbs the machine for a while disturbs all of them.

    A first sample of each is thrown away, unless there is to be but one. A row that fails drops out.
    """
    warm_up = 1 if rounds > 1 else 0
    for turn in range(rounds + warm_up):
        for row in rows:
            if row.error:
                continue
            try:
                values = row.sample()
            except Failed as failure:
                row.error = str(failure)
                print(f"{row.name}: {failure}", file=sys.stderr)
                continue
            if turn >= warm_up:
                row.values += values


def table(head, lines):
    """A Markdown table; the first column is text, the others are numbers or text set to the right."""
    widths = [max(len(str(line[i])) for line in [head] + lines) for i in range(len(head))]
    def cells(line):
        first = str(line[0]).ljust(widths[0])
        rest = [str(cell).rjust(width) for cell, width in zip(line[1:], widths[1:])]
        return "| " + " | ".join([first] + rest) + " |"
    rule = "|" + "|".join(["-" * (widths[0] + 2)] + ["-" * (width + 1) + ":" for width in widths[1:]]) + "|"
    return "\n".join([cells(head), rule] + [cells(line) for line in lines])


def number(value):
    """Three significant digits, and no exponent."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}" if abs(value) >= 1 else f"{value:.3f}"


class Report:
    """Collects the sections of a run. `failures` holds what went wrong with a contender that had to run."""

    def __init__(self):
        self.failures = []

    def section(self, title, text, rows, unit, columns=()):
        """Prints one table. Each of `columns` is a heading and a function from a row to a number or None."""
        lines = []
        for row in rows:
            if row.error or not row.values:
                if row.needed:
                    self.failures.append(f"{title}: {row.name}: {row.error}")
                continue
            low, high = row.spread()
            extra = [column(row) for _, column in columns]
            lines.append([row.name, number(row.median()), f"{number(low)} - {number(high)}"]
                         + ["" if value is None else number(value) for value in extra])
        print(f"\n### {title}\n\n{text}\n")
        print(table(["", f"median, {unit}", "spread"] + [heading for heading, _ in columns], lines))
        self.say_left_out(rows)

    def plain(self, title, text, head, lines):
        """A table that is made already."""
        print(f"\n### {title}\n\n{text}\n\n{table(head, lines)}", flush=True)

    @staticmethod
    def say_left_out(rows):
        left_out = [f"{row.name} ({row.error})" for row in rows if row.error]
        if left_out:
            print("\nLeft out: " + "; ".join(left_out) + ".")
        sys.stdout.flush()


def ratio_to(rows, name):
    """A column: the row's median as a multiple of that of the row `name`."""
    def column(row):
        reference = find(rows, name)
        return row.median() / reference.median() if reference else None
    return column


def on_top_of(rows, base):
    """A column: what the row's median has on top of that of the row `base` (or of its own, where it names one)."""
    def column(row):
        reference = find(rows, getattr(row, "base", base))
        return row.median() - reference.median() if reference and reference is not row else None
    return column


def find(rows, name):
    return next((row for row in rows if row.name == name and row.values), None)
