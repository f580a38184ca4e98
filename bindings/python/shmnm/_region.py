"""The region in this process: create it, attach to it, take its lock, leave it."""

from __future__ import annotations

import ctypes
import os
import sys
import threading
import warnings
import weakref
from types import TracebackType
from typing import Any, List, NoReturn, Optional, Type

from ._calls import Call, calls
from ._cluster import Cluster
from ._errors import AlreadyMapped, Detached, Result, failure
from ._fst import Fst
from ._lock import DEFAULT_TIMEOUT, Lock, milliseconds
from ._picture import snapshot
from ._resources import HbResources, NpResources
from ._servers import Servers
from ._simulation import Simulation
from ._snapshot import Snapshot


class Region:
    """The mapped region. Made by `attach()` and `create()`.

    Every attribute is read from the region and written to it at each use; nothing is cached. No call takes the lock by
    itself: hold `lock()` around steps that must be consistent. Any thread may use the region.

    After its with block, or `close()`, this object and all that came from it raise `Detached`.
    """

    def __init__(self, created: bool, borrowed: bool) -> None:
        self._open = False
        self._calls = calls()
        self._created = created
        self._borrowed = borrowed
        #: The words of the whole cluster.
        self.cluster = Cluster(self, self._calls, ())
        #: The servers by name.
        self.servers = Servers(self)
        #: The hb resources by type and name.
        self.hb = HbResources(self)
        #: The np resources by type and name.
        self.np = NpResources(self)
        #: The simulated network partition.
        self.simulation = Simulation(self)
        #: The fst resource.
        self.fst = Fst(self)

    @property
    def mapped(self) -> bool:
        """Whether this object can still be used. False after `close()`."""
        return self._open

    def _refuse(self) -> NoReturn:
        raise Detached("this region was detached; attach to it again")

    def _call(self, name: str, *arguments: Any) -> None:
        if not self._open:
            self._refuse()
        function = getattr(self._calls, name)
        code = function(*arguments)
        if code:
            raise failure(code, function)

    def lock(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Lock:
        """The lock for writing, to be taken by `with`.

        `timeout` is in seconds: 0 does not wait, None waits without limit. Raises `LockTimeout` when it passes. There is
        one lock for all processes, and readers and writers take the same one. Other Python threads run while it waits.
        """
        return self._lock(self._calls.rwlock, self._calls.rwunlock, timeout)

    def read_lock(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Lock:
        """The same lock, for reading."""
        return self._lock(self._calls.rolock, self._calls.rounlock, timeout)

    def _lock(self, take: Call, give_back: Call, timeout: Optional[float]) -> Lock:
        if not self._open:
            self._refuse()
        return Lock(take, give_back, milliseconds(timeout))

    def dump(self) -> bytes:
        """All bytes of the region. Hold the lock for a copy of one moment."""
        size = ctypes.c_int32()
        self._call("dump", None, size)
        buffer = ctypes.create_string_buffer(size.value)
        self._call("dump", buffer, size)
        return buffer.raw

    def clear(self) -> None:
        """Fills the whole region with zeros, also its maxima: nothing can be added until the next create or attach.

        Hold the lock.
        """
        self._call("clear")

    def snapshot(self, lock_timeout: float = DEFAULT_TIMEOUT) -> Snapshot:
        """The whole picture at one moment, as frozen dataclasses. As `shmnm.snapshot()` of this machine's region."""
        if not self._open:
            self._refuse()
        return snapshot(lock_timeout=lock_timeout)

    def detach(self) -> None:
        """Undoes `attach()`. After the last attachment of the process the region is no longer mapped.

        On a region of `create()` it unmaps the region but leaves it alive until the process ends.
        """
        self._leave("detach")

    def delete(self) -> None:
        """Undoes `create()`: unmaps the region, which lives on while any other process has it."""
        if not self._created:
            raise ValueError("this region was attached and not created; use detach()")
        self._leave("delete")

    def close(self) -> None:
        """`delete()` after `create()`, and `detach()` after `attach()`. Closing twice does nothing."""
        if self._open:
            self._leave("delete" if self._created else "detach")

    def _leave(self, name: str) -> None:
        with _life:
            if not self._open:
                self._refuse()
            self._open = False
            if self._borrowed:
                return
            if self._created:
                for other in list(_regions):
                    other._open = False
            function = getattr(self._calls, name)
            code = function()
        # If something else has unmapped the region already, all is as it should be.
        if code not in (Result.OK, Result.NOTINIT):
            raise failure(code, function)

    def __enter__(self) -> Region:
        if not self._open:
            self._refuse()
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_open", False) and not sys.is_finalizing():
            warnings.warn(f"{self!r} was not closed; use a with block", ResourceWarning, source=self)
            self.close()

    def __repr__(self) -> str:
        return f"<shmnm.Region {'created' if self._created else 'attached'}, {'mapped' if self._open else 'detached'}>"

    def __reduce__(self) -> NoReturn:
        raise TypeError("cannot pickle a region: attach to it in the other process")


# Creating, attaching and leaving happen one at a time. Reentrant, because a region may be collected meanwhile.
_life = threading.RLock()
_regions: weakref.WeakSet[Region] = weakref.WeakSet()


def _renew_lock() -> None:
    global _life
    _life = threading.RLock()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_renew_lock)


def attach() -> Region:
    """Maps the region that another process created. Use it in a with block, which detaches at its end.

    Writes this machine's configured counts into the region's header. A process may attach several times. In a process
    that has created the region, the new object shares that mapping and becomes unusable with it.

    Raises `NoRegion`, `ConfigurationNotLoaded`, `CountsNotLoaded`, `ConfigurationLibraryFailed`, `MapFailed`, or
    `LibraryNotFound`.
    """
    with _life:
        region = Region(created=False, borrowed=any(other._created for other in _open_regions()))
        if not region._borrowed:
            code = region._calls.attach()
            if code:
                raise failure(code, region._calls.attach)
        return _opened(region)


def create() -> Region:
    """Creates the region from the cluster's configuration and maps it; a region that exists keeps its contents.

    Use it in a with block, which gives the region up at its end. The region lives as long as any process has it.

    Raises `AlreadyMapped` if this process has the region already, `CreateFailed` after five attempts of one second,
    `ConfigurationNotLoaded`, `CountsNotLoaded`, `ConfigurationLibraryFailed`, `MapFailed`, or `LibraryNotFound`.
    """
    with _life:
        if _open_regions():
            raise AlreadyMapped("this process has mapped the region already; create it before any attach()")
        region = Region(created=True, borrowed=False)
        code = region._calls.create()
        if code:
            raise failure(code, region._calls.create)
        return _opened(region)


def _opened(region: Region) -> Region:
    region._open = True
    _regions.add(region)
    return region


def _open_regions() -> List[Region]:
    return [region for region in list(_regions) if region._open]
