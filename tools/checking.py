"""What the checks of the tree have in common: their command line, and the self-test that shows what each finds.

A check gives its faults, a sound tree as a table of files, and trees that are broken in one way each: what these files
add to the sound tree or put in the place of its own.
"""

import pathlib
import sys
import tempfile


def self_test(faults, sound, broken):
    """Builds the sound tree, in which nothing may be found, then the broken ones, in each of which something must be."""
    failed = False
    for name, extra in [("a sound tree", {}), *broken.items()]:
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            for file, text in {**sound, **extra}.items():
                path = tree / file
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            found = list(faults(tree))
            if bool(found) != bool(extra):
                failed = True
                print(f"{name}: found {found}")
    return 1 if failed else 0


def main(faults, sound, broken):
    """The exit status of a check for the arguments of this process: [TREE], or --self-test."""
    arguments = sys.argv[1:]
    if arguments == ["--self-test"]:
        return self_test(faults, sound, broken)
    found = list(faults(pathlib.Path(arguments[0] if arguments else __file__ + "/../..").resolve()))
    for fault in found:
        print(fault)
    return 1 if found else 0
