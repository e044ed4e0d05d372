"""Measurements of the daemon against the lab, each script run from the top
of the source tree as a module (`python3 -m bench.daemon_costs`); each
writes its section of docs/performance.md."""
