"""What the bench scripts share: waiting with a deadline, finding the
daemon's working child and its threads by name, and writing one section of
docs/performance.md."""

import os
import subprocess
import sys
import time

from lab import SOURCE

HEADING = ("# Performance\n\nFigures measured by the scripts in bench/; compare only figures "
           "taken in one run.\n")


def wait(fn, timeout, what, interval=0.02):
    """Polls fn until it returns something true; raises at the deadline."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        v = fn()
        if v:
            return v
        time.sleep(interval)
    raise RuntimeError(f"timed out waiting for {what}")


def thread_of(pid, name):
    """The id of the thread of process pid named name, or None."""
    try:
        tids = os.listdir(f"/proc/{pid}/task")
    except FileNotFoundError:
        return None
    for t in tids:
        try:
            with open(f"/proc/{pid}/task/{t}/comm") as f:
                if f.read().strip() == name[:15]:
                    return int(t)
        except FileNotFoundError:
            pass
    return None


def working_child(supervisor):
    """The supervisor's working child once its workers run, or None."""
    try:
        with open(f"/proc/{supervisor}/task/{supervisor}/children") as f:
            kids = [int(p) for p in f.read().split()]
    except FileNotFoundError:
        return None
    for k in kids:
        if thread_of(k, "worker5"):
            return k
    return None


def run_options(ap):
    """The options every measuring script takes, on its argument parser."""
    ap.add_argument("--out", help="file to write (default docs/performance.md; with --quick a"
                    " scratch file)")
    ap.add_argument("--jobs", type=int, default=os.cpu_count())
    ap.add_argument("--keep", action="store_true", help="keep the device roots and lab folders")


def need_root(what):
    """Ends the script unless it runs as root; `what` says why it must."""
    if os.geteuid() != 0:
        sys.exit(f"needs root: {what}")


def write_section(path, text, begin, end, first=False):
    """Replaces the section between the begin and end markers, or adds it:
    at the end, or first after the heading paragraph."""
    body = HEADING
    if os.path.exists(path):
        with open(path) as f:
            body = f.read()
    section = f"{begin}\n{text.rstrip()}\n{end}\n"
    if begin in body and end in body:
        body = body[:body.index(begin)] + section + body[body.index(end) + len(end) + 1:]
    elif first:
        head, sep, rest = body.partition("\n\n")
        first_par, sep2, rest2 = rest.partition("\n\n")
        body = head + sep + first_par + sep2 + section + "\n" + rest2
    else:
        body = body.rstrip("\n") + "\n\n" + section
    with open(path, "w") as f:
        f.write(body)


def run_script(name, *args):
    """Runs bench script `name` (bench.stats_tick, ...) with args to its end."""
    subprocess.run([sys.executable, "-m", f"{__package__}.{name}", *args], cwd=SOURCE,
                   check=True)
