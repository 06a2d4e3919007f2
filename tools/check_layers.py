#!/usr/bin/env python3
"""Checks that the folders of src/ depend downwards only.

Reads the #include "..." lines of src/ against the table below; includes are paths from src/. Anything else fails: an
upward or sideways include, files that include each other in a circle, a folder that is not in the table, a file that
does not exist.

  check_layers.py [TREE]      checks TREE, by default the tree that this script stands in
  check_layers.py --self-test shows that each kind of fault is found
"""

import pathlib
import re
import sys

import checking

# Folder -> the folders that it may include besides itself.
BASE = ["platform/conf_parser", "foundation"]
STORE = BASE + ["resource_store", "platform/json_generator"]
EVERYTHING_ABOVE_DB = STORE + ["platform/data_encrypt"]
ABOVE_REQUESTS = EVERYTHING_ABOVE_DB + ["subscription_db", "service"]
ABOVE_SUBSCRIPTIONS = ABOVE_REQUESTS + ["requests"]
LAYERS = {
    "platform/conf_parser": [],
    "platform/data_encrypt": [],
    "foundation": ["platform/conf_parser"],
    "resource_store": ["foundation"],
    "platform/json_generator": ["foundation", "resource_store"],
    "subscription_db": EVERYTHING_ABOVE_DB,
    "service": EVERYTHING_ABOVE_DB + ["subscription_db"],
    "requests": ABOVE_REQUESTS,
    "requests/event_service": ABOVE_REQUESTS + ["requests"],
    # What a subscription is; what judges it; what acts. A judge never includes what acts.
    "subscriptions/resource": ABOVE_SUBSCRIPTIONS,
    "subscriptions/judgement": ABOVE_SUBSCRIPTIONS + ["subscriptions/resource"],
    "subscriptions": ABOVE_SUBSCRIPTIONS + ["subscriptions/resource", "subscriptions/judgement"],
}
COMPOSITION_ROOT = "service/main.cpp"  # may include everything

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def inclusions(path):
    """The number of each line of a file that includes one of ours, and that file."""
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if match := INCLUDE.match(line):
            yield number, match.group(1)


def layer_faults(src, path):
    name = path.relative_to(src).as_posix()
    folder = path.parent.relative_to(src).as_posix()
    if folder not in LAYERS:
        yield f"src/{name}: the folder {folder} is not in the table of layers"
        return
    allowed = LAYERS if name == COMPOSITION_ROOT else [folder] + LAYERS[folder]
    for number, included in inclusions(path):
        if not (src / included).is_file():
            yield f"src/{name}:{number}: there is no src/{included}"
        elif str(pathlib.PurePosixPath(included).parent) not in allowed:
            yield f"src/{name}:{number}: {folder} may not include {included}"


def circle_faults(src, files):
    """Pairs of header and source that include each other, by whatever way."""
    left = {}
    for path in files:
        pair = path.relative_to(src).with_suffix("").as_posix()
        left.setdefault(pair, set()).update({included.rpartition(".")[0] for _, included in inclusions(path)} - {pair})
    while free := [pair for pair, included in left.items() if not included & left.keys()]:
        for pair in free:
            del left[pair]
    if left:
        yield f"a circle of includes is among these, or below them: {' '.join(sorted(left))}"


def faults(tree):
    """Yields one line for each fault in the tree's src folder."""
    src = tree / "src"
    files = sorted(p for p in src.rglob("*") if p.suffix in (".h", ".cpp", ".c", ".hpp"))
    if not files:
        yield f"{src} holds no files"
    for path in files:
        yield from layer_faults(src, path)
    yield from circle_faults(src, files)


SOUND = {
    "src/platform/conf_parser/conf_parser.h": "",
    "src/foundation/logging.h": "#include <string>\n",
    "src/foundation/logging.cpp": '#include "foundation/logging.h"\n#include "platform/conf_parser/conf_parser.h"\n',
    "src/requests/listener.h": '#include "foundation/logging.h"\n',
    "src/service/main.cpp": '#include "requests/listener.h"\n',
}
BROKEN = {
    "upwards": {"src/foundation/random.cpp": '#include "requests/listener.h"\n'},
    "sideways": {"src/platform/conf_parser/conf_parser.cpp": '  #  include "foundation/logging.h"\n'},
    "from beside the composition root": {"src/service/start_up.cpp": '#include "requests/listener.h"\n'},
    "an unknown folder": {"src/helpers/strings.h": ""},
    "a file directly in src": {"src/main.cpp": ""},
    "an unknown file": {"src/requests/request.cpp": '#include "requests/missing.h"\n'},
    "a judge that acts": {
        "src/subscriptions/creation.h": "",
        "src/subscriptions/judgement/rules.cpp": '#include "subscriptions/creation.h"\n',
    },
    "a way around the table": {"src/foundation/shell.cpp": '#include "foundation/../requests/listener.h"\n'},
    "two pairs that include each other": {
        "src/foundation/random.h": '#include "foundation/logging.h"\n',
        "src/foundation/logging.cpp": '#include "foundation/random.h"\n',
    },
}


if __name__ == "__main__":
    sys.exit(checking.main(faults, SOUND, BROKEN))
