"""Screen streaming end to end: the real agent on an Xvfb display, viewers written from
docs/protocol.md (section 7) that assemble the picture and compare it with the root window read
by XGetImage, while X clients draw."""
import io
import os
import random
import shutil
import struct
import subprocess
import threading
import time
import unittest

import zstandard
from PIL import Image, ImageGrab

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent
from hlvp_client import HLVPClient
from test_clipboard import XDisplay

SETTLE_SECONDS = 1.5   # no frame for this long: the drawing has settled
DEADLINE = 60.0         # what a loaded two-core machine meets


def write_xwd(path, width, height, rgb):
    """An XWD file (format 7, 32-bit TrueColor) that xwud shows."""
    name = b"tellwyn\0"
    header = struct.pack(">25I", 100 + len(name), 7, 2, 24, width, height, 0, 1, 32, 1, 32, 32, width * 4, 4,
                         0xFF0000, 0xFF00, 0xFF, 8, 0, 0, width, height, 0, 0, 0)
    pixels = bytearray()
    for i in range(0, len(rgb), 3):
        pixels += b"\0" + rgb[i:i + 3]
    with open(path, "wb") as out:
        out.write(header + name + bytes(pixels))


class InputRecorder:
    """The X client that prints the input it receives, one line per event, read as they come."""

    def __init__(self, env):
        self.process = subprocess.Popen([os.environ["TELLWYN_INPUT_RECORDER"]], env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        self.lines = []
        threading.Thread(target=lambda: self.lines.extend(line.strip() for line in self.process.stdout),
                         daemon=True).start()
        # A held key must not repeat, so that the one release that counts can be told apart.
        subprocess.run(["xset", "r", "off"], env=env, check=True, timeout=30)
        self.wait_for("ready")

    def wait_for(self, start, *parts, after=-1, deadline=DEADLINE):
        """The index of the first line after `after` that starts with `start` and holds every part."""
        deadline += time.monotonic()
        while time.monotonic() < deadline:
            for index in range(after + 1, len(self.lines)):
                line = self.lines[index]
                if line.startswith(start) and all(f" {p} " in f"{line} " for p in parts):
                    return index
            time.sleep(0.05)
        raise AssertionError(f"no {start} {parts} among {self.lines[-20:]}")


class Viewer:
    """A signed-in connection that streams, assembles the picture and acknowledges frames."""

    def __init__(self, port, mode, acknowledge=True):
        self.client = HLVPClient(port)
        self.client.handshake(f"{mode} viewer")
        self.client.send({"type": "authentication", "method": "password",
                          "credentials": {"username": TEST_USER, "password": TEST_PASSWORD}})
        assert self.client.receive_until("authenticationResponse")["success"]
        self.acknowledge = acknowledge
        self.frames = 0
        self.geometries = []
        self.ended = None
        self.client.send({"type": "screenCaptureRequest", "mode": mode, "maxFPS": 30, "sequenceNumber": 5})
        self.stream = None
        started = self.client.receive_until("screenStreamStarted", DEADLINE)
        assert started and started["sequenceNumber"] == 5, started
        self.stream = started["streamID"]
        self.resize(started["width"], started["height"])

    def resize(self, width, height):
        self.width, self.height = width, height
        self.pixels = bytearray(width * height * 3)

    def apply(self, rect):
        x, y, w, h, encoding = rect["x"], rect["y"], rect["w"], rect["h"], rect["encoding"]
        if encoding == "copy":
            rows = [self.row(rect["srcX"], rect["srcY"] + r, w) for r in range(h)]
        elif encoding == "solid":
            c = rect["color"]
            rows = [bytes((c >> 16, (c >> 8) & 255, c & 255)) * w] * h
        elif encoding == "zstd":
            data = zstandard.ZstdDecompressor().decompress(rect["data"], max_output_size=w * h * 3)
            rows = [data[r * w * 3:(r + 1) * w * 3] for r in range(h)]
        elif encoding == "palette":
            indices = zstandard.ZstdDecompressor().decompress(rect["data"], max_output_size=w * h)
            colors = [rect["palette"][i * 3:i * 3 + 3] for i in range(len(rect["palette"]) // 3)]
            data = b"".join(colors[i] for i in indices)
            rows = [data[r * w * 3:(r + 1) * w * 3] for r in range(h)]
        elif encoding == "jpeg":
            data = Image.open(io.BytesIO(rect["data"])).convert("RGB").tobytes()
            rows = [data[r * w * 3:(r + 1) * w * 3] for r in range(h)]
        else:
            raise AssertionError(f"unknown encoding {encoding}")
        for r, row in enumerate(rows):
            start = ((y + r) * self.width + x) * 3
            self.pixels[start:start + w * 3] = row

    def row(self, x, y, w):
        start = (y * self.width + x) * 3
        return bytes(self.pixels[start:start + w * 3])

    def pump(self, seconds):
        """Handles what arrives for `seconds`; true when a frame came."""
        got_frame = False
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            try:
                message = self.client.receive(max(0.05, deadline - time.monotonic()))
            except (TimeoutError, OSError):
                break
            if message is None:
                raise AssertionError("the agent closed the connection")
            kind = message.get("type")
            if message.get("streamID") not in (None, self.stream):
                continue
            if kind == "screenFrame":
                for rect in message["rects"]:
                    self.apply(rect)
                if message["final"]:
                    got_frame = True
                    self.frames += 1
                    if self.acknowledge:
                        self.client.send({"type": "screenFrameAck", "streamID": self.stream,
                                          "frame": message["frame"]})
            elif kind == "screenGeometry":
                self.geometries.append((message["width"], message["height"]))
                self.resize(message["width"], message["height"])
            elif kind == "screenStreamEnded":
                self.ended = message
                return got_frame
        return got_frame

    def settle(self):
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline:
            if not self.pump(SETTLE_SECONDS):
                return
        raise AssertionError("frames kept coming on a still screen")


@unittest.skipUnless(test_account_exists() and shutil.which("Xvfb") and shutil.which("xwud"),
                     "needs the test account, Xvfb and xwud: run scripts/setup.sh build test as root")
class ScreenStreamTest(unittest.TestCase):
    def setUp(self):
        self.display = XDisplay()
        # No windows of the agent's own over the picture: the display is only streamed.
        self.agent = Agent(user=TEST_USER, display=self.display.name, extra_args=("--headless",))
        self.agent.wait_until_running()
        self.windows = []
        self.scratch = os.path.join(self.agent.data_dir, "..")

    def tearDown(self):
        for window in self.windows:
            window.kill()
            window.wait()
        self.agent.close()
        self.display.close()

    def screen(self):
        image = ImageGrab.grab(xdisplay=self.display.name)
        return image.size, image.tobytes()

    def x(self, *command):
        subprocess.run(command, env=self.display.env, check=True, timeout=30, capture_output=True)

    def show_photo(self, x, y, width, height, seed):
        rng = random.Random(seed)
        path = os.path.join(self.scratch, f"photo{seed}.xwd")
        write_xwd(path, width, height, bytes(rng.getrandbits(8) for _ in range(width * height * 3)))
        window = subprocess.Popen(["xwud", "-in", path, "-geometry", f"+{x}+{y}"], env=self.display.env,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.windows.append(window)

    def draw_scene(self, viewers, seed):
        self.x("xsetroot", "-solid", "#336699")
        for viewer in viewers:
            viewer.pump(0.3)
        self.show_photo(40 + seed * 10, 30, 200, 150, seed)
        for viewer in viewers:
            viewer.pump(0.5)
        self.x("xsetroot", "-solid", "#F0F0E0")

    def assert_converges(self, viewer):
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline:
            viewer.pump(0.5)
            size, pixels = self.screen()
            if size == (viewer.width, viewer.height) and pixels == bytes(viewer.pixels):
                return
        self.fail("the viewer's picture never became the screen's")

    def test_input_reaches_the_desktop_and_nothing_stays_pressed(self):
        recorder = InputRecorder(self.display.env)
        self.windows.append(recorder.process)
        viewer = Viewer(self.agent.port, "lossless")
        for event in ({"kind": "pointerMove", "x": 100, "y": 80},
                      {"kind": "keyPress", "keysym": 0x40}, {"kind": "keyRelease", "keysym": 0x40},
                      {"kind": "text", "text": "é"},
                      {"kind": "keyPress", "keysym": 0x61, "keyCode": 30},
                      {"kind": "buttonPress", "x": 10, "y": 20, "button": 1}):
            viewer.client.send({"type": "inputEvent", **event})
        recorder.wait_for("motion 100 80")
        recorder.wait_for("key-press", "at")
        recorder.wait_for("key-press", "eacute")
        held = recorder.wait_for("key-press", "a")
        recorder.wait_for("button-press 1 10 20")
        # The viewer drops, on a still screen, with a key and a button held: the agent lets go of both.
        viewer.client.sock.close()
        recorder.wait_for("button-release 1 10 20")
        recorder.wait_for("key-release", recorder.lines[held].split()[1], after=held)

    def test_input_refused_where_the_display_has_no_xtest(self):
        self.agent.close()
        self.display.close()
        self.display = XDisplay("-extension", "XTEST")
        self.agent = Agent(user=TEST_USER, display=self.display.name, extra_args=("--headless",))
        self.agent.wait_until_running()
        viewer = Viewer(self.agent.port, "lossless")
        viewer.client.send({"type": "inputEvent", "kind": "pointerMove", "x": 1, "y": 1, "sequenceNumber": 9})
        refusal = viewer.client.receive_until("error", DEADLINE)
        self.assertEqual((refusal["code"], refusal["refersTo"]), ("inputNotPermitted", "inputEvent"))

    def test_refused_before_sign_in(self):
        client = HLVPClient(self.agent.port)
        client.handshake("Early")
        for message in ({"type": "screenCaptureRequest", "mode": "lossless"},
                        {"type": "inputEvent", "kind": "keyPress", "keysym": 0x61}):
            client.send(message)
            refusal = client.receive_until("error")
            self.assertEqual((refusal["code"], refusal["refersTo"]), ("notAuthenticated", message["type"]))
        client.close()

    def test_two_viewers_lossless_exact_and_balanced_converges(self):
        lossless = Viewer(self.agent.port, "lossless")
        balanced = Viewer(self.agent.port, "balanced")
        self.addCleanup(lossless.client.close)
        self.addCleanup(balanced.client.close)
        self.agent.wait_for_log("SCREEN", "Screen stream 1 started for lossless viewer: 800 × 600, lossless, "
                                "up to 30 frames per second", timeout=DEADLINE)
        for seed in (1, 2):
            self.draw_scene([lossless, balanced], seed)
            lossless.settle()
            size, pixels = self.screen()
            self.assertEqual(size, (lossless.width, lossless.height))
            self.assertTrue(pixels == bytes(lossless.pixels), "the lossless picture differs from the screen")
            self.assert_converges(balanced)
        lossless.client.send({"type": "screenStop", "streamID": lossless.stream})
        lossless.pump(5)
        self.assertEqual(lossless.ended["reason"], "viewerStopped")
        self.agent.wait_for_log("SCREEN", "Screen stream 1 for lossless viewer ended: the viewer stopped it",
                                timeout=DEADLINE)

    def test_display_size_change_gives_a_new_geometry(self):
        viewer = Viewer(self.agent.port, "lossless")
        self.addCleanup(viewer.client.close)
        viewer.settle()
        # Xvfb can shrink its screen; xrandr then complains about the output, which stays as it was.
        subprocess.run(["xrandr", "--fb", "640x480"], env=self.display.env, timeout=30, capture_output=True)
        deadline = time.monotonic() + DEADLINE
        while not viewer.geometries and time.monotonic() < deadline:
            viewer.pump(0.5)
        self.assertEqual(viewer.geometries[:1], [(640, 480)])
        self.x("xsetroot", "-solid", "#102030")
        self.assert_converges(viewer)

    def test_a_viewer_that_stops_acknowledging_keeps_memory_flat(self):
        viewer = Viewer(self.agent.port, "lossless", acknowledge=False)
        self.addCleanup(viewer.client.close)
        viewer.pump(2)
        self.assertEqual(viewer.frames, 1)

        def resident_kb():
            with open(f"/proc/{self.agent.process.pid}/status", encoding="ascii") as status:
                for line in status:
                    if line.startswith("VmRSS:"):
                        return int(line.split()[1])
            return 0

        before = resident_kb()
        for seed in range(12):
            self.show_photo(seed * 40, seed * 30, 300, 200, 100 + seed)
            viewer.pump(0.5)
        # The window of two lets one more frame go after the first, then nothing until acknowledged.
        self.assertEqual(viewer.frames, 2, "frames beyond the acknowledgement window were sent")
        growth_mb = (resident_kb() - before) / 1024
        self.assertLess(growth_mb, 16, f"the agent grew by {growth_mb:.1f} MB for a viewer that does not acknowledge")


if __name__ == "__main__":
    unittest.main()
