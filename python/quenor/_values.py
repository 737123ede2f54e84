"""Arguments of a host's on their way to the library: what cannot be is refused by its name."""
from __future__ import annotations

import os
from typing import Union

from quenor._errors import BadOption

Path = Union[str, "os.PathLike[str]"]

MOST_32 = 2**32 - 1


def number(name: str, value: int, least: int = 0, most: int = MOST_32) -> int:
    if not isinstance(value, int) or not least <= value <= most:
        raise BadOption(f"{name}: {value!r} is not a whole number from {least} to {most}")
    return value


def encoded(name: str, value: Path | bytes | None) -> bytes | None:
    """The value itself may be a secret, and is not shown."""
    if value is None:
        return None
    as_bytes = os.fsencode(value)
    if b"\0" in as_bytes:
        raise BadOption(f"{name}: there is a NUL in it; take it out")
    return as_bytes
