"""Finds the texts of all error lines in the sources."""

import re

from markdown import PROJECT

SOURCES = PROJECT / "src"

_LITERAL = r'"((?:[^"\\]|\\.)*)"'

# Helpers that finish a text, and what they put behind it.
_HELPERS = {"SystemFailure": "%s", "ErrnoFailure": " errno %s", "LogErrno": ": %s"}

# What makes the text of an error that somebody else logs.
_FAILURES = ("Status::Failure", "std::runtime_error", *_HELPERS)


def _arguments(text, opening):
    """The arguments of the call whose opening parenthesis is at `opening`."""
    found, start, depth, at = [], opening + 1, 0, opening
    while True:
        letter = text[at]
        if letter == '"':
            at = re.compile(_LITERAL).match(text, at).end() - 1
        elif letter in "([{":
            depth += 1
        elif letter in ")]}":
            depth -= 1
        if (letter == "," and depth == 1) or depth == 0:
            found.append(text[start:at].strip())
            start = at + 1
        if depth == 0:
            return found
        at += 1


def _calls(text, name):
    for match in re.finditer(rf"\b{name}\(", text):
        yield _arguments(text, match.end() - 1)


def _unescape(literal):
    return literal.encode().decode("unicode_escape")


def _as_format(expression):
    """What an expression of literals and values looks like, with %s for each value. Literals that
    follow each other are one."""
    expression = re.sub(rf"std::string\(({_LITERAL})\)", r"\1", expression)
    result = ""
    for literal, other in re.findall(rf"{_LITERAL}|([^\"]+)", expression):
        result += _unescape(literal) if literal else "".join(
            "%s" for value in other.split("+") if value.strip())
    return result


def _definition(text, name):
    """The texts that a variable may have: either of a choice."""
    definition = re.search(rf"\b{name} =([^;]+);", text)[1]
    if "?" in definition:
        return [_unescape(literal) for literal in re.findall(_LITERAL, definition)]
    return [_as_format(definition)]


def sources():
    """The text of each file of the daemon, without comments."""
    return {path: re.sub(r"^ *//.*$", "", path.read_text(encoding="utf-8"), flags=re.M)
            for path in sorted(SOURCES.rglob("*"))
            if path.suffix in (".cc", ".h") and path.relative_to(SOURCES).parts[0] != "ctl"}


def logged_formats():
    """The formats of the error lines: of each call, a list. One that is no more than what a failure
    says has none of its own."""
    found = []
    for text in sources().values():
        for name, position in (("ORX_LOG", 1), ("Message2", 2)):
            for arguments in _calls(text, name):
                if not re.fullmatch(r"(?:Orx::)?(?:Log::)?kError", arguments[0]):
                    continue
                shape = _as_format(arguments[position])
                if shape not in ("%s", "%s: %s"):
                    found.append([shape])
                elif re.match(r"what|status", arguments[position + 1]):
                    found.append([])  # see failure_texts()
                else:
                    found.append(_definition(text, re.match(r"\w+", arguments[position + 1])[0]))
    return found


def failure_texts():
    """The texts that end in the %s of an error line, or are all of it, and the files that have
    them."""
    found = {}
    for path, text in sources().items():
        for name in _FAILURES:
            ending = _HELPERS.get(name, "")
            for arguments in _calls(text, name):
                shape = _as_format(arguments[0])
                # A helper's own definition has no text to speak of.
                if '"' in arguments[0] and re.search(r"[a-z]{2}", re.sub("%s|errno", "", shape)):
                    found.setdefault(shape + ending, set()).add(path.name)
    return found
