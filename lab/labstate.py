"""What the lab controller knows, shared by the cloud API (labcloud.py) and
the control API (labcontrol.py): its settings, the tokens it issued, the
links it serves, the commands queued and delivered, the command results,
every request received, the scripted replies and faults, and the records
of the streams (status, syslog, uploaded archives).

One lock guards it all: `changed`, a condition on a reentrant lock, which
is notified on every new request or result so that a reader can wait for
what it expects (`wait_for`).
"""

import base64
import copy
import re
import threading
import time

from . import archives
from . import labstatus
from . import labsyslog
from .labhttp import Reply, compact_json, matches

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

FIRMWARE_PREFIX = "/firmware/"

# A reply that starts like a command list and stops in the middle.
BAD_JSON = b'{"totalCount":1,"responseLink":{"href":"/response"},"commandList":[{"action":"set"'


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
        return matches(self.path, req.path) and (self.method is None or
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
            body = compact_json(s["body"])
        else:
            body = b""
        return Reply(int(s.get("status", 200)), body, self.headers,
                     s.get("content_type", "application/json"), drop=self.drop)

    def describe(self):
        d = dict(self.fields)
        d.update(id=self.id, remaining=self.count, used=self.used)
        return d


def phone_home_defaults():
    return {"cloud_controller": None, "code": None, "reset_mode": None,
            "timeofday": None, "body": None, "extra": {}}


class State:
    """The shared state. Whoever reads or changes it holds `changed`."""

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

    def reset(self, tokens=False):
        with self.changed:
            self.config = copy.deepcopy(self.defaults)
            self.phone_home = phone_home_defaults()
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
            self.last = {"request": 0, "command": 0, "result": 0, "script": 0}
            if tokens:
                self.tokens = {}
            self.changed.notify_all()

    def next(self, what):
        """The next number of a request, command, result or script."""
        self.last[what] += 1
        return self.last[what]

    def info(self):
        return {"base_url": self.base_url, **getattr(self, "extra_info", {})}

    def note_connection_error(self, client, text):
        with self.changed:
            self.connection_errors.append({"time": time.time(), "client": client,
                                           "error": text})
            self.changed.notify_all()

    def wait_for(self, select, q):
        """What `select()` finds once it finds ?count= items (default 1) or
        ?wait= seconds have passed (default 0), whichever comes first."""
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

    def take_script(self, req):
        """The first script that matches `req`, used once."""
        for s in self.scripts:
            if s.matches(req):
                s.used += 1
                if s.count is not None:
                    s.count -= 1
                    if s.count == 0:
                        self.scripts.remove(s)
                return s
        return None

    # ---- commands ----------------------------------------------------------

    def queue(self, commands, serial="any", raw=False):
        ids = []
        with self.changed:
            for c in commands:
                n = self.next("command")
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

    def take_commands(self, serial):
        """The pending commands for `serial` (all for an unknown device), at
        most "batch_limit" of them, taken off the queue."""
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

    # ---- firmware ----------------------------------------------------------

    def firmware_name(self):
        fw = self.firmware
        if fw["filename"]:
            return fw["filename"]
        safe = re.sub(r"[^A-Za-z0-9._-]", "_", str(fw["version"]))
        return f"image-{safe}.tar"

    def firmware_url(self):
        """Where the device is sent for the image."""
        return self.firmware["href"] or f"{self.base_url}{FIRMWARE_PREFIX}{self.firmware_name()}"
