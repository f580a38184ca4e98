"""The 91 functions of the library as ctypes sees them.

Calls that can wait for another process give up the interpreter lock. All others keep it: they take microseconds, and no
other Python thread can then unmap the region while one of them is inside it.
"""

from __future__ import annotations

import ctypes
import sys
import threading
from typing import Any, Callable, Dict, List, Optional, Tuple

from . import _loader
from ._errors import LibraryNotFound, Result, failure

Call = Callable[..., int]

# One letter per argument.
_TYPES = {
    "t": ctypes.c_char_p,  # text in
    "i": ctypes.c_int32,
    "u": ctypes.c_uint32,
    "Q": ctypes.c_uint64,
    "b": ctypes.c_void_p,  # bytes, in or out
    "I": ctypes.POINTER(ctypes.c_int32),
    "U": ctypes.POINTER(ctypes.c_uint32),
    "P": ctypes.POINTER(ctypes.c_uint64),
}

_WAITING = {"create": "", "attach": "", "rolock": "u", "rwlock": "u"}

_PROMPT: Dict[str, str] = {
    "detach": "", "delete": "", "clear": "", "dump": "bI", "rounlock": "", "rwunlock": "",
    "setmaxvalue_ex": "iii", "getmaxvalue_ex": "UUU", "sethbinfo_ex": "ii", "gethbinfo_ex": "UU",
    "addnode": "ti", "rmnode": "t", "modifynode": "ti", "enumnode": "bU", "getnodepri": "tI", "getnodename": "bi",
    "getnodecombstat": "tU", "chkalivesv": "tU",
    "setnpsimu": "uUi", "getnpsimu": "UUi", "getnpsimuflag": "U",
    "setrscsvstat_nw": "ttiu", "getrscsvstat_nw": "ttiU", "enumrscsvstat_nw": "ttUU", "enumsvrscstat_nw": "tUU",
    "setfstrscstat": "u", "getfstrscstat": "U", "setfstdescript": "bi", "getfstdescript": "bI",
    "setfstrscpid": "tiuQ", "getfstrscpid": "tiUP",
}  # fmt: skip
for _word in ("waitstat", "bwflag", "bwflagdisk", "clstat"):
    _PROMPT.update({f"set{_word}": "u", f"get{_word}": "U"})
for _word in ("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat"):
    _PROMPT.update({f"set{_word}": "tu", f"get{_word}": "tU"})

# What hb and np functions do alike. {} is the kind.
_TWINS = {
    "add{}rsc": "ttu", "rm{}rsc": "tt", "modify{}rsc": "ttu", "get{}rscpri": "ttU", "get{}rscinfo": "bt",
    "enum{}type": "bU", "enum{}rsc": "tbU", "set{}rscstat": "ttu", "get{}rscstat": "ttU",
    "set{}rscsvstat": "ttiu", "get{}rscsvstat": "ttiU", "enum{}rscsvstat": "ttUU", "enumsv{}rscstat": "tUU",
    "settype{}stat": "tu", "set{}descript": "ttbi", "get{}descript": "ttbI", "add{}rscsvstat": "i", "rm{}rscsvstat": "i",
}  # fmt: skip
for _kind in ("hb", "np"):
    _PROMPT.update({_name.format(_kind): _types for _name, _types in _TWINS.items()})

PROTOTYPES: Dict[str, str] = {**_WAITING, **_PROMPT}


class Calls:
    """The functions, by their names without `shmnm_`."""

    def __init__(self) -> None:
        waiting = _loader.load("kzmshmnm", ctypes.CDLL)
        prompt = _loader.load("kzmshmnm", ctypes.PyDLL)
        for name, types in PROTOTYPES.items():
            try:
                function = getattr(waiting if name in _WAITING else prompt, f"shmnm_{name}")
            except AttributeError:
                raise LibraryNotFound(f"{waiting._name} has no function shmnm_{name}: it is not the library, or another version") from None
            function.argtypes = [_TYPES[letter] for letter in types]
            function.restype = ctypes.c_uint32
            setattr(self, name, function)
        self.hb = Twin(self, "hb")
        self.np = Twin(self, "np")

    def __getattr__(self, name: str) -> Call:
        raise AttributeError(name)


class Twin:
    """The functions of one kind of resource, by their names without the kind: `getrscstat` is `shmnm_gethbrscstat`."""

    def __init__(self, calls: Calls, kind: str) -> None:
        for name in _TWINS:
            setattr(self, name.format(""), getattr(calls, name.format(kind)))

    def __getattr__(self, name: str) -> Call:
        raise AttributeError(name)


_guard = threading.Lock()
_calls: Optional[Calls] = None


def calls() -> Calls:
    """The functions of the installed library, which is loaded at the first use."""
    global _calls
    if not getattr(sys, "_is_gil_enabled", lambda: True)():
        raise LibraryNotFound("this package needs an interpreter with its global lock; start it with PYTHON_GIL=1")
    with _guard:
        if _calls is None:
            _calls = Calls()
        return _calls


# Numbers of another width would be cut silently by ctypes.
def uint32(value: int) -> int:
    if not 0 <= value <= 0xFFFFFFFF:
        raise OverflowError(f"{value} is not between 0 and 4294967295")
    return value


def int32(value: int) -> int:
    if not -0x80000000 <= value <= 0x7FFFFFFF:
        raise OverflowError(f"{value} is not between -2147483648 and 2147483647")
    return value


def uint64(value: int) -> int:
    if not 0 <= value <= 0xFFFFFFFFFFFFFFFF:
        raise OverflowError(f"{value} is not between 0 and 18446744073709551615")
    return value


_TRIES = 100
_Array = Callable[[int], Any]


def _texts(size: int) -> Any:
    return ctypes.create_string_buffer(size)


def _words(size: int) -> Any:
    return (ctypes.c_uint32 * (size // 4))()


def _measure(function: Call, inputs: Tuple[Any, ...]) -> int:
    size = ctypes.c_uint32()
    code = function(*inputs, None, size)
    if code:
        raise failure(code, function, *inputs)
    return size.value


def _filled(function: Call, inputs: Tuple[Any, ...], array: _Array, stable: bool = True) -> Tuple[Any, int]:
    """Asks a listing for its size and then for its contents, again if it has grown meanwhile.

    `stable` is false for a listing that does not tell how much it has written, while others may shrink it.
    """
    for _ in range(_TRIES):
        measured = _measure(function, inputs)
        # An array must not be empty: without a place to write to, a function only measures.
        buffer, size = array(max(measured, 4)), ctypes.c_uint32(measured)
        code = function(*inputs, buffer, size)
        if code == Result.OK and (stable or _measure(function, inputs) == measured):
            return buffer, size.value
        if code not in (Result.OK, Result.BUFFER):
            raise failure(code, function, *inputs)
    raise failure(Result.BUFFER, function, *inputs)


def list_of_texts(function: Call, *inputs: Any, count: Callable[[], int]) -> List[bytes]:
    """The texts of a listing. `count` tells how many there are, for the one case in which the bytes do not."""
    buffer, size = _filled(function, inputs, _texts)
    # No texts at all are two NULs, and so is one empty text.
    if size == 2:
        return [b""] * min(count(), 1)
    texts: List[bytes] = buffer.raw[: size - 2].split(b"\0")
    return texts


def list_of_words(function: Call, *inputs: Any, stable: bool = True) -> List[int]:
    """The words of a listing."""
    buffer, size = _filled(function, inputs, _words, stable)
    return list(buffer[: size // 4])


def count_of_words(function: Call, *inputs: Any) -> int:
    """How many words a listing has."""
    return _measure(function, inputs) // 4
