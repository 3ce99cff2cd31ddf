#!/usr/bin/env bash
# Runs a command in a private mount and network namespace with fresh tmpfs
# over the library's fixed paths (/etc/tarsis through an overlay of /etc,
# /var/log, /run), so the host's files are never touched. Needs root.
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 COMMAND [ARG...]" >&2; exit 2; }
exec unshare --mount --net --propagation private bash -c '
  set -e
  mount -t tmpfs tmpfs /run
  mkdir -p /run/plr-etc/upper /run/plr-etc/work
  mount -t overlay overlay -o lowerdir=/etc,upperdir=/run/plr-etc/upper,workdir=/run/plr-etc/work /etc
  mkdir -p /etc/tarsis && mount -t tmpfs tmpfs /etc/tarsis
  mount -t tmpfs tmpfs /var/log
  exec "$@"' private-ns "$@"
