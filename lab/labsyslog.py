"""The lab's view of the switch's forwarded syslog.

Every batch the daemon posts on a service link ({"log":[line,...]}, each line
the text of an object with "sequence", "logTime" and "message") is split into
its lines, which are kept in arrival order; the control API serves them, so
a person or a test can follow the switch's log from the lab. The control API
can also send syslog datagrams to the daemon's receiver (UDP 46180 on the
loopback of the namespace the controller runs in, or of a switch's own
namespace in a fleet: the receiver takes datagrams on 127.0.0.1 only), to
make the switch "say" something.

Run as a program, this module sends the datagrams described by the JSON
document on its standard input; the controller runs it inside a switch's
namespace.
"""

import base64
import json
import re
import socket
import subprocess
import sys
import time

from . import SOURCE, program

SYSLOG_PORT = 46180
_DECODER = json.JSONDecoder(strict=False)


def split_batch(text):
    """The raw texts of the lines of one batch body, or None when the body is
    not a batch. Lines are cut out of the body as they were sent, so what the
    daemon wrote is kept byte for byte. The decoding is lenient (control
    characters inside strings are taken), so a line from an older daemon
    that copied them raw is still shown."""
    head = '{"log":['
    if not text.startswith(head) or not text.endswith("]}"):
        return None
    pos, end = len(head), len(text) - 2
    lines = []
    while pos < end:
        try:
            _, stop = _DECODER.raw_decode(text, pos)
        except ValueError:
            return None
        lines.append(text[pos:stop])
        pos = stop
        if pos < end:
            if text[pos] != ",":
                return None
            pos += 1
    return lines


class SyslogView:
    """Forwarded lines in arrival order. The lab's lock guards it."""

    def __init__(self):
        self.lines = []
        self.batches = 0
        self.unreadable = 0

    def record(self, rec, body):
        if body is None:
            return
        lines = split_batch(body)
        if lines is None:
            if body.startswith('{"log":'):
                self.unreadable += 1
                rec["error"] = "syslog batch that cannot be split into lines"
            return
        self.batches += 1
        for i, raw in enumerate(lines):
            try:
                obj = _DECODER.decode(raw)
            except ValueError:
                obj = None
            if not isinstance(obj, dict):
                obj = {}
            self.lines.append({
                "n": len(self.lines) + 1, "batch": self.batches, "index": i,
                "request": rec["seq"], "time": rec["time"], "path": rec["path"],
                "serial": rec["serial"], "text": raw, "sequence": obj.get("sequence"),
                "logTime": obj.get("logTime"), "message": obj.get("message"),
            })


def on_service(lab, rec, req):
    """Called for every request the controller answers on a service link."""
    lab.syslog.record(rec, req.body.decode("utf-8", "replace") if req.body else None)


# ---- control routes ---------------------------------------------------------


def c_syslog(lab, doc, q):
    since = int(q.get("since") or 0)

    def select():
        return [ln for ln in lab.syslog.lines
                if ln["n"] > since
                and (q.get("path") is None or ln["path"] == q.get("path"))
                and (q.get("serial") is None or ln["serial"] == q.get("serial"))
                and (q.get("contains") is None or q.get("contains") in ln["text"])]
    found = lab.wait_for(select, q)
    with lab.changed:
        return 200, {"lines": found, "last": len(lab.syslog.lines),
                     "batches": lab.syslog.batches, "unreadable": lab.syslog.unreadable}


def c_clear_syslog(lab, doc, q):
    with lab.changed:
        n = len(lab.syslog.lines)
        lab.syslog = SyslogView()
        return 200, {"cleared": n}


def _send(grams, to, repeat, pace):
    """Sends the datagrams; (datagrams sent, bytes sent)."""
    sent = size = 0
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        for _ in range(repeat):
            for g in grams:
                try:
                    s.sendto(g, to)
                except OSError as e:
                    raise ValueError(f"sending {len(g)} bytes to {to}: {e}") from e
                sent += 1
                size += len(g)
                if pace:
                    time.sleep(pace)
    finally:
        s.close()
    return sent, size


def _send_in(netns, grams, to, repeat, pace):
    """_send run inside the network namespace `netns`."""
    job = {"grams": [base64.b64encode(g).decode() for g in grams], "host": to[0],
           "port": to[1], "repeat": repeat, "pace": pace}
    r = subprocess.run(["ip", "netns", "exec", netns, *program("labsyslog")], cwd=SOURCE,
                       input=json.dumps(job), capture_output=True, text=True)
    if r.returncode != 0:
        raise ValueError(f"sending in namespace {netns}: {r.stderr.strip()}")
    return tuple(json.loads(r.stdout))


def c_send_syslog(lab, doc, q):
    """Sends datagrams: "lines" (texts), "text" (one text) or "base64" (one
    datagram of raw bytes), "repeat" times, "pace" seconds apart, to "host"
    (default 127.0.0.1) and "port" (default 46180), from the network
    namespace "netns" when given (default: the controller's own)."""
    if "lines" in doc:
        if not isinstance(doc["lines"], list) or not all(isinstance(x, str)
                                                         for x in doc["lines"]):
            raise ValueError("'lines' is a list of texts")
        grams = [x.encode() for x in doc["lines"]]
    elif isinstance(doc.get("text"), str):
        grams = [doc["text"].encode()]
    elif isinstance(doc.get("base64"), str):
        grams = [base64.b64decode(doc["base64"])]
    else:
        raise ValueError("give 'lines', 'text' or 'base64'")
    repeat = int(doc.get("repeat", 1))
    pace = float(doc.get("pace") or 0)
    to = (doc.get("host") or "127.0.0.1", int(doc.get("port") or SYSLOG_PORT))
    netns = doc.get("netns")
    if netns is None:
        sent, size = _send(grams, to, repeat, pace)
    elif isinstance(netns, str) and re.fullmatch(r"[A-Za-z0-9_.-]+", netns):
        sent, size = _send_in(netns, grams, to, repeat, pace)
    else:
        raise ValueError("'netns' is the name of a network namespace")
    return 200, {"sent": sent, "bytes": size}


if __name__ == "__main__":
    job = json.load(sys.stdin)
    try:
        print(json.dumps(_send([base64.b64decode(g) for g in job["grams"]],
                               (job["host"], job["port"]), job["repeat"], job["pace"])))
    except ValueError as e:
        print(e, file=sys.stderr)
        sys.exit(1)
