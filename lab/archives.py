"""Files the device uploads as multipart forms (the diagnostics archive of
"get.diagnostics") on any service link: the lab controller keeps each one,
in memory and, when it has a state folder, as a file under
<state_dir>/archives, and lists them through its control API:

    GET /archives?path=&kind=&serial=&since=&wait=&count=   what was kept
    GET /archive?seq=N                                       one, with its bytes
"""

import base64
import hashlib
import os
import re
import time

from .labhttp import matches


class Archives:
    def __init__(self):
        self.folder = None
        self.reset()

    def reset(self):
        self.items = []
        self.seq = 0

    def add(self, rec, parts):
        """Keeps every file part of one request (parts as parsed by
        labhttp.parse_multipart); the caller holds the lab's lock."""
        for p in parts:
            if p.get("filename") is None:
                continue
            self.seq += 1
            data = p["data"]
            item = {
                "seq": self.seq, "request": rec["seq"], "time": time.time(),
                "path": rec["path"], "kind": rec["kind"], "serial": rec["serial"],
                "name": p["name"], "filename": p["filename"],
                "content_type": p["content_type"], "size": len(data),
                "sha256": hashlib.sha256(data).hexdigest(), "file": None, "_data": data,
            }
            if self.folder:
                os.makedirs(self.folder, exist_ok=True)
                safe = re.sub(r"[^A-Za-z0-9._-]", "_", p["filename"]) or "upload"
                item["file"] = os.path.join(self.folder, f"{self.seq}-{safe}")
                with open(item["file"], "wb") as f:
                    f.write(data)
            self.items.append(item)

    @staticmethod
    def view(item, data=False):
        v = {k: val for k, val in item.items() if not k.startswith("_")}
        if data:
            v["data_base64"] = base64.b64encode(item["_data"]).decode()
        return v


def c_archives(lab, doc, q):
    since = int(q.get("since") or 0)

    def select():
        return [Archives.view(a) for a in lab.archives.items
                if a["seq"] > since
                and matches(q.get("path"), a["path"])
                and matches(q.get("kind"), a["kind"] or "unknown")
                and matches(q.get("serial"), a["serial"])]
    return 200, {"archives": lab.wait_for(select, q), "last": lab.archives.seq}


def c_archive(lab, doc, q):
    seq = int(q.get("seq", doc.get("seq", 0)))
    with lab.changed:
        for a in lab.archives.items:
            if a["seq"] == seq:
                return 200, Archives.view(a, data=True)
    return 404, {"error": f"no archive {seq}"}
