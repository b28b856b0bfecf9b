#!/usr/bin/env python3
"""docs/messages.md against the sources: it has every text that can be logged, and no other."""

import re
import sys
import unittest

import sources
from sources import ANY, NotUnderstood, STRING

MODULE = ("MainCPULoader/src", "SWLInfra/src")
HOST = ("featurehost/src",)

# Pieces of a message that are not literals where the line is written, but are somewhere else in
# the same source: the expression that finds them there. Only texts of messages belong here.
ELSEWHERE = {
    "MainCPULoader/src/ArchiveLoader": {
        "unknownText": r'ResultOf\(\w+, error, "([^"]*)"\)',
        "property.iLabel": r'\{"\w+", "([^"]*)", i\w+\}',
    },
    "MainCPULoader/src/EOLSettingsLoader": {
        "KStageTexts[stage]": r'"(EOLSettingsLoader: failed to (?:make|copy|umount)[^"]*)"',
        "label": r'ReadProperty\("\w+", "([^"]*)"',
    },
    "MainCPULoader/src/FactoryDataLoader": {"label": r'ReadProperty\("\w+", "([^"]*)"'},
    "MainCPULoader/src/ImageLoader": {"label": r'Read(?:Required)?Property\("\w+", "([^"]*)"'},
    "SWLInfra/src/FileHandler": {"fileSystem.iLogLine": r'\{"([^"]*)",\s+"[^"]*"'},
}

# The calls with which featurehost writes a line of its own: the category ("" when the first
# argument has it), and which arguments are the function's name and the text.
HOST_FORMS = (
    (r"\.Host", "", 1, 2),
    (r"\bWarn", "Warning", 0, 1),
    (r"objections\.push_back", "Message", None, 0),
    (r"\bSay", "Message", None, 0),
    (r"throw HostError", "Message", None, 1),
    (r"\bRefuse", "Message", None, 0),
    (r"\bFinish(?=\(ExitCode::)", "Message", None, 1),
)

# Texts that a function puts together: its literals in order, with a gap between each two.
PUT_TOGETHER = {
    "featurehost/src/KilledRuns": {"Describe(run)": (
        "an install of feature '", "' was killed and has left behind: ",
        "; run featurehost cleanup"), "WhyUnjudged(runs)": (
        "cannot tell of the installs that are noted (",
        ") whether they are at work or were killed: /proc does not show this process namespace")},
}

# What passes on a line that was put together before.
PASSED_ON = {"line", "message", "objections", "objections.front()", "OneLine(line)", "outcome.text", "error.what()",
             "featurehost::OneLine(error.what())",
             "TextOf(finding)"}  # docs/lint.md has the findings

# Fewer than this in the sources means that they were not understood, not that they are so few.
FEWEST_MODULE_TEXTS = 140
FEWEST_HOST_TEXTS = 25


def name_of(path):
    return path.relative_to(sources.ROOT).with_suffix("").as_posix()


def texts_elsewhere(path, source, text):
    named = {}
    for piece, pattern in ELSEWHERE.get(source, {}).items() if path.suffix == ".cpp" else ():
        named[piece] = re.findall(pattern, text)
        if not named[piece]:
            raise NotUnderstood(f"{source}: nothing found for {piece}")
    return named


def module_messages():
    """(source, category, function, text) of every line that the module can log."""
    found = set()
    for path in sources.sources(*MODULE):
        text, source = sources.read(path), name_of(path)
        named = {**sources.constants(text), **texts_elsewhere(path, source, text)}
        for match, (function, *pieces) in sources.calls(text, r"KLog\.(\w+)"):
            names = sources.variants(function, named)
            if names == [ANY] and function != "site":
                raise NotUnderstood(f"{source}: the function's name {function}")
            for message in sources.messages(pieces, named):
                if message == ANY:
                    raise NotUnderstood(f"{source}: nothing is fixed in {', '.join(pieces)}")
                found.add((source, match[1], names[0], message))
        for _, (form, *_) in sources.calls(text, r"std::printf"):
            message = re.sub(r"%[sd]", ANY, form.strip('"')).replace("\\n", "")
            found.add((source, "Output", "", sources.normal(message)))
    return found


def host_messages():
    """(source, category, function, text) of every line of featurehost itself."""
    found = set()
    for path in sources.sources(*HOST):
        text, source = sources.read(path), name_of(path)
        for form, category, function, message in HOST_FORMS:
            for _, pieces in sources.calls(text, form):
                if is_declaration(pieces):
                    continue
                name = "" if function is None else sources.variants(pieces[function], {})[0]
                for line in host_lines(source, sources.split(pieces[message], "+")):
                    found.add((source, category or pieces[0].rpartition("Level::k")[2], name, line))
        for line in lines_on_standard_error(source, text):
            found.add((source, "Message", "", line))
    return found


def is_declaration(pieces):
    return any(piece.startswith(("const std::string&", "ExitCode ")) for piece in pieces)


def host_lines(source, pieces):
    if set(pieces) <= PASSED_ON:
        return []
    lines = sources.messages(pieces, texts_put_together(source))
    if ANY in lines:
        raise NotUnderstood(f"{source}: nothing is fixed in {' '.join(pieces)}")
    return lines


def texts_put_together(source):
    named = {}
    for piece, literals in PUT_TOGETHER.get(source, {}).items():
        text = sources.read(sources.ROOT / (source + ".cpp"))
        if not all(f'"{literal}"' in text for literal in literals):
            raise NotUnderstood(f"{source}: {piece} is put together in another way")
        named[piece] = [ANY.join(literals)]
    return named


def lines_on_standard_error(source, text):
    """What is written to standard error without one of the calls above."""
    begin = '"featurehost: "'
    for statement in re.findall(r"\bstd::cerr\s*<<(.*?);", text, re.S):
        pieces = [piece for piece in sources.split(statement, "<<") if piece != "std::endl"]
        if pieces[0] == begin:
            yield from host_lines(source, pieces[1:])
        elif STRING.search(re.sub(r'""', "", statement)):
            raise NotUnderstood(f"{source}: standard error gets {statement}")


PLACEHOLDER = re.compile(r"<[a-z][a-z ]*>")


def page():
    return (sources.ROOT / "docs/messages.md").read_text()


def documented():
    """The same four of every row in docs/messages.md."""
    found, source = [], None
    for line in page().splitlines():
        heading = re.fullmatch(r"### `(\w+/src/[\w/]+)`", line)
        row = re.fullmatch(r"\| (\w+) \| (?:`([^`]+)` )?\| (?:`([^`]+)` )?\| (\S.*) \| (\S.*) \|", line)
        if heading:
            source = heading[1]
        elif line.startswith("#"):
            source = None
        elif source is not None and line.startswith("| ") and not line.startswith("| category"):
            if row is None:
                raise NotUnderstood(f"docs/messages.md: a row of another form: {line}")
            function, text = (PLACEHOLDER.sub(ANY, cell or "") for cell in row.group(2, 3))
            found.append((source, row[1], function, sources.normal(text)))
    return found


def rows(messages):
    return "\n".join(f"{source}: | {category} | `{function}` | `{text}` | | |"
                     for source, category, function, text in sorted(messages))


class MessagesTest(unittest.TestCase):
    maxDiff = None

    def test_the_sources_are_understood(self):
        self.assertGreaterEqual(len(module_messages()), FEWEST_MODULE_TEXTS)
        self.assertGreaterEqual(len(host_messages()), FEWEST_HOST_TEXTS)

    def test_every_source_that_logs_is_seen(self):
        seen = {message[0] for message in module_messages()}
        for path in sources.sources(*MODULE):
            if re.search(r"\bCLog KLog\(", path.read_text()):
                self.assertIn(name_of(path), seen)

    def test_every_call_is_seen(self):
        for path in sources.sources(*MODULE):
            text = sources.read(path)
            self.assertEqual(len(re.findall(r"KLog\s*\.", text)),
                             len(sources.calls(text, r"KLog\.(\w+)")), path)

    def test_every_text_is_documented(self):
        missing = (module_messages() | host_messages()) - set(documented())
        self.assertFalse(missing, "docs/messages.md lacks these rows:\n" + rows(missing))

    def test_every_documented_text_exists(self):
        surplus = set(documented()) - module_messages() - host_messages()
        self.assertFalse(surplus, "docs/messages.md has rows that no source has:\n" + rows(surplus))

    def test_placeholders_are_explained(self):
        explained = page().partition("| placeholder |")[2].partition("\n\n")[0]
        used = {word for cell in re.findall(r"`([^`]+)`", page()) for word in
                PLACEHOLDER.findall(cell)}
        self.assertEqual(set(PLACEHOLDER.findall(explained)) | {"<word>"}, used)

    def test_no_row_is_there_twice(self):
        seen = documented()
        self.assertEqual([], sorted(row for row in set(seen) if seen.count(row) > 1))


class ExtractionTest(unittest.TestCase):
    """That the extraction would notice."""

    def test_texts_are_put_together(self):
        pieces = sources.split('std::string("a \\""), b(1, "x"), "c, " "d", e ? "f" : "g"', ",")
        self.assertEqual(['a "<>c, df', 'a "<>c, dg'], sources.messages(pieces, {}))

    def test_lines_on_standard_error_are_seen(self):
        text = 'std::cerr << "featurehost: " << count << (one ? " thing" : " things") << std::endl;'
        self.assertEqual(["<> thing", "<> things"], list(lines_on_standard_error("x", text)))

    def test_comments_are_no_code(self):
        self.assertEqual([], sources.calls("", r"KLog\.(\w+)"))
        for path in sources.sources("SWLInfra/src"):
            if path.name == "Log.h":
                self.assertEqual([], sources.calls(sources.read(path), r"KLog\.(\w+)"))

    def test_a_text_that_is_nowhere_is_an_error(self):
        with self.assertRaises(NotUnderstood):
            host_lines("x", ["unknown"])
        with self.assertRaises(NotUnderstood):
            list(lines_on_standard_error("x", 'std::cerr << "else: " << what;'))
        with self.assertRaises(NotUnderstood):
            sources.sources("docs")


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(rows(module_messages() | host_messages()))
    else:
        unittest.main()
