#!/usr/bin/env bash
# Builds everything and runs a short scripted session of pelorus commands in
# a private mount and network namespace, so the host's /etc/tarsis, /run and
# /var/log stay untouched. Each command is printed before its output.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLR_TESTS=OFF -DPLR_BENCH=OFF >/dev/null
cmake --build build -j "$(nproc)"
exec bash scripts/private-ns.sh bash -c '
  set -e
  run() { echo; echo "\$ pelorus $*"; ./build/cli/pelorus "$@"; }
  run create kavix8 --subnet 192.168.8.0/24 --adapter --dhcp --nat --name "Lab network"
  run dhcp kavix8 map add 00:50:56:00:00:10 192.168.8.10
  run nat kavix8 forward add tcp 8080 192.168.8.10:80 --description "web server"
  run dhcp kavix8 param set domain-name lab.example
  run list
  run show kavix8
  run db export -
'
