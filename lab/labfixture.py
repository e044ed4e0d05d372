"""The lab controller for tests: start it (in this process, or as a program
behind an argv prefix such as a network namespace's) and drive it through
its control API.

    lab = LabController(root=device_root, host="192.0.2.1", prefix=netns.prefix())
    lab.queue_command(action="set", context="heartbeat",
                      params={"interval": 5000, "serviceLink": {"href": "/heartbeat"}})
    hb = lab.wait_request(path="/api/heartbeat")
    res = lab.wait_result(command_id="lab-1")
    lab.stop()

docs/lab-api.md describes the control API that LabClient wraps.
"""

import base64
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from urllib.parse import quote, urlencode, urlsplit

from . import SOURCE, program


class LabError(Exception):
    """The control API refused a call."""


class _UnixConnection(http.client.HTTPConnection):
    def __init__(self, path, timeout):
        super().__init__("lab", timeout=timeout)
        self.unix_path = path

    def connect(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(self.timeout)
        s.connect(self.unix_path)
        self.sock = s


def given(**members):
    """The members that have a value: None leaves a member out."""
    return {k: v for k, v in members.items() if v is not None}


def command(action, context, params=None, id=None, flags=None, **more):
    """A command object as the controller queues it; "id" and "flags" are
    filled in by the controller when left out."""
    return {"action": action, "context": context,
            **given(params=params, id=id, flags=flags), **more}


class LabClient:
    """Client of the control API, over its Unix socket or its TCP URL."""

    def __init__(self, socket_path=None, url=None, timeout=30.0):
        self.socket_path = socket_path
        self.url = url
        self.timeout = timeout

    # ---- transport -------------------------------------------------------

    def _connection(self, timeout):
        if self.socket_path:
            return _UnixConnection(self.socket_path, timeout)
        u = urlsplit(self.url)
        return http.client.HTTPConnection(u.hostname, u.port, timeout=timeout)

    def call(self, method, resource, body=None, timeout=None, query=None):
        """One control call; returns the decoded JSON reply."""
        q = {k: v for k, v in (query or {}).items() if v is not None}
        target = resource + ("?" + urlencode(q, quote_via=quote) if q else "")
        conn = self._connection(timeout or self.timeout)
        try:
            data = json.dumps(body).encode() if body is not None else None
            conn.request(method, target, body=data,
                         headers={"Content-Type": "application/json"} if data else {})
            r = conn.getresponse()
            raw = r.read()
        finally:
            conn.close()
        value = json.loads(raw) if raw else None
        if r.status != 200:
            raise LabError(f"{method} {target}: {r.status} {value}")
        return value

    # ---- general ---------------------------------------------------------

    def info(self):
        return self.call("GET", "/info")

    def reset(self, tokens=False):
        """Forgets requests, results, commands, scripts and settings (issued
        tokens too with tokens=True)."""
        return self.call("POST", "/reset", {"tokens": tokens})

    def config(self, **settings):
        """Reads, or with arguments changes, the settings: auth, expires_in,
        token_length, token_extra, serials, response_href, batch_limit."""
        if settings:
            return self.call("POST", "/config", settings)
        return self.call("GET", "/config")

    def set_auth(self, required=True):
        return self.config(auth=required)

    def add_link(self, path, kind):
        return self.call("POST", "/links", {"path": path, "kind": kind})["links"]

    def links(self):
        return self.call("GET", "/links")["links"]

    def connection_errors(self):
        return self.call("GET", "/connection-errors")["errors"]

    # ---- commands --------------------------------------------------------

    def queue_command(self, cmd=None, serial="any", raw=False, **fields):
        """Queues one command (a dict, or the fields of one) for the device
        with this serial number, or for any device; returns its id."""
        if cmd is None:
            cmd = command(**fields)
        return self.call("POST", "/commands",
                         {"command": cmd, "serial": serial, "raw": raw})["ids"][0]

    def queue_commands(self, cmds, serial="any", raw=False):
        """Queues several commands; they go out together in one heartbeat
        reply unless a batch limit is set. Returns their ids."""
        return self.call("POST", "/commands",
                         {"commands": list(cmds), "serial": serial, "raw": raw})["ids"]

    def commands(self, serial=None):
        """{"pending": [...], "delivered": [...]} queue entries."""
        return self.call("GET", "/commands", query={"serial": serial})

    def pending_commands(self, serial=None):
        return self.commands(serial)["pending"]

    def delivered_commands(self, serial=None):
        return self.commands(serial)["delivered"]

    def clear_commands(self):
        return self.call("DELETE", "/commands")["cleared"]

    # ---- scripted replies and faults -------------------------------------

    def script(self, path, method=None, count=1, **reply):
        """Scripts the next `count` replies of `path` (the request path as
        sent, e.g. "/api/heartbeat"; * and ? match anything). `reply` takes
        status, body (JSON), text, body_base64, headers, content_type, delay
        (seconds), drop (True, "close" or "reset"), bad_json. count=None
        scripts every request until cleared. Returns the script ids."""
        script = dict(reply, path=path, count=count)
        if method:
            script["method"] = method
        return self.call("POST", "/scripts", script)["ids"]

    def script_replies(self, path, replies, method=None):
        """Scripts one reply after the other for the next requests of `path`."""
        script = {"path": path, "replies": list(replies)}
        if method:
            script["method"] = method
        return self.call("POST", "/scripts", script)["ids"]

    def fail(self, path, status, body=None, count=1, method=None, **more):
        if body is not None:
            more["body"] = body
        return self.script(path, method, count, status=status, **more)

    def drop(self, path, count=1, how="close", method=None):
        return self.script(path, method, count, drop=how)

    def delay(self, path, seconds, count=1, method=None):
        """Delays the controller's normal answer."""
        return self.script(path, method, count, delay=seconds)

    def bad_json(self, path, count=1, method=None):
        return self.script(path, method, count, bad_json=True)

    def scripts(self):
        return self.call("GET", "/scripts")["scripts"]

    def clear_scripts(self, path=None):
        return self.call("DELETE", "/scripts", query={"path": path})["cleared"]

    # ---- tokens, phone-home, firmware ------------------------------------

    def set_token(self, expires_in=None, token_length=None, extra=None, revoke=False):
        """The "expires_in" value (any JSON value) and token length of the
        next tokens, extra members of the token reply; revoke=True makes
        every token issued so far fail with 401."""
        return self.call("POST", "/token", {"revoke": revoke, **given(
            expires_in=expires_in, token_length=token_length, extra=extra)})

    def revoke_tokens(self):
        return self.set_token(revoke=True)

    def tokens(self):
        return self.call("GET", "/token")["tokens"]

    def deactivate_account(self, count=1):
        """The next token requests are refused with 400 "account_deactivated"."""
        return self.fail("/api/oauth/token", 400, {"error": "account_deactivated"}, count)

    def set_phone_home(self, cloud_controller=None, code=None, reset_mode=None,
                       timeofday=None, body=None, extra=None):
        """The phone-home answer: by default {"cloud_controller": <this
        controller's base URL>}; code="unregistered"/"decommissioned" (with
        reset_mode) answers the state instead; timeofday=True adds the
        current time (the daemon may set the clock from it); body replaces
        the whole answer."""
        return self.call("POST", "/phone-home", {
            "cloud_controller": cloud_controller, "code": code, "reset_mode": reset_mode,
            "timeofday": timeofday, "body": body, "extra": extra or {}})

    def set_firmware(self, version, image=b"", offer="auto", href=None, filename=None):
        """The firmware the device should run and its image; "auto" offers
        the download when the device reports another version."""
        body = {"version": version, "offer": offer, "href": href, "filename": filename}
        if isinstance(image, str):
            image = image.encode()
        body["image_base64"] = base64.b64encode(image).decode()
        return self.call("POST", "/firmware", body)

    def firmware(self):
        return self.call("GET", "/firmware")

    # ---- what the controller received ------------------------------------

    def requests(self, path=None, method=None, kind=None, serial=None, since=None,
                 status=None):
        """Requests received, oldest first, as records (see docs/lab-api.md)."""
        return self.call("GET", "/requests", query={
            "path": path, "method": method, "kind": kind, "serial": serial, "since": since,
            "status": status})["requests"]

    def mark(self):
        """The sequence number of the last request so far, for since=."""
        return self.call("GET", "/requests", query={"since": 1 << 62})["last"]

    def clear_requests(self):
        return self.call("DELETE", "/requests")["cleared"]

    def _wait_for(self, path, key, count, timeout, filters, what, have, answered=False):
        """Asks GET `path` to hold its answer until at least `count` records
        (`key` of the answer) match the filters, and returns them all; fails
        with AssertionError at the deadline, saying what there is (have())."""
        filters = {k: v for k, v in filters.items() if v is not None}
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            wait = max(0.0, min(left, 5.0))
            query = {"wait": f"{wait:.3f}", "count": count, **filters}
            if answered:
                query["answered"] = 1
            found = self.call("GET", path, timeout=wait + 30, query=query)[key]
            if len(found) >= count:
                return found
            if left <= 0:
                raise AssertionError(f"timed out after {timeout}s waiting for {count} "
                                     f"{what} {filters}; {have(found)}")

    def wait_requests(self, count=1, timeout=10.0, **filters):
        """Waits until at least `count` requests match and have been answered,
        and returns them all; fails with AssertionError at the deadline."""
        def have(_):
            seen = [(r["method"], r["path"], r["status"]) for r in self.requests()][-20:]
            return f"last received: {seen}"
        return self._wait_for("/requests", "requests", count, timeout, filters, "request(s)",
                              have, answered=True)

    def wait_request(self, timeout=10.0, **filters):
        """The first request matching the filters, once it was answered."""
        return self.wait_requests(1, timeout, **filters)[0]

    def results(self, command_id=None, serial=None, since=None):
        """Command results posted by the device, oldest first."""
        return self.call("GET", "/results", query={
            "command_id": command_id, "serial": serial, "since": since})["results"]

    def statistics(self, id=None, path=None, since=None):
        """Statistics documents as time series per interface (see
        docs/lab-api.md, GET /statistics)."""
        return self.call("GET", "/statistics", query={"id": id, "path": path, "since": since})

    def wait_results(self, count=1, timeout=10.0, **filters):
        return self._wait_for("/results", "results", count, timeout, filters,
                              "command result(s)", lambda _: f"have {self.results()}")

    def wait_result(self, command_id=None, timeout=10.0, **filters):
        return self.wait_results(1, timeout, command_id=command_id, **filters)[0]

    # ---- status documents ------------------------------------------------

    def status(self):
        """The switch as the status documents so far describe it:
        {"ports": [latest record of each port, by id], "documents": n, "last": seq}."""
        return self.call("GET", "/status")

    def status_documents(self, since=None, path=None, serial=None):
        """Accepted status documents, oldest first."""
        return self.call("GET", "/status/documents", query={
            "since": since, "path": path, "serial": serial})["documents"]

    def clear_status(self):
        return self.call("DELETE", "/status")["cleared"]

    def wait_status_documents(self, count=1, timeout=10.0, **filters):
        return self._wait_for("/status/documents", "documents", count, timeout, filters,
                              "status document(s)", lambda found: f"have {len(found)}")


    def archives(self, path=None, kind=None, serial=None, since=None):
        """Files uploaded as multipart forms, oldest first, without bytes."""
        return self.call("GET", "/archives", query={
            "path": path, "kind": kind, "serial": serial, "since": since})["archives"]

    def wait_archives(self, count=1, timeout=10.0, **filters):
        return self._wait_for("/archives", "archives", count, timeout, filters, "archive(s)",
                              lambda _: f"have {self.archives()}")

    def archive(self, seq):
        """One uploaded file's record and its bytes."""
        a = self.call("GET", "/archive", query={"seq": seq})
        return a, base64.b64decode(a["data_base64"])


class LabController(LabClient):
    """A running lab controller and the client to drive it.

    With `prefix` (an argv prefix such as Netns.prefix()) it runs as its own
    program behind that prefix; otherwise in this process, on threads
    (mode="process" forces the program). Its HTTPS listener is on `host`
    (an address such as "192.0.2.1" or "127.0.0.1"), `port` (0: any free
    port); the server certificate names `host`, 127.0.0.1, localhost and
    `names`. The CA goes into <root>/etc/ca-bundle.pem of `root` (and of
    each of `roots`). The control API is served on a Unix socket in
    `state_dir`, which works across network namespaces.
    """

    def __init__(self, root=None, host="127.0.0.1", port=0, names=(), prefix=None, mode=None,
                 state_dir=None, ca_dir=None, roots=(), serials=(), auth=True,
                 expires_in=3600, python=None, start=True, start_timeout=15.0):
        super().__init__()
        # The program runs from the top of the source tree: every path it is
        # given is absolute.
        self.roots = [os.path.abspath(r) for r in ([root] if root else []) + list(roots)]
        self.host = host
        self.port = port
        self.names = list(names)
        self.prefix = list(prefix or [])
        self.mode = mode or ("process" if self.prefix else "thread")
        if self.prefix and self.mode != "process":
            raise ValueError("an argv prefix needs mode='process'")
        self._own_state = state_dir is None
        self.state_dir = os.path.abspath(state_dir or tempfile.mkdtemp(prefix="orkad-lab-"))
        os.makedirs(self.state_dir, exist_ok=True)
        self.ca_dir = ca_dir and os.path.abspath(ca_dir)
        self.serials = list(serials)
        self.auth = auth
        self.expires_in = expires_in
        self.python = python or sys.executable
        self.start_timeout = start_timeout
        self.proc = None
        self.server = None
        self.details = None
        if start:
            self.start()

    @property
    def base_url(self):
        return self.details["base_url"]

    @property
    def ca(self):
        return self.details["ca"]

    def url(self, path):
        return self.base_url + path

    def start(self):
        sock = os.path.join(self.state_dir, "control.sock")
        if self.mode == "thread":
            from . import controller
            self.server = controller.LabServer(
                listen=self.host, port=self.port, names=self.names, state_dir=self.state_dir,
                ca_dir=self.ca_dir, roots=self.roots, control_socket=sock,
                serials=self.serials, auth=self.auth, expires_in=self.expires_in).start()
            self.details = self.server.info()
        else:
            self._start_process(sock)
        self.socket_path = self.details["control_socket"]
        self.port = self.details["port"]
        return self

    def _start_process(self, sock):
        ready = os.path.join(self.state_dir, "controller.json")
        if os.path.exists(ready):
            os.unlink(ready)
        argv = self.prefix + program("controller", self.python) + [
            "--listen", self.host, "--port", str(self.port), "--state-dir", self.state_dir,
            "--control-socket", sock, "--ready-file", ready, "--expires-in", str(self.expires_in)]
        if self.ca_dir:
            argv += ["--ca-dir", self.ca_dir]
        for n in self.names:
            argv += ["--name", n]
        for r in self.roots:
            argv += ["--root", r]
        for s in self.serials:
            argv += ["--serial", s]
        if not self.auth:
            argv.append("--no-auth")
        self.log_path = os.path.join(self.state_dir, "controller.log")
        self._log = open(self.log_path, "w")
        self.proc = subprocess.Popen(argv, cwd=SOURCE, stdout=self._log, stderr=subprocess.STDOUT,
                                     stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + self.start_timeout
        while not os.path.exists(ready):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self._kill()
                with open(self.log_path) as f:
                    out = f.read()
                raise RuntimeError(f"lab controller did not start ({argv}):\n{out}")
            time.sleep(0.02)
        with open(ready) as f:
            self.details = json.load(f)

    def _kill(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait(timeout=10)

    def stop(self):
        if self.server is not None:
            self.server.stop()
            self.server = None
        if self.proc is not None:
            if self.proc.poll() is None:
                try:
                    self.call("POST", "/shutdown", timeout=5)
                except (OSError, LabError, http.client.HTTPException):
                    self.proc.send_signal(signal.SIGTERM)
                try:
                    self.proc.wait(timeout=10)
                except subprocess.TimeoutExpired:
                    self._kill()
            self._log.close()
            self.proc = None
        if self._own_state:
            shutil.rmtree(self.state_dir, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()
