#!/usr/bin/env bash
# Builds the library and runs the demo in a private mount and network
# namespace, so the host's /etc/tarsis and /var/log stay untouched.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLR_TESTS=OFF -DPLR_BENCH=OFF >/dev/null
cmake --build build -j "$(nproc)" --target pelorus-demo
exec bash scripts/private-ns.sh ./build/pelorus-demo
