#!/usr/bin/env bash
# Installs what the build, the tests and the demo need, when it is missing.
set -euo pipefail
need=()
for pkg in cmake ninja-build g++ clang python3 libclang-rt-14-dev libgtest-dev \
           libgmock-dev libbenchmark-dev pkg-config iproute2 isc-dhcp-server isc-dhcp-client \
           libcli11-dev nlohmann-json3-dev libmnl-dev libnftables-dev nftables; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${need[@]}"
fi
