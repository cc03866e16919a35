#!/usr/bin/python3
"""Compiles the C and C++ in the documents.

Usage: check_snippets.py ROOT C_COMPILER CXX_COMPILER

A block marked "c program" or "cpp program" is a file's text; of docs/guide.md the first one is put in
front of everything. Other blocks are statements: in C `camera` is a camera's handle, in C++ it is an
open kelo::Camera, and `library` the kelo::Library.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

DOCUMENTS = ("docs/guide.md", "docs/troubleshooting.md", "docs/tuning.md")
BLOCK = re.compile(r"^```(c|cpp)( program)?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
FOLDERS = ("src/KELOAPI", "common")
WARNINGS = ("-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable")
SNIPPETS_MIN = 10


class Block:
    def __init__(self, document, text, match):
        self.place = f"{document}:{text.count(chr(10), 0, match.start()) + 2}"
        self.language, self.is_program, self.code = match.group(1), match.group(2), match.group(3)


def blocks(root):
    for document in DOCUMENTS:
        path = root / document
        text = path.read_text() if path.exists() else ""
        yield from (Block(document, text, match) for match in BLOCK.finditer(text))


# What stands in front of statements, and what their function takes.
FRAMES = {"c": ("", "CAM_HANDLE camera", "(void)camera;"),
          "cpp": ('#include "kelo.hpp"\n#include <cstdio>\n', "const kelo::Library& library, kelo::Camera& camera",
                  "(void)library; (void)camera;")}


def as_function(number, block):
    document, line = block.place.rsplit(":", 1)
    _, parameters, uses = FRAMES[block.language]
    head = f"void snippet_{number}({parameters})"
    return f'{head};\n{head} {{\n{uses}\n#line {line} "{document}"\n{block.code}}}\n'


def compile_text(text, language, compiler, root):
    standard = {"c": ("-x", "c", "-std=gnu11"), "cpp": ("-x", "c++", "-std=c++17")}[language]
    with tempfile.TemporaryDirectory() as folder:
        source = pathlib.Path(folder, "snippets")
        source.write_text(text)
        run = subprocess.run([compiler, *standard, *WARNINGS, "-fsyntax-only",
                              *(f"-I{root / name}" for name in FOLDERS), source],
                             capture_output=True, text=True, check=False)
    return run.stderr if run.returncode != 0 else ""


def main(root, c_compiler, cxx_compiler):
    root = pathlib.Path(root)
    compilers = {"c": c_compiler, "cpp": cxx_compiler}
    found = list(blocks(root))
    if len(found) < SNIPPETS_MIN:
        sys.exit(f"only {len(found)} snippets found: the search is broken")
    front = found[0].code
    errors = ""
    for language, compiler in compilers.items():
        statements = [block for block in found if block.language == language and not block.is_program]
        text = front + FRAMES[language][0] + "".join(as_function(number, block) for number, block in enumerate(statements))
        errors += compile_text(text, language, compiler, root)
        for block in found:
            if block.is_program and block.language == language:
                errors += compile_text(front + block.code, language, compiler, root)
    if errors:
        sys.exit(errors)
    print(f"{len(found)} snippets compile")


main(*sys.argv[1:])
