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
