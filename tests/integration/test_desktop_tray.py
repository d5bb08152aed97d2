"""The agent's tray item for real: an Xvfb display, a private session bus and gtk-sni-tray's
StatusNotifierWatcher and host; the agent runs as the test account so that a viewer can sign in."""
import os
import shutil
import subprocess
import time
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent, Program, run_as
from desktop_session import DesktopSession

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")
MENU = [("Remote access not configured", "", False), ("", "separator", True), ("TellwynAgent Status", "", True),
        ("", "separator", True), ("About", "", True), ("", "separator", True), ("Quit", "", True)]


@unittest.skipUnless(test_account_exists() and shutil.which("gtk-sni-tray-standalone") and shutil.which("Xvfb")
                     and shutil.which("xdotool"), "needs the test account, Xvfb, xdotool and gtk-sni-tray: "
                                                  "run scripts/setup.sh test")
class DesktopTrayTest(unittest.TestCase):
    def setUp(self):
        self.session = DesktopSession(prefix=run_as(TEST_USER))
        self.agent = None
        self.saved_bus = os.environ.get("DBUS_SESSION_BUS_ADDRESS")
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = self.session.bus_address

    def tearDown(self):
        if self.agent:
            self.agent.close()
        self.session.close()
        if self.saved_bus is None:
            os.environ.pop("DBUS_SESSION_BUS_ADDRESS", None)
        else:
            os.environ["DBUS_SESSION_BUS_ADDRESS"] = self.saved_bus

    def start_agent(self):
        # Not a first launch: no window opens by itself.
        self.agent = Agent(user=TEST_USER, display=self.session.display, preferences={"isFirstLaunch": "false"})

    def item(self):
        return self.session.wait_for(self.session.registered_items, what="a registered item")[0]

    def test_item_menu_window_and_icon_tint(self):
        self.session.start_tray()
        self.start_agent()
        self.agent.wait_until_running()
        item = self.item()
        self.assertEqual([entry[1:] for entry in self.session.menu_entries(item)], MENU)

        status_id = next(entry[0] for entry in self.session.menu_entries(item) if entry[1] == "TellwynAgent Status")
        self.assertNotIn("TellwynAgent", self.session.window_names())
        self.session.click_menu_entry(item, status_id)
        self.session.wait_for(lambda: "TellwynAgent" in self.session.window_names(), what="the main window")

        plain = self.session.item_property(item, "IconPixmap")
        self.assertTrue(plain)
        known = os.path.join(self.agent.config_dir, "..", "known_agents")
        with Program(run_as(TEST_USER) + [VIEWER, "clip", "watch", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER,
                                          "--password-stdin", "--name", "Watcher", "--known-agents", known],
                     stdin_text=TEST_PASSWORD + "\n"):
            self.agent.wait_for_log("AUTH", "Authentication successful for Watcher", timeout=60)
            tinted = self.session.wait_for(
                lambda: (lambda icon: icon if icon and icon != plain else None)(
                    self.session.item_property(item, "IconPixmap")), what="the tinted icon")
            self.assertNotEqual(tinted, plain)
        self.session.wait_for(lambda: self.session.item_property(item, "IconPixmap") == plain,
                              what="the plain icon once the viewer left")

    def test_the_item_appears_when_the_panel_comes_late_or_restarts(self):
        self.start_agent()
        self.agent.wait_until_running()
        time.sleep(3)  # the panel comes later, as at a session start
        self.assertEqual(self.session.registered_items(), [])
        self.session.start_tray()
        item = self.item()
        self.assertEqual(self.session.menu_entries(item)[2][1], "TellwynAgent Status")

        self.session.tray.terminate()
        self.session.tray.wait(30)
        self.session.start_tray()
        self.assertEqual(len(self.item() and self.session.registered_items()), 1)
        self.assertEqual(self.session.menu_entries(self.item())[2][1], "TellwynAgent Status")

    def test_a_second_launch_shows_the_running_agents_window(self):
        self.start_agent()
        self.agent.wait_until_running()
        self.assertNotIn("TellwynAgent", self.session.window_names())
        second = subprocess.run(run_as(TEST_USER) + [os.environ.get("TELLWYN_AGENT", "tellwyn-agent")],
                                env=dict(self.session.env, QT_QPA_PLATFORM="xcb", HOME="/tmp"),
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.session.wait_for(lambda: "TellwynAgent" in self.session.window_names(), what="the main window")
        self.assertIsNone(self.agent.process.poll())


if __name__ == "__main__":
    unittest.main()
