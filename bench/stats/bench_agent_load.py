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

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from bench_common import (TEST_PASSWORD, TEST_USER, Agent, HLVPClient, cpu_seconds,  # noqa: E402
                          resident_kib, test_account_exists, use_agent)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--viewers", type=int, default=32)
    parser.add_argument("--seconds", type=float, default=120.0)
    args = parser.parse_args()
    if not test_account_exists():
        sys.exit(f"the test account {TEST_USER} is missing: run scripts/setup.sh test")
    use_agent(args.agent)
    agent = Agent(user=TEST_USER)
    agent.wait_until_running()
    pid = agent.process.pid
    time.sleep(1.0)
    idle_rss = resident_kib(pid)

    clients = []
    for index in range(args.viewers):
        client = HLVPClient(agent.port, timeout=30)
        if not client.sign_in(f"Load Viewer {index + 1}", TEST_USER, TEST_PASSWORD)["success"]:
            sys.exit("sign-in refused")
        clients.append(client)
    signed_in_rss = resident_kib(pid)

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
        rss_samples.append(resident_kib(pid))
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
