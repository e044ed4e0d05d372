"""The devices the lab controller has seen, one record per serial number,
for the dashboard and lab/ctl.py: whether each is connected (heartbeating),
when it last was, what its heartbeats said (uptime, addresses), and what
the lab runner noted about it (device root, namespace, switch model).

    GET  /devices                  {"devices": [device, ...], "time": now}
    POST /devices                  {"serial": ..., "note": {...}}: notes about a device
    GET  /devices/<serial>/health  how one device is, as the controller sees it

The health view puts the controller's side beside what the daemon says of
itself (`orkadctl status --json`): where a figure means the same on both
sides it has the same name there (heartbeat "interval", "last", "last_ok",
"failures"; token "held", "expires"; each stream's "enabled", "interval",
"last", "posted", "failed"; vpn "address"; firmware "running"). Where the
daemon has a "result" (0 for a 2xx), the lab has "answer": the HTTP status
it answered.
"""

import copy
import json
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
            d["uptime"] = doc.get("uptime")
            # The daemon sends its addresses only when they change (or after
            # a failed heartbeat), so the last one reported still holds.
            for k in ("lanIp", "vpnIp"):
                if k in doc:
                    d[k] = doc[k]
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


# The streams a device posts, by the kind of link they arrive on, and the
# context of the command that starts each.
STREAMS = (("status", "status"), ("statistics", "statistics"), ("syslog", "logging"))


def _ok(status):
    return isinstance(status, int) and 200 <= status < 300


def _seconds(ms):
    """An interval of a command (milliseconds) in the daemon's seconds."""
    return ms // 1000 if isinstance(ms, int) and not isinstance(ms, bool) else None


def _commanded(lab, serial, context):
    """The "set.<context>" commands delivered to the device: what the last
    one asked and how the daemon answered it, and the interval of the last
    one it took (code 0), which is the one it runs at."""
    codes = {}
    for r in lab.results:
        if r["serial"] == serial:
            codes[r["commandId"]] = r["code"]
    out = {"interval": None, "enabled": False, "commanded": None, "asked": None,
           "link": None, "code": None}
    for e in lab.delivered:
        c = e["command"]
        if e["to"] != serial or not isinstance(c, dict) or c.get("action") != "set" \
                or c.get("context") != context:
            continue
        params = c.get("params") if isinstance(c.get("params"), dict) else {}
        link = params.get("serviceLink")
        code = codes.get(c.get("id"))
        out.update(commanded=e["delivered"], asked=_seconds(params.get("interval")),
                   link=link.get("href") if isinstance(link, dict) else None, code=code)
        if code == 0:
            out.update(interval=out["asked"], enabled=True)
    return out


def _posts(records):
    """Figures of a run of request records of one kind, oldest first."""
    out = {"last": None, "answer": None, "last_ok": None, "posted": 0, "failed": 0,
           "failures": 0}
    for r in records:
        out["last"], out["answer"] = r["time"], r["status"]
        if _ok(r["status"]):
            out["posted"] += 1
            out["last_ok"] = r["time"]
            out["failures"] = 0
        elif r["status"] is not None or r["dropped"]:
            out["failed"] += 1
            out["failures"] += 1
    return out


def _reply_json(rec):
    try:
        return json.loads(rec["reply"]) if rec["reply"] else None
    except ValueError:
        return None


def health(lab, serial, now=None):
    """How one device is, from the controller's side (docs/lab-api.md), or
    None for a serial the lab has neither seen nor been told of. The caller
    holds the lab's lock."""
    now = time.time() if now is None else now
    mine = [r for r in lab.requests if r["serial"] == serial]
    if not mine and serial not in lab.device_notes:
        return None
    kinds = {}
    for r in mine:
        doc = r["json"]
        if r["kind"] == "heartbeat" and isinstance(doc, dict) and "response" in doc:
            continue  # command results posted on the heartbeat link
        kinds.setdefault(r["kind"], []).append(r)

    beats = kinds.get("heartbeat", [])
    hb = _posts(beats)
    hb["count"] = hb.pop("posted")
    del hb["failed"]
    hb["ago"] = round(now - hb["last"], 3) if hb["last"] is not None else None
    hb["gap"] = round(beats[-1]["time"] - beats[-2]["time"], 3) if len(beats) > 1 else None
    asked = _commanded(lab, serial, "heartbeat")
    del asked["enabled"]
    hb.update(asked)
    hb["uptime"] = None
    vpn = {"address": None, "reported": None}
    for r in beats:
        doc = r["json"]
        if isinstance(doc, dict):
            if "uptime" in doc:
                hb["uptime"] = doc["uptime"]
            if "vpnIp" in doc:
                vpn = {"address": doc["vpnIp"], "reported": r["time"]}

    issued = [t for t in lab.tokens.values() if t["serial"] == serial]
    token = {"held": False, "expires": None, "issued": None}
    if issued:
        t = max(issued, key=lambda t: t["issued"])
        token = {"held": not t["revoked"] and (t["expires_at"] is None or now < t["expires_at"]),
                 "expires": t["expires_at"], "issued": t["issued"]}

    streams = {}
    for kind, context in STREAMS:
        s = _commanded(lab, serial, context)
        s.update(_posts(kinds.get(kind, [])))
        del s["failures"]
        streams[kind] = s
    streams["syslog"]["lines"] = sum(1 for line in lab.syslog.lines
                                     if line.get("serial") == serial)

    asks = kinds.get("phone_home", [])
    phone = {"last": None, "answer": None, "count": len(asks), "query": None, "reply": None}
    if asks:
        r = asks[-1]
        phone.update(last=r["time"], answer=r["status"], query=dict(r["params"]),
                     reply=_reply_json(r))

    # The running version: the current-firmware query names it; the
    # phone-home query gives both banks and the one booted.
    firmware = {"running": None, "reported": None, "via": None, "offered": None}
    for r in sorted(asks + kinds.get("current_firmware", []), key=lambda r: r["seq"]):
        p = r["params"]
        if r["kind"] == "current_firmware" and "firmware_version" in p:
            firmware.update(running=p["firmware_version"], reported=r["time"],
                            via="current-firmware")
        elif r["kind"] == "phone_home" and "[phone_home]boot" in p:
            bank = "primary" if p["[phone_home]boot"] == "0" else "secondary"
            firmware.update(running=p.get(f"[phone_home]{bank}"), reported=r["time"],
                            via="phone-home")
    checks = [r for r in kinds.get("current_firmware", []) if _ok(r["status"])]
    if checks:
        cur = (_reply_json(checks[-1]) or {}).get("currentFirmware")
        if isinstance(cur, dict) and isinstance(cur.get("download"), dict):
            firmware["offered"] = cur.get("version")

    return {"serial": serial, "time": now, "heartbeat": hb, "token": token,
            "streams": streams, "vpn": vpn, "firmware": firmware, "phone_home": phone}


def c_health(lab, doc, q):
    serial = q.get("serial")
    with lab.changed:
        h = health(lab, serial)
        if h is None:
            return 404, {"error": f"no device {serial}"}
        return 200, copy.deepcopy(h)
