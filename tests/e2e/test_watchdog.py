"""The supervisor's watchdog on the real daemon: a hung child is replaced,
a slow controller never trips it, and systemd hears from the supervisor."""

import os
import signal
import socket
import time

from lab import devroot
from lab.labfixture import command
from tests.e2e.kit import EMULATOR, wait_until

# One heartbeat a second, and the longest pulse cut to 2 s: a loop that
# stands still is hung after max(3 x 1 s, 2 s) = 3 s.
QUICK = {"ORKAD_TEST_LONGEST_PULSE": "2"}
BOUND = 3
# SIGABRT, then SIGKILL 5 s later; then a new child starts up.
GRACE = 5
START_UP = 20
# Just inside the 30-s HTTP time-out, connecting included.
SLOW = 28
# The real bound with one-second heartbeats (tests/unit/test_watchdog.cpp).
REAL_BOUND = 440


def heartbeats(lab, **kw):
    return [r for r in lab.requests(**kw) if r["kind"] == "heartbeat"]


def start(daemon, lab, env=None, cores=False):
    devroot.update_bootenv(daemon.root, heartbeat="1")
    daemon.start("-s", lab.base_url, env=env, cores=cores)
    lab.wait_request(kind="heartbeat", timeout=30)
    return daemon.wait_child()


def supervisor_lines(daemon):
    return [m for m in daemon.syslog.messages() if m.startswith(" ****  ")]


def assert_replaced(daemon, lab, old, signal_number, since):
    """The hung child was aborted with one line, restarted once, and the new
    one heartbeats; returns the seconds from `since` to its first heartbeat."""
    daemon.syslog.wait_for("agent restart 1: ", timeout=BOUND + GRACE + START_UP)
    assert supervisor_lines(daemon)[:3] == [
        f" ****  Program hung: no heartbeat for {BOUND} seconds, aborting it",
        f" ****  Program killed by signal '{signal_number}'",
        " ****  Attempting to restart!",
    ]
    msgs = daemon.syslog.messages()
    i = msgs.index(f" ****  Program hung: no heartbeat for {BOUND} seconds, aborting it")
    assert msgs[i + 3].startswith("agent restart 1: serial#='VX0123456789'")
    sup = [e for e in daemon.syslog.entries() if e[2].startswith(" ****  ")]
    assert all(pid == daemon.proc.pid and pri == 8 | 2 for pid, pri, _ in sup[:3])
    new = daemon.wait_child(not_pid=old, timeout=START_UP)
    assert new != old
    mark = lab.mark()
    # The new child's first pulse comes after the restart line was written.
    first = lab.wait_request(kind="heartbeat", since=mark, timeout=START_UP)
    return first["time"] - since, new


def test_a_stopped_child_is_replaced(daemon, netns_lab):
    lab = netns_lab
    child = start(daemon, lab, env=QUICK)
    stopped_at = time.time()
    os.kill(child, signal.SIGSTOP)
    # A stopped child holds SIGABRT pending: SIGKILL ends it.
    took, new = assert_replaced(daemon, lab, child, 9, stopped_at)
    assert took < BOUND + 1 + GRACE + START_UP
    # Heartbeats go on from the new child, one a second.
    mark = lab.mark()
    lab.wait_requests(3, kind="heartbeat", since=mark, timeout=10)
    assert daemon.children() == [new]


def test_a_blocked_heartbeat_loop_is_replaced_and_leaves_a_core(daemon, netns_lab):
    lab = netns_lab
    # Each child's loop stops for good at its third sign of life: after one
    # pulse and its sleep, before the second pulse.
    child = start(daemon, lab, env=dict(QUICK, ORKAD_TEST_HANG_HEARTBEAT="3"), cores=True)
    blocked_at = time.time()
    took, new = assert_replaced(daemon, lab, child, 6, blocked_at)
    assert took < BOUND + 2 + START_UP
    # SIGABRT leaves what a crash leaves.
    with open("/proc/sys/kernel/core_pattern") as f:
        pattern = f.read().strip()
    sanitized = os.environ.get("ORKAD_SANITIZED") == "1"
    if EMULATOR:
        cores = [f for f in os.listdir(daemon.workdir) if f.startswith("qemu_")]
        assert cores
    elif pattern.startswith("core") and "/" not in pattern and not sanitized:
        cores = [f for f in os.listdir(daemon.workdir) if f.startswith("core")]
        assert cores


def test_a_command_that_never_ends_is_replaced(daemon, netns_lab):
    lab = netns_lab
    child = start(daemon, lab, env={"ORKAD_TEST_HANG_COMMAND": "1",
                                    "ORKAD_TEST_LONGEST_COMMAND": "2"})
    lab.queue_command(command("set", "heartbeat", {"interval": 2000,
                                                   "serviceLink": {"href": "/heartbeat"}}))
    daemon.syslog.wait_for("agent restart 1: ", timeout=15)
    assert supervisor_lines(daemon)[:3] == [
        " ****  Program hung: command running for 2 seconds, aborting it",
        " ****  Program killed by signal '6'",
        " ****  Attempting to restart!",
    ]
    # The heartbeat went on meanwhile; only the runner stood still.
    assert not any("no heartbeat" in m for m in supervisor_lines(daemon))
    assert lab.results() == []
    daemon.wait_child(not_pid=child, timeout=START_UP)


def test_a_slow_controller_never_trips_it(daemon, netns_lab, pytestconfig):
    """Every heartbeat first refused with 401, every request answered just
    inside the HTTP time-out: each pulse fetches a token and posts twice,
    about a minute and a half. --slow-minutes N makes it a run of N minutes
    with every request of the agent delayed."""
    lab = netns_lab
    minutes = pytestconfig.getoption("--slow-minutes")
    child = start(daemon, lab)
    pulses = max(2, int(minutes * 60 / (3 * SLOW)) + 1)
    # Scripts are taken in the order given: the heartbeat's first.
    refused = {"delay": SLOW, "status": 401, "body": {"error": "invalid_token"}}
    mark = lab.mark()
    lab.script_replies("/api/heartbeat", [refused, {"delay": SLOW}] * pulses)
    lab.script("/api/*" if minutes else "/api/oauth/token", count=None, delay=SLOW)
    began = time.monotonic()
    if minutes:
        deadline = began + minutes * 60
        while time.monotonic() < deadline:
            assert not supervisor_lines(daemon), supervisor_lines(daemon)
            time.sleep(5)
    else:
        wait_until(lambda: len([r for r in heartbeats(lab, since=mark)
                                if r["scripted"] and r["status"] == 200]) >= 2,
                   timeout=pulses * 4 * (SLOW + 2) + 30, what="two slow pulses")
    took = time.monotonic() - began
    # A pulse that went out before the scripts were in place is not one of them.
    beats = [r for r in heartbeats(lab, since=mark) if r["scripted"]]
    answered = [r for r in beats if r["status"] == 200]
    assert len(answered) >= 2
    # Worst pulses indeed: refused first, a fresh token, then answered.
    assert [r["status"] for r in beats[:4]] == [401, 200, 401, 200]
    times = [r["time"] for r in answered]
    assert max(b - a for a, b in zip(times, times[1:])) < REAL_BOUND
    assert supervisor_lines(daemon) == []
    assert daemon.children() == [child]
    print(f"slow controller: {took:.0f} s, {len(beats)} heartbeat posts, "
          f"{len(answered)} answered, longest gap "
          f"{max(b - a for a, b in zip(times, times[1:])):.0f} s, no restart")


def test_systemd_hears_ready_and_the_watchdog_from_the_supervisor(daemon, tmp_path):
    # A path, not an abstract name: the daemon runs in a network namespace
    # of its own, and abstract names do not cross it.
    path = str(tmp_path / "notify")
    systemd = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    systemd.bind(path)
    systemd.settimeout(5)
    try:
        daemon.start("-s", "https://127.0.0.1:9",
                     env={"NOTIFY_SOCKET": path, "WATCHDOG_USEC": "2000000"})
        got = [systemd.recvfrom(64)]
        started = time.monotonic()
        for _ in range(3):
            got.append(systemd.recvfrom(64))
        took = time.monotonic() - started
        assert [m for m, _ in got] == [b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1", b"WATCHDOG=1"]
        # Fed every half of the 2-s watchdog.
        assert 1.5 < took < 4
        # Only once, however long it runs.
        systemd.settimeout(1.5)
        for _ in range(2):
            assert systemd.recvfrom(64)[0] == b"WATCHDOG=1"
    finally:
        systemd.close()
