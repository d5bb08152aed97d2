"""The agent as a server of the screen benchmark: the real agent binary on the benchmark's
display, running as the test account, read by a viewer written from docs/protocol.md (section 7)
in the same shape as rfb_client.RFBClient."""
import io
import os
import socket
import struct
import sys
import time

import numpy as np
import zstandard
from PIL import Image

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "integration"))
import agent_process  # noqa: E402
from accounts import TEST_PASSWORD, TEST_USER  # noqa: E402
from hlvp_client import HLVPClient  # noqa: E402

HEARTBEAT_SECONDS = 20


def rgb_to_pixels(data, w, h):
    rgb = np.frombuffer(data, dtype=np.uint8).reshape(h, w, 3).astype(np.uint32)
    return rgb[:, :, 0] << 16 | rgb[:, :, 1] << 8 | rgb[:, :, 2]


class AgentStream:
    def __init__(self, port, lossy):
        self.client = HLVPClient(port)
        self.reader = self  # `received` lives here, as in the RFB client
        self.received, self.updates, self.stream = 0, 0, None
        self.zstd = zstandard.ZstdDecompressor()
        self.client.send({"type": "handshake", "clientName": "screen benchmark", "protocolVersion": 1})
        self.client.send({"type": "authentication", "method": "password",
                          "credentials": {"username": TEST_USER, "password": TEST_PASSWORD}})
        while self.stream is None:
            message = self._next(60)
            kind = message.get("type")
            if kind == "authenticationResponse":
                if not message["success"]:
                    raise ConnectionError(f"sign-in refused: {message.get('errorMessage')}")
                self.client.send({"type": "screenCaptureRequest", "mode": "balanced" if lossy else "lossless",
                                  "maxFPS": 60})
            if kind == "error":
                raise ConnectionError(f"the agent refused the stream: {message['message']}")
            if kind == "screenStreamStarted":
                self.stream = message["streamID"]
                self.width, self.height = message["width"], message["height"]
                self.picture = np.zeros((self.height, self.width), dtype=np.uint32)
        self.last_sent = time.monotonic()

    def _next(self, timeout):
        sock = self.client.sock
        sock.settimeout(timeout)
        while True:
            buffered = self.client._buffer
            if len(buffered) >= 4 and len(buffered) >= 4 + struct.unpack(">I", buffered[:4])[0]:
                self.received += 4 + struct.unpack(">I", buffered[:4])[0]
                return self.client.receive(timeout)
            chunk = sock.recv(1 << 20)
            if not chunk:
                raise ConnectionError("the agent closed the connection")
            self.client._buffer += chunk

    def run(self, on_update, stop):
        while not stop():
            if time.monotonic() - self.last_sent > HEARTBEAT_SECONDS:
                self.client.send({"type": "heartbeat"})
                self.last_sent = time.monotonic()
            try:
                message = self._next(1.0)
            except (socket.timeout, TimeoutError):
                continue
            kind = message.get("type")
            if kind == "screenGeometry" and message["streamID"] == self.stream:
                self.width, self.height = message["width"], message["height"]
                self.picture = np.zeros((self.height, self.width), dtype=np.uint32)
            elif kind == "screenFrame" and message["streamID"] == self.stream:
                for rect in message["rects"]:
                    self._paint(rect)
                if message["final"]:
                    self.client.send({"type": "screenFrameAck", "streamID": self.stream, "frame": message["frame"]})
                    self.last_sent = time.monotonic()
                    self.updates += 1
                    on_update(self)
            elif kind == "screenStreamEnded" and message["streamID"] == self.stream:
                raise ConnectionError(f"the stream ended: {message['message']}")

    def _paint(self, rect):
        x, y, w, h, encoding = rect["x"], rect["y"], rect["w"], rect["h"], rect["encoding"]
        target = self.picture[y:y + h, x:x + w]
        if encoding == "solid":
            target[:] = rect["color"]
        elif encoding == "copy":
            target[:] = self.picture[rect["srcY"]:rect["srcY"] + h, rect["srcX"]:rect["srcX"] + w].copy()
        elif encoding == "zstd":
            target[:] = rgb_to_pixels(self.zstd.decompress(rect["data"], max_output_size=w * h * 3), w, h)
        elif encoding == "palette":
            colours = rgb_to_pixels(rect["palette"], len(rect["palette"]) // 3, 1)[0]
            indices = np.frombuffer(self.zstd.decompress(rect["data"], max_output_size=w * h), np.uint8)
            target[:] = colours[indices.reshape(h, w)]
        elif encoding == "jpeg":
            image = Image.open(io.BytesIO(rect["data"])).convert("RGB")
            target[:] = rgb_to_pixels(image.tobytes(), w, h)
        else:
            raise ConnectionError(f"unknown encoding {encoding}")

    def close(self):
        try:
            self.client.send({"type": "disconnect", "reason": "benchmark done"})
            self.client.sock.close()
        except OSError:
            pass


class AgentServer:
    name = "tellwyn-agent"
    lossless_name = "lossless"
    lossy_name = "balanced"

    def __init__(self, binary):
        agent_process.AGENT = binary
        self.agent = None

    def start(self, display, scratch):
        # No windows of the agent's own over the scenes: the display is only streamed.
        self.agent = agent_process.Agent(user=TEST_USER, display=display, extra_args=("--headless",))
        self.agent.wait_until_running()
        return self.agent.process.pid

    def open_viewer(self, lossy, native):
        return AgentStream(self.agent.port, lossy)

    def stop(self):
        if self.agent:
            self.agent.stop()
            self.agent.close()
