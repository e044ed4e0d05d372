"""What the end-to-end tests share: where the daemon under test is, the
daemon itself in a fresh device root (and its own network namespace), and
readers of what it leaves behind. The fixtures are in tests/e2e/fixtures.py."""

import json
import os
import resource
import signal
import sqlite3
import subprocess
import threading
import time

import pytest

import lab
from lab import orkad
from lab.syslogsocket import SyslogSocket

SOURCE = os.environ.get("ORKAD_SOURCE") or lab.SOURCE
BIN = os.environ.get("ORKAD_BIN") or os.path.join(SOURCE, "build", "common", "orkad")
# The operator's client, built beside the daemon (ctl/).
CTL = os.environ.get("ORKADCTL_BIN") or os.path.join(SOURCE, "build", "ctl", "orkadctl")
# A cross-built daemon runs under qemu-user: ORKAD_EMULATOR="qemu-aarch64-static -L /".
EMULATOR = orkad.emulator()
NO_CLOCK = orkad.NO_CLOCK


def wait_until(fn, timeout=10.0, interval=0.02, what="condition"):
    """Polls fn until it returns something true; fails the test at the deadline."""
    deadline = time.monotonic() + timeout
    while True:
        v = fn()
        if v:
            return v
        if time.monotonic() > deadline:
            pytest.fail(f"timed out after {timeout}s waiting for {what}")
        time.sleep(interval)


def log_messages(path):
    """Lines of a log file without their 'index date time ' prefix."""
    out = []
    if not os.path.exists(path):
        return out
    with open(path, errors="replace") as f:
        for line in f:
            parts = line.rstrip("\n").split(" ", 3)
            out.append(parts[3] if len(parts) == 4 else line.rstrip("\n"))
    return out


def processes_with_root(root):
    """The pids of the processes running with this device root."""
    found = []
    for pid in os.listdir("/proc"):
        if pid.isdigit():
            try:
                with open(f"/proc/{pid}/environ", "rb") as f:
                    if f"ORKAD_ROOT={root}".encode() in f.read().split(b"\0"):
                        found.append(int(pid))
            except (FileNotFoundError, ProcessLookupError, PermissionError):
                pass
    return found


def pending(pid, sig):
    """Whether sig waits in the process's shared pending set."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("ShdPnd:"):
                return bool(int(line.split()[1], 16) & (1 << (sig - 1)))
    return False


def kill(pids):
    for pid in pids:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


class SyslogSink:
    """Stands in for the system logger on <root>/dev/log."""

    def __init__(self, root):
        self.lines = []  # (pid, priority, message)
        self.lock = threading.Lock()
        self.socket = SyslogSocket(root, self._take)
        self.path = self.socket.path

    def _take(self, text):
        pri = int(text[1:text.index(">")])
        head, _, msg = text.partition("]: ")
        pid = int(head[head.rindex("[") + 1:])
        with self.lock:
            self.lines.append((pid, pri, msg))

    def messages(self):
        with self.lock:
            return [m for _, _, m in self.lines]

    def entries(self):
        with self.lock:
            return list(self.lines)

    def wait_for(self, text, timeout=10.0):
        def find():
            for e in self.entries():
                if text in e[2]:
                    return e
            return None
        return wait_until(find, timeout, what=f"syslog line {text!r}")

    def close(self):
        self.socket.close()


class Daemon:
    """One orkad: supervisor process, its working child, its device root.

    `wrapper` is what it is started through, after the namespace's prefix
    and before the emulator (NO_CLOCK, for one); `binary`, another orkad
    than the one under test (an installed package's), run as it is."""

    def __init__(self, root, workdir, netns=None, wrapper=(), binary=None):
        self.root = root
        self.workdir = workdir
        self.netns = netns
        self.wrapper = list(wrapper)
        self.binary = binary
        self.proc = None
        self.syslog = SyslogSink(root)

    def path(self, device_path):
        return os.path.join(self.root, device_path.lstrip("/"))

    def start(self, *args, cores=False, env=None):
        env = dict(os.environ, **(env or {}))
        env["ORKAD_ROOT"] = self.root
        program = [self.binary] if self.binary else [*EMULATOR, BIN]
        argv = [*self.wrapper, *program, *args]
        if self.netns is not None:
            argv = self.netns.prefix() + argv

        def limits():
            os.setpgrp()
            lim = resource.RLIM_INFINITY if cores else 0
            resource.setrlimit(resource.RLIMIT_CORE, (lim, lim))

        self.stdout = open(os.path.join(self.workdir, "orkad.stdout"), "w")
        self.proc = subprocess.Popen(argv, cwd=self.workdir, env=env, stdout=self.stdout,
                                     stderr=subprocess.STDOUT, preexec_fn=limits)
        return self

    def children(self):
        try:
            with open(f"/proc/{self.proc.pid}/task/{self.proc.pid}/children") as f:
                return [int(p) for p in f.read().split()]
        except FileNotFoundError:
            return []

    @staticmethod
    def threads(pid):
        """{thread name: [its task ids]} of process pid."""
        found = {}
        try:
            for tid in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{tid}/comm") as f:
                    found.setdefault(f.read().strip(), []).append(int(tid))
        except (FileNotFoundError, ProcessLookupError):
            pass
        return found

    def thread_names(self, pid):
        return [name for name, tids in self.threads(pid).items() for _ in tids]

    def wait_child(self, not_pid=None, timeout=10.0):
        """The working child once its start-up is complete."""
        def ready():
            for c in self.children():
                if c != not_pid and "worker5" in self.thread_names(c) and self._in_loop(c):
                    return c
            return None
        return wait_until(ready, timeout, what="the working child")

    def kill_child(self):
        """SIGKILL to the working child; the next one, once it is ready."""
        child = self.wait_child()
        os.kill(child, signal.SIGKILL)
        return self.wait_child(not_pid=child, timeout=15)

    @staticmethod
    def _in_loop(pid):
        # The main thread sits in sigwait once start-up is done.
        try:
            with open(f"/proc/{pid}/wchan") as f:
                return "sigtimedwait" in f.read()
        except (FileNotFoundError, ProcessLookupError):
            return False

    def _task(self, name):
        """The child's thread `name`, as "task/<tid>" under /proc/<child>."""
        child = self.wait_child()
        tids = self.threads(child).get(name)
        assert tids, f"no thread {name!r} in {self.threads(child)}"
        return child, f"task/{tids[0]}"

    def asleep(self, name):
        """Whether the child's thread `name` sleeps out its interval
        (sleep(3)) rather than doing its work."""
        child, task = self._task(name)
        try:
            with open(f"/proc/{child}/{task}/wchan") as f:
                return f.read() == "hrtimer_nanosleep"
        except (FileNotFoundError, ProcessLookupError):
            return False

    def wakeups(self, name):
        """How often the child's thread `name` has given up the processor of
        its own accord: its sleeps between turns, and each wait on the way."""
        child, task = self._task(name)
        return orkad.proc_figure(child, f"{task}/status", "voluntary_ctxt_switches")

    def wait_turns(self, name, turns=2, timeout=15.0):
        """Returns once the child's looping thread `name` has gone to sleep
        and woken up again `turns` times from now."""
        first = self.wakeups(name)
        wait_until(lambda: self.wakeups(name) >= first + turns, timeout,
                   what=f"{turns} turns of the {name} thread")

    def leak_check(self, child, timeout=60.0):
        """Has the child, built with AddressSanitizer, look for leaks now
        (SIGURG); the leak reports it wrote, or "" when there were none."""
        with open(self.stdout.name, errors="replace") as f:
            f.seek(0, 2)
            start = f.tell()
        before = sum(m.startswith("leak_check: ") for m in self.log())
        os.kill(child, signal.SIGURG)
        wait_until(lambda: sum(m.startswith("leak_check: ") for m in self.log()) > before,
                   timeout, what="the leak check")
        with open(self.stdout.name, errors="replace") as f:
            f.seek(start)
            text = f.read()
        return text if "LeakSanitizer" in text else ""

    def journal(self):
        """Every write the simulated switch served, in order."""
        path = self.path("/var/switch/journal")
        if not os.path.exists(path):
            return []
        with open(path) as f:
            return [json.loads(line) for line in f if line.strip()]

    def calls(self, name):
        return [j for j in self.journal() if j["call"] == name]

    def statuses(self):
        """The connection words the agent gave the switch, in order."""
        return [j["status"].split()[-1] for j in self.calls("rpcclt_openapiAppCtrlStatusSet")]

    def setting(self, key):
        """A value of the settings database, None when it has none."""
        db = self.path("/etc/varnex/config/startup.db")
        if not os.path.exists(db):
            return None
        # Read without taking locks: a reader must never make one of the
        # daemon's writes fail as busy.
        con = sqlite3.connect(f"file:{db}?mode=ro&immutable=1", uri=True)
        try:
            row = con.execute("SELECT value FROM system WHERE key = ?", (key,)).fetchone()
        except sqlite3.DatabaseError:
            return None  # caught in the middle of a write: ask again
        finally:
            con.close()
        return row[0] if row else None

    def log(self, name="/rw/orkad.log"):
        return log_messages(self.path(name))

    def count_log(self, text, name="/rw/orkad.log"):
        return sum(1 for m in self.log(name) if text in m)

    def wait_log(self, text, name="/rw/orkad.log", timeout=10.0):
        return wait_until(lambda: any(text in m for m in self.log(name)), timeout,
                          what=f"{text!r} in {name}")

    def openvpns(self):
        """The device root's OpenVPN clients running, by pid."""
        prog = self.path("/sbin/openvpn")
        found = []
        for p in os.listdir("/proc"):
            if p.isdigit():
                try:
                    with open(f"/proc/{p}/cmdline", "rb") as f:
                        argv0 = f.read().split(b"\0")[0].decode(errors="replace")
                except OSError:
                    continue
                if argv0 == prog:
                    found.append(int(p))
        return found

    def stop(self):
        orkad.stop(self.proc)
        # The VPN client daemonizes away from the daemon's process group.
        kill(self.openvpns())
        self.syslog.close()


# The streams' commands at the pace the lab runs them: interval (ms) and
# service link.
STREAMS = {"logging": (1000, "/syslog"), "status": (10000, "/status"),
           "statistics": (15000, "/statistics")}


def stream_command(context, id=None):
    """The command that starts stream `context` (STREAMS) for lab.queue_commands."""
    interval, href = STREAMS[context]
    cmd = {"action": "set", "context": context,
           "params": {"interval": interval, "serviceLink": {"href": href}}}
    if id is not None:
        cmd["id"] = id
    return cmd


# A daemon built with ThreadSanitizer writes each report to a file of its own
# (<log_path>.<pid>) and runs on. Every test points log_path into its own
# temporary directory; a report file found there once the test and its
# daemons are gone fails the test, so a race in the daemon fails the run.
# Each pytest (or xdist worker) process runs one test at a time, so the
# environment every daemon, lab runner and tool inherits is the test's own.
TSAN_REPORT = "tsan-report"


def sanitizer_reports(directory):
    """The ThreadSanitizer reports left in directory: [(file name, text)]."""
    found = []
    for name in sorted(os.listdir(directory)):
        if name.startswith(TSAN_REPORT + "."):
            with open(os.path.join(directory, name), errors="replace") as f:
                found.append((name, f.read()))
    return found


def cpack(build, out, version):
    """The package of the build tree at build, made by cpack into out: its path."""
    r = subprocess.run(["cpack", "--config", os.path.join(build, "CPackConfig.cmake"), "-B",
                        str(out)], cwd=str(out), capture_output=True, text=True)
    assert r.returncode == 0, r.stdout + r.stderr
    arch = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                          check=True).stdout.strip()
    deb = out / f"orkad_{version}_{arch}.deb"
    assert deb.exists(), os.listdir(out)
    return deb
