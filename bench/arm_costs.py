"""The daemon as the ARM boards see it: size, shared libraries, CPU per heartbeat.

For the arm64 and armhf daemons, with the native x86-64 release daemon
beside them:

1. the daemon stripped with its own architecture's strip
   (bench/binary_size.py);
2. the shared libraries it loads: the ELF's NEEDED entries and its program
   interpreter, followed through each library's own NEEDED entries in that
   architecture's multiarch folders (/lib/TRIPLET, /usr/lib/TRIPLET), with
   the size of each file and the package it comes from. The binaries are
   read, never run;
3. CPU per heartbeat of the working child over N heartbeats (heartbeat 1 s,
   nothing else on), through bench/daemon_costs.py's machinery: the ARM
   daemons under qemu-user, the native one as it is, each in a namespace of
   its own against a lab controller of its own, all three running at once
   and measured in turns, so that whatever else loads the machine weighs on
   each alike. Under qemu-user the figure is the emulator's CPU on this
   machine, translation included: it says how the ARM builds compare with
   the native one here, not what a board's core spends.

The tables are printed and written to the "On the ARM boards" section of
docs/performance.md. `--quick` (4 heartbeats, one turn) keeps the harness
working and writes to a scratch file unless --out is given.

    sudo python3 -m bench.arm_costs [--quick] [--reuse] [--arch arm64 --arch armhf]

It builds the native release daemon (build-release/) and each ARM daemon
(scripts/cross.sh ARCH --daemon-only, build-ARCH/) first; with --reuse it
measures the daemons already there and builds only a missing one.
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from lab import SOURCE

from . import benchkit, binary_size, daemon_costs

INTERP = "(interpreter)"
BEGIN = "<!-- arm-costs:begin -->"
END = "<!-- arm-costs:end -->"

# Debian architecture: its multiarch triplet (the cross tools' prefix and
# the library folders).
TRIPLETS = {"amd64": "x86_64-linux-gnu", "arm64": "aarch64-linux-gnu",
            "armhf": "arm-linux-gnueabihf"}


def readelf_for(triplet):
    tool = f"{triplet}-readelf"
    return tool if shutil.which(tool) else "readelf"


def dynamic(readelf, path):
    """(NEEDED names, program interpreter or None, RUNPATH/RPATH folders)."""
    out = subprocess.run([readelf, "-W", "-d", "-l", path], capture_output=True, text=True,
                         check=True).stdout
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[(.+?)\]", out)
    interp = re.search(r"\[Requesting program interpreter: (.+?)\]", out)
    origin = os.path.dirname(path)
    paths = []
    for p in re.findall(r"\((?:RUNPATH|RPATH)\)\s+Library r(?:un)?path: \[(.+?)\]", out):
        paths += [d.replace("$ORIGIN", origin) for d in p.split(":") if d]
    return needed, interp.group(1) if interp else None, paths


def libraries(binary, arch):
    """({name: {path, size, by, needs, package}}, the daemon's own NEEDED
    names) for every shared object the loader maps for binary at start
    (dlopen'ed ones aside); the program interpreter is keyed INTERP."""
    triplet = TRIPLETS[arch]
    readelf = readelf_for(triplet)
    folders = [f"/lib/{triplet}", f"/usr/lib/{triplet}"]

    def find(name, runpath):
        return next((os.path.join(d, name) for d in runpath + folders
                     if os.path.exists(os.path.join(d, name))), None)

    needed, interp, runpath = dynamic(readelf, binary)
    loader = os.path.basename(interp) if interp else None

    def key(name):
        # Every libc names the loader among its NEEDED entries too.
        return INTERP if name == loader else name

    found = {}
    if interp:
        # The board's loader path is absolute; here the multiarch one is read.
        found[INTERP] = {"name": loader, "path": find(loader, []) or interp, "by": "the kernel",
                         "needs": []}
    todo = [("orkad", needed, runpath)]
    while todo:
        who, names, rpath = todo.pop(0)
        for name in names:
            if key(name) in found:
                continue
            path = find(name, rpath)
            if path is None:
                raise RuntimeError(f"{arch}: {name} (needed by {who}) is not in {folders}")
            lib_needed, _, lib_rpath = dynamic(readelf, path)
            found[name] = {"name": name, "path": path, "by": who,
                           "needs": [key(n) for n in lib_needed]}
            todo.append((name, lib_needed, lib_rpath))
    owners = packages([lib["path"] for lib in found.values()])
    for lib in found.values():
        lib["size"] = os.path.getsize(os.path.realpath(lib["path"]))
        lib["package"] = owners.get(lib["path"], "?")
    return found, [key(n) for n in needed]


def closure(libs, names):
    """The names, and every library they need in turn."""
    seen, todo = set(), list(names)
    while todo:
        n = todo.pop()
        if n not in seen:
            seen.add(n)
            todo += libs[n]["needs"]
    return seen


def packages(paths):
    """{path: Debian package (without its architecture)}, from dpkg; a path
    under /lib is also looked up under /usr/lib and the other way round (the
    folders are merged, the package lists name either)."""
    asked = {}
    for p in paths:
        for alt in (p, p[4:] if p.startswith("/usr/lib/") else "/usr" + p):
            asked[alt] = p
    out = subprocess.run(["dpkg", "-S", *asked], capture_output=True, text=True).stdout
    res = {}
    for line in out.splitlines():
        pkg, _, path = line.partition(": ")
        if path in asked and "," not in pkg:
            res[asked[path]] = pkg.split(":")[0]
    return res


def build_all(a, arches):
    """Builds the daemons, or with --reuse only those not built yet."""
    def missing(build):
        return not a.reuse or not os.path.exists(os.path.join(build, "common", "orkad"))
    if missing(a.native_build):
        daemon_costs.build(a.native_build, a.jobs, targets=("orkad",))
    for arch in arches:
        if missing(os.path.join(SOURCE, f"build-{arch}")):
            subprocess.run(["bash", os.path.join(SOURCE, "scripts", "cross.sh"), arch,
                            "--daemon-only"], check=True, stdout=subprocess.DEVNULL)


def emulator(build):
    """qemu-user as the build tree's toolchain file found it, with the
    multiarch loader and libraries taken from the host root."""
    qemu = binary_size.cache_value(build, "ORKAD_QEMU")
    if not qemu or qemu.endswith("-NOTFOUND"):
        raise RuntimeError(f"{build}: no qemu-user found by the toolchain file")
    return [qemu, "-L", "/"]


def heartbeats(a, trees):
    """{arch: [CPU seconds per heartbeat, one per turn]}, with the 1-minute
    load average after each turn."""
    work = tempfile.mkdtemp(prefix="orkad-bench-arm-")
    daemons, res, load = {}, {arch: [] for arch in trees}, []
    try:
        for arch, (build, emu) in trees.items():
            daemons[arch] = daemon_costs.Daemon(os.path.join(build, "common", "orkad"), work,
                                                arch, emulator=emu)
        for d in daemons.values():
            d.start()
        for arch, d in daemons.items():
            # An emulated start loads and translates every library first.
            d.ready(timeout=120 if d.emulator else 20)
        for _ in range(a.turns):
            for arch, d in daemons.items():
                res[arch].append(daemon_costs.heartbeat_cpu(d, a.heartbeats, allocs=False)[0])
            load.append(os.getloadavg()[0])
    finally:
        for d in daemons.values():
            d.close()
        if not a.keep:
            shutil.rmtree(work, ignore_errors=True)
    return res, load


def commit():
    def git(*args):
        return subprocess.run(["git", "-C", SOURCE, *args], capture_output=True,
                              text=True).stdout.strip()
    head = git("rev-parse", "--short", "HEAD") or "?"
    dirty = git("status", "--porcelain", "--untracked-files=no")
    return head + (" with local changes" if dirty else "")


def report(a, sizes, libs, direct, emulators, cpu, load):
    arches = list(sizes)
    native = arches[0]
    out = [
        "## On the ARM boards",
        "",
        f"`bench/arm_costs.py{' --quick' if a.quick else ''}`, {time.strftime('%Y-%m-%d')},"
        f" commit {commit()}, {daemon_costs.machine()}. One run.",
        "",
        "The daemon, stripped with its own architecture's strip (the simulated switch is"
        " linked in; the switch's own build links the vendor's client library in its place):",
        "",
        "| Architecture | Build tree | Compiled with | Stripped (bytes) | .text (bytes) |"
        " Unstripped (bytes) |",
        "|---|---|---|---|---|---|",
    ]
    for arch in arches:
        s = sizes[arch]
        out.append(f"| {arch} | `{s['build']}` | {s['type']} (`{s['flags']}`) | {s['stripped']} |"
                   f" {s['text']} | {s['unstripped']} |")
    out += [
        "",
        "The shared libraries it loads, read from the ELF files (NEEDED entries and the"
        " program interpreter, followed through each library's own, in the architecture's"
        " multiarch folders; the daemon is not run), with the size of each file as Debian"
        " ships it for that architecture:",
        "",
        "| Library | Package | Needed by | " + " | ".join(f"{x} (bytes)" for x in arches) + " |",
        "|---|---|---|" + "---|" * len(arches),
    ]
    names = []
    for arch in arches:
        names += [n for n in libs[arch] if n not in names]
    for name in names:
        first = next(libs[x][name] for x in arches if name in libs[x])
        cells = [str(libs[x][name]["size"]) if name in libs[x] else "" for x in arches]
        shown = name
        if name == INTERP:
            shown = "the program interpreter (" + ", ".join(
                f"`{libs[x][name]['name']}`" for x in arches if name in libs[x]) + ")"
        out.append(f"| {shown} | {first['package']} | {first['by']} | " + " | ".join(cells)
                   + " |")
    out.append("| **all of them** | | | " + " | ".join(
        f"**{len(libs[x])} files, {sum(lib['size'] for lib in libs[x].values())}**"
        for x in arches) + " |")
    shares = []
    for arch in arches:
        own = closure(libs[arch], [n for n in direct[arch] if n == "libcurl.so.4"])
        rest = closure(libs[arch], [n for n in direct[arch] if n != "libcurl.so.4"])
        only = own - rest
        shares.append(f"{arch} {len(only)} files, {sum(libs[arch][n]['size'] for n in only)}"
                      " bytes")
    out += [
        "",
        "The daemon itself needs " + ", ".join(
            f"`{libs[native][n]['name']}`" for n in direct[native]) + "; libcurl and what"
        " only it brings (Debian's build: every protocol it knows, LDAP and Kerberos, and"
        " GnuTLS beside OpenSSL for RTMP) are " + "; ".join(shares) + ".",
        "",
        f"CPU per heartbeat of the working child over {a.heartbeats} heartbeats (heartbeat"
        f" 1 s, nothing else on), {a.turns} turn{'s' if a.turns > 1 else ''}: the daemons run"
        " at once, each against a lab controller of its own, and are measured one after the"
        " other in every turn. **The ARM figures are emulated**: qemu-user on this machine,"
        " translation included; they compare the builds here and say nothing of what a"
        " board's core spends.",
        "",
        "| Daemon | CPU per heartbeat (ms), median | each turn (ms) | / native |",
        "|---|---|---|---|",
    ]
    versions = sorted({subprocess.run([emu[0], "--version"], capture_output=True,
                                      text=True).stdout.partition("\n")[0]
                       for emu in emulators if emu})
    base = statistics.median(cpu[native])
    for arch in arches:
        m = statistics.median(cpu[arch])
        what = f"{arch}, native" if arch == native else f"{arch} under qemu-user (emulated)"
        out.append(f"| {what} | {m * 1e3:.2f} | "
                   + ", ".join(f"{c * 1e3:.2f}" for c in cpu[arch]) + f" | {m / base:.1f} |")
    out += ["", "1-minute load average after each turn: "
            + ", ".join(f"{x:.2f}" for x in load) + ". Emulator: " + "; ".join(versions) + "."]
    return "\n".join(out)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--quick", action="store_true", help="a short run that checks the harness")
    ap.add_argument("--arch", action="append", choices=("arm64", "armhf"),
                    help="an ARM architecture to measure (default both)")
    ap.add_argument("--native-build", default=os.path.join(SOURCE, "build-release"),
                    help="the native release build tree (default build-release)")
    ap.add_argument("--reuse", action="store_true", help="measure the daemons already built,"
                    " building only a missing one")
    ap.add_argument("--heartbeats", type=int, help="heartbeats per measurement (default 30;"
                    " 4 with --quick)")
    ap.add_argument("--turns", type=int, help="measurements of each daemon (default 3;"
                    " 1 with --quick)")
    benchkit.run_options(ap)
    a = ap.parse_args()
    benchkit.need_root("the daemons run in network namespaces of their own")
    arches = a.arch or ["arm64", "armhf"]
    a.heartbeats = a.heartbeats or (4 if a.quick else 30)
    a.turns = a.turns or (1 if a.quick else 3)
    out = a.out or (os.path.join(tempfile.gettempdir(), "orkad-bench-arm-quick.md") if a.quick
                    else os.path.join(SOURCE, "docs", "performance.md"))

    build_all(a, arches)
    trees = {"amd64": (a.native_build, [])}
    for arch in arches:
        build = os.path.join(SOURCE, f"build-{arch}")
        trees[arch] = (build, emulator(build))
    sizes, libs, direct = {}, {}, {}
    for arch, (build, _) in trees.items():
        sizes[arch] = binary_size.measure(build)
        if sizes[arch]["arch"] != arch:
            sys.exit(f"{build}/common/orkad is {sizes[arch]['arch']}, not {arch}")
        kind = sizes[arch]["type"].upper()
        sizes[arch]["flags"] = binary_size.cache_value(build, f"CMAKE_CXX_FLAGS_{kind}") or ""
        libs[arch], direct[arch] = libraries(os.path.join(build, "common", "orkad"), arch)
    cpu, load = heartbeats(a, trees)

    text = report(a, sizes, libs, direct, [e for _, e in trees.values()], cpu, load)
    benchkit.write_section(out, text, BEGIN, END)
    print(text)


if __name__ == "__main__":
    main()
