"""HTTP plumbing of the lab controller: threaded servers over TLS, TCP and
Unix sockets, request bodies (plain or chunked), query strings as the
daemon writes them and the control API's filters on them, multipart forms,
and JSON replies written compactly, as the controller does."""

import fnmatch
import http.server
import json
import os
import socket
import socketserver
import ssl
import struct
import threading
from urllib.parse import unquote


class Request:
    """One request as the handlers see it."""

    def __init__(self, method, target, headers, body, client):
        self.method = method
        self.target = target
        path, sep, query = target.partition("?")
        self.path = path
        self.query = query if sep else ""
        self.params = parse_query(self.query)
        self.header_list = list(headers.items())
        self.headers = {}
        for k, v in self.header_list:
            k = k.lower()
            self.headers[k] = f"{self.headers[k]}, {v}" if k in self.headers else v
        self.body = body
        self.client = client


class Reply:
    """What to answer. `drop` closes the connection without an answer
    ("close": orderly close, "reset": TCP reset)."""

    def __init__(self, status=200, body=b"", headers=None, content_type="application/json",
                 delay=0.0, drop=None):
        self.status = status
        self.body = body if isinstance(body, bytes) else body.encode()
        self.headers = dict(headers or {})
        self.content_type = content_type
        self.delay = delay
        self.drop = drop
        self.after = None  # called with True/False once the reply was (not) written


def compact_json(value):
    """A JSON text as the controller writes it: no spaces."""
    return json.dumps(value, separators=(",", ":")).encode()


def json_reply(status, value, headers=None):
    return Reply(status, compact_json(value), headers)


def matches(pattern, value):
    """A query filter: exact, or with * and ? wildcards; no filter (None)
    takes everything, a filter never takes a missing value."""
    if pattern is None:
        return True
    if value is None:
        return False
    if "*" in pattern or "?" in pattern:
        return fnmatch.fnmatchcase(value, pattern)
    return pattern == value


def parse_query(query):
    """Name/value pairs of a query string, decoded with %XX only: the daemon
    does not URL-encode, so a '+' in a value is a plus sign. Names keep their
    brackets ("[phone_home]serial"). A repeated name keeps its last value."""
    out = {}
    if not query:
        return out
    for item in query.split("&"):
        if not item:
            continue
        k, _, v = item.partition("=")
        out[unquote(k)] = unquote(v)
    return out


def parse_multipart(content_type, body):
    """Parts of a multipart/form-data body: name, filename, content type, data."""
    boundary = None
    for param in content_type.split(";")[1:]:
        k, _, v = param.strip().partition("=")
        if k.lower() == "boundary":
            boundary = v.strip().strip('"')
    if not boundary:
        return None
    parts = []
    for chunk in body.split(b"--" + boundary.encode())[1:]:
        if chunk.startswith(b"--"):
            break
        if chunk.startswith(b"\r\n"):
            chunk = chunk[2:]
        head, _, data = chunk.partition(b"\r\n\r\n")
        if data.endswith(b"\r\n"):
            data = data[:-2]
        part = {"name": None, "filename": None, "content_type": None, "data": data}
        for line in head.decode("utf-8", "replace").split("\r\n"):
            hk, _, hv = line.partition(":")
            hk = hk.strip().lower()
            if hk == "content-disposition":
                for p in hv.split(";")[1:]:
                    pk, _, pv = p.strip().partition("=")
                    if pk.lower() in ("name", "filename"):
                        part[pk.lower()] = pv.strip().strip('"')
            elif hk == "content-type":
                part["content_type"] = hv.strip()
        parts.append(part)
    return parts


class BodyError(Exception):
    pass


def read_body(rfile, headers, limit=256 * 1024 * 1024):
    te = (headers.get("Transfer-Encoding") or "").lower()
    if "chunked" in te:
        out = bytearray()
        while True:
            line = rfile.readline(1024)
            if not line:
                raise BodyError("connection closed inside a chunked body")
            size = int(line.split(b";")[0].strip() or b"0", 16)
            if size == 0:
                while True:  # trailers up to the empty line
                    t = rfile.readline(8192)
                    if t in (b"\r\n", b"\n", b""):
                        break
                return bytes(out)
            out += rfile.read(size)
            rfile.readline(8)
            if len(out) > limit:
                raise BodyError("body too large")
    length = headers.get("Content-Length")
    if not length:
        return b""
    n = int(length)
    if n > limit:
        raise BodyError("body too large")
    data = rfile.read(n)
    if len(data) != n:
        raise BodyError("connection closed inside the body")
    return data


class Handler(http.server.BaseHTTPRequestHandler):
    """Hands every request to server.dispatch(Request) -> Reply."""

    protocol_version = "HTTP/1.1"
    server_version = "orkad-lab"
    sys_version = ""
    timeout = 120  # idle keep-alive connections end after this

    def log_message(self, fmt, *args):  # the request log is the record, not stderr
        pass

    def handle(self):
        if isinstance(self.request, ssl.SSLSocket):
            try:
                self.request.do_handshake()
            except (ssl.SSLError, OSError) as e:
                self.server.note_connection_error(self._client(), f"TLS handshake: {e}")
                self.close_connection = True
                return
        try:
            super().handle()
        except (ConnectionError, ssl.SSLError, socket.timeout, TimeoutError) as e:
            self.server.note_connection_error(self._client(), str(e))

    def _client(self):
        a = self.client_address
        return a[0] if isinstance(a, tuple) and a else "local"

    def _serve(self):
        try:
            body = read_body(self.rfile, self.headers)
        except (BodyError, ValueError) as e:
            self.close_connection = True
            self._write(Reply(400, b'{"error":"bad request body"}'), reason=str(e))
            return
        req = Request(self.command, self.path, self.headers, body, self._client())
        reply = self.server.dispatch(req)
        if reply.delay:
            self.server.stopping.wait(reply.delay)
        if reply.drop:
            self._drop(reply.drop)
            if reply.after:
                reply.after(False)
            return
        ok = self._write(reply)
        if reply.after:
            reply.after(ok)

    def _write(self, reply, reason=None):
        try:
            self.send_response(reply.status, reason)
            names = {k.lower() for k in reply.headers}
            if reply.content_type and "content-type" not in names:
                self.send_header("Content-Type", reply.content_type)
            for k, v in reply.headers.items():
                self.send_header(k, v)
            if "content-length" not in names:
                self.send_header("Content-Length", str(len(reply.body)))
            if self.close_connection:
                self.send_header("Connection", "close")
            # Head and body in one write: no wait on the peer's delayed ACK.
            self._headers_buffer.append(b"\r\n")
            if self.command != "HEAD":
                self._headers_buffer.append(reply.body)
            self.flush_headers()
            return True
        except (OSError, ssl.SSLError):
            self.close_connection = True
            return False

    def _drop(self, how):
        self.close_connection = True
        raw = self.connection
        try:
            if how == "reset":
                # Closed with a zero linger time by the server: a TCP reset.
                raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self.server.mark_reset(raw)
            else:
                # No TLS close_notify: the peer sees the connection simply end.
                socket.socket.shutdown(raw, socket.SHUT_RDWR)
        except OSError:
            pass

    do_GET = do_POST = do_PUT = do_DELETE = do_PATCH = do_HEAD = do_OPTIONS = _serve


class _Tracking:
    """Keeps the open connections so that a stop ends them at once."""

    daemon_threads = True
    block_on_close = False
    allow_reuse_address = True
    request_queue_size = 64

    def _track_init(self, dispatch, stopping, on_error):
        self.dispatch = dispatch
        self.stopping = stopping
        self._on_error = on_error
        self._conns = set()
        self._resets = set()
        self._conns_lock = threading.Lock()

    def mark_reset(self, request):
        with self._conns_lock:
            self._resets.add(request)

    def shutdown_request(self, request):
        with self._conns_lock:
            reset = request in self._resets
            self._resets.discard(request)
        if reset:
            self.close_request(request)
        else:
            super().shutdown_request(request)

    def note_connection_error(self, client, text):
        if self._on_error:
            self._on_error(client, text)

    def process_request_thread(self, request, client_address):
        with self._conns_lock:
            self._conns.add(request)
        try:
            super().process_request_thread(request, client_address)
        finally:
            with self._conns_lock:
                self._conns.discard(request)

    def handle_error(self, request, client_address):
        import sys
        e = sys.exc_info()[1]
        self.note_connection_error(
            client_address[0] if isinstance(client_address, tuple) and client_address
            else "local", f"{type(e).__name__}: {e}")

    def close_connections(self):
        with self._conns_lock:
            conns = list(self._conns)
        for c in conns:
            try:
                socket.socket.shutdown(c, socket.SHUT_RDWR)
            except OSError:
                pass


class TCPServer(_Tracking, socketserver.ThreadingMixIn, http.server.HTTPServer):
    """Threaded HTTP server on TCP; with `context`, every connection is TLS.
    The TLS handshake runs on the connection's own thread so that a slow or
    failing client never holds up the others."""

    def __init__(self, address, dispatch, stopping, context=None, on_error=None):
        self.context = context
        self._track_init(dispatch, stopping, on_error)
        host = address[0]
        self.address_family = socket.AF_INET6 if ":" in host else socket.AF_INET
        http.server.HTTPServer.__init__(self, address, Handler)

    def server_bind(self):
        # HTTPServer.server_bind looks the host name up; not needed here.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]

    def get_request(self):
        sock, addr = self.socket.accept()
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.context is not None:
            sock = self.context.wrap_socket(sock, server_side=True,
                                            do_handshake_on_connect=False)
        return sock, addr


class UnixServer(_Tracking, socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    """Threaded HTTP server on a Unix stream socket (the control API)."""

    def __init__(self, path, dispatch, stopping, on_error=None):
        self._track_init(dispatch, stopping, on_error)
        if os.path.exists(path):
            os.unlink(path)
        socketserver.UnixStreamServer.__init__(self, path, Handler)

    def get_request(self):
        sock, _ = self.socket.accept()
        return sock, ("local", 0)


def server_context(cert, key):
    ctx = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    ctx.load_cert_chain(cert, key)
    return ctx
