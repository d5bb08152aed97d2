"""The menu lock's "Forgot Password…" through the real polkit daemon: a private system bus with
polkitd, the agent's action file and a test rule that answers yes or no, and the unlock sheet run
as the test account."""
import os
import shutil
import subprocess
import tempfile
import unittest

from accounts import TEST_USER, test_account_exists
from agent_process import run_as
from desktop_session import start_system_bus

PROGRAM = os.environ.get("TELLWYN_POLKIT_TEST", "tst_polkit_unlock")
POLKITD = "/usr/lib/polkit-1/polkitd"
ACTION = "/usr/share/polkit-1/actions/com.brevane.tellwynagent.policy"
RULE = "/etc/polkit-1/rules.d/49-tellwyn-test.rules"
SWITCH = "/run/tellwyn-polkit-test"


@unittest.skipUnless(os.geteuid() == 0 and test_account_exists() and os.path.exists(POLKITD)
                     and os.path.exists(ACTION) and os.path.exists(RULE),
                     "needs root, the test account, polkitd, the action file and the test rule: "
                     "run scripts/setup.sh build test")
class PolkitTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tellwyn-polkit-")
        os.chmod(cls.scratch.name, 0o755)
        cls.bus, cls.address = start_system_bus(cls.scratch.name)
        cls.env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=cls.address, QT_QPA_PLATFORM="offscreen",
                       LC_ALL="C.UTF-8")
        cls.env.pop("DBUS_SESSION_BUS_ADDRESS", None)
        cls.polkitd = subprocess.Popen([POLKITD, "--no-debug"], env=cls.env, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        os.makedirs(SWITCH, exist_ok=True)
        os.chmod(SWITCH, 0o755)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(SWITCH, ignore_errors=True)
        for process in (cls.polkitd, cls.bus):
            process.terminate()
            process.wait(30)
        cls.scratch.cleanup()

    def run_slot(self, slot, grant):
        grant_file = os.path.join(SWITCH, "grant")
        if grant:
            open(grant_file, "w", encoding="utf-8").close()
        elif os.path.exists(grant_file):
            os.remove(grant_file)
        result = subprocess.run(run_as(TEST_USER) + [PROGRAM, slot], env=dict(self.env, HOME=self.scratch.name),
                                capture_output=True, text=True, timeout=300)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_yes_opens_the_lock(self):
        self.run_slot("grantedAuthorizationRemovesTheSheet", grant=True)

    def test_no_keeps_the_lock(self):
        self.run_slot("refusedAuthorizationKeepsTheSheet", grant=False)


if __name__ == "__main__":
    unittest.main()
