#!/usr/bin/env python3
"""The sign-in path, beside an ssh password login: from the TCP connect to the first statistics
record of the real agent (running as the PAM test account), split into its phases, alternating in
one run with `ssh tellwyn-test@127.0.0.1 true` against an sshd that this benchmark starts on
loopback with password authentication through PAM.

Needs root (it starts sshd and runs the agent as the test account of scripts/setup.sh test) and
installs openssh-server when it is missing. The test account's shell is nologin; for the run it
is set to /bin/sh, so that ssh really runs `true`, and put back afterwards."""
import argparse
import os
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "integration"))
sys.path.insert(0, os.path.join(HERE, "..", "transfer"))
from accounts import TEST_PASSWORD, TEST_USER  # noqa: E402
import agent_process  # noqa: E402
from agent_process import Agent, free_port  # noqa: E402
from bench_transfer import ensure_sshd, wait_for_port  # noqa: E402
from hlvp_client import HLVPClient, tls_context  # noqa: E402

PHASES = ("TCP connect", "TLS handshake", "handshake", "sign-in (PAM)", "first record")


class TimedClient(HLVPClient):
    """HLVPClient whose connect is split into its TCP and TLS parts."""

    def __init__(self, port):  # pylint: disable=super-init-not-called
        started = time.perf_counter()
        raw = socket.create_connection(("127.0.0.1", port), timeout=60)
        connected = time.perf_counter()
        self.sock = tls_context().wrap_socket(raw, server_hostname="127.0.0.1")
        self.phases = [connected - started, time.perf_counter() - connected]
        self._buffer = b""


def tellwyn_sign_in(port):
    """Seconds per phase, from the connect to the first systemStats record."""
    client = TimedClient(port)
    try:
        mark = time.perf_counter()
        assert client.handshake("Timing")["type"] == "handshakeResponse"
        now = time.perf_counter()
        client.phases.append(now - mark)
        mark = now
        client.send({"type": "authentication", "method": "password",
                     "credentials": {"username": TEST_USER, "password": TEST_PASSWORD}})
        answer = client.receive_until("authenticationResponse", timeout=60)
        assert answer and answer["success"], answer
        now = time.perf_counter()
        client.phases.append(now - mark)
        mark = now
        assert client.receive_until("systemStats", timeout=60) is not None
        client.phases.append(time.perf_counter() - mark)
        return client.phases
    finally:
        client.close()


class Sshd:
    """An sshd on loopback that takes passwords through PAM."""

    def __init__(self, scratch):
        self.port = free_port()
        host_key = os.path.join(scratch, "ssh_host_key")
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", host_key], check=True)
        config = os.path.join(scratch, "sshd_config")
        with open(config, "w", encoding="ascii") as out:
            out.write(f"Port {self.port}\nListenAddress 127.0.0.1\nHostKey {host_key}\nPidFile {scratch}/sshd.pid\n"
                      "UsePAM yes\nPasswordAuthentication yes\nKbdInteractiveAuthentication no\n"
                      "PubkeyAuthentication no\nPrintMotd no\nPrintLastLog no\nUseDNS no\n")
        askpass = os.path.join(scratch, "askpass")
        with open(askpass, "w", encoding="ascii") as out:
            out.write(f"#!/bin/sh\necho '{TEST_PASSWORD}'\n")
        os.chmod(askpass, 0o700)
        self.env = dict(os.environ, SSH_ASKPASS=askpass, SSH_ASKPASS_REQUIRE="force", DISPLAY=":bench")
        self.process = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", config], stderr=subprocess.DEVNULL)
        wait_for_port(self.port)

    def login(self):
        started = time.perf_counter()
        subprocess.run(["ssh", "-p", str(self.port), "-o", "StrictHostKeyChecking=no", "-o",
                        "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR", "-o", "PubkeyAuthentication=no",
                        "-o", "PreferredAuthentications=password", "-o", "ControlMaster=no",
                        "-F", "/dev/null", "-n", f"{TEST_USER}@127.0.0.1", "true"],
                       check=True, env=self.env, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return time.perf_counter() - started

    def close(self):
        self.process.terminate()
        self.process.wait()


def shell_of(user):
    import pwd  # pylint: disable=import-outside-toplevel
    return pwd.getpwnam(user).pw_shell


def summary(values):
    values = sorted(values)
    return (f"median {statistics.median(values) * 1000:7.2f} ms, p10 {values[len(values) // 10] * 1000:7.2f}, "
            f"p90 {values[len(values) * 9 // 10] * 1000:7.2f}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--samples", type=int, default=30)
    args = parser.parse_args()
    agent_process.AGENT = os.path.abspath(args.agent)
    ensure_sshd()
    shell = shell_of(TEST_USER)
    subprocess.run(["usermod", "-s", "/bin/sh", TEST_USER], check=True)
    try:
        with tempfile.TemporaryDirectory(prefix="tellwyn-bench-") as scratch, Agent(user=TEST_USER) as agent:
            agent.wait_until_running()
            sshd = Sshd(scratch)
            try:
                tellwyn_sign_in(agent.port)  # warm-up, not counted
                sshd.login()
                phases, totals, ssh, ratios = [], [], [], []
                for _ in range(args.samples):
                    phases.append(tellwyn_sign_in(agent.port))
                    totals.append(sum(phases[-1]))
                    ssh.append(sshd.login())
                    ratios.append(totals[-1] / ssh[-1])
            finally:
                sshd.close()
    finally:
        subprocess.run(["usermod", "-s", shell, TEST_USER], check=True)

    print(f"samples: {args.samples}, alternating")
    print(f"{'tellwyn, connect to first record':34} {summary(totals)}")
    for index, name in enumerate(PHASES):
        print(f"  {name:32} {summary([p[index] for p in phases])}")
    print(f"{'ssh password login running true':34} {summary(ssh)}")
    print(f"ratio tellwyn / ssh, pair by pair: median {statistics.median(ratios):.2f}, "
          f"min {min(ratios):.2f}, max {max(ratios):.2f}")


if __name__ == "__main__":
    main()
