#!/usr/bin/env python3
"""Checks what docs/ claims to hold completely.

  docs/architecture.md  names every source file of src/ and tools in the table of its folder, and no other there; it names
                        every folder of tools, tests, bench and packaging. No document names a path or holds a link
                        that leads nowhere
  docs/operations.md    has every line that the daemon and its tools log or print, and no other; every fixed path and
                        every configuration key that the code asks for. Some document names each environment variable

A log line is a text of the code that reads like a sentence. In docs/operations.md it stands in backquotes in the first
column of a table headed "Log line", words in capitals in the place of what the code fills in.

  check_documents.py [TREE]       checks TREE, by default the tree that this script stands in
  check_documents.py --self-test  shows that each kind of fault is found
"""

import pathlib
import re
import sys

import checking

TOP_FOLDERS = ("bench", "docs", "packaging", "scripts", "share", "src", "tests", "tools")
LOGGING = ["src", "tools/event_delivery", "tools/redfish_gateway"]
# Beginnings of texts that read like sentences and are no lines: parts of messages, resources and HTTP headers.
NO_LINES = (
    "The request body submitted contain no data",
    "Add properties in the JSON object",
    "This resource represents the target of an event subscription",
    "The event subscription has been terminated.",
    "Content-Type: ",
    "OData-Version: ",
    "Basic ",
    "User Session",
)

# Raw strings, assertions of the compiler, comments and includes are left out; a text ends at the last of several that
# stand behind each other.
NO_CODE = re.compile(
    r'R"(\w*)\(.*?\)\1"|\bstatic_assert\([^;]*;|("(?:\\.|[^"\\\n])*")|//[^\n]*|/\*.*?\*/|^\s*#\s*include[^\n]*', re.S | re.M
)
TEXT = re.compile(r'"(?:\\.|[^"\\\n])*"(?:\s*"(?:\\.|[^"\\\n])*")*')
FILLED_IN = re.compile(r"%[-+ #0-9.*]*(?:hh|h|ll|l|z)?[a-zA-Z]")


def sources(tree, *folders):
    for folder in folders:
        yield from sorted(p for p in (tree / folder).rglob("*") if p.suffix in (".h", ".cpp"))


def texts(path):
    """The string literals of a file, those that the compiler joins as one."""
    code = NO_CODE.sub(lambda match: match.group(2) or " ", path.read_text(encoding="utf-8"))
    for match in TEXT.finditer(code):
        text = re.sub(r'"\s*"', "", match.group())[1:-1]
        yield text.replace(r"\"", '"').replace(r"\n", "")


def is_line(text):
    begins = re.match(r"[A-Z\[%]", text) or text.endswith(".")
    return begins and " " in text and re.search("[a-z]{2}", text) and not text.startswith(NO_LINES)


def pattern(text):
    """What stands for a line in the document. One that begins or ends in the middle is completed by the code."""
    filled = "(?:[A-Z&_]+|[a-z]{0,9} ?)".join(re.escape(part) for part in FILLED_IN.split(text))
    return re.compile((".+" if text[0] == " " else "") + filled + (r"[A-Z]+\b.*" if text[-1] in " =" else ""))


def rows(document, heading):
    """The first cells of the tables whose first heading begins so."""
    is_inside = False
    for line in document.splitlines():
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) < 3:
            is_inside = False
        elif cells[1].startswith(heading):
            is_inside = True
        elif is_inside:
            yield cells[1]


def tables_of_files(document):
    """Folder -> the names in its table, whose first heading is "File in `FOLDER/`"; folders of src/ without "src/"."""
    tables = {}
    folder = None
    for line in document.splitlines():
        cell = (line.split("|") + ["", ""])[1].strip()
        if heading := re.fullmatch(r"File in `([\w/]+)/`", cell):
            folder = heading.group(1)
        elif not cell:
            folder = None
        elif folder:
            tables.setdefault(folder, set()).update(re.findall(r"`([^`]+)`", cell))
    return tables


def map_faults(tree, document):
    tables = {folder: {pathlib.PurePosixPath(name).stem for name in names}
              for folder, names in tables_of_files(document).items()}
    present = {folder: set() for folder in tables}
    for path in sources(tree, "src", "tools"):
        name = path.relative_to(tree).as_posix().removeprefix("src/")
        folder = next((str(above) for above in pathlib.PurePosixPath(name).parents if str(above) in tables), None)
        if folder:
            present[folder].add(path.stem)
        is_program = path.name == "main.cpp" and name.startswith("tools/")  # stands in the table of programs
        if path.stem not in tables.get(folder, ()) and not is_program:
            yield f"architecture.md has no table that names {name}"
    for folder, names in tables.items():
        for name in sorted(names - present[folder]):
            yield f"architecture.md names {name} in {folder}, which is not there"
    named = {pathlib.PurePosixPath(name).name for name in re.findall(r"`([\w./-]+)`", document)}
    for top in ("tools", "tests", "bench", "packaging"):
        for folder in [tree / top] + sorted((tree / top).glob("[a-z]*/")):
            if folder.is_dir() and folder.name not in named:
                yield f"architecture.md does not name {folder.relative_to(tree)}"


def link_faults(path, document):
    """Links to files that are not there, or to no heading of theirs."""
    for target, heading in re.findall(r"\]\((?!http)([^)#]*)#?([^)]*)\)", document):
        file = path.parent / target if target else path
        text = file.read_text(encoding="utf-8") if file.is_file() else ""
        titles = re.findall("^#+ (.*)", text, re.M)
        headings = {re.sub(r"[^\w -]", "", title.strip().lower()).replace(" ", "-") for title in titles}
        if not file.exists() or (heading and heading not in headings):
            yield f"{path.name} leads to {target}#{heading}, which is not there"


def path_faults(tree, name, document):
    """Paths of files and folders of the tree, those of src/ with or without "src/" and their suffix."""
    for path in re.findall(r"`([a-z_]+/[\w./-]+)`", document):
        top = path.split("/")[0]
        is_ours = (tree / "src" / top).is_dir() or top in TOP_FOLDERS
        candidates = [base / (path + suffix) for base in (tree, tree / "src") for suffix in ("", ".h", ".cpp")]
        is_pattern = re.search("[A-Z]{3}", path) or path.startswith("docs/figures/")
        if is_ours and not is_pattern and not any(candidate.exists() for candidate in candidates):
            yield f"{name} names {path}, which is not there"


def line_faults(tree, document):
    documented = [line for cell in rows(document, "Log line") for line in re.findall(r"`([^`]+)`", cell)]
    patterns = {}
    for path in sources(tree, *LOGGING):
        for text in filter(is_line, texts(path)):
            patterns[text] = pattern(text)
            if not any(patterns[text].fullmatch(line) for line in documented):
                yield f'operations.md lacks "{text}" of {path.relative_to(tree)}'
    for line in documented:
        if not any(expression.fullmatch(line) for expression in patterns.values()):
            yield f'operations.md has "{line}", which nothing writes'


def variable_faults(tree, documents):
    """Environment variables that a program, a script or a test asks for."""
    asked = r'getenv\("(\w+)"|environ(?:\.get)?[\[(]["\'](\w+)|\$\{((?:EVENT_SERVICE|REDFISH|FUZZ)_\w+):'
    for folder in ("src", "tools", "tests", "bench", "scripts"):
        for path in sorted((tree / folder).rglob("*")):
            if path.is_file() and path.name != "check_documents.py" and "__pycache__" not in path.parts:
                for match in re.finditer(asked, path.read_text(encoding="utf-8", errors="ignore")):
                    if not re.search(rf"(?<!\w){match.group(match.lastindex)}(?!\w)", documents):
                        yield f"no document names {match.group(match.lastindex)} of {path.relative_to(tree)}"


def name_faults(tree, document):
    for path in sources(tree, *LOGGING):
        code = path.read_text(encoding="utf-8")
        names = re.findall(r'(?:getConfigValue\([^"()]*(?:\(\)[^"()]*)*|[ (]value\()"(\w+)"', code)
        if path.name == "file_paths.h":
            names += re.findall(r' = "(/[^"]+?)/?";', code)
        for name in names:
            if not re.search(rf"(?<!\w){re.escape(name)}(?!\w)", document):
                yield f"operations.md does not name {name} of {path.relative_to(tree)}"


def faults(tree):
    documents = {path: path.read_text(encoding="utf-8") for path in [tree / "README.md", *(tree / "docs").glob("*.md")]}
    for path, text in documents.items():
        yield from path_faults(tree, path.name, text)
        yield from link_faults(path, text)
    yield from variable_faults(tree, "".join(documents.values()))
    yield from map_faults(tree, documents[tree / "docs/architecture.md"])
    operations = documents[tree / "docs/operations.md"]
    yield from line_faults(tree, operations)
    yield from name_faults(tree, operations)


SOUND = {
    "src/foundation/log.cpp": '// "None."\nLogError("Line %zu of %s"\n  " fails.", n); getenv("ROOT"); // "No."\n',
    "src/foundation/file_paths.h": 'std::string log = "/var/log/";\n',
    "tools/watch/main.cpp": "", "tests/a_test.cpp": "", "bench/a_bench.cpp": "", "packaging/debian/prerm": "",
    "README.md": "",
    "docs/architecture.md": "`tests` `bench` `tools/watch` `tools` `packaging` `debian`\n"
                            "\n| File in `foundation/` |\n|---|\n| `file_paths`, `log` |\n",
    "docs/operations.md": "ROOT /var/log\n\n| Log line | |\n|---|---|\n| `Line N of FILE fails.` | |\n",
}
BROKEN = {
    "a file that is not in the map": {"src/foundation/new.h": ""},
    "a file of the same name elsewhere": {"src/service/log.h": ""},
    "a folder that is not in the map": {"tools/new/main.cpp": ""},
    "a file that is only in the map": {"docs/architecture.md": SOUND["docs/architecture.md"] + "| `gone` |\n"},
    "a path that is not there": {"docs/why.md": "see `foundation/gone`"},
    "a link to no heading": {"docs/why.md": "# Why?\n[why](#why) [where](operations.md#where)"},
    "a line without a word": {"src/foundation/new/log.h": 'LogError("Nothing works.");'},
    "a line that nothing writes": {"docs/operations.md": SOUND["docs/operations.md"] + "| `All is well.` | |\n"},
    "a changed line": {"docs/operations.md": SOUND["docs/operations.md"].replace("fails", "failed")},
    "a path": {"src/foundation/file_paths.h": 'std::string log = "/var/nginx";\n'},
    "a variable": {"src/foundation/log.h": 'getenv("HOME");\n'},
    "a key of a local reader": {"tools/redfish_gateway/settings.h": 'const int port = value("KEY");\n'},
    "a key": {"src/foundation/log.h": 'getConfigValue(Paths().file, "KEY", 128);\n'},
}


if __name__ == "__main__":
    sys.exit(checking.main(faults, SOUND, BROKEN))
