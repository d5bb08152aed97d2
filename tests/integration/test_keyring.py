"""The credential store against a real gnome-keyring inside a private D-Bus session, and with no
session bus at all."""
import os
import shutil
import subprocess
import tempfile
import unittest

PROGRAM = os.environ.get("TELLWYN_KEYRING_TEST", "tst_keyring_store")


@unittest.skipUnless(shutil.which("gnome-keyring-daemon") and shutil.which("dbus-run-session"),
                     "needs gnome-keyring and dbus: run scripts/setup.sh test")
class KeyringTest(unittest.TestCase):
    def run_test(self, function, with_keyring):
        with tempfile.TemporaryDirectory(prefix="tellwyn-keyring-") as home:
            env = dict(os.environ, HOME=home, XDG_DATA_HOME=os.path.join(home, "data"),
                       XDG_RUNTIME_DIR=home, QT_QPA_PLATFORM="offscreen")
            env.pop("DISPLAY", None)
            env.pop("DBUS_SESSION_BUS_ADDRESS", None)
            if with_keyring:
                # A fresh login keyring, created and unlocked with this password.
                script = ("printf 'keyring password' | gnome-keyring-daemon --unlock --components=secrets "
                          "--daemonize >/dev/null && exec \"$0\" \"$1\"")
                command = ["dbus-run-session", "--", "sh", "-c", script, PROGRAM, function]
            else:
                command = [PROGRAM, function]
            result = subprocess.run(command, env=env, capture_output=True, text=True, timeout=120)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
            self.assertIn(f"PASS   : TestKeyringStore::{function}()", result.stdout)

    def test_save_read_back_and_overwrite_in_a_real_keyring(self):
        self.run_test("storesReadsBackAndOverwrites", with_keyring=True)

    def test_no_keyring_gives_the_error_path(self):
        self.run_test("withoutAKeyringEveryCallFailsWithAReason", with_keyring=False)


if __name__ == "__main__":
    unittest.main()
