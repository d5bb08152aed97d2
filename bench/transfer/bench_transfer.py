#!/usr/bin/env python3
"""Upload throughput: `tellwyn send` to the agent, beside scp to a local sshd and a raw TLS 1.3
stream (openssl s_server / s_client) of the same bytes, all over loopback in one run. Also the
agent's peak resident memory during the upload.

Needs root (it starts sshd and runs the agent as the test account of scripts/setup.sh test) and
installs openssh-server when it is missing."""
import argparse
import hashlib
import os
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from bench_common import TEST_PASSWORD, TEST_USER, Agent, PeakMemory, free_port, use_agent  # noqa: E402


def wait_for_port(port, timeout=10):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError(f"nothing listens on {port}")


def ensure_sshd():
    if not shutil.which("sshd") and not os.path.exists("/usr/sbin/sshd"):
        subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", "openssh-server"],
                       check=True, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    os.makedirs("/run/sshd", exist_ok=True)


def time_tellwyn(viewer, source, scratch):
    agent = Agent(user=TEST_USER)
    try:
        agent.wait_until_running()
        memory = PeakMemory(agent.process.pid)
        known = os.path.join(scratch, "known_agents")
        started = time.monotonic()
        result = subprocess.run([viewer, "send", f"127.0.0.1:{agent.port}", source, "-u", TEST_USER,
                                 "--password-stdin", "--known-agents", known], input=TEST_PASSWORD + "\n",
                                capture_output=True, text=True)
        elapsed = time.monotonic() - started
        peak = memory.stop()
        if result.returncode != 0:
            raise RuntimeError(result.stderr)
        saved = os.path.join(agent.config_dir, "..", "Downloads", "Tellwyn", os.path.basename(source))
        with open(saved, "rb") as data:
            digest = hashlib.file_digest(data, "sha256").hexdigest()
        return elapsed, memory.idle, peak, digest
    finally:
        agent.close()


def time_scp(source, scratch):
    port = free_port()
    keys = os.path.join(scratch, "ssh")
    os.makedirs(keys, exist_ok=True)
    host_key, user_key = os.path.join(keys, "host"), os.path.join(keys, "user")
    for key in (host_key, user_key):
        if not os.path.exists(key):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key], check=True)
    shutil.copy(user_key + ".pub", os.path.join(keys, "authorized_keys"))
    config = os.path.join(keys, "sshd_config")
    with open(config, "w", encoding="ascii") as out:
        out.write(f"Port {port}\nListenAddress 127.0.0.1\nHostKey {host_key}\n"
                  f"AuthorizedKeysFile {keys}/authorized_keys\nPidFile {keys}/sshd.pid\nStrictModes no\n"
                  "UsePAM no\nPasswordAuthentication no\nPermitRootLogin prohibit-password\n"
                  "Subsystem sftp internal-sftp\n")
    sshd = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", config], stderr=subprocess.DEVNULL)
    try:
        wait_for_port(port)
        target = os.path.join(scratch, "scp-copy")
        started = time.monotonic()
        subprocess.run(["scp", "-q", "-P", str(port), "-i", user_key, "-o", "StrictHostKeyChecking=no",
                        "-o", "UserKnownHostsFile=/dev/null", source, f"root@127.0.0.1:{target}"], check=True)
        elapsed = time.monotonic() - started
        os.remove(target)
        return elapsed
    finally:
        sshd.terminate()
        sshd.wait()


def time_raw_tls(source, scratch):
    port = free_port()
    key, cert = os.path.join(scratch, "tls.key"), os.path.join(scratch, "tls.crt")
    if not os.path.exists(cert):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-keyout", key, "-out", cert, "-days", "1", "-subj", "/CN=bench"], check=True,
                       capture_output=True)
    server = subprocess.Popen(["openssl", "s_server", "-quiet", "-tls1_3", "-naccept", "1", "-accept", str(port),
                               "-cert", cert, "-key", key], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)  # an open stdin: at its end s_server would hang up
    # The server takes one connection only: no probe, just retries until it listens.
    for _ in range(100):
        try:
            raw = socket.create_connection(("127.0.0.1", port))
            break
        except ConnectionRefusedError:
            time.sleep(0.05)
    # The client is Python's ssl module, which is OpenSSL underneath; s_client reads letters of the
    # data as commands.
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.minimum_version = ssl.TLSVersion.TLSv1_3
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    with open(source, "rb") as data:
        started = time.monotonic()
        with context.wrap_socket(raw) as stream:
            while chunk := data.read(1024 * 1024):
                stream.sendall(chunk)
            stream.unwrap()
        server.wait(300)
        return time.monotonic() - started


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--viewer", required=True)
    parser.add_argument("--size-mib", type=int, default=1024)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    use_agent(args.agent)
    ensure_sshd()

    with tempfile.TemporaryDirectory(prefix="tellwyn-bench-") as scratch:
        os.chmod(scratch, 0o755)
        source = os.path.join(scratch, "payload.bin")
        with open(source, "wb") as out:
            for _ in range(args.size_mib):
                out.write(os.urandom(1024 * 1024))
        os.chmod(source, 0o644)
        with open(source, "rb") as data:
            expected = hashlib.file_digest(data, "sha256").hexdigest()

        best = {"tellwyn send": None, "scp": None, "raw TLS 1.3": None}
        peaks = []
        for round_number in range(1, args.rounds + 1):
            elapsed, idle, peak, digest = time_tellwyn(args.viewer, source, scratch)
            assert digest == expected, "the uploaded file differs from the source"
            peaks.append((idle, peak))
            scp = time_scp(source, scratch)
            raw = time_raw_tls(source, scratch)
            print(f"round {round_number}: tellwyn send {elapsed:.2f} s, scp {scp:.2f} s, raw TLS {raw:.2f} s, "
                  f"agent idle {idle} KiB, peak {peak} KiB", flush=True)
            for name, value in (("tellwyn send", elapsed), ("scp", scp), ("raw TLS 1.3", raw)):
                best[name] = value if best[name] is None else min(best[name], value)

        print(f"size: {args.size_mib} MiB, best of {args.rounds}")
        for name, value in best.items():
            print(f"{name}: {value:.2f} s = {args.size_mib / value:.0f} MiB/s")
        print(f"tellwyn send / scp: {best['scp'] / best['tellwyn send']:.2f}; "
              f"tellwyn send / raw TLS: {best['raw TLS 1.3'] / best['tellwyn send']:.2f}")
        growth = max(peak - idle for idle, peak in peaks)
        print(f"agent resident size: peak {max(p for _, p in peaks)} KiB, largest growth during an upload "
              f"{growth} KiB")


if __name__ == "__main__":
    main()
