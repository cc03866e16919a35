#!/usr/bin/python3
"""Checks that the library's includes point down its layers only.

    common < base < protocol, net < stream, firmware < camera and manager < api

camera and manager, which call each other, are the one declared exception; layers that share a rank
otherwise do not include each other. The files directly in src/KELOAPI are the api layer. Nothing in
the library includes the simulator, tests, examples or anything else of the tree.

Usage: check_layers.py [ROOT]. Prints each violation as file:line and exits 1 if there is any.
"""

import collections
import pathlib
import re
import sys

BELOW = {"common": []}
BELOW["base"] = ["common"]
BELOW["protocol"] = BELOW["net"] = ["common", "base"]
BELOW["stream"] = BELOW["firmware"] = BELOW["net"] + ["protocol", "net"]
BELOW["camera"] = BELOW["stream"] + ["stream", "firmware", "manager"]
BELOW["manager"] = BELOW["stream"] + ["stream", "firmware", "camera"]
BELOW["api"] = BELOW["camera"] + ["camera"]

LIBRARY = "src/KELOAPI"
SOURCES = {".h", ".hpp", ".c", ".cpp"}
NOT_OURS = re.compile(r"^(build|out|\.)")
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)


def layer_of(path):
    """The layer of a file of the library, else None. The path is relative to the root."""
    parts = path.parts
    if parts[0] == "common":
        return "common"
    if path.is_relative_to(LIBRARY):
        return parts[2] if len(parts) > 3 else "api"
    return None


def find_files(root):
    """Every source file of the tree, relative to the root."""
    files = []
    for top in sorted(root.iterdir()):
        if top.is_dir() and not NOT_OURS.match(top.name):
            files += [f.relative_to(root) for f in sorted(top.rglob("*")) if f.suffix in SOURCES]
    return files


def includes_of(text):
    """(line number, whether in quotes, name) of each include that is not commented out."""
    blank = COMMENT.sub(lambda comment: "\n" * comment.group().count("\n"), text)
    for number, line in enumerate(blank.split("\n"), start=1):
        if found := INCLUDE.match(line):
            yield number, found.group(1) == '"', found.group(2)


class Tree:
    def __init__(self, root):
        self.root = root
        self.files = find_files(root)
        self.by_name = collections.defaultdict(list)
        for file in self.files:
            self.by_name[file.name].append(file)
        self.generated = {f.name.removesuffix(".in") for f in (root / "cmake").glob("*.in")}

    def resolve(self, including, name):
        """The files that an include may mean."""
        beside = (self.root / including.parent / name).resolve()
        if beside.is_relative_to(self.root) and beside.relative_to(self.root) in self.files:
            return [beside.relative_to(self.root)]
        wanted = tuple(part for part in pathlib.PurePath(name).parts if part not in ("..", "."))
        return [f for f in self.by_name[wanted[-1]] if f.parts[-len(wanted):] == wanted]

    def check_include(self, file, layer, quoted, name):
        """What is wrong with an include, else None."""
        targets = self.resolve(file, name)
        if not targets:
            if quoted and name not in self.generated:
                return f'"{name}" is no file of this tree'
            return None
        inside = [target for target in targets if layer_of(target) is not None]
        if not inside:
            return f"{layer} includes {targets[0]}, which is outside of the library"
        if len(inside) > 1:
            return f'"{name}" is ambiguous: {", ".join(map(str, inside))}'
        target_layer = layer_of(inside[0])
        if target_layer != layer and target_layer not in BELOW[layer]:
            return f"{layer} includes {inside[0]}, but {target_layer} is not below {layer}"
        return None

    def violations(self):
        for file in self.files:
            layer = layer_of(file)
            if layer is None:
                continue
            if layer not in BELOW:
                yield f"{file}:1: {layer} is not a known layer"
                continue
            text = (self.root / file).read_text(encoding="utf-8")
            for line, quoted, name in includes_of(text):
                if problem := self.check_include(file, layer, quoted, name):
                    yield f"{file}:{line}: {problem}"


def main(arguments):
    root = pathlib.Path(arguments[1] if len(arguments) > 1 else ".").resolve()
    tree = Tree(root)
    if not any(layer_of(file) for file in tree.files):
        print(f"{root}: there is no library here", file=sys.stderr)
        return 1
    violations = list(tree.violations())
    for violation in violations:
        print(violation)
    return 1 if violations else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
