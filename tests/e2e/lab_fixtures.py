"""Fixtures that run the lab controller; import the ones a test module needs:

    from lab_fixtures import lab, netns_lab  # noqa: F401
"""

import os
import sys

import pytest

SOURCE = os.environ.get("ORKAD_SOURCE") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", ".."))
if os.path.join(SOURCE, "lab") not in sys.path:
    sys.path.insert(0, os.path.join(SOURCE, "lab"))

from labfixture import LabController  # noqa: E402


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
def heartbeating(device_root, tmp_path, netns, netns_lab):
    """The daemon against the lab controller in its namespace, heartbeating
    every second, once its first heartbeat has reached the lab."""
    import devroot
    from conftest import Daemon
    devroot.update_bootenv(device_root, heartbeat="1")
    d = Daemon(device_root, str(tmp_path), netns)
    d.lab = netns_lab
    d.start("-s", netns_lab.base_url)
    netns_lab.wait_request(kind="heartbeat", timeout=20)
    yield d
    d.stop()
