"""Starts the lab: the lab controller, a device root with the sample switch,
and orkad with the lab as its phone-home site; stops everything on Ctrl-C.

    python3 -m lab.run [--bin build/common/orkad] [--root DIR] [--heartbeat N]
                       [--devices N] [--dashboard PORT]

With --devices N it starts a fleet: N switches, each with its own network
namespace, device root, serial number, MACs and switch model, against one
controller in a hub namespace (lab/fleet.py). The dashboard (lab/web) and the
control API are served on 127.0.0.1 (port 8480 by default) for the browser
and lab/ctl.py.

Run as root, controller and daemon share a network namespace of their own
(the daemon's eth0 is 192.0.2.10, the controller listens on 192.0.2.1);
otherwise both run on this machine's network and the controller listens on
127.0.0.1. The daemon runs without the right to set the clock, so a
phone-home answer that carries the time cannot move this machine's clock.

A daemon built for ARM runs under the program ORKAD_EMULATOR names, as in
the end-to-end tests: ORKAD_EMULATOR="qemu-aarch64-static -L /".
"""

import argparse
import json
import os
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

from . import SOURCE, devroot, fleet, orkad
from .labfixture import LabController
from .netns import Netns
from .syslogsocket import SyslogSocket


class SyslogFile:
    """Plays the system logger on <root>/dev/log and writes what the daemon
    sends there to a file, one line per message."""

    def __init__(self, root, path):
        self.out = open(path, "a", buffering=1)
        self.socket = SyslogSocket(root, lambda text: self.out.write(text.rstrip("\n") + "\n"))

    def close(self):
        self.socket.close()
        self.out.close()


class ControlRelay:
    """Serves the control API (and so the dashboard) on a TCP address of this
    machine by relaying each connection to the controller's Unix socket: the
    controller may run in a network namespace of its own, the browser does not."""

    def __init__(self, socket_path, host="127.0.0.1", port=8480):
        self.socket_path = socket_path
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            self.listener.bind((host, port))
        except OSError:
            if port == 0:
                raise
            # Taken (another lab?): any free port will do.
            self.listener.bind((host, 0))
        self.listener.listen(32)
        self.address = self.listener.getsockname()
        self.url = f"http://{self.address[0]}:{self.address[1]}/"
        self.closing = False
        threading.Thread(target=self._accept, name="dashboard-relay", daemon=True).start()

    def _accept(self):
        while not self.closing:
            try:
                conn, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._relay, args=(conn,), daemon=True).start()

    def _relay(self, conn):
        up = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            up.connect(self.socket_path)
        except OSError:
            conn.close()
            up.close()
            return

        def pump(src, dst):
            try:
                while True:
                    data = src.recv(65536)
                    if not data:
                        break
                    dst.sendall(data)
            except OSError:
                pass
            for s in (dst, src):
                try:
                    s.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

        t = threading.Thread(target=pump, args=(up, conn), daemon=True)
        t.start()
        pump(conn, up)
        t.join()
        conn.close()
        up.close()

    def close(self):
        self.closing = True
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.listener.close()


class Device:
    """One switch of the lab: its device root, namespace and daemon."""

    def __init__(self, n, root, workdir, ns_prefix, address, syslog_netns):
        self.n = n
        self.name = f"sw{n}"
        self.root = root
        self.workdir = workdir
        self.ns_prefix = ns_prefix
        self.address = address
        # Where the lab sends the switch's syslog from (its receiver takes
        # 127.0.0.1 only): the switch's own namespace in a fleet, None when
        # the controller shares the daemon's.
        self.syslog_netns = syslog_netns
        self.syslog_path = os.path.join(workdir, "syslog.txt")
        self.syslog = None
        self.daemon = None
        self.model = None
        self.serial = None

    def note(self):
        ports = self.model["ports"] if self.model else []
        return {"name": self.name, "root": self.root, "address": self.address,
                "syslog_netns": self.syslog_netns,
                "model": self.model["system"]["machine_model"] if self.model else None,
                "ports": len(ports), "mac": self.model["system"]["mac_address"]
                if self.model else None,
                "netns": self.ns_prefix[-1] if self.ns_prefix else None}

    def start(self, binary, site, debug):
        os.makedirs(self.workdir, exist_ok=True)
        self.syslog = SyslogFile(self.root, self.syslog_path)
        argv = self.ns_prefix + orkad.no_clock() + orkad.emulator() + [os.path.abspath(binary)]
        if debug:
            argv.append("-d")
        argv += ["-s", site]
        out = open(os.path.join(self.workdir, "orkad.stdout"), "w")
        self.daemon = subprocess.Popen(argv, env=dict(os.environ, ORKAD_ROOT=self.root),
                                       cwd=self.workdir, stdout=out, stderr=subprocess.STDOUT,
                                       stdin=subprocess.DEVNULL, preexec_fn=os.setpgrp)
        out.close()

    def stop(self):
        orkad.stop(self.daemon)
        if self.syslog is not None:
            self.syslog.close()
            self.syslog = None


def parse_args(argv):
    ap = argparse.ArgumentParser(description=" ".join(__doc__.split("\n\n")[0].split()))
    ap.add_argument("--bin", default=os.path.join(SOURCE, "build", "common", "orkad"),
                    help="the orkad binary (default: build/common/orkad)")
    ap.add_argument("--root", help="device root to use (default: a new folder under /tmp); "
                    "an existing one keeps its settings database; with --devices N, the "
                    "folder that holds one device root per switch (sw1, sw2, ...)")
    ap.add_argument("--devices", type=int, default=1, metavar="N",
                    help="start N switches against the one controller, each with its own "
                    "namespace, device root, serial number, MACs and switch model (default 1)")
    ap.add_argument("--heartbeat", type=int, default=5,
                    help="boot variable 'heartbeat': seconds between heartbeats (default 5)")
    ap.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                    help="more boot-environment variables (repeatable)")
    ap.add_argument("--port", type=int, default=8443, help="controller HTTPS port (default 8443)")
    ap.add_argument("--dashboard", type=int, default=8480, metavar="PORT",
                    help="serve the dashboard and the control API on 127.0.0.1:PORT "
                    "(default 8480, another free port when taken; 0: any free port; "
                    "-1: not at all)")
    ap.add_argument("--no-netns", action="store_true",
                    help="do not use a network namespace even as root (one switch only)")
    ap.add_argument("--debug", action="store_true", help="start orkad with -d")
    ap.add_argument("--duration", type=float,
                    help="stop by itself after this many seconds (for scripts)")
    a = ap.parse_args(argv)
    if a.devices < 1 or a.devices > fleet.MAX_DEVICES:
        ap.error(f"--devices is 1 to {fleet.MAX_DEVICES}")
    if a.devices > 1 and (a.no_netns or not fleet.Hub.available()):
        ap.error("a fleet (--devices N) needs root: each switch has its own network namespace")
    return a


# The client that asks a running daemon how it is (built beside the daemon).
ORKADCTL = os.path.join(SOURCE, "build", "ctl", "orkadctl")


def orkadctl_status(root):
    """The command that asks the daemon of this device root how it is: the
    client finds the daemon's socket under the root it is given."""
    return f"ORKAD_ROOT={shlex.quote(root)} " + shlex.join(
        [*orkad.emulator(), ORKADCTL, "status"])


# orkadctl asks as root only, and waits for the answer on a socket only root
# may write to: a daemon run as anyone else cannot answer it.
NOT_ROOT = "                    (only as root, in a lab run as root)\n"


def describe(devices, workdir, lab, relay):
    sock = lab.socket_path
    queue = {"command": {"action": "set", "context": "heartbeat",
                         "params": {"interval": 2000, "serviceLink": {"href": "/heartbeat"}}}}
    ctl = "python3 -m lab.ctl"
    d = devices[0]
    text = "\norkad lab is running.\n\n"
    if relay:
        text += f"  dashboard         {relay.url}   (open it in a browser)\n"
    text += f"  controller        {lab.base_url}   (the daemon's phone-home site and controller)\n"
    if len(devices) == 1:
        text += f"""  device root       {d.root}
  daemon logs       {d.root}/rw/orkad.log  (also http.log, command.log in {d.root}/rw)
  daemon syslog     {d.syslog_path}
  switch journal    {d.root}/var/switch/journal   (model: {d.root}/var/switch/model.json)
  daemon status     {orkadctl_status(d.root)}
{'' if os.geteuid() == 0 else NOT_ROOT}"""
    else:
        text += f"  switches          {len(devices)}: sw1 .. sw{len(devices)}\n"
        for d in devices:
            text += (f"  {d.name:<17} {d.serial}  {d.address:<12} {d.note()['model']:<7} "
                     f"root {d.root}\n")
        text += ("                    (each root: rw/orkad.log, var/switch/model.json, "
                 "var/switch/journal; syslog in "
                 f"{workdir}/swN/syslog.txt)\n")
        for d in devices:
            text += f"  {d.name + ' status':<17} {orkadctl_status(d.root)}\n"
    text += f"""  controller output {workdir}/lab/controller.log
  control API       HTTP over the Unix socket {sock}  (see docs/lab-api.md)

Drive it from the dashboard, or from the command line (lab.ctl finds this lab):

  {ctl} devices
  {ctl} send set.status --param interval=10000 --wait 30
  {ctl} ports{'' if len(devices) == 1 else ' --serial ' + devices[-1].serial}
  {ctl} syslog --follow

Queue a command with curl (it goes out with the next heartbeat, its result comes back):

  curl -s --unix-socket {sock} -d '{json.dumps(queue)}' http://lab/commands

Then look at what the controller got:

  curl -s --unix-socket {sock} 'http://lab/results'
  curl -s --unix-socket {sock} 'http://lab/requests?kind=heartbeat'

Ctrl-C stops the daemon{'s' if len(devices) > 1 else ''}, the controller\
{' and the namespaces' if len(lab.prefix) > 1 else ''}; the device root\
{'s stay' if len(devices) > 1 else ' stays'}.
"""
    return text


def write_state(path, lab, relay, devices, workdir):
    state = {"control_socket": lab.socket_path, "dashboard": relay.url if relay else None,
             "base_url": lab.base_url, "workdir": workdir, "pid": os.getpid(),
             "devices": [dict(d.note(), serial=d.serial) for d in devices]}
    with open(path + ".tmp", "w") as f:
        json.dump(state, f, indent=1)
    os.replace(path + ".tmp", path)


def main(argv=None):
    args = parse_args(argv if argv is not None else sys.argv[1:])
    if not os.access(args.bin, os.X_OK):
        sys.exit(f"lab: no orkad binary at {args.bin} (build it, or use scripts/lab.sh)")

    workdir = tempfile.mkdtemp(prefix="orkad-lab-run-")
    extra_env = dict(e.split("=", 1) for e in args.env)
    ns = hub = None
    devices = []
    if args.devices == 1:
        root = os.path.abspath(args.root or os.path.join(workdir, "root"))
        env = {"heartbeat": str(args.heartbeat)}
        env.update(extra_env)
        devroot.make_device_root(root, env)
        if not args.no_netns and Netns.available():
            ns = Netns(prefix="orkad-lab").create()
        elif not args.no_netns:
            print("lab: not root, so no network namespace: controller on 127.0.0.1, and the "
                  "daemon waits up to two minutes for an address on eth0 if this machine has "
                  "none", file=sys.stderr)
        d = Device(1, root, workdir, ns.prefix() if ns else [],
                   ns.address.split("/")[0] if ns else "127.0.0.1", None)
        d.serial = devroot.read_bootenv(root).get("serial#")
        with open(os.path.join(root, "var", "switch", "model.json")) as f:
            d.model = json.load(f)
        devices.append(d)
        host = ns.gateway if ns else "127.0.0.1"
        lab_prefix = ["setsid"] + (ns.prefix() if ns else [])
    else:
        hub = fleet.Hub(prefix="orkad-fleet").create()
        base = os.path.abspath(args.root or workdir)
        for n in range(1, args.devices + 1):
            root = os.path.join(base, f"sw{n}", "root") if not args.root else \
                os.path.join(base, f"sw{n}")
            model = fleet.make_model(fleet.sample_model(), n)
            env = fleet.boot_env(n, model)
            env["heartbeat"] = str(args.heartbeat)
            env.update(extra_env)
            devroot.make_device_root(root, env)
            fleet.write_model(root, model)
            nsname = hub.add_switch(n)
            d = Device(n, root, os.path.join(workdir, f"sw{n}"), hub.prefix(n),
                       fleet.address_of(n), nsname)
            d.model, d.serial = model, env["serial#"]
            assert nsname == d.ns_prefix[-1]
            devices.append(d)
        host = hub.gateway
        lab_prefix = ["setsid"] + hub.prefix()

    stopping = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stopping.set())

    lab = relay = None
    try:
        # A session of its own: Ctrl-C reaches us, and we stop the controller
        # after asking it what it received.
        lab = LabController(roots=[d.root for d in devices], host=host, port=args.port,
                            prefix=lab_prefix, mode="process",
                            state_dir=os.path.join(workdir, "lab"))
        for d in devices:
            lab.call("POST", "/devices", {"serial": d.serial, "note": d.note()})
        if args.dashboard >= 0:
            relay = ControlRelay(lab.socket_path, port=args.dashboard)
        for d in devices:
            d.start(args.bin, lab.base_url, args.debug)
        write_state(os.path.join(workdir, "lab.json"), lab, relay, devices, workdir)
        print(describe(devices, workdir, lab, relay), flush=True)

        deadline = time.monotonic() + args.duration if args.duration else None
        while not stopping.is_set():
            ended = [d for d in devices if d.daemon.poll() is not None]
            if ended:
                for d in ended:
                    print(f"lab: orkad{'' if len(devices) == 1 else ' of ' + d.name} ended "
                          f"with status {d.daemon.returncode}", file=sys.stderr)
                break
            if deadline is not None and time.monotonic() > deadline:
                break
            stopping.wait(0.2)

        kinds = {}
        try:
            for r in lab.requests():
                kinds[r["kind"]] = kinds.get(r["kind"], 0) + 1
        except OSError:
            pass
        print("lab: the controller received " +
              (", ".join(f"{n} {k}" for k, n in sorted(kinds.items())) or "nothing"), flush=True)
    finally:
        for d in devices:
            d.stop()
        if relay is not None:
            relay.close()
        if lab is not None:
            lab.stop()
        if ns is not None:
            ns.delete()
        if hub is not None:
            hub.delete()
        try:
            os.remove(os.path.join(workdir, "lab.json"))
        except OSError:
            pass
        if len(devices) == 1:
            print(f"lab: stopped; the device root stays in {devices[0].root}", flush=True)
        else:
            print(f"lab: stopped; the device roots stay in {os.path.dirname(devices[0].root)}"
                  " and its siblings", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
