"""What goes wrong, a class for each code of the library's."""
from __future__ import annotations

from quenor._library import c, text


class Error(Exception):
    """Of all that the library refuses. `code` is the C interface's."""
    code = -1


class BadArgument(Error, ValueError):
    code = 1


class BadOption(Error, ValueError):
    """The text names the option, and says what to do."""
    code = 2


class Full(Error):
    """149 messages are out; try again when some have ended."""
    code = 3


class Empty(Error, ValueError):
    """A message without bytes."""
    code = 4


class TooLarge(Error, ValueError):
    """A message of more than 1 GiB."""
    code = 5


class NowAndDelay(Error, ValueError):
    code = 6


class Stopped(Error):
    code = 7


class NoMemory(Error, MemoryError):
    code = 8


class Forked(Error):
    """The reporter is the parent process's: `Reporter.for_this_process()` makes one."""
    code = 9


_BY_CODE = {kind.code: kind for kind in Error.__subclasses__()}


def check(code: int) -> None:
    """Raises what the library has answered, unless all is well."""
    if code == 0:
        return
    error = _BY_CODE.get(code, Error)(
        text(c.quenor_last_error() if code == BadOption.code else c.quenor_error_text(code)))
    error.code = code
    raise error
