"""Replies nested far deeper than any real document: the daemon refuses them
as undecodable and goes on, instead of running a thread off its stack."""

DEPTH = 3000


def test_heartbeat_reply_nested_thousands_deep(agent):
    agent = agent(start=True)
    lab = agent.lab
    child = agent.wait_child()

    mark = lab.mark()
    lab.script("/api/heartbeat", text="[" * DEPTH + "]" * DEPTH)
    agent.wait_log("error decoding heartbeat data: maximum parsing depth reached")

    # The same child keeps going: the next heartbeat carries a command, which
    # is run and answered.
    cid = lab.queue_command(action="set", context="heartbeat", flags="",
                            params={"interval": 1000, "serviceLink": {"href": "/heartbeat"}})
    res = lab.wait_results(1)
    assert [(r["commandId"], r["code"], r["message"]) for r in res] == [(cid, 0, "")]
    assert len(lab.requests(kind="heartbeat", since=mark, status=200)) >= 2
    assert agent.children() == [child]
    assert agent.count_log("error decoding heartbeat data: maximum parsing depth reached") == 1
    # No restart: the supervisor never had a child to replace.
    assert not any("unexpected program termination" in m for m in agent.log())
    assert not any("agent restart" in m for m in agent.syslog.messages())
