#!/usr/bin/env python3
"""What makes deploy's watch kill a node, in virtual time."""
import importlib.machinery
import importlib.util
import pathlib
import socket
import sys
import unittest
import unittest.mock

DEPLOY = pathlib.Path(__file__).resolve().parents[3] / "deploy"


def load(name):
    """A script of deploy/ as a module."""
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), str(DEPLOY / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


watch = load("nats-server-watch")


def page(leader, **heard_s):
    """Of a node whose stream is led by `leader`, and which has heard of others so many seconds ago."""
    others = [{"name": name, "active": int(seconds * watch.NANOSECONDS)} for name, seconds in heard_s.items()]
    return {"meta_cluster": {"leader": "two"},
            "account_details": [{"stream_detail": [{"cluster": {"leader": leader, "replicas": others}}]}]}


class WatchTest(unittest.TestCase):
    def test_leads_alone(self):
        judge = watch.Watch().judge
        self.assertIsNone(judge(page("one", two=0.1, three=9), 1), "two of three are a majority")
        self.assertIsNone(judge(page("one", two=3, three=9), 2))
        self.assertIsNone(judge(page("two", two=9, three=9), 3), "it does not lead")
        self.assertIsNone(judge(page("", two=9, three=9), 4), "nobody does")
        self.assertIsNone(judge(page("one"), 5), "it is the only one")
        self.assertIsNone(judge({}, 6))
        self.assertIn("leads", judge(page("one", two=3.1, three=9), 7))
        alone = {"meta_cluster": page("one", two=4, three=4)["account_details"][0]["stream_detail"][0]["cluster"]}
        self.assertIn("leads", judge(alone, 8))

    def test_cut_off(self):
        judge = watch.Watch().judge
        follows = page("two", two=0.1, three=0.1)
        self.assertIsNone(judge(follows, 10, None), "no other was ever reached")
        self.assertIsNone(judge(follows, 12.9, 10))
        self.assertIn("cut off", judge(follows, 13, 10))
        self.assertIsNone(judge(None, 20, 10), "it starts again")
        self.assertIsNone(judge(follows, 40, 10), "it has just begun, and may hear of others yet")
        self.assertIsNone(judge(follows, 42.9, 10))
        self.assertIn("cut off", judge(follows, 43, 10))
        self.assertIsNone(judge(follows, 50, 49.9))

    def test_majority_of_five(self):
        self.assertFalse(watch.is_alone(page("one", two=0.1, three=0.1, four=9, five=9)))
        self.assertTrue(watch.is_alone(page("one", two=0.1, three=9, four=9, five=9)))

    def test_other_machines_are_reached_while_they_say_something(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            places = watch.addresses(f"http://localhost:{server.getsockname()[1]}")
            self.assertIn(server.getsockname(), places)
            self.assertTrue(watch.is_reached(places))
        self.assertTrue(watch.is_reached(places), "refused")
        self.assertEqual([], watch.addresses("http://name.invalid:1"))
        self.assertFalse(watch.is_reached([]))

    def test_name_is_asked_for_until_it_is_found_and_no_more(self):
        found = unittest.mock.Mock(side_effect=[[], ["somewhere"]])
        patch = unittest.mock.patch.object
        with patch(watch, "addresses", found), patch(watch, "is_reached", bool), \
                patch(watch.time, "sleep", unittest.mock.Mock(side_effect=[None, None, None, InterruptedError])), \
                patch(watch.time, "monotonic", lambda: 7):
            other = watch.Other("http://two:8222")
            self.assertRaises(InterruptedError, other.run)
        self.assertEqual((2, 7), (found.call_count, other.reached_at))

    def test_silent(self):
        judge = watch.Watch().judge
        self.assertIsNone(judge(None, 100), "it has not begun")
        self.assertIsNone(judge({}, 101))
        self.assertIsNone(judge(None, 103.9))
        self.assertIn("silent", judge(None, 104))
        self.assertIsNone(judge(None, 200), "once, until it answers again")
        self.assertIsNone(judge({}, 201))
        self.assertIn("silent", judge(None, 204))


if __name__ == "__main__":
    unittest.main()
