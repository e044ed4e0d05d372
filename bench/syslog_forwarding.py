"""What syslog forwarding costs and how much it carries.

Runs the built daemon (build/common/orkad, or --bin) in a network namespace
of its own with the lab controller, turns forwarding on with set.logging,
and sends syslog datagrams from the lab to the daemon's receiver:

1. sustained rates, with a healthy controller: lines per second offered,
   accepted, posted, and whether the overflow counter moved;
2. a burst as fast as the receiver takes it: how many lines the waiting
   batches absorb before overflow;
3. the same traffic with a healthy and with a stalled controller (every
   post held for a minute): CPU of the receiver thread, of the sender
   thread and of the whole daemon, per 1000 datagrams received.

The figures go into their own section of docs/performance.md. Needs root
(network namespace). Compare only figures from one run.

    sudo python3 -m bench.syslog_forwarding [--bin build/common/orkad]
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from lab import SOURCE, devroot
from lab.labfixture import LabController
from lab.netns import Netns
from lab.syslogsocket import SyslogSocket

from . import benchkit
from .benchkit import thread_of, wait, working_child

BEGIN = "<!-- syslog-forwarding:begin -->"
END = "<!-- syslog-forwarding:end -->"
TEXT = "sw1 dot1x[412]: port 0/12 authorized, client 02:00:00:00:00:42 vlan 20 ({:06d})"


class Bench:
    def __init__(self, binary, workdir):
        self.workdir = workdir
        self.root = devroot.make_device_root(os.path.join(workdir, "root"))
        devroot.update_bootenv(self.root, heartbeat="1")
        self.ns = Netns(prefix="orkad-bench").create()
        self.lab = LabController(root=self.root, host=self.ns.gateway, prefix=self.ns.prefix(),
                                 state_dir=os.path.join(workdir, "lab"))
        # Somebody has to take the daemon's own syslog datagrams.
        self.syslog = SyslogSocket(self.root, lambda text: None)
        out = open(os.path.join(workdir, "orkad.stdout"), "w")
        self.proc = subprocess.Popen(
            self.ns.prefix() + [binary, "-s", self.lab.base_url],
            env=dict(os.environ, ORKAD_ROOT=self.root), stdout=out, stderr=subprocess.STDOUT,
            preexec_fn=os.setpgrp)
        self.child = self._wait(self._child, 20, "the working child")
        self._wait(lambda: self.lab.requests(kind="heartbeat"), 20, "the first heartbeat")
        self.lab.queue_command(action="set", context="logging",
                               params={"interval": 1000, "serviceLink": {"href": "/syslog"}})
        port = ":%04X " % 46180
        self._wait(lambda: port in self.ns.run(["cat", "/proc/net/udp"], text=True).stdout, 20,
                   "the syslog receiver")
        self.seq = 0

    _wait = staticmethod(wait)

    def _child(self):
        return working_child(self.proc.pid)

    def _tid(self, name, pid=None):
        return thread_of(pid or self.child, name)

    def cpu_ns(self, tid=None):
        """CPU time on the clock of the scheduler: one thread, or the process."""
        if tid is None:
            with open(f"/proc/{self.child}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            return (int(fields[11]) + int(fields[12])) * 1e9 / os.sysconf("SC_CLK_TCK")
        with open(f"/proc/{self.child}/task/{tid}/schedstat") as f:
            return int(f.read().split()[0])

    def dump(self):
        def last():
            best = None
            # A dump may be cut by a rotation: the previous generation too.
            for name in ("debug1.log", "debug.log"):
                path = os.path.join(self.root, "tmp", name)
                if not os.path.exists(path):
                    continue
                with open(path, errors="replace") as f:
                    for line in f:
                        p = line.rstrip("\n").split(" ", 3)
                        if len(p) == 4 and p[3].startswith("logging_debug: logbuf = "):
                            if best is None or int(p[0]) > best[0]:
                                best = (int(p[0]), p[3])
            return best
        before = last()
        os.kill(self.child, signal.SIGUSR1)
        got = self._wait(lambda: (lambda x: x if x and x != before else None)(last()), 10,
                         "the dump")
        m = re.search(r"\((\d+)\), overflow = (\d+), oversize = (\d+), "
                      r"ready-logs-count = (\d+)$", got[1])
        return {"filling": int(m[1]), "overflow": int(m[2]), "ready": int(m[4])}

    def lines(self):
        return self.lab.call("GET", "/syslog")["last"]

    def send(self, count, pace):
        texts = []
        for _ in range(count):
            self.seq += 1
            texts.append("<13>Nov 21 10:11:12 " + TEXT.format(self.seq))
        # In chunks, so one control call never takes long.
        for k in range(0, count, 500):
            self.lab.call("POST", "/syslog/send", {"lines": texts[k:k + 500], "pace": pace},
                          timeout=600)

    def settle(self):
        """Waits until the receiver has handled everything sent."""
        last = None
        while True:
            d = self.dump()
            if d == last:
                return d
            last = d
            time.sleep(0.3)

    def drain(self, timeout=120):
        self._wait(lambda: (lambda d: d["ready"] == 0 and d["filling"] == 0)(self.dump()),
                   timeout, "the queue to drain", interval=1.0)

    def stop(self):
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.proc.wait()
        self.lab.stop()
        self.syslog.close()
        self.ns.delete()


def line_length():
    text = "<13>Nov 21 10:11:12 " + TEXT.format(1)
    return len('{"sequence":1000,"logTime":"2026-11-21T10:11:12+0000","message":"%s"}' % text)


def sustained(b, rate, seconds):
    d0, n0 = b.dump(), b.lines()
    t0 = time.monotonic()
    b.send(int(rate * seconds), 1.0 / rate)
    took = time.monotonic() - t0
    d1 = b.settle()
    posted = b.lines() - n0
    row = (rate, int(rate * seconds) / took, d1["overflow"] - d0["overflow"], d1["ready"], posted)
    b.drain()
    return row


def burst(b, count):
    d0 = b.dump()
    b.send(count, 0.0002)
    d1 = b.settle()
    over = d1["overflow"] - d0["overflow"]
    b.drain(150)
    return count - over, over


def cpu_case(b, count, stalled):
    if stalled:
        b.lab.script("/api/syslog", count=None, delay=60)
    rx, tx = b._tid("platform_syslog_reader"), b._tid("logging_send")
    c0 = (b.cpu_ns(rx), b.cpu_ns(tx), b.cpu_ns())
    d0 = b.dump()
    b.send(count, 0.0005)
    b.settle()
    time.sleep(3)  # the sender's share: a few posts (or one held post)
    d1 = b.dump()
    c1 = (b.cpu_ns(rx), b.cpu_ns(tx), b.cpu_ns())
    if stalled:
        b.lab.clear_scripts("/api/syslog")
    per = [(c1[i] - c0[i]) / 1e6 / (count / 1000) for i in range(3)]
    return per, d1["overflow"] - d0["overflow"]


def write_section(path, text):
    benchkit.write_section(path, text, BEGIN, END)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", default=os.path.join(SOURCE, "build", "common", "orkad"))
    ap.add_argument("--seconds", type=float, default=20, help="length of each sustained run")
    ap.add_argument("--out", default=os.path.join(SOURCE, "docs", "performance.md"))
    ap.add_argument("--keep", action="store_true", help="keep the device root and lab folder")
    a = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("needs root: the daemon runs in a network namespace of its own")

    work = tempfile.mkdtemp(prefix="orkad-bench-syslog-")
    b = Bench(a.bin, work)
    try:
        llen = line_length()
        # A line joins a batch while the records stay below 4096 bytes.
        per_batch = 4095 // (llen + 4)
        rows = [sustained(b, r, a.seconds) for r in (per_batch // 2, per_batch, 2 * per_batch)]
        taken, over = burst(b, 3000)
        healthy, h_over = cpu_case(b, 4000, False)
        b.drain(150)
        stalled, s_over = cpu_case(b, 4000, True)
    finally:
        b.stop()
        if not a.keep:
            shutil.rmtree(work, ignore_errors=True)

    out = [
        "## Syslog forwarding",
        "",
        f"`bench/syslog_forwarding.py`, {time.strftime('%Y-%m-%d')},"
        f" `{os.path.relpath(a.bin, SOURCE)}`,"
        f" {os.cpu_count()} CPUs. Lines of {llen} characters ({per_batch} to a batch),"
        " sent by the lab controller to UDP 46180 in the daemon's namespace.",
        "",
        f"Sustained rates, healthy controller, {a.seconds:g} s each:",
        "",
        "| offered lines/s | sent lines/s | overflow | batches waiting when sending ended"
        " | lines posted by then |",
        "|---|---|---|---|---|",
    ]
    for rate, sent, of, ready, posted in rows:
        out.append(f"| {rate} | {sent:.0f} | {of} | {ready} | {posted} |")
    out += [
        "",
        f"The sender posts one batch a second, so about {per_batch} lines a second"
        " go out for ever; faster traffic piles up in the 64 waiting batches and"
        " overflows once they are full.",
        "",
        f"Burst of 3000 lines as fast as the receiver takes them: {taken} taken into"
        f" batches, {over} counted as overflow.",
        "",
        "CPU per 1000 datagrams received (4000 datagrams at 2000/s, then 3 s):",
        "",
        "| controller | receiver thread ms | sender thread ms | whole daemon ms | overflow |",
        "|---|---|---|---|---|",
        f"| healthy | {healthy[0]:.1f} | {healthy[1]:.1f} | {healthy[2]:.1f} | {h_over} |",
        f"| stalled (posts held 60 s) | {stalled[0]:.1f} | {stalled[1]:.1f} | {stalled[2]:.1f} |"
        f" {s_over} |",
        "",
        f"Receiver CPU, stalled / healthy: {stalled[0] / healthy[0]:.2f}. The receiver never"
        " waits for the sender: with the controller stalled, lines beyond the waiting"
        " batches are only counted.",
    ]
    text = "\n".join(out)
    write_section(a.out, text)
    print(text)


if __name__ == "__main__":
    main()
