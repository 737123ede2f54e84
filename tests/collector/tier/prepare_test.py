#!/usr/bin/env python3
"""When deploy's prepare has a node forget its log before it starts."""
import contextlib
import io
import os
import tempfile
import unittest
import unittest.mock
import urllib.error

from watch_test import load

prepare = load("nats-server-prepare")


def page(leader, stream="REPORTS", **heard_s):
    others = [{"name": name, "active": int(seconds * 1e9)} for name, seconds in heard_s.items()]
    detail = {"name": stream, "cluster": {"leader": leader, "replicas": others}}
    return {"account_details": [{"stream_detail": [detail]}]}


class PrepareTest(unittest.TestCase):
    def test_majority_without_it(self):
        leads = page("two", one=60, three=0.1)
        follows = page("two", two=0.1, one=60)
        self.assertTrue(prepare.goes_on_without("one", [leads, follows]))
        for why, pages in {"none is known": [], "nobody says that it leads": [follows],
                           "it leads itself": [page("one", two=0, three=0)],
                           "it is needed": [page("two", one=0.1, three=60)],
                           "nobody leads": [page("", one=0, two=0)],
                           "another stream has no leader": [leads, page("", "OTHER", one=0, two=0)]}.items():
            self.assertFalse(prepare.goes_on_without("one", pages), why)

    def test_log_is_moved(self):
        with tempfile.TemporaryDirectory() as store:
            groups = os.path.join(store, "jetstream", "$SYS", "_js_")
            for group in ("_meta_", "S-R3F-x", "C-R3F-y"):
                os.makedirs(os.path.join(groups, group, "msgs"))
                open(os.path.join(groups, group, "msgs", "1.blk"), "w").close()
                open(os.path.join(groups, group, "tav.idx"), "w").close()
            for _ in range(2):
                with contextlib.redirect_stderr(io.StringIO()):
                    prepare.forget(store)
                self.assertEqual(["tav.idx"], os.listdir(os.path.join(groups, "S-R3F-x")), "its vote stays")
            for group in ("_meta_", "C-R3F-y"):
                self.assertEqual(["msgs", "tav.idx"], sorted(os.listdir(os.path.join(groups, group))))

    def test_whether_it_waits(self):
        down = urllib.error.URLError(ConnectionRefusedError())
        with self.assertRaises(OSError):
            self.asked(urllib.error.URLError(TimeoutError()))
        self.assertIsNone(self.asked(down))

    @staticmethod
    def asked(error):
        def refuse(*_, **__):
            raise error
        with unittest.mock.patch.object(prepare.urllib.request, "urlopen", refuse):
            return prepare.look("http://one")


if __name__ == "__main__":
    unittest.main()
