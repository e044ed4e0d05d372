"""Interface statistics as the lab sees them: every statistics document the
device posted on a service link, turned into one time series per interface
(receive and transmit peak and average, bytes per second), for tests, for a
person at the bench and for plotting.

A statistics document is a JSON object with a "statisticsTime" text and an
"interface" array of rows {"id", "radio"?, "rx_max"?, "rx_avg"?, "tx_max"?,
"tx_avg"?}; rates the device left out are zero.
"""

import fnmatch

RATES = ("rx_max", "rx_avg", "tx_max", "tx_avg")


def is_statistics_document(doc):
    return (isinstance(doc, dict) and isinstance(doc.get("statisticsTime"), str)
            and isinstance(doc.get("interface"), list))


def _rate(row, key):
    v = row.get(key, 0)
    return v if isinstance(v, int) and not isinstance(v, bool) else None


def series(requests, since=0, interface=None, path=None, serial=None):
    """The documents among `requests` (request records, oldest first) as
    {"documents": n, "interfaces": {id: [point, ...]}, "last": seq}."""
    out = {}
    documents = 0
    last = since
    for r in requests:
        if r["seq"] <= since or r["kind"] is None:
            continue
        if path is not None and not fnmatch.fnmatchcase(r["path"], path):
            continue
        if serial is not None and r["serial"] != serial:
            continue
        doc = r.get("json")
        if not is_statistics_document(doc):
            continue
        documents += 1
        last = max(last, r["seq"])
        for row in doc["interface"]:
            if not isinstance(row, dict) or not isinstance(row.get("id"), str):
                continue
            name = row["id"]
            if interface is not None and not fnmatch.fnmatchcase(name, interface):
                continue
            point = {"seq": r["seq"], "time": r["time"], "iso": r["iso"], "path": r["path"],
                     "statisticsTime": doc["statisticsTime"], "radio": row.get("radio")}
            for k in RATES:
                point[k] = _rate(row, k)
            out.setdefault(name, []).append(point)
    return {"documents": documents, "interfaces": out, "last": last}


def control_statistics(lab, doc, q):
    """GET /statistics: ?id= (interface, wildcards), ?path=, ?since=, ?serial=."""
    since = int(q.get("since") or 0)
    with lab.changed:
        return 200, series(lab.requests, since, q.get("id"), q.get("path"),
                           q.get("serial"))
