"""Stripped size of the daemon per architecture, from the build trees.

    python3 -m bench.binary_size [build build-arm64 build-armhf ...]

Strips a copy of each tree's common/orkad with that tree's strip (the
toolchain file names the cross one) and writes the "Binary size" section of
docs/performance.md. Trees that do not exist are left out.
"""

import argparse
import datetime
import os
import re
import subprocess
import tempfile

from lab import SOURCE

BEGIN = "<!-- binary-size:begin -->"
END = "<!-- binary-size:end -->"


def cache_value(build, name):
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            for line in f:
                m = re.match(rf"{name}:[A-Z]+=(.*)", line.strip())
                if m:
                    return m.group(1)
    except FileNotFoundError:
        pass
    return None


def measure(build):
    binary = os.path.join(build, "common", "orkad")
    if not os.path.exists(binary):
        return None
    strip = cache_value(build, "CMAKE_STRIP") or "strip"
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "orkad")
        subprocess.run([strip, "-o", out, binary], check=True)
        stripped = os.path.getsize(out)
        text = subprocess.run(["size", "-A", out], capture_output=True, text=True).stdout
    desc = subprocess.run(["file", "-b", binary], capture_output=True, text=True).stdout
    machine = desc.split(",")[1].strip() if "," in desc else "?"
    arch = {"x86-64": "amd64", "ARM aarch64": "arm64"}.get(machine, "?")
    if machine == "ARM" and desc.startswith("ELF 32-bit"):
        arch = "armhf"
    sections = {}
    for line in text.splitlines():
        parts = line.split()
        if len(parts) >= 2 and parts[0].startswith(".") and parts[1].isdigit():
            sections[parts[0]] = int(parts[1])
    return {
        "build": os.path.relpath(build, SOURCE),
        "arch": arch,
        "type": cache_value(build, "CMAKE_BUILD_TYPE") or "?",
        "unstripped": os.path.getsize(binary),
        "stripped": stripped,
        "text": sections.get(".text", 0),
    }


def section(rows):
    lines = [BEGIN, "## Binary size", "",
             f"`bench/binary_size.py`, {datetime.date.today()}: `common/orkad` of each build "
             "tree (-O2), stripped with that tree's strip. The simulated switch is linked in; "
             "the switch's own build links the vendor's client library in its place.", "",
             "| Build tree | Architecture | Build type | Stripped (bytes) | .text (bytes) "
             "| Unstripped (bytes) |",
             "|---|---|---|---|---|---|"]
    for r in rows:
        lines.append(f"| `{r['build']}` | {r['arch']} | {r['type']} | {r['stripped']} "
                     f"| {r['text']} | {r['unstripped']} |")
    lines.append(END)
    return "\n".join(lines) + "\n"


def write_section(path, text):
    old = open(path).read() if os.path.exists(path) else "# Performance\n"
    if BEGIN in old and END in old:
        head, rest = old.split(BEGIN, 1)
        tail = rest.split(END, 1)[1].lstrip("\n")
        new = head + text + ("\n" + tail if tail else "")
    else:
        new = old.rstrip("\n") + "\n\n" + text
    with open(path, "w") as f:
        f.write(new)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("builds", nargs="*", default=["build", "build-arm64", "build-armhf"])
    ap.add_argument("--out", default=os.path.join(SOURCE, "docs", "performance.md"))
    a = ap.parse_args()
    rows = [r for r in (measure(os.path.join(SOURCE, b)) for b in a.builds) if r]
    for r in rows:
        print(f"{r['build']}: {r['arch']} stripped {r['stripped']} bytes")
    write_section(a.out, section(rows))


if __name__ == "__main__":
    main()
