"""Upgrading the package keeps everything: the package built twice from this
tree (the older one a version lower and with the settings schema one
migration behind), installed with dpkg into a board root whose maintainer
scripts and init script run there for real, the older daemon given its
controller, settings and management VPN by the lab, then the newer package
installed over it, removed and purged.

The board root is a chroot in a mount and PID namespace of the test's own,
inside its network namespace: /usr, /etc and /var are overlays on the
machine's own (so dpkg finds the package's dependencies installed and the
machine's files stay untouched: every write lands in the test's upper
folders), the rest is the root's own folders. Only the root's processes are
in its PID namespace, so the real killall, invoke-rc.d and the init script
reach nothing else, and ending the namespace ends all of them."""

import base64
import fcntl
import os
import shutil
import signal
import sqlite3
import stat
import subprocess

import pytest

from lab import devroot
from lab.labfixture import LabController
from tests.e2e.kit import BIN, EMULATOR, SyslogSink, cpack, log_messages, wait_until

BUILD = os.path.dirname(os.path.dirname(BIN))
SOURCE = os.environ.get("ORKAD_SOURCE") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", ".."))

OLD_VERSION = "1.2.0~db8"
NEW_VERSION = "1.2.0"
OVERLAYS = ("usr", "etc", "var")
# The machine's usr-merged layout, kept in the root.
LINKS = {"bin": "usr/bin", "sbin": "usr/sbin", "lib": "usr/lib", "lib64": "usr/lib64"}
FOLDERS = ("proc", "dev", "dev/net", "run", "tmp", "rw", "root", "mnt")
DEVICES = ("null", "zero", "full", "random", "urandom", "tty", "net/tun")

# A point-to-point tunnel without TLS: OpenVPN brings tun0 up at once, with
# nobody at the other end. Its file must come back byte for byte.
CLIENT_OVPN = "dev tun\nremote 127.0.0.1 1194\nifconfig 10.9.0.2 10.9.0.1\nverb 1\n"

# pid 1 of the root's PID namespace: reaps whatever the daemons leave.
REAPER = """
import os, time
while True:
    try:
        os.wait()
    except ChildProcessError:
        time.sleep(0.2)
"""

SETUP = r"""
set -e
root="$1"; upper="$2"
for d in usr etc var; do
    mkdir -p "$upper/$d.up" "$upper/$d.work" "$root/$d"
    mount -t overlay overlay -o "lowerdir=/$d,upperdir=$upper/$d.up,workdir=$upper/$d.work" \
        "$root/$d"
done
mount -t proc proc "$root/proc"
for n in null zero full random urandom tty net/tun; do
    : > "$root/dev/$n"
    mount --bind "/dev/$n" "$root/dev/$n"
done
"""


def native_build():
    if EMULATOR or not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        pytest.skip("needs the native build tree")


def nice(argv):
    return ["nice", "-n", "19", *argv]


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """(older, newer): the older one from a build tree of its own inside the
    native one (kept, so a second run rebuilds only what changed)."""
    native_build()
    out = tmp_path_factory.mktemp("packages")
    old_build = os.path.join(BUILD, "upgrade-old")
    build_type = "RelWithDebInfo"
    with open(os.path.join(BUILD, "CMakeCache.txt")) as f:
        for line in f:
            if line.startswith("CMAKE_BUILD_TYPE:"):
                build_type = line.split("=", 1)[1].strip() or build_type
    (out / "old").mkdir()
    (out / "new").mkdir()
    # pytest-xdist may run this module's tests in two workers at once: one
    # builds the older tree while the other waits, then finds it built.
    with open(old_build + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for argv in (["cmake", "-S", SOURCE, "-B", old_build,
                      f"-DCMAKE_BUILD_TYPE={build_type}", "-DORKAD_DB_VERSION=8",
                      f"-DORKAD_PACKAGE_VERSION={OLD_VERSION}", "-DORKAD_E2E=OFF"],
                     ["cmake", "--build", old_build, "-j2", "--target", "orkad",
                      "orkadctl", "orkad_package_docs"],
                     ["cmake", "--build", BUILD, "--target", "orkad_package_docs"]):
            r = subprocess.run(nice(argv), capture_output=True, text=True)
            assert r.returncode == 0, r.stdout + r.stderr
        return cpack(old_build, out / "old", OLD_VERSION), cpack(BUILD, out / "new", NEW_VERSION)


class Board:
    """The board root: a chroot in namespaces of its own (see above)."""

    def __init__(self, tmp_path, netns):
        self.root = str(tmp_path / "board")
        self.upper = str(tmp_path / "upper")
        os.makedirs(self.root)
        os.makedirs(self.upper)
        for name, target in LINKS.items():
            os.symlink(target, os.path.join(self.root, name))
        for d in FOLDERS:
            os.makedirs(os.path.join(self.root, d), exist_ok=True)
        os.chmod(os.path.join(self.root, "tmp"), 0o1777)
        self.holder = subprocess.Popen(netns.prefix() + [
            "unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child",
            "python3", "-c", REAPER])
        self.init = wait_until(self._init_pid, what="the root's pid 1")
        self.sh(SETUP, self.root, self.upper, chroot=False)

    def _init_pid(self):
        try:
            with open(f"/proc/{self.holder.pid}/task/{self.holder.pid}/children") as f:
                kids = f.read().split()
        except FileNotFoundError:
            return None
        return int(kids[0]) if kids else None

    def enter(self, chroot=True):
        argv = ["nsenter", "-t", str(self.init), "-m", "-n", "-p", "--"]
        if chroot:
            argv += ["chroot", self.root]
        return argv

    def run(self, argv, check=True, timeout=120):
        env = {k: v for k, v in os.environ.items() if k != "ORKAD_ROOT"}
        env.update(PATH="/usr/sbin:/usr/bin:/sbin:/bin", DEBIAN_FRONTEND="noninteractive")
        r = subprocess.run(self.enter() + list(argv), capture_output=True, text=True,
                           timeout=timeout, env=env)
        if check:
            assert r.returncode == 0, f"{argv}: {r.returncode}\n{r.stdout}{r.stderr}"
        return r

    def sh(self, script, *args, chroot=True):
        r = subprocess.run(self.enter(chroot) + ["sh", "-c", script, "sh", *args],
                           capture_output=True, text=True, timeout=60)
        assert r.returncode == 0, r.stdout + r.stderr
        return r.stdout

    def dpkg(self, *args):
        return self.run(["dpkg", *args])

    def path(self, device_path):
        """A file of the root as the machine sees it (through pid 1's mounts)."""
        return f"/proc/{self.init}/root{self.root}/{device_path.lstrip('/')}"

    def put(self, src, device_path):
        """Copies a file of the machine into the root."""
        dst = self.path(device_path)
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        with open(src, "rb") as a, open(dst, "wb") as b:
            b.write(a.read())
        os.chmod(dst, stat.S_IMODE(os.stat(src).st_mode))

    def settings_copy(self):
        """A copy of the settings database to read (sqlite cannot open the
        file through /proc/<pid>/root)."""
        copy = os.path.join(self.upper, "settings-copy.db")
        shutil.copyfile(self.path("/etc/varnex/config/startup.db"), copy)
        return copy

    def settings(self):
        """The settings database's table "system"."""
        return settings(self.settings_copy())

    def orkads(self):
        """(pid, ppid) in the root's PID namespace of every orkad process."""
        out = self.sh("for d in /proc/[0-9]*; do "
                      "[ \"$(cat $d/comm 2>/dev/null)\" = orkad ] || continue; "
                      "s=$(sed 's/^.*) //' $d/stat); set -- $s; "
                      "[ \"$1\" = Z ] || echo ${d#/proc/} $2; done")
        return sorted(tuple(int(x) for x in line.split()) for line in out.splitlines())

    def files(self):
        """Every path of the root that exists, as the root sees it; /usr, /etc
        and /var are the machine's own plus what the upper folders add, less
        what they white out."""
        paths = set()
        for base, dirs, files in os.walk(self.root):
            rel = os.path.relpath(base, self.root)
            if rel == ".":
                dirs[:] = [d for d in dirs if d not in OVERLAYS + ("proc",)]
            for name in dirs + files:
                paths.add(os.path.normpath(os.path.join(rel, name)))
        whiteouts = set()
        for d in OVERLAYS:
            up = os.path.join(self.upper, d + ".up")
            for base, dirs, files in os.walk(up):
                for name in dirs + files:
                    p = os.path.join(base, name)
                    rel = os.path.join(d, os.path.relpath(p, up))
                    st = os.lstat(p)
                    if stat.S_ISCHR(st.st_mode) and st.st_rdev == 0:
                        whiteouts.add(rel)
                    else:
                        paths.add(rel)
        return paths, whiteouts

    def close(self):
        # Every process of the root goes with its pid 1.
        try:
            os.kill(self.init, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.holder.wait(timeout=10)
        wait_until(lambda: not os.path.exists(f"/proc/{self.init}"), what="the root's end")


def differences(before, after):
    """The paths that exist in one state of the root and not in the other."""
    (pb, wb), (pa, wa) = before, after

    def exists(state, p):
        paths, whiteouts = state
        if p in paths:
            return True
        top = p.split("/", 1)[0]
        return top in OVERLAYS and p not in whiteouts and os.path.lexists("/" + p)
    return sorted(p for p in pb | pa | wb | wa if exists(before, p) != exists(after, p))


def query(db, sql):
    con = sqlite3.connect(db)
    try:
        return con.execute(sql).fetchall()
    finally:
        con.close()


def settings(db):
    return dict(query(db, "SELECT key, value FROM system"))


def schema(db):
    return sorted(query(db, "SELECT type, name, sql FROM sqlite_master"))


def lintian_errors(deb):
    r = subprocess.run(nice(["lintian", "--no-tag-display-limit", str(deb)]),
                       capture_output=True, text=True, timeout=300)
    return [line for line in r.stdout.splitlines() if line.startswith("E: ")], r.returncode


def test_older_schema_and_its_migration_make_todays(tmp_path):
    """The previous release's create script and migration 9 make exactly
    what today's create script makes."""
    old, new = tmp_path / "old.db", tmp_path / "new.db"
    sql = os.path.join(SOURCE, "device/sql")
    for db, scripts in ((old, [os.path.join(SOURCE, "packaging/schema-8/db-create-tables.sql"),
                               os.path.join(sql, "db-migrate-tables-9.sql")]),
                        (new, [os.path.join(sql, "db-create-tables.sql")])):
        for s in scripts:
            with open(s) as f:
                subprocess.run(["sqlite3", str(db)], stdin=f, check=True)
    assert schema(old) == schema(new)
    assert settings(old) == settings(new) == {"db.version": "9"}


def test_packages_at_two_versions_are_lintian_clean(packages):
    old, new = packages
    for deb, version in ((old, OLD_VERSION), (new, NEW_VERSION)):
        r = subprocess.run(["dpkg-deb", "-f", str(deb), "Version"], capture_output=True,
                           text=True, check=True)
        assert r.stdout.strip() == version
        errors, rc = lintian_errors(deb)
        assert errors == [] and rc == 0, errors
    # The older one is one migration behind: no migration 9, a schema-8
    # create script.
    listing = subprocess.run(["dpkg-deb", "-c", str(old)], capture_output=True, text=True,
                             check=True).stdout
    assert "db-migrate-tables-8.sql" in listing and "db-migrate-tables-9.sql" not in listing
    assert subprocess.run(["dpkg", "--compare-versions", OLD_VERSION, "lt", NEW_VERSION]
                          ).returncode == 0


@pytest.fixture
def board(tmp_path, netns):
    b = Board(tmp_path, netns)
    yield b
    b.close()


def wait_log(board, text, after=0, timeout=30.0):
    def find():
        lines = log_messages(board.path("/rw/orkad.log"))
        return [m for m in lines[after:] if text in m]
    return wait_until(find, timeout, what=f"{text!r} in the main log")


def test_upgrade_keeps_settings_vpn_and_controller(packages, board, tmp_path, netns):
    old, new = packages
    # What the board carries of its own, from a lab device root: the boot
    # environment (with the phone-home site of the lab, which the boot
    # environment's "homesite" gives), its tools, the simulated switch, the
    # firmware images and the lab's CA. No policy-rc.d: services start.
    lab_root = devroot.make_device_root(str(tmp_path / "lab-root"))
    lab = LabController(root=lab_root, host=netns.gateway, prefix=netns.prefix(),
                        state_dir=str(tmp_path / "lab"))
    sink = None
    try:
        devroot.update_bootenv(lab_root, heartbeat="1", homesite=lab.base_url)
        for rel in ("etc/bootenv", "etc/version", "etc/ca-bundle.pem", "sbin/fw_printenv",
                    "sbin/fw_setenv", "var/switch/model.json", *devroot.FIRMWARE_IMAGES):
            board.put(os.path.join(lab_root, rel), "/" + rel)
        os.makedirs(board.path("/etc/config"), exist_ok=True)
        if os.path.lexists(board.path("/usr/sbin/policy-rc.d")):
            os.remove(board.path("/usr/sbin/policy-rc.d"))
        # A sysvinit board up in runlevel 2 (the machine's runlevel is
        # systemd's, which answers nothing in a chroot); invoke-rc.d starts
        # only what that runlevel starts.
        os.remove(board.path("/usr/sbin/runlevel"))
        with open(board.path("/usr/sbin/runlevel"), "w") as f:
            f.write("#!/bin/sh\necho 'N 2'\n")
        os.chmod(board.path("/usr/sbin/runlevel"), 0o755)
        for deb in (old, new):
            board.put(str(deb), "/root/" + deb.name)
        sink = SyslogSink(board.root)
        before = board.files()

        # The older package, started the way the board starts it.
        board.dpkg("-i", "/root/" + old.name)
        # A fresh install is started by the board's start-up, not by dpkg.
        assert board.orkads() == []
        board.run(["/etc/init.d/orkad", "start"])
        serial = devroot.DEFAULT_ENV["serial#"]
        lab.wait_request(kind="heartbeat", serial=serial, timeout=30)
        wait_log(board, "db_init: db version 8")
        assert board.settings()["db.version"] == "8"
        controller = wait_until(lambda: board.settings().get("system.cloud-controller"),
                                what="the stored controller")
        assert controller == lab.base_url
        ids = lab.queue_commands([
            {"action": "set", "context": "system", "params": {"location": "bench 4"}},
            {"action": "set", "context": "sslVpn", "params": {
                "clientOvpn": base64.b64encode(CLIENT_OVPN.encode()).decode()}}])
        results = lab.wait_results(2, timeout=30)
        assert sorted((r["commandId"], r["code"], r["message"]) for r in results) == \
            sorted((i, 0, "") for i in ids)
        stored = board.settings()
        assert stored["system.location"] == "bench 4"
        ovpn = board.path("/etc/openvpn/client.ovpn")
        with open(ovpn, "rb") as f:
            vpn = f.read()
        assert vpn == CLIENT_OVPN.encode()
        old_daemons = board.orkads()
        assert len(old_daemons) == 2

        # The newer package over it: the old prerm stops the daemon, the new
        # postinst starts the new one, which migrates once.
        lines_before = len(log_messages(board.path("/rw/orkad.log")))
        mark = lab.mark()
        board.dpkg("-i", "/root/" + new.name)
        wait_log(board, "db_init: db version 9", after=lines_before)
        lab.wait_request(kind="heartbeat", serial=serial, since=mark, timeout=30)
        # Migrated once, by the new agent: the old one created the file at 8.
        log = log_messages(board.path("/rw/orkad.log"))
        assert [(i >= lines_before, m) for i, m in enumerate(log)
                if m.startswith("db_init: migrating")] == \
            [(True, "db_init: migrating database from version 8 to 9")]
        assert os.path.exists(board.path("/etc/varnex/config/sql/db-migrate-tables-9.sql.out"))
        kept = board.settings()
        # Migrated to what a fresh database of today is.
        fresh = str(tmp_path / "fresh.db")
        with open(os.path.join(SOURCE, "device/sql/db-create-tables.sql")) as f:
            subprocess.run(["sqlite3", fresh], stdin=f, check=True)
        assert schema(board.settings_copy()) == schema(fresh)
        assert kept["db.version"] == "9"
        assert {k: v for k, v in kept.items() if k != "db.version"} == \
            {k: v for k, v in stored.items() if k != "db.version"}
        assert kept["system.cloud-controller"] == controller
        with open(ovpn, "rb") as f:
            assert f.read() == vpn
        # Exactly one daemon: the supervisor and its child, none of the old.
        daemons = wait_until(lambda: (lambda d: d if len(d) == 2 else None)(board.orkads()),
                             what="supervisor and child")
        (a, pa), (b, pb) = daemons
        assert pb == a or pa == b
        assert not set(p for p, _ in daemons) & set(p for p, _ in old_daemons)
        # Stays so: no second start, no restart loop.
        lab.wait_requests(count=3, kind="heartbeat", serial=serial, since=mark, timeout=30)
        assert board.orkads() == daemons

        # Removal stops it and keeps the settings and the VPN configuration.
        board.dpkg("-r", "orkad")
        wait_until(lambda: board.orkads() == [], what="no daemon after removal")
        assert board.settings() == kept
        with open(ovpn, "rb") as f:
            assert f.read() == vpn
        # Purging takes what the package made, and nothing else.
        board.dpkg("--purge", "orkad")
        # The simulated switch's record of the calls it served is the lab's,
        # not the board's.
        assert [p for p in differences(before, board.files())
                if p != "var/switch/journal"] == []
    finally:
        if sink is not None:
            sink.close()
        lab.stop()
