#!/usr/bin/env python3
"""Takes the screenshots in docs/screenshots/ of what a user sees: the tray menu, the unlock
sheet, the quit dialog and the About window. Runs the built agent on an Xvfb display of its own
with gtk-sni-tray as the panel, on a private session bus.

Usage: scripts/take-screenshots.py [path/to/tellwyn-agent]   (default: build/dev/app/tellwyn-agent)"""
import os
import subprocess
import sys
import tempfile
import time

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(root, "tests", "integration"))
from agent_process import free_port  # noqa: E402
from desktop_session import DesktopSession  # noqa: E402
from PIL import ImageGrab  # noqa: E402

AGENT = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "build", "dev", "app", "tellwyn-agent")
OUT = os.path.join(root, "docs", "screenshots")


def visible_windows(session):
    """(x, y, width, height) of each viewable window but the panel."""
    found = []
    ids = subprocess.run(["xdotool", "search", "--onlyvisible", "--class", "."], env=session.env,
                         capture_output=True, text=True).stdout.split()
    for window in ids:
        info = subprocess.run(["xdotool", "getwindowgeometry", "--shell", window], env=session.env,
                              capture_output=True, text=True).stdout
        values = dict(line.split("=", 1) for line in info.split() if "=" in line)
        found.append(tuple(int(values[k]) for k in ("X", "Y", "WIDTH", "HEIGHT")))
    return found


def shoot(session, name, region=None, margin=16):
    time.sleep(1.5)  # let the windows paint
    image = ImageGrab.grab(xdisplay=session.display)
    if region:
        x, y, w, h = region
        image = image.crop((max(0, x - margin), max(0, y - margin), min(image.width, x + w + margin),
                            min(image.height, y + h + margin)))
    path = os.path.join(OUT, name)
    image.save(path)
    print("wrote", os.path.relpath(path, root))


def window_box(session, wanted):
    """The first visible window whose (x, y, width, height) `wanted` accepts, or None."""
    return next((box for box in visible_windows(session) if wanted(box)), None)


def main():
    os.makedirs(OUT, exist_ok=True)
    session = DesktopSession(size="1024x768")
    scratch = tempfile.TemporaryDirectory(prefix="tellwyn-shots-")
    config = os.path.join(scratch.name, "config")
    os.makedirs(config)
    with open(os.path.join(config, "tellwyn-agent.conf"), "w", encoding="utf-8") as conf:
        # A first launch with the menu lock on: the window opens with its unlock sheet.
        conf.write("[General]\nPasswordProtectionEnabled=true\nServerPassword=sesame\nhasCompletedSetup=true\n")
    agent = None
    try:
        session.start_tray()
        agent = subprocess.Popen([AGENT, "--listen", "127.0.0.1", "--port", str(free_port()), "--start", "--config-dir", config,
                                  "--data-dir", os.path.join(scratch.name, "data")],
                                 env=dict(session.env, HOME=scratch.name, QT_QPA_PLATFORM="xcb"),
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        item = session.wait_for(session.registered_items, what="the tray item")[0]
        session.wait_for(lambda: "Enter Password" in session.window_names(), what="the unlock sheet")
        shoot(session, "unlock-sheet.png", region=window_box(session, lambda box: box[2:] == (800, 600)))

        # The panel's menu, opened by a right click on the eye (the panel's first icon).
        subprocess.run(["xdotool", "mousemove", "15", "15", "click", "3"], env=session.env)
        time.sleep(1)
        shoot(session, "tray-menu.png", region=(0, 0, 320, 200), margin=0)
        subprocess.run(["xdotool", "key", "Escape"], env=session.env)

        entries = {label: entry_id for entry_id, label, _, _ in session.menu_entries(item)}
        session.click_menu_entry(item, entries["Quit"])
        session.wait_for(lambda: "Confirm Quit" in session.window_names(), what="the quit dialog")
        shoot(session, "quit-dialog.png", region=window_box(session, lambda box: box[2:] == (400, 280)))

        session.click_menu_entry(item, entries["About"])
        about = session.wait_for(lambda: window_box(session, lambda box: box[2:] == (580, 400)),
                                 what="the About window")
        shoot(session, "about.png", region=about)
    finally:
        if agent:
            agent.terminate()
            agent.wait(30)
        session.close()
        scratch.cleanup()


if __name__ == "__main__":
    main()
