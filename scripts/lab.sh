#!/bin/sh
# Builds the daemon if needed and starts the lab (controller, sample switch, orkad); options go to lab/run.py.
cd "$(dirname "$0")/.." && bash scripts/bootstrap.sh && cmake -S . -B build > /dev/null && cmake --build build -j"$(nproc)" --target orkad > /dev/null && exec python3 lab/run.py --bin build/common/orkad "$@"
