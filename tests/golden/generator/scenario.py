# SPDX-License-Identifier: GPL-2.0-only
"""One scenario: what a router is told, what it receives, and what it must send.

The expected frames are those of a run with the fast path on. They are built here, never by the
router. A scenario becomes a folder:

    router.toml       the configuration
    in-PORT.pcap      what the port receives
    out-PORT.pcap     what the port must send
    slow-PORT.pcap    the same with the fast path off, where that is not the same
    scenario.json     the verdict on each received frame, and how the slow run may differ
"""
import json

from scapy.utils import PcapWriter

DLT_EN10MB, DLT_RAW = 1, 101
STEP = 0.01


def toml_value(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    return json.dumps(value)


def toml(tables, nat):
    text = "# SPDX-License-Identifier: GPL-2.0-only\n"
    for title, values in tables:
        text += f"[[{title}]]\n" + "".join(f"{key} = {toml_value(value)}\n"
                                           for key, value in values.items()) + "\n"
    masquerade, forwards = nat
    if masquerade:
        text += f"[nat]\nmasquerade = {toml_value(masquerade)}\n\n"
    for values in forwards:
        text += "[[nat.forward]]\n" + "".join(f"{key} = {toml_value(value)}\n"
                                              for key, value in values.items()) + "\n"
    return text.rstrip("\n") + "\n"


class Scenario:
    """Frames are given in the order in which they are received."""

    def __init__(self, name, tables, masquerade=(), forwards=(), slow_order="same"):
        self.name, self.tables = name, tables
        self.nat = (list(masquerade), list(forwards))
        self.about = {"slow_order": slow_order, "verdicts": []}
        self.ports = {values["name"]: DLT_RAW if values["type"] == "rawip" else DLT_EN10MB
                      for title, values in tables
                      if title == "device" and values["type"] in ("port", "rawip")}
        self.inputs = {port: [] for port in self.ports}
        self.outputs = {port: [] for port in self.ports}
        self.slow_outputs = {}
        self.time = 0.0

    def receives(self, port, frame, verdict):
        """The next frame, a step later than the one before."""
        self.inputs[port].append((self.time, bytes(frame)))
        self.about["verdicts"].append(verdict)
        self.time = round(self.time + STEP, 6)

    def sends(self, port, frame):
        self.outputs[port].append((self.time, bytes(frame)))

    def only_slow_sends(self, port, frames):
        """From now on the paths send different things."""
        sent = self.slow_outputs.setdefault(port, list(self.outputs[port]))
        sent.extend((self.time, bytes(frame)) for frame in frames)

    def passes(self, source, frame, verdict, target, result):
        self.receives(source, frame, verdict)
        self.sends(target, result)

    def waits(self, seconds):
        self.time = round(self.time + seconds, 6)

    def write(self, root):
        folder = root / self.name
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "router.toml").write_text(toml(self.tables, self.nat))
        (folder / "scenario.json").write_text(json.dumps(self.about, indent=1) + "\n")
        for prefix, captures in (("in", self.inputs), ("out", self.outputs),
                                 ("slow", self.slow_outputs)):
            for port, frames in captures.items():
                path = folder / f"{prefix}-{port}.pcap"
                with PcapWriter(str(path), linktype=self.ports[port], endianness="<") as writer:
                    writer.write_header(None)
                    for time, frame in frames:
                        writer.write_packet(frame, sec=int(time),
                                            usec=round((time - int(time)) * 1e6))
