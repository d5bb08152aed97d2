"""Clipboard sharing end to end: the real agent on an Xvfb display, the real X clipboard through
xclip, and the real viewer signed in through PAM."""
import os
import shutil
import subprocess
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent, Program
from desktop_session import start_xvfb, stop

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")


class XDisplay:
    """An Xvfb of the test's own; any local user may connect (the agent runs as the test account)."""

    def __init__(self, *options):
        self.process, self.name = start_xvfb("800x600", *options)
        self.env = dict(os.environ, DISPLAY=self.name)
        self.owners = []

    def copy(self, text):
        """Puts `text` on the CLIPBOARD selection, as an application's copy does."""
        owner = subprocess.Popen(["xclip", "-selection", "clipboard", "-quiet"], stdin=subprocess.PIPE,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.env)
        owner.stdin.write(text.encode())
        owner.stdin.close()
        self.owners.append(owner)

    def paste(self):
        result = subprocess.run(["xclip", "-selection", "clipboard", "-o"], capture_output=True, env=self.env,
                                timeout=60)
        return result.stdout.decode() if result.returncode == 0 else None

    def close(self):
        for owner in self.owners:
            owner.kill()
            owner.wait()
        stop(self.process)


@unittest.skipUnless(test_account_exists() and shutil.which("Xvfb") and shutil.which("xclip"),
                     "needs the test account, Xvfb and xclip: run scripts/setup.sh test")
class ClipboardTest(unittest.TestCase):
    def setUp(self):
        self.display = XDisplay()
        self.agent = Agent(user=TEST_USER, display=self.display.name)
        self.agent.wait_until_running()
        self.known = os.path.join(self.agent.config_dir, "..", "known_agents")

    def tearDown(self):
        self.agent.close()
        self.display.close()

    def viewer(self, *args, stdin=""):
        return subprocess.run([VIEWER, "clip", *args, "-u", TEST_USER, "--password-stdin", "--name", "Putter",
                               "--known-agents", self.known], input=TEST_PASSWORD + "\n" + stdin,
                              capture_output=True, text=True, timeout=60)

    def watcher(self):
        """`tellwyn clip watch`, collecting what it prints."""
        return Program([VIEWER, "clip", "watch", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER, "--password-stdin",
                        "--name", "Watcher", "--known-agents", self.known], stdin_text=TEST_PASSWORD + "\n")

    def test_copies_on_the_machine_reach_a_watching_viewer(self):
        self.display.copy("copied before the viewer came")
        watcher = self.watcher()
        try:
            # The monitor starts with the sign-in; its first look sends what is on the clipboard.
            watcher.wait_for(lambda: "copied before the viewer came" in watcher.stdout_lines, what="the first copy")
            self.display.copy("copied later ✓")
            watcher.wait_for(lambda: "copied later ✓" in watcher.stdout_lines, what="the later copy")
            code = self.viewer("get", f"127.0.0.1:{self.agent.port}")
            self.assertEqual((code.returncode, code.stdout), (0, "copied later ✓"), code.stderr)
        finally:
            watcher.close()

    def test_text_from_a_viewer_lands_on_the_clipboard(self):
        # That it is never sent back to the viewers is pinned in virtual time by the unit tests.
        put = self.viewer("put", f"127.0.0.1:{self.agent.port}", stdin="from the viewer\nsecond line")
        self.assertEqual(put.returncode, 0, put.stderr)
        self.assertEqual(self.display.paste(), "from the viewer\nsecond line")
        self.agent.wait_for_log("CLIPBOARD", "Clipboard snapshot received from Putter (27 bytes)")


if __name__ == "__main__":
    unittest.main()
