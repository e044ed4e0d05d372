"""orkadctl against a stand-in daemon: a Unix datagram socket at the device
root's /tmp/orkad_socket that answers canned JSON, or nothing. The layout of
each state line by line, --json field by field, the exit codes, no daemon,
a silent daemon, non-root callers, the socket left behind (never), and the
main log: its last lines and following it across rotation."""

import json
import os
import queue
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import time

import pytest

from lab.orkad import proc_figure
from tests.e2e.kit import CTL, wait_until

VERSION = "1.2.0"
NOT_RUNNING = "orkadctl: orkad is not running (nothing listens on {})\n"
NO_ANSWER = "orkadctl: no answer from orkad within 1 s (is it running?)\n"


@pytest.fixture
def root():
    # Short on purpose: the sockets' paths must fit a sockaddr_un.
    d = tempfile.mkdtemp(prefix="octl", dir="/tmp")
    for sub in ("tmp", "rw"):
        os.makedirs(os.path.join(d, sub))
    yield d
    shutil.rmtree(d, ignore_errors=True)


class FakeDaemon:
    """Takes each event datagram, keeps it, and answers what answer(request)
    returns (a dict, raw bytes, or None for silence) to the reply path
    inside the device root."""

    def __init__(self, root, answer):
        self.root = root
        self.answer = answer
        self.requests = []
        self.reply_modes = []
        self.path = os.path.join(root, "tmp", "orkad_socket")
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                data = self.sock.recv(1024)
            except OSError:
                return
            req = json.loads(data)
            self.requests.append(req)
            reply = os.path.join(self.root, req["params"]["reply"].lstrip("/"))
            self.reply_modes.append(stat.S_IMODE(os.stat(reply).st_mode))
            out = self.answer(req)
            if out is None:
                continue
            if not isinstance(out, bytes):
                out = json.dumps(out).encode()
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
                s.sendto(out, reply)

    def close(self):
        self.sock.close()
        os.unlink(self.path)


@pytest.fixture
def fake(root):
    daemons = []

    def start(answer):
        d = FakeDaemon(root, answer if callable(answer) else (lambda req: answer))
        daemons.append(d)
        return d
    yield start
    for d in daemons:
        d.close()


def run(root, *args, wrapper=(), timeout=10):
    t0 = time.monotonic()
    p = subprocess.run([*wrapper, CTL, *args], env=dict(os.environ, ORKAD_ROOT=root),
                       capture_output=True, text=True, timeout=timeout)
    p.elapsed = time.monotonic() - t0
    return p


def leftover_sockets(root):
    return [n for n in os.listdir(os.path.join(root, "tmp")) if n.startswith("orkadctl.")]


# ---- canned answers -------------------------------------------------------

def stamp(t):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(t))


def ago(t, now):
    d = now - t
    return f"{stamp(t)} ({d}s ago)" if d >= 0 else f"{stamp(t)} (in {-d}s)"


def heartbeating(now):
    return {
        "version": VERSION, "pid": 4242, "started": now - 3671, "uptime": 3671, "restarts": 1,
        "controller": {"url": "https://192.0.2.1:8443", "source": "phone-home"},
        "phone_home": {"state": "done", "last": now - 3670, "result": 0},
        "heartbeat": {"interval": 60, "last": now - 5, "result": 0, "last_ok": now - 5,
                      "failures": 0},
        "token": {"held": True, "expires": now + 3530},
        "streams": {
            "status": {"enabled": True, "interval": 10, "last": now - 7, "result": 0,
                       "posted": 12, "failed": 0},
            "statistics": {"enabled": False, "interval": 0, "last": None, "result": None,
                           "posted": 0, "failed": 0},
            "syslog": {"enabled": True, "interval": 1, "last": now - 1, "result": 0,
                       "posted": 120, "failed": 2, "lines_waiting": 3, "batches_waiting": 1,
                       "dropped": 0},
        },
        "vpn": {"state": "off", "address": None},
        "firmware": {"running": "1.0.0.1", "pending": None},
        "database": {"schema": 9},
        "problems": [],
    }


def heartbeating_lines(b, s):
    """The plain text of heartbeating(b) shown at second s."""
    return [
        "orkad        1.2.0, pid 4242, up 3671s, restarts 1",
        "controller   https://192.0.2.1:8443",
        "  from       phone-home",
        f"phone-home   done, ok, {ago(b - 3670, s)}",
        "heartbeat    every 60s, 0 failed in a row",
        f"  last       {ago(b - 5, s)}, ok",
        f"  last ok    {ago(b - 5, s)}",
        f"token        held, expires {ago(b + 3530, s)}",
        "status       every 10s, 12 posted, 0 failed",
        f"  last       {ago(b - 7, s)}, ok",
        "statistics   off",
        "syslog       every 1s, 120 posted, 2 failed",
        "  queued     lines 3, batches 1, dropped 0",
        f"  last       {ago(b - 1, s)}, ok",
        "vpn          off",
        "firmware     1.0.0.1, nothing pending",
        "database     schema 9",
        "problems     none",
    ]


def no_controller(now):
    a = heartbeating(now)
    a["controller"] = {"url": None, "source": None}
    a["phone_home"] = {"state": "failed", "last": now - 2, "result": 2}
    a["heartbeat"] = {"interval": 60, "last": None, "result": None, "last_ok": None,
                      "failures": 0}
    a["token"] = {"held": False, "expires": None}
    for s in a["streams"].values():
        s.update(enabled=False, last=None, result=None, posted=0, failed=0)
    a["streams"]["syslog"].update(lines_waiting=0, batches_waiting=0, dropped=0)
    a["problems"] = ["no controller"]
    return a


def no_controller_lines(b, s):
    return [
        "orkad        1.2.0, pid 4242, up 3671s, restarts 1",
        "controller   none",
        f"phone-home   failed, transport error (2), {ago(b - 2, s)}",
        "heartbeat    every 60s, 0 failed in a row",
        "  last       never",
        "  last ok    never",
        "token        none",
        "status       off",
        "statistics   off",
        "syslog       off",
        "vpn          off",
        "firmware     1.0.0.1, nothing pending",
        "database     schema 9",
        "problems     no controller",
    ]


def controller_down(now):
    a = heartbeating(now)
    a["heartbeat"].update(last=now - 1, result=2, last_ok=now - 40, failures=4)
    a["problems"] = ["heartbeats failing", "status posts failing"]
    a["streams"]["status"].update(result=503, failed=3)
    return a


def controller_down_lines(b, s):
    lines = heartbeating_lines(b, s)
    lines[4] = "heartbeat    every 60s, 4 failed in a row"
    lines[5] = f"  last       {ago(b - 1, s)}, transport error (2)"
    lines[6] = f"  last ok    {ago(b - 40, s)}"
    lines[8] = "status       every 10s, 12 posted, 3 failed"
    lines[9] = f"  last       {ago(b - 7, s)}, HTTP 503"
    lines[-1] = "problems     heartbeats failing"
    return lines + ["             status posts failing"]


def vpn_up(now):
    a = heartbeating(now)
    a["controller"]["source"] = "boot"
    a["vpn"] = {"state": "up", "address": "10.89.0.2"}
    a["firmware"] = {"running": "1.0.0.1", "pending": "2.0.0.0"}
    a["token"]["expires"] = None
    return a


def vpn_up_lines(b, s):
    lines = heartbeating_lines(b, s)
    lines[2] = "  from       boot environment override"
    lines[7] = "token        held, no expiry"
    lines[14] = "vpn          up, 10.89.0.2"
    lines[15] = "firmware     1.0.0.1, update to 2.0.0.0 pending"
    return lines


def ask_status(root, fake, build):
    """Runs `orkadctl status` against an answer built on the clock: returns
    the run, the second the answer was built and the second it ended."""
    built = []

    def answer(req):
        built.append(int(time.time()))
        return build(built[-1])
    fake(answer)
    p = run(root, "status")
    return p, built[0] if built else None, int(time.time())


def shown_at_some_second(out, lines, built, end):
    """Whether out is the plain text of the answer built at that second, as
    the client shows it at some second until end."""
    return any(out == "\n".join(lines(built, s)) + "\n" for s in range(built, end + 1))


@pytest.mark.parametrize("build,lines,code", [
    (heartbeating, heartbeating_lines, 0),
    (no_controller, no_controller_lines, 1),
    (controller_down, controller_down_lines, 1),
    (vpn_up, vpn_up_lines, 0),
], ids=["heartbeating", "no-controller", "controller-down", "vpn-up"])
def test_status_plain(root, fake, build, lines, code):
    p, built, end = ask_status(root, fake, build)
    assert p.returncode == code, p.stderr
    assert p.stderr == ""
    assert shown_at_some_second(p.stdout, lines, built, end), p.stdout
    assert all(len(line) < 80 for line in p.stdout.splitlines())
    assert leftover_sockets(root) == []


@pytest.mark.parametrize("build,code", [(heartbeating, 0), (no_controller, 1),
                                        (controller_down, 1), (vpn_up, 0)],
                         ids=["heartbeating", "no-controller", "controller-down", "vpn-up"])
def test_status_json_is_the_answer_with_the_exit_code(root, fake, build, code):
    sent = {}

    def answer(req):
        sent["answer"] = build(int(time.time()))
        return sent["answer"]
    fake(answer)
    p = run(root, "--json", "status")
    assert p.returncode == code
    assert p.stdout.count("\n") == 1
    got = json.loads(p.stdout)
    want = dict(sent["answer"], exit=code)
    assert list(got) == list(want)
    for key in want:
        assert got[key] == want[key], key


def test_the_request_names_our_socket_which_is_root_only_and_gone_after(root, fake):
    d = fake(lambda req: heartbeating(int(time.time())))
    p = run(root, "status")
    assert p.returncode == 0
    assert len(d.requests) == 1
    assert d.requests[0] == {"event": "orkad.status",
                             "params": {"reply": d.requests[0]["params"]["reply"]}}
    reply = d.requests[0]["params"]["reply"]
    assert reply.startswith("/tmp/orkadctl.") and reply[len("/tmp/orkadctl."):].isdigit()
    assert d.reply_modes == [0o600]
    assert leftover_sockets(root) == []


@pytest.mark.parametrize("source,shown", [
    ("phone-home", "phone-home"), ("site", "phone-home (-s or homesite)"),
    ("boot", "boot environment override"), ("stored", "settings database"),
    (None, "unknown")])
def test_where_the_controller_came_from(root, fake, source, shown):
    def answer(req):
        a = heartbeating(int(time.time()))
        a["controller"]["source"] = source
        return a
    fake(answer)
    p = run(root, "status")
    assert p.returncode == 0
    assert p.stdout.splitlines()[1:3] == ["controller   https://192.0.2.1:8443",
                                          f"  from       {shown}"]


def test_long_and_hostile_texts_stay_on_one_short_line(root, fake):
    def answer(req):
        a = heartbeating(int(time.time()))
        a["controller"]["url"] = "https://c.example/\x1b[2J" + "x" * 200
        a["problems"] = ["bad\nline"]
        return a
    fake(answer)
    p = run(root, "status")
    assert p.returncode == 1
    lines = p.stdout.splitlines()
    assert lines[1] == ("controller   https://c.example/?[2J" + "x" * 200)[:76] + "..."
    assert len(lines[1]) == 79
    assert lines[-1] == "problems     bad?line"
    assert "\x1b" not in p.stdout


def test_an_answer_without_problems_is_not_all_well(root, fake):
    def answer(req):
        a = heartbeating(int(time.time()))
        del a["problems"]
        return a
    fake(answer)
    p = run(root, "status")
    assert p.returncode == 1
    assert p.stdout.splitlines()[-1] == "problems     unknown (orkad did not say)"


def test_a_stray_datagram_is_skipped_for_the_answer(root, fake):
    def answer(req):
        reply = os.path.join(root, req["params"]["reply"].lstrip("/"))
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            s.sendto(b"not json", reply)
        return heartbeating(int(time.time()))
    fake(answer)
    p = run(root, "--json", "status")
    assert p.returncode == 0
    assert json.loads(p.stdout)["exit"] == 0


# ---- no answer ------------------------------------------------------------

def test_no_daemon_at_all(root):
    p = run(root, "status")
    assert p.returncode == 2
    assert p.stdout == ""
    assert p.stderr == NOT_RUNNING.format(os.path.join(root, "tmp", "orkad_socket"))
    assert p.elapsed < 3
    assert leftover_sockets(root) == []


def test_a_socket_nobody_reads_any_more(root):
    # What a daemon killed with -9 leaves behind.
    path = os.path.join(root, "tmp", "orkad_socket")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(path)
    s.close()
    p = run(root, "--json", "status")
    assert p.returncode == 2
    assert p.stdout == ""
    assert p.stderr == NOT_RUNNING.format(path)


@pytest.mark.parametrize("verb", ["status", "dump"])
def test_a_daemon_that_never_answers(root, fake, verb):
    d = fake(None)
    p = run(root, verb)
    assert p.returncode == 2
    assert p.stdout == ""
    assert p.stderr == NO_ANSWER
    assert 0.9 < p.elapsed < 3
    assert [r["event"] for r in d.requests] == [f"orkad.{verb}"]
    assert leftover_sockets(root) == []


def test_a_daemon_whose_queue_is_full_is_no_answer_within_the_second(root):
    # A daemon stuck in a callback: its socket's queue fills up and a plain
    # send would block for ever.
    path = os.path.join(root, "tmp", "orkad_socket")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(path)
    try:
        filler = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        filler.connect(path)
        filler.setblocking(False)
        with pytest.raises(BlockingIOError):
            while True:
                filler.send(b"{}")
        p = run(root, "status")
        assert p.returncode == 2
        assert p.stderr == NO_ANSWER
        assert p.elapsed < 3
        assert leftover_sockets(root) == []
    finally:
        filler.close()
        s.close()


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_while_waiting_removes_our_socket(root, fake, sig):
    d = fake(None)
    p = subprocess.Popen([CTL, "status"], env=dict(os.environ, ORKAD_ROOT=root),
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    wait_until(lambda: d.requests, timeout=5, what="the request")
    assert leftover_sockets(root) == [f"orkadctl.{p.pid}"]
    p.send_signal(sig)
    out, err = p.communicate(timeout=5)
    assert p.returncode == 2
    assert (out, err) == ("", "")
    assert leftover_sockets(root) == []


def nobody():
    for argv in (["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"],
                 ["runuser", "-u", "nobody", "--"]):
        if shutil.which(argv[0]):
            return argv
    pytest.skip("neither setpriv nor runuser")


@pytest.mark.parametrize("args", [["status"], ["--json", "status"], ["dump"], ["log"],
                                  ["log", "-f"]])
def test_only_root_can_ask(root, fake, args):
    if os.geteuid() != 0:
        pytest.skip("needs root to become somebody else")
    d = fake(lambda req: heartbeating(int(time.time())))
    os.chmod(root, 0o755)
    p = run(root, *args, wrapper=nobody())
    assert p.returncode == 2
    assert p.stdout == ""
    assert p.stderr == "orkadctl: only root can ask orkad\n"
    assert d.requests == []


@pytest.mark.parametrize("args,err", [
    ([], None),
    (["reboot"], "orkadctl: unknown verb 'reboot' (orkadctl --help says what it takes)\n"),
    (["status", "-f"], "orkadctl: unknown argument '-f' (orkadctl --help says what it takes)\n"),
    (["log", "-n", "x"], "orkadctl: -n wants a number of lines, not 'x'\n"),
    (["log", "-n"], "orkadctl: -n wants a number of lines, not ''\n"),
])
def test_usage_errors(root, args, err):
    p = run(root, *args)
    assert p.returncode == 2
    assert p.stdout == ""
    if err is None:
        assert p.stderr.startswith("Usage: orkadctl [--json] status\n")
    else:
        assert p.stderr == err


def test_help_and_version(root):
    p = run(root, "--help")
    assert p.returncode == 0
    assert p.stdout.startswith("Usage: orkadctl [--json] status\n")
    assert all(len(line) < 80 for line in p.stdout.splitlines())
    p = run(root, "-v")
    assert (p.returncode, p.stdout) == (0, f"orkadctl {VERSION}\n")


# ---- dump -------------------------------------------------------------------

DUMP = ["1700000000.000001 log_debug: uptime 12 seconds",
        "1700000000.000002 queue_debug: q0 3 items"]


def dumping(root, before="earlier trace\n", after="later trace\n", rotated=False):
    def answer(req):
        text = "\n".join(DUMP) + "\n"
        path = os.path.join(root, "tmp", "debug.log")
        with open(path, "w") as f:
            f.write(before + text + after)
        frm = len(before)
        if rotated:
            os.rename(path, os.path.join(root, "tmp", "debug1.log"))
            with open(path, "w") as f:
                f.write("fresh\n")
        return {"dumped": True, "file": "/tmp/debug.log", "from": frm, "to": frm + len(text)}
    return answer


def test_dump_prints_its_bytes_and_where_they_went(root, fake):
    d = fake(dumping(root))
    p = run(root, "dump")
    assert p.returncode == 0, p.stderr
    frm = len("earlier trace\n")
    to = frm + len("\n".join(DUMP)) + 1
    assert p.stdout == "\n".join(DUMP) + f"\ndumped into /tmp/debug.log, bytes {frm} to {to}\n"
    assert [r["event"] for r in d.requests] == ["orkad.dump"]


def test_dump_json(root, fake):
    fake(dumping(root))
    p = run(root, "--json", "dump")
    assert p.returncode == 0
    got = json.loads(p.stdout)
    frm = len("earlier trace\n")
    assert got == {"dumped": True, "file": "/tmp/debug.log", "from": frm,
                   "to": frm + len("\n".join(DUMP)) + 1, "lines": DUMP, "exit": 0}


def test_a_dump_rotated_away_since_is_read_from_the_older_generation(root, fake):
    fake(dumping(root, rotated=True))
    p = run(root, "dump")
    assert p.returncode == 0, p.stderr
    assert p.stdout.splitlines()[:2] == DUMP


def test_a_refused_dump(root, fake):
    fake({"dumped": False})
    p = run(root, "dump")
    assert p.returncode == 1
    assert p.stderr == "orkadctl: orkad did not dump\n"


# ---- the main log -----------------------------------------------------------

def log_line(n):
    return f"{n} 2024.03.07 14:05:{n % 60:02d} main: line {n}"


def write_log(root, name, numbers):
    with open(os.path.join(root, "rw", name), "a") as f:
        for n in numbers:
            f.write(log_line(n) + "\n")


def test_log_last_lines(root):
    write_log(root, "orkad.log", range(1, 11))
    p = run(root, "log", "-n", "3")
    assert (p.returncode, p.stderr) == (0, "")
    assert p.stdout == "".join(log_line(n) + "\n" for n in (8, 9, 10))
    p = run(root, "log")
    assert p.stdout.splitlines() == [log_line(n) for n in range(1, 11)]
    p = run(root, "--json", "log", "-n3")
    assert json.loads(p.stdout) == [log_line(n) for n in (8, 9, 10)]
    p = run(root, "log", "-n", "0")
    assert (p.returncode, p.stdout) == (0, "")


def test_log_reaches_back_into_the_rotated_generations(root):
    write_log(root, "orkad2.log", range(1, 4))
    write_log(root, "orkad1.log", range(4, 6))
    write_log(root, "orkad.log", [6])
    p = run(root, "log", "-n", "4")
    assert p.stdout.splitlines() == [log_line(n) for n in (3, 4, 5, 6)]
    p = run(root, "log", "-n", "100")
    assert p.stdout.splitlines() == [log_line(n) for n in range(1, 7)]


def test_log_without_a_log(root):
    p = run(root, "log")
    assert p.returncode == 2
    assert p.stderr == (f"orkadctl: cannot read {root}/rw/orkad.log: "
                        "No such file or directory\n")


def test_log_json_keeps_any_bytes_valid(root):
    with open(os.path.join(root, "rw", "orkad.log"), "wb") as f:
        f.write(b"1 2024.03.07 14:05:09 bad \xff byte\n")
    p = run(root, "--json", "log")
    assert json.loads(p.stdout) == ["1 2024.03.07 14:05:09 bad \ufffd byte"]


class Follower:
    def __init__(self, root, *args):
        self.proc = subprocess.Popen([CTL, *args, "log", "-f", "-n", "2"],
                                     env=dict(os.environ, ORKAD_ROOT=root),
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip("\n"))

    def take(self, count, timeout=5.0):
        out = []
        deadline = time.monotonic() + timeout
        while len(out) < count:
            try:
                out.append(self.lines.get(timeout=max(0.01, deadline - time.monotonic())))
            except queue.Empty:
                pytest.fail(f"follower gave {out}, wanted {count} lines")
        return out

    def cpu_ticks(self):
        with open(f"/proc/{self.proc.pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    def stop(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()


def rotate(root):
    """What the daemon does: drop the oldest generation, shift the others,
    then open a fresh current file."""
    rw = os.path.join(root, "rw")
    for k in range(4, 0, -1):
        src = os.path.join(rw, "orkad.log" if k == 1 else f"orkad{k - 1}.log")
        if os.path.exists(src):
            os.replace(src, os.path.join(rw, f"orkad{k}.log"))
    open(os.path.join(rw, "orkad.log"), "a").close()


@pytest.mark.parametrize("as_json", [False, True], ids=["plain", "json"])
def test_log_follow_across_rotation(root, as_json):
    write_log(root, "orkad.log", range(1, 6))
    f = Follower(root, *(["--json"] if as_json else []))
    try:
        def shown(n):
            return json.dumps(log_line(n)) if as_json else log_line(n)
        assert f.take(2) == [shown(4), shown(5)]
        write_log(root, "orkad.log", [6, 7])
        assert f.take(2) == [shown(6), shown(7)]
        # A line the daemon writes just before it rotates, then the fresh file.
        write_log(root, "orkad.log", [8])
        rotate(root)
        write_log(root, "orkad.log", [9])
        assert f.take(2) == [shown(8), shown(9)]
        rotate(root)
        rotate(root)
        write_log(root, "orkad.log", [10])
        assert f.take(1) == [shown(10)]
        # Idle, it sleeps in poll: no busy loop.
        before = f.cpu_ticks()
        deadline = time.monotonic() + 1.0
        while time.monotonic() < deadline:
            time.sleep(0.1)
        assert f.cpu_ticks() - before <= 5
        assert f.proc.poll() is None
        f.proc.send_signal(signal.SIGINT)
        assert f.proc.wait(timeout=5) == 0
        assert f.proc.stderr.read() == ""
    finally:
        f.stop()


def watching(pid):
    fds = f"/proc/{pid}/fd"
    try:
        return any("inotify" in os.readlink(os.path.join(fds, fd)) for fd in os.listdir(fds))
    except FileNotFoundError:
        return False


def test_log_follow_waits_for_a_log_that_is_not_there_yet(root):
    f = Follower(root)
    try:
        wait_until(lambda: watching(f.proc.pid), timeout=5, what="the follower's watch")
        write_log(root, "orkad.log", [1, 2])
        assert f.take(2) == [log_line(1), log_line(2)]
        f.proc.send_signal(signal.SIGTERM)
        assert f.proc.wait(timeout=5) == 0
    finally:
        f.stop()


def test_log_follow_a_cut_line(root):
    # A line too long for the log is cut back and marked "...", then the
    # file rotates. The follower had read the start of the line already; it
    # shows the line as the file now holds it.
    write_log(root, "orkad.log", [1])
    f = Follower(root)
    try:
        assert f.take(1) == [log_line(1)]
        path = os.path.join(root, "rw", "orkad.log")
        head = "2 2024.03.07 14:05:10 "
        before = proc_figure(f.proc.pid, "io", "rchar")
        with open(path, "a") as out:
            out.write(head + "y" * 5000)
        wait_until(lambda: proc_figure(f.proc.pid, "io", "rchar") - before >= len(head) + 5000, timeout=5,
                   what="the follower reading the long line")
        os.truncate(path, os.path.getsize(path) - 4000)
        with open(path, "a") as out:
            out.write("...\n")
        rotate(root)
        write_log(root, "orkad.log", [3])
        assert f.take(2) == [head + "y" * 1000 + "...", log_line(3)]
    finally:
        f.stop()
