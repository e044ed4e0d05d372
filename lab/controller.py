#!/usr/bin/env python3
"""orkad lab controller: the cloud controller side of orkad, for tests and
for people at a bench.

It serves the controller API over HTTPS (phone-home, OAuth token,
heartbeat with queued commands, command results, refresh notice, current
firmware and the image, the syslog/status/statistics/diagnostics service
links) and a JSON control API over plain HTTP, on a Unix socket and/or a TCP
address, to queue commands, script replies and faults and read back every
request received. docs/lab-api.md describes both.

    python3 lab/controller.py --listen 192.0.2.1 --port 8443 --root /tmp/sw1
"""

import argparse
import base64
import binascii
import copy
import fnmatch
import hashlib
import json
import os
import re
import secrets
import signal
import sys
import tempfile
import threading
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import archives  # noqa: E402
import labdevices  # noqa: E402
import labhttp  # noqa: E402
import labpki  # noqa: E402
import labstatus  # noqa: E402
import labweb  # noqa: E402
import statseries  # noqa: E402
import labsyslog  # noqa: E402
from labhttp import Reply  # noqa: E402

API = "/api"

# Resources with a fixed place under /api.
FIXED = {
    "/phone_home": "phone_home",
    "/oauth/token": "token",
    "/current-firmware": "current_firmware",
    "/refresh-config": "refresh",
}

# Links the controller knows from the start (paths under /api). Commands
# queued with a "serviceLink" add theirs.
DEFAULT_LINKS = {
    "/heartbeat": "heartbeat",
    "/syslog": "syslog",
    "/status": "status",
    "/statistics": "statistics",
    "/diagnostics": "diagnostics",
}

LINK_KINDS = ("heartbeat", "response", "syslog", "status", "statistics", "diagnostics")

# The command contexts whose "serviceLink" names a link of the controller.
CONTEXT_KINDS = {
    "heartbeat": "heartbeat",
    "logging": "syslog",
    "status": "status",
    "statistics": "statistics",
    "diagnostics": "diagnostics",
}

NEEDS_TOKEN = {"heartbeat", "response", "refresh", "syslog", "status", "statistics",
               "diagnostics"}

METHODS = {
    "phone_home": ("GET",),
    "token": ("POST",),
    "current_firmware": ("GET",),
    "firmware_image": ("GET", "HEAD"),
}
POSTS = ("POST", "PUT")

FIRMWARE_PREFIX = "/firmware/"

# A reply that starts like a command list and stops in the middle.
BAD_JSON = b'{"totalCount":1,"responseLink":{"href":"/response"},"commandList":[{"action":"set"'

REPLY_KEEP = 64 * 1024  # reply bodies kept in the request record


def _dumps(v):
    return json.dumps(v, separators=(",", ":")).encode()


def _json_reply(status, value, headers=None):
    return Reply(status, _dumps(value), headers)


def _text_or_b64(data):
    try:
        return data.decode("utf-8"), None
    except UnicodeDecodeError:
        return None, base64.b64encode(data).decode()


def _iso(t):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(t)) + f".{int(t * 1000) % 1000:03d}Z"


def _matches(pattern, value):
    if pattern is None:
        return True
    if value is None:
        return False
    if "*" in pattern or "?" in pattern:
        return fnmatch.fnmatchcase(value, pattern)
    return pattern == value


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


class Script:
    """One scripted reply (or fault) for the next `count` matching requests."""

    FIELDS = ("path", "method", "count", "status", "body", "text", "body_base64", "headers",
              "delay", "drop", "bad_json", "content_type", "reason")

    def __init__(self, sid, fields):
        unknown = set(fields) - set(self.FIELDS) - {"forever"}
        if unknown:
            raise ValueError(f"unknown script fields: {sorted(unknown)}")
        if not isinstance(fields.get("path"), str):
            raise ValueError("a script needs a 'path'")
        self.id = sid
        self.fields = dict(fields)
        self.path = fields["path"]
        self.method = fields.get("method")
        if fields.get("forever") or ("count" in fields and fields["count"] is None):
            self.count = None
        else:
            self.count = int(fields.get("count", 1))
            if self.count < 1:
                raise ValueError("'count' must be 1 or more (or null for every request)")
        drop = fields.get("drop")
        if drop is True:
            drop = "close"
        if drop not in (None, False, "close", "reset"):
            raise ValueError("'drop' is true, \"close\" or \"reset\"")
        self.drop = drop or None
        self.delay = float(fields.get("delay") or 0)
        self.headers = dict(fields.get("headers") or {})
        self.used = 0

    def matches(self, req):
        return _matches(self.path, req.path) and (self.method is None or
                                                   self.method.upper() == req.method)

    def replaces(self):
        """Whether it answers in place of the controller (else it only adds a
        delay or headers to the normal answer)."""
        s = self.fields
        return bool(self.drop or s.get("bad_json") or
                    any(k in s for k in ("status", "body", "text", "body_base64")))

    def reply(self):
        s = self.fields
        if s.get("bad_json"):
            body = BAD_JSON
        elif "text" in s:
            body = s["text"].encode()
        elif "body_base64" in s:
            body = base64.b64decode(s["body_base64"])
        elif "body" in s:
            body = _dumps(s["body"])
        else:
            body = b""
        r = Reply(int(s.get("status", 200)), body, self.headers,
                  s.get("content_type", "application/json"), drop=self.drop)
        return r

    def describe(self):
        d = dict(self.fields)
        d.update(id=self.id, remaining=self.count, used=self.used)
        return d


class Lab:
    """The controller's state and its answers. Every method takes the lock;
    `changed` is notified on every new request or result."""

    def __init__(self, base_url="", serials=(), auth=True, expires_in=3600, token_length=40):
        self.changed = threading.Condition(threading.RLock())
        self.stopping = threading.Event()
        self.base_url = base_url
        self.defaults = {
            "auth": auth,
            "expires_in": expires_in,
            "token_length": token_length,
            "token_extra": {},
            "serials": list(serials),
            "response_href": None,
            "batch_limit": None,
            # A path the controller API is served under as well, as a
            # controller behind a gateway is: "/x" serves "/x/api/...".
            "mount": None,
        }
        self.tokens = {}
        self.archives = archives.Archives()
        self.device_notes = {}  # what the lab runner says of each device; kept across resets
        self.reset()

    # ---- state -----------------------------------------------------------

    def reset(self, tokens=False):
        with self.changed:
            self.config = copy.deepcopy(self.defaults)
            self.phone_home = self._phone_home_defaults()
            self.firmware = {"version": None, "image": b"", "offer": "auto", "href": None,
                             "filename": None}
            self.links = dict(DEFAULT_LINKS)
            self.pending = []
            self.delivered = []
            self.scripts = []
            self.requests = []
            self.results = []
            self.connection_errors = []
            self.status = labstatus.StatusView()
            self.bundles = 0
            self.archives.reset()
            self.syslog = labsyslog.SyslogView()
            self._seq = {"request": 0, "command": 0, "result": 0, "script": 0}
            if tokens:
                self.tokens = {}
            self.changed.notify_all()

    @staticmethod
    def _phone_home_defaults():
        return {"cloud_controller": None, "code": None, "reset_mode": None,
                "timeofday": None, "body": None, "extra": {}}

    def _next(self, what):
        self._seq[what] += 1
        return self._seq[what]

    def note_connection_error(self, client, text):
        with self.changed:
            self.connection_errors.append({"time": time.time(), "client": client,
                                           "error": text})
            self.changed.notify_all()

    # ---- the controller API ----------------------------------------------

    def dispatch(self, req):
        """Answers one request of the controller API."""
        now = time.time()
        body_text, body_b64 = _text_or_b64(req.body)
        full_path = req.path
        mount = self.config.get("mount")
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
        with self.changed:
            rec["seq"] = self._next("request")
            rec["kind"] = self._kind(req.path)
            rec["serial"] = self._serial_of(req, rec["kind"])
            script = self._take_script(req)
            if script is not None:
                rec["scripted"] = script.id
            self.requests.append(rec)
            self.changed.notify_all()
        if script is not None and script.delay:
            self.stopping.wait(script.delay)
        with self.changed:
            if script is not None and script.replaces():
                reply = script.reply()
            else:
                reply = self._answer(req, rec)
                if script is not None:
                    reply.headers.update(script.headers)
            rec["dropped"] = reply.drop
            if not reply.drop:
                rec["status"] = reply.status
                rec["reply_size"] = len(reply.body)
                if rec["kind"] != "firmware_image":
                    rec["reply"] = reply.body[:REPLY_KEEP].decode("utf-8", "replace")
            self.changed.notify_all()
        return reply

    def _kind(self, path):
        if path.startswith(FIRMWARE_PREFIX):
            return "firmware_image"
        if path.startswith(API + "/"):
            sub = path[len(API):]
            return FIXED.get(sub) or self.links.get(sub)
        return None

    def _bearer(self, req):
        parts = req.headers.get("authorization", "").split(None, 1)
        if not parts or parts[0].lower() != "bearer":
            return None
        return parts[1].strip() if len(parts) > 1 else ""

    def _serial_of(self, req, kind):
        if kind == "phone_home":
            return req.params.get("[phone_home]serial")
        if kind == "current_firmware":
            return req.params.get("serial_number")
        if kind == "token":
            ident = self._basic(req)
            return ident[0] if ident else None
        tok = self._bearer(req)
        t = self.tokens.get(tok) if tok else None
        return t["serial"] if t else None

    def _take_script(self, req):
        for s in self.scripts:
            if s.matches(req):
                s.used += 1
                if s.count is not None:
                    s.count -= 1
                    if s.count == 0:
                        self.scripts.remove(s)
                return s
        return None

    def _answer(self, req, rec):
        kind = rec["kind"]
        if kind is None:
            return _json_reply(404, {"error": "not found", "path": req.path})
        allowed = METHODS.get(kind, POSTS)
        if req.method not in allowed:
            return _json_reply(405, {"error": "method not allowed"},
                               {"Allow": ", ".join(allowed)})
        if kind in NEEDS_TOKEN and self.config["auth"]:
            why = self._check_token(req)
            if why:
                rec["error"] = why
                return _json_reply(401, {"error": "invalid_token", "error_description": why},
                                   {"WWW-Authenticate": 'Bearer realm="orkad-lab"'})
        return getattr(self, "_on_" + kind)(req, rec)

    def _check_token(self, req):
        tok = self._bearer(req)
        if tok is None:
            return "missing bearer token"
        t = self.tokens.get(tok)
        if t is None:
            return "unknown token"
        if t["revoked"]:
            return "revoked token"
        if t["expires_at"] is not None and time.time() >= t["expires_at"]:
            return "expired token"
        return None

    @staticmethod
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

    # phone-home ------------------------------------------------------------

    def _on_phone_home(self, req, rec):
        ph = self.phone_home
        if ph["body"] is not None:
            return _json_reply(200, ph["body"])
        out = {}
        if ph["code"] is not None:
            out["code"] = ph["code"]
            if ph["reset_mode"] is not None:
                out["reset-mode"] = ph["reset_mode"]
        else:
            out["cloud_controller"] = ph["cloud_controller"] or self.base_url
        if ph["timeofday"] is True:
            out["timeofday"] = int(time.time())
        elif ph["timeofday"] is not None:
            out["timeofday"] = ph["timeofday"]
        out.update(ph["extra"])
        return _json_reply(200, out)

    # token ---------------------------------------------------------------

    def _on_token(self, req, rec):
        if req.params.get("grant_type") != "client_credentials":
            rec["error"] = "grant_type"
            return _json_reply(400, {"error": "unsupported_grant_type"})
        ident = self._basic(req)
        serials = self.config["serials"]
        why = None
        if ident is None:
            why = "missing or malformed Basic credentials"
        elif not ident[0] or ident[0] != ident[1]:
            why = "client secret does not match the client id"
        elif serials and ident[0] not in serials:
            why = "unknown device"
        if why:
            rec["error"] = why
            return _json_reply(401, {"error": "invalid_client", "error_description": why},
                               {"WWW-Authenticate": 'Basic realm="orkad-lab"'})
        n = int(self.config["token_length"])
        extra = dict(self.config["token_extra"])
        token = extra.pop("access_token", None)
        if not isinstance(token, str):
            token = secrets.token_hex(n // 2 + 1)[:n]
            while token in self.tokens:
                token = secrets.token_hex(n // 2 + 1)[:n]
        exp = self.config["expires_in"]
        now = time.time()
        self.tokens[token] = {
            "token": token, "serial": ident[0], "issued": now, "expires_in": exp,
            "expires_at": now + exp if isinstance(exp, int) and not isinstance(exp, bool)
            and exp > 0 else None,
            "revoked": False,
        }
        body = {"access_token": token, "token_type": "bearer", "expires_in": exp}
        body.update(extra)
        return _json_reply(200, body)

    # heartbeat, commands and results ---------------------------------------

    def _on_heartbeat(self, req, rec):
        doc = rec["json"]
        if isinstance(doc, dict) and isinstance(doc.get("response"), list):
            # The response link may be the heartbeat path itself.
            return self._on_response(req, rec)
        taken = self._take_commands(rec["serial"])
        if not taken:
            return _json_reply(200, {"totalCount": 0, "commandList": []})
        self.bundles += 1
        bundle = self.bundles
        href = self.config["response_href"] or f"/response/{bundle}"
        if href not in self.links:
            self.links[href] = "response"
        now = time.time()
        for e in taken:
            e.update(delivered=now, bundle=bundle, href=href, request=rec["seq"],
                     to=rec["serial"])
            self.delivered.append(e)
        return _json_reply(200, {"totalCount": len(taken), "responseLink": {"href": href},
                                 "commandList": [e["command"] for e in taken]})

    def _take_commands(self, serial):
        limit = self.config["batch_limit"]
        taken, kept = [], []
        for e in self.pending:
            mine = serial is None or e["serial"] in ("any", serial)
            if mine and (limit is None or len(taken) < limit):
                taken.append(e)
            else:
                kept.append(e)
        self.pending = kept
        return taken

    def _on_response(self, req, rec):
        text = req.body.decode("utf-8", "replace")
        items, valid = parse_results(text)
        now = time.time()
        href = req.path[len(API):]
        for item in items:
            res = {
                "seq": self._next("result"), "time": now, "path": req.path, "href": href,
                "serial": rec["serial"], "request": rec["seq"], "valid_json": valid,
                "commandId": item.get("commandId"), "code": item.get("code"),
                "message": item.get("message"), "bundle": None, "body": text,
            }
            for k in ("data", "data_text"):
                if k in item:
                    res[k] = item[k]
            for e in reversed(self.delivered):
                c = e["command"]
                if isinstance(c, dict) and c.get("id") == res["commandId"]:
                    res["bundle"] = e["bundle"]
                    e.setdefault("results", []).append(res["seq"])
                    break
            self.results.append(res)
        if not items:
            rec["error"] = "no command results in the body"
        return _json_reply(200, {})

    def queue(self, commands, serial="any", raw=False):
        ids = []
        with self.changed:
            for c in commands:
                n = self._next("command")
                if not raw and isinstance(c, dict):
                    c = dict(c)
                    c.setdefault("id", f"lab-{n}")
                    c.setdefault("flags", "")
                if isinstance(c, dict):
                    self._learn_link(c)
                self.pending.append({"seq": n, "serial": serial or "any", "command": c,
                                     "queued": time.time(), "delivered": None,
                                     "bundle": None, "href": None})
                ids.append(c.get("id") if isinstance(c, dict) else None)
        return ids

    def _learn_link(self, c):
        kind = CONTEXT_KINDS.get(c.get("context"))
        params = c.get("params")
        if kind and isinstance(params, dict) and isinstance(params.get("serviceLink"), dict):
            href = params["serviceLink"].get("href")
            if isinstance(href, str) and href.startswith("/") and href not in FIXED:
                self.links[href] = kind

    # the other resources ---------------------------------------------------

    def _on_refresh(self, req, rec):
        return _json_reply(200, {})

    def _on_service(self, req, rec):
        labsyslog.on_service(self, rec, req)
        ctype = req.headers.get("content-type", "")
        if ctype.lower().startswith("multipart/form-data"):
            parts = labhttp.parse_multipart(ctype, req.body) or []
            rec["files"] = [{
                "name": p["name"], "filename": p["filename"],
                "content_type": p["content_type"], "size": len(p["data"]),
                "sha256": hashlib.sha256(p["data"]).hexdigest(),
                "data_base64": base64.b64encode(p["data"]).decode(),
            } for p in parts]
            self.archives.add(rec, parts)
        return _json_reply(200, {})

    _on_syslog = _on_statistics = _on_diagnostics = _on_service

    def _on_status(self, req, rec):
        labstatus.on_status(self, req, rec)
        return self._on_service(req, rec)

    def _firmware_name(self):
        fw = self.firmware
        if fw["filename"]:
            return fw["filename"]
        safe = re.sub(r"[^A-Za-z0-9._-]", "_", str(fw["version"]))
        return f"image-{safe}.tar"

    def _on_current_firmware(self, req, rec):
        fw = self.firmware
        if fw["version"] is None:
            return _json_reply(200, {"currentFirmware": {}})
        cur = {"version": fw["version"]}
        offer = fw["offer"]
        if offer == "always" or (offer == "auto" and
                                 req.params.get("firmware_version") != fw["version"]):
            href = fw["href"] or f"{self.base_url}{FIRMWARE_PREFIX}{self._firmware_name()}"
            cur["download"] = {"href": href}
        return _json_reply(200, {"currentFirmware": cur})

    def _on_firmware_image(self, req, rec):
        fw = self.firmware
        if fw["version"] is None or req.path != FIRMWARE_PREFIX + self._firmware_name():
            return _json_reply(404, {"error": "no such image"})
        return Reply(200, fw["image"], content_type="application/octet-stream")

    # ---- the control API -------------------------------------------------

    def control(self, req):
        page = labweb.serve(self, req)
        if page is not None:
            return page
        try:
            doc = json.loads(req.body) if req.body.strip() else {}
        except ValueError as e:
            return _json_reply(400, {"error": f"body is not JSON: {e}"})
        route, params = CONTROL.get((req.method, req.path)), req.params
        if route is None:
            route, params = _per_device(req)
        if route is None:
            return _json_reply(404, {"error": f"no control resource {req.method} {req.path}"})
        try:
            status, value = route(self, doc, params)
        except (ValueError, TypeError, KeyError, binascii.Error) as e:
            return _json_reply(400, {"error": str(e)})
        return _json_reply(status, value)

    def info(self):
        return {"base_url": self.base_url, **getattr(self, "extra_info", {})}

    def _c_info(self, doc, q):
        return 200, self.info()

    def _c_reset(self, doc, q):
        self.reset(tokens=bool(doc.get("tokens")))
        return 200, {"ok": True}

    def _c_get_config(self, doc, q):
        with self.changed:
            return 200, copy.deepcopy(self.config)

    def _c_set_config(self, doc, q):
        unknown = set(doc) - set(self.defaults)
        if unknown:
            raise ValueError(f"unknown settings: {sorted(unknown)}")
        with self.changed:
            self.config.update(copy.deepcopy(doc))
            return 200, copy.deepcopy(self.config)

    def _c_token(self, doc, q):
        with self.changed:
            for k, ck in (("expires_in", "expires_in"), ("token_length", "token_length"),
                          ("extra", "token_extra")):
                if k in doc:
                    self.config[ck] = doc[k]
            if doc.get("revoke"):
                for t in self.tokens.values():
                    t["revoked"] = True
            return 200, {"expires_in": self.config["expires_in"],
                         "token_length": self.config["token_length"],
                         "extra": self.config["token_extra"]}

    def _c_tokens(self, doc, q):
        with self.changed:
            return 200, {"tokens": list(copy.deepcopy(self.tokens).values())}

    def _c_set_phone_home(self, doc, q):
        ph = self._phone_home_defaults()
        unknown = set(doc) - set(ph)
        if unknown:
            raise ValueError(f"unknown phone-home fields: {sorted(unknown)}")
        ph.update(doc)
        with self.changed:
            self.phone_home = ph
            return 200, dict(ph)

    def _c_get_phone_home(self, doc, q):
        with self.changed:
            return 200, dict(self.phone_home)

    def _c_set_firmware(self, doc, q):
        fw = {"version": doc.get("version"), "offer": doc.get("offer", "auto"),
              "href": doc.get("href"), "filename": doc.get("filename"), "image": b""}
        if fw["offer"] not in ("auto", "always", "never"):
            raise ValueError("'offer' is \"auto\", \"always\" or \"never\"")
        if "image_base64" in doc:
            fw["image"] = base64.b64decode(doc["image_base64"])
        elif "image_text" in doc:
            fw["image"] = doc["image_text"].encode()
        with self.changed:
            self.firmware = fw
            return 200, self._firmware_view()

    def _firmware_view(self):
        fw = self.firmware
        v = {k: fw[k] for k in ("version", "offer", "href", "filename")}
        v["size"] = len(fw["image"])
        v["sha256"] = hashlib.sha256(fw["image"]).hexdigest()
        v["url"] = (fw["href"] or f"{self.base_url}{FIRMWARE_PREFIX}{self._firmware_name()}") \
            if fw["version"] is not None else None
        return v

    def _c_get_firmware(self, doc, q):
        with self.changed:
            return 200, self._firmware_view()

    def _c_queue(self, doc, q):
        if "commands" in doc:
            cmds = doc["commands"]
            if not isinstance(cmds, list):
                raise ValueError("'commands' is a list")
        elif "command" in doc:
            cmds = [doc["command"]]
        else:
            raise ValueError("give 'command' or 'commands'")
        ids = self.queue(cmds, doc.get("serial", "any"), bool(doc.get("raw")))
        return 200, {"ids": ids}

    def _c_commands(self, doc, q):
        with self.changed:
            pending = [e for e in self.pending if _matches(q.get("serial"), e["serial"])]
            delivered = [e for e in self.delivered if _matches(q.get("serial"), e["serial"])]
            return 200, copy.deepcopy({"pending": pending, "delivered": delivered})

    def _c_clear_commands(self, doc, q):
        with self.changed:
            n = len(self.pending)
            self.pending = []
            return 200, {"cleared": n}

    def _c_add_script(self, doc, q):
        specs = doc.get("replies")
        if specs is None:
            specs = [doc]
        else:
            common = {k: v for k, v in doc.items() if k != "replies"}
            specs = [{**common, **s} for s in specs]
        with self.changed:
            made = [Script(self._next("script"), s) for s in specs]
            self.scripts.extend(made)
            return 200, {"ids": [s.id for s in made]}

    def _c_scripts(self, doc, q):
        with self.changed:
            return 200, {"scripts": [s.describe() for s in self.scripts]}

    def _c_clear_scripts(self, doc, q):
        with self.changed:
            keep = [s for s in self.scripts
                    if q.get("path") is not None and s.path != q.get("path")]
            n = len(self.scripts) - len(keep)
            self.scripts = keep
            return 200, {"cleared": n}

    def _c_links(self, doc, q):
        with self.changed:
            return 200, {"links": dict(self.links), "fixed": dict(FIXED)}

    def _c_add_link(self, doc, q):
        path, kind = doc.get("path"), doc.get("kind")
        if not isinstance(path, str) or not path.startswith("/"):
            raise ValueError("'path' is the link under /api and starts with '/'")
        if kind not in LINK_KINDS:
            raise ValueError(f"'kind' is one of {list(LINK_KINDS)}")
        with self.changed:
            self.links[path] = kind
            return 200, {"links": dict(self.links)}

    def _c_del_link(self, doc, q):
        with self.changed:
            return 200, {"removed": self.links.pop(q.get("path", doc.get("path")), None)}

    def _wait_for(self, select, q):
        wait = float(q.get("wait") or 0)
        count = int(q.get("count") or 1)
        deadline = time.monotonic() + wait
        with self.changed:
            while True:
                found = select()
                left = deadline - time.monotonic()
                if len(found) >= count or left <= 0 or self.stopping.is_set():
                    return copy.deepcopy(found)
                self.changed.wait(min(left, 0.5))

    def _c_requests(self, doc, q):
        since = int(q.get("since") or 0)
        status = q.get("status")

        def select():
            return [r for r in self.requests
                    if r["seq"] > since
                    and _matches(q.get("path"), r["path"])
                    and _matches(q.get("method"), r["method"])
                    and _matches(q.get("kind"), r["kind"] or "unknown")
                    and _matches(q.get("serial"), r["serial"])
                    and (status is None or str(r["status"]) == status)
                    and ("answered" not in q or r["status"] is not None or r["dropped"])]
        found = self._wait_for(select, q)
        return 200, {"requests": found, "last": self._seq["request"]}

    def _c_clear_requests(self, doc, q):
        with self.changed:
            n = len(self.requests)
            self.requests = []
            return 200, {"cleared": n}

    def _c_results(self, doc, q):
        since = int(q.get("since") or 0)

        def select():
            return [r for r in self.results
                    if r["seq"] > since
                    and _matches(q.get("command_id"), r["commandId"])
                    and _matches(q.get("serial"), r["serial"])]
        found = self._wait_for(select, q)
        return 200, {"results": found, "last": self._seq["result"]}

    def _c_errors(self, doc, q):
        with self.changed:
            return 200, {"errors": list(self.connection_errors)}

    def _c_shutdown(self, doc, q):
        threading.Timer(0.1, self.stopping.set).start()
        return 200, {"ok": True}


CONTROL = {
    ("GET", "/info"): Lab._c_info,
    ("POST", "/reset"): Lab._c_reset,
    ("GET", "/config"): Lab._c_get_config,
    ("POST", "/config"): Lab._c_set_config,
    ("POST", "/token"): Lab._c_token,
    ("GET", "/token"): Lab._c_tokens,
    ("GET", "/phone-home"): Lab._c_get_phone_home,
    ("POST", "/phone-home"): Lab._c_set_phone_home,
    ("GET", "/firmware"): Lab._c_get_firmware,
    ("POST", "/firmware"): Lab._c_set_firmware,
    ("POST", "/commands"): Lab._c_queue,
    ("GET", "/commands"): Lab._c_commands,
    ("DELETE", "/commands"): Lab._c_clear_commands,
    ("POST", "/scripts"): Lab._c_add_script,
    ("GET", "/scripts"): Lab._c_scripts,
    ("DELETE", "/scripts"): Lab._c_clear_scripts,
    ("GET", "/links"): Lab._c_links,
    ("POST", "/links"): Lab._c_add_link,
    ("DELETE", "/links"): Lab._c_del_link,
    ("GET", "/requests"): Lab._c_requests,
    ("DELETE", "/requests"): Lab._c_clear_requests,
    ("GET", "/results"): Lab._c_results,
    ("GET", "/statistics"): statseries.control_statistics,
    ("GET", "/connection-errors"): Lab._c_errors,
    ("POST", "/shutdown"): Lab._c_shutdown,
    ("GET", "/archives"): archives.c_archives,
    ("GET", "/archive"): archives.c_archive,
    ("GET", "/status"): labstatus.c_status,
    ("GET", "/status/documents"): labstatus.c_documents,
    ("DELETE", "/status"): labstatus.c_clear,
    ("GET", "/syslog"): labsyslog.c_syslog,
    ("DELETE", "/syslog"): labsyslog.c_clear_syslog,
    ("POST", "/syslog/send"): labsyslog.c_send_syslog,
    ("GET", "/devices"): labdevices.c_devices,
    ("POST", "/devices"): labdevices.c_note_device,
}

# Resources of one device, /devices/<serial>/...: the serial joins the query.
PER_DEVICE = {
    ("GET", "health"): labdevices.c_health,
}


def _per_device(req):
    parts = req.path.split("/")
    if len(parts) != 4 or parts[:2] != ["", "devices"] or not parts[2]:
        return None, None
    route = PER_DEVICE.get((req.method, parts[3]))
    return route, dict(req.params, serial=urllib.parse.unquote(parts[2]))


def _url_host(host):
    return f"[{host}]" if ":" in host else host


class LabServer:
    """The HTTPS listener, the control listeners and the state, started and
    stopped together. Used by main() and, in-process, by lab/labfixture.py."""

    def __init__(self, listen="127.0.0.1", port=0, names=(), url_host=None, state_dir=None,
                 ca_dir=None, roots=(), control_socket=None, control_listen=None,
                 serials=(), auth=True, expires_in=3600):
        self.state_dir = state_dir or tempfile.mkdtemp(prefix="orkad-lab-")
        os.makedirs(self.state_dir, exist_ok=True)
        self.listen = listen
        self.port = port
        wildcard = listen in ("0.0.0.0", "::", "")
        self.url_host = url_host or (names[0] if names else
                                     ("127.0.0.1" if wildcard else listen))
        self.names = []
        for n in [self.url_host, *names, None if wildcard else listen, "127.0.0.1",
                  "localhost"]:
            if n and n not in self.names:
                self.names.append(n)
        self.ca_dir = ca_dir or os.path.join(self.state_dir, "pki")
        self.roots = list(roots)
        self.control_socket = control_socket
        self.control_listen = control_listen
        self.lab = Lab(serials=serials, auth=auth, expires_in=expires_in)
        self.lab.archives.folder = os.path.join(self.state_dir, "archives")
        self.servers = []
        self.threads = []
        self._short_dir = None

    def start(self):
        _, self.ca = labpki.ensure_ca(self.ca_dir)
        stem = f"server-{os.getpid()}-{secrets.token_hex(3)}"
        key, self.cert = labpki.make_server_cert(self.ca_dir, self.names, stem=stem)
        for root in self.roots:
            labpki.install_ca(root, self.ca)
        lab = self.lab
        https = labhttp.TCPServer((self.listen, self.port), lab.dispatch, lab.stopping,
                                  labhttp.server_context(self.cert, key),
                                  lab.note_connection_error)
        self.port = https.server_address[1]
        lab.base_url = f"https://{_url_host(self.url_host)}:{self.port}"
        self.servers.append(https)
        self.control_url = None
        if self.control_listen is not None:
            h, _, p = self.control_listen.rpartition(":")
            h = h.strip("[]") or "127.0.0.1"
            ctl = labhttp.TCPServer((h, int(p or 0)), lab.control, lab.stopping)
            self.control_url = f"http://{_url_host(h)}:{ctl.server_address[1]}"
            self.servers.append(ctl)
        if self.control_socket is not None:
            path = os.path.abspath(self.control_socket)
            if len(path.encode()) > 100:  # sun_path holds 108 bytes
                self._short_dir = tempfile.mkdtemp(prefix="orkad-lab-", dir="/tmp")
                path = os.path.join(self._short_dir, "control.sock")
            self.servers.append(labhttp.UnixServer(path, lab.control, lab.stopping))
            self.control_socket = path
        lab.extra_info = self.info()
        for s in self.servers:
            t = threading.Thread(target=s.serve_forever, kwargs={"poll_interval": 0.05},
                                 name="lab-server", daemon=True)
            t.start()
            self.threads.append(t)
        return self

    def info(self):
        return {
            "base_url": self.lab.base_url, "host": self.url_host, "listen": self.listen,
            "port": self.port, "names": self.names, "ca": self.ca, "cert": self.cert,
            "control_socket": self.control_socket, "control_url": self.control_url,
            "state_dir": self.state_dir, "roots": self.roots, "pid": os.getpid(),
        }

    def write_ready(self, path):
        tmp = path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(self.info(), f, indent=1)
        os.replace(tmp, path)

    def stop(self):
        self.lab.stopping.set()
        with self.lab.changed:
            self.lab.changed.notify_all()
        stoppers = [threading.Thread(target=s.shutdown) for s in self.servers]
        for t in stoppers:
            t.start()
        for t in stoppers:
            t.join()
        for s in self.servers:
            s.close_connections()
            s.server_close()
        for t in self.threads:
            t.join(timeout=5)
        if self.control_socket and os.path.exists(self.control_socket):
            os.unlink(self.control_socket)
        if self._short_dir:
            os.rmdir(self._short_dir)
        self.servers = []


def main(argv=None):
    ap = argparse.ArgumentParser(
        description="orkad lab controller: the controller API over HTTPS and a JSON "
                    "control API (see docs/lab-api.md).")
    ap.add_argument("--listen", default="127.0.0.1", metavar="ADDR",
                    help="address of the HTTPS listener (default 127.0.0.1)")
    ap.add_argument("--port", type=int, default=0,
                    help="HTTPS port (default 0: any free port)")
    ap.add_argument("--name", "--san", action="append", default=[], dest="names",
                    metavar="NAME", help="extra host name or IP address for the server "
                    "certificate (repeatable); the first is used in the base URL")
    ap.add_argument("--url-host", help="host part of the announced base URL "
                    "(default: the first --name, else the listen address)")
    ap.add_argument("--root", action="append", default=[], metavar="DIR",
                    help="device root whose /etc/ca-bundle.pem gets the lab CA (repeatable)")
    ap.add_argument("--state-dir", metavar="DIR",
                    help="folder for certificates, the ready file and the control socket "
                    "(default: a new temporary folder)")
    ap.add_argument("--ca-dir", metavar="DIR",
                    help="folder of the CA, reused when present (default STATE_DIR/pki)")
    ap.add_argument("--control-socket", metavar="PATH",
                    help="serve the control API on this Unix socket "
                    "(default STATE_DIR/control.sock)")
    ap.add_argument("--control-listen", metavar="ADDR:PORT",
                    help="serve the control API on this TCP address too, e.g. 127.0.0.1:0")
    ap.add_argument("--no-control-socket", action="store_true",
                    help="no Unix control socket (then --control-listen is needed)")
    ap.add_argument("--ready-file", metavar="PATH",
                    help="write the listeners' details as JSON here once serving "
                    "(default STATE_DIR/controller.json)")
    ap.add_argument("--serial", action="append", default=[], metavar="SERIAL",
                    help="accept only these devices at the token endpoint (repeatable; "
                    "default: any device whose client id equals its secret)")
    ap.add_argument("--no-auth", action="store_true",
                    help="do not check bearer tokens")
    ap.add_argument("--expires-in", type=int, default=3600, metavar="SECONDS",
                    help="\"expires_in\" of issued tokens (default 3600)")
    a = ap.parse_args(argv)
    state = a.state_dir or tempfile.mkdtemp(prefix="orkad-lab-")
    control_socket = None if a.no_control_socket else \
        (a.control_socket or os.path.join(state, "control.sock"))
    if control_socket is None and a.control_listen is None:
        ap.error("--no-control-socket needs --control-listen")
    server = LabServer(listen=a.listen, port=a.port, names=a.names, url_host=a.url_host,
                       state_dir=state, ca_dir=a.ca_dir, roots=a.root,
                       control_socket=control_socket, control_listen=a.control_listen,
                       serials=a.serial, auth=not a.no_auth, expires_in=a.expires_in)
    try:
        server.start()
    except (OSError, RuntimeError, ValueError) as e:
        print(f"controller: {e}", file=sys.stderr)
        return 1

    def stop(signum, frame):
        server.lab.stopping.set()
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    # The ready file first: whoever reads the printed lines may look for it.
    server.write_ready(a.ready_file or os.path.join(state, "controller.json"))
    print(f"base_url {server.lab.base_url}")
    if server.control_socket:
        print(f"control unix:{server.control_socket}")
    if server.control_url:
        print(f"control {server.control_url}")
    print(f"ca {server.ca}", flush=True)
    while not server.lab.stopping.wait(1.0):
        pass
    server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
