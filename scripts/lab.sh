#!/bin/sh
# Builds the daemon if needed and starts the lab (controller, sample switch, orkad); options go to the lab runner (python3 -m lab.run).
cd "$(dirname "$0")/.." && bash scripts/bootstrap.sh && cmake -S . -B build > /dev/null && cmake --build build -j"$(nproc)" --target orkad > /dev/null && exec python3 -m lab.run --bin build/common/orkad "$@"
