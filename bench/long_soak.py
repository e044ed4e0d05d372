"""A year unattended, squeezed: the fault soak (tests/soak) run for hours on
the release build, at fast paces, on the 128-port switch with four LLDP
neighbours and four VLANs on every port and the neighbours replaced every
minute (heartbeat 1 s, status 10 s, statistics 15 s, ten syslog lines a
second, the lab's faults one after another). Once a minute it samples the
working child's private dirty memory, the C library's heap in use (through
gdb), its descriptors and its threads.

    sudo python3 -m bench.long_soak [--minutes 120] [--bin build-release/common/orkad]
    sudo python3 -m bench.long_soak --from-report figures.json   # only write the page

Writes the "Long soak" section of docs/hardening.md (or --out). What it
judges: after ten minutes of warm-up, how far the floor of each figure moved
over the last hour (the lowest of the first five minutes of that hour
against the lowest of the last five: a fault episode holds memory and
sockets while it lasts, a leak lifts the floor), and whether anything a
controller could count was lost (the soak's own assertions: every command
answered once as its handler answers it, every syslog line delivered).
"""

import argparse
import json
import os
import subprocess
import sys
import time

from lab import SOURCE

from . import benchkit
from .daemon_costs import build, machine

BEGIN = "<!-- long-soak:begin -->"
END = "<!-- long-soak:end -->"
# The figure the daemon must meet: private dirty memory of the child grows no
# more than this over the last hour.
GROWTH_LIMIT_KIB = 64


def run_soak(binary, minutes, report, seed):
    env = dict(os.environ, ORKAD_SOURCE=SOURCE, ORKAD_BIN=os.path.abspath(binary))
    argv = ["/usr/bin/python3", "-m", "pytest", "-q", "-s", "-p", "no:cacheprovider",
            os.path.join(SOURCE, "tests", "soak"), "-k", "fault", "--minutes", str(minutes),
            "--heap", "--soak-report", report]
    if seed is not None:
        argv += ["--seed", str(seed)]
    started = time.time()
    rc = subprocess.run(argv, env=env, cwd=SOURCE).returncode
    return rc, time.time() - started


def kib(v):
    return "" if v is None else f"{v / 1024:.0f}"


def page(fig, a, rc, elapsed):
    soak = fig["fault_soak"]
    minutes = soak.get("minutes_sampled", [])
    growth = soak.get("last_hour_growth") or {}
    syslog = soak["syslog"]
    lost_cmds = {k: v for k, v in soak["commands"].items()
                 if v["sent"] != v["answered"]}
    pd = growth.get("private_dirty_kb")
    verdict = ("met" if pd is not None and pd <= GROWTH_LIMIT_KIB else
               "missed" if pd is not None else "not judged (shorter than 70 minutes)")
    out = ["## Long soak", "",
           f"`bench/long_soak.py`, {time.strftime('%Y-%m-%d')}, `{a.bin}` ({a.commit}),"
           f" {machine()}. {soak['minutes']:.0f} minutes"
           + (f" (wall time {elapsed / 60:.0f} min with the recovery checks)" if elapsed else "")
           + f", seed {soak['seed']}."
           " The fault soak at fast paces on 128 ports with four neighbours and four VLANs"
           " each, neighbours replaced every minute; heartbeat 1 s, status 10 s,"
           " statistics 15 s, 10 syslog lines a second, the lab's faults in turn"
           " (tests/soak, docs above).", "",
           f"- Private dirty memory of the working child over the last hour (floor to"
           f" floor): {'+' if (pd or 0) >= 0 else ''}{pd} KiB; the limit is"
           f" {GROWTH_LIMIT_KIB} KiB: {verdict}.",
           f"- C library heap in use over the last hour: {kib(growth.get('heap_in_use'))} KiB"
           " (floor to floor); descriptors"
           f" {growth.get('fds')}, threads {growth.get('threads')}.",
           f"- Commands: {soak['commands_sent']} sent, {soak['commands_answered']} answered"
           " once as their handler answers them"
           + (f"; not answered: {json.dumps(lost_cmds)}" if lost_cmds else "") + ".",
           f"- Syslog: {syslog['sent']} lines sent, {syslog['arrived']} arrived,"
           f" {syslog['missing']} missing ({syslog['missing_never_received']} never reached"
           " the daemon's receiver, a UDP datagram lost on loopback),"
           f" {syslog['twice']} twice ({syslog['twice_at_outage']} at a controller outage).",
           f"- Restarts of the child: {soak['restarts']}. Problems: {len(soak['problems'])}."
           f" The soak's own assertions: {'passed' if rc == 0 else 'FAILED (exit ' + str(rc) + ')'}.",
           f"- Faults: {', '.join(f'{k} {v}' for k, v in sorted(soak['faults'].items()))}.",
           "", "| Minute | Private dirty (KiB) | Heap in use (KiB) | Descriptors | Threads |",
           "|---|---|---|---|---|"]
    step = max(1, len(minutes) // 24)
    for m in minutes:
        if (m["minute"] - 1) % step == 0 or m is minutes[-1]:
            out.append(f"| {m['minute']} | {m['private_dirty_kb']} | {kib(m['heap_in_use'])} |"
                       f" {m['fds']} | {m['threads']} |")
    return "\n".join(out) + "\n"


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--minutes", type=float, default=120)
    p.add_argument("--bin", default=None, help="the daemon (default: build it in --build)")
    p.add_argument("--build", default=os.path.join(SOURCE, "build-release"))
    p.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    p.add_argument("--seed", type=int, default=None)
    p.add_argument("--report", default="/tmp/orkad-long-soak.json",
                   help="where the soak writes its figures")
    p.add_argument("--from-report", default=None,
                   help="write the page from the figures of an earlier run")
    p.add_argument("--commit", default=None, help="the commit the daemon was built from")
    p.add_argument("--out", default=os.path.join(SOURCE, "docs", "hardening.md"))
    a = p.parse_args()
    if a.commit is None:
        a.commit = subprocess.run(["git", "-C", SOURCE, "rev-parse", "--short", "HEAD"],
                                  capture_output=True, text=True).stdout.strip()
    rc, elapsed = 0, 0.0
    if a.from_report:
        a.report = a.from_report
        a.bin = a.bin or "build-release/common/orkad"
    else:
        if a.bin is None:
            build(a.build, a.jobs)
            a.bin = os.path.join(a.build, "common", "orkad")
        if os.path.exists(a.report):
            os.unlink(a.report)
        rc, elapsed = run_soak(a.bin, a.minutes, a.report, a.seed)
    with open(a.report) as f:
        fig = json.load(f)
    benchkit.write_section(a.out, page(fig, a, rc, elapsed), BEGIN, END)
    print(f"wrote the long soak into {a.out}")
    return rc


if __name__ == "__main__":
    sys.exit(main())
