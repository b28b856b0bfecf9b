#!/usr/bin/env python3
"""docs/properties.md and its pages against the sources: every property that is read is there."""

import re
import unittest

import sources
from sources import NotUnderstood

# The page of each source that reads properties, and the item of the page's examples.
PAGES = {
    "MainCPULoader": ("docs/properties.md", ""),
    "ArchiveLoader": ("docs/properties/userfs.md", "userfs"),
    "ImageLoader": ("docs/properties/image.md", "rootfs"),
    "ImageChecker": ("docs/properties/check.md", "rootfs"),
    "FactoryDataLoader": ("docs/properties/factorydata.md", "factorydata"),
    "EOLSettingsLoader": ("docs/properties/eolsettings.md", "eolsettings"),
}

# Where the names are that a look-up does not have as a literal.
NAMED = {
    "suffix": r'\bRead\w*Property\("(\w+)"',
    "key": r'\bRead\w*Property\("(\w+)"',
    "property.iSuffix": r'\{"(\w+)", "[^"]*", i\w+\}',
}

COLUMNS = ["property", "type, unit", "range", "default", "meaning", "example"]


def names_read(text):
    """The names, or suffixes, of all properties that a source looks up."""
    names = set()
    for _, (_, key, _) in sources.calls(text, r"\bGetProperty"):
        last = sources.split(key, "+")[-1]
        found = [last[1:-1]] if last.startswith('"') else re.findall(NAMED.get(last, "$^"), text)
        if not found:
            raise NotUnderstood(f"the property {key}")
        names.update(found)
    return names


def properties_read():
    """Page and name of every property, by source."""
    read = {}
    for path in sources.sources("MainCPULoader/src", "SWLInfra/src"):
        names = names_read(sources.read(path)) if path.suffix == ".cpp" else set()
        if names:
            read[path.stem] = names
    return read


def table(page):
    """The rows of the page's table of properties, by property."""
    lines = (sources.ROOT / page).read_text().splitlines()
    start = lines.index("| " + " | ".join(COLUMNS) + " |") + 2
    rows = {}
    for line in lines[start:]:
        if not line.startswith("|"):
            break
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        rows[cells[0].strip("`")] = cells
    return rows


class PropertiesTest(unittest.TestCase):
    def test_the_sources_are_understood(self):
        read = properties_read()
        self.assertEqual(set(PAGES), set(read), "the sources that read properties")
        self.assertGreaterEqual(sum(len(names) for names in read.values()), 25)

    def test_every_property_is_documented_and_no_other(self):
        for source, names in properties_read().items():
            page, item = PAGES[source]
            with self.subTest(page):
                self.assertEqual({item + name for name in names}, set(table(page)))

    def test_every_row_is_complete(self):
        for page, _ in PAGES.values():
            for name, cells in table(page).items():
                with self.subTest(f"{page}: {name}"):
                    self.assertEqual(len(COLUMNS), len(cells))
                    self.assertNotIn("", cells)
                    self.assertRegex(cells[-1], r"^`.+`$")

    def test_every_page_of_an_item_has_traps(self):
        for page, item in PAGES.values():
            if item:
                self.assertIn("\n## Traps\n", (sources.ROOT / page).read_text(), page)


class ExtractionTest(unittest.TestCase):
    def test_names_are_found(self):
        text = '''GetProperty(id, name + "a", x); GetProperty(id, name + suffix, x);
                  ReadProperty("b", x); GetProperty(id, "c", x);'''
        self.assertEqual({"a", "b", "c"}, names_read(text))

    def test_an_unknown_way_is_an_error(self):
        with self.assertRaises(NotUnderstood):
            names_read("GetProperty(id, name + other, x)")


if __name__ == "__main__":
    unittest.main()
