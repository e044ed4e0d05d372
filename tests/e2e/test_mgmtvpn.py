"""The management VPN end to end: the real daemon in its network namespace,
the lab controller, and a real OpenVPN server in a namespace of its own,
joined to the daemon's by a veth pair. The test makes a throwaway CA and
keys with openssl; the lab queues "set.sslVpn" with a real client
configuration and "del.sslVpn" to take it away again."""

import os
import signal
import subprocess

from tests.e2e.kit import pending, wait_until
from tests.e2e.vpn import read, run, set_vpn, tunnel_address

START_LINE = ("_sys: '/sbin/openvpn --daemon mgmtvpn --config /etc/openvpn/client.ovpn' "
              "(status = 0)")


def heartbeats(lab, since=None):
    return [r for r in lab.requests(kind="heartbeat", since=since) if r["json"]]


def wait_vpn_ip(lab, since, want=None, timeout=20):
    """The first heartbeat after `since` that carries "vpnIp" (equal to `want`
    when given); its value."""
    def find():
        for r in heartbeats(lab, since):
            if "vpnIp" in r["json"] and (want is None or r["json"]["vpnIp"] == want):
                return r
        return None
    return wait_until(find, timeout, what=f"a heartbeat with vpnIp {want!r}")["json"]["vpnIp"]


def test_tunnel_up_reported_reachable_kept_on_sigterm_and_taken_down(agent, vpn, tmp_path):
    agent = agent()
    lab = agent.lab
    agent.start("-s", lab.base_url)
    child = agent.wait_child()
    lab.wait_request(kind="heartbeat")

    # The configuration ends at its first NUL byte: what follows never
    # reaches OpenVPN (it would refuse it).
    config = vpn.client_config(str(tmp_path / "client.log"))
    mark = lab.mark()
    res = set_vpn(lab, config.encode() + b"\0no-such-option here\n")
    assert (res["code"], res["message"]) == (0, "")
    assert read(agent.path("/etc/openvpn/client.ovpn")) == config
    agent.wait_log("_sys: 'killall -9 openvpn 2> /dev/null' (status = 256)")
    agent.wait_log(START_LINE)

    # The next heartbeat after the tunnel came up carries its address, and
    # the server's side reaches the switch through it.
    ip = wait_until(lambda: tunnel_address(agent.netns), 20, what="tun0 address")
    assert ip.startswith("10.89.0.")
    assert wait_vpn_ip(lab, mark, want=ip) == ip
    wait_until(lambda: vpn.ping(ip), 15, what="a ping over the tunnel")
    clients = agent.openvpns()
    assert len(clients) == 1

    # SIGTERM has a handler now, and it leaves the VPN running.
    os.kill(child, signal.SIGTERM)
    wait_until(lambda: not pending(child, signal.SIGTERM), what="SIGTERM taken")
    os.kill(child, signal.SIGUSR1)
    agent.wait_log("log_debug: uptime ", name="/tmp/debug.log")
    assert not any("signal 15 has no registered handler" in m for m in agent.log())
    assert agent.openvpns() == clients
    assert agent.children() == [child]
    assert vpn.ping(ip)

    # del.sslVpn stops the client and removes the configuration; the next
    # heartbeat after the change says the tunnel has no address now.
    mark = lab.mark()
    lab.queue_command(action="del", context="sslVpn", id="vpn-2")
    res = lab.wait_result(command_id="vpn-2", timeout=20)
    assert (res["code"], res["message"]) == (0, "")
    assert not os.path.exists(agent.path("/etc/openvpn/client.ovpn"))
    wait_until(lambda: not agent.openvpns(), what="the client gone")
    assert wait_vpn_ip(lab, mark, want="") == ""
    assert not vpn.ping(ip)

    # A restarted agent does not bring it back.
    starts = sum(1 for m in agent.log() if m == START_LINE)
    mark = lab.mark()
    os.kill(child, signal.SIGKILL)
    agent.wait_child(not_pid=child, timeout=15)
    lab.wait_requests(2, kind="heartbeat", since=mark, timeout=15)
    assert sum(1 for m in agent.log() if m == START_LINE) == starts
    assert not agent.openvpns()
    assert tunnel_address(agent.netns) is None


def test_a_stored_configuration_comes_back_with_a_restarted_agent(agent, vpn, tmp_path):
    agent = agent()
    lab = agent.lab
    with open(agent.path("/etc/openvpn/client.ovpn"), "w") as f:
        f.write(vpn.client_config(str(tmp_path / "client.log")))
    agent.start("-s", lab.base_url)
    child = agent.wait_child()
    agent.wait_log(START_LINE)
    ip = wait_until(lambda: tunnel_address(agent.netns), 20, what="tun0 address")
    assert wait_vpn_ip(lab, 0, want=ip) == ip
    wait_until(lambda: vpn.ping(ip), 15, what="a ping over the tunnel")
    first = agent.openvpns()
    assert len(first) == 1

    # The next child stops the running client and starts it again.
    os.kill(child, signal.SIGKILL)
    agent.wait_child(not_pid=child, timeout=15)
    wait_until(lambda: sum(1 for m in agent.log() if m == START_LINE) == 2, 15,
               what="the second start")
    wait_until(lambda: agent.openvpns() and agent.openvpns() != first,
               15, what="a new client")
    ip2 = wait_until(lambda: tunnel_address(agent.netns), 20, what="tun0 address again")
    wait_until(lambda: vpn.ping(ip2), 15, what="a ping over the new tunnel")
    assert len(agent.openvpns()) == 1


def test_configurations_that_cannot_be_used(agent, vpn):
    agent = agent()
    lab = agent.lab
    agent.start("-s", lab.base_url)
    agent.wait_child()
    lab.wait_request(kind="heartbeat")

    # OpenVPN refuses it: the answer says so, the agent goes on.
    res = set_vpn(lab, "client\ndev tun\nno-such-option here\n", id="bad-1")
    assert (res["code"], res["message"]) == (-1, "Failed to start vpn")
    agent.wait_log("set.sslVpn: Failed to start vpn")
    assert not agent.openvpns()

    # Not Base64 at all.
    lab.queue_command(action="set", context="sslVpn", id="bad-2", params={"clientOvpn": "abc"})
    res = lab.wait_result(command_id="bad-2", timeout=20)
    assert (res["code"], res["message"]) == (-1, "error decoding 'clientOvpn' element content")

    lab.queue_command(action="set", context="sslVpn", id="bad-3", params={})
    res = lab.wait_result(command_id="bad-3", timeout=20)
    assert (res["code"], res["message"]) == (
        -1, "missing or invalid 'clientOvpn' element in params")

    # The daemon is still there and still answers.
    lab.queue_command(action="del", context="sslVpn", id="ok-1")
    res = lab.wait_result(command_id="ok-1", timeout=20)
    assert (res["code"], res["message"]) == (0, "")


def test_the_device_killall_stays_inside_its_root(device_root, tmp_path):
    # Two "openvpn" processes: one started from this device root, one from
    # elsewhere. The device's killall ends only the first.
    other = tmp_path / "elsewhere"
    other.mkdir()
    sleep = run(["sh", "-c", "command -v sleep"]).stdout.decode().strip()
    mine_prog = os.path.join(device_root, "sbin", "openvpn")
    os.remove(mine_prog)
    os.symlink(sleep, mine_prog)
    os.symlink(sleep, str(other / "openvpn"))
    mine = subprocess.Popen([mine_prog, "60"])
    theirs = subprocess.Popen([str(other / "openvpn"), "60"])
    try:
        env = dict(os.environ, ORKAD_ROOT=device_root)
        r = run([os.path.join(device_root, "bin", "killall"), "-9", "openvpn"], check=False,
                 env=env)
        assert r.returncode == 0
        assert mine.wait(timeout=5) == -9
        assert theirs.poll() is None
        r = run([os.path.join(device_root, "bin", "killall"), "-9", "openvpn"], check=False,
                 env=env)
        assert r.returncode == 1
        assert r.stderr.decode() == "openvpn: no process found\n"
        assert theirs.poll() is None
    finally:
        for p in (mine, theirs):
            if p.poll() is None:
                p.kill()
                p.wait()
