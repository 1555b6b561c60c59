# SPDX-License-Identifier: GPL-2.0-only
"""One scenario: what a router is told, what it receives, and what it must send.

The expected frames are those of a run with the fast path on. They are built here, never by the
router. A scenario becomes a folder:

    in-PORT.pcap      what the port receives
    out-PORT.pcap     what the port must send
    slow-PORT.pcap    the same with the fast path off, where that is not the same

and a line of scenarios.toml: of which pieces (../routers.toml) the router is made, the verdicts on
the received frames, and whether the slow run may send them in any order.
"""
import itertools

from scapy.utils import PcapWriter

DLT_EN10MB, DLT_RAW = 1, 101
STEP = 0.01


class Scenario:
    """Frames are given in the order in which they are received."""

    def __init__(self, name, router, ports=("lan0", "wan0"), slow_order="same"):
        self.name, self.router, self.slow_order = name, router, slow_order
        self.verdicts = []
        self.ports = {port: DLT_RAW if port.startswith("tun") else DLT_EN10MB for port in ports}
        self.inputs = {port: [] for port in self.ports}
        self.outputs = {port: [] for port in self.ports}
        self.slow_outputs = {}
        self.time = 0.0

    def receives(self, port, frame, verdict):
        """The next frame, a step later than the one before."""
        self.inputs[port].append((self.time, bytes(frame)))
        self.verdicts.append(verdict)
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

    def line(self):
        verdicts = ", ".join(f"{len(list(same))} {verdict}"
                             for verdict, same in itertools.groupby(self.verdicts))
        order = "" if self.slow_order == "same" else f', slow_order = "{self.slow_order}"'
        return (f'{self.name} = {{router = "{" ".join(self.router)}", verdicts = "{verdicts}"'
                f'{order}}}\n')

    def write(self, root):
        folder = root / self.name
        folder.mkdir(parents=True, exist_ok=True)
        for prefix, captures in (("in", self.inputs), ("out", self.outputs),
                                 ("slow", self.slow_outputs)):
            for port, frames in captures.items():
                path = folder / f"{prefix}-{port}.pcap"
                with PcapWriter(str(path), linktype=self.ports[port], endianness="<") as writer:
                    writer.write_header(None)
                    for time, frame in frames:
                        writer.write_packet(frame, sec=int(time),
                                            usec=round((time - int(time)) * 1e6))
