"""`tellwyn screenshot` against the real agent on Xvfb: the PNG it writes holds exactly the
pixels of the root window."""
import ctypes
import os
import random
import shutil
import subprocess
import tempfile
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")


class XImage(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int), ("height", ctypes.c_int), ("xoffset", ctypes.c_int),
                ("format", ctypes.c_int), ("data", ctypes.POINTER(ctypes.c_uint8)), ("byte_order", ctypes.c_int),
                ("bitmap_unit", ctypes.c_int), ("bitmap_bit_order", ctypes.c_int), ("bitmap_pad", ctypes.c_int),
                ("depth", ctypes.c_int), ("bytes_per_line", ctypes.c_int), ("bits_per_pixel", ctypes.c_int)]


class Display:
    """Just enough Xlib, through ctypes, to paint the root window and read it back."""

    def __init__(self, name):
        self.x = ctypes.CDLL("libX11.so.6")
        self.x.XOpenDisplay.restype = ctypes.c_void_p
        self.x.XOpenDisplay.argtypes = [ctypes.c_char_p]
        self.handle = self.x.XOpenDisplay(name.encode())
        if not self.handle:
            raise RuntimeError(f"cannot open display {name}")
        self.x.XDefaultRootWindow.restype = ctypes.c_ulong
        self.x.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
        self.root = self.x.XDefaultRootWindow(self.handle)
        self.x.XCreateGC.restype = ctypes.c_void_p
        self.x.XCreateGC.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_ulong, ctypes.c_void_p]
        self.gc = self.x.XCreateGC(self.handle, self.root, 0, None)
        self.x.XSetForeground.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_ulong]
        self.x.XFillRectangle.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_void_p, ctypes.c_int, ctypes.c_int,
                                          ctypes.c_uint, ctypes.c_uint]
        self.x.XSync.argtypes = [ctypes.c_void_p, ctypes.c_int]
        self.x.XGetImage.restype = ctypes.POINTER(XImage)
        self.x.XGetImage.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_int, ctypes.c_uint,
                                     ctypes.c_uint, ctypes.c_ulong, ctypes.c_int]
        self.x.XCloseDisplay.argtypes = [ctypes.c_void_p]

    def fill(self, x, y, w, h, rgb):
        self.x.XSetForeground(self.handle, self.gc, rgb)
        self.x.XFillRectangle(self.handle, self.root, self.gc, x, y, w, h)

    def paint_test_picture(self, width, height):
        """Flat areas, a gradient, fine stripes and noise: what each kind of tile meets."""
        chooser = random.Random(22)
        self.fill(0, 0, width, height, 0x3366AA)
        for x in range(width):
            self.fill(x, 0, 1, height // 4, (x * 255 // width) << 16 | 0x40 << 8 | (255 - x * 255 // width))
        for y in range(height // 4, height // 2, 2):
            self.fill(0, y, width // 2, 1, 0xFFFFFF if y % 4 else 0x000000)
        for _ in range(3000):
            self.fill(chooser.randrange(width), chooser.randrange(height // 2, height), chooser.randrange(1, 9),
                      chooser.randrange(1, 9), chooser.randrange(1 << 24))
        self.x.XSync(self.handle, 0)

    def root_pixels(self, width, height):
        """Rows of 0xRRGGBB values, read with XGetImage."""
        image = self.x.XGetImage(self.handle, self.root, 0, 0, width, height, 0xFFFFFFFF, 2).contents
        data = ctypes.string_at(image.data, image.bytes_per_line * height)
        rows = []
        for y in range(height):
            row = data[y * image.bytes_per_line:y * image.bytes_per_line + width * 4]
            rows.append([int.from_bytes(row[4 * x:4 * x + 3], "little") for x in range(width)])
        return rows

    def close(self):
        self.x.XCloseDisplay(self.handle)


def png_pixels(path):
    from PIL import Image
    with Image.open(path) as image:
        rgb = image.convert("RGB")
        width, height = rgb.size
        data = rgb.tobytes()
    return [[data[3 * (y * width + x)] << 16 | data[3 * (y * width + x) + 1] << 8 | data[3 * (y * width + x) + 2]
             for x in range(width)] for y in range(height)]


@unittest.skipUnless(shutil.which("Xvfb"), "needs Xvfb: run scripts/setup.sh test")
@unittest.skipUnless(test_account_exists(), "needs the test account: run scripts/setup.sh build test")
class ScreenshotTest(unittest.TestCase):
    WIDTH, HEIGHT = 800, 600

    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory(prefix="tellwyn-screenshot-")
        read_end, write_end = os.pipe()
        self.xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0",
                                      f"{self.WIDTH}x{self.HEIGHT}x24", "-nolisten", "tcp", "-noreset"],
                                     pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        with os.fdopen(read_end) as chosen:
            self.display = ":" + chosen.readline().strip()
        self.x = Display(self.display)

    def tearDown(self):
        self.x.close()
        self.xvfb.terminate()
        self.xvfb.wait(10)
        self.scratch.cleanup()

    def screenshot(self, port, path):
        return subprocess.run([VIEWER, "screenshot", f"127.0.0.1:{port}", "-u", TEST_USER, "--password-stdin", "-o",
                               path, "--known-agents", os.path.join(self.scratch.name, "known_agents")],
                              input=TEST_PASSWORD + "\n", capture_output=True, text=True, timeout=120,
                              env=dict(os.environ, LC_ALL="C.UTF-8"))

    def test_the_screenshot_equals_the_root_window(self):
        self.x.paint_test_picture(self.WIDTH, self.HEIGHT)
        # No windows of the agent's own over the picture: the display is only captured.
        with Agent(user=TEST_USER, display=self.display, extra_args=("--headless",)) as agent:
            agent.wait_until_running()
            path = os.path.join(self.scratch.name, "screen.png")
            result = self.screenshot(agent.port, path)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        shot = png_pixels(path)
        screen = self.x.root_pixels(self.WIDTH, self.HEIGHT)
        self.assertEqual((len(shot[0]), len(shot)), (self.WIDTH, self.HEIGHT))
        wrong = [(x, y) for y in range(self.HEIGHT) for x in range(self.WIDTH) if shot[y][x] != screen[y][x]]
        self.assertEqual(wrong[:10], [], f"{len(wrong)} pixels differ from the screen")


if __name__ == "__main__":
    unittest.main()
