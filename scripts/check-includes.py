#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Checks that the folders depend on each other in one direction only.

Each folder may include from itself and from those listed. The stack, the ports and the command
reach the module through its published handle alone, so they never name one of its functions.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
EVERYTHING = {"include", "kernel", "module", "stack", "ports", "app", "tests", "bench", "fuzz"}
MAY_INCLUDE = {
    "include": set(),
    "module": {"include", "kernel"},
    "kernel": {"include"},
    "stack": {"include", "kernel"},
    "ports": {"include", "kernel"},
    "app": EVERYTHING - {"module", "tests", "bench", "fuzz"},
    "tests": EVERYTHING,
    "bench": EVERYTHING,
    "fuzz": EVERYTHING,
}
OUTSIDERS = ("stack", "ports", "app")
# The handle's slots carry their functions' names; reaching one through a handle is the right way.
THROUGH_HANDLE = re.compile(r"(->|\.)\s*$")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
DECLARATION = re.compile(r"\b((?:_+|vok_|plat_)[a-z]\w*)\s*\(")
COMMENT_OR_TEXT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.S)


def sources(folder):
    return sorted(p for p in (ROOT / folder).rglob("*") if p.suffix in (".h", ".cpp"))


def owner(included):
    first = included.split("/", 1)[0]
    return "include" if first == "tarvelo" else first


def line_of(text, position):
    return text.count("\n", 0, position) + 1


def check_directions():
    for folder, allowed in MAY_INCLUDE.items():
        for path in sources(folder):
            text = path.read_text()
            for match in INCLUDE.finditer(text):
                target = owner(match.group(1))
                place = f"{path.relative_to(ROOT)}:{line_of(text, match.start(1))}"
                if target not in EVERYTHING:
                    yield f'{place}: "{match.group(1)}" is not written from the root of the tree'
                elif target != folder and target not in allowed:
                    yield f"{place}: {folder}/ may not include from {target}/"


def module_functions():
    names = set()
    for path in (ROOT / "module").rglob("*.h"):
        text = COMMENT_OR_TEXT.sub(" ", path.read_text())
        names.update(DECLARATION.findall(text))
    return names


def check_handle_only():
    names = module_functions()
    for folder in OUTSIDERS:
        for path in sources(folder):
            # Blanks instead of comments and texts, so that places stay right.
            text = COMMENT_OR_TEXT.sub(
                lambda m: re.sub(r"[^\n]", " ", m.group(0)), path.read_text())
            for match in re.finditer(r"\b\w+\b", text):
                if match.group(0) not in names:
                    continue
                if THROUGH_HANDLE.search(text[: match.start()][-8:]):
                    continue
                place = f"{path.relative_to(ROOT)}:{line_of(text, match.start())}"
                yield f"{place}: {match.group(0)} is the module's; go through the handle"


def main():
    faults = list(check_directions()) + list(check_handle_only())
    for fault in faults:
        print(fault)
    if not any(sources("module")) or not any(sources("stack")):
        faults.append("nothing to check")
        print("check-includes: no sources found, so nothing was checked")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
