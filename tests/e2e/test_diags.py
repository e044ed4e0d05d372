"""get.diagnostics end to end: the real daemon in its network namespace
collects the switch's support file, its logs and the settings dump into one
archive and uploads it to the lab controller, which keeps it."""

import io
import tarfile


def diagnostics(id, href=None):
    params = {} if href is None else {"serviceLink": {"href": href}}
    return {"action": "get", "context": "diagnostics", "id": id, "params": params}


def members(lab, archive):
    _, data = lab.archive(archive["seq"])
    with tarfile.open(fileobj=io.BytesIO(data), mode="r:gz") as t:
        return {m.name.lstrip("./"): t.extractfile(m).read().decode(errors="replace")
                for m in t.getmembers() if m.isfile()}


def test_the_archive_reaches_the_controller(agent):
    agent = agent(start=True)
    lab = agent.lab
    lab.queue_command(diagnostics("dg-1", "/diagnostics/sw1"))
    res = lab.wait_result(command_id="dg-1", timeout=30)
    assert (res["code"], res["message"]) == (0, "")

    up = lab.wait_request(path="/api/diagnostics/sw1")
    assert up["method"] == "POST"
    assert up["kind"] == "diagnostics"
    assert up["headers"]["authorization"].startswith("Bearer ")
    assert up["headers"]["content-type"].startswith("multipart/form-data; boundary=")
    assert [(f["name"], f["filename"]) for f in up["files"]] == [("file", "diagnostics.tar.gz")]

    kept = lab.wait_archives(path="/api/diagnostics/sw1")
    assert len(kept) == 1
    files = members(lab, kept[0])
    assert files["platform-tech-support.txt"].startswith(
        "Switch support data\nSerial number: ")
    assert "log_debug: uptime " in files["logs/rw/orkad.log"]
    assert "CREATE TABLE" in files["settings.sql"]
    assert "'system.cloud-controller','%s'" % lab.base_url in files["settings.sql"]
    assert files["version"] == "1.0.0.1\n"
    assert any(s["call"] == "rpcclt_openapiSupportFileGenerate" for s in agent.journal())


def test_two_at_once_and_one_without_a_link(agent):
    agent = agent()
    lab = agent.lab
    agent.start("-s", lab.base_url)
    child = agent.wait_child()
    lab.wait_request(kind="heartbeat")
    # All three in one heartbeat reply.
    lab.queue_commands([diagnostics("dg-1", "/diagnostics/a"), diagnostics("dg-2"),
                        diagnostics("dg-3", "/diagnostics/b")])
    results = {r["commandId"]: (r["code"], r["message"]) for r in lab.wait_results(3, 40)}
    assert results == {
        "dg-1": (0, ""),
        "dg-2": (-1, "missing or invalid 'serviceLink' element in params"),
        "dg-3": (0, ""),
    }
    agent.wait_log("get.diagnostics: missing or invalid 'serviceLink' element in params")
    kept = lab.wait_archives(2)
    assert [a["path"] for a in kept] == ["/api/diagnostics/a", "/api/diagnostics/b"]
    for a in kept:
        files = members(lab, a)
        assert {"platform-tech-support.txt", "settings.sql", "logs/rw/orkad.log"} <= set(files)
    # Two collections, not three, and the same agent throughout.
    assert sum(1 for m in agent.log() if m.startswith(
        "_sys: '/usr/sbin/varnex-diagnostic-dump")) == 2
    assert agent.children() == [child]
