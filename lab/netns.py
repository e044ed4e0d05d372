"""Throwaway network namespaces for the switch under test.

Each namespace holds a loopback and an `eth0` with an address, so the daemon
sees a management interface as it would on the switch. `eth0` is one end of a
veth pair whose other end, "uplink", stays in the same namespace and carries
the gateway address: the gateway answers ARP, and a lab controller can listen
on it. (veth because not every kernel has the dummy driver.)
Requires root; nothing in a namespace can reach outside it.
"""

import os
import subprocess
import uuid


def _ip(*args, check=True):
    return subprocess.run(["ip", *args], check=check, capture_output=True, text=True)


class Netns:
    def __init__(self, prefix="orkad", address="192.0.2.10/24", gateway="192.0.2.1"):
        self.name = f"{prefix}-{uuid.uuid4().hex[:8]}"
        self.address = address
        self.gateway = gateway
        self.created = False

    @staticmethod
    def available():
        return os.geteuid() == 0 and subprocess.run(
            ["ip", "netns", "list"], capture_output=True).returncode == 0

    def create(self):
        _ip("netns", "add", self.name)
        self.created = True
        self.run(["ip", "link", "set", "lo", "up"])
        self.run(["ip", "link", "add", "eth0", "type", "veth", "peer", "name", "uplink"])
        self.run(["ip", "addr", "add", self.address, "dev", "eth0"])
        plen = self.address.split("/")[1]
        if self.gateway:
            self.run(["ip", "addr", "add", f"{self.gateway}/{plen}", "dev", "uplink"])
        self.run(["ip", "link", "set", "uplink", "up"])
        self.run(["ip", "link", "set", "eth0", "up"])
        if self.gateway:
            self.run(["ip", "route", "add", "default", "via", self.gateway, "dev", "eth0"])
        return self

    def prefix(self):
        """The argv prefix that runs a program inside the namespace."""
        return ["ip", "netns", "exec", self.name]

    def run(self, argv, **kw):
        kw.setdefault("check", True)
        kw.setdefault("capture_output", True)
        return subprocess.run(self.prefix() + list(argv), **kw)

    def delete(self):
        if self.created:
            _ip("netns", "delete", self.name, check=False)
            self.created = False

    def __enter__(self):
        return self.create()

    def __exit__(self, *exc):
        self.delete()
