#!/usr/bin/env python3
"""When deploy's prepare has a node forget its log before it starts."""
import contextlib
import http.client
import io
import itertools
import os
import tempfile
import unittest
import unittest.mock
import urllib.error

from watch_test import load

prepare = load("nats-server-prepare")


def page(leader, stream="REPORTS", last=7, **heard_s):
    """Of a node that knows of the others named, and has heard of them so many seconds ago."""
    others = [{"name": name, "active": int(seconds * 1e9)} for name, seconds in heard_s.items()]
    detail = {"name": stream, "cluster": {"leader": leader, "replicas": others}, "state": {"last_seq": last},
              "config": {"num_replicas": 3}}
    return {"account_details": [{"stream_detail": [detail]}]}


def leads(last=7, **heard_s):
    return page("n2", last=last, **(heard_s or {"n1": 60, "n3": 0.1}))


def follows(last=7):
    return page("n2", last=last, n1=60, n2=0.1)


class PrepareTest(unittest.TestCase):
    def test_majority_without_it(self):
        def verdict(n2, n3):
            return prepare.Judge("n1", 3).verdict({"n2": n2, "n3": n3})
        self.assertEqual("forget", verdict(leads(), follows()))
        for why, n2, n3 in (("the leader has no other", leads(n1=60, n3=60), follows()),
                            ("it is needed", leads(n1=0.1, n3=60), follows()),
                            ("the other has not caught up", leads(8), follows(7)),
                            ("the other's page is not seen", leads(), None),
                            ("the other has lost the stream", leads(), page("n2", "OTHER", n1=60, n2=0.1)),
                            ("nobody says that it leads", None, follows()),
                            ("a node that starts says that it leads", page("n2"), page("n3")),
                            ("another stream has no leader", leads(), {"account_details": [
                                {"stream_detail": follows()["account_details"][0]["stream_detail"] + page(
                                    "", "OTHER", n1=0, n2=0)["account_details"][0]["stream_detail"]}]})):
            self.assertEqual("wait", verdict(n2, n3), why)

    def test_other_catches_up_with_what_the_leader_had_at_first(self):
        judge = prepare.Judge("n1", 3)
        for leader_has, other_has, expected in ((100, 60, "wait"), (160, 99, "wait"), (260, 100, "forget")):
            self.assertEqual(expected, judge.verdict({"n2": leads(leader_has), "n3": follows(other_has)}))

    def test_log_is_set_aside(self):
        with tempfile.TemporaryDirectory() as store:
            groups = os.path.join(store, "jetstream", "$SYS", "_js_")
            for group in ("_meta_", "S-R3F-x", "C-R3F-y"):
                os.makedirs(os.path.join(groups, group))
                open(os.path.join(groups, group, "tav.idx"), "w").close()
            for start in ("first", "second"):
                for group in ("_meta_", "S-R3F-x", "C-R3F-y"):
                    os.makedirs(os.path.join(groups, group, "msgs"), exist_ok=True)
                    open(os.path.join(groups, group, "msgs", start), "w").close()
                with contextlib.redirect_stderr(io.StringIO()):
                    prepare.forget(store)
                self.assertEqual(["forgotten", "tav.idx"], sorted(os.listdir(os.path.join(groups, "S-R3F-x"))),
                                 "its vote stays")
                self.assertEqual([start], os.listdir(os.path.join(groups, "S-R3F-x", "forgotten")))
            for group in ("_meta_", "C-R3F-y"):
                self.assertEqual(["msgs", "tav.idx"], sorted(os.listdir(os.path.join(groups, group))))

    def test_what_a_look_tells(self):
        def asked(error):
            with unittest.mock.patch.object(prepare.urllib.request, "urlopen", side_effect=error):
                return prepare.look("http://one")
        self.assertEqual({}, asked(urllib.error.URLError(ConnectionRefusedError())), "down")
        self.assertEqual({}, asked(urllib.error.HTTPError("http://one", 503, "", {}, io.BytesIO())), "not yet up")
        for unknown in (urllib.error.URLError(TimeoutError()), TimeoutError(), ConnectionResetError(), ValueError(),
                        http.client.IncompleteRead(b"")):
            self.assertIsNone(asked(unknown))

    def test_who_starts_without_a_majority(self):
        up, down, cut_off = page("", n1=60, n2=60, n3=60), {}, None
        for name, looks, expected in (
                ("n1", {"n2": down, "n3": down}, "start"),
                ("n2", {"n1": down, "n3": down}, "start"),
                ("n3", {"n1": down, "n2": down}, "wait"),
                ("n1", {"n2": down, "n3": up}, "start"),
                ("n2", {"n1": down, "n3": up}, "wait"),
                ("n3", {"n1": up, "n2": down}, "wait"),
                ("n1", {"n2": up, "n3": up}, "wait"),
                ("n1", {"n2": cut_off, "n3": down}, "start"),
                ("n1", {"n2": cut_off, "n3": cut_off}, "wait"),
                ("n3", {"n1": cut_off, "n2": up}, "wait"),
                ("n1", {"n2": cut_off, "n3": page("n1", n1=60, n2=0.1)}, "start"),
                ("n1", {"n2": cut_off, "n3": follows()}, "wait")):
            self.assertEqual(expected, prepare.Judge(name, 3).verdict(looks), (name, looks))

    def test_never_one_more_than_a_majority(self):
        """Whoever is up already, and in whatever order the others come and start."""
        for count in (3, 5):
            names = [f"n{i}" for i in range(count)]
            majority = count // 2 + 1
            leaderless = page("", **dict.fromkeys(names, 60))
            for left in range(majority):
                for first in itertools.combinations(names, left):
                    reached, open_states = set(), [frozenset(first)]
                    while open_states:
                        up = open_states.pop()
                        if up in reached:
                            continue
                        reached.add(up)
                        starting = {name for name in set(names) - up if "start" == prepare.Judge(name, count).verdict(
                            {other: leaderless if other in up else {} for other in names if other != name})}
                        self.assertLessEqual(len(up | starting), majority, (first, up))
                        self.assertTrue(len(up) == majority or starting, (first, up))
                        open_states += [up | {name} for name in starting]

    def test_it_does_not_wait_for_ever(self):
        up = page("", n1=60, n2=60)
        both = {"n1": page("n2", n2=0.1, n3=60), "n2": page("n2", n1=0.1, n3=60)}
        for why, pages, waited_s in (
                ("nobody comes", lambda now: {}, prepare.DOWN_S),
                ("one comes", lambda now: {"n1": up if now >= 20 else {}, "n2": {}}, 20 + prepare.DOWN_S),
                ("both come late", lambda now: both if now >= 29 else {"n1": {}, "n2": {}}, 29),
                ("nobody is elected", lambda now: up, prepare.LIMIT_S),
                ("one comes and goes", lambda now: {"n1": up, "n2": up if now // 20 % 2 else {}}, prepare.LIMIT_S),
                ("who leads is not reached", lambda now: {"n1": both["n1"], "n2": None}, prepare.LIMIT_S),
                ("nothing is reached", lambda now: None, prepare.LIMIT_S),
                ("they are reached again", lambda now: both if now >= 100 else None, 100)):
            self.assertEqual(waited_s, self.waited_s(pages), why)

    def test_nothing_to_forget(self):
        self.assertEqual(0, self.waited_s(lambda now: {}, group="C-R3F-y"))

    @staticmethod
    def waited_s(pages, group="S-R3F-x"):
        """How long the last of three nodes waits; `pages`: what a look finds then, at one of the others or at each."""
        now = [1000]

        def look(name):
            found = pages(now[0] - 1000)
            return found[name] if found and name in found else found
        with contextlib.ExitStack() as stack:
            store = stack.enter_context(tempfile.TemporaryDirectory())
            os.makedirs(os.path.join(store, "jetstream", "$SYS", "_js_", group, "msgs"))
            stack.enter_context(contextlib.redirect_stderr(io.StringIO()))
            patch = unittest.mock.patch.object
            stack.enter_context(patch(prepare, "look", look))
            stack.enter_context(patch(prepare.time, "monotonic", lambda: now[0]))
            stack.enter_context(patch(prepare.time, "sleep", lambda s: now.__setitem__(0, now[0] + s)))
            prepare.main(store, "n3", {name: name for name in ("n1", "n2", "n3")})
        return now[0] - 1000

    def test_words_of_its_command_line(self):
        self.assertEqual({"one": "http://a:1", "two": "http://b:1"}, prepare.parsed(["one=http://a:1", "two=http://b:1/"]))
        for words in (["http://a:1"], ["one="], ["=http://a:1"]):
            self.assertIsNone(prepare.parsed(words))


if __name__ == "__main__":
    unittest.main()
