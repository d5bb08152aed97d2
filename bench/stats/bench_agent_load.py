#!/usr/bin/env python3
"""The agent's CPU time and resident memory while 32 signed-in viewers receive statistics every
10 s for 120 s. The agent runs as the PAM test account (scripts/setup.sh test) on loopback.

    python3 bench/stats/bench_agent_load.py --agent build/app/tellwyn-agent [--viewers 32] [--seconds 120]
"""
import argparse
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "integration"))
from accounts import TEST_PASSWORD, TEST_USER, test_account_exists  # noqa: E402
from hlvp_client import HLVPClient  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--viewers", type=int, default=32)
    parser.add_argument("--seconds", type=float, default=120.0)
    args = parser.parse_args()
    if not test_account_exists():
        sys.exit(f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
    os.environ["TELLWYN_AGENT"] = args.agent
    from agent_process import Agent

    agent = Agent(user=TEST_USER)
    agent.wait_until_running()
    pid = agent.process.pid
    time.sleep(1.0)
    idle_rss = rss_kib(pid)

    clients = []
    for index in range(args.viewers):
        client = HLVPClient(agent.port, timeout=30)
        client.handshake(f"Load Viewer {index + 1}")
        client.send({"type": "authentication", "method": "password",
                     "credentials": {"username": TEST_USER, "password": TEST_PASSWORD}})
        if not client.receive_until("authenticationResponse", timeout=30)["success"]:
            sys.exit("sign-in refused")
        clients.append(client)
    signed_in_rss = rss_kib(pid)

    records = [0] * len(clients)
    stop = threading.Event()

    def read(index, client):
        last_heartbeat = time.monotonic()
        while not stop.is_set():
            try:
                message = client.receive(timeout=2.0)
            except Exception:  # a receive time-out: nothing arrived in 2 s
                message = None
            if message and message.get("type") == "systemStats":
                records[index] += 1
            if time.monotonic() - last_heartbeat > 20:
                client.send({"type": "heartbeat"})
                last_heartbeat = time.monotonic()

    readers = [threading.Thread(target=read, args=(i, c), daemon=True) for i, c in enumerate(clients)]
    start_cpu, start = cpu_seconds(pid), time.monotonic()
    for reader in readers:
        reader.start()
    rss_samples = []
    while time.monotonic() - start < args.seconds:
        time.sleep(1.0)
        rss_samples.append(rss_kib(pid))
    elapsed = time.monotonic() - start
    used = cpu_seconds(pid) - start_cpu
    stop.set()
    for reader in readers:
        reader.join(timeout=5)
    for client in clients:
        client.close()
    agent.close()

    print(f"viewers: {len(clients)}, window: {elapsed:.1f} s, records received: {sum(records)} "
          f"(per viewer {min(records)}..{max(records)})")
    print(f"agent CPU: {used:.2f} s in {elapsed:.1f} s = {100 * used / elapsed:.2f} % of one core")
    print(f"agent resident memory: idle {idle_rss} KiB, after sign-in {signed_in_rss} KiB, "
          f"during the window median {sorted(rss_samples)[len(rss_samples) // 2]} KiB, peak {max(rss_samples)} KiB")


if __name__ == "__main__":
    main()
