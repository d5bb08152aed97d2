"""The real agent's update check and installer download against HTTP(S) servers run here on loopback.

The servers misbehave on purpose: error statuses, empty and undecodable feeds, connections broken
off midway, slow bodies and redirects from https to http.
"""
import hashlib
import os
import random
import signal
import ssl
import subprocess
import tempfile
import time
import unittest

from agent_process import AGENT, agent_version
from http_server import LoopbackHTTP
from desktop_session import poll_until, start_xvfb, stop, window_titles

MIB = 1 << 20


def block(index):
    """Block `index` of the large installer: the same random MiB, stamped with its number."""
    return index.to_bytes(8, "big") + BASE_BLOCK[8:]


BASE_BLOCK = random.Random(7).randbytes(MIB)


def serve_blocks(count, delay=0.0, chunk=MIB):
    """A body of `count` blocks, sent `chunk` bytes at a time with `delay` seconds between."""
    def route(handler):
        handler.send_response(200)
        handler.send_header("Content-Length", str(count * MIB))
        handler.send_header("Content-Type", "application/vnd.debian.binary-package")
        handler.end_headers()
        try:
            for i in range(count):
                data = block(i)
                for offset in range(0, MIB, chunk):
                    handler.wfile.write(data[offset:offset + chunk])
                    if delay:
                        time.sleep(delay)
        except (BrokenPipeError, ConnectionResetError):
            handler.close_connection = True
    return route


class UpdateTestCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tellwyn-update-it-")
        cert = os.path.join(cls.scratch.name, "cert.pem")
        key = os.path.join(cls.scratch.name, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-keyout", key, "-out", cert, "-days", "1", "-subj", "/CN=127.0.0.1",
                        "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
        cls.certificate = cert
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        cls.http = LoopbackHTTP()
        cls.https = LoopbackHTTP(context)
        major = int(agent_version().split(".")[0])
        cls.newer = f"{major + 1}.0.0"
        cls.current = agent_version()

    @classmethod
    def tearDownClass(cls):
        cls.http.close()
        cls.https.close()
        cls.scratch.cleanup()

    def setUp(self):
        self.http.routes.clear()
        self.https.routes.clear()
        self.home = tempfile.TemporaryDirectory(prefix="tellwyn-update-home-")
        self.addCleanup(self.home.cleanup)
        self.downloads = os.path.join(self.home.name, "Downloads")
        os.makedirs(self.downloads)
        self.set_downloads_folder(self.downloads)

    def set_downloads_folder(self, folder):
        config = os.path.join(self.home.name, ".config")
        os.makedirs(config, exist_ok=True)
        with open(os.path.join(config, "user-dirs.dirs"), "w") as f:
            f.write(f'XDG_DOWNLOAD_DIR="{folder}"\n')

    def environment(self, **extra):
        env = dict(os.environ, LC_ALL="C.UTF-8", HOME=self.home.name,
                   XDG_CONFIG_HOME=os.path.join(self.home.name, ".config"),
                   TELLWYN_UPDATE_CA_CERTIFICATES=self.certificate)
        for name in ("DISPLAY", "WAYLAND_DISPLAY", "TELLWYN_UPDATE_FEED_URL", "TELLWYN_DOWNLOAD_BASE_URL"):
            env.pop(name, None)
        env.update(extra)
        return env

    def check(self, feed_url=None, download=False, timeout=120, **env):
        args = [AGENT, "--headless", "--check-for-updates"]
        if feed_url is not None:
            args += ["--update-feed", feed_url]
        if download:
            args.append("--download")
        done = subprocess.run(args, capture_output=True, text=True, encoding="utf-8", timeout=timeout,
                              env=self.environment(**env))
        return done.returncode, done.stdout.splitlines(), done.stderr.splitlines()

    def serve_feed(self, body, status=200, path="/updates/tellwynagent.txt"):
        self.http.routes[path] = lambda h: h.reply(status, body)
        return self.http.url(path)

    def files(self, folder=None):
        return sorted(os.listdir(folder or self.downloads))


class UpdateCheckTest(UpdateTestCase):
    def assert_check_failed(self, outcome, text):
        code, out, err = outcome
        self.assertEqual(code, 1, err)
        self.assertIn("Couldn't Check for Updates", err)
        self.assertEqual(err[err.index("Couldn't Check for Updates") + 1], text)

    def test_each_failure_has_its_text(self):
        cases = [
            ("not found", 404, b"missing", "The update server returned an error (code 404)."),
            ("not UTF-8", 200, b"2.0.0: caf\xe9", "Could not read the update information."),
        ]
        for name, status, body, text in cases:
            with self.subTest(name):
                self.assert_check_failed(self.check(self.serve_feed(body, status)), text)

    def test_download_options_need_the_check(self):
        for args in (["--download"], ["--update-feed", self.http.url("/feed.txt")]):
            with self.subTest(args):
                done = subprocess.run([AGENT, "--headless", *args], capture_output=True, text=True,
                                      env=self.environment(), timeout=60)
                self.assertEqual(done.returncode, 2)
                self.assertIn("go with --check-for-updates", done.stderr)

    def test_up_to_date(self):
        code, out, err = self.check(self.serve_feed(f"{self.current}: Same again".encode()))
        self.assertEqual(code, 0, err)
        self.assertEqual(out, ["No Updates Available", "You are using the latest version of TellwynAgent."])

    def test_update_available_over_https_from_the_environment_setting(self):
        link = self.http.url("/pkg/TellwynAgent_9.deb")
        # Terminal escapes in the server's notes reach the terminal escaped, never as escapes.
        self.https.routes["/feed.txt"] = lambda h: h.reply(
            200, f"\n {self.newer}|Major|New \x1b[2Jdashboard|{link}\n".encode())
        code, out, err = self.check(TELLWYN_UPDATE_FEED_URL=self.https.url("/feed.txt"))
        self.assertEqual(code, 3, err)
        self.assertEqual(out, ["Update Available", f"Version {self.newer} is ready to download.",
                               "Release Notes", "New \\x1b[2Jdashboard", link])


class InstallerDownloadTest(UpdateTestCase):
    def test_large_installer_arrives_intact_under_a_free_name(self):
        # No link in the feed: the fallback installer of the download base is fetched.
        self.http.routes["/downloads/TellwynAgent.deb"] = serve_blocks(200)
        with open(os.path.join(self.downloads, "TellwynAgent.deb"), "wb") as f:
            f.write(b"an older installer")
        code, out, err = self.check(self.serve_feed(self.newer.encode()), download=True, timeout=240,
                                    TELLWYN_DOWNLOAD_BASE_URL=self.http.url("/downloads/"))
        self.assertEqual(code, 4, err)
        saved = os.path.join(self.downloads, "TellwynAgent (1).deb")
        self.assertEqual(out[-2:], ["Download complete", saved])
        expected, actual = hashlib.sha256(), hashlib.sha256()
        for i in range(200):
            expected.update(block(i))
        with open(saved, "rb") as f:
            for piece in iter(lambda: f.read(MIB), b""):
                actual.update(piece)
        self.assertEqual(os.path.getsize(saved), 200 * MIB)
        self.assertEqual(actual.hexdigest(), expected.hexdigest())
        self.assertTrue(any(line.startswith("Downloading… 100%") for line in err), err)

    def test_https_installer_is_never_continued_over_http(self):
        self.http.routes["/TellwynAgent.deb"] = serve_blocks(1)
        plain = self.http.url("/TellwynAgent.deb")
        self.https.routes["/get"] = lambda h: h.reply(302, headers=[("Location", plain)])
        feed = self.serve_feed(f"{self.newer}|Major||{self.https.url('/get')}".encode())
        code, out, err = self.check(feed, download=True)
        self.assertEqual(code, 5, err)
        self.assertEqual(err[-2:], ["Download failed",
                                    "The download was stopped because the server sent it from a secure (https) "
                                    "address to an insecure one. The installer is only downloaded securely."])
        self.assertEqual(self.files(), [])

    def test_cancelled_download_leaves_nothing(self):
        self.http.routes["/TellwynAgent.deb"] = serve_blocks(50, delay=0.02, chunk=64 * 1024)
        feed = self.serve_feed(f"{self.newer}|Major||{self.http.url('/TellwynAgent.deb')}".encode())
        args = [AGENT, "--headless", "--check-for-updates", "--download", "--update-feed", feed]
        process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   encoding="utf-8", env=self.environment())
        try:
            deadline = time.monotonic() + 60
            while not any(name.endswith(".part") for name in self.files()):
                self.assertLess(time.monotonic(), deadline, "the download never started")
                time.sleep(0.05)
            self.assertTrue(all(name.startswith(".") for name in self.files()), self.files())
            process.send_signal(signal.SIGINT)
            out, err = process.communicate(timeout=60)
        finally:
            if process.poll() is None:
                process.kill()
        self.assertEqual(process.returncode, 6, err)
        self.assertEqual(err.splitlines()[-1], "Download cancelled.")
        self.assertEqual(self.files(), [])


class DesktopCheckTest(UpdateTestCase):
    """With a display the same check shows its alert or the update sheet as windows."""

    def setUp(self):
        super().setUp()
        xvfb, self.display = start_xvfb("800x600")
        self.addCleanup(stop, xvfb)

    def shows_window(self, feed, title):
        env = self.environment(DISPLAY=self.display, XDG_RUNTIME_DIR=self.home.name)
        agent = subprocess.Popen([AGENT, "--check-for-updates", "--update-feed", feed], env=env,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            poll_until(lambda: title in window_titles(self.display) or agent.poll() is not None,
                       what=f"a window {title!r}")
            self.assertIsNone(agent.poll(), "the agent ended without showing a window")  # it waits for the user
        finally:
            agent.kill()
            agent.communicate()

    def test_alert_and_sheet_open(self):
        self.shows_window(self.serve_feed(self.current.encode()), "TellwynAgent")
        self.shows_window(self.serve_feed(f"{self.newer}: New dashboard".encode()), "Update Available")


if __name__ == "__main__":
    unittest.main()
