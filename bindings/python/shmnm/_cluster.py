"""The words of the cluster as a whole."""

from __future__ import annotations

import ctypes
from typing import NamedTuple, Optional

from ._calls import int32
from ._holder import Holder, Word
from ._text import encoded


class HbInfo(NamedTuple):
    """The pair of hb values, each at least 1."""

    a: int
    b: int


class Maxima(NamedTuple):
    """How many records the tables may have, each at least 1."""

    servers: int
    hb: int
    np: int


class Cluster(Holder):
    """The words of the whole cluster. All are opaque numbers from 0 to 4294967295 unless said otherwise."""

    __slots__ = ()

    waitstat = Word("getwaitstat", "setwaitstat", "The wait state, from which the servers' combined states follow.")
    bwflag = Word("getbwflag", "setbwflag", "The bw flag.")
    bwflagdisk = Word("getbwflagdisk", "setbwflagdisk", "The bw flag of the disk.")
    clstat = Word("getclstat", "setclstat", "The cluster state.")

    @property
    def hbinfo(self) -> HbInfo:
        """The hb info pair. Setting a value below 1 raises `InvalidArgument`."""
        a, b = ctypes.c_uint32(), ctypes.c_uint32()
        self._call("gethbinfo_ex", a, b)
        return HbInfo(a.value, b.value)

    @hbinfo.setter
    def hbinfo(self, pair: HbInfo) -> None:
        a, b = pair
        self._call("sethbinfo_ex", int32(a), int32(b))

    @property
    def maxima(self) -> Maxima:
        """The maxima of servers, hb and np resources.

        All calls read the tables by them, so values other than the configured ones change how the region is read. The
        next create or attach of any process sets them back. Setting a value below 1 raises `InvalidArgument`.
        """
        servers, hb, np = ctypes.c_uint32(), ctypes.c_uint32(), ctypes.c_uint32()
        self._call("getmaxvalue_ex", servers, hb, np)
        return Maxima(servers.value, hb.value, np.value)

    @maxima.setter
    def maxima(self, values: Maxima) -> None:
        servers, hb, np = values
        self._call("setmaxvalue_ex", int32(servers), int32(hb), int32(np))

    @property
    def alive(self) -> bool:
        """Whether any server has nodestat 1."""
        return self.alive_without(None)

    def alive_without(self, server: Optional[str]) -> bool:
        """Whether any server other than this one has nodestat 1. An unknown name leaves out none."""
        flag = ctypes.c_uint32()
        self._call("chkalivesv", None if server is None else encoded(server), flag)
        return flag.value != 0
