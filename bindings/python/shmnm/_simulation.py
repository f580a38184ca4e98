"""The simulated network partition."""

from __future__ import annotations

import ctypes
from typing import TYPE_CHECKING, Iterable, List, Optional, Sequence, Tuple

from ._calls import int32, uint32
from ._holder import Holder

if TYPE_CHECKING:
    from ._region import Region


class Simulation(Holder):
    """The simulation of a network partition: one word for the cluster and one per server, each 0 or 1."""

    __slots__ = ()

    def __init__(self, region: Region) -> None:
        super().__init__(region, region._calls, ())

    @property
    def active(self) -> bool:
        """Whether a network partition is simulated."""
        return self._get("getnpsimuflag") != 0

    def start(self, failed: Iterable[str] = ()) -> None:
        """Simulates that these servers have failed, and no others. Hold the lock.

        Raises `NotFound` for an unknown server and `ValueError` for a priority that is negative or above 65535, because
        servers are told apart by their priorities here.
        """
        priorities = []
        for name in failed:
            pri: int = self.region.servers[name].pri
            if not 0 <= pri <= 0xFFFF:
                raise ValueError(f"cannot simulate a failure of {name!r}: its priority {pri} is not between 0 and 65535")
            priorities.append(pri)
        words = [0] * (max(priorities, default=-1) + 1)
        for pri in priorities:
            words[pri] = 1
        self.set(1, words)

    def stop(self) -> None:
        """Ends the simulation."""
        self.set(0, None)

    def failed(self) -> List[str]:
        """The names of the servers that are simulated as failed. Hold the lock."""
        servers = [(server.name, server.pri) for server in self.region.servers.values()]
        known = [pri for _, pri in servers if 0 <= pri <= 0xFFFF]
        active, words = self.get(max([len(servers), *(pri + 1 for pri in known)]))
        return [name for name, pri in servers if active and pri in known and words[pri]]

    def set(self, flag: int, words: Optional[Sequence[int]]) -> None:
        """Sets the cluster's word, and that of each server by its priority.

        `words` is indexed by priority; a server with a priority outside of it gets 0, and so do all if it is None or if
        `flag` is not 1. Values other than 0 and 1 count as 0, with a warning in the trace log.
        """
        values = None if words is None else (ctypes.c_uint32 * max(len(words), 1))(*map(uint32, words))
        self._call("setnpsimu", uint32(flag), values, 0 if words is None else len(words))

    def get(self, count: int) -> Tuple[int, List[int]]:
        """The cluster's word, and the servers' words indexed by priority.

        `count` is the length of that list; a server with a priority outside of it is left out. While the simulation is
        off, all words are 0. Raises `InvalidArgument` if there are more servers than `count`.
        """
        flag, words = ctypes.c_uint32(), (ctypes.c_uint32 * max(count, 1))()
        self._call("getnpsimu", flag, words, int32(count))
        return flag.value, list(words[: max(count, 0)])
