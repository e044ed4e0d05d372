"""The devices the lab controller has seen, one record per serial number,
for the dashboard and lab/ctl.py: whether each is connected (heartbeating),
when it last was, what its last heartbeat said (uptime, addresses), and what
the lab runner noted about it (device root, namespace, switch model).

    GET  /devices            {"devices": [device, ...], "time": now}
    POST /devices            {"serial": ..., "note": {...}}: notes about a device
"""

import copy
import time

# A device is connected while its last heartbeat is younger than this many
# heartbeat intervals (and never less than MIN_WINDOW seconds).
INTERVALS = 3
MIN_WINDOW = 10.0


def _blank(serial):
    return {"serial": serial, "connected": False, "first_seen": None, "last_seen": None,
            "last_heartbeat": None, "heartbeats": 0, "interval": None, "uptime": None,
            "lanIp": None, "vpnIp": None, "client": None, "results": 0, "status_documents": 0,
            "syslog_lines": 0, "note": {}}


def devices(lab, now=None):
    """Device records, in the order first seen (noted ones first). The
    caller holds the lab's lock."""
    now = time.time() if now is None else now
    out = {}
    for serial, note in lab.device_notes.items():
        out[serial] = _blank(serial)
        out[serial]["note"] = copy.deepcopy(note)
    beats = {}
    for r in lab.requests:
        serial = r["serial"]
        if not serial:
            continue
        d = out.setdefault(serial, _blank(serial))
        d["first_seen"] = d["first_seen"] or r["time"]
        d["last_seen"] = r["time"]
        d["client"] = r["client"]
        doc = r["json"]
        if r["kind"] == "heartbeat" and r["status"] == 200 and isinstance(doc, dict) \
                and "response" not in doc:
            d["heartbeats"] += 1
            beats.setdefault(serial, []).append(r["time"])
            d["last_heartbeat"] = r["time"]
            for k in ("uptime", "lanIp", "vpnIp"):
                d[k] = doc.get(k)
    for r in lab.results:
        if r["serial"] in out:
            out[r["serial"]]["results"] += 1
    for doc in lab.status.documents:
        if doc["serial"] in out:
            out[doc["serial"]]["status_documents"] += 1
    for line in lab.syslog.lines:
        if line.get("serial") in out:
            out[line["serial"]]["syslog_lines"] += 1
    for serial, times in beats.items():
        d = out[serial]
        if len(times) > 1:
            d["interval"] = round(times[-1] - times[-2], 3)
        window = max(MIN_WINDOW, INTERVALS * (d["interval"] or 0))
        d["connected"] = now - times[-1] <= window
    return list(out.values())


def c_devices(lab, doc, q):
    with lab.changed:
        return 200, {"devices": devices(lab), "time": time.time()}


def c_note_device(lab, doc, q):
    serial = doc.get("serial")
    note = doc.get("note", {})
    if not isinstance(serial, str) or not serial:
        raise ValueError("'serial' is the device's serial number")
    if not isinstance(note, dict):
        raise ValueError("'note' is an object")
    with lab.changed:
        lab.device_notes.setdefault(serial, {}).update(copy.deepcopy(note))
        return 200, {"serial": serial, "note": copy.deepcopy(lab.device_notes[serial])}
