#!/usr/bin/python3
"""Checks the built shared library: check_library.py symbols|names|needed LIBRARY [ARGUMENT].

symbols LIBRARY LIST   it exports exactly the symbols of the list
names LIBRARY VERSION  its SONAME and its file names carry this version
needed LIBRARY [WHY]   it needs only the C and C++ libraries; WHY skips the check with this reason
"""

import pathlib
import re
import subprocess
import sys

ALLOWED = {"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1"}
SKIPPED = 77


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def dynamic_entries(library, kind):
    """The names of the library's dynamic entries of a kind (NEEDED, SONAME)."""
    return re.findall(rf"\({kind}\).*\[(.*)\]", output_of("readelf", "-d", "-W", library))


def check_symbols(library, list_file):
    lines = output_of("nm", "-D", "--defined-only", library).splitlines()
    exported = {line.split()[-1].split("@")[0] for line in lines}
    wanted = set(pathlib.Path(list_file).read_text(encoding="utf-8").split())
    return ([f"not exported: {name}" for name in sorted(wanted - exported)] +
            [f"exported, but not in the list: {name}" for name in sorted(exported - wanted)])


def check_names(library, version):
    path = pathlib.Path(library)
    major = version.split(".", maxsplit=1)[0]
    problems = []
    if dynamic_entries(library, "SONAME") != [f"libkelobase.so.{major}"]:
        problems.append(f"SONAME is {dynamic_entries(library, 'SONAME')}")
    if path.name != f"libkelobase.so.{version}":
        problems.append(f"the file is named {path.name}")
    for link in ("libkelobase.so", f"libkelobase.so.{major}"):
        if (path.parent / link).resolve() != path.resolve():
            problems.append(f"{link} does not lead to {path.name}")
    return problems


def check_needed(library):
    needed = dynamic_entries(library, "NEEDED")
    if not needed:
        return ["nothing is needed, which cannot be"]
    return [f"needed: {name}" for name in needed if name not in ALLOWED]


def main(check, library, *arguments):
    if check == "needed" and arguments:
        print(f"skipped: {arguments[0]}")
        return SKIPPED
    problems = {"symbols": check_symbols, "names": check_names, "needed": check_needed}[check](
        library, *arguments)
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
