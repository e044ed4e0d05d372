"""orkad lab controller: the cloud controller side of orkad, for tests and
for people at a bench.

It serves the controller API over HTTPS (phone-home, OAuth token,
heartbeat with queued commands, command results, refresh notice, current
firmware and the image, the syslog/status/statistics/diagnostics service
links) and a JSON control API over plain HTTP, on a Unix socket and/or a TCP
address, to queue commands, script replies and faults and read back every
request received. docs/lab-api.md describes both.

This file is the program and its listeners; the state both APIs share is
in labstate.py, the controller API in labcloud.py, the control API in
labcontrol.py.

    python3 -m lab.controller --listen 192.0.2.1 --port 8443 --root /tmp/sw1
"""

import argparse
import json
import os
import secrets
import signal
import sys
import tempfile
import threading

from . import labcloud, labcontrol, labhttp, labpki, labstate


class Lab(labstate.State):
    """The controller's state with its two APIs: `dispatch` answers the
    daemon, `control` the people and tests."""

    def dispatch(self, req):
        return labcloud.dispatch(self, req)

    def control(self, req):
        return labcontrol.control(self, req)


def _url_host(host):
    return f"[{host}]" if ":" in host else host


class LabServer:
    """The HTTPS listener, the control listeners and the state, started and
    stopped together. Used by main() and, in-process, by lab/labfixture.py."""

    def __init__(self, listen="127.0.0.1", port=0, names=(), url_host=None, state_dir=None,
                 ca_dir=None, roots=(), control_socket=None, control_listen=None,
                 serials=(), auth=True, expires_in=3600):
        self.state_dir = state_dir or tempfile.mkdtemp(prefix="orkad-lab-")
        os.makedirs(self.state_dir, exist_ok=True)
        self.listen = listen
        self.port = port
        wildcard = listen in ("0.0.0.0", "::", "")
        self.url_host = url_host or (names[0] if names else
                                     ("127.0.0.1" if wildcard else listen))
        self.names = []
        for n in [self.url_host, *names, None if wildcard else listen, "127.0.0.1",
                  "localhost"]:
            if n and n not in self.names:
                self.names.append(n)
        self.ca_dir = ca_dir or os.path.join(self.state_dir, "pki")
        self.roots = list(roots)
        self.control_socket = control_socket
        self.control_listen = control_listen
        self.lab = Lab(serials=serials, auth=auth, expires_in=expires_in)
        self.lab.archives.folder = os.path.join(self.state_dir, "archives")
        self.servers = []
        self.threads = []
        self._short_dir = None

    def start(self):
        _, self.ca = labpki.ensure_ca(self.ca_dir)
        stem = f"server-{os.getpid()}-{secrets.token_hex(3)}"
        key, self.cert = labpki.make_server_cert(self.ca_dir, self.names, stem=stem)
        for root in self.roots:
            labpki.install_ca(root, self.ca)
        lab = self.lab
        https = labhttp.TCPServer((self.listen, self.port), lab.dispatch, lab.stopping,
                                  labhttp.server_context(self.cert, key),
                                  lab.note_connection_error)
        self.port = https.server_address[1]
        lab.base_url = f"https://{_url_host(self.url_host)}:{self.port}"
        self.servers.append(https)
        self.control_url = None
        if self.control_listen is not None:
            h, _, p = self.control_listen.rpartition(":")
            h = h.strip("[]") or "127.0.0.1"
            ctl = labhttp.TCPServer((h, int(p or 0)), lab.control, lab.stopping)
            self.control_url = f"http://{_url_host(h)}:{ctl.server_address[1]}"
            self.servers.append(ctl)
        if self.control_socket is not None:
            path = os.path.abspath(self.control_socket)
            if len(path.encode()) > 100:  # sun_path holds 108 bytes
                self._short_dir = tempfile.mkdtemp(prefix="orkad-lab-", dir="/tmp")
                path = os.path.join(self._short_dir, "control.sock")
            self.servers.append(labhttp.UnixServer(path, lab.control, lab.stopping))
            self.control_socket = path
        lab.extra_info = self.info()
        for s in self.servers:
            t = threading.Thread(target=s.serve_forever, kwargs={"poll_interval": 0.05},
                                 name="lab-server", daemon=True)
            t.start()
            self.threads.append(t)
        return self

    def info(self):
        return {
            "base_url": self.lab.base_url, "host": self.url_host, "listen": self.listen,
            "port": self.port, "names": self.names, "ca": self.ca, "cert": self.cert,
            "control_socket": self.control_socket, "control_url": self.control_url,
            "state_dir": self.state_dir, "roots": self.roots, "pid": os.getpid(),
        }

    def write_ready(self, path):
        tmp = path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(self.info(), f, indent=1)
        os.replace(tmp, path)

    def stop(self):
        self.lab.stopping.set()
        with self.lab.changed:
            self.lab.changed.notify_all()
        stoppers = [threading.Thread(target=s.shutdown) for s in self.servers]
        for t in stoppers:
            t.start()
        for t in stoppers:
            t.join()
        for s in self.servers:
            s.close_connections()
            s.server_close()
        for t in self.threads:
            t.join(timeout=5)
        if self.control_socket and os.path.exists(self.control_socket):
            os.unlink(self.control_socket)
        if self._short_dir:
            os.rmdir(self._short_dir)
        self.servers = []


def main(argv=None):
    ap = argparse.ArgumentParser(
        description="orkad lab controller: the controller API over HTTPS and a JSON "
                    "control API (see docs/lab-api.md).")
    ap.add_argument("--listen", default="127.0.0.1", metavar="ADDR",
                    help="address of the HTTPS listener (default 127.0.0.1)")
    ap.add_argument("--port", type=int, default=0,
                    help="HTTPS port (default 0: any free port)")
    ap.add_argument("--name", "--san", action="append", default=[], dest="names",
                    metavar="NAME", help="extra host name or IP address for the server "
                    "certificate (repeatable); the first is used in the base URL")
    ap.add_argument("--url-host", help="host part of the announced base URL "
                    "(default: the first --name, else the listen address)")
    ap.add_argument("--root", action="append", default=[], metavar="DIR",
                    help="device root whose /etc/ca-bundle.pem gets the lab CA (repeatable)")
    ap.add_argument("--state-dir", metavar="DIR",
                    help="folder for certificates, the ready file and the control socket "
                    "(default: a new temporary folder)")
    ap.add_argument("--ca-dir", metavar="DIR",
                    help="folder of the CA, reused when present (default STATE_DIR/pki)")
    ap.add_argument("--control-socket", metavar="PATH",
                    help="serve the control API on this Unix socket "
                    "(default STATE_DIR/control.sock)")
    ap.add_argument("--control-listen", metavar="ADDR:PORT",
                    help="serve the control API on this TCP address too, e.g. 127.0.0.1:0")
    ap.add_argument("--no-control-socket", action="store_true",
                    help="no Unix control socket (then --control-listen is needed)")
    ap.add_argument("--ready-file", metavar="PATH",
                    help="write the listeners' details as JSON here once serving "
                    "(default STATE_DIR/controller.json)")
    ap.add_argument("--serial", action="append", default=[], metavar="SERIAL",
                    help="accept only these devices at the token endpoint (repeatable; "
                    "default: any device whose client id equals its secret)")
    ap.add_argument("--no-auth", action="store_true",
                    help="do not check bearer tokens")
    ap.add_argument("--expires-in", type=int, default=3600, metavar="SECONDS",
                    help="\"expires_in\" of issued tokens (default 3600)")
    a = ap.parse_args(argv)
    state = a.state_dir or tempfile.mkdtemp(prefix="orkad-lab-")
    control_socket = None if a.no_control_socket else \
        (a.control_socket or os.path.join(state, "control.sock"))
    if control_socket is None and a.control_listen is None:
        ap.error("--no-control-socket needs --control-listen")
    server = LabServer(listen=a.listen, port=a.port, names=a.names, url_host=a.url_host,
                       state_dir=state, ca_dir=a.ca_dir, roots=a.root,
                       control_socket=control_socket, control_listen=a.control_listen,
                       serials=a.serial, auth=not a.no_auth, expires_in=a.expires_in)
    try:
        server.start()
    except (OSError, RuntimeError, ValueError) as e:
        print(f"controller: {e}", file=sys.stderr)
        return 1

    def stop(signum, frame):
        server.lab.stopping.set()
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    # The ready file first: whoever reads the printed lines may look for it.
    server.write_ready(a.ready_file or os.path.join(state, "controller.json"))
    print(f"base_url {server.lab.base_url}")
    if server.control_socket:
        print(f"control unix:{server.control_socket}")
    if server.control_url:
        print(f"control {server.control_url}")
    print(f"ca {server.ca}", flush=True)
    while not server.lab.stopping.wait(1.0):
        pass
    server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
