# SPDX-License-Identifier: GPL-2.0-only
"""Lets an independent dissector judge all frames that the golden runs have sent.

    check_dissection.py DIRECTORY

No frame may be malformed or carry a wrong checksum. Exit status 77 without the dissector (tshark).
"""
import pathlib
import shutil
import subprocess
import sys
import tempfile

import captures

SKIPPED = 77
CHECKSUMS = ("ip", "tcp", "udp", "icmp", "icmpv6")
BAD = 0  # of the field "checksum.status"
FAULTY = "_ws.malformed || " + " || ".join(f"{name}.checksum.status == {BAD}" for name in CHECKSUMS)
# Each frame is judged by itself, so that frames of different runs do not mix: a fragment's
# checksum covers what other frames carry.
PREFERENCES = ("ip.check_checksum:TRUE", "tcp.check_checksum:TRUE", "udp.check_checksum:TRUE",
               "ip.defragment:FALSE", "ipv6.defragment:FALSE", "tcp.analyze_sequence_numbers:FALSE")
# A wrong IPv4 header checksum, a wrong UDP checksum, a TCP header that is cut off.
KNOWN_BAD = (
    "02000000020202000000020108004500002100000000401178aacb007109c61200079c400009000d0493776f726473",
    "02000000020202000000020108004500002100000000401178a9cb007109c61200079c400009000d0494776f726473",
    "02000000020202000000020108004500001c00000000400678b9cb007109c612000773686f7274544350",
)


def faulty_frames(link, frames):
    """Numbers from 1 and the dissector's words."""
    with tempfile.TemporaryDirectory() as work:
        capture = pathlib.Path(work) / "all.pcap"
        captures.write(capture, link, frames)
        options = [word for preference in PREFERENCES for word in ("-o", preference)]
        done = subprocess.run(["tshark", "-n", "-r", capture, *options, "-Y", FAULTY,
                               "-T", "fields", "-e", "frame.number", "-e", "_ws.col.Info"],
                              capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"tshark ends with {done.returncode}: {done.stderr}")
    return {int(line.split("\t")[0]): line.split("\t", 1)[1] for line in done.stdout.splitlines()}


def main():
    if shutil.which("tshark") is None:
        print("skipped: tshark is not installed")
        return SKIPPED
    found = faulty_frames(captures.ETHERNET, [bytes.fromhex(text) for text in KNOWN_BAD])
    if len(found) != len(KNOWN_BAD):
        sys.exit(f"tshark finds {found} in {len(KNOWN_BAD)} frames that are all wrong")

    by_link = {}
    for path in sorted(pathlib.Path(sys.argv[1]).glob("*/*/*.pcap")):
        link, frames = captures.read(path)
        by_link.setdefault(link, []).extend((path, number, frame)
                                            for number, frame in enumerate(frames, 1))
    if not by_link:
        sys.exit("no captures; the scenarios have not been run")
    faults = 0
    for link, frames in by_link.items():
        for number, info in faulty_frames(link, [frame for _, _, frame in frames]).items():
            path, place, frame = frames[number - 1]
            print(f"{path}, frame {place}: {info}\n  {frame.hex()}")
            faults += 1
        print(f"link type {link}: {len(frames)} frames")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
