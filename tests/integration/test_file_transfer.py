"""File uploads end to end: the real viewer sends to the real agent, running as the test account,
into its Downloads/Tellwyn folder."""
import hashlib
import os
import subprocess
import unittest

from accounts import TEST_PASSWORD, TEST_USER, test_account_exists
from agent_process import Agent

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")


def digest(path):
    with open(path, "rb") as data:
        return hashlib.file_digest(data, "sha256").hexdigest()


@unittest.skipUnless(test_account_exists(), f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
class FileTransferTest(unittest.TestCase):
    def start_agent(self, **preferences):
        self.agent = Agent(user=TEST_USER, preferences=preferences)
        self.agent.wait_until_running()
        self.folder = os.path.join(self.agent.config_dir, "..", "Downloads", "Tellwyn")
        self.known = os.path.join(self.agent.config_dir, "..", "known_agents")
        self.outbox = os.path.join(self.agent.config_dir, "..", "outbox")
        os.makedirs(self.outbox, exist_ok=True)

    def tearDown(self):
        self.agent.close()

    def send(self, *paths):
        return subprocess.run([VIEWER, "send", f"127.0.0.1:{self.agent.port}", *paths, "-u", TEST_USER,
                               "--password-stdin", "--known-agents", self.known], input=TEST_PASSWORD + "\n",
                              capture_output=True, text=True, timeout=120)

    def test_a_100_mib_file_arrives_byte_identical_and_names_do_not_collide(self):
        self.start_agent()
        source = os.path.join(self.outbox, "big file.bin")
        with open(source, "wb") as out:
            for _ in range(100):
                out.write(os.urandom(1024 * 1024))
        result = self.send(source, source)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.splitlines(), [f"{source} -> big file.bin", f"{source} -> big file (1).bin"])
        self.assertEqual(sorted(os.listdir(self.folder)), ["big file (1).bin", "big file.bin"])
        for name in ("big file.bin", "big file (1).bin"):
            self.assertEqual(digest(os.path.join(self.folder, name)), digest(source))
        self.agent.wait_for(lambda: any(m.endswith('received "big file.bin" as "big file (1).bin"')
                                        for _, m in self.agent.log()), what="the transfer line")

    def test_with_transfers_switched_off_the_viewer_is_told_and_nothing_is_written(self):
        self.start_agent(enableFileTransfers="false")
        source = os.path.join(self.outbox, "note.txt")
        with open(source, "w", encoding="utf-8") as note:
            note.write("hello")
        result = self.send(source)
        self.assertEqual(result.returncode, 5)
        self.assertIn("File transfers are switched off on this computer.", result.stderr)
        self.assertFalse(os.path.exists(self.folder))


if __name__ == "__main__":
    unittest.main()
