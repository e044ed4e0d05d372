"""The road to the controller end to end: answers that are JSON whatever the
controller's texts hold, uploads the controller refuses, firmware from a
server nothing trusts."""

import os

from lab.labfixture import LabController
from tests.e2e.kit import stream_command, wait_until


def test_hostile_command_id_and_property_name_get_json_answers(heartbeating):
    lab = heartbeating.lab
    hb_id = 'hb"1\\x'
    lab.queue_command({"action": "set", "context": "heartbeat", "id": hb_id,
                       "params": {"interval": 1000, "serviceLink": {"href": "/heartbeat"}}})
    res = lab.wait_result(command_id=hb_id, timeout=20)
    assert res["valid_json"]
    assert (res["commandId"], res["code"], res["message"]) == (hb_id, 0, "")

    lab.queue_command({"action": "set", "context": "system", "id": 'sys"2',
                       "params": {'na"me\\': 5}})
    res = lab.wait_result(command_id='sys"2', timeout=20)
    assert res["valid_json"]
    assert (res["code"], res["message"]) == (1, 'failed to set properties: na"me\\')


def test_a_diagnostics_upload_the_controller_refuses_is_answered_as_failed(heartbeating):
    lab = heartbeating.lab
    lab.script("/api/diagnostics/sw1", status=500, body={"error": "full"})
    lab.queue_command({"action": "get", "context": "diagnostics", "id": "dg-500",
                       "params": {"serviceLink": {"href": "/diagnostics/sw1"}}})
    res = lab.wait_result(command_id="dg-500", timeout=40)
    assert (res["code"], res["message"]) == (-1, "failed to upload diagnostics data")
    assert len(lab.requests(path="/api/diagnostics/sw1")) == 1
    heartbeating.wait_log("http_upload_file_multipart: upload refused, response code = 500")
    assert not os.path.exists(heartbeating.path("/tmp/diagnostics.tar.gz"))


def test_firmware_from_a_server_nothing_trusts_is_not_installed(heartbeating, netns, tmp_path):
    lab = heartbeating.lab
    # A second server on the switch's path, with a certificate of its own
    # that the device's bundle and the system's store do not know.
    other = LabController(host=netns.gateway, prefix=netns.prefix(),
                          state_dir=str(tmp_path / "other"))
    try:
        other.set_firmware("2.0.0.0", image=b"not for you")
        href = other.firmware()["url"]
        lab.set_firmware("2.0.0.0", href=href)
        lab.queue_command({"action": "set", "context": "firmware", "id": "fw-1", "params": {}})
        assert lab.wait_result(command_id="fw-1", timeout=20)["code"] == 0
        heartbeating.wait_log(f"check_updates: downloading new firmware, url = '{href}'")
        wait_until(lambda: sum(1 for m in heartbeating.log()
                               if m == "http_download_file: done!  err = 60") >= 3,
                   what="three downloads refused for the server's certificate", timeout=30)
        with open(heartbeating.path("/rw/http.log")) as f:
            assert "http_download_file: curl_easy_perform() failed: (CURLcode = 60)" in f.read()
        assert other.requests(kind="firmware_image") == []
        log = heartbeating.log()
        assert not any("running /usr/sbin/varnex-updates" in m for m in log)
        assert not any(j["call"] == "rpcclt_openapiSystemReload" for j in heartbeating.journal())
    finally:
        other.stop()


def test_a_2_kib_controller_url_from_phone_home_reaches_every_request_whole(agent):
    d = agent()
    lab = d.lab
    # The controller behind a path, as behind a gateway, so that its URL is
    # 2048 characters long.
    mount = "/" + "m" * (2048 - len(lab.base_url) - 1)
    controller = lab.base_url + mount
    assert len(controller) == 2048
    lab.config(mount=mount)
    lab.set_phone_home(cloud_controller=controller)
    d.start("-s", lab.base_url)
    d.wait_log(f"phone_home: new cloud_controller = '{controller}'", timeout=20)
    lab.wait_request(kind="heartbeat", timeout=20)
    lab.queue_commands([
        stream_command("status", "st"), stream_command("statistics", "sx"),
        stream_command("logging", "lg"),
        {"action": "get", "context": "diagnostics", "id": "dg",
         "params": {"serviceLink": {"href": "/diagnostics"}}},
        {"action": "set", "context": "firmware", "id": "fw", "params": {}},
    ])
    results = {r["commandId"]: r["code"] for r in lab.wait_results(5, 60)}
    assert results == {"st": 0, "sx": 0, "lg": 0, "dg": 0, "fw": 0}
    lab.wait_request(kind="status", timeout=30)
    lab.wait_request(kind="statistics", timeout=40)
    # The lab runs in the switch's namespace: its datagram reaches the
    # receiver on 127.0.0.1.
    lab.call("POST", "/syslog/send", {"text": "<13>Nov 24 10:11:12 sw1 app: far away"})
    lab.wait_request(kind="syslog", timeout=20)
    kinds = {}
    for r in lab.requests():
        if r["kind"] in (None, "phone_home"):
            continue
        kinds.setdefault(r["kind"], []).append(r["full_path"])
    for kind in ("token", "refresh", "heartbeat", "response", "status", "statistics",
                 "syslog", "diagnostics", "current_firmware"):
        assert kind in kinds, (kind, sorted(kinds))
        for path in kinds[kind]:
            assert path.startswith(mount + "/api/"), (kind, path[:80])
