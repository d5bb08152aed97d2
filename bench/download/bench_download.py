#!/usr/bin/env python3
"""Installer download: the agent's download session against curl, on loopback.

Serves one installer (1 GiB by default) from a local HTTP server, downloads it once with
`tellwyn-agent --check-for-updates --download` and once with `curl`, alternating, and prints the
times, the speed ratio and the agent's memory: its resident size while the check waits for the
installer's first byte (idle) and the largest resident size seen while the body streams in.

Usage: bench_download.py [--agent PATH] [--size-mib N] [--rounds N]
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from bench_common import LoopbackHTTP, resident_kib  # noqa: E402

HOLD_SECONDS = 1.0  # the installer's response waits this long, so the idle size can be read


def make_server(installer, size, feed_version):
    server = LoopbackHTTP()
    feed = f"{feed_version}|Major||{server.url('/TellwynAgent.deb')}".encode()
    server.routes["/feed.txt"] = lambda handler: handler.reply(200, feed)

    def send_installer(handler):
        if not handler.headers.get("User-Agent", "").startswith("curl"):
            time.sleep(HOLD_SECONDS)
        handler.send_response(200)
        handler.send_header("Content-Length", str(size))
        handler.end_headers()
        handler.wfile.flush()
        with open(installer, "rb") as f:
            handler.connection.sendfile(f)

    server.routes["/TellwynAgent.deb"] = send_installer
    return server


def run_agent(agent, feed_url, home):
    downloads = os.path.join(home, "Downloads")
    shutil.rmtree(downloads, ignore_errors=True)
    os.makedirs(os.path.join(home, ".config"), exist_ok=True)
    os.makedirs(downloads)
    with open(os.path.join(home, ".config", "user-dirs.dirs"), "w") as f:
        f.write(f'XDG_DOWNLOAD_DIR="{downloads}"\n')
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, ".config"), LC_ALL="C.UTF-8")
    env.pop("DISPLAY", None)
    start = time.monotonic()
    process = subprocess.Popen([agent, "--headless", "--check-for-updates", "--download", "--update-feed", feed_url],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    idle, peak, first_byte = None, 0, None
    while process.poll() is None:
        rss = resident_kib(process.pid)
        elapsed = time.monotonic() - start
        partial = [n for n in os.listdir(downloads) if n.endswith(".part")]
        if rss is not None:
            if first_byte is None and not partial and 0.3 < elapsed < HOLD_SECONDS:
                idle = rss
            if partial and first_byte is None:
                first_byte = time.monotonic()
            peak = max(peak, rss)
        time.sleep(0.01)
    end = time.monotonic()
    out = process.stdout.read().decode().splitlines()
    if process.returncode != 4:
        raise SystemExit(f"agent ended with {process.returncode}: {out}")
    saved = out[-1]
    return end - (first_byte or start + HOLD_SECONDS), idle, peak, saved


def run_curl(url, target):
    start = time.monotonic()
    subprocess.run(["curl", "-s", "-o", target, url], check=True)
    return time.monotonic() - start


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", default=os.environ.get("TELLWYN_AGENT", "build/app/tellwyn-agent"))
    parser.add_argument("--size-mib", type=int, default=1024)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()

    scratch = tempfile.mkdtemp(prefix="tellwyn-bench-")
    try:
        installer = os.path.join(scratch, "installer.bin")
        with open(installer, "wb") as f:
            block = os.urandom(1 << 20)
            for _ in range(args.size_mib):
                f.write(block)
        size = os.path.getsize(installer)
        server = make_server(installer, size, "999.0.0")
        home = os.path.join(scratch, "home")
        agent_times, curl_times, idles, peaks = [], [], [], []
        for round_number in range(args.rounds):
            seconds, idle, peak, saved = run_agent(args.agent, server.url("/feed.txt"), home)
            if os.path.getsize(saved) != size:
                raise SystemExit("the agent's file has the wrong size")
            os.remove(saved)
            agent_times.append(seconds)
            idles.append(idle)
            peaks.append(peak)
            curl_target = os.path.join(scratch, "curl.bin")
            curl_times.append(run_curl(server.url("/TellwynAgent.deb"), curl_target))
            os.remove(curl_target)
            print(f"round {round_number + 1}: agent {seconds:.2f} s, curl {curl_times[-1]:.2f} s, "
                  f"agent idle {idle} KiB, peak {peak} KiB")
        best_agent, best_curl = min(agent_times), min(curl_times)
        mib = size / (1 << 20)
        print(f"size: {mib:.0f} MiB")
        print(f"agent best: {best_agent:.2f} s ({mib / best_agent:.0f} MiB/s); "
              f"curl best: {best_curl:.2f} s ({mib / best_curl:.0f} MiB/s)")
        print(f"agent speed / curl speed: {best_curl / best_agent:.2f}")
        growth = max(p - i for p, i in zip(peaks, idles) if i is not None)
        print(f"agent resident size: idle {max(i for i in idles if i)} KiB, peak {max(peaks)} KiB, "
              f"largest growth during a download {growth} KiB ({growth / 1024:.1f} MiB)")
        server.close()
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()
