"""Takes code of the library over into the model tests: the same text, with the standard library's
threads, locks and atomics replaced by the model's. What is taken stands in taken.py.

    take_code.py REPOSITORY OUTPUT_FOLDER
"""

import pathlib
import re
import sys

from taken import TAKEN

REPLACED = [("std::recursive_mutex", "kelo::model::RecursiveMutex"),
            ("std::mutex", "kelo::model::Mutex"),
            ("std::condition_variable", "kelo::model::ConditionVariable"),
            ("std::atomic<", "kelo::model::Atomic<"),
            ("std::thread", "kelo::model::Thread"),
            ("std::chrono::steady_clock", "kelo::model::Clock")]


# A function's definition begins at the line's first column and ends with a brace there, as the
# layout of the code has it.
def definition(text, name):
    found = re.findall(rf"^[^\s/#]?[^\n]*\b{re.escape(name)}\([^;]*?\) \{{$.*?^\}}$", text,
                       re.MULTILINE | re.DOTALL)
    if len(found) != 1:
        sys.exit(f"error: {len(found)} definitions of {name}")
    return found[0]


def take(text, functions, old, new):
    if functions:
        text = "\n\n".join(definition(text, name) for name in functions) + "\n"
    text = re.sub(r"^#(pragma once|include .*)$", "", text, flags=re.MULTILINE)
    if old is not None:
        if text.count(old) != 1:
            sys.exit(f"error: {text.count(old)} times: {old}")
        text = text.replace(old, new)
    for standard, model in REPLACED:
        text = text.replace(standard, model)
    return text


def main():
    repository, output = map(pathlib.Path, sys.argv[1:])
    output.mkdir(parents=True, exist_ok=True)
    for name, (source, functions, old, new) in TAKEN.items():
        text = (repository / source).read_text(encoding="utf-8")
        (output / f"{name}.inc").write_text(take(text, functions, old, new), encoding="utf-8")
    (output / "all.stamp").touch()


if __name__ == "__main__":
    main()
