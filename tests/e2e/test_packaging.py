"""Installing and packaging the daemon: the install tree, the Debian package's
contents and metadata, the init script, and the packaged daemon run in a
scratch root against the lab up to its first heartbeat."""

import os
import shutil
import signal
import stat
import subprocess

import pytest

import devroot
from conftest import BIN, EMULATOR, Daemon, processes_with_root, wait_until
from lab_fixtures import LabController

BUILD = os.path.dirname(os.path.dirname(BIN))

SQL = ["db-create-tables.sql"] + [f"db-migrate-tables-{n}.sql" for n in range(2, 10)]
SCRIPTS = ["varnex-updates", "varnex-factory-reset", "varnex-diagnostic-dump",
           "varnex-get-version"]

# What `cmake --install` lays out: path -> mode. Folders end in "/".
INSTALL_TREE = {
    "etc/": 0o755,
    "etc/varnex/": 0o755,
    "etc/varnex/config/": 0o755,
    "etc/varnex/config/sql/": 0o755,
    "usr/": 0o755,
    "usr/sbin/": 0o755,
    "usr/sbin/orkad": 0o755,
    **{f"etc/varnex/config/sql/{n}": 0o644 for n in SQL},
    **{f"usr/sbin/{n}": 0o755 for n in SCRIPTS},
}

# What `cmake --install --component boot` adds.
BOOT_TREE = {
    "etc/": 0o755,
    "etc/init.d/": 0o755,
    "etc/init.d/orkad": 0o755,
    "etc/default/": 0o755,
    "etc/default/orkad": 0o644,
    "lib/": 0o755,
    "lib/systemd/": 0o755,
    "lib/systemd/system/": 0o755,
    "lib/systemd/system/orkad.service": 0o644,
}

# The package: both, and Debian's documentation files.
PACKAGE_TREE = {
    **INSTALL_TREE,
    **BOOT_TREE,
    "usr/share/": 0o755,
    "usr/share/doc/": 0o755,
    "usr/share/doc/orkad/": 0o755,
    "usr/share/doc/orkad/copyright": 0o644,
    "usr/share/doc/orkad/changelog.gz": 0o644,
}

CONFFILES = ["/etc/init.d/orkad", "/etc/default/orkad"] + \
    [f"/etc/varnex/config/sql/{n}" for n in SQL]

# Libraries the daemon links, and the programs it runs.
DEPENDS = ["libc6", "libstdc++6", "libgcc-s1", "libcurl4", "libjansson4", "libsqlite3-0",
           "sqlite3", "openvpn", "gzip", "psmisc", "python3", "tar"]


def native_build():
    if EMULATOR or not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        pytest.skip("needs the native build tree")


def tree(root):
    """path -> (mode, uid, gid) of everything under root; folders end in '/'."""
    out = {}
    for base, dirs, files in os.walk(root):
        for name in dirs + files:
            p = os.path.join(base, name)
            st = os.lstat(p)
            rel = os.path.relpath(p, root) + ("/" if stat.S_ISDIR(st.st_mode) else "")
            out[rel] = (stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid)
    return out


def install(dest, *extra):
    env = dict(os.environ, DESTDIR=str(dest))
    subprocess.run(["cmake", "--install", BUILD, *extra], env=env, check=True,
                   capture_output=True, text=True)
    return tree(dest)


def test_install_tree_is_what_the_switch_needs(tmp_path):
    native_build()
    got = install(tmp_path / "rootfs")
    assert {p: m for p, (m, _, _) in got.items()} == INSTALL_TREE
    assert all((uid, gid) == (os.getuid(), os.getgid()) for _, uid, gid in got.values())
    # The installed files are the ones in the source tree.
    with open(tmp_path / "rootfs/etc/varnex/config/sql/db-create-tables.sql") as a, \
            open(os.path.join(devroot.DEVICE, "sql/db-create-tables.sql")) as b:
        assert a.read() == b.read()
    r = subprocess.run([str(tmp_path / "rootfs/usr/sbin/orkad"), "-v"], capture_output=True,
                       text=True, timeout=10)
    assert r.stdout == "Version: 1.2.0\n"


def test_install_boot_component(tmp_path):
    native_build()
    got = install(tmp_path / "rootfs", "--component", "boot")
    assert {p: m for p, (m, _, _) in got.items()} == BOOT_TREE
    unit = (tmp_path / "rootfs/lib/systemd/system/orkad.service").read_text().splitlines()
    # Started once; the supervisor does the restarting.
    assert "ExecStart=/usr/sbin/orkad $ORKAD_OPTS" in unit
    # The supervisor tells systemd it is up and feeds its watchdog; systemd
    # restarts the unit only when that watchdog fired.
    assert "Type=notify" in unit
    assert "NotifyAccess=main" in unit
    assert "WatchdogSec=60" in unit
    assert "Restart=on-watchdog" in unit
    assert not any(line.startswith("Type=simple") or line == "Restart=no" for line in unit)
    assert "KillMode=control-group" in unit
    assert "EnvironmentFile=-/etc/default/orkad" in unit
    init = (tmp_path / "rootfs/etc/init.d/orkad").read_text()
    assert init.startswith("#!/bin/sh\n### BEGIN INIT INFO\n# Provides:          orkad\n")
    assert 'DAEMON=/usr/sbin/orkad\n' in init


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    native_build()
    out = tmp_path_factory.mktemp("packages")
    r = subprocess.run(["cpack", "--config", os.path.join(BUILD, "CPackConfig.cmake"),
                        "-B", str(out)], cwd=str(out), capture_output=True, text=True)
    assert r.returncode == 0, r.stdout + r.stderr
    arch = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                          check=True).stdout.strip()
    deb = out / f"orkad_1.2.0_{arch}.deb"
    assert deb.exists(), os.listdir(out)
    return deb


def deb_field(deb, name):
    return subprocess.run(["dpkg-deb", "-f", str(deb), name], capture_output=True, text=True,
                          check=True).stdout.strip()


MODE_BITS = {"r": 4, "w": 2, "x": 1, "-": 0}


def listing(deb):
    """path -> (mode, owner/group) from the package's data archive."""
    out = {}
    text = subprocess.run(["dpkg-deb", "-c", str(deb)], capture_output=True, text=True,
                          check=True).stdout
    for line in text.splitlines():
        perms, owner, _size, _date, _time, path = line.split(None, 5)
        mode = 0
        for i in range(3):
            mode = mode * 8 + sum(MODE_BITS[c] for c in perms[1 + 3 * i:4 + 3 * i])
        path = path[2:] if path.startswith("./") else path
        if path:
            out[path] = (mode, owner)
    return out


def test_package_contents_and_owners(package):
    got = listing(package)
    assert {p: m for p, (m, _) in got.items()} == PACKAGE_TREE
    assert {o for _, o in got.values()} == {"root/root"}


def test_package_metadata(package, tmp_path):
    assert deb_field(package, "Package") == "orkad"
    assert deb_field(package, "Version") == "1.2.0"
    host = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                          check=True).stdout.strip()
    assert deb_field(package, "Architecture") == host
    depends = [d.strip().split()[0] for d in deb_field(package, "Depends").split(",")]
    assert sorted(set(depends)) == sorted(DEPENDS)
    ctrl = tmp_path / "control"
    subprocess.run(["dpkg-deb", "-e", str(package), str(ctrl)], check=True)
    assert (ctrl / "conffiles").read_text().split() == CONFFILES
    for script in ("postinst", "prerm", "postrm"):
        assert stat.S_IMODE(os.stat(ctrl / script).st_mode) == 0o755
    # The packaged daemon is stripped.
    data = tmp_path / "data"
    subprocess.run(["dpkg-deb", "-x", str(package), str(data)], check=True)
    r = subprocess.run(["file", "-b", str(data / "usr/sbin/orkad")], capture_output=True,
                       text=True, check=True)
    assert ", stripped" in r.stdout


def test_lintian_finds_no_error(package):
    r = subprocess.run(["lintian", "--no-tag-display-limit", str(package)],
                       capture_output=True, text=True, timeout=300)
    errors = [line for line in r.stdout.splitlines() if line.startswith("E: ")]
    assert errors == []
    assert r.returncode == 0, r.stdout + r.stderr


def board_root(package, tmp_path):
    """The package unpacked into a scratch root, plus what the board carries
    of its own (boot environment and its tools, the switch, /rw, /tmp, the
    machine's sqlite3, gzip and openvpn), taken from a lab device root
    without touching anything the package put there."""
    root = tmp_path / "board"
    subprocess.run(["dpkg-deb", "-x", str(package), str(root)], check=True)
    lab_root = devroot.make_device_root(str(tmp_path / "lab-root"))
    for base, dirs, files in os.walk(lab_root):
        rel = os.path.relpath(base, lab_root)
        os.makedirs(root / rel, exist_ok=True)
        for f in files:
            src = os.path.join(base, f)
            dst = root / rel / f
            if os.path.lexists(dst):
                continue
            if os.path.islink(src):
                os.symlink(os.readlink(src), dst)
            else:
                shutil.copy2(src, dst)
    return str(root)


class Packaged(Daemon):
    """The daemon as the package installed it in the scratch root."""

    def start(self, *args, cores=False):
        env = dict(os.environ, ORKAD_ROOT=self.root)
        argv = self.netns.prefix() + [os.path.join(self.root, "usr/sbin/orkad"), *args]
        self.stdout = open(os.path.join(self.workdir, "orkad.stdout"), "w")
        self.proc = subprocess.Popen(argv, cwd=self.workdir, env=env, stdout=self.stdout,
                                     stderr=subprocess.STDOUT, preexec_fn=os.setpgrp)
        return self


def test_packaged_daemon_reaches_its_first_heartbeat(package, tmp_path, netns):
    root = board_root(package, tmp_path)
    before = tree(os.path.join(root, "usr/sbin"))
    assert before["orkad"][0] == 0o755
    env = devroot.read_bootenv(root)
    env["heartbeat"] = "1"
    devroot.write_bootenv(root, env)
    lab = LabController(root=root, host=netns.gateway, prefix=netns.prefix(),
                        state_dir=str(tmp_path / "lab"))
    try:
        d = Packaged(root, str(tmp_path), netns)
        try:
            d.start("-s", lab.base_url)
            hb = lab.wait_request(kind="heartbeat", timeout=30)
            assert hb["headers"]["authorization"].startswith("Bearer ")
            assert hb["json"]["lanIp"] == "192.0.2.10"
            # It ran from the scratch root, with the packaged SQL scripts.
            child = d.wait_child()
            assert os.readlink(f"/proc/{child}/exe") == os.path.join(root, "usr/sbin/orkad")
            assert os.path.exists(os.path.join(root, "etc/varnex/config/startup.db"))
            d.wait_log("heartbeat: new interval = 1 seconds")
        finally:
            d.stop()
    finally:
        lab.stop()


STOP_SCRIPT = r"""
set -e
root="$1"
# This mount namespace is the test's own: the init script's fixed paths are
# given the scratch root's files.
mount -t tmpfs none /run
mount -t tmpfs none /etc/default
mount -t tmpfs none /usr/sbin
cp "$root/usr/sbin/orkad" /usr/sbin/orkad
echo 'ORKAD_OPTS="-s https://127.0.0.1:9"' > /etc/default/orkad
export ORKAD_ROOT="$root"
sh "$root/etc/init.d/orkad" start
pid=$(cat /var/run/orkad.pid)
# Wait for the supervisor's child.
n=0
while [ -z "$(cat /proc/$pid/task/$pid/children 2>/dev/null)" ] && [ $n -lt 100 ]; do
    sleep 0.1; n=$((n + 1))
done
child=$(cat /proc/$pid/task/$pid/children)
echo "supervisor=$pid child=$child"
sh "$root/etc/init.d/orkad" status
sh "$root/etc/init.d/orkad" stop
for p in $pid $child; do
    if kill -0 $p 2>/dev/null && ! grep -q '^State:.*Z' /proc/$p/status; then
        echo "left running: $p"; exit 1
    fi
done
sh "$root/etc/init.d/orkad" status || echo "status=$?"
"""


def test_init_script_starts_once_and_stop_ends_both_processes(package, tmp_path, netns):
    root = board_root(package, tmp_path)
    try:
        r = subprocess.run(netns.prefix() + ["unshare", "-m", "--propagation", "private", "sh",
                                             "-c", STOP_SCRIPT, "sh", root],
                           capture_output=True, text=True, timeout=60)
    finally:
        # A script that failed half-way leaves the daemon it started behind.
        for pid in processes_with_root(root):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
    assert r.returncode == 0, r.stdout + r.stderr
    lines = r.stdout.splitlines()
    assert lines[0] == "Starting orkad"
    assert lines[1].startswith("supervisor=") and "child=" in lines[1] and \
        not lines[1].endswith("child=")
    assert lines[2:] == ["orkad is running", "Stopping orkad", "orkad is not running",
                         "status=3"]
    # The agent had started: its log is in the scratch root.
    wait_until(lambda: os.path.exists(os.path.join(root, "rw/orkad.log")), what="main log")
