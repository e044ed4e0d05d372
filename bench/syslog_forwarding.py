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
import sys
import tempfile
import time

from lab import SOURCE, orkad

from . import benchkit
from .benchkit import wait
from .daemon_costs import Daemon

BEGIN = "<!-- syslog-forwarding:begin -->"
END = "<!-- syslog-forwarding:end -->"
TEXT = "sw1 dot1x[412]: port 0/12 authorized, client 02:00:00:00:00:42 vlan 20 ({:06d})"


class Bench(Daemon):
    """The daemon against the lab, forwarding its syslog every second."""

    def __init__(self, binary, workdir):
        super().__init__(binary, workdir, "syslog")
        self.start()
        self.ready()
        self.command("logging", {"interval": 1000, "serviceLink": {"href": "/syslog"}})
        port = ":%04X " % 46180
        wait(lambda: port in self.ns.run(["cat", "/proc/net/udp"], text=True).stdout, 20,
             "the syslog receiver")
        self.seq = 0

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
            found = orkad.debug_lines(self.root, "logging_debug: logbuf = ")
            return found[-1] if found else None
        before = last()
        os.kill(self.child, signal.SIGUSR1)
        got = wait(lambda: (lambda x: x if x and x != before else None)(last()), 10,
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
        wait(lambda: (lambda d: d["ready"] == 0 and d["filling"] == 0)(self.dump()),
                   timeout, "the queue to drain", interval=1.0)


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
    rx, tx = b.tid("platform_syslog_reader"), b.tid("logging_send")
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
        b.close()
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
