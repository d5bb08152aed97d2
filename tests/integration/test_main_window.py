"""The dashboard on a real desktop: the real agent with its window on Xvfb, the real viewer signed
in through PAM, and the viewer's disconnect button pressed through the accessibility bus."""
import os
import shutil
import subprocess
import tempfile
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent, Program, run_as
from desktop_session import DesktopSession

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")
ATSPI_TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "atspi_tool.py")


def atspi_available():
    return subprocess.run(["/usr/bin/python3", "-c", "import pyatspi"], capture_output=True).returncode == 0


class AccessibleDesktop(DesktopSession):
    """A desktop session of `user` with the accessibility registry running on its bus."""

    def __init__(self, user):
        self.user = user
        self.home = tempfile.TemporaryDirectory(prefix="tellwyn-desktop-")
        shutil.chown(self.home.name, user=user)
        super().__init__(prefix=run_as(user), home=self.home.name)
        del self.env["NO_AT_BRIDGE"]
        # The registry must be up before an application starts, or the application is not listed.
        ready = self.atspi("ready")
        if ready.returncode != 0:
            raise AssertionError("the accessibility registry did not start: " + ready.stderr)

    def agent_env(self):
        return {"DBUS_SESSION_BUS_ADDRESS": self.bus_address, "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1"}

    def atspi(self, *args):
        return subprocess.run(run_as(self.user) + ["/usr/bin/python3", ATSPI_TOOL, *args], env=self.env,
                              capture_output=True, text=True, timeout=120)

    def close(self):
        super().close()
        self.home.cleanup()


@unittest.skipUnless(test_account_exists() and shutil.which("Xvfb") and shutil.which("dbus-daemon")
                     and atspi_available(),
                     "needs the test account, Xvfb, dbus-daemon and python3-pyatspi: run scripts/setup.sh test")
class MainWindowTest(unittest.TestCase):
    def setUp(self):
        self.desktop = AccessibleDesktop(TEST_USER)
        self.agent = Agent(user=TEST_USER, display=self.desktop.display, extra_env=self.desktop.agent_env(),
                           preferences={"hasCompletedSetup": "true"})
        self.agent.wait_until_running()
        self.known = os.path.join(self.agent.config_dir, "..", "known_agents")

    def tearDown(self):
        self.agent.close()
        self.desktop.close()

    def test_the_dashboard_shows_a_signed_in_viewer_and_its_button_ends_the_session(self):
        self.assertEqual(self.desktop.atspi("wait", "Running", "--role", "label").returncode, 0)
        viewer = Program([VIEWER, "watch", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER, "--password-stdin",
                          "--name", "Dashboard Viewer", "--known-agents", self.known], stdin_text=TEST_PASSWORD + "\n")
        with viewer:
            self.agent.wait_for_log("AUTH", "Authentication successful for Dashboard Viewer", timeout=60)
            # The row of the connection, found by its button's name as a screen reader finds it.
            pressed = self.desktop.atspi("press", "Disconnect client", "--description", "Client ")
            self.assertEqual(pressed.returncode, 0, pressed.stderr)
            self.assertRegex(pressed.stdout.strip(), r"^Client \S+$")
            self.agent.wait_for_log("CONNECT", "Disconnecting Dashboard Viewer", timeout=60)
            _, _, errors = viewer.finish(60)
            self.assertIn("The agent ended the session: Normal disconnect", errors)
            # The row is gone again.
            self.assertEqual(self.desktop.atspi("wait", "0", "--role", "label").returncode, 0)


if __name__ == "__main__":
    unittest.main()
