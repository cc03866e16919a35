"""What the checks of documents need of Markdown: links, anchors, code blocks."""
import html
import re
import subprocess

FENCE = re.compile(r"^(```+)\s*(.*)$")
LINK = re.compile(r"!?\[(?:[^\[\]]|\[[^\]]*\])*\]\(([^()\s]+)\)")
CODE_SPAN = re.compile(r"(`+)(.+?)\1")
COMMENT = re.compile(r"^<!-- (.*) -->$")


class Block:
    """A code block: its language ("indented" for one without a fence), text and line number, and the
    comment in front of it, if there is one."""

    def __init__(self, language, line, comment):
        self.language, self.line, self.comment, self.lines = language, line, comment, []

    @property
    def text(self):
        return "\n".join(self.lines).rstrip() + "\n"


class Document:
    def __init__(self, path, name):
        self.name = name
        self.path = path
        self.blocks, self.prose = [], []  # prose: line number and text
        self.read(path.read_text().splitlines())

    def read(self, lines):
        fence, comment, before = None, "", ""
        for number, line in enumerate(lines, 1):
            mark = FENCE.match(line)
            if fence is not None:
                if mark and mark.group(1) == fence and not mark.group(2):
                    fence = None
                else:
                    self.blocks[-1].lines.append(line)
            elif mark:
                fence = mark.group(1)
                self.blocks.append(Block(mark.group(2), number, comment))
            elif line.startswith("    ") and self.in_indented(number, before):
                if not self.in_indented(number, None):
                    self.blocks.append(Block("indented", number, comment))
                self.blocks[-1].lines.append(line[4:])
                self.indented_to = number
            else:
                self.prose.append((number, line))
            if line.strip():
                given = COMMENT.match(line)
                comment = given.group(1) if given else "" if fence is None else comment
            before = line

    indented_to = -1

    def in_indented(self, number, before):
        """Whether an indented line belongs to a block that it goes on with, or may begin."""
        if self.indented_to == number - 1:
            return True
        return before == ""

    def links(self):
        for number, line in self.prose:
            for match in LINK.finditer(CODE_SPAN.sub("", line)):
                yield number, match.group(1)

    def spans(self):
        for number, line in self.prose:
            for match in CODE_SPAN.finditer(line):
                yield number, match.group(2)

    def anchors(self):
        """The names under which GitHub lets one link to the headings."""
        seen, found = {}, set()
        for _, line in self.prose:
            heading = re.match(r"^#+\s+(.*?)\s*#*$", line)
            if not heading:
                continue
            text = LINK.sub(lambda match: re.search(r"\[(.*)\]", match.group(0)).group(1),
                            html.unescape(heading.group(1)))
            slug = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
            count = seen.get(slug, 0)
            seen[slug] = count + 1
            found.add(slug if count == 0 else f"{slug}-{count}")
        return found


def documents(root):
    names = subprocess.run(["git", "-C", str(root), "ls-files", "-co", "--exclude-standard", "*.md"],
                           capture_output=True, text=True, check=True).stdout.split()
    return [Document(root / name, name) for name in names if (root / name).exists()]
