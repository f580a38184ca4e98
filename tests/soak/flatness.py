"""Whether a figure stays flat.

After a warm-up the slope is estimated from all pairs of samples (Theil and Sen): up to 29 % of the samples may be anything. What the figure
has gained by this slope over the whole span must be within a bound. Because the bound does not grow with the span, a longer run finds
slower growth. A second look compares the median of the first fifth with the lowest value of the last one: it finds a figure that moves
once and stays, and not one that comes back, as the number of open connections does.
"""
import dataclasses
import statistics

WARM_UP = 0.25
FEWEST = 20
MOST_PAIRED = 240


@dataclasses.dataclass
class Bound:
    """How much a figure may gain: an amount, or a part of its median, whichever is more."""

    amount: float
    part: float = 0.0

    def of(self, median):
        return max(self.amount, self.part * median)


@dataclasses.dataclass
class Verdict:
    first: float
    last: float
    growth: float
    step: float
    bound: float
    count: int

    @property
    def is_measured(self):
        return self.count >= FEWEST

    @property
    def is_flat(self):
        return self.growth <= self.bound and self.step <= self.bound


def slope(samples):
    """The median slope of all pairs of (time, value)."""
    step = -(-len(samples) // MOST_PAIRED)
    samples = samples[::step]
    slopes = [(later[1] - earlier[1]) / (later[0] - earlier[0]) for i, earlier in enumerate(samples) for later in samples[i + 1:] if later[0] > earlier[0]]
    return statistics.median(slopes) if slopes else 0.0


def judged(samples, bound, begin, end):
    """What a series of (time, value) has gained between two times, less the warm-up."""
    warm = [sample for sample in samples if sample[0] >= begin + WARM_UP * (end - begin)]
    if len(warm) < FEWEST:
        return Verdict(0, 0, 0, 0, 0, len(warm))
    values = [value for _, value in warm]
    fifth = max(len(values) // 5, 1)
    early, late = values[:fifth], values[-fifth:]
    growth = slope(warm) * (warm[-1][0] - warm[0][0])
    return Verdict(statistics.median(early), statistics.median(late), growth, min(late) - statistics.median(early), bound.of(statistics.median(values)), len(values))
