#!/usr/bin/env python3
"""What the rules of scripts/generated_mutants.py find, and how it stands behind its switch."""
import collections
import contextlib
import io
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
sys.dont_write_bytecode = True
import generated_mutants as generated  # noqa: E402

SOURCE = '''\
void Room::Leave(int count) {
  std::vector<int> kept = Names("a < b");  // if (c == d)
  if (count <= kMost) return;
  for (int i = 0; i < count; ++i) {
    if (auto* seat = Find(i)) seat->Clear();
  }
  held_ = 0;
  bell_.Ring();  // Once.
  return true;
}
'''


def found(kind):
    return [m for m in generated.candidates("room.cc", SOURCE) if m.kind == kind]


def switched(mutant, number=7):
    mutant.number = number
    return generated.instrument(SOURCE, [mutant]).split("\n")


class Rules(unittest.TestCase):
    def test_finds_each_kind_where_it_stands_and_nowhere_else(self):
        lines = {kind: [m.line + 1 for m in found(kind)]
                 for kind in ("bound", "equality", "branch", "return", "drop", "unreset", "order")}

        self.assertEqual(lines, {"bound": [3, 4], "equality": [], "branch": [3], "return": [9],
                                 "drop": [8], "unreset": [7], "order": []})

    def test_a_bound_keeps_its_place_in_the_expression(self):
        line = switched(found("bound")[0])[2]

        self.assertEqual(line, "  if (count < quenor_mutants::Operator<7, quenor_mutants::LessEqual, "
                               "quenor_mutants::Less>() < kMost) return;")

    def test_a_dropped_statement_keeps_the_comment_behind_it(self):
        line = switched(found("drop")[0])[7]

        self.assertEqual(line, "  { if (!quenor_mutants::On(7)) bell_.Ring(); }  // Once.")

    def test_exchanged_statements_keep_their_lines(self):
        source = "void F() {\n  a.Go();\n  b = 1;\n}\n"
        order = [m for m in generated.candidates("f.cc", source) if m.kind == "order"]
        order[0].number = 3

        self.assertEqual(generated.instrument(source, order), "void F() {\n  if (!quenor_mutants::On(3)) { "
                         "a.Go();\n  b = 1; } else { b = 1; a.Go(); }\n}\n")

    def test_a_draw_repeats_itself_and_takes_a_line_once(self):
        files = ["quenor_base/data_report/https/reliable_report_channel_https.cc"]
        one, total = generated.draw(files, 50, seed=1, patterns="")
        two, _ = generated.draw(files, 50, seed=1, patterns="")

        self.assertEqual([m.key() for m in one], [m.key() for m in two])
        self.assertEqual(50, len(one))
        self.assertLess(50, total)
        taken = [line for m in one for line in m.lines()]
        self.assertEqual(len(taken), len(set(taken)))

    def test_three_in_four_of_what_is_not_explained_must_be_killed(self):
        mutants = found("bound") + found("drop") + found("unreset") + found("return")
        for number, mutant in enumerate(mutants):
            mutant.number = number
        last = {"room.cc": {("return", "return true;"): "Why."}}
        for killed, explained, code, said in (
                (5, {}, 0, "5 of 5 killed, 0 explained, 0 survived"),
                (4, {}, 0, "4 of 5 killed, 0 explained, 1 survived"),
                (3, {}, 1, "3 of 5 killed, 0 explained, 2 survived"),
                (3, last, 0, "3 of 5 killed, 1 explained, 1 survived")):
            results = {m.number: ("a test" if m.number < killed else None, 1, 1) for m in mutants}
            with contextlib.redirect_stdout(io.StringIO()) as out:
                got = generated.table(mutants, results, collections.defaultdict(dict, explained), 9, 0)

            self.assertEqual((code, f"generated: {said}; at least three in four are asked for"),
                             (got, out.getvalue().splitlines()[-1]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
