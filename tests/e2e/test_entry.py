"""The daemon's entry point and supervision, on the real binary."""

import os
import re
import signal
import subprocess

from lab import devroot
from lab.labfixture import LabController
from tests.e2e.kit import BIN, EMULATOR, Daemon, pending, wait_until

# A phone-home site that refuses at once: these tests are about the process,
# not the controller, and must not wait on name resolution.
NO_SITE = "https://127.0.0.1:9"

USAGE = ("Usage: {0} [options]\n"
         " -h/--help      help/usage\n"
         " -d/--debug     show debug information\n"
         " -v/--version   display version\n"
         " -s/--site      phone-home site url\n"
         " -n/--nolog     do not log anything\n")


def run_quick(*args, root):
    env = dict(os.environ, ORKAD_ROOT=root)
    return subprocess.run([*EMULATOR, BIN, *args], capture_output=True, text=True, env=env,
                          timeout=10)


def test_version(device_root):
    r = run_quick("-v", root=device_root)
    assert r.returncode == 0
    assert r.stdout == "Version: 1.2.0\n"
    r = run_quick("--version", root=device_root)
    assert r.stdout == "Version: 1.2.0\n"


def test_help(device_root):
    r = run_quick("-h", root=device_root)
    assert r.returncode == 0
    assert r.stdout == USAGE.format(BIN)
    assert run_quick("--help", root=device_root).stdout == USAGE.format(BIN)


def test_nolog_as_advertised_is_refused(device_root):
    r = run_quick("--nolog", root=device_root)
    assert r.returncode == 255
    assert r.stdout == "Terminating.\n"
    r = run_quick("-x", root=device_root)
    assert (r.returncode, r.stdout) == (255, "Terminating.\n")
    r = run_quick("-s", root=device_root)
    assert (r.returncode, r.stdout) == (255, "Terminating.\n")


def test_no_log_is_accepted_and_silences_the_logs(daemon):
    daemon.start("--no-log", "-s", NO_SITE)
    daemon.syslog.wait_for("device reboot: ")
    daemon.wait_child()
    assert daemon.proc.poll() is None
    for name in ("orkad", "http", "command", "syslog", "broker", "rfscan", "redirect", "prbd",
                 "of"):
        assert os.path.getsize(daemon.path(f"/rw/{name}.log")) == 0, name
    assert os.path.getsize(daemon.path("/tmp/debug.log")) == 0


def test_child_start_and_banner(daemon):
    daemon.start("-s", NO_SITE)
    child = daemon.wait_child()
    log = daemon.log()
    assert log[0] == "============================ /rw/orkad started ============================"
    assert log[1] == "Agent version: 1.2.0"
    assert "signals_monitor: started" in log
    # radio_monitor returns at once; its end is logged and the agent goes on.
    daemon.wait_log("thread_run: thread 'radio_monitor' terminated!")
    assert log.index("registered new handler 'worker_debug' for signal 10") < \
        log.index("registered new handler 'live_coredump' for signal 12") < \
        log.index("signals_monitor: started")
    assert "registered new handler 'log_debug' for signal 10" in log
    assert "registered new handler 'worker_debug' for signal 10" in log
    assert "registered new handler 'live_coredump' for signal 12" in log
    names = daemon.thread_names(child)
    for n in range(6):
        assert f"worker{n}" in names
    # The supervisor itself stays single-threaded.
    supervisor = daemon.thread_names(daemon.proc.pid)
    if EMULATOR:
        # qemu-user names the process after itself and keeps one thread of its
        # own beside the guest's.
        assert len(supervisor) == 2 and len(set(supervisor)) == 1
    else:
        assert supervisor == ["orkad"]
    # Started again once with the C library's per-thread cache of freed
    # blocks off (the environment as the program began, in /proc). Under
    # qemu-user the start again cannot happen: without binfmt_misc the host
    # kernel cannot run an ARM program, so the exec fails and the daemon goes
    # on as started.
    with open(f"/proc/{child}/environ", "rb") as f:
        started_with = f.read().split(b"\0")
    tunables = b"GLIBC_TUNABLES=glibc.malloc.tcache_count=0"
    assert (tunables in started_with) != bool(EMULATOR)
    pid, pri, msg = daemon.syslog.wait_for("device reboot: ")
    assert pid == child
    assert pri == 8 | 6  # LOG_USER | LOG_INFO
    assert msg == "device reboot: serial#='VX0123456789' firmware='1.0.0.1'"


def test_supervisor_restarts_a_dead_child(daemon):
    daemon.start("-s", NO_SITE)
    first = daemon.wait_child()
    os.kill(first, signal.SIGKILL)
    second = daemon.wait_child(not_pid=first)
    assert second != first
    daemon.syslog.wait_for("agent restart 1: ")
    msgs = daemon.syslog.messages()
    i = msgs.index(" ****  Program killed by signal '9'")
    assert msgs[i + 1] == " ****  Attempting to restart!"
    assert msgs[i + 2].startswith("agent restart 1: serial#='")
    sup = [e for e in daemon.syslog.entries() if e[2].startswith(" ****  ")]
    assert all(pid == daemon.proc.pid and pri == 8 | 2 for pid, pri, _ in sup)

    # And again: the count goes on.
    os.kill(second, signal.SIGSEGV)
    daemon.wait_child(not_pid=second)
    daemon.syslog.wait_for("agent restart 2: ")
    assert " ****  Program killed by signal '11'" in daemon.syslog.messages()
    # The log banner is written again by every child.
    assert daemon.log().count("Agent version: 1.2.0") == 3


def test_sigusr1_dumps_in_handler_order(daemon):
    daemon.start("-s", NO_SITE)
    child = daemon.wait_child()
    os.kill(child, signal.SIGUSR1)
    daemon.wait_log("free_replies: count=", name="/tmp/debug.log")
    dump = [m for m in daemon.log("/tmp/debug.log")
            if m.startswith(("log_debug: ", "work_", "thread ", "free_replies"))]
    assert dump[0].startswith("log_debug: uptime ")
    assert dump[1].startswith("log_debug: /rw/orkad ")
    assert dump[10].startswith("log_debug: /rw/of ")
    # The phone-home loop may hold one record while it retries.
    assert re.fullmatch(r"work_free_queue: count=6[34], adds=0, full=0", dump[11])
    assert dump[12] == "work_pending_queue: count=0, adds=0, full=0"
    # The command runner is started before the pool, then the six workers.
    assert dump[13].startswith("thread 0, tid = 0x")
    assert "name = 'command_runner'" in dump[13]
    assert "name = 'worker0'" in dump[14]
    threads = [m for m in dump if m.startswith("thread ")]
    assert dump.index(threads[-1]) < dump.index("free_replies: count=32, adds=0, full=0")


def test_sigusr2_leaves_agent_running_and_one_core(daemon):
    daemon.start("-s", NO_SITE, cores=True)
    child = daemon.wait_child()
    os.kill(child, signal.SIGUSR2)
    pid, _, msg = daemon.syslog.wait_for("forcing a crash")
    assert msg == "unexpected program termination with exit status 0, forcing a crash\n"
    assert pid not in (child, daemon.proc.pid)
    # The agent answers signals afterwards, in the same process.
    os.kill(child, signal.SIGUSR1)
    daemon.wait_log("work_pending_queue: count=", name="/tmp/debug.log")
    assert daemon.children() == [child]
    assert not any("Program" in m for m in daemon.syslog.messages())
    with open("/proc/sys/kernel/core_pattern") as f:
        pattern = f.read().strip()
    # Sanitizer builds never write cores (their shadow memory is too large).
    sanitized = os.environ.get("ORKAD_SANITIZED") == "1"
    # qemu-user writes the guest's core itself, as qemu_<program>_<time>_<pid>.core.
    if EMULATOR:
        cores = [f for f in os.listdir(daemon.workdir) if f.startswith("qemu_")]
        assert len(cores) == 1
    elif pattern.startswith("core") and "/" not in pattern and not sanitized:
        cores = [f for f in os.listdir(daemon.workdir) if f.startswith("core")]
        assert len(cores) == 1


def test_sigterm_does_not_end_the_agent(daemon):
    daemon.start("-s", NO_SITE)
    child = daemon.wait_child()
    # The management VPN's handler is the one for SIGTERM, and it leaves
    # everything running.
    assert "registered new handler 'mgmtvpn_cleanup' for signal 15" in daemon.log()
    os.kill(child, signal.SIGTERM)
    wait_until(lambda: not pending(child, signal.SIGTERM), what="SIGTERM taken by the loop")
    # The loop runs one signal's handlers at a time, so SIGTERM's are done
    # when the later SIGUSR1's dump appears.
    os.kill(child, signal.SIGUSR1)
    daemon.wait_log("work_pending_queue: count=", name="/tmp/debug.log")
    assert not any("signal 15 has no registered handler" in m for m in daemon.log())
    assert daemon.children() == [child]


def test_main_log_rotation_keeps_five_and_cuts_a_huge_file(daemon):
    # The previous run left a 300000-byte current file and four generations.
    for g in range(1, 5):
        with open(daemon.path(f"/rw/orkad{g}.log"), "w") as f:
            f.write(f"generation {g}\n")
    with open(daemon.path("/rw/orkad.log"), "w") as f:
        f.write("x" * 299999 + "\n")
    daemon.start("-s", NO_SITE)
    daemon.wait_child()
    rw = sorted(f for f in os.listdir(daemon.path("/rw")) if f.startswith("orkad"))
    assert rw == ["orkad.log", "orkad1.log", "orkad2.log", "orkad3.log", "orkad4.log"]
    assert os.path.getsize(daemon.path("/rw/orkad1.log")) == 270340
    with open(daemon.path("/rw/orkad1.log"), "rb") as f:
        assert f.read()[-4:] == b"...\n"
    with open(daemon.path("/rw/orkad2.log")) as f:
        assert f.read() == "generation 1\n"
    with open(daemon.path("/rw/orkad4.log")) as f:
        assert f.read() == "generation 3\n"
    assert daemon.log()[0] == "Agent version: 1.2.0"


def test_a_child_that_exits_crashes_and_is_restarted(daemon):
    # Without its create script the settings database cannot be made: the
    # child exits with status 1, which must end in a real SIGSEGV.
    script = daemon.path("/etc/varnex/config/sql/db-create-tables.sql")
    hidden = script + ".away"
    os.rename(script, hidden)
    daemon.start("-s", NO_SITE)
    pid, pri, msg = daemon.syslog.wait_for("forcing a crash")
    assert msg == "unexpected program termination with exit status 1, forcing a crash\n"
    assert pri == 8 | 2
    daemon.syslog.wait_for("agent restart 1: ")
    os.rename(hidden, script)
    msgs = daemon.syslog.messages()
    assert msgs[0].startswith("device reboot: serial#='VX0123456789'")
    i = msgs.index(" ****  Program killed by signal '11'")
    assert msgs[i + 1] == " ****  Attempting to restart!"
    assert msgs[i + 2] == "agent restart 1: serial#='VX0123456789' firmware='1.0.0.1'"
    assert "db_init: critical error, cannot proceed." in daemon.log()
    # Once the script is back a child comes up and stays.
    daemon.wait_child()


def test_boot_environment_home_site_wins_over_the_command_line(device_root, tmp_path, netns):
    lab = LabController(root=device_root, host="192.0.2.1", prefix=netns.prefix())
    try:
        env = devroot.read_bootenv(device_root)
        env["homesite"] = lab.base_url
        devroot.write_bootenv(device_root, env)
        d = Daemon(device_root, str(tmp_path), netns)
        try:
            d.start("-s", NO_SITE)
            req = lab.wait_request(kind="phone_home", timeout=20)
            assert req["path"] == "/api/phone_home"
            assert req["params"]["[phone_home]serial"] == "VX0123456789"
            assert f"homesite='{lab.base_url}'" in d.log()
        finally:
            d.stop()
    finally:
        lab.stop()
