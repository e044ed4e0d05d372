"""The fault soak's own options; its fixtures are the end-to-end ones
(tests/e2e/fixtures.py, loaded by tests/conftest.py)."""

import pytest


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
