#!/usr/bin/env python3
"""What the package sets for the process's network: taken, refused by name, in force."""
import logging, pathlib, subprocess, sys, threading

import support
import proxies
from support import PATIENCE_S, STATE, wait_until

import quenor

ORIGIN = "https://collector.test"
EXAMPLE = support.HERE.parents[1] / "examples/behind_a_proxy_python/main.py"
# A reporter that is not Python's asks for headers, and is inside when the interpreter ends.
ENDS = """
import ctypes, sys, threading, time, quenor
from quenor._library import Options, c
inside = threading.Event()
def ask():
    inside.set()
    time.sleep(0.3)
    return {}
quenor.set_http("http://127.0.0.1:1", fresh_headers=ask)
reporter = ctypes.c_void_p()
options = Options(size=ctypes.sizeof(Options), name=b"ends", url=b"http://127.0.0.1:1/",
                  folder=sys.argv[1].encode())
assert c.quenor_create(options, reporter) == 0
assert c.quenor_send(reporter, b"x", 1, None, None) == 0
class Slow:  # So that the interpreter's end takes longer than the callback.
    def __del__(self, sleep=time.sleep): sleep(1)
sys.slow = Slow()
assert inside.wait(100)
"""


class NetworkTest(support.Case):
    def tearDown(self):
        quenor.set_http()
        quenor.reset_http(ORIGIN)
        quenor.set_thrift()
        super().tearDown()

    def test_what_cannot_be_is_refused(self):
        pem = pathlib.Path(self.folder, "no.pem")
        pem.write_text("none")
        for name, options in (
                ("ca_file", {"ca_file": "/nowhere"}), ("ca_file", {"ca_file": pem}),
                ("ca_folder", {"ca_folder": "/nowhere"}), ("ca_pem", {"ca_pem": b"none"}),
                ("ca_pem", {"ca_pem": "a\0b"}),
                ("pinned_public_keys", {"pinned_public_keys": ["md5//"]}),
                ("pinned_public_keys", {"pinned_public_keys": "sha256//"}),
                ("client_certificate_file", {"client_certificate_file": "/nowhere"}),
                ("client_certificate_pem", {"client_certificate_pem": "none"}),
                ("client_key_file", {"client_key_file": "/nowhere"}),
                ("client_key_pem", {"client_key_pem": "none"}),
                ("user_agent", {"user_agent": "a\nb"}),
                *((name, {name: value}) for value in (0, -1, 2**32, "1") for name in (
                    "connect_timeout_ms", "total_timeout_ms", "low_speed_bytes_per_second",
                    "low_speed_seconds", "max_response_body_bytes", "max_response_header_bytes",
                    "max_connections_per_host")),
                ("max_response_header_bytes", {"max_response_header_bytes": 2**20}),
                ("headers", {"headers": {"A": "b\r\nC: d"}}), ("headers", {"headers": {"A": "\0"}}),
                ("proxy_url", {"proxy_url": "http://p:1/path"}),
                ("proxy_user", {"proxy_url": "http://p:1", "proxy_user": "a:b"}),
                ("proxy_password", {"proxy_url": "http://p:1", "proxy_password": "s3cret"}),
                ("proxy_ca_file", {"proxy_ca_file": "/nowhere"}),
                ("proxy_except", {"proxy_url": "http://p:1", "proxy_except": ["a b"]}),
                ("proxy_except", {"proxy_except": "localhost"}),
                ("connect_to", {"connect_to": ["a b"]})):
            with self.subTest(options), self.assertRaises(quenor.BadOption) as caught:
                quenor.set_http(ORIGIN, **options)
            self.assertIn(name, str(caught.exception))
            self.assertNotIn("s3cret", str(caught.exception))
        for origin in ("", "collector.test", ORIGIN + "/path", "a\0b"):
            self.assertRaisesRegex(quenor.BadOption, "origin", quenor.set_http, origin)
        for name, value in (("bytes_per_second", 2**64), ("bytes_per_second", 2**63),
                            ("bytes_per_day", 1), ("bytes_per_day", -1)):
            with self.assertRaisesRegex(quenor.BadOption, name):
                quenor.set_thrift(**{name: value})
        self.assertRaises(TypeError, quenor.set_http, ORIGIN, headers={"A": 7})
        self.assertFalse(quenor.reset_http(ORIGIN))  # Nothing has changed.

    def test_settings_are_taken(self):
        support.make_certificates(self.folder, ["DNS:collector.test"])
        at = pathlib.Path(self.folder)
        subprocess.run(["openssl", "pkcs8", "-topk8", "-in", at / "server.key", "-out",
                        at / "closed.key", "-passout", "pass:open"], check=True)
        asked = []

        def passphrase(word):
            asked.append(word)
            if isinstance(word, Exception):
                raise word
            return word

        for word in ("wrong", LookupError("of the callback"), b"open"):
            options = dict(
                ca_file=at / "ca.pem", user_agent="python/1", headers={"A": "b", "C": ""},
                client_certificate_pem=(at / "server.pem").read_text(),
                client_key_file=at / "closed.key", key_passphrase=lambda: passphrase(word),
                proxy_url="socks5h://[::1]:1080", proxy_user="u", proxy_password="p",
                proxy_except=["localhost", "10.0.0.0/8"], keep_idle_connections=False,
                connect_timeout_ms=1000, connect_to=["collector.test:443:127.0.0.1"])
            if word == b"open":
                quenor.set_http(ORIGIN, **options)
            else:
                with self.assertRaisesRegex(quenor.BadOption, "key_passphrase"):
                    quenor.set_http(ORIGIN, **options)
        self.assertEqual(3, len(asked))
        self.assertTrue(quenor.reset_http(ORIGIN))
        self.assertFalse(quenor.reset_http(ORIGIN))
        quenor.network_changed()
        quenor.watch_network()
        quenor.watch_network(False)
        self.assertEqual(quenor.Spent(0, 0, 0, 0, 0), quenor.spent())

    def test_headers_that_cannot_be_had_hold_the_message_back(self):
        collector = self.collector()
        url = collector.url("127.0.0.1")
        may_answer, asked = threading.Event(), []

        def token():
            asked.append(None)
            if not may_answer.is_set():
                raise LookupError("no token yet")
            return {"Authorization": "t0ken"}

        with self.assertLogs("quenor", logging.ERROR) as logged:
            quenor.set_http(url.removesuffix("/reports"), fresh_headers=token)
            with quenor.Reporter("held", url, folder=STATE) as reporter:
                reporter.send(b"x")
                wait_until(lambda: len(asked) >= 3, "it is asked again")
                self.assertEqual(0, reporter.outcome().acknowledged)
                may_answer.set()
                self.assertEqual(1, reporter.flush(PATIENCE_S).acknowledged)
        self.assertEqual(1, sum("no token yet" in line for line in logged.output), logged.output)
        self.assertEqual(1, len(collector.all_records()))
        self.assertGreaterEqual(quenor.spent().exchanges, 1)
        quenor.set_thrift(bytes_per_day=16384)
        quenor.reset_http(url.removesuffix("/reports"))

    def test_no_callback_outlives_the_interpreter(self):
        for _ in range(3):
            self.run_program(ENDS)


class HostTest(proxies.ProxyCase):
    def test_host_with_a_header_through_a_proxy(self):
        self.check_host(sys.executable, "-B", str(EXAMPLE))


if __name__ == "__main__":
    support.main()
