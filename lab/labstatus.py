"""Status documents for the lab controller: every document a device posted
on a status link, in order, and the current view of the switch they add up
to (the latest record of each port, merged)."""

import copy


class StatusView:
    """Kept under the controller's lock."""

    def __init__(self):
        self.documents = []
        self.ports = {}
        self.by_serial = {}  # serial -> ports of that device, for a fleet
        self.seq = 0

    def take(self, rec):
        """Records the accepted document of request record `rec`."""
        doc = rec["json"]
        self.seq += 1
        ports = doc.get("port") if isinstance(doc, dict) else None
        ids = []
        if isinstance(ports, list):
            for p in ports:
                if not isinstance(p, dict) or "id" not in p:
                    continue
                pid = str(p["id"])
                ids.append(pid)
                # A port record is sent whole, so the newest replaces the last.
                self.ports[pid] = dict(copy.deepcopy(p), updated=self.seq, updated_at=rec["time"],
                                       serial=rec["serial"])
                self.by_serial.setdefault(rec["serial"], {})[pid] = self.ports[pid]
        self.documents.append({
            "seq": self.seq, "request": rec["seq"], "time": rec["time"], "iso": rec["iso"],
            "path": rec["path"], "serial": rec["serial"], "ports": ids,
            "document": copy.deepcopy(doc), "valid_json": doc is not None,
        })

    def view(self, serial=None):
        """The merged ports; with `serial`, those of that device only."""
        def key(pid):
            return (0, int(pid)) if pid.lstrip("-").isdigit() else (1, pid)
        ports = self.ports if serial is None else self.by_serial.get(serial, {})
        docs = self.documents if serial is None else \
            [d for d in self.documents if d["serial"] == serial]
        return {"ports": [ports[p] for p in sorted(ports, key=key)],
                "documents": len(docs), "last": self.seq}


def on_status(lab, req, rec):
    lab.status.take(rec)


def c_status(lab, doc, q):
    with lab.changed:
        return 200, copy.deepcopy(lab.status.view(q.get("serial")))


def c_documents(lab, doc, q):
    since = int(q.get("since") or 0)

    def select():
        return [d for d in lab.status.documents
                if d["seq"] > since and (q.get("path") is None or d["path"] == q["path"])
                and (q.get("serial") is None or d["serial"] == q["serial"])]
    found = lab.wait_for(select, q)
    return 200, {"documents": found, "last": lab.status.seq}


def c_clear(lab, doc, q):
    with lab.changed:
        n = len(lab.status.documents)
        lab.status = StatusView()
        return 200, {"cleared": n}
