"""The switch's administrator password end to end: it reaches the switch and
the settings database, and nothing else. No log file of the daemon, no line
to the system logger and no diagnostics archive carries it; the archive holds
the settings with a marker in its place, and no archive or staging folder is
left in /tmp after an upload, whatever became of it."""

import glob
import io
import json
import os
import sqlite3
import tarfile

import pytest

from tests.e2e.kit import wait_until

SECRET = "Zq7-s3cret-pw"
MARKER = "********"


def run(lab, context, params, action="set", timeout=30):
    cid = lab.queue_command(action=action, context=context, params=params)
    res = lab.wait_results(1, timeout, command_id=cid)
    return [(r["code"], r["message"]) for r in res]


def diagnostics(lab, href):
    return run(lab, "diagnostics", {"serviceLink": {"href": href}}, action="get")


def archive_files(lab, path):
    kept = lab.wait_archives(path=path, timeout=30)
    _, data = lab.archive(kept[-1]["seq"])
    with tarfile.open(fileobj=io.BytesIO(data), mode="r:gz") as t:
        return {m.name.lstrip("./"): t.extractfile(m).read().decode(errors="replace")
                for m in t.getmembers() if m.isfile()}


def files_holding(root, text):
    """Every file under the device root's /rw and /tmp that holds text."""
    found = []
    for top in ("rw", "tmp"):
        for dirpath, _, names in os.walk(os.path.join(root, top)):
            for name in names:
                path = os.path.join(dirpath, name)
                if not os.path.isfile(path) or os.path.islink(path):
                    continue  # sockets
                with open(path, "rb") as f:
                    if text.encode() in f.read():
                        found.append(os.path.relpath(path, root))
    return found


def leftovers(sw):
    return sorted(os.path.basename(p) for p in glob.glob(sw.path("/tmp/diagnostics*")))


def test_a_refused_password_reaches_no_log_and_no_archive(heartbeating):
    sw, lab = heartbeating, heartbeating.lab
    with open(sw.path("/var/switch/faults.json"), "w") as f:
        json.dump([{"call": "rpcclt_openapiUserSet", "result": -26}], f)

    assert run(lab, "system", {"password": SECRET, "location": "lab bench"}) == [(0, "")]
    # The switch was asked and refused; the setting is stored all the same.
    assert [(c["password"], c["result"]) for c in sw.calls("rpcclt_openapiUserSet")] == \
        [(SECRET, -26)]
    sw.wait_log("icos_set_password: failed to set user/password for 'admin'/'%s' "
                "(result = -26)" % MARKER)
    sw.wait_log("db_command: 'REPLACE INTO system (key, value) VALUES "
                "('system.password', '%s')'" % MARKER)
    db = sqlite3.connect(sw.path("/etc/varnex/config/startup.db"))
    assert db.execute("SELECT value FROM system WHERE key='system.password'").fetchone() == \
        (SECRET,)
    db.close()
    # The command as it came in is logged with the marker.
    assert any(m.startswith("commands = '") and '"password":"%s"' % MARKER in m
               for m in sw.log("/rw/command.log"))

    assert diagnostics(lab, "/diagnostics/sw1") == [(0, "")]
    files = archive_files(lab, "/api/diagnostics/sw1")
    sql = files["settings.sql"]
    assert "INSERT INTO system VALUES('system.password','%s');" % MARKER in sql
    assert "INSERT INTO system VALUES('system.location','lab bench');" in sql
    assert "INSERT INTO system VALUES('system.cloud-controller','%s');" % lab.base_url in sql
    assert [n for n, text in files.items() if SECRET in text] == []
    assert "settings.err" not in files

    # Nothing the daemon wrote holds it, nor anything it said to syslog.
    assert files_holding(sw.root, SECRET) == []
    assert [m for m in sw.syslog.messages() if SECRET in m] == []
    with open(os.path.join(sw.workdir, "orkad.stdout"), errors="replace") as f:
        assert SECRET not in f.read()
    assert leftovers(sw) == []


@pytest.mark.parametrize("fault", [{"status": 500}, {"drop": "reset"}])
def test_no_archive_stays_behind_whatever_the_upload(heartbeating, fault):
    sw, lab = heartbeating, heartbeating.lab
    lab.script("/api/diagnostics/sw1", **fault)
    answer = diagnostics(lab, "/diagnostics/sw1")
    # A refusal and a broken transfer alike are failed uploads.
    assert answer == [(-1, "failed to upload diagnostics data")]
    assert len(lab.requests(path="/api/diagnostics/sw1")) == 1
    assert leftovers(sw) == []

    # The next collection goes up and leaves nothing either.
    kept = len(lab.archives(path="/api/diagnostics/sw1"))
    assert diagnostics(lab, "/diagnostics/sw1") == [(0, "")]
    wait_until(lambda: len(lab.archives(path="/api/diagnostics/sw1")) > kept,
               what="the archive at the lab")
    assert leftovers(sw) == []
