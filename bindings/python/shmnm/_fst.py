"""The fst resource: a state, a description, and process ids by name."""

from __future__ import annotations

import ctypes
from typing import TYPE_CHECKING, NamedTuple, NoReturn, Tuple

from ._calls import uint32, uint64
from ._errors import InvalidKind, NotFound, NotMapped
from ._holder import Holder, Word
from ._resources import DESCRIPT_SIZE
from ._text import encoded

if TYPE_CHECKING:
    from ._region import Region


class ProcessId(NamedTuple):
    """A process id and the value beside it. Both are opaque; `piddata` has 64 bits."""

    pid: int
    piddata: int


class ProcessIds(Holder):
    """Process ids by name and kind: `region.fst.pids["monitor", 0] = 4711, 0`. The kind is 0, 1 or 2.

    The library has no list of the names; `snapshot().fst.pids` has one. A name that was set once stays for the life of
    the region.
    """

    __slots__ = ()

    def __getitem__(self, key: Tuple[str, int]) -> ProcessId:
        name, kind = key
        text = encoded(name)
        # A call for a name that is not there succeeds and leaves the outputs alone.
        for preset in (0xFFFFFFFF, 0xFFFFFFFE):
            pid, data = ctypes.c_uint32(preset), ctypes.c_uint64(preset)
            self._expect_kind(kind, "getfstrscpid", text, kind, pid, data)
            if (pid.value, data.value) != (preset, preset):
                return ProcessId(pid.value, data.value)
        raise NotFound(f"no process ids of {name!r}")

    def __setitem__(self, key: Tuple[str, int], value: Tuple[int, int]) -> None:
        """Raises `TableFull`, or `InvalidKind` (a new name is then in the table all the same)."""
        (name, kind), (pid, data) = key, value
        self._expect_kind(kind, "setfstrscpid", encoded(name), kind, uint32(pid), uint64(data))

    def _expect_kind(self, kind: int, name: str, *arguments: object) -> None:
        try:
            self._call(name, *arguments)
        except NotMapped as error:
            if self.region._open and kind not in (0, 1, 2):
                raise InvalidKind(f"{kind} is not a kind of process id; use 0, 1 or 2") from error
            raise

    def __contains__(self, key: object) -> bool:
        if not (isinstance(key, tuple) and len(key) == 2 and isinstance(key[0], str) and key[1] in (0, 1, 2)):
            return False
        try:
            self[key[0], key[1]]
        except NotFound:
            return False
        return True

    def __iter__(self) -> NoReturn:
        raise TypeError("the library has no list of process ids; use snapshot().fst.pids")


class Fst(Holder):
    """The fst resource. Its state and description raise `NotFound` if the region was laid out without one."""

    __slots__ = ()

    def __init__(self, region: Region) -> None:
        super().__init__(region, region._calls, ())

    stat = Word("getfstrscstat", "setfstrscstat", "The state, 0 to 4294967295.")

    @property
    def descript(self) -> bytes:
        """The description: 256 bytes. A shorter one that is set replaces the beginning; of a longer one 256 bytes count."""
        buffer = ctypes.create_string_buffer(DESCRIPT_SIZE)
        self._call("getfstdescript", buffer, ctypes.c_int32(DESCRIPT_SIZE))
        return buffer.raw

    @descript.setter
    def descript(self, data: bytes) -> None:
        self._call("setfstdescript", bytes(data), len(data))

    @property
    def pids(self) -> ProcessIds:
        """The process ids."""
        return ProcessIds(self.region, self._calls, ())
