#!/usr/bin/python3
"""Looks up every fixed log and error text of the library in docs/errors-and-logs.md."""
import pathlib
import re
import sys

LITERAL = r'"(?:[^"\\]|\\.)*"'
LITERALS = rf"{LITERAL}(?:\s*{LITERAL})*"
# A call, and the literal that is its first argument.
CALL = re.compile(rf"\b(?:Log|runtime_error|printf)\(\s*({LITERALS})")
# ShowMessage(title, text) prints "title: text"; a text that is put together ends the literal.
MESSAGE = re.compile(rf'\bShowMessage\(\s*"(\w+)",\s*(?:Str\(\) \+ )?({LITERALS})')
FATAL = re.compile(rf"\bFatal\(\s*({LITERALS})")
# How lines of every kind are printed, which is no text of its own.
FRAMES = {"%s: %s", "%d: "}


def text_of(literals):
    joined = "".join(part[1:-1] for part in re.findall(LITERAL, literals))
    return joined.replace("\\n", "").replace("\\r", "").replace('\\"', '"')


def texts_in(source):
    for match in CALL.finditer(source):
        yield text_of(match.group(1))
    for match in FATAL.finditer(source):
        yield f"Fatal: {text_of(match.group(1))}"
    for match in MESSAGE.finditer(source):
        yield f"{match.group(1)}: {text_of(match.group(2))}"


def main():
    root = pathlib.Path(sys.argv[1])
    document = (root / "docs/errors-and-logs.md").read_text()
    sources = [path for folder in ("src/KELOAPI", "common")
               for path in (root / folder).rglob("*") if path.suffix in (".cpp", ".h")]
    found = {(text, path.relative_to(root)) for path in sources
             for text in texts_in(path.read_text()) if text not in FRAMES}
    if len(found) < 50:
        sys.exit(f"only {len(found)} texts found: the search is broken")
    missing = [f"{path}: {text}" for text, path in sorted(found) if f"`{text}" not in document]
    if missing:
        sys.exit("not in docs/errors-and-logs.md:\n  " + "\n  ".join(missing))


main()
