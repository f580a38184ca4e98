"""What the run found, and its table of figures."""
import collections


class Findings:
    """What was not as it should be; each is told at once."""

    def __init__(self):
        self.texts = []

    def add(self, text):
        self.texts.append(text)
        print(f"FOUND: {text}", flush=True)


def table(rows):
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  " + "  ".join(cell.ljust(width) if column == 0 else cell.rjust(width) for column, (cell, width) in enumerate(zip(row, widths))).rstrip())


def number(value):
    return f"{value:.0f}" if abs(value) >= 100 or value == int(value) else f"{value:.1f}"


def print_verdicts(verdicts, findings):
    """The figures that must stay flat. What has grown is a finding."""
    rows = [("figure", "first", "last", "slope over the run", "bound", "samples", "")]
    for (subject, kind), verdict in verdicts.items():
        word = "flat" if verdict.is_flat else "GROWS"
        if not verdict.is_measured:
            word = "too few samples"
        elif not verdict.is_flat:
            findings.add(f"{subject}: {kind} grows: from {number(verdict.first)} to {number(verdict.last)}, by slope {number(verdict.growth)}, its lowest value by {number(verdict.step)}, where {number(verdict.bound)} is permitted")
        rows.append((f"{subject}: {kind}", number(verdict.first), number(verdict.last), f"{verdict.growth:+.1f}", number(verdict.bound), str(verdict.count), word))
    table(rows)


def print_counts(counts):
    table([(name, str(count)) for name, count in sorted(collections.Counter(counts).items())])


def microseconds(values):
    """The median, the 99th percentile and the longest of some nanoseconds."""
    values = sorted(values)
    return ", ".join(f"{name} {values[min(len(values) - 1, len(values) * part // 100)] / 1_000:.0f} us" for name, part in (("p50", 50), ("p99", 99), ("longest", 100)))
