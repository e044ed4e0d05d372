"""The road to the controller end to end: answers that are JSON whatever the
controller's texts hold, uploads the controller refuses, firmware from a
server nothing trusts."""

import os

from conftest import wait_until
from labfixture import LabController
from lab_fixtures import heartbeating, netns_lab  # noqa: F401


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
