# The end-to-end suite and the fault soak share their fixtures and hooks.
pytest_plugins = ["tests.e2e.fixtures"]
