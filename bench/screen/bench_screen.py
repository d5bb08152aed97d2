#!/usr/bin/python3
"""Screen streaming side by side: each server in turn shares one Xvfb display (1920x1080) while
the benchmark's own X client plays a scene and the benchmark's own viewer reads the stream over
loopback. Per scene and server: the server's CPU and memory, the X server's CPU, bytes and
frames per second delivered, the time from a draw to the viewer having those pixels (p50, p95),
and whether the final picture equals the screen.

Servers are pluggable (see SERVERS): a server knows how to start on a display and how to open
the viewer's side of its stream."""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import rfb_client  # noqa: E402
from hlvp_screen_reader import AgentServer  # noqa: E402

WIDTH, HEIGHT = 1920, 1080
SCENES = {"still": 60, "typing": 30, "scrolling": 30, "motion": 20}
SHORT_SCENES = {"still": 10, "typing": 6, "scrolling": 6, "motion": 5}
# A lossy picture counts as arrived when its mean error per channel is at most this.
LOSSY_TOLERANCE = 6.0
CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, process, timeout=60):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError(f"{process.args[0]} ended with {process.returncode}")
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.1)
    raise RuntimeError(f"nothing listens on port {port}")


def build_tools(folder):
    """The scene drawer and the client's pixel loops, compiled for this machine."""
    os.makedirs(folder, exist_ok=True)
    drawer, native = os.path.join(folder, "scene_drawer"), os.path.join(folder, "rfb_decode.so")
    flags = ["-std=c11", "-O2", "-Wall", "-Wextra", "-Werror"]
    subprocess.run(["cc", *flags, "-o", drawer, os.path.join(HERE, "scene_drawer.c"), "-lX11", "-lXext", "-lm"],
                   check=True)
    subprocess.run(["cc", *flags, "-shared", "-fPIC", "-o", native, os.path.join(HERE, "rfb_decode.c")], check=True)
    return drawer, rfb_client.load_native(native)


class ProcessUsage:
    """CPU time, wake-ups and memory of one process, from /proc."""

    def __init__(self, pid):
        self.pid = pid

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS

    def status(self, key):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as f:
            for line in f:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        return 0

    def wakeups(self):
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                with open(f"/proc/{self.pid}/task/{task}/status", encoding="ascii") as f:
                    for line in f:
                        if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                            total += int(line.split()[1])
            except OSError:
                pass
        return total


class VncServer:
    lossless_name = "ZRLE"
    lossy_name = "Tight-JPEG q8"

    def __init__(self, name, command):
        self.name, self.command, self.process = name, command, None

    def start(self, display, scratch):
        self.port = free_port()
        log = open(os.path.join(scratch, f"{self.name}.log"), "ab")
        self.process = subprocess.Popen([part.format(display=display, port=self.port) for part in self.command],
                                        stdout=log, stderr=subprocess.STDOUT, env=dict(os.environ, DISPLAY=display))
        wait_for_port(self.port, self.process)
        return self.process.pid

    def open_viewer(self, lossy, native):
        return rfb_client.RFBClient(self.port, lossy, native)

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


SERVERS = {
    # x11vnc as a desktop shares a display: DAMAGE on by default, shared, no password, loopback.
    "x11vnc": lambda: VncServer("x11vnc", ["x11vnc", "-display", "{display}", "-rfbport", "{port}", "-localhost",
                                           "-forever", "-shared", "-nopw", "-quiet"]),
    # TigerVNC's scraping server, run directly (its wrapper script would put it in the background).
    "x0vncserver": lambda: VncServer("x0vncserver", ["X0tigervnc", "-display", "{display}", "-rfbport", "{port}",
                                                     "-localhost", "-SecurityTypes", "None", "-AlwaysShared"]),
}


class Drawer:
    def __init__(self, path, scene, seconds, display):
        self.process = subprocess.Popen([path, scene, str(seconds)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        env=dict(os.environ, DISPLAY=display))
        line = self.process.stdout.readline().split()
        if not line or line[0] != b"ready":
            raise RuntimeError("the scene drawer did not start")

    def read_event(self):
        """('probe', t_ns, x, y, pixels) or ('done',) or None at the end."""
        line = self.process.stdout.readline()
        if not line:
            return None
        words = line.split()
        if words[0] == b"done":
            return ("done",)
        t, x, y, w, h = (int(word) for word in words[1:])
        data = self.process.stdout.read(w * h * 4)
        return ("probe", t, x, y, np.frombuffer(data, "<u4").reshape(h, w) & 0xFFFFFF)

    def command(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def snapshot(self):
        self.command("snap")
        return self.read_event()[4]

    def stop(self):
        self.process.stdin.close()
        self.process.wait(10)


def differs(picture, expected, lossy):
    if not lossy:
        return not np.array_equal(picture, expected)
    a = picture.view(np.uint8).reshape(*picture.shape, 4)[:, :, :3].astype(np.int16)
    b = expected.view(np.uint8).reshape(*expected.shape, 4)[:, :, :3].astype(np.int16)
    return np.abs(a - b).mean() > LOSSY_TOLERANCE


class Probes:
    """Drawn-but-not-yet-seen regions; matched against the viewer's picture after each update."""

    # A drawing not seen after this long counts as lost, and costs no more comparisons.
    GIVE_UP_NS = 5_000_000_000

    def __init__(self, lossy):
        self.lossy, self.lock, self.pending, self.latencies, self.superseded = lossy, threading.Lock(), [], [], 0
        self.lost = 0

    def add(self, probe, picture):
        with self.lock:
            stale = [p for p in self.pending if p[0] < probe[0] - self.GIVE_UP_NS]
            self.lost += len(stale)
            self.pending = self.pending[len(stale):] if stale else self.pending
            self.pending.append(probe)
            self._match(picture)

    def check(self, picture):
        with self.lock:
            self._match(picture)

    def _match(self, picture):
        now = time.monotonic_ns()
        # The newest drawing of a region that has arrived settles the older ones of that region.
        for index in range(len(self.pending) - 1, -1, -1):
            if index >= len(self.pending):
                continue
            t, x, y, pixels = self.pending[index]
            h, w = pixels.shape
            if differs(picture[y:y + h, x:x + w] & 0xFFFFFF, pixels, self.lossy):
                continue
            self.latencies.append((now - t) / 1e6)
            older = [p for p in self.pending[:index] if (p[1], p[2], p[3].shape) == (x, y, pixels.shape)]
            self.superseded += len(older)
            self.pending = [p for p in self.pending if p is not self.pending[index] and not any(p is o for o in older)]


def compare_final(viewer, drawer, lossy, deadline_s=10):
    """Waits for the picture to settle on the screen's; how many pixels differ, and where."""
    screen = drawer.snapshot()
    deadline = time.monotonic() + deadline_s
    while True:
        picture = viewer.picture & 0xFFFFFF
        if picture.shape == screen.shape and np.array_equal(picture, screen):
            return 0, None, 0.0
        if time.monotonic() > deadline:
            break
        time.sleep(0.25)
    if picture.shape != screen.shape:
        return screen.size, None, float("nan")
    diff = picture != screen
    ys, xs = np.nonzero(diff)
    a = picture.view(np.uint8).reshape(*picture.shape, 4)[:, :, :3].astype(np.int16)
    b = screen.view(np.uint8).reshape(*screen.shape, 4)[:, :, :3].astype(np.int16)
    return (int(diff.sum()), (int(xs.min()), int(ys.min()), int(xs.max()) + 1, int(ys.max()) + 1),
            float(np.abs(a - b).mean()))


def run_one(server, scene, seconds, display, drawer_path, native, scratch, xvfb):
    lossy = scene == "motion"
    drawer = Drawer(drawer_path, scene, seconds, display)
    pid = server.start(display, scratch)
    viewer = server.open_viewer(lossy, native)
    probes = Probes(lossy)
    stop = threading.Event()
    viewer_error = []

    def read_stream():
        try:
            viewer.run(lambda v: probes.check(v.picture), stop.is_set)
        except (OSError, ConnectionError) as error:
            if not stop.is_set():
                viewer_error.append(error)

    reading = threading.Thread(target=read_stream, daemon=True)
    reading.start()
    try:
        # Start measuring once the viewer shows the starting picture (give or take a cursor painted
        # into it).
        screen = drawer.snapshot()
        deadline = time.monotonic() + 60
        while (np.count_nonzero((viewer.picture & 0xFFFFFF) != screen) > 64 * 64
               if not lossy else differs(viewer.picture & 0xFFFFFF, screen, lossy)):
            if time.monotonic() > deadline or viewer_error:
                raise RuntimeError(f"{server.name}: the starting picture never arrived {viewer_error}")
            time.sleep(0.1)
        time.sleep(1)
        usage, x_usage = ProcessUsage(pid), ProcessUsage(xvfb.pid)
        cpu0, xcpu0, wake0 = usage.cpu_seconds(), x_usage.cpu_seconds(), usage.wakeups()
        own0 = sum(os.times()[:2])
        bytes0, frames0, t0 = viewer.reader.received, viewer.updates, time.monotonic()
        drawer.command("go")
        while True:
            event = drawer.read_event()
            if event is None or event[0] == "done":
                break
            probes.add(event[1:], viewer.picture)
        elapsed = time.monotonic() - t0
        cpu, xcpu, wakeups = usage.cpu_seconds() - cpu0, x_usage.cpu_seconds() - xcpu0, usage.wakeups() - wake0
        received, frames = viewer.reader.received - bytes0, viewer.updates - frames0
        own = sum(os.times()[:2]) - own0
        memory = usage.status("VmHWM") / 1024
        differing, box, error = compare_final(viewer, drawer, lossy)
        time.sleep(0.5)
        probes.check(viewer.picture)
        if viewer_error:
            raise RuntimeError(f"{server.name}: {viewer_error[0]}")
        return {
            "server": server.name, "scene": scene, "seconds": elapsed,
            "encoding": server.lossy_name if lossy else server.lossless_name,
            "cpu": 100 * cpu / elapsed, "viewer_cpu": 100 * own / elapsed, "xcpu": 100 * xcpu / elapsed, "wakeups": wakeups / elapsed,
            "kbps": received / elapsed / 1024, "fps": frames / elapsed, "memory": memory,
            "p50": np.percentile(probes.latencies, 50) if probes.latencies else float("nan"),
            "p95": np.percentile(probes.latencies, 95) if probes.latencies else float("nan"),
            "seen": len(probes.latencies), "skipped": probes.superseded, "missing": len(probes.pending) + probes.lost,
            "differing": differing, "box": box, "error": error,
        }
    finally:
        stop.set()
        viewer.close()
        reading.join(5)
        server.stop()
        drawer.stop()


def start_xvfb(scratch):
    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", f"{WIDTH}x{HEIGHT}x24",
                             "-nolisten", "tcp", "-noreset"], pass_fds=(write_end,),
                            stderr=open(os.path.join(scratch, "Xvfb.log"), "ab"))
    os.close(write_end)
    with os.fdopen(read_end) as f:
        number = f.readline().strip()
    if not number:
        raise RuntimeError("Xvfb did not start")
    return xvfb, f":{number}"


def format_row(r):
    if r["differing"] == 0:
        fidelity = "exact"
    elif r["differing"] < 64 * 64:
        fidelity = f"{r['differing']} px differ in {r['box']}"
    else:
        fidelity = f"{r['differing']} px differ, mean error {r['error']:.2f}/255"
    return (f"| {r['scene']} | {r['server']} | {r['encoding']} | {r['cpu']:.1f} % | {r['xcpu']:.1f} % | "
            f"{r['wakeups']:.1f} | {r['viewer_cpu']:.0f} % | {r['kbps']:.1f} | {r['fps']:.1f} | {r['p50']:.1f} | {r['p95']:.1f} | "
            f"{r['seen']}/{r['seen'] + r['skipped'] + r['missing']} | {r['memory']:.1f} | {fidelity} |")


HEADER = ("| scene | server | encoding | server CPU | Xvfb CPU | wake-ups/s | viewer CPU | KiB/s | frames/s | latency p50 ms | "
          "p95 ms | draws seen | peak RSS MiB | final picture |\n"
          "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--short", action="store_true", help="a few seconds per scene, to check the harness")
    parser.add_argument("--scenes", default=",".join(SCENES), help="comma-separated, from " + ",".join(SCENES))
    parser.add_argument("--servers", default=",".join(SERVERS), help="comma-separated, from " + ",".join(SERVERS))
    parser.add_argument("--rounds", type=int, default=1, help="repeat each scene and server this many times")
    parser.add_argument("--agent", metavar="PATH", help="the tellwyn-agent binary: measure the agent too (as root, "
                        "running it as the test account of scripts/setup.sh test)")
    args = parser.parse_args()
    if args.agent:
        SERVERS["tellwyn-agent"] = lambda: AgentServer(os.path.abspath(args.agent))
        if "tellwyn-agent" not in args.servers:
            args.servers += ",tellwyn-agent"
    lengths = SHORT_SCENES if args.short else SCENES
    scenes = [s for s in args.scenes.split(",") if s]
    servers = [s for s in args.servers.split(",") if s]
    for name in scenes + servers:
        if name not in SCENES and name not in SERVERS:
            parser.error(f"unknown scene or server '{name}'")
    for tool in ("Xvfb", "cc", "x11vnc", "X0tigervnc"):
        if not shutil.which(tool):
            sys.exit(f"bench_screen: {tool} is missing; run scripts/setup.sh build test bench")
    if os.geteuid() == 0:
        # Other work on a shared machine should not decide the figures: every process of the run
        # (servers, X server, drawer, viewer) inherits the same higher priority.
        os.nice(-10)
    scratch = tempfile.mkdtemp(prefix="tellwyn-bench-screen-")
    drawer, native = build_tools(os.path.join(scratch, "tools"))
    xvfb, display = start_xvfb(scratch)
    print(f"Xvfb {display} {WIDTH}x{HEIGHT}, logs in {scratch}", flush=True)
    print(HEADER, flush=True)
    try:
        for _ in range(args.rounds):
            for scene in scenes:
                for name in servers:
                    result = run_one(SERVERS[name](), scene, lengths[scene], display, drawer, native, scratch, xvfb)
                    print(format_row(result), flush=True)
    finally:
        xvfb.terminate()
        xvfb.wait(10)


if __name__ == "__main__":
    main()
