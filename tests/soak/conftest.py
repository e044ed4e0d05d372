"""Fixtures of the fault soak: the end-to-end fixtures (device root, network
namespace, the lab controller inside it) plus the soak's own options."""

import importlib.util
import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
E2E = os.path.normpath(os.path.join(HERE, "..", "e2e"))
if E2E not in sys.path:
    sys.path.insert(0, E2E)

# The e2e conftest is loaded under a name of its own so that it does not
# collide with this one.
_spec = importlib.util.spec_from_file_location("orkad_e2e_conftest",
                                               os.path.join(E2E, "conftest.py"))
e2e = importlib.util.module_from_spec(_spec)
sys.modules["orkad_e2e_conftest"] = e2e
_spec.loader.exec_module(e2e)

device_root = e2e.device_root
netns = e2e.netns
from lab_fixtures import netns_lab  # noqa: E402,F401


def pytest_addoption(parser):
    parser.addoption("--minutes", type=float, default=2.0,
                     help="how long the fault soak runs (default 2)")
    parser.addoption("--seed", type=int, default=None,
                     help="seed of the fault and command mix (default: from the clock)")
    parser.addoption("--soak-report", default=None,
                     help="write the figures of the run to this JSON file")
    parser.addoption("--heap", action="store_true",
                     help="sample the child's C library heap every minute (through gdb)")
    parser.addoption("--kills", type=int, default=20,
                     help="how many times the crash-recovery test kills the working child")


@pytest.fixture
def soak_options(request):
    return {k: request.config.getoption(k)
            for k in ("minutes", "seed", "soak_report", "kills", "heap")}
