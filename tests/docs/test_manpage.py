#!/usr/bin/env python3
"""The manual page and docs/featurehost.md against the help of the built executable.

Everything that the help tells of is in both. What they have beyond it is no error.
"""

import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

from test_completion import help_of

DOCS = Path(__file__).resolve().parents[2] / "docs"
PAGE = DOCS / "featurehost.1"

CANNOT_RUN = 77


def in_page(text):
    """The options and the commands that have an entry in the page."""
    entries = re.findall(r"^\.It Fl (.*)$", text, re.M)
    options = {"-" + name for entry in entries for name in re.findall(r"(?:^|Fl )(-?[\w-]+)", entry)}
    return options, set(re.findall(r"^\.It Cm (\w+)$", text, re.M))


class HelpTest(unittest.TestCase):
    def setUp(self):
        self.options, self.commands = help_of()
        for command in self.commands:
            self.options |= help_of(command)[0]
        self.assertGreaterEqual(len(self.options), 9, "the help is not understood")
        self.assertGreaterEqual(len(self.commands), 3, "the help is not understood")

    def test_the_page_has_every_option_and_command(self):
        options, commands = in_page(PAGE.read_text())
        self.assertLessEqual(self.options, options)
        self.assertLessEqual(self.commands, commands)

    def test_the_synopsis_has_every_command(self):
        synopsis = PAGE.read_text().partition(".Sh SYNOPSIS")[2].partition(".Sh ")[0]
        self.assertLessEqual(self.commands, set(re.findall(r"^\.Cm (\w+)$", synopsis, re.M)))

    def test_featurehost_md_has_every_option_and_command(self):
        text = (DOCS / "featurehost.md").read_text()
        for option in self.options - {"-h"}:
            self.assertTrue(re.search(rf"`{option}\b", text), f"featurehost.md lacks {option}")
        for command in self.commands:
            self.assertTrue(f"\nfeaturehost {command} " in text, f"featurehost.md lacks {command}")


class FormatTest(unittest.TestCase):
    def test_groff_has_no_warnings_and_loses_nothing(self):
        run = subprocess.run(["groff", "-ww", "-mdoc", "-Tutf8", "-P-cbou", str(PAGE)],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(("", 0), (run.stderr, run.returncode))
        for option in in_page(PAGE.read_text())[0]:
            self.assertIn(option, run.stdout)


if __name__ == "__main__":
    if "FormatTest" in sys.argv and shutil.which("groff") is None:
        print("skipped: groff is not installed")
        sys.exit(CANNOT_RUN)
    unittest.main()
