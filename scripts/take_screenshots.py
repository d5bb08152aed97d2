#!/usr/bin/python3
"""Takes the screenshots of the main window kept in docs/screenshots: the setup assistant's three
steps, the dashboard with a connected viewer, the log page and the settings. Runs the built agent
with its window on a private Xvfb and drives it through the accessibility bus.

Usage: scripts/take_screenshots.py [BUILD_DIR]   (default build/dev; needs Xvfb, dbus-daemon,
python3-pyatspi, xdotool and ImageMagick's import: scripts/setup.sh test)"""
import os
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ATSPI_TOOL = os.path.join(ROOT, "tests", "integration", "atspi_tool.py")
OUT = os.path.join(ROOT, "docs", "screenshots")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def main(argv):
    build = os.path.abspath(argv[0] if argv else os.path.join(ROOT, "build", "dev"))
    agent_binary = os.path.join(build, "app", "tellwyn-agent")
    viewer_binary = os.path.join(build, "viewer", "tellwyn")
    os.makedirs(OUT, exist_ok=True)
    scratch = tempfile.TemporaryDirectory(prefix="tellwyn-shots-")
    processes = []

    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                            pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    processes.append(xvfb)
    os.close(write_end)
    with os.fdopen(read_end) as chosen:
        display = ":" + chosen.readline().strip()
    env = dict(os.environ, DISPLAY=display, HOME=scratch.name, LC_ALL="C.UTF-8", QT_QPA_PLATFORM="xcb")
    env.pop("WAYLAND_DISPLAY", None)
    bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address=1"], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, env=env)
    processes.append(bus)
    env["DBUS_SESSION_BUS_ADDRESS"] = bus.stdout.readline().strip()

    def atspi(*args):
        result = subprocess.run(["/usr/bin/python3", ATSPI_TOOL, *args], env=env, capture_output=True, text=True)
        if result.returncode != 0:
            raise SystemExit(f"take_screenshots: {' '.join(args)}: {result.stderr.strip()}")

    def shoot(title, name):
        time.sleep(0.8)  # animations and repaints settle
        window = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", f"^{title}$"], env=env,
                                capture_output=True, text=True).stdout.split()
        if not window:
            raise SystemExit(f"take_screenshots: no window titled {title!r}")
        subprocess.run(["import", "-window", window[-1], os.path.join(OUT, name)], env=env, check=True)
        print("wrote", os.path.join("docs", "screenshots", name))

    try:
        atspi("ready")
        port = free_port()
        agent = subprocess.Popen([agent_binary, "--listen", "127.0.0.1", "--port", str(port), "--start",
                                  "--no-crash-reporter", "--config-dir", os.path.join(scratch.name, "config"),
                                  "--data-dir", os.path.join(scratch.name, "data")],
                                 env=dict(env, QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1"),
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        processes.append(agent)

        # A fresh profile opens on the assistant.
        atspi("wait", "Step 1: Welcome to TellwynAgent", "--role", "label")
        shoot("Configuration Assistant", "setup-step1-welcome.png")
        atspi("press", "Next")
        atspi("wait", "Step 2: Configure Agent Port", "--role", "label")
        shoot("Configuration Assistant", "setup-step2-port.png")
        atspi("press", "Next")
        atspi("wait", "Step 3: Grant Permissions", "--role", "label")
        shoot("Configuration Assistant", "setup-step3-permissions.png")
        atspi("press", "Skip")

        viewer = subprocess.Popen([viewer_binary, "connect", f"127.0.0.1:{port}", "--name", "Office Laptop",
                                   "--known-agents", os.path.join(scratch.name, "known_agents")], env=env,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        processes.append(viewer)
        atspi("wait", "Disconnect client")
        shoot("TellwynAgent", "dashboard.png")
        atspi("press", "Logs", "--role", "check box")
        atspi("wait", "Logging Active", "--role", "label")
        shoot("TellwynAgent", "log.png")
        atspi("press", "Status", "--role", "check box")
        atspi("press", "Settings")
        atspi("wait", "Password Protection", "--role", "label")
        shoot("Settings", "settings.png")
    finally:
        for process in reversed(processes):
            process.terminate()
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
        bus.stdout.close()
        scratch.cleanup()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
