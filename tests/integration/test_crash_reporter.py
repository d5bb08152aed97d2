"""The crash reporter: real crashes in child processes, reported to an HTTP server on loopback.

A small program linked with the crash library crashes on purpose in each handled way; the real
agent is crashed from outside with kill. Each report must arrive as the exact multipart form, be
copied to standard error, and the process must still end by its signal.
"""
import errno
import os
import platform
import re
import resource
import signal
import socket
import subprocess
import threading
import time
import unittest
from datetime import datetime, timezone
from unittest import mock

from agent_process import Agent, agent_version, os_pretty_name
from desktop_session import poll_until, start_xvfb, stop
from http_server import LoopbackHTTP

PROGRAM = os.environ.get("TELLWYN_CRASHING_PROGRAM", "crashing_program")
BOUNDARY = r"[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"
FORM = re.compile(rb"--(?P<boundary>" + BOUNDARY.encode() + rb")\r\n"
                  rb"Content-Disposition: form-data; name=\"crashlog\"\r\n"
                  rb"\r\n"
                  rb"(?P<report>.*)\r\n"
                  rb"--(?P=boundary)--\r\n\Z", re.S)
# Helper start, the upload's 0.5 s and the final 0.5 s, with room for a busy machine.
WAIT_LIMIT = 3.0 + 0.5 + 1.0 + 0.5 + 2.0


def os_version():
    return f"{os_pretty_name() or 'Linux'} (Linux {platform.release()})"


def header(version):
    return f"""Crash Report
============
App: TellwynAgent
Version: {version}
OS Version: {os_version()}
Timestamp: """


class ReportServer(LoopbackHTTP):
    """Receives crash reports over HTTP on loopback."""

    def __init__(self):
        super().__init__()
        self.report_url = self.url("/crash_reports/index.php")


class SilentServer:
    """Reads crash reports on loopback but never answers."""

    def __init__(self):
        self.requests_seen = 0
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._held = []
        threading.Thread(target=self._hold, daemon=True).start()
        self.report_url = f"http://127.0.0.1:{self._listener.getsockname()[1]}/crash_reports/index.php"

    def _hold(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self._held.append(connection)
            if connection.recv(65536):
                self.requests_seen += 1

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self._listener.close()
        for connection in self._held:
            connection.close()


def without_core_files():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def crash(how, url, *args, extra_env=None, timeout=60):
    env = dict(os.environ, TELLWYN_CRASH_REPORT_URL=url, LC_ALL="C.UTF-8")
    env.pop("DISPLAY", None)
    env.pop("WAYLAND_DISPLAY", None)
    env.update(extra_env or {})
    started = time.monotonic()
    before = datetime.now(timezone.utc).replace(microsecond=0)
    result = subprocess.run([PROGRAM, how, *args], env=env, capture_output=True, timeout=timeout,
                            preexec_fn=without_core_files)
    return result, time.monotonic() - started, before


class CrashReportTestCase(unittest.TestCase):
    version = None

    @classmethod
    def setUpClass(cls):
        cls.version = agent_version()

    def assertExactUpload(self, post, before):
        """Checks that one upload reached the endpoint as a form with this machine's report, and
        returns the report text. The form's exact bytes and headers are pinned by the unit tests."""
        method, path, headers, body = post
        self.assertEqual((method, path), ("POST", "/crash_reports/index.php"))
        form = FORM.match(body)
        self.assertIsNotNone(form, body[:300])
        report = form["report"].decode("utf-8")
        self.assertTrue(report.startswith(header(self.version)), report[:400])
        stamp = report[len(header(self.version)):].split("\n", 1)[0]
        self.assertRegex(stamp, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        when = datetime.strptime(stamp, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)
        self.assertTrue(before <= when <= datetime.now(timezone.utc), stamp)
        return report

    def body_of(self, report):
        return report.split("\n\n", 1)[1]


class CrashingProgramTest(CrashReportTestCase):
    def test_each_handled_signal_is_reported_and_still_ends_the_process(self):
        cases = [("segv", signal.SIGSEGV, "SIGSEGV (Segmentation Violation)", "crashBySegmentationFault()"),
                 ("bus", signal.SIGBUS, "SIGBUS (Bus Error)", "crashByBusError()"),
                 ("fpe", signal.SIGFPE, "SIGFPE (Floating Point Exception)", "crashByDivision()"),
                 ("ill", signal.SIGILL, "SIGILL (Illegal Instruction)", "crashByIllegalInstruction()"),
                 ("trap", signal.SIGTRAP, "SIGTRAP (Trace Trap)", "crashByTrap()"),
                 ("abort", signal.SIGABRT, "SIGABRT (Abort)", "crashByAbort()")]
        for how, number, text, function in cases:
            with self.subTest(how), ReportServer() as server:
                result, _, before = crash(how, server.report_url)
                self.assertEqual(result.returncode, -number, result.stderr.decode(errors="replace"))
                posts = server.wait_for_posts(1)
                self.assertEqual(len(posts), 1)
                report = self.assertExactUpload(posts[0], before)
                body = self.body_of(report)
                self.assertTrue(body.startswith(f"Signal Type: {text}\n\nCall Stack:\n0   "), body[:200])
                self.assertIn(f"(anonymous namespace)::{function} + ", body)
                self.assertFalse(body.endswith("\n"))
                self.assertIn(report.encode(), result.stderr)

    def test_uncaught_exceptions_are_reported_then_end_by_abort(self):
        cases = [("runtime-error", "std::runtime_error", "the widget count went negative", "throwRuntimeError()",
                  None),
                 ("system-error", "std::system_error", "connecting to the feed: Connection refused",
                  "throwSystemError()", f"code: {errno.ECONNREFUSED}\ncategory: generic\n"),
                 ("int", "int", "Unknown", "throwInteger()", None)]
        for how, name, reason, function, user_info in cases:
            with self.subTest(how), ReportServer() as server:
                result, _, before = crash(how, server.report_url)
                stderr = result.stderr.decode(errors="replace")
                self.assertEqual(result.returncode, -signal.SIGABRT, stderr)
                posts = server.wait_for_posts(1)
                self.assertEqual(len(posts), 1, "the abort that follows is not reported again")
                body = self.body_of(self.assertExactUpload(posts[0], before))
                self.assertTrue(body.startswith(f"Exception Type: {name}\nException Reason: {reason}\n\n"
                                                "Call Stack:\n0   "), body[:300])
                self.assertIn(f"(anonymous namespace)::{function} + ", body)
                if user_info is None:
                    self.assertNotIn("User Info", body)
                    self.assertRegex(body, r"\n\d+ +\S+ +0x[0-9a-f]{16} [^\n]+ \+ \d+\Z")
                else:
                    self.assertTrue(body.endswith("\n\nUser Info:\n" + user_info), body[-200:])
                # The handler found at install runs afterwards: here the runtime's own.
                self.assertIn(f"terminate called after throwing an instance of '{name}'", stderr)

    def test_a_stack_overflow_on_the_main_or_a_worker_thread_is_reported(self):
        for how in ("overflow", "worker-overflow"):
            with self.subTest(how), ReportServer() as server:
                result, _, before = crash(how, server.report_url)
                self.assertEqual(result.returncode, -signal.SIGSEGV)
                body = self.body_of(self.assertExactUpload(server.wait_for_posts(1)[0], before))
                self.assertTrue(body.startswith("Signal Type: SIGSEGV (Segmentation Violation)\n\nCall Stack:\n"))
                self.assertGreater(body.count("(anonymous namespace)::overflowStack(int) + "), 10)

    def test_ends_within_the_waits_when_the_server_never_answers(self):
        with SilentServer() as server:
            result, elapsed, _ = crash("segv", server.report_url)
            self.assertEqual(result.returncode, -signal.SIGSEGV)
            self.assertEqual(server.requests_seen, 1)
            # The 0.5 s for the upload and the 0.5 s pause both pass; nothing waits for the 5 s time-out.
            self.assertGreaterEqual(elapsed, 1.0)
            self.assertLess(elapsed, WAIT_LIMIT)
            self.assertIn(b"Signal Type: SIGSEGV (Segmentation Violation)", result.stderr)

    def test_crashes_among_busy_allocating_threads_never_hang(self):
        runs = 24
        with ReportServer() as server:
            for run in range(runs):
                how = "stress-kill" if run % 2 else "stress"
                with self.subTest(run=run, how=how):
                    try:
                        result, elapsed, _ = crash(how, server.report_url, timeout=20)
                    except subprocess.TimeoutExpired:
                        self.fail(f"run {run} ({how}) hung")
                    self.assertEqual(result.returncode, -signal.SIGSEGV)
                    self.assertLess(elapsed, WAIT_LIMIT)
                    self.assertEqual(len(server.wait_for_posts(run + 1)), run + 1)
                    self.assertIn(b"Signal Type: SIGSEGV (Segmentation Violation)", result.stderr)

    def test_pressing_ok_in_the_alert_ends_the_wait(self):
        xvfb, display = start_xvfb()
        try:
            with ReportServer() as server:
                env = dict(os.environ, TELLWYN_CRASH_REPORT_URL=server.report_url, DISPLAY=display, LC_ALL="C.UTF-8")
                env.pop("WAYLAND_DISPLAY", None)
                env.pop("QT_QPA_PLATFORM", None)
                child = subprocess.Popen([PROGRAM, "segv", "--gui"], env=env, stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL, preexec_fn=without_core_files)
                window = poll_until(lambda: subprocess.run(["xdotool", "search", "--name", "^TellwynAgent$"], env=env,
                                                           capture_output=True, text=True).stdout.strip(),
                                    what="the alert window", interval=0.1)
                self.assertIsNone(child.poll(), "the crashed process waits while the alert is up")
                pressed = time.monotonic()
                subprocess.run(["xdotool", "windowfocus", "--sync", window.split()[0], "key", "Return"], env=env,
                               check=True)
                self.assertEqual(child.wait(15), -signal.SIGSEGV)
                # Only the 0.5 s pause is left once the user has pressed OK, not the rest of the 10 s.
                self.assertLess(time.monotonic() - pressed, 0.5 + 2.0)
                self.assertEqual(len(server.wait_for_posts(1)), 1)
        finally:
            stop(xvfb)


class AgentCrashTest(CrashReportTestCase):
    def crash_agent(self, number, url, extra_args=(), preferences=None):
        with mock.patch.dict(os.environ, {"TELLWYN_CRASH_REPORT_URL": url}), \
                Agent(extra_args=extra_args, preferences=preferences) as agent:
            agent.wait_until_running()
            before = datetime.now(timezone.utc).replace(microsecond=0)
            return agent.stop(number), before, "\n".join(agent.stderr_lines)

    def test_a_crashed_agent_uploads_its_report_and_dies_by_the_signal(self):
        with ReportServer() as server:
            code, before, stderr = self.crash_agent(signal.SIGSEGV, server.report_url)
            self.assertEqual(code, -signal.SIGSEGV)
            posts = server.wait_for_posts(1)
            self.assertEqual(len(posts), 1)
            report = self.assertExactUpload(posts[0], before)
            self.assertTrue(self.body_of(report).startswith("Signal Type: SIGSEGV (Segmentation Violation)\n\n"
                                                            "Call Stack:\n0   "))
            self.assertIn(report, stderr)

    def test_the_option_and_the_preference_leave_the_reporter_off(self):
        for name, args, preferences in [("option", ["--no-crash-reporter"], None),
                                        ("preference", [], {"enableCrashReporter": "false"})]:
            with self.subTest(name), ReportServer() as server:
                code, _, stderr = self.crash_agent(signal.SIGSEGV, server.report_url, args, preferences)
                self.assertEqual(code, -signal.SIGSEGV)
                self.assertNotIn("Crash Report", stderr)
                self.assertEqual(server.wait_for_posts(1, timeout=1.0), [])


if __name__ == "__main__":
    unittest.main()
