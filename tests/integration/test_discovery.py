"""The agent's DNS-SD advertisement, seen by a stock browser (avahi-browse) and by `tellwyn discover`.

The test starts its own avahi-daemon on a private system bus, inside a network namespace of its own
whose only interface is loopback, so nothing is announced on the machine's real networks and the
machine's own daemon, if any, is left alone."""
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from agent_process import Agent, Program
from desktop_session import start_system_bus, stop

VIEWER = os.environ.get("TELLWYN_VIEWER", "tellwyn")
SERVICE_TYPE = "_hlvp._tcp"

AVAHI_CONFIG = """[server]
use-ipv4=yes
use-ipv6=no
allow-interfaces=lo
enable-dbus=yes
ratelimit-interval-usec=0
[wide-area]
enable-wide-area=no
[publish]
publish-workstation=no
publish-hinfo=no
publish-addresses=yes
[reflector]
[rlimits]
"""

# Inside new network and mount namespaces: loopback up and able to carry multicast, and a run
# folder of its own so the daemon's pid file does not meet the machine's daemon.
AVAHI_LAUNCH = ("mkdir -p /run/avahi-daemon && mount -t tmpfs tmpfs /run/avahi-daemon && "
                "ip link set lo up && ip link set lo multicast on && "
                "exec avahi-daemon --no-drop-root --no-chroot --no-rlimits -f \"$1\"")


def unescape(label):
    """avahi-browse's parsable output escapes DNS label bytes as \\DDD and other specials as \\c."""
    raw = re.sub(rb"\\(\d{3})", lambda m: bytes([int(m.group(1))]), label.encode())
    return re.sub(rb"\\(.)", rb"\1", raw).decode()


def parse_txt(text):
    values = {}
    for item in re.findall(r'"((?:[^"\\]|\\.)*)"', text):
        key, _, value = item.partition("=")
        values[key] = value
    return values


class PrivateAvahi:
    """dbus-daemon on a private socket and avahi-daemon on it, in their own network namespace."""

    def __init__(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tellwyn-avahi-")
        self.avahi_config = os.path.join(self.dir.name, "avahi-daemon.conf")
        with open(self.avahi_config, "w") as f:
            f.write(AVAHI_CONFIG)
        self.avahi = None
        self.bus, self.address = start_system_bus(self.dir.name)
        self.start_daemon()

    def start_daemon(self):
        self.avahi = Program(["unshare", "--net", "--mount", "sh", "-c", AVAHI_LAUNCH, "sh", self.avahi_config],
                             env=self.env())
        self.avahi.wait_for(lambda: any("Server startup complete" in line
                                        for line in self.avahi.stdout_lines + self.avahi.stderr_lines),
                            what="avahi-daemon to start")

    def stop_daemon(self):
        self.avahi.stop()
        self.avahi.close()

    def env(self, **extra):
        return dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address, LC_ALL="C.UTF-8", **extra)

    def browse(self):
        """What a stock browser resolves now: {instance name: (host, address, port, txt)}."""
        result = subprocess.run(["avahi-browse", "--resolve", "--parsable", "--terminate", SERVICE_TYPE],
                                env=self.env(), capture_output=True, text=True, timeout=60)
        found = {}
        for line in result.stdout.splitlines():
            fields = line.split(";")
            if fields[0] == "=" and len(fields) >= 10:
                found[unescape(fields[3])] = (fields[6], fields[7], int(fields[8]), parse_txt(";".join(fields[9:])))
        return found

    def wait_for(self, predicate, what, timeout=60.0):
        deadline = time.monotonic() + timeout
        while True:
            seen = self.browse()
            if predicate(seen):
                return seen
            if time.monotonic() > deadline:
                raise AssertionError(f"timed out waiting for {what}; the browser sees {seen}")
            time.sleep(0.2)

    def close(self):
        if self.avahi is not None:
            self.avahi.close()
        stop(self.bus)
        self.dir.cleanup()


@unittest.skipUnless(os.geteuid() == 0, "a private avahi-daemon needs its own network namespace (run as root)")
class AdvertisementTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.avahi = PrivateAvahi()
        cls.saved_bus = os.environ.get("DBUS_SYSTEM_BUS_ADDRESS")
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = cls.avahi.address  # for the agents started below

    @classmethod
    def tearDownClass(cls):
        if cls.saved_bus is None:
            os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        else:
            os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = cls.saved_bus
        cls.avahi.close()

    def setUp(self):
        # Without hostnamed on the private bus the agent's computer name is the host name.
        self.host = socket.gethostname()
        self.name = f"TellwynAgent - {self.host}"
        self.avahi.wait_for(lambda seen: not seen, "no agent from an earlier test")

    def start_agent(self):
        agent = Agent()
        self.addCleanup(agent.close)
        agent.wait_until_running()
        return agent

    def test_running_agent_is_advertised_and_withdrawn_when_it_stops(self):
        agent = self.start_agent()
        agent.wait_for_log("DNS-SD", "Started DNS-SD service publishing")
        seen = self.avahi.wait_for(lambda s: self.name in s, self.name)

        host, address, port, txt = seen[self.name]
        self.assertEqual(port, agent.port)
        self.assertEqual(address, "127.0.0.1")
        self.assertEqual(txt, {"name": self.host, "hostname": self.host, "type": "HLVP"})
        self.assertEqual(list(seen), [self.name])

        self.assertEqual(agent.stop(), 0)
        self.assertIn(("DNS-SD", "Stopped DNS-SD service publishing"), agent.log())
        self.avahi.wait_for(lambda s: self.name not in s, "the advertisement to go")

    def test_the_agent_is_advertised_again_after_the_daemon_restarts(self):
        agent = self.start_agent()
        self.avahi.wait_for(lambda s: self.name in s, self.name)
        self.avahi.stop_daemon()
        agent.wait_for_log("WARN", "DNS-SD responder went away: the agent is advertised again when it returns")
        self.avahi.start_daemon()
        agent.wait_for_log("INFO", f'DNS-SD responder is back: advertising "{self.name}" again', timeout=60)
        seen = self.avahi.wait_for(lambda s: self.name in s, self.name, timeout=60)
        self.assertEqual(seen[self.name][2], agent.port)

    def test_a_name_longer_than_a_dns_label_is_cut_to_fit(self):
        # A host name of 60 characters, in a namespace of the agent's own, makes an instance name
        # of 75 bytes; one DNS label holds 63.
        long_host = "a-rather-long-computer-name-for-a-lab-machine-number-0000042"
        agent = Agent(prefix=["unshare", "--uts", "sh", "-c", 'hostname "$0" && exec "$@"', long_host])
        self.addCleanup(agent.close)
        agent.wait_until_running()
        expected = f"TellwynAgent - {long_host}"[:63]
        seen = self.avahi.wait_for(lambda s: expected in s, expected)
        self.assertEqual(list(seen), [expected])
        self.assertEqual(seen[expected][2], agent.port)
        self.assertEqual(seen[expected][3]["name"], long_host)  # the full name stays in the TXT record

    def test_two_agents_with_one_name_both_appear_and_discover_finds_them(self):
        first = self.start_agent()
        self.avahi.wait_for(lambda s: self.name in s, self.name)
        second = self.start_agent()
        alternative = self.name + " #2"
        seen = self.avahi.wait_for(lambda s: alternative in s, alternative)
        self.assertEqual(seen[self.name][2], first.port)
        self.assertEqual(seen[alternative][2], second.port)
        self.assertEqual(seen[alternative][3], {"name": self.host, "hostname": self.host, "type": "HLVP"})

        listing = subprocess.run([VIEWER, "discover", "--time", "2"], env=self.avahi.env(), capture_output=True,
                                 text=True, timeout=60)
        self.assertEqual(listing.returncode, 0, listing.stderr)
        txt = f"hostname={self.host} name={self.host} type=HLVP"
        self.assertEqual(sorted(listing.stdout.splitlines()), sorted([
            f"{self.name}\t{seen[self.name][0]}\t127.0.0.1\t{first.port}\t{txt}",
            f"{alternative}\t{seen[alternative][0]}\t127.0.0.1\t{second.port}\t{txt}",
        ]))

        # The advertised name stands in for the address.
        with tempfile.TemporaryDirectory() as scratch:
            viewer = subprocess.Popen([VIEWER, "connect", alternative, "--known-agents",
                                       os.path.join(scratch, "known_agents")],
                                      env=self.avahi.env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      text=True)
            try:
                first_line = viewer.stdout.readline()
            finally:
                viewer.send_signal(signal.SIGTERM)
                out, err = viewer.communicate(timeout=60)
            self.assertTrue(first_line.startswith(f"Connected to {self.host} at 127.0.0.1:{second.port} "),
                            first_line + out + err)

    def test_watch_reports_agents_coming_and_going(self):
        with Program([VIEWER, "discover", "--watch"], env=self.avahi.env()) as watcher:
            agent = self.start_agent()
            appeared = watcher.next_line(what="an agent to appear")
            self.assertTrue(appeared.startswith(f"+\t{self.name}\t"), appeared)
            self.assertIn(f"\t127.0.0.1\t{agent.port}\t", appeared)
            agent.stop()
            self.assertEqual(watcher.next_line(what="the agent to go"), "-" + appeared[1:])
            self.assertEqual(watcher.stop(), 0)

    def test_network_change_republishes_under_the_same_name_and_port(self):
        # The agent runs beside the daemon, so that it sees that namespace's addresses change.
        in_namespace = ["nsenter", f"--net=/proc/{self.avahi.avahi.process.pid}/ns/net"]
        agent = Agent(prefix=in_namespace)
        self.addCleanup(agent.close)
        agent.wait_until_running()
        self.avahi.wait_for(lambda s: self.name in s, self.name)

        browser = Program(["avahi-browse", "--parsable", SERVICE_TYPE], env=self.avahi.env())
        self.addCleanup(browser.close)

        def event(sign):
            return lambda line: line.startswith(sign + ";") and unescape(line.split(";")[3]) == self.name

        browser.next_line(event("+"), "the advertisement already there")
        address = ["ip", "address", "add", "127.0.0.2/8", "dev", "lo"]
        subprocess.run(in_namespace + address, check=True)
        self.addCleanup(subprocess.run, in_namespace + ["ip", "address", "del", "127.0.0.2/8", "dev", "lo"])

        browser.next_line(event("-"), "the advertisement to be withdrawn")
        browser.next_line(event("+"), "the advertisement to come back")
        seen = self.avahi.wait_for(lambda s: self.name in s, self.name)
        self.assertEqual(seen[self.name][2], agent.port)
        self.assertEqual(seen[self.name][3], {"name": self.host, "hostname": self.host, "type": "HLVP"})
        self.assertIsNone(agent.process.poll())


class NoResponderTest(unittest.TestCase):
    def test_agent_runs_on_when_no_responder_is_reachable(self):
        with tempfile.TemporaryDirectory() as scratch:
            os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + os.path.join(scratch, "no_bus_here")
            try:
                with Agent() as agent:
                    agent.wait_until_running()
                    agent.wait_for_log("DNS-SD", "Started DNS-SD service publishing")
                    with socket.create_connection(("127.0.0.1", agent.port), timeout=5):
                        pass
                    self.assertIsNone(agent.process.poll())
                    self.assertEqual(agent.stop(), 0)
                    self.assertIn(("DNS-SD", "Stopped DNS-SD service publishing"), agent.log())
            finally:
                os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)


if __name__ == "__main__":
    unittest.main()
