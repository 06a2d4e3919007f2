#!/usr/bin/env python3
"""Checks that the folders of src/ depend downwards only.

Reads the #include "..." lines of src/ against the table below; includes are paths from src/. Anything else fails: an
upward or sideways include, a folder that is not in the table, a file that does not exist.

  check_layers.py [TREE]      checks TREE, by default the tree that this script stands in
  check_layers.py --self-test shows that each kind of fault is found
"""

import pathlib
import re
import sys
import tempfile

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


def faults(tree):
    """Yields one line for each fault in the tree's src folder."""
    src = tree / "src"
    for path in sorted(p for p in src.rglob("*") if p.suffix in (".h", ".cpp", ".c", ".hpp")):
        name = path.relative_to(src).as_posix()
        folder = path.parent.relative_to(src).as_posix()
        if folder not in LAYERS:
            yield f"src/{name}: the folder {folder} is not in the table of layers"
            continue
        allowed = LAYERS if name == COMPOSITION_ROOT else [folder] + LAYERS[folder]
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            included = match.group(1)
            if not (src / included).is_file():
                yield f"src/{name}:{number}: there is no src/{included}"
            elif str(pathlib.PurePosixPath(included).parent) not in allowed:
                yield f"src/{name}:{number}: {folder} may not include {included}"


def self_test():
    """Builds a sound tree, then breaks it in one way after the other."""
    sound = {
        "platform/conf_parser/conf_parser.h": "",
        "foundation/logging.h": "#include <string>\n",
        "foundation/logging.cpp": '#include "foundation/logging.h"\n#include "platform/conf_parser/conf_parser.h"\n',
        "requests/listener.h": '#include "foundation/logging.h"\n',
        "service/main.cpp": '#include "requests/listener.h"\n',
    }
    broken = {
        "upwards": {"foundation/random.cpp": '#include "requests/listener.h"\n'},
        "sideways": {"platform/conf_parser/conf_parser.cpp": '  #  include "foundation/logging.h"\n'},
        "from beside the composition root": {"service/start_up.cpp": '#include "requests/listener.h"\n'},
        "an unknown folder": {"helpers/strings.h": ""},
        "a file directly in src": {"main.cpp": ""},
        "an unknown file": {"requests/request.cpp": '#include "requests/missing.h"\n'},
        "a judge that acts": {"subscriptions/creation.h": "", "subscriptions/judgement/rules.cpp": '#include "subscriptions/creation.h"\n'},
        "a way around the table": {"foundation/shell.cpp": '#include "foundation/../requests/listener.h"\n'},
    }
    failed = False
    for name, extra in [("a sound tree", {}), *broken.items()]:
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            for file, text in {**sound, **extra}.items():
                path = tree / "src" / file
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            found = list(faults(tree))
            if (len(found) > 0) != (len(extra) > 0):
                failed = True
                print(f"{name}: found {found}")
    return 1 if failed else 0


def main(arguments):
    if arguments == ["--self-test"]:
        return self_test()
    tree = pathlib.Path(arguments[0]) if arguments else pathlib.Path(__file__).resolve().parent.parent
    found = list(faults(tree)) or ([] if any((tree / "src").rglob("*.h")) else [f"{tree}/src holds no headers"])
    for fault in found:
        print(fault)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
