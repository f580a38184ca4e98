"""Pictures: copies of a region that are read without attaching to it, by the library `libshmnmpicture`."""

from __future__ import annotations

import ctypes
import json
import os
import threading
from types import TracebackType
from typing import Any, Callable, Dict, List, NamedTuple, NoReturn, Optional, Tuple, Type, Union

from . import _loader
from ._errors import InvalidCondition, LibraryNotFound, NoPicture, NoSuchKey, PictureError, PictureLockTimeout
from ._lock import DEFAULT_TIMEOUT, milliseconds
from ._snapshot import Snapshot, parsed

File = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

OK = 0
NO_SUCH_KEY = 100
INVALID_CONDITION = 202
NO_SUCH_WORD = 203
NO_REGION = 300
LOCK_TIMEOUT = 400

_ALL_BYTES = 1
_FORCE = 2

_ERRORS: Dict[int, Type[PictureError]] = {
    NO_SUCH_KEY: NoSuchKey,
    NO_SUCH_WORD: NoSuchKey,
    INVALID_CONDITION: InvalidCondition,
    NO_REGION: NoPicture,
    LOCK_TIMEOUT: PictureLockTimeout,
}


class _Options(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("flags", ctypes.c_uint32),
        ("lock_timeout_ms", ctypes.c_uint32),
        ("interval_ms", ctypes.c_uint32),
        ("ca_file", ctypes.c_char_p),
        ("cert_file", ctypes.c_char_p),
        ("key_file", ctypes.c_char_p),
    ]


_Handle = ctypes.c_void_p
_Text = ctypes.POINTER(ctypes.c_char_p)
_Size = ctypes.POINTER(ctypes.c_size_t)
_Number = ctypes.POINTER(ctypes.c_int32)
_PROTOTYPES: Dict[str, Tuple[Any, List[Any]]] = {
    "version": (ctypes.c_char_p, []),
    "open_live": (ctypes.c_int32, [ctypes.POINTER(_Options), ctypes.POINTER(_Handle)]),
    "open_file": (ctypes.c_int32, [ctypes.c_char_p, ctypes.POINTER(_Options), ctypes.POINTER(_Handle)]),
    "open_address": (ctypes.c_int32, [ctypes.c_char_p, ctypes.POINTER(_Options), ctypes.POINTER(_Handle)]),
    "update": (ctypes.c_int32, [_Handle, ctypes.c_uint32, _Number]),
    "json": (ctypes.c_int32, [_Handle, _Text, _Size]),
    "value": (ctypes.c_int32, [_Handle, ctypes.c_char_p, _Text, _Size]),
    "holds": (ctypes.c_int32, [_Handle, ctypes.c_char_p, _Number, _Text]),
    "findings": (ctypes.c_int32, [_Handle, _Text, _Size]),
    "warning": (ctypes.c_int32, [_Handle, _Text]),
    "error": (ctypes.c_char_p, [_Handle]),
    "free": (None, [_Handle]),
}

_guard = threading.Lock()
_library: Optional[Dict[str, Callable[..., Any]]] = None


def _functions() -> Dict[str, Callable[..., Any]]:
    """The functions of the library, which is loaded at the first use. All give up the interpreter lock."""
    global _library
    with _guard:
        if _library is None:
            library = _loader.load("shmnmpicture")
            functions = {}
            for name, (result, types) in _PROTOTYPES.items():
                try:
                    function = getattr(library, f"shmnmpicture_{name}")
                except AttributeError:
                    raise LibraryNotFound(f"{library._name} has no function shmnmpicture_{name}: it is another library") from None
                function.restype, function.argtypes = result, types
                functions[name] = function
            _library = functions
        return _library


def picture_version() -> str:
    """The version of the library that reads pictures."""
    version: bytes = _functions()["version"]()
    return version.decode("ascii")


class Finding(NamedTuple):
    """Something that a healthy region never shows: where it is, in bytes and by its key, and what is there."""

    offset: int
    key: str
    expected: str
    found: str


def _file_bytes(file: File) -> bytes:
    name = os.fspath(file)
    data = name if isinstance(name, bytes) else name.encode("utf-8") if _loader.WINDOWS else os.fsencode(name)
    if b"\0" in data:
        raise ValueError("a file name cannot contain a NUL")
    return data


class Picture:
    """A copy of a region, and where to get the next copy: this machine's region, a dump, or a server of shmnmweb.

    It attaches to nothing, writes nothing and keeps no region alive. On Linux a copy takes no lock if the lock is free.
    Several threads may use one picture; each call waits for the one before.

    file           a dump, instead of this machine's region
    address        unix:PATH, http://HOST:PORT or https://HOST:PORT of a server of shmnmweb
    lock_timeout   seconds that a copy waits for the lock at most, if it needs it
    interval       seconds between the copies of a waiting `update()`
    all_bytes      copies also what is not in use; `findings()` needs it
    force          answers also from a dump that was cut
    ca_file, cert_file, key_file   for https: authorities, and this client's certificate and key, in PEM

    Raises `NoPicture` if there is no region, `PictureLockTimeout`, `PictureError` or `LibraryNotFound`.
    """

    def __init__(
        self,
        *,
        file: Optional[File] = None,
        address: Optional[str] = None,
        lock_timeout: float = DEFAULT_TIMEOUT,
        interval: float = 0.05,
        all_bytes: bool = False,
        force: bool = False,
        ca_file: Optional[File] = None,
        cert_file: Optional[File] = None,
        key_file: Optional[File] = None,
    ) -> None:
        self._handle = _Handle()
        self._use = threading.Lock()
        self._process = os.getpid()
        self._address = address
        if file is not None and address is not None:
            raise ValueError("a picture is of a file or of an address, not of both")
        options = _Options(
            size=ctypes.sizeof(_Options),
            flags=_ALL_BYTES * all_bytes + _FORCE * force,
            lock_timeout_ms=max(milliseconds(lock_timeout), 1),
            interval_ms=max(milliseconds(interval), 1),
            ca_file=None if ca_file is None else _file_bytes(ca_file),
            cert_file=None if cert_file is None else _file_bytes(cert_file),
            key_file=None if key_file is None else _file_bytes(key_file),
        )
        self._functions = _functions()
        if file is not None:
            result = self._functions["open_file"](_file_bytes(file), options, self._handle)
        elif address is not None:
            result = self._functions["open_address"](_argument(address), options, self._handle)
        else:
            result = self._functions["open_live"](options, self._handle)
        if result != OK:
            try:
                self._fail(result)
            finally:
                self.close()

    def _fail(self, result: int) -> NoReturn:
        text: bytes = self._functions["error"](self._handle)
        raise _ERRORS.get(result, PictureError)(text.decode("ascii", "replace") or f"result {result}", result)

    def _result(self, name: str, *arguments: Any) -> int:
        if not self._handle:
            raise ValueError("this picture was closed")
        if self._address is not None and self._process != os.getpid():
            raise ValueError("a picture of an address cannot be used in a forked child; open another")
        result: int = self._functions[name](self._handle, *arguments)
        return result

    def _asked(self, name: str, *arguments: Any) -> bytes:
        text, size = ctypes.c_char_p(), ctypes.c_size_t()
        with self._use:
            result = self._result(name, *arguments, text, size)
            if result != OK:
                self._fail(result)
            return text.value or b""

    def update(self, wait: float = 0) -> bool:
        """Copies again. With `wait` it does so until the copy has changed, for so many seconds at most.

        Returns whether a byte differs, or the region is another one. Raises as the constructor does; the previous copy
        stays then. A wait for a region that has ended goes on until there is one.
        """
        changed = ctypes.c_int32()
        with self._use:
            result = self._result("update", milliseconds(wait), changed)
            if result != OK:
                self._fail(result)
        return changed.value != 0

    def json(self) -> str:
        """The document that `shmnmctl status --format json` prints."""
        return self._asked("json").decode("ascii")

    def snapshot(self) -> Snapshot:
        """The copy as frozen dataclasses."""
        return parsed(self._asked("json"))

    def value(self, key: str) -> Optional[int]:
        """The value of a key, such as `servers/alpha/nodestat`; None is `none`. Raises `NoSuchKey`."""
        value = json.loads(self._asked("value", _argument(key)))
        # Numbers that many readers of JSON would round come as text.
        return int(value) if isinstance(value, str) else value

    def holds(self, condition: str) -> bool:
        """Whether a condition holds, such as `all servers/*/nodestat=1`. Raises `InvalidCondition` or `NoSuchKey`."""
        return self.unmet(condition) is None

    def unmet(self, condition: str) -> Optional[str]:
        """Why a condition does not hold: its false parts with their values. None if it holds."""
        holds, unmet = ctypes.c_int32(), ctypes.c_char_p()
        with self._use:
            result = self._result("holds", _argument(condition), holds, unmet)
            if result != OK:
                self._fail(result)
            return None if holds.value else (unmet.value or b"").decode("ascii")

    def findings(self) -> List[Finding]:
        """What a healthy region never shows, as `shmnmctl verify` finds it. A live region needs `all_bytes=True`."""
        members = json.loads(self._asked("findings"))["findings"]
        return [Finding(each["offset"], each["key"], each["expected"], each["found"]) for each in members]

    def warning(self) -> str:
        """What `shmnmctl` would warn of, such as changed maxima; empty for nothing."""
        text = ctypes.c_char_p()
        with self._use:
            result = self._result("warning", text)
            if result != OK:
                self._fail(result)
            return (text.value or b"").decode("ascii")

    def close(self) -> None:
        """Frees the copy. Closing twice does nothing."""
        with self._use:
            handle, self._handle = self._handle, _Handle()
            if handle:
                self._functions["free"](handle)

    def __enter__(self) -> Picture:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("cannot pickle a picture; pickle its snapshot()")


def _argument(text: str) -> bytes:
    data = text.encode("utf-8", "surrogateescape")
    if b"\0" in data:
        raise ValueError("a text cannot contain a NUL")
    return data


def snapshot(
    *,
    file: Optional[File] = None,
    address: Optional[str] = None,
    lock_timeout: float = DEFAULT_TIMEOUT,
    force: bool = False,
) -> Snapshot:
    """The picture of this machine's region, of a dump or of a server of shmnmweb, as frozen dataclasses.

    Raises `NoPicture` if there is no region, `PictureLockTimeout`, `PictureError` or `LibraryNotFound`.
    """
    with Picture(file=file, address=address, lock_timeout=lock_timeout, force=force) as picture:
        return picture.snapshot()
