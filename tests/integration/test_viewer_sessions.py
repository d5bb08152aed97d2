"""The real viewer and a client written from docs/protocol.md, against the real agent over TLS."""
import os
import signal
import tempfile
import unittest

from agent_process import Agent, Program, free_port

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")


def Viewer(*args):
    """One `tellwyn` process; its output is collected for the assertions."""
    return Program([VIEWER, *args])


class ViewerSessionTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory(prefix="tellwyn-viewer-")
        self.known = os.path.join(self.scratch.name, "known_agents")

    def tearDown(self):
        self.scratch.cleanup()

    def test_connect_heartbeat_and_ctrl_c_leave_with_a_goodbye(self):
        with Agent() as agent:
            agent.wait_until_running()
            viewer = Viewer("connect", f"127.0.0.1:{agent.port}", "--name", "IT Viewer", "--heartbeat-interval",
                            "0.3", "--known-agents", self.known)
            viewer.wait_for_output("Connected to ")
            agent.wait_for_log("HANDSHAKE", "Handshake noted from IT Viewer: version 1")
            agent.wait_for_log("HEARTBEAT", "Heartbeat received from IT Viewer")
            viewer.wait_for_output("heartbeatResponse")
            viewer.process.send_signal(signal.SIGINT)
            code, _, _ = viewer.finish()
            self.assertEqual(code, 0)
            # The agent's clean-up after a goodbye is pinned by the unit tests.
            agent.wait_for_log("CONNECT", "IT Viewer requested disconnect with reason: 'Viewer closed' - TYPE: "
                                          "DisconnectMessage")

    def test_first_contact_pins_the_identity_and_a_changed_one_is_refused(self):
        port = free_port()
        with Agent(port=port) as agent:
            agent.wait_until_running()
            viewer = Viewer("connect", f"127.0.0.1:{port}", "--name", "Pinning Viewer", "--known-agents",
                            self.known)
            viewer.wait_for_output("Connected to ")
            viewer.process.send_signal(signal.SIGINT)
            code, _, err = viewer.finish()
            self.assertEqual(code, 0)
            self.assertIn(agent.fingerprint(), err)
            with open(self.known, encoding="utf-8") as pinned:
                self.assertEqual(pinned.read(), f"127.0.0.1:{port} {agent.fingerprint()}\n")
            self.assertEqual(os.stat(self.known).st_mode & 0o777, 0o600)
            agent.stop()

        # Same address, new identity.
        with Agent(port=port) as impostor:
            impostor.wait_until_running()
            viewer = Viewer("connect", f"127.0.0.1:{port}", "--name", "Pinning Viewer", "--known-agents",
                            self.known)
            code, out, err = viewer.finish()
            self.assertEqual(code, 4, err)
            self.assertIn("WARNING: THE AGENT'S IDENTITY HAS CHANGED!", err)
            self.assertIn(impostor.fingerprint(), err)
            self.assertNotIn("Connected to", out)
            # Nothing was sent: the agent never saw a handshake.
            # (The viewer cuts the connection as soon as it sees the certificate, which the agent may
            # still count as a failed TLS negotiation.)
            impostor.wait_for(lambda: any(c == "TLS" or m.endswith(": connection closed")
                                          for c, m in impostor.log()), what="the refused connection to close")
            self.assertFalse(any(c == "HANDSHAKE" for c, _ in impostor.log()))

    def test_viewer_exit_codes(self):
        code, _, err = Viewer("connect", f"127.0.0.1:{free_port()}", "--known-agents", self.known).finish()
        self.assertEqual(code, 3)
        self.assertIn("cannot connect to 127.0.0.1:", err)
        code, _, err = Viewer("connect").finish()
        self.assertEqual(code, 2)
        code, _, err = Viewer("connect", "host:99999").finish()
        self.assertEqual(code, 2)
        self.assertIn("invalid port '99999'", err)
        code, out, _ = Viewer("--help").finish()
        self.assertEqual(code, 0)
        self.assertIn("Exit codes:", out)


if __name__ == "__main__":
    unittest.main()
