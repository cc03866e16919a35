#!/usr/bin/python3
"""Looks whether docs/troubleshooting.md leads from every log line to its explanation.

Usage: log_index.py ROOT

Its index names, under a link to each section of docs/errors-and-logs.md, how that section's lines
begin. A line that no beginning fits, or that is named under another section, fails. So does a check of
`kelo doctor` that its table does not name.
"""
import pathlib
import re
import sys

TEXTS_MIN = 60


def texts_by_section(text):
    """Section: the texts in the first columns of its tables."""
    found, section = {}, ""
    for line in text.splitlines():
        if line.startswith("## "):
            section = line[3:]
        match = re.match(r"^\| `(.+?)` \|", line)
        if match and section != "Status codes":
            found.setdefault(section, []).append(match.group(1).strip())
    return found


def beginnings_by_section(text):
    index = text[text.index("## Log lines"):]
    found = {}
    for title, body in re.findall(r"^- \[([^\]]+)\]\(errors-and-logs\.md#[^)]*\):(.*?)(?=^- \[|^#|\Z)", index,
                                  re.MULTILINE | re.DOTALL):
        found[title] = re.findall(r"`([^`]+)`", body)
    return found


def checks_of_doctor(root):
    return set(re.findall(r'\.check = "([\w-]+)"', (root / "tools/kelo/host_checks.cpp").read_text()))


def checks_in_table(text):
    rows = re.search(r"^\| its check .*?\n\n", text, re.MULTILINE | re.DOTALL).group(0)
    return set(re.findall(r"`([\w-]+)`", rows))


def main(root):
    texts = texts_by_section((root / "docs/errors-and-logs.md").read_text())
    beginnings = beginnings_by_section((root / "docs/troubleshooting.md").read_text())
    problems, count = [], 0
    for section, lines in texts.items():
        given = beginnings.get(section, [])
        count += len(lines)
        problems += [f"{section}: {line}" for line in lines
                     if not any(line.startswith(beginning) for beginning in given)]
        problems += [f"{section}: no line begins with '{beginning}'" for beginning in given
                     if not any(line.startswith(beginning) for line in lines)]
    problems += [f"no section '{section}'" for section in beginnings if section not in texts]
    doctor, table = checks_of_doctor(root), checks_in_table((root / "docs/troubleshooting.md").read_text())
    if doctor != table or not doctor:
        problems.append(f"checks of kelo doctor and the table: {sorted(doctor ^ table)}")
    if count < TEXTS_MIN:
        problems.append(f"only {count} texts found: the search is broken")
    if problems:
        sys.exit("the index of docs/troubleshooting.md:\n  " + "\n  ".join(problems))


main(pathlib.Path(sys.argv[1]))
