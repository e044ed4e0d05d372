"""A fleet of twenty switches against one lab controller for a minute: each
switch in a namespace of its own with its own serial number, MACs and
model, every one heartbeating throughout and answering a command."""

import subprocess
import time

import pytest

from lab.netns import Netns
from tests.e2e.kit import wait_until
from tests.e2e.lab_runner import Runner

DEVICES = 20
HEARTBEAT = 2     # seconds: lean on two cores
MINUTE = 60


@pytest.mark.fleet
def test_twenty_switches_heartbeat_for_a_minute_and_answer(tmp_path):
    if not Netns.available():
        pytest.skip("the lab's network namespaces need root")
    runner = Runner(tmp_path, devices=DEVICES, heartbeat=HEARTBEAT)
    try:
        lab = runner.lab
        devices = runner.state["devices"]
        assert len({d["serial"] for d in devices}) == DEVICES
        assert len({d["mac"] for d in devices}) == DEVICES
        assert len({d["address"] for d in devices}) == DEVICES
        assert len({d["netns"] for d in devices}) == DEVICES
        assert len({d["root"] for d in devices}) == DEVICES
        assert len({(d["model"], d["ports"]) for d in devices}) > 1

        wait_until(runner.connected, timeout=60, interval=0.5, what="all twenty connected")
        start = time.time()
        mark = lab.mark()

        # Every switch answers a command meant for it alone.
        ids = {d["serial"]: lab.queue_command(
            action="set", context="heartbeat", serial=d["serial"],
            params={"interval": HEARTBEAT * 1000, "serviceLink": {"href": "/heartbeat"}})
            for d in devices}
        results = lab.wait_results(DEVICES, timeout=MINUTE)
        answered = {r["commandId"]: r for r in results}
        for serial, cid in ids.items():
            assert answered[cid]["code"] == 0, answered[cid]
            assert answered[cid]["serial"] == serial

        # The rest of the minute: nobody drops out.
        while time.time() - start < MINUTE:
            assert runner.proc.poll() is None, runner.text()
            time.sleep(5)
            devs = lab.call("GET", "/devices")["devices"]
            down = [d["serial"] for d in devs if not d["connected"]]
            assert not down, f"not connected: {down}"
        elapsed = time.time() - start

        beats = lab.requests(kind="heartbeat", since=mark, status="200")
        per = {}
        for r in beats:
            per.setdefault(r["serial"], []).append(r["time"])
        for d in devices:
            times = per.get(d["serial"], [])
            # One every HEARTBEAT seconds, with room for a slow machine.
            assert len(times) >= elapsed / HEARTBEAT * 0.6, (d["serial"], len(times))
            gaps = [b - a for a, b in zip(times, times[1:])]
            assert max(gaps) < HEARTBEAT * 5, (d["serial"], max(gaps))
            assert {r["client"] for r in beats if r["serial"] == d["serial"]} == {d["address"]}
    finally:
        runner.stop()
    out = runner.text()
    assert "lab: stopped; the device roots stay in" in out
    assert "ended with status" not in out
    # Ctrl-C took every namespace of the fleet away.
    left = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout.split()
    assert not {d["netns"] for d in devices} & set(left)
    assert not [n for n in left if n.startswith("orkad-fleet-hub-") and n.endswith(
        devices[0]["netns"].rsplit("-", 1)[1])]
