"""orkadctl against the real daemon, in the states a support engineer meets:
no controller yet, heartbeating, the controller gone after heartbeats, the
management VPN up, a stream the controller refuses, and a daemon under the
fault soak's kind of load. --json is checked field by field; the plain text
line by line (times as a pattern: they move)."""

import json
import os
import re
import signal
import subprocess
import threading
import time

import pytest

from lab import devroot
from tests.e2e.kit import CTL, stream_command, wait_until
from tests.e2e.vpn import set_vpn, tunnel_address

WHEN = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \((\d+s ago|in \d+s)\)"


def ctl(daemon, *args, timeout=10):
    t0 = time.monotonic()
    p = subprocess.run([CTL, *args], env=dict(os.environ, ORKAD_ROOT=daemon.root),
                       capture_output=True, text=True, timeout=timeout)
    p.elapsed = time.monotonic() - t0
    return p


def status(daemon):
    """The daemon's answer (with the client's "exit"), once it answers."""
    p = ctl(daemon, "--json", "status")
    assert p.returncode in (0, 1), p.stderr
    got = json.loads(p.stdout)
    assert got["exit"] == p.returncode
    return got


def wait_status(daemon, fn, timeout=20, what="the status"):
    """Asks until fn(answer) holds; the answer."""
    def ask():
        if not os.path.exists(daemon.path("/tmp/orkad_socket")):
            return None
        a = status(daemon)
        return a if fn(a) else None
    return wait_until(ask, timeout, interval=0.2, what=what)


def plain(daemon, code):
    p = ctl(daemon, "status")
    assert p.returncode == code, (p.stdout, p.stderr)
    assert p.stderr == ""
    lines = p.stdout.splitlines()
    assert all(len(line) < 80 for line in lines)
    return lines


def match_lines(lines, patterns):
    assert len(lines) == len(patterns), lines
    for line, pat in zip(lines, patterns):
        assert re.fullmatch(pat, line), (line, pat)


def near_now(t, slack=30):
    return isinstance(t, int) and abs(t - time.time()) <= slack


def check_daemon_fields(a, daemon):
    assert a["version"] == "1.2.0"
    assert a["pid"] == daemon.wait_child()
    assert near_now(a["started"], 120)
    assert isinstance(a["uptime"], int) and 0 <= a["uptime"] < 120
    assert a["restarts"] == 0
    assert a["database"] == {"schema": 9}
    assert a["firmware"]["pending"] is None
    assert set(a) == {"version", "pid", "started", "uptime", "restarts", "controller",
                      "phone_home", "heartbeat", "token", "streams", "vpn", "firmware",
                      "database", "problems", "exit"}
    assert set(a["streams"]) == {"status", "statistics", "syslog"}
    for name, s in a["streams"].items():
        keys = {"enabled", "interval", "last", "result", "posted", "failed"}
        if name == "syslog":
            keys |= {"lines_waiting", "batches_waiting", "dropped"}
        assert set(s) == keys, name


def dump_and_log(daemon):
    """`dump` and `log -n 3` answer in any state: the dump's lines are the
    bytes the daemon says it wrote, the log's three lines follow each other
    in the main log, the newest last."""
    p = ctl(daemon, "dump")
    assert p.returncode == 0, p.stderr
    out = p.stdout.splitlines()
    m = re.fullmatch(r"dumped into /tmp/debug\.log, bytes (\d+) to (\d+)", out[-1])
    assert m and int(m[1]) < int(m[2]), out[-1]
    assert any(re.fullmatch(r"\d+ [\d.]{10} [\d:]{8} log_debug: uptime \d+ seconds", x)
               for x in out)
    with open(daemon.path("/tmp/debug.log"), "rb") as f:
        f.seek(int(m[1]))
        assert f.read(int(m[2]) - int(m[1])).decode().splitlines() == out[:-1]

    p = ctl(daemon, "log", "-n", "3")
    assert p.returncode == 0, p.stderr
    got = p.stdout.splitlines()
    assert len(got) == 3
    with open(daemon.path("/rw/orkad.log")) as f:
        file_lines = f.read().splitlines()
    # The daemon may have written more since.
    i = file_lines.index(got[0])
    assert file_lines[i:i + 3] == got
    p = ctl(daemon, "--json", "log", "-n", "3")
    assert p.returncode == 0
    lines = json.loads(p.stdout)
    assert len(lines) == 3 and file_lines.index(lines[0]) >= i


def no_secrets(daemon, text):
    """Neither the token nor the device's credentials (its serial number is
    both client id and secret) appear in text."""
    for t in daemon.lab.tokens() if hasattr(daemon, "lab") else []:
        assert t["token"] not in text
    assert "access_token" not in text


# ---- no controller yet ------------------------------------------------------

@pytest.fixture
def no_site(daemon, netns):
    """The daemon with a phone-home site that nothing answers."""
    return daemon.start("-s", f"https://{netns.gateway}:9")


def test_no_controller_yet(no_site):
    d = no_site
    a = wait_status(d, lambda a: a["phone_home"]["result"] is not None,
                    what="a phone-home query that failed")
    check_daemon_fields(a, d)
    assert a["exit"] == 1
    assert a["problems"] == ["no controller"]
    assert a["controller"] == {"url": None, "source": None}
    assert a["phone_home"]["state"] in ("asking", "failed")
    assert a["phone_home"]["result"] == 2
    assert near_now(a["phone_home"]["last"])
    assert a["heartbeat"]["last"] is None and a["heartbeat"]["result"] is None
    assert a["heartbeat"]["last_ok"] is None and a["heartbeat"]["failures"] == 0
    assert a["token"] == {"held": False, "expires": None}
    assert a["vpn"] == {"state": "off", "address": None}
    for s in a["streams"].values():
        assert (s["last"], s["result"], s["posted"], s["failed"]) == (None, None, 0, 0)

    lines = plain(d, 1)
    assert re.fullmatch(rf"orkad        1\.2\.0, pid {a['pid']}, up \d+s, restarts 0", lines[0])
    assert lines[1] == "controller   none"
    assert re.fullmatch(rf"phone-home   (asking|failed), transport error \(2\), {WHEN}",
                        lines[2]), lines[2]
    assert lines[3].startswith("heartbeat    every ")
    assert lines[4:7] == ["  last       never", "  last ok    never", "token        none"]
    assert lines[-3:] == ["firmware     " + (a["firmware"]["running"] or "unknown")
                          + ", nothing pending", "database     schema 9",
                          "problems     no controller"]

    dump_and_log(d)


def test_dump_json(no_site):
    d = no_site
    wait_until(lambda: os.path.exists(d.path("/tmp/orkad_socket")), what="the socket")
    p = ctl(d, "--json", "dump")
    assert p.returncode == 0, p.stderr
    got = json.loads(p.stdout)
    assert set(got) == {"dumped", "file", "from", "to", "lines", "exit"}
    assert got["dumped"] is True and got["file"] == "/tmp/debug.log" and got["exit"] == 0
    assert 0 <= got["from"] < got["to"]
    with open(d.path("/tmp/debug.log"), "rb") as f:
        f.seek(got["from"])
        assert f.read(got["to"] - got["from"]).decode().splitlines() == got["lines"]
    assert any("log_debug: uptime " in x for x in got["lines"])


def test_log_follow_across_the_daemons_own_rotation(no_site):
    """Datagrams that are not JSON make the daemon log each one whole (about
    1 KiB a line), so a few hundred carry the main log past its size and
    the daemon rotates it; the follower shows every line once, in order."""
    import socket
    d = no_site
    sock_path = d.path("/tmp/orkad_socket")
    wait_until(lambda: os.path.exists(sock_path), what="the socket")
    f = subprocess.Popen([CTL, "log", "-f", "-n", "0"], env=dict(os.environ, ORKAD_ROOT=d.root),
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    seen = []
    reader = threading.Thread(target=lambda: seen.extend(f.stdout), daemon=True)
    reader.start()
    try:
        wait_until(lambda: any("inotify" in os.readlink(f"/proc/{f.pid}/fd/{fd}")
                               for fd in os.listdir(f"/proc/{f.pid}/fd")),
                   timeout=5, what="the follower's watch")
        count = 320
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            for i in range(count):
                s.sendto(f"not json {i:04d} ".encode() + b"z" * 1000, sock_path)
                if i % 50 == 49:  # let the listener keep up with its queue
                    d.wait_log(f"not json {i:04d} ")
        wait_until(lambda: os.path.exists(d.path("/rw/orkad1.log")), what="a rotation")
        mark = re.compile(r"len = 1014, message = 'not json (\d{4}) z{1000}'")

        def marks():
            return [int(m[1]) for m in (mark.search(x) for x in list(seen)) if m]
        wait_until(lambda: len(marks()) >= count, timeout=15, what="every line followed")
        assert marks() == list(range(count))
        f.send_signal(signal.SIGINT)
        assert f.wait(timeout=5) == 0
    finally:
        if f.poll() is None:
            f.kill()
        f.wait()


# ---- heartbeating -----------------------------------------------------------

def test_heartbeating(heartbeating):
    d, lab = heartbeating, heartbeating.lab
    a = wait_status(d, lambda a: a["heartbeat"]["result"] == 0, what="a heartbeat answered")
    check_daemon_fields(a, d)
    assert a["exit"] == 0 and a["problems"] == []
    assert a["controller"] == {"url": lab.base_url, "source": "site"}
    assert a["phone_home"]["state"] == "done" and a["phone_home"]["result"] == 0
    assert near_now(a["phone_home"]["last"])
    hb = a["heartbeat"]
    assert hb["interval"] == 1 and hb["failures"] == 0
    assert near_now(hb["last"]) and hb["last_ok"] == hb["last"]
    assert a["token"]["held"] is True
    assert abs(a["token"]["expires"] - (time.time() + 3600)) < 60
    assert a["vpn"] == {"state": "off", "address": None}

    lines = plain(d, 0)
    match_lines(lines[:9], [
        r"orkad        1\.2\.0, pid \d+, up \d+s, restarts 0",
        re.escape(f"controller   {lab.base_url}"),
        re.escape("  from       phone-home (-s or homesite)"),
        rf"phone-home   done, ok, {WHEN}",
        r"heartbeat    every 1s, 0 failed in a row",
        rf"  last       {WHEN}, ok",
        rf"  last ok    {WHEN}",
        rf"token        held, expires \d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d \(in \d+s\)",
        r"status       .*",
    ])
    assert lines[-4:] == ["vpn          off",
                          f"firmware     {a['firmware']['running']}, nothing pending",
                          "database     schema 9", "problems     none"]
    no_secrets(d, json.dumps(a) + "\n".join(lines))
    dump_and_log(d)


# ---- the controller gone after heartbeats -----------------------------------

def test_controller_down(heartbeating):
    d, lab = heartbeating, heartbeating.lab
    wait_status(d, lambda a: a["heartbeat"]["result"] == 0, what="a heartbeat answered")
    lab.stop()
    a = wait_status(d, lambda a: a["heartbeat"]["failures"] >= 2, timeout=30,
                    what="two heartbeats failed")
    assert a["exit"] == 1
    assert "heartbeats failing" in a["problems"]
    hb = a["heartbeat"]
    assert hb["result"] == 2
    assert near_now(hb["last"]) and hb["last_ok"] < hb["last"]
    # Still the controller it had: a failing one is not none.
    assert a["controller"]["url"] == lab.base_url

    lines = plain(d, 1)
    assert re.fullmatch(r"heartbeat    every 1s, \d+ failed in a row", lines[4])
    assert re.fullmatch(rf"  last       {WHEN}, transport error \(2\)", lines[5])
    assert re.fullmatch(rf"  last ok    {WHEN}", lines[6])
    assert "problems     heartbeats failing" in lines
    dump_and_log(d)


# ---- a stream the controller refuses ------------------------------------------

def test_a_stream_failing(heartbeating):
    d, lab = heartbeating, heartbeating.lab
    lab.fail("/api/status", 500, count=None)
    lab.queue_command({"action": "set", "context": "status", "id": "st",
                       "params": {"interval": 10000, "serviceLink": {"href": "/status"}}})
    assert lab.wait_result(command_id="st", timeout=20)["code"] == 0
    # The first post comes an interval or two after the command.
    a = wait_status(d, lambda a: a["streams"]["status"]["failed"] >= 1, timeout=45,
                    what="a refused status post")
    assert a["exit"] == 1
    assert a["problems"] == ["status stream failing"]
    s = a["streams"]["status"]
    assert (s["enabled"], s["interval"], s["result"], s["posted"]) == (True, 10, 500, 0)
    assert near_now(s["last"])
    lines = plain(d, 1)
    i = lines.index(f"status       every 10s, 0 posted, {s['failed']} failed")
    assert re.fullmatch(rf"  last       {WHEN}, HTTP 500", lines[i + 1])
    assert lines[-1] == "problems     status stream failing"
    dump_and_log(d)

    # The controller takes them again: all well once one got through.
    lab.clear_scripts("/api/status")
    a = wait_status(d, lambda a: a["streams"]["status"]["posted"] >= 1, timeout=45,
                    what="a status post taken")
    assert a["problems"] == [] and a["exit"] == 0
    assert a["streams"]["status"]["result"] == 0


# ---- the management VPN up ----------------------------------------------------

def test_vpn_up(heartbeating, vpn, tmp_path):
    d, lab = heartbeating, heartbeating.lab
    res = set_vpn(lab, vpn.client_config(str(tmp_path / "client.log")))
    assert (res["code"], res["message"]) == (0, "")
    ip = wait_until(lambda: tunnel_address(d.netns), 20, what="tun0 address")
    a = wait_status(d, lambda a: a["vpn"]["state"] == "up", what="the VPN up")
    assert a["vpn"] == {"state": "up", "address": ip}
    assert a["exit"] == 0
    lines = plain(d, 0)
    assert f"vpn          up, {ip}" in lines
    dump_and_log(d)


# ---- under load -----------------------------------------------------------------

def test_answers_within_a_second_under_the_soaks_load(heartbeating):
    """The fault soak's kind of load for a while: its 128-port switch with
    neighbours and VLANs, every stream at a fast pace, bursts of syslog
    lines, commands, and the controller slow, failing, dropping connections
    and answering broken JSON. Every ask is answered within the client's
    second (else it exits 2)."""
    d, lab = heartbeating, heartbeating.lab
    model = d.path("/var/switch/model.json")
    with open(model + ".new", "w") as f:
        json.dump(devroot.switch_model(128, 4, 4, 1), f)
    os.replace(model + ".new", model)
    lab.queue_commands([stream_command("logging", "lg"), stream_command("status", "st"),
                        stream_command("statistics", "sx")])
    lab.wait_results(3, 30)
    stop = threading.Event()
    rounds = []
    errors = []

    def load():
        faults = [lambda: lab.delay("/api/heartbeat", 2.0, count=2),
                  lambda: lab.fail("/api/syslog", 503, count=3),
                  lambda: lab.drop("/api/status", count=2, how="reset"),
                  lambda: lab.bad_json("/api/heartbeat", count=2)]
        n = 0
        try:
            while not stop.is_set():
                lab.call("POST", "/syslog/send",
                         {"lines": [f"<13>Nov 21 10:11:12 sw1 soak: n={n + i:06d}"
                                    for i in range(50)], "repeat": 4})
                lab.queue_commands([
                    {"action": "set", "context": "heartbeat",
                     "params": {"interval": 1000, "serviceLink": {"href": "/heartbeat"}}},
                    {"action": "set", "context": "config", "params": {}},
                    {"action": "set", "context": "firmware", "params": {}}])
                faults[len(rounds) % len(faults)]()
                n += 50
                rounds.append(time.monotonic())
                stop.wait(0.3)
        except Exception as e:  # reported by the test below
            errors.append(repr(e))

    t = threading.Thread(target=load, daemon=True)
    t.start()
    try:
        worst = 0.0
        asked = 0
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline:
            for args in (["--json", "status"], ["status"], ["dump"]):
                p = ctl(d, *args)
                assert p.returncode in (0, 1), (args, p.stderr)
                assert p.stdout
                worst = max(worst, p.elapsed)
                asked += 1
            time.sleep(0.2)  # the pace of asking, not a wait for a result
        assert errors == []
        assert len(rounds) >= 20, rounds
        assert asked >= 30
        print(f"{asked} asks under load, slowest {worst:.3f} s")
    finally:
        stop.set()
        t.join(timeout=10)
        lab.clear_scripts()
    # The load reached the daemon: it took syslog lines and commands.
    assert lab.requests(kind="syslog")
    assert len(lab.results()) > 20
