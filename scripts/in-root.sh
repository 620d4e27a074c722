#!/bin/bash
# Unpacks an archive of scripts/bare-root.sh into memory and runs a command there, with FOLDER as
# /mnt. Root folder, processes and mounts end with it. Needs root rights.
#
#   scripts/in-root.sh ARCHIVE FOLDER COMMAND...
set -euo pipefail

archive=$1
folder=$2
shift 2
root=$(dirname "$archive")/root # nothing is seen of it from outside
mkdir -p "$root"
# shellcheck disable=SC2016  # the inner shell expands it
exec unshare --mount --pid --fork --kill-child sh -ec '
  archive=$1 folder=$2 root=$3
  shift 3
  mount -t tmpfs -o mode=755 tmpfs "$root"
  tar -C "$root" -xf "$archive"
  mkdir -p "$root/mnt"
  mount --bind "$folder" "$root/mnt"
  mount -t proc proc "$root/proc"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root TERM=dumb \
    DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"
' in-root "$archive" "$folder" "$root" "$@"
