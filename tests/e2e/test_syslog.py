"""Syslog forwarding, system settings and reboot end to end: real syslog
datagrams (from the lab and from util-linux logger) to the daemon's receiver
in its network namespace, batches at the lab controller, an outage of the
controller, and the set.system and set.reboot commands against the simulated
switch."""

import base64
import datetime
import json
import os
import re
import signal
import time

from lab import orkad
from tests.e2e.kit import Daemon, wait_until

PORT_HEX = f":{46180:04X} "  # the receiver's port as /proc/net/udp shows it


class Switch(Daemon):
    """The daemon plus what it leaves on the simulated switch."""

    def _dump_lines(self):
        """(line index, text) of the logging dump lines in the debug log."""
        return orkad.debug_lines(self.root, "logging_debug: logbuf = ")

    def dump(self):
        """SIGUSR1 to the working child; the syslog forwarding line of the
        dump it writes, as numbers. (The debug log rotates: the newest line
        is the one with the highest index.)"""
        before = max([i for i, _ in self._dump_lines()], default=0)
        os.kill(self.wait_child(), signal.SIGUSR1)

        def line():
            new = [(i, t) for i, t in self._dump_lines() if i > before]
            return max(new)[1] if new else None
        text = wait_until(line, what="the logging dump in the debug log")
        m = re.search(r"\((\d+)\), overflow = (\d+), oversize = (\d+), "
                      r"ready-logs-count = (\d+)$", text)
        return {"filling": int(m[1]), "overflow": int(m[2]), "oversize": int(m[3]),
                "ready": int(m[4])}


def run_command(lab, context, params, timeout=20.0, results=1):
    cid = lab.queue_command(action="set", context=context, params=params)
    return lab.wait_results(results, timeout, command_id=cid)


def start_forwarding(sw, interval_ms=1000, href="/syslog"):
    res = run_command(sw.lab, "logging", {"interval": interval_ms,
                                          "serviceLink": {"href": href}})
    assert [(r["code"], r["message"]) for r in res] == [(0, "")]
    # The receiver is up once its port is bound in the namespace.
    wait_until(lambda: PORT_HEX in sw.netns.run(["cat", "/proc/net/udp"], text=True).stdout,
               what="the syslog receiver on UDP 46180")


def send(lab, **doc):
    return lab.call("POST", "/syslog/send", doc)


def syslog_lines(lab, count=1, timeout=10.0, since=0):
    deadline = time.monotonic() + timeout
    while True:
        got = lab.call("GET", "/syslog", query={"since": since})["lines"]
        if len(got) >= count or time.monotonic() > deadline:
            return got
        time.sleep(0.05)


def test_lines_arrive_in_order_with_exact_texts(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    start_forwarding(sw)

    # A second set.logging changes the interval of the running sender only.
    res = run_command(lab, "logging", {"interval": 2000, "serviceLink": {"href": "/other"}})
    assert res[0]["code"] == 0
    sw.wait_log("logging_start: logging thread ")
    assert any(re.fullmatch(r"logging_start: logging thread \d+ already running, "
                            r"new interval = 2, enable = true", m) for m in sw.log())

    # The switch was pointed at the receiver once.
    assert sw.calls("rpcclt_openapiLoggingHostAdd") == [
        {"call": "rpcclt_openapiLoggingHostAdd", "host": "127.0.0.1", "result": 0}]
    assert sw.calls("rpcclt_openapiLoggingHostPortSet") == [
        {"call": "rpcclt_openapiLoggingHostPortSet", "host": "127.0.0.1", "port": 46180,
         "result": 0}]
    assert sw.calls("rpcclt_openapiLoggingHostSeveritySet") == [
        {"call": "rpcclt_openapiLoggingHostSeveritySet", "host": "127.0.0.1", "severity": 7,
         "result": 0}]
    assert sw.calls("rpcclt_openapiSysLogModeSet") == [
        {"call": "rpcclt_openapiSysLogModeSet", "mode": 1, "result": 0}]

    send(lab, lines=[
        "<13>Nov 21 10:11:12 sw1 app: first line",          # 1
        '<14>Nov 21 10:11:13 sw1 app: say "hi"',            # 2
        "<13>Nov 21 10:11:14 sw1 app: C:\\temp",            # 3
        "<13>Nov 21 10:11:15 sw1 app: one\r\ntwo\n",        # 4
        "<13>Nov 21 10:11:16 sw1 app: stray \\q",           # 5
        "plain words",                                      # 6: no head
    ])
    send(lab, base64=base64.b64encode(b"<13>bin\x01\xff\xfe").decode())   # 7
    send(lab, text="<13>" + "x" * 65000)                                 # 8: oversize
    send(lab, text="<11>Nov  2 03:04:05 sw1 app: last of the lab")       # 9
    sw.netns.run(["logger", "--rfc3164", "-n", "127.0.0.1", "-P", "46180", "-d",
                  "-t", "e2e", "logger says hi"])                        # 10

    lines = syslog_lines(lab, 9)
    assert [ln["sequence"] for ln in lines] == [1, 2, 3, 4, 5, 6, 7, 9, 10]
    assert [ln["n"] for ln in lines] == list(range(1, 10))
    assert all(ln["path"] == "/api/syslog" for ln in lines)
    year = datetime.date.today().year
    offset = time.strftime("%z")
    assert lines[0]["text"] == (
        '{"sequence":1,"logTime":"%d-11-21T10:11:12%s",'
        '"message":"<13>Nov 21 10:11:12 sw1 app: first line"}' % (year, offset))
    # The quote and the backslashes arrive escaped in the line, so the line
    # decodes to the switch's text.
    assert lines[1]["text"].endswith('"message":"<14>Nov 21 10:11:13 sw1 app: say \\"hi\\""}')
    assert lines[1]["message"] == '<14>Nov 21 10:11:13 sw1 app: say "hi"'
    assert lines[2]["text"].endswith('"message":"<13>Nov 21 10:11:14 sw1 app: C:\\\\temp"}')
    assert lines[2]["message"] == "<13>Nov 21 10:11:14 sw1 app: C:\\temp"
    # Line ends are dropped.
    assert lines[3]["message"] == "<13>Nov 21 10:11:15 sw1 app: onetwo"
    assert lines[4]["message"] == "<13>Nov 21 10:11:16 sw1 app: stray \\q"
    assert lines[5]["message"] == "<13>plain words"
    # A control character travels as a JSON escape; bytes that are not UTF-8
    # arrive as U+FFFD.
    assert lines[6]["text"].endswith('"message":"<13>bin\\u0001\ufffd\ufffd"}')
    assert lines[6]["message"] == "<13>bin\x01\ufffd\ufffd"
    assert lines[7]["logTime"] == "%d-11-02T03:04:05%s" % (year, offset)
    assert lines[7]["message"] == "<11>Nov  2 03:04:05 sw1 app: last of the lab"

    # logger sends user.notice with its own time stamp and host name.
    lg = lines[8]["message"]
    assert lg.startswith("<13>") and lg.endswith(" e2e: logger says hi"), lg
    stamp = datetime.datetime.strptime(f"{year} {lg[4:19]}", "%Y %b %d %H:%M:%S")
    assert lines[8]["logTime"] == stamp.strftime("%Y-%m-%dT%H:%M:%S") + offset

    # Every event was decoded; the 64-KiB datagram, cut to 1024 bytes, is
    # too long to forward and is counted.
    assert [m for m in sw.log() if m.startswith("listener: error decoding message: ")] == []
    d = sw.dump()
    assert (d["overflow"], d["oversize"]) == (0, 1)
    for req in lab.requests(path="/api/syslog"):
        json.loads(req["body"])
    # Batches are posted with the bearer token as JSON.
    req = lab.requests(path="/api/syslog")[0]
    assert req["headers"]["content-type"] == "application/json"
    assert req["headers"]["authorization"].startswith("Bearer ")
    assert req["body"].startswith('{"log":[{"sequence":1,')
    # Nothing went to the link of the second command.
    assert lab.requests(path="/api/other") == []


def strict_posts(lab):
    """The lines of every syslog post, each post parsed as strict JSON (no
    raw control characters in strings)."""
    out = []
    for req in lab.requests(path="/api/syslog", status="200"):
        out.extend(json.loads(req["body"])["log"])
    return out


def test_backslashes_quotes_nul_and_bad_utf8_arrive_as_sent(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    start_forwarding(sw)
    sent = [
        (b"<13>sw1 app: ends in \\", "<13>sw1 app: ends in \\"),
        (b'<13>sw1 app: quoted \\"', '<13>sw1 app: quoted \\"'),
        (b"<13>sw1 app: \\d", "<13>sw1 app: \\d"),
        (b"<13>sw1 app: C:\\temp\\new", "<13>sw1 app: C:\\temp\\new"),
        (b"<13>sw1 app: before\0after", "<13>sw1 app: before"),
        (b"<13>sw1 app: bad \xff\xc3\x28 utf8", "<13>sw1 app: bad \ufffd\ufffd( utf8"),
        (b"<13>sw1 app: tab\there \x1b[0m", "<13>sw1 app: tab\there \x1b[0m"),
    ]
    for raw, _ in sent:
        send(lab, base64=base64.b64encode(raw).decode())
    got = wait_until(lambda: (lambda x: x if len(x) >= len(sent) else None)(strict_posts(lab)),
                     what="every line at the controller")
    assert [ln["message"] for ln in got] == [text for _, text in sent]
    assert [ln["sequence"] for ln in got] == list(range(1, len(sent) + 1))
    assert [m for m in sw.log() if m.startswith("listener: error decoding message: ")] == []
    # Nothing more comes: the next line is the next one the controller sees.
    send(lab, text="<13>sw1 app: marker")
    wait_until(lambda: len(strict_posts(lab)) > len(sent), what="the marker")
    assert [ln["message"] for ln in strict_posts(lab)[len(sent):]] == ["<13>sw1 app: marker"]


def test_refused_batch_is_dropped_and_forwarding_goes_on(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    start_forwarding(sw)
    lab.fail("/api/syslog", 403, count=1)
    send(lab, text="<13>sw1 app: refused")
    sw.wait_log("logging_send: batch refused (err = 403), dropped 1 lines")
    send(lab, text="<13>sw1 app: next")
    got = wait_until(lambda: strict_posts(lab), what="the next batch")
    assert [ln["message"] for ln in got] == ["<13>sw1 app: next"]
    reqs = lab.requests(path="/api/syslog")
    assert [r["status"] for r in reqs] == [403, 200]
    assert "sw1 app: refused" in reqs[0]["body"]
    assert sw.log().count("logging_send: batch refused (err = 403), dropped 1 lines") == 1
    assert not [m for m in sw.log() if m.startswith("logging_send: post errors")]
    # The count is in the dump, on a line of its own.
    os.kill(sw.wait_child(), signal.SIGUSR1)
    sw.wait_log("logging_debug: refused = 1", name="/tmp/debug.log")


def test_receiver_takes_datagrams_on_loopback_only(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    start_forwarding(sw)
    send(lab, text="<13>sw1 app: on loopback")
    wait_until(lambda: strict_posts(lab), what="the first line")
    # The namespace's own eth0 address reaches the host, not the receiver.
    eth0 = sw.netns.address.split("/")[0]
    send(lab, text="<13>sw1 app: from the network", host=eth0)
    send(lab, text="<13>sw1 app: marker")
    wait_until(lambda: len(strict_posts(lab)) >= 2, what="the marker")
    assert [ln["message"] for ln in strict_posts(lab)] == [
        "<13>sw1 app: on loopback", "<13>sw1 app: marker"]
    # Bound to 127.0.0.1 (0100007F), not to every address (00000000).
    udp = sw.netns.run(["cat", "/proc/net/udp"], text=True).stdout
    assert f"0100007F{PORT_HEX}" in udp and f"00000000{PORT_HEX}" not in udp


def test_outage_keeps_accepted_lines_and_counts_overflow(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    start_forwarding(sw)
    lab.fail("/api/syslog", 500, count=None)

    # Lines of about 400 characters: ten to a batch, so 900 lines are more
    # than 65 batches hold.
    filler = "y" * 300
    texts = [f"<13>Nov 21 10:11:12 sw1 app: {i:04d} {filler}" for i in range(1, 901)]
    for k in range(0, len(texts), 100):
        send(lab, lines=texts[k:k + 100], pace=0.0002)
    wait_until(lambda: len(lab.requests(path="/api/syslog", status="500")) >= 2,
               what="failed posts during the outage")

    # The receiver has caught up once the counters stop moving.
    last = None
    for _ in range(50):
        d = sw.dump()
        if d == last:
            break
        last = d
        time.sleep(0.2)
    assert d["overflow"] > 0
    assert d["ready"] >= 64
    assert d["oversize"] == 0
    sw.wait_log("logging_send: post errors (err = 500)")

    lab.clear_scripts("/api/syslog")
    # One full batch a second, oldest first; then the last partial one.
    wait_until(lambda: (lambda x: x["ready"] == 0 and x["filling"] == 0)(sw.dump()),
               timeout=110, interval=1.0, what="the waiting batches to drain")
    final = sw.dump()
    assert final["overflow"] == d["overflow"]
    lines, seen = [], -1
    while len(lines) != seen:
        seen = len(lines)
        time.sleep(1.5)
        lines = lab.call("GET", "/syslog")["lines"]
    seqs = [ln["sequence"] for ln in lines]
    assert seqs == sorted(seqs) and len(set(seqs)) == len(seqs)
    assert len(lines) >= 64 * 10
    for ln in lines:
        assert ln["message"] == texts[ln["sequence"] - 1]
    # Every line taken into a batch arrived, in the order taken: the
    # listener's own record of what it took says so.
    assert [ln["text"] for ln in lines] == accepted(sw)
    # And nothing else went missing: a marker sent now is numbered right
    # after everything the receiver handled, which is what arrived plus
    # what was counted as overflow.
    send(lab, text="<13>Nov 21 10:11:12 sw1 app: marker")
    marker = syslog_lines(lab, 1, since=len(lines), timeout=15)
    assert [m["message"] for m in marker] == ["<13>Nov 21 10:11:12 sw1 app: marker"]
    assert marker[0]["sequence"] - 1 == len(lines) + final["overflow"]
    # Posts after the outage came in the order the batches were filled.
    batches = [ln["batch"] for ln in lines]
    assert batches == sorted(batches)


def accepted(sw):
    """The lines the listener put into batches, from the syslog log file and
    its rotated generations, oldest first."""
    out = []
    for k in (4, 3, 2, 1, 0):
        name = "/rw/syslog.log" if k == 0 else f"/rw/syslog{k}.log"
        for m in sw.log(name):
            if m.startswith("listener: "):
                out.append(m[len("listener: "):])
    return out


def test_reboot_answers_then_reloads(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    res = run_command(lab, "reboot", {"message": "e2e maintenance"}, timeout=20)
    assert [(r["code"], r["message"]) for r in res] == [(0, "")]
    wait_until(lambda: sw.calls("rpcclt_openapiSystemReload"), what="the reload on the switch")
    assert sw.calls("rpcclt_openapiSystemReload") == [
        {"call": "rpcclt_openapiSystemReload", "result": 0}]
    sw.syslog.wait_for("reboot initiated: 'e2e maintenance'")
    sw.wait_log("icos_system_reload: system restart initiated successfully.")


def test_refused_reload_sends_a_second_status_and_system_settings_stick(agent):
    sw = agent(Switch, start=True)
    lab = sw.lab
    res = run_command(lab, "system", {"password": "n3w-pass", "location": "lab bench",
                                      "bad": 5})
    assert [(r["code"], r["message"]) for r in res] == [(1, "failed to set properties: bad")]
    assert [(j["userName"], j["password"]) for j in sw.calls("rpcclt_openapiUserSet")] == \
        [("admin", "n3w-pass")]
    assert len(sw.calls("rpcclt_openapiSaveConfig")) == 1

    with open(sw.path("/var/switch/faults.json"), "w") as f:
        json.dump([{"call": "rpcclt_openapiSystemReload", "result": -26}], f)
    res = run_command(lab, "reboot", {}, timeout=20, results=2)
    assert [(r["code"], r["message"]) for r in res] == [
        (0, ""), (-1, "Failed to reboot, error code: 1")]
    sw.syslog.wait_for("reboot initiated by cloud-services")
    pid, pri, _ = sw.syslog.wait_for("Failed to reboot, error code: 1")
    assert pri == 10  # user.crit
    sw.wait_log("cmd_set_reboot: Failed to reboot, error code: 1")
