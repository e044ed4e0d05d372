#!/usr/bin/env python3
"""Starts the lab: the lab controller, a device root with the sample switch,
and orkad with the lab as its phone-home site; stops everything on Ctrl-C.

    python3 lab/run.py [--bin build/common/orkad] [--root DIR] [--heartbeat N]

Run as root, controller and daemon share a network namespace of their own
(the daemon's eth0 is 192.0.2.10, the controller listens on 192.0.2.1);
otherwise both run on this machine's network and the controller listens on
127.0.0.1. The daemon runs without the right to set the clock, so a
phone-home answer that carries the time cannot move this machine's clock.
"""

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
if HERE not in sys.path:
    sys.path.insert(0, HERE)

import devroot  # noqa: E402
from labfixture import LabController  # noqa: E402
from netns import Netns  # noqa: E402
from syslogsocket import SyslogSocket  # noqa: E402


class SyslogFile:
    """Plays the system logger on <root>/dev/log and writes what the daemon
    sends there to a file, one line per message."""

    def __init__(self, root, path):
        self.out = open(path, "a", buffering=1)
        self.socket = SyslogSocket(root, lambda text: self.out.write(text.rstrip("\n") + "\n"))

    def close(self):
        self.socket.close()
        self.out.close()


def can_drop_clock_right():
    return shutil.which("setpriv") is not None


def parse_args(argv):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", default=os.path.join(SOURCE, "build", "common", "orkad"),
                    help="the orkad binary (default: build/common/orkad)")
    ap.add_argument("--root", help="device root to use (default: a new folder under /tmp); "
                    "an existing one keeps its settings database")
    ap.add_argument("--heartbeat", type=int, default=5,
                    help="boot variable 'heartbeat': seconds between heartbeats (default 5)")
    ap.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                    help="more boot-environment variables (repeatable)")
    ap.add_argument("--port", type=int, default=8443, help="controller HTTPS port (default 8443)")
    ap.add_argument("--no-netns", action="store_true",
                    help="do not use a network namespace even as root")
    ap.add_argument("--debug", action="store_true", help="start orkad with -d")
    ap.add_argument("--duration", type=float,
                    help="stop by itself after this many seconds (for scripts)")
    return ap.parse_args(argv)


def describe(root, workdir, lab, syslog_path):
    sock = lab.socket_path
    queue = {"command": {"action": "set", "context": "heartbeat",
                         "params": {"interval": 2000, "serviceLink": {"href": "/heartbeat"}}}}
    return f"""
orkad lab is running.

  controller        {lab.base_url}   (the daemon's phone-home site and controller)
  device root       {root}
  daemon logs       {root}/rw/orkad.log  (also http.log, command.log in {root}/rw)
  daemon syslog     {syslog_path}
  switch journal    {root}/var/switch/journal   (model: {root}/var/switch/model.json)
  controller output {workdir}/lab/controller.log
  control API       HTTP over the Unix socket {sock}  (see docs/lab-api.md)

Queue a command (it goes out with the next heartbeat, its result comes back):

  curl -s --unix-socket {sock} -d '{json.dumps(queue)}' http://lab/commands

Then look at what the controller got:

  curl -s --unix-socket {sock} 'http://lab/results'
  curl -s --unix-socket {sock} 'http://lab/requests?kind=heartbeat'

Ctrl-C stops the daemon, the controller{' and the namespace' if len(lab.prefix) > 1 else ''}; \
the device root stays.
"""


def main(argv=None):
    args = parse_args(argv if argv is not None else sys.argv[1:])
    if not os.access(args.bin, os.X_OK):
        sys.exit(f"lab: no orkad binary at {args.bin} (build it, or use scripts/lab.sh)")

    workdir = tempfile.mkdtemp(prefix="orkad-lab-run-")
    root = os.path.abspath(args.root or os.path.join(workdir, "root"))
    env = {"heartbeat": str(args.heartbeat)}
    env.update(dict(e.split("=", 1) for e in args.env))
    devroot.make_device_root(root, env)

    ns = None
    if not args.no_netns and Netns.available():
        ns = Netns(prefix="orkad-lab").create()
    elif not args.no_netns:
        print("lab: not root, so no network namespace: controller on 127.0.0.1, and the daemon "
              "waits up to two minutes for an address on eth0 if this machine has none",
              file=sys.stderr)

    stopping = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stopping.set())

    syslog_path = os.path.join(workdir, "syslog.txt")
    syslog = SyslogFile(root, syslog_path)
    lab = daemon = None
    try:
        # A session of its own: Ctrl-C reaches us, and we stop the controller
        # after asking it what it received.
        lab = LabController(root=root, host=ns.gateway if ns else "127.0.0.1", port=args.port,
                            prefix=["setsid"] + (ns.prefix() if ns else []), mode="process",
                            state_dir=os.path.join(workdir, "lab"))
        argv = (ns.prefix() if ns else []) + (
            ["setpriv", "--inh-caps=-sys_time", "--bounding-set=-sys_time"]
            if can_drop_clock_right() else []) + [os.path.abspath(args.bin)]
        if args.debug:
            argv.append("-d")
        argv += ["-s", lab.base_url]
        out = open(os.path.join(workdir, "orkad.stdout"), "w")
        daemon = subprocess.Popen(argv, env=dict(os.environ, ORKAD_ROOT=root), cwd=workdir,
                                  stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                  preexec_fn=os.setpgrp)
        print(describe(root, workdir, lab, syslog_path), flush=True)

        deadline = time.monotonic() + args.duration if args.duration else None
        while not stopping.is_set():
            if daemon.poll() is not None:
                print(f"lab: orkad ended with status {daemon.returncode}", file=sys.stderr)
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
        if daemon is not None and daemon.poll() is None:
            # The supervisor restarts a child that ends, so the whole group goes.
            try:
                os.killpg(daemon.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            daemon.wait(timeout=10)
        if lab is not None:
            lab.stop()
        syslog.close()
        if ns is not None:
            ns.delete()
        print(f"lab: stopped; the device root stays in {root}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
