"""Statistics records from the real agent, running as the test account, to a signed-in viewer:
one at once and the next about 10 s later, with this machine's own figures."""
import datetime
import json
import os
import signal
import subprocess
import time
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent, Program, agent_version, mem_total_bytes, os_pretty_name
from desktop_session import start_xvfb, stop
from hlvp_client import HLVPClient

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")

ALWAYS_PRESENT = ["totalMemory", "freeMemory", "totalDiskSpace", "freeDiskSpace", "cpuUsage", "osVersion",
                  "macModel", "activeProcess", "uptimeSeconds", "agentVersion", "screenCaptureAuthorized",
                  "accessibilityAuthorized", "primaryIPAddress", "loggedInUser", "networkName", "displayCount",
                  "mainDisplayResolution", "serialNumber", "hardwareUUID", "fileVaultEnabled", "sipEnabled",
                  "gatekeeperEnabled", "mdmEnrolled", "lastBootTime", "lastSleepCause", "lastWakeCause",
                  "diskVolumes"]


def uptime_seconds():
    with open("/proc/uptime") as uptime:
        return float(uptime.read().split()[0])


@unittest.skipUnless(test_account_exists(), f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
class StatsTest(unittest.TestCase):
    def setUp(self):
        self.agent = Agent(user=TEST_USER)
        self.agent.wait_until_running()
        self.known = os.path.join(self.agent.config_dir, "..", "known_agents")

    def tearDown(self):
        self.agent.close()

    def test_a_signed_in_viewer_gets_the_machines_real_figures(self):
        # The cadence of the records is pinned in virtual time by the unit tests; here the figures.
        record = sign_in_and_receive(self.agent)
        missing = [field for field in ALWAYS_PRESENT if field not in record]
        self.assertEqual(missing, [])
        self.assertNotIn("sequenceNumber", record)
        self.assertEqual(record["totalMemory"], mem_total_bytes())
        self.assertGreater(record["freeMemory"], 0)
        self.assertLessEqual(record["freeMemory"], record["totalMemory"])
        self.assertGreaterEqual(record["cpuUsage"], 0.0)
        self.assertLessEqual(record["cpuUsage"], 1.0)
        root = os.statvfs("/")
        self.assertEqual(record["totalDiskSpace"], root.f_blocks * root.f_frsize)
        self.assertAlmostEqual(record["freeDiskSpace"], root.f_bavail * root.f_frsize, delta=1 << 30)
        self.assertEqual(record["diskVolumes"][0]["path"], "/")
        self.assertEqual(record["diskVolumes"][0]["totalBytes"], record["totalDiskSpace"])
        self.assertTrue(all(volume["totalBytes"] > 0 for volume in record["diskVolumes"]))
        self.assertLessEqual(abs(record["uptimeSeconds"] - uptime_seconds()), 15)
        boot = record["lastBootTime"]
        if isinstance(boot, str):
            boot = datetime.datetime.fromisoformat(boot.replace("Z", "+00:00"))
        self.assertLess(abs(boot.timestamp() - (time.time() - uptime_seconds())), 15)
        if os_pretty_name():
            self.assertEqual(record["osVersion"], os_pretty_name())
        self.assertTrue(record["macModel"])
        self.assertEqual(record["agentVersion"], agent_version(with_build=True))
        # Without a display: nothing in front, no screens, nobody on a seat but the agent's account.
        self.assertEqual(record["activeProcess"], "System")
        self.assertEqual(record["displayCount"], 0)
        self.assertEqual(record["mainDisplayResolution"], "")
        self.assertFalse(record["screenCaptureAuthorized"])
        if not os.path.exists("/run/systemd/seats/seat0"):
            self.assertEqual(record["loggedInUser"], TEST_USER)

    def test_watch_prints_each_record_as_it_arrives_until_interrupted(self):
        with Program([VIEWER, "watch", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER, "--password-stdin",
                      "--known-agents", self.known, "--json"], stdin_text=TEST_PASSWORD + "\n") as viewer:
            first = json.loads(viewer.next_line(what="the first record"))
            second = json.loads(viewer.next_line(what="the second record"))
            self.assertEqual(viewer.stop(signal.SIGINT), 0, viewer.stderr_lines)
        self.assertEqual(first["totalMemory"], mem_total_bytes())
        self.assertGreaterEqual(second["uptimeSeconds"], first["uptimeSeconds"] + 8)


def sign_in_and_receive(agent):
    client = HLVPClient(agent.port)
    try:
        assert client.sign_in("Stats Viewer", TEST_USER, TEST_PASSWORD)["success"]
        return client.receive_until("systemStats")
    finally:
        client.close()


@unittest.skipUnless(test_account_exists(), f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
class StatsWithDisplayTest(unittest.TestCase):
    """With an X server the record counts its screens and says whether capture and input work."""

    def setUp(self):
        self.xvfb, self.display = start_xvfb("1280x800")
        self.addCleanup(stop, self.xvfb)
        self.agent = Agent(user=TEST_USER, display=self.display)
        self.addCleanup(self.agent.close)
        self.agent.wait_until_running()

    def x(self, *command):
        return subprocess.run(command, capture_output=True, text=True, check=True, timeout=60,
                              env=dict(os.environ, DISPLAY=self.display)).stdout

    def test_the_application_in_front_is_the_active_windows_else_the_top_ones(self):
        # No window manager runs here: the test writes the properties one would.
        message = subprocess.Popen(["xmessage", "in front"], env=dict(os.environ, DISPLAY=self.display),
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(message.wait, 10)
        self.addCleanup(message.kill)
        window = self.x("xdotool", "search", "--sync", "--class", "Xmessage").split()[0]
        self.x("xprop", "-id", window, "-f", "_NET_WM_PID", "32c", "-set", "_NET_WM_PID", str(message.pid))
        self.x("xprop", "-root", "-f", "_NET_ACTIVE_WINDOW", "32c", "-set", "_NET_ACTIVE_WINDOW", window)
        self.assertEqual(sign_in_and_receive(self.agent)["activeProcess"], "xmessage")

        # Nothing active: the top of the stacking list, here a window claimed for the X server's process.
        self.x("xprop", "-root", "-remove", "_NET_ACTIVE_WINDOW")
        self.x("xprop", "-id", window, "-f", "_NET_WM_PID", "32c", "-set", "_NET_WM_PID", str(self.xvfb.pid))
        self.x("xprop", "-root", "-f", "_NET_CLIENT_LIST_STACKING", "32c", "-set", "_NET_CLIENT_LIST_STACKING",
               window)
        self.assertEqual(sign_in_and_receive(self.agent)["activeProcess"], "Xvfb")

        # The agent's own window never counts: the last name found stays.
        self.x("xprop", "-id", window, "-f", "_NET_WM_PID", "32c", "-set", "_NET_WM_PID",
               str(self.agent.process.pid))
        self.assertEqual(sign_in_and_receive(self.agent)["activeProcess"], "Xvfb")

        # A panel or dock is no application in front, even when it is the active window.
        self.x("xprop", "-id", window, "-f", "_NET_WM_PID", "32c", "-set", "_NET_WM_PID", str(message.pid))
        self.x("xprop", "-id", window, "-f", "_NET_WM_WINDOW_TYPE", "32a", "-set", "_NET_WM_WINDOW_TYPE",
               "_NET_WM_WINDOW_TYPE_DOCK")
        self.x("xprop", "-root", "-f", "_NET_ACTIVE_WINDOW", "32c", "-set", "_NET_ACTIVE_WINDOW", window)
        self.assertEqual(sign_in_and_receive(self.agent)["activeProcess"], "Xvfb")

    def test_screens_capture_and_input_come_from_the_x_server(self):
        record = sign_in_and_receive(self.agent)
        self.assertEqual(record["displayCount"], 1)
        self.assertEqual(record["mainDisplayResolution"], "1280 x 800")
        self.assertTrue(record["screenCaptureAuthorized"])
        self.assertTrue(record["accessibilityAuthorized"])  # Xvfb has XTEST
        # No window manager names an active window: nothing has been in front yet.
        self.assertEqual(record["activeProcess"], "System")


if __name__ == "__main__":
    unittest.main()
