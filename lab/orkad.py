"""How the lab, the tests and the bench start and stop an orkad."""

import os
import shlex
import shutil
import signal

# Started through this, the daemon cannot set the clock: a phone-home answer
# that carries the time leaves this machine's clock alone.
NO_CLOCK = ["setpriv", "--inh-caps=-sys_time", "--bounding-set=-sys_time"]


def no_clock():
    """NO_CLOCK where setpriv is installed, else nothing."""
    return NO_CLOCK if shutil.which("setpriv") else []


def emulator():
    """What a cross-built daemon runs under, from ORKAD_EMULATOR
    ("qemu-aarch64-static -L /"); empty for a native one."""
    return shlex.split(os.environ.get("ORKAD_EMULATOR", ""))


def stop(proc, timeout=10):
    """Ends a daemon started in a process group of its own. The supervisor
    forks a new child whenever one ends, so the whole group goes at once."""
    if proc is None or proc.poll() is not None:
        return
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    proc.wait(timeout=timeout)


def proc_figure(pid, name, key):
    """The number after "key:" in /proc/<pid>/<name> (status, io,
    smaps_rollup: lines of "key: value"), 0 when the line is not there."""
    with open(f"/proc/{pid}/{name}") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def debug_lines(root, prefix):
    """(index, text) of the lines of the daemon's debug log that start with
    prefix, oldest first. A dump may be cut by a rotation, so the previous
    generation is read too; the index orders lines across both."""
    out = []
    for name in ("debug1.log", "debug.log"):
        path = os.path.join(root, "tmp", name)
        if not os.path.exists(path):
            continue
        with open(path, errors="replace") as f:
            for line in f:
                parts = line.rstrip("\n").split(" ", 3)
                if len(parts) == 4 and parts[3].startswith(prefix):
                    out.append((int(parts[0]), parts[3]))
    return sorted(out)
