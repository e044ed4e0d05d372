"""Drives a running orkad lab from the command line, through the lab
controller's control API (docs/lab-api.md): lists devices, queues any of the
daemon's commands, lists results, follows the forwarded syslog, shows a
switch's ports and the diagnostics archives.

    python3 -m lab.ctl devices
    python3 -m lab.ctl send set.status --param interval=10000 --wait 30
    python3 -m lab.ctl send set.config --params '{"portConfiguration":[{"id":"5","admin_status":"down"}]}'
    python3 -m lab.ctl ports --serial VX0123456790
    python3 -m lab.ctl syslog --follow --contains sshd
    python3 -m lab.ctl say "hello from the switch"

It finds the lab by itself: --lab (a control socket, a control URL such as
http://127.0.0.1:8480, or a lab runner's lab.json), else $ORKAD_LAB, else
the newest lab the runner (lab/run.py) started on this machine.
"""

import argparse
import glob
import json
import os
import sys
import time

from .labfixture import LabClient, LabError

COMMANDS_FILE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "web", "commands.json")


def commands():
    """The daemon's commands with the parameters they start from."""
    with open(COMMANDS_FILE) as f:
        return json.load(f)


class CtlError(Exception):
    pass


# ---- finding the lab -------------------------------------------------------

def find_lab(given):
    where = given or os.environ.get("ORKAD_LAB")
    if not where:
        found = [p for p in glob.glob("/tmp/orkad-lab-run-*/lab.json")]
        if not found:
            raise CtlError("no running lab found: start one with scripts/lab.sh, "
                           "or give --lab (control socket, URL or lab.json)")
        where = max(found, key=os.path.getmtime)
    if where.startswith("http://"):
        return LabClient(url=where.rstrip("/"))
    if where.endswith(".json"):
        try:
            with open(where) as f:
                state = json.load(f)
        except (OSError, ValueError) as e:
            raise CtlError(f"cannot read {where}: {e}")
        return LabClient(socket_path=state["control_socket"])
    return LabClient(socket_path=where)


# ---- output ----------------------------------------------------------------

def table(headers, rows, out):
    rows = [["" if c is None else str(c) for c in r] for r in rows]
    widths = [max([len(h)] + [len(r[i]) for r in rows]) for i, h in enumerate(headers)]
    fmt = "  ".join(f"{{:<{w}}}" for w in widths)
    print(fmt.format(*headers).rstrip(), file=out)
    for r in rows:
        print(fmt.format(*r).rstrip(), file=out)


def ago(now, t):
    if not t:
        return "never"
    s = max(0.0, now - t)
    return f"{s:.0f}s ago" if s < 90 else f"{s / 60:.0f}min ago"


# ---- building a command ----------------------------------------------------

def parse_value(text):
    """A parameter value: JSON when it reads as JSON (numbers, true, objects),
    else the text itself."""
    try:
        return json.loads(text)
    except ValueError:
        return text


def build_params(name, params_json, pairs):
    known = commands()
    if params_json is not None:
        try:
            params = json.loads(params_json)
        except ValueError as e:
            raise CtlError(f"--params is not JSON: {e}")
    else:
        params = json.loads(json.dumps(known.get(name, {})))
    for pair in pairs:
        key, sep, value = pair.partition("=")
        if not sep or not key:
            raise CtlError(f"--param wants NAME=VALUE, not {pair!r}")
        if not isinstance(params, dict):
            raise CtlError("--param needs the parameters to be an object")
        # serviceLink.href=/x sets a member of a member.
        target = params
        parts = key.split(".")
        for p in parts[:-1]:
            if not isinstance(target.get(p), dict):
                target[p] = {}
            target = target[p]
        target[parts[-1]] = parse_value(value)
    return params


# ---- subcommands -----------------------------------------------------------

def default_serial(lab, serial):
    if serial:
        return serial
    devs = lab.call("GET", "/devices")["devices"]
    if not devs:
        raise CtlError("the lab has seen no device yet")
    return devs[0]["serial"]


def do_devices(lab, a, out):
    v = lab.call("GET", "/devices")
    if a.json:
        return print(json.dumps(v["devices"], indent=1), file=out)
    table(["SERIAL", "NAME", "MODEL", "PORTS", "STATE", "LAST HEARTBEAT", "UPTIME", "ADDRESS",
           "VPN", "HEARTBEATS", "RESULTS"],
          [[d["serial"], d["note"].get("name"), d["note"].get("model"), d["note"].get("ports"),
            "connected" if d["connected"] else "not connected", ago(v["time"], d["last_heartbeat"]),
            d["uptime"], d["client"] or d["note"].get("address"), d["vpnIp"], d["heartbeats"],
            d["results"]] for d in v["devices"]], out)


def do_commands(lab, a, out):
    for name, params in commands().items():
        print(f"{name:<16} {json.dumps(params)}", file=out)


def show_result(r, out):
    line = f"{r['commandId']}  code {r['code']}  {r['serial']}  message {json.dumps(r['message'])}"
    if "data" in r:
        line += f"  data {json.dumps(r['data'])}"
    print(line, file=out)


def do_send(lab, a, out):
    known = commands()
    if a.name not in known:
        raise CtlError(f"unknown command {a.name!r}; the commands are: {', '.join(known)}")
    action, context = a.name.split(".", 1)
    cmd = {"action": action, "context": context,
           "params": build_params(a.name, a.params, a.param)}
    if a.id:
        cmd["id"] = a.id
    mark = lab.call("GET", "/results", query={"since": 10**12})["last"]
    cid = lab.call("POST", "/commands", {"command": cmd, "serial": a.serial or "any"})["ids"][0]
    print(f"queued {a.name} as {cid} for {a.serial or 'any device'}", file=out)
    if not a.wait:
        return 0
    deadline = time.monotonic() + a.wait
    while True:
        left = deadline - time.monotonic()
        if left <= 0:
            raise CtlError(f"no result for {cid} within {a.wait:g}s")
        found = lab.call("GET", "/results", query={"command_id": cid, "since": mark,
                                                   "wait": min(left, 5)})["results"]
        if found:
            show_result(found[0], out)
            return 0 if found[0]["code"] == 0 else 1


def do_results(lab, a, out):
    v = lab.call("GET", "/results", query={"command_id": a.id, "serial": a.serial,
                                           "since": a.since})
    if a.json:
        return print(json.dumps(v["results"], indent=1), file=out)
    for r in v["results"]:
        show_result(r, out)


def show_line(line, out):
    msg = line["message"] if line["message"] is not None else line["text"]
    print(f"{line['serial'] or '-'}  {line['logTime'] or ''}  {msg}", file=out, flush=True)


def do_syslog(lab, a, out):
    since = a.since
    deadline = time.monotonic() + a.for_seconds if a.for_seconds else None
    while True:
        q = {"since": since, "serial": a.serial, "contains": a.contains}
        if a.follow:
            q["wait"] = 2
        v = lab.call("GET", "/syslog", query=q)
        for line in v["lines"]:
            show_line(line, out)
            since = max(since, line["n"])
        if not a.follow or (deadline is not None and time.monotonic() > deadline):
            return 0


def do_say(lab, a, out):
    # The receiver takes datagrams on 127.0.0.1 only: in a fleet the line is
    # sent from inside the switch's own namespace.
    serial = a.serial
    note = None
    devices = lab.call("GET", "/devices")["devices"]
    if serial:
        note = next((d["note"] for d in devices if d["serial"] == serial), None)
        if note is None:
            raise CtlError(f"the lab does not know where {serial} listens for syslog")
    elif len(devices) > 1:
        serial, note = devices[0]["serial"], devices[0]["note"]
    body = {"lines": [f"<{a.priority}>{' '.join(a.text)}"]}
    where = "127.0.0.1"
    if note and note.get("syslog_netns"):
        body["netns"] = note["syslog_netns"]
        where += f" in {note['syslog_netns']}"
    v = lab.call("POST", "/syslog/send", body)
    print(f"sent a line to {serial or 'the switch'} ({where}); {json.dumps(v)}", file=out)


def do_ports(lab, a, out):
    serial = default_serial(lab, a.serial)
    v = lab.call("GET", "/status", query={"serial": serial})
    if a.json:
        return print(json.dumps(v["ports"], indent=1), file=out)
    if not v["ports"]:
        print(f"{serial}: no status document yet (queue set.status)", file=out)
        return 0
    print(f"{serial}: {len(v['ports'])} ports, {v['documents']} status documents", file=out)

    def neighbours(p):
        return ", ".join(n.get("system_name") or n.get("chassis_id", "")
                         for n in p.get("neighbor") or [])

    def vlans(p):
        return ",".join(str(x.get("id")) for x in p.get("vlan") or [])
    table(["PORT", "NAME", "LINK", "SPEED", "DUPLEX", "ADMIN", "NEIGHBOURS", "VLANS"],
          [[p.get("id"), p.get("name"), p.get("operational_status"), p.get("speed"),
            p.get("duplex"), p.get("admin_status"), neighbours(p), vlans(p)]
           for p in v["ports"]], out)


def do_archives(lab, a, out):
    v = lab.call("GET", "/archives", query={"serial": a.serial})
    for x in v["archives"]:
        print(f"{x['seq']}  {x['serial']}  {x['filename']}  {x['size']} bytes  {x['file'] or ''}",
              file=out)


def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="python3 -m lab.ctl", description=__doc__.split("\n\n")[0].replace("\n", " "),
        epilog="Commands: " + ", ".join(commands()) + ". See docs/lab-api.md.")
    ap.add_argument("--lab", help="the lab: its control socket, control URL or lab.json "
                    "(default $ORKAD_LAB, else the newest lab started by lab/run.py)")
    ap.add_argument("--json", action="store_true", help="print the control API's JSON")
    sub = ap.add_subparsers(dest="what", required=True, metavar="SUBCOMMAND")

    sub.add_parser("devices", help="list the devices and whether they are connected")
    sub.add_parser("commands", help="list the commands and their default parameters")

    s = sub.add_parser("send", help="queue a command (it goes out with the next heartbeat)")
    s.add_argument("name", help="the command, e.g. set.status")
    s.add_argument("--param", action="append", default=[], metavar="NAME=VALUE",
                   help="set one parameter over the defaults (repeatable); VALUE is read as "
                   "JSON when it can be; NAME may be dotted: serviceLink.href=/status")
    s.add_argument("--params", metavar="JSON", help="all the parameters, as a JSON object")
    s.add_argument("--serial", help="for this device only (default: any device)")
    s.add_argument("--id", help="the command id (default: lab-N)")
    s.add_argument("--wait", type=float, metavar="SECONDS",
                   help="wait this long for the result and print it (exit 1 if it failed)")

    s = sub.add_parser("results", help="list command results")
    s.add_argument("--id", help="of this command id (wildcards * and ? allowed)")
    s.add_argument("--serial")
    s.add_argument("--since", type=int, help="after this result number")

    s = sub.add_parser("syslog", help="show (or follow) the syslog the switches forward")
    s.add_argument("--serial")
    s.add_argument("--contains", metavar="TEXT", help="only lines that hold TEXT")
    s.add_argument("--since", type=int, default=0, help="after this line number")
    s.add_argument("-f", "--follow", action="store_true", help="keep printing new lines")
    s.add_argument("--for", type=float, dest="for_seconds", metavar="SECONDS",
                   help="with --follow: stop after this long")

    s = sub.add_parser("say", help="make a switch log lines (sent to its syslog receiver)")
    s.add_argument("text", nargs="+", help="the line (words are joined with spaces)")
    s.add_argument("--serial", help="which switch (default: the first)")
    s.add_argument("--priority", type=int, default=13, help="syslog priority (default 13)")

    s = sub.add_parser("ports", help="a switch's ports as its status documents give them")
    s.add_argument("--serial", help="which switch (default: the first)")

    s = sub.add_parser("archives", help="list the diagnostics archives")
    s.add_argument("--serial")
    return ap.parse_args(argv)


def main(argv=None, out=sys.stdout):
    a = parse_args(argv if argv is not None else sys.argv[1:])
    try:
        # Listing the commands needs no lab.
        lab = find_lab(a.lab) if a.what != "commands" else None
        rc = globals()["do_" + a.what](lab, a, out)
    except (CtlError, LabError) as e:
        print(f"ctl: {e}", file=sys.stderr)
        return 2
    except OSError as e:
        print(f"ctl: cannot reach the lab: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        return 130
    return rc or 0


if __name__ == "__main__":
    sys.exit(main())
