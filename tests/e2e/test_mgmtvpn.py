"""The management VPN end to end: the real daemon in its network namespace,
the lab controller, and a real OpenVPN server in a namespace of its own,
joined to the daemon's by a veth pair. The test makes a throwaway CA and
keys with openssl; the lab queues "set.sslVpn" with a real client
configuration and "del.sslVpn" to take it away again."""

import base64
import os
import signal
import subprocess
import sys
import uuid

import pytest

import devroot
from conftest import Daemon, wait_until
from lab_fixtures import netns_lab  # noqa: F401

SERVER_IP = "198.51.100.1"
CLIENT_LINK_IP = "198.51.100.2"
TUNNEL_NET = "10.89.0.0"
SERVER_TUNNEL_IP = "10.89.0.1"
START_LINE = ("_sys: '/sbin/openvpn --daemon mgmtvpn --config /etc/openvpn/client.ovpn' "
              "(status = 0)")

# One ICMP echo request over a raw socket, answered within a second: exit 0.
PING = r"""
import os, select, socket, struct, sys, time
def csum(b):
    b += b"\0" * (len(b) % 2)
    s = sum(struct.unpack("!%dH" % (len(b) // 2), b))
    s = (s >> 16) + (s & 0xffff)
    return ~(s + (s >> 16)) & 0xffff
ident = os.getpid() & 0xffff
body = b"orkad-vpn-test"
head = struct.pack("!BBHHH", 8, 0, 0, ident, 1)
pkt = struct.pack("!BBHHH", 8, 0, csum(head + body), ident, 1) + body
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
s.sendto(pkt, (sys.argv[1], 0))
end = time.monotonic() + 1
while time.monotonic() < end:
    if not select.select([s], [], [], max(0, end - time.monotonic()))[0]:
        break
    data, src = s.recvfrom(2048)
    ihl = (data[0] & 15) * 4
    t, _, _, i, _ = struct.unpack("!BBHHH", data[ihl:ihl + 8])
    if t == 0 and i == ident and src[0] == sys.argv[1]:
        sys.exit(0)
sys.exit(1)
"""


def _run(argv, **kw):
    kw.setdefault("check", True)
    kw.setdefault("capture_output", True)
    return subprocess.run(argv, **kw)


def make_pki(folder):
    """A CA, a server and a client certificate (EC keys: quick to make)."""
    os.makedirs(folder, exist_ok=True)

    def ssl(*args):
        _run(["openssl", *args], cwd=folder)
    ssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", "ca.key")
    ssl("req", "-x509", "-new", "-key", "ca.key", "-subj", "/CN=orkad-test-vpn-ca", "-days",
        "2", "-out", "ca.crt")
    for name, eku in (("server", "serverAuth"), ("client", "clientAuth")):
        ssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", f"{name}.key")
        ssl("req", "-new", "-key", f"{name}.key", "-subj", f"/CN={name}", "-out", f"{name}.csr")
        with open(os.path.join(folder, f"{name}.ext"), "w") as f:
            f.write("basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyAgreement\n"
                    f"extendedKeyUsage={eku}\n")
        ssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
            "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext", "-out", f"{name}.crt")
    return {n: os.path.join(folder, n) for n in os.listdir(folder)}


def read(path):
    with open(path) as f:
        return f.read()


def device_openvpns(root):
    """Processes started as the device root's openvpn, by pid."""
    prog = os.path.join(root, "sbin", "openvpn")
    out = []
    for p in os.listdir("/proc"):
        if not p.isdigit():
            continue
        try:
            with open(f"/proc/{p}/cmdline", "rb") as f:
                argv0 = f.read().split(b"\0")[0].decode(errors="replace")
        except OSError:
            continue
        if argv0 == prog:
            out.append(int(p))
    return out


class VpnServer:
    """An OpenVPN server in a namespace of its own, reached from the
    daemon's namespace over a veth pair (198.51.100.1 there, .2 here)."""

    def __init__(self, daemon_ns, folder):
        self.daemon_ns = daemon_ns
        self.folder = folder
        tag = uuid.uuid4().hex[:6]
        self.ns = f"orkvpn-{tag}"
        self.proc = None
        _run(["ip", "netns", "add", self.ns])
        try:
            a, b = f"ovc{tag}", f"ovs{tag}"
            _run(["ip", "link", "add", a, "type", "veth", "peer", "name", b])
            _run(["ip", "link", "set", a, "netns", daemon_ns.name, "name", "vpnlink"])
            _run(["ip", "link", "set", b, "netns", self.ns, "name", "vpnlink"])
            daemon_ns.run(["ip", "addr", "add", f"{CLIENT_LINK_IP}/24", "dev", "vpnlink"])
            daemon_ns.run(["ip", "link", "set", "vpnlink", "up"])
            self.run(["ip", "link", "set", "lo", "up"])
            self.run(["ip", "addr", "add", f"{SERVER_IP}/24", "dev", "vpnlink"])
            self.run(["ip", "link", "set", "vpnlink", "up"])
            self.pki = make_pki(os.path.join(folder, "pki"))
            self.log = os.path.join(folder, "server.log")
            self.proc = subprocess.Popen(
                ["ip", "netns", "exec", self.ns, "openvpn", "--dev", "tun", "--topology",
                 "subnet", "--server", TUNNEL_NET, "255.255.255.0", "--proto", "udp",
                 "--local", SERVER_IP, "--port", "1194", "--ca", self.pki["ca.crt"],
                 "--cert", self.pki["server.crt"], "--key", self.pki["server.key"],
                 "--dh", "none", "--keepalive", "1", "10", "--verb", "3"],
                stdout=open(self.log, "w"), stderr=subprocess.STDOUT)
            wait_until(lambda: "Initialization Sequence Completed" in read(self.log)
                       or self.proc.poll() is not None, timeout=15, what="the VPN server")
            assert self.proc.poll() is None, read(self.log)
        except BaseException:
            self.stop()
            raise

    def run(self, argv, **kw):
        return _run(["ip", "netns", "exec", self.ns, *argv], **kw)

    def client_config(self, log):
        p = self.pki
        return (f"client\ndev tun\nproto udp\nremote {SERVER_IP} 1194\nnobind\n"
                f"remote-cert-tls server\nconnect-retry 1 1\nverb 3\nlog {log}\n"
                f"<ca>\n{read(p['ca.crt'])}</ca>\n<cert>\n{read(p['client.crt'])}</cert>\n"
                f"<key>\n{read(p['client.key'])}</key>\n")

    def ping(self, address):
        """One ICMP echo from the server's side; whether the answer came."""
        return self.run([sys.executable, "-c", PING, address], check=False).returncode == 0

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        _run(["ip", "netns", "delete", self.ns], check=False)


@pytest.fixture
def device_root(tmp_path):
    return devroot.make_device_root(str(tmp_path / "root"), {"heartbeat": "1"})


@pytest.fixture
def vpn(netns, tmp_path):
    s = VpnServer(netns, str(tmp_path / "vpn"))
    yield s
    s.stop()


@pytest.fixture
def agent(device_root, tmp_path, netns, netns_lab):
    d = Daemon(device_root, str(tmp_path), netns)
    d.lab = netns_lab
    yield d
    d.stop()
    # The client daemonizes away from the agent on purpose; end it by its pid.
    for pid in device_openvpns(device_root):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def b64(data):
    return base64.b64encode(data if isinstance(data, bytes) else data.encode()).decode()


def tunnel_address(ns):
    out = ns.run(["ip", "-4", "-o", "addr", "show", "dev", "tun0"], check=False).stdout.decode()
    parts = out.split()
    return parts[parts.index("inet") + 1].split("/")[0] if "inet" in parts else None


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


def set_vpn(lab, config, id="vpn-1"):
    lab.queue_command(action="set", context="sslVpn", id=id, params={"clientOvpn": b64(config)})
    return lab.wait_result(command_id=id, timeout=20)


def test_tunnel_up_reported_reachable_kept_on_sigterm_and_taken_down(agent, vpn, tmp_path):
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
    clients = device_openvpns(agent.root)
    assert len(clients) == 1

    # SIGTERM has a handler now, and it leaves the VPN running.
    os.kill(child, signal.SIGTERM)
    wait_until(lambda: not pending_signal(child, signal.SIGTERM), what="SIGTERM taken")
    os.kill(child, signal.SIGUSR1)
    agent.wait_log("log_debug: uptime ", name="/tmp/debug.log")
    assert not any("signal 15 has no registered handler" in m for m in agent.log())
    assert device_openvpns(agent.root) == clients
    assert agent.children() == [child]
    assert vpn.ping(ip)

    # del.sslVpn stops the client and removes the configuration; the next
    # heartbeat after the change says the tunnel has no address now.
    mark = lab.mark()
    lab.queue_command(action="del", context="sslVpn", id="vpn-2")
    res = lab.wait_result(command_id="vpn-2", timeout=20)
    assert (res["code"], res["message"]) == (0, "")
    assert not os.path.exists(agent.path("/etc/openvpn/client.ovpn"))
    wait_until(lambda: not device_openvpns(agent.root), what="the client gone")
    assert wait_vpn_ip(lab, mark, want="") == ""
    assert not vpn.ping(ip)

    # A restarted agent does not bring it back.
    starts = sum(1 for m in agent.log() if m == START_LINE)
    mark = lab.mark()
    os.kill(child, signal.SIGKILL)
    agent.wait_child(not_pid=child, timeout=15)
    lab.wait_requests(2, kind="heartbeat", since=mark, timeout=15)
    assert sum(1 for m in agent.log() if m == START_LINE) == starts
    assert not device_openvpns(agent.root)
    assert tunnel_address(agent.netns) is None


def pending_signal(pid, sig):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("ShdPnd:"):
                return bool(int(line.split()[1], 16) & (1 << (sig - 1)))
    return False


def test_a_stored_configuration_comes_back_with_a_restarted_agent(agent, vpn, tmp_path):
    lab = agent.lab
    with open(agent.path("/etc/openvpn/client.ovpn"), "w") as f:
        f.write(vpn.client_config(str(tmp_path / "client.log")))
    agent.start("-s", lab.base_url)
    child = agent.wait_child()
    agent.wait_log(START_LINE)
    ip = wait_until(lambda: tunnel_address(agent.netns), 20, what="tun0 address")
    assert wait_vpn_ip(lab, 0, want=ip) == ip
    wait_until(lambda: vpn.ping(ip), 15, what="a ping over the tunnel")
    first = device_openvpns(agent.root)
    assert len(first) == 1

    # The next child stops the running client and starts it again.
    os.kill(child, signal.SIGKILL)
    agent.wait_child(not_pid=child, timeout=15)
    wait_until(lambda: sum(1 for m in agent.log() if m == START_LINE) == 2, 15,
               what="the second start")
    wait_until(lambda: device_openvpns(agent.root) and device_openvpns(agent.root) != first,
               15, what="a new client")
    ip2 = wait_until(lambda: tunnel_address(agent.netns), 20, what="tun0 address again")
    wait_until(lambda: vpn.ping(ip2), 15, what="a ping over the new tunnel")
    assert len(device_openvpns(agent.root)) == 1


def test_configurations_that_cannot_be_used(agent, vpn):
    lab = agent.lab
    agent.start("-s", lab.base_url)
    agent.wait_child()
    lab.wait_request(kind="heartbeat")

    # OpenVPN refuses it: the answer says so, the agent goes on.
    res = set_vpn(lab, "client\ndev tun\nno-such-option here\n", id="bad-1")
    assert (res["code"], res["message"]) == (-1, "Failed to start vpn")
    agent.wait_log("set.sslVpn: Failed to start vpn")
    assert not device_openvpns(agent.root)

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
    sleep = _run(["sh", "-c", "command -v sleep"]).stdout.decode().strip()
    mine_prog = os.path.join(device_root, "sbin", "openvpn")
    os.remove(mine_prog)
    os.symlink(sleep, mine_prog)
    os.symlink(sleep, str(other / "openvpn"))
    mine = subprocess.Popen([mine_prog, "60"])
    theirs = subprocess.Popen([str(other / "openvpn"), "60"])
    try:
        env = dict(os.environ, ORKAD_ROOT=device_root)
        r = _run([os.path.join(device_root, "bin", "killall"), "-9", "openvpn"], check=False,
                 env=env)
        assert r.returncode == 0
        assert mine.wait(timeout=5) == -9
        assert theirs.poll() is None
        r = _run([os.path.join(device_root, "bin", "killall"), "-9", "openvpn"], check=False,
                 env=env)
        assert r.returncode == 1
        assert r.stderr.decode() == "openvpn: no process found\n"
        assert theirs.poll() is None
    finally:
        for p in (mine, theirs):
            if p.poll() is None:
                p.kill()
                p.wait()
