"""Fixtures that run the real orkad in a fresh device root and its own
network namespace, and read what it leaves behind."""

import json
import os
import resource
import shlex
import signal
import subprocess
import sys
import threading
import time

import pytest

SOURCE = os.environ.get("ORKAD_SOURCE") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "lab"))

import devroot  # noqa: E402
from netns import Netns  # noqa: E402
from syslogsocket import SyslogSocket  # noqa: E402

BIN = os.environ.get("ORKAD_BIN") or os.path.join(SOURCE, "build", "common", "orkad")
# The operator's client, built beside the daemon (ctl/).
CTL = os.environ.get("ORKADCTL_BIN") or os.path.join(SOURCE, "build", "ctl", "orkadctl")
# A cross-built daemon runs under qemu-user: ORKAD_EMULATOR="qemu-aarch64-static -L /".
EMULATOR = shlex.split(os.environ.get("ORKAD_EMULATOR", ""))


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
    """One orkad: supervisor process, its working child, its device root."""

    # Programs the daemon is started through, after the namespace's and
    # before the emulator (setpriv, for one).
    wrapper = []

    def __init__(self, root, workdir, netns=None):
        self.root = root
        self.workdir = workdir
        self.netns = netns
        self.proc = None
        self.syslog = SyslogSink(root)

    def path(self, device_path):
        return os.path.join(self.root, device_path.lstrip("/"))

    def start(self, *args, cores=False, env=None):
        env = dict(os.environ, **(env or {}))
        env["ORKAD_ROOT"] = self.root
        argv = [*self.wrapper, *EMULATOR, BIN, *args]
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

    def thread_names(self, pid):
        names = []
        try:
            for tid in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{tid}/comm") as f:
                    names.append(f.read().strip())
        except (FileNotFoundError, ProcessLookupError):
            pass
        return names

    def wait_child(self, not_pid=None, timeout=10.0):
        """The working child once its start-up is complete."""
        def ready():
            for c in self.children():
                if c != not_pid and "worker5" in self.thread_names(c) and self._in_loop(c):
                    return c
            return None
        return wait_until(ready, timeout, what="the working child")

    @staticmethod
    def _in_loop(pid):
        # The main thread sits in sigwait once start-up is done.
        try:
            with open(f"/proc/{pid}/wchan") as f:
                return "sigtimedwait" in f.read()
        except (FileNotFoundError, ProcessLookupError):
            return False

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
        """Every call the simulated switch served, in order."""
        path = self.path("/var/switch/journal")
        if not os.path.exists(path):
            return []
        with open(path) as f:
            return [json.loads(line) for line in f if line.strip()]

    def calls(self, name):
        return [j for j in self.journal() if j["call"] == name]

    def log(self, name="/rw/orkad.log"):
        return log_messages(self.path(name))

    def wait_log(self, text, name="/rw/orkad.log", timeout=10.0):
        return wait_until(lambda: any(text in m for m in self.log(name)), timeout,
                          what=f"{text!r} in {name}")

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait(timeout=10)
        self.syslog.close()


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


@pytest.fixture(autouse=True)
def thread_sanitizer_reports(tmp_path_factory):
    reports = tmp_path_factory.mktemp("tsan")
    saved = os.environ.get("TSAN_OPTIONS")
    options = [o for o in (saved or "").split(":") if o and not o.startswith("log_path=")]
    os.environ["TSAN_OPTIONS"] = ":".join(options + [f"log_path={reports}/{TSAN_REPORT}"])
    yield reports
    if saved is None:
        del os.environ["TSAN_OPTIONS"]
    else:
        os.environ["TSAN_OPTIONS"] = saved
    found = sanitizer_reports(str(reports))
    if found:
        text = "\n".join(f"--- {name}\n{body}" for name, body in found)
        pytest.fail(f"ThreadSanitizer reported {len(found)} time(s):\n{text[:20000]}",
                    pytrace=False)


@pytest.fixture
def device_root(tmp_path):
    return devroot.make_device_root(str(tmp_path / "root"))


@pytest.fixture
def netns():
    if not Netns.available():
        pytest.skip("network namespaces need root")
    ns = Netns().create()
    yield ns
    ns.delete()


@pytest.fixture
def daemon(device_root, tmp_path, netns):
    d = Daemon(device_root, str(tmp_path), netns)
    yield d
    d.stop()


def pytest_addoption(parser):
    parser.addoption("--slow-minutes", type=float, default=0,
                     help="run the slow-controller watchdog test for this many minutes "
                     "(default: a few pulses at the worst delay)")


def pytest_configure(config):
    config.addinivalue_line("markers", "fleet: a fleet of switches for a minute (heavy; "
                            "-m 'not fleet' leaves it out)")


# The suite runs as one CTest test, whose pass hides a skip. Where every test
# can run (the native build as root, scripts/test.sh sets ORKAD_NO_SKIPS=1),
# a skip is a failure that names the test and its reason.
NO_SKIPS = os.environ.get("ORKAD_NO_SKIPS") == "1"


def _no_skip(report):
    reason = report.longrepr[2] if isinstance(report.longrepr, tuple) else str(report.longrepr)
    report.outcome = "failed"
    report.longrepr = f"skipped, and ORKAD_NO_SKIPS=1 allows no skip: {reason}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if NO_SKIPS and report.skipped and not hasattr(report, "wasxfail"):
        _no_skip(report)


@pytest.hookimpl(tryfirst=True)
def pytest_collectreport(report):
    # A whole module skipped (pytest.importorskip at its top).
    if NO_SKIPS and report.skipped:
        _no_skip(report)


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
