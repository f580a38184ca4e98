"""Waiting for the picture to change, and for a condition to hold."""

from __future__ import annotations

import enum
import time
from dataclasses import dataclass
from typing import Iterator, List, Optional, Tuple, Union

from ._errors import NoPicture, PictureLockTimeout, WaitTimeout
from ._picture import Picture
from ._snapshot import Snapshot, Words

# The longest wait inside the library. A signal to another thread than the waiting one is noticed at its end.
_SLICE = 1.0


class Missing(enum.Enum):
    """Stands for the value of a key that is not there."""

    MISSING = enum.auto()

    def __repr__(self) -> str:
        return "shmnm.MISSING"


MISSING = Missing.MISSING
Value = Union[int, None, Missing]


@dataclass(frozen=True)
class Change:
    """A word that changed. `old` is MISSING for a new key and `new` for one that is gone; None is the value `none`."""

    key: str
    old: Value
    new: Value


@dataclass(frozen=True)
class Event:
    """What `watch()` saw: the picture now, None if the region is gone, and what changed since the event before."""

    snapshot: Optional[Snapshot]
    changes: Tuple[Change, ...]


def changes(before: Words, after: Words) -> Tuple[Change, ...]:
    """What differs between two pictures' words: changed and new keys in the order of `after`, then those that are gone."""
    found: List[Change] = []
    for key, value in after.items():
        old: Value = before.get(key, MISSING)
        if old is MISSING or old != value:
            found.append(Change(key, old, value))
    found += [Change(key, value, MISSING) for key, value in before.items() if key not in after]
    return tuple(found)


def _told(snapshot: Snapshot) -> Words:
    """The words whose changes are told: not those of the bridge's marks that move all the time."""
    moving = ("/age_ms", "/revision")
    return {key: value for key, value in snapshot.words().items() if not (key.startswith("bridge/servers/") and key.endswith(moving))}


def watch(*, address: Optional[str] = None, interval: float = 0.05) -> Iterator[Event]:
    """Yields the picture as it is, without changes, and then an event each time that words have changed.

    It compares copies, one every `interval` seconds (a server of shmnmweb tells of changes instead). Steps between two
    copies are seen as one, and a word that was changed and changed back is not seen. When the region ends, all its keys
    are gone, and when there is another, all are new. Ages and revisions of the bridge's marks are not compared. It holds
    no region and no lock, so other processes do not notice it.

    Raises `NoPicture` at the first event if there is no region, and `PictureError` if reading fails.
    """
    with Picture(address=address, interval=interval) as picture:
        snapshot = picture.snapshot()
        words = _told(snapshot)
        yield Event(snapshot, ())
        while True:
            try:
                if not picture.update(_SLICE):
                    continue
                now: Optional[Snapshot] = picture.snapshot()
            except NoPicture:
                now = None
            except PictureLockTimeout:
                # The next copy has the newest values.
                continue
            before, words = words, {} if now is None else _told(now)
            found = changes(before, words)
            if found:
                yield Event(now, found)


def wait(condition: str, timeout: Optional[float] = None, *, address: Optional[str] = None, interval: float = 0.05) -> Snapshot:
    """Waits until a condition holds, such as `all servers/*/nodestat=1`. Returns a picture in which it does.

    `timeout` and `interval`, the time between two looks, are in seconds; None waits without limit. A region that ends
    while it waits may come back. Raises `WaitTimeout`, `NoPicture` if there is no region at the start,
    `InvalidCondition`, `NoSuchKey` for a word that no region can have, or `PictureError`.
    """
    if timeout is not None and not timeout >= 0:
        raise ValueError(f"a time-out must not be negative: {timeout}")
    end = None if timeout is None else time.monotonic() + timeout
    with Picture(address=address, interval=interval) as picture:
        unmet = picture.unmet(condition)
        while unmet is not None:
            left = _SLICE if end is None else min(end - time.monotonic(), _SLICE)
            if left <= 0:
                raise WaitTimeout(f"the condition did not hold within {timeout} s: {unmet}")
            try:
                picture.update(left)
                unmet = picture.unmet(condition)
            except NoPicture as error:
                unmet = str(error)
            except PictureLockTimeout as error:
                unmet = str(error)
        return picture.snapshot()
