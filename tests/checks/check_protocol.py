#!/usr/bin/python3
"""Compares the tables and examples of docs/protocol.md with the records and constants of the code.

Usage: check_protocol.py ROOT COMPILER...

Every offset, size and value that the document gives becomes an assertion that the compiler checks.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

RECORD = re.compile(r"^#+ [^`]*`(\w+)`, (?:up to )?(\d+) bytes$")
# First column of a table of constants; the second is headed "value".
NAMED = ("constant", "command", "status", "register", "type", "first word")
FOLDERS = ("src/KELOAPI/protocol", "src/KELOAPI/firmware", "common")
HEADERS = ("kelo_protocol.h", "kelo_fw_common.h", "img_common.h", "kelo_registers.h")
RECORDS_MIN, CONSTANTS_MIN, EXAMPLES_MIN = 10, 40, 10


def cells(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def tables(lines):
    """Each table: the line of its heading, its column names, its rows."""
    heading, index = "", 0
    while index < len(lines):
        line = lines[index]
        if line.startswith("#"):
            heading = line
        if line.startswith("|"):
            end = index
            while end < len(lines) and lines[end].startswith("|"):
                end += 1
            yield heading, cells(line), [cells(row) for row in lines[index + 2:end]]
            index = end
        index += 1


def number_of(text):
    """4, 0xAB or 4 × 128."""
    product = 1
    for factor in text.split("×"):
        product *= int(factor.strip(), 0)
    return product


class Document:
    def __init__(self, text):
        self.records = {}    # name: [(offset, size, field)]
        self.claims = []     # assertions of C++, each with what it is about
        self.constants = 0
        self.problems = []
        self.text = text

    def read(self):
        for heading, columns, rows in tables(self.text.splitlines()):
            record = RECORD.match(heading)
            if record and columns[:3] == ["offset", "size", "field"]:
                self.read_record(record.group(1), int(record.group(2)), rows)
            elif columns[0] in NAMED and columns[1] == "value":
                self.read_constants(rows)
        self.examples = list(re.finditer(r"^```hex (\w+)\n(.*?)^```$", self.text,
                                         re.MULTILINE | re.DOTALL))
        for example in self.examples:
            self.read_example(example.group(1), example.group(2))

    def read_record(self, name, total, rows):
        fields, place = [], 0
        self.claims.append((f"sizeof({name}) == {total}", f"the size of {name}"))
        for offset, size, field, _ in rows:
            field, offset, size = field.strip("`"), int(offset), number_of(size)
            if offset != place:
                self.problems.append(f"{name}.{field} at {offset}: the field before ends at {place}")
            place = offset + size
            fields.append((offset, size, field))
            self.claims.append((f"offsetof({name}, {field}) == {offset}", f"{name}.{field}"))
            self.claims.append((f"sizeof({name}::{field}) == {size}", f"size of {name}.{field}"))
        if place != total:
            self.problems.append(f"{name}: its fields end at {place}, not at {total}")
        self.records[name] = fields

    def read_constants(self, rows):
        for row in rows:
            name = row[0].strip("`")
            if row[1] == "":
                continue
            self.constants += 1
            self.claims.append((f"static_cast<unsigned long>({name}) == {row[1]}ul", name))

    def read_example(self, name, text):
        given = [line.split(maxsplit=1) for line in text.splitlines()]
        wanted = self.records.get(name, [])
        if [field for field, _ in given] != [field for _, _, field in wanted]:
            self.problems.append(f"the example of {name} does not have its fields")
            return
        for (field, data), (_, size, _) in zip(given, wanted):
            # Only as many of the values are there as the example is about.
            length = len(bytes.fromhex(data))
            if length != size and not (field in OPEN_ENDED and length % 4 == 0 and length <= size):
                self.problems.append(f"the example of {name}: {field} has {size} bytes")


OPEN_ENDED = {"NL_register_values"}


def invented(root, document):
    """Examples that did not go over the wire: every one is from the capture of a session."""
    capture = (root / "tests/data/wireshark/session.pcap").read_bytes()
    for example in document.examples:
        lines = example.group(2).splitlines()
        data = bytes.fromhex("".join(line.split(maxsplit=1)[1] for line in lines))
        if data not in capture:
            yield f"the example of {example.group(1)} is in no packet of the capture"


def undocumented(root, document):
    """Records of the protocol, commands and statuses that have no table or row."""
    header = (root / "src/KELOAPI/protocol/kelo_protocol.h").read_text()
    records = set(re.findall(r"^} (T\w+);", header, re.MULTILINE)) | {"THeaderImage"}
    yield from (f"{name} has no table" for name in sorted(records - set(document.records)))
    shown = {example.group(1) for example in document.examples} | {"TMemReadReplyMax"}  # as the write
    yield from (f"{name} has no example" for name in sorted(records - shown))
    for enumeration in re.findall(r"^enum \w+ : uint32_t {(.*?)^};", header, re.DOTALL | re.MULTILINE):
        for name in re.findall(r"^    (\w+) =", enumeration, re.MULTILINE):
            if f"| `{name}` |" not in document.text:
                yield f"{name} has no row"


def compile_claims(root, claims, compiler):
    text = "#include <cstddef>\n" + "".join(f'#include "{name}"\n' for name in HEADERS)
    text += "".join(f'static_assert({claim}, "{about}");\n' for claim, about in claims)
    with tempfile.TemporaryDirectory() as folder:
        source = pathlib.Path(folder, "claims.cpp")
        source.write_text(text)
        run = subprocess.run([*compiler, "-std=c++20", "-Wno-invalid-offsetof", "-fsyntax-only",
                              *(f"-I{root / name}" for name in FOLDERS), source],
                             capture_output=True, text=True, check=False)
    if run.returncode != 0:
        yield from (line for line in run.stderr.splitlines() if "error:" in line)


def main(root, *compiler):
    root = pathlib.Path(root)
    document = Document((root / "docs/protocol.md").read_text())
    document.read()
    problems = document.problems
    problems += undocumented(root, document)
    problems += invented(root, document)
    problems += compile_claims(root, document.claims, compiler)
    counts = (len(document.records), document.constants, len(document.examples))
    if any(count < least for count, least in zip(counts, (RECORDS_MIN, CONSTANTS_MIN, EXAMPLES_MIN))):
        problems.append(f"only {counts} records, constants and examples found: the search is broken")
    if problems:
        sys.exit("docs/protocol.md and the code differ:\n  " + "\n  ".join(problems))
    print(f"{len(document.claims)} statements of docs/protocol.md hold")


main(*sys.argv[1:])
