"""What the benchmarks share with each other and with the integration tests: the real agent, the
HLVP test client, the PAM test account, and the agent's resident size and CPU time from /proc."""
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "integration"))
import agent_process  # noqa: E402
from accounts import TEST_PASSWORD, TEST_USER, test_account_exists  # noqa: E402,F401
from agent_process import Agent, free_port, resident_kib  # noqa: E402,F401
from hlvp_client import HLVPClient  # noqa: E402,F401
from http_server import LoopbackHTTP  # noqa: E402,F401

TICKS = os.sysconf("SC_CLK_TCK")


def use_agent(path):
    """Makes `Agent` run the binary at `path`."""
    agent_process.AGENT = os.path.abspath(path)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


class PeakMemory:
    """The largest resident size of `pid`, sampled every `interval` seconds until stop()."""

    def __init__(self, pid, interval=0.02):
        self.pid, self.interval, self._stop = pid, interval, False
        self.idle = self.peak = resident_kib(pid) or 0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop:
            self.peak = max(self.peak, resident_kib(self.pid) or 0)
            time.sleep(self.interval)

    def stop(self):
        self._stop = True
        self._thread.join()
        return self.peak
