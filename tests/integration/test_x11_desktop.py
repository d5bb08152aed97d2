"""The X11 permission checks and a real test capture on an Xvfb display, and both permissions
false with no display."""
import os
import shutil
import subprocess
import unittest

PROGRAM = os.environ.get("TELLWYN_X11_TEST", "tst_x11_desktop")


@unittest.skipUnless(shutil.which("Xvfb"), "needs Xvfb: run scripts/setup.sh test")
class X11DesktopTest(unittest.TestCase):
    def run_test(self, function, display):
        env = dict(os.environ)
        env.pop("DISPLAY", None)
        env.pop("WAYLAND_DISPLAY", None)
        if display:
            env["DISPLAY"] = display
        result = subprocess.run([PROGRAM, function], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn(f"PASS   : TestX11Desktop::{function}()", result.stdout)

    def test_permissions_and_a_real_capture_on_xvfb(self):
        # -noreset: the checks open and close connections of their own, and a server that resets
        # when its last client leaves would refuse the next one for a moment.
        read_end, write_end = os.pipe()
        xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "640x480x24", "-nolisten",
                                 "tcp", "-noreset"], pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        try:
            with os.fdopen(read_end) as chosen:
                display = ":" + chosen.readline().strip()
            self.run_test("onADisplayBothAreAllowedAndACaptureShowsTheScreen", display)
            self.run_test("theAgentIsReadyForConnectionsAfterARealTestCapture", display)
        finally:
            xvfb.terminate()
            xvfb.wait(10)

    def test_no_display_allows_nothing(self):
        self.run_test("withoutADisplayNothingIsAllowed", None)


if __name__ == "__main__":
    unittest.main()
