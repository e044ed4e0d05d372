"""Another program holding the settings database: the real daemon in its
network namespace waits for the lock instead of losing its work. Commands
that arrive while the file is held exclusively are stored and answered once
it is let go, the heartbeat goes on, and a syslog line taken in meanwhile
still reaches the controller."""

import sqlite3
import time

from tests.e2e.kit import wait_until

PORT_HEX = f":{46180:04X} "  # the receiver's port as /proc/net/udp shows it
HOLD = 3.0  # seconds the other program keeps the file


def start_forwarding(sw):
    cid = sw.lab.queue_command(action="set", context="logging",
                               params={"interval": 1000, "serviceLink": {"href": "/syslog"}})
    res = sw.lab.wait_results(1, 20, command_id=cid)
    assert [(r["code"], r["message"]) for r in res] == [(0, "")]
    wait_until(lambda: PORT_HEX in sw.netns.run(["cat", "/proc/net/udp"], text=True).stdout,
               what="the syslog receiver on UDP 46180")


def note(i):
    return {"action": "set", "context": "system", "id": f"lock-{i}",
            "params": {f"e2e-note-{i}": f"value {i}"}}


def test_commands_answers_heartbeats_and_syslog_wait_out_a_held_database(heartbeating):
    sw, lab = heartbeating, heartbeating.lab
    start_forwarding(sw)

    # The next heartbeat is answered late: once the daemon has posted it
    # (with the controller's address already read), the file is taken, and
    # the five commands queued then go out in that heartbeat's answer.
    mark = lab.mark()
    script = lab.delay("/api/heartbeat", 1.5)[0]
    wait_until(lambda: [r for r in lab.requests(kind="heartbeat", since=mark)
                        if r["scripted"] == script], timeout=10,
               what="the heartbeat that is answered late")
    held = sqlite3.connect(sw.path("/etc/varnex/config/startup.db"), timeout=10,
                           isolation_level=None)
    held.execute("BEGIN EXCLUSIVE")
    locked_at = time.time()
    ids = lab.queue_commands([note(i) for i in range(1, 6)])
    lab.call("POST", "/syslog/send", {"text": "<13>Nov 21 10:11:12 sw1 e2e: said while locked"})

    def delivered():
        entries = [e for e in lab.delivered_commands() if e["command"]["id"] in ids]
        return entries if len(entries) == 5 and all(e["delivered"] for e in entries) else None
    entries = wait_until(delivered, timeout=HOLD - 0.5, interval=0.05,
                         what="the five commands in one heartbeat's answer")
    assert len({e["bundle"] for e in entries}) == 1
    assert all(locked_at < e["delivered"] < locked_at + HOLD for e in entries)

    # The other program keeps the file for its three seconds, then lets go.
    time.sleep(max(0.0, locked_at + HOLD - time.time()))
    held.execute("ROLLBACK")
    held.close()
    released_at = time.time()

    results = lab.wait_results(5, 30, command_id="lock-*")
    assert [(r["commandId"], r["code"], r["message"]) for r in results] == [
        (f"lock-{i}", 0, "") for i in range(1, 6)]
    # Each was answered after the lock, not before it was taken.
    assert all(r["time"] >= released_at - 0.5 for r in results)
    db = sqlite3.connect(sw.path("/etc/varnex/config/startup.db"))
    stored = dict(db.execute("SELECT key, value FROM system WHERE key LIKE 'system.e2e-note-%'"))
    db.close()
    assert stored == {f"system.e2e-note-{i}": f"value {i}" for i in range(1, 6)}

    # The heartbeat goes on; the line taken in during the lock arrives.
    after = lab.mark()
    lab.wait_requests(2, 10, kind="heartbeat", since=after)
    lines = wait_until(lambda: lab.call("GET", "/syslog",
                                        query={"contains": "said while locked"})["lines"],
                       timeout=15, what="the line sent while the database was held")
    assert [ln["message"] for ln in lines] == ["<13>Nov 21 10:11:12 sw1 e2e: said while locked"]

    log = sw.log()
    assert not [m for m in log if "database is locked" in m]
    assert "cloud_controller not set, skipping heartbeats!" not in log
    assert len(sw.children()) == 1
