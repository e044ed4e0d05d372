"""The lab controller's syslog view and its datagram sender, without a
daemon: batches posted on service links are split into their lines, and
/syslog/send puts datagrams on the wire."""

import base64
import socket

import pytest

from lab import labsyslog


def test_split_batch_keeps_the_lines_as_sent():
    a = '{"sequence":1,"logTime":"t","message":"<13>say \\"hi\\""}'
    b = '{"sequence":2,"logTime":"t","message":"<13>C:\ttab"}'
    assert labsyslog.split_batch('{"log":[' + a + "," + b + "]}") == [a, b]
    assert labsyslog.split_batch('{"log":[]}') == []
    assert labsyslog.split_batch('{"status":1}') is None
    assert labsyslog.split_batch('{"log":[{"sequence":1]}') is None


def test_lines_of_posted_batches_in_arrival_order(lab):
    import http.client
    import json
    import ssl

    tok = None

    def post(path, body):
        ctx = ssl.create_default_context(cafile=lab.ca)
        c = http.client.HTTPSConnection("127.0.0.1", lab.port, context=ctx, timeout=10)
        c.request("POST", path, body=body.encode(),
                  headers={"Authorization": f"Bearer {tok}", "Content-Type": "application/json"})
        r = c.getresponse()
        r.read()
        c.close()
        return r.status

    lab.set_auth(False)
    lab.add_link("/logs-here", "syslog")
    one = '{"sequence":1,"logTime":"2026-11-21T10:11:12+0000","message":"<13>one"}'
    two = '{"sequence":2,"logTime":"2026-11-21T10:11:13+0000","message":"<14>two"}'
    three = '{"sequence":3,"logTime":"2026-11-21T10:11:14+0000","message":"<13>three"}'
    assert post("/api/syslog", '{"log":[' + one + "," + two + "]}") == 200
    # A failed post is not kept: the daemon sends that batch again.
    lab.fail("/api/logs-here", 500)
    assert post("/api/logs-here", '{"log":[' + three + "]}") == 500
    assert post("/api/logs-here", '{"log":[' + three + "]}") == 200
    got = lab.call("GET", "/syslog")
    assert got["batches"] == 2 and got["last"] == 3
    lines = got["lines"]
    assert [ln["text"] for ln in lines] == [one, two, three]
    assert [(ln["n"], ln["sequence"], ln["batch"], ln["index"]) for ln in lines] == \
        [(1, 1, 1, 0), (2, 2, 1, 1), (3, 3, 2, 0)]
    assert [ln["message"] for ln in lines] == ["<13>one", "<14>two", "<13>three"]
    assert [ln["path"] for ln in lines] == ["/api/syslog", "/api/syslog", "/api/logs-here"]
    assert [ln["text"] for ln in lab.call("GET", "/syslog", query={"since": 2})["lines"]] == \
        [three]
    assert lab.call("GET", "/syslog", query={"contains": "two"})["lines"][0]["n"] == 2
    assert lab.call("DELETE", "/syslog") == {"cleared": 3}
    assert lab.call("GET", "/syslog")["lines"] == []
    assert json.loads(json.dumps(lines))  # plain JSON all the way


def test_send_puts_datagrams_on_the_wire(lab):
    rx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    rx.bind(("127.0.0.1", 0))
    rx.settimeout(5)
    port = rx.getsockname()[1]
    try:
        r = lab.call("POST", "/syslog/send", {"lines": ["<13>a", "<14>b"], "repeat": 2,
                                              "port": port})
        assert r == {"sent": 4, "bytes": 20}
        assert [rx.recv(2048) for _ in range(4)] == [b"<13>a", b"<14>b", b"<13>a", b"<14>b"]
        raw = b"<13>\x00\xff"
        lab.call("POST", "/syslog/send", {"base64": base64.b64encode(raw).decode(),
                                          "port": port})
        assert rx.recv(2048) == raw
        lab.call("POST", "/syslog/send", {"text": "x" * 65000, "port": port})
        assert len(rx.recv(70000)) == 65000
    finally:
        rx.close()
    from lab.labfixture import LabError
    with pytest.raises(LabError):
        lab.call("POST", "/syslog/send", {"lines": "not a list"})
    with pytest.raises(LabError):
        lab.call("POST", "/syslog/send", {"text": "y" * 70000, "port": port})
