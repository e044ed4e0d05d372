"""The status stream end to end: the real daemon in its own network namespace
posts port status documents to the lab controller from the simulated switch;
and the lab controller's view of them."""

import base64
import http.client
import json
import os
import ssl

from tests.e2e.kit import wait_until

SERIAL = "VX0123456789"

# OpEN speed number to the Mbit/s the controller is sent.
SPEEDS = {2: 100, 3: 100, 4: 10, 5: 10, 6: 1000, 7: 1000, 8: 10000, 9: 0, 10: 40000}
WS = " \t\n\v\f\r"


def caps(text):
    out = []
    for part in text.split(","):
        out.append(part.lstrip(WS))
    return out


def expected_ports(model, only=None):
    """The port records the controller must get for this model, worked out
    from the model itself: ports in interface order, at most the last two
    neighbours and the last two VLANs of each, every value a string."""
    vlans = sorted(model.get("vlans", []), key=lambda v: v["id"])
    out = []
    for p in sorted(model["ports"], key=lambda p: p["ifnum"]):
        n = p["ifnum"]
        if only is not None and n not in only:
            continue
        neighbors = []
        for nb in p.get("neighbors", [])[-2:]:
            neighbors.append({
                "chassis_id": nb.get("chassis_id", ""),
                "chassis_id_subtype": str(nb.get("chassis_id_subtype", 4)),
                "port_id": nb.get("port_id", ""),
                "port_id_subtype": str(nb.get("port_id_subtype", 5)),
                "system_name": nb.get("system_name", ""),
                "system_description": nb.get("system_description", ""),
                "mgmt_address": nb.get("mgmt_address", ""),
                "system_caps_supported": caps(nb.get("system_caps_supported", "")),
                "system_caps_enabled": caps(nb.get("system_caps_enabled", "")),
            })
        member = [{"id": str(v["id"]), "name": v["name"]} for v in vlans if n in v["ports"]]
        out.append({
            "id": str(n),
            "name": p["name"],
            "speed": str(SPEEDS.get(p["speed"], 0)),
            "duplex": "full" if p["duplex"] == "full" else "half",
            "operational_status": "up" if p["link"] == "up" else "down",
            "admin_status": "up" if p["admin"] == "enable" else "down",
            "mac_address": p["mac"],
            "neighbor": neighbors,
            "vlan": member[-2:],
        })
    return out


def keys_in_order(doc):
    """Every object's keys, in the order they came, for comparing order."""
    if isinstance(doc, dict):
        return [(k, keys_in_order(v)) for k, v in doc.items()]
    if isinstance(doc, list):
        return [keys_in_order(v) for v in doc]
    return None


class Switch:
    def __init__(self, root):
        self.path = os.path.join(root, "var/switch/model.json")

    def model(self):
        with open(self.path) as f:
            return json.load(f)

    def write(self, model):
        tmp = self.path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(model, f, indent=1)
        os.replace(tmp, self.path)

    def port(self, model, n):
        return next(p for p in model["ports"] if p["ifnum"] == n)


def set_status(lab, ms, href):
    return lab.queue_command(action="set", context="status",
                             params={"interval": ms, "serviceLink": {"href": href}})


def status_docs(lab, path="/api/status", **kw):
    return [r for r in lab.requests(path=path, **kw) if r["kind"] == "status"]


def start_stream(agent, ms=10000, href="/status"):
    agent.start("-s", agent.lab.base_url)
    agent.lab.wait_request(kind="heartbeat", status=200, timeout=20)
    cid = set_status(agent.lab, ms, href)
    res = agent.lab.wait_result(cid)
    assert (res["code"], res["message"]) == (0, "")
    return res


def test_first_document_then_changes_only(agent):
    agent = agent()
    lab, switch = agent.lab, Switch(agent.root)
    model = switch.model()
    # Reception on everywhere, so the first cycle already sees every neighbour.
    for p in model["ports"]:
        p["lldp_receive"] = "enable"
    switch.write(model)
    start_stream(agent)
    agent.wait_log("status_send: Started '10','/status','1'")
    # Set up in the child's start-up, before the heartbeat thread.
    log = agent.log()
    at = [log.index(m) for m in (
        "registered 'set.status' command handler",
        "registered new handler 'status_debug' for signal 10",
        "status_register_provider: registered 'status_port_provider' status provider")]
    assert at == sorted(at)
    assert at[-1] < log.index(next(m for m in log if m.startswith("heartbeat: my TID")))

    first = lab.wait_request(kind="status", status=200, timeout=30)
    assert first["json"] == {"port": expected_ports(model)}
    assert keys_in_order(first["json"]) == keys_in_order({"port": expected_ports(model)})
    assert [p["id"] for p in first["json"]["port"]] == [str(n) for n in range(1, 29)]
    port5 = first["json"]["port"][4]
    assert [n["system_name"] for n in port5["neighbor"]] == ["lab-pi-2", "lab-pi-3"]
    assert first["body"].startswith('{\n    "port":[\n        {\n            "id":"1",\n'
                                    '            "name":"0/1",\n')
    assert first["headers"]["content-type"] == "application/json"
    assert first["headers"]["authorization"].startswith("Bearer ")

    # Port 1 loses its link: the next document carries it alone, two
    # 10-second steps after the first.
    model = switch.model()
    switch.port(model, 1)["link"] = "down"
    switch.write(model)
    second = lab.wait_request(kind="status", since=first["seq"], timeout=30)
    assert second["json"] == {"port": expected_ports(model, only={1})}
    assert second["json"]["port"][0]["operational_status"] == "down"
    assert 19.0 < second["time"] - first["time"] < 22.5

    # A model the switch cannot read changes nothing: the next pass finds
    # no change and sends nothing; the daemon goes on.
    with open(switch.path, "w") as f:
        f.write('{"ports": [')
    wait_until(lambda: "switch simulator: ignoring" in
               open(os.path.join(agent.workdir, "orkad.stdout"), errors="replace").read(),
               timeout=30, what="the simulator refusing the model")
    # That pass ends before the model is fixed: the thread sleeps again.
    wait_until(lambda: agent.asleep("status_send"), what="the end of the pass")
    assert status_docs(lab, since=second["seq"]) == []
    # Fixed again, with port 1 up: reported at the next step.
    switch.port(model, 1)["link"] = "up"
    switch.write(model)
    third = lab.wait_request(kind="status", since=second["seq"], timeout=30)
    assert third["json"] == {"port": expected_ports(model, only={1})}
    assert 29.0 < third["time"] - second["time"] < 32.5
    assert agent.proc.poll() is None
    assert len(status_docs(lab)) == 3

    # The lab's view: every port, port 1 as last reported.
    view = lab.status()
    assert view["documents"] == 3
    assert [p["id"] for p in view["ports"]] == [str(n) for n in range(1, 29)]
    assert view["ports"][0]["operational_status"] == "up"
    assert view["ports"][0]["updated"] == 3
    assert view["ports"][1]["updated"] == 1


def test_failed_post_refused_token_and_a_second_set_status(agent):
    agent = agent()
    lab, switch = agent.lab, Switch(agent.root)
    model = switch.model()
    # The first post fails; the next one, a step later, has its token refused
    # and goes again at once with a new one.
    lab.script_replies("/api/status", [{"status": 500, "body": {"error": "busy"}},
                                       {"status": 401}])
    start_stream(agent)

    failed = lab.wait_request(kind="status", status=500, timeout=30)
    agent.wait_log("status_send: post errors (err = 500)")
    agent.wait_log("status_post: err = 500, reply = '{\"error\":\"busy\"}'")
    ok = lab.wait_request(kind="status", status=200, since=failed["seq"], timeout=20)
    records = [r for r in lab.requests(since=failed["seq"]) if r["seq"] <= ok["seq"]
               and r["kind"] in ("status", "token")]
    assert [(r["kind"], r["status"]) for r in records] == [
        ("status", 401), ("token", 200), ("status", 200)]
    assert records[0]["body"] == records[2]["body"]
    assert records[0]["headers"]["authorization"] != records[2]["headers"]["authorization"]
    assert 9.0 < records[0]["time"] - failed["time"] < 12.5
    # Every valid port again (port 9's neighbour arrived in this second cycle
    # once reception was switched on).
    assert failed["json"]["port"][8]["neighbor"] == []
    assert {"call": "rpcclt_openapiLldpIntfReceiveModeSet", "ifNum": 9, "mode": 1,
            "result": 0} in agent.journal()
    assert ok["json"] == {"port": expected_ports(model)}
    agent.wait_log("status_send: post successful")

    # A second set.status: same thread, new pace, same link.
    child = agent.wait_child()
    lab.add_link("/status-b", "status")
    cid = set_status(lab, 20000, "/status-b")
    res = lab.wait_result(cid)
    assert (res["code"], res["message"]) == (0, "")
    agent.wait_log("already running, new interval = 20, enable = true")
    line = next(m for m in agent.log() if "already running" in m)
    assert line.startswith("status_start: status thread ")
    assert agent.thread_names(child).count("status_send") == 1

    model = switch.model()
    switch.port(model, 2)["admin"] = "disable"
    switch.write(model)
    nxt = lab.wait_request(kind="status", since=ok["seq"], timeout=40)
    # 20 s: the timer climbs from 10 past 20, three steps.
    assert 29.0 < nxt["time"] - ok["time"] < 32.5
    assert nxt["path"] == "/api/status"
    assert nxt["json"] == {"port": expected_ports(model, only={2})}
    assert lab.requests(path="/api/status-b") == []
    assert sum(1 for m in agent.log() if m.startswith("status_send: Started")) == 1


# ---- the lab controller's view, on its own ---------------------------------


class Device:
    def __init__(self, lab, root):
        self.lab = lab
        self.ctx = ssl.create_default_context(cafile=os.path.join(root, "etc/ca-bundle.pem"))
        conn = self._conn()
        cred = base64.b64encode(f"{SERIAL}:{SERIAL}".encode()).decode()
        conn.request("POST", "/api/oauth/token?grant_type=client_credentials",
                     headers={"Authorization": "Basic " + cred})
        self.token = json.loads(conn.getresponse().read())["access_token"]
        conn.close()

    def _conn(self):
        return http.client.HTTPSConnection("127.0.0.1", self.lab.port, context=self.ctx,
                                           timeout=10)

    def post(self, path, body):
        conn = self._conn()
        try:
            conn.request("POST", path, body=body if isinstance(body, str) else json.dumps(body),
                         headers={"Authorization": "Bearer " + self.token,
                                  "Content-Type": "application/json"})
            r = conn.getresponse()
            r.read()
            return r.status
        finally:
            conn.close()


def test_lab_keeps_documents_and_the_current_view(lab, device_root):
    dev = Device(lab, device_root)
    p1 = {"id": "1", "name": "0/1", "operational_status": "up"}
    p2 = {"id": "2", "name": "0/2", "operational_status": "down"}
    assert dev.post("/api/status", {"port": [p2, p1]}) == 200
    assert dev.post("/api/status", {"port": [dict(p1, operational_status="down")]}) == 200
    # Refused documents are not part of the view.
    lab.fail("/api/status", 500)
    assert dev.post("/api/status", {"port": [dict(p2, name="lost")]}) == 500
    # A link handed out with set.status is a status link too.
    lab.queue_command(action="set", context="status",
                      params={"interval": 10000, "serviceLink": {"href": "/dev/1/status"}})
    assert dev.post("/api/dev/1/status", {"port": [{"id": "10", "name": "0/10"}]}) == 200
    assert dev.post("/api/status", "not json") == 200

    docs = lab.status_documents()
    assert [d["seq"] for d in docs] == [1, 2, 3, 4]
    assert [d["ports"] for d in docs] == [["2", "1"], ["1"], ["10"], []]
    assert [d["path"] for d in docs] == ["/api/status", "/api/status", "/api/dev/1/status",
                                         "/api/status"]
    assert docs[0]["document"] == {"port": [p2, p1]}
    assert docs[0]["serial"] == SERIAL
    assert docs[3]["valid_json"] is False
    assert [d["seq"] for d in lab.status_documents(since=2)] == [3, 4]
    assert [d["seq"] for d in lab.status_documents(path="/api/dev/1/status")] == [3]

    view = lab.status()
    assert view["documents"] == 4
    assert [(p["id"], p["name"], p.get("operational_status")) for p in view["ports"]] == [
        ("1", "0/1", "down"), ("2", "0/2", "down"), ("10", "0/10", None)]
    assert [p["updated"] for p in view["ports"]] == [2, 1, 3]
    assert len(lab.wait_status_documents(4, timeout=1)) == 4

    assert lab.clear_status() == 4
    assert lab.status() == {"ports": [], "documents": 0, "last": 0}
    # A reset forgets them too.
    dev.post("/api/status", {"port": [p1]})
    lab.reset()
    assert lab.status_documents() == []
