#!/bin/bash
# Runs a command in a root folder, with its own processes and mounts, which end with it. Needs root
# rights.
#
#   scripts/in-root.sh ROOT COMMAND...
set -euo pipefail

root=$1
shift
cp /etc/resolv.conf "$root/etc/resolv.conf"
# shellcheck disable=SC2016  # the inner shell expands it
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root \
  DEBIAN_FRONTEND=noninteractive TERM=dumb \
  unshare --mount --pid --fork --kill-child \
  sh -ec 'mount -t proc proc "$0/proc"; exec chroot "$0" "$@"' "$root" "$@"
