"""CPU of one interface statistics sampling tick and one period end with 8,
64 and 128 counted interfaces, and the heap allocations of a tick.

Each size gets a network namespace of its own holding that many counted
interfaces (veth pairs named ethN/vifN, up), and bench/stats_tick.cpp runs
in it: it primes the sampling table, then times (thread CPU) each of a few
hundred samples and a period end every fourth sample, and counts malloc,
calloc and realloc calls during the samples. The figures go into the
"Interface statistics" section of docs/performance.md.

    sudo python3 -m bench.stats_tick [--build build] [--rounds 400]

Needs root (namespaces) and a release build of the bench program
(`cmake --build build --target stats_tick_bench`).
"""

import argparse
import json
import os
import re
import subprocess
import sys
import uuid

from lab import SOURCE

SIZES = (8, 64, 128)
SECTION = "## Interface statistics"


def ip(*args, ns=None):
    argv = ["ip"] + (["-n", ns] if ns else []) + list(args)
    subprocess.run(argv, check=True, capture_output=True)


def measure(binary, count, rounds):
    ns = f"orkad-bench-{uuid.uuid4().hex[:8]}"
    ip("netns", "add", ns)
    try:
        for i in range(count // 2):
            ip("link", "add", f"eth{i}", "type", "veth", "peer", "name", f"vif{i}", ns=ns)
            ip("link", "set", f"eth{i}", "up", ns=ns)
            ip("link", "set", f"vif{i}", "up", ns=ns)
        out = subprocess.run(["ip", "netns", "exec", ns, binary, str(rounds)], check=True,
                             capture_output=True, text=True).stdout
        return json.loads(out)
    finally:
        subprocess.run(["ip", "netns", "delete", ns], capture_output=True)


def section(results, rounds):
    base = results[0]
    lines = [
        SECTION,
        "",
        "Measured by `bench/stats_tick.py` (release build, one run; medians of "
        f"{rounds} samples and {rounds // 4} period ends, thread CPU time). Each "
        "size runs in a network namespace holding exactly that many counted veth "
        "interfaces (plus lo). A sample reads /proc/net/dev and updates the "
        "fixed 128-slot table; a period end fills the rows, and building the "
        "document adds the attribute reads from /sys/class/net and the JSON.",
        "",
        "| Interfaces | Sample (µs) | per interface (µs) | Period end (µs) | "
        "Period end with document (µs) | Allocations per sample |",
        "|---|---|---|---|---|---|",
    ]
    for r in results:
        n = r["interfaces"]
        lines.append(f"| {n} | {r['tick_us']:.1f} | {r['tick_us'] / n:.2f} | "
                     f"{r['close_us']:.1f} | {r['close_with_document_us']:.1f} | "
                     f"{r['tick_allocations'] / r['rounds']:.0f} |")
    last = results[-1]
    grow_n = last["interfaces"] / base["interfaces"]
    lines += [
        "",
        f"From {base['interfaces']} to {last['interfaces']} interfaces ({grow_n:.0f}x) a "
        f"sample costs {last['tick_us'] / base['tick_us']:.1f}x and a period end with its "
        f"document {last['close_with_document_us'] / base['close_with_document_us']:.1f}x: "
        "beyond a small fixed part the cost per interface stays flat, so it grows "
        "linearly with the interfaces. "
        f"Heap allocations during {sum(r['rounds'] for r in results)} samples: "
        f"{sum(r['tick_allocations'] for r in results)}.",
        "",
    ]
    return "\n".join(lines)


def write_section(path, text):
    old = ""
    if os.path.exists(path):
        with open(path) as f:
            old = f.read()
    if not old:
        old = "# Performance\n\n"
    # The section ends at the next heading or at the next section's marker.
    pattern = re.compile(r"^## Interface statistics\n.*?(?=^## |^<!-- |\Z)", re.S | re.M)
    if pattern.search(old):
        new = pattern.sub(
            lambda m: text.rstrip("\n") + ("\n\n" if m.end() < len(old) else "\n"), old)
    else:
        new = old.rstrip("\n") + "\n\n" + text + "\n"
    with open(path, "w") as f:
        f.write(new)


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build", default=os.path.join(SOURCE, "build"))
    ap.add_argument("--rounds", type=int, default=400)
    ap.add_argument("--out", default=os.path.join(SOURCE, "docs", "performance.md"))
    a = ap.parse_args(argv)
    binary = os.path.join(a.build, "bench", "stats_tick_bench")
    if not os.path.exists(binary):
        print(f"{binary} is missing: cmake --build {a.build} --target stats_tick_bench",
              file=sys.stderr)
        return 1
    results = []
    for n in SIZES:
        r = measure(binary, n, a.rounds)
        if r["interfaces"] != n:
            print(f"expected {n} counted interfaces, the table holds {r['interfaces']}",
                  file=sys.stderr)
            return 1
        print(json.dumps(r))
        results.append(r)
    write_section(a.out, section(results, a.rounds))
    print(f"wrote the '{SECTION[3:]}' section of {a.out}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
