"""What can go wrong: one exception per result code of the library, and a few of this package's own."""

from __future__ import annotations

from typing import Any, Callable, Dict, Optional, Type

from ._enumeration import Number


class Result(Number):
    """The result codes of the library's functions."""

    OK = 0
    NOTINIT = 1
    PARAM = 2
    NOTFOUND = 3
    BUFFER = 4
    XMLINIT = 5
    CREATEMAP = 6
    MAPVIEW = 7
    OPENMAP = 8
    COUNTOVER = 9
    RSCOVER = 10
    LOADINFO = 11
    LOADCONFIG = 12
    EXIST = 13
    ADDSVSTAT = 14
    RMSVSTAT = 15
    INDEX = 16
    LOCK = 17
    INSTALLPATH = 19


class Error(Exception):
    """Every error of this package. `code` is the library's result, or None if the library was not the one to fail."""

    code: Optional[Result] = None

    def __str__(self) -> str:
        # KeyError would show the message in quotes.
        return str(self.args[0]) if self.args else type(self).__name__


class NotMapped(Error):
    """The region is not mapped in this process (code 1)."""

    code = Result.NOTINIT


class Detached(NotMapped):
    """A region, or an object that came from it, was used after `detach()` or the end of its with block (code 1)."""


class InvalidKind(NotMapped, ValueError):
    """The kind of a process id is not 0, 1 or 2. The library's own code for that is 1, too."""


class InvalidArgument(Error, ValueError):
    """A value is out of range (code 2)."""

    code = Result.PARAM


class NotFound(Error, KeyError):
    """No server or resource matches (code 3)."""

    code = Result.NOTFOUND


class BufferTooSmall(Error):
    """A list kept growing while it was read without the lock (code 4)."""

    code = Result.BUFFER


class ConfigurationLibraryFailed(Error):
    """The configuration library could not be initialised (code 5)."""

    code = Result.XMLINIT


class CreateFailed(Error):
    """The region could not be created (code 6)."""

    code = Result.CREATEMAP


class MapFailed(Error):
    """The region could not be mapped (code 7)."""

    code = Result.MAPVIEW


class NoRegion(Error):
    """There is no region, or this process may not open it (code 8)."""

    code = Result.OPENMAP


class TableFull(Error):
    """The server table or the table of process ids is full (code 9)."""

    code = Result.COUNTOVER


class ResourceTableFull(TableFull):
    """The resource table is full (code 10)."""

    code = Result.RSCOVER


class CountsNotLoaded(Error):
    """The configured counts could not be loaded (code 11)."""

    code = Result.LOADINFO


class ConfigurationNotLoaded(Error):
    """The configuration could not be loaded (code 12)."""

    code = Result.LOADCONFIG


class AlreadyExists(Error):
    """A server or resource of that name exists (code 13)."""

    code = Result.EXIST


class ColumnNotOpened(Error):
    """The new server is in the table, but its column could not be opened in the resource tables (code 14)."""

    code = Result.ADDSVSTAT


class ColumnNotClosed(Error):
    """The server was removed, but its column could not be closed in the resource tables (code 15)."""

    code = Result.RMSVSTAT


class IndexOutOfRange(Error, IndexError):
    """A server's position is out of range (code 16)."""

    code = Result.INDEX


class LockTimeout(Error, TimeoutError):
    """The time-out passed before the lock was free (code 17)."""

    code = Result.LOCK


class InstallationPathUnknown(Error):
    """The installation path is not known (code 19). The library reports `CountsNotLoaded` instead."""

    code = Result.INSTALLPATH


class LockMisuse(Error, RuntimeError):
    """The lock was released by another thread, held across an await, or released without being held."""


class AlreadyMapped(Error, RuntimeError):
    """`create()` was called although this process has the region already."""


class LibraryNotFound(Error, ImportError):
    """A shared library was not found, or it is not the library that was expected."""


class PictureError(Error):
    """A picture could not be read, or a question about it is wrong. `result` is the number of `shmnmpicture.h`."""

    def __init__(self, message: str, result: int = 0) -> None:
        super().__init__(message)
        self.result = result


class NoPicture(PictureError):
    """There is no region to read (result 300)."""


class NoSuchKey(PictureError, KeyError):
    """The picture has no word with this key (100), or no region can have one (203)."""


class InvalidCondition(PictureError, ValueError):
    """A text is not a condition (result 202)."""


class PictureLockTimeout(PictureError, TimeoutError):
    """A copy needed the region's lock, and the time-out passed before it was free (result 400)."""


class WaitTimeout(Error, TimeoutError):
    """The condition that `wait()` waited for did not hold in time. The message says what was still false."""


_MEANINGS: Dict[Result, str] = {
    Result.NOTINIT: "the region is not mapped in this process; attach to it first",
    Result.PARAM: "an argument is out of range",
    Result.NOTFOUND: "no server or resource matches",
    Result.BUFFER: "the list kept growing; hold the lock",
    Result.XMLINIT: "the configuration library could not be initialised",
    Result.CREATEMAP: "the region could not be created; the trace log has the reason",
    Result.MAPVIEW: "the region could not be mapped; the trace log has the reason",
    Result.OPENMAP: 'there is no region, or this process may not open it; "shmnmctl serve" creates one',
    Result.COUNTOVER: "the table is full",
    Result.RSCOVER: "the resource table is full",
    Result.LOADINFO: "the configured counts could not be loaded; the trace log has the reason",
    Result.LOADCONFIG: 'the configuration could not be loaded; "shmnmctl verify --config FILE" checks it',
    Result.EXIST: "a server or resource of that name exists",
    Result.ADDSVSTAT: "the server was added, but its column could not be opened in the resource tables",
    Result.RMSVSTAT: "the server was removed, but its column could not be closed in the resource tables",
    Result.INDEX: "the position is out of range",
    Result.LOCK: 'the time-out passed before the lock was free; "shmnmctl lock --who" names its holder',
    Result.INSTALLPATH: "the installation path is not known",
}

_CLASSES: Dict[Result, Type[Error]] = {
    kind.code: kind
    for kind in (
        NotMapped, InvalidArgument, NotFound, BufferTooSmall, ConfigurationLibraryFailed, CreateFailed, MapFailed,
        NoRegion, TableFull, ResourceTableFull, CountsNotLoaded, ConfigurationNotLoaded, AlreadyExists,
        ColumnNotOpened, ColumnNotClosed, IndexOutOfRange, LockTimeout, InstallationPathUnknown,
    )
    if kind.code is not None
}  # fmt: skip


def _shown(argument: Any) -> str:
    return repr(argument.decode("utf-8", "backslashreplace")) if isinstance(argument, bytes) else str(argument)


def failure(code: int, function: Callable[..., int], *inputs: Any) -> Error:
    """The exception for a result of a function. `inputs` are the arguments that say what it was about."""
    call = f"{getattr(function, '__name__', function)}({', '.join(_shown(each) for each in inputs)})"
    try:
        result = Result(code)
    except ValueError:
        return Error(f"{call}: unknown result {code}")
    return _CLASSES[result](f"{call}: {_MEANINGS[result]} ({result.name}, {code})")
