"""The shared library, and its structures as the headers quenor/reporter.h and network.h have them."""
from __future__ import annotations

import ctypes
import os
import pathlib
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint16, c_uint32, c_uint64, c_void_p

FILE = "libquenor.so.0"
VARIABLE = "QUENOR_LIBRARY"
OWN = pathlib.Path(__file__).with_name(FILE)  # In a wheel.


class Update(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("id", c_uint64), ("state", c_int), ("cause", c_char_p),
                ("status_code", c_int), ("sends", c_uint32), ("reason", c_char_p)]


class Tuning(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("send_interval_ms", c_uint32), ("send_limit", c_uint32),
                ("report_interval_ms", c_uint32)]


# Each call of these takes the interpreter's lock, on whichever thread of the library's it comes.
ON_UPDATE = ctypes.CFUNCTYPE(None, c_void_p, POINTER(Update))
ON_TUNING = ctypes.CFUNCTYPE(None, c_void_p, POINTER(Tuning))
FRESH_HEADERS = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p)
KEY_PASSPHRASE = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p, c_size_t)
ON_LOG = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_char_p, c_int, c_char_p, c_size_t)


class Options(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("name", c_char_p), ("url", c_char_p), ("http1_only", c_int),
                ("compress", c_int), ("send_limit", c_uint32), ("send_interval_ms", c_uint32),
                ("cache", c_int), ("durability", c_int), ("folder", c_char_p),
                ("proxy_host", c_char_p), ("proxy_port", c_uint16), ("proxy_user", c_char_p),
                ("proxy_password", c_char_p), ("ca_file", c_char_p),
                ("client_certificate_file", c_char_p), ("client_key_file", c_char_p),
                ("require_tls", c_int), ("on_update", ON_UPDATE), ("on_tuning", ON_TUNING),
                ("context", c_void_p)]


class SendOptions(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("memory_only", c_int), ("now", c_int), ("delay_ms", c_uint32)]


class Outcome(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("acknowledged", c_uint64), ("rejected", c_uint64),
                ("dropped", c_uint64), ("kept", c_uint64), ("out", c_uint64)]


class Header(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p)]


class Http(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("ca_file", c_char_p), ("ca_folder", c_char_p),
                ("ca_pem", c_char_p), ("pinned_public_keys", POINTER(c_char_p)),
                ("pinned_public_key_count", c_size_t), ("client_certificate_file", c_char_p),
                ("client_certificate_pem", c_char_p), ("client_key_file", c_char_p),
                ("client_key_pem", c_char_p), ("key_passphrase", KEY_PASSPHRASE),
                ("user_agent", c_char_p), ("connect_timeout_ms", c_uint32),
                ("total_timeout_ms", c_uint32), ("low_speed_bytes_per_second", c_uint32),
                ("low_speed_seconds", c_uint32), ("max_response_body_bytes", c_uint32),
                ("max_response_header_bytes", c_uint32), ("max_connections_per_host", c_uint32),
                ("require_tls", c_int), ("close_idle_connections", c_int),
                ("headers", POINTER(Header)), ("header_count", c_size_t),
                ("fresh_headers", FRESH_HEADERS), ("context", c_void_p), ("proxy_url", c_char_p),
                ("proxy_user", c_char_p), ("proxy_password", c_char_p),
                ("proxy_ca_file", c_char_p), ("proxy_except", POINTER(c_char_p)),
                ("proxy_except_count", c_size_t), ("proxy_from_environment", c_int),
                ("connect_to", POINTER(c_char_p)), ("connect_to_count", c_size_t)]


class Thrift(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("bytes_per_second", c_uint64), ("bytes_per_day", c_uint64)]


class Spent(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("bytes", c_uint64), ("bytes_within_day", c_uint64),
                ("exchanges", c_uint64), ("connections", c_uint64), ("held_back", c_uint64)]


# Name: what it answers, what it takes.
FUNCTIONS = {
    "quenor_error_text": (c_char_p, [c_int]),
    "quenor_last_error": (c_char_p, []),
    "quenor_version": (c_char_p, []),
    "quenor_create": (c_int, [POINTER(Options), POINTER(c_void_p)]),
    "quenor_destroy": (None, [c_void_p]),
    "quenor_send": (c_int, [c_void_p, c_char_p, c_size_t, POINTER(SendOptions),
                            POINTER(c_uint64)]),
    "quenor_flush": (c_int, [c_void_p, c_uint32, POINTER(Outcome)]),
    "quenor_stop": (c_int, [c_void_p, c_uint32, POINTER(Outcome)]),
    "quenor_now": (c_int, [c_void_p, POINTER(Outcome)]),
    "quenor_set_send_interval": (c_int, [c_void_p, c_uint32]),
    "quenor_set_url": (c_int, [c_void_p, c_char_p]),
    "quenor_report_interval_ms": (c_int, [c_void_p, POINTER(c_uint32)]),
    "quenor_metrics": (c_size_t, [c_void_p, c_size_t]),
    "quenor_set_log": (None, [ON_LOG, c_void_p]),
    "quenor_set_http": (c_int, [c_char_p, POINTER(Http)]),
    "quenor_reset_http": (c_int, [c_char_p]),
    "quenor_add_header": (c_int, [c_void_p, c_char_p, c_char_p]),
    "quenor_withdraw_fresh_headers": (c_size_t, [FRESH_HEADERS]),
    "quenor_network_changed": (None, []),
    "quenor_watch_network": (c_int, [c_int]),
    "quenor_set_thrift": (c_int, [POINTER(Thrift)]),
    "quenor_get_spent": (c_int, [POINTER(Spent)]),
}


def _place() -> str:
    """A wheel carries it beside this file; else the environment names it, or the system has it."""
    return str(OWN) if OWN.exists() else os.environ.get(VARIABLE) or FILE


def _load(place: str) -> ctypes.CDLL:
    try:
        # CDLL, not PyDLL: the interpreter's lock is given back while the library is at work.
        library = ctypes.CDLL(place)
        for name, (answer, arguments) in FUNCTIONS.items():
            function = getattr(library, name)
            function.restype, function.argtypes = answer, arguments
    except (OSError, AttributeError) as error:
        what = ("install libcurl4, libidn2-0, libssl3 and zlib1g, which the wheel's library needs" if place == str(OWN) else
                f"install libquenor0, or set {VARIABLE} to the path of {FILE}")
        raise ImportError(f"quenor: its library cannot be used: {error}; {what}") from None
    return library


c = _load(_place())


def text(value: bytes) -> str:
    return value.decode("utf-8", "replace")


def metrics() -> str:
    """The books of all reporters of the process as the text that monitoring systems scrape."""
    size = 0
    while True:
        buffer = ctypes.create_string_buffer(size + 1)
        needed: int = c.quenor_metrics(buffer, size + 1)
        if needed <= size:
            return text(buffer.raw[:needed])
        size = needed
