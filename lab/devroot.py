#!/usr/bin/env python3
"""Builds a device root: a folder that holds what the switch holds.

The daemon run with ORKAD_ROOT=<folder> takes every device path under it.
Used by the end-to-end tests and by the lab runner; run it by hand as

    python3 -m lab.devroot /tmp/sw1 [--serial SN] [--env name=value ...]
"""

import argparse
import os
import shutil
import stat

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEVICE = os.path.join(SOURCE, "device")

# Folders every switch has.
FOLDERS = ["rw", "tmp", "etc", "etc/config", "etc/varnex/config", "etc/varnex/config/sql",
           "etc/openvpn", "dev", "bin", "sbin", "usr/sbin", "usr/local/bin", "mnt/fastpath",
           "var/switch"]

# What device/ ships, and where it goes in the device root.
INSTALL = [
    ("sql", "etc/varnex/config/sql"),
    ("bin", "bin"),
    ("sbin", "sbin"),
    ("usr/sbin", "usr/sbin"),
    ("etc", "etc"),
    ("switch", "var/switch"),
]

# Real tools of this machine that the device carries too. (killall is the
# device's own, in device/bin: a device root must not reach the processes of
# the machine it runs on.)
LINKS = {
    "bin/sqlite3": ["/usr/bin/sqlite3", "/bin/sqlite3"],
    "bin/gzip": ["/usr/bin/gzip", "/bin/gzip"],
    "sbin/openvpn": ["/usr/sbin/openvpn", "/sbin/openvpn"],
}

# The boot environment, one "name=value" per line; read and written by the
# device's fw_printenv / fw_setenv.
BOOTENV = "etc/bootenv"

# Firmware images of the two boot banks; varnex-get-version reads the
# "version=" line of an image's header.
FIRMWARE_IMAGES = ["mnt/fastpath/image1", "mnt/fastpath/image2"]

DEFAULT_ENV = {
    "serial#": "VX0123456789",
    "ethaddr": "02:00:00:00:00:01",
    "hardware_version": "VX-S28-A1",
    "country_code": "US",
    "active": "1",
}


def _copy_tree(src, dst):
    for base, _dirs, files in os.walk(src):
        rel = os.path.relpath(base, src)
        target = os.path.join(dst, rel) if rel != "." else dst
        os.makedirs(target, exist_ok=True)
        for f in files:
            s = os.path.join(base, f)
            d = os.path.join(target, f)
            if os.path.islink(d):
                # An older root may link a machine tool here; never write
                # through it.
                os.remove(d)
            shutil.copy2(s, d)
            if os.access(s, os.X_OK):
                os.chmod(d, os.stat(d).st_mode | stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH)


def write_bootenv(root, env):
    with open(os.path.join(root, BOOTENV), "w") as f:
        for k, v in env.items():
            f.write(f"{k}={v}\n")


def read_bootenv(root):
    env = {}
    path = os.path.join(root, BOOTENV)
    if os.path.exists(path):
        with open(path) as f:
            for line in f:
                line = line.rstrip("\n")
                if "=" in line:
                    k, v = line.split("=", 1)
                    env[k] = v
    return env


def update_bootenv(root, **env):
    """Sets the given boot-environment variables, keeping the others."""
    merged = dict(DEFAULT_ENV)
    merged.update(read_bootenv(root))
    merged.update(env)
    write_bootenv(root, merged)


def make_device_root(root, env=None, version="1.0.0.1"):
    """Creates (or refreshes) a device root at `root` and returns its path."""
    root = os.path.abspath(root)
    for d in FOLDERS:
        os.makedirs(os.path.join(root, d), exist_ok=True)
    for src, dst in INSTALL:
        s = os.path.join(DEVICE, src)
        if os.path.isdir(s):
            _copy_tree(s, os.path.join(root, dst))
    for dst, candidates in LINKS.items():
        target = os.path.join(root, dst)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        for c in candidates:
            if os.path.exists(c):
                if os.path.lexists(target):
                    os.remove(target)
                os.symlink(c, target)
                break
    merged = dict(DEFAULT_ENV)
    merged.update(env or {})
    write_bootenv(root, merged)
    with open(os.path.join(root, "etc/version"), "w") as f:
        f.write(version + "\n")
    for image in FIRMWARE_IMAGES:
        path = os.path.join(root, image)
        if not os.path.exists(path):
            with open(path, "w") as f:
                f.write(f"version={version}\n")
    return root


def switch_model(ports=128, neighbours=2, vlans=4, generation=0):
    """A switch model with `ports` ports, each up with `neighbours` LLDP
    neighbours and a member of `vlans` VLANs. Another `generation` gives
    every neighbour another system name, as when the devices behind the
    ports are replaced."""
    pl = []
    for p in range(1, ports + 1):
        nb = []
        for n in range(neighbours):
            mac = "00:1b:4f:%02x:%02x:%02x" % (p >> 8, p & 0xff, n)
            name = f"host-{p}-{n}" if generation == 0 else f"host-{p}-{n}-g{generation}"
            nb.append({"chassis_id": mac, "chassis_id_subtype": 4, "port_id": mac,
                       "port_id_subtype": 3, "system_name": name,
                       "system_description": "VoIP desk phone, firmware 4.2.1",
                       "system_caps_supported": "Bridge, Telephone",
                       "system_caps_enabled": "Telephone",
                       "mgmt_address": f"10.{p >> 8}.{p & 0xff}.{n + 1}"})
        pl.append({"ifnum": p, "name": f"0/{p}", "mac": "02:00:00:00:%02x:%02x" % (p >> 8, p & 0xff),
                   "link": "up", "admin": "enable", "speed": 7, "duplex": "full",
                   "autoneg": True, "lldp_receive": "enable", "neighbors": nb})
    vl = [{"id": 1, "name": "default", "ports": list(range(1, ports + 1))}]
    vl += [{"id": 10 * (v + 1), "name": f"vlan{10 * (v + 1)}", "ports": list(range(1, ports + 1))}
           for v in range(vlans - 1)]
    return {"system": {"machine_model": "VX-S128", "prompt": "VX-S128"}, "ports": pl,
            "vlans": vl}


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("root")
    ap.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                    help="boot-environment variable (repeatable)")
    ap.add_argument("--version", default="1.0.0.1", help="running firmware version")
    a = ap.parse_args()
    env = dict(e.split("=", 1) for e in a.env)
    print(make_device_root(a.root, env, a.version))


if __name__ == "__main__":
    main()
