"""The hb and np resources of the region. Both kinds are alike, but hb resources have network-wide states as well."""

from __future__ import annotations

import ctypes
from collections.abc import Mapping
from typing import TYPE_CHECKING, Generic, Iterator, List, Optional, Tuple, TypeVar, Union

from ._calls import Twin, count_of_words, int32, list_of_texts, list_of_words, uint32
from ._errors import BufferTooSmall, NotFound, failure
from ._holder import Holder, Word
from ._servers import Server
from ._text import decoded, encoded

if TYPE_CHECKING:
    from ._region import Region

DESCRIPT_SIZE = 256


class Row(Holder):
    """The states of one resource on the servers, by the servers' priorities: `resource.svstat[0] = 1`.

    Instead of a priority a `Server` may stand between the brackets: its priority is looked up first. Of several servers
    with one priority, the first in order of position counts. Numbers from 0 to 4294967295.
    """

    __slots__ = ("_getter", "_setter", "_lister")

    def __init__(self, resource: Resource, getter: str, setter: str, lister: str) -> None:
        network = getter.endswith("_nw")
        super().__init__(resource.region, resource.region._calls if network else resource._calls, resource._key)
        self._getter, self._setter, self._lister = getter, setter, lister

    def __getitem__(self, server: Union[int, Server]) -> int:
        word = ctypes.c_uint32()
        self._call(self._getter, _svid(server), word)
        return word.value

    def __setitem__(self, server: Union[int, Server], value: int) -> None:
        self._call(self._setter, _svid(server), uint32(value))

    def __contains__(self, server: object) -> bool:
        if not isinstance(server, (int, Server)):
            return False
        try:
            self._call(self._getter, _svid(server), None)
        except NotFound:
            return False
        return True

    def words(self) -> List[int]:
        """The states on all servers, in order of position: that of `region.servers.names()`."""
        if not self.region._open:
            self.region._refuse()
        return list_of_words(getattr(self._calls, self._lister), *self._key)

    def __iter__(self) -> Iterator[int]:
        raise TypeError("use words() for the states in order of position")

    def __repr__(self) -> str:
        return f"<shmnm.Row of {self._key!r}>"


def _svid(server: Union[int, Server]) -> int:
    return server.pri if isinstance(server, Server) else int32(server)


class Resource(Holder):
    """A resource, by its type and name. It stays usable when the resource is removed and added again.

    Reading or writing raises `NotFound` if there is no such resource now.
    """

    __slots__ = ("type", "name")

    def __init__(self, region: Region, calls: Twin, type: Optional[str], name: str) -> None:
        super().__init__(region, calls, (None if type is None else encoded(type), encoded(name)))
        #: The resource's type; None for the object of `any_type()`.
        self.type = type
        #: The resource's name.
        self.name = name

    stat = Word("getrscstat", "setrscstat", "The resource's own state, 0 to 4294967295.")

    @property
    def pri(self) -> int:
        """The priority, 0 to 4294967295."""
        return self._get("getrscpri")

    @pri.setter
    def pri(self, pri: int) -> None:
        self._call("modifyrsc", uint32(pri))

    @property
    def descript(self) -> bytes:
        """The description: 256 bytes. A shorter one that is set replaces the beginning; of a longer one 256 bytes count.

        The library finds the description of the first resource of the table only, deliberately; others raise `NotFound`.
        """
        buffer = ctypes.create_string_buffer(DESCRIPT_SIZE)
        self._call("getdescript", buffer, ctypes.c_int32(DESCRIPT_SIZE))
        return buffer.raw

    @descript.setter
    def descript(self, data: bytes) -> None:
        self._call("setdescript", bytes(data), len(data))

    @property
    def svstat(self) -> Row:
        """The states on the servers."""
        return Row(self, "getrscsvstat", "setrscsvstat", "enumrscsvstat")

    def __repr__(self) -> str:
        return f"<shmnm.{type(self).__name__} {self.type!r}, {self.name!r}>"


class HbResource(Resource):
    """An hb resource."""

    __slots__ = ()

    @property
    def network(self) -> Row:
        """The network-wide states on the servers."""
        return Row(self, "getrscsvstat_nw", "setrscsvstat_nw", "enumrscsvstat_nw")


class NpResource(Resource):
    """An np resource."""

    __slots__ = ()


AnyResource = TypeVar("AnyResource", bound=Resource)
Key = Tuple[str, str]


class Resources(Mapping[Key, AnyResource], Generic[AnyResource]):
    """The resources of a kind by type and name, in the order in which they were added: `region.hb["lan", "lanhb1"]`."""

    _resource: type[AnyResource]
    _kind: str

    def __init__(self, region: Region) -> None:
        self._region = region
        self._calls: Twin = getattr(region._calls, self._kind)

    def _call(self, name: str, *arguments: Union[None, bytes, int]) -> None:
        if not self._region._open:
            self._region._refuse()
        function = getattr(self._calls, name)
        code = function(*arguments)
        if code:
            raise failure(code, function, *arguments)

    def add(self, type: str, name: str, pri: int) -> AnyResource:
        """Adds a resource after the others. Texts of more than 31 bytes are cut, and are then not found by the whole text.

        Its states on all servers are 2. Hold the lock. Raises `ResourceTableFull` or `AlreadyExists`.
        """
        self._call("addrsc", encoded(type), encoded(name), uint32(pri))
        return self._made(type, name)

    def types(self) -> List[str]:
        """The type of each resource, in order of position: a type of several resources is there several times."""
        if not self._region._open:
            self._region._refuse()
        return [decoded(text) for text in list_of_texts(self._calls.enumtype, count=self._count)]

    def names(self, type: Optional[str] = None) -> List[str]:
        """The names of the resources of a type, or of all, in order of position."""
        if not self._region._open:
            self._region._refuse()
        return [decoded(text) for text in self._names(None if type is None else encoded(type))]

    def _names(self, type: Optional[bytes]) -> List[bytes]:
        def count() -> int:
            # Whether there is a resource with an empty name.
            return int(self._calls.getrscstat(type, b"", ctypes.c_uint32()) == 0)

        return list_of_texts(self._calls.enumrsc, type, count=count)

    def type_of(self, name: str) -> str:
        """The type of the first resource with this name. Raises `NotFound`, or `InvalidArgument` for an empty name."""
        if not self._region._open:
            self._region._refuse()
        type = ctypes.create_string_buffer(32)
        function, text = self._calls.getrscinfo, encoded(name)
        code = function(type, text)
        if code:
            raise failure(code, function, text)
        return decoded(type.value)

    def any_type(self, name: str) -> AnyResource:
        """The first resource with this name, whatever its type. Its priority and description cannot be reached by it."""
        if not self._region._open:
            self._region._refuse()
        return self._made(None, name)

    def set_type_stat(self, type: str, stat: int) -> None:
        """Sets the own state of every resource of a type, and then its states on all servers."""
        self._call("settypestat", encoded(type), uint32(stat))

    def open_column(self, position: int) -> None:
        """Opens the column of a new server in every row, as adding a server does. Hold the lock.

        Raises `IndexOutOfRange` if the position is not below the number of servers.
        """
        self._call("addrscsvstat", int32(position))

    def close_column(self, position: int) -> None:
        """Closes the column of a removed server in every row, as removing a server does. Hold the lock.

        Raises `IndexOutOfRange` if the position is above the number of servers.
        """
        self._call("rmrscsvstat", int32(position))

    def _made(self, type: Optional[str], name: str) -> AnyResource:
        return self._resource(self._region, self._calls, type, name)

    def _count(self) -> int:
        return count_of_words(self._calls.enumsvrscstat, b"")

    def __getitem__(self, key: Key) -> AnyResource:
        type, name = key
        resource = self._made(type, name)
        resource._call("getrscpri", ctypes.c_uint32())
        return resource

    def __delitem__(self, key: Key) -> None:
        """Removes the first resource of this type and name. Hold the lock. Raises `NotFound`."""
        type, name = key
        self._call("rmrsc", encoded(type), encoded(name))

    def __contains__(self, key: object) -> bool:
        if not (isinstance(key, tuple) and len(key) == 2 and all(isinstance(each, str) for each in key)):
            return False
        try:
            self[key[0], key[1]]
        except NotFound:
            return False
        return True

    def _keys(self) -> List[Key]:
        # Two listings, which agree under the lock. Without it they are read again until they fit together.
        for _ in range(100):
            types, names = self.types(), self.names()
            if len(types) == len(names) and types == self.types():
                return list(zip(types, names))
        raise BufferTooSmall(f"the {self._kind} resources kept changing while they were listed; hold the lock")

    def __iter__(self) -> Iterator[Key]:
        return iter(dict.fromkeys(self._keys()))

    def __len__(self) -> int:
        return len(set(self._keys()))

    def __repr__(self) -> str:
        name = f"{type(self).__name__}"
        return f"<shmnm.{name} {list(self)!r}>" if self._region._open else f"<shmnm.{name} of a detached region>"


class HbResources(Resources[HbResource]):
    """The hb (heartbeat) resources by type and name."""

    _resource = HbResource
    _kind = "hb"


class NpResources(Resources[NpResource]):
    """The np (network-partition) resources by type and name."""

    _resource = NpResource
    _kind = "np"
