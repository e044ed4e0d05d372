#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/:
real-looking inputs of every surface, the commands of the lab's tests among
them. Run again after changing it; inputs found by fuzzing (crashes
included) are added to the corpus folders by hand and kept."""

import base64
import hashlib
import json
import os

HERE = os.path.dirname(os.path.abspath(__file__))
OVPN = "dev tun\nremote 127.0.0.1 1194\nifconfig 10.9.0.2 10.9.0.1\nverb 1\n"

# The twelve commands in the order the commands target numbers them.
COMMANDS = [
    ("set", "heartbeat", [{"interval": 1000, "serviceLink": {"href": "/heartbeat"}},
                          {"interval": 999, "serviceLink": {"href": "/a"}},
                          {"interval": 5000, "serviceLink": {"href": "/" + "h" * 127}}]),
    ("set", "config", [{"portConfiguration": [{"id": "5", "admin_status": "down"}]},
                       {"portConfiguration": [{"id": "2", "name": "uplink"},
                                              {"id": "3", "admin_status": "up"}]},
                       {"lanConfiguration": {"ipAddress": "192.0.2.10", "netmask": "255.255.255.0",
                                             "gateway": "192.0.2.1", "dns": ["192.0.2.53"]}}]),
    ("del", "config", [{}]),
    ("set", "system", [{"location": "bench 4"},
                       {"name": "sw-lab", "contact": "ops", "password": "s3cret",
                        "timezone": "UTC", "ntpServers": ["192.0.2.123"]}]),
    ("set", "reboot", [{"message": "the whole road"}, {}]),
    ("set", "logging", [{"interval": 1000, "serviceLink": {"href": "/syslog"}},
                        {"interval": 0, "serviceLink": {"href": "/syslog"}}]),
    ("set", "firmware", [{}, {"version": "2.0.1"}]),
    ("set", "sslVpn", [{"clientOvpn": base64.b64encode(OVPN.encode()).decode()},
                       {"clientOvpn": "abc"}, {}]),
    ("del", "sslVpn", [{}]),
    ("set", "statistics", [{"interval": 15000, "serviceLink": {"href": "/statistics"}},
                           {"interval": 301000, "serviceLink": {"href": "/s"}}]),
    ("set", "status", [{"interval": 10000, "serviceLink": {"href": "/status"}},
                       {"interval": 0, "serviceLink": {"href": "/status"}}]),
    ("get", "diagnostics", [{"serviceLink": {"href": "/diagnostics"}}]),
]


def write(target, data):
    if isinstance(data, str):
        data = data.encode()
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    name = hashlib.sha1(data).hexdigest()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def command(action, context, params, n):
    return {"action": action, "context": context, "id": f"c{n}", "flags": "", "params": params}


def main():
    n = 0
    every = []
    for i, (action, context, variants) in enumerate(COMMANDS):
        for params in variants:
            n += 1
            c = command(action, context, params, n)
            every.append(c)
            write("commands", bytes([i]) + json.dumps(c).encode())
    write("commands", bytes([0]) + b'{"id":"x","params":"x"}')
    write("commands", bytes([3]) + b'{"id":5,"params":{}}')

    hb = lambda cmds, count=None: json.dumps({  # noqa: E731
        "totalCount": len(cmds) if count is None else count,
        "responseLink": {"href": "/response/1"}, "commandList": cmds})
    write("heartbeat", json.dumps({"totalCount": 0}))
    write("heartbeat", hb(every[:1]))
    write("heartbeat", hb(every[:4]))
    write("heartbeat", hb(every))
    write("heartbeat", hb(every[:3], count=2))
    write("heartbeat", hb([{"action": "set", "context": "nothing", "flags": "chain"}]))
    write("heartbeat", hb([{"context": "heartbeat", "flags": ""}, 5]))
    write("heartbeat", '{"totalCount":1,"responseLink":"/r","commandList":[]}')
    write("heartbeat", "[" * 3000 + "]" * 3000)

    ph = [{"cloud_controller": "https://controller.example", "time": 1700000000},
          {"cloud_controller": "https://controller.example", "phone_home_interval": 300},
          {"code": "decommissioned", "factory_reset": "soft"},
          {"code": "unregistered"}, {"code": "frozen"}, {"cloud_controller": 5}]
    for d in ph:
        write("replies", b"\x00" + json.dumps(d).encode())
    for d in [{"access_token": "abc", "expires_in": 3600},
              {"access_token": "abc", "expires_in": 86401},
              {"access_token": "x" * 300, "expires_in": 60},
              {"access_token": 5, "expires_in": "x", "message": 42}]:
        write("replies", b"\x01" + json.dumps(d).encode())
    for d in [{"error": "invalid_scope"}, {"error": "account_deactivated"}, {"error": 7}]:
        write("replies", b"\x02" + json.dumps(d).encode())
    for d in [{"currentFirmware": {"version": "1.2.0"}},
              {"currentFirmware": {"download": {"href": "https://controller.invalid/fw.tar"}}},
              {"currentFirmware": {"download": {}}}, {"firmware": {}}]:
        write("replies", b"\x03" + json.dumps(d).encode())
    write("replies", b"\x00" + b"[" * 3000)

    ev = lambda e, p: json.dumps({"event": e, "params": p})  # noqa: E731
    write("listener", b"\x00" + ev("ping", {"n": 1}).encode())
    write("listener", b"\x00" + ev("ping", "text").encode())
    write("listener", b"\x00" + b'{"event":5}')
    write("listener", b"\x00" + b"not json")
    write("listener", b"\x01" + ev("syslog", json.dumps(
        {"sequence": 1, "logTime": "2026-11-21T10:00:00+0000",
         "message": "<13>hello"})).encode())
    write("listener", b"\x01" + ev("unknown", None).encode())

    for line in ["<13>Nov 21 10:00:00 switch: link up on 0/5",
                 "<190>Nov  1 01:02:03 TRAPMGR[123]: \"quoted\" text",
                 "no head at all", "<5>", "<13> Feb 30 99:99:99 bad stamp",
                 "<13>line\r\nwith breaks", "<13>" + "\"" * 300]:
        write("syslog", line)

    dev = ("Inter-|   Receive                                                |  Transmit\n"
           " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets "
           "errs drop fifo colls carrier compressed\n"
           "    lo:  123456     100    0    0    0     0          0         0   123456     100"
           "    0    0    0     0       0          0\n"
           "  eth0: 987654321 55555    0    0    0     0          0        12 12345678   4444"
           "    0    0    0     0       0          0\n")
    write("proc_net", b"\x00" + dev.encode())
    write("proc_net", b"\x00" + dev.replace("eth0", "averyveryverylongname0").encode())
    write("proc_net", b"\x00" + b"Inter-|\n face |\n")
    route = ("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
             "eth0\t00000000\t0102000A\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
             "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n")
    write("proc_net", b"\x01" + route.encode())
    write("proc_net", b"\x01" + (route + "eth1\t00000000\t0202000A\t0003\t0\t0\t0\t00000000"
                                 "\t0\t0\t0" + "x" * 200 + "\n").encode())

    write("stats_kv", b"\x00rx_bytes=123\ntx_bytes=0x10\noperstate=up\nflags=0x1003\nother=1\n")
    write("stats_kv", b"\x00rx_bytes=\n=\nnoequals\n")
    write("stats_kv", b"\x01rx:100 tx:200 state:up")
    write("stats_kv", b"\x01state:up rx:")

    for text in ["Zg==", "Zm8=", "Zm9v", base64.b64encode(OVPN.encode()).decode(), "abc", "",
                 "====", "A==="]:
        write("base64", text)


if __name__ == "__main__":
    main()
