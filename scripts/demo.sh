#!/usr/bin/env bash
# Builds everything and runs a short scripted session in a private mount and
# network namespace, so the host's /etc/tarsis, /run and /var/log stay
# untouched: pelorus configures a vnet and starts its services, then a guest
# namespace gets its address by DHCP, reaches an "outside" namespace through
# NAT and is reached through its port forward. Each step is printed first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLR_TESTS=OFF -DPLR_BENCH=OFF >/dev/null
cmake --build build -j "$(nproc)"
exec bash scripts/private-ns.sh bash -c '
  set -e
  run() { echo; echo "\$ pelorus $*"; ./build/cli/pelorus "$@"; }
  step() { echo; echo "== $*"; }
  echo "bindir = \"$PWD/build/daemons/bin\"" > /etc/tarsis/config
  ip link set lo up
  step "an outside network: namespace \"outside\" at 10.99.0.2, the host at 10.99.0.1"
  ip netns add outside
  ip link add ext0 type veth peer name ext1 && ip link set ext1 netns outside
  ip addr add 10.99.0.1/24 dev ext0 && ip link set ext0 up
  ip netns exec outside sh -c "ip addr add 10.99.0.2/24 dev ext1 && ip link set ext1 up && ip link set lo up"

  run create kavix8 --subnet 192.168.8.0/24 --adapter --dhcp --nat --name "Lab network"
  run dhcp kavix8 map add 02:11:22:33:44:55 192.168.8.10
  run nat kavix8 forward add tcp 8080 192.168.8.10:80 --description "web server"
  run dhcp kavix8 param set domain-name lab.example
  run service kavix8 start
  run list
  run show kavix8
  run db export -

  step "a guest: namespace \"guest\", its veth port on the bridge kavix8, real dhclient"
  ip netns add guest
  ip link add gv0 type veth peer name gv1 && ip link set gv1 netns guest && ip link set gv0 master kavix8 up
  ip netns exec guest sh -c "ip link set gv1 address 02:11:22:33:44:55 && ip link set gv1 up && ip link set lo up"
  ip netns exec guest timeout 40 dhclient -sf /bin/true -lf /run/guest.leases -pf /run/guest.pid -1 gv1
  grep -E "fixed-address|option routers" /run/guest.leases | sort -u
  kill "$(cat /run/guest.pid)"
  ip netns exec guest sh -c "ip addr add 192.168.8.10/24 dev gv1 && ip route add default via 192.168.8.2"
  server="import socket,sys;s=socket.socket();s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1);s.bind((\"0.0.0.0\",int(sys.argv[1])));s.listen();c,a=s.accept();c.sendall((sys.argv[2]+\" sees a connection from \"+a[0]).encode());c.close()"
  client="import socket,sys;s=socket.create_connection((sys.argv[1],int(sys.argv[2])),5);print(s.recv(200).decode())"

  step "the guest connects to 10.99.0.2:8000 outside, through NAT"
  ip netns exec outside timeout 20 python3 -c "$server" 8000 outside & sleep 0.5
  ip netns exec guest python3 -c "$client" 10.99.0.2 8000

  step "the outside connects to the host 10.99.0.1:8080, forwarded to the guest port 80"
  ip netns exec guest timeout 20 python3 -c "$server" 80 guest & sleep 0.5
  ip netns exec outside python3 -c "$client" 10.99.0.1 8080

  run service kavix8 stop
  step "after stop: nftables tables and kavix8"
  nft list tables; ip link show kavix8 2>&1 | head -1
'
