#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Checks that the built module could be loaded into a kernel.

    scripts/check-module.py BUILD-DIRECTORY

A kernel offers what its headers declare and nothing else: no C++ run-time library, no thread-local
storage, and nobody who would run static constructors, which would be left out in silence.
"""
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
REQUIRED_FLAGS = ("-ffreestanding", "-fno-exceptions", "-fno-rtti", "-fno-threadsafe-statics")
FORBIDDEN_SECTIONS = {
    ".init_array": "a static constructor", ".ctors": "a static constructor",
    ".fini_array": "a static destructor", ".dtors": "a static destructor",
    ".tdata": "a thread-local variable", ".tbss": "a thread-local variable",
    ".gcc_except_table": "exception handling",
}
# Headers that need nothing at run time.
STANDARD_HEADERS = {
    "algorithm", "array", "bit", "climits", "compare", "concepts", "cstdarg", "cstddef", "cstdint",
    "initializer_list", "limits", "new", "numeric", "optional", "ranges", "span", "string_view",
    "tuple", "type_traits", "utility", "version",
}
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.S)


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def declared_by_the_kernel():
    names = set()
    for path in (ROOT / "kernel").rglob("*.h"):
        text = COMMENT.sub(" ", path.read_text())
        names.update(re.findall(r"\b\w+(?=\s*\()", text))
        names.update(re.findall(r"\bextern\b[^;({]*?\b(\w+)\s*(?:\[[^\]]*\])?\s*;", text))
        names.update(re.findall(r"\bextern\b[^;]*\(\*(\w+)\)", text))
    return names


def check_symbols(module):
    declared = declared_by_the_kernel()
    for line in output("nm", "-D", "--undefined-only", "--format=posix", str(module)).splitlines():
        name = line.split()[0].split("@")[0]
        if name not in declared:
            yield f"{module.name} needs {name}, which no kernel header declares"
    if "(NEEDED)" in output("readelf", "-dW", str(module)):
        yield f"{module.name} names other libraries that it needs"


def check_sections(module):
    sections = set(re.findall(r"\]\s+(\.\S+)", output("readelf", "-SW", str(module))))
    for section, meaning in FORBIDDEN_SECTIONS.items():
        if section in sections:
            yield f"{module.name} has a section {section}: {meaning}"
    if ".modinfo" not in sections:
        yield f"{module.name} has no module information"
        return
    information = output("readelf", "-p", ".modinfo", str(module))
    for wanted in ("license=GPL", "depends="):
        if wanted not in information:
            yield f"the module information lacks \"{wanted}\""


def check_flags(build):
    commands = json.loads((build / "compile_commands.json").read_text())
    found = False
    for entry in commands:
        path = pathlib.Path(entry["file"])
        if (ROOT / "module") not in path.parents:
            continue
        found = True
        words = entry["command"].split()
        for flag in REQUIRED_FLAGS:
            if flag not in words:
                yield f"{path.relative_to(ROOT)} is compiled without {flag}"
    if not found:
        yield "no source of the module is compiled"


def check_headers():
    for path in sorted((ROOT / "module").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        for header in re.findall(r"^\s*#\s*include\s+<([^>]+)>", path.read_text(), re.M):
            if header not in STANDARD_HEADERS:
                yield f"{path.relative_to(ROOT)} includes <{header}>, which needs a run-time library"


def main():
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    build = pathlib.Path(sys.argv[1])
    module = build / "lib" / "tarvelo.so"
    faults = [*check_symbols(module), *check_sections(module), *check_flags(build),
              *check_headers()]
    for fault in faults:
        print(f"check-module: {fault}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
