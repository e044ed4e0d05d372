"""The lab controller's view of interface statistics: documents posted on any
service link become one time series per interface."""

import base64
import http.client
import json
import os
import ssl


SERIAL = "VX0123456789"


class Device:
    """Posts as the daemon would: HTTPS verified against the device root's
    bundle, with a bearer token."""

    def __init__(self, lab, root):
        self.lab = lab
        self.ctx = ssl.create_default_context(cafile=os.path.join(root, "etc/ca-bundle.pem"))
        basic = base64.b64encode(f"{SERIAL}:{SERIAL}".encode()).decode()
        status, body = self.post("/api/oauth/token?grant_type=client_credentials", None,
                                 {"Authorization": f"Basic {basic}"})
        assert status == 200, body
        self.token = json.loads(body)["access_token"]

    def post(self, path, doc, headers=None):
        conn = http.client.HTTPSConnection("127.0.0.1", self.lab.port, context=self.ctx,
                                           timeout=10)
        try:
            h = dict(headers or {"Authorization": f"Bearer {self.token}"})
            body = b"" if doc is None else json.dumps(doc).encode()
            h["Content-Type"] = "application/json"
            conn.request("POST", path, body=body, headers=h)
            r = conn.getresponse()
            return r.status, r.read()
        finally:
            conn.close()


def doc(stamp, *rows):
    return {"statisticsTime": stamp, "interface": list(rows)}


def test_statistics_series_per_interface(lab, device_root):
    lab.add_link("/devices/1/stats", "statistics")
    dev = Device(lab, device_root)
    d1 = doc("2026-11-21T10:00:15+0000",
             {"id": "eth0", "rx_max": 900, "rx_avg": 500, "tx_max": 80, "tx_avg": 40},
             {"id": "wlan0-1", "radio": "wlan0", "tx_max": 7, "tx_avg": 3})
    d2 = doc("2026-11-21T10:00:30+0000", {"id": "eth0", "rx_avg": 20})
    assert dev.post("/api/devices/1/stats", d1)[0] == 200
    # Any service link will do, even one of another kind.
    assert dev.post("/api/status", d2)[0] == 200
    # Not statistics documents: ignored.
    assert dev.post("/api/devices/1/stats", {"interface": [{"id": "eth0"}]})[0] == 200
    assert dev.post("/api/heartbeat", {"interface": [{"id": "eth0", "status": "up"}]})[0] == 200
    # Not a link of the controller: refused and not counted.
    assert dev.post("/api/nowhere", d2)[0] == 404

    s = lab.statistics()
    assert s["documents"] == 2
    eth0 = s["interfaces"]["eth0"]
    assert [p["statisticsTime"] for p in eth0] == [d1["statisticsTime"], d2["statisticsTime"]]
    assert [(p["rx_max"], p["rx_avg"], p["tx_max"], p["tx_avg"]) for p in eth0] == \
        [(900, 500, 80, 40), (0, 20, 0, 0)]
    assert [p["path"] for p in eth0] == ["/api/devices/1/stats", "/api/status"]
    assert eth0[0]["seq"] < eth0[1]["seq"] and eth0[0]["time"] <= eth0[1]["time"]
    wlan = s["interfaces"]["wlan0-1"]
    assert len(wlan) == 1 and wlan[0]["radio"] == "wlan0"
    assert (wlan[0]["rx_max"], wlan[0]["tx_avg"]) == (0, 3)
    assert s["last"] == eth0[1]["seq"]

    # Filters: interface pattern, path, and records after a sequence number.
    assert list(lab.statistics(id="wlan*")["interfaces"]) == ["wlan0-1"]
    only = lab.statistics(path="/api/status")
    assert only["documents"] == 1 and list(only["interfaces"]) == ["eth0"]
    later = lab.statistics(since=eth0[0]["seq"])
    assert later["documents"] == 1
    assert later["interfaces"]["eth0"][0]["rx_avg"] == 20
