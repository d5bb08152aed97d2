"""Servers of the test's own: an X display, a private system bus, and a desktop session (an Xvfb
display, a private D-Bus session bus and, on request, a StatusNotifierItem watcher and host: the
panel's tray)."""
import os
import re
import subprocess
import time


def start_xvfb(size="1024x768", *options):
    """An X server of the test's own, on a display number it picks itself (other tests may run
    displays at the same time); any local user may connect. Returns (process, ":N")."""
    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", f"{size}x24", "-nolisten", "tcp",
                             "-ac", "-noreset", *options], pass_fds=(write_end,), stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    os.close(write_end)
    with os.fdopen(read_end) as chosen:
        number = chosen.readline().strip()
    if not number:
        xvfb.kill()
        raise AssertionError("Xvfb did not start")
    return xvfb, ":" + number


SYSTEM_BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""


def start_system_bus(folder):
    """A system bus that anyone may use, listening on a socket in `folder`, so that the daemons of a
    test (polkitd, avahi-daemon) never meet the machine's. Returns (process, address) once it listens."""
    socket = os.path.join(folder, "system_bus_socket")
    config = os.path.join(folder, "system-bus.conf")
    with open(config, "w", encoding="utf-8") as out:
        out.write(SYSTEM_BUS_CONFIG.format(socket=socket))
    bus = subprocess.Popen(["dbus-daemon", "--nofork", "--config-file=" + config], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while not os.path.exists(socket):
        if time.monotonic() > deadline or bus.poll() is not None:
            stop(bus)
            raise AssertionError("the private system bus did not start")
        time.sleep(0.05)
    return bus, "unix:path=" + socket


def poll_until(read, timeout=60.0, what="condition", interval=0.2):
    """Polls `read` until it answers something true, and returns that; a loaded machine gets a
    minute."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = read()
        if value:
            return value
        time.sleep(interval)
    raise AssertionError(f"timed out waiting for {what}")


def window_titles(display):
    """The titles of the windows on `display`, as xwininfo lists them."""
    tree = subprocess.run(["xwininfo", "-root", "-tree"], capture_output=True, text=True, timeout=60,
                          env=dict(os.environ, DISPLAY=display)).stdout
    return [line.split('"')[1] for line in tree.splitlines() if line.count('"') >= 2]


def stop(process, timeout=10):
    if process is not None and process.poll() is None:
        process.terminate()
        try:
            process.wait(timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class DesktopSession:
    """`prefix` runs the bus, the panel and the test's D-Bus calls as another user (the agent's);
    `home` is that user's home folder in the session."""

    def __init__(self, size="1024x768", prefix=(), home=None):
        self.prefix = list(prefix)
        self.xvfb, self.display = start_xvfb(size)
        base = dict(os.environ, DISPLAY=self.display, LC_ALL="C.UTF-8", **({"HOME": home} if home else {}))
        base.pop("WAYLAND_DISPLAY", None)
        self.bus = subprocess.Popen([*self.prefix, "dbus-daemon", "--session", "--nofork", "--print-address"],
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=base)
        self.bus_address = self.bus.stdout.readline().strip()
        self.env = dict(base, DBUS_SESSION_BUS_ADDRESS=self.bus_address)
        self.env["NO_AT_BRIDGE"] = "1"  # no accessibility bus for the panel
        self.tray = None

    def start_tray(self):
        """The panel: gtk-sni-tray's StatusNotifierWatcher and host."""
        self.tray = subprocess.Popen([*self.prefix, "gtk-sni-tray-standalone", "--watcher"], env=self.env,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def gdbus(self, *args, timeout=60):
        result = subprocess.run([*self.prefix, "gdbus", "call", "--session", *args], env=self.env, capture_output=True,
                                text=True, timeout=timeout)
        return result.stdout if result.returncode == 0 else None

    def wait_for(self, read, timeout=60.0, what="condition"):
        return poll_until(read, timeout, what)

    def registered_items(self):
        """The StatusNotifierItems the watcher knows, as "service/path" texts."""
        answer = self.gdbus("--dest", "org.kde.StatusNotifierWatcher", "--object-path", "/StatusNotifierWatcher",
                            "--method", "org.freedesktop.DBus.Properties.Get", "org.kde.StatusNotifierWatcher",
                            "RegisteredStatusNotifierItems")
        return re.findall(r"'([^']+)'", answer or "")

    @staticmethod
    def _item_address(item):
        service, _, path = item.partition("/")
        return service, "/" + (path or "StatusNotifierItem")

    def item_property(self, item, name):
        service, path = self._item_address(item)
        return self.gdbus("--dest", service, "--object-path", path, "--method",
                          "org.freedesktop.DBus.Properties.Get", "org.kde.StatusNotifierItem", name)

    def menu_of(self, item):
        """(service, menu object path) of an item's dbusmenu."""
        service, _ = self._item_address(item)
        answer = self.item_property(item, "Menu") or ""
        match = re.search(r"objectpath '([^']+)'", answer)
        return service, match.group(1) if match else None

    def menu_entries(self, item):
        """The top level of the item's menu as the panel shows it when opened: (id, label, type,
        enabled) in order."""
        service, path = self.menu_of(item)
        self.gdbus("--dest", service, "--object-path", path, "--method", "com.canonical.dbusmenu.AboutToShow", "0")
        layout = self.gdbus("--dest", service, "--object-path", path, "--method",
                            "com.canonical.dbusmenu.GetLayout", "0", "1", "[]") or ""
        entries = []
        for match in re.finditer(r"<\((\d+), \{([^}]*)\}, @av \[\]\)>", layout):
            props = match.group(2)
            label = re.search(r"'label': <'([^']*)'>", props)
            kind = re.search(r"'type': <'([^']*)'>", props)
            enabled = re.search(r"'enabled': <(true|false)>", props)
            entries.append((int(match.group(1)), label.group(1) if label else "", kind.group(1) if kind else "",
                            enabled is None or enabled.group(1) == "true"))
        return entries

    def click_menu_entry(self, item, entry_id):
        service, path = self.menu_of(item)
        self.gdbus("--dest", service, "--object-path", path, "--method", "com.canonical.dbusmenu.AboutToShow",
                   "0")
        return self.gdbus("--dest", service, "--object-path", path, "--method", "com.canonical.dbusmenu.Event",
                          str(entry_id), "clicked", "<0>", "0")

    def window_names(self):
        """The names of the X client windows on screen (viewable top-level windows)."""
        result = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "."], env=self.env,
                                capture_output=True, text=True, timeout=60)
        names = []
        for window in result.stdout.split():
            name = subprocess.run(["xdotool", "getwindowname", window], env=self.env, capture_output=True,
                                  text=True, timeout=60).stdout.strip()
            names.append(name)
        return names

    def close(self):
        for process in (self.tray, self.bus, self.xvfb):
            stop(process)
        if self.bus and self.bus.stdout:
            self.bus.stdout.close()
