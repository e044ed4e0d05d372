"""The lab dashboard's files, served by the control listener next to the
control API: GET / is lab/web/index.html, GET /web/<file> the other files
of lab/web, and GET /archive/download?seq=N an uploaded archive as a file.
Everything the page needs ships in lab/web; it loads nothing from elsewhere.
"""

import os
import re

from .labhttp import Reply

WEB = os.path.join(os.path.dirname(os.path.abspath(__file__)), "web")

TYPES = {
    ".html": "text/html; charset=utf-8",
    ".js": "text/javascript; charset=utf-8",
    ".css": "text/css; charset=utf-8",
    ".json": "application/json",
    ".svg": "image/svg+xml",
    ".png": "image/png",
    ".ico": "image/x-icon",
}


def _not_found(what):
    return Reply(404, f'{{"error":"no such file: {what}"}}'.encode())


def static(path):
    """The reply for a dashboard file, or None when `path` is not one."""
    if path == "/" or path == "/index.html":
        name = "index.html"
    elif path.startswith("/web/"):
        name = path[len("/web/"):]
    else:
        return None
    # Only plain names inside lab/web: no way out of the folder.
    if not re.fullmatch(r"[A-Za-z0-9_.-]+", name) or name.startswith("."):
        return _not_found("bad name")
    file = os.path.join(WEB, name)
    if not os.path.isfile(file):
        return _not_found(name)
    with open(file, "rb") as f:
        body = f.read()
    ctype = TYPES.get(os.path.splitext(name)[1], "application/octet-stream")
    return Reply(200, body, {"Cache-Control": "no-cache"}, ctype)


def download(lab, q):
    try:
        seq = int(q.get("seq", ""))
    except ValueError:
        return Reply(400, b'{"error":"give ?seq=N"}')
    with lab.changed:
        for a in lab.archives.items:
            if a["seq"] == seq:
                name = re.sub(r"[^A-Za-z0-9._-]", "_", a["filename"] or "") or "upload"
                return Reply(200, a["_data"],
                             {"Content-Disposition": f'attachment; filename="{seq}-{name}"'},
                             a["content_type"] or "application/octet-stream")
    return Reply(404, f'{{"error":"no archive {seq}"}}'.encode())


def serve(lab, req):
    """A reply for the dashboard's own resources, or None for the control API."""
    if req.method not in ("GET", "HEAD"):
        return None
    if req.path == "/archive/download":
        return download(lab, req.params)
    return static(req.path)
