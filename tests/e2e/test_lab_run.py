"""The lab runner (lab.run), the README's main command: it starts the
controller, the sample switch and the daemon, says where to look, and stops
everything on Ctrl-C."""

import os
import re
import shlex
import shutil
import signal
import subprocess
import types

import pytest

from lab import fleet, run
from lab.netns import Netns
from tests.e2e.kit import BIN, EMULATOR, SOURCE, processes_with_root, wait_until
from tests.e2e.lab_runner import start

ORKADCTL = os.path.join(SOURCE, "build", "ctl", "orkadctl")


@pytest.fixture
def runner(tmp_path):
    if not Netns.available():
        pytest.skip("the lab's network namespace needs root")
    out = open(tmp_path / "run.out", "w+")
    proc = start("run", "--bin", BIN, "--heartbeat", "1", "--port", "0", "--root",
                 str(tmp_path / "root"), stdout=out, stderr=subprocess.STDOUT,
                 stdin=subprocess.DEVNULL)
    proc.out_path = str(tmp_path / "run.out")
    proc.root = str(tmp_path / "root")
    yield proc
    if proc.poll() is None:
        # A test that failed half-way: Ctrl-C lets the runner take down its
        # namespace, controller and daemon; killing it would leave them.
        proc.send_signal(signal.SIGINT)
        try:
            proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait(timeout=10)
    # The runner keeps its own folder (controller state, syslog) for a look.
    m = re.search(r"daemon syslog +(\S+)/syslog.txt", text(proc))
    if m and os.path.basename(m.group(1)).startswith("orkad-lab-run-"):
        shutil.rmtree(m.group(1), ignore_errors=True)


def text(proc):
    with open(proc.out_path) as f:
        return f.read()


def test_runner_starts_the_lab_and_stops_on_ctrl_c(runner):
    wait_until(lambda: "Ctrl-C stops" in text(runner), timeout=20, what="the runner's notice")
    notice = text(runner)
    root = runner.root
    assert f"daemon logs       {root}/rw/orkad.log" in notice
    assert f"switch journal    {root}/var/switch/journal" in notice
    # How to ask the daemon itself how it is: the client with its device root.
    status = f"ORKAD_ROOT={root} " + shlex.join([*EMULATOR, ORKADCTL, "status"])
    assert f"\n  daemon status     {status}\n" in notice
    sock = re.search(r"--unix-socket (\S+) -d '(.*)' http://lab/commands", notice)
    assert sock, notice
    # The runner's own namespace is the one its daemon lives in (other labs may
    # run beside this test).
    # (A process caught on its way in, still "ip netns exec", is in none yet.)
    def namespaces():
        return {name for pid in processes_with_root(root)
                for name in subprocess.run(["ip", "netns", "identify", str(pid)],
                                           capture_output=True, text=True).stdout.split()}
    ns = wait_until(namespaces, timeout=10, what="the lab's daemon in its namespace")
    assert len(ns) == 1 and ns.pop().startswith("orkad-lab-"), ns

    # The one-line example works as printed.
    r = subprocess.run(["curl", "-s", "--unix-socket", sock.group(1), "-d", sock.group(2),
                        "http://lab/commands"], capture_output=True, text=True, timeout=10)
    assert '"ids"' in r.stdout

    def result():
        r = subprocess.run(["curl", "-s", "--unix-socket", sock.group(1), "http://lab/results"],
                           capture_output=True, text=True, timeout=10)
        return '"commandId":"lab-1","code":0' in r.stdout.replace(" ", "")
    wait_until(result, timeout=15, what="the queued command's result")
    journal = os.path.join(root, "var", "switch", "journal")
    assert "rpcclt_openapiAppCtrlStatusSet" in open(journal).read()

    runner.send_signal(signal.SIGINT)
    assert runner.wait(timeout=20) == 0
    out = text(runner)
    summary = re.search(r"lab: the controller received (.*)", out).group(1)
    assert "1 phone_home" in summary
    assert re.search(r"\d+ heartbeat", summary)
    assert "1 response" in summary
    assert f"lab: stopped; the device root stays in {root}" in out
    # Nothing is left behind: no namespace, no daemon using this root.
    left = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    for n in ns:
        assert n not in left
    assert processes_with_root(root) == []


def described(n, tmp_path):
    """What the runner says of a lab of n switches, made up here."""
    devices = []
    for i in range(1, n + 1):
        d = run.Device(i, str(tmp_path / f"sw{i}" / "root"), str(tmp_path / f"sw{i}"),
                       ["ip", "netns", "exec", f"ns{i}"] if n > 1 else [],
                       fleet.address_of(i), None)
        d.model, d.serial = fleet.make_model(fleet.sample_model(), i), fleet.serial_of(i)
        devices.append(d)
    lab = types.SimpleNamespace(socket_path=str(tmp_path / "lab" / "control.sock"),
                                base_url="https://192.0.2.1:8443", prefix=["setsid"])
    return run.describe(devices, str(tmp_path), lab, None)


def test_runner_says_how_to_ask_each_switch_of_a_fleet(tmp_path, monkeypatch):
    monkeypatch.delenv("ORKAD_EMULATOR", raising=False)
    text = described(3, tmp_path).splitlines()
    lines = [t for t in text if " status " in t and "orkadctl" in t]
    assert lines == [f"  sw{i} status        ORKAD_ROOT={tmp_path}/sw{i}/root "
                     f"{SOURCE}/build/ctl/orkadctl status" for i in (1, 2, 3)]
    # A daemon run under an emulator has its client run under it too.
    monkeypatch.setenv("ORKAD_EMULATOR", "qemu-aarch64-static -L /")
    assert f"  sw2 status        ORKAD_ROOT={tmp_path}/sw2/root qemu-aarch64-static -L / " \
        f"{SOURCE}/build/ctl/orkadctl status" in described(3, tmp_path).splitlines()


def test_runner_says_orkadctl_needs_root(tmp_path, monkeypatch):
    monkeypatch.delenv("ORKAD_EMULATOR", raising=False)
    monkeypatch.setattr(run.os, "geteuid", lambda: 1000)
    text = described(1, tmp_path)
    assert (f"  daemon status     ORKAD_ROOT={tmp_path}/sw1/root {SOURCE}/build/ctl/orkadctl "
            "status\n                    (only as root, in a lab run as root)\n") in text
    monkeypatch.setattr(run.os, "geteuid", lambda: 0)
    assert "only as root" not in described(1, tmp_path)
