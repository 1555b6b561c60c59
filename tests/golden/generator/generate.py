#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0-only
"""Writes every scenario: generate.py DIRECTORY. The same bytes every time.

Needs scapy (Debian: python3-scapy), which is why the folders are kept and not made by the tests.
"""
import logging
import pathlib
import shutil
import sys

logging.getLogger("scapy").setLevel(logging.ERROR)

import bridged  # noqa: E402
import dual_stack  # noqa: E402
import fragmented  # noqa: E402
import routed  # noqa: E402
import sessions  # noqa: E402


def main():
    root = pathlib.Path(sys.argv[1])
    if root.exists():
        shutil.rmtree(root)
    lines = []
    for module in (routed, bridged, sessions, dual_stack, fragmented):
        for scenario in module.scenarios():
            scenario.write(root)
            lines.append(scenario.line())
    (root / "scenarios.toml").write_text("# SPDX-License-Identifier: GPL-2.0-only\n"
                                         + "".join(sorted(lines)))


if __name__ == "__main__":
    main()
