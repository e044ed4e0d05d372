"""The lab runner (lab.run) as a test sees it: started as a program with
its own output file, read back through the state it writes (lab.json) and
the control API, stopped with Ctrl-C."""

import json
import os
import re
import shutil
import signal
import subprocess

import lab
from lab.labfixture import LabClient
from tests.e2e.kit import BIN, wait_until


def start(name, *args, **kw):
    """Lab program `name` (lab.run, lab.ctl, ...) started with args."""
    return subprocess.Popen(lab.program(name) + list(args), cwd=lab.SOURCE, **kw)


def run(name, *args, timeout=60, **kw):
    """Lab program `name` run to its end with args: its output, as text."""
    return subprocess.run(lab.program(name) + list(args), cwd=lab.SOURCE, capture_output=True,
                          text=True, timeout=timeout, **kw)


class Runner:
    def __init__(self, tmp_path, devices=1, heartbeat=1, extra=()):
        self.out_path = str(tmp_path / "run.out")
        self.out = open(self.out_path, "w+")
        self.proc = start("run", "--bin", BIN, "--heartbeat", str(heartbeat), "--port", "0",
                          "--dashboard", "0", "--devices", str(devices), *extra,
                          stdout=self.out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        self.devices = devices
        notice = wait_until(lambda: self.proc.poll() is None and "Ctrl-C stops" in self.text()
                            and self.text(), timeout=30 + devices, what="the runner's notice")
        self.socket = re.search(r"Unix socket (\S+)", notice).group(1)
        self.dashboard = re.search(r"dashboard +(http://\S+)", notice).group(1)
        self.workdir = os.path.dirname(os.path.dirname(self.socket))
        self.state_path = os.path.join(self.workdir, "lab.json")
        with open(self.state_path) as f:
            self.state = json.load(f)
        self.lab = LabClient(socket_path=self.socket)

    def text(self):
        with open(self.out_path) as f:
            return f.read()

    def device(self, n):
        """The runner's record of switch n (1-based)."""
        return self.state["devices"][n - 1]

    def model_path(self, n):
        return os.path.join(self.device(n)["root"], "var", "switch", "model.json")

    def model(self, n):
        with open(self.model_path(n)) as f:
            return json.load(f)

    def write_model(self, n, model):
        path = self.model_path(n)
        with open(path + ".tmp", "w") as f:
            json.dump(model, f)
        os.replace(path + ".tmp", path)

    def connected(self, count=None):
        devs = self.lab.call("GET", "/devices")["devices"]
        up = [d for d in devs if d["connected"]]
        return up if len(up) >= (count or self.devices) else None

    def ctl(self, *args, check=True, timeout=60):
        r = run("ctl", "--lab", self.state_path, *args, timeout=timeout)
        if check and r.returncode != 0:
            raise AssertionError(f"ctl {args} ended {r.returncode}: {r.stdout}{r.stderr}")
        return r

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(timeout=10)
        self.out.close()
        if os.path.basename(self.workdir).startswith("orkad-lab-run-"):
            shutil.rmtree(self.workdir, ignore_errors=True)
