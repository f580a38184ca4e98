"""Finds the shared libraries. Nothing is loaded before it is needed, so the package can be imported without them."""

from __future__ import annotations

import ctypes
import os
import sys
import threading
from typing import Any, Dict, List, Optional, Type

from ._errors import LibraryNotFound

WINDOWS = sys.platform == "win32"
PACKAGE = os.path.dirname(os.path.abspath(__file__))
VARIABLE = "SHMNM_LIBRARY_PATH"

_guard = threading.RLock()
_folder: Optional[str] = None
_found: Dict[str, str] = {}
_dll_folders: List[Any] = []


def set_library_folder(folder: "os.PathLike[str] | str") -> None:
    """Takes the libraries from this folder, and from no other. Call it before anything else of this package.

    Raises `LibraryNotFound` if the folder does not exist or the libraries were loaded from elsewhere already.
    """
    global _folder
    path = os.path.abspath(os.fspath(folder))
    if not os.path.isdir(path):
        raise LibraryNotFound(f"cannot load the libraries from {path}: there is no such folder")
    with _guard:
        for name, found in _found.items():
            if os.path.dirname(found) != path:
                raise LibraryNotFound(f"cannot load the libraries from {path}: {found or name} is loaded already")
        _folder = path


def file_name(library: str, windows: bool = WINDOWS) -> str:
    """The file of a library: kzmshmnm is libkzmshmnm.so.1 on Linux and kzmshmnm.dll on Windows."""
    return f"{library}.dll" if windows else f"lib{library}.so.1"


def candidates(library: str, windows: bool = WINDOWS) -> List[str]:
    """Where a library may be, in order. A file without a folder is looked for in the system's paths."""
    file = file_name(library, windows)
    if _folder is not None:
        return [os.path.join(_folder, file)]
    named = [folder for folder in os.environ.get(VARIABLE, "").split(os.pathsep) if folder]
    if named:
        return [os.path.join(os.path.abspath(folder), file) for folder in named]
    return [file, os.path.join(PACKAGE, file)]


def _open(path: str, kind: Type[ctypes.CDLL], windows: bool) -> ctypes.CDLL:
    folder = os.path.dirname(path)
    if windows and folder:
        # The DLLs that this one needs are beside it. Without this call Windows looks for them elsewhere only.
        _dll_folders.append(getattr(os, "add_dll_directory")(folder))
    return kind(path)


def load(library: str, kind: Type[ctypes.CDLL] = ctypes.CDLL, windows: bool = WINDOWS) -> ctypes.CDLL:
    """A library, from the first place that has it. The same file is used for the rest of the process.

    Raises `LibraryNotFound`, which lists the places and what was wrong with each.
    """
    with _guard:
        if library in _found:
            return kind(_found[library] or file_name(library, windows))
        reasons = []
        for path in candidates(library, windows):
            if os.path.dirname(path) and not os.path.isfile(path):
                reasons.append(f"{path}: no such file")
                continue
            try:
                opened = _open(path, kind, windows)
            except OSError as error:
                reasons.append(f"{path}: {error}")
                continue
            _found[library] = path
            return opened
    raise LibraryNotFound(
        f"cannot load {file_name(library, windows)}; install it or set {VARIABLE} to its folder. Tried: " + "; ".join(reasons)
    )
