# SPDX-License-Identifier: GPL-2.0-only
"""One case of the integration test, inside scripts/lab.sh: router_test.py COMMAND CASE."""
import hashlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

SKIPPED = 77
HERE = pathlib.Path(__file__).resolve().parent
PEER = [sys.executable, "-B", str(HERE / "peer.py")]
SERVER, PUBLIC = "198.51.100.7", "203.0.113.9"
SERVER6 = "2001:db8:7::7"
FILE_BYTES = 16 << 20
# The most TCP payload in one frame: what a direction needs at least.
FRAME_BYTES = 1460
# Handshake, the packets up to the 20th add, what is under way meanwhile, and the end.
SLOW_PACKETS_AT_MOST = 400

CONFIG = """
[[device]]
name = "lan0"
type = "port"
interface = "{lan}"
mac = "02:00:00:00:01:01"
address = ["192.168.1.1/24", "2001:db8:1::1/64"]

[[device]]
name = "wan0"
type = "port"
interface = "veth-wan"
mac = "02:00:00:00:02:01"
address = ["203.0.113.9/24", "2001:db8:2::1/64"]

[[route]]
to = "0.0.0.0/0"
via = "203.0.113.1"
device = "wan0"

[[route]]
to = "::/0"
via = "2001:db8:2::fe"
device = "wan0"

[nat]
masquerade = ["wan0"]

[[nat.forward]]
device = "wan0"
protocol = "tcp"
port = 8080
to = "192.168.1.2:80"

[control]
mount = "{mount}"
"""


def check(good, what):
    if not good:
        raise AssertionError(what)


class Router:
    """The command under test, with its control files."""

    def __init__(self, command, work, lan="veth-lan"):
        self.mount = work / "proc"
        self.mount.mkdir(exist_ok=True)
        self.vok = self.mount / "vok"
        config = work / "router.toml"
        config.write_text(CONFIG.format(mount=self.mount, lan=lan))
        self.process = subprocess.Popen([command, "run", "--config", str(config)],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def __enter__(self):
        deadline = time.monotonic() + 20
        while not (self.vok / "enable").exists():
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.process.kill()
                raise AssertionError("the router does not come up:\n" + self.process.stdout.read())
            time.sleep(0.05)
        return self

    def __exit__(self, *failure):
        if failure[0] is None:
            return
        self.process.kill()
        print(self.process.stdout.read())
        self.process.wait()
        # A mount whose process has been killed does not even answer a stat; there may be none.
        subprocess.run(["umount", "--lazy", str(self.mount)], check=False,
                       stderr=subprocess.DEVNULL)

    def counters(self):
        text = "".join((self.vok / name).read_text()
                       for name in ("statistics_info", "statistics_forward_ipv6_packet_num"))
        return {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", text)}

    def stop(self):
        """Ends it as a user would; what it printed."""
        self.process.send_signal(signal.SIGTERM)
        text, _ = self.process.communicate(timeout=30)
        check(self.process.returncode == 0, f"exit status {self.process.returncode}:\n{text}")
        check(not os.path.ismount(self.mount), "the control files are still mounted")
        check(not any(self.mount.iterdir()), "something is left at the mount point")
        return text


def start_on(host, *arguments):
    return subprocess.Popen(["nsenter", "--net", "--target", os.environ[host], *PEER,
                             *map(str, arguments)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def start_server(host, *arguments):
    server = start_on(host, *arguments)
    if server.stdout.readline() != "ready\n":
        server.kill()
        raise AssertionError("the server does not start:\n" + server.communicate()[1])
    return server


def finish(peer):
    text, errors = peer.communicate(timeout=90)
    check(peer.returncode == 0, f"a host failed:\n{errors}")
    return text


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def exchange(work, server_host, port, client_host, address, client_port):
    """A file in each direction at once over one connection; both must arrive as they were sent."""
    files = [work / name for name in ("up", "down", "up-arrived", "down-arrived")]
    up, down, up_arrived, down_arrived = files
    up.write_bytes(os.urandom(FILE_BYTES))
    down.write_bytes(os.urandom(FILE_BYTES))
    server = start_server(server_host, "serve", port, down, up_arrived)
    client = start_on(client_host, "connect", address, client_port, up, down_arrived)
    finish(client)
    finish(server)
    check(digest(up) == digest(up_arrived), "the file to the server arrived changed")
    check(digest(down) == digest(down_arrived), "the file from the server arrived changed")


def check_slow_path_idle(router, family=""):
    counters = router.counters()
    fast, seen = counters[f"ip{family}_packet"], counters[f"ethernet{family}_packet"]
    check(fast >= 2 * FILE_BYTES // FRAME_BYTES, f"too few on the fast path: {counters}")
    check(seen - fast <= SLOW_PACKETS_AT_MOST, f"the slow path was busy: {counters}")


def transfer(command, work):
    with Router(command, work) as router:
        exchange(work, "TARVELO_WAN", 5000, "TARVELO_LAN", SERVER, 5000)
        check_slow_path_idle(router)
        summary = router.stop()
        check(summary.strip() != "", "no summary")


def transfer6(command, work):
    with Router(command, work) as router:
        exchange(work, "TARVELO_WAN", 5000, "TARVELO_LAN", SERVER6, 5000)
        check_slow_path_idle(router, "_v6")
        router.stop()


def slow_transfer(command, work):
    with Router(command, work) as router:
        (router.vok / "enable").write_text("0\n")
        exchange(work, "TARVELO_WAN", 5000, "TARVELO_LAN", SERVER, 5000)
        counters = router.counters()
        check(counters["ip_packet"] == 0, f"switched off and yet used: {counters}")
        router.stop()


def port_forward(command, work):
    with Router(command, work) as router:
        exchange(work, "TARVELO_LAN", 80, "TARVELO_WAN", PUBLIC, 8080)
        check_slow_path_idle(router)
        router.stop()


def threshold(command, work):
    with Router(command, work) as router:
        server = start_server("TARVELO_WAN", "listen", 6000, 40)
        finish(start_on("TARVELO_LAN", "talk", SERVER, 6000, 40))
        rows = [line.split(" ", 2) for line in finish(server).splitlines()]
        check([row[0] for row in rows] == ["63"] * 20 + ["64"] * 20, f"TTLs: {rows}")
        check(len({row[1] for row in rows}) == 1, f"the source port changed: {rows}")
        check({row[2] for row in rows} == {"the same text every time"}, "the text changed")
        check(router.counters()["ip_packet"] == 20, f"counters: {router.counters()}")
        listing = (router.vok / "ipc_info").read_text()
        check("SNAT  natip=203.0.113.9 " in listing, listing)
        router.stop()


def threshold6(command, work):
    with Router(command, work) as router:
        server = start_server("TARVELO_WAN", "listen6", 6000, 40)
        finish(start_on("TARVELO_LAN", "talk", SERVER6, 6000, 40))
        rows = [line.split(" ", 2) for line in finish(server).splitlines()]
        check([row[0] for row in rows] == ["63"] * 20 + ["64"] * 20, f"hop limits: {rows}")
        check({row[1] for row in rows} == {"40000"}, f"the source port changed: {rows}")
        check(router.counters()["ip_v6_packet"] == 20, f"counters: {router.counters()}")
        router.stop()


def unload_under_traffic(command, work):
    with Router(command, work) as router:
        (work / "up").write_bytes(os.urandom(FILE_BYTES))
        (work / "down").write_bytes(os.urandom(256 << 20))
        server = start_server("TARVELO_WAN", "serve", 5000, work / "down", work / "up-arrived")
        client = start_on("TARVELO_LAN", "connect", SERVER, 5000, work / "up",
                          work / "down-arrived")
        deadline = time.monotonic() + 20
        while router.counters()["ip_packet"] < 1000:
            check(time.monotonic() < deadline, "the traffic does not start")
            time.sleep(0.01)
        router.stop()
        client.kill()
        server.kill()
    # Nothing is left behind that a successor would stumble over.
    with Router(command, work) as router:
        check(router.counters()["ip_packet"] == 0, "the counters are not those of a new module")
        router.stop()


def bad_input(command, work):
    router = Router(command, work, lan="no-such-if")
    text, _ = router.process.communicate(timeout=30)
    check(router.process.returncode == 2, f"exit status {router.process.returncode}:\n{text}")
    check(len(text.strip().splitlines()) == 1 and "no-such-if" in text, f"message:\n{text}")
    check(not os.path.ismount(router.mount), "the control files are still mounted")


CASES = {case.__name__: case for case in (transfer, transfer6, slow_transfer, port_forward,
                                          threshold, threshold6, unload_under_traffic, bad_input)}


def main():
    command, case = sys.argv[1:]
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as reason:
        print(f"skipped: the control files cannot be mounted here ({reason})")
        return SKIPPED
    if case.endswith("6") and not os.path.exists("/proc/sys/net/ipv6/conf/all"):
        print("skipped: there is no IPv6 here")
        return SKIPPED
    with tempfile.TemporaryDirectory() as work:
        CASES[case](command, pathlib.Path(work))
    return 0


if __name__ == "__main__":
    sys.exit(main())
