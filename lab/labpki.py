"""Certificates for the lab controller, made with the openssl tool.

One CA per folder (reused when it is already there) and one server
certificate per listener, whose subjectAltName carries every host name and
IP address the daemon may use to reach the controller. The daemon checks the
peer and the host name for real, so the CA goes into the device root's
/etc/ca-bundle.pem.
"""

import ipaddress
import os
import secrets
import subprocess
import tempfile

CA_KEY = "ca.key"
CA_CERT = "ca.pem"


def _openssl(*args, cwd=None):
    r = subprocess.run(["openssl", *args], cwd=cwd, capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError(f"openssl {args[0]} failed: {r.stderr.strip()}")
    return r.stdout


def _new_key(path):
    _openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-out", path)
    os.chmod(path, 0o600)


def ensure_ca(folder, name="orkad lab CA"):
    """Makes the CA in `folder` unless it is there; returns (key, cert) paths."""
    os.makedirs(folder, exist_ok=True)
    key = os.path.join(folder, CA_KEY)
    cert = os.path.join(folder, CA_CERT)
    if os.path.exists(key) and os.path.exists(cert):
        return key, cert
    _new_key(key)
    _openssl("req", "-x509", "-new", "-key", key, "-subj", f"/CN={name}", "-days", "3650",
             "-set_serial", "0x" + secrets.token_hex(8),
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign",
             "-out", cert)
    return key, cert


def san_entries(names):
    """subjectAltName entries for host names and addresses, without repeats."""
    out = []
    for n in names:
        if not n:
            continue
        try:
            ipaddress.ip_address(n)
            entry = f"IP:{n}"
        except ValueError:
            entry = f"DNS:{n}"
        if entry not in out:
            out.append(entry)
    return out


def make_server_cert(folder, names, stem="server", days=825):
    """Issues a server certificate for `names` (host names and IP addresses),
    signed by the CA of `folder`; returns (key, cert) paths."""
    ca_key, ca_cert = ensure_ca(folder)
    sans = san_entries(names)
    if not sans:
        raise ValueError("a server certificate needs at least one name or address")
    key = os.path.join(folder, f"{stem}.key")
    cert = os.path.join(folder, f"{stem}.pem")
    _new_key(key)
    first = sans[0].split(":", 1)[1]
    with tempfile.TemporaryDirectory() as tmp:
        csr = os.path.join(tmp, "req.csr")
        ext = os.path.join(tmp, "ext.cnf")
        _openssl("req", "-new", "-key", key, "-subj", f"/CN={first}", "-out", csr)
        with open(ext, "w") as f:
            f.write("subjectAltName=" + ",".join(sans) + "\n")
            f.write("basicConstraints=critical,CA:FALSE\n")
            f.write("keyUsage=critical,digitalSignature,keyEncipherment\n")
            f.write("extendedKeyUsage=serverAuth\n")
        _openssl("x509", "-req", "-in", csr, "-CA", ca_cert, "-CAkey", ca_key,
                 "-set_serial", "0x" + secrets.token_hex(8), "-days", str(days),
                 "-extfile", ext, "-out", cert)
    return key, cert


def install_ca(root, ca_cert):
    """Adds the CA to <root>/etc/ca-bundle.pem (kept if already there)."""
    with open(ca_cert) as f:
        pem = f.read()
    etc = os.path.join(root, "etc")
    os.makedirs(etc, exist_ok=True)
    bundle = os.path.join(etc, "ca-bundle.pem")
    old = ""
    if os.path.exists(bundle):
        with open(bundle) as f:
            old = f.read()
    if pem.strip() in old:
        return bundle
    if old and not old.endswith("\n"):
        old += "\n"
    tmp = bundle + ".tmp"
    with open(tmp, "w") as f:
        f.write(old + pem)
    os.replace(tmp, bundle)
    return bundle
