"""The fixtures and hooks of the end-to-end tests and the fault soak, loaded
for both by tests/conftest.py: a fresh device root, a network namespace,
the lab controller (in this process, or inside the namespace), the daemon
under test against it, the lab runner, the VPN server, and the checks every
test gets (a ThreadSanitizer report or, where asked, a skip fails it)."""

import os

import pytest

from lab import devroot
from lab.labfixture import LabController
from lab.netns import Netns

from tests.e2e.kit import TSAN_REPORT, Daemon, sanitizer_reports
from tests.e2e.lab_runner import Runner
from tests.e2e.vpn import VpnServer


@pytest.fixture(autouse=True)
def thread_sanitizer_reports(tmp_path_factory):
    reports = tmp_path_factory.mktemp("tsan")
    saved = os.environ.get("TSAN_OPTIONS")
    options = [o for o in (saved or "").split(":") if o and not o.startswith("log_path=")]
    os.environ["TSAN_OPTIONS"] = ":".join(options + [f"log_path={reports}/{TSAN_REPORT}"])
    yield reports
    if saved is None:
        del os.environ["TSAN_OPTIONS"]
    else:
        os.environ["TSAN_OPTIONS"] = saved
    found = sanitizer_reports(str(reports))
    if found:
        text = "\n".join(f"--- {name}\n{body}" for name, body in found)
        pytest.fail(f"ThreadSanitizer reported {len(found)} time(s):\n{text[:20000]}",
                    pytrace=False)


@pytest.fixture
def device_root(tmp_path):
    return devroot.make_device_root(str(tmp_path / "root"))


@pytest.fixture
def netns():
    if not Netns.available():
        pytest.skip("network namespaces need root")
    ns = Netns().create()
    yield ns
    ns.delete()


@pytest.fixture
def daemon(device_root, tmp_path, netns):
    """The daemon in its namespace, with no lab; not started yet."""
    d = Daemon(device_root, str(tmp_path), netns)
    yield d
    d.stop()


@pytest.fixture
def lab(device_root, tmp_path):
    """A lab controller on 127.0.0.1 in this process; its CA is in the device
    root's bundle."""
    c = LabController(root=device_root, state_dir=str(tmp_path / "lab"))
    yield c
    c.stop()


@pytest.fixture
def netns_lab(device_root, netns, tmp_path):
    """A lab controller inside the test's network namespace, on the gateway
    address (192.0.2.1) that the daemon there reaches; driven from outside
    through its Unix control socket."""
    c = LabController(root=device_root, host=netns.gateway, prefix=netns.prefix(),
                      state_dir=str(tmp_path / "lab"))
    yield c
    c.stop()


@pytest.fixture
def agent(device_root, tmp_path, netns, netns_lab):
    """Makes the daemon under test, against the lab controller in its
    namespace (d.lab):

        d = agent()                      # 1-s heartbeats; not started
        d = agent(start=True)            # started, its first heartbeat answered
        d = agent(Switch, heartbeat=None, bootenv={"phone_home": "NO"},
                  wrapper=NO_CLOCK, env={"ORKAD_...": "1"})

    heartbeat is the boot environment's interval in seconds (None leaves the
    sample's, which has none); bootenv, more boot-environment variables;
    wrapper, what the daemon is started through (kit.Daemon); kind, the
    Daemon class to make; env, the daemon's environment when start is true.
    Everything it made is stopped after the test."""
    made = []

    def make(kind=Daemon, heartbeat="1", bootenv=None, wrapper=(), start=False, env=None):
        variables = dict(bootenv or {})
        if heartbeat is not None:
            variables.setdefault("heartbeat", str(heartbeat))
        if variables:
            devroot.update_bootenv(device_root, **variables)
        d = kind(device_root, str(tmp_path), netns, wrapper=wrapper)
        d.lab = netns_lab
        made.append(d)
        if start:
            d.start("-s", netns_lab.base_url, env=env)
            netns_lab.wait_request(kind="heartbeat", status=200, timeout=20)
        return d

    yield make
    for d in made:
        d.stop()


@pytest.fixture
def heartbeating(agent):
    """The daemon against the lab controller in its namespace, heartbeating
    every second, once its first heartbeat has reached the lab."""
    return agent(start=True)


@pytest.fixture(scope="module")
def lab_runner(tmp_path_factory):
    """Starts lab runners (lab.run) as programs for a module's tests:
    lab_runner(devices=N); they are stopped after the module."""
    if not Netns.available():
        pytest.skip("the lab's network namespaces need root")
    started = []

    def start(devices=1, heartbeat=1):
        r = Runner(tmp_path_factory.mktemp("runner"), devices=devices, heartbeat=heartbeat)
        started.append(r)
        return r

    yield start
    for r in started:
        r.stop()


@pytest.fixture
def vpn(netns, tmp_path):
    """An OpenVPN server the daemon's namespace reaches (tests/e2e/vpn.py)."""
    s = VpnServer(netns, str(tmp_path / "vpn"))
    yield s
    s.stop()


def pytest_addoption(parser):
    parser.addoption("--slow-minutes", type=float, default=0,
                     help="run the slow-controller watchdog test for this many minutes "
                     "(default: a few pulses at the worst delay)")


def pytest_configure(config):
    config.addinivalue_line("markers", "fleet: a fleet of switches for a minute (heavy; "
                            "-m 'not fleet' leaves it out)")


# The suite runs as one CTest test, whose pass hides a skip. Where every test
# can run (the native build as root, scripts/test.sh sets ORKAD_NO_SKIPS=1),
# a skip is a failure that names the test and its reason.
NO_SKIPS = os.environ.get("ORKAD_NO_SKIPS") == "1"


def _no_skip(report):
    reason = report.longrepr[2] if isinstance(report.longrepr, tuple) else str(report.longrepr)
    report.outcome = "failed"
    report.longrepr = f"skipped, and ORKAD_NO_SKIPS=1 allows no skip: {reason}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if NO_SKIPS and report.skipped and not hasattr(report, "wasxfail"):
        _no_skip(report)


@pytest.hookimpl(tryfirst=True)
def pytest_collectreport(report):
    # A whole module skipped (pytest.importorskip at its top).
    if NO_SKIPS and report.skipped:
        _no_skip(report)
