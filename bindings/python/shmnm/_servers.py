"""The servers of the region."""

from __future__ import annotations

import ctypes
from collections.abc import Mapping
from typing import TYPE_CHECKING, Iterator, List, Optional

from ._calls import count_of_words, int32, list_of_texts, list_of_words
from ._enumeration import Number
from ._errors import NotFound, failure
from ._holder import Holder, Word
from ._lock import is_held
from ._text import decoded, encoded

if TYPE_CHECKING:
    from ._region import Region


class State(Number):
    """The states that the library itself knows. All others are the cluster's own."""

    ALIVE = 1
    NEW = 2


class CombinedState(Number):
    """What the library makes of a server's nodestat, its isolateflag and the cluster's waitstat."""

    ALIVE = 1
    NEW = 2
    OTHER = 9
    ISOLATED = 0x10
    WAITING = 0x10002


class Server(Holder):
    """A server, by its name. It stays usable when the server is removed and added again.

    The words are numbers from 0 to 4294967295. Reading or writing one raises `NotFound` if there is no such server now.
    """

    __slots__ = ("name",)
    name: str

    def __init__(self, region: Region, name: str) -> None:
        super().__init__(region, region._calls, (encoded(name),))
        #: The server's name.
        self.name = name

    nodestat = Word("getnodestat", "setnodestat", "The state. 1 is alive, 2 is new, others are the cluster's own.")
    nodestat_nw = Word("getnodestat_nw", "setnodestat_nw", "The network-wide state.")
    downnotifystat = Word("getdownnotifystat", "setdownnotifystat", "The down-notification state.")
    isolateflag = Word("getisolateflag", "setisolateflag", "The isolation flag.")
    pingstat = Word("getpingstat", "setpingstat", "The ping state.")
    holdstat = Word("getholdstat", "setholdstat", "The hold state.")

    @property
    def pri(self) -> int:
        """The priority, -2147483648 to 2147483647. Several servers may have the same."""
        pri = ctypes.c_int32()
        self._call("getnodepri", pri)
        return pri.value

    @pri.setter
    def pri(self, pri: int) -> None:
        self._call("modifynode", int32(pri))

    @property
    def combstat(self) -> Optional[CombinedState]:
        """The combined state; None in the one case that has none (alive, not waiting, an isolateflag above 1)."""
        word = ctypes.c_uint32(0)
        self._call("getnodecombstat", word)
        return CombinedState(word.value) if word.value else None

    def hb_stats(self) -> List[int]:
        """The states of all hb resources on this server, in the order of `region.hb.keys()`."""
        return self._column("enumsvhbrscstat")

    def np_stats(self) -> List[int]:
        """The states of all np resources on this server, in the order of `region.np.keys()`."""
        return self._column("enumsvnprscstat")

    def network_stats(self) -> List[int]:
        """The network-wide states of all hb resources on this server, in the order of `region.hb.keys()`."""
        return self._column("enumsvrscstat_nw")

    def _column(self, name: str) -> List[int]:
        if not self.region._open:
            self.region._refuse()
        return list_of_words(getattr(self._calls, name), *self._key, stable=is_held())

    def __repr__(self) -> str:
        return f"<shmnm.Server {self.name!r}>"


class Servers(Mapping[str, Server]):
    """The servers by name, in the order in which they were added.

    Of several servers with one name, which damage or a cut name can cause, only the first is reached; `names()` has all.
    """

    def __init__(self, region: Region) -> None:
        self._region = region

    def _call(self, name: str, key: str, *arguments: int) -> None:
        if not self._region._open:
            self._region._refuse()
        function = getattr(self._region._calls, name)
        server = encoded(key)
        code = function(server, *arguments)
        if code:
            raise failure(code, function, server, *arguments)

    def add(self, name: str, pri: int) -> Server:
        """Adds a server after the others. A name of more than 255 bytes is cut, and is then not found by the whole name.

        Its nodestat and nodestat_nw are 2, and so are its states in all resources. Hold the lock. Raises `TableFull`,
        `AlreadyExists`, or `ColumnNotOpened` (the server is in the table all the same).
        """
        self._call("addnode", name, int32(pri))
        return Server(self._region, name)

    def names(self) -> List[str]:
        """The names of all servers, in order of position."""
        if not self._region._open:
            self._region._refuse()
        return [decoded(name) for name in list_of_texts(self._region._calls.enumnode, count=self._count)]

    def by_pri(self, pri: int) -> Server:
        """The first server with this priority. Raises `NotFound`."""
        if not self._region._open:
            self._region._refuse()
        name = ctypes.create_string_buffer(256)
        function = self._region._calls.getnodename
        code = function(name, int32(pri))
        if code:
            raise failure(code, function, pri)
        return Server(self._region, decoded(name.value))

    def get_handle(self, name: str) -> Server:
        """The object for a server, without looking whether there is one."""
        return Server(self._region, name)

    def _count(self) -> int:
        return count_of_words(self._region._calls.hb.enumrscsvstat, b"", b"")

    def __getitem__(self, name: str) -> Server:
        server = Server(self._region, name)
        server._call("getnodepri", ctypes.c_int32())
        return server

    def __delitem__(self, name: str) -> None:
        """Removes the first server of this name. Hold the lock. Raises `NotFound`, or `ColumnNotClosed` after it."""
        self._call("rmnode", name)

    def __contains__(self, name: object) -> bool:
        if not isinstance(name, str):
            return False
        try:
            self[name]
        except NotFound:
            return False
        return True

    def __iter__(self) -> Iterator[str]:
        return iter(dict.fromkeys(self.names()))

    def __len__(self) -> int:
        return len(set(self.names()))

    def __repr__(self) -> str:
        return f"<shmnm.Servers {self.names()!r}>" if self._region._open else "<shmnm.Servers of a detached region>"
