"""The lock of all processes, held by a thread of this one."""

from __future__ import annotations

import math
import os
import sys
import threading
from types import TracebackType
from typing import Any, List, NoReturn, Optional, Type

from ._calls import Call
from ._errors import LockMisuse, failure

DEFAULT_TIMEOUT = 5.0
_NO_LIMIT = 0xFFFFFFFF


# Asking the system for it at each take and release would take longer than the rest of them.
_process = os.getpid()


def _note_process() -> None:
    global _process
    _process = os.getpid()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_note_process)


class _Thread(threading.local):
    def __init__(self) -> None:
        #: The locks that this thread holds, in the order in which it took them.
        self.locks: List[Lock] = []


_thread = _Thread()


def _current_task() -> Any:
    """The asyncio task that runs in this thread, and its loop. None outside of asyncio."""
    asyncio = sys.modules.get("asyncio")
    if asyncio is None or asyncio._get_running_loop() is None:
        return None
    return asyncio.current_task()


class Lock:
    """The lock of all processes, taken once. Made by `Region.lock()` and `Region.read_lock()`.

    It belongs to the thread that took it: no other thread can release it, and it must not be held across an await,
    because other tasks of the thread could take it, too. Both raise `LockMisuse`. A thread that has the lock may take it
    again. If a process or thread ends while it holds the lock, the lock passes to the next that waits.
    """

    def __init__(self, take: Call, give_back: Call, timeout_ms: int) -> None:
        self._take, self._give_back, self._timeout_ms = take, give_back, timeout_ms
        self._process = self._thread = 0
        self._task: Any = None
        self._await_check: Any = None
        self._was_awaited = False

    @property
    def held(self) -> bool:
        """Whether the calling thread holds this lock. A forked child never holds a lock of its parent."""
        return self._process == _process and self._thread == threading.get_ident()

    def acquire(self) -> None:
        """Takes the lock. Raises `LockTimeout` if the time-out passes first."""
        if self._process == _process:
            raise LockMisuse("this lock object is in use; call region.lock() for each take")
        task = _current_task()
        for lock in _thread.locks:
            if lock._task is not task and lock.held:
                raise LockMisuse("another task of this thread holds the lock; do not await while holding it")
        code = self._take(self._timeout_ms)
        if code:
            raise failure(code, self._take, self._timeout_ms)
        self._process, self._thread, self._task = _process, threading.get_ident(), task
        _thread.locks.append(self)
        if task is not None:
            # The loop runs this only if the task gives up control before it releases the lock.
            self._was_awaited = False
            self._await_check = task.get_loop().call_soon(self._note_await)

    def release(self) -> None:
        """Releases the lock. In a forked child it does nothing, because the lock is the parent's."""
        if self._process not in (0, _process):
            self._process = 0
            return
        if not self.held:
            raise LockMisuse(
                "the lock is not held" if self._process == 0 else f"the lock belongs to another thread ({self._thread}); only that thread can release it"
            )
        self._process = 0
        _thread.locks.remove(self)
        self._give_back()
        if self._await_check is not None:
            self._await_check.cancel()
            self._await_check = None
            if self._was_awaited:
                raise LockMisuse("the lock was held across an await; other tasks of this thread could have taken it meanwhile")

    def _note_await(self) -> None:
        self._was_awaited = True

    def __enter__(self) -> Lock:
        self.acquire()
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]) -> None:
        try:
            self.release()
        except LockMisuse:
            # The error that ends the block matters more.
            if error is None:
                raise

    def __reduce__(self) -> NoReturn:
        raise TypeError("cannot pickle a lock: it belongs to one thread")


def milliseconds(timeout: Optional[float]) -> int:
    """A time-out for the library. Seconds are rounded up; None and infinity are no limit."""
    if timeout is None or timeout == math.inf:
        return _NO_LIMIT
    if not timeout >= 0:
        raise ValueError(f"a time-out must not be negative: {timeout}")
    return math.ceil(min(timeout * 1000, _NO_LIMIT - 1))


def is_held() -> bool:
    """Whether the calling thread holds the lock."""
    return any(lock.held for lock in _thread.locks)
