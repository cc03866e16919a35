#!/usr/bin/python3
"""Compares the first C program in README.md with examples/first_picture.c, which is compiled."""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
shown = re.search(r"^```c\n(.*?)^```$", (root / "README.md").read_text(), re.DOTALL | re.MULTILINE)
if shown is None:
    sys.exit("README.md shows no C program")
if shown.group(1) != (root / "examples/first_picture.c").read_text():
    sys.exit("the program in README.md is not examples/first_picture.c: copy the file's text")
