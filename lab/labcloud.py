"""The controller API the daemon talks to, over HTTPS: phone-home, the OAuth
token, the heartbeat with its queued commands, command results, the refresh
notice, the current firmware and its image, and the service links its
streams post to (status, statistics, syslog, diagnostics). `dispatch`
answers one request, records it in the lab's request log and applies any
scripted reply or fault first (docs/lab-api.md)."""

import base64
import binascii
import hashlib
import json
import re
import secrets
import time

from . import labhttp
from . import labstatus
from . import labsyslog
from .labhttp import Reply, json_reply
from .labstate import FIRMWARE_PREFIX, FIXED

API = "/api"

NEEDS_TOKEN = {"heartbeat", "response", "refresh", "syslog", "status", "statistics",
               "diagnostics"}

METHODS = {
    "phone_home": ("GET",),
    "token": ("POST",),
    "current_firmware": ("GET",),
    "firmware_image": ("GET", "HEAD"),
}
POSTS = ("POST", "PUT")

REPLY_KEEP = 64 * 1024  # reply bodies kept in the request record


def _text_or_b64(data):
    try:
        return data.decode("utf-8"), None
    except UnicodeDecodeError:
        return None, base64.b64encode(data).decode()


def _iso(t):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(t)) + f".{int(t * 1000) % 1000:03d}Z"


_RESULT_RE = re.compile(r'^\{"response":\[\{"commandId":"(?P<id>.*?)","code":(?P<code>-?\d+),'
                        r'"message":"(?P<msg>.*)"(?:,"data":(?P<data>.*))?\}\]\}$', re.S)


def parse_results(text):
    """The items of a command-result body, and whether the body was valid
    JSON. The daemon puts the message in without escaping it, so a body that
    is not JSON is read by its fixed shape instead."""
    try:
        doc = json.loads(text)
    except ValueError:
        doc = None
    if isinstance(doc, dict) and isinstance(doc.get("response"), list):
        return [i if isinstance(i, dict) else {"item": i} for i in doc["response"]], True
    if doc is not None:
        return [], True
    m = _RESULT_RE.match(text)
    if not m:
        return [], False
    item = {"commandId": m.group("id"), "code": int(m.group("code")), "message": m.group("msg")}
    if m.group("data") is not None:
        try:
            item["data"] = json.loads(m.group("data"))
        except ValueError:
            item["data_text"] = m.group("data")
    return [item], False


def dispatch(lab, req):
    """Answers one request of the controller API."""
    now = time.time()
    body_text, body_b64 = _text_or_b64(req.body)
    full_path = req.path
    mount = lab.config.get("mount")
    if mount and req.path.startswith(mount + "/"):
        req.path = req.path[len(mount):]
    rec = {
        "seq": None, "time": now, "iso": _iso(now), "client": req.client,
        "full_path": full_path,
        "method": req.method, "path": req.path, "query": req.query, "params": req.params,
        "headers": req.headers, "raw_headers": [list(h) for h in req.header_list],
        "body": body_text, "body_base64": body_b64, "json": None, "files": None,
        "kind": None, "serial": None, "status": None, "dropped": None, "scripted": None,
        "reply": None, "reply_size": None, "error": None,
    }
    if body_text:
        try:
            rec["json"] = json.loads(body_text)
        except ValueError:
            pass
    with lab.changed:
        rec["seq"] = lab.next("request")
        rec["kind"] = _kind(lab, req.path)
        rec["serial"] = _serial_of(lab, req, rec["kind"])
        script = lab.take_script(req)
        if script is not None:
            rec["scripted"] = script.id
        lab.requests.append(rec)
        lab.changed.notify_all()
    if script is not None and script.delay:
        lab.stopping.wait(script.delay)
    with lab.changed:
        if script is not None and script.replaces():
            reply = script.reply()
        else:
            reply = _answer(lab, req, rec)
            if script is not None:
                reply.headers.update(script.headers)
        rec["dropped"] = reply.drop
        if not reply.drop:
            rec["status"] = reply.status
            rec["reply_size"] = len(reply.body)
            if rec["kind"] != "firmware_image":
                rec["reply"] = reply.body[:REPLY_KEEP].decode("utf-8", "replace")
        lab.changed.notify_all()
    return reply


def _kind(lab, path):
    if path.startswith(FIRMWARE_PREFIX):
        return "firmware_image"
    if path.startswith(API + "/"):
        sub = path[len(API):]
        return FIXED.get(sub) or lab.links.get(sub)
    return None


def _bearer(req):
    parts = req.headers.get("authorization", "").split(None, 1)
    if not parts or parts[0].lower() != "bearer":
        return None
    return parts[1].strip() if len(parts) > 1 else ""


def _basic(req):
    parts = req.headers.get("authorization", "").split(None, 1)
    if len(parts) != 2 or parts[0].lower() != "basic":
        return None
    try:
        ident, sep, secret = base64.b64decode(parts[1].strip(), validate=True) \
            .decode("utf-8").partition(":")
    except (binascii.Error, ValueError):
        return None
    return (ident, secret) if sep else None


def _serial_of(lab, req, kind):
    if kind == "phone_home":
        return req.params.get("[phone_home]serial")
    if kind == "current_firmware":
        return req.params.get("serial_number")
    if kind == "token":
        ident = _basic(req)
        return ident[0] if ident else None
    tok = _bearer(req)
    t = lab.tokens.get(tok) if tok else None
    return t["serial"] if t else None


def _answer(lab, req, rec):
    kind = rec["kind"]
    if kind is None:
        return json_reply(404, {"error": "not found", "path": req.path})
    allowed = METHODS.get(kind, POSTS)
    if req.method not in allowed:
        return json_reply(405, {"error": "method not allowed"}, {"Allow": ", ".join(allowed)})
    if kind in NEEDS_TOKEN and lab.config["auth"]:
        why = _check_token(lab, req)
        if why:
            rec["error"] = why
            return json_reply(401, {"error": "invalid_token", "error_description": why},
                              {"WWW-Authenticate": 'Bearer realm="orkad-lab"'})
    return HANDLERS[kind](lab, req, rec)


def _check_token(lab, req):
    tok = _bearer(req)
    if tok is None:
        return "missing bearer token"
    t = lab.tokens.get(tok)
    if t is None:
        return "unknown token"
    if t["revoked"]:
        return "revoked token"
    if t["expires_at"] is not None and time.time() >= t["expires_at"]:
        return "expired token"
    return None


def _on_phone_home(lab, req, rec):
    ph = lab.phone_home
    if ph["body"] is not None:
        return json_reply(200, ph["body"])
    out = {}
    if ph["code"] is not None:
        out["code"] = ph["code"]
        if ph["reset_mode"] is not None:
            out["reset-mode"] = ph["reset_mode"]
    else:
        out["cloud_controller"] = ph["cloud_controller"] or lab.base_url
    if ph["timeofday"] is True:
        out["timeofday"] = int(time.time())
    elif ph["timeofday"] is not None:
        out["timeofday"] = ph["timeofday"]
    out.update(ph["extra"])
    return json_reply(200, out)


def _on_token(lab, req, rec):
    if req.params.get("grant_type") != "client_credentials":
        rec["error"] = "grant_type"
        return json_reply(400, {"error": "unsupported_grant_type"})
    ident = _basic(req)
    serials = lab.config["serials"]
    why = None
    if ident is None:
        why = "missing or malformed Basic credentials"
    elif not ident[0] or ident[0] != ident[1]:
        why = "client secret does not match the client id"
    elif serials and ident[0] not in serials:
        why = "unknown device"
    if why:
        rec["error"] = why
        return json_reply(401, {"error": "invalid_client", "error_description": why},
                          {"WWW-Authenticate": 'Basic realm="orkad-lab"'})
    n = int(lab.config["token_length"])
    extra = dict(lab.config["token_extra"])
    token = extra.pop("access_token", None)
    if not isinstance(token, str):
        token = secrets.token_hex(n // 2 + 1)[:n]
        while token in lab.tokens:
            token = secrets.token_hex(n // 2 + 1)[:n]
    exp = lab.config["expires_in"]
    now = time.time()
    lab.tokens[token] = {
        "token": token, "serial": ident[0], "issued": now, "expires_in": exp,
        "expires_at": now + exp if isinstance(exp, int) and not isinstance(exp, bool)
        and exp > 0 else None,
        "revoked": False,
    }
    body = {"access_token": token, "token_type": "bearer", "expires_in": exp}
    body.update(extra)
    return json_reply(200, body)


def _on_heartbeat(lab, req, rec):
    doc = rec["json"]
    if isinstance(doc, dict) and isinstance(doc.get("response"), list):
        # The response link may be the heartbeat path itself.
        return _on_response(lab, req, rec)
    taken = lab.take_commands(rec["serial"])
    if not taken:
        return json_reply(200, {"totalCount": 0, "commandList": []})
    lab.bundles += 1
    bundle = lab.bundles
    href = lab.config["response_href"] or f"/response/{bundle}"
    if href not in lab.links:
        lab.links[href] = "response"
    now = time.time()
    for e in taken:
        e.update(delivered=now, bundle=bundle, href=href, request=rec["seq"], to=rec["serial"])
        lab.delivered.append(e)
    return json_reply(200, {"totalCount": len(taken), "responseLink": {"href": href},
                            "commandList": [e["command"] for e in taken]})


def _on_response(lab, req, rec):
    text = req.body.decode("utf-8", "replace")
    items, valid = parse_results(text)
    now = time.time()
    href = req.path[len(API):]
    for item in items:
        res = {
            "seq": lab.next("result"), "time": now, "path": req.path, "href": href,
            "serial": rec["serial"], "request": rec["seq"], "valid_json": valid,
            "commandId": item.get("commandId"), "code": item.get("code"),
            "message": item.get("message"), "bundle": None, "body": text,
        }
        for k in ("data", "data_text"):
            if k in item:
                res[k] = item[k]
        for e in reversed(lab.delivered):
            c = e["command"]
            if isinstance(c, dict) and c.get("id") == res["commandId"]:
                res["bundle"] = e["bundle"]
                e.setdefault("results", []).append(res["seq"])
                break
        lab.results.append(res)
    if not items:
        rec["error"] = "no command results in the body"
    return json_reply(200, {})


def _on_refresh(lab, req, rec):
    return json_reply(200, {})


def _on_service(lab, req, rec):
    labsyslog.on_service(lab, rec, req)
    ctype = req.headers.get("content-type", "")
    if ctype.lower().startswith("multipart/form-data"):
        parts = labhttp.parse_multipart(ctype, req.body) or []
        rec["files"] = [{
            "name": p["name"], "filename": p["filename"],
            "content_type": p["content_type"], "size": len(p["data"]),
            "sha256": hashlib.sha256(p["data"]).hexdigest(),
            "data_base64": base64.b64encode(p["data"]).decode(),
        } for p in parts]
        lab.archives.add(rec, parts)
    return json_reply(200, {})


def _on_status(lab, req, rec):
    labstatus.on_status(lab, req, rec)
    return _on_service(lab, req, rec)


def _on_current_firmware(lab, req, rec):
    fw = lab.firmware
    if fw["version"] is None:
        return json_reply(200, {"currentFirmware": {}})
    cur = {"version": fw["version"]}
    offer = fw["offer"]
    if offer == "always" or (offer == "auto" and
                             req.params.get("firmware_version") != fw["version"]):
        cur["download"] = {"href": lab.firmware_url()}
    return json_reply(200, {"currentFirmware": cur})


def _on_firmware_image(lab, req, rec):
    fw = lab.firmware
    if fw["version"] is None or req.path != FIRMWARE_PREFIX + lab.firmware_name():
        return json_reply(404, {"error": "no such image"})
    return Reply(200, fw["image"], content_type="application/octet-stream")


# The answer to each kind of request (the kinds of FIXED, of the links and
# the firmware image).
HANDLERS = {
    "phone_home": _on_phone_home,
    "token": _on_token,
    "heartbeat": _on_heartbeat,
    "response": _on_response,
    "refresh": _on_refresh,
    "syslog": _on_service,
    "statistics": _on_service,
    "diagnostics": _on_service,
    "status": _on_status,
    "current_firmware": _on_current_firmware,
    "firmware_image": _on_firmware_image,
}
