#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0-only
"""Writes the configuration of every golden scenario: routers.py DIRECTORY, as DIRECTORY/NAME.toml."""
import json
import pathlib
import sys
import tomllib

HERE = pathlib.Path(__file__).parent
ONE_OF_EACH = ("nat",)  # all else may be there many times


def scenarios():
    return tomllib.loads((HERE / "data/scenarios.toml").read_text())


def joined(pieces):
    """The pieces as tables of a configuration, in the order in which they are first named."""
    known = tomllib.loads((HERE / "routers.toml").read_text())
    tables = {}
    for piece in pieces.split():
        for title, values in known[piece].items():
            # What is added to: a device by its name, the one table, or nothing.
            key = (title, values["name"] if title == "device" else
                   None if title in ONE_OF_EACH else piece)
            tables.setdefault(key, {}).update(values)
    return [(title, values) for (title, _), values in tables.items()]


def toml_value(value):
    if isinstance(value, dict):
        return "{" + ", ".join(f"{key} = {toml_value(item)}" for key, item in value.items()) + "}"
    if isinstance(value, list):
        return "[" + ", ".join(map(toml_value, value)) + "]"
    return json.dumps(value)


def toml(tables):
    return "\n".join((f"[{title}]" if title in ONE_OF_EACH else f"[[{title}]]") + "\n"
                     + "".join(f"{key} = {toml_value(item)}\n" for key, item in values.items())
                     for title, values in tables)


def main():
    directory = pathlib.Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)
    for name, about in scenarios().items():
        (directory / f"{name}.toml").write_text(toml(joined(about["router"])))


if __name__ == "__main__":
    main()
