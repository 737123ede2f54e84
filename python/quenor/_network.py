"""The network that a process lives in: proxies, certificates, headers, limits, what is spent."""
from __future__ import annotations

import ctypes
import dataclasses
import itertools
import time
from typing import Any, Callable, Mapping, Sequence, Union

from quenor import _library, _process
from quenor._errors import BadOption, check
from quenor._library import c
from quenor._values import Path, encoded, number

Pem = Union[str, bytes]

_MOST_64 = 2**64 - 1
_LOG_AGAIN_S = 60.0  # A request whose headers cannot be had is tried ten times a second.


@dataclasses.dataclass(frozen=True)
class Spent:
    bytes: int  # Since the process began, capped or not.
    bytes_within_day: int  # What counts for the day now.
    exchanges: int
    connections: int
    held_back: int  # How often a request had to wait for a cap.


class _FreshHeaders:
    def __init__(self, ask: Callable[[], Mapping[str, str]]) -> None:
        self.ask = ask
        self.logged_s: float | None = None

    def give(self, to: int) -> None:
        for name, value in self.ask().items():
            check(c.quenor_add_header(to, encoded("fresh_headers", name),
                                      encoded("fresh_headers", value)))

    def may_log(self) -> bool:
        now_s = time.monotonic()
        if self.logged_s is not None and now_s - self.logged_s < _LOG_AGAIN_S:
            return False
        self.logged_s = now_s
        return True


# The library has one function for all and for as long as the process lives. The context is a number
# of which each has one; those of an origin go with their settings, and the process's never, since
# older reporters keep to what was set before them.
_contexts = itertools.count(1)
_fresh_headers: dict[int, _FreshHeaders] = {}
_of_origins: dict[str, int] = {}


def _on_fresh_headers(context: int, to: int) -> int:
    """What is raised keeps the request from being sent: better late than without its headers."""
    fresh = _fresh_headers.get(context)
    if fresh is None:
        return 1
    try:
        fresh.give(to)
        return 0
    except BaseException as error:
        if fresh.may_log():
            _process.logger.error("fresh_headers has failed, and nothing is sent until it does not",
                                  exc_info=error)
        return 1


_give_fresh_headers = _library.FRESH_HEADERS(_on_fresh_headers)
_process.keep_away.append(lambda: int(c.quenor_withdraw_fresh_headers(_give_fresh_headers)))


def _passphrase_from(ask: Callable[[], Pem]) -> Any:
    def give(_context: int | None, place: int, size: int) -> int:
        with _process.logging_errors("key_passphrase"):
            passphrase = encoded("key_passphrase", ask())
            if passphrase is not None and len(passphrase) <= size:
                ctypes.memmove(place, passphrase, len(passphrase))
                return len(passphrase)
        return -1
    return _library.KEY_PASSPHRASE(give)


def _texts(name: str, values: Sequence[str]) -> tuple[Any, int]:
    if isinstance(values, (str, bytes)):
        raise BadOption(f"{name}: {values!r} is one text; give a list of them")
    return (ctypes.c_char_p * len(values))(*(encoded(name, value) for value in values)), len(values)


def _headers(headers: Mapping[str, str]) -> tuple[Any, int]:
    pairs = [_library.Header(encoded("headers", name), encoded("headers", value))
             for name, value in headers.items()]
    return (_library.Header * len(pairs))(*pairs), len(pairs)


def _limit(name: str, value: int | None) -> int:
    return 0 if value is None else number(name, value, 1)


def set_http(origin: str | None = None, *, ca_file: Path | None = None,
             ca_folder: Path | None = None, ca_pem: Pem | None = None,
             pinned_public_keys: Sequence[str] = (),
             client_certificate_file: Path | None = None, client_certificate_pem: Pem | None = None,
             client_key_file: Path | None = None, client_key_pem: Pem | None = None,
             key_passphrase: Callable[[], Pem] | None = None, user_agent: str | None = None,
             connect_timeout_ms: int | None = None, total_timeout_ms: int | None = None,
             low_speed_bytes_per_second: int | None = None, low_speed_seconds: int | None = None,
             max_response_body_bytes: int | None = None,
             max_response_header_bytes: int | None = None,
             max_connections_per_host: int | None = None, require_tls: bool = False,
             keep_idle_connections: bool = True, headers: Mapping[str, str] | None = None,
             fresh_headers: Callable[[], Mapping[str, str]] | None = None,
             proxy_url: str | None = None, proxy_user: str | None = None,
             proxy_password: str | None = None, proxy_ca_file: Path | None = None,
             proxy_except: Sequence[str] = (), proxy_from_environment: bool = False,
             connect_to: Sequence[str] = ()) -> None:
    """Has these, all of them, hold for `origin` ("https://HOST[:PORT]") from the next request on;
    or, without one, for all origins that have none of their own, from the next reporter on. What is
    left out takes its default. Raises `BadOption`, whose text names the argument; then nothing has
    changed.

    A first reporter with `ca_file`, `client_certificate_file` or `require_tls` replaces all that
    was set for the process; its `proxy_host`, a SOCKS5 proxy, wins over `proxy_url`.

    key_passphrase: asked inside this call, and only for an encrypted key.
    fresh_headers: headers that change, as a token that expires does; asked for each request, on its
    reporter's thread, which waits: it must not block. What it raises is logged, and the request is
    not sent: its message keeps its place, and is tried again.
    """
    http = _library.Http(
        size=ctypes.sizeof(_library.Http), ca_file=encoded("ca_file", ca_file),
        ca_folder=encoded("ca_folder", ca_folder), ca_pem=encoded("ca_pem", ca_pem),
        client_certificate_file=encoded("client_certificate_file", client_certificate_file),
        client_certificate_pem=encoded("client_certificate_pem", client_certificate_pem),
        client_key_file=encoded("client_key_file", client_key_file),
        client_key_pem=encoded("client_key_pem", client_key_pem),
        user_agent=encoded("user_agent", user_agent),
        connect_timeout_ms=_limit("connect_timeout_ms", connect_timeout_ms),
        total_timeout_ms=_limit("total_timeout_ms", total_timeout_ms),
        low_speed_bytes_per_second=_limit("low_speed_bytes_per_second",
                                          low_speed_bytes_per_second),
        low_speed_seconds=_limit("low_speed_seconds", low_speed_seconds),
        max_response_body_bytes=_limit("max_response_body_bytes", max_response_body_bytes),
        max_response_header_bytes=_limit("max_response_header_bytes", max_response_header_bytes),
        max_connections_per_host=_limit("max_connections_per_host", max_connections_per_host),
        require_tls=bool(require_tls), close_idle_connections=not keep_idle_connections,
        proxy_url=encoded("proxy_url", proxy_url), proxy_user=encoded("proxy_user", proxy_user),
        proxy_password=encoded("proxy_password", proxy_password),
        proxy_ca_file=encoded("proxy_ca_file", proxy_ca_file),
        proxy_from_environment=bool(proxy_from_environment))
    http.pinned_public_keys, http.pinned_public_key_count = _texts("pinned_public_keys",
                                                                   pinned_public_keys)
    http.proxy_except, http.proxy_except_count = _texts("proxy_except", proxy_except)
    http.connect_to, http.connect_to_count = _texts("connect_to", connect_to)
    http.headers, http.header_count = _headers(headers or {})
    if key_passphrase is not None:
        http.key_passphrase = _passphrase_from(key_passphrase)
    context = None
    if fresh_headers is not None:
        context = http.context = next(_contexts)
        http.fresh_headers = _give_fresh_headers
        _fresh_headers[context] = _FreshHeaders(fresh_headers)
    place = encoded("origin", origin)
    _process.this().begin()
    try:
        check(c.quenor_set_http(place, http))
    except BaseException:
        _forget(context)
        raise
    if origin is not None:
        _replace(origin, context)


def _forget(context: int | None) -> None:
    if context is not None:
        _fresh_headers.pop(context, None)


def _replace(origin: str, context: int | None) -> None:
    _forget(_of_origins.pop(origin, None))
    if context is not None:
        _of_origins[origin] = context


def reset_http(origin: str) -> bool:
    """Has the process's settings hold for `origin` again. False: it had none of its own."""
    had_some = bool(c.quenor_reset_http(encoded("origin", origin)))
    _replace(origin, None)
    return had_some


def network_changed() -> None:
    """The network may have changed, as the operating system tells: idle connections are closed, and
    what waits for a connection is tried at once. Never waits."""
    c.quenor_network_changed()


def watch_network(on: bool = True) -> None:
    """Watches for that by itself, or no longer; `BadOption`: it cannot."""
    check(c.quenor_watch_network(bool(on)))


def set_thrift(*, bytes_per_second: int = 0, bytes_per_day: int = 0) -> None:
    """Caps of what the process moves; 0: none. Over one a message keeps its place and waits."""
    check(c.quenor_set_thrift(_library.Thrift(
        ctypes.sizeof(_library.Thrift),
        number("bytes_per_second", bytes_per_second, most=_MOST_64),
        number("bytes_per_day", bytes_per_day, most=_MOST_64))))


def spent() -> Spent:
    """What the process has moved, in bytes and in numbers of exchanges and connections."""
    all_of_it = _library.Spent(size=ctypes.sizeof(_library.Spent))
    check(c.quenor_get_spent(all_of_it))
    return Spent(all_of_it.bytes, all_of_it.bytes_within_day, all_of_it.exchanges,
                 all_of_it.connections, all_of_it.held_back)
