"""What the daemon costs: memory, CPU per heartbeat, start-up, periodic jobs.

One command measures the release build of the real daemon against the lab
controller, each daemon in a network namespace of its own:

1. footprint: RSS, PSS and private dirty memory (smaps_rollup) of the
   supervisor and of the child with every stream on (heartbeat 1 s, status
   and statistics at their lowest intervals, syslog forwarding with lines
   flowing), on the sample 28-port switch and on a 128-port switch with two
   neighbours and four VLANs on every port; taken early and late in the run,
   and the growth between the two;
2. CPU per heartbeat of the child over N heartbeats, against a `curl`
   process doing the same exchange (same CA bundle, token, headers and body)
   N times in the same run;
3. start to first heartbeat with the controller already in the settings
   database;
4. CPU per status document (28 and 128 ports) and per command in a
   heartbeat reply carrying 1, 10 and 100 commands; then the statistics tick
   and syslog forwarding through bench/stats_tick.py and
   bench/syslog_forwarding.py, which write sections of their own.

The table is printed and written to the "Daemon costs" section of
docs/performance.md. `--quick` (under a minute, run by scripts/test.sh)
shortens everything and writes to a scratch file unless --out is given: it
keeps the harness working; its figures mean little.

    sudo python3 -m bench.daemon_costs [--quick] [--build build-release]
"""

import argparse
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

from lab import SOURCE, devroot, orkad
from lab.labfixture import LabController
from lab.netns import Netns
from lab.syslogsocket import SyslogSocket

from . import benchkit
from .benchkit import thread_of, wait, working_child

BEGIN = "<!-- daemon-costs:begin -->"
END = "<!-- daemon-costs:end -->"
CLK = os.sysconf("SC_CLK_TCK")
LINE = "<13>Nov 21 10:11:12 sw1 dot1x[412]: port 0/12 authorized, client 02:00:00:00:00:42"


# The 128-port switch of the measurements (lab/devroot.py builds it).
big_model = devroot.switch_model


class Daemon:
    """The daemon in a fresh device root and namespace, with a lab controller.
    A cross-built daemon runs through its emulator (["qemu-arm-static", "-L",
    "/"]), as ORKAD_EMULATOR has the end-to-end tests run it; the working
    child is then the emulator's own child process, so its CPU is the
    emulated daemon's and the emulator's together."""

    def __init__(self, binary, workdir, name, model=None, emulator=()):
        self.binary = binary
        self.emulator = list(emulator)
        self.workdir = os.path.join(workdir, name)
        os.makedirs(self.workdir)
        self.root = devroot.make_device_root(os.path.join(self.workdir, "root"))
        devroot.update_bootenv(self.root, heartbeat="1")
        if model is not None:
            with open(os.path.join(self.root, "var", "switch", "model.json"), "w") as f:
                json.dump(model, f)
        self.ns = Netns(prefix="orkad-bench").create()
        self.lab = LabController(root=self.root, host=self.ns.gateway, prefix=self.ns.prefix(),
                                 state_dir=os.path.join(self.workdir, "lab"))
        self.syslog = SyslogSocket(self.root, lambda text: None)
        self.proc = None
        self.child = None

    def start(self, site=True):
        """Starts the daemon; returns the wall-clock time it was started at."""
        out = open(os.path.join(self.workdir, "orkad.stdout"), "a")
        argv = self.ns.prefix() + [*self.emulator, self.binary] + (
            ["-s", self.lab.base_url] if site else [])
        t0 = time.time()
        self.proc = subprocess.Popen(argv, env=dict(os.environ, ORKAD_ROOT=self.root),
                                     stdout=out, stderr=subprocess.STDOUT,
                                     preexec_fn=os.setpgrp)
        out.close()
        return t0

    def ready(self, timeout=20):
        self.child = wait(self._child, timeout, "the working child")
        wait(lambda: self.lab.requests(kind="heartbeat"), timeout, "the first heartbeat")

    def _child(self):
        return working_child(self.proc.pid)

    def tid(self, name, pid=None):
        return thread_of(pid or self.child, name)

    def cpu_s(self, tid=None):
        """CPU seconds of the child, or of one of its threads."""
        if tid is None:
            # The threads' own clocks are finer than the process's ticks;
            # the daemon's threads live as long as it does.
            total = 0
            for t in os.listdir(f"/proc/{self.child}/task"):
                try:
                    with open(f"/proc/{self.child}/task/{t}/schedstat") as f:
                        total += int(f.read().split()[0])
                except FileNotFoundError:
                    pass
            return total / 1e9
        with open(f"/proc/{self.child}/task/{tid}/schedstat") as f:
            return int(f.read().split()[0]) / 1e9

    def memory(self):
        """{process: {Rss, Pss, Private_Dirty}} in KiB, from smaps_rollup."""
        res = {}
        for what, pid in (("supervisor", self.proc.pid), ("child", self.child)):
            vals = {}
            with open(f"/proc/{pid}/smaps_rollup") as f:
                for line in f:
                    p = line.split()
                    if p and p[0].rstrip(":") in ("Rss", "Pss", "Private_Dirty"):
                        vals[p[0].rstrip(":")] = int(p[1])
            res[what] = vals
        return res

    def command(self, context, params, action="set"):
        return self.lab.queue_command(action=action, context=context, params=params)

    def stop(self):
        orkad.stop(self.proc)
        self.proc = None

    def close(self):
        self.stop()
        self.lab.stop()
        self.syslog.close()
        self.ns.delete()


class Allocs:
    """Counts the child's malloc, calloc and realloc calls per thread over a
    window, through uprobes on the C library (perf). Without perf, or where
    the kernel has no uprobes, `available` is false and nothing is counted."""

    EVENTS = ("malloc", "calloc", "realloc")
    available = False

    @classmethod
    def setup(cls, binary):
        libc = None
        out = subprocess.run(["ldd", binary], capture_output=True, text=True).stdout
        for line in out.splitlines():
            if "libc.so.6 =>" in line:
                libc = line.split("=>")[1].split()[0]
        if libc is None or shutil.which("perf") is None:
            return
        cls.teardown()
        ok = all(subprocess.run(["perf", "probe", "-q", "-x", libc, "-a", e],
                                capture_output=True).returncode == 0 for e in cls.EVENTS)
        cls.available = ok

    @classmethod
    def teardown(cls):
        if shutil.which("perf"):
            subprocess.run(["perf", "probe", "-q", "-d", "probe_libc:*"], capture_output=True)
        cls.available = False

    def __init__(self, pid):
        self.proc = None
        if not Allocs.available:
            return
        events = ",".join(f"probe_libc:{e}" for e in self.EVENTS)
        self.proc = subprocess.Popen(["perf", "stat", "--per-thread", "-x,", "-e", events, "-p",
                                      str(pid)], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, text=True)
        time.sleep(0.5)  # attached to every thread

    def stop(self):
        """{thread name: calls}, with "*" for the whole process; None
        without perf."""
        if self.proc is None:
            return None
        self.proc.send_signal(signal.SIGINT)
        _, err = self.proc.communicate(timeout=30)
        res = {"*": 0}
        for line in err.splitlines():
            f = line.split(",")
            if len(f) < 4 or not f[1].strip().isdigit():
                continue
            name = f[0].strip().rsplit("-", 1)[0]
            res[name] = res.get(name, 0) + int(f[1])
            res["*"] += int(f[1])
        return res


def all_streams(d):
    d.command("status", {"interval": 10000, "serviceLink": {"href": "/status"}})
    d.command("statistics", {"interval": 15000, "serviceLink": {"href": "/statistics"}})
    d.command("logging", {"interval": 1000, "serviceLink": {"href": "/syslog"}})


class Lines(threading.Thread):
    """Keeps syslog lines flowing to the daemon's receiver (rate per second)."""

    def __init__(self, d, rate):
        super().__init__(daemon=True)
        self.d, self.rate, self.stopping = d, rate, threading.Event()
        self.sent = 0

    def run(self):
        n = 0
        while not self.stopping.wait(1.0):
            n += 1
            try:
                self.d.lab.call("POST", "/syslog/send",
                                {"lines": [f"{LINE} ({n}.{i})" for i in range(self.rate)],
                                 "pace": 0.5 / self.rate}, timeout=30)
                self.sent += self.rate
            except Exception:  # the lab may be stopping
                return


class Churn(threading.Thread):
    """Changes every port of the simulated switch every `period` seconds
    (the speed flips between 1000 and 10000), so that each status document
    carries every port: the status stream sends only ports that changed."""

    def __init__(self, d, period=10.0):
        super().__init__(daemon=True)
        self.d, self.period, self.stopping = d, period, threading.Event()
        self.path = os.path.join(d.root, "var", "switch", "model.json")
        with open(self.path) as f:
            self.model = json.load(f)

    def run(self):
        flip = False
        while not self.stopping.wait(self.period):
            flip = not flip
            for p in self.model.get("ports", []):
                p["speed"] = 8 if flip else 7
            tmp = self.path + ".new"
            with open(tmp, "w") as f:
                json.dump(self.model, f)
            os.rename(tmp, self.path)


def footprint(d, early, late, window):
    all_streams(d)
    lines = Lines(d, 10)
    lines.start()
    churn = Churn(d)
    churn.start()
    series = []
    try:
        tid = wait(lambda: d.tid("status_send"), 30, "the status thread")
        wait(lambda: d.tid("platform_syslog_reader"), 30, "the syslog receiver")
        time.sleep(early)
        m1 = d.memory()
        s1 = (d.cpu_s(tid), len(d.lab.status_documents()))
        # The child's private dirty memory along the way: a plateau or a slope.
        step = (late - early) / 6
        for i in range(6):
            time.sleep(step)
            series.append((early + (i + 1) * step, d.memory()["child"]["Private_Dirty"]))
        m2 = d.memory()
        s2 = (d.cpu_s(tid), len(d.lab.status_documents()))
        # Allocations in a window of their own: the probes cost CPU.
        al = Allocs(d.child)
        a1 = (len(d.lab.status_documents()), lines.sent)
        time.sleep(window)
        a2 = (len(d.lab.status_documents()), lines.sent)
        calls = al.stop()
    finally:
        lines.stopping.set()
        churn.stopping.set()
        lines.join()
    # CPU of the status thread per document it sent meanwhile.
    docs = s2[1] - s1[1]
    adocs, sent = a2[0] - a1[0], a2[1] - a1[1]
    allocs = None
    if calls is not None:
        allocs = (calls.get("status_send", 0) / adocs if adocs else None,
                  calls.get("platform_syslog_reader", 0) / sent if sent else None, sent)
    return m1, m2, ((s2[0] - s1[0]) / docs if docs else None, docs), allocs, series


CURL_RUNNER = r"""
import os, resource, subprocess, sys, json
argv, n = json.loads(sys.argv[1]), int(sys.argv[2])
for _ in range(n):
    subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
r = resource.getrusage(resource.RUSAGE_CHILDREN)
print(r.ru_utime + r.ru_stime)
"""


def curl_exchange(d, n):
    """CPU seconds of `curl` doing the daemon's last heartbeat exchange n times."""
    hb = d.lab.requests(kind="heartbeat")[-1]
    body = os.path.join(d.workdir, "heartbeat.json")
    with open(body, "w") as f:
        f.write(hb["body"] or "")
    argv = ["curl", "-sS", "-f", "-o", "/dev/null", "--cacert",
            os.path.join(d.root, "etc", "ca-bundle.pem"), "-X", hb["method"]]
    for k, v in hb["raw_headers"]:
        if k.lower() not in ("host", "content-length", "accept"):
            argv += ["-H", f"{k}: {v}"]
    argv += ["--data-binary", "@" + body, d.lab.base_url + hb["path"]]
    out = d.ns.run([sys.executable, "-c", CURL_RUNNER, json.dumps(argv), str(n)], text=True)
    return float(out.stdout.strip())


def heartbeat_cpu(d, n, allocs=True):
    """Child CPU seconds over n heartbeats (nothing else switched on), and
    heap calls per heartbeat (None without perf, or unless allocs)."""
    k0 = len(d.lab.requests(kind="heartbeat"))
    wait(lambda: len(d.lab.requests(kind="heartbeat")) > k0, 5, "a heartbeat")
    k1 = len(d.lab.requests(kind="heartbeat"))
    c0 = d.cpu_s()
    wait(lambda: len(d.lab.requests(kind="heartbeat")) >= k1 + n, 2 * n + 10, "heartbeats")
    cpu = (d.cpu_s() - c0) / n
    if not allocs:
        return cpu, None
    # Allocations over the next heartbeats, apart: the probes cost CPU.
    al = Allocs(d.child)
    k1 = len(d.lab.requests(kind="heartbeat"))
    wait(lambda: len(d.lab.requests(kind="heartbeat")) >= k1 + min(n, 5), 30, "heartbeats")
    calls = al.stop()
    k2 = len(d.lab.requests(kind="heartbeat"))
    return cpu, (calls["*"] / (k2 - k1) if calls is not None else None)


def commands_cpu(d, count, hb_cpu, allocs=False):
    """Child CPU (or, with allocs, heap calls) per command for one heartbeat
    reply carrying `count` commands (each refused and answered), less the
    heartbeats' own share."""
    al = Allocs(d.child) if allocs else None
    n0 = len(d.lab.results())
    k0 = len(d.lab.requests(kind="heartbeat"))
    c0 = d.cpu_s()
    d.lab.queue_commands([{"action": "set", "context": "heartbeat",
                           "params": {"interval": 0, "serviceLink": {"href": "/heartbeat"}}}
                          for _ in range(count)])
    # A reply longer than the 64 work items loses the rest by design: wait
    # until the answers stop coming and count the ones that came.
    deadline = time.monotonic() + 60 + count
    last, still = -1, 0
    while time.monotonic() < deadline and still < 3:
        n = len(d.lab.results()) - n0
        if n >= count:
            break
        still = still + 1 if n == last else 0
        last = n
        time.sleep(1.0)
    c1 = d.cpu_s()
    calls = al.stop() if al else None
    answered = len(d.lab.results()) - n0
    if answered <= 0:
        raise RuntimeError("no command was answered")
    hbs = len(d.lab.requests(kind="heartbeat")) - k0
    if allocs:
        if calls is None or hb_cpu[1] is None:
            return None
        return max(0.0, calls["*"] - hbs * hb_cpu[1]) / answered
    return max(0.0, (c1 - c0) - hbs * hb_cpu[0]) / answered, answered


def start_to_heartbeat(d, runs):
    """Seconds from exec to the first heartbeat the controller receives, with
    the controller already stored (the daemon ran once in this root)."""
    res = []
    for _ in range(runs):
        d.stop()
        mark = d.lab.mark()
        # The phone-home site answers as it does on a healthy network: the
        # daemon asks it at every start, before its first heartbeat.
        t0 = d.start()
        hb = wait(lambda: d.lab.requests(kind="heartbeat", since=mark), 20, "the first heartbeat",
                  interval=0.005)
        res.append(hb[0]["time"] - t0)
    d.child = wait(d._child, 20, "the working child")
    return statistics.median(res)


def stopped_controller(d, seconds):
    """Child CPU per second with the controller answering, then with it
    gone (every request refused): a stopped controller must not make the
    daemon spin."""
    c0 = d.cpu_s()
    time.sleep(seconds)
    up = (d.cpu_s() - c0) / seconds
    d.lab.stop()
    c0 = d.cpu_s()
    time.sleep(seconds)
    return up, (d.cpu_s() - c0) / seconds


def build(build_dir, jobs, targets=("orkad", "stats_tick_bench")):
    subprocess.run(["cmake", "-S", SOURCE, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release",
                    "-DORKAD_E2E=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build_dir, f"-j{jobs}", "--target", *targets],
                   check=True, stdout=subprocess.DEVNULL)
    return os.path.join(build_dir, "common", "orkad")


def mib(kib):
    return kib / 1024.0


def machine():
    model = ""
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith(("model name", "Model")):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return f"{platform.machine()}, {os.cpu_count()} CPUs ({model}), Linux {platform.release()}"


def write_section(path, text):
    benchkit.write_section(path, text, BEGIN, END, first=True)


def report(a, r):
    fp_rows = []
    for name, (m1, m2, _, _, _) in r["footprint"].items():
        for proc in ("supervisor", "child"):
            v1, v2 = m1[proc], m2[proc]
            fp_rows.append(
                f"| {name} | {proc} | {mib(v2['Rss']):.2f} | {mib(v2['Pss']):.2f} |"
                f" {mib(v2['Private_Dirty']):.2f} | {v2['Pss'] - v1['Pss']:+d} |"
                f" {v2['Private_Dirty'] - v1['Private_Dirty']:+d} |")
        both = m2["supervisor"]["Pss"] + m2["child"]["Pss"]
        fp_rows.append(f"| {name} | together | | {mib(both):.2f} | | | |")
    hb, curl = r["heartbeat_cpu"], r["curl_cpu"]
    st = {int(n.split()[0]): v[2] for n, v in r["footprint"].items()}
    al = {int(n.split()[0]): v[3] for n, v in r["footprint"].items()}

    def calls(v):
        return "n/a" if v is None else f"{v:.1f}"
    cmd = r["commands_cpu"]
    out = [
        "## Daemon costs",
        "",
        f"`bench/daemon_costs.py{' --quick' if a.quick else ''}`, {time.strftime('%Y-%m-%d')},"
        f" release build, {machine()}. One run; every ratio compares figures of this run.",
        "",
        f"Memory with every stream on (heartbeat 1 s, status 10 s with every port changing"
        f" every 10 s, statistics 15 s, syslog forwarding with 10 lines/s), at {a.early:g} s and {a.late:g} s; MiB at"
        f" {a.late:g} s, growth in KiB from {a.early:g} s to {a.late:g} s:",
        "",
        "| switch | process | RSS | PSS | private dirty | PSS growth KiB | private dirty growth KiB |",
        "|---|---|---|---|---|---|---|",
        *fp_rows,
        "",
        f"The child's private dirty memory (KiB) from {a.early:g} s on: "
        + "; ".join(f"{n}: " + ", ".join(f"{t:.0f} s {v}" for t, v in fp[4])
                    for n, fp in r["footprint"].items()) + ".",
        "",
        f"CPU per heartbeat over {a.heartbeats} heartbeats (nothing else on): daemon child"
        f" {hb * 1e3:.2f} ms; `curl` doing the same exchange {a.heartbeats} times"
        f" {curl * 1e3:.2f} ms each; daemon / curl = {hb / curl:.3f}.",
        *([] if "before_cpu" not in r else [
            "",
            f"The same measured on {a.before_name or '`' + a.before + '`'} in this run: {r['before_cpu'] * 1e3:.2f} ms per"
            f" heartbeat, curl {r['before_curl_cpu'] * 1e3:.2f} ms; this build / that one ="
            f" {hb / r['before_cpu']:.3f}."]),
        "",
        f"Start to first heartbeat with the controller stored (median of {a.starts}):"
        f" {r['start'] * 1e3:.0f} ms.",
        "",
        f"Child CPU per second, heartbeat 1 s, over {a.stopped:g} s: controller answering"
        f" {r['stopped'][0] * 1e3:.2f} ms; controller stopped (every request refused)"
        f" {r['stopped'][1] * 1e3:.2f} ms.",
        "",
        "| job | size | CPU per operation (ms) | per unit of size (ms) | allocations per"
        " operation |",
        "|---|---|---|---|---|",
        f"| heartbeat (child) | 1 | {hb * 1e3:.2f} | {hb * 1e3:.2f} |"
        f" {calls(r['heartbeat_allocs'])} |",
    ]
    for ports, (c, docs) in st.items():
        if c is None:
            out.append(f"| status document (status thread) | {ports} ports | no document"
                       " in the window | | |")
        else:
            out.append(f"| status document (status thread, {docs} documents) | {ports} ports |"
                       f" {c * 1e3:.2f} | {c * 1e3 / ports:.4f} |"
                       f" {calls(al[ports] and al[ports][0])} |")
    for ports, v in al.items():
        if v is not None and v[1] is not None:
            out.append(f"| syslog line received (receiver thread, {v[2]} lines, {ports}-port"
                       f" daemon) | 1 line | | | {calls(v[1])} |")
    for k, (c, answered) in cmd.items():
        ca = r["commands_allocs"].get(k, "not measured")
        out.append(f"| heartbeat reply with commands (child, per answered command) | {k}"
                   f" ({answered} answered) | {c * 1e3:.2f} | {c * 1e3:.2f} |"
                   f" {ca if isinstance(ca, str) else calls(ca)} |")
    sizes = list(st)
    if len(sizes) == 2 and st[sizes[0]][0] and st[sizes[1]][0]:
        out += ["", f"Status document, {sizes[1]} / {sizes[0]} ports: CPU x"
                    f"{st[sizes[1]][0] / st[sizes[0]][0]:.2f} for x{sizes[1] / sizes[0]:.2f}"
                    " the ports."]
    ks = list(cmd)
    if cmd[ks[0]][0] > 0:
        out += ["", f"Commands, per answered command: {ks[-1]} in one reply cost"
                    f" x{cmd[ks[-1]][0] / cmd[ks[0]][0]:.2f} what one alone costs. Commands"
                    " beyond the 64 work items of one reply are dropped unanswered, as the"
                    " dispatcher does by design."]
    out += ["", "The statistics tick and syslog forwarding are measured by"
                " bench/stats_tick.py and bench/syslog_forwarding.py (their own sections)."]
    return "\n".join(out)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--quick", action="store_true", help="a short run that checks the harness")
    ap.add_argument("--build", default=os.path.join(SOURCE, "build-release"))
    ap.add_argument("--bin", help="use this daemon instead of building one")
    ap.add_argument("--before", metavar="BIN", help="another build of the daemon (say, of an"
                    " older commit) whose CPU per heartbeat is measured beside this one's")
    ap.add_argument("--before-name", help="how the report names the --before build")
    ap.add_argument("--late-seconds", type=float, help="when to take the late memory figures"
                    " (default 600)")
    ap.add_argument("--skip-others", action="store_true", help="do not run stats_tick.py and"
                    " syslog_forwarding.py afterwards")
    benchkit.run_options(ap)
    a = ap.parse_args()
    benchkit.need_root("the daemon runs in network namespaces of its own")
    if a.quick:
        a.early, a.late, a.heartbeats, a.starts, a.stopped = 5.0, 25.0, 4, 1, 3.0
        a.window = 12.0
        a.counts = (1, 10)
    else:
        a.early, a.late, a.heartbeats, a.starts, a.stopped = 60.0, 600.0, 30, 5, 20.0
        a.window = 45.0
        a.counts = (1, 10, 100)
    if a.late_seconds:
        a.late = a.late_seconds
    out = a.out or (os.path.join(tempfile.gettempdir(), "orkad-bench-quick.md") if a.quick
                    else os.path.join(SOURCE, "docs", "performance.md"))
    binary = a.bin or build(a.build, a.jobs)

    work = tempfile.mkdtemp(prefix="orkad-bench-costs-")
    daemons = []
    r = {}
    try:
        small = Daemon(binary, work, "s28")
        large = Daemon(binary, work, "s128", big_model())
        hbd = Daemon(binary, work, "heartbeat")
        daemons += [small, large, hbd]
        if a.before:
            old = Daemon(a.before, work, "before")
            daemons.append(old)
        for d in daemons:
            d.start()
        for d in daemons:
            d.ready()
        Allocs.setup(binary)
        # The footprint runs run in the background while the rest is measured
        # on a daemon of its own.
        fps = {}
        threads = [threading.Thread(daemon=True, target=lambda d=d, n=n: fps.__setitem__(
            n, footprint(d, a.early, a.late, a.window))) for d, n in ((small, "28 ports"),
                                                             (large, "128 ports"))]
        for t in threads:
            t.start()
        r["heartbeat_cpu"], r["heartbeat_allocs"] = hb = heartbeat_cpu(hbd, a.heartbeats)
        r["curl_cpu"] = curl_exchange(hbd, a.heartbeats) / a.heartbeats
        if a.before:
            r["before_cpu"] = heartbeat_cpu(old, a.heartbeats)[0]
            r["before_curl_cpu"] = curl_exchange(old, a.heartbeats) / a.heartbeats
            old.close()
            daemons.remove(old)
        r["commands_cpu"] = {k: commands_cpu(hbd, k, hb) for k in a.counts}
        r["commands_allocs"] = {k: commands_cpu(hbd, k, hb, allocs=True) for k in a.counts[:2]}
        r["start"] = start_to_heartbeat(hbd, a.starts)
        r["stopped"] = stopped_controller(hbd, a.stopped)
        for t in threads:
            t.join()
        if len(fps) != 2:
            raise RuntimeError("a footprint run failed")
        r["footprint"] = {"28 ports": fps["28 ports"], "128 ports": fps["128 ports"]}
    finally:
        Allocs.teardown()
        for d in daemons:
            d.close()
        if not a.keep:
            shutil.rmtree(work, ignore_errors=True)

    text = report(a, r)
    write_section(out, text)
    print(text)

    if a.skip_others:
        return
    if a.quick:
        benchkit.run_script("stats_tick", "--build", a.build, "--rounds", "20", "--out", out)
    else:
        benchkit.run_script("stats_tick", "--build", a.build, "--out", out)
        benchkit.run_script("syslog_forwarding", "--bin", binary, "--out", out)


if __name__ == "__main__":
    main()
