"""The control API people and tests use (lab/ctl.py, the dashboard,
lab/labfixture.py): JSON over plain HTTP to set the controller up, queue
commands, script replies and faults, and read back what the devices sent
(docs/lab-api.md). Each route is `route(lab, doc, query)` -> (status, value);
the streams' own routes live with their records (labstatus, labsyslog,
statseries, archives, labdevices) and the dashboard's files in labweb."""

import base64
import binascii
import copy
import hashlib
import json
import threading
import urllib.parse

from . import archives
from . import labdevices
from . import labstatus
from . import labsyslog
from . import labweb
from . import statseries
from .labhttp import json_reply, matches
from .labstate import FIXED, LINK_KINDS, Script, phone_home_defaults


def control(lab, req):
    """Answers one request of the control listeners."""
    page = labweb.serve(lab, req)
    if page is not None:
        return page
    try:
        doc = json.loads(req.body) if req.body.strip() else {}
    except ValueError as e:
        return json_reply(400, {"error": f"body is not JSON: {e}"})
    route, params = CONTROL.get((req.method, req.path)), req.params
    if route is None:
        route, params = _per_device(req)
    if route is None:
        return json_reply(404, {"error": f"no control resource {req.method} {req.path}"})
    try:
        status, value = route(lab, doc, params)
    except (ValueError, TypeError, KeyError, binascii.Error) as e:
        return json_reply(400, {"error": str(e)})
    return json_reply(status, value)


def c_info(lab, doc, q):
    return 200, lab.info()


def c_reset(lab, doc, q):
    lab.reset(tokens=bool(doc.get("tokens")))
    return 200, {"ok": True}


def c_get_config(lab, doc, q):
    with lab.changed:
        return 200, copy.deepcopy(lab.config)


def c_set_config(lab, doc, q):
    unknown = set(doc) - set(lab.defaults)
    if unknown:
        raise ValueError(f"unknown settings: {sorted(unknown)}")
    with lab.changed:
        lab.config.update(copy.deepcopy(doc))
        return 200, copy.deepcopy(lab.config)


def c_token(lab, doc, q):
    with lab.changed:
        for k, ck in (("expires_in", "expires_in"), ("token_length", "token_length"),
                      ("extra", "token_extra")):
            if k in doc:
                lab.config[ck] = doc[k]
        if doc.get("revoke"):
            for t in lab.tokens.values():
                t["revoked"] = True
        return 200, {"expires_in": lab.config["expires_in"],
                     "token_length": lab.config["token_length"],
                     "extra": lab.config["token_extra"]}


def c_tokens(lab, doc, q):
    with lab.changed:
        return 200, {"tokens": list(copy.deepcopy(lab.tokens).values())}


def c_set_phone_home(lab, doc, q):
    ph = phone_home_defaults()
    unknown = set(doc) - set(ph)
    if unknown:
        raise ValueError(f"unknown phone-home fields: {sorted(unknown)}")
    ph.update(doc)
    with lab.changed:
        lab.phone_home = ph
        return 200, dict(ph)


def c_get_phone_home(lab, doc, q):
    with lab.changed:
        return 200, dict(lab.phone_home)


def _firmware_view(lab):
    fw = lab.firmware
    v = {k: fw[k] for k in ("version", "offer", "href", "filename")}
    v["size"] = len(fw["image"])
    v["sha256"] = hashlib.sha256(fw["image"]).hexdigest()
    v["url"] = lab.firmware_url() if fw["version"] is not None else None
    return v


def c_set_firmware(lab, doc, q):
    fw = {"version": doc.get("version"), "offer": doc.get("offer", "auto"),
          "href": doc.get("href"), "filename": doc.get("filename"), "image": b""}
    if fw["offer"] not in ("auto", "always", "never"):
        raise ValueError("'offer' is \"auto\", \"always\" or \"never\"")
    if "image_base64" in doc:
        fw["image"] = base64.b64decode(doc["image_base64"])
    elif "image_text" in doc:
        fw["image"] = doc["image_text"].encode()
    with lab.changed:
        lab.firmware = fw
        return 200, _firmware_view(lab)


def c_get_firmware(lab, doc, q):
    with lab.changed:
        return 200, _firmware_view(lab)


def c_queue(lab, doc, q):
    if "commands" in doc:
        cmds = doc["commands"]
        if not isinstance(cmds, list):
            raise ValueError("'commands' is a list")
    elif "command" in doc:
        cmds = [doc["command"]]
    else:
        raise ValueError("give 'command' or 'commands'")
    ids = lab.queue(cmds, doc.get("serial", "any"), bool(doc.get("raw")))
    return 200, {"ids": ids}


def c_commands(lab, doc, q):
    with lab.changed:
        pending = [e for e in lab.pending if matches(q.get("serial"), e["serial"])]
        delivered = [e for e in lab.delivered if matches(q.get("serial"), e["serial"])]
        return 200, copy.deepcopy({"pending": pending, "delivered": delivered})


def _clear(name):
    """The route that empties one of the lab's lists and says how many it held."""
    def route(lab, doc, q):
        with lab.changed:
            n = len(getattr(lab, name))
            setattr(lab, name, [])
            return 200, {"cleared": n}
    return route


def c_add_script(lab, doc, q):
    specs = doc.get("replies")
    if specs is None:
        specs = [doc]
    else:
        common = {k: v for k, v in doc.items() if k != "replies"}
        specs = [{**common, **s} for s in specs]
    with lab.changed:
        made = [Script(lab.next("script"), s) for s in specs]
        lab.scripts.extend(made)
        return 200, {"ids": [s.id for s in made]}


def c_scripts(lab, doc, q):
    with lab.changed:
        return 200, {"scripts": [s.describe() for s in lab.scripts]}


def c_clear_scripts(lab, doc, q):
    with lab.changed:
        keep = [s for s in lab.scripts if q.get("path") is not None and s.path != q.get("path")]
        n = len(lab.scripts) - len(keep)
        lab.scripts = keep
        return 200, {"cleared": n}


def c_links(lab, doc, q):
    with lab.changed:
        return 200, {"links": dict(lab.links), "fixed": dict(FIXED)}


def c_add_link(lab, doc, q):
    path, kind = doc.get("path"), doc.get("kind")
    if not isinstance(path, str) or not path.startswith("/"):
        raise ValueError("'path' is the link under /api and starts with '/'")
    if kind not in LINK_KINDS:
        raise ValueError(f"'kind' is one of {list(LINK_KINDS)}")
    with lab.changed:
        lab.links[path] = kind
        return 200, {"links": dict(lab.links)}


def c_del_link(lab, doc, q):
    with lab.changed:
        return 200, {"removed": lab.links.pop(q.get("path", doc.get("path")), None)}


def c_requests(lab, doc, q):
    since = int(q.get("since") or 0)
    status = q.get("status")

    def select():
        return [r for r in lab.requests
                if r["seq"] > since
                and matches(q.get("path"), r["path"])
                and matches(q.get("method"), r["method"])
                and matches(q.get("kind"), r["kind"] or "unknown")
                and matches(q.get("serial"), r["serial"])
                and (status is None or str(r["status"]) == status)
                and ("answered" not in q or r["status"] is not None or r["dropped"])]
    found = lab.wait_for(select, q)
    return 200, {"requests": found, "last": lab.last["request"]}


def c_results(lab, doc, q):
    since = int(q.get("since") or 0)

    def select():
        return [r for r in lab.results
                if r["seq"] > since
                and matches(q.get("command_id"), r["commandId"])
                and matches(q.get("serial"), r["serial"])]
    found = lab.wait_for(select, q)
    return 200, {"results": found, "last": lab.last["result"]}


def c_errors(lab, doc, q):
    with lab.changed:
        return 200, {"errors": list(lab.connection_errors)}


def c_shutdown(lab, doc, q):
    threading.Timer(0.1, lab.stopping.set).start()
    return 200, {"ok": True}


CONTROL = {
    ("GET", "/info"): c_info,
    ("POST", "/reset"): c_reset,
    ("GET", "/config"): c_get_config,
    ("POST", "/config"): c_set_config,
    ("POST", "/token"): c_token,
    ("GET", "/token"): c_tokens,
    ("GET", "/phone-home"): c_get_phone_home,
    ("POST", "/phone-home"): c_set_phone_home,
    ("GET", "/firmware"): c_get_firmware,
    ("POST", "/firmware"): c_set_firmware,
    ("POST", "/commands"): c_queue,
    ("GET", "/commands"): c_commands,
    ("DELETE", "/commands"): _clear("pending"),
    ("POST", "/scripts"): c_add_script,
    ("GET", "/scripts"): c_scripts,
    ("DELETE", "/scripts"): c_clear_scripts,
    ("GET", "/links"): c_links,
    ("POST", "/links"): c_add_link,
    ("DELETE", "/links"): c_del_link,
    ("GET", "/requests"): c_requests,
    ("DELETE", "/requests"): _clear("requests"),
    ("GET", "/results"): c_results,
    ("GET", "/statistics"): statseries.control_statistics,
    ("GET", "/connection-errors"): c_errors,
    ("POST", "/shutdown"): c_shutdown,
    ("GET", "/archives"): archives.c_archives,
    ("GET", "/archive"): archives.c_archive,
    ("GET", "/status"): labstatus.c_status,
    ("GET", "/status/documents"): labstatus.c_documents,
    ("DELETE", "/status"): labstatus.c_clear,
    ("GET", "/syslog"): labsyslog.c_syslog,
    ("DELETE", "/syslog"): labsyslog.c_clear_syslog,
    ("POST", "/syslog/send"): labsyslog.c_send_syslog,
    ("GET", "/devices"): labdevices.c_devices,
    ("POST", "/devices"): labdevices.c_note_device,
}

# Resources of one device, /devices/<serial>/...: the serial joins the query.
PER_DEVICE = {
    ("GET", "health"): labdevices.c_health,
}


def _per_device(req):
    parts = req.path.split("/")
    if len(parts) != 4 or parts[:2] != ["", "devices"] or not parts[2]:
        return None, None
    route = PER_DEVICE.get((req.method, parts[3]))
    return route, dict(req.params, serial=urllib.parse.unquote(parts[2]))
