# SPDX-License-Identifier: GPL-2.0-only
"""Runs one scenario with the fast path on and once with it off, and judges what was sent.

    compare.py SCENARIO ROUTERS DIRECTORY COMMAND...

SCENARIO is a name; its router is ROUTERS/SCENARIO.toml, its frames are in data/SCENARIO. What is
sent is left in DIRECTORY/fast and DIRECTORY/slow. COMMAND may be several words: the command of
another processor, behind its emulator. With the fast path on, each frame must be the expected one
byte for byte, but for what a tunnel's end chooses for itself: the identification of its packets,
and where its sequence numbers begin (not how they go on). With the fast path off, hop counts may
differ as well, for the stack counts hops and the fast path does not. The verdicts must be those of
the scenario, so a frame that should be fast has been fast. Both paths must count the same packets
on a VLAN device or PPP interface.
"""
import collections
import itertools
import json
import pathlib
import re
import shutil
import subprocess
import sys

import captures
import routers
from dissect import (HEADER_SUM, HOPS, TUNNEL_ID, TUNNEL_SEQUENCE, TUNNEL_SUM, dissect)

FREE_IN_TUNNELS = {TUNNEL_ID, TUNNEL_SUM}
FREE_BETWEEN_PATHS = FREE_IN_TUNNELS | {HOPS, HEADER_SUM}
FAST = ("fast-routed", "fast-bridged")
SHOWN_AT_MOST = 3


class Blanker:
    """Makes frames comparable: free fields become zero, sequence numbers count from the first."""

    def __init__(self, free):
        self.free = free
        self.first_sequence = None

    def __call__(self, dissection):
        frame = bytearray(dissection.frame)
        for role, at, width in dissection.special:
            if role in self.free:
                frame[at:at + width] = bytes(width)
            elif role == TUNNEL_SEQUENCE:
                number = dissection.word(at, width)
                if self.first_sequence is None:
                    self.first_sequence = number
                relative = (number - self.first_sequence) % (1 << 8 * width)
                frame[at:at + width] = relative.to_bytes(width, "big")
        return bytes(frame)


def replay(command, scenario, router, out, settings):
    shutil.rmtree(out, ignore_errors=True)
    inputs = [option for path in sorted(scenario.glob("in-*.pcap"))
              for option in ("--in", f"{path.stem.removeprefix('in-')}={path}")]
    done = subprocess.run([*command, "replay", "--config", router, *inputs,
                           *settings, "--out", out],
                          capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"replay ends with {done.returncode}: {done.stdout}{done.stderr}")
    verdicts = [json.loads(line)["verdict"] for line in (out / "frames.jsonl").open()]
    packets = re.findall(r"^(\S+): received (\d+) packets, .*; sent (\d+) packets", done.stdout,
                         re.MULTILINE)
    return verdicts, packets


def show(title, dissection):
    lines = dissection.lines if dissection else ["(nothing)"]
    return f"  {title}\n" + "".join(f"    {line}\n" for line in lines)


def differences(port, title, expected, actual, free, any_order):
    """Texts about what does not agree, both frames decoded."""
    blank_expected, blank_actual = Blanker(free), Blanker(free)
    pairs = [(blank_expected(d), d) for d in expected], [(blank_actual(d), d) for d in actual]
    if any_order:
        for side in pairs:
            side.sort(key=lambda pair: pair[0])
    faults = []
    for number in range(max(len(expected), len(actual))):
        ends = [side[number] if number < len(side) else (None, None) for side in pairs]
        if ends[0][0] == ends[1][0]:
            continue
        faults.append(f"{title}, {port}, frame {number + 1}:\n"
                      + show("expected", ends[0][1]) + show("sent", ends[1][1]))
    return faults


def judge_frames(scenario, out, title, free, any_order):
    faults = []
    for path in sorted(scenario.glob("out-*.pcap")):
        port = path.stem.removeprefix("out-")
        own = scenario / f"{out.name}-{port}.pcap"
        path = own if own.exists() else path
        link, wanted = captures.read(path)
        sent_link, sent = captures.read(out / f"{port}.pcap")
        if sent_link != link:
            faults.append(f"{title}, {port}: link type {sent_link} where {link} is expected")
        expected = [dissect(frame, link) for frame in wanted]
        actual = [dissect(frame, link) for frame in sent]
        faults += differences(port, title, expected, actual, free, any_order)
        for number, dissection in enumerate(actual, 1):
            faults += [f"{title}, {port}, frame {number}: {fault}\n"
                       for fault in dissection.faults]
    return faults


def judge_statistics(scenario, router, fast, slow, verdicts):
    """Device by device: (name, packets received, packets sent)."""
    stacked = re.findall(r'^type = "(vlan|pppoe|l2tp|pptp)"$',
                         router.read_text(), re.MULTILINE)
    faults = [f"statistics of {packets} where there are {len(stacked)} devices to count on\n"
              for packets in (fast, slow) if len(packets) != len(stacked)]
    # The bridge cache leads straight to the port beneath a VLAN device, and of several devices that
    # a connection goes through the fast path counts on some only.
    if "fast-bridged" in verdicts or len(stacked) != 1:
        return faults
    through_ports = {tuple(len(captures.read(scenario / f"{way}-{port}.pcap")[1])
                           for way in ("in", "out"))
                     for port in (path.stem.removeprefix("in-")
                                  for path in scenario.glob("in-*.pcap"))}
    return faults + [f"statistics, {device}: {received} packets received, {sent} sent\n"
                     for device, received, sent in fast + slow
                     if (int(received), int(sent)) not in through_ports]


def verdicts_of(runs):
    """"2 slow, 1 dropped": slow, slow, dropped."""
    pairs = (run.split() for run in runs.split(", "))
    return list(itertools.chain.from_iterable([verdict] * int(times) for times, verdict in pairs))


def judge_verdicts(wanted, fast, slow):
    faults = [f"received frame {number}: {got} where {want} is expected\n"
              for number, (want, got) in enumerate(zip(wanted, fast), 1) if want != got]
    if len(wanted) != len(fast):
        faults.append(f"{len(fast)} verdicts for {len(wanted)} frames\n")
    if not any(verdict in FAST for verdict in slow):
        return faults
    return faults + [f"fast with the fast path off: {collections.Counter(slow)}\n"]


def main():
    name, router_directory, directory, *command = sys.argv[1:]
    router, directory = pathlib.Path(router_directory) / f"{name}.toml", pathlib.Path(directory)
    scenario, about = routers.HERE / "data" / name, routers.scenarios()[name]
    verdicts = verdicts_of(about["verdicts"])
    directory.mkdir(parents=True, exist_ok=True)
    fast, fast_packets = replay(command, scenario, router, directory / "fast", [])
    slow, slow_packets = replay(command, scenario, router, directory / "slow",
                                ["--set", "enable=0"])
    faults = (judge_verdicts(verdicts, fast, slow)
              + judge_statistics(scenario, router, fast_packets, slow_packets, verdicts)
              + judge_frames(scenario, directory / "fast", "fast path", FREE_IN_TUNNELS, False)
              + judge_frames(scenario, directory / "slow", "slow path", FREE_BETWEEN_PATHS,
                             about.get("slow_order") == "any"))
    for fault in faults[:SHOWN_AT_MOST]:
        print(fault, end="")
    if faults:
        sys.exit(f"{scenario.name}: {len(faults)} differences")


if __name__ == "__main__":
    main()
