"""`tellwyn view` works the remote machine: the real viewer window on one X display, the real agent
on another, xdotool typing and clicking into the window as its user would, and an X client on the
agent's display that records what arrives there."""
import os
import shutil
import subprocess
import tempfile
import time
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent
from test_clipboard import XDisplay
from test_screen_stream import DEADLINE, InputRecorder

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")

# Symbols typed on the viewer's layout (first) that the agent's layout (second) has elsewhere or
# lacks, with the keysym names the remote application must read.
LAYOUT_PAIRS = (
    ("us", "de", ["y", "z", "Z", "at", "less", "greater", "bar", "asciitilde", "braceleft", "2", "exclam"]),
    ("de", "fr", ["a", "q", "1", "at", "EuroSign", "adiaeresis", "ssharp", "mu", "less", "numbersign"]),
    ("fr", "us", ["eacute", "egrave", "ccedilla", "agrave", "ugrave", "twosuperior", "a", "m", "1", "section"]),
)


@unittest.skipUnless(test_account_exists() and all(shutil.which(p) for p in ("Xvfb", "xdotool", "xclip",
                                                                              "setxkbmap")),
                     "needs the test account, Xvfb, xdotool, xclip and setxkbmap: run scripts/setup.sh test")
class ViewInputTest(unittest.TestCase):
    def setUp(self):
        self.remote = XDisplay()
        self.local = XDisplay()
        self.scratch = tempfile.TemporaryDirectory(prefix="tellwyn-view-")
        self.agent = None
        self.recorder = InputRecorder(self.remote.env)
        self.viewer = None

    def start_agent(self, *options):
        self.agent = Agent(user=TEST_USER, display=self.remote.name, extra_args=options)
        self.agent.wait_until_running()

    def tearDown(self):
        if self.viewer:
            self.viewer.kill()
            self.viewer.wait()
        self.recorder.process.kill()
        self.recorder.process.wait()
        if self.agent:
            self.agent.close()
        self.local.close()
        self.remote.close()
        self.scratch.cleanup()

    def local_x(self, *command):
        return subprocess.run(command, env=self.local.env, check=True, timeout=DEADLINE, capture_output=True,
                              text=True).stdout.strip()

    def open_view(self, *options):
        """Starts `tellwyn view` on the local display; returns its window once it holds the keyboard.
        The agent runs without windows of its own, which would cover the recording client's."""
        if not self.agent:
            self.start_agent("--headless")
        self.viewer = subprocess.Popen(
            [VIEWER, "view", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER, "--password-stdin",
             "--known-agents", os.path.join(self.scratch.name, "known_agents"), *options],
            env=self.local.env, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.viewer.stdin.write(TEST_PASSWORD + "\n")
        self.viewer.stdin.close()
        window = self.local_x("xdotool", "search", "--sync", "--name", "tellwyn view").split()[0]
        # The click gives the window the keyboard; its title then says how to give it back.
        deadline = time.monotonic() + DEADLINE
        while "Ctrl+Alt+Shift" not in self.local_x("xdotool", "getwindowname", window):
            self.assertLess(time.monotonic(), deadline, "the window never took the keyboard")
            self.local_x("xdotool", "mousemove", "--window", window, "20", "60", "click", "1")
            time.sleep(0.5)
        return window

    def pointer_at(self, window, x, y, after):
        self.local_x("xdotool", "mousemove", "--window", window, str(x), str(y))
        index = self.recorder.wait_for("motion", after=after)
        while True:  # the last motion of the move
            try:
                index = self.recorder.wait_for("motion", after=index, deadline=1.0)
            except AssertionError:
                break
        _, remote_x, remote_y = self.recorder.lines[index].split()
        return int(remote_x), int(remote_y), index

    def test_keys_arrive_as_the_same_symbols_on_every_layout(self):
        window = self.open_view()
        last = len(self.recorder.lines) - 1
        for local_layout, remote_layout, symbols in LAYOUT_PAIRS:
            self.local_x("setxkbmap", local_layout)
            subprocess.run(["setxkbmap", remote_layout], env=self.remote.env, check=True, timeout=DEADLINE)
            for symbol in symbols:
                self.local_x("xdotool", "key", "--clearmodifiers", symbol)
                last = self.recorder.wait_for("key-press", symbol, after=last)
                # No Control or Alt on top (Shift may stay where the symbol's key ignores it).
                self.assertEqual(int(self.recorder.lines[last].split()[3], 16) & 0xC, 0,
                                 f"{symbol} from {local_layout} to {remote_layout} came with modifiers")
        self.assertTrue(window)

    def test_pointer_lands_on_the_pixel_at_1_to_1_and_scaled(self):
        for options, scale in ((("--actual-size",), 1), ((), 2)):
            window = self.open_view(*options)
            if scale != 1:
                # 400 pixels wide for the agent's 800: the picture is shown at half its size,
                # between y = 150 and 470 or so, below the menu bar.
                self.local_x("xdotool", "windowsize", window, "400", "600")
            first_x, first_y, last = self.pointer_at(window, 100, 250, -1)
            second_x, second_y, last = self.pointer_at(window, 250, 310, last)
            self.assertLessEqual(abs(second_x - first_x - 150 * scale), 1, (options, self.recorder.lines[-5:]))
            self.assertLessEqual(abs(second_y - first_y - 60 * scale), 1, (options, self.recorder.lines[-5:]))
            self.local_x("xdotool", "click", "3")
            self.recorder.wait_for(f"button-press 3 {second_x} {second_y}", after=last)
            self.viewer.kill()
            self.viewer.wait()

    def test_a_killed_viewer_leaves_nothing_pressed(self):
        window = self.open_view()
        self.local_x("xdotool", "keydown", "a", "mousedown", "1")
        key = self.recorder.wait_for("key-press", "a")
        self.recorder.wait_for("button-press 1")
        self.viewer.kill()
        self.recorder.wait_for("button-release 1", after=key)
        self.recorder.wait_for("key-release", "a", after=key)
        self.local_x("xdotool", "keyup", "a", "mouseup", "1")
        self.assertTrue(window)

    def test_clipboards_stay_in_step_both_ways(self):
        self.start_agent()  # the agent's clipboard lives in its desktop side
        self.open_view()
        self.local.copy("copied at the viewer ✓")
        self.assertEqual(self.wait_for_paste(self.remote, "copied at the viewer ✓"), "copied at the viewer ✓")
        self.remote.copy("copied on the agent's machine ☂")
        self.assertEqual(self.wait_for_paste(self.local, "copied on the agent's machine ☂"),
                         "copied on the agent's machine ☂")

    @staticmethod
    def wait_for_paste(display, wanted):
        deadline = time.monotonic() + DEADLINE
        pasted = display.paste()
        while pasted != wanted and time.monotonic() < deadline:
            time.sleep(0.3)
            pasted = display.paste()
        return pasted


if __name__ == "__main__":
    unittest.main()
