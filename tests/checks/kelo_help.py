#!/usr/bin/python3
"""Compares what `kelo --help` says of every command with the manual page and the shell completion.

Usage: kelo_help.py page KELO PAGE
       kelo_help.py completion KELO COMPLETION
"""

import pathlib
import re
import subprocess
import sys

# In front of and behind every command; the page and the test name them once.
GLOBAL_OPTIONS = {"-h", "--help", "--json", "--timeout", "--log"}


def help_of(program, words):
    return subprocess.run([program, *words, "--help"], capture_output=True, text=True,
                          check=True).stdout


def options_in(text):
    # Every option stands at the beginning of a line, after two spaces.
    lines = re.findall(r"(?m)^  (-[^ ]+)", text)
    return {name for line in lines for name in line.split(",")}


def subcommands_in(text):
    part = re.search(r"(?ms)^Subcommands:\n(.*?)(?:^\S|\Z)", text)
    return re.findall(r"(?m)^  ([a-z][\w-]*)", part.group(1)) if part else []


def commands_of(program, words=()):
    """Each command with its options; groups, which only hold others, are left out."""
    text = help_of(program, words)
    inner = subcommands_in(text)
    if not inner:
        return {words: options_in(text)}
    found = {}
    for name in inner:
        found.update(commands_of(program, (*words, name)))
    return found


def page_sections(page):
    text = pathlib.Path(page).read_text(encoding="utf-8").replace("\\-", "-")
    sections = {}
    for section in re.split(r"(?m)^\.Ss ", text)[1:]:
        title, _, body = section.partition("\n")
        body = re.split(r"(?m)^\.Sh ", body)[0]
        words = tuple(re.sub(r" (Op |Ar ).*", "", title).split())[1:]
        items = " ".join(re.findall(r"(?m)^\.It (.*)", body))
        sections[words] = {"-" + name for name in re.findall(r"Fl (-?[a-z][\w-]*)", items)}
    head = re.search(r"(?ms)^\.Sh OPTIONS\n(.*?)^\.Sh", text)
    everywhere = {"-" + name for name in re.findall(r"Fl (-?[a-z][\w-]*)", head.group(1))}
    return everywhere, sections


def check_page(program, page):
    everywhere, sections = page_sections(page)
    top = options_in(help_of(program, ()))
    problems = differences("kelo", top, everywhere)
    commands = commands_of(program)
    problems += [f"no section: kelo {' '.join(words)}" for words in commands if words not in sections]
    problems += [f"no such command: kelo {' '.join(words)}" for words in sections
                 if words not in commands]
    for words in commands.keys() & sections.keys():
        problems += differences("kelo " + " ".join(words), commands[words] - GLOBAL_OPTIONS,
                                sections[words])
    return problems


def differences(what, expected, found):
    return ([f"{what}: {name} is missing" for name in sorted(expected - found)] +
            [f"{what}: {name} is not in --help" for name in sorted(found - expected)])


def complete(program, completion, words):
    """What the shell offers for the last of the words."""
    script = ('source "$1"; _kelo_program="$2"; shift 2; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
              '_kelo; printf "%s\\n" "${COMPREPLY[@]}"')
    result = subprocess.run(["bash", "-c", script, "bash", completion, program, *words],
                            capture_output=True, text=True, check=True)
    if result.stderr:
        raise RuntimeError(result.stderr)
    return set(result.stdout.split())


def check_completion(program, completion):
    def offered(*words):
        return complete(program, completion, ["kelo", *words])

    commands = commands_of(program)
    problems = differences("kelo", {words[0] for words in commands}, offered(""))
    problems += differences("kelo memory", {"read", "write"}, offered("memory", ""))
    for words, options in commands.items():
        problems += differences("kelo " + " ".join(words), options, offered(*words, "-"))
    names = subprocess.run([program, "registers"], capture_output=True, text=True,
                           check=True).stdout.split()[5::3]
    problems += differences("kelo get", set(names), offered("get", "gate", ""))
    problems += differences("kelo set", {name + "=" for name in names}, offered("set", "gate", ""))
    cases = {
        ("get", "--timeout", "9", "--json", "gate", "REG_WI"): {"REG_WIDTH"},
        ("--json", "memory", "read", "gate", "REG_WI"): {"REG_WIDTH"},
        ("memory", "read", "gate", "REG_WIDTH", ""): set(),
        ("get", "gate", "gain", "--format", ""): {"int", "hex", "float"},
        ("grab", "gate", "--format", "p"): {"png", "pgm"},
        ("get", "--timeout", ""): set(),
        ("li",): {"list"},
        ("stats", "gate", "--interval", ""): set(),
    }
    for words, expected in cases.items():
        problems += differences("kelo " + " ".join(words), expected, offered(*words))
    return problems


def main(what, program, file):
    problems = {"page": check_page, "completion": check_completion}[what](program, file)
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
