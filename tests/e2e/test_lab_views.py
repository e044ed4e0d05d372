"""The lab controller's views for people: the devices it has seen, each
device's health, ports and statistics, the dashboard's files and the
archive download; in-process, and the health view against a real daemon."""

import base64
import json
import time

import pytest

from lab import controller, labdevices
from lab.labhttp import Request
from tests.e2e.kit import SOURCE, wait_until


class Bench:
    """A controller's state, driven by requests made up here."""

    def __init__(self):
        self.lab = controller.Lab(base_url="https://192.0.2.1:8443")
        self.tokens = {}

    def send(self, method, target, body=b"", headers=None, client="192.0.2.11"):
        if isinstance(body, (dict, list)):
            body = json.dumps(body).encode()
        return self.lab.dispatch(Request(method, target, headers or {}, body, client))

    def login(self, serial, client):
        basic = base64.b64encode(f"{serial}:{serial}".encode()).decode()
        r = self.send("POST", "/api/oauth/token?grant_type=client_credentials",
                      headers={"Authorization": f"Basic {basic}"}, client=client)
        self.tokens[serial] = json.loads(r.body)["access_token"]

    def post(self, serial, path, doc, client="192.0.2.11"):
        return self.send("POST", path, doc, client=client,
                         headers={"Authorization": f"Bearer {self.tokens[serial]}",
                                  "Content-Type": "application/json"})

    def control(self, method, target, body=None):
        data = json.dumps(body).encode() if body is not None else b""
        r = self.lab.control(Request(method, target, {}, data, "local"))
        return r.status, r


@pytest.fixture
def bench():
    return Bench()


def body(reply):
    return json.loads(reply.body)


def test_devices_view_from_heartbeats_and_notes(bench):
    st, r = bench.control("POST", "/devices", {"serial": "VX2", "note": {"name": "sw2"}})
    assert st == 200 and body(r) == {"serial": "VX2", "note": {"name": "sw2"}}
    bench.login("VX1", "192.0.2.11")
    bench.post("VX1", "/api/heartbeat", {"uptime": 77, "lanIp": "192.0.2.11",
                                         "vpnIp": "10.9.0.2"})
    bench.post("VX1", "/api/heartbeat", {"uptime": 78})
    devs = {d["serial"]: d for d in body(bench.control("GET", "/devices")[1])["devices"]}
    assert list(devs) == ["VX2", "VX1"]
    one = devs["VX1"]
    assert one["connected"] is True and one["heartbeats"] == 2 and one["uptime"] == 78
    # The daemon sends its addresses only when they change: the last ones hold.
    assert one["client"] == "192.0.2.11" and one["lanIp"] == "192.0.2.11"
    assert one["vpnIp"] == "10.9.0.2"
    assert devs["VX2"]["connected"] is False and devs["VX2"]["note"] == {"name": "sw2"}
    assert devs["VX2"]["last_heartbeat"] is None
    # A note is kept across a reset; what the device sent is not.
    bench.control("POST", "/reset", {})
    devs = body(bench.control("GET", "/devices")[1])["devices"]
    assert [(d["serial"], d["heartbeats"]) for d in devs] == [("VX2", 0)]


def test_a_device_is_not_connected_after_three_missed_heartbeats(bench):
    bench.login("VX1", "192.0.2.11")
    for _ in range(2):
        bench.post("VX1", "/api/heartbeat", {"uptime": 1})
    with bench.lab.changed:
        times = [r for r in bench.lab.requests if r["kind"] == "heartbeat"]
        times[0]["time"], times[1]["time"] = 1000.0, 1020.0   # every 20 s
        assert labdevices.devices(bench.lab, now=1079.0)[0]["connected"] is True
        assert labdevices.devices(bench.lab, now=1081.0)[0]["connected"] is False
        assert labdevices.devices(bench.lab, now=1081.0)[0]["interval"] == 20.0


def test_a_refused_heartbeat_does_not_count(bench):
    bench.login("VX1", "192.0.2.11")
    bench.control("POST", "/scripts", {"path": "/api/heartbeat", "status": 500})
    bench.post("VX1", "/api/heartbeat", {"uptime": 1})
    d = body(bench.control("GET", "/devices")[1])["devices"][0]
    assert (d["serial"], d["heartbeats"], d["connected"]) == ("VX1", 0, False)


def test_bad_device_notes_are_refused(bench):
    assert bench.control("POST", "/devices", {"note": {}})[0] == 400
    st, r = bench.control("POST", "/devices", {"serial": "VX1", "note": []})
    assert st == 400 and body(r) == {"error": "'note' is an object"}


def port(pid, link):
    return {"id": pid, "name": f"0/{pid}", "operational_status": link}


def test_status_and_statistics_per_device(bench):
    bench.login("VX1", "192.0.2.11")
    bench.login("VX2", "192.0.2.12")
    bench.post("VX1", "/api/status", {"port": [port("1", "up"), port("2", "up")]})
    bench.post("VX2", "/api/status", {"port": [port("1", "down")]}, client="192.0.2.12")
    one = body(bench.control("GET", "/status?serial=VX1")[1])
    assert [(p["id"], p["operational_status"]) for p in one["ports"]] == [("1", "up"), ("2", "up")]
    assert one["documents"] == 1
    two = body(bench.control("GET", "/status?serial=VX2")[1])
    assert [(p["id"], p["operational_status"], p["serial"]) for p in two["ports"]] == \
        [("1", "down", "VX2")]
    assert body(bench.control("GET", "/status?serial=VX9")[1])["ports"] == []
    # Without a serial: the merged view as before.
    assert len(body(bench.control("GET", "/status")[1])["ports"]) == 2

    doc = {"statisticsTime": "2026-11-21T10:00:00Z",
           "interface": [{"id": "eth0", "rx_max": 10, "rx_avg": 5, "tx_max": 8, "tx_avg": 4}]}
    bench.post("VX1", "/api/statistics", doc)
    bench.post("VX2", "/api/statistics", dict(doc, interface=[{"id": "eth0", "rx_max": 99}]),
               client="192.0.2.12")
    s = body(bench.control("GET", "/statistics?serial=VX2")[1])
    assert s["documents"] == 1 and [p["rx_max"] for p in s["interfaces"]["eth0"]] == [99]
    assert body(bench.control("GET", "/statistics")[1])["documents"] == 2


def test_dashboard_files(bench):
    st, r = bench.control("GET", "/")
    assert st == 200 and r.content_type.startswith("text/html")
    assert b"<title>orkad lab</title>" in r.body
    st, r = bench.control("GET", "/web/app.js")
    assert st == 200 and r.content_type.startswith("text/javascript")
    st, r = bench.control("GET", "/web/commands.json")
    assert st == 200 and len(json.loads(r.body)) == 12
    # Nothing outside lab/web, and nothing that is not there.
    for bad in ("/web/../controller.py", "/web/%2e%2e/controller.py", "/web/.hidden",
                "/web/nothing.js", "/web/"):
        assert bench.control("GET", bad)[0] == 404, bad
    # Other methods on those paths are the control API's.
    assert bench.control("POST", "/")[0] == 404


def test_every_script_and_style_ships_with_the_page():
    import os
    import re
    web = os.path.join(SOURCE, "lab", "web")
    for name in os.listdir(web):
        with open(os.path.join(web, name)) as f:
            text = f.read()
        # No page loads anything from another place.
        assert not re.search(r"(src|href)=[\"']?(https?:)?//", text), name
        assert not re.search(r"@import|fetch\([\"'`]https?:", text), name


def test_archive_download(bench):
    bench.login("VX1", "192.0.2.11")
    form = (b"--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"d i.tar.gz\"\r\n"
            b"Content-Type: application/octet-stream\r\n\r\n\x00\x01archive\r\n--b--\r\n")
    bench.send("POST", "/api/diagnostics", form, headers={
        "Authorization": f"Bearer {bench.tokens['VX1']}",
        "Content-Type": "multipart/form-data; boundary=b"})
    st, r = bench.control("GET", "/archive/download?seq=1")
    assert st == 200 and r.body == b"\x00\x01archive"
    assert r.headers["Content-Disposition"] == 'attachment; filename="1-d_i.tar.gz"'
    assert bench.control("GET", "/archive/download?seq=2")[0] == 404
    assert bench.control("GET", "/archive/download")[0] == 400


def test_time_moves(bench):
    # The devices view carries the controller's clock, for "seconds ago".
    t = body(bench.control("GET", "/devices")[1])["time"]
    assert abs(t - time.time()) < 5


def health(bench, serial):
    st, r = bench.control("GET", f"/devices/{serial}/health")
    assert st == 200, r.body
    return body(r)


def answer_commands(bench, serial, code=0):
    """One heartbeat that takes the queued commands, and their results."""
    cmds = body(bench.post(serial, "/api/heartbeat", {"uptime": 9}))
    items = [{"commandId": c["id"], "code": code, "message": ""} for c in cmds["commandList"]]
    bench.post(serial, "/api" + cmds["responseLink"]["href"], {"response": items})
    return [c["id"] for c in cmds["commandList"]]


def test_health_of_a_device_nobody_has_heard_of(bench):
    st, r = bench.control("GET", "/devices/VX9/health")
    assert st == 404 and body(r) == {"error": "no device VX9"}
    assert bench.control("GET", "/devices//health")[0] == 404
    assert bench.control("GET", "/devices/VX9/nothing")[0] == 404
    # A device the runner told of, before it calls in: nothing yet.
    bench.control("POST", "/devices", {"serial": "VX2", "note": {"name": "sw2"}})
    h = health(bench, "VX2")
    assert h["heartbeat"]["last"] is None and h["heartbeat"]["count"] == 0
    assert h["token"] == {"held": False, "expires": None, "issued": None}
    assert h["streams"]["status"] == {
        "interval": None, "enabled": False, "commanded": None, "asked": None, "link": None,
        "code": None, "last": None, "answer": None, "last_ok": None, "posted": 0, "failed": 0}
    assert h["phone_home"] == {"last": None, "answer": None, "count": 0, "query": None,
                               "reply": None}


def test_health_phone_home_firmware_and_token(bench):
    bench.send("GET", "/api/phone_home?[phone_home]serial=VX1&[phone_home]boot=1"
                      "&[phone_home]primary=1.0.0.1&[phone_home]secondary=1.0.0.7")
    h = health(bench, "VX1")
    ph = h["phone_home"]
    assert ph["answer"] == 200 and ph["count"] == 1 and abs(ph["last"] - time.time()) < 5
    assert ph["query"] == {"[phone_home]serial": "VX1", "[phone_home]boot": "1",
                           "[phone_home]primary": "1.0.0.1", "[phone_home]secondary": "1.0.0.7"}
    assert ph["reply"] == {"cloud_controller": "https://192.0.2.1:8443"}
    # Boot bank 1 runs the secondary image.
    assert h["firmware"]["running"] == "1.0.0.7" and h["firmware"]["via"] == "phone-home"
    assert h["firmware"]["offered"] is None

    # The firmware check names the running version, and the lab offers one.
    bench.control("POST", "/firmware", {"version": "2.0.0.0", "image_text": "image"})
    bench.send("GET", "/api/current-firmware?serial_number=VX1&firmware_version=1.0.0.8")
    fw = health(bench, "VX1")["firmware"]
    assert (fw["running"], fw["via"], fw["offered"]) == ("1.0.0.8", "current-firmware", "2.0.0.0")

    bench.login("VX1", "192.0.2.11")
    tok = health(bench, "VX1")["token"]
    assert tok["held"] is True and tok["expires"] == tok["issued"] + 3600
    assert bench.lab.tokens[bench.tokens["VX1"]]["token"] not in json.dumps(health(bench, "VX1"))
    bench.control("POST", "/token", {"revoke": True})
    assert health(bench, "VX1")["token"]["held"] is False
    # A token without end: held, with no expiry.
    bench.control("POST", "/token", {"expires_in": 0})
    bench.login("VX1", "192.0.2.11")
    assert health(bench, "VX1")["token"] == dict(tok, held=True, expires=None,
                                                 issued=health(bench, "VX1")["token"]["issued"])


def test_health_heartbeats_and_what_was_asked(bench):
    bench.login("VX1", "192.0.2.11")
    bench.post("VX1", "/api/heartbeat", {"uptime": 40, "lanIp": "192.0.2.11", "vpnIp": ""})
    bench.post("VX1", "/api/heartbeat", {"uptime": 41, "vpnIp": "10.9.0.2"})
    bench.post("VX1", "/api/heartbeat", {"uptime": 42})
    with bench.lab.changed:
        beats = [r for r in bench.lab.requests if r["kind"] == "heartbeat"]
        for r, t in zip(beats, (1000.0, 1002.0, 1004.5)):
            r["time"] = t
        h = labdevices.health(bench.lab, "VX1", now=1010.0)
    hb = h["heartbeat"]
    assert (hb["last"], hb["ago"], hb["gap"], hb["answer"], hb["last_ok"], hb["count"],
            hb["failures"], hb["uptime"]) == (1004.5, 5.5, 2.5, 200, 1004.5, 3, 0, 42)
    assert hb["interval"] is None and hb["asked"] is None
    assert h["vpn"] == {"address": "10.9.0.2", "reported": 1002.0}

    # set.heartbeat: asked, then taken.
    bench.control("POST", "/commands", {"command": {
        "action": "set", "context": "heartbeat",
        "params": {"interval": 2999, "serviceLink": {"href": "/heartbeat"}}}})
    bench.control("POST", "/commands", {"command": {
        "action": "set", "context": "heartbeat",
        "params": {"interval": 61000, "serviceLink": {"href": "/beat"}}}})
    cmds = body(bench.post("VX1", "/api/heartbeat", {"uptime": 43}))
    hb = health(bench, "VX1")["heartbeat"]
    assert (hb["asked"], hb["link"], hb["code"], hb["interval"]) == (61, "/beat", None, None)
    first, second = [c["id"] for c in cmds["commandList"]]
    bench.post("VX1", "/api" + cmds["responseLink"]["href"], {"response": [
        {"commandId": first, "code": 0, "message": ""},
        {"commandId": second, "code": -1, "message": "heartbeat interval out of range"}]})
    hb = health(bench, "VX1")["heartbeat"]
    # The daemon runs at the interval it took, not at the one it refused.
    assert (hb["asked"], hb["code"], hb["interval"]) == (61, -1, 2)
    assert hb["commanded"] is not None

    # A refused heartbeat counts as a failure, not as a heartbeat.
    bench.control("POST", "/scripts", {"path": "/api/heartbeat", "status": 503, "count": 2})
    bench.post("VX1", "/api/heartbeat", {"uptime": 44})
    bench.post("VX1", "/api/heartbeat", {"uptime": 45})
    hb = health(bench, "VX1")["heartbeat"]
    assert (hb["answer"], hb["failures"], hb["count"], hb["uptime"]) == (503, 2, 4, 45)
    assert hb["last_ok"] < hb["last"]


def test_health_streams_as_commanded_and_refused(bench):
    bench.login("VX1", "192.0.2.11")
    for context, ms, href in (("status", 10000, "/status/sw1"),
                              ("statistics", 15000, "/statistics"),
                              ("logging", 1000, "/syslog")):
        bench.control("POST", "/commands", {"serial": "VX1", "command": {
            "action": "set", "context": context,
            "params": {"interval": ms, "serviceLink": {"href": href}}}})
    answer_commands(bench, "VX1")
    s = health(bench, "VX1")["streams"]
    assert [(k, v["enabled"], v["interval"], v["link"], v["code"], v["posted"])
            for k, v in s.items()] == [("status", True, 10, "/status/sw1", 0, 0),
                                       ("statistics", True, 15, "/statistics", 0, 0),
                                       ("syslog", True, 1, "/syslog", 0, 0)]
    assert s["syslog"]["lines"] == 0

    # The lab refuses the status stream: the answer it gave, and a failure.
    bench.control("POST", "/scripts", {"path": "/api/status/sw1", "status": 500})
    bench.post("VX1", "/api/status/sw1", {"port": [port("1", "up")]})
    st = health(bench, "VX1")["streams"]["status"]
    assert (st["answer"], st["posted"], st["failed"], st["last_ok"]) == (500, 0, 1, None)
    assert st["last"] is not None
    bench.post("VX1", "/api/status/sw1", {"port": [port("1", "up")]})
    st = health(bench, "VX1")["streams"]["status"]
    assert (st["answer"], st["posted"], st["failed"], st["last_ok"]) == (200, 1, 1, st["last"])

    # Dropped without an answer.
    bench.control("POST", "/scripts", {"path": "/api/statistics", "drop": True})
    bench.post("VX1", "/api/statistics", {"statisticsTime": "x", "interface": []})
    sx = health(bench, "VX1")["streams"]["statistics"]
    assert (sx["answer"], sx["posted"], sx["failed"]) == (None, 0, 1)

    line = '{"sequence":%d,"logTime":"2026-11-21T10:11:12+0000","message":"<13>hello"}'
    bench.send("POST", "/api/syslog",
               ('{"log":[%s,%s]}' % (line % 1, line % 2)).encode(),
               headers={"Authorization": f"Bearer {bench.tokens['VX1']}",
                        "Content-Type": "application/json"})
    sl = health(bench, "VX1")["streams"]["syslog"]
    assert (sl["lines"], sl["posted"], sl["answer"]) == (2, 1, 200)
    # Another device's posts are not this one's.
    bench.login("VX2", "192.0.2.12")
    bench.post("VX2", "/api/status/sw1", {"port": []}, client="192.0.2.12")
    assert health(bench, "VX1")["streams"]["status"]["posted"] == 1
    assert health(bench, "VX2")["streams"]["status"]["enabled"] is False


SERIAL = "VX0123456789"  # the device root's default serial


def test_health_of_a_real_daemon_heartbeating(heartbeating):
    lab = heartbeating.lab
    lab.wait_requests(3, kind="heartbeat", timeout=20)
    h = lab.call("GET", f"/devices/{SERIAL}/health")
    beats = lab.requests(kind="heartbeat")
    last = [r for r in beats if r["time"] == h["heartbeat"]["last"]][0]
    hb = h["heartbeat"]
    assert (hb["answer"], hb["failures"], hb["last_ok"]) == (200, 0, hb["last"])
    assert hb["count"] == len([r for r in beats if r["time"] <= hb["last"]]) >= 3
    # The boot environment's one second, plus the pulse itself.
    assert 0.9 <= hb["gap"] < 2.5 and 0 <= hb["ago"] < 5
    assert hb["interval"] is None and hb["asked"] is None
    # The heartbeat's uptime is the switch's, since boot.
    assert hb["uptime"] == last["json"]["uptime"]
    with open("/proc/uptime") as f:
        assert abs(hb["uptime"] - float(f.read().split()[0])) < 10
    # No tunnel: the first heartbeat said so, and nothing changed since.
    assert h["vpn"] == {"address": "", "reported": beats[0]["time"]}

    token = lab.requests(kind="token")[-1]
    assert h["token"]["held"] is True and abs(h["token"]["issued"] - token["time"]) < 1
    assert h["token"]["expires"] == h["token"]["issued"] + 3600
    ph = h["phone_home"]
    assert (ph["count"], ph["answer"]) == (1, 200)
    assert ph["query"]["[phone_home]serial"] == SERIAL and ph["query"]["[phone_home]boot"] == "0"
    assert ph["reply"] == {"cloud_controller": lab.base_url}
    # The version the firmware check named, the one the device root runs.
    assert (h["firmware"]["running"], h["firmware"]["via"]) == ("1.0.0.1", "current-firmware")
    assert h["streams"]["status"]["enabled"] is False

    # set.heartbeat: the interval asked and taken, and the pace that follows.
    cid = lab.queue_command(action="set", context="heartbeat",
                            params={"interval": 2000, "serviceLink": {"href": "/heartbeat"}})
    assert lab.wait_result(cid, timeout=10)["code"] == 0
    hb = lab.call("GET", f"/devices/{SERIAL}/health")["heartbeat"]
    assert (hb["interval"], hb["asked"], hb["link"], hb["code"]) == (2, 2, "/heartbeat", 0)
    wait_until(lambda: 1.9 <= lab.call("GET", f"/devices/{SERIAL}/health")["heartbeat"]["gap"]
               < 3.5, timeout=15, what="heartbeats two seconds apart")


def test_health_of_a_real_daemon_whose_status_stream_is_refused(heartbeating):
    lab = heartbeating.lab
    lab.fail("/api/status/refused", 500, count=None)
    cid = lab.queue_command(action="set", context="status",
                            params={"interval": 10000,
                                    "serviceLink": {"href": "/status/refused"}})
    assert lab.wait_result(cid, timeout=10)["code"] == 0
    refused = lab.wait_request(path="/api/status/refused", status=500, timeout=40)
    h = lab.call("GET", f"/devices/{SERIAL}/health")
    st = h["streams"]["status"]
    assert (st["enabled"], st["interval"], st["link"], st["code"]) == \
        (True, 10, "/status/refused", 0)
    assert (st["answer"], st["posted"], st["last_ok"]) == (500, 0, None)
    assert st["failed"] >= 1 and st["last"] >= refused["time"]
    # The other streams were never started; the heartbeats go on.
    assert h["streams"]["statistics"]["enabled"] is False
    assert h["streams"]["syslog"]["lines"] == 0
    assert h["heartbeat"]["answer"] == 200 and h["heartbeat"]["failures"] == 0
