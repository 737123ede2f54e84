"""The reporter, and what it says."""
from __future__ import annotations

import ctypes
import dataclasses
import enum
import itertools
import math
import os
import time
import weakref
from types import TracebackType
from typing import Any, Callable, Literal, NoReturn

from quenor import _library, _process
from quenor._errors import BadOption, Forked, Stopped, check
from quenor._library import c, text
from quenor._values import MOST_32, Path, encoded, number

Cache = Literal["none", "file", "mapped"]
Durability = Literal["process", "started", "on_disk"]

_CACHES = (None, "none", "file", "mapped")  # As the C interface counts them.
_DURABILITIES = (None, "process", "started", "on_disk")
_SLICE_S = 0.1  # A wait comes back so often for signals, such as Ctrl-C.
_CALL_PATIENCE_S = 1.0  # Far above any call's time, on a busy machine, too.


class State(enum.IntEnum):
    """What becomes of a message."""
    LOADED = 0  # An earlier run had kept it. It has a new id.
    ADMITTED = 1  # In the store.
    SENT = 2  # On its way, for the `sends`-th time.
    FAILED = 3  # That attempt failed; it is sent again unless an end follows.
    ACKNOWLEDGED = 4  # The server has answered 200. An end, like all that follow.
    REJECTED = 5  # Given up: the server refuses it for good.
    DROPPED = 6  # Given up for the reason that `cause` names.
    KEPT = 7  # On disk when the reporter stopped; the next run sends it.


@dataclasses.dataclass(frozen=True)
class Update:
    id: int
    state: State
    cause: str  # "resend_limit", ...; "none".
    status_code: int  # FAILED: the HTTP status, or 0.
    sends: int
    reason: str  # FAILED: "refused", "tls_expired", ...; else "none".


@dataclasses.dataclass(frozen=True)
class Tuning:
    send_interval_ms: int  # 0: none.
    send_limit: int
    report_interval_ms: int  # How often the server wants a report.


@dataclasses.dataclass(frozen=True)
class Outcome:
    """Of all messages since the reporter was made; the last two as things stand."""
    acknowledged: int
    rejected: int  # By the server, for good.
    dropped: int  # Lost: at a limit, or in memory only when the reporter stopped.
    kept: int  # Not acknowledged, and on disk.
    out: int  # Not acknowledged, and in memory only.

    @property
    def all_delivered(self) -> bool:
        return self.rejected + self.dropped + self.kept + self.out == 0


def _choice(name: str, value: str | None, choices: tuple[str | None, ...]) -> int:
    if value not in choices:
        raise BadOption(f"{name}: {value!r} is none of {', '.join(filter(None, choices))}")
    return choices.index(value)


def _milliseconds(name: str, seconds: float) -> int:
    if not seconds >= 0:
        raise ValueError(f"{name}: {seconds!r} seconds is no time to wait; give 0 or more")
    return math.ceil(min(seconds * 1000, MOST_32))


class Reporter:
    """Hands reports to a collection server and says what became of them.

        with quenor.Reporter("usage", "https://collector.example/reports") as reporter:
            reporter.send(b"started")

    Threads: any. The end of a `with` is `stop(exit_timeout_s)`. One that nobody has any more is
    stopped, and so are all at the end of the process, in both cases without waiting. In a forked
    child a reporter of the parent's raises `Forked`; see for_this_process().

    send_limit: a message that has failed so often is dropped; None: never.
    send_interval_ms: one message in so many, at least 100; 0: no interval.
    cache, durability, folder, proxy_*, *_file, require_tls: what all reporters of a process share.
    The first one fixes it, a later one that differs is refused. None: as it is set.
    on_update, on_tuning: on the reporter's thread, which waits for them: they must not block. They
    may use the reporter, and may be called before its constructor has returned. What they raise is
    logged.
    """

    def __init__(self, name: str, url: str, *, http2: bool = True, compress: bool = False,
                 send_limit: int | None = None, send_interval_ms: int = 0,
                 cache: Cache | None = None, durability: Durability | None = None,
                 folder: Path | None = None, proxy_host: str | None = None, proxy_port: int = 0,
                 proxy_user: str | None = None, proxy_password: str | None = None,
                 ca_file: Path | None = None, client_certificate_file: Path | None = None,
                 client_key_file: Path | None = None, require_tls: bool = False,
                 on_update: Callable[[Update], object] | None = None,
                 on_tuning: Callable[[Tuning], object] | None = None,
                 exit_timeout_s: float = 2.0) -> None:
        self._arguments: dict[str, Any] = {key: value for key, value in locals().items()
                                           if key not in ("self", "__class__")}
        self._pid = os.getpid()
        self._handle: int | None = None
        self._calls: list[None] = []  # One for each that is under way: it may use the handle.
        self._is_stopped = False
        self._on_update, self._on_tuning = on_update, on_tuning
        self._exit_timeout_s = exit_timeout_s
        _milliseconds("exit_timeout_s", exit_timeout_s)
        options = _library.Options(
            size=ctypes.sizeof(_library.Options),
            name=encoded("name", name), url=encoded("url", url), http1_only=not http2,
            compress=bool(compress),
            send_limit=0 if send_limit is None else number("send_limit", send_limit, 1),
            send_interval_ms=number("send_interval_ms", send_interval_ms),
            cache=_choice("cache", cache, _CACHES),
            durability=_choice("durability", durability, _DURABILITIES),
            folder=encoded("folder", folder), proxy_host=encoded("proxy_host", proxy_host),
            proxy_port=number("proxy_port", proxy_port, most=65535),
            proxy_user=encoded("proxy_user", proxy_user),
            proxy_password=encoded("proxy_password", proxy_password),
            ca_file=encoded("ca_file", ca_file),
            client_certificate_file=encoded("client_certificate_file", client_certificate_file),
            client_key_file=encoded("client_key_file", client_key_file),
            require_tls=bool(require_tls))
        if on_update is not None:
            options.on_update = _tell_update
        if on_tuning is not None:
            options.on_tuning = _tell_tuning
        options.context = next(_contexts)
        _reporters[options.context] = self
        process = _process.this()
        process.begin()
        handle = ctypes.c_void_p()
        check(c.quenor_create(options, handle))
        assert handle.value is not None
        self._handle = handle.value
        self._process = process
        process.own(handle.value, self)
        if on_update is not None or on_tuning is not None:
            process.names_with_callbacks.add(text(options.name))

    def send(self, message: bytes | bytearray | memoryview, *, keep: bool = True,
             now: bool = False, delay: float = 0) -> int:
        """Copies the bytes and returns; never waits for network or disk. Answers the message's id.

        keep: on disk until the server has answered. now: ahead of all others; no effect while an
        interval is in force. delay: only then, in seconds; not together with `now`.
        """
        options = None
        if not keep or now or delay != 0:
            options = _library.SendOptions(
                size=ctypes.sizeof(_library.SendOptions), memory_only=not keep, now=bool(now),
                delay_ms=_milliseconds("delay", delay))
        if not isinstance(message, bytes):
            message = memoryview(message).tobytes()
        message_id = ctypes.c_uint64()
        self._call(c.quenor_send, message, len(message), options, message_id)
        return message_id.value

    def flush(self, timeout: float) -> Outcome:
        """Waits until every message has ended, for `timeout` seconds at most. Sending takes 0.1 s a
        message, or the interval in force. Delays that are not over are not waited for."""
        patience_s = _milliseconds("timeout", timeout) / 1000
        outcome = _new_outcome()
        end_s = time.monotonic() + patience_s
        while True:
            began_s = time.monotonic()
            slice_s = max(0.0, min(_SLICE_S, end_s - began_s))
            self._call(c.quenor_flush, math.ceil(slice_s * 1000), outcome)
            now_s = time.monotonic()
            if now_s >= end_s or now_s - began_s < slice_s:  # Over, or there was no need to wait.
                return _outcome_of(outcome)

    def stop(self, timeout: float = 0) -> Outcome:
        """The same, and nothing is taken or sent any more; 0.1 s longer at most."""
        self.flush(timeout)
        self._is_stopped = True
        outcome = _new_outcome()
        self._call(c.quenor_stop, 0, outcome)
        return _outcome_of(outcome)

    def outcome(self) -> Outcome:
        """As things stand; never waits."""
        outcome = _new_outcome()
        self._call(c.quenor_now, outcome)
        return _outcome_of(outcome)

    def set_send_interval(self, send_interval_ms: int) -> None:
        self._call(c.quenor_set_send_interval, number("send_interval_ms", send_interval_ms))

    def set_url(self, url: str) -> None:
        self._call(c.quenor_set_url, encoded("url", url))

    @property
    def report_interval_ms(self) -> int:
        """How often the server wants a report: 10000 until it says so."""
        interval_ms = ctypes.c_uint32()
        self._call(c.quenor_report_interval_ms, interval_ms)
        return interval_ms.value

    def for_this_process(self) -> Reporter:
        """Itself; in a child that was forked since, another with the same options."""
        return self if self._pid == os.getpid() else Reporter(**self._arguments)

    def end(self) -> None:
        """Stops without waiting, and for good: no callback begins any more. Nothing in a child."""
        handle = self._handle
        if self._pid != os.getpid() or handle is None or not self._process.disown(handle):
            return
        self._handle = None
        until_s = time.monotonic() + _CALL_PATIENCE_S
        while self._calls and time.monotonic() < until_s:
            time.sleep(0.001)
        if self._calls:  # It keeps the handle, which is then not destroyed.
            c.quenor_stop(handle, 0, None)
        else:
            c.quenor_destroy(handle)

    def _call(self, function: Callable[..., int], *arguments: Any) -> None:
        if self._pid != os.getpid():
            check(Forked.code)
        self._calls.append(None)
        try:
            handle = self._handle
            check(Stopped.code if handle is None else function(handle, *arguments))
        finally:
            self._calls.pop()

    def __enter__(self) -> Reporter:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        if self._pid == os.getpid() and not self._is_stopped:
            self.stop(self._exit_timeout_s)

    def __repr__(self) -> str:
        return f"<quenor.Reporter {self._arguments['name']!r}>"

    def __reduce__(self) -> NoReturn:
        raise TypeError("a reporter cannot go to another process; create one there")


def _new_outcome() -> _library.Outcome:
    return _library.Outcome(size=ctypes.sizeof(_library.Outcome))


def _outcome_of(outcome: _library.Outcome) -> Outcome:
    return Outcome(outcome.acknowledged, outcome.rejected, outcome.dropped, outcome.kept,
                   outcome.out)


# --- Callbacks ------------------------------------------------------------------------------------
# Two for all reporters, and for as long as the process lives: the library may come late, and then
# finds no reporter. The context is a number of which each reporter has one.

_contexts = itertools.count(1)
_reporters: weakref.WeakValueDictionary[int, Reporter] = weakref.WeakValueDictionary()


def _on_update(context: int, update: Any) -> None:
    reporter = _reporters.get(context)
    if reporter is None or reporter._on_update is None:
        return
    with _process.logging_errors("on_update"):
        told = update.contents
        has_reason = told.size >= ctypes.sizeof(_library.Update)  # An older library has none.
        reporter._on_update(Update(told.id, State(told.state), text(told.cause), told.status_code,
                                   told.sends, text(told.reason) if has_reason else "none"))


def _on_tuning(context: int, tuning: Any) -> None:
    reporter = _reporters.get(context)
    if reporter is None or reporter._on_tuning is None:
        return
    with _process.logging_errors("on_tuning"):
        told = tuning.contents
        reporter._on_tuning(Tuning(told.send_interval_ms, told.send_limit,
                                   told.report_interval_ms))


_tell_update = _library.ON_UPDATE(_on_update)
_tell_tuning = _library.ON_TUNING(_on_tuning)
