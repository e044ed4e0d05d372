"""The lab controller's views for people, in-process: the devices it has
seen, each device's own ports and statistics, the dashboard's files and the
archive download."""

import base64
import json
import sys
import time

import pytest

from conftest import SOURCE

sys.path.insert(0, f"{SOURCE}/lab")
import controller  # noqa: E402
import labdevices  # noqa: E402
from labhttp import Request  # noqa: E402


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
    assert one["client"] == "192.0.2.11" and one["lanIp"] is None
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
