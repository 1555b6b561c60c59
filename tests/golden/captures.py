# SPDX-License-Identifier: GPL-2.0-only
"""Reads and writes capture files: little-endian pcap with microseconds or nanoseconds."""
import struct

ETHERNET, RAW_IP = 1, 101
MICROSECONDS, NANOSECONDS = 0xA1B2C3D4, 0xA1B23C4D
FILE_HEADER, RECORD_HEADER = struct.Struct("<IHHiIII"), struct.Struct("<IIII")
SNAP_LENGTH = 65535


def read(path):
    """The link type and the frames."""
    data = path.read_bytes()
    magic, *_, link = FILE_HEADER.unpack_from(data)
    if magic not in (MICROSECONDS, NANOSECONDS):
        raise ValueError(f"{path}: not a little-endian capture")
    frames, at = [], FILE_HEADER.size
    while at < len(data):
        _, _, kept, length = RECORD_HEADER.unpack_from(data, at)
        at += RECORD_HEADER.size
        if kept != length or at + kept > len(data):
            raise ValueError(f"{path}: frame {len(frames) + 1} is cut off")
        frames.append(data[at:at + kept])
        at += kept
    return link, frames


def write(path, link, frames):
    with open(path, "wb") as out:
        out.write(FILE_HEADER.pack(MICROSECONDS, 2, 4, 0, 0, SNAP_LENGTH, link))
        for number, frame in enumerate(frames):
            out.write(RECORD_HEADER.pack(number, 0, len(frame), len(frame)) + frame)
