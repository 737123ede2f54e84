"""What a process has one of: the way of the library's log lines to `logging`, the reporters that
are to be stopped before it ends, and what a fork goes through.

The library calls its log sink under a lock, on any of its threads. So the sink only puts the line
into a queue, and a thread passes it on: what a handler of `logging` waits for is nothing to the
library, and nothing of the library's is held while a handler sends a report.
"""
from __future__ import annotations

import atexit
import collections
import contextlib
import logging
import os
import queue
import sys
import threading
import time
import weakref
from typing import Callable, Iterator, NamedTuple, Protocol

from quenor._library import ON_LOG, c, metrics, text

logger = logging.getLogger("quenor")

# A callback that blocks is waited for so long at the process's end: a thread that the interpreter
# ends inside of one takes the process along.
_CALLBACK_PATIENCE_S = 5.0
_LOG_PATIENCE_S = 0.05


# Of callbacks that are no reporter's: each keeps further calls away, and answers how many still run.
keep_away: list[Callable[[], int]] = []


class Line(NamedTuple):
    created_s: float
    level: int
    file: bytes
    number: int
    text: bytes


class Endable(Protocol):
    def end(self) -> None: ...


class Process:
    """This one's; a forked child begins with another."""

    def __init__(self) -> None:
        self.pid = os.getpid()
        self.lock = threading.Lock()  # Of beginning, ending and forking.
        self.has_begun = False
        # The reporters by their handles. Who takes one out destroys it.
        self.owners: dict[int, weakref.ref[Endable]] = {}
        self.names_with_callbacks: set[str] = set()
        # Handles whose reporters nobody has any more. A garbage collection, which comes on any
        # thread at any moment, destroys nothing itself.
        self.dropped: collections.deque[int] = collections.deque()
        self.destroying = threading.Lock()
        # For the thread: a line; False, when something was dropped; None at the end.
        self.lines: queue.SimpleQueue[Line | bool | None] = queue.SimpleQueue()
        self.thread = threading.Thread(target=self._work, daemon=True, name="quenor-log")

    def begin(self) -> None:
        """Before each reporter is made, and whatever else may call back."""
        self.destroy_dropped()
        with self.lock:
            if self.has_begun:
                return
            self.thread.start()
            c.quenor_set_log(_sink, None)
            # A child of multiprocessing's ends without atexit.
            util = sys.modules.get("multiprocessing.util")
            if util is not None:
                util.Finalize(None, _end, exitpriority=-100)
            self.has_begun = True

    def end(self) -> None:
        """From here on the library calls nothing of the interpreter's."""
        if not self.has_begun or self.pid != os.getpid():
            return
        for handle, owner in list(self.owners.items()):
            reporter = owner()
            if reporter is not None:
                reporter.end()
            else:
                self._drop(handle)
        self.destroy_dropped()
        until_s = time.monotonic() + _CALLBACK_PATIENCE_S
        while self._may_call_back() and time.monotonic() < until_s:
            time.sleep(0.001)
        with self.lock:
            c.quenor_set_log(_no_sink, None)
            self.has_begun = False
        self.lines.put(None)
        self.thread.join(_LOG_PATIENCE_S)

    def _may_call_back(self) -> bool:
        """A reporter is in the books until its last callback has returned."""
        if any([act() for act in keep_away]):
            return True
        if not self.names_with_callbacks:
            return False
        books = metrics()
        return any(f'{{reporter="{_label(name)}"' in books
                   for name in list(self.names_with_callbacks))

    def own(self, handle: int, reporter: Endable) -> None:
        self.owners[handle] = weakref.ref(reporter, lambda _: self._drop(handle))

    def disown(self, handle: int) -> bool:
        return self.owners.pop(handle, None) is not None

    def _drop(self, handle: int) -> None:
        self.dropped.append(handle)
        self.lines.put(False)

    def destroy_dropped(self) -> None:
        with self.destroying:
            while self.dropped:
                handle = self.dropped.popleft()
                if self.disown(handle):
                    c.quenor_destroy(handle)

    def _work(self) -> None:
        while True:
            line = self.lines.get()
            if line is None:
                return
            if isinstance(line, Line):
                _pass_on(line)
            else:
                self.destroy_dropped()


def _label(name: str) -> str:
    return name.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")


def _pass_on(line: Line) -> None:
    level = logging.INFO if line.level == 0 else logging.WARNING
    if not logger.isEnabledFor(level):
        return
    record = logger.makeRecord(logger.name, level, text(line.file), line.number, "%s",
                               (text(line.text),), None)
    record.created = line.created_s
    record.msecs = line.created_s % 1 * 1000
    try:
        logger.handle(record)
    except Exception as error:  # A filter's. The next line may fare better.
        sys.excepthook(type(error), error, error.__traceback__)


_this = Process()


def this() -> Process:
    return _this


def _take_line(_context: int | None, level: int, file: bytes, number: int, line_text: bytes,
               _size: int) -> None:
    _this.lines.put(Line(time.time(), level, file, number, line_text))


_sink = ON_LOG(_take_line)  # For as long as the process lives.
_no_sink = ON_LOG(0)


def _end() -> None:
    _this.end()


# A fork may wait for a thread of the library's that logs, and Python holds the interpreter's lock
# meanwhile: that thread must not need it. What is logged during a fork goes to standard error.
def _before_fork() -> None:
    _this.lock.acquire()
    if _this.has_begun:
        c.quenor_set_log(_no_sink, None)


def _after_fork_in_parent() -> None:
    if _this.has_begun:
        c.quenor_set_log(_sink, None)
    _this.lock.release()


def _after_fork_in_child() -> None:
    global _this
    _this = Process()


atexit.register(_end)
os.register_at_fork(before=_before_fork, after_in_parent=_after_fork_in_parent,
                    after_in_child=_after_fork_in_child)


@contextlib.contextmanager
def logging_errors(name: str) -> Iterator[None]:
    """Around a callback of the host's: there is nobody who could catch what it raises."""
    try:
        yield
    except BaseException as error:
        logger.error("%s has failed", name, exc_info=error)
