"""Reads texts out of the C++ sources: what is logged, which properties are looked up.

Not a C++ parser. It knows the few ways in which this project writes such a text, and ends with an
error when it meets another one, so that nothing is left out in silence.
"""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

# Whatever is not fixed in a text.
ANY = "<>"

STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')


class NotUnderstood(Exception):
    """A way of writing a text that this file must be taught."""


def read(path):
    """The text of a source without its comments; strings stay as they are."""
    token = re.compile(r'"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)+\'|//[^\n]*|/\*.*?\*/', re.S)
    return token.sub(lambda m: " " if m[0].startswith("/") else m[0], path.read_text())


def sources(*folders):
    found = [p for folder in folders for p in sorted((ROOT / folder).rglob("*")) if
             p.suffix in (".cpp", ".h")]
    if not found:
        raise NotUnderstood(f"there are no sources in {folders}")
    return found


def split(text, separator):
    """The parts of an expression between separators that stand outside of brackets and strings."""
    parts, depth, part = [], 0, ""
    for token in re.findall(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)+\'|<<|.', text, re.S):
        depth += {"(": 1, "[": 1, "{": 1, ")": -1, "]": -1, "}": -1}.get(token, 0)
        if token == separator and depth == 0:
            parts.append(part.strip())
            part = ""
        else:
            part += token
    return [*parts, part.strip()] if part.strip() else parts


def arguments(text, opening):
    """The arguments of the call whose bracket opens at an index."""
    depth = 0
    for token in re.finditer(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)+\'|[()]', text[opening:]):
        depth += {"(": 1, ")": -1}.get(token[0], 0)
        if depth == 0:
            return split(text[opening + 1:opening + token.start()], ",")
    raise NotUnderstood(f"no end of a call: {text[opening:opening + 80]}")


def unescaped(literal):
    return literal.replace('\\"', '"').replace("\\n", "\n").replace("\\\\", "\\")


def variants(piece, named):
    """The texts that one piece of a message can be."""
    if piece in named:
        return named[piece]
    wrapped = re.fullmatch(r'std::string\(("(?:[^"\\]|\\.)*")\)', piece)
    piece = wrapped[1] if wrapped else piece
    if re.fullmatch(r'("(?:[^"\\]|\\.)*"\s*)+', piece):
        return ["".join(unescaped(literal) for literal in STRING.findall(piece))]
    choice = re.fullmatch(r'\(?[^?"]*\?\s*("(?:[^"\\]|\\.)*")\s*:\s*("(?:[^"\\]|\\.)*")\)?', piece)
    if choice:
        return [unescaped(choice[1][1:-1]), unescaped(choice[2][1:-1])]
    return [ANY]


def messages(pieces, named):
    """All texts of a message that is put together from pieces."""
    texts = [""]
    for piece in pieces:
        texts = [text + variant for text in texts for variant in variants(piece, named)]
    return [normal(text) for text in texts]


def normal(text):
    """A text as it is compared: what is not fixed is one gap, however many pieces fill it."""
    return re.sub(rf"({ANY})+", ANY, text).strip()


def constants(text):
    """Names of single texts in a source: constexpr const char* KName = "..." and the like."""
    found = re.findall(r'\bchar\s*\*?\s*(?:const\s+)?(\w+)(?:\[\])?\s*=\s*((?:"(?:[^"\\]|\\.)*"\s*)+);',
                       text)
    return {name: ["".join(STRING.findall(value))] for name, value in found}


def calls(text, pattern):
    """The arguments of every call of what a pattern names, with the match."""
    return [(match, arguments(text, match.end() - 1))
            for match in re.finditer(pattern + r"\s*\(", text)]
