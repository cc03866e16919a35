#!/usr/bin/python3
"""Checks the built shared library: check_library.py CHECK LIBRARY [ARGUMENT].

symbols LIBRARY LIST   it exports exactly the symbols of the list
names LIBRARY VERSION  its SONAME and its file names carry this version
needed LIBRARY [WHY]   it needs only the C and C++ libraries; WHY skips the check with this reason
hardened LIBRARY       an optimised build has everything that cmake/Hardening.cmake asks for
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


def segment_flags(library, name):
    """The access rights of a segment, such as "RW"; none without it."""
    row = re.search(rf"^ +{name} +(?:0x[0-9a-f]+ +){{5}}([RWE ]+?) *0x",
                    output_of("readelf", "-l", "-W", library), re.MULTILINE)
    return row.group(1).replace(" ", "") if row else None


def unmarked_functions(library):
    """Exported functions whose first instruction does not mark the target of an indirect jump."""
    code = output_of("objdump", "-d", "--no-show-raw-insn", library)
    first = dict(re.findall(r"^[0-9a-f]+ <(\w+)>:\n +[0-9a-f]+:\t(\w+)", code, re.MULTILINE))
    lines = output_of("nm", "-D", "--defined-only", library).splitlines()
    functions = [line.split()[2].split("@")[0] for line in lines if line.split()[1] == "T"]
    return [name for name in functions if first.get(name) != "endbr64"]


def check_hardened(library):
    imported = {line.split()[-1].split("@")[0]
                for line in output_of("nm", "-D", "--undefined-only", library).splitlines()}
    dynamic = output_of("readelf", "-d", "-W", library)
    x86 = "X86-64" in output_of("readelf", "-h", library)
    wanted = {
        "guarded stacks (__stack_chk_fail)": "__stack_chk_fail" in imported,
        "checked copies (__..._chk)": any(re.fullmatch(r"__\w+_chk", name) for name in imported),
        "a segment that becomes read-only (GNU_RELRO)": segment_flags(library, "GNU_RELRO") == "R",
        "binding at once (BIND_NOW)": re.search(r"\((FLAGS|FLAGS_1)\).*(BIND_)?NOW", dynamic),
        "a stack without code (GNU_STACK)": segment_flags(library, "GNU_STACK") == "RW",
        "code that is not written to (no TEXTREL)": "TEXTREL" not in dynamic,
    }
    problems = [f"not there: {what}" for what, there in wanted.items() if not there]
    if x86:
        problems += [f"no mark for indirect jumps: {name}" for name in unmarked_functions(library)]
    return problems


def main(check, library, *arguments):
    if check == "needed" and arguments:
        print(f"skipped: {arguments[0]}")
        return SKIPPED
    checks = {"symbols": check_symbols, "names": check_names, "needed": check_needed,
              "hardened": check_hardened}
    problems = checks[check](library, *arguments)
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
