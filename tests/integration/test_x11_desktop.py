"""The X11 permission checks and a real test capture on an Xvfb display, and both permissions
false with no display."""
import os
import shutil
import subprocess
import unittest

from desktop_session import start_xvfb, stop

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
        xvfb, display = start_xvfb("640x480")
        try:
            self.run_test("onADisplayBothAreAllowedAndACaptureShowsTheScreen", display)
            self.run_test("theAgentIsReadyForConnectionsAfterARealTestCapture", display)
        finally:
            stop(xvfb)

    def test_no_display_allows_nothing(self):
        self.run_test("withoutADisplayNothingIsAllowed", None)


if __name__ == "__main__":
    unittest.main()
