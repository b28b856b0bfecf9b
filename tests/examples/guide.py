#!/usr/bin/env python3
"""Every test that the integration guide names exists. Needs SOURCES (the project's folder)."""

import os
import pathlib
import re
import unittest

SOURCES = pathlib.Path(os.environ["SOURCES"])


class Guide(unittest.TestCase):
    def test_names_tests_that_exist(self):
        files = [*SOURCES.glob("tests/**/*.cpp"), *SOURCES.glob("tests/**/*.h"),
                 *SOURCES.glob("tests/**/*.py")]
        sources = {file: file.read_text() for file in files}
        everything = "\n".join(sources.values())
        guide = (SOURCES / "docs/integration.md").read_text()

        named = re.findall(r"`(\w+Test)\.(\w+)`", guide)
        self.assertGreater(len(named), 30)
        for suite, name in named:
            self.assertRegex(everything, rf"TEST\w*\({suite}, {name}\)")
        for suite in re.findall(r"`(\w+Test)(?:\.\*)?`", guide):
            self.assertIn(suite, everything)
        for name in re.findall(r"`(AChild\w+)`", guide):
            self.assertRegex(everything, rf"TEST\w*\(\w+, {name}\)")

        for name in re.findall(r"\b(test_\w+)\b", guide):
            self.assertRegex(everything, rf"def {name}\(self\)")
        end_to_end = sources[SOURCES / "tests/featurehost/end_to_end.py"]
        for name in re.findall(r"`featurehost\.(\w+)`", guide):
            self.assertIn(f"class {name}(HostTestCase)", end_to_end)

    def test_has_every_point_that_the_example_names(self):
        guide = (SOURCES / "docs/integration.md").read_text()
        example = (SOURCES / "examples/host/Host.cpp").read_text()
        points = re.findall(r"// (\d+)", example) + re.findall(r"// \d+ and (\d+)", example)
        self.assertEqual({str(n) for n in (1, 2, 3, 5, 7, 8, 9, 10, 11)}, set(points))
        for point in points:
            self.assertIn(f"\n### {point}. ", guide)


if __name__ == "__main__":
    unittest.main(verbosity=2)
