"""Every command the controller has, queued in one heartbeat reply and each
answered as the daemon promises; the ones that take the device away (the
switch's reload, the factory reset) stand in through the simulated switch's
fault and the recorded factory-reset script. Then one SIGUSR1 dumps every
module's state in the order the handlers were registered."""

import base64
import json
import os
import signal
import sqlite3

from tests.e2e.kit import NO_CLOCK, wait_until

# Set for a daemon built with AddressSanitizer (scripts/test.sh).
LEAK_CHECK = os.environ.get("ORKAD_LEAK_CHECK") == "1"

# A point-to-point tunnel without TLS: OpenVPN accepts it and brings tun0 up
# at once, with nobody at the other end.
CLIENT_OVPN = "dev tun\nremote 127.0.0.1 1194\nifconfig 10.9.0.2 10.9.0.1\nverb 1\n"

# The lab holds the diagnostics upload this long: the management VPN, started
# just before it and stopped just after, is up meanwhile for a few
# heartbeats at the new pace (two seconds) to carry its address.
UPLOAD_HOLD = 6

TWELVE = [
    ("set", "heartbeat", {"interval": 2000, "serviceLink": {"href": "/heartbeat"}}),
    ("set", "config", {"portConfiguration": [{"id": "5", "admin_status": "down"}]}),
    ("set", "status", {"interval": 10000, "serviceLink": {"href": "/status"}}),
    ("set", "statistics", {"interval": 15000, "serviceLink": {"href": "/statistics"}}),
    ("set", "logging", {"interval": 1000, "serviceLink": {"href": "/syslog"}}),
    ("set", "system", {"location": "bench 4"}),
    ("set", "firmware", {}),
    ("set", "sslVpn", {"clientOvpn": base64.b64encode(CLIENT_OVPN.encode()).decode()}),
    ("get", "diagnostics", {"serviceLink": {"href": "/diagnostics"}}),
    ("del", "sslVpn", {}),
    ("set", "reboot", {"message": "the whole road"}),
    ("del", "config", {}),
]


def write_faults(agent, faults):
    path = agent.path("/var/switch/faults.json")
    with open(path + ".tmp", "w") as f:
        json.dump(faults, f)
    os.replace(path + ".tmp", path)


def keep_settings_at_reset(agent):
    """The device's factory reset, preceded by a copy of the settings database
    it erases (rw/settings-before-reset.db)."""
    tool = agent.path("/usr/sbin/varnex-factory-reset")
    os.rename(tool, tool + ".real")
    with open(tool, "w") as f:
        f.write('#!/bin/sh\n'
                'root="${ORKAD_ROOT:-$(cd "$(dirname "$0")/../.." && pwd)}"\n'
                'cp "$root/etc/varnex/config/startup.db" "$root/rw/settings-before-reset.db"\n'
                'exec "$0.real" "$@"\n')
    os.chmod(tool, 0o755)


def setting_in(db, key):
    con = sqlite3.connect(f"file:{db}?mode=ro", uri=True)
    try:
        row = con.execute("SELECT value FROM system WHERE key = ?", (key,)).fetchone()
    finally:
        con.close()
    return row[0] if row else None


def test_every_command_in_one_reply(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    # The reload comes back with an error instead of taking the switch away.
    write_faults(agent, [{"call": "rpcclt_openapiSystemReload", "result": -26}])
    keep_settings_at_reset(agent)
    lab.delay("/api/diagnostics", UPLOAD_HOLD)
    agent.start("-s", lab.base_url)
    lab.wait_request(kind="heartbeat", status=200, timeout=20)

    mark = lab.mark()
    ids = lab.queue_commands([{"action": a, "context": c, "params": p} for a, c, p in TWELVE])
    results = lab.wait_results(14, timeout=60)
    # All twelve went out in one reply.
    delivered = [c for c in lab.delivered_commands() if c["command"]["id"] in ids]
    assert len({c["bundle"] for c in delivered}) == 1

    by_id = {}
    for r in results:
        by_id.setdefault(r["commandId"], []).append((r["code"], r["message"]))
    names = [f"{a}.{c}" for a, c, _ in TWELVE]
    answers = {name: by_id.get(cid) for name, cid in zip(names, ids)}
    assert answers == {
        "set.heartbeat": [(0, "")],
        "set.config": [(0, "")],
        "set.status": [(0, "")],
        "set.statistics": [(0, "")],
        "set.logging": [(0, "")],
        "set.system": [(0, "")],
        "set.firmware": [(0, "")],
        "set.sslVpn": [(0, "")],
        "del.sslVpn": [(0, "")],
        "get.diagnostics": [(0, "")],
        # Answered before the reload; the switch refused it (the adapter says 1),
        # so a second status.
        "set.reboot": [(0, ""), (-1, "Failed to reboot, error code: 1")],
        # Answered before the reset; the recorded reset returns, so the
        # handshake is reported as failed.
        "del.config": [(0, ""), (-1, "failed 'del.config' handshake (response/reply phase)")],
    }
    # In the order queued, one at a time.
    assert [r["commandId"] for r in results] == (
        ids[:10] + [ids[10], ids[10], ids[11], ids[11]])

    # What each did where it shows.
    journal = agent.journal()
    assert {"call": "rpcclt_openapiIfAdminStateSet", "ifNum": 5, "adminState": 0,
            "result": 0} in journal
    assert {"call": "rpcclt_openapiSystemReload", "result": -26} in journal
    assert lab.wait_archives(1)[0]["filename"] == "diagnostics.tar.gz"
    assert not os.path.exists(agent.path("/etc/openvpn/client.ovpn"))
    # The recorded reset erased the settings, "system.location" with them.
    wait_until(lambda: os.path.exists(agent.path("/rw/factory-reset.log")),
               what="the recorded factory reset")
    assert not os.path.exists(agent.path("/etc/varnex/config/startup.db"))
    agent.syslog.wait_for("reboot initiated: 'the whole road'")
    # set.system stored the property before the reset erased the settings.
    assert setting_in(agent.path("/rw/settings-before-reset.db"), "system.location") == "bench 4"
    # The firmware check reached the lab.
    lab.wait_request(kind="current_firmware", since=mark, timeout=30)
    # The management VPN's address rode on a heartbeat while it was up.
    vpn = [h["json"].get("vpnIp") for h in lab.requests(kind="heartbeat", since=mark)
           if isinstance(h["json"], dict) and "vpnIp" in h["json"]]
    assert "10.9.0.2" in vpn, vpn
    # A status document and a line of the switch's syslog, forwarded.
    assert lab.wait_status_documents(1, timeout=30)
    lines = lab.call("GET", "/syslog")["lines"]
    lab.call("POST", "/syslog/send", {"text": "<13>sw1 app: along the full road"})
    wait_until(lambda: any("along the full road" in json.dumps(ln) for ln in
                           lab.call("GET", "/syslog", query={"since": len(lines)})["lines"]),
               timeout=30, what="the forwarded syslog line")
    # The heartbeat's new pace: after the reset, three heartbeats two seconds
    # apart (one second before the command). The last wait of the road: none
    # of these had come when the daemon started.
    after = lab.mark()
    beats = lab.wait_requests(3, kind="heartbeat", since=after, timeout=30)[:3]
    gaps = [b["time"] - a["time"] for a, b in zip(beats, beats[1:])]
    assert all(1.8 <= g < 5 for g in gaps), gaps
    # A statistics document, one period (15 s) after the command.
    lab.wait_request(kind="statistics", path="/api/statistics", since=mark, timeout=60)

    # A daemon built with AddressSanitizer looks for leaks once the road is
    # travelled: nothing any command or stream allocated may be left behind.
    if LEAK_CHECK:
        report = agent.leak_check(agent.wait_child())
        assert report == "", report[:20000]
        assert agent.log()[-1] == "leak_check: no leaks"


def test_one_sigusr1_dumps_every_module_in_handler_order(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", lab.base_url)
    lab.wait_request(kind="heartbeat", status=200, timeout=20)
    child = agent.wait_child()
    # heartbeat_debug is registered by the heartbeat thread, last.
    agent.wait_log("registered new handler 'heartbeat_debug' for signal 10")
    os.kill(child, signal.SIGUSR1)

    # Each dump's first line, as the module writes it.
    firsts = (("log_debug", "log_debug: uptime "), ("worker_debug", "work_free_queue: count="),
              ("http_debug", "free_replies: count="), ("logging_debug", "logging_debug: "),
              ("status_debug", "status_debug: "), ("heartbeat_debug", "heartbeat_debug: "))

    def dumps():
        lines = []
        # Oldest generation first: a rotation may cut the dump in two.
        for name in ("debug1.log", "debug.log"):
            path = agent.path("/tmp/" + name)
            if os.path.exists(path):
                with open(path, errors="replace") as f:
                    lines += f.read().splitlines()
        order = []
        for line in lines:
            for who, first in firsts:
                if first in line and who not in order:
                    order.append(who)
        return order if "heartbeat_debug" in order else None

    assert wait_until(dumps, what="the dumps") == [who for who, _ in firsts]
    registered = [m.split("'")[1] for m in agent.log()
                  if m.startswith("registered new handler") and m.endswith("for signal 10")]
    assert registered == ["log_debug", "worker_debug", "http_debug", "logging_debug",
                          "status_debug", "heartbeat_debug"]
