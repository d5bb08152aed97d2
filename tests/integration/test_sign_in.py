"""Sign-in through PAM with the real agent running as the test account, driven by the real viewer."""
import os
import re
import subprocess
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent, mem_total_bytes

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")


def memory_holds(pid, needle):
    """True when any readable mapping of the process holds `needle`."""
    with open(f"/proc/{pid}/maps", encoding="ascii") as maps, open(f"/proc/{pid}/mem", "rb", 0) as mem:
        for line in maps:
            start, end, perms = re.match(r"([0-9a-f]+)-([0-9a-f]+) (\S+)", line).groups()
            if "r" not in perms or line.rstrip().endswith(("[vvar]", "[vsyscall]")):
                continue
            try:
                mem.seek(int(start, 16))
                if needle in mem.read(int(end, 16) - int(start, 16)):
                    return True
            except OSError:
                continue
    return False


@unittest.skipUnless(test_account_exists(), f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
class SignInTest(unittest.TestCase):
    def setUp(self):
        self.agent = Agent(user=TEST_USER)
        self.agent.wait_until_running()
        self.known = os.path.join(self.agent.config_dir, "..", "known_agents")

    def tearDown(self):
        self.agent.close()

    def stats(self, user, password, *extra):
        viewer = subprocess.run([VIEWER, "stats", f"127.0.0.1:{self.agent.port}", "-u", user, "--password-stdin",
                                 "--name", "Sign-in Viewer", "--known-agents", self.known, *extra],
                                input=password + "\n", capture_output=True, text=True, timeout=60,
                                env=dict(os.environ, LC_ALL="C.UTF-8"))
        return viewer.returncode, viewer.stdout, viewer.stderr

    def test_the_accounts_password_signs_in_and_the_first_record_is_printed(self):
        code, out, err = self.stats(TEST_USER, TEST_PASSWORD)
        self.assertEqual(code, 0, err)
        # The record, printed readably.
        self.assertRegex(out, rf"(?m)^Total memory: +{mem_total_bytes() / (1 << 30):.1f} GiB$")
        self.assertRegex(out, r"(?m)^Uptime: +\d+ days?, \d+ hours?$")
        self.assertRegex(out, r"(?m)^Active application: +System$")
        self.assertRegex(out, r"(?m)^Screen locked: +(yes|no|unknown)$")
        self.assertRegex(out, r"(?m)^Volumes:\n  / ")
        self.agent.wait_for_log("AUTH", f"System authentication successful for user: {TEST_USER}")
        self.agent.wait_for_log("AUTH", "Authentication successful for Sign-in Viewer")
        self.assertNotIn(TEST_PASSWORD, "\n".join(self.agent.stdout_lines + self.agent.stderr_lines))
        # Once checked, the password is nowhere in the agent's memory: not in the frame, the decoded
        # message, the check's copies, nor the TLS library's freed record buffer.
        if os.geteuid() == 0:
            for encoding in ("utf-8", "utf-16-le"):
                self.assertFalse(memory_holds(self.agent.process.pid, TEST_PASSWORD.encode(encoding)), encoding)

    def test_a_refusal_reaches_the_viewer_and_pam_explains_it_in_the_log(self):
        code, _, err = self.stats(TEST_USER, "not the password")
        self.assertEqual(code, 6)
        self.assertIn("tellwyn: sign-in refused: Invalid credentials for this computer's account", err)
        # PAM's own text explains the failure in the log; the password never appears.
        self.agent.wait_for_log("AUTH", f"Computer account credential validation failed for user '{TEST_USER}'")
        failures = [m for c, m in self.agent.log()
                    if c == "AUTH" and m.startswith(f"System authentication failed for user {TEST_USER}: ")]
        self.assertEqual(len(failures), 1)
        self.assertGreater(len(failures[0]), len(f"System authentication failed for user {TEST_USER}: "))
        # The back-off and blocking that follow are pinned in virtual time by the unit tests.
        self.assertNotIn("not the password", "\n".join(self.agent.stdout_lines + self.agent.stderr_lines))

    def test_no_password_source_is_a_local_error(self):
        viewer = subprocess.run([VIEWER, "stats", f"127.0.0.1:{self.agent.port}", "-u", TEST_USER],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                                start_new_session=True)  # no controlling terminal to prompt on
        self.assertEqual(viewer.returncode, 1)
        self.assertIn("--password-stdin", viewer.stderr)


if __name__ == "__main__":
    unittest.main()
