"""The agent end to end: phone-home, token, refresh notice, heartbeats with
commands and their results, firmware updates, through the real daemon in a
network namespace against the lab controller.

The daemon runs without CAP_SYS_TIME throughout, so no test can move the
clock of the machine even when a phone-home answer carries the time."""

import io
import os
import signal
import tarfile

import pytest

from lab import devroot
from tests.e2e.kit import NO_CLOCK, wait_until

UUID = "e9d6ecc0-23bb-11e3-932d-020000000001"


def drain(lab):
    """Commands run one at a time, each to its end: once this one is
    answered, everything queued before it has run."""
    cid = lab.queue_command(action="set", context="heartbeat",
                            params={"interval": 1000, "serviceLink": {"href": "/heartbeat"}})
    assert lab.wait_result(cid)["code"] == 0


def tar_image(text="image"):
    buf = io.BytesIO()
    with tarfile.open(fileobj=buf, mode="w") as t:
        data = text.encode()
        info = tarfile.TarInfo("firmware.bin")
        info.size = len(data)
        t.addfile(info, io.BytesIO(data))
    return buf.getvalue()


# ---- the whole run ------------------------------------------------------


def test_whole_run(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)

    ph = lab.wait_request(kind="phone_home")
    assert ph["method"] == "GET"
    assert ph["path"] == "/api/phone_home"
    # As the site expects it: bracketed names, nothing URL-encoded.
    assert ph["query"] == (
        "[phone_home]serial=VX0123456789&[phone_home]uuid=" + UUID +
        "&[phone_home]hardware=VX-S28-A1&[phone_home]country=US&[phone_home]boot=0"
        "&[phone_home]primary=1.0.0.1&[phone_home]secondary=1.0.0.1"
        "&[phone_home]ipaddr=192.0.2.10&[phone_home]tz=UTC&[phone_home]utcoffset=0"
        "&[phone_home]ethaddr=02:00:00:00:00:01")
    agent.wait_log(f"phone_home: new cloud_controller = '{lab.base_url}'")
    assert agent.setting("system.cloud-controller") == lab.base_url
    assert agent.setting("system.varnex-initialized") == "yes"

    # Firmware check after phone-home: running bank's version, no token.
    fw = lab.wait_request(kind="current_firmware")
    assert fw["query"] == "serial_number=VX0123456789&firmware_version=1.0.0.1"
    assert "authorization" not in fw["headers"]

    refresh = lab.wait_request(kind="refresh")
    assert refresh["json"]["reason"] == "reboot"

    # The first heartbeat carries the uptime first, then the address.
    first = lab.wait_request(kind="heartbeat")
    assert first["headers"]["authorization"].startswith("Bearer ")
    assert first["headers"]["content-type"] == "application/json"
    assert first["body"].startswith('{"uptime":')
    assert first["json"]["lanIp"] == "192.0.2.10"
    order = [r["kind"] for r in lab.requests()]
    assert order.index("phone_home") < order.index("current_firmware") < \
        order.index("token") < order.index("refresh") < order.index("heartbeat")

    agent.wait_log("heartbeat: new interval = 1 seconds")
    wait_until(lambda: agent.statuses() == ["up"], what="status up on the switch")
    wait_until(lambda: agent.setting("system.cloud-controller-status") == "up", what="db up")

    # Commands run in the order queued; each result goes to the response link.
    ids = lab.queue_commands([
        {"action": "set", "context": "config",
         "params": {"portConfiguration": [{"id": "5", "admin_status": "down"}]}},
        {"action": "set", "context": "heartbeat",
         "params": {"interval": 1000, "serviceLink": {"href": "/hb-run"}}},
    ])
    results = lab.wait_results(2)
    assert [r["commandId"] for r in results] == ids
    assert [(r["code"], r["message"]) for r in results] == [(0, ""), (0, "")]
    bundle = [c for c in lab.delivered_commands() if c["command"]["id"] == ids[0]][0]
    assert all(r["href"] == bundle["href"] for r in results)
    assert {"call": "rpcclt_openapiIfAdminStateSet", "ifNum": 5, "adminState": 0,
            "result": 0} in agent.journal()
    agent.syslog.wait_for("Heartbeat interval=1 seconds, link='/hb-run'")
    moved = lab.wait_requests(2, path="/api/hb-run")
    # Only the first heartbeat carried the address: nothing changed since.
    assert all("lanIp" not in r["json"] for r in moved)
    t = [r["time"] for r in moved[:2]]
    assert 0.9 < t[1] - t[0] < 2.5

    # A restarted child says so in its refresh notice.
    mark = lab.mark()
    agent.kill_child()
    again = lab.wait_request(kind="refresh", since=mark, timeout=15)
    assert again["json"]["reason"] == "restart"
    agent.wait_log("phone_home: same controller '%s'" % lab.base_url)
    # A new child starts from the default link again.
    lab.wait_request(kind="heartbeat", path="/api/heartbeat", since=mark)


# ---- heartbeat ----------------------------------------------------------


def test_six_failed_heartbeats_are_tolerated_the_seventh_is_down(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)
    wait_until(lambda: agent.statuses() == ["up"], what="up")

    # Six failures: the pulse after them goes through, and by then the sixth
    # was counted with the switch still "up". A failed pulse sends the full
    # data again.
    mark = lab.mark()
    lab.fail("/api/heartbeat", 500, count=6)
    lab.wait_requests(6, path="/api/heartbeat", since=mark, status=500)
    ok = lab.wait_request(path="/api/heartbeat", since=mark, status=200)
    assert ok["json"]["lanIp"] == "192.0.2.10"
    assert agent.statuses() == ["up"]
    assert agent.setting("system.cloud-controller-status") == "up"

    mark = lab.mark()
    lab.fail("/api/heartbeat", 500, count=7)
    lab.wait_requests(7, path="/api/heartbeat", since=mark, status=500)
    wait_until(lambda: agent.statuses() == ["up", "down"], what="down after the seventh")
    wait_until(lambda: agent.setting("system.cloud-controller-status") == "down", what="db down")
    # One success brings "up" back.
    ok = lab.wait_request(path="/api/heartbeat", since=mark, status=200)
    assert ok["json"]["lanIp"] == "192.0.2.10"
    wait_until(lambda: agent.statuses() == ["up", "down", "up"], what="up again")
    wait_until(lambda: agent.setting("system.cloud-controller-status") == "up", what="db up")
    # Each word is written on a change only: two more good pulses add none.
    lab.wait_requests(2, path="/api/heartbeat", since=ok["seq"], status=200)
    assert agent.statuses() == ["up", "down", "up"]


def test_refused_token_is_renewed_within_the_pulse(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_requests(2, kind="heartbeat", status=200)

    mark = lab.mark()
    lab.revoke_tokens()
    renewed = lab.wait_request(kind="heartbeat", since=mark, status=200)
    records = [r for r in lab.requests(since=mark) if r["seq"] <= renewed["seq"]]
    assert [(r["kind"], r["status"]) for r in records] == [
        ("heartbeat", 401), ("token", 200), ("heartbeat", 200)]
    refused, _, accepted = records
    # Same pulse, same document, new token.
    assert refused["body"] == accepted["body"]
    assert refused["headers"]["authorization"] != accepted["headers"]["authorization"]
    assert len(lab.tokens()) == 2
    # The pulse counted as a success: no status change, no full resend.
    nxt = lab.wait_request(kind="heartbeat", since=renewed["seq"])
    assert "lanIp" not in nxt["json"]
    assert agent.statuses() == ["up"]


def test_count_mismatch_runs_nothing(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)
    cmds = [{"action": "set", "context": "heartbeat", "id": f"c{i}", "flags": "",
             "params": {"interval": 30000, "serviceLink": {"href": f"/x{i}"}}}
            for i in range(3)]
    mark = lab.mark()
    lab.script("/api/heartbeat", body={"totalCount": 2, "responseLink": {"href": "/response/m"},
                                       "commandList": cmds})
    agent.wait_log("totalCount (2) != commandList size (3)")
    # Heartbeats go on at 1 s on the same link, and no result comes back.
    lab.wait_requests(2, path="/api/heartbeat", since=mark, status=200)
    assert lab.results() == []
    assert not any(r["path"].startswith("/api/x") for r in lab.requests())


def test_set_heartbeat_limits(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)

    def hb(ms, href):
        return {"action": "set", "context": "heartbeat",
                "params": {"interval": ms, "serviceLink": {"href": href}}}
    ids = lab.queue_commands([hb(999, "/a"), hb(61000, "/b"), hb(60999, "/hb60"),
                              hb(1000, "/hb1"), hb(5000, "/" + "h" * 127)])
    res = lab.wait_results(5)
    assert [(r["commandId"], r["code"], r["message"]) for r in res] == [
        (ids[0], -1, "heartbeat interval out of range"),
        (ids[1], -1, "heartbeat interval out of range"),
        (ids[2], 0, ""),
        (ids[3], 0, ""),
        (ids[4], -1, "the 'href' element in params is too large"),
    ]
    assert agent.count_log("set.heartbeat: heartbeat interval out of range") == 2
    agent.syslog.wait_for("Heartbeat interval=60 seconds, link='/hb60'")
    agent.syslog.wait_for("Heartbeat interval=1 seconds, link='/hb1'")
    two = lab.wait_requests(2, path="/api/hb1")
    assert 0.9 < two[1]["time"] - two[0]["time"] < 2.5


def test_boot_environment_interval_out_of_range(agent):
    agent = agent(heartbeat=61, wrapper=NO_CLOCK)
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("heartbeat: interval value (61) is out of range")
    assert not any("heartbeat: new interval" in m for m in agent.log())
    # The default of 10 s stays.
    first, second = agent.lab.wait_requests(2, kind="heartbeat", timeout=25)[:2]
    assert first["status"] == 200
    assert 9.5 < second["time"] - first["time"] < 12


# ---- firmware -----------------------------------------------------------


def test_offered_firmware_is_installed_and_the_switch_reloaded(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    image = tar_image("v2")
    lab.set_firmware("2.0.0.0", image=image)
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="firmware_image")
    agent.wait_log("check_updates: running /usr/sbin/varnex-updates /tmp/updates.tar")
    wait_until(lambda: any(j["call"] == "rpcclt_openapiSystemReload" for j in agent.journal()),
               what="reload on the switch")
    log = agent.log()
    url = lab.firmware()["url"]
    assert f"check_updates: downloading new firmware, url = '{url}'" in log
    assert any(m.startswith("check_updates: update successfully completed, restarting system.")
               for m in log)
    with open(agent.path("/tmp/updates.tar"), "rb") as f:
        assert f.read() == image
    with open(agent.path("/rw/updates.log")) as f:
        lines = f.read().splitlines()
    assert len(lines) == 1
    assert lines[0].endswith(" " + agent.path("/tmp/updates.tar"))
    assert "starting deferred_updates" not in log


def test_failed_installer_is_retried_in_the_background(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    lab.set_firmware("2.0.0.0", image=tar_image())
    with open(agent.path("/etc/varnex-updates.fail"), "w") as f:
        f.write("7\n")
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("check_updates: varnex-updates /tmp/updates.tar failed with error code 7")
    agent.wait_log("starting deferred_updates")
    child = agent.wait_child()
    wait_until(lambda: "deferred_update" in " ".join(agent.thread_names(child)),
               what="the deferred_updates thread")
    assert not any(j["call"] == "rpcclt_openapiSystemReload" for j in agent.journal())
    # The image stays for the next attempt; the installer's output is kept.
    # The retry thread checks again at once and may be downloading the image
    # anew (the download truncates first), so wait for it to be whole again.
    wait_until(lambda: os.path.getsize(agent.path("/tmp/updates.tar")) > 0,
               what="the image in /tmp/updates.tar")
    # Each run rewrites it; the retry may be writing it right now.
    wait_until(lambda: "failing with status 7" in open(agent.path("/rw/varnex-updates.log")).read(),
               what="the installer's output")


def test_reply_without_current_firmware_starts_the_retries(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    lab.script("/api/current-firmware", body={"firmware": {}})
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("check_updates: missing or invalid 'currentFirmware' object")
    agent.wait_log("starting deferred_updates")
    # The retry thread checked once more at once, and got the normal answer.
    lab.wait_requests(2, kind="current_firmware")
    assert lab.requests(kind="firmware_image") == []


def test_set_firmware_answers_first(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)
    mark = lab.mark()
    cid = lab.queue_command(action="set", context="firmware")
    res = lab.wait_result(cid)
    assert (res["code"], res["message"]) == (0, "")
    check = lab.wait_request(kind="current_firmware", since=mark)
    assert res["request"] < check["seq"]

    lab.queue_command({"action": "set", "context": "firmware", "flags": ""}, raw=True)
    bad = lab.wait_results(2, since=res["seq"] - 1)[1]
    assert (bad["code"], bad["message"]) == (-1, "missing or invalid 'id' element in command")
    agent.wait_log("set.firmware: missing or invalid 'id' element in command")
    drain(lab)
    assert len(lab.requests(kind="current_firmware", since=mark)) == 1


def test_boot_bank_1_reports_the_secondary_version(agent):
    agent = agent(bootenv={"active": "image2"}, wrapper=NO_CLOCK)
    with open(agent.path("/mnt/fastpath/image2"), "w") as f:
        f.write("version=1.0.0.2\n")
    agent.start("-s", agent.lab.base_url)
    fw = agent.lab.wait_request(kind="current_firmware")
    assert fw["query"] == "serial_number=VX0123456789&firmware_version=1.0.0.2"
    ph = agent.lab.requests(kind="phone_home")[0]
    assert ph["params"]["[phone_home]boot"] == "1"
    assert ph["params"]["[phone_home]secondary"] == "1.0.0.2"


def test_developer_build_never_updates(agent):
    agent = agent(wrapper=NO_CLOCK)
    with open(agent.path("/etc/version"), "w") as f:
        f.write("1.0.0.1-developer\n")
    agent.lab.set_firmware("2.0.0.0", image=tar_image())
    agent.start("-s", agent.lab.base_url)
    agent.lab.wait_requests(2, kind="heartbeat")
    cid = agent.lab.queue_command(action="set", context="firmware")
    assert agent.lab.wait_result(cid)["code"] == 0
    drain(agent.lab)
    assert agent.lab.requests(kind="current_firmware") == []


# ---- phone-home ---------------------------------------------------------


def test_phone_home_no_in_boot_environment(agent):
    agent = agent(bootenv={"phone_home": "NO"}, wrapper=NO_CLOCK)
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("phone_home: found 'phone_home=NO' in boot env, exiting!")
    agent.wait_log("cloud_controller not set, skipping heartbeats!")
    # The heartbeat thread goes round its 1-s loop and still finds no
    # controller: nothing is sent, and the line is not written again.
    agent.wait_turns("heartbeat")
    assert agent.lab.requests() == []
    assert agent.count_log("cloud_controller not set, skipping heartbeats!") == 1
    assert agent.statuses() == ["down"]


def test_phone_home_no_is_ignored_when_debugging(agent):
    agent = agent(bootenv={"phone_home": "no"}, wrapper=NO_CLOCK)
    agent.start("-d", "-s", agent.lab.base_url)
    agent.lab.wait_request(kind="phone_home")
    assert not any("in boot env, exiting" in m for m in agent.log())


def test_controller_from_boot_environment_skips_the_query(agent):
    agent = agent(wrapper=NO_CLOCK)
    devroot.update_bootenv(agent.root, controller=agent.lab.base_url)
    agent.start("-s", "https://192.0.2.99:1")
    agent.wait_log(f"phone_home: using controller from bootenv <{agent.lab.base_url}>")
    agent.lab.wait_request(kind="heartbeat", status=200)
    assert agent.lab.requests(kind="phone_home") == []
    assert agent.setting("system.varnex-initialized") == "yes"


def test_unregistered_forgets_the_controller(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)
    lab.set_phone_home(code="unregistered")
    agent.kill_child()
    agent.wait_log("phone_home_call: in 'unregistered' state, will continue trying every 600 "
                   "seconds")
    agent.wait_log("starting background 'phone_home' thread")
    assert agent.setting("system.cloud-controller") == ""
    assert agent.setting("system.varnex-initialized") == "no"
    # No controller, no heartbeats.
    agent.wait_log("cloud_controller not set, skipping heartbeats!")
    mark = lab.mark()
    agent.wait_turns("heartbeat")
    assert lab.requests(kind="heartbeat", since=mark) == []


def test_decommissioned_new_device_only_slows_down(agent):
    agent = agent(wrapper=NO_CLOCK)
    agent.lab.set_phone_home(code="decommissioned")
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("phone_home_call: in 'decommissioned' state, will continue trying every 10 "
                   "seconds")
    agent.wait_log("starting background 'phone_home' thread")
    assert not os.path.exists(agent.path("/rw/factory-reset.log"))
    assert not any("factory-reset" in m for m in agent.log())


def test_decommissioned_soft_reset_of_an_initialised_device(agent):
    agent = agent(wrapper=NO_CLOCK)
    lab = agent.lab
    agent.start("-s", agent.lab.base_url)
    lab.wait_request(kind="heartbeat", status=200)
    assert agent.setting("system.varnex-initialized") == "yes"
    lab.set_phone_home(code="decommissioned", reset_mode="soft")
    # The new child resets during its start-up (phone-home runs before the
    # main loop), so do not wait for it to be ready.
    os.kill(agent.wait_child(), signal.SIGKILL)
    agent.wait_log("phone_home_call: in 'decommissioned' state, performing soft factory-reset "
                   "and reboot...", timeout=15)
    wait_until(lambda: os.path.exists(agent.path("/rw/factory-reset.log")),
               what="the factory reset")
    # The reset tool cleared the binding in the boot environment too.
    assert "heartbeat" not in devroot.read_bootenv(agent.root)
    # The recorded reset returns (the device stays up), so the soft reset has
    # failed and the full one follows it.
    agent.wait_log("phone_home_call: in 'decommissioned' state, performing factory-reset and "
                   "reboot...", timeout=30)
    log = agent.log()
    soft = log.index("phone_home_call: in 'decommissioned' state, performing soft "
                     "factory-reset and reboot...")
    full = log.index("phone_home_call: in 'decommissioned' state, performing factory-reset "
                     "and reboot...")
    assert soft < full
    wait_until(lambda: len(open(agent.path("/rw/factory-reset.log")).read().splitlines()) == 2,
               what="the second, full reset")


@pytest.mark.parametrize("sntp", [False, True])
def test_clock_from_phone_home(agent, sntp):
    agent = agent(wrapper=NO_CLOCK)
    if sntp:
        with open(agent.path("/tmp/time_set"), "w") as f:
            f.write("1\n")
    agent.lab.set_phone_home(timeofday=True)
    agent.start("-s", agent.lab.base_url)
    agent.lab.wait_request(kind="heartbeat")
    failed = [m for m in agent.log() if "settimeofday failed" in m]
    if sntp:
        # SNTP set the clock already: ours is left alone.
        assert failed == []
    else:
        # Tried, and refused: the daemon runs without the right to do it.
        assert failed == ["phone_home_call: settimeofday failed, (Operation not permitted)"]
    assert not any("set time-of-day" in m for m in agent.syslog.messages())


def test_invalid_timeofday(agent):
    agent = agent(wrapper=NO_CLOCK)
    agent.lab.set_phone_home(timeofday="noon")
    agent.start("-s", agent.lab.base_url)
    agent.wait_log("phone_home_call: invalid 'timeofday' element")
    agent.lab.wait_request(kind="heartbeat")


def test_address_on_dtl0_only(agent, netns):
    agent = agent(wrapper=NO_CLOCK)
    netns.run(["ip", "addr", "flush", "dev", "eth0"])
    netns.run(["ip", "link", "add", "dtl0", "type", "veth", "peer", "name", "dtl0p"])
    netns.run(["ip", "addr", "add", "192.0.2.20/24", "dev", "dtl0"])
    netns.run(["ip", "link", "set", "dtl0p", "up"])
    netns.run(["ip", "link", "set", "dtl0", "up"])
    agent.start("-s", agent.lab.base_url)
    ph = agent.lab.wait_request(kind="phone_home")
    assert ph["params"]["[phone_home]ipaddr"] == "192.0.2.20"
    agent.wait_log("ipaddr='192.0.2.20'")
    assert not any(m.startswith("waiting...") for m in agent.log())
    hb = agent.lab.wait_request(kind="heartbeat")
    assert hb["json"]["lanIp"] == "192.0.2.20"
