"""The lab controller on its own, spoken to over real HTTPS with its CA."""

import base64
import http.client
import json
import os
import shutil
import socket
import ssl
import subprocess
import sys
import threading
import time

import pytest

from lab.labfixture import LabController
from tests.e2e.lab_runner import run, start

SERIAL = "VX0123456789"  # the device root's default serial
TOKEN_PATH = "/api/oauth/token?grant_type=client_credentials"


class Api:
    """A device's view of the controller: HTTPS verified against the bundle."""

    def __init__(self, lab, root, host=None):
        self.lab = lab
        self.host = host or "127.0.0.1"
        self.ctx = ssl.create_default_context(cafile=os.path.join(root, "etc/ca-bundle.pem"))

    def call(self, method, path, body=None, headers=None, token=None, basic=None,
             timeout=10):
        h = dict(headers or {})
        if token is not None:
            h["Authorization"] = f"Bearer {token}"
        if basic is not None:
            h["Authorization"] = "Basic " + base64.b64encode(basic.encode()).decode()
        if isinstance(body, (dict, list)):
            body = json.dumps(body, separators=(",", ":"))
            h.setdefault("Content-Type", "application/json")
        conn = http.client.HTTPSConnection(self.host, self.lab.port, context=self.ctx,
                                           timeout=timeout)
        try:
            conn.request(method, path, body=body, headers=h)
            r = conn.getresponse()
            return r.status, dict(r.getheaders()), r.read()
        finally:
            conn.close()

    def json(self, method, path, **kw):
        status, _, body = self.call(method, path, **kw)
        return status, json.loads(body)

    def token(self, serial=SERIAL):
        status, doc = self.json("POST", TOKEN_PATH, basic=f"{serial}:{serial}")
        assert status == 200, doc
        return doc["access_token"]

    def heartbeat(self, token, doc=None):
        return self.json("POST", "/api/heartbeat", body=doc or {"uptime": 1}, token=token)


@pytest.fixture
def api(lab, device_root):
    return Api(lab, device_root)


# ---- certificates -----------------------------------------------------------


def test_ca_goes_into_the_bundle_and_the_host_is_checked(lab, device_root, api):
    with open(lab.ca) as f:
        ca = f.read()
    with open(os.path.join(device_root, "etc/ca-bundle.pem")) as f:
        assert ca.strip() in f.read()
    assert lab.base_url == f"https://127.0.0.1:{lab.port}"
    assert api.call("GET", "/api/phone_home")[0] == 200
    assert Api(lab, device_root, host="localhost").call("GET", "/api/phone_home")[0] == 200
    # A name the certificate does not carry is refused by the client.
    with pytest.raises(ssl.SSLCertVerificationError):
        with socket.create_connection(("127.0.0.1", lab.port), timeout=5) as s:
            api.ctx.wrap_socket(s, server_hostname="controller.example")
    # A client without the lab CA fails the handshake; the controller notes it.
    with pytest.raises(ssl.SSLCertVerificationError):
        with socket.create_connection(("127.0.0.1", lab.port), timeout=5) as s:
            ssl.create_default_context().wrap_socket(s, server_hostname="127.0.0.1")
    deadline = time.monotonic() + 5
    while not lab.connection_errors() and time.monotonic() < deadline:
        time.sleep(0.05)
    assert any("TLS handshake" in e["error"] for e in lab.connection_errors())


def test_extra_names_in_the_certificate(device_root, tmp_path):
    with LabController(root=device_root, names=["controller.lab"],
                       state_dir=str(tmp_path / "lab")) as c:
        out = subprocess.run(["openssl", "x509", "-in", c.details["cert"], "-noout", "-ext",
                              "subjectAltName"], capture_output=True, text=True).stdout
        assert "DNS:controller.lab" in out and "IP Address:127.0.0.1" in out
        assert "DNS:localhost" in out


def test_a_second_controller_adds_its_ca_once(lab, device_root, tmp_path):
    bundle = os.path.join(device_root, "etc/ca-bundle.pem")
    with LabController(root=device_root, state_dir=str(tmp_path / "lab2")) as other:
        with open(bundle) as f:
            text = f.read()
        assert text.count("BEGIN CERTIFICATE") == 2
        assert Api(other, device_root).call("GET", "/api/phone_home")[0] == 200
    assert Api(lab, device_root).call("GET", "/api/phone_home")[0] == 200


# ---- phone-home -------------------------------------------------------------


PHONE_HOME = ("/api/phone_home?[phone_home]serial=VX0123456789&[phone_home]uuid=e9d6ecc0"
              "&[phone_home]hardware=VX-S28-A1&[phone_home]country=US&[phone_home]boot=1"
              "&[phone_home]primary=1.0.0.1&[phone_home]secondary=1.0.0.1"
              "&[phone_home]ipaddr=192.0.2.10&[phone_home]tz=Etc/GMT+2"
              "&[phone_home]utcoffset=-7200&[phone_home]ethaddr=02:00:00:00:00:01")


def test_phone_home_names_this_controller(lab, api):
    status, doc = api.json("GET", PHONE_HOME)
    assert (status, doc) == (200, {"cloud_controller": lab.base_url})
    r = lab.wait_request(kind="phone_home")
    assert r["method"] == "GET" and r["path"] == "/api/phone_home"
    assert r["params"]["[phone_home]serial"] == SERIAL
    assert r["params"]["[phone_home]tz"] == "Etc/GMT+2"  # '+' is not a space here
    assert r["params"]["[phone_home]utcoffset"] == "-7200"
    assert r["query"] == PHONE_HOME.split("?", 1)[1]
    assert r["serial"] == SERIAL and r["status"] == 200
    assert "authorization" not in r["headers"]


def test_phone_home_states(lab, api):
    lab.set_phone_home(code="unregistered")
    assert api.json("GET", PHONE_HOME) == (200, {"code": "unregistered"})
    lab.set_phone_home(code="decommissioned", reset_mode="soft")
    assert api.json("GET", PHONE_HOME) == (200, {"code": "decommissioned",
                                                  "reset-mode": "soft"})
    lab.set_phone_home(cloud_controller="https://other.lab:9443", timeofday=True)
    status, doc = api.json("GET", PHONE_HOME)
    assert doc["cloud_controller"] == "https://other.lab:9443"
    assert abs(doc["timeofday"] - time.time()) < 5
    lab.set_phone_home(body={"cloud_controller": 7})
    assert api.json("GET", PHONE_HOME) == (200, {"cloud_controller": 7})


# ---- tokens -----------------------------------------------------------------


def test_token_grant(lab, api):
    status, doc = api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")
    assert status == 200
    assert doc["expires_in"] == 3600 and doc["token_type"] == "bearer"
    assert len(doc["access_token"]) == 40
    r = lab.wait_request(kind="token")
    assert r["serial"] == SERIAL and r["params"] == {"grant_type": "client_credentials"}
    assert r["headers"]["authorization"].startswith("Basic ")
    assert [t["serial"] for t in lab.tokens()] == [SERIAL]

    lab.set_token(expires_in=86401, token_length=255, extra={"message": "welcome"})
    status, doc = api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")
    assert doc["expires_in"] == 86401 and len(doc["access_token"]) == 255
    assert doc["message"] == "welcome"
    lab.set_token(expires_in="soon")
    assert api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")[1]["expires_in"] == "soon"


def test_token_refusals(lab, api):
    assert api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:other") == \
        (401, {"error": "invalid_client",
               "error_description": "client secret does not match the client id"})
    assert api.json("POST", TOKEN_PATH)[0] == 401
    assert api.json("POST", "/api/oauth/token?grant_type=password",
                    basic=f"{SERIAL}:{SERIAL}") == (400, {"error": "unsupported_grant_type"})
    assert api.call("GET", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")[0] == 405
    lab.config(serials=["VX-OTHER"])
    assert api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")[0] == 401
    assert api.json("POST", TOKEN_PATH, basic="VX-OTHER:VX-OTHER")[0] == 200
    lab.config(serials=[])

    lab.deactivate_account()
    assert api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}") == \
        (400, {"error": "account_deactivated"})
    assert api.json("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")[0] == 200
    statuses = [r["status"] for r in lab.requests(kind="token")]
    assert statuses == [401, 401, 400, 405, 401, 200, 400, 200]
    assert [t["serial"] for t in lab.tokens()] == ["VX-OTHER", SERIAL]


def test_bearer_token_is_checked(lab, api):
    assert api.heartbeat(None)[0] == 401
    assert api.heartbeat("made-up")[0] == 401
    token = api.token()
    assert api.heartbeat(token)[0] == 200
    lab.revoke_tokens()
    assert api.heartbeat(token) == (401, {"error": "invalid_token",
                                          "error_description": "revoked token"})
    lab.set_token(expires_in=1)
    token = api.token()
    assert api.heartbeat(token)[0] == 200
    time.sleep(1.1)
    assert api.heartbeat(token)[1]["error_description"] == "expired token"
    # The phone-home query, the firmware query and the image need no token.
    assert api.call("GET", "/api/current-firmware?serial_number=X&firmware_version=1")[0] == 200
    lab.set_auth(False)
    assert api.heartbeat(None)[0] == 200
    assert api.call("POST", "/api/status", body={})[0] == 200


# ---- heartbeat, commands, results ------------------------------------------


def test_commands_are_delivered_in_a_heartbeat(lab, api):
    first = lab.queue_command(action="set", context="heartbeat",
                              params={"interval": 5000, "serviceLink": {"href": "/hb2"}},
                              serial=SERIAL)
    second = lab.queue_command({"action": "set", "context": "reboot", "id": "mine",
                                "flags": "last", "params": {}}, serial=SERIAL)
    lab.queue_command(action="set", context="system", serial="VX-OTHER")
    assert (first, second) == ("lab-1", "mine")
    assert len(lab.pending_commands()) == 3

    token = api.token()
    status, doc = api.heartbeat(token, {"uptime": 12, "lanIp": "192.0.2.10"})
    assert status == 200
    assert doc["totalCount"] == 2 and len(doc["commandList"]) == 2
    assert doc["commandList"][0] == {"action": "set", "context": "heartbeat", "params": {
        "interval": 5000, "serviceLink": {"href": "/hb2"}}, "id": "lab-1", "flags": ""}
    assert doc["commandList"][1]["id"] == "mine" and doc["commandList"][1]["flags"] == "last"
    href = doc["responseLink"]["href"]
    assert href.startswith("/")

    r = lab.wait_request(kind="heartbeat")
    assert r["json"] == {"uptime": 12, "lanIp": "192.0.2.10"}
    assert r["serial"] == SERIAL and json.loads(r["reply"]) == doc
    assert r["headers"]["content-type"] == "application/json"
    assert [e["command"]["id"] for e in lab.delivered_commands()] == ["lab-1", "mine"]
    assert [e["serial"] for e in lab.pending_commands()] == ["VX-OTHER"]

    # Taken once: the next heartbeat is empty.
    assert api.heartbeat(token) == (200, {"totalCount": 0, "commandList": []})
    # The heartbeat path a "set.heartbeat" command names is served too.
    assert api.json("POST", "/api/hb2", body={"uptime": 13}, token=token)[0] == 200
    assert lab.requests(path="/api/hb2")[0]["kind"] == "heartbeat"

    # A command for any device goes to whoever asks first.
    lab.queue_command(action="get", context="diagnostics")
    assert api.heartbeat(api.token("VX-THIRD"))[1]["commandList"][0]["context"] == \
        "diagnostics"


def test_raw_commands_and_batch_limit(lab, api):
    lab.queue_commands([{"action": "set"}, "not an object"], raw=True)
    lab.queue_commands([{"action": "set", "context": "a"}, {"action": "set", "context": "b"}])
    lab.config(batch_limit=3)
    token = api.token()
    doc = api.heartbeat(token)[1]
    assert doc["totalCount"] == 3
    assert doc["commandList"][:2] == [{"action": "set"}, "not an object"]
    assert api.heartbeat(token)[1]["commandList"][0]["context"] == "b"


def test_results_are_recorded(lab, api):
    lab.queue_commands([{"action": "set", "context": "config"},
                        {"action": "set", "context": "system"}])
    token = api.token()
    href = api.heartbeat(token)[1]["responseLink"]["href"]
    ok = {"response": [{"commandId": "lab-1", "code": 0, "message": ""}]}
    assert api.json("POST", "/api" + href, body=ok, token=token) == (200, {})
    # The daemon does not escape the message: such a body is read by its shape.
    raw = ('{"response":[{"commandId":"lab-2","code":-1,"message":"bad "value"",'
           '"data":{"n":1}}]}')
    assert api.call("POST", "/api" + href, body=raw, token=token,
                    headers={"Content-Type": "application/json"})[0] == 200

    res = lab.wait_results(2)
    assert [(x["commandId"], x["code"], x["message"]) for x in res] == \
        [("lab-1", 0, ""), ("lab-2", -1, 'bad "value"')]
    assert res[0]["valid_json"] is True and res[1]["valid_json"] is False
    assert res[1]["data"] == {"n": 1}
    assert res[0]["href"] == href and res[0]["serial"] == SERIAL
    assert res[0]["bundle"] == res[1]["bundle"] == 1
    assert lab.wait_result("lab-2")["code"] == -1
    assert lab.results(command_id="lab-9") == []
    assert lab.requests(path="/api" + href)[0]["kind"] == "response"
    # Results need the token as well.
    assert api.call("POST", "/api" + href, body=ok)[0] == 401


def test_response_link_may_be_the_heartbeat_path(lab, api):
    lab.config(response_href="/heartbeat")
    lab.queue_command(action="set", context="status")
    token = api.token()
    assert api.heartbeat(token)[1]["responseLink"] == {"href": "/heartbeat"}
    body = {"response": [{"commandId": "lab-1", "code": 0, "message": ""}]}
    assert api.heartbeat(token, body) == (200, {})
    assert lab.wait_result("lab-1")["path"] == "/api/heartbeat"


# ---- service links, refresh, firmware ----------------------------------------


def test_service_links_accept_and_record(lab, api, tmp_path):
    lab.queue_commands([
        {"action": "set", "context": "status",
         "params": {"interval": 60000, "serviceLink": {"href": "/devices/1/status"}}},
        {"action": "set", "context": "logging",
         "params": {"interval": 1000, "serviceLink": {"href": "/devices/1/log"}}},
        {"action": "set", "context": "statistics",
         "params": {"interval": 15000, "serviceLink": {"href": "/devices/1/stats"}}},
        {"action": "get", "context": "diagnostics",
         "params": {"serviceLink": {"href": "/devices/1/diags"}}},
    ])
    links = lab.links()
    assert links["/devices/1/status"] == "status" and links["/devices/1/log"] == "syslog"
    assert links["/devices/1/stats"] == "statistics"
    assert links["/devices/1/diags"] == "diagnostics"
    token = api.token()
    status_doc = {"port": [{"id": "1", "operational_status": "up"}]}
    log_doc = {"log": [{"sequence": 1, "logTime": "2024-01-01T00:00:00+0000",
                        "message": "<13>hello"}]}
    stats_doc = {"statisticsTime": "2024-01-01T00:00:00+0000", "interface": []}
    assert api.call("POST", "/api/devices/1/status", body=status_doc, token=token)[0] == 200
    assert api.call("POST", "/api/devices/1/log", body=log_doc, token=token)[0] == 200
    assert api.call("POST", "/api/devices/1/stats", body=stats_doc, token=token)[0] == 200
    assert api.call("POST", "/api/syslog", body=log_doc, token=token)[0] == 200
    refresh = {"reason": "reboot", "capabilities": {"set-reboot": {"allowed": True}}}
    assert api.call("POST", "/api/refresh-config", body=refresh, token=token)[0] == 200

    data = bytes(range(256)) * 8
    boundary = "----lab0123"
    form = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; "
            f"filename=\"diagnostics.tar.gz\"\r\nContent-Type: application/octet-stream"
            f"\r\n\r\n").encode() + data + f"\r\n--{boundary}--\r\n".encode()
    assert api.call("POST", "/api/devices/1/diags", body=form, token=token, headers={
        "Content-Type": f"multipart/form-data; boundary={boundary}"})[0] == 200

    assert lab.wait_request(kind="status")["json"] == status_doc
    assert [r["json"] for r in lab.requests(kind="syslog")] == [log_doc, log_doc]
    assert lab.wait_request(kind="statistics")["json"] == stats_doc
    assert lab.wait_request(kind="refresh")["json"] == refresh
    d = lab.wait_request(kind="diagnostics")
    assert d["body"] is None and base64.b64decode(d["body_base64"]) == form
    (f,) = d["files"]
    assert (f["name"], f["filename"], f["size"]) == ("file", "diagnostics.tar.gz", len(data))
    assert base64.b64decode(f["data_base64"]) == data
    assert api.call("POST", "/api/devices/1/status", body=status_doc)[0] == 401


def test_firmware_query_and_image(lab, api):
    q = "/api/current-firmware?serial_number=VX0123456789&firmware_version=1.0.0.1"
    assert api.json("GET", q) == (200, {"currentFirmware": {}})
    image = os.urandom(3000)
    lab.set_firmware("2.0.0.0", image)
    status, doc = api.json("GET", q)
    href = doc["currentFirmware"]["download"]["href"]
    assert doc["currentFirmware"]["version"] == "2.0.0.0"
    assert href.startswith(lab.base_url + "/")
    status, headers, body = api.call("GET", href[len(lab.base_url):])
    assert (status, body) == (200, image)
    assert headers["Content-Type"] == "application/octet-stream"
    # Up to date: no download offered, unless it is always offered.
    current = "/api/current-firmware?serial_number=VX0123456789&firmware_version=2.0.0.0"
    assert api.json("GET", current)[1] == {"currentFirmware": {"version": "2.0.0.0"}}
    lab.set_firmware("2.0.0.0", image, offer="always")
    assert "download" in api.json("GET", current)[1]["currentFirmware"]
    r = lab.requests(kind="current_firmware")[0]
    assert r["serial"] == SERIAL and r["params"]["firmware_version"] == "1.0.0.1"
    assert lab.requests(kind="firmware_image")[0]["reply_size"] == 3000
    assert api.call("GET", "/firmware/image-9.tar")[0] == 404


# ---- scripted replies and faults --------------------------------------------


def test_scripted_status_for_n_requests_keeps_the_queue(lab, api):
    lab.queue_command(action="set", context="config")
    lab.fail("/api/heartbeat", 503, {"error": "busy"}, count=2,
             headers={"Retry-After": "1"})
    token = api.token()
    status, headers, body = api.call("POST", "/api/heartbeat", body={}, token=token)
    assert (status, json.loads(body), headers["Retry-After"]) == (503, {"error": "busy"}, "1")
    assert api.heartbeat(token)[0] == 503
    assert len(lab.pending_commands()) == 1
    assert api.heartbeat(token)[1]["totalCount"] == 1
    recs = lab.requests(path="/api/heartbeat")
    assert [r["status"] for r in recs] == [503, 503, 200]
    assert recs[0]["scripted"] is not None and recs[2]["scripted"] is None
    assert lab.scripts() == []


def test_scripted_sequence_and_methods(lab, api):
    lab.script_replies("/api/phone_home", [
        {"status": 500}, {"body": {"code": "unregistered"}}, {"text": "not json"}])
    lab.fail("/api/phone_home", 418, method="POST")
    assert api.call("GET", PHONE_HOME)[0] == 500
    assert api.json("GET", PHONE_HOME) == (200, {"code": "unregistered"})
    assert api.call("GET", PHONE_HOME)[2] == b"not json"
    assert api.call("POST", "/api/phone_home")[0] == 418
    assert api.json("GET", PHONE_HOME)[1] == {"cloud_controller": lab.base_url}


def test_scripted_bad_json(lab, api):
    lab.bad_json("/api/heartbeat")
    status, _, body = api.call("POST", "/api/heartbeat", body={}, token=api.token())
    assert status == 200
    with pytest.raises(ValueError):
        json.loads(body)


def test_scripted_drop_and_reset(lab, api):
    lab.drop("/api/oauth/token")
    with pytest.raises((http.client.RemoteDisconnected, ConnectionError, ssl.SSLError)):
        api.call("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")
    lab.drop("/api/oauth/token", how="reset")
    with pytest.raises((ConnectionResetError, http.client.RemoteDisconnected, ssl.SSLError)):
        api.call("POST", TOKEN_PATH, basic=f"{SERIAL}:{SERIAL}")
    assert api.token()
    recs = lab.requests(kind="token")
    assert [(r["dropped"], r["status"]) for r in recs] == \
        [("close", None), ("reset", None), (None, 200)]
    assert len(lab.tokens()) == 1  # a dropped request issues nothing


def test_scripted_delay_does_not_block_other_requests(lab, api):
    lab.delay("/api/refresh-config", 1.5)
    token = api.token()
    out = {}

    def slow():
        t = time.monotonic()
        out["status"] = api.call("POST", "/api/refresh-config", body={"reason": "reboot"},
                                 token=token)[0]
        out["took"] = time.monotonic() - t
    th = threading.Thread(target=slow)
    th.start()
    # The delayed request is recorded on arrival, unanswered.
    deadline = time.monotonic() + 5
    while not lab.requests(path="/api/refresh-config") and time.monotonic() < deadline:
        time.sleep(0.02)
    assert lab.requests(path="/api/refresh-config")[0]["status"] is None
    t = time.monotonic()
    assert api.heartbeat(token)[0] == 200
    assert time.monotonic() - t < 1.0
    th.join(10)
    assert out["status"] == 200 and out["took"] >= 1.4
    r = lab.wait_request(path="/api/refresh-config")
    assert r["status"] == 200 and r["scripted"] is not None


def test_scripts_forever_and_by_pattern(lab, api):
    lab.fail("/api/dev*/status", 500, count=None)
    token = api.token()
    lab.add_link("/devA/status", "status")
    lab.add_link("/devB/status", "status")
    for p in ("/api/devA/status", "/api/devB/status", "/api/devA/status"):
        assert api.call("POST", p, body={}, token=token)[0] == 500
    assert lab.scripts()[0]["used"] == 3
    assert lab.clear_scripts() == 1
    assert api.call("POST", "/api/devA/status", body={}, token=token)[0] == 200


# ---- the request record, unknown paths, reset, waiting ----------------------


def test_unknown_paths_answer_404_and_are_recorded(lab, api):
    assert api.json("GET", "/api/nothing?x=1") == (404, {"error": "not found",
                                                          "path": "/api/nothing"})
    assert api.call("POST", "/elsewhere", body={"a": 1})[0] == 404
    recs = lab.requests(status="404")
    assert [(r["method"], r["path"], r["query"], r["kind"]) for r in recs] == \
        [("GET", "/api/nothing", "x=1", None), ("POST", "/elsewhere", "", None)]
    assert recs[1]["json"] == {"a": 1}
    assert lab.requests(kind="unknown") == recs


def test_request_record(lab, api):
    before = time.time()
    body = b"\xff\x00binary"
    api.call("PUT", "/api/status?a=%20b&c", body=body, token="x",
             headers={"X-Probe": "yes", "Content-Type": "application/octet-stream"})
    r = lab.wait_request(path="/api/status")
    assert r["method"] == "PUT" and r["params"] == {"a": " b", "c": ""}
    assert r["headers"]["x-probe"] == "yes" and ["X-Probe", "yes"] in r["raw_headers"]
    assert r["body"] is None and base64.b64decode(r["body_base64"]) == body
    assert before <= r["time"] <= time.time() and r["iso"].endswith("Z")
    assert r["client"] == "127.0.0.1" and r["status"] == 401
    assert r["error"] == "unknown token"
    mark = lab.mark()
    api.call("GET", "/api/phone_home")
    assert [x["path"] for x in lab.requests(since=mark)] == ["/api/phone_home"]


def test_chunked_request_body(lab, api):
    token = api.token()
    conn = http.client.HTTPSConnection("127.0.0.1", lab.port, context=api.ctx, timeout=10)
    conn.request("POST", "/api/syslog", body=iter([b'{"log":', b"[]}"]),
                 headers={"Authorization": f"Bearer {token}",
                          "Content-Type": "application/json"}, encode_chunked=True)
    assert conn.getresponse().status == 200
    conn.close()
    assert lab.wait_request(kind="syslog")["json"] == {"log": []}


def test_wait_request_returns_when_the_request_comes(lab, api):
    def later():
        time.sleep(0.5)
        api.call("GET", "/api/phone_home")
    threading.Thread(target=later).start()
    t = time.monotonic()
    assert lab.wait_request(kind="phone_home", timeout=10)["status"] == 200
    assert time.monotonic() - t < 5
    with pytest.raises(AssertionError):
        lab.wait_request(kind="heartbeat", timeout=0.3)


def test_reset(lab, api):
    token = api.token()
    lab.queue_command(action="set", context="config")
    lab.fail("/api/heartbeat", 500)
    lab.set_auth(False)
    lab.set_phone_home(code="unregistered")
    api.call("GET", "/nothing")
    lab.reset()
    assert lab.requests() == [] and lab.pending_commands() == [] and lab.scripts() == []
    assert lab.config()["auth"] is True
    assert api.json("GET", PHONE_HOME)[1] == {"cloud_controller": lab.base_url}
    assert api.heartbeat(token)[0] == 200  # tokens outlive a plain reset
    lab.reset(tokens=True)
    assert api.heartbeat(token)[0] == 401


def test_clearing_the_queue_and_the_request_log(lab, api):
    lab.queue_commands([{"action": "set", "context": "config"},
                        {"action": "set", "context": "system"}])
    api.call("GET", "/nothing")
    api.call("GET", "/nothing/else")
    assert lab.clear_commands() == 2
    assert lab.commands() == {"pending": [], "delivered": []}
    assert lab.clear_requests() == 2
    assert lab.requests() == []
    # Each clears its own list only, and a second time finds it empty.
    assert lab.clear_commands() == 0
    lab.queue_command(action="set", context="config")
    assert lab.clear_requests() == 0
    assert len(lab.pending_commands()) == 1


def test_control_api_refuses_bad_calls(lab):
    from lab.labfixture import LabError
    with pytest.raises(LabError):
        lab.call("POST", "/scripts", {"status": 500})
    with pytest.raises(LabError):
        lab.call("POST", "/config", {"nonsense": 1})
    with pytest.raises(LabError):
        lab.call("GET", "/nowhere")


# ---- as a program -------------------------------------------------------------


def test_program_help():
    r = run("controller", "--help")
    assert r.returncode == 0
    for opt in ("--listen", "--port", "--root", "--control-socket", "--name", "--no-auth"):
        assert opt in r.stdout


def test_program_prints_its_urls_and_stops(device_root, tmp_path):
    state = tmp_path / "st"
    proc = start("controller", "--state-dir", str(state), "--root", device_root,
                 "--control-listen", "127.0.0.1:0", stdout=subprocess.PIPE, text=True)
    try:
        lines = [proc.stdout.readline().strip() for _ in range(4)]
        assert lines[0].startswith("base_url https://127.0.0.1:")
        assert lines[1] == f"control unix:{state}/control.sock"
        assert lines[2].startswith("control http://127.0.0.1:")
        assert lines[3] == f"ca {state}/pki/ca.pem"
        from lab.labfixture import LabClient
        tcp = LabClient(url=lines[2].split()[1])
        assert tcp.info()["base_url"] == lines[0].split()[1]
        unix = LabClient(socket_path=f"{state}/control.sock")
        assert unix.info()["pid"] == proc.pid
        with open(state / "controller.json") as f:
            assert json.load(f)["base_url"] == lines[0].split()[1]
    finally:
        proc.terminate()
        assert proc.wait(timeout=10) == 0
    assert not os.path.exists(state / "control.sock")


def test_process_mode_with_a_long_state_path(device_root, tmp_path):
    deep = tmp_path / ("d" * 60) / ("e" * 60)
    with LabController(root=device_root, mode="process", state_dir=str(deep)) as c:
        assert len(c.socket_path) <= 100
        api = Api(c, device_root)
        assert api.heartbeat(api.token())[0] == 200
        assert c.wait_request(kind="heartbeat")["serial"] == SERIAL
        proc = c.proc
        sock = c.socket_path
        assert os.path.exists(sock)
    assert proc.poll() == 0  # ended cleanly through the control API
    assert not os.path.exists(sock)


IN_NETNS = r"""
import base64, http.client, json, ssl, sys
port, bundle, serial = int(sys.argv[1]), sys.argv[2], sys.argv[3]
ctx = ssl.create_default_context(cafile=bundle)
def call(method, path, headers, body=None):
    c = http.client.HTTPSConnection("192.0.2.1", port, context=ctx, timeout=10)
    c.request(method, path, body=body, headers=headers)
    r = c.getresponse()
    return r.status, json.loads(r.read())
basic = base64.b64encode(f"{serial}:{serial}".encode()).decode()
s, tok = call("POST", "/api/oauth/token?grant_type=client_credentials",
              {"Authorization": "Basic " + basic})
s, hb = call("POST", "/api/heartbeat", {"Authorization": "Bearer " + tok["access_token"],
             "Content-Type": "application/json"}, '{"uptime":3}')
print(json.dumps(hb))
"""


def test_in_a_network_namespace(netns_lab, netns, device_root):
    assert netns_lab.base_url == f"https://192.0.2.1:{netns_lab.port}"
    netns_lab.queue_command(action="set", context="reboot", serial=SERIAL)
    bundle = os.path.join(device_root, "etc/ca-bundle.pem")
    r = netns.run([sys.executable, "-c", IN_NETNS, str(netns_lab.port), bundle, SERIAL],
                  text=True)
    hb = json.loads(r.stdout)
    assert hb["totalCount"] == 1 and hb["commandList"][0]["context"] == "reboot"
    rec = netns_lab.wait_request(kind="heartbeat")
    assert rec["json"] == {"uptime": 3} and rec["serial"] == SERIAL
    # Not reachable from outside the namespace.
    with pytest.raises(OSError):
        socket.create_connection(("192.0.2.1", netns_lab.port), timeout=1).close()


@pytest.mark.skipif(shutil.which("curl") is None, reason="needs the curl tool")
def test_libcurl_verifies_the_controller_in_the_namespace(netns_lab, netns, device_root):
    """libcurl, as the daemon uses it: CA bundle, peer and host name checked."""
    bundle = os.path.join(device_root, "etc/ca-bundle.pem")
    url = netns_lab.base_url + PHONE_HOME
    r = netns.run(["curl", "-sS", "-g", "--cacert", bundle, url], text=True)
    assert json.loads(r.stdout) == {"cloud_controller": netns_lab.base_url}
    # By a name the certificate does not carry: refused by the client.
    r = netns.run(["curl", "-sS", "-g", "--cacert", bundle, "--resolve",
                   f"wrong.lab:{netns_lab.port}:192.0.2.1",
                   f"https://wrong.lab:{netns_lab.port}/api/phone_home"], check=False, text=True)
    assert r.returncode == 60
    assert netns_lab.requests(kind="phone_home")[0]["params"]["[phone_home]tz"] == "Etc/GMT+2"


def test_uploaded_files_are_kept_on_any_service_link(lab, api):
    token = api.token()

    def upload(path, data, filename="diagnostics.tar.gz"):
        boundary = "----lab4567"
        form = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\n"
                f"not a file\r\n--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; "
                f"filename=\"{filename}\"\r\nContent-Type: application/octet-stream"
                f"\r\n\r\n").encode() + data + f"\r\n--{boundary}--\r\n".encode()
        return api.call("POST", path, body=form, token=token, headers={
            "Content-Type": f"multipart/form-data; boundary={boundary}"})[0]

    first, second = os.urandom(5000), b"second archive"
    assert upload("/api/diagnostics", first) == 200
    assert upload("/api/status", second, filename="../odd name.tgz") == 200
    kept = lab.wait_archives(2)
    # Only file parts are kept, in arrival order, each with its link.
    assert [(a["seq"], a["path"], a["kind"], a["name"], a["size"]) for a in kept] == [
        (1, "/api/diagnostics", "diagnostics", "file", len(first)),
        (2, "/api/status", "status", "file", len(second))]
    assert "data_base64" not in kept[0]
    assert lab.archives(path="/api/status")[0]["filename"] == "../odd name.tgz"
    rec, data = lab.archive(1)
    assert data == first and rec["serial"] == SERIAL
    # Each is a file of its own in the lab's state folder too.
    for a, want in zip(kept, (first, second)):
        assert os.path.dirname(a["file"]) == os.path.join(lab.info()["state_dir"], "archives")
        with open(a["file"], "rb") as f:
            assert f.read() == want
    assert os.path.basename(kept[1]["file"]) == "2-.._odd_name.tgz"
    with pytest.raises(Exception, match="404"):
        lab.archive(3)
    lab.reset()
    assert lab.archives() == []
