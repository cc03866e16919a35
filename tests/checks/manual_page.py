#!/usr/bin/python3
"""Compares the options in a program's --help with those in its manual page.

Usage: manual_page.py PROGRAM PAGE
"""

import pathlib
import re
import subprocess
import sys


def main(program, page):
    # CLI11 writes every option at the beginning of a line, after two spaces.
    help_text = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    in_help = set(re.findall(r"(?m)^  (?:-\w,)?(--[a-z][\w-]*)", help_text))
    page_text = pathlib.Path(page).read_text(encoding="utf-8").replace("\\-", "-")
    in_page = {"-" + name for name in re.findall(r"(?m)^\.It .*?Fl (-[a-z][\w-]*)", page_text)}
    problems = ([f"not in the page: {name}" for name in sorted(in_help - in_page)] +
                [f"only in the page: {name}" for name in sorted(in_page - in_help)])
    if not in_help:
        problems.append("no options found in --help")
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
