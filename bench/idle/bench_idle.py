#!/usr/bin/env python3
"""The idle agent's footprint beside two idle system daemons: the real agent, headless and signed
in by nobody (running as the PAM test account, listening on loopback), an sshd that this benchmark
starts on loopback, and an avahi-daemon on a private bus in a network namespace of its own with
only loopback, all started in one run and left alone for the same two minutes. For each: resident
size (VmRSS), proportional set size (Pss, from smaps_rollup), CPU time used during the window,
and the number of shared objects mapped.

Needs root (it runs the agent as the test account of scripts/setup.sh test and starts the two
daemons)."""
import argparse
import os
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))
sys.path.insert(0, os.path.join(HERE, "..", "sign_in"))
sys.path.insert(0, os.path.join(HERE, "..", "transfer"))
from bench_common import TEST_USER, Agent, cpu_seconds, resident_kib, use_agent  # noqa: E402
from bench_sign_in_path import Sshd  # noqa: E402
from bench_transfer import ensure_sshd  # noqa: E402
from test_discovery import PrivateAvahi  # noqa: E402


def pss_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        for line in rollup:
            if line.startswith("Pss:"):
                return int(line.split()[1])
    raise KeyError("Pss")


def shared_objects(pid):
    names = set()
    with open(f"/proc/{pid}/maps", encoding="ascii", errors="replace") as maps:
        for line in maps:
            path = line.split()[-1] if len(line.split()) >= 6 else ""
            if ".so" in os.path.basename(path):
                names.add(path)
    return len(names)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--seconds", type=int, default=120)
    parser.add_argument("--settle", type=int, default=15)
    args = parser.parse_args()
    use_agent(args.agent)
    ensure_sshd()
    with tempfile.TemporaryDirectory(prefix="tellwyn-bench-") as scratch, Agent(user=TEST_USER) as agent:
        agent.wait_until_running()
        sshd = Sshd(scratch)
        avahi = PrivateAvahi()
        try:
            processes = {"tellwyn-agent (headless)": agent.process.pid, "sshd (listening, idle)": sshd.process.pid,
                         "avahi-daemon (loopback)": avahi.avahi.pid}
            time.sleep(args.settle)
            start = {name: cpu_seconds(pid) for name, pid in processes.items()}
            rss = {name: [] for name in processes}
            for _ in range(args.seconds):
                time.sleep(1)
                for name, pid in processes.items():
                    rss[name].append(resident_kib(pid))
            print(f"idle for {args.seconds} s after {args.settle} s to settle, sampled every second")
            print(f"{'process':28} {'VmRSS median':>13} {'VmRSS max':>10} {'Pss':>9} {'CPU':>8} {'objects':>8}")
            for name, pid in processes.items():
                used = cpu_seconds(pid) - start[name]
                print(f"{name:28} {statistics.median(rss[name]):10.0f} KiB {max(rss[name]):6d} KiB "
                      f"{pss_kib(pid):5d} KiB {used:6.2f} s {shared_objects(pid):8d}")
        finally:
            avahi.close()
            sshd.close()


if __name__ == "__main__":
    main()
