"""What all objects that stand for something in a region share."""

from __future__ import annotations

import ctypes
from typing import TYPE_CHECKING, Any, NoReturn, Optional, Tuple, Type, overload

from ._calls import uint32
from ._errors import failure

if TYPE_CHECKING:
    from ._region import Region


class Holder:
    """An object that stands for something in a region: the region, and the arguments that name the thing in calls."""

    __slots__ = ("region", "_calls", "_key")

    def __init__(self, region: Region, calls: Any, key: Tuple[Any, ...]) -> None:
        #: The region that this object came from.
        self.region = region
        self._calls = calls
        self._key = key

    def _call(self, name: str, *arguments: Any) -> None:
        """Calls a function with the arguments that name this object and then with these."""
        if not self.region._open:
            self.region._refuse()
        function = getattr(self._calls, name)
        code = function(*self._key, *arguments)
        if code:
            raise failure(code, function, *self._key, *(each for each in arguments if isinstance(each, int)))

    def _get(self, name: str) -> int:
        word = ctypes.c_uint32()
        self._call(name, word)
        return word.value

    def __eq__(self, other: object) -> bool:
        return type(other) is type(self) and isinstance(other, Holder) and (other.region, other._key) == (self.region, self._key)

    def __hash__(self) -> int:
        return hash((type(self), self._key))

    def __reduce__(self) -> NoReturn:
        raise TypeError(f"cannot pickle {type(self).__name__}: it belongs to this process")


class Word:
    """An attribute that is a word of the region: 0 to 4294967295, read and written at each use."""

    def __init__(self, getter: str, setter: str, doc: str) -> None:
        self._getter, self._setter = getter, setter
        self.__doc__ = doc

    @overload
    def __get__(self, holder: None, owner: Optional[Type[Any]] = None) -> Word: ...

    @overload
    def __get__(self, holder: Holder, owner: Optional[Type[Any]] = None) -> int: ...

    def __get__(self, holder: Optional[Holder], owner: Optional[Type[Any]] = None) -> Any:
        if holder is None:
            return self
        # As Holder._get(), written out because this is what programs do most.
        if not holder.region._open:
            holder.region._refuse()
        word = ctypes.c_uint32()
        function = getattr(holder._calls, self._getter)
        code = function(*holder._key, word)
        if code:
            raise failure(code, function, *holder._key)
        return word.value

    def __set__(self, holder: Holder, value: int) -> None:
        holder._call(self._setter, uint32(value))
