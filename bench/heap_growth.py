"""Where the child's memory goes over time: leak or fragmentation.

Runs daemons side by side, each in a namespace of its own with every stream
on (as bench/daemon_costs.py does for its footprint), and at fixed times
reads the child's private dirty memory (smaps_rollup) and the C library's
own heap figures (malloc_stats, through gdb): bytes handed out and not
freed ("in use") against bytes the heap holds from the kernel ("system").
Growth of "in use" is memory never given back (a leak or a growing
structure); growth of "system" alone is fragmentation.

    sudo python3 -m bench.heap_growth --bin build/common/orkad \
        [--variant NAME=BIN ...] [--seconds 300]

Each variant is one daemon: by default the sample 28-port switch and the
128-port switch with two neighbours and four VLANs on every port, and the
same 128 ports with two VLANs, once with every port changing every 10 s
once with the ports left as they are and once with only a part of the
model no port shows changing every 10 s (the simulated switch reads its
model again, the status stream sends nothing); --variant adds a daemon of another build on
the 128-port, four-VLAN switch. Writes the "Heap growth" section of
docs/performance.md (or --out).
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

from lab import SOURCE, orkad

from . import benchkit
from .benchkit import wait
from .daemon_costs import Churn, Daemon, Lines, all_streams, big_model, machine

BEGIN = "<!-- heap-growth:begin -->"
END = "<!-- heap-growth:end -->"


def heap(pid):
    """(in use, system) bytes of the main arena, from malloc_stats()."""
    out = subprocess.run(["gdb", "-p", str(pid), "-batch", "-nx", "-ex",
                          "call (int)fflush(0)", "-ex", "call (void)malloc_stats()", "-ex",
                          "call (int)fflush(0)"], capture_output=True, text=True, timeout=60)
    return out


class Probe:
    """Reads malloc_stats() output the child wrote to its stderr (the
    daemon's stdout file)."""

    def __init__(self, d):
        self.d = d
        self.path = os.path.join(d.workdir, "orkad.stdout")

    def sample(self):
        with open(self.path, errors="replace") as f:
            f.seek(0, 2)
            start = f.tell()
        out = heap(self.d.child)
        # malloc_stats writes "system bytes" and "in use bytes" per arena
        # and a total.
        with open(self.path, errors="replace") as f:
            f.seek(start)
            text = f.read()
        sysb = re.findall(r"^system bytes\s*=\s*(\d+)", text, re.M)
        inuse = re.findall(r"^in use bytes\s*=\s*(\d+)", text, re.M)
        if not sysb or not inuse:
            print(f"no heap figures from {self.d.child}: {out.stderr.strip()[-300:]}",
                  file=sys.stderr)
            return None
        # The last pair is the total over every arena.
        return int(inuse[-1]), int(sysb[-1])


class ChurnElsewhere(Churn):
    """Rewrites the switch model every `period` seconds with a change no
    port shows (a field of its own in the system part): the simulated
    switch reads the model again, the status stream has nothing to send."""

    def run(self):
        n = 0
        while not self.stopping.wait(self.period):
            n += 1
            self.model.setdefault("system", {})["bench_round"] = n
            tmp = self.path + ".new"
            with open(tmp, "w") as f:
                json.dump(self.model, f)
            os.rename(tmp, self.path)


def run(d, seconds, points, res, name, churning="ports"):
    all_streams(d)
    lines = Lines(d, 10)
    lines.start()
    churn = (ChurnElsewhere if churning == "elsewhere" else Churn)(d)
    if churning:
        churn.start()
    probe = Probe(d)
    series = []
    try:
        wait(lambda: d.tid("status_send"), 30, "the status thread")
        t0 = time.monotonic()
        for t in points:
            delay = t0 + t - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            h = probe.sample()
            series.append((t, orkad.proc_figure(d.child, "smaps_rollup", "Private_Dirty"), h))
        docs = len(d.lab.status_documents())
    finally:
        lines.stopping.set()
        churn.stopping.set()
        lines.join()
    res[name] = (series, docs)


def kib(b):
    return b / 1024.0


def report(a, res, labels):
    out = ["## Heap growth", "",
           f"`bench/heap_growth.py`, {time.strftime('%Y-%m-%d')}, `{a.bin}`, {machine()}."
           " Daemons side by side, every stream on (heartbeat 1 s, status 10 s with every port"
           " changing every 10 s, statistics 15 s, syslog 10 lines/s). \"in use\" is what the"
           " C library's heap has handed out and not had back, \"heap\" what it holds from the"
           " kernel (malloc_stats); private dirty from smaps_rollup. KiB.", "",
           "| daemon | status documents | time s | private dirty | heap in use | heap held |",
           "|---|---|---|---|---|---|"]
    for name in labels:
        series, docs = res[name]
        for t, pd, h in series:
            inuse, held = (f"{kib(h[0]):.0f}", f"{kib(h[1]):.0f}") if h else ("n/a", "n/a")
            out.append(f"| {name} | {docs} | {t:g} | {pd} | {inuse} | {held} |")
    out += ["", "Growth per minute from the first to the last point:", "",
            "| daemon | private dirty KiB/min | heap in use KiB/min | heap held KiB/min |",
            "|---|---|---|---|"]
    for name in labels:
        series, _ = res[name]
        (t1, p1, h1), (t2, p2, h2) = series[0], series[-1]
        m = (t2 - t1) / 60.0
        if h1 and h2:
            hu, hh = f"{kib(h2[0] - h1[0]) / m:+.1f}", f"{kib(h2[1] - h1[1]) / m:+.1f}"
        else:
            hu = hh = "n/a"
        out.append(f"| {name} | {(p2 - p1) / m:+.1f} | {hu} | {hh} |")
    return "\n".join(out)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", required=True)
    ap.add_argument("--variant", action="append", default=[], metavar="NAME=BIN")
    ap.add_argument("--seconds", type=float, default=300.0)
    ap.add_argument("--first", type=float, default=60.0)
    ap.add_argument("--only-128", action="store_true", help="leave out the 28-port daemon")
    ap.add_argument("--out", default=os.path.join(SOURCE, "docs",
                                                  "performance.md"))
    a = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("needs root: the daemon runs in network namespaces of its own")
    if shutil.which("gdb") is None:
        sys.exit("needs gdb")
    points = [a.first + i * (a.seconds - a.first) / 4 for i in range(5)]
    work = tempfile.mkdtemp(prefix="orkad-bench-heap-")
    specs = []
    if not a.only_128:
        specs.append(("28 ports", a.bin, None, "ports"))
    specs.append(("128 ports, 4 VLANs", a.bin, big_model(vlans=4), "ports"))
    specs.append(("128 ports, 2 VLANs", a.bin, big_model(vlans=2), "ports"))
    specs.append(("128 ports, 2 VLANs, ports unchanged", a.bin, big_model(vlans=2), None))
    specs.append(("128 ports, 2 VLANs, only the model's system part changing", a.bin,
                  big_model(vlans=2), "elsewhere"))
    for v in a.variant:
        name, binary = v.split("=", 1)
        specs.append((f"128 ports, 4 VLANs, {name}", binary, big_model(vlans=4), "ports"))
    daemons, res = [], {}
    try:
        for i, (name, binary, model, _) in enumerate(specs):
            daemons.append(Daemon(binary, work, f"d{i}", model))
        for d in daemons:
            d.start()
        for d in daemons:
            d.ready()
        threads = [threading.Thread(daemon=True, target=run,
                                    args=(d, a.seconds, points, res, name, churning))
                   for d, (name, _, _, churning) in zip(daemons, specs)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    finally:
        for d in daemons:
            d.close()
        shutil.rmtree(work, ignore_errors=True)
    labels = [s[0] for s in specs]
    if len(res) != len(labels):
        sys.exit("a daemon's run failed")
    text = report(a, res, labels)
    benchkit.write_section(a.out, text, BEGIN, END)
    print(text)


if __name__ == "__main__":
    main()
