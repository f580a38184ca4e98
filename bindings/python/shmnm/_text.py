"""Names: any bytes but NUL in the region, text in Python."""

from __future__ import annotations

import re
from urllib.parse import unquote_to_bytes

_UNUSUAL = re.compile(rb"[^A-Za-z0-9_.:@+,-]")


def encoded(name: str) -> bytes:
    """A name's bytes: UTF-8, and what `decoded` could not decode as it was."""
    if not isinstance(name, str):
        raise TypeError(f"a name must be str, not {type(name).__name__}")
    data = name.encode("utf-8", "surrogateescape")
    if b"\0" in data:
        raise ValueError(f"a name cannot contain a NUL: {name!r}")
    return data


def decoded(data: bytes) -> str:
    """The text of a name. Bytes that are not UTF-8 become surrogates, so that `encoded` gives them back."""
    return data.decode("utf-8", "surrogateescape")


def escaped(name: str) -> str:
    """A name as it stands in keys: every byte but letters, digits and ``-_.:@+,`` is ``%XX``. Safe to print."""
    return _UNUSUAL.sub(lambda byte: b"%%%02X" % ord(byte.group()), encoded(name)).decode("ascii")


def unescaped_bytes(text: str) -> bytes:
    """The bytes of an escaped name or description."""
    return unquote_to_bytes(text)


def unescaped(text: str) -> str:
    """The name of an escaped name."""
    return decoded(unquote_to_bytes(text)) if "%" in text else text
