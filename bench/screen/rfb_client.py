"""The benchmark's own RFB client: RFB 3.8, no authentication, 32-bit true colour, and the
encodings the measured servers use in practice: ZRLE with CopyRect for lossless scenes, Tight
with JPEG for lossy ones. It keeps the whole picture, so the harness can tell when drawn pixels
have arrived and whether the final picture equals the screen."""
import ctypes
import io
import socket
import struct
import zlib

import numpy as np
from PIL import Image

RAW, COPY_RECT, TIGHT, ZRLE = 0, 1, 7, 16
CURSOR, DESKTOP_SIZE, LAST_RECT = -239, -223, -224
TIGHT_QUALITY_0, TIGHT_COMPRESS_0 = -32, -256


class Reader:
    def __init__(self, sock):
        self.sock, self.buffer, self.position, self.received = sock, bytearray(), 0, 0

    def read(self, n):
        while len(self.buffer) - self.position < n:
            chunk = self.sock.recv(max(1 << 20, n))
            if not chunk:
                raise ConnectionError("the server closed the connection")
            self.received += len(chunk)
            if self.position:
                del self.buffer[:self.position]
                self.position = 0
            self.buffer += chunk
        data = bytes(self.buffer[self.position:self.position + n])
        self.position += n
        return data

    def u8(self):
        return self.read(1)[0]

    def u16(self):
        return struct.unpack(">H", self.read(2))[0]

    def u32(self):
        return struct.unpack(">I", self.read(4))[0]


def pixels_from_rgb(data, w, h):
    """Three bytes R, G, B per pixel to 0x00RRGGBB."""
    rgb = np.frombuffer(data, dtype=np.uint8).reshape(h, w, 3).astype(np.uint32)
    return rgb[:, :, 0] << 16 | rgb[:, :, 1] << 8 | rgb[:, :, 2]


class RFBClient:
    """Connects, asks for `encodings`, and applies updates to `self.picture` (an H x W uint32
    array). `on_update(client)` runs after each complete update that changed pixels."""

    def __init__(self, port, lossy, native, host="127.0.0.1"):
        self.sock = socket.create_connection((host, port), timeout=60)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.reader = Reader(self.sock)
        self.native = native
        self.zrle = zlib.decompressobj()
        self.tight = [zlib.decompressobj() for _ in range(4)]
        self.updates = 0
        self.cursor_shapes = 0
        self._handshake()
        self.sock.settimeout(None)  # a still screen may send nothing for a long time
        if lossy:
            encodings = [TIGHT, COPY_RECT, RAW, TIGHT_QUALITY_0 + 8, TIGHT_COMPRESS_0 + 2]
        else:
            encodings = [ZRLE, COPY_RECT, RAW]
        encodings += [CURSOR, DESKTOP_SIZE, LAST_RECT]
        self.sock.sendall(struct.pack(">BxH", 2, len(encodings)) + b"".join(struct.pack(">i", e) for e in encodings))
        self.request(incremental=False)

    def _handshake(self):
        version = self.reader.read(12)
        if not version.startswith(b"RFB 003."):
            raise ConnectionError(f"not an RFB server: {version!r}")
        self.sock.sendall(b"RFB 003.008\n")
        types = self.reader.read(self.reader.u8())
        if 1 not in types:
            raise ConnectionError(f"the server offers no unauthenticated access: {list(types)}")
        self.sock.sendall(b"\x01")
        if self.reader.u32() != 0:
            raise ConnectionError("the server refused the connection")
        self.sock.sendall(b"\x01")  # shared
        self.width, self.height = self.reader.u16(), self.reader.u16()
        self.reader.read(16)
        self.name = self.reader.read(self.reader.u32()).decode("utf-8", "replace")
        self.picture = np.zeros((self.height, self.width), dtype=np.uint32)
        # 32 bits per pixel, depth 24, little-endian, true colour, red at bit 16: 0x00RRGGBB.
        self.sock.sendall(struct.pack(">BxxxBBBBHHHBBBxxx", 0, 32, 24, 0, 1, 255, 255, 255, 16, 8, 0))

    def request(self, incremental=True):
        self.sock.sendall(struct.pack(">BBHHHH", 3, 1 if incremental else 0, 0, 0, self.width, self.height))

    def run(self, on_update, stop):
        """Reads until `stop()` is true after an update, or the connection ends."""
        while not stop():
            kind = self.reader.u8()
            if kind == 0:
                self.reader.read(1)
                count = self.reader.u16()
                # Ask for the next update at once, as interactive viewers do, then decode this one.
                self.request()
                if self._update(count):
                    self.updates += 1
                    on_update(self)
            elif kind == 1:
                self.reader.read(3)
                self.reader.read(6 * self.reader.u16())
            elif kind == 2:
                pass
            elif kind == 3:
                self.reader.read(3)
                self.reader.read(self.reader.u32())
            elif kind == 150:
                pass
            else:
                raise ConnectionError(f"unknown server message {kind}")

    def _update(self, count):
        changed = False
        for _ in range(count if count != 0xFFFF else 1 << 30):
            x, y, w, h, encoding = struct.unpack(">HHHHi", self.reader.read(12))
            if encoding == LAST_RECT:
                break
            if encoding == CURSOR:
                self.reader.read(w * h * 4 + (w + 7) // 8 * h)
                self.cursor_shapes += 1
                continue
            if encoding == DESKTOP_SIZE:
                self.width, self.height = w, h
                self.picture = np.zeros((h, w), dtype=np.uint32)
                continue
            if x + w > self.width or y + h > self.height:
                raise ConnectionError(f"rectangle {w}x{h}+{x}+{y} outside the screen")
            changed = True
            if encoding == RAW:
                self.picture[y:y + h, x:x + w] = np.frombuffer(self.reader.read(w * h * 4), "<u4").reshape(h, w)
            elif encoding == COPY_RECT:
                sx, sy = self.reader.u16(), self.reader.u16()
                self.picture[y:y + h, x:x + w] = self.picture[sy:sy + h, sx:sx + w].copy()
            elif encoding == ZRLE:
                data = self.zrle.decompress(self.reader.read(self.reader.u32()))
                used = self.native.zrle_decode(data, len(data), w, h, self._at(x, y), self.width)
                if used != len(data):
                    raise ConnectionError("malformed ZRLE rectangle")
            elif encoding == TIGHT:
                self._tight(x, y, w, h)
            else:
                raise ConnectionError(f"unexpected encoding {encoding}")
        return changed

    def _at(self, x, y):
        return ctypes.c_void_p(self.picture.ctypes.data + (y * self.width + x) * 4)

    def _compact_length(self):
        length = 0
        for shift in (0, 7, 14):
            b = self.reader.u8()
            length |= (b & 0x7F) << shift
            if not b & 0x80 or shift == 14:
                return length
        return length

    def _tight(self, x, y, w, h):
        control = self.reader.u8()
        for stream in range(4):
            if control & (1 << stream):
                self.tight[stream] = zlib.decompressobj()
        kind = control >> 4
        if kind == 8:
            r, g, b = self.reader.read(3)
            self.picture[y:y + h, x:x + w] = r << 16 | g << 8 | b
            return
        if kind == 9:
            image = Image.open(io.BytesIO(self.reader.read(self._compact_length()))).convert("RGB")
            self.picture[y:y + h, x:x + w] = pixels_from_rgb(image.tobytes(), w, h)
            return
        if kind & 8:
            raise ConnectionError(f"unexpected Tight compression {kind}")
        stream, filter_id, palette = kind & 3, 0, None
        if kind & 4:
            filter_id = self.reader.u8()
        if filter_id == 1:
            colours = self.reader.u8() + 1
            palette = pixels_from_rgb(self.reader.read(3 * colours), colours, 1)[0]
            size = (w + 7) // 8 * h if colours == 2 else w * h
        else:
            size = w * h * 3
        if size < 12:
            data = self.reader.read(size)
        else:
            data = self.tight[stream].decompress(self.reader.read(self._compact_length()))
        if filter_id == 0:
            self.picture[y:y + h, x:x + w] = pixels_from_rgb(data, w, h)
        elif filter_id == 1:
            if len(palette) == 2:
                bits = np.unpackbits(np.frombuffer(data, np.uint8).reshape(h, (w + 7) // 8), axis=1)[:, :w]
                self.picture[y:y + h, x:x + w] = palette[bits]
            else:
                self.picture[y:y + h, x:x + w] = palette[np.frombuffer(data, np.uint8).reshape(h, w)]
        elif filter_id == 2:
            self.native.tight_gradient(data, w, h, self._at(x, y), self.width)
        else:
            raise ConnectionError(f"unknown Tight filter {filter_id}")

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass


def load_native(path):
    native = ctypes.CDLL(path)
    native.zrle_decode.restype = ctypes.c_long
    native.zrle_decode.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_void_p,
                                   ctypes.c_int]
    native.tight_gradient.restype = None
    native.tight_gradient.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
    return native
