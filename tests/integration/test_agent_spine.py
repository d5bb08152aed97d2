"""The real agent binary: TLS listener, start failures, termination, identity, command line."""
import os
import signal
import socket
import ssl
import stat
import subprocess
import tempfile
import unittest

from agent_process import AGENT, Agent


def tls_client_context(maximum=None):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if maximum is not None:
        context.maximum_version = maximum
    return context


def open_tls(port, context=None, timeout=5.0):
    raw = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    try:
        return (context or tls_client_context()).wrap_socket(raw)
    except Exception:
        raw.close()
        raise


def s_client(port, version_flag):
    return subprocess.run(["openssl", "s_client", version_flag, "-connect", f"127.0.0.1:{port}"],
                          input="", capture_output=True, text=True, timeout=20)


class AgentSpineTest(unittest.TestCase):
    def test_listens_with_tls13_only_and_presents_the_logged_identity(self):
        with Agent() as agent:
            agent.wait_until_running()
            modern = s_client(agent.port, "-tls1_3")
            self.assertIn("TLSv1.3", modern.stdout)
            self.assertIn("BEGIN CERTIFICATE", modern.stdout)

            # The certificate on the wire is the one whose fingerprint the log gives.
            certificate = modern.stdout[modern.stdout.index("-----BEGIN CERTIFICATE-----"):
                                        modern.stdout.index("-----END CERTIFICATE-----") + 25]
            digest = subprocess.run(["openssl", "x509", "-noout", "-fingerprint", "-sha256"], input=certificate,
                                    capture_output=True, text=True, check=True).stdout
            self.assertEqual(digest.strip().split("=", 1)[1], agent.fingerprint())

            legacy = s_client(agent.port, "-tls1_2")
            self.assertNotEqual(legacy.returncode, 0)
            self.assertNotIn("BEGIN CERTIFICATE", legacy.stdout)
            with self.assertRaises((ssl.SSLError, ConnectionError)):
                open_tls(agent.port, tls_client_context(maximum=ssl.TLSVersion.TLSv1_2)).close()
            self.assertEqual(agent.stop(), 0)

    def test_termination_signals_end_through_the_termination_path(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(signal=sig.name), Agent() as agent:
                agent.wait_until_running()
                self.assertEqual(agent.stop(sig), 0)
                # What the termination path logs, in order, is pinned by the unit tests.
                self.assertIn(("SERVER", "Application terminating - cleaning up resources"), agent.log())

    def test_the_identity_is_kept_private_and_reused(self):
        with Agent() as first:
            first.wait_until_running()
            fingerprint = first.fingerprint()
            first.stop()
            config_dir, data_dir = first.config_dir, first.data_dir
            self.assertTrue(any(m.startswith("Created a new TLS identity") for _, m in first.log()))
            for name in ("identity-key.pem", "identity-cert.pem"):
                mode = stat.S_IMODE(os.stat(os.path.join(data_dir, name)).st_mode)
                self.assertEqual(mode, 0o600, name)
            with Agent(config_dir=config_dir, data_dir=data_dir) as second:
                second.wait_until_running()
                self.assertEqual(second.fingerprint(), fingerprint)
                self.assertFalse(any(m.startswith("Created a new TLS identity") for _, m in second.log()))
                second.stop()

    def test_a_broken_preferences_file_is_kept_and_the_agent_runs(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        config_dir = scratch.name
        path = os.path.join(config_dir, "tellwyn-agent.conf")
        with open(path, "wb") as broken:
            broken.write(b"[General\nserverPort=\xff\xfe\x00junk\n")
        with Agent(config_dir=config_dir) as agent:
            agent.wait_until_running()
            self.assertTrue(any("could not be parsed" in line for line in agent.stderr_lines))
            self.assertTrue(any(c == "WARN" and "could not be parsed" in m for c, m in agent.log()))
            kept = [name for name in os.listdir(config_dir) if name.startswith("tellwyn-agent.conf.broken-")]
            self.assertEqual(len(kept), 1)
            agent.stop()

    def test_an_unusable_data_folder_gives_a_clear_failure(self):
        with tempfile.NamedTemporaryFile() as blocker, Agent(data_dir=os.path.join(blocker.name, "data")) as agent:
            agent.wait_for(lambda: any(l.startswith("tellwyn-agent: status: Failed to start remote service: Cannot create")
                                       for l in agent.stderr_lines), what="failure status")
            self.assertIsNone(agent.process.poll())
            self.assertEqual(agent.stop(), 0)

    def test_command_line(self):
        shown = subprocess.run([AGENT, "--help"], capture_output=True, text=True, timeout=10)
        self.assertEqual(shown.returncode, 0)
        self.assertIn("--headless", shown.stdout)
        version = subprocess.run([AGENT, "--version"], capture_output=True, text=True, timeout=10)
        self.assertRegex(version.stdout, r"^tellwyn-agent \d+\.\d+\.\d+ \(build \d+\)")
        for bad in (["--port", "0"], ["--port", "70000"], ["--port", "x"], ["--listen", "nowhere"], ["--bogus"]):
            with self.subTest(arguments=bad):
                refused = subprocess.run([AGENT, "--headless", *bad], capture_output=True, text=True, timeout=10)
                self.assertEqual(refused.returncode, 2)
                self.assertIn("tellwyn-agent:", refused.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
