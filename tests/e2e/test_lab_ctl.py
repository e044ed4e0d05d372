"""lab.ctl against a running lab of two switches: every subcommand's
output, read against what the lab and the switch models hold."""

import json
import re

import pytest

from tests.e2e.kit import wait_until
from tests.e2e.lab_runner import run


@pytest.fixture(scope="module")
def runner(lab_runner):
    return lab_runner(devices=2)


def test_help_names_every_subcommand_and_command():
    r = run("ctl", "--help")
    assert r.returncode == 0
    for sub in ("devices", "commands", "send", "results", "syslog", "say", "ports", "archives"):
        assert sub in r.stdout
    assert "set.status" in r.stdout and "get.diagnostics" in r.stdout


def test_no_lab_is_a_clear_error(tmp_path):
    r = run("ctl", "--lab", str(tmp_path / "none.sock"), "devices")
    assert r.returncode == 2
    assert r.stderr.startswith("ctl: cannot reach the lab:")


def test_commands_lists_the_twelve():
    r = run("ctl", "commands")
    names = [line.split()[0] for line in r.stdout.splitlines()]
    assert sorted(names) == sorted([
        "set.heartbeat", "set.status", "set.statistics", "set.logging", "set.config",
        "del.config", "set.system", "set.reboot", "set.firmware", "set.sslVpn", "del.sslVpn",
        "get.diagnostics"])


def test_devices_table_and_json(runner):
    wait_until(runner.connected, timeout=30, what="both switches heartbeating")
    out = runner.ctl("devices").stdout.splitlines()
    assert out[0].split()[:5] == ["SERIAL", "NAME", "MODEL", "PORTS", "STATE"]
    rows = {line.split()[0]: line for line in out[1:]}
    for n in (1, 2):
        dev = runner.device(n)
        row = rows[dev["serial"]]
        assert row.split()[1:4] == [dev["name"], dev["model"], str(dev["ports"])]
        assert " connected " in row and dev["address"] in row
    devs = json.loads(runner.ctl("--json", "devices").stdout)
    assert {d["serial"] for d in devs} == {runner.device(1)["serial"], runner.device(2)["serial"]}
    # The dashboard's address serves the same control API.
    via_url = run("ctl", "--lab", runner.dashboard, "--json", "devices", timeout=30)
    assert {d["serial"] for d in json.loads(via_url.stdout)} == {d["serial"] for d in devs}


def test_send_waits_for_the_result_and_results_lists_it(runner):
    serial = runner.device(2)["serial"]
    r = runner.ctl("send", "set.system", "--param", "location=bench 7", "--serial", serial,
                   "--wait", "30")
    m = re.match(rf"queued set.system as (lab-\d+) for {serial}\n(\S+)  code 0  {serial}  "
                 r'message ""\n$', r.stdout)
    assert m and m.group(1) == m.group(2), r.stdout
    cid = m.group(1)
    # It went to that switch only, with the parameter given.
    cmds = runner.lab.call("GET", "/commands")["delivered"]
    sent = [c for c in cmds if c["command"]["id"] == cid][0]
    assert sent["to"] == serial
    assert sent["command"]["params"] == {"location": "bench 7"}
    listed = runner.ctl("results", "--id", cid).stdout
    assert listed == f'{cid}  code 0  {serial}  message ""\n'


def test_send_a_failing_command_exits_1_with_the_daemons_message(runner):
    r = runner.ctl("send", "set.heartbeat", "--param", "interval=1", "--wait", "30",
                   check=False)
    assert r.returncode == 1
    assert re.search(r"code -1  VX\d+  message \"heartbeat interval out of range\"", r.stdout)


def test_send_rejects_unknown_commands_and_bad_params(runner):
    r = runner.ctl("send", "set.nothing", check=False)
    assert r.returncode == 2 and "unknown command 'set.nothing'" in r.stderr
    assert "set.status" in r.stderr
    r = runner.ctl("send", "set.system", "--params", "{nope", check=False)
    assert r.returncode == 2 and r.stderr.startswith("ctl: --params is not JSON")
    assert runner.lab.call("GET", "/commands")["pending"] == []


def test_ports_table_follows_the_switch_model(runner):
    serial = runner.device(2)["serial"]
    # As it is before the daemon switches LLDP reception on where it is off.
    model = runner.model(2)
    runner.ctl("send", "set.status", "--serial", serial, "--wait", "30")
    wait_until(lambda: runner.lab.call("GET", "/status", query={"serial": serial})["ports"],
               timeout=30, what="a status document")
    out = runner.ctl("ports", "--serial", serial).stdout.splitlines()
    assert out[0].startswith(f"{serial}: {len(model['ports'])} ports")
    assert out[1].split() == ["PORT", "NAME", "LINK", "SPEED", "DUPLEX", "ADMIN", "NEIGHBOURS",
                              "VLANS"]
    rows = out[2:]
    assert len(rows) == len(model["ports"])
    for row, port in zip(rows, model["ports"]):
        cells = row.split()
        assert cells[0] == str(port["ifnum"]) and cells[1] == port["name"]
        assert cells[2] == port["link"]
        # A port reports its last two neighbours (once LLDP reception is on).
        for n in port["neighbors"][-2:] if port["lldp_receive"] == "enable" else []:
            assert n["system_name"] in row
    # The other switch has sent no status: it says so.
    other = runner.device(1)["serial"]
    if not runner.lab.call("GET", "/status", query={"serial": other})["ports"]:
        assert runner.ctl("ports", "--serial", other).stdout == \
            f"{other}: no status document yet (queue set.status)\n"


def test_say_and_syslog(runner):
    serial = runner.device(2)["serial"]
    runner.ctl("send", "set.logging", "--serial", serial, "--wait", "30")
    r = runner.ctl("say", "--serial", serial, "hello", "from", "ctl")
    ns = runner.device(2)["syslog_netns"]
    assert r.stdout.startswith(f"sent a line to {serial} (127.0.0.1 in {ns})")
    wait_until(lambda: runner.lab.call("GET", "/syslog", query={"contains": "hello from ctl"})
               ["lines"], timeout=20, what="the line forwarded")
    out = runner.ctl("syslog", "--contains", "hello from ctl").stdout
    assert re.fullmatch(rf"{serial}  \S+  <13>hello from ctl\n", out), out
    followed = runner.ctl("syslog", "--serial", serial, "--follow", "--for", "1").stdout
    assert "<13>hello from ctl" in followed


def test_archives_lists_the_diagnostics_upload(runner):
    serial = runner.device(1)["serial"]
    runner.ctl("send", "get.diagnostics", "--serial", serial, "--wait", "60")
    wait_until(lambda: runner.lab.call("GET", "/archives")["archives"], timeout=30,
               what="the archive")
    a = runner.lab.call("GET", "/archives")["archives"][0]
    out = runner.ctl("archives").stdout
    assert out.startswith(f"{a['seq']}  {serial}  {a['filename']}  {a['size']} bytes  ")
