"""An OpenVPN server for the daemon's management VPN to reach: in a network
namespace of its own, joined to the daemon's by a veth pair, with a
throwaway CA and keys made with openssl; and the commands that point the
daemon at it."""

import base64
import os
import subprocess
import sys
import uuid

from tests.e2e.kit import wait_until

SERVER_IP = "198.51.100.1"
CLIENT_LINK_IP = "198.51.100.2"
TUNNEL_NET = "10.89.0.0"
SERVER_TUNNEL_IP = "10.89.0.1"


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


def run(argv, **kw):
    """subprocess.run, checked and captured unless told otherwise."""
    kw.setdefault("check", True)
    kw.setdefault("capture_output", True)
    return subprocess.run(argv, **kw)


def make_pki(folder):
    """A CA, a server and a client certificate (EC keys: quick to make)."""
    os.makedirs(folder, exist_ok=True)

    def ssl(*args):
        run(["openssl", *args], cwd=folder)
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




class VpnServer:
    """An OpenVPN server in a namespace of its own, reached from the
    daemon's namespace over a veth pair (198.51.100.1 there, .2 here)."""

    def __init__(self, daemon_ns, folder):
        self.daemon_ns = daemon_ns
        self.folder = folder
        tag = uuid.uuid4().hex[:6]
        self.ns = f"orkvpn-{tag}"
        self.proc = None
        run(["ip", "netns", "add", self.ns])
        try:
            a, b = f"ovc{tag}", f"ovs{tag}"
            run(["ip", "link", "add", a, "type", "veth", "peer", "name", b])
            run(["ip", "link", "set", a, "netns", daemon_ns.name, "name", "vpnlink"])
            run(["ip", "link", "set", b, "netns", self.ns, "name", "vpnlink"])
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
        return run(["ip", "netns", "exec", self.ns, *argv], **kw)

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
        run(["ip", "netns", "delete", self.ns], check=False)


def b64(data):
    return base64.b64encode(data if isinstance(data, bytes) else data.encode()).decode()


def tunnel_address(ns):
    out = ns.run(["ip", "-4", "-o", "addr", "show", "dev", "tun0"], check=False).stdout.decode()
    parts = out.split()
    return parts[parts.index("inet") + 1].split("/")[0] if "inet" in parts else None


def set_vpn(lab, config, id="vpn-1"):
    lab.queue_command(action="set", context="sslVpn", id=id, params={"clientOvpn": b64(config)})
    return lab.wait_result(command_id=id, timeout=20)
