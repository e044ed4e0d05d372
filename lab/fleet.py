"""A fleet of switches for the lab: one network namespace per switch and a
hub namespace where the lab controller listens, and a switch model of its
own for each switch (port count, MACs, neighbours and VLANs differ).

Network: the hub holds the controller's address (192.0.2.1) on one end of a
veth pair per switch; the other end is the switch's `eth0` with
192.0.2.<10+n>/24 and the hub as its default gateway. Routed, not bridged
(not every kernel has the bridge driver): the hub has a host route to each
switch. Nothing in these namespaces reaches outside them. Needs root.
"""

import copy
import json
import os
import uuid

from .netns import Netns, _ip

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GATEWAY = "192.0.2.1"
MAX_DEVICES = 200

# Port counts of the switch models the fleet cycles through.
PORT_COUNTS = (28, 10, 52, 18)


def serial_of(n):
    """Serial number of switch n (1-based); switch 1 has the sample's."""
    return f"VX{123456788 + n:010d}"


def mac_of(n):
    """MAC address of switch n; switch 1 has the sample's."""
    return f"02:00:00:00:{n >> 8:02x}:{n & 255:02x}"


def address_of(n):
    return f"192.0.2.{10 + n}"


def make_model(sample, n, count=None):
    """The switch model of switch n (1-based), made from the sample model:
    its own serial, MACs and port count; neighbours kept on some of the
    sample's ports and one that names the next switch of the fleet on its
    last port; VLAN members limited to the ports it has."""
    m = copy.deepcopy(sample)
    count = count or PORT_COUNTS[(n - 1) % len(PORT_COUNTS)]
    template = sample["ports"][1] if len(sample["ports"]) > 1 else sample["ports"][0]
    ports = []
    for i in range(1, count + 1):
        if i <= len(sample["ports"]):
            p = copy.deepcopy(sample["ports"][i - 1])
        else:
            p = copy.deepcopy(template)
            p["neighbors"] = []
        p["ifnum"] = i
        p["name"] = f"0/{i}"
        p["mac"] = f"02:00:{n >> 8:02x}:{n & 255:02x}:01:{i:02x}" if n > 1 else p["mac"]
        # The sample's neighbours stay on every port for switch 1; the others
        # keep them on every (n)th port only, so their tables differ.
        if n > 1 and i % n != 1 % n:
            p["neighbors"] = []
        ports.append(p)
    if n > 1:
        ports[-1]["neighbors"] = [{
            "chassis_id": mac_of(n + 1), "chassis_id_subtype": 4,
            "port_id": "0/1", "port_id_subtype": 5,
            "system_name": f"lab-sw{n + 1}", "system_description": "lab switch",
            "system_caps_supported": "Bridge", "system_caps_enabled": "Bridge",
            "mgmt_address": address_of(n + 1),
        }]
    m["ports"] = ports
    for v in m.get("vlans", []):
        v["ports"] = [p for p in v["ports"] if p <= count]
        if v["id"] == 1:
            v["ports"] = list(range(1, count + 1))
    model = f"VX-S{count}"
    m["system"].update(serial_number=serial_of(n), machine_model=model, mac_address=mac_of(n),
                       prompt=model if n == 1 else f"lab-sw{n}")
    return m


def sample_model():
    with open(os.path.join(SOURCE, "device", "switch", "model.json")) as f:
        return json.load(f)


def write_model(root, model):
    """Writes a switch model into a device root (after the root is made: making
    it installs the sample model)."""
    path = os.path.join(root, "var", "switch", "model.json")
    with open(path + ".tmp", "w") as f:
        json.dump(model, f, indent=1)
    os.replace(path + ".tmp", path)


def boot_env(n, model):
    return {"serial#": serial_of(n), "ethaddr": mac_of(n),
            "hardware_version": model["system"]["machine_model"] + "-A1"}


class Hub:
    """The hub namespace and one namespace per switch."""

    def __init__(self, prefix="orkad-fleet"):
        tag = uuid.uuid4().hex[:6]
        self.tag = tag
        self.name = f"{prefix}-hub-{tag}"
        self.prefix_name = prefix
        self.gateway = GATEWAY
        self.switches = {}  # n -> namespace name
        self.created = False

    # Namespaces need what a single switch's namespace needs.
    available = staticmethod(Netns.available)

    def create(self):
        _ip("netns", "add", self.name)
        self.created = True
        _ip("-n", self.name, "link", "set", "lo", "up")
        return self

    def add_switch(self, n):
        if not 1 <= n <= MAX_DEVICES:
            raise ValueError(f"switch numbers go from 1 to {MAX_DEVICES}")
        ns = f"{self.prefix_name}-sw{n}-{self.tag}"
        _ip("netns", "add", ns)
        self.switches[n] = ns
        up = f"sw{n}"
        _ip("-n", ns, "link", "set", "lo", "up")
        _ip("-n", self.name, "link", "add", up, "type", "veth", "peer", "name", "eth0",
            "netns", ns)
        _ip("-n", self.name, "addr", "add", f"{self.gateway}/32", "dev", up)
        _ip("-n", self.name, "link", "set", up, "up")
        _ip("-n", ns, "addr", "add", f"{address_of(n)}/24", "dev", "eth0")
        _ip("-n", ns, "link", "set", "eth0", "up")
        _ip("-n", self.name, "route", "add", f"{address_of(n)}/32", "dev", up)
        _ip("-n", ns, "route", "add", "default", "via", self.gateway, "dev", "eth0")
        return ns

    def prefix(self, n=None):
        """The argv prefix that runs a program in the hub (or in switch n)."""
        return ["ip", "netns", "exec", self.name if n is None else self.switches[n]]

    def delete(self):
        for ns in self.switches.values():
            _ip("netns", "delete", ns, check=False)
        self.switches = {}
        if self.created:
            _ip("netns", "delete", self.name, check=False)
            self.created = False
