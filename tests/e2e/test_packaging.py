"""Installing and packaging the daemon: the install tree, the Debian package's
contents and metadata, the init script, and the packaged daemon run in a
scratch root against the lab up to its first heartbeat."""

import gzip
import os
import shutil
import signal
import stat
import subprocess

import pytest

from lab import devroot
from lab.labfixture import LabController
from tests.e2e.kit import BIN, EMULATOR, SOURCE, Daemon, cpack, processes_with_root, wait_until

BUILD = os.path.dirname(os.path.dirname(BIN))

SQL = ["db-create-tables.sql"] + [f"db-migrate-tables-{n}.sql" for n in range(2, 10)]
SCRIPTS = ["varnex-updates", "varnex-factory-reset", "varnex-diagnostic-dump",
           "varnex-get-version"]
# A manual page for every program the package puts in /usr/sbin.
MAN_PAGES = ["orkad", "orkadctl"] + SCRIPTS

# What `cmake --install` lays out: path -> mode. Folders end in "/".
INSTALL_TREE = {
    "etc/": 0o755,
    "etc/varnex/": 0o755,
    "etc/varnex/config/": 0o755,
    "etc/varnex/config/sql/": 0o755,
    "usr/": 0o755,
    "usr/sbin/": 0o755,
    "usr/sbin/orkad": 0o755,
    "usr/sbin/orkadctl": 0o755,
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

# The package: both, Debian's documentation files, the manual pages and
# lintian's overrides.
PACKAGE_TREE = {
    **INSTALL_TREE,
    **BOOT_TREE,
    "usr/share/": 0o755,
    "usr/share/doc/": 0o755,
    "usr/share/doc/orkad/": 0o755,
    "usr/share/doc/orkad/copyright": 0o644,
    "usr/share/doc/orkad/changelog.gz": 0o644,
    "usr/share/man/": 0o755,
    "usr/share/man/man8/": 0o755,
    **{f"usr/share/man/man8/{n}.8.gz": 0o644 for n in MAN_PAGES},
    "usr/share/lintian/": 0o755,
    "usr/share/lintian/overrides/": 0o755,
    "usr/share/lintian/overrides/orkad": 0o644,
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
    assert "Documentation=man:orkad(8) man:orkadctl(8)" in unit
    init = (tmp_path / "rootfs/etc/init.d/orkad").read_text()
    assert init.startswith("#!/bin/sh\n### BEGIN INIT INFO\n# Provides:          orkad\n")
    assert 'DAEMON=/usr/sbin/orkad\n' in init


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    native_build()
    out = tmp_path_factory.mktemp("packages")
    return cpack(BUILD, out, "1.2.0")


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
    # The packaged daemon and its client are stripped.
    data = tmp_path / "data"
    subprocess.run(["dpkg-deb", "-x", str(package), str(data)], check=True)
    for program in ("orkad", "orkadctl"):
        r = subprocess.run(["file", "-b", str(data / "usr/sbin" / program)],
                           capture_output=True, text=True, check=True)
        assert ", stripped" in r.stdout, program


def test_lintian_is_silent(package):
    r = subprocess.run(["lintian", "--tag-display-limit", "0", "--display-info",
                        "--show-overrides", str(package)],
                       capture_output=True, text=True, timeout=300)
    lines = r.stdout.splitlines()
    assert [line for line in lines if line.startswith(("E: ", "W: "))] == []
    assert r.returncode == 0, r.stdout + r.stderr
    # What is deliberate is overridden, with its reason, and every override
    # still matches what lintian finds.
    overridden = [line.split(" [")[0] for line in lines if line.startswith("O: ")]
    assert overridden == [
        "O: orkad: init.d-script-does-not-source-init-functions",
        # Only the removal of the agent's own files in /tmp.
        "O: orkad: possibly-insecure-handling-of-tmp-files-in-maintainer-script /tmp",
    ]
    flagged = [int(line.split("[postrm:")[1].rstrip("]")) for line in lines
               if "[postrm:" in line]
    with open(os.path.join(SOURCE, "packaging/postrm")) as f:
        postrm = f.read().splitlines()
    assert len(flagged) == 1 and "/tmp/debug" in postrm[flagged[0] - 1], flagged
    assert not any("unused-override" in line or "mismatched-override" in line
                   for line in lines)
    # No page is missing, none is spare and none is faulty.
    assert [line for line in lines if "manual-page" in line or "manpage" in line] == []


def unpacked(package, tmp_path):
    data = tmp_path / "data"
    subprocess.run(["dpkg-deb", "-x", str(package), str(data)], check=True)
    return data


def rendered(page, width=200):
    """The page as man shows it, without formatting, and its warnings."""
    env = dict(os.environ, LC_ALL="C.UTF-8", MANWIDTH=str(width), MANROFFSEQ="")
    r = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", str(page)],
                       capture_output=True, text=True, env=env, timeout=60)
    assert r.returncode == 0, r.stderr
    text = subprocess.run(["col", "-b", "-x"], input=r.stdout, capture_output=True, text=True,
                          check=True).stdout
    return text, r.stderr


def sections(text):
    """Section heading -> its lines, stripped, in the page's order."""
    out = {}
    name = None
    lines = text.strip("\n").splitlines()
    # Without the running header and footer.
    for line in lines[1:-1]:
        if line and not line[0].isspace():
            name = line.strip()
            out[name] = ""
        elif name is not None:
            out[name] += line.strip() + "\n"
    return out


def test_manual_pages_are_compressed_reproducibly(package, tmp_path):
    data = unpacked(package, tmp_path)
    man8 = data / "usr/share/man/man8"
    assert sorted(os.listdir(man8)) == sorted(f"{n}.8.gz" for n in MAN_PAGES)
    # Every program in /usr/sbin has its page.
    for program in os.listdir(data / "usr/sbin"):
        assert (man8 / f"{program}.8.gz").exists(), program
    for name in MAN_PAGES:
        raw = (man8 / f"{name}.8.gz").read_bytes()
        # gzip: deflate, no file name, no time stamp, best compression.
        assert raw[:3] == b"\x1f\x8b\x08"
        assert raw[3] & 0x08 == 0, name
        assert raw[4:8] == b"\0\0\0\0", name
        assert raw[8] == 2, name
        # The page the build made from the tree's source, whole.
        with open(os.path.join(BUILD, "packaging/man", f"{name}.8"), "rb") as f:
            assert gzip.decompress(raw) == f.read()


def test_manual_pages_render_without_warnings(package, tmp_path):
    man8 = unpacked(package, tmp_path) / "usr/share/man/man8"
    whatis = {
        "orkad": "cloud-management agent of a managed Ethernet switch",
        "orkadctl": "ask the running orkad how it is",
        "varnex-updates": "install a firmware image into the switch's other boot bank",
        "varnex-factory-reset": "reset the switch's cloud settings to the factory's",
        "varnex-diagnostic-dump": "gather the switch's support data into one archive",
        "varnex-get-version": "print the firmware version held in a firmware image",
    }
    assert sorted(whatis) == sorted(MAN_PAGES)
    for name, summary in whatis.items():
        page = man8 / f"{name}.8.gz"
        text, warnings = rendered(page, width=80)
        assert warnings == "", name
        assert max(len(line) for line in text.splitlines()) <= 80, name
        roff = gzip.decompress(page.read_bytes())
        r = subprocess.run(["groff", "-ww", "-rCHECKSTYLE=10", "-man", "-z"], input=roff,
                           capture_output=True, timeout=60)
        assert (r.returncode, r.stderr) == (0, b""), name
        r = subprocess.run(["lexgrog", str(page)], capture_output=True, text=True, timeout=60)
        assert r.stdout == f'{page}: "{name} - {summary}"\n', name
        assert r.returncode == 0


def test_orkad_page_documents_the_command_line_and_the_process(package, tmp_path):
    page = unpacked(package, tmp_path) / "usr/share/man/man8/orkad.8.gz"
    text, _ = rendered(page)
    s = sections(text)
    assert list(s) == ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "FILES", "ENVIRONMENT",
                       "SIGNALS", "EXIT STATUS", "EXAMPLES", "SEE ALSO"]
    # Every option of the daemon's own usage text, short and long.
    usage = subprocess.run(EMULATOR + [BIN, "-h"], capture_output=True, text=True,
                           timeout=10).stdout.splitlines()
    assert len(usage) == 6
    options = [line.split()[0].split("/") for line in usage[1:]]
    assert [o[0] for o in options] == ["-h", "-d", "-v", "-s", "-n"]
    for short, long in options:
        if long == "--nolog":
            # The usage text's spelling; the parser takes --no-log, which
            # the page gives, and says so.
            assert "-n, --no-log\n" in s["OPTIONS"]
            assert "spells the long option --nolog; only --no-log is accepted." in \
                " ".join(s["OPTIONS"].split())
        else:
            assert f"{short}, {long}" in s["OPTIONS"], short
    assert "Terminating. and ends with status 255." in " ".join(s["OPTIONS"].split())
    assert "Version: 1.2.0" in subprocess.run(EMULATOR + [BIN, "-v"], capture_output=True,
                                              text=True, timeout=10).stdout
    for status in ("0", "51", "52", "255"):
        assert f"\n{status} " in "\n" + s["EXIT STATUS"], status
    for log in ("orkad", "http", "command", "syslog", "broker", "rfscan", "redirect", "prbd",
                "of"):
        assert f"/rw/{log}.log" in s["FILES"], log
    for path in ("/tmp/debug.log", "/etc/varnex/config/startup.db", "/tmp/orkad_socket",
                 "/tmp/orkad_syslog_socket", "/etc/openvpn/client.ovpn", "/tmp/updates.tar",
                 "/tmp/diagnostics.tar.gz", "/etc/default/orkad"):
        assert path in s["FILES"], path
    for variable in ("ORKAD_ROOT", "GLIBC_TUNABLES", "ORKAD_SAVED_TUNABLES", "NOTIFY_SOCKET",
                     "WATCHDOG_USEC", "WATCHDOG_PID", "PATH"):
        assert f"\n{variable}" in "\n" + s["ENVIRONMENT"].replace(", ", "\n"), variable
    for signal_name in ("SIGUSR1", "SIGUSR2", "SIGTERM", "SIGINT", "SIGALRM"):
        assert f"\n{signal_name}" in "\n" + s["SIGNALS"], signal_name
    # The supervisor's syslog lines, as it writes them (the page keeps their
    # leading blank; the indentation is stripped here).
    for line in ("****  Program exit (status N)", "****  Program killed by signal 'N'",
                 "****  Attempting to restart!"):
        assert f"\n{line}\n" in "\n" + s["SIGNALS"], line
    assert "orkadctl(8)" in s["SEE ALSO"]


def test_orkadctl_page_documents_verbs_and_exit_codes(package, tmp_path):
    page = unpacked(package, tmp_path) / "usr/share/man/man8/orkadctl.8.gz"
    text, _ = rendered(page)
    s = sections(text)
    assert list(s) == ["NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS",
                       "EXIT STATUS", "FILES", "ENVIRONMENT", "EXAMPLES", "SEE ALSO"]
    assert s["SYNOPSIS"].split("\n")[:-2] == [
        "orkadctl [--json] status",
        "orkadctl [--json] dump",
        "orkadctl [--json] log [-f] [-n N]",
        "orkadctl -h | --help",
        "orkadctl -v | --version",
    ]
    for verb in ("status", "dump", "log [-f] [-n N]"):
        assert f"\n{verb}" in "\n" + s["COMMANDS"], verb
    for option in ("--json", "-f", "-n N", "-h, --help", "-v, --version"):
        assert f"\n{option}" in "\n" + s["OPTIONS"], option
    statuses = " ".join(s["EXIT STATUS"].split())
    assert statuses.startswith("0 All is well")
    assert " 1 The agent answered, but something is wrong" in statuses
    assert " 2 No agent, or no answer within one second, or not asked by root." in statuses
    assert "orkadctl: no answer from orkad within 1 s (is it running?)" in statuses
    assert "orkadctl: only root can ask orkad" in statuses
    assert "ORKAD_ROOT" in s["ENVIRONMENT"]
    assert "orkad(8)" in s["SEE ALSO"]


PURGE_SCRIPT = r"""
set -e
# Read before /tmp is covered: the test's own files live there.
body=$(cat "$1")
# This mount namespace is the test's own: everything purge may touch is a
# scratch folder here.
for d in /tmp /run /rw /etc/varnex /etc/openvpn; do
    if [ -d "$d" ]; then
        mount -t tmpfs none "$d"
    fi
done
: > /tmp/orkad_socket
: > /tmp/debug.log
: > /tmp/debug4.log
: > /tmp/elsewhere
: > /tmp/debug1.log
chown 65534:65534 /tmp/debug1.log
ln -s /tmp/elsewhere /tmp/debug2.log
# No update-rc.d on this PATH: the machine's rc links stay as they are.
PATH=/usr/bin:/bin sh -c "$body" postrm purge
ls -A /tmp
"""


def test_purge_takes_only_roots_own_files_in_tmp(package, tmp_path):
    ctrl = tmp_path / "control"
    subprocess.run(["dpkg-deb", "-e", str(package), str(ctrl)], check=True)
    r = subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-c", PURGE_SCRIPT,
                        "sh", str(ctrl / "postrm")], capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stdout + r.stderr
    # The agent's socket and debug logs went; another user's file of the
    # same name, and a link in its place, stayed.
    assert sorted(r.stdout.split()) == ["debug1.log", "debug2.log", "elsewhere"]


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
        # The daemon as the package installed it in the scratch root.
        d = Daemon(root, str(tmp_path), netns, binary=os.path.join(root, "usr/sbin/orkad"))
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
