#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Takes the module's promises away one by one and sees whether a test misses each.

  scripts/mutate.py [--list] [--texts] [PATTERN]

Each row of tests/mutations/*.toml breaks one promise by one change of the source, and names the test
programs that must fail then. The changes are made in a copy of the tree below build/, built like the
address sanitizer's preset, or the one that the row names. PATTERN, a regular expression, picks rows
by promise and file; --list only shows them; --texts only checks that each change still finds its
place. Takes some seconds a row once the copy is built. Exit status 1: a change that no test noticed,
or that found no place.
"""
import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tomllib

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "mutations"
LONGEST_TEST = 120  # seconds; a mutant may well hang


def read_rows(pattern):
    rows = []
    for table in sorted((ROOT / "tests" / "mutations").glob("*.toml")):
        rows += tomllib.loads(table.read_text())["mutation"]
    picked = [row for row in rows if re.search(pattern, f"{row['promise']} {row['file']}", re.I)]
    return [{"preset": "asan"} | row for row in picked]


def mutated(row):
    """The file's text with the change, or None when it does not fit exactly once."""
    text = (ROOT / row["file"]).read_text()
    return text.replace(row["from"], row["to"]) if text.count(row["from"]) == 1 else None


def copy_tree():
    """The tracked files, unchanged ones untouched so that they are not built again."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True)
    for name in names.stdout.decode().split("\0"):
        if not name or not (ROOT / name).is_file():
            continue
        target = COPY / name
        if target.exists() and target.read_bytes() == (ROOT / name).read_bytes():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(ROOT / name, target)
        shutil.copymode(ROOT / name, target)


def build(preset, tests):
    command = ["cmake", "--build", "--preset", preset, "--target", *tests]
    return subprocess.run(command, cwd=COPY, capture_output=True, text=True)


def prepare(preset, rows):
    subprocess.run(["cmake", "--preset", preset], cwd=COPY, check=True, capture_output=True)
    tests = sorted({test for row in rows for test in row["tests"]})
    result = build(preset, tests)
    if result.returncode != 0:
        sys.exit(result.stdout + result.stderr)
    for test in tests:
        if fails(preset, test):
            sys.exit(f"mutate.py: {test} fails without any change")


def fails(preset, test):
    program = COPY / "build" / preset / "bin" / test
    try:
        result = subprocess.run([program, "--gtest_fail_fast"], cwd=COPY, capture_output=True,
                                timeout=LONGEST_TEST)
    except subprocess.TimeoutExpired:
        return True
    return result.returncode != 0


def judge(row):
    target = COPY / row["file"]
    whole = target.read_text()
    target.write_text(mutated(row))
    try:
        built = build(row["preset"], row["tests"])
        if built.returncode != 0:
            return "does not build:\n" + built.stdout[-2000:]
        caught = [test for test in row["tests"] if fails(row["preset"], test)]
        return "caught by " + ", ".join(caught) if caught else "NOT NOTICED"
    finally:
        target.write_text(whole)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("pattern", nargs="?", default="")
    parser.add_argument("--list", action="store_true", help="only show the rows")
    parser.add_argument("--texts", action="store_true", help="only check that the rows fit the source")
    options = parser.parse_args()
    rows = read_rows(options.pattern)
    lost = [row for row in rows if mutated(row) is None]
    for row in lost:
        print(f"{row['file']}: not there exactly once: {row['from']!r}")
    if options.list:
        for row in rows:
            print(f"{row['promise']}\n    {row['file']}; {', '.join(row['tests'])}")
    if options.list or options.texts or lost:
        return 1 if lost else 0
    copy_tree()
    for preset in sorted({row["preset"] for row in rows}):
        prepare(preset, [row for row in rows if row["preset"] == preset])
    bad = 0
    for row in rows:
        verdict = judge(row)
        bad += not verdict.startswith("caught")
        print(f"{verdict}: {row['promise']} ({row['file']})", flush=True)
    print(f"{len(rows)} changes, {bad} of them not caught")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
