"""Runs the real tellwyn-agent binary for integration tests and reads what it prints."""
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

AGENT = os.environ.get("TELLWYN_AGENT", "tellwyn-agent")
LOG_LINE = re.compile(r"^\[([^\]]*)\] \[([^\]]*)\] (.*)$")


def agent_version(with_build=False):
    """The agent's version, "1.0.0", or with its build "1.0.0 (1)", from `--version`."""
    words = subprocess.run([AGENT, "--version"], capture_output=True, text=True, check=True).stdout.split()
    return f"{words[1]} ({words[3].rstrip(')')})" if with_build else words[1]


def os_pretty_name():
    """This machine's PRETTY_NAME from os-release, or None."""
    for path in ("/etc/os-release", "/usr/lib/os-release"):
        try:
            with open(path, encoding="utf-8") as release:
                for line in release:
                    if line.startswith("PRETTY_NAME="):
                        return line.split("=", 1)[1].strip().strip('"')
        except OSError:
            pass
    return None


def mem_total_bytes():
    with open("/proc/meminfo") as meminfo:
        return int(next(line for line in meminfo if line.startswith("MemTotal:")).split()[1]) * 1024


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def resident_kib(pid):
    """The resident size of process `pid` in KiB; None once it has ended."""
    try:
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def run_as(user):
    """The command prefix that runs a program as `user`, replacing the current process (so that
    signals reach the program itself)."""
    if os.geteuid() == 0:
        return ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "--"]
    return ["sudo", "-n", "-u", user, "--"]


class Program:
    """A process whose printed lines are collected as they come; `stdin_text` is written to it and
    its input closed."""

    def __init__(self, args, env=None, stdin_text=None):
        self.process = subprocess.Popen(args, stdin=subprocess.DEVNULL if stdin_text is None else subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=env or dict(os.environ, LC_ALL="C.UTF-8"), text=True, encoding="utf-8",
                                        errors="replace")
        if stdin_text is not None:
            self.process.stdin.write(stdin_text)
            self.process.stdin.close()
        self.stdout_lines = []
        self.stderr_lines = []
        self._taken = 0  # stdout lines that next_line has gone past
        self._changed = threading.Condition()
        self._readers = [threading.Thread(target=self._read, args=(self.process.stdout, self.stdout_lines), daemon=True),
                         threading.Thread(target=self._read, args=(self.process.stderr, self.stderr_lines), daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read(self, stream, lines):
        for line in stream:
            with self._changed:
                lines.append(line.rstrip("\n"))
                self._changed.notify_all()
        with self._changed:
            self._changed.notify_all()

    def wait_for(self, predicate, timeout=60.0, what="condition"):
        deadline = time.monotonic() + timeout
        with self._changed:
            while not predicate():
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise AssertionError(f"timed out waiting for {what}\nstdout:\n" + "\n".join(self.stdout_lines)
                                         + "\nstderr:\n" + "\n".join(self.stderr_lines))
                self._changed.wait(min(remaining, 0.2))

    def next_line(self, predicate=lambda line: True, what="a line", timeout=60.0):
        """The next printed line, after those already taken, that `predicate` accepts."""
        def found():
            while self._taken < len(self.stdout_lines):
                self._taken += 1
                if predicate(self.stdout_lines[self._taken - 1]):
                    return True
            return False
        self.wait_for(found, timeout, what)
        return self.stdout_lines[self._taken - 1]

    def wait_for_output(self, text, timeout=60.0):
        """Waits until a printed line contains `text`."""
        self.wait_for(lambda: any(text in line for line in self.stdout_lines), timeout, repr(text))

    def stop(self, sig=signal.SIGTERM, timeout=60.0):
        if self.process.poll() is None:
            self.process.send_signal(sig)
        code = self.process.wait(timeout)
        for reader in self._readers:
            reader.join(5)
        return code

    def finish(self, timeout=60.0):
        """Waits for the end: the exit code, standard output and standard error."""
        code = self.process.wait(timeout)
        for reader in self._readers:
            reader.join(5)
        return code, "\n".join(self.stdout_lines), "\n".join(self.stderr_lines)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(5)
        for reader in self._readers:
            reader.join(5)
        self.process.stdout.close()
        self.process.stderr.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Agent(Program):
    """One agent process with its own configuration and data folders, listening on loopback."""

    def __init__(self, port=None, config_dir=None, data_dir=None, extra_args=(), start=True, user=None,
                 display=None, preferences=None, prefix=(), extra_env=None):
        self._scratch = tempfile.TemporaryDirectory(prefix="tellwyn-it-")
        self.port = port or free_port()
        self.config_dir = config_dir or os.path.join(self._scratch.name, "config")
        self.data_dir = data_dir or os.path.join(self._scratch.name, "data")
        args = [AGENT, *([] if display else ["--headless"]), "--listen", "127.0.0.1", "--port", str(self.port),
                "--config-dir", self.config_dir, "--data-dir", self.data_dir, *extra_args]
        if start:
            args.append("--start")
        if preferences:
            os.makedirs(self.config_dir, exist_ok=True)
            with open(os.path.join(self.config_dir, "tellwyn-agent.conf"), "w", encoding="utf-8") as conf:
                conf.write("[General]\n" + "".join(f"{key}={value}\n" for key, value in preferences.items()))
        env = dict(os.environ, LC_ALL="C.UTF-8")
        if user:
            # The agent runs as `user`, in a scratch folder of its own.
            for folder, _, files in os.walk(self._scratch.name):
                shutil.chown(folder, user=user)
                for name in files:
                    shutil.chown(os.path.join(folder, name), user=user)
            env["HOME"] = self._scratch.name
            args = run_as(user) + args
        args = [*prefix, *args]  # for example nsenter, to run the agent in another namespace
        env.pop("DISPLAY", None)
        env.pop("WAYLAND_DISPLAY", None)
        if display:
            env["DISPLAY"] = display
            env["QT_QPA_PLATFORM"] = "xcb"
        env.update(extra_env or {})
        super().__init__(args, env)

    def log(self):
        """The log lines as (category, message) pairs, without the time."""
        with self._changed:
            return [(m.group(2), m.group(3)) for m in map(LOG_LINE.match, self.stdout_lines) if m]

    def wait_for_log(self, category, message, timeout=60.0):
        self.wait_for(lambda: any(c == category and m == message for c, m in self._log_unlocked()), timeout,
                      f"[{category}] {message}")

    def _log_unlocked(self):
        return [(m.group(2), m.group(3)) for m in map(LOG_LINE.match, self.stdout_lines) if m]

    def wait_until_running(self):
        self.wait_for_log("SERVER", "Remote service startup completed successfully")

    def fingerprint(self):
        prefix = "TLS identity fingerprint (SHA-256): "
        for category, message in self.log():
            if category == "SERVER" and message.startswith(prefix):
                return message[len(prefix):]
        return None

    def close(self):
        super().close()
        self._scratch.cleanup()
