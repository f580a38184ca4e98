"""Enumerations of numbers, printed alike by every Python."""

import enum


class Number(enum.IntEnum):
    """A number with a name. Its text is the number, as it is by itself from Python 3.11 on."""

    def __str__(self) -> str:
        return str(self.value)

    def __format__(self, form: str) -> str:
        return format(self.value, form)
