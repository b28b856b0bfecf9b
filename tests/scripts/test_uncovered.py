#!/usr/bin/env python3
"""What scripts/uncovered says to a small source file, its counts and explanations."""

import json
import subprocess
import tempfile
import unittest
from pathlib import Path

UNCOVERED = Path(__file__).resolve().parents[2] / "scripts" / "uncovered"

SOURCE = """\
if (a || b) {
  return 1;
}
if (c) {
  return 1;
}
"""


def line(number, count, *branches):
    return {"line_number": number, "count": count, "branches": [{"count": taken} for taken in branches]}


class UncoveredTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "source.cpp").write_text(SOURCE)

    def check(self, counts, lines="", branches=""):
        """Its exit status and what it prints."""
        files = [{"file": "source.cpp", "lines": counts}]
        (self.folder / "counts").write_text(json.dumps({"files": files}))
        (self.folder / "lines").write_text(lines)
        (self.folder / "branches").write_text(branches)
        run = subprocess.run([UNCOVERED, "counts", "lines", "branches"], cwd=self.folder,
                             capture_output=True, text=True, timeout=60)
        return run.returncode, run.stdout + run.stderr

    def test_says_nothing_where_everything_ran(self):
        self.assertEqual((0, ""), self.check([line(1, 3, 1, 2), line(2, 1)]))

    def test_prints_what_is_explained_with_its_reason(self):
        status, text = self.check(
            [line(1, 3, 1, 0, 0, 2), line(2, 0)],
            "# A comment.\n\nsource.cpp | return 1; | 1 | Nobody wants it.\n",
            "source.cpp | if (a || b) { | 2 | Made by the compiler.\n")
        self.assertEqual(0, status)
        self.assertEqual("source.cpp:2: not reached: `return 1;`: Nobody wants it.\n"
                         "source.cpp:1: not taken (2): `if (a || b) {`: Made by the compiler.\n", text)

    def test_fails_for_a_line_without_an_explanation(self):
        status, text = self.check([line(2, 0)], branches="")
        self.assertEqual((1, "source.cpp:2: not reached: `return 1;`: NOT EXPLAINED\n"), (status, text))

    def test_fails_for_a_branch_without_an_explanation(self):
        status, text = self.check([line(4, 3, 3, 0)])
        self.assertEqual((1, "source.cpp:4: not taken: `if (c) {`: NOT EXPLAINED\n"), (status, text))

    def test_an_explanation_of_a_line_is_none_of_its_branches(self):
        status, text = self.check([line(4, 0, 0, 0)], "source.cpp | if (c) { | 1 | Why.\n")
        self.assertEqual(1, status)
        self.assertIn("source.cpp:4: not taken (2): `if (c) {`: NOT EXPLAINED\n", text)

    def test_fails_for_one_more_than_are_explained(self):
        status, text = self.check([line(1, 3, 0, 0, 3)],
                                  branches="source.cpp | if (a || b) { | 1 | Why.\n")
        self.assertEqual(1, status)
        self.assertIn("not taken (2): `if (a || b) {`: 1 EXPLAINED: Why.", text)

    def test_fails_for_one_less_than_are_explained(self):
        status, _ = self.check([line(1, 3, 0, 1, 3)],
                               branches="source.cpp | if (a || b) { | 2 | Why.\n")
        self.assertEqual(1, status)

    def test_fails_for_an_explanation_of_what_runs_or_is_not_there(self):
        for code in "if (c) {", "if (d) {":
            row = f"source.cpp | {code} | 1 | Why.\n"
            for explanations in {"lines": row}, {"branches": row}:
                status, text = self.check([line(4, 3, 1, 2)], **explanations)
                self.assertEqual(1, status)
                self.assertIn(f"`{code}`: NOT SO, OR NO SUCH LINE", text)

    def test_lines_with_the_same_code_are_counted_together(self):
        counts = [line(2, 0), line(5, 0)]
        self.assertEqual((0, "source.cpp:2,5: not reached (2): `return 1;`: Why.\n"),
                         self.check(counts, "source.cpp | return 1; | 2 | Why.\n"))
        self.assertEqual(1, self.check(counts, "source.cpp | return 1; | 1 | Why.\n")[0])

    def test_lines_that_are_no_code_for_gcovr_do_not_count(self):
        self.assertEqual((0, ""), self.check([{**line(2, 0, 0, 0), "gcovr/noncode": True}]))

    def test_refuses_two_explanations_of_the_same(self):
        row = "source.cpp | if (c) { | 1 | Why.\n"
        status, text = self.check([line(4, 3, 3, 0)], branches=row + row)
        self.assertEqual((1, "branches: `if (c) {` of source.cpp is explained twice\n"), (status, text))


if __name__ == "__main__":
    unittest.main()
