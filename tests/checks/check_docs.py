#!/usr/bin/python3
"""Checks what the documents refer to: files, headings, programs and their options; and runs them.

Usage: check_docs.py links|commands|run ROOT BUILD_FOLDER

A code block for the shell (marked "sh", or indented) is run, in a folder that looks like the
repository and a network of its own, unless a comment in front of it tells otherwise:

  <!-- not run: REASON -->         only the syntax, the programs and their options are looked at
  <!-- run until: PATTERN -->      it is interrupted once its output has the pattern, and ends with 0
  <!-- run with: kelo-sim ... -->  beside that simulator

Exits with 77 when a block needs a program that is not installed here; where all are, nothing is
left out.
"""
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

from markdown import documents

SKIPPED = 77
SHELL = ("sh", "indented")
# Every fence names one: a block without a language is one that nobody checks.
LANGUAGES = {"sh", "text", "c", "c program", "cpp", "cpp program", "cmake", "lua", "json", "mermaid",
             "python", "bash", "ini"}
WORDS = {"not run": "reason", "run until": "pattern", "run with": "program"}
BLOCK_SECONDS = 120  # for a machine that has much else to do
# A block that is wrong fails each time. One that is right may fail on a machine that stands still
# while a camera is searched for.
ATTEMPTS = 3
# Packages that documents speak of and CI does not need; with the options that they are shown with.
FOREIGN = {
    "apt": {"install"}, "apt-get": {"-y"}, "chrt": {"--rr", "--fifo", "--pid"}, "dumpcap": {"-i", "-s", "-f", "-w"},
    "dpkg": {"-i"}, "ethtool": {"-g", "-G", "-k", "-K", "-c", "-C", "-S"}, "sysctl": {"-w"},
    "taskset": {"-c"}, "ulimit": {"-r"}, "sudo": set(), "nft": {"-a"}, "nstat": {"-az"},
    "ss": {"-u", "-a", "-m", "-n", "-uamn"}, "man": set(), "ps": {"-T", "-p"},
}
IN_TREE = ("scripts/", "tools/", "benchmarks/")
OURS = re.compile(r"^(?:scripts/|tools/|benchmarks/|build/|kelo-sim$|kelo$)")
OPTIONAL = {"tshark", "editcap", "cd", "export"}
SEPARATORS = {"&&", "||", "|", ";", "&"}
KEYWORDS = {"do", "then", "else", "done", "fi", "while", "if", "!"}


# Commands of a block ---------------------------------------------------------------------------

def commands(text):
    """The simple commands of a block, each as its words."""
    for line in text.replace("\\\n", " ").splitlines():
        lexer = shlex.shlex(line, posix=True, punctuation_chars=";&|")
        lexer.whitespace_split = True
        lexer.commenters = "#"
        words = []
        for word in [*lexer, ";"]:
            if word not in SEPARATORS:
                words.append(word)
                continue
            while words and (re.match(r"^\w+=", words[0]) or words[0] in KEYWORDS | {"sudo"}):
                words.pop(0)
            if words and words[0] != "for":
                yield words
            words = []


class Programs:
    """Which programs and options there are."""

    def __init__(self, root, build):
        self.root, self.build, self.helps = root, build, {}
        lists = [path.read_text() for pattern in ("CMakeLists.txt", "*/CMakeLists.txt", "*/*/CMakeLists.txt")
                 for path in root.glob(pattern)]
        self.targets = set(re.findall(r"(?:add_executable|add_library|kelo_add_test)\(\s*([\w-]+)",
                                      "\n".join(lists)))
        self.targets |= set(re.findall(r"^kelo_\w+\((\w+)", "\n".join(lists), re.MULTILINE))
        self.targets |= {"fuzz_" + path.stem for path in root.glob("tests/fuzz/targets/*.cpp")}
        self.presets = set(re.findall(r'"name": "(\w+)"', (root / "CMakePresets.json").read_text()))

    def ours(self, name):
        built = {"kelo-sim": "simulator/kelo-sim", "kelo": "tools/kelo/kelo"}.get(name)
        return self.build / built if built else None

    def help_of(self, name, words):
        """What the program tells of its options; None where it is not known."""
        if name.startswith(IN_TREE):
            return (self.root / name).read_text()
        path = self.ours(pathlib.Path(name).name)
        if path is None or not path.exists():
            return None
        command = [str(path)]
        if path.name == "kelo" and len(words) > 1 and re.match(r"^[a-z]", words[1]):
            command.append(words[1])
        if tuple(command) not in self.helps:
            run = subprocess.run([*command, "--help"], capture_output=True, text=True, check=False,
                                 timeout=BLOCK_SECONDS)
            self.helps[tuple(command)] = run.stdout if run.returncode == 0 else ""
        return self.helps[tuple(command)]

    def problems(self, words):
        name = words[0]
        if OURS.match(name):
            yield from self.problems_of_ours(name, words)
        elif name in FOREIGN:
            for option in (word for word in words[1:] if word.startswith("-")):
                if option.split("=")[0] not in FOREIGN[name]:
                    yield f"{name} {option}: not one of the options that are known to be right"
        elif name == "cmake":
            yield from self.problems_of_cmake(words)
        elif not name.startswith("./") and shutil.which(name) is None and name not in OPTIONAL:
            yield f"{name}: no such program"

    def problems_of_ours(self, name, words):
        if name.startswith(IN_TREE) and not os.access(self.root / name, os.X_OK):
            yield f"{name}: no such program"
            return
        if name.startswith("build/"):
            preset, target = name.split("/")[1], pathlib.Path(name).name
            if preset not in self.presets or target not in self.targets:
                yield f"{name}: no such preset or target"
                return
        help_text = self.help_of(name, words)
        if help_text is None:
            return
        for option in (word for word in words[1:] if word.startswith("--") and word != "--help"):
            if not re.search(re.escape(option.split("=")[0]) + r"(?![\w-])", help_text):
                yield f"{name} has no {option}"

    def problems_of_cmake(self, words):
        for option, value in zip(words[1:], words[2:]):
            if option == "--preset" and value not in self.presets:
                yield f"cmake --preset {value}: no such preset"
            if option == "--target" and value not in self.targets:
                yield f"cmake --target {value}: no such target"


# The three checks ------------------------------------------------------------------------------

def shell_blocks(document):
    return [block for block in document.blocks if block.language in SHELL]


def mark_of(block):
    word, _, rest = block.comment.partition(": ")
    return (word, rest) if word in WORDS else ("", "")


def check_links(root, _):
    found = documents(root)
    anchors = {document.path.resolve(): document.anchors() for document in found}
    count = 0
    for document in found:
        for line, target in document.links():
            count += 1
            place = f"{document.name}:{line}: {target}"
            if re.match(r"^[a-z]+:", target):
                continue  # leads outside
            path, _, anchor = target.partition("#")
            file = (document.path.parent / path).resolve() if path else document.path.resolve()
            if not file.exists():
                yield f"{place}: no such file"
            elif anchor and anchor not in anchors.get(file, ()):
                yield f"{place}: no such heading"
    if count < 20:
        yield f"only {count} links found: the search is broken"


def check_commands(root, build):
    programs = Programs(root, build)
    count = 0
    for document in documents(root):
        for block in document.blocks:
            place = f"{document.name}:{block.line}"
            if block.language not in LANGUAGES | set(SHELL) and not block.language.startswith("hex "):
                yield f"{place}: a block of an unknown language: '{block.language}'"
        for block in shell_blocks(document):
            count += 1
            place = f"{document.name}:{block.line}"
            syntax = subprocess.run(["bash", "-n"], input=block.text, capture_output=True, text=True,
                                    check=False)
            if syntax.returncode != 0:
                yield f"{place}: {syntax.stderr}"
                continue
            for words in commands(block.text):
                yield from (f"{place}: {problem}" for problem in programs.problems(words))
        for line, span in document.spans():
            if OURS.match(span.split()[0]) and re.match(r"^(?:kelo-sim|kelo|scripts/\w+) ?[\w -]*$", span):
                for problem in programs.problems(span.split()):
                    yield f"{document.name}:{line}: {problem}"
    if count < 10:
        yield f"only {count} blocks found: the search is broken"


class Runner:
    def __init__(self, root, build):
        self.root, self.build, self.skipped, self.ran = root, build, [], 0

    def folder_like_the_repository(self, folder):
        for entry in self.root.iterdir():
            pathlib.Path(folder, entry.name).symlink_to(entry)

    def missing(self, text):
        return [words[0] for words in commands(text)
                if words[0] in OPTIONAL - {"cd", "export"} and shutil.which(words[0]) is None]

    def shell(self, text, folder, **how):
        path = ":".join((str(self.build / "simulator"), str(self.build / "tools/kelo"), os.environ["PATH"]))
        environment = {**os.environ, "HOME": folder, "PATH": path}
        space = ["--net"] if os.geteuid() == 0 else ["--net", "--map-root-user"]
        return subprocess.Popen(["unshare", *space, "bash", "-euo", "pipefail", "-c",
                                 "ip link set lo up\n" + text], cwd=folder, env=environment,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, start_new_session=True, **how)

    def run(self, block):
        """Returns what went wrong, or nothing."""
        word, rest = mark_of(block)
        text = block.text
        if word == "run with":
            text = (f"{rest} >simulated 2>&1 </dev/null &\ntrap 'kill %1; wait' EXIT\n"
                    f"until [[ -s simulated ]]; do sleep 0.02; done\n{text}\n")
        with tempfile.TemporaryDirectory() as folder:
            self.folder_like_the_repository(folder)
            process = self.shell(text, folder)
            late = threading.Event()
            stop = threading.Timer(BLOCK_SECONDS, lambda: (late.set(), os.killpg(process.pid, signal.SIGKILL)))
            stop.start()
            try:
                problem = self.follow(process, rest if word == "run until" else None)
                return f"did not end within {BLOCK_SECONDS} s\n{problem}" if late.is_set() else problem
            finally:
                stop.cancel()
                process.stdin.close()
                process.stdout.close()

    @staticmethod
    def follow(process, pattern):
        output, seen = "", False
        for line in process.stdout:
            output += line.decode(errors="replace")
            if pattern and not seen and re.search(pattern, output):
                seen = True
                os.killpg(process.pid, signal.SIGINT)
        result = process.wait()
        if pattern and not seen:
            return f"its output never had '{pattern}':\n{output}"
        if result != 0:
            return f"ended with {result}:\n{output}"
        return ""


def check_run(root, build):
    runner = Runner(root, build)
    for document in documents(root):
        for block in shell_blocks(document):
            if mark_of(block)[0] == "not run":
                continue
            missing = runner.missing(block.text)
            if missing:
                runner.skipped.append(f"{document.name}:{block.line}: {', '.join(missing)} not installed")
                continue
            runner.ran += 1
            problems = []
            while len(problems) < ATTEMPTS and (problem := runner.run(block)):
                problems.append(problem)
            if len(problems) == ATTEMPTS:
                yield f"{document.name}:{block.line}: {problem}"
    if runner.ran < 3:
        yield f"only {runner.ran} blocks were run: the search is broken"
    print(f"{runner.ran} blocks run")
    if runner.skipped:
        print("skipped: " + "; ".join(runner.skipped))
        check_run.result = SKIPPED


check_run.result = 0


def main(which, root, build):
    check = {"links": check_links, "commands": check_commands, "run": check_run}[which]
    problems = list(check(pathlib.Path(root), pathlib.Path(build)))
    if problems:
        sys.exit("\n".join(problems))
    sys.exit(getattr(check, "result", 0))


if __name__ == "__main__":
    main(*sys.argv[1:])
